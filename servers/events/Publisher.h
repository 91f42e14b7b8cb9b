#pragma once

#include <common/Endpoint.h>
#include <common/Workers.h>
#include <events/Session.h>

#include <dal/Publications.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace oryx::sip {

/// Answers PUBLISH requests for the package presence (RFC 3903 section 6).
class Publisher {
public:
    /// Gets the presentity, "user@domain", whose document has changed.
    using OnChange = std::function<void(const std::string& presentity)>;

    Publisher(const Options& options, const Provisioning& provisioning, const Nonces& nonces,
              Workers<EventSession>& workers, OnChange onChange);

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
    };

    bool readPresentity(Incoming& request, Order& order) const;
    static bool readEvent(Incoming& request, Order& order);
    bool readSender(Incoming& request, Order& order) const;
    static bool readEntityTag(Incoming& request, Order& order);
    bool readExpiry(Incoming& request, Order& order) const;
    static bool readBody(Incoming& request, Order& order);
    void apply(const std::shared_ptr<Incoming>& request, Order order);
    void challenge(Incoming& request, bool stale) const;
    void conclude(Incoming& request, const Outcome& outcome) const;
    static void tell(Incoming& request, const PublishAnswer& answer);

    const Options& m_options;
    const Provisioning& m_provisioning;
    const Nonces& m_nonces;
    Workers<EventSession>& m_workers;
    OnChange m_onChange;
};

} // namespace oryx::sip
