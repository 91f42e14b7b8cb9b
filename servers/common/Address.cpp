#include <common/Address.h>
#include <common/Database.h>
#include <common/Headers.h>

#include <util/CleanText.h>

#include <arpa/inet.h>
#include <utf8.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>
#include <vector>

namespace oryx::sip {

namespace {

std::string lowerCase(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    return text;
}

/// Without DNS' final dot; an IPv6 address in the one form of RFC 5952, which is what rules are written in.
std::string normalizedHost(std::string_view host)
{
    host.remove_suffix(host.ends_with('.') ? 1 : 0);
    const bool bracketed = host.starts_with('[') && host.ends_with(']');
    in6_addr address{};
    std::array<char, INET6_ADDRSTRLEN> text{};
    if (bracketed && inet_pton(AF_INET6, std::string(host.substr(1, host.size() - 2)).c_str(), &address) == 1) {
        return std::string("[") + inet_ntop(AF_INET6, &address, text.data(), text.size()) + "]";
    }
    return lowerCase(std::string(host));
}

bool isControl(char c)
{
    return (c >= 0 && c < ' ') || c == '\x7f';
}

/// A parameter with its name in lower case, and with its value where RFC 3261 says what it means and case does not
/// count. What a telephone has made up for itself stays: it may look for it in requests as it was written.
std::string normalizedParameter(std::string_view parameter)
{
    constexpr std::array<std::string_view, 4> kInAnyCase{"transport", "user", "ttl", "maddr"};
    const std::size_t equals = std::min(parameter.find('='), parameter.size());
    const std::string name = lowerCase(std::string(parameter.substr(0, equals)));
    const std::string value(parameter.substr(equals));
    const bool inAnyCase = std::find(kInAnyCase.begin(), kInAnyCase.end(), name) != kInAnyCase.end();
    return name + (inAnyCase ? lowerCase(value) : value);
}

std::string normalizedParameters(std::string_view rest)
{
    std::vector<std::string> parameters;
    while (!rest.empty()) {
        const std::string_view parameter = rest.substr(0, rest.find(';'));
        parameters.push_back(normalizedParameter(parameter));
        rest.remove_prefix(std::min(parameter.size() + 1, rest.size()));
    }
    std::sort(parameters.begin(), parameters.end());
    std::string text;
    for (const std::string& parameter : parameters) {
        text.append(text.empty() ? "" : ";").append(parameter);
    }
    return text;
}

} // namespace

bool canBeStored(const char* text)
{
    static const bool quotesTaken = sessionOptions().statements == SessionOptions::Statements::bound;
    const std::string_view all = text;
    const bool printable = std::all_of(all.begin(), all.end(), [](char c) { return c >= ' ' && c <= '~'; });
    return (quotesTaken || isCleanText(text)) &&
           (printable || (utf8::is_valid(all.begin(), all.end()) && std::none_of(all.begin(), all.end(), &isControl)));
}

std::string userOf(const url_t& url)
{
    const char* const escaped = url.url_user != nullptr ? url.url_user : "";
    std::vector<char> user(std::strlen(escaped) + 1);
    url_unescape(user.data(), escaped);
    return user.data();
}

std::string hostOf(const url_t& url)
{
    return normalizedHost(url.url_host != nullptr ? url.url_host : "");
}

std::string nextHostOf(const url_t& url)
{
    const std::string maddr(parameterOf(url, "maddr").value_or(""));
    return maddr.empty() ? hostOf(url) : normalizedHost(maddr);
}

std::optional<Address> addressOf(const url_t& url)
{
    if (url.url_type != url_sip && url.url_type != url_sips) {
        return std::nullopt;
    }
    Address address;
    if (url.url_user != nullptr) {
        address.handle = lowerCase(userOf(url));
        if (!canBeStored(address.handle.c_str()) || std::strstr(url.url_user, "%00") != nullptr) {
            return std::nullopt;
        }
    }
    address.domain = hostOf(url);
    return address.domain.empty() || !canBeStored(address.domain.c_str()) ? std::nullopt : std::optional(address);
}

std::optional<Address> addressOf(const char* uri)
{
    Scratch scratch;
    const url_t* const url = url_make(scratch.home(), uri);
    return url != nullptr ? addressOf(*url) : std::nullopt;
}

std::string normalized(const url_t& url)
{
    url_t copy = url; // in which the stack has read the escapes
    const std::string parameters = normalizedParameters(url.url_params != nullptr ? url.url_params : "");
    const std::string host = lowerCase(url.url_host != nullptr ? url.url_host : "");
    const std::string scheme = lowerCase(url.url_scheme != nullptr ? url.url_scheme : "");
    copy.url_host = host.c_str();
    copy.url_scheme = scheme.c_str();
    copy.url_params = parameters.empty() ? nullptr : parameters.c_str();
    copy.url_headers = nullptr; // a request URI has none (section 19.1.1, table 1): it would be the same place
    std::vector<char> text(static_cast<std::size_t>(url_len(&copy)) + 1);
    url_e(text.data(), static_cast<isize_t>(text.size()), &copy);
    return text.data();
}

} // namespace oryx::sip
