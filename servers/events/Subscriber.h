#pragma once

#include <common/Workers.h>
#include <events/Gate.h>
#include <events/Notifier.h>
#include <events/Session.h>

#include <memory>
#include <optional>
#include <string>

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
    /// A request as a worker gets it.
    struct Order {
        Subscription subscription;
        std::optional<Credentials> credentials;
        std::uint32_t expires = 0;
        bool lists = false; ///< Whether the subscriber knows what a list is.
        std::string list;   ///< Which, if it is one.
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
    bool readParties(Incoming& request, Order& order) const;
    static bool readDialog(Incoming& request, Order& order);
    bool readSender(Incoming& request, Order& order) const;
    bool findsRoom(Incoming& request, const Order& order) const;
    bool isNext(Incoming& request, const Order& order) const;
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

    const Gate& m_gate;
    Workers<EventSession>& m_workers;
    Notifier& m_notifier;
};

} // namespace oryx::sip
