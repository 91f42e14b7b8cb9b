#include <registrar/Route.h>

#include <array>

namespace oryx::sip {

namespace {

constexpr const char* kCookie = "oryx"; // a parameter of this proxy's Record-Route

std::string cookieOf(const url_t& route)
{
    std::array<char, 64> value{};
    url_param(route.url_params, kCookie, value.data(), static_cast<isize_t>(value.size()));
    return value.data();
}

void insertRecordRoute(msg_t* message, const std::string& socket, const std::string& cookie)
{
    const std::string text = "<" + socket + ";lr;" + kCookie + "=" + cookie + ">";
    sip_record_route_t* const route = sip_record_route_make(msg_home(message), text.c_str());
    sip_header_insert(message, sip_object(message), anyHeader(route));
}

} // namespace

void setRequestUri(msg_t* message, const url_string_t* uri)
{
    sip_t* const sip = sip_object(message);
    const sip_request_t* const line = sip->sip_request;
    sip_request_t* const retargeted =
        sip_request_create(msg_home(message), line->rq_method, line->rq_method_name, uri, nullptr);
    sip_header_insert(message, sip, anyHeader(retargeted));
}

OwnRoutes takeOwnRoutes(msg_t* message, const std::function<bool(const url_t& route)>& leadsHere,
                        const std::function<bool(const std::string& cookie)>& known)
{
    sip_t* const sip = sip_object(message);
    OwnRoutes own;
    const auto note = [&](const url_t& route) {
        own.found = true;
        own.known = own.known || known(cookieOf(route));
    };
    const url_t& target = *sip->sip_request->rq_url;
    if (sip->sip_route != nullptr && url_has_param(&target, kCookie) != 0 && leadsHere(target)) {
        note(target);
        setRequestUri(message, urlText(*sip_route_pop(message, sip)->r_url));
    }
    while (sip->sip_route != nullptr && leadsHere(*sip->sip_route->r_url)) {
        note(*sip->sip_route->r_url);
        sip_route_remove(message, sip);
    }
    return own;
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
    if (sip->sip_route == nullptr || url_has_param(sip->sip_route->r_url, "lr") != 0) {
        return;
    }
    sip_route_t* const last = sip_route_create(msg_home(message), sip->sip_request->rq_url, nullptr);
    setRequestUri(message, urlText(*sip_route_remove(message, sip)->r_url));
    sip_header_insert(message, sip, anyHeader(last));
}

} // namespace oryx::sip
