// No operation takes longer than its deadline, whatever has become of the server, and the next one works as soon as the
// server does.

#include "support/DatabaseTest.h"
#include "support/Measure.h"
#include "support/Proxy.h"
#include "support/ServerControl.h"

#include <dal/PresenceDatabaseCommandExecutor.h>
#include <dal/QueryResult.h>
#include <gtest/gtest.h>
#include <libpq-fe.h>

#include <dlfcn.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace deadlineTest {

namespace {

std::atomic<bool> programEnds = false;
std::atomic<bool> finishedAtItsEnd = false;

/// Stands before libpq's own.
extern "C" [[gnu::visibility("default")]] void PQfinish(PGconn* connection)
{
    static auto* const real = reinterpret_cast<decltype(&PQfinish)>(dlsym(RTLD_NEXT, "PQfinish"));
    finishedAtItsEnd = finishedAtItsEnd || programEnds;
    real(connection);
}

using oryx::DatabaseResult;
using oryx::SessionOptions;
using server::Proxy;
using std::chrono::milliseconds;

const Measure kMeasure = Measure::drillOr(14, milliseconds(500));

thread_local bool cannotWait = false;

/// Stands before the system's: while this thread cannot wait, there is no memory for it.
extern "C" [[gnu::visibility("default")]] int poll(pollfd* sockets, nfds_t count, int timeout)
{
    static auto* const real = reinterpret_cast<decltype(&poll)>(dlsym(RTLD_NEXT, "poll"));
    if (cannotWait) {
        errno = ENOMEM;
        return -1;
    }
    return real(sockets, count, timeout);
}

using Operation = std::function<DatabaseResult()>;

class Deadline : public DatabaseTest {
protected:
    Deadline() { setenv("PGPORT", m_proxy.port().c_str(), 1); }

    void SetUp() override
    {
        const SessionOptions options{SessionOptions::Statements::bound, kMeasure.deadline};
        m_service.setSessionOptions(options);
        m_events.setSessionOptions(options);
        provisionAlice();
        ASSERT_TRUE(kMeasure.eventually([this] { return connect(); }));
    }

    bool connect()
    {
        return m_service.connect(m_database.uri().c_str(), server::kUser, server::kPassword).okay() &&
               m_events.connect(m_database.uri().c_str(), server::kUser, server::kPassword);
    }

    DatabaseResult lookUp()
    {
        int key = 0;
        return m_service.getPublicAddressKey("alice", "oryx.example", key);
    }

    bool allWork()
    {
        return std::all_of(m_operations.begin(), m_operations.end(), [](const Operation& operation) {
            const DatabaseResult result = operation();
            return result.okay() || result.notFound();
        });
    }

    /// Calls operations in turns, and tells how the calls ended and whether they were in time.
    static std::string calls(std::size_t count, const std::vector<Operation>& operations)
    {
        std::size_t late = 0;
        milliseconds slowest(0);
        for (std::size_t i = 0; i < count; ++i) {
            DatabaseResult result;
            const milliseconds took = timed([&] { result = operations[i % operations.size()](); });
            late += kMeasure.isLate(took) ? 1U : 0U;
            slowest = std::max(slowest, took);
            if (!result.connectionError() || !result.getErrorMessage().starts_with("no answer within the deadline")) {
                return "operation " + std::to_string(i % operations.size()) + " answered: " + outcome(result);
            }
        }
        RecordProperty("slowest", std::to_string(slowest.count()));
        return late == 0 ? "in time" : std::to_string(late) + " calls were late";
    }

    Proxy m_proxy;
    oryx::LocationService m_service;
    oryx::PresenceDatabaseCommandExecutor m_events;

    /// One of each way in which operations send: a statement, a transaction, one after another, a stored function, a
    /// text of the caller's.
    const std::vector<Operation> m_operations{
        [this] { return lookUp(); },
        [this] {
            std::vector<oryx::ContactRecord> none = contacts({"sip:nobody@192.0.2.1", "sip:never@192.0.2.1"});
            return m_service.unregisterContacts(42, none);
        },
        [this] {
            std::vector<oryx::AccessControlEntry> entries;
            return m_events.getAccessControlList("a", "b", "presence", entries);
        },
        [this] {
            std::string ordering;
            bool replaceUri = false;
            std::vector<oryx::ContactRecord> found;
            return m_service.lookupAddressMap("sip:alice@oryx.example", ordering, replaceUri, found);
        },
        [this] {
            std::string extension;
            return m_events.reserveRandomlyIdleConfExtAsInUse(extension);
        },
        [this] {
            oryx::QueryResult result;
            return m_events.executeSqlCmd("SELECT count(*) FROM conf_state", result);
        },
        [this] { return m_events.updateWatcherState("key", "opaque", 1); },
    };
};

TEST_F(Deadline, HoldsWhileEverythingSentIsSwallowed)
{
    m_proxy.swallow(true);
    EXPECT_EQ(calls(kMeasure.calls, m_operations), "in time");
    m_proxy.swallow(false);
    EXPECT_TRUE(kMeasure.eventually([this] { return allWork(); }));
}

TEST_F(Deadline, NamesItselfInTheMessage)
{
    const std::string named = "no answer within the deadline of " + std::to_string(kMeasure.deadline.count()) + " ms";
    m_proxy.swallow(true);
    EXPECT_EQ(lookUp().getErrorMessage(), named);
    EXPECT_EQ(m_events.deleteWatcherState("key", "opaque").getErrorMessage(), named);
    m_events.okay(); // forgets that
    EXPECT_EQ(m_events.removeEventServerState().getErrorMessage(), named);
    m_proxy.swallow(false);
}

TEST_F(Deadline, HoldsForAConnectionThatIsMadeAnew)
{
    m_proxy.hangUp();
    m_proxy.swallow(true);
    EXPECT_EQ(calls(m_operations.size(), m_operations), "in time");
    m_proxy.swallow(false);
    EXPECT_TRUE(kMeasure.eventually([this] { return allWork(); }));
}

TEST_F(Deadline, HoldsForAllStatementsOfAnOperationTogether)
{
    // Two lookups that each find a row, think about it for a while and show none: together they take too long.
    const std::string longerThanHalf = "0.0006 * " + std::to_string(kMeasure.deadline.count());
    sql("CREATE FUNCTION hidden() RETURNS boolean LANGUAGE sql AS 'SELECT pg_sleep(" + longerThanHalf +
        ") IS NULL';"
        "ALTER TABLE access_control_list ENABLE ROW LEVEL SECURITY;"
        "CREATE POLICY hidden ON access_control_list USING (hidden());"
        "INSERT INTO access_control_list (object, requester, access_action, state, application) VALUES "
        "('a@b', 'x', 'A', 'ACTIVE', 'presence'), ('a', 'x', 'A', 'ACTIVE', 'presence')");
    std::vector<oryx::AccessControlEntry> entries;
    EXPECT_EQ(calls(5, {[&] { return m_events.getAccessControlList("a", "b", "presence", entries); }}), "in time");
}

TEST_F(Deadline, HoldsForConnectingAnewAndTheStatementTogether)
{
    const std::chrono::seconds deadline(4); // so long that one and two of them differ on a busy machine too
    oryx::DatabaseCommandExecutor registry;
    for (oryx::CommandExecutor* const executor : std::initializer_list<oryx::CommandExecutor*>{&registry, &m_events}) {
        executor->setSessionOptions({SessionOptions::Statements::bound, deadline});
        ASSERT_TRUE(executor->connect(m_database.uri().c_str(), server::kUser, server::kPassword));
    }
    server::Session holder(m_database.name());
    holder.run("BEGIN; LOCK TABLE contact_set, acp");
    std::string ordering;
    bool replaceUri = false;
    std::vector<oryx::ContactRecord> found;
    // Their connections are known to be lost.
    m_proxy.refuse(true);
    m_proxy.hangUp();
    EXPECT_TRUE(registry.lookupContacts(ordering, 12, replaceUri, found).connectionError());
    EXPECT_TRUE(m_events.updateWatcherState("key", "opaque", 1).connectionError());
    m_proxy.refuse(false);
    m_proxy.delay(deadline * 3 / 4);
    const milliseconds contacts = timed([&] { registry.lookupContacts(ordering, 12, replaceUri, found); });
    std::vector<oryx::CMRecord> managers;
    const milliseconds callManagers = timed([&] { m_events.getCMforBulkSub(managers, false); });
    for (const milliseconds took : {contacts, callManagers}) {
        EXPECT_GE(took, deadline);
        EXPECT_LT(took, deadline * 3 / 2);
    }
}

TEST_F(Deadline, HasTheServerCancelWhatItWorksAt)
{
    server::Session holder(m_database.name());
    holder.run("BEGIN; LOCK TABLE public_address, access_control_list, address_map, conf_state, event_watchers");
    EXPECT_EQ(calls(kMeasure.calls, m_operations), "in time");
    const auto waiting = [&] {
        return holder.value("SELECT count(*) FROM pg_stat_activity WHERE wait_event_type = 'Lock'") == "0";
    };
    EXPECT_TRUE(kMeasure.eventually(waiting));
    holder.run("COMMIT");
    EXPECT_TRUE(kMeasure.eventually([this] { return allWork(); }));
}

TEST_F(Deadline, HoldsWhileTheServerIsStopped)
{
    setenv("PGPORT", server::port().c_str(), 1); // the relay itself would wait for it
    ASSERT_TRUE(kMeasure.eventually([this] { return connect(); }));
    const std::string folder = m_session.value("SHOW data_directory");
    {
        const server::Stopped stopped(folder);
        EXPECT_EQ(calls(kMeasure.calls, m_operations), "in time");
    }
    EXPECT_TRUE(kMeasure.eventually([this] { return allWork(); }));
}

TEST_F(Deadline, HoldsForServicesOfSeveralThreads)
{
    server::Session holder(m_database.name());
    holder.run("BEGIN; LOCK TABLE public_address");
    std::vector<std::string> ends(4);
    std::vector<std::thread> threads;
    for (std::string& end : ends) {
        threads.emplace_back([this, &end] {
            oryx::LocationService service;
            service.setSessionOptions({SessionOptions::Statements::bound, kMeasure.deadline});
            service.connect(m_database.uri().c_str(), server::kUser, server::kPassword);
            int key = 0;
            end = calls(4, {[&] { return service.getPublicAddressKey("alice", "oryx.example", key); }});
        });
    }
    std::for_each(threads.begin(), threads.end(), [](std::thread& thread) { thread.join(); });
    EXPECT_EQ(ends, std::vector<std::string>(4, "in time"));
}

TEST_F(Deadline, HasTheServerCancelThoughAnotherHostIsSilent)
{
    std::array<oryx::LocationService, 8> services;
    for (oryx::LocationService& service : services) {
        service.setSessionOptions({SessionOptions::Statements::bound, kMeasure.deadline});
        ASSERT_TRUE(kMeasure.eventually(
            [&] { return service.connect(m_database.uri().c_str(), server::kUser, server::kPassword).okay(); }));
    }
    m_proxy.blackHole(true);
    for (oryx::LocationService& service : services) {
        int key = 0;
        EXPECT_TRUE(service.getPublicAddressKey("alice", "oryx.example", key).connectionError());
    }
    setenv("PGPORT", server::port().c_str(), 1);
    ASSERT_TRUE(kMeasure.eventually([this] { return connect(); }));
    server::Session holder(m_database.name());
    holder.run("BEGIN; LOCK TABLE public_address");
    EXPECT_EQ(calls(1, m_operations), "in time");
    EXPECT_TRUE(kMeasure.eventually(
        [&] { return holder.value("SELECT count(*) FROM pg_stat_activity WHERE wait_event_type = 'Lock'") == "0"; }));
}

TEST_F(Deadline, IsNotWaitedForWhereTheSystemCannotWait)
{
    const std::chrono::seconds deadline(30);
    m_service.setSessionOptions({SessionOptions::Statements::bound, deadline});
    ASSERT_TRUE(connect());
    m_proxy.swallow(true);
    for (const char* const what : {"a statement", "a connection"}) {
        cannotWait = true;
        const milliseconds took = timed([&] { EXPECT_TRUE(lookUp().connectionError()) << what; });
        cannotWait = false;
        EXPECT_LT(took, deadline / 2) << what;
    }
}

/// Run by the next one, as a program of its own.
TEST_F(Deadline, DISABLED_EndsTheProgram)
{
    std::atexit([] { // as TLS, which has gone behind this
        programEnds = true;
        std::this_thread::sleep_for(std::chrono::seconds(2));
        _exit(finishedAtItsEnd ? 1 : 0);
    });
    m_proxy.swallow(true);
    m_proxy.refuse(true); // requests to cancel, which are repeated for a second
    lookUp();
    std::exit(2);
}

TEST_F(Deadline, LeavesConnectionsToTheSystemAtTheEndOfTheProgram)
{
    setenv("PGPORT", server::port().c_str(), 1);
    const std::string program = program_invocation_name;
    EXPECT_EQ(std::system(
                  ("'" + program + "' --gtest_also_run_disabled_tests --gtest_filter=Deadline.DISABLED_EndsTheProgram")
                      .c_str()),
              0);
}

std::vector<bool> wakeUps; // whether each call of the listener's callback told of a change

TEST_F(Deadline, EndsAListenersWaitWhenItsConnectionIsDead)
{
    wakeUps.clear();
    static Proxy* swallowing = nullptr;
    swallowing = &m_proxy;
    // Long enough for a server that is there to answer in, on a machine however busy.
    oryx::PresenceDatabaseCommandExecutor listener;
    listener.setSessionOptions({SessionOptions::Statements::bound, std::chrono::seconds(4)});
    ASSERT_TRUE(listener.connect(m_database.uri().c_str(), server::kUser, server::kPassword));
    const auto waited = timed([&] {
        listener.waitForNotify([](bool changed, const std::string&) {
            wakeUps.push_back(changed);
            swallowing->swallow(true);
            return false;
        });
    });
    EXPECT_EQ(wakeUps, (std::vector<bool>{false, false})); // the second one when the connection was found dead
    EXPECT_LT(waited, std::chrono::seconds(30));
    m_proxy.swallow(false);
}

} // namespace

} // namespace deadlineTest
