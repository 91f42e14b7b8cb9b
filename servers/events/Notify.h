#pragma once

#include <common/Endpoint.h>
#include <events/Composer.h>
#include <events/Subscription.h>

namespace oryx::sip {

/// Sends a subscription's NOTIFY (RFC 6665 section 4.2.2) within its dialog (RFC 3261 section 12.2.1.1); its answers go
/// to `respond`, with `magic`. Null where it cannot be sent.
Transaction sendNotify(const Endpoint& endpoint, const Subscription& subscription, const Notice& notice,
                       nta_response_f* respond, void* magic);

} // namespace oryx::sip
