#pragma once

#include <dal/DatabaseResult.h>
#include <dal/LiveBindings.h>
#include <util/OryxExport.h>

#include <cstdint>
#include <string>
#include <vector>

namespace oryx {

class LocationService;

/// One contact of a REGISTER request.
/// \ingroup registrar_requests
struct RegisterContact {
    /// The contact's URI, by which its binding is known: compared byte for byte, so the server brings URIs that are
    /// equivalent (RFC 3261 section 19.1.4) into one form; at most about 2,700 bytes.
    std::string address;
    /// For how many seconds from now, by the database's clock; 0 removes the binding (section 10.2.2).
    std::uint32_t expires = 3600;
    /// The q-value as received; empty for none.
    std::string qvalue;
    /// The Contact header field as received, for whoever reads the binding; empty for none.
    std::string contactHeader;
    /// What the contact can do, as the server writes it; empty for nothing said.
    std::string capabilities;
    /// A word of the server's own for what it is; empty for none.
    std::string type;
};

/// What a REGISTER request asks for.
///
/// Without contacts it changes nothing and asks for the bindings (RFC 3261 section 10.2.3).
/// \ingroup registrar_requests
struct RegisterRequest {
    /// The Call-ID; requests without one are never older than others.
    std::string callId;
    /// The CSeq's number.
    std::uint32_t cseq = 0;
    /// The values of its Path header fields, in their order (RFC 3327 section 5.3): stored with each binding. Empty for
    /// none.
    std::string path;
    /// The contacts, each address once; of one that comes again, the last counts.
    std::vector<RegisterContact> contacts;
    /// Whether its Contact is "*": all bindings are removed (section 10.2.2). It then has no contacts.
    bool removesAll = false;
    /// How many live bindings the address of record may have afterwards, permanent ones not counted; 0 for any number.
    /// A request that adds none is not refused for it.
    std::uint32_t maxBindings = 0;
};

/// What became of a REGISTER request.
/// \ingroup registrar_requests
enum class RegisterOutcome {
    failed,             ///< nobody knows: the result is a connection or query error (500, 503)
    done,               ///< it took effect whole; okay
    unknownAddress,     ///< there is no such address of record; not found (404)
    inactiveSubscriber, ///< provisioning has barred its subscriber; not found (403)
    olderRequest,       ///< a newer request of the same Call-ID came before; constraint error (500)
    tooManyBindings,    ///< there would be more than `maxBindings`; constraint error (403)
};

/// The answer to a REGISTER request.
/// \ingroup registrar_requests
struct RegisterAnswer {
    /// Whether it took effect, and if not, why.
    RegisterOutcome outcome = RegisterOutcome::failed;
    /// When it is done, all live bindings of the address of record, in the order of `lookupBindings`: what the 200
    /// lists (RFC 3261 section 10.3, item 8). Empty otherwise.
    std::vector<LiveBinding> bindings;
};

///@{
/// Applies a REGISTER request to an address of record, whole or not at all (RFC 3261 section 10.3, items 6 to 8): one
/// statement, one transaction, one round trip.
///
/// - A contact is stored, or takes the place of the live or expired binding that has its address, with the request's
///   Call-ID, CSeq and path; one with `expires` 0 is removed if it is there.
/// - A live binding with the request's Call-ID and a higher CSeq makes the request an older one, if it is one that the
///   request names or `removesAll` would remove: nothing is changed. So does the same CSeq for a removal.
/// - A live binding that has both, of a contact that is to be stored, tells that the request has been applied before:
///   it changes nothing more, and is done. A request that is sent again after its answer was lost so is answered as the
///   first time, and two servers that have got the same request both succeed. (A request that comes so late that its
///   binding has been removed since by a newer one is not known again.) Without a Call-ID nothing is older.
/// - A permanent binding is provisioning's: it stays as it is whatever the request says, and is listed.
/// - Requests for one address of record take effect as if one came after another, whichever servers they come through.
///
/// What is the server's own: whether the sender may register, 423 for an `expires` that is too brief, the sizes of
/// texts
/// (`isCleanText`, with plain statements), and what "*" may stand with.
///
/// The address of record is told by its public address key, or by handle and domain in lower case; both cost the same.
/// **Replaces** `answer`, always. Okay, not found, constraint, connection or query error, as `RegisterOutcome` says; a
/// null text, contacts together with `removesAll`, and a contact without an address are query errors.
/// \ingroup registrar_requests
ORYX_EXPORT DatabaseResult applyRegistration(LocationService& service, int key, const RegisterRequest& request,
                                             RegisterAnswer& answer);
ORYX_EXPORT DatabaseResult applyRegistration(LocationService& service, const char* handle, const char* domain,
                                             const RegisterRequest& request, RegisterAnswer& answer);
///@}

/// A REGISTER request, whose bindings it is about, and what became of it.
/// \ingroup registrar_requests
struct Registration {
    std::string handle; ///< of the address of record, in lower case
    std::string domain; ///< of the address of record, in lower case
    /// What it asks for.
    RegisterRequest request;
    /// **Replaced** by `applyRegistrations`, always.
    RegisterAnswer answer;
};

/// Applies REGISTER requests as `applyRegistration` does each of them, those for the same address of record in the
/// vector's order: bound statements in one transaction and one round trip. For a server that has several at hand: the
/// database writes its log to disk once for all of them.
///
/// - Each has the outcome that it would have alone. An outcome is no error: one that is older, adds too many, or is for
///   nobody leaves the others as they are.
/// - Where one is refused by the server (an address that no index can hold, a text that is no text), or would have to
///   wait for 50 ms for what others have locked, each is applied by itself, and those that have to wait come last: so
///   nobody fails for another's sake, and two that wait for each other let go. All of it has one deadline: those that
///   have to wait share what is left of it, first come, first served. A connection that is lost, or silent, is told of
///   all that were under way.
/// - Requests for different addresses of record take effect in the order of domain and handle, so that servers that
///   apply the same ones do not wait for each other crosswise. A second request for the same address of record has a
///   transaction of its own, behind the first's.
/// - Plain statements go one by one: their answers would not come back together.
///
/// A transaction keeps what it changes locked until its end: some dozen requests are enough. Okay when each has been
/// answered, whatever the outcome; otherwise the connection or query error of the last that has `failed`.
/// \ingroup registrar_requests
ORYX_EXPORT DatabaseResult applyRegistrations(LocationService& service, std::vector<Registration>& registrations);

} // namespace oryx
