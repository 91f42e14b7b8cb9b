#pragma once

#include <common/Gate.h>
#include <events/Notifier.h>

#include <memory>

namespace oryx::sip {

/// The event packages, as Allow-Events has them (RFC 6665 section 8.2.2).
constexpr const char* kAllowEvents = "presence, presence.winfo";

/// What requests are answered with.
struct Desk {
    Gate gate;
    Workers<EventSession>& workers;
    Notifier& notifier; ///< Hears of what has changed.
};

/// Answers a SUBSCRIBE request (RFC 6665 section 4.2.1).
void subscribe(const Desk& desk, const std::shared_ptr<Incoming>& request);
/// Answers a PUBLISH request for the package presence (RFC 3903 section 6).
void publish(const Desk& desk, const std::shared_ptr<Incoming>& request);

} // namespace oryx::sip
