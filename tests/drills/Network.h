#pragma once

#include "drills/Journal.h"
#include "support/Proxy.h"

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

namespace drill {

/// The moments of a drill's faults, and of the server's returns from them, in a file that shell scripts add to as well.
class Marks {
public:
    explicit Marks(std::string file) : m_file(std::move(file)) {}
    void fault(std::size_t count = 1) const { write("fault", count); } ///< So many that have befallen somebody.
    void back() const { write("back", 1); }

private:
    void write(const std::string& what, std::size_t count) const;

    std::string m_file;
};

/// The network between the workers and the server, and what is wrong with it.
class Network {
public:
    /// "answers": of statements the server has carried out, the answer is lost, with the connection, 20 times a second.
    /// "hang-ups": every connection is cut, five times a second. "silence": after two seconds every packet is lost for
    /// six.
    Network(const std::string& trouble, Marks marks);
    ~Network();
    Network(const Network&) = delete;
    Network& operator=(const Network&) = delete;

    std::string port() const { return m_relay.port(); }

private:
    void loseAnswers();
    void hangUp();
    void fallSilent();
    /// False when the drill is over.
    bool wait(std::chrono::milliseconds time) const;

    server::Proxy m_relay;
    Marks m_marks;
    std::atomic<bool> m_over = false;
    std::thread m_thread;
};

} // namespace drill
