// What is to be told to whom, and when (RFC 6665 section 4.2.2).

#include <events/Notifier.h>

#include <events/Notify.h>

#include <utility>

namespace oryx::sip {

namespace {

/// Before the database is asked again for what it could not be asked for, twice as long each time, up to a limit; and
/// before a worker is that had no room.
constexpr std::chrono::milliseconds kRetryPause{200};
constexpr unsigned kMostDoublings = 4;
/// Before a NOTIFY that was refused is made again, if the refusal does not say; likewise.
constexpr std::chrono::seconds kRefusalPause{1};
constexpr std::chrono::seconds kLongestPause{3600};
constexpr unsigned kMostRefusals = 5;
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
      lane(of.m_lanes[subscription.presentity.key() % of.m_lanes.size()]),
      cause("subscribe"),
      expiry(of.m_loop, [this] { notifier.schedule(*this); }),
      rest(of.m_loop, [this] {
          leave(Phase::resting);
          notifier.begin(*this);
      })
{
}

Notifier::Notifier(Loop& loop, Workers<EventSession>& workers, Workers<EventSession>& patient,
                   std::function<void()> resumed)
    : m_loop(loop),
      m_workers(workers),
      m_patient(patient),
      m_retry(loop, [this] { resume(); }),
      m_resumed(std::move(resumed))
{
    while (m_lanes.size() < workers.count()) {
        m_lanes.emplace_back(*this);
    }
}

void Notifier::resume()
{
    const auto work = [](EventSession& session) { return loadSubscriptions(session.service()); };
    const auto then = [this](std::optional<std::vector<Subscription>> loaded) {
        if (!loaded) {
            m_retry.set(kRetryPause);
            return;
        }
        for (Subscription& subscription : *loaded) {
            insert(std::move(subscription), true);
        }
        for (const auto& [id, watch] : m_watches) { // when all that watch a presentity are there
            proceed(*watch, late);
        }
        m_resumed();
    };
    m_patient.give(0, work, then); // which has nothing else to do yet
}

/// Tells what there is now, for nobody knows what has changed; if its time is over, with its end.
void Notifier::proceed(Watch& watch, Turn turn)
{
    schedule(watch);
    want(watch, Want::anything, turn);
}

void Notifier::add(Subscription subscription, bool stored)
{
    Watch& watch = insert(std::move(subscription), stored);
    proceed(watch);
    watchersChanged(watch);
}

void Notifier::discard(Subscription subscription, bool stored)
{
    Watch& watch = insert(std::move(subscription), false); // which nobody has watched by
    watch.occasion.stored = stored;
    watch.occasion.silent = true;
    watch.occasion.ends = "rejected";
    want(watch, Want::anything);
}

const Subscription* Notifier::find(const std::string& id) const
{
    const auto found = m_watches.find(id);
    const bool there = found != m_watches.end() && !found->second->ending();
    return there ? &found->second->subscription : nullptr;
}

bool Notifier::hasEnough(const Subscription& another) const
{
    const std::set<Watch*>& his = watchesOf(m_ofWatcher, another.watcher.text());
    const auto alike = [&](const Watch* watch) {
        const bool ofWatchers = watch->subscription.package == Package::watchers;
        return ofWatchers == (another.package == Package::watchers) &&
               watch->subscription.presentity.text() == another.presentity.text();
    };
    return his.size() >= kMostOfWatcher || std::count_if(his.begin(), his.end(), alike) >= kMostToPresentity;
}

std::function<void()> Notifier::takeCseq(const Subscription& requested)
{
    PresenceRecord& dialog = m_watches.at(requested.id())->subscription.dialog;
    const int former = dialog.subcseq();
    const int taken = requested.dialog.subcseq();
    if (taken <= former) {
        return nullptr;
    }
    dialog.SetSubcseq(taken);
    return [this, id = requested.id(), former, taken] {
        const auto found = m_watches.find(id);
        if (found != m_watches.end() && found->second->subscription.dialog.subcseq() == taken) {
            found->second->subscription.dialog.SetSubcseq(former);
        }
    };
}

/// A NOTIFY on its way to where the subscriber is not any more is nobody's: neither does its answer matter.
void Notifier::refresh(const Subscription& refreshed)
{
    Watch& watch = *m_watches.at(refreshed.id());
    PresenceRecord& dialog = watch.subscription.dialog;
    if (dialog.remotecontacthdr() != refreshed.dialog.remotecontacthdr() && watch.transaction) {
        watch.transaction.reset();
        watch.phase = Phase::idle;
    }
    dialog.SetRemotecontacthdr(refreshed.dialog.remotecontacthdr().c_str());
    watch.subscription.expires = refreshed.expires;
    watch.refusals = 0;
    watch.leave(Phase::resting);
    proceed(watch);
}

void Notifier::publicationChanged(const std::string& presentity)
{
    for (Watch* const watch : watchesOf(m_watching, presentity)) {
        want(*watch, Want::news);
    }
}

void Notifier::lookAgain()
{
    for (const auto& [id, watch] : m_watches) {
        want(*watch, Want::news, late);
    }
}

bool Notifier::comesFrom(const std::string& watcher, const std::string& contact) const
{
    const std::set<Watch*>& his = watchesOf(m_ofWatcher, watcher);
    return std::any_of(his.begin(), his.end(), [&](const Watch* watch) { return watch->contact() == contact; });
}

void Notifier::contactExpired(const std::string& watcher, const std::string& contact)
{
    for (Watch* const watch : watchesOf(m_ofWatcher, watcher)) {
        if (watch->contact() == contact) {
            wantEnd(*watch, "timeout");
        }
    }
}

void Notifier::remove(Index& index, const std::string& person, Watch& watch)
{
    const auto found = index.find(person);
    if (found != index.end() && found->second.erase(&watch) != 0 && found->second.empty()) {
        index.erase(found);
    }
}

const std::set<Notifier::Watch*>& Notifier::watchesOf(const Index& index, const std::string& person)
{
    static const std::set<Watch*> none;
    const auto found = index.find(person);
    return found != index.end() ? found->second : none;
}

/// Whoever only fetches watches nobody.
Notifier::Watch& Notifier::insert(Subscription subscription, bool stored)
{
    const std::string id = subscription.id();
    Watch& watch = *m_watches.emplace(id, std::make_unique<Watch>(*this, std::move(subscription))).first->second;
    watch.occasion.stored = stored;
    if (stored) {
        Index& watching = watch.subscription.package == Package::watchers ? m_watchingWatchers : m_watching;
        watching[watch.subscription.presentity.text()].insert(&watch);
    }
    m_ofWatcher[watch.subscription.watcher.text()].insert(&watch);
    return watch;
}

/// Has a subscription end when its time is over. It began part-way through a second, which is not counted against it.
void Notifier::schedule(Watch& watch)
{
    constexpr std::time_t kLongest = 86400; // seconds; the stack's timers know no years
    const std::time_t left = watch.subscription.expires - std::time(nullptr);
    if (left >= 0) {
        watch.expiry.set(std::chrono::seconds(std::min(left, kLongest) + 1));
    } else {
        wantEnd(watch, "timeout");
    }
}

/// Has a NOTIFY sent, whatever it says or if it says anything new.
void Notifier::want(Watch& watch, Want what, Turn turn)
{
    watch.note(what, turn);
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
    watch.leave(Phase::resting);
    want(watch, Want::anything);
}

void Notifier::begin(Watch& watch)
{
    if (watch.wanted == Want::nothing || (watch.phase != Phase::idle && watch.phase != Phase::waiting)) {
        return;
    }
    watch.phase = Phase::waiting;
    const Turn turn = watch.subscription.dialog.notcseq() == 0 ? first : watch.turn;
    if (!watch.queued[turn]) {
        watch.queued.set(turn);
        watch.lane.queues.at(turn).push_back(watch.subscription.id());
    }
    composeNext(watch.lane);
}

void Notifier::composeNext(Lane& lane)
{
    while (!lane.pause.isSet() && lane.composing < kMostAtOnce) {
        const auto full = [](const std::deque<std::string>& queue) { return !queue.empty(); };
        auto* const queue = std::find_if(lane.queues.begin(), lane.queues.end(), full);
        if (queue == lane.queues.end()) {
            return;
        }
        const auto next = m_watches.find(queue->front());
        if (next != m_watches.end() && next->second->phase == Phase::waiting && !compose(*next->second)) {
            return lane.pause.set(kRetryPause); // all that wait: to try each would be work for nothing
        }
        if (next != m_watches.end()) {
            next->second->queued.reset(static_cast<std::size_t>(queue - lane.queues.begin()));
        }
        queue->pop_front();
    }
}

/// False where the worker has no room.
bool Notifier::compose(Watch& watch)
{
    watch.occasion.always = watch.wanted == Want::anything;
    if (watch.subscription.package == Package::watchers) {
        watch.occasion.watchers = watchersOf(watch.subscription.presentity.text());
    }
    auto work = [subscription = watch.subscription, occasion = watch.occasion](EventSession& session) {
        return sip::compose(session.service(), subscription, occasion);
    };
    auto then = [this, &lane = watch.lane, id = watch.subscription.id()](const Notice& made) {
        --lane.composing;
        lane.pause.cancel(); // there is room again
        take(id, made);
        composeNext(lane);
    };
    if (!m_workers.give(watch.subscription.presentity.key(), std::move(work), std::move(then))) {
        return false;
    }
    ++watch.lane.composing;
    watch.phase = Phase::underWay;
    watch.wanted = Want::nothing;
    watch.made = std::exchange(watch.turn, late);
    return true;
}

/// What a worker has made.
void Notifier::take(const std::string& id, const Notice& notice)
{
    const auto found = m_watches.find(id);
    if (found == m_watches.end()) { // the server is about to end
        return;
    }
    Watch& watch = *found->second;
    if (notice.failed) {
        watch.note(watch.occasion.always ? Want::anything : Want::news, watch.made);
        return watch.pauseFor(kRetryPause * (1U << std::min(watch.failures++, kMostDoublings)));
    }
    watch.failures = 0;
    if (!notice.due) {
        return finish(watch);
    }
    watch.subscription.dialog.SetNotcseq(watch.subscription.dialog.notcseq() + 1); // as it was stored
    ++watch.subscription.version;
    watch.occasion.said = notice.said;
    takeMembers(watch, notice.members);
    takeState(watch, notice);
    if (watch.occasion.silent) {
        return erase(watch);
    }
    watch.transaction = sendNotify(*m_endpoint, watch.subscription, notice, &Notifier::responded, &watch);
    if (!watch.transaction) { // nowhere: no such host
        answered(watch, 503, std::chrono::seconds(0));
    }
}

void Notifier::takeState(Watch& watch, const Notice& notice)
{
    const bool ending = watch.ending();
    if (std::exchange(watch.subscription.state, notice.state) != notice.state && !ending) {
        // Pending, once more, after an approval.
        const char* const cause = notice.state == SubscriptionState::active ? "approved" : "subscribe";
        watch.cause = notice.state == SubscriptionState::terminated ? notice.reason : cause;
        watchersChanged(watch);
    }
}

/// A list's subscription is concerned by what happens to its members.
void Notifier::takeMembers(Watch& watch, const std::vector<std::string>& members)
{
    const std::set<std::string> before = std::exchange(watch.members, {members.begin(), members.end()});
    for (const std::string& member : before) {
        remove(m_watching, member, watch);
    }
    for (const std::string& member : watch.members) {
        m_watching[member].insert(&watch);
        if (!before.contains(member)) { // what has happened between the look at him and now nobody has been told
            watch.note(Want::news, watch.made);
        }
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
    watch.transaction.reset();
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
        watch.note(Want::news, watch.made);
        watch.pauseFor(retryAfter.count() > 0 ? std::min(retryAfter, kLongestPause)
                                              : kRefusalPause * (1U << watch.refusals));
        ++watch.refusals;
    }
}

/// What was under way for a subscription is done: the next, or its end.
void Notifier::finish(Watch& watch)
{
    watch.leave(Phase::underWay);
    if (watch.subscription.state == SubscriptionState::terminated) {
        erase(watch);
    } else {
        begin(watch);
    }
}

void Notifier::erase(Watch& watch)
{
    takeMembers(watch, {});
    remove(m_watching, watch.subscription.presentity.text(), watch);
    remove(m_watchingWatchers, watch.subscription.presentity.text(), watch);
    remove(m_ofWatcher, watch.subscription.watcher.text(), watch);
    m_watches.erase(std::string(watch.subscription.id()));
}

/// Tells those who watch a presentity's watchers of one of them.
void Notifier::watchersChanged(const Watch& watch)
{
    if (watch.subscription.package == Package::presence && watch.occasion.stored) {
        for (Watch* const other : watchesOf(m_watchingWatchers, watch.subscription.presentity.text())) {
            want(*other, Want::anything);
        }
    }
}

std::vector<WatcherEntry> Notifier::watchersOf(const std::string& presentity) const
{
    std::vector<WatcherEntry> entries;
    const std::time_t now = std::time(nullptr);
    for (const Watch* const watch : watchesOf(m_watching, presentity)) {
        const Subscription& subscription = watch->subscription;
        if (subscription.package != Package::presence) {
            continue;
        }
        const SubscriptionState state = watch->ending() ? SubscriptionState::terminated : subscription.state;
        entries.push_back({"sip:" + subscription.watcher.text(),
                           subscription.id().substr(subscription.id().find('#') + 1), textOf(state), watch->cause,
                           static_cast<long>(subscription.expires - now)});
    }
    // Of very many those that the presentity has to decide about are told first.
    std::stable_partition(entries.begin(), entries.end(),
                          [](const WatcherEntry& entry) { return entry.status == "pending"; });
    entries.resize(std::min(entries.size(), kMostWatchers));
    return entries;
}

} // namespace oryx::sip
