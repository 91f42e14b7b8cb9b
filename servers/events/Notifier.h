#pragma once

#include <common/Endpoint.h>
#include <common/Loop.h>
#include <common/Workers.h>
#include <events/Composer.h>
#include <events/Store.h>
#include <events/Subscription.h>

#include <algorithm>
#include <array>
#include <bitset>
#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

namespace oryx::sip {

/// All subscriptions, and what their subscribers are sent (RFC 6665 section 4.2). Of the SIP thread; what it knows is
/// in the database as well, in which it is looked up only after a restart.
///
/// A subscriber gets one NOTIFY after another: what happens before one is answered is told by the next, all together.
/// One that is refused for now is made again, a few times.
class Notifier {
public:
    /// What was stored is loaded by the patient one; `resumed` is called then.
    Notifier(Loop& loop, Workers<EventSession>& workers, Workers<EventSession>& patient, std::function<void()> resumed);
    Notifier(const Notifier&) = delete;
    Notifier& operator=(const Notifier&) = delete;

    /// Once the sockets are there: where NOTIFY is sent from.
    void setEndpoint(const Endpoint& endpoint) { m_endpoint = &endpoint; }
    /// Goes on with what was stored before the server was started.
    void resume();

    /// Whether there are as many subscriptions as this server is to have, 100,000.
    bool full() const { return m_watches.size() >= kMostWatches; }
    /// Whether the watcher has as many as a person may have: 256, and 8 of them to one presentity.
    bool hasEnough(const Subscription& another) const;
    /// Whether a request is newer than all before it in its dialog: what makes it as if it had not come, else nothing.
    std::function<void()> takeCseq(const Subscription& requested);

    /// A new subscription, which gets its first NOTIFY. One that is not stored gets no other: its subscriber only
    /// fetches what is there (RFC 6665 section 4.4.3).
    void add(Subscription subscription, bool stored);
    /// Has one taken away again that there was no room for after all; its subscriber hears nothing.
    void discard(Subscription subscription, bool stored);
    /// A subscription that has not ended; null when there is none.
    const Subscription* find(const std::string& id) const;
    /// Takes over what a refresh has changed of a subscription that has not ended, and sends a NOTIFY
    /// (section 4.2.1.2); the last one, if its time is over.
    void refresh(const Subscription& refreshed);

    /// What is published of a presentity, "user@domain", has changed.
    void publicationChanged(const std::string& presentity);
    /// Anything may have changed.
    void lookAgain();
    /// Whether the watcher, "user@domain", has subscribed to anything from that contact.
    bool comesFrom(const std::string& watcher, const std::string& contact) const;
    /// His registration has expired: what he has subscribed to from there ends.
    void contactExpired(const std::string& watcher, const std::string& contact);

private:
    /// A subscription takes some thousand bytes, ten where everything in it is as long as it may be.
    static constexpr std::size_t kMostWatches = 100000;

    enum class Want { nothing, news, anything }; // news: only if it says something else than the last one
    enum class Phase {
        idle,
        waiting,  // for its turn to be made
        underWay, // is being made, or has not been answered
        resting,  // for a while, after what could not be done
    };
    /// When a NOTIFY is made: the first of a subscription before news, and those before what a restart or a change of
    /// rules brings about for everybody.
    enum Turn : std::size_t { first, soon, late, turns };
    /// What one worker is to make, a few at a time: those that wait for another worker's rows do not wait with it.
    struct Lane {
        explicit Lane(Notifier& of) : pause(of.m_loop, [this, &of] { of.composeNext(*this); }) {}

        std::array<std::deque<std::string>, turns> queues; ///< Of subscriptions.
        std::size_t composing = 0;                         ///< How many are being made.
        Timer pause;                                       ///< While it is set none is made, as the worker had no room.
    };
    /// A subscription, and what is under way for it.
    struct Watch {
        Watch(Notifier& of, Subscription what);

        void note(Want what, Turn when)
        {
            wanted = std::max(wanted, what);
            turn = std::min(turn, when);
        }
        void pauseFor(std::chrono::milliseconds time)
        {
            phase = Phase::resting; // others need not wait for what is wrong with this one
            rest.set(time);
        }
        void leave(Phase left) { phase = phase == left ? Phase::idle : phase; }
        const std::string& contact() const { return subscription.dialog.remotecontacthdr(); }
        bool ending() const { return !occasion.ends.empty() || subscription.state == SubscriptionState::terminated; }

        Notifier& notifier;
        Subscription subscription;
        Lane& lane;
        Occasion occasion;             ///< Of the NOTIFY that is under way, or of the last one.
        Phase phase = Phase::idle;     ///< Of that NOTIFY.
        Want wanted = Want::nothing;   ///< What another is to say.
        Turn turn = late;              ///< When it is to be made.
        Turn made = late;              ///< When the one that is under way was: one in its place is made no later.
        std::bitset<turns> queued;     ///< Where it stands, or stood when its turn came elsewhere.
        unsigned failures = 0;         ///< How often the database could not be asked, one after another.
        unsigned refusals = 0;         ///< How many NOTIFYs were refused, one after another.
        std::string cause;             ///< What has made the state what it is, as watcher information calls it.
        std::set<std::string> members; ///< The presentities on the list.
        Transaction transaction;
        Timer expiry;
        Timer rest;
    };
    using Watches = std::unordered_map<std::string, std::unique_ptr<Watch>>;
    /// The subscriptions that what happens to somebody concerns.
    using Index = std::unordered_map<std::string, std::set<Watch*>>;

    static const std::set<Watch*>& watchesOf(const Index& index, const std::string& person);
    static void remove(Index& index, const std::string& person, Watch& watch);

    Watch& insert(Subscription subscription, bool stored);
    void proceed(Watch& watch, Turn turn = soon);
    void schedule(Watch& watch);
    void want(Watch& watch, Want what, Turn turn = soon);
    void wantEnd(Watch& watch, const std::string& reason);
    void begin(Watch& watch);
    void composeNext(Lane& lane);
    bool compose(Watch& watch);
    void take(const std::string& id, const Notice& notice);
    void takeState(Watch& watch, const Notice& notice);
    void takeMembers(Watch& watch, const std::vector<std::string>& members);
    static int responded(void* of, nta_outgoing_t* transaction, const sip_t* sip);
    void answered(Watch& watch, int status, std::chrono::seconds retryAfter);
    static void notTold(Watch& watch, std::chrono::seconds retryAfter);
    void finish(Watch& watch);
    void erase(Watch& watch);
    void watchersChanged(const Watch& watch);
    std::vector<WatcherEntry> watchersOf(const std::string& presentity) const;

    Loop& m_loop;
    Workers<EventSession>& m_workers;
    Workers<EventSession>& m_patient;
    const Endpoint* m_endpoint = nullptr;
    Watches m_watches;
    Index m_watching;         // presentity to subscriptions to his presence, by himself or by a list
    Index m_watchingWatchers; // presentity to subscriptions to his watchers
    Index m_ofWatcher;        // watcher to his subscriptions
    std::deque<Lane> m_lanes;
    Timer m_retry;
    std::function<void()> m_resumed;
};

} // namespace oryx::sip
