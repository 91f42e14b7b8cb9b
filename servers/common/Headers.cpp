#include <common/Headers.h>

#include <common/Address.h>

#include <strings.h>

#include <algorithm>
#include <cstring>

namespace oryx::sip {

bool fits(const char* text)
{
    constexpr std::size_t kLongestText = 1024;
    return text == nullptr || (std::strlen(text) <= kLongestText && canBeStored(text));
}

std::string unknownTags(const msg_list_t* required, std::string_view known)
{
    std::string tags;
    for (; required != nullptr; required = required->k_next) {
        for (const msg_param_t* item = required->k_items; item != nullptr && *item != nullptr; ++item) {
            if (*item != known) {
                tags.append(tags.empty() ? "" : ", ").append(*item);
            }
        }
    }
    return tags;
}

/// The stack leaves out the last parameter where it has no room behind it, and does not say so.
std::string headerText(sip_header_t* header)
{
    constexpr std::size_t kRoom = 64;
    std::string text(512, '\0');
    for (;;) {
        const issize_t length = sip_header_field_e(text.data(), static_cast<isize_t>(text.size()), header, 0);
        if (length >= 0 && static_cast<std::size_t>(length) + kRoom <= text.size()) {
            text.resize(static_cast<std::size_t>(length));
            return text;
        }
        text.assign(std::max(2 * text.size(), static_cast<std::size_t>(std::max<issize_t>(length, 0)) + kRoom), '\0');
    }
}

std::string routeText(const sip_route_t* hops)
{
    std::string text;
    for (; hops != nullptr; hops = hops->r_next) {
        sip_route_t one = *hops;
        one.r_next = nullptr;
        text.append(text.empty() ? "" : ", ").append(headerText(one));
    }
    return text;
}

namespace {

/// Takes the first parameter off.
std::string_view takeParameter(std::string_view& rest)
{
    const std::string_view parameter = rest.substr(0, rest.find(';'));
    rest.remove_prefix(std::min(parameter.size() + 1, rest.size()));
    return parameter;
}

bool hasName(std::string_view parameter, std::string_view name)
{
    const std::size_t equals = std::min(parameter.find('='), parameter.size());
    return equals == name.size() && strncasecmp(parameter.data(), name.data(), equals) == 0;
}

} // namespace

std::optional<std::string_view> parameterOf(const url_t& uri, std::string_view name)
{
    std::optional<std::string_view> found;
    for (std::string_view rest = uri.url_params != nullptr ? uri.url_params : ""; !rest.empty();) {
        const std::string_view parameter = takeParameter(rest);
        if (hasName(parameter, name)) {
            const std::string_view value = parameter.substr(std::min(name.size() + 1, parameter.size()));
            found = value.empty() && found ? found : value;
        }
    }
    return found;
}

std::string parametersWithout(const url_t& uri, std::initializer_list<std::string_view> names)
{
    std::string kept;
    for (std::string_view rest = uri.url_params != nullptr ? uri.url_params : ""; !rest.empty();) {
        const std::string_view parameter = takeParameter(rest);
        if (std::none_of(names.begin(), names.end(), [&](auto name) { return hasName(parameter, name); })) {
            kept.append(kept.empty() ? "" : ";").append(parameter);
        }
    }
    return kept;
}

const char* dateText()
{
    static sip_date_t date{};
    static std::string text;
    if (text.empty() || date.d_time != sip_now()) { // a busy server asks thousands of times a second
        sip_date_init(&date);
        date.d_time = sip_now();
        text = headerText(date);
    }
    return text.c_str();
}

} // namespace oryx::sip
