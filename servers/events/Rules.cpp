#include <events/Rules.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

namespace oryx::sip {

namespace {

/// Anything that is not known grants nothing, and refuses nothing either.
Permission permissionBy(const std::string& action)
{
    if (action == "allow") {
        return Permission::allowed;
    }
    if (action == "block") {
        return Permission::blocked;
    }
    return action == "polite" ? Permission::deceived : Permission::unsettled;
}

} // namespace

Permission permissionOf(PresenceService& service, const Address& presentity, const Address& watcher)
{
    if (watcher.text() == presentity.text()) {
        return Permission::allowed;
    }
    std::vector<AccessControlEntry> rules;
    const DatabaseResult result =
        service.getAccessControlList(presentity.handle.c_str(), presentity.domain.c_str(), "presence", rules);
    if (!result.okay() && result.getStatus() != DatabaseResult::NOTFOUND) {
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

} // namespace oryx::sip
