#pragma once

#include <dal/internal/BoundSession.h>

#include <libpq-fe.h>

#include <poll.h>

#include <span>
#include <string>
#include <vector>

namespace oryx {

/// The hosts that a connection was begun to, wherever libpq found them: text, service file or environment.
class HostList {
public:
    HostList() = default;
    explicit HostList(PGconn* begun);

    /// Leaves out the host that a connection waits for, or ended at; false when it is at none of these, or no other is
    /// left.
    bool leaveOut(const PGconn* waiting);
    /// Begins a connection to these instead of the text's.
    Connection connect(const std::string& connectionString) const;

private:
    struct Host {
        std::string name;
        std::string address;
        std::string port;

        bool isOf(const PGconn* connection) const;
        /// Whether it is the default socket, whose folder only libpq knows, and this may be a connection there.
        bool mayBeOf(const PGconn* connection) const;
    };

    std::string list(std::string Host::*part) const;

    std::vector<Host> m_hosts;
    bool m_mixed = false; // some have no name, address or port of their own, where others do
};

/// A connection in the making. libpq goes from a host that refuses to the next by itself, but waits for one that is
/// silent. Further attempts then go to the other hosts, beside it: it may only be slow.
class ConnectAttempts {
public:
    explicit ConnectAttempts(const std::string& connectionString);

    /// Whether none has succeeded yet, and one may.
    bool underWay() const;
    /// Whether one has.
    bool succeeded() const;
    /// Begins one more, without the host that the latest waits for; false if that leaves none, or there is no memory.
    bool beginAnother();
    /// What to wait for; the last is what interrupts.
    std::span<pollfd> sockets(int interruption);
    /// Goes on with those whose sockets are ready by now.
    void goOn();
    /// What libpq has said so far of the hosts that took no connection.
    std::string refusals() const;
    /// The connection that was made; else the first attempt, which has gone to every host and says why.
    Connection take();

private:
    struct Attempt {
        Connection connection;
        PostgresPollingStatusType wanted = PGRES_POLLING_WRITING;

        bool succeeded() const { return wanted == PGRES_POLLING_OK; }
        bool underWay() const;
    };

    bool beginWithoutLatest();

    const std::string& m_connectionString;
    std::vector<Attempt> m_attempts;
    std::vector<pollfd> m_sockets; // one of each attempt, and what interrupts
    HostList m_hosts;
};

} // namespace oryx
