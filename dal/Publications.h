#pragma once

#include <dal/DatabaseResult.h>
#include <util/OryxExport.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace oryx {

class PresenceService;

/// How many bytes a publication's body may have.
/// \ingroup publications
inline constexpr std::size_t kLongestPublication = 65536;

/// What a PUBLISH request asks for (RFC 3903 section 4.1).
/// \ingroup publications
struct PublishRequest {
    /// The event package, as the server writes it.
    std::string event;
    /// The value of SIP-If-Match: the entity tag of the publication that is refreshed, modified or removed. Empty: an
    /// initial publication.
    std::string entityTag;
    /// For how many seconds from now, by the database's clock; 0 removes the publication.
    std::uint32_t expires = 3600;
    /// The body's Content-Type.
    std::string contentType;
    /// What is published, at most `kLongestPublication` bytes; empty: a refresh, or a removal.
    std::string body;
    /// How many live publications of the package the presentity may have after an initial one; 0 for any number.
    std::uint32_t maxPublications = 0;
};

/// What became of a PUBLISH request.
/// \ingroup publications
enum class PublishOutcome {
    failed,              ///< nobody knows: the result is a connection or query error (500, 503)
    done,                ///< it took effect; okay
    unknownPresentity,   ///< there is no such address of record; not found (404)
    inactiveSubscriber,  ///< provisioning has barred its subscriber; not found (403)
    conditionFailed,     ///< there is no live publication with that entity tag; constraint error (412)
    tooManyPublications, ///< there would be more than `maxPublications`; constraint error (403)
};

/// The answer to a PUBLISH request.
/// \ingroup publications
struct PublishAnswer {
    /// Whether it took effect, and if not, why.
    PublishOutcome outcome = PublishOutcome::failed;
    /// When it is done, the publication's new entity tag: the SIP-ETag of the 200.
    std::string entityTag;
    /// When it is done, for how many seconds it was granted; 0 after a removal.
    std::uint32_t expires = 0;
};

/// Applies a PUBLISH request to an address of record (RFC 3903 section 6, items 3 to 6): one statement, one
/// transaction, one round trip.
///
/// - Without an entity tag a publication is added. With one, that publication of the same presentity and event package
///   lasts as long as asked, and has the body, if there is one; or it is removed. Each success gives it a new entity
///   tag, that nobody can guess.
/// - Of two requests with the same entity tag, through whichever servers they come, one is done, and the other's
///   condition has failed.
/// - A request that is sent again after its answer was lost is answered as the first time, and takes effect once.
/// - An initial publication and each change of a body, a removal and `removeExpiredPublications` are announced as
///   changes of the table "publication"; its keys in the change log are the presentities', as "user@domain". A refresh
///   is not.
///
/// What is the server's own: whether the sender may publish, the package and the type, 423 for an `expires` that is too
/// brief, and texts that are clean (`isCleanText`, with plain statements).
///
/// The address of record is told by handle and domain in lower case. **Replaces** `answer`, always. Okay, not found,
/// constraint, connection or query error, as `PublishOutcome` says; a null text, no event package, a body that is too
/// long, and a request that names no publication and has no body, or lasts for no time, are query errors.
/// \ingroup publications
ORYX_EXPORT DatabaseResult applyPublication(PresenceService& service, const char* handle, const char* domain,
                                            const PublishRequest& request, PublishAnswer& answer);

/// A publication that has not expired.
/// \ingroup publications
struct LivePublication {
    /// What it is known by to who published it.
    std::string entityTag;
    /// For how many seconds more, at least 1.
    std::uint32_t expires = 0;
    /// The body's Content-Type.
    std::string contentType;
    /// What is published.
    std::string body;
};

/// What is published of a presentity in an event package and has not expired by the database's clock, the latest change
/// last: what a NOTIFY is composed of. One statement, one round trip.
///
/// The address of record is told by handle and domain in lower case. Okay, also when nothing is published; not found
/// when there is no such address of record; connection or query error (a null text among them). **Replaces** `found`,
/// and only when okay.
/// \ingroup publications
ORYX_EXPORT DatabaseResult livePublications(PresenceService& service, const char* handle, const char* domain,
                                            const char* event, std::vector<LivePublication>& found);

/// A presentity of which something is not published any more.
/// \ingroup publications
struct ExpiredPublication {
    /// Its address of record, as "user@domain".
    std::string presentity;
    /// The event package.
    std::string event;
};

/// Removes up to 1,000 publications that have expired, and what is left of those that were removed a minute ago; a
/// server calls it every few seconds. Two that do so at once do not wait for each other.
///
/// Appends each presentity and package of which one has expired, once: its watchers are to be told. Okay, also when
/// there was none; connection or query error.
/// \ingroup publications
ORYX_EXPORT DatabaseResult removeExpiredPublications(PresenceService& service,
                                                     std::vector<ExpiredPublication>& expired);

} // namespace oryx
