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
        std::vector<char> user(std::strlen(url.url_user) + 1);
        url_unescape(user.data(), url.url_user);
        if (!canBeStored(user.data()) || std::strstr(url.url_user, "%00") != nullptr) {
            return std::nullopt;
        }
        address.handle = lowerCase(user.data());
    }
    address.domain = hostOf(url);
    return address.domain.empty() || !canBeStored(address.domain.c_str()) ? std::nullopt : std::optional(address);
}

std::optional<Address> addressOf(const char* uri)
{
    su_home_t home[1] = {SU_HOME_INIT(home)};
    const url_t* const url = url_make(home, uri);
    std::optional<Address> address = url != nullptr ? addressOf(*url) : std::nullopt;
    su_home_deinit(home);
    return address;
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
