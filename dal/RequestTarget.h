#pragma once

#include <dal/DatabaseResult.h>
#include <dal/LiveBindings.h>
#include <util/OryxExport.h>

#include <string>

namespace oryx {

class LocationService;

/// A request that is to be sent on.
/// \ingroup registrar_requests
struct TargetQuestion {
    /// Its request URI as received, of at most 512 bytes: what address maps are matched with and filled from, and what
    /// an outbound route is for.
    std::string uri;
    /// The URI's user part, as handles are stored: mostly in lower case. Without a user part no address
    /// of record is looked for.
    std::string handle;
    /// The URI's host, in lower case and without the final dot of DNS.
    std::string domain;
    /// Whether the host is one that this server answers for.
    bool served = true;
    /// Whether it comes from a host that this server answers for: what `LocationService::getOutboundRoute` calls
    /// internal.
    bool internal = true;
};

/// Where a request goes, and why; or why nowhere.
/// \ingroup registrar_requests
enum class TargetReason {
    failed,        ///< nobody knows: the result is a connection or query error (500, 503)
    registered,    ///< to the live bindings of its address of record
    addressMap,    ///< to the live contacts of the address map that matches
    defaultRoute,  ///< to those of the parent node: the host is served, and nobody here has that user
    outbound,      ///< to its URI, through `proxy` unless that is empty: the host is not served, and may be sent to
    notRegistered, ///< nowhere: the address of record, or where a map or the default route leads, has no live binding
                   ///< (480)
    inactiveSubscriber, ///< nowhere: provisioning has barred the subscriber (404, 403)
    notAllowed,         ///< nowhere: the host is not served, and must not be sent to (403)
    unknown,            ///< nowhere: nobody has that user, and there is no default route (404)
};

/// Where a request goes.
/// \ingroup registrar_requests
struct RequestTarget {
    /// What decided.
    TargetReason reason = TargetReason::failed;
    /// The reason in words, for a trace: whom it is for, and what decided. Of the question it shows handle and domain.
    std::string why;
    /// What it is sent to: not empty with `registered`, `addressMap` and `defaultRoute`.
    BindingSet set;
    /// With `outbound`, the proxy it goes through; empty: directly.
    std::string proxy;
};

/// Where a request goes (RFC 3261 section 16.5): to the live bindings of its address of record; else to what an address
/// map says; else, where its host is served, the default route, and where it is not, out, if that is allowed.
///
/// An address of record that has no live binding is looked for in the address maps too, and then is `notRegistered`; it
/// never takes the default route. One of an inactive subscriber goes nowhere. A host that is not served has no address
/// of record here. What `LocationService` says of address maps, default and outbound routes holds here too, but that
/// expired contacts are left out, paths are filled, and rules that cannot be read let nothing out.
///
/// One round trip for what is registered; up to three more for the rest, all within one deadline. Okay when there is
/// somewhere to send it to, not found when there is not, connection or query error (an address map's or a route's too;
/// for a route, a URI that is none). **Replaces** `target`, always.
/// \ingroup registrar_requests
ORYX_EXPORT DatabaseResult findTarget(LocationService& service, const TargetQuestion& question, RequestTarget& target);

} // namespace oryx
