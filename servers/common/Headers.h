#pragma once

#include <common/Sofia.h>

#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

namespace oryx::sip {

/// Whether a header field's text, or none, can stand in the database: such as a telephone may have, and no more.
bool fits(const char* text);
inline bool fits(const std::string& text)
{
    return fits(text.c_str());
}
/// The option tags of Require or Proxy-Require that are not the one that is known, with ", " between them.
std::string unknownTags(const msg_list_t* required, std::string_view known = "");
/// Where a request goes next, as Route and request URI say.
inline const url_t& nextHop(const sip_t& sip)
{
    return sip.sip_route != nullptr ? *sip.sip_route->r_url : *sip.sip_request->rq_url;
}
/// A header field's value, as it is written; of any kind.
std::string headerText(sip_header_t* header);
template <typename Header>
std::string headerText(Header& header)
{
    return headerText(anyHeader(&header));
}
/// The value of a URI's parameter, empty where it has none; nothing without the parameter. Of several that have values,
/// which none may, the last, as where the stack looks for its way. (The stack's own look for one goes on behind the
/// URI's end where the last parameter only begins with that name.)
std::optional<std::string_view> parameterOf(const url_t& uri, std::string_view name);
/// A URI's parameters without those of these names.
std::string parametersWithout(const url_t& uri, std::initializer_list<std::string_view> names);
/// All the values of a header field of routes, such as Path, in their order; empty where there are none.
std::string routeText(const sip_route_t* hops);
/// The time as the header field Date has it. For one thread.
const char* dateText();

} // namespace oryx::sip
