#pragma once

#include <common/Gate.h>
#include <events/Notifier.h>
#include <events/Session.h>

#include <memory>

namespace oryx::sip {

/// Answers PUBLISH requests for the package presence (RFC 3903 section 6).
class Publisher {
public:
    Publisher(const Gate& gate, Workers<EventSession>& workers, Notifier& notifier)
        : m_gate(gate), m_workers(workers), m_notifier(notifier)
    {
    }

    void take(const std::shared_ptr<Incoming>& request);

private:
    const Gate& m_gate;
    Workers<EventSession>& m_workers;
    Notifier& m_notifier; // hears of what has changed
};

} // namespace oryx::sip
