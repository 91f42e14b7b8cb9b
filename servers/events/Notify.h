#pragma once

#include <common/Endpoint.h>
#include <events/Composer.h>
#include <events/Subscription.h>

namespace oryx::sip {

struct NotifyRequest {
    Message message;
    const url_string_t* next; ///< Where it is sent in spite of its Route; null: as Route and request URI say.
    const char* family;       ///< As `Endpoint::familyOf` has it.
};
/// The NOTIFY request of a subscription (RFC 6665 section 4.2.2) within its dialog (RFC 3261 section 12.2.1.1).
NotifyRequest notifyRequest(const Endpoint& endpoint, const Subscription& subscription, const Notice& notice);

} // namespace oryx::sip
