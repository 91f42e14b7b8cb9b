#pragma once

#include <netinet/in.h>
#include <poll.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace server {

/// A socket, closed with the object.
class Socket {
public:
    explicit Socket(int fd = -1) : m_fd(fd) {}
    Socket(Socket&& other) noexcept : m_fd(other.m_fd) { other.m_fd = -1; }
    Socket& operator=(Socket&& other) noexcept;
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    ~Socket();

    int fd() const { return m_fd; }

private:
    int m_fd;
};

/// Stands between the library and the server, and loses connections when told to.
///
/// It listens on a port of its own, or on one that is given, of 127.0.0.1 or another loopback address, and serves from
/// a thread of its own; its operations are for the test's thread and count from their return on. The connections
/// through it must not be encrypted: it looks for statements.
class Proxy {
public:
    /// What gets lost of a statement, with the connection: nothing, the statement itself, or its answer, when the
    /// server has carried it out.
    enum class Loss { nothing, request, answer };

    explicit Proxy(const std::string& address = "127.0.0.1", const std::string& port = "0");
    ~Proxy();
    Proxy(const Proxy&) = delete;
    Proxy& operator=(const Proxy&) = delete;

    std::string port() const { return std::to_string(ntohs(m_address.sin_port)); }

    /// Cuts every connection there is; how many.
    std::size_t hangUp();
    /// Has these losses befall the next statements, one each.
    void lose(const std::vector<Loss>& losses);
    /// How many have befallen one.
    std::size_t losses();
    /// Has something happen when the server has carried out the next statement whose answer gets lost, before the loss
    /// is noticed. It runs on the serving thread, and must not need it.
    void meanwhile(std::function<void()> happens);
    /// Nobody listens from now on; or somebody does again.
    void refuse(bool refusing);
    /// Whatever is sent from now on gets nowhere, and nobody is told; or it arrives again.
    void swallow(bool swallowing);
    /// Every packet from the clients is lost from now on, and nothing is sent to them, as when the network is gone: no
    /// client's send is confirmed, no connection made. Or packets arrive again; what has been sent meanwhile comes
    /// late.
    void blackHole(bool dark);
    /// Connections that are made from now on are served only after so long.
    void delay(std::chrono::milliseconds delay);
    /// Whatever a client sends from now on is answered only after so long.
    void lag(std::chrono::milliseconds lag);
    /// Connections that are made from now on hear notifications only with an answer, as through a pooler that lends
    /// sessions by the transaction; or they hear all again.
    void lend(bool lending);

private:
    struct Link {
        Socket client;
        Socket server;
        bool answered = false; // the client's next bytes begin a message: it waits for every answer
        bool loseAnswer = false;
        bool open = true;
        bool lent = false;
        std::chrono::steady_clock::time_point from; // served from then on
        bool asked = true;                          // it waits for an answer, or to be let in
        std::string partial;                        // the beginning of a message from the server
    };

    void serve();
    std::vector<pollfd> watched();
    bool isServed(const Link& link) const;
    void accept();
    void forward(Link& link, bool fromClient);
    bool isLost(Link& link, bool fromClient, char first);
    static std::string withoutUnasked(Link& link, std::string_view bytes);

    Socket m_reservation; // bound and never listening: keeps the port while nobody listens
    sockaddr_in m_address;
    Socket m_listener;
    std::list<Link> m_links;
    std::deque<Loss> m_losses;
    std::size_t m_befallen = 0;
    std::function<void()> m_meanwhile;
    bool m_swallowing = false;
    bool m_dark = false;
    std::chrono::milliseconds m_delay{0};
    std::chrono::milliseconds m_lag{0};
    bool m_lending = false;
    std::mutex m_mutex;
    std::atomic<bool> m_stop = false;
    std::thread m_thread;
};

} // namespace server
