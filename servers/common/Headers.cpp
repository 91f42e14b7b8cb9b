#include <common/Headers.h>

#include <common/Address.h>

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

std::string headerText(sip_header_t* header)
{
    su_home_t home[1] = {SU_HOME_INIT(home)};
    const char* const text = sip_header_as_string(home, header);
    std::string copy = text != nullptr ? text : "";
    su_home_deinit(home);
    return copy;
}

} // namespace oryx::sip
