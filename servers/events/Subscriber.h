#pragma once

#include <common/Gate.h>
#include <events/Notifier.h>
#include <events/Session.h>

#include <memory>

namespace oryx::sip {

/// The event packages, as Allow-Events has them (RFC 6665 section 8.2.2).
constexpr const char* kAllowEvents = "presence, presence.winfo";

/// Answers SUBSCRIBE requests (RFC 6665 section 4.2.1).
class Subscriber {
public:
    Subscriber(const Gate& gate, Workers<EventSession>& workers, Notifier& notifier)
        : m_gate(gate), m_workers(workers), m_notifier(notifier)
    {
    }

    void take(const std::shared_ptr<Incoming>& request);

private:
    void refresh(const std::shared_ptr<Incoming>& request);

    const Gate& m_gate;
    Workers<EventSession>& m_workers;
    Notifier& m_notifier;
};

} // namespace oryx::sip
