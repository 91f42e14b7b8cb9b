#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// \file
/// The bodies of PUBLISH and NOTIFY. All functions may be called by any thread. Texts that XML cannot hold lose what it
/// cannot.

namespace oryx::sip {

/// A published PIDF document in the form in which it is stored: of one line and in ASCII, so that it is clean in every
/// statement, without comments. None unless it is well-formed and of RFC 3863's kind; one that has a document type, and
/// so may have entities, is refused, and likewise more than 64 elements.
std::optional<std::string> publishedDocument(std::string_view body);

/// PIDF (RFC 3863) of a presentity, such as "sip:alice@oryx.example", composed of what its sources publish, the oldest
/// first. With nothing published: a tuple that is closed.
///
/// All elements are taken over, with ids that are unique (RFC 4479 section 3.2). A tuple with the id and contact of one
/// before comes from the same source and takes its place, and likewise whatever else has the id, and device, of one
/// before. At most 48 KiB of them, the latest, so that a datagram can hold them.
std::string presenceDocument(const std::string& entity, const std::vector<std::string>& published);

/// A watcher of a resource (RFC 3858 section 4.3).
struct WatcherEntry {
    std::string uri;
    std::string id;
    std::string status; ///< "active", "pending", "waiting" or "terminated".
    std::string event;  ///< What made it so: "subscribe", "approved", "deactivated", "probation", "rejected", ...
    long expires;       ///< Seconds that are left; not said when negative.
};
/// Watcher information (RFC 3858), full state.
std::string watcherDocument(const std::string& resource, const std::string& package, unsigned version,
                            const std::vector<WatcherEntry>& watchers);

/// A resource of a list (RFC 4662 section 5).
struct ListMember {
    std::string uri;
    std::string instance; ///< Tells the subscription from others to the resource; empty: there is none.
    std::string state;    ///< "active", "pending" or "terminated".
    std::string reason;   ///< Why it is terminated; empty: not said.
    std::string document; ///< Its PIDF; empty: none.
};
/// A body with its whole Content-Type.
struct Body {
    std::string type;
    std::string text;
};
/// What a list's subscriber gets: RLMI in multipart/related with its members' documents (RFC 4662 section 5), full
/// state. Documents for which a datagram has no room are left out, and members beyond 48 KiB of them.
Body listBody(const std::string& list, unsigned version, const std::vector<ListMember>& members);

} // namespace oryx::sip
