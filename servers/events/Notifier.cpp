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

/// Before what the database could not be asked for is asked again, or what the workers had no room for; twice as long
/// each time, up to a limit.
constexpr std::chrono::milliseconds kRetryPause{200};
constexpr unsigned kMostDoublings = 4;
/// Before a NOTIFY that was refused is made again, if the refusal does not say; likewise.
constexpr std::chrono::seconds kRefusalPause{1};
constexpr std::chrono::seconds kLongestPause{3600};
constexpr unsigned kMostRefusals = 5;
/// A subscription takes some thousand bytes, ten where everything in it is as long as it may be.
constexpr std::size_t kMostWatches = 100000;
constexpr std::size_t kMostOfWatcher = 256;
constexpr std::size_t kMostWatchers = 256;      // told of at once
constexpr std::ptrdiff_t kMostToPresentity = 8; // telephones that have forgotten theirs have others still
constexpr std::size_t kMostAtOnce = 8;

constexpr int kTimeout = 408; // or somebody else's, on the way
/// Answers after which the subscriber, or his dialog, is not there any more (RFC 6665 section 4.2.2, RFC 5057 section
/// 5.1): 408 is also what there is when he has not answered.
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
      expiry(of.m_loop, [this] { notifier.expire(*this); }),
      rest(of.m_loop, [this] {
          resting = false;
          notifier.begin(*this);
      })
{
    newest = subscription.subscribeCseq;
}

Notifier::Watch::~Watch()
{
    if (transaction != nullptr) {
        nta_outgoing_destroy(transaction);
    }
}

Notifier::Notifier(Loop& loop, Workers<EventSession>& workers, const Options& options)
    : m_loop(loop), m_workers(workers), m_options(options), m_retry(loop, [this] { retry(); })
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
    const auto work = [this](EventSession& /*session*/) {
        Loaded loaded;
        loaded.first = sip::load(m_options, loaded.second);
        return loaded;
    };
    const auto then = [this](Loaded loaded) {
        if (!loaded.first) {
            m_retry.set(kRetryPause);
            return;
        }
        for (Subscription& subscription : loaded.second) {
            insert(std::move(subscription));
        }
        for (const auto& [id, watch] : m_watches) { // when all that watch a presentity are there
            resume(*watch);
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
    Watch& watch = insert(std::move(subscription));
    forget(m_watching, watch.subscription.presentity.text(), watch);
    forget(m_watchingWatchers, watch.subscription.presentity.text(), watch);
    watch.occasion.stored = false;
    wantEnd(watch, "timeout");
}

const Subscription* Notifier::find(const std::string& id) const
{
    const auto found = m_watches.find(id);
    const bool there = found != m_watches.end() && !found->second->ending();
    return there ? &found->second->subscription : nullptr;
}

bool Notifier::full() const
{
    return m_watches.size() >= kMostWatches;
}

bool Notifier::hasEnough(const Subscription& another) const
{
    const auto found = m_ofWatcher.find(another.watcher.text());
    if (found == m_ofWatcher.end()) {
        return false;
    }
    const auto alike = [&](const Watch* watch) {
        const bool ofWatchers = watch->subscription.package == Package::watchers;
        return ofWatchers == (another.package == Package::watchers) &&
               watch->subscription.presentity.text() == another.presentity.text();
    };
    return found->second.size() >= kMostOfWatcher ||
           std::count_if(found->second.begin(), found->second.end(), alike) >= kMostToPresentity;
}

bool Notifier::takeCseq(const Subscription& requested)
{
    Watch& watch = *m_watches.at(requested.id);
    if (requested.subscribeCseq <= watch.newest) {
        return false;
    }
    watch.newest = requested.subscribeCseq;
    return true;
}

void Notifier::refresh(const Subscription& refreshed)
{
    Watch& watch = *m_watches.at(refreshed.id);
    takeOver(watch, refreshed);
    want(watch, true);
}

void Notifier::end(const Subscription& refreshed, const std::string& reason)
{
    Watch& watch = *m_watches.at(refreshed.id);
    takeOver(watch, refreshed);
    wantEnd(watch, reason);
}

/// A NOTIFY on its way to where the subscriber is not any more is nobody's: neither does its answer matter.
void Notifier::takeOver(Watch& watch, const Subscription& refreshed)
{
    const bool moved = std::exchange(watch.subscription.contact, refreshed.contact) != refreshed.contact;
    if (moved && watch.transaction != nullptr) {
        nta_outgoing_destroy(std::exchange(watch.transaction, nullptr));
        watch.underWay = false;
    }
    watch.subscription.subscribeCseq = refreshed.subscribeCseq;
    watch.subscription.expires = refreshed.expires;
    watch.refusals = 0;
    watch.resting = false;
    schedule(watch);
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
        want(*watch, false);
    }
}

void Notifier::contactExpired(const std::string& watcher, const std::string& contact)
{
    const auto found = m_ofWatcher.find(watcher);
    if (found != m_ofWatcher.end()) {
        for (Watch* const watch : found->second) {
            if (watch->subscription.contact == contact) {
                wantEnd(*watch, "timeout");
            }
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
    m_ofWatcher[watch.subscription.watcher.text()].insert(&watch);
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
    watch.resting = false;
    watchersChanged(watch);
    want(watch, true);
}

void Notifier::begin(Watch& watch)
{
    if (watch.wanted && !watch.underWay && !watch.waiting && !watch.resting) {
        watch.waiting = true;
        (watch.subscription.notifyCseq == 0 ? m_new : m_waiting).push_back(watch.subscription.id);
        composeNext();
    }
}

/// A few at a time: whoever subscribes does not wait for all that a restart or a change of rules brings about.
void Notifier::composeNext()
{
    while (!m_pausing && m_composing < kMostAtOnce && !(m_new.empty() && m_waiting.empty())) {
        std::deque<std::string>& queue = m_new.empty() ? m_waiting : m_new;
        const auto next = m_watches.find(queue.front());
        queue.pop_front();
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

/// Until the workers have room.
void Notifier::pause()
{
    m_pausing = true;
    m_retry.set(kRetryPause);
}

/// Others need not wait for what is wrong with one.
void Notifier::rest(Watch& watch, std::chrono::milliseconds time)
{
    watch.resting = true;
    watch.rest.set(time);
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
        rest(watch, kRetryPause * (1U << std::min(watch.failures++, kMostDoublings)));
        return;
    }
    watch.failures = 0;
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
        const bool active = notice.state == SubscriptionState::active;
        const bool pending = notice.state == SubscriptionState::pending; // once more, after an approval
        watch.cause = active ? "approved" : pending ? "subscribe" : notice.reason;
        watchersChanged(watch);
    }
}

/// A list's subscription is concerned by what happens to its members.
void Notifier::takeMembers(Watch& watch, const std::vector<std::string>& members)
{
    if (watch.subscription.package != Package::presenceList) {
        return;
    }
    const std::set<std::string> before = std::exchange(watch.members, {members.begin(), members.end()});
    for (const std::string& member : before) {
        forget(m_watching, member, watch);
    }
    for (const std::string& member : watch.members) {
        m_watching[member].insert(&watch);
        // What has happened between the look at him and now nobody has been told.
        watch.wanted = watch.wanted || !before.contains(member);
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
        answered(watch, 503, std::chrono::seconds(0));
    }
}

int Notifier::responded(void* of, nta_outgoing_t* transaction, const sip_t* sip)
{
    Watch& watch = *static_cast<Watch*>(of);
    const int status = sip != nullptr ? sip->sip_status->st_status : nta_outgoing_status(transaction);
    if (status >= 200) {
        const sip_retry_after_t* const later = sip != nullptr ? sip->sip_retry_after : nullptr;
        watch.notifier.answered(watch, status, std::chrono::seconds(later != nullptr ? later->af_delta : 0));
    }
    return 0;
}

void Notifier::answered(Watch& watch, int status, std::chrono::seconds retryAfter)
{
    if (nta_outgoing_t* const transaction = std::exchange(watch.transaction, nullptr)) {
        nta_outgoing_destroy(transaction);
    }
    const bool goesOn = watch.subscription.state != SubscriptionState::terminated;
    if (goesOn && endsSubscription(status)) {
        watch.occasion.silent = true;
        wantEnd(watch, status == kTimeout ? "timeout" : "giveup");
    } else if (goesOn && status >= 300) {
        notTold(watch, retryAfter);
    } else {
        watch.refusals = 0;
    }
    finish(watch);
}

/// What somebody has refused, or what has not come to him, is as new to him as before.
void Notifier::notTold(Watch& watch, std::chrono::seconds retryAfter)
{
    watch.occasion.said = 0;
    if (!watch.ending() && watch.refusals < kMostRefusals) {
        watch.wanted = true;
        rest(watch,
             retryAfter.count() > 0 ? std::min(retryAfter, kLongestPause) : kRefusalPause * (1U << watch.refusals));
        ++watch.refusals;
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
    forget(m_ofWatcher, watch.subscription.watcher.text(), watch);
    m_watches.erase(std::string(watch.subscription.id));
}

/// Tells those who watch a presentity's watchers of one of them.
void Notifier::watchersChanged(const Watch& watch)
{
    const auto concerned = m_watchingWatchers.find(watch.subscription.presentity.text());
    const bool watches = watch.subscription.package == Package::presence && watch.occasion.stored;
    if (watches && concerned != m_watchingWatchers.end()) {
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
    // Of very many those that the presentity has to decide about are told first.
    std::stable_partition(entries.begin(), entries.end(),
                          [](const WatcherEntry& entry) { return entry.status == "pending"; });
    entries.resize(std::min(entries.size(), kMostWatchers));
    return entries;
}

void Notifier::stop()
{
    m_watches.clear();
}

} // namespace oryx::sip
