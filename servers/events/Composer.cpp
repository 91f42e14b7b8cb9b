#include <events/Composer.h>

#include <events/Rules.h>
#include <events/Store.h>

#include <dal/Publications.h>

#include <algorithm>
#include <functional>
#include <optional>

namespace oryx::sip {

namespace {

constexpr const char* kPresenceType = "application/pidf+xml";
constexpr const char* kWatchersType = "application/watcherinfo+xml";
/// Of a list: each is asked for at every look at it.
constexpr std::size_t kMostMembers = 256;

/// What a permission alone makes of a NOTIFY.
Notice noticeWith(Permission permission)
{
    Notice notice;
    notice.failed = permission == Permission::unknown;
    notice.state = stateWith(permission);
    if (notice.state == SubscriptionState::terminated) {
        notice.reason = permission == Permission::absent ? "noresource" : "rejected";
    }
    return notice;
}

/// What a watcher may know of a presentity: no document while it is pending.
Notice viewOf(PresenceService& service, const Address& presentity, const Address& watcher)
{
    std::vector<LivePublication> published;
    const DatabaseResult found =
        livePublications(service, presentity.handle.c_str(), presentity.domain.c_str(), "presence", published);
    const Permission permission = found.okay() ? permissionOf(service, presentity, watcher) : permissionWithout(found);
    Notice notice = noticeWith(permission);
    if (notice.state == SubscriptionState::active) {
        std::vector<std::string> documents;
        for (LivePublication& publication : published) {
            if (permission == Permission::allowed) {
                documents.push_back(std::move(publication.body));
            }
        }
        notice.body = {kPresenceType, presenceDocument("sip:" + presentity.text(), documents)};
    }
    return notice;
}

/// A member of the list as its subscriber may see it. Whoever is at a domain of others is nobody here.
std::optional<ListMember> memberOf(PresenceService& service, const Subscription& list, const std::string& uri,
                                   Notice& notice)
{
    ListMember member{uri, "", "terminated", "noresource", ""};
    const std::optional<Address> address = addressOf(uri.c_str());
    if (!address) {
        return member;
    }
    const Notice view = viewOf(service, *address, list.watcher);
    if (view.failed) {
        return std::nullopt;
    }
    notice.members.push_back(address->text());
    member.instance = std::to_string(std::hash<std::string>()(uri)); // the same in all documents
    member.state = textOf(view.state);
    member.reason = view.reason;
    member.document = view.body.text;
    return member;
}

Notice listNotice(PresenceService& service, const Subscription& list)
{
    int id = 0;
    std::vector<std::string> uris;
    Permission permission = permissionForList(service, list, id);
    if (permission == Permission::allowed && !service.getListEntries(id, uris).okay()) {
        permission = Permission::unknown;
    }
    if (uris.empty()) { // it may have been removed in between, with all that belongs to it
        permission = std::max(permission, permissionForList(service, list, id));
    }
    Notice notice = noticeWith(permission);
    if (permission != Permission::allowed) {
        return notice;
    }
    std::sort(uris.begin(), uris.end()); // the database has no order, and a document without changes is the same
    uris.resize(std::min(uris.size(), kMostMembers));
    notice.said = 1;
    std::vector<ListMember> members;
    for (const std::string& uri : uris) {
        std::optional<ListMember> member = memberOf(service, list, uri, notice);
        if (!member) {
            return noticeWith(Permission::unknown);
        }
        // Without the version, which is new each time.
        notice.said = notice.said * 31 + std::hash<std::string>()(member->uri + member->state + member->document);
        members.push_back(std::move(*member));
    }
    notice.body = listBody(list.dialog.requestUri(), static_cast<unsigned>(list.version), members);
    return notice;
}

Notice watchersNotice(PresenceService& service, const Subscription& subscription, const Occasion& occasion)
{
    Notice notice = noticeWith(permissionFor(service, subscription));
    if (notice.state != SubscriptionState::active) {
        return notice;
    }
    notice.said = 1;
    for (const WatcherEntry& entry : occasion.watchers) { // without the version and the seconds
        notice.said = notice.said * 31 + std::hash<std::string>()(entry.id + entry.status + entry.event);
    }
    notice.body = {kWatchersType, watcherDocument("sip:" + subscription.presentity.text(), "presence",
                                                  static_cast<unsigned>(subscription.version), occasion.watchers)};
    return notice;
}

Notice noticeOf(PresenceService& service, const Subscription& subscription, const Occasion& occasion)
{
    if (subscription.package == Package::presence) {
        return viewOf(service, subscription.presentity, subscription.watcher);
    }
    return subscription.package == Package::watchers ? watchersNotice(service, subscription, occasion)
                                                     : listNotice(service, subscription);
}

} // namespace

Notice compose(PresenceService& service, Subscription subscription, const Occasion& occasion)
{
    Notice notice = occasion.silent ? Notice() : noticeOf(service, subscription, occasion);
    if (!occasion.ends.empty() && notice.state != SubscriptionState::terminated) {
        notice.state = SubscriptionState::terminated;
        notice.reason = occasion.ends;
    }
    if (notice.said == 0) {
        notice.said = std::hash<std::string>()(notice.body.text);
    }
    notice.said += static_cast<std::size_t>(notice.state) + 1;
    notice.due = occasion.always || notice.said != occasion.said;
    if (notice.failed || !notice.due) {
        return notice;
    }
    subscription.dialog.SetNotcseq(subscription.dialog.notcseq() + 1);
    ++subscription.version;
    subscription.state = notice.state;
    if (occasion.stored) {
        const bool ends = notice.state == SubscriptionState::terminated;
        notice.failed = !(ends ? remove(service, subscription) : storeNotify(service, subscription));
    }
    return notice;
}

} // namespace oryx::sip
