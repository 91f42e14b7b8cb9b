#pragma once

#include <dal/DatabaseResult.h>
#include <util/OryxExport.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace oryx {

class LocationService;

/// One binding of an address of record that a request can be sent to: it has not expired.
/// \ingroup registrar_requests
struct LiveBinding {
    /// The contact's URI, where a request goes.
    std::string address;
    /// For how many seconds more, at least 1: what the Contact of a 200 says (RFC 3261 section 10.3, item 8). None: it
    /// never expires.
    std::optional<std::uint32_t> expires;
    /// The q-value as it was registered; empty where there was none.
    std::string qvalue;
    /// The same in thousandths, 0 to 1000, to compare and group by: 1000 where there is none, or none that can be read.
    int preference = 1000;
    /// The proxies that a request to it goes through, as they were registered: the values of the Path header fields,
    /// to be sent as Route (RFC 3327 section 5.4). Empty: none.
    std::string path;
    /// The Contact header field as it was registered.
    std::string contactHeader;
    /// What the contact can do, as it was registered.
    std::string capabilities;
    /// What it is, in the word it was registered with.
    std::string type;
    /// The Call-ID of the request that it was last registered by.
    std::string callId;
    /// The number of that request's CSeq.
    std::uint32_t cseq = 0;
    /// Whether it was provisioned: no request changes or removes it.
    bool permanent = false;
    /// The contact's key.
    int contactId = -1;
};

/// How the bindings of an address of record are tried.
/// \ingroup registrar_requests
enum class ContactOrder {
    parallel,   ///< all at once; also where provisioning says nothing that is known
    sequential, ///< by preference, the highest first; those of the same preference together
};

/// The live bindings of an address of record.
/// \ingroup registrar_requests
struct BindingSet {
    /// How they are tried.
    ContactOrder order = ContactOrder::parallel;
    /// Whether a binding's address takes the place of the request URI.
    bool replaceUri = true;
    /// The highest preference first; of the same preference, the first registered first.
    std::vector<LiveBinding> bindings;
};

///@{
/// What a request to an address of record is sent to: its live bindings, in the order to try them.
///
/// Live is by the database's clock, which all servers share, what expires later than now, has no expiry, or is
/// permanent. One statement, one round trip.
///
/// Okay also when nothing is registered (RFC 3261 section 21.4.18: 480); not found when there is no such address of
/// record, or its subscriber is inactive; connection or query error (a null text among them). **Replaces** `found`, and
/// only when okay.
///
/// The address of record is told by its public address key, or by handle and domain in lower case.
/// \ingroup registrar_requests
ORYX_EXPORT DatabaseResult lookupBindings(LocationService& service, int key, BindingSet& found);
ORYX_EXPORT DatabaseResult lookupBindings(LocationService& service, const char* handle, const char* domain,
                                          BindingSet& found);
///@}

} // namespace oryx
