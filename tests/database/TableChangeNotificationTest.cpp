#include "support/DatabaseTest.h"
#include "support/Proxy.h"
#include "support/TableChanges.h"
#include "support/TraceLog.h"

#include <dal/DatabaseConnection.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <libpq-fe.h>
#include <pthread.h>
#include <sys/resource.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <future>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace tableChangeNotificationTest {

namespace {

constexpr std::array kTables{"acp",        "extension",   "conf_state",          "conf_state_reset", "public_address",
                             "subscriber", "contact_set", "sip_event_aggregator"};

/// The server process of a connection that is subscribed to the last table.
const std::string kSubscribed = "SELECT pid FROM pg_stat_activity WHERE datname = current_database()"
                                " AND query = 'LISTEN sip_event_aggregator' AND state = 'idle'";

/// The library's connection waits on a thread of its own, while the test's session makes changes.
///
/// A wait is ended by cutting off its connection, which wakes it: the idle call that could end it takes 5 seconds to
/// come. Changes are made one by one, each when the one before has arrived: of two that arrive together the second one
/// waits for those 5 seconds too.
class TableChangeWait : public DatabaseTest {
protected:
    void SetUp() override { connect(); }

    void TearDown() override
    {
        if (m_thread.joinable()) {
            cutOff();
        }
        DatabaseTest::TearDown();
    }

    void connect()
    {
        ASSERT_TRUE(m_connection.connect(m_database.uri().c_str(), server::kUser, server::kPassword))
            << m_connection.getErrorMessage();
    }

    /// Returns when every table is subscribed.
    void begin()
    {
        std::packaged_task<bool()> wait([this] { return m_connection.waitOnListen(TableChanges::record); });
        m_returned = wait.get_future();
        m_thread = std::jthread(std::move(wait));
        sql("SET statement_timeout = '20s'; DO $$ BEGIN WHILE NOT EXISTS (" + kSubscribed +
            ") LOOP PERFORM pg_sleep(0.01), pg_stat_clear_snapshot(); END LOOP; END $$");
        // The server has told so before the client has read it.
        std::string seen;
        while (seen.find("--- SUCCESS ---: LISTEN on sip_event_aggregator") == std::string::npos) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            seen += m_trace.take();
        }
    }

    /// Waits for the end of the wait; what it returned.
    bool ending()
    {
        m_thread.join();
        return m_returned.get();
    }

    bool cutOff()
    {
        sql("SELECT pg_terminate_backend(pid, 5000) FROM (" + kSubscribed + ") AS subscribed");
        return ending();
    }

    TraceLog m_trace;
    /// What the callback does and answers: nothing, and to go on.
    TableChanges::Answer m_answer = [](bool /*changed*/, const std::string& /*table*/) { return false; };
    TableChanges m_changes{[this](bool changed, const std::string& table) { return m_answer(changed, table); }};
    oryx::DatabaseConnection m_connection;
    std::future<bool> m_returned;
    std::jthread m_thread;
};

/// The same with a connection that the test makes itself.
class TableChangeWaitWithoutAConnection : public TableChangeWait {
protected:
    void SetUp() override {}
};

/// What the schema announces: a session has its own announcements as soon as its statements have ended.
class TableChangeAnnouncement : public DatabaseTest {
protected:
    using Channels = std::multiset<std::string>;

    void SetUp() override
    {
        provisionAlice();
        m_listener.reset(PQconnectdb(("dbname=" + m_database.name() + " port=" + server::port()).c_str()));
        ASSERT_EQ(announced("SET client_min_messages = error"), Channels{});
        for (const std::string table : kTables) {
            ASSERT_EQ(announced("LISTEN " + table), Channels{});
        }
    }

    Channels announced(const std::string& statements)
    {
        PQclear(PQexec(m_listener.get(), statements.c_str()));
        EXPECT_STREQ(PQerrorMessage(m_listener.get()), "");
        Channels channels;
        while (const auto notification = next()) {
            channels.insert(notification->relname);
        }
        return channels;
    }

private:
    std::unique_ptr<PGnotify, void (*)(void*)> next() { return {PQnotifies(m_listener.get()), PQfreemem}; }

    std::unique_ptr<PGconn, void (*)(PGconn*)> m_listener{nullptr, PQfinish};
};

TEST_F(TableChangeWait, HandsOnWhatAnotherConnectionNotifies)
{
    begin();
    sql("NOTIFY subscriber");
    EXPECT_EQ(m_changes.awaitChanges(1), "true 'subscriber'\n");
    EXPECT_EQ(m_trace.take(), "DatabaseConnection prn: subscriber table updated\n");
}

TEST_F(TableChangeWait, IsSubscribedToEveryTableAndNoOther)
{
    begin();
    sql("NOTIFY contact");
    std::string expected;
    for (std::size_t i = 0; i < kTables.size(); ++i) {
        sql("NOTIFY " + std::string(kTables.at(i)));
        expected += "true '" + std::string(kTables.at(i)) + "'\n";
        ASSERT_EQ(m_changes.awaitChanges(i + 1), expected);
    }
}

TEST_F(TableChangeWait, LearnsOfEachOfTwoChangesToATable)
{
    begin();
    sql("NOTIFY contact_set");
    EXPECT_EQ(m_changes.awaitChanges(1), "true 'contact_set'\n");
    sql("NOTIFY contact_set");
    EXPECT_EQ(m_changes.awaitChanges(2), "true 'contact_set'\ntrue 'contact_set'\n");
}

TEST_F(TableChangeWait, LearnsOfWhatAServerProvisions)
{
    oryx::DatabaseCommandExecutor executor;
    ASSERT_TRUE(executor.connect(m_database.uri().c_str(), server::kUser, server::kPassword));
    oryx::SubscriberRecord bob;
    bob.setId(8);
    begin();
    EXPECT_EQ(executor.addSubscriber(bob), 1);
    EXPECT_EQ(m_changes.awaitChanges(1), "true 'subscriber'\n");
}

TEST_F(TableChangeWait, LosesNoneOfSeveralThatArriveTogether)
{
    // Further input wakes the wait for each of those that libpq holds already.
    server::Session other(m_database.name());
    int calls = 0;
    m_answer = [&](bool /*changed*/, const std::string& /*table*/) {
        if (++calls < 4) {
            other.run("NOTIFY acp");
        }
        return false;
    };
    begin();
    sql("BEGIN; NOTIFY subscriber; NOTIFY contact_set; NOTIFY subscriber, 'again'; NOTIFY public_address; COMMIT");
    EXPECT_EQ(m_changes.awaitChanges(4),
              "true 'subscriber'\ntrue 'contact_set'\ntrue 'subscriber'\ntrue 'public_address'\n");
    cutOff();
}

TEST_F(TableChangeWait, HasAnIdleCallAboutEvery5SecondsThatCanEndIt)
{
    std::vector<std::chrono::steady_clock::time_point> idle;
    m_answer = [&](bool /*changed*/, const std::string& /*table*/) {
        idle.push_back(std::chrono::steady_clock::now());
        return idle.size() == 2;
    };
    begin();
    EXPECT_TRUE(ending());
    EXPECT_EQ(m_changes.calls(), "false ''\nfalse ''\n");
    EXPECT_EQ(m_trace.take(), "");
    EXPECT_GE(idle.at(1) - idle.at(0), std::chrono::seconds(4));
    EXPECT_LE(idle.at(1) - idle.at(0), std::chrono::seconds(9));
    EXPECT_TRUE(m_connection.active());
    m_connection.close();
}

TEST_F(TableChangeWait, EndsWellWhenItsBackendIsTerminated)
{
    begin();
    EXPECT_TRUE(cutOff());
    EXPECT_EQ(m_trace.take(),
              "DatabaseConnection prn: libpq MESSAGE: FATAL:  terminating connection due to administrator command\n\n");
    EXPECT_EQ(m_connection.getErrorMessage(), "");
    EXPECT_FALSE(m_connection.active());
}

TEST_F(TableChangeWait, ReconnectsWhenItIsBegunAgain)
{
    begin();
    EXPECT_TRUE(cutOff());
    begin();
    sql("NOTIFY acp");
    EXPECT_EQ(m_changes.awaitChanges(1), "true 'acp'\n");
}

TEST_F(TableChangeWait, FailsOnceWhenTheConnectionIsLostBeforeIt)
{
    terminate(backend());
    EXPECT_FALSE(m_connection.waitOnListen(TableChanges::record));
    EXPECT_NE(m_trace.take().find("DatabaseConnection log: DatabaseConnection::listenForDbTableChangeNotification(): "
                                  "*** ERROR ***: Failed to exec LISTEN on on acp\n"),
              std::string::npos);
    begin();
    sql("NOTIFY acp");
    EXPECT_EQ(m_changes.awaitChanges(1), "true 'acp'\n");
}

TEST_F(TableChangeWait, FailsWhenASignalInterruptsIt)
{
    struct sigaction noted {};
    noted.sa_handler = [](int /*number*/) {};
    struct sigaction former {};
    ASSERT_EQ(sigaction(SIGUSR1, &noted, &former), 0);
    begin();
    // The first signal may come just before the wait does.
    while (m_returned.wait_for(std::chrono::milliseconds(10)) != std::future_status::ready) {
        ASSERT_EQ(pthread_kill(m_thread.native_handle(), SIGUSR1), 0);
    }
    EXPECT_FALSE(ending());
    EXPECT_EQ(m_trace.take(), "DatabaseConnection log: waitOnListen::select failed\n");
    EXPECT_EQ(m_changes.calls(), "");
    EXPECT_EQ(m_connection.getErrorMessage(), "");
    EXPECT_TRUE(m_connection.active());
    ASSERT_EQ(sigaction(SIGUSR1, &former, nullptr), 0);
    m_connection.close();
}

TEST_F(TableChangeWaitWithoutAConnection, TakesASocketNumberedAbove1024)
{
    constexpr rlim_t kNeeded = 2048;
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit raised{std::max(limit.rlim_cur, kNeeded), limit.rlim_max};
    if (setrlimit(RLIMIT_NOFILE, &raised) != 0) {
        GTEST_SKIP() << "this process may not have so many descriptors";
    }
    std::vector<server::Socket> taken;
    do {
        taken.emplace_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
        ASSERT_GE(taken.back().fd(), 0);
    } while (taken.back().fd() < 1100);

    connect();
    begin();
    sql("NOTIFY subscriber");
    EXPECT_EQ(m_changes.awaitChanges(1), "true 'subscriber'\n");
    EXPECT_TRUE(cutOff());
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
}

TEST_F(TableChangeWaitWithoutAConnection, DoesNotBegin)
{
    EXPECT_FALSE(m_connection.waitOnListen(TableChanges::record));
    EXPECT_EQ(m_connection.getErrorMessage(), "no connection to reset");
    EXPECT_EQ(m_changes.calls(), "");
    EXPECT_EQ(m_trace.take(), "DatabaseConnection prn: DatabaseConnection::listenForDbTableChangeNotification(): "
                              "Attempting to LISTEN on acp\n"
                              "DatabaseConnection prn: listenForDbTableChangeNotification: resetting the connection\n"
                              "DatabaseConnection log: listenForDbTableChangeNotification: reset failed\n");
}

TEST_F(TableChangeAnnouncement, ComesOncePerStatementWhateverItsRows)
{
    EXPECT_EQ(announced("INSERT INTO subscriber (sid) VALUES (8), (9), (10)"), Channels{"subscriber"});
    EXPECT_EQ(announced("UPDATE subscriber SET oid = 4"), Channels{"subscriber"});
    EXPECT_EQ(announced("UPDATE subscriber SET oid = 4 WHERE sid = 11"), Channels{"subscriber"});
    EXPECT_EQ(announced("INSERT INTO contact_set (csid, sid) VALUES (13, 8), (14, 9)"), Channels{"contact_set"});
    EXPECT_EQ(announced("UPDATE contact_set SET ordering = 'parallel'"), Channels{"contact_set"});
    EXPECT_EQ(announced("INSERT INTO public_address (handle, sip_domain, csid)"
                        " VALUES ('bob', 'oryx.example', 13), ('lis', 'oryx.example', 14)"),
              Channels{"public_address"});
    EXPECT_EQ(announced("UPDATE public_address SET scope = 'private'"), Channels{"public_address"});
    EXPECT_EQ(announced("DELETE FROM public_address WHERE handle <> 'alice'"), Channels{"public_address"});
    EXPECT_EQ(announced("TRUNCATE public_address"), Channels{"public_address"});
}

TEST_F(TableChangeAnnouncement, ComesForTheTablesThatARemovalReachesToo)
{
    const Channels both{"contact_set", "public_address"};
    const Channels all{"contact_set", "public_address", "subscriber"};
    EXPECT_EQ(announced("DELETE FROM contact_set"), both);
    EXPECT_EQ(announced("TRUNCATE contact_set CASCADE"), both);
    EXPECT_EQ(announced("INSERT INTO contact_set (csid, sid) VALUES (12, 7)"), Channels{"contact_set"});
    EXPECT_EQ(announced("DELETE FROM subscriber"), all);
    EXPECT_EQ(announced("TRUNCATE subscriber CASCADE"), all);
}

TEST_F(TableChangeAnnouncement, ComesForWhatAStoredFunctionChanges)
{
    EXPECT_EQ(announced("SELECT create_public_address(7, 'bob', 'oryx.example')"),
              (Channels{"contact_set", "public_address"}));
    EXPECT_EQ(announced("SELECT create_public_address_alias('bob', 'oryx.example', 'robert')"),
              Channels{"public_address"});
}

TEST_F(TableChangeAnnouncement, ComesOnceForTheStatementsOfATransaction)
{
    EXPECT_EQ(announced("BEGIN; INSERT INTO subscriber (sid) VALUES (8)"), Channels{});
    EXPECT_EQ(announced("UPDATE subscriber SET oid = 4; UPDATE contact_set SET sid = 8"), Channels{});
    EXPECT_EQ(announced("COMMIT"), (Channels{"contact_set", "subscriber"}));
}

TEST_F(TableChangeAnnouncement, DoesNotComeForAChangeThatIsRolledBack)
{
    EXPECT_EQ(announced("BEGIN; DELETE FROM subscriber; TRUNCATE public_address; ROLLBACK"), Channels{});
}

TEST_F(TableChangeAnnouncement, DoesNotComeForARegistration)
{
    EXPECT_EQ(announced("INSERT INTO contact (csid, address) VALUES (12, 'sip:a@192.0.2.1')"), Channels{});
    EXPECT_EQ(announced("UPDATE contact SET expires = 2000000000"), Channels{});
    EXPECT_EQ(announced("DELETE FROM contact"), Channels{});
}

} // namespace

} // namespace tableChangeNotificationTest
