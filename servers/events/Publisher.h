#pragma once

#include <common/Workers.h>
#include <events/Gate.h>
#include <events/Session.h>

#include <dal/Publications.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace oryx::sip {

/// Answers PUBLISH requests for the package presence (RFC 3903 section 6).
class Publisher {
public:
    /// Gets the presentity, "user@domain", whose document has changed.
    using OnChange = std::function<void(const std::string& presentity)>;

    Publisher(const Gate& gate, Workers<EventSession>& workers, OnChange onChange)
        : m_gate(gate), m_workers(workers), m_onChange(std::move(onChange))
    {
    }

    void take(const std::shared_ptr<Incoming>& request);

private:
    /// A request as the database gets it.
    struct Order {
        Address presentity;
        std::optional<Credentials> credentials;
        PublishRequest request;
    };
    struct Outcome {
        Verdict verdict = Verdict::accepted;
        PublishAnswer answer;
        bool changed = false; ///< What watchers see.
        int refusal = 0;      ///< The status, where the body is none that can be published.
    };

    bool readPresentity(Incoming& request, Order& order) const;
    static bool readEvent(Incoming& request, Order& order);
    bool readSender(Incoming& request, Order& order) const;
    static bool readEntityTag(Incoming& request, Order& order);
    static bool readBody(Incoming& request, Order& order);
    void apply(const std::shared_ptr<Incoming>& request, Order order);
    static void publish(PresenceService& service, Order& order, Outcome& outcome);
    static void tell(Incoming& request, const Outcome& outcome);

    const Gate& m_gate;
    Workers<EventSession>& m_workers;
    OnChange m_onChange;
};

} // namespace oryx::sip
