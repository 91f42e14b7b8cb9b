#pragma once

#include <common/Loop.h>
#include <common/Metrics.h>

#include <chrono>
#include <cstddef>
#include <string>
#include <unordered_map>
#include <vector>

namespace oryx::sip {

/// Sees that the connections that others open leave descriptors for everything else, and that none is kept by who never
/// says anything whole, or reads nothing. Where there are too many, whoever has most of them gives up those that have
/// been silent longest; who is not such a one keeps his.
///
/// It asks the system what there is, for the stack tells of no connection before it has brought a message.
class Connections {
public:
    /// `sockets` are the stack's; those of UDP do not matter.
    Connections(const Loop& loop, Metrics& metrics, tport_t* sockets);

    /// Somebody has sent a whole request by that connection.
    void heard(const tport_t* connection);

private:
    using Clock = std::chrono::steady_clock;
    struct Connection {
        int descriptor = -1;
        std::string peer; ///< Its address and port.
        std::chrono::milliseconds silent{0};
    };
    struct Peer {
        bool heard = false;
        Clock::time_point since;
    };

    void look();
    void makeRoom() const;
    void endMute();
    bool isHeard(const std::string& peer) const;
    void end(int descriptor) const;
    std::vector<Connection> find() const;
    bool isOurs(int descriptor) const;

    Metrics& m_metrics;
    std::vector<tport_t*> m_listening;
    std::vector<int> m_ports;
    int m_descriptors = 0; // as many as the process may have
    Clock::time_point m_looked = Clock::now();
    std::unordered_map<std::string, Peer> m_peers;
    Timer m_timer;
};

} // namespace oryx::sip
