// STUN beside SIP at the same socket. The stack's own server writes a line to standard error for each datagram, with
// which anybody could fill a log.

#include <common/Sofia.h>
#include <common/Stun.h>

extern "C" { // which this header leaves to its readers
#include <sofia-sip/tport_plugins.h>
}

#include <sys/socket.h>

#include <cerrno>
#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace oryx::sip {

namespace {

constexpr std::string_view kBindingRequest("\x00\x01", 2);
constexpr std::string_view kBindingResponse("\x01\x01", 2);
constexpr std::string_view kBindingError("\x01\x11", 2);
constexpr std::string_view kCookie("\x21\x12\xA4\x42", 4); // RFC 5389; a client of RFC 3489 has any number here
constexpr std::string_view kMappedAddress("\x00\x01", 2);
constexpr std::string_view kXorMappedAddress("\x00\x20", 2);
constexpr std::string_view kErrorCode("\x00\x09", 2);
constexpr std::string_view kUnknownAttributes("\x00\x0A", 2);
constexpr std::string_view kNotKnown("\x00\x00\x04\x14", 4); // 420
constexpr std::size_t kMostNotKnown = 4;                     // that are named; an answer stays small
constexpr std::size_t kHeader = 20;
constexpr std::size_t kCookieAt = 4;

std::size_t number(std::string_view text, std::size_t at)
{
    return static_cast<unsigned char>(text[at]) * 256U + static_cast<unsigned char>(text[at + 1]);
}

/// As an attribute's length and a message's are written.
std::string written(std::size_t number)
{
    return {static_cast<char>(number / 256), static_cast<char>(number % 256)};
}

std::string attribute(std::string_view type, const std::string& value)
{
    return std::string(type) + written(value.size()) + value + std::string((4 - value.size() % 4) % 4, '\0');
}

/// Of a Binding request the attributes that have to be understood, which are those below 0x8000; nothing for what is
/// no such request.
std::optional<std::string> notKnown(std::string_view request)
{
    if (request.size() < kHeader || !request.starts_with(kBindingRequest) ||
        number(request, 2) != request.size() - kHeader) {
        return std::nullopt;
    }
    std::string types;
    std::size_t at = kHeader;
    for (; at + 4 <= request.size(); at += 4 + (number(request, at + 2) + 3) / 4 * 4) {
        if (number(request, at) < 0x8000 && types.size() < kMostNotKnown * 2) {
            types += request.substr(at, 2);
        }
    }
    return at == request.size() ? std::optional(types) : std::nullopt;
}

/// Port and address, in the network's order.
std::string mapped(const su_sockaddr_t& client)
{
    const auto bytes = [](const auto& field) {
        const auto* const first = reinterpret_cast<const char*>(&field);
        return std::string(first, sizeof(field));
    };
    return bytes(client.su_port) +
           (client.su_family == AF_INET6 ? bytes(client.su_sin6.sin6_addr) : bytes(client.su_sin.sin_addr));
}

/// The client's address: where there is a cookie, hidden by it from NATs that change what looks like theirs.
std::string addressFor(std::string_view request, const su_sockaddr_t& client)
{
    std::string address = mapped(client);
    const bool hidden = request.substr(kCookieAt).starts_with(kCookie);
    for (std::size_t n = 0; hidden && n < address.size(); ++n) {
        address[n] = static_cast<char>(address[n] ^ request[kCookieAt + (n < 2 ? n : n - 2)]);
    }
    return attribute(hidden ? kXorMappedAddress : kMappedAddress,
                     written(client.su_family == AF_INET6 ? 2 : 1) + address);
}

std::string response(std::string_view request, const std::string& unknown, const su_sockaddr_t& client)
{
    const bool understood = unknown.empty();
    const std::string attributes =
        understood ? addressFor(request, client)
                   : attribute(kErrorCode, std::string(kNotKnown)) + attribute(kUnknownAttributes, unknown);
    return std::string(understood ? kBindingResponse : kBindingError) + written(attributes.size()) +
           std::string(request.substr(kCookieAt, kHeader - kCookieAt)) + attributes;
}

tport_stun_server_t* create(su_root_t* /*loop*/, const tagi_t* /*tags*/)
{
    static char nothing; // which the stack takes for a server
    return reinterpret_cast<tport_stun_server_t*>(&nothing);
}

void destroy(tport_stun_server_t* /*server*/) {}

int addedOrRemoved(tport_stun_server_t* /*server*/, su_socket_t /*socket*/)
{
    return 0;
}

void take(tport_stun_server_t* /*server*/, su_socket_t socket, void* data, ssize_t size, void* from, socklen_t length)
{
    const std::string_view request(static_cast<const char*>(data), static_cast<std::size_t>(size));
    if (const std::optional<std::string> unknown = notKnown(request)) {
        const std::string answer = response(request, *unknown, *static_cast<const su_sockaddr_t*>(from));
        su_soerror(socket); // which an earlier answer to somebody else has left, and would be this one's
        sendto(socket, answer.data(), answer.size(), MSG_DONTWAIT, static_cast<const sockaddr*>(from), length);
    }
    su_seterrno(EAGAIN); // the stack reports any other
}

} // namespace

void answerStun()
{
    static const struct {
        tport_stun_server_vtable_t server;
        int beyond; // the stack takes no table of the size that it declares, only greater ones
    } table{{sizeof(table), create, destroy, addedOrRemoved, addedOrRemoved, take}, 0};
    if (tport_plug_in_stun_server(&table.server) != 0) {
        throw std::runtime_error("the SIP stack takes no server for STUN");
    }
}

} // namespace oryx::sip
