// How a server learns that provisioning has changed: a connection of its own waits in a thread of its own, while the
// server's other work goes on elsewhere. Here that other work makes the changes that are waited for.
//
//     watch_tables [DATABASE-URI [KEY]]
//
// The changes are a subscriber, a contact set and an address of record, all removed at the end. The subscriber and the
// contact set get the key KEY.

#include "../common/Account.h"

#include <dal/DatabaseCommandExecutor.h>
#include <dal/DatabaseConnection.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <semaphore>
#include <string>
#include <thread>

namespace {

/// Nothing here changes this table: a notification of it only shows that the listener hears.
const std::string kUnchangedTable = "sip_event_aggregator";

// What the callback knows: it is handed no data of the program's own.
std::counting_semaphore<> heard(0); // of the table that nothing changes
std::counting_semaphore<> announced(0);
std::atomic<bool> finished = false;

/// Called on the listener's thread. The wait ends when this answers true to an idle call, and one comes after every 5
/// seconds without a notification.
bool onChange(bool changed, const std::string& table)
{
    if (changed && table == kUnchangedTable) {
        heard.release();
    } else if (changed) {
        std::printf("    notified: %s\n", table.c_str());
        announced.release();
    }
    return finished;
}

/// A change made before the listener has subscribed would go unheard.
bool awaitListener(oryx::DatabaseCommandExecutor& provisioning)
{
    for (int attempt = 0; attempt < 10; ++attempt) {
        provisioning.execute("NOTIFY " + kUnchangedTable);
        if (heard.try_acquire_for(std::chrono::seconds(1))) {
            return true;
        }
    }
    return false;
}

/// Makes a change and waits until it is announced.
template <typename Change>
bool announce(const char* what, Change change)
{
    std::printf("%s\n", what);
    return change() && announced.try_acquire_for(std::chrono::seconds(10));
}

bool addSubscriber(oryx::DatabaseCommandExecutor& provisioning, int key)
{
    oryx::SubscriberRecord subscriber;
    subscriber.setId(key);
    subscriber.setUserId("dave");
    return provisioning.addSubscriber(subscriber) > 0;
}

bool addContactSet(oryx::DatabaseCommandExecutor& provisioning, int key)
{
    oryx::ContactSetRecord contactSet;
    contactSet.setCsid(key);
    contactSet.setSid(key);
    contactSet.setOrdering("sequential");
    return provisioning.addContactSet(contactSet).okay();
}

bool addAddressOfRecord(oryx::DatabaseCommandExecutor& provisioning, int key)
{
    return provisioning.addPublicAddress({"dave", "oryx.example", key, "local"}) == 0;
}

} // namespace

int main(int argc, char** argv)
{
    const std::string database = argc > 1 ? argv[1] : "oryx";
    const int key = argc > 2 ? std::atoi(argv[2]) : 9006;
    oryx::DatabaseConnection listener;
    oryx::DatabaseCommandExecutor provisioning;
    if (!connectFromEnvironment(listener, database) || !connectFromEnvironment(provisioning, database)) {
        return EXIT_FAILURE;
    }
    bool ended = false;
    std::thread listening([&] { ended = listener.waitOnListen(onChange); });
    bool added = false;
    const bool done = awaitListener(provisioning) &&
                      announce("add a subscriber", [&] { return added = addSubscriber(provisioning, key); }) &&
                      announce("add a contact set", [&] { return addContactSet(provisioning, key); }) &&
                      announce("add an address of record", [&] { return addAddressOfRecord(provisioning, key); });
    finished = true;
    listening.join();
    std::printf("the wait ended %s\n", ended ? "as asked" : "with a failure");
    if (added) {
        provisioning.removeSubscriber(key);
    }
    return done && ended ? EXIT_SUCCESS : EXIT_FAILURE;
}
