#include <wex/Uri.h>

#include <algorithm>
#include <arpa/inet.h>
#include <optional>
#include <string_view>

#include <sofia-sip/url.h>

#include <wex/internal/Characters.h>

namespace wex {
namespace {

// The character classes of RFC 3261 section 25.1, beside letters, digits and escapes.
constexpr std::string_view kUser = "-_.!~*'()&=+$,;?/";
constexpr std::string_view kPassword = "-_.!~*'()&=+$,";
constexpr std::string_view kParameter = "-_.!~*'()[]/:&+$";
constexpr std::string_view kHeader = "-_.!~*'()[]/?:+$";

constexpr std::string_view kEscapedPercent = "%25";

/// The parser resolves escapes of characters that need none; with each "%" escaped it finds nothing to resolve.
std::string shielded(std::string_view text)
{
    std::string result;
    result.reserve(text.size() + 16);
    for (const char c : text) {
        c == '%' ? result.append(kEscapedPercent) : result.append(1, c);
    }
    return result;
}

/// The part as it stands in the text; nothing for a part that is absent.
std::optional<std::string> unshielded(const char* part)
{
    if (!part) {
        return std::nullopt;
    }
    std::string result;
    std::string_view rest = part;
    for (auto at = rest.find(kEscapedPercent); at != std::string_view::npos; at = rest.find(kEscapedPercent)) {
        result.append(rest.substr(0, at)).append(1, '%');
        rest.remove_prefix(at + kEscapedPercent.size());
    }
    return result.append(rest);
}

/// True if `valid` holds for every item between the separators.
template <typename Predicate>
bool all(std::string_view items, char separator, Predicate valid)
{
    for (auto end = items.find(separator); end != std::string_view::npos; end = items.find(separator)) {
        if (!valid(items.substr(0, end))) {
            return false;
        }
        items.remove_prefix(end + 1);
    }
    return valid(items);
}

bool isLabel(std::string_view label)
{
    return !label.empty() && label.front() != '-' && label.back() != '-' &&
           std::all_of(label.begin(), label.end(), [](char c) { return isAlphanumeric(c) || c == '-'; });
}

bool isHostname(std::string_view host)
{
    if (host.ends_with('.')) {
        host.remove_suffix(1);
    }
    const std::string_view top = host.substr(host.rfind('.') + 1);
    return !top.empty() && isLetter(top.front()) && all(host, '.', isLabel);
}

/// Four decimal numbers up to 255, leading zeros allowed.
bool isIpv4Address(std::string_view host)
{
    const auto isByte = [](std::string_view number) {
        const int value = smallNumber(number);
        return number.size() <= 3 && value >= 0 && value <= 255;
    };
    return std::count(host.begin(), host.end(), '.') == 3 && all(host, '.', isByte);
}

bool isIpv6Reference(std::string_view host)
{
    if (host.size() < 2 || host.front() != '[' || host.back() != ']') {
        return false;
    }
    in6_addr ignored{};
    return inet_pton(AF_INET6, std::string(host.substr(1, host.size() - 2)).c_str(), &ignored) == 1;
}

bool isHost(std::string_view host)
{
    return isHostname(host) || isIpv4Address(host) || isIpv6Reference(host);
}

/// pname [ "=" pvalue ], neither of them empty.
bool isParameter(std::string_view parameter)
{
    const auto equals = parameter.find('=');
    const bool hasValue = equals != std::string_view::npos;
    const std::string_view value = hasValue ? parameter.substr(equals + 1) : parameter;
    return equals != 0 && !value.empty() && consistsOf(parameter.substr(0, equals), kParameter) &&
           consistsOf(value, kParameter);
}

/// hname "=" hvalue, where the value may be empty.
bool isHeader(std::string_view header)
{
    const auto equals = header.find('=');
    return equals != std::string_view::npos && equals != 0 && consistsOf(header.substr(0, equals), kHeader) &&
           consistsOf(header.substr(equals + 1), kHeader);
}

bool isSip(const url_t& url)
{
    return (url.url_type == url_sip || url.url_type == url_sips) && !url.url_path && !url.url_fragment;
}

using Part = std::optional<std::string>;

bool validUserinfo(const Part& user, const Part& password)
{
    return (!user || !user->empty()) && consistsOf(user.value_or(""), kUser) &&
           consistsOf(password.value_or(""), kPassword);
}

} // namespace

Uri::Uri(const char* text)
{
    if (text) {
        parse(text);
    }
}

Uri::Uri(const std::string& text)
{
    parse(text);
}

void Uri::parse(const std::string& text)
{
    if (std::any_of(text.begin(), text.end(), isBlankOrControl)) {
        return;
    }
    std::string buffer = shielded(text); // the parser cuts it into pieces
    url_t url{};
    if (url_d(&url, buffer.data()) != 0 || !isSip(url)) {
        return;
    }
    const Part user = unshielded(url.url_user);
    const Part password = unshielded(url.url_password);
    const Part host = unshielded(url.url_host);
    const Part parameters = unshielded(url.url_params);
    const Part headers = unshielded(url.url_headers);
    const int port = url.url_port ? smallNumber(url.url_port) : 0;
    m_valid = validUserinfo(user, password) && isHost(host.value_or("")) && (!url.url_port || port > 0) &&
              (!parameters || all(*parameters, ';', isParameter)) && (!headers || all(*headers, '&', isHeader));
    if (m_valid) {
        m_protocol = url.url_scheme;
        m_user = user.value_or("");
        m_password = password.value_or("");
        m_host = *host;
        m_port = port;
        m_parameters = parameters.value_or("");
        m_headers = headers.value_or("");
    }
}

} // namespace wex
