#pragma once

#include <common/Address.h>

#include <dal/PresenceDal.h>

#include <cstddef>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

namespace oryx::sip {

/// What is subscribed to.
enum class Package {
    presence,     ///< of a person (RFC 3856)
    presenceList, ///< of those on a list (RFC 4662)
    watchers,     ///< who watches a person, "presence.winfo" (RFC 3857)
};

/// RFC 6665 section 4.1.3. The numbers are those in the database.
enum class SubscriptionState { pending = 0, active = 1, terminated = 2 };

const char* textOf(SubscriptionState state);

/// A subscription with its dialog, as it is in the database.
struct Subscription {
    std::string id; ///< The key of its rows: "incoming#" and this side's tag, which is like no other.
    Package package = Package::presence;
    Address presentity; ///< Or the list: its name as the handle.
    Address watcher;
    std::string from; ///< The watcher's end, as in SUBSCRIBE.
    std::string to;   ///< This end, with its tag.
    std::string callId;
    std::string event;   ///< The whole Event header field.
    std::string contact; ///< Where NOTIFY goes: a URI.
    std::string routes;  ///< What it goes through: a Route header field; or empty.
    std::string requestUri;
    int subscribeCseq = 0;
    int notifyCseq = 0; ///< Of the last NOTIFY; never one that has not been stored.
    std::time_t expires = 0;
    unsigned long version = 0; ///< Of the next document, where documents have one.
    SubscriptionState state = SubscriptionState::pending;

    /// The keys of what is kept for the presentity.
    std::string presentityKey() const { return presentity.text() + "#presence"; }
    std::string presentityUri() const { return "sip:" + presentity.text(); }
};

/// The name of a list: a URI's user as it was sent, its escapes read (RFC 3986 section 6.2.2.1 keeps its case).
std::string listNameIn(const url_t& uri);
/// Whether a request is of the subscription's dialog, by tag and Call-ID, and of its event (RFC 6665 section 8.2.1).
bool isOf(const Subscription& subscription, const sip_t& request);

/// A subscription's rows.
PresenceRecord dialogOf(const Subscription& subscription);
WatchersRecord watcherOf(const Subscription& subscription);
WatcherInfoRecord watcherInfoOf(const Subscription& subscription);
/// The subscription of a dialog's row; without what is in the other one. None where the row is not this server's.
std::optional<Subscription> subscriptionOf(const PresenceRecord& dialog);
/// Takes what a watcher's row says.
void complete(Subscription& subscription, const WatchersRecord& watcher);
void complete(Subscription& subscription, const WatcherInfoRecord& watcher);

} // namespace oryx::sip
