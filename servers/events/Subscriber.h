#pragma once

#include <common/Digest.h>
#include <common/Endpoint.h>
#include <common/Workers.h>
#include <events/Notifier.h>
#include <events/Session.h>

#include <memory>
#include <optional>

namespace oryx::sip {

/// The event packages, as Allow-Events has them (RFC 6665 section 8.2.2).
constexpr const char* kAllowEvents = "presence, presence.winfo";

/// Answers SUBSCRIBE requests (RFC 6665 section 4.2.1).
class Subscriber {
public:
    Subscriber(const Options& options, const Provisioning& provisioning, const Nonces& nonces,
               Workers<EventSession>& workers, Notifier& notifier);

    void take(const std::shared_ptr<Incoming>& request);

private:
    /// A request as a worker gets it.
    struct Order {
        Subscription subscription;
        std::optional<Credentials> credentials;
        std::uint32_t expires = 0;
        bool lists = false; ///< Whether the subscriber knows what a list is.
    };
    enum class Outcome {
        accepted,
        unknownPresentity,
        refused,
        needsLists, ///< it is a list, and the subscriber does not know what that is
        failed,     ///< the database could not be asked
    };
    struct Answer {
        Verdict verdict = Verdict::accepted;
        Outcome outcome = Outcome::failed;
        Subscription subscription;
    };

    static bool understands(Incoming& request);
    static bool readPackage(Incoming& request, Order& order);
    bool readExpiry(Incoming& request, Order& order) const;
    bool readParties(Incoming& request, Order& order) const;
    static bool readDialog(Incoming& request, Order& order);
    bool readSender(Incoming& request, Order& order) const;
    void begin(const std::shared_ptr<Incoming>& request, Order order);
    bool readKnown(Incoming& request, Order& order) const;
    void refresh(const std::shared_ptr<Incoming>& request, Order order);
    static Outcome accept(PresenceService& service, const Order& order, Subscription& subscription);
    static Outcome acceptWatcher(PresenceService& service, Subscription& subscription);
    static Outcome acceptList(PresenceService& service, const Order& order, Subscription& subscription);
    template <typename Work, typename Then>
    void give(const std::shared_ptr<Incoming>& request, Order order, Work work, Then then);
    bool passed(Incoming& request, const Answer& answer) const;
    static void conclude(Incoming& request, const Subscription& subscription, std::uint32_t expires);

    const Options& m_options;
    const Provisioning& m_provisioning;
    const Nonces& m_nonces;
    Workers<EventSession>& m_workers;
    Notifier& m_notifier;
};

} // namespace oryx::sip
