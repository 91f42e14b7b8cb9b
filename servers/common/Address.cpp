#include <common/Address.h>
#include <common/Database.h>

#include <util/CleanText.h>

#include <utf8.h>

#include <algorithm>
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

bool isControl(char c)
{
    return (c >= 0 && c < ' ') || c == '\x7f';
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
    std::string host = lowerCase(url.url_host != nullptr ? url.url_host : "");
    if (!host.empty() && host.back() == '.') {
        host.pop_back();
    }
    return host;
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
    url_t copy = url;
    const std::string host = lowerCase(url.url_host != nullptr ? url.url_host : "");
    const std::string scheme = lowerCase(url.url_scheme != nullptr ? url.url_scheme : "");
    copy.url_host = host.c_str();
    copy.url_scheme = scheme.c_str();
    copy.url_headers = nullptr;
    std::vector<char> text(static_cast<std::size_t>(url_len(&copy)) + 1);
    url_e(text.data(), static_cast<isize_t>(text.size()), &copy);
    return text.data();
}

} // namespace oryx::sip
