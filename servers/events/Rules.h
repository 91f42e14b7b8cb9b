#pragma once

#include <events/Subscription.h>

#include <dal/PresenceService.h>

namespace oryx::sip {

/// What a watcher is granted, the strictest last.
enum class Permission {
    allowed,
    unsettled, ///< the presentity has not decided: pending until he does (RFC 3856 section 6.6)
    deceived,  ///< politely blocked: told that nobody is there
    blocked,
    absent,  ///< there is no such person or list
    unknown, ///< the database could not be asked
};

/// What it says that a look-up was not okay: absent or unknown.
Permission permissionWithout(const DatabaseResult& result);
/// What a subscription is in with that permission.
SubscriptionState stateWith(Permission permission);

/// What the rules for presence say of a watcher: the presentity's own, or by the fall-backs of `getAccessControlList`
/// those of his name in any domain, or those of the nodes. Among them the watcher's own rule goes before one for
/// everybody in his domain ("*@domain"), and that before one for everybody ("*"); of two for the same the stricter
/// holds. Whoever no rule is for is unsettled. A presentity may always watch himself.
Permission permissionOf(PresenceService& service, const Address& presentity, const Address& watcher);
/// Whether a subscription's watcher may have what it is to: presence by those rules, lists where the list names him,
/// watchers where they are his own.
Permission permissionFor(PresenceService& service, const Subscription& subscription);
/// The same of a subscription to a list, with the list's key.
Permission permissionForList(PresenceService& service, const Subscription& list, int& id);

} // namespace oryx::sip
