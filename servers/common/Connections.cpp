#include <common/Connections.h>

#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <tuple>

namespace oryx::sip {

namespace {

constexpr std::chrono::milliseconds kRoomPeriod{100};
constexpr std::chrono::seconds kMutePeriod{8};
constexpr std::chrono::seconds kMutePatience{32}; // as long as a transaction waits for anything

int mostDescriptors()
{
    rlimit limit{};
    return getrlimit(RLIMIT_NOFILE, &limit) == 0 ? static_cast<int>(std::min<rlim_t>(limit.rlim_cur, 1U << 20U)) : 1024;
}

/// Address and port as they stand in memory: of IPv6 the network, which is one telephone's or one house's.
std::string networkOf(const std::string& peer)
{
    return peer.size() > sizeof(in_addr) + sizeof(in_port_t) ? peer.substr(0, 8) : peer.substr(0, sizeof(in_addr));
}

std::string peerOf(const su_sockaddr_t& address)
{
    std::string text;
    if (address.su_family == AF_INET6) {
        text.assign(reinterpret_cast<const char*>(&address.su_sin6.sin6_addr), sizeof(in6_addr));
    } else {
        text.assign(reinterpret_cast<const char*>(&address.su_sin.sin_addr), sizeof(in_addr));
    }
    return text.append(reinterpret_cast<const char*>(&address.su_port), sizeof(in_port_t));
}

tcp_info stateOf(int descriptor)
{
    tcp_info info{};
    socklen_t size = sizeof info;
    getsockopt(descriptor, IPPROTO_TCP, TCP_INFO, &info, &size);
    return info;
}

/// Since when nothing has come, not even a sign of life.
std::chrono::milliseconds silenceOf(int descriptor)
{
    return std::chrono::milliseconds(stateOf(descriptor).tcpi_last_data_recv);
}

/// Whether there is something for the peer of which he has let nothing through for long. The system asks such a one
/// for ever whether he reads again, unless it is told to give up everybody who once loses a sign of life.
bool readsNothing(int descriptor)
{
    int waiting = 0;
    return ioctl(descriptor, SIOCOUTQNSD, &waiting) == 0 && waiting > 0 &&
           std::chrono::milliseconds(stateOf(descriptor).tcpi_last_data_sent) >= kMutePatience;
}

/// Throws away what waits for a peer and resets the connection, where an end would have to wait for that.
void reset(int descriptor)
{
    const sockaddr nobody{AF_UNSPEC, {}};
    static_cast<void>(connect(descriptor, &nobody, sizeof nobody));
}

} // namespace

Connections::Connections(const Loop& loop, Metrics& metrics, tport_t* sockets)
    : m_metrics(metrics), m_timer(loop, [this] { look(); })
{
    for (tport_t* socket = sockets; socket != nullptr; socket = tport_next(socket)) {
        if (tport_is_tcp(socket) != 0) {
            m_listening.push_back(socket);
            const auto* const address = reinterpret_cast<const su_sockaddr_t*>(tport_get_address(socket)->ai_addr);
            m_ports.push_back(ntohs(address->su_port));
        }
    }
    if (!m_listening.empty()) {
        m_timer.set(kRoomPeriod);
    }
}

void Connections::heard(const tport_t* connection)
{
    m_peers[peerOf(*reinterpret_cast<const su_sockaddr_t*>(tport_get_address(connection)->ai_addr))].heard = true;
}

/// The lowest free descriptor tells whether a quarter of them is left. Where it is not, nobody new is let in, who would
/// have the rest and keep the loop busy with what it cannot accept.
void Connections::look()
{
    m_descriptors = mostDescriptors(); // which may be changed while it runs
    const int lowest = eventfd(0, EFD_CLOEXEC);
    close(lowest);
    const bool full = lowest < 0 || lowest >= m_descriptors / 4 * 3;
    for (tport_t* const socket : m_listening) {
        full ? tport_stall(socket) : tport_continue(socket);
    }
    if (full) {
        makeRoom();
    }
    if (Clock::now() - m_looked >= kMutePeriod) {
        m_looked = Clock::now();
        endMute();
    }
    m_timer.set(kRoomPeriod);
}

/// Ends an eighth: those who are furthest down among their own network's, and of such as are equally far the mute. Who
/// has just come is mute; he goes first among his own only.
void Connections::makeRoom() const
{
    std::map<std::string, std::vector<std::tuple<bool, std::chrono::milliseconds, int>>> networks;
    for (const Connection& connection : find()) {
        networks[networkOf(connection.peer)].emplace_back(!isHeard(connection.peer), connection.silent,
                                                          connection.descriptor);
    }
    std::vector<std::tuple<std::size_t, bool, int>> order; // rank, mute, descriptor
    for (auto& [network, connections] : networks) {
        std::sort(connections.begin(), connections.end());
        for (std::size_t n = 0; n < connections.size(); ++n) {
            order.emplace_back(n, std::get<0>(connections[n]), std::get<2>(connections[n]));
        }
    }
    std::sort(order.rbegin(), order.rend());
    order.resize(std::min(order.size() / 2, static_cast<std::size_t>(m_descriptors) / 8));
    for (const auto& [rank, mute, descriptor] : order) {
        end(descriptor);
    }
}

bool Connections::isHeard(const std::string& peer) const
{
    const auto known = m_peers.find(peer);
    return known != m_peers.end() && known->second.heard;
}

/// The stack sees that as the peer's end.
void Connections::end(int descriptor) const
{
    shutdown(descriptor, SHUT_RDWR);
    m_metrics.connectionClosed();
}

/// Ends those that have not brought a whole request in time, however busily they bring parts of one, and those whose
/// peers do not read.
void Connections::endMute()
{
    std::unordered_map<std::string, Peer> present;
    for (const Connection& connection : find()) {
        const auto known = m_peers.find(connection.peer);
        const Peer peer = known != m_peers.end() ? known->second : Peer{false, m_looked};
        if (readsNothing(connection.descriptor)) {
            reset(connection.descriptor);
            m_metrics.connectionClosed();
        } else if (!peer.heard && m_looked - peer.since >= kMutePatience) {
            end(connection.descriptor);
        }
        present.emplace(connection.peer, peer);
    }
    m_peers = std::move(present);
}

/// Those that others have opened.
std::vector<Connections::Connection> Connections::find() const
{
    std::vector<Connection> found;
    for (int descriptor = 0; descriptor < m_descriptors; ++descriptor) {
        su_sockaddr_t peer{};
        socklen_t size = sizeof peer;
        if (isOurs(descriptor) && getpeername(descriptor, &peer.su_sa, &size) == 0) {
            SU_CANONIZE_SOCKADDR(&peer); // as the stack does: a socket of IPv6 may be reached by IPv4
            found.push_back({descriptor, peerOf(peer), silenceOf(descriptor)});
        }
    }
    return found;
}

bool Connections::isOurs(int descriptor) const
{
    su_sockaddr_t own{};
    socklen_t size = sizeof own;
    int type = 0;
    socklen_t length = sizeof type;
    return getsockname(descriptor, &own.su_sa, &size) == 0 && (own.su_family == AF_INET || own.su_family == AF_INET6) &&
           std::find(m_ports.begin(), m_ports.end(), ntohs(own.su_port)) != m_ports.end() &&
           getsockopt(descriptor, SOL_SOCKET, SO_TYPE, &type, &length) == 0 && type == SOCK_STREAM;
}

} // namespace oryx::sip
