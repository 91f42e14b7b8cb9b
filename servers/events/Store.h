#pragma once

#include <common/Session.h>
#include <events/Subscription.h>

#include <dal/PresenceService.h>

#include <optional>
#include <vector>

/// \file
/// What of subscriptions stands in the database: the dialog, and a row that says for how long and in which state. All
/// answer false, or nothing, when the database could not be asked; called by workers.
///
/// The dialog is stored first and removed last: should this server end in between, the one without its other row is
/// loaded as one that has expired, and ends. Of a refresh and a NOTIFY the CSeq is stored first, and so never used
/// twice.

namespace oryx::sip {

/// What a worker of the event server holds.
using EventSession = SessionOf<PresenceService>;

/// All that are stored, those that have expired among them.
std::optional<std::vector<Subscription>> loadSubscriptions(PresenceService& service);
/// Stores a new one.
bool store(PresenceService& service, const Subscription& subscription);
/// Stores what a refresh has changed: contact, CSeq and expiry.
bool storeRefresh(PresenceService& service, const Subscription& subscription);
/// Stores what a NOTIFY will have changed, before it is sent: CSeq, state and the next document's version.
bool storeNotify(PresenceService& service, const Subscription& subscription);
bool remove(PresenceService& service, const Subscription& subscription);

} // namespace oryx::sip
