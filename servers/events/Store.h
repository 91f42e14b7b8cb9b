#pragma once

#include <common/Options.h>
#include <events/Subscription.h>

#include <dal/PresenceService.h>

#include <string>
#include <vector>

/// \file
/// What of subscriptions stands in the database. All answer false when the database could not be asked; called by
/// workers.

namespace oryx::sip {

/// All that are stored, those that have expired among them; by a session of its own, that waits longer than requests
/// do.
bool load(const Options& options, std::vector<Subscription>& subscriptions);
/// Stores a new one.
bool store(PresenceService& service, const Subscription& subscription);
/// Stores what a refresh has changed: contact, CSeq and expiry.
bool storeRefresh(PresenceService& service, const Subscription& subscription);
/// Stores what a NOTIFY will have changed: CSeq, state and the next document's version. Done before it is sent: no CSeq
/// is used twice, whenever this server ends.
bool storeNotify(PresenceService& service, const Subscription& subscription);
bool remove(PresenceService& service, const Subscription& subscription);

} // namespace oryx::sip
