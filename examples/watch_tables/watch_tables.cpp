// A listener and the changes it hears of: a subscriber, a contact set and an address of record, which are removed at
// the end. How the waiting is done stands in ../common/Listener.h.
//
//     watch_tables [DATABASE-URI [KEY]]
//
// The subscriber and the contact set get the key KEY.

#include "../common/Listener.h"

#include <cstdlib>

namespace {

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
    oryx::PresenceService waiting;
    oryx::DatabaseCommandExecutor provisioning;
    if (!connectFromEnvironment(waiting, database) || !connectFromEnvironment(provisioning, database)) {
        return EXIT_FAILURE;
    }
    listener::Thread thread(waiting);
    bool added = false;
    const bool done =
        listener::await(provisioning) &&
        listener::announce("add a subscriber", [&] { return added = addSubscriber(provisioning, key); }) &&
        listener::announce("add a contact set", [&] { return addContactSet(provisioning, key); }) &&
        listener::announce("add an address of record", [&] { return addAddressOfRecord(provisioning, key); });
    const bool ended = report("end the wait", thread.end());
    if (added) {
        provisioning.removeSubscriber(key);
    }
    return done && ended ? EXIT_SUCCESS : EXIT_FAILURE;
}
