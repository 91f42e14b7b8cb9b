#pragma once

#include "support/Server.h"

#include <sys/types.h>

#include <string>
#include <vector>

namespace server {

/// The throw-away server itself, told to stop and to start. It must be the program's own. Where a test has failed while
/// it was stopped, it starts with the object's end, for the tests that follow.
class ServerControl {
public:
    explicit ServerControl(Session& session);
    ~ServerControl();
    ServerControl(const ServerControl&) = delete;
    ServerControl& operator=(const ServerControl&) = delete;

    const std::string& folder() const { return m_folder; }

    /// "fast": sessions are told and ended; "immediate": the server is gone as after a crash.
    void stop(const std::string& mode);
    /// Without waiting for the sessions to end.
    void beginToStop(const std::string& mode);
    void start();
    /// Without waiting until it takes sessions.
    void beginToStart();
    void restart(const std::string& mode)
    {
        stop(mode);
        start();
    }

private:
    std::string starting() const;
    void control(const std::string& what) const;
    bool run(const std::string& what) const;

    std::string m_folder;
    std::string m_program;
    std::string m_settings;
    bool m_stopped = false;
};

/// Processes, asked not to run; they run again with the object's end.
class Stopped {
public:
    explicit Stopped(std::vector<pid_t> processes);
    /// All processes of the server with its data in that folder.
    explicit Stopped(const std::string& folder);
    ~Stopped();
    Stopped(const Stopped&) = delete;
    Stopped& operator=(const Stopped&) = delete;

private:
    void signal(int number) const;

    std::vector<pid_t> m_processes;
};

} // namespace server
