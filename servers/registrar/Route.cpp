#include <registrar/Route.h>

#include <common/Address.h>
#include <common/Headers.h>

#include <algorithm>

namespace oryx::sip {

namespace {

constexpr const char* kCookie = "oryx"; // a parameter of this proxy's Record-Route

std::string cookieOf(const url_t& route)
{
    return std::string(parameterOf(route, kCookie).value_or(""));
}

void insertRecordRoute(msg_t* message, const std::string& socket, const std::string& cookie)
{
    const std::string text = "<" + socket + ";lr;" + kCookie + "=" + cookie + ">";
    sip_record_route_t* const route = sip_record_route_make(msg_home(message), text.c_str());
    sip_header_insert(message, sip_object(message), anyHeader(route));
}

/// Of the dialog that the caller's tag and Call-ID tell; of the answered one too, where the route is the caller's.
std::string sealOf(const Seal& seal, const sip_t& sip, const char* callerTag, const char* calledTag,
                   const std::string& host)
{
    const auto text = [](const char* tag) { return std::string(tag != nullptr ? tag : ""); };
    return seal.of(text(sip.sip_call_id->i_id) + "\n" + text(callerTag) + "\n" + text(calledTag) + "\n" + host);
}

void replaceCookie(msg_t* message, sip_record_route_t& route, const std::string& old, const std::string& cookie)
{
    std::string parameters = route.r_url->url_params;
    if (const std::size_t at = parameters.find(old); at != std::string::npos) {
        parameters.replace(at, old.size(), cookie);
        route.r_url->url_params = su_strdup(msg_home(message), parameters.c_str());
        msg_fragment_clear_chain(static_cast<msg_header_t*>(static_cast<void*>(&route))); // not as it came
    }
}

/// Where what follows a route goes from this proxy: to the next one that has recorded itself, else to the contact.
std::string hostBehind(const sip_record_route_t* recorded, const sip_contact_t* contact)
{
    if (recorded != nullptr) {
        return nextHostOf(*recorded->r_url);
    }
    return contact != nullptr ? nextHostOf(*contact->m_url) : "";
}

} // namespace

bool setRequestUri(msg_t* message, const url_string_t* uri)
{
    sip_t* const sip = sip_object(message);
    const sip_request_t* const line = sip->sip_request;
    sip_request_t* const retargeted =
        sip_request_create(msg_home(message), line->rq_method, line->rq_method_name, uri, nullptr);
    return retargeted != nullptr && sip_header_insert(message, sip, anyHeader(retargeted)) == 0;
}

RouteMark markOf(const Seal& seal, const sip_t& request, const std::string& socket)
{
    const std::string caller = hostBehind(request.sip_record_route, request.sip_contact);
    return {socket, sealOf(seal, request, request.sip_from->a_tag, nullptr, caller)};
}

void markAnswer(const Seal& seal, msg_t* response, const RouteMark& mark)
{
    sip_t* const sip = sip_object(response);
    const sip_record_route_t* behind = nullptr; // what the called side's proxies have recorded comes first
    std::string cookie;
    for (sip_record_route_t* route = sip->sip_record_route; route != nullptr; route = route->r_next) {
        if (cookieOf(*route->r_url) != mark.cookie) {
            behind = route;
            continue;
        }
        if (cookie.empty()) {
            const std::string called = hostBehind(behind, sip->sip_contact);
            cookie = sealOf(seal, *sip, sip->sip_from->a_tag, sip->sip_to->a_tag, called);
        }
        replaceCookie(response, *route, mark.cookie, cookie);
    }
}

bool isSettled(const Seal& seal, const sip_t& request, const std::vector<std::string>& cookies)
{
    const char* const from = request.sip_from->a_tag;
    const char* const to = request.sip_to->a_tag;
    if (to == nullptr || cookies.empty()) {
        return false;
    }
    const std::string next = nextHostOf(nextHop(request));
    const std::string caller = sealOf(seal, request, from, to, next);
    const std::string called = sealOf(seal, request, to, nullptr, next);
    return std::any_of(cookies.begin(), cookies.end(),
                       [&](const std::string& cookie) { return cookie == caller || cookie == called; });
}

std::vector<std::string> takeOwnRoutes(msg_t* message, const std::function<bool(const url_t& route)>& leadsHere)
{
    sip_t* const sip = sip_object(message);
    std::vector<std::string> cookies;
    const url_t& target = *sip->sip_request->rq_url;
    if (sip->sip_route != nullptr && parameterOf(target, kCookie) && leadsHere(target)) {
        cookies.push_back(cookieOf(target));
        setRequestUri(message, urlText(*sip_route_pop(message, sip)->r_url));
    }
    while (sip->sip_route != nullptr && leadsHere(*sip->sip_route->r_url)) {
        cookies.push_back(cookieOf(*sip->sip_route->r_url));
        sip_route_remove(message, sip);
    }
    return cookies;
}

void recordRoute(msg_t* message, const RouteMark& mark, const std::string& leaving)
{
    insertRecordRoute(message, mark.socket, mark.cookie);
    if (leaving != mark.socket) {
        insertRecordRoute(message, leaving, mark.cookie);
    }
}

void fitStrictRouter(msg_t* message)
{
    sip_t* const sip = sip_object(message);
    if (sip->sip_route == nullptr || parameterOf(*sip->sip_route->r_url, "lr")) {
        return;
    }
    sip_route_t* const last = sip_route_create(msg_home(message), sip->sip_request->rq_url, nullptr);
    setRequestUri(message, urlText(*sip_route_remove(message, sip)->r_url));
    sip_header_insert(message, sip, anyHeader(last));
}

} // namespace oryx::sip
