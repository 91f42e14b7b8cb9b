#pragma once

#include <common/Endpoint.h>
#include <common/Headers.h>

#include <functional>
#include <string>

/// \file
/// The way that a request is told to take (RFC 3261 sections 16.4 and 16.6, items 4 and 6; two transports, RFC 5658).

namespace oryx::sip {

/// What a proxy puts into Record-Route.
struct RouteMark {
    std::string socket; ///< The one that the request came by; empty: the proxy does not stay on the way.
    std::string cookie; ///< By which the proxy knows the route again.
};

/// Has the request sent to another URI.
void setRequestUri(msg_t* message, const url_string_t* uri);

/// The routes of a request that led to this proxy.
struct OwnRoutes {
    bool found = false; ///< Whether there was one.
    bool known = false; ///< Whether one was made by this proxy for this dialog.
};
/// Takes those routes off, and restores the request URI that a strict router has put behind them.
OwnRoutes takeOwnRoutes(msg_t* message, const std::function<bool(const url_t& route)>& leadsHere,
                        const std::function<bool(const std::string& cookie)>& known);

/// Has what belongs to the dialog come here: by the socket that the request came by, and by the one that it leaves by
/// where that is another one.
void recordRoute(msg_t* message, const RouteMark& mark, const std::string& leaving);

/// Puts the request URI behind the routes where the first of them is a strict router's, which expects itself in it.
void fitStrictRouter(msg_t* message);

} // namespace oryx::sip
