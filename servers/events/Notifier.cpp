// What is to be told to whom, and when (RFC 6665 section 4.2.2).

#include <events/Notifier.h>

#include <events/Notify.h>
#include <events/Store.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <utility>

namespace oryx::sip {

namespace {

/// Before what the database could not be asked for is asked again, or what the workers had no room for.
constexpr std::chrono::milliseconds kRetryPause{200};

/// Answers after which the subscriber, or his dialog, is not there any more (RFC 6665 section 4.2.2, RFC 5057 section
/// 5.1): 408 is also what there is when he has not answered.
bool endsSubscription(int status)
{
    constexpr std::array kEnding{404, 405, 408, 410, 416, 480, 481, 482, 483, 484, 485, 489, 501, 604};
    return std::find(kEnding.begin(), kEnding.end(), status) != kEnding.end();
}

} // namespace

Notifier::Watch::~Watch()
{
    if (transaction != nullptr) {
        nta_outgoing_destroy(transaction);
    }
}

Notifier::Notifier(Loop& loop, Workers<EventSession>& workers)
    : m_loop(loop), m_workers(workers), m_retry(loop, [this] { retry(); })
{
}

Notifier::~Notifier() = default;

void Notifier::resume(std::function<void()> done)
{
    using Loaded = std::pair<bool, std::vector<Subscription>>;
    const auto work = [](EventSession& session) {
        Loaded loaded;
        loaded.first = load(session.service(), loaded.second);
        return loaded;
    };
    const bool given = m_workers.give(0, work, [this, done](Loaded loaded) {
        if (!loaded.first) {
            resume(done);
            return;
        }
        for (Subscription& subscription : loaded.second) {
            want(insert(std::move(subscription)), true); // what has changed meanwhile nobody knows
        }
        done();
    });
    if (!given) {
        resumeLater(done);
    }
}

void Notifier::add(Subscription subscription)
{
    Watch& watch = insert(std::move(subscription));
    want(watch, true);
    watchersChanged(watch);
}

void Notifier::addFetch(Subscription subscription)
{
    const std::string id = subscription.id;
    Watch& watch = *m_watches.emplace(id, std::make_unique<Watch>(*this, std::move(subscription))).first->second;
    watch.next.stored = false;
    want(watch, "timeout");
}

const Subscription* Notifier::find(const std::string& id) const
{
    const auto found = m_watches.find(id);
    const bool there = found != m_watches.end() && !found->second->ending();
    return there ? &found->second->subscription : nullptr;
}

bool Notifier::refresh(const Subscription& refreshed)
{
    if (find(refreshed.id) == nullptr) {
        return false;
    }
    Watch& watch = *m_watches.at(refreshed.id);
    watch.subscription.contact = refreshed.contact;
    watch.subscription.subscribeCseq = refreshed.subscribeCseq;
    watch.subscription.expires = refreshed.expires;
    schedule(watch);
    want(watch, true);
    return true;
}

bool Notifier::end(const std::string& id, const std::string& reason)
{
    if (find(id) == nullptr) {
        return false;
    }
    want(*m_watches.at(id), reason);
    return true;
}

void Notifier::publicationChanged(const std::string& presentity)
{
    const auto concerned = m_watching.find(presentity);
    if (concerned != m_watching.end()) {
        for (Watch* const watch : concerned->second) {
            want(*watch, false);
        }
    }
}

void Notifier::lookAgain()
{
    for (const auto& [id, watch] : m_watches) {
        if (watch->subscription.package != Package::watchers) {
            want(*watch, false);
        }
    }
}

/// A subscription that goes on until it ends or expires.
Notifier::Watch& Notifier::insert(Subscription subscription)
{
    const std::string id = subscription.id;
    Watch& watch = *m_watches.emplace(id, std::make_unique<Watch>(*this, std::move(subscription))).first->second;
    const std::string presentity = watch.subscription.presentity.text();
    (watch.subscription.package == Package::watchers ? m_watchingWatchers : m_watching)[presentity].insert(&watch);
    schedule(watch);
    return watch;
}

void Notifier::schedule(Watch& watch)
{
    constexpr std::time_t kLongest = 86400; // seconds; the stack's timers know no years
    const std::time_t left = watch.subscription.expires - std::time(nullptr);
    watch.expiry.set(std::chrono::seconds(std::clamp<std::time_t>(left, 0, kLongest)));
}

void Notifier::expire(Watch& watch)
{
    if (watch.subscription.expires > std::time(nullptr)) {
        schedule(watch);
    } else {
        want(watch, "timeout");
    }
}

/// Has a NOTIFY sent: always, or if it says anything new.
void Notifier::want(Watch& watch, bool always)
{
    watch.wanted = true;
    watch.next.always = watch.next.always || always;
    begin(watch);
}

/// Has a subscription end with a NOTIFY, or without one.
void Notifier::want(Watch& watch, const std::string& ends, bool silent)
{
    if (watch.ending()) {
        return;
    }
    watch.cause = ends;
    watch.next.ends = ends;
    watch.next.silent = silent;
    watchersChanged(watch);
    want(watch, true);
}

void Notifier::begin(Watch& watch)
{
    if (watch.underWay || !watch.wanted) {
        return;
    }
    if (watch.subscription.package == Package::watchers) {
        watch.next.watchers = watchersOf(watch.subscription.presentity.text());
    }
    auto work = [next = watch.subscription, occasion = watch.next](EventSession& session) mutable {
        ++next.notifyCseq;
        Notice notice = compose(session.service(), next, occasion);
        return std::pair(std::move(next), std::move(notice));
    };
    auto then = [this, id = watch.subscription.id](std::pair<Subscription, Notice> made) {
        take(id, made.first, made.second);
    };
    watch.underWay = m_workers.give(watch.subscription.presentity.key(), std::move(work), std::move(then));
    if (watch.underWay) {
        watch.wanted = false;
        watch.next.always = false;
    } else {
        m_retry.set(kRetryPause);
    }
}

void Notifier::take(const std::string& id, const Subscription& next, const Notice& notice)
{
    Watch& watch = *m_watches.at(id);
    if (notice.failed) {
        watch.underWay = false;
        watch.wanted = true;
        watch.next.always = true;
        m_retry.set(kRetryPause);
        return;
    }
    if (!notice.due) {
        finish(watch);
        return;
    }
    watch.subscription.notifyCseq = next.notifyCseq;
    watch.subscription.version = next.version;
    watch.next.said = notice.said;
    const SubscriptionState before = std::exchange(watch.subscription.state, notice.state);
    takeMembers(watch, notice.members);
    if (before != notice.state && !watch.ending()) {
        watch.cause = notice.state == SubscriptionState::active ? "approved" : notice.reason;
        watchersChanged(watch);
    }
    if (watch.next.silent) {
        erase(watch);
    } else {
        send(watch, notice);
    }
}

/// A list's subscription is concerned by what happens to its members.
void Notifier::takeMembers(Watch& watch, const std::vector<std::string>& members)
{
    if (watch.subscription.package != Package::presenceList) {
        return;
    }
    for (const std::string& member : watch.members) {
        forget(m_watching, member, watch);
    }
    watch.members = {members.begin(), members.end()};
    for (const std::string& member : watch.members) {
        m_watching[member].insert(&watch);
    }
}

void Notifier::retry()
{
    for (const auto& [id, watch] : m_watches) {
        begin(*watch);
    }
}

void Notifier::send(Watch& watch, const Notice& notice)
{
    Message request = notifyRequest(*m_endpoint, watch.subscription, notice);
    watch.transaction = nta_outgoing_mcreate(m_endpoint->agent(), &Notifier::responded, &watch, nullptr,
                                             request.release(), TAG_END());
    if (watch.transaction == nullptr) { // nowhere: no such host
        answered(watch, SIP_408_REQUEST_TIMEOUT_STATUS);
    }
}

int Notifier::responded(void* of, nta_outgoing_t* transaction, const sip_t* sip)
{
    Watch& watch = *static_cast<Watch*>(of);
    const int status = sip != nullptr ? sip->sip_status->st_status : nta_outgoing_status(transaction);
    if (status >= 200) {
        watch.notifier.answered(watch, status);
    }
    return 0;
}

void Notifier::answered(Watch& watch, int status)
{
    if (nta_outgoing_t* const transaction = std::exchange(watch.transaction, nullptr)) {
        nta_outgoing_destroy(transaction);
    }
    if (watch.subscription.state != SubscriptionState::terminated && endsSubscription(status)) {
        watch.underWay = false;
        want(watch, status == 408 ? "timeout" : "giveup", true);
    } else {
        finish(watch);
    }
}

/// What was under way for a subscription is done: the next, or its end.
void Notifier::finish(Watch& watch)
{
    watch.underWay = false;
    if (watch.subscription.state == SubscriptionState::terminated) {
        erase(watch);
    } else {
        begin(watch);
    }
}

void Notifier::erase(Watch& watch)
{
    takeMembers(watch, {});
    forget(m_watching, watch.subscription.presentity.text(), watch);
    forget(m_watchingWatchers, watch.subscription.presentity.text(), watch);
    m_watches.erase(std::string(watch.subscription.id));
}

/// Tells those who watch a presentity's watchers of one of them.
void Notifier::watchersChanged(const Watch& watch)
{
    const auto concerned = m_watchingWatchers.find(watch.subscription.presentity.text());
    if (watch.subscription.package == Package::presence && concerned != m_watchingWatchers.end()) {
        for (Watch* const other : concerned->second) {
            want(*other, true);
        }
    }
}

std::vector<WatcherEntry> Notifier::watchersOf(const std::string& presentity) const
{
    std::vector<WatcherEntry> entries;
    const auto watching = m_watching.find(presentity);
    if (watching == m_watching.end()) {
        return entries;
    }
    const std::time_t now = std::time(nullptr);
    for (const Watch* const watch : watching->second) {
        const Subscription& subscription = watch->subscription;
        const SubscriptionState state = watch->ending() ? SubscriptionState::terminated : subscription.state;
        entries.push_back({"sip:" + subscription.watcher.text(), subscription.id.substr(subscription.id.find('#') + 1),
                           textOf(state), watch->cause, static_cast<long>(subscription.expires - now)});
    }
    return entries;
}

void Notifier::stop()
{
    m_watches.clear();
}

} // namespace oryx::sip
