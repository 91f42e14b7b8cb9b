#pragma once

#include "sip/Program.h"

#include <filesystem>
#include <memory>
#include <string>

/// A telephone that nobody here wrote: baresip, without a screen and without a sound card. It hears a tone and records
/// what it is told.
class Baresip {
public:
    /// A telephone of user@oryx.example, with the user's name as its password unless another is given, at the proxy on
    /// that port; it registers for so many seconds.
    Baresip(const std::string& user, int proxy, const std::string& password = "", int seconds = 60);
    /// One that does not register, but publishes its presence through that server, and watches that of somebody unless
    /// `watched`, an address of record, is empty.
    static std::unique_ptr<Baresip> withPresence(const std::string& user, int server, const std::string& watched);
    ~Baresip();
    Baresip(const Baresip&) = delete;
    Baresip& operator=(const Baresip&) = delete;

    /// Has it do something: "dial", "sip:bob@oryx.example".
    void command(const std::string& name, const std::string& parameters = "");
    /// Calls bob, who has that telephone and accepts; false when they are not connected in time.
    bool reaches(Baresip& bob);
    /// Waits until it tells of such an event ("REGISTER_OK"); false when it does not in time.
    bool tells(const std::string& event, int seconds = 15);
    /// Waits until it shows whom it watches as "Online" or "Offline"; false when it does not in time.
    bool sees(const std::string& presence, int seconds = 15);
    /// Waits until it has heard the other's tone for half a second from now on; false when it does not in time.
    bool hears(int seconds = 15) const;
    /// What it has said so far, for whoever wonders why a test has failed.
    std::string said() const { return m_said + "\n" + m_program->soFar(); }

private:
    Baresip(const std::string& accounts, const std::string& contacts);
    /// How many seconds of the other's tone it has recorded.
    double heard() const;
    bool read(int milliseconds);

    std::filesystem::path m_folder;
    std::unique_ptr<Program> m_program;
    int m_control = -1;
    std::string m_said;
    std::size_t m_seen = 0;
};
