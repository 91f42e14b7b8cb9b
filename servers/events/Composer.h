#pragma once

#include <events/Documents.h>
#include <events/Subscription.h>

#include <dal/PresenceService.h>

#include <cstddef>
#include <string>
#include <vector>

namespace oryx::sip {

/// What a NOTIFY is wanted for.
struct Occasion {
    bool always = false;  ///< It is due even where it says what the last one said.
    std::size_t said = 0; ///< What that was.
    std::string ends;     ///< Why the subscription ends, as Subscription-State says it; empty: it does not.
    bool silent = false;  ///< It ends, and its subscriber is not there to be told.
    bool stored = true;   ///< Not one that only fetches what is there.
    std::vector<WatcherEntry> watchers; ///< The presentity's, where it is about them.
};

/// What a NOTIFY says.
struct Notice {
    bool failed = false; ///< The database could not be asked; nothing has changed.
    bool due = true;     ///< Whether it says anything new.
    SubscriptionState state = SubscriptionState::active;
    std::string reason; ///< Why it is terminated.
    Body body;          ///< May be empty.
    std::size_t said = 0;
    std::vector<std::string> members; ///< The addresses on the list, where it is about one.
};

/// Makes a subscription's next NOTIFY from what the database has, and stores what it changes. Called by workers.
Notice compose(PresenceService& service, Subscription subscription, const Occasion& occasion);

} // namespace oryx::sip
