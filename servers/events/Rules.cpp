#include <events/Rules.h>

#include <algorithm>
#include <map>
#include <optional>
#include <vector>

namespace oryx::sip {

namespace {

/// Anything that is not known grants nothing, and refuses nothing either.
Permission permissionBy(const std::string& action)
{
    static const std::map<std::string, Permission> known{
        {"allow", Permission::allowed}, {"block", Permission::blocked}, {"polite", Permission::deceived}};
    const auto found = known.find(action);
    return found != known.end() ? found->second : Permission::unsettled;
}

} // namespace

Permission permissionWithout(const DatabaseResult& result)
{
    return result.fatalError() ? Permission::unknown : Permission::absent;
}

SubscriptionState stateWith(Permission permission)
{
    if (permission == Permission::unsettled) {
        return SubscriptionState::pending;
    }
    return permission < Permission::blocked ? SubscriptionState::active : SubscriptionState::terminated;
}

Permission permissionOf(PresenceService& service, const Address& presentity, const Address& watcher)
{
    if (watcher.text() == presentity.text()) {
        return Permission::allowed;
    }
    std::vector<AccessControlEntry> rules;
    const DatabaseResult result =
        service.getAccessControlList(presentity.handle.c_str(), presentity.domain.c_str(), "presence", rules);
    if (result.fatalError()) {
        return Permission::unknown;
    }
    for (const std::string& requester : {watcher.text(), "*@" + watcher.domain, std::string("*")}) {
        std::optional<Permission> strictest; // of rules that contradict each other
        for (const AccessControlEntry& rule : rules) {
            if (rule.requester() == requester) {
                strictest = std::max(strictest, std::optional(permissionBy(rule.action())));
            }
        }
        if (strictest) {
            return *strictest;
        }
    }
    return Permission::unsettled;
}

Permission permissionFor(PresenceService& service, const Subscription& subscription)
{
    const Address& presentity = subscription.presentity;
    int key = 0;
    int csid = 0;
    if (subscription.package == Package::presenceList) {
        return permissionForList(service, subscription, key);
    }
    const DatabaseResult found =
        service.getPublicAddressKey(presentity.handle.c_str(), presentity.domain.c_str(), key, csid);
    if (!found.okay()) {
        return permissionWithout(found);
    }
    if (subscription.package == Package::watchers) { // nobody else's business
        return subscription.watcher.text() == presentity.text() ? Permission::allowed : Permission::blocked;
    }
    return permissionOf(service, presentity, subscription.watcher);
}

Permission permissionForList(PresenceService& service, const Subscription& list, int& id)
{
    const DatabaseResult found = service.getListId(list.presentity.handle.c_str(), &id);
    if (!found.okay()) {
        return permissionWithout(found);
    }
    const Address& watcher = list.watcher;
    const DatabaseResult allowed =
        service.isWatcherAllowedToSubscribeToList(id, watcher.handle.c_str(), watcher.domain.c_str());
    if (allowed.fatalError()) {
        return Permission::unknown;
    }
    return allowed.okay() ? Permission::allowed : Permission::blocked;
}

} // namespace oryx::sip
