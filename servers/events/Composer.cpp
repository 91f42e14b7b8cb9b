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

Notice failure()
{
    Notice notice;
    notice.failed = true;
    return notice;
}

Notice termination(const char* reason)
{
    Notice notice;
    notice.state = SubscriptionState::terminated;
    notice.reason = reason;
    return notice;
}

/// What a watcher may know of a presentity: no document while it is pending.
Notice viewOf(PresenceService& service, const Address& presentity, const Address& watcher)
{
    std::vector<LivePublication> published;
    const DatabaseResult found =
        livePublications(service, presentity.handle.c_str(), presentity.domain.c_str(), "presence", published);
    if (found.getStatus() == DatabaseResult::NOTFOUND) { // there is no such person, or not any more
        return termination("noresource");
    }
    const Permission permission = permissionOf(service, presentity, watcher);
    if (!found.okay() || permission == Permission::unknown) {
        return failure();
    }
    if (permission == Permission::blocked) {
        return termination("rejected");
    }
    Notice notice;
    if (permission == Permission::unsettled) {
        notice.state = SubscriptionState::pending;
        return notice;
    }
    std::vector<std::string> documents;
    for (LivePublication& publication : published) {
        if (permission == Permission::allowed) {
            documents.push_back(std::move(publication.body));
        }
    }
    notice.body = {kPresenceType, presenceDocument("sip:" + presentity.text(), documents)};
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
    Notice notice;
    int id = 0;
    std::vector<std::string> uris;
    const char* const name = list.presentity.handle.c_str();
    const DatabaseResult found = service.getListId(name, &id);
    if (found.getStatus() == DatabaseResult::NOTFOUND) {
        return termination("noresource");
    }
    const DatabaseResult allowed =
        service.isWatcherAllowedToSubscribeToList(id, list.watcher.handle.c_str(), list.watcher.domain.c_str());
    const bool rejected = allowed.getStatus() == DatabaseResult::NOTFOUND;
    if (!found.okay() || (!rejected && (!allowed.okay() || !service.getListEntries(id, uris).okay()))) {
        return failure();
    }
    // It may have been removed in between, with all that belongs to it.
    if (uris.empty() && service.getListId(name, &id).getStatus() == DatabaseResult::NOTFOUND) {
        return termination("noresource");
    }
    if (rejected) {
        return termination("rejected");
    }
    std::sort(uris.begin(), uris.end()); // the database has no order, and a document without changes is the same
    std::vector<ListMember> members;
    for (const std::string& uri : uris) {
        std::optional<ListMember> member = memberOf(service, list, uri, notice);
        if (!member) {
            return failure();
        }
        members.push_back(std::move(*member));
    }
    for (const ListMember& member : members) { // without the version, which is new each time
        notice.said = notice.said * 31 + std::hash<std::string>()(member.uri + member.state + member.document);
    }
    notice.body = listBody(list.requestUri, static_cast<unsigned>(list.version), members);
    return notice;
}

Notice watchersNotice(PresenceService& service, const Subscription& subscription, const Occasion& occasion)
{
    const Address& presentity = subscription.presentity;
    int key = 0;
    int csid = 0;
    const DatabaseResult found =
        service.getPublicAddressKey(presentity.handle.c_str(), presentity.domain.c_str(), key, csid);
    if (!found.okay()) {
        return found.getStatus() == DatabaseResult::NOTFOUND ? termination("noresource") : failure();
    }
    Notice notice;
    for (const WatcherEntry& entry : occasion.watchers) { // without the version and the seconds
        notice.said = notice.said * 31 + std::hash<std::string>()(entry.id + entry.status + entry.event);
    }
    notice.body = {kWatchersType, watcherDocument(subscription.presentityUri(), "presence",
                                                  static_cast<unsigned>(subscription.version), occasion.watchers)};
    return notice;
}

Notice noticeOf(PresenceService& service, const Subscription& subscription, const Occasion& occasion)
{
    switch (subscription.package) {
    case Package::presence:
        return viewOf(service, subscription.presentity, subscription.watcher);
    case Package::presenceList:
        return listNotice(service, subscription);
    case Package::watchers:
        break;
    }
    return watchersNotice(service, subscription, occasion);
}

} // namespace

Notice compose(PresenceService& service, Subscription& next, const Occasion& occasion)
{
    Notice notice;
    if (!occasion.silent) {
        notice = noticeOf(service, next, occasion);
    }
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
    next.state = notice.state;
    ++next.version;
    if (occasion.stored) {
        notice.failed =
            !(notice.state == SubscriptionState::terminated ? remove(service, next) : storeNotify(service, next));
    }
    return notice;
}

} // namespace oryx::sip
