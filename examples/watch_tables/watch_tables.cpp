// A listener and the changes it hears of, with their rows: a subscriber, a contact set and an address of record, which
// are removed at the end. Ctrl-C stops it too.
//
//     watch_tables [DATABASE-URI [KEY]]
//
// The subscriber and the contact set get the key KEY.

#include "../common/Account.h"

#include <dal/ChangeListener.h>
#include <dal/DatabaseCommandExecutor.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <semaphore>
#include <string>
#include <thread>

namespace {

/// A listener on a thread of its own, which says what it hears.
class Watch {
public:
    explicit Watch(const std::string& database)
        : m_listener(database, environment("PGUSER"), environment("PGPASSWORD"), followingTheLog()),
          m_thread([this] { m_result = m_listener.run([this](const oryx::ChangeSet& changes) { hear(changes); }); })
    {
        s_running = this;
    }
    ~Watch()
    {
        if (m_thread.joinable()) {
            end();
        }
        s_running = nullptr;
    }
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

    /// Whether something is heard soon: at first, that it listens.
    bool await() { return m_heard.try_acquire_for(std::chrono::seconds(10)); }

    oryx::DatabaseResult end()
    {
        m_listener.stop();
        m_thread.join();
        return m_result;
    }

    /// A signal's handler.
    static void interrupt(int /*signal*/)
    {
        if (Watch* const running = s_running) {
            running->m_listener.stop();
        }
    }

private:
    static oryx::ChangeListenerOptions followingTheLog()
    {
        oryx::ChangeListenerOptions options;
        options.followLog = true; // from now on: what was before is read at the first call
        return options;
    }

    void hear(const oryx::ChangeSet& changes)
    {
        if (changes.everything) {
            std::printf("    listening: read everything\n");
        } else {
            for (const oryx::ChangedTable& table : changes.tables) {
                tell(table);
            }
        }
        m_heard.release();
    }

    static void tell(const oryx::ChangedTable& table)
    {
        std::printf("    changed: %s%s", table.name.c_str(), table.readAgain ? ", read it again" : "");
        for (const oryx::DatabaseUpdate& row : table.rows) {
            if (row.strpkey().empty()) {
                std::printf(" %d", row.intpkey());
            } else {
                std::printf(" %s", row.strpkey().c_str());
            }
        }
        std::printf("\n");
    }

    inline static std::atomic<Watch*> s_running = nullptr;

    oryx::ChangeListener m_listener;
    oryx::DatabaseResult m_result;
    std::counting_semaphore<> m_heard{0};
    std::thread m_thread; // the last to be made: it uses the others
};

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

/// Makes a change and waits until it is heard.
template <typename Change>
bool announce(Watch& watch, const char* what, Change change)
{
    std::printf("%s\n", what);
    return change() && watch.await();
}

} // namespace

int main(int argc, char** argv)
{
    const std::string database = argc > 1 ? argv[1] : "oryx";
    const int key = argc > 2 ? std::atoi(argv[2]) : 9006;
    oryx::DatabaseCommandExecutor provisioning;
    if (!connectFromEnvironment(provisioning, database)) {
        return EXIT_FAILURE;
    }
    Watch watch(database);
    std::signal(SIGINT, Watch::interrupt);
    bool added = false;
    const bool done =
        watch.await() &&
        announce(watch, "add a subscriber", [&] { return added = addSubscriber(provisioning, key); }) &&
        announce(watch, "add a contact set", [&] { return addContactSet(provisioning, key); }) &&
        announce(watch, "add an address of record", [&] { return addAddressOfRecord(provisioning, key); });
    const bool ended = report("end the watch", watch.end());
    if (added) {
        provisioning.removeSubscriber(key);
    }
    return done && ended ? EXIT_SUCCESS : EXIT_FAILURE;
}
