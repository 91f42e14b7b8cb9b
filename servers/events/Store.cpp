#include <events/Store.h>

#include <dal/PresenceDatabaseCommandExecutor.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <limits>
#include <optional>
#include <unordered_map>
#include <utility>

namespace oryx::sip {

namespace {

constexpr std::array kPackageIds{"presence#", "presence#list", "presence.winfo#"};

WatchersRecord watcherOf(const Subscription& subscription)
{
    return {subscription.presentityKey(),
            subscription.id(),
            static_cast<int>(subscription.package),
            0,
            static_cast<int>(subscription.state),
            static_cast<long>(subscription.expires),
            subscription.watcher.text(),
            subscription.presentity.text(),
            subscription.version,
            "presence",
            subscription.dialog.remotecontacthdr()};
}

WatcherInfoRecord watcherInfoOf(const Subscription& subscription)
{
    return {subscription.presentityKey().c_str(), subscription.id().c_str(), "sip",
            static_cast<int>(subscription.version), static_cast<long>(subscription.expires)};
}

/// The subscription of a dialog's row; without what is in the other one. None where the row is not this server's.
std::optional<Subscription> subscriptionOf(const PresenceRecord& dialog)
{
    const auto* const package = std::find(kPackageIds.begin(), kPackageIds.end(), dialog.packageid());
    Scratch scratch;
    const url_t* const uri = url_make(scratch.home(), dialog.requestUri().c_str());
    const sip_from_t* const from = sip_from_make(scratch.home(), dialog.fromhdr().c_str());
    const url_t* const contact = url_make(scratch.home(), dialog.remotecontacthdr().c_str());
    const bool routes =
        dialog.routeset().empty() || sip_route_make(scratch.home(), dialog.routeset().c_str()) != nullptr;
    if (package == kPackageIds.end() || uri == nullptr || from == nullptr || contact == nullptr || !routes) {
        return std::nullopt;
    }
    const std::optional<Address> presentity = addressOf(*uri);
    const std::optional<Address> watcher = addressOf(*from->a_url);
    if (!presentity || !watcher) {
        return std::nullopt;
    }
    Subscription read{dialog, static_cast<Package>(package - kPackageIds.begin()), *presentity, *watcher};
    read.dialog.SetRemotecontacthdr(normalized(*contact).c_str()); // an earlier version has stored it as it was written
    if (read.package == Package::presenceList) {
        read.presentity.handle = userOf(*uri);
    }
    return read;
}

void complete(Subscription& subscription, const WatchersRecord& watcher)
{
    const bool active = watcher.watcherstate() == static_cast<int>(SubscriptionState::active);
    subscription.state = active ? SubscriptionState::active : SubscriptionState::pending;
    subscription.expires = watcher.expirytime();
    subscription.version = watcher.docversion();
}

bool completeByWatcherInfo(PresenceService& service, Subscription& subscription)
{
    std::vector<WatcherInfoRecord> records;
    if (service.getWinfoForPresentity(subscription.presentityKey().c_str(), records).fatalError()) {
        return false;
    }
    for (const WatcherInfoRecord& record : records) {
        if (record.subscribekey() == subscription.id()) {
            subscription.state = SubscriptionState::active;
            subscription.expires = record.expirytime();
            subscription.version = static_cast<unsigned long>(record.startingdocversion());
        }
    }
    return true;
}

} // namespace

std::optional<std::vector<Subscription>> loadSubscriptions(PresenceService& service)
{
    std::vector<PresenceRecord> dialogs;
    std::vector<WatchersRecord> watchers;
    if (service.getIncomingSubscriptions(dialogs, "presence").fatalError() ||
        service.getPresenceDatabaseCommandExecutor()->getWatchers(watchers, "presence", "").fatalError()) {
        return std::nullopt;
    }
    std::unordered_map<std::string, const WatchersRecord*> watcherOfDialog;
    for (const WatchersRecord& watcher : watchers) {
        watcherOfDialog[watcher.watcheropaque()] = &watcher;
    }
    std::vector<Subscription> subscriptions;
    for (const PresenceRecord& dialog : dialogs) {
        std::optional<Subscription> subscription = subscriptionOf(dialog);
        if (!subscription) {
            continue;
        }
        const auto watcher = watcherOfDialog.find(subscription->id());
        if (watcher != watcherOfDialog.end()) {
            complete(*subscription, *watcher->second);
        } else if (subscription->package == Package::watchers && !completeByWatcherInfo(service, *subscription)) {
            return std::nullopt;
        }
        subscriptions.push_back(std::move(*subscription));
    }
    return subscriptions;
}

bool store(PresenceService& service, const Subscription& subscription)
{
    PresenceRecord dialog = subscription.dialog;
    dialog.SetPackageid(kPackageIds.at(static_cast<std::size_t>(subscription.package)));
    if (!service.addWatcher(dialog).okay()) {
        return false;
    }
    const bool stored = subscription.package == Package::watchers
                            ? service.addWinfoForPresentity(watcherInfoOf(subscription)).okay()
                            : service.addWatcherState(watcherOf(subscription)).okay();
    if (!stored) {
        service.deleteWatcher(subscription.id().c_str());
    }
    return stored;
}

bool storeRefresh(PresenceService& service, const Subscription& subscription)
{
    const char* const id = subscription.id().c_str();
    const PresenceRecord& dialog = subscription.dialog;
    if (!service.updateWatcherContact(id, dialog.remotecontacthdr().c_str(), dialog.subcseq()).okay()) {
        return false;
    }
    if (subscription.package == Package::watchers) {
        return service.updateWinfoForPresentity(watcherInfoOf(subscription)).okay();
    }
    const auto expires = static_cast<int>(std::min<std::time_t>(subscription.expires, std::numeric_limits<int>::max()));
    return service.updateWatcherExpiry(subscription.presentityKey().c_str(), id, expires).okay();
}

bool storeNotify(PresenceService& service, const Subscription& subscription)
{
    const char* const id = subscription.id().c_str();
    const std::string key = subscription.presentityKey();
    if (!service.updatePresentityContact(id, nullptr, subscription.dialog.notcseq()).okay()) {
        return false;
    }
    if (subscription.package == Package::watchers) {
        return service.updateWinfoForPresentity(watcherInfoOf(subscription)).okay();
    }
    const int state = static_cast<int>(subscription.state);
    return (subscription.package == Package::presenceList
                ? service.updateWatcherDocVersion(key.c_str(), id, subscription.version)
                : service.updateWatcherState(key.c_str(), id, state))
        .okay();
}

bool remove(PresenceService& service, const Subscription& subscription)
{
    const char* const id = subscription.id().c_str();
    const bool removed = subscription.package == Package::watchers
                             ? service.deleteWinfoForPresentity(id).okay()
                             : service.deleteWatcherState(subscription.presentityKey().c_str(), id).okay();
    return removed && service.deleteWatcher(id).okay();
}

} // namespace oryx::sip
