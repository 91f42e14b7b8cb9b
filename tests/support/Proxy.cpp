#include "support/Proxy.h"

#include "support/Server.h"

#include <arpa/inet.h>
#include <linux/filter.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string_view>
#include <system_error>
#include <utility>

namespace server {

namespace {

// How long a change of what is watched may go unnoticed by the serving thread.
constexpr int kTickMilliseconds = 10;

int check(int outcome)
{
    if (outcome < 0) {
        throw std::system_error(errno, std::generic_category(), "proxy");
    }
    return outcome;
}

sockaddr_in addressOf(const std::string& host, const std::string& port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = ::inet_addr(host.c_str());
    address.sin_port = htons(static_cast<std::uint16_t>(std::stoi(port)));
    return address;
}

Socket newSocket()
{
    Socket made(check(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)));
    const int on = 1;
    check(::setsockopt(made.fd(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on));
    return made;
}

Socket bound(const sockaddr_in& address)
{
    Socket made = newSocket();
    const int on = 1;
    check(::setsockopt(made.fd(), SOL_SOCKET, SO_REUSEPORT, &on, sizeof on));
    check(::bind(made.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address));
    return made;
}

sockaddr_in addressOf(const Socket& socket)
{
    sockaddr_in address{};
    socklen_t size = sizeof address;
    check(::getsockname(socket.fd(), reinterpret_cast<sockaddr*>(&address), &size));
    return address;
}

/// Has the kernel drop every packet for a socket, before it is confirmed; or no longer.
void dropPackets(const Socket& socket, bool dropping)
{
    sock_filter nothing{BPF_RET | BPF_K, 0, 0, 0}; // of each packet, pass 0 bytes on
    const sock_fprog program{1, &nothing};
    check(::setsockopt(socket.fd(), SOL_SOCKET, dropping ? SO_ATTACH_FILTER : SO_DETACH_FILTER, &program,
                       sizeof program));
}

bool sendAll(int fd, const char* bytes, std::size_t size)
{
    while (size > 0) {
        const ssize_t sent = ::send(fd, bytes, size, MSG_NOSIGNAL);
        if (sent <= 0) {
            return false;
        }
        bytes += sent;
        size -= static_cast<std::size_t>(sent);
    }
    return true;
}

} // namespace

Socket& Socket::operator=(Socket&& other) noexcept
{
    std::swap(m_fd, other.m_fd);
    return *this;
}

Socket::~Socket()
{
    if (m_fd >= 0) {
        // A close alone would count only when the serving thread's poll has returned.
        ::shutdown(m_fd, SHUT_RDWR);
        ::close(m_fd);
    }
}

Proxy::Proxy(const std::string& address, const std::string& port)
    : m_reservation(bound(addressOf(address, port))), m_address(addressOf(m_reservation))
{
    refuse(false);
    m_thread = std::thread([this] { serve(); });
}

Proxy::~Proxy()
{
    m_stop = true;
    m_thread.join();
}

std::size_t Proxy::hangUp()
{
    const std::lock_guard lock(m_mutex);
    return std::exchange(m_links, {}).size();
}

void Proxy::lose(const std::vector<Loss>& losses)
{
    const std::lock_guard lock(m_mutex);
    m_losses.assign(losses.begin(), losses.end());
}

std::size_t Proxy::losses()
{
    const std::lock_guard lock(m_mutex);
    return m_befallen;
}

void Proxy::meanwhile(std::function<void()> happens)
{
    const std::lock_guard lock(m_mutex);
    m_meanwhile = std::move(happens);
}

void Proxy::refuse(bool refusing)
{
    const std::lock_guard lock(m_mutex);
    m_listener = refusing ? Socket() : bound(m_address);
    if (!refusing) {
        check(::listen(m_listener.fd(), SOMAXCONN));
    }
}

void Proxy::swallow(bool swallowing)
{
    const std::lock_guard lock(m_mutex);
    m_swallowing = swallowing;
}

void Proxy::blackHole(bool dark)
{
    const std::lock_guard lock(m_mutex);
    m_dark = dark;
    dropPackets(m_listener, dark);
    for (const Link& link : m_links) {
        dropPackets(link.client, dark);
    }
}

void Proxy::delay(std::chrono::milliseconds delay)
{
    const std::lock_guard lock(m_mutex);
    m_delay = delay;
}

void Proxy::lag(std::chrono::milliseconds lag)
{
    const std::lock_guard lock(m_mutex);
    m_lag = lag;
}

void Proxy::lend(bool lending)
{
    const std::lock_guard lock(m_mutex);
    m_lending = lending;
}

void Proxy::serve()
{
    while (!m_stop) {
        std::vector<pollfd> sockets = watched();
        ::poll(sockets.data(), sockets.size(), kTickMilliseconds);
        const std::lock_guard lock(m_mutex);
        accept();
        for (Link& link : m_links) {
            forward(link, true);
            forward(link, false);
        }
        m_links.remove_if([](const Link& link) { return !link.open; });
    }
}

std::vector<pollfd> Proxy::watched()
{
    const std::lock_guard lock(m_mutex);
    std::vector<pollfd> sockets{{m_listener.fd(), POLLIN, 0}};
    for (const Link& link : m_links) {
        if (isServed(link)) { // what waits at another would have poll return at once
            sockets.push_back({link.client.fd(), POLLIN, 0});
            sockets.push_back({link.server.fd(), POLLIN, 0});
        }
    }
    return sockets;
}

bool Proxy::isServed(const Link& link) const
{
    return !m_dark && std::chrono::steady_clock::now() >= link.from;
}

void Proxy::accept()
{
    pollfd waiting{m_listener.fd(), POLLIN, 0};
    if (::poll(&waiting, 1, 0) <= 0) {
        return;
    }
    Link link;
    link.client = Socket(::accept4(m_listener.fd(), nullptr, nullptr, SOCK_CLOEXEC));
    link.server = newSocket();
    link.lent = m_lending;
    link.from = std::chrono::steady_clock::now() + m_delay;
    const sockaddr_in address = addressOf("127.0.0.1", server::port());
    if (::connect(link.server.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
        m_links.push_back(std::move(link));
    }
}

void Proxy::forward(Link& link, bool fromClient)
{
    if (!isServed(link)) {
        return;
    }
    const int from = fromClient ? link.client.fd() : link.server.fd();
    const int to = fromClient ? link.server.fd() : link.client.fd();
    std::array<char, 65536> bytes;
    const ssize_t size = ::recv(from, bytes.data(), bytes.size(), MSG_DONTWAIT);
    if (size < 0 && errno == EAGAIN) {
        return;
    }
    link.open = link.open && size > 0 && !isLost(link, fromClient, bytes[0]);
    if (!link.open || m_swallowing) {
        return;
    }
    std::string passed(bytes.data(), static_cast<std::size_t>(size));
    if (fromClient) {
        link.asked = true;
        link.from = std::chrono::steady_clock::now() + m_lag;
    } else if (link.lent) {
        passed = withoutUnasked(link, passed);
    }
    link.open = sendAll(to, passed.data(), passed.size());
}

std::string Proxy::withoutUnasked(Link& link, std::string_view bytes)
{
    constexpr std::size_t kHead = 5; // a message's type, and its length without that
    std::string passed;
    link.partial += bytes;
    while (link.partial.size() >= kHead) {
        std::size_t size = 0;
        for (std::size_t i = 1; i < kHead; ++i) {
            size = size << 8U | static_cast<unsigned char>(link.partial.at(i));
        }
        ++size;
        if (link.partial.size() < size) {
            break;
        }
        const char type = link.partial.front();
        if (type != 'A' || link.asked) {
            passed.append(link.partial, 0, size);
        }
        link.asked = link.asked && type != 'Z'; // the server is ready for the next
        link.partial.erase(0, size);
    }
    return passed;
}

bool Proxy::isLost(Link& link, bool fromClient, char first)
{
    constexpr std::string_view kStatements = "QPB"; // a text; a preparation or an execution that begins a round trip
    if (!fromClient) {
        link.answered = true;
        if (link.loseAnswer && m_meanwhile) {
            std::exchange(m_meanwhile, nullptr)();
        }
        m_befallen += link.loseAnswer ? 1U : 0U;
        return link.loseAnswer;
    }
    if (!std::exchange(link.answered, false) || kStatements.find(first) == std::string_view::npos || m_losses.empty()) {
        return false;
    }
    const Loss loss = m_losses.front();
    m_losses.pop_front();
    link.loseAnswer = loss == Loss::answer;
    m_befallen += loss == Loss::request ? 1U : 0U;
    return loss == Loss::request;
}

} // namespace server
