#include <events/Store.h>

#include <common/Database.h>

#include <dal/PresenceDatabaseCommandExecutor.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <limits>
#include <unordered_map>
#include <utility>

namespace oryx::sip {

namespace {

bool answered(const DatabaseResult& result)
{
    return result.okay() || result.getStatus() == DatabaseResult::NOTFOUND;
}

bool readWatcherInfo(PresenceService& service, Subscription& subscription)
{
    std::vector<WatcherInfoRecord> records;
    if (!answered(service.getWinfoForPresentity(subscription.presentityKey().c_str(), records))) {
        return false;
    }
    for (const WatcherInfoRecord& record : records) {
        if (record.subscribekey() == subscription.id) {
            complete(subscription, record);
        }
    }
    return true;
}

bool load(PresenceService& service, std::vector<Subscription>& subscriptions)
{
    std::vector<PresenceRecord> dialogs;
    std::vector<WatchersRecord> watchers;
    if (!answered(service.getIncomingSubscriptions(dialogs, "presence")) ||
        !answered(service.getPresenceDatabaseCommandExecutor()->getWatchers(watchers, "presence", ""))) {
        return false;
    }
    std::unordered_map<std::string, const WatchersRecord*> watcherOfDialog;
    for (const WatchersRecord& watcher : watchers) {
        watcherOfDialog[watcher.watcheropaque()] = &watcher;
    }
    for (const PresenceRecord& dialog : dialogs) {
        std::optional<Subscription> subscription = subscriptionOf(dialog);
        if (!subscription) {
            continue;
        }
        const auto watcher = watcherOfDialog.find(subscription->id);
        if (watcher != watcherOfDialog.end()) {
            complete(*subscription, *watcher->second);
        } else if (subscription->package == Package::watchers && !readWatcherInfo(service, *subscription)) {
            return false;
        }
        subscriptions.push_back(std::move(*subscription));
    }
    return true;
}

} // namespace

bool load(const Options& options, std::vector<Subscription>& subscriptions)
{
    constexpr std::chrono::milliseconds kDeadline{10000};
    SessionOptions patient = sessionOptions();
    patient.deadline = std::max(patient.deadline, kDeadline);
    PresenceService service;
    service.setSessionOptions(patient);
    if (!service.connect(options.database.c_str(), options.user.c_str(), options.password.c_str()).okay()) {
        return false;
    }
    return load(service, subscriptions);
}

bool store(PresenceService& service, const Subscription& subscription)
{
    if (!service.addWatcher(dialogOf(subscription)).okay()) {
        return false;
    }
    const bool stored = subscription.package == Package::watchers
                            ? service.addWinfoForPresentity(watcherInfoOf(subscription)).okay()
                            : service.addWatcherState(watcherOf(subscription)).okay();
    if (!stored) {
        service.deleteWatcher(subscription.id.c_str());
    }
    return stored;
}

bool storeRefresh(PresenceService& service, const Subscription& subscription)
{
    if (!service.updateWatcherContact(subscription.id.c_str(), subscription.contact.c_str(), subscription.subscribeCseq)
             .okay()) {
        return false;
    }
    if (subscription.package == Package::watchers) {
        return service.updateWinfoForPresentity(watcherInfoOf(subscription)).okay();
    }
    const auto expires = static_cast<int>(std::min<std::time_t>(subscription.expires, std::numeric_limits<int>::max()));
    return service.updateWatcherExpiry(subscription.presentityKey().c_str(), subscription.id.c_str(), expires).okay();
}

bool storeNotify(PresenceService& service, const Subscription& subscription)
{
    const char* const id = subscription.id.c_str();
    const std::string key = subscription.presentityKey();
    if (!service.updatePresentityContact(id, nullptr, subscription.notifyCseq).okay()) {
        return false;
    }
    switch (subscription.package) {
    case Package::watchers:
        return service.updateWinfoForPresentity(watcherInfoOf(subscription)).okay();
    case Package::presenceList:
        return service.updateWatcherDocVersion(key.c_str(), id, subscription.version).okay();
    case Package::presence:
        break;
    }
    return service.updateWatcherState(key.c_str(), id, static_cast<int>(subscription.state)).okay();
}

bool remove(PresenceService& service, const Subscription& subscription)
{
    const char* const id = subscription.id.c_str();
    const bool removed = subscription.package == Package::watchers
                             ? service.deleteWinfoForPresentity(id).okay()
                             : service.deleteWatcherState(subscription.presentityKey().c_str(), id).okay();
    return removed && service.deleteWatcher(id).okay();
}

} // namespace oryx::sip
