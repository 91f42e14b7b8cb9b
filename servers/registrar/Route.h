#pragma once

#include <common/Endpoint.h>
#include <common/Headers.h>

#include <registrar/Seal.h>

#include <functional>
#include <string>
#include <vector>

/// \file
/// The way that a request is told to take (RFC 3261 sections 16.4 and 16.6, items 4 and 6; two transports, RFC 5658).

namespace oryx::sip {

/// What a proxy puts into Record-Route.
///
/// Its cookie tells what was settled when the dialog began: whose dialog it is, and which host whoever follows the
/// route is led to from here. The called side gets the way to the caller with the request, the caller the one to the
/// called side with the response, for nobody knows it before. With no cookie anybody gets anywhere else.
struct RouteMark {
    std::string socket; ///< The one that the request came by; empty: the proxy does not stay on the way.
    std::string cookie; ///< The called side's.
};

/// The mark of what begins a dialog with that request.
RouteMark markOf(const Seal& seal, const sip_t& request, const std::string& socket);
/// Gives the caller his own cookies, in a response whose Record-Route has the called side's.
void markAnswer(const Seal& seal, msg_t* response, const RouteMark& mark);
/// Whether one of the cookies is of that request's dialog, and leads to where the request goes next.
bool isSettled(const Seal& seal, const sip_t& request, const std::vector<std::string>& cookies);

/// Has the request sent to another URI; false when that is none.
bool setRequestUri(msg_t* message, const url_string_t* uri);

/// Takes the routes off that led to this proxy, and restores the request URI that a strict router has put behind them.
/// The cookies of all of them, empty ones too.
std::vector<std::string> takeOwnRoutes(msg_t* message, const std::function<bool(const url_t& route)>& leadsHere);

/// Has what belongs to the dialog come here: by the socket that the request came by, and by the one that it leaves by
/// where that is another one.
void recordRoute(msg_t* message, const RouteMark& mark, const std::string& leaving);

/// Puts the request URI behind the routes where the first of them is a strict router's, which expects itself in it.
void fitStrictRouter(msg_t* message);

} // namespace oryx::sip
