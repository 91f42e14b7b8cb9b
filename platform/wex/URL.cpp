#include <wex/URL.h>

#include <algorithm>
#include <arpa/inet.h>
#include <utility>

#include <wex/internal/Characters.h>

// Parsed by hand because a list of hosts with a port each is PostgreSQL's own: RFC 3986 knows one host and one port,
// and its parsers refuse the rest.

namespace wex {
namespace {

constexpr auto kNone = std::string_view::npos;

// What RFC 3986 section 3.2.2 allows in a registered name beside letters, digits and escapes; the comma separates
// hosts.
constexpr std::string_view kRegisteredName = "-._~!$&'()*+;=";

/// Cuts off what stands before the first of `ends`, which stays.
std::string_view takeUntil(std::string_view& text, std::string_view ends)
{
    const auto end = std::min(text.find_first_of(ends), text.size());
    const std::string_view taken = text.substr(0, end);
    text.remove_prefix(end);
    return taken;
}

bool isScheme(std::string_view scheme)
{
    return !scheme.empty() && isLetter(scheme.front()) && std::all_of(scheme.begin(), scheme.end(), [](char c) {
        return isAlphanumeric(c) || c == '+' || c == '-' || c == '.';
    });
}

int hexValue(char c)
{
    return isDigit(c) ? c - '0' : (c | 0x20) - 'a' + 10;
}

bool isAcceptable(std::string_view text)
{
    if (std::any_of(text.begin(), text.end(), isBlankOrControl) || text.find("%00") != kNone) {
        return false;
    }
    for (auto at = text.find('%'); at != kNone; at = text.find('%', at + 1)) {
        if (!consistsOf(text.substr(at, 3), "")) {
            return false;
        }
    }
    return true;
}

/// Every escape must be well-formed.
std::string decoded(std::string_view text)
{
    std::string result;
    result.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%') {
            result += static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2]));
            i += 2;
        } else {
            result += text[i];
        }
    }
    return result;
}

/// An address with or without a zone ("fe80::1%eth0").
bool isIpv6Address(const std::string& address)
{
    in6_addr ignored{};
    return inet_pton(AF_INET6, address.substr(0, address.find('%')).c_str(), &ignored) == 1;
}

/// Takes the host at the beginning of an item of the list, up to its port.
bool takeHost(std::string_view& item, std::string& host)
{
    if (!item.starts_with('[')) {
        const std::string_view name = takeUntil(item, ":");
        host = decoded(name);
        return consistsOf(name, kRegisteredName);
    }
    const std::string_view address = takeUntil(item, "]");
    if (item.empty()) {
        return false;
    }
    item.remove_prefix(1);
    host = decoded(address.substr(1));
    return isIpv6Address(host);
}

bool appendHost(std::string_view item, std::string& hosts)
{
    std::string host;
    if (!takeHost(item, host)) {
        return false;
    }
    hosts += host;
    return item.empty() || (item.front() == ':' && smallNumber(item.substr(1)) > 0);
}

bool parseHosts(std::string_view authority, std::string& hosts)
{
    // A password may hold an "@" that was not escaped; a host cannot.
    authority.remove_prefix(authority.rfind('@') + 1);
    while (true) {
        if (!appendHost(takeUntil(authority, ","), hosts)) {
            return false;
        }
        if (authority.empty()) {
            return true;
        }
        hosts += ',';
        authority.remove_prefix(1);
    }
}

} // namespace

URL::URL(const char* text)
{
    if (text) {
        parse(text);
    }
}

URL::URL(const std::string& text)
{
    parse(text);
}

void URL::parse(std::string_view text)
{
    const std::string_view scheme = takeUntil(text, ":");
    if (!isScheme(scheme) || !text.starts_with("://") || !isAcceptable(text)) {
        return;
    }
    text.remove_prefix(3);
    std::string hosts;
    if (!parseHosts(takeUntil(text, "/?#"), hosts)) {
        return;
    }
    std::string_view path = takeUntil(text, "?#");
    if (!path.empty()) {
        path.remove_prefix(1);
    }
    m_valid = true;
    m_host = std::move(hosts);
    m_path = decoded(path);
}

} // namespace wex
