#pragma once

#include <common/Address.h>

#include <dal/PresenceService.h>

namespace oryx::sip {

/// What a watcher is granted, the strictest last.
enum class Permission {
    allowed,
    unsettled, ///< the presentity has not decided: pending until he does (RFC 3856 section 6.6)
    deceived,  ///< politely blocked: told that nobody is there
    blocked,
    unknown, ///< the rules could not be read
};

/// What the rules for presence say of a watcher: the presentity's own, or by the fall-backs of `getAccessControlList`
/// those of his name in any domain, or those of the nodes. Among them the watcher's own rule goes before one for
/// everybody in his domain ("*@domain"), and that before one for everybody ("*"); of two for the same the stricter
/// holds. Whoever no rule is for is unsettled. A presentity may always watch himself.
Permission permissionOf(PresenceService& service, const Address& presentity, const Address& watcher);

} // namespace oryx::sip
