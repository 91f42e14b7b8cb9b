#pragma once

#include <common/Address.h>

#include <dal/PresenceDal.h>

#include <array>
#include <cstddef>
#include <ctime>
#include <string>

namespace oryx::sip {

/// What is subscribed to.
enum class Package {
    presence,     ///< of a person (RFC 3856)
    presenceList, ///< of those on a list (RFC 4662)
    watchers,     ///< who watches a person, "presence.winfo" (RFC 3857)
};

/// RFC 6665 section 4.1.3. The numbers are those in the database.
enum class SubscriptionState { pending = 0, active = 1, terminated = 2 };

inline const char* textOf(SubscriptionState state)
{
    constexpr std::array kTexts{"pending", "active", "terminated"};
    return kTexts.at(static_cast<std::size_t>(state));
}

struct Subscription {
    /// As it is in the database: From the watcher's end, To this one with its tag, the whole Event header field, the
    /// contact as a URI, and the proxies on the way to it as a Route header field. The CSeq of the last NOTIFY is never
    /// one that has not been stored.
    PresenceRecord dialog;
    Package package = Package::presence;
    Address presentity; ///< Or the list: its name as the handle, in the case in which it was sent (RFC 3986
                        ///< section 6.2.2.1).
    Address watcher;
    std::time_t expires = 0;
    unsigned long version = 0; ///< Of the next document, where documents have one.
    SubscriptionState state = SubscriptionState::pending;

    /// The key of its rows: "incoming#" and this side's tag, which is like no other.
    const std::string& id() const { return dialog.subscriptionid(); }
    /// The key of what is kept for the presentity.
    std::string presentityKey() const { return presentity.text() + "#presence"; }
};

} // namespace oryx::sip
