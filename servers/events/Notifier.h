#pragma once

#include <common/Endpoint.h>
#include <common/Loop.h>
#include <common/Workers.h>
#include <events/Composer.h>
#include <events/Session.h>
#include <events/Subscription.h>

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
class Notifier {
public:
    Notifier(Loop& loop, Workers<EventSession>& workers);
    ~Notifier();
    Notifier(const Notifier&) = delete;
    Notifier& operator=(const Notifier&) = delete;

    /// Once the sockets are there: where NOTIFY is sent from.
    void setEndpoint(const Endpoint& endpoint) { m_endpoint = &endpoint; }
    /// Goes on with what was stored before the server was started, and calls `resumed` then.
    void resume(std::function<void()> resumed);
    /// Whether that has come about: until then nobody knows what there is.
    bool resumed() const { return m_loaded; }

    /// Begins a subscription that is stored, with its first NOTIFY.
    void add(Subscription subscription);
    /// Sends the one NOTIFY to somebody who only fetches what is there.
    void addFetch(Subscription subscription);
    /// A subscription that has not ended; null when there is none.
    const Subscription* find(const std::string& id) const;
    /// Takes over what a refresh has changed of a subscription that has not ended, and sends a NOTIFY (RFC 6665 section
    /// 4.2.1.2).
    void refresh(const Subscription& refreshed);
    /// Ends a subscription that has not ended, with a last NOTIFY.
    void end(const std::string& id, const std::string& reason) { wantEnd(*m_watches.at(id), reason); }

    /// What is published of a presentity, "user@domain", has changed.
    void publicationChanged(const std::string& presentity);
    /// Anything may have changed.
    void lookAgain();
    /// A registration of the watcher, "user@domain", has expired: what he has subscribed to from there ends.
    void contactExpired(const std::string& watcher, const std::string& contact);
    /// Ends whatever is under way.
    void stop();

private:
    /// A subscription, and what is under way for it.
    struct Watch {
        Watch(Notifier& of, Subscription what);
        ~Watch();
        Watch(const Watch&) = delete;
        Watch& operator=(const Watch&) = delete;

        bool ending() const { return !occasion.ends.empty() || subscription.state == SubscriptionState::terminated; }

        Notifier& notifier;
        Subscription subscription;
        Occasion occasion;             ///< Of the NOTIFY that is under way, or of the last one.
        bool wanted = false;           ///< Whether there is to be another.
        bool wantedAlways = false;     ///< And even if it says nothing new.
        bool waiting = false;          ///< For its turn to be made.
        bool underWay = false;         ///< One is being made, or has not been answered.
        std::string cause;             ///< What has made the state what it is, as watcher information calls it.
        std::set<std::string> members; ///< The presentities on the list.
        nta_outgoing_t* transaction = nullptr;
        Timer expiry;
    };
    using Watches = std::unordered_map<std::string, std::unique_ptr<Watch>>;
    /// Whom each presentity's changes concern.
    using Index = std::unordered_map<std::string, std::set<Watch*>>;

    Watch& insert(Subscription subscription);
    static void schedule(Watch& watch);
    void expire(Watch& watch);
    void want(Watch& watch, bool always);
    void wantEnd(Watch& watch, const std::string& reason);
    void begin(Watch& watch);
    void composeNext();
    void compose(Watch& watch);
    void pause();
    void take(const std::string& id, const Subscription& next, const Notice& notice);
    void takeState(Watch& watch, const Notice& notice);
    void load();
    void resume(Watch& watch);
    static void forget(Index& index, const std::string& presentity, Watch& watch);
    void takeMembers(Watch& watch, const std::vector<std::string>& members);
    void retry();
    void send(Watch& watch, const Notice& notice);
    static int responded(void* of, nta_outgoing_t* transaction, const sip_t* sip);
    void answered(Watch& watch, int status);
    void finish(Watch& watch);
    void erase(Watch& watch);
    void watchersChanged(const Watch& watch);
    std::vector<WatcherEntry> watchersOf(const std::string& presentity) const;

    Loop& m_loop;
    Workers<EventSession>& m_workers;
    const Endpoint* m_endpoint = nullptr;
    Watches m_watches;
    Index m_watching;                  // presentity to subscriptions to his presence, by himself or by a list
    Index m_watchingWatchers;          // presentity to subscriptions to his watchers
    std::deque<std::string> m_waiting; // those that want a NOTIFY made
    std::size_t m_composing = 0;       // how many are being made
    bool m_pausing = false;            // the database is away
    Timer m_retry;
    std::function<void()> m_resumed;
    bool m_loaded = false;
};

} // namespace oryx::sip
