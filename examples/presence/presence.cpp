// An event server's day: a watcher asks for a presentity's state and for a list's, a source publishes, a conference
// extension is reserved and released, provisioning changes, and everything is reset.
//
//     presence [DATABASE-URI [KEY]]
//
// For a database to try things with, which has the sample data: all dialogs, watchers, sources and lists' subscriptions
// in it are removed, as when an event server starts. The subscriber that is added, and removed again, gets the key KEY.

#include "../common/Listener.h"

#include <dal/PresenceDatabaseCommandExecutor.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <vector>

namespace {

constexpr int kHour = 3600;
constexpr const char* kAlice = "sip:alice@oryx.example#presence";
constexpr const char* kDialog = "incoming#a84b4c76e66710";

long inAnHour()
{
    return static_cast<long>(std::time(nullptr)) + kHour;
}

void showRules(oryx::PresenceService& service, const char* handle, const char* domain)
{
    std::vector<oryx::AccessControlEntry> entries;
    const std::string step = std::string("the rules of ") + handle + "@" + domain;
    if (report(step, service.getAccessControlList(handle, domain, "presence", entries))) {
        for (const oryx::AccessControlEntry& entry : entries) {
            std::printf("    %-24s %s\n", entry.requester().c_str(), entry.action().c_str());
        }
    }
}

bool subscribe(oryx::PresenceService& service)
{
    oryx::PresenceRecord dialog;
    dialog.SetSubscriptionid(kDialog);
    dialog.SetFromhdr("<sip:bob@oryx.example>;tag=4fa3");
    dialog.SetTohdr("<sip:alice@oryx.example>;tag=1928");
    dialog.SetCallId("a84b4c76e66710@192.0.2.33");
    dialog.SetSubcseq(1);
    dialog.SetEventhdr("presence");
    dialog.SetRemotecontacthdr("<sip:bob@192.0.2.33>");
    dialog.SetRequestUri("sip:alice@oryx.example");
    dialog.SetPackageid("presence#");
    const oryx::WatchersRecord watcher(kAlice, kDialog, 1, 1, 2, inAnHour(), "sip:bob@oryx.example",
                                       "sip:alice@oryx.example", 0, "presence", "");
    return report("bob subscribes to alice", service.addWatcher(dialog)) &&
           report("bob is a watcher of alice", service.addWatcherState(watcher)) &&
           report("bob has got the first document", service.updateWatcherDocVersion(kAlice, kDialog, 1));
}

void showWatchers(oryx::PresenceService& service)
{
    std::vector<oryx::WatchersRecord> watchers;
    if (report("the watchers of alice", service.getWatcherState(kAlice, watchers))) {
        for (const oryx::WatchersRecord& watcher : watchers) {
            std::printf("    %s at %s, document %lu\n", watcher.watcheridentity().c_str(),
                        watcher.remoteContactHdr().c_str(), watcher.docversion());
        }
    }
}

bool publish(oryx::PresenceService& service)
{
    const oryx::SourcesRecord source(kAlice, "publisher#1", "sip:alice@192.0.2.11", inAnHour(), "presence",
                                     "sip:alice@oryx.example");
    return report("alice's telephone publishes", service.addSourceOpaque(source)) &&
           report("and refreshes", service.updateSourceExpiry(kAlice, "publisher#1", static_cast<int>(inAnHour())));
}

bool subscribeToList(oryx::PresenceService& service)
{
    int list = 0;
    std::vector<std::string> members;
    if (!report("find the list sample-friends", service.getListId("sample-friends", &list)) ||
        !report("may bob subscribe to it", service.isWatcherAllowedToSubscribeToList(list, "bob", "oryx.example")) ||
        !report("its members", service.getListEntries(list, members))) {
        return false;
    }
    for (const std::string& member : members) {
        std::printf("    %s\n", member.c_str());
    }
    report("may carol from another domain", service.isWatcherAllowedToSubscribeToList(list, "carol", "example.com"));
    return report("remember the list's subscription",
                  service.createListMapping("list#1", "outgoing#f81d4fae", inAnHour()));
}

bool holdConference(oryx::PresenceService& service)
{
    std::string extension;
    std::string status;
    unsigned int since = 0;
    if (!report("reserve a conference extension", service.reserveRandomlyIdleConfExtAsInUse(extension)) ||
        !report("its state", service.getConfExtState(extension, status, since))) {
        return false;
    }
    std::printf("    %s\n", status.c_str());
    return report("release it", service.setConfExtState(extension, "IDLE", static_cast<unsigned>(std::time(nullptr))));
}

/// The highest time stamp of a table's changes, where reading them goes on; they come in no particular order.
std::string latest(oryx::PresenceService& service, const char* table)
{
    std::vector<oryx::DatabaseUpdate> updates;
    service.getUpdatedPrimaryKeys(table, "0", updates);
    long long highest = 0;
    for (const oryx::DatabaseUpdate& update : updates) {
        highest = std::max(highest, std::stoll(update.timestamp()));
    }
    return std::to_string(highest);
}

bool reset(oryx::PresenceService& service)
{
    return report("reset dialogs, watchers, sources and lists",
                  service.getPresenceDatabaseCommandExecutor()->removeEventServerState());
}

bool followProvisioning(oryx::PresenceService& service, const std::string& database, int key)
{
    oryx::PresenceService waiting;
    oryx::DatabaseCommandExecutor provisioning;
    if (!connectFromEnvironment(waiting, database) || !connectFromEnvironment(provisioning, database)) {
        return false;
    }
    listener::Thread thread(waiting);
    const std::string since = latest(service, "subscriber");
    oryx::SubscriberRecord subscriber;
    subscriber.setId(key);
    bool added = false;
    const bool heard = listener::await(provisioning) && listener::announce("a subscriber is added", [&] {
                           return added = provisioning.addSubscriber(subscriber) > 0;
                       });
    std::vector<oryx::DatabaseUpdate> updates;
    const bool read = heard && report("what has changed", service.getUpdatedPrimaryKeys("subscriber", since, updates));
    for (const oryx::DatabaseUpdate& update : updates) {
        std::printf("    %s %d\n", update.relation_name().c_str(), update.intpkey());
    }
    const bool ended = report("end the wait", thread.end());
    if (added) {
        provisioning.removeSubscriber(key);
    }
    return read && ended;
}

bool run(const std::string& database, int key)
{
    oryx::PresenceService service;
    if (!connectFromEnvironment(service, database) || !reset(service)) {
        return false;
    }
    showRules(service, "alice", "oryx.example");
    showRules(service, "bob", "oryx.example");   // falls back to those of the handle
    showRules(service, "carol", "oryx.example"); // falls back to the default policy
    if (!subscribe(service)) {
        return false;
    }
    showWatchers(service);
    return publish(service) && subscribeToList(service) && holdConference(service) &&
           followProvisioning(service, database, key) && reset(service);
}

} // namespace

int main(int argc, char** argv)
{
    return run(argc > 1 ? argv[1] : "oryx", argc > 2 ? std::atoi(argv[2]) : 9007) ? EXIT_SUCCESS : EXIT_FAILURE;
}
