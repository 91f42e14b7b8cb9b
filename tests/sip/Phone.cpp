#include "sip/Phone.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sodium.h>
#include <sofia-sip/su_md5.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstring>
#include <initializer_list>
#include <stdexcept>

namespace phone {

namespace {

sockaddr_storage addressOf(const std::string& host, int port, socklen_t& size)
{
    sockaddr_storage address{};
    if (host.find(':') != std::string::npos) {
        auto* const six = reinterpret_cast<sockaddr_in6*>(&address);
        six->sin6_family = AF_INET6;
        six->sin6_port = htons(static_cast<std::uint16_t>(port));
        inet_pton(AF_INET6, host.c_str(), &six->sin6_addr);
        size = sizeof(sockaddr_in6);
    } else {
        auto* const four = reinterpret_cast<sockaddr_in*>(&address);
        four->sin_family = AF_INET;
        four->sin_port = htons(static_cast<std::uint16_t>(port));
        inet_pton(AF_INET, host.c_str(), &four->sin_addr);
        size = sizeof(sockaddr_in);
    }
    return address;
}

int bound(int type, const std::string& host, int port)
{
    socklen_t size = 0;
    const sockaddr_storage address = addressOf(host, port, size);
    const int descriptor = ::socket(address.ss_family, type | SOCK_CLOEXEC, 0);
    if (descriptor < 0 || ::bind(descriptor, reinterpret_cast<const sockaddr*>(&address), size) != 0) {
        ::close(descriptor);
        return -1;
    }
    return descriptor;
}

int portOf(int descriptor)
{
    sockaddr_storage address{};
    socklen_t size = sizeof address;
    ::getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &size);
    return ntohs(address.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6*>(&address)->sin6_port
                                               : reinterpret_cast<sockaddr_in*>(&address)->sin_port);
}

/// One that nobody else has used.
std::string unique()
{
    static std::atomic<unsigned> last{0};
    return std::to_string(::getpid()) + "-" + std::to_string(++last);
}

std::string hash(const std::string& algorithm, std::initializer_list<std::string> parts)
{
    std::string text;
    for (const std::string& part : parts) {
        text += (text.empty() ? "" : ":") + part;
    }
    std::array<unsigned char, 32> digest{};
    const auto* const bytes = reinterpret_cast<const unsigned char*>(text.data());
    std::size_t size = 32;
    if (algorithm == "MD5") {
        su_md5_t md5{};
        su_md5_init(&md5);
        su_md5_update(&md5, bytes, static_cast<usize_t>(text.size()));
        su_md5_digest(&md5, digest.data());
        size = 16;
    } else {
        crypto_hash_sha256(digest.data(), bytes, text.size());
    }
    std::string hex(2 * size + 1, '\0');
    sodium_bin2hex(hex.data(), hex.size(), digest.data(), size);
    hex.pop_back();
    return hex;
}

bool same(const std::string& left, const std::string& right)
{
    return strcasecmp(left.c_str(), right.c_str()) == 0;
}

} // namespace

Message Message::parse(const std::string& text)
{
    Message message;
    std::size_t at = text.find("\r\n");
    message.first = text.substr(0, at);
    while (at != std::string::npos) {
        const std::size_t begin = at + 2;
        at = text.find("\r\n", begin);
        const std::string line = text.substr(begin, at - begin);
        if (line.empty()) {
            message.body = at != std::string::npos ? text.substr(begin + 2) : "";
            break;
        }
        const std::size_t colon = line.find(':');
        const std::size_t value = line.find_first_not_of(' ', colon + 1);
        if (line.starts_with("Content-Length:")) {
            continue; // the body tells
        }
        message.fields.emplace_back(line.substr(0, colon), value != std::string::npos ? line.substr(value) : "");
    }
    return message;
}

std::string Message::text() const
{
    std::string text = first + "\r\n";
    for (const auto& [name, value] : fields) {
        text.append(name).append(": ").append(value).append("\r\n");
    }
    return text + "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

int Message::status() const
{
    return first.starts_with("SIP/2.0 ") ? std::stoi(first.substr(8)) : 0;
}

std::string Message::method() const
{
    return first.substr(0, first.find(' '));
}

std::string Message::field(const std::string& name) const
{
    std::string values;
    for (const auto& [known, value] : fields) {
        if (same(known, name)) {
            values.append(values.empty() ? "" : ", ").append(value);
        }
    }
    return values;
}

std::string Message::parameter(const std::string& name, const std::string& parameter, std::size_t nth) const
{
    for (const auto& [known, value] : fields) {
        if (!same(known, name) || nth-- != 0) {
            continue;
        }
        std::size_t at = value.find(parameter + "=");
        if (at == std::string::npos) {
            return "";
        }
        at += parameter.size() + 1;
        const bool quoted = value[at] == '"';
        const std::size_t end = value.find_first_of(quoted ? "\"" : ";, >", at + (quoted ? 1 : 0));
        return value.substr(at + (quoted ? 1 : 0), end - at - (quoted ? 1 : 0));
    }
    return "";
}

Message& Message::set(const std::string& name, const std::string& value)
{
    std::erase_if(fields, [&](const auto& field) { return same(field.first, name); });
    return value.empty() ? *this : add(name, value);
}

Message& Message::add(const std::string& name, const std::string& value)
{
    fields.emplace_back(name, value);
    return *this;
}

Socket::Socket(const std::string& host, Transport transport)
    : m_host(host),
      m_transport(transport),
      m_socket(bound(transport == Transport::udp ? SOCK_DGRAM : SOCK_STREAM, host, 0)),
      m_port(portOf(m_socket))
{
    if (m_socket < 0) {
        throw std::runtime_error("no socket at " + host);
    }
}

Socket::~Socket()
{
    ::close(m_socket);
}

std::string Socket::hostPort() const
{
    const bool six = m_host.find(':') != std::string::npos;
    return (six ? "[" + m_host + "]" : m_host) + ":" + std::to_string(m_port);
}

void Socket::send(int port, const std::string& text)
{
    socklen_t size = 0;
    const sockaddr_storage to = addressOf(m_host, port, size);
    const auto* const address = reinterpret_cast<const sockaddr*>(&to);
    if (m_transport == Transport::udp) {
        ::sendto(m_socket, text.data(), text.size(), 0, address, size);
        return;
    }
    if (!m_connected && ::connect(m_socket, address, size) != 0) {
        throw std::runtime_error("nobody listens");
    }
    m_connected = true;
    const int yes = 1;
    ::setsockopt(m_socket, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
    for (std::size_t sent = 0; sent < text.size();) {
        const ssize_t some = ::send(m_socket, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
        if (some <= 0) {
            return; // the peer has closed it
        }
        sent += static_cast<std::size_t>(some);
    }
}

void Socket::fill(int port, const std::string& text)
{
    constexpr timeval kPatience{0, 500000};
    constexpr int kSmall = 4096;
    constexpr int kEnough = 1000;
    ::setsockopt(m_socket, SOL_SOCKET, SO_RCVBUF, &kSmall, sizeof kSmall);
    ::setsockopt(m_socket, SOL_SOCKET, SO_SNDTIMEO, &kPatience, sizeof kPatience);
    send(port, text);
    for (int n = 0; n < kEnough; ++n) {
        if (::send(m_socket, text.data(), text.size(), MSG_NOSIGNAL) < static_cast<ssize_t>(text.size())) {
            return;
        }
    }
}

std::string Socket::receive(int milliseconds)
{
    for (;;) {
        m_unread.erase(0, m_unread.find_first_not_of("\r\n")); // signs of life
        const std::size_t end = m_unread.find("\r\n\r\n");
        const std::size_t length = m_unread.find("Content-Length: ");
        if (end != std::string::npos && length < end) {
            const std::size_t size = end + 4 + std::stoul(m_unread.substr(length + 16));
            if (m_unread.size() >= size) {
                const std::string message = m_unread.substr(0, size);
                m_unread.erase(0, size);
                return message;
            }
        }
        if (silent(milliseconds)) {
            throw std::runtime_error("nothing came");
        }
        std::string text = take();
        if (m_transport == Transport::udp) {
            return text;
        }
        if (text.empty()) {
            throw std::runtime_error("the connection was closed");
        }
        m_unread += text;
    }
}

std::string Socket::take()
{
    std::array<char, 65536> text{};
    const ssize_t size = ::recv(m_socket, text.data(), text.size(), 0);
    return {text.data(), size > 0 ? static_cast<std::size_t>(size) : 0};
}

bool Socket::closed(int milliseconds) const
{
    std::array<char, 65536> text{};
    while (!silent(milliseconds)) {
        if (::recv(m_socket, text.data(), text.size(), 0) <= 0) {
            return true;
        }
    }
    return false;
}

bool Socket::silent(int milliseconds) const
{
    pollfd socket{m_socket, POLLIN, 0};
    return ::poll(&socket, 1, milliseconds) == 0;
}

int freePort(const std::string& host)
{
    // Below those that the system gives to connections, which come and go; each process begins elsewhere.
    static int last = 10000 + ::getpid() * 16 % 20000;
    for (;;) {
        last = last < 30000 ? last + 2 : 10000; // where some listen for TLS
        const int udp = bound(SOCK_DGRAM, host, last);
        const int tcp = bound(SOCK_STREAM, host, last);
        ::close(udp);
        ::close(tcp);
        if (udp >= 0 && tcp >= 0) {
            return last;
        }
    }
}

namespace {

/// What all credentials say: whom they answer, and what they are for.
struct Proof {
    Proof(const Message& request, const Message& challenge)
    {
        const std::string name = challenge.status() == 407 ? "Proxy-Authenticate" : "WWW-Authenticate";
        const std::size_t begin = request.method().size() + 1;
        realm = challenge.parameter(name, "realm");
        nonce = challenge.parameter(name, "nonce");
        uri = request.first.substr(begin, request.first.rfind(' ') - begin);
    }
    std::string text(const std::string& user) const
    {
        return "Digest username=\"" + user + "\", realm=\"" + realm + "\", nonce=\"" + nonce + "\", uri=\"" + uri +
               "\"";
    }

    std::string realm;
    std::string nonce;
    std::string uri;
};

} // namespace

Phone::Phone(std::string user, std::string domain, int server, const std::string& host, Transport transport)
    : callId("call-" + unique()),
      m_user(std::move(user)),
      m_domain(std::move(domain)),
      m_server(server),
      m_socket(host, transport)
{
}

std::string Phone::contact() const
{
    return "sip:" + m_user + "@" + m_socket.hostPort() +
           (m_socket.transport() == Transport::tcp ? ";transport=tcp" : "");
}

std::string Phone::via() const
{
    return std::string("SIP/2.0/") + (m_socket.transport() == Transport::tcp ? "TCP " : "UDP ") + m_socket.hostPort() +
           ";branch=z9hG4bK" + unique() + ";rport";
}

Message Phone::request(const std::string& method, const std::string& uri, const std::string& to)
{
    Message message;
    message.first = method + " " + uri + " SIP/2.0";
    message.add("Via", via());
    message.add("Max-Forwards", "70");
    message.add("From", "<" + address() + ">;tag=" + unique());
    message.add("To", "<" + (to.empty() ? uri : to) + ">");
    message.add("Call-ID", method == "REGISTER" ? callId : "call-" + unique());
    message.add("CSeq", std::to_string(++cseq) + " " + method);
    message.add("Contact", "<" + contact() + ">");
    return message;
}

Message Phone::registration(const std::string& contact, int expires)
{
    Message message = request("REGISTER", "sip:" + m_domain, address());
    message.set("Contact", contact);
    if (expires >= 0) {
        message.set("Expires", std::to_string(expires));
    }
    return message;
}

Message Phone::ask(const Message& request)
{
    send(request);
    for (;;) {
        Message answer = receive();
        if (answer.status() >= 200 && answer.field("CSeq") == request.field("CSeq")) {
            return answer;
        }
    }
}

std::string Phone::credentials(const Message& request, const Message& challenge, const std::string& password,
                               const std::string& algorithm) const
{
    const Proof proof(request, challenge);
    const std::string response =
        hash(algorithm, {hash(algorithm, {m_user, proof.realm, password}), proof.nonce, "00000001", "cnonce", "auth",
                         hash(algorithm, {request.method(), proof.uri})});
    return proof.text(m_user) + ", algorithm=" + algorithm + ", qop=auth, nc=00000001, cnonce=\"cnonce\", response=\"" +
           response + "\"";
}

std::string Phone::oldCredentials(const Message& request, const Message& challenge, const std::string& password) const
{
    const Proof proof(request, challenge);
    const std::string response = hash(
        "MD5", {hash("MD5", {m_user, proof.realm, password}), proof.nonce, hash("MD5", {request.method(), proof.uri})});
    return proof.text(m_user) + ", response=\"" + response + "\"";
}

Message Phone::ask(Message request, const std::string& password, const std::string& algorithm)
{
    const Message challenge = ask(request);
    if (challenge.status() != 401 && challenge.status() != 407) {
        return challenge;
    }
    request.set("CSeq", std::to_string(++cseq) + " " + request.method());
    request.set("Via", via());
    request.set(challenge.status() == 401 ? "Authorization" : "Proxy-Authorization",
                credentials(request, challenge, password, algorithm));
    return ask(request);
}

Message Phone::response(const Message& request, int status, const std::string& phrase) const
{
    Message message;
    message.first = "SIP/2.0 " + std::to_string(status) + " " + phrase;
    for (const auto& [name, value] : request.fields) {
        if (same(name, "Via") || same(name, "From") || same(name, "Call-ID") || same(name, "CSeq") ||
            same(name, "Record-Route")) {
            message.add(name, value);
        } else if (same(name, "To")) {
            message.add(name, value.find(";tag=") != std::string::npos ? value : value + ";tag=" + m_user);
        }
    }
    message.add("Contact", "<" + contact() + ">");
    return message;
}

} // namespace phone
