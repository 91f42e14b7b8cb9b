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
constexpr std::size_t kMostAtOnce = 8;

constexpr int kTimeout = 408; // or somebody else's, on the way
/// Answers after which the subscriber, or his dialog, is not there any more (RFC 6665 section 4.2.2, RFC 5057 section
/// 5.1): 408 is also
/// what there is when he has not answered.
bool endsSubscription(int status)
{
    constexpr std::array kEnding{404, 405, 408, 410, 416, 480, 481, 482, 483, 484, 485, 489, 501, 604};
    return std::find(kEnding.begin(), kEnding.end(), status) != kEnding.end();
}

} // namespace

Notifier::Watch::Watch(Notifier& of, Subscription what)
    : notifier(of),
      subscription(std::move(what)),
      cause("subscribe"),
      expiry(of.m_loop, [this] { notifier.expire(*this); })
{
}

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

void Notifier::resume(std::function<void()> resumed)
{
    m_resumed = std::move(resumed);
    load();
}

void Notifier::load()
{
    using Loaded = std::pair<bool, std::vector<Subscription>>;
    const auto work = [](EventSession& session) {
        Loaded loaded;
        loaded.first = sip::load(session.service(), loaded.second);
        return loaded;
    };
    const auto then = [this](Loaded loaded) {
        if (!loaded.first) {
            m_retry.set(kRetryPause);
            return;
        }
        for (Subscription& subscription : loaded.second) {
            resume(insert(std::move(subscription)));
        }
        m_loaded = true;
        m_resumed();
    };
    if (!m_workers.give(0, work, then)) {
        m_retry.set(kRetryPause);
    }
}

/// What has changed while the server was away nobody knows, but for what has expired.
void Notifier::resume(Watch& watch)
{
    if (watch.subscription.expires <= std::time(nullptr)) {
        wantEnd(watch, "timeout");
    } else {
        want(watch, true);
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
    watch.occasion.stored = false;
    wantEnd(watch, "timeout");
}

const Subscription* Notifier::find(const std::string& id) const
{
    const auto found = m_watches.find(id);
    const bool there = found != m_watches.end() && !found->second->ending();
    return there ? &found->second->subscription : nullptr;
}

void Notifier::refresh(const Subscription& refreshed)
{
    Watch& watch = *m_watches.at(refreshed.id);
    watch.subscription.contact = refreshed.contact;
    watch.subscription.subscribeCseq = refreshed.subscribeCseq;
    watch.subscription.expires = refreshed.expires;
    schedule(watch);
    want(watch, true);
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

void Notifier::contactExpired(const std::string& watcher, const std::string& contact)
{
    for (const auto& [id, watch] : m_watches) {
        const Subscription& subscription = watch->subscription;
        if (subscription.watcher.text() == watcher && subscription.contact == contact) {
            wantEnd(*watch, "timeout");
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
        wantEnd(watch, "timeout");
    }
}

/// Has a NOTIFY sent: always, or if it says anything new.
void Notifier::want(Watch& watch, bool always)
{
    watch.wanted = true;
    watch.wantedAlways = watch.wantedAlways || always;
    begin(watch);
}

/// Has a subscription end, with its last NOTIFY.
void Notifier::wantEnd(Watch& watch, const std::string& reason)
{
    if (watch.ending()) {
        return;
    }
    watch.cause = reason;
    watch.occasion.ends = reason;
    watchersChanged(watch);
    want(watch, true);
}

void Notifier::begin(Watch& watch)
{
    if (watch.wanted && !watch.underWay && !watch.waiting) {
        watch.waiting = true;
        m_waiting.push_back(watch.subscription.id);
        composeNext();
    }
}

/// A few at a time: whoever subscribes does not wait for all that a restart or a change of rules brings about.
void Notifier::composeNext()
{
    while (!m_pausing && m_composing < kMostAtOnce && !m_waiting.empty()) {
        const auto next = m_watches.find(m_waiting.front());
        m_waiting.pop_front();
        if (next != m_watches.end()) {
            next->second->waiting = false;
            compose(*next->second);
        }
    }
}

void Notifier::compose(Watch& watch)
{
    watch.occasion.always = watch.wantedAlways;
    if (watch.subscription.package == Package::watchers) {
        watch.occasion.watchers = watchersOf(watch.subscription.presentity.text());
    }
    auto work = [next = watch.subscription, occasion = watch.occasion](EventSession& session) mutable {
        ++next.notifyCseq;
        Notice notice = sip::compose(session.service(), next, occasion);
        return std::pair(std::move(next), std::move(notice));
    };
    auto then = [this, id = watch.subscription.id](const std::pair<Subscription, Notice>& made) {
        --m_composing;
        take(id, made.first, made.second);
        composeNext();
    };
    watch.underWay = m_workers.give(watch.subscription.presentity.key(), std::move(work), std::move(then));
    if (watch.underWay) {
        ++m_composing;
        watch.wanted = false;
        watch.wantedAlways = false;
    } else {
        pause();
        begin(watch);
    }
}

/// Until the database answers again, or the workers have room.
void Notifier::pause()
{
    m_pausing = true;
    m_retry.set(kRetryPause);
}

/// What a worker has made; `next` is the subscription with it.
void Notifier::take(const std::string& id, const Subscription& next, const Notice& notice)
{
    const auto found = m_watches.find(id);
    if (found == m_watches.end()) { // the server is about to end
        return;
    }
    Watch& watch = *found->second;
    if (notice.failed) {
        watch.underWay = false;
        watch.wanted = true;
        watch.wantedAlways = watch.wantedAlways || watch.occasion.always;
        pause();
        begin(watch);
        return;
    }
    if (!notice.due) {
        finish(watch);
        return;
    }
    watch.subscription.notifyCseq = next.notifyCseq;
    watch.subscription.version = next.version;
    watch.occasion.said = notice.said;
    takeMembers(watch, notice.members);
    takeState(watch, notice);
    if (watch.occasion.silent) {
        erase(watch);
    } else {
        send(watch, notice);
    }
}

void Notifier::takeState(Watch& watch, const Notice& notice)
{
    const bool ending = watch.ending();
    if (std::exchange(watch.subscription.state, notice.state) != notice.state && !ending) {
        watch.cause = notice.state == SubscriptionState::active ? "approved" : notice.reason;
        watchersChanged(watch);
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
    m_pausing = false;
    if (!m_loaded) {
        load();
    }
    composeNext();
}

void Notifier::send(Watch& watch, const Notice& notice)
{
    NotifyRequest request = notifyRequest(*m_endpoint, watch.subscription, notice);
    watch.transaction = nta_outgoing_mcreate(m_endpoint->agent(), &Notifier::responded, &watch, request.next,
                                             request.message.release(), TPTAG_IDENT(request.family), TAG_END());
    if (watch.transaction == nullptr) { // nowhere: no such host
        answered(watch, kTimeout);
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
        watch.occasion.silent = true;
        wantEnd(watch, status == kTimeout ? "timeout" : "giveup");
    }
    finish(watch);
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

void Notifier::forget(Index& index, const std::string& presentity, Watch& watch)
{
    const auto found = index.find(presentity);
    if (found != index.end() && found->second.erase(&watch) != 0 && found->second.empty()) {
        index.erase(found);
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
        if (subscription.package != Package::presence) {
            continue;
        }
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
