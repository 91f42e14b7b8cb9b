// The change log's promise, kept among those who write, load, lock and copy.

#include "support/DatabaseTest.h"
#include "support/MigrationTest.h"

#include <dal/PresenceDatabaseCommandExecutor.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace changeLogTest {

namespace {

using oryx::DatabaseUpdate;

/// A server that follows the log of a table, as the servers do: it asks for what is later than the highest stamp seen.
class Follower {
public:
    Follower(const std::string& uri, std::string table) : m_table(std::move(table))
    {
        EXPECT_TRUE(m_executor.connect(uri.c_str(), server::kUser, server::kPassword));
    }

    /// The keys seen so far, each as often as it was seen.
    const std::multiset<std::string>& look()
    {
        std::vector<DatabaseUpdate> updates;
        m_executor.getUpdatedPrimaryKeys(m_table, std::to_string(m_highest), updates);
        for (const DatabaseUpdate& update : updates) {
            m_highest = std::max(m_highest, std::stoll(update.timestamp()));
            m_seen.insert(update.strpkey());
        }
        return m_seen;
    }

private:
    oryx::PresenceDatabaseCommandExecutor m_executor;
    std::string m_table;
    long long m_highest = 0;
    std::multiset<std::string> m_seen;
};

class ChangeLogAmongWriters : public DatabaseTest {
protected:
    /// Lets a while pass between the giving of a stamp and the moment at which others can see what has it, as the flush
    /// of a commit does.
    void commitSlowly()
    {
        sql("CREATE FUNCTION take_a_while() RETURNS trigger LANGUAGE plpgsql AS"
            " 'BEGIN PERFORM pg_sleep(random() * 0.002); RETURN NULL; END';"
            "CREATE CONSTRAINT TRIGGER then_take_a_while AFTER INSERT ON event_change DEFERRABLE INITIALLY DEFERRED"
            " FOR EACH ROW WHEN (NEW.first) EXECUTE FUNCTION take_a_while()");
    }

    /// Commits that many changes of the one table or of both, among them some that are taken back; the keys.
    std::multiset<std::string> write(int writer, int changes)
    {
        std::multiset<std::string> keys;
        server::Session session(m_database.name());
        for (int i = 0; i < changes; ++i) {
            const std::string key = std::to_string(writer) + "-" + std::to_string(i);
            const std::string rows = " VALUES ('" + key + "')";
            session.run("BEGIN; INSERT INTO acp VALUES ('" + key +
                        " not'); ROLLBACK;"
                        "BEGIN; SAVEPOINT here; INSERT INTO acp VALUES ('" +
                        key + " not'); ROLLBACK TO here;" + (i % 3 == 0 ? "INSERT INTO extension" + rows + ";" : "") +
                        "INSERT INTO acp" + rows + "; COMMIT");
            keys.insert(key);
        }
        return keys;
    }
};

std::chrono::milliseconds timed(server::Session& session, const std::string& statement)
{
    const auto begin = std::chrono::steady_clock::now();
    session.run(statement);
    return std::chrono::ceil<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin);
}

using ChangeLogRights = ExecutorTest;

TEST_F(ChangeLogAmongWriters, KeepsNothingFromAReaderOfTheHighestStamp)
{
    constexpr int kWriters = 8;
    constexpr int kChanges = 250;
    commitSlowly();
    std::atomic<bool> writing{true};
    std::vector<std::future<std::multiset<std::string>>> writers;
    for (int writer = 0; writer < kWriters; ++writer) {
        writers.push_back(std::async(std::launch::async, [this, writer] { return write(writer, kChanges); }));
    }
    auto reader = std::async(std::launch::async, [&] {
        Follower follower(m_database.uri(), "acp");
        while (writing) {
            follower.look();
        }
        return follower.look();
    });
    std::multiset<std::string> written;
    for (auto& writer : writers) {
        written.merge(writer.get());
    }
    writing = false;
    EXPECT_EQ(reader.get(), written);
    EXPECT_EQ(written.size(), std::size_t{kWriters} * kChanges);
}

TEST_F(ChangeLogAmongWriters, TakesNoLongerAtACommitForALoad)
{
    // Whoever commits a change meanwhile waits for as long as the commit takes.
    const auto loading = timed(m_session, "BEGIN; INSERT INTO subscriber (sid, user_id) SELECT n, 'user' || n"
                                          " FROM generate_series(1, 30000) n");
    const auto committing = timed(m_session, "COMMIT");
    EXPECT_LT(committing.count(), loading.count() / 5);
    EXPECT_EQ(rows("SELECT count(*), count(DISTINCT evt_timestamp) FROM event_notify WHERE table_name = 'subscriber'"),
              "30000|1\n");
}

TEST_F(ChangeLogAmongWriters, LetsReservationsPassALoadThatIsOpen)
{
    sql("INSERT INTO conf_state VALUES ('600', 'IDLE', 5)");
    server::Session loading(m_database.name());
    loading.run("BEGIN; INSERT INTO subscriber (sid, user_id) SELECT n, 'user' || n FROM generate_series(1, 100) n;"
                "INSERT INTO contact_set (sid) SELECT sid FROM subscriber; UPDATE subscriber SET oid = 7");
    sql("SET lock_timeout = '5s'"); // which also holds for the wait at a commit
    EXPECT_EQ(rows("SELECT reserve_one_available_conf_ext_randomly()"), "600\n");
    loading.run("COMMIT");
    EXPECT_EQ(
        rows("SELECT table_name, count(*), count(DISTINCT evt_timestamp) FROM event_notify GROUP BY 1 ORDER BY 1"),
        "conf_state|2|2\ncontact_set|100|1\nsubscriber|200|1\n");
}

TEST_F(ChangeLogAmongWriters, CostsAChangeTheSameHoweverMuchIsLogged)
{
    const auto pages = [&] {
        sql("SELECT pg_stat_force_next_flush()");
        return std::stoi(rows("SELECT idx_blks_hit + idx_blks_read FROM pg_statio_user_indexes"
                              " WHERE indexrelname = 'event_change_xid'"));
    };
    sql("INSERT INTO event_change SELECT 'acp', NULL, n, n::text::xid8, now(), false FROM generate_series(1, 20000) n");
    const int before = pages();
    constexpr int kChanges = 20;
    for (int i = 0; i < kChanges; ++i) {
        sql("INSERT INTO acp VALUES ('later " + std::to_string(i) + "')");
    }
    // To look from its root to a leaf and to add an entry, and a few of the session itself.
    EXPECT_LT(pages() - before, kChanges * 10);
}

TEST_F(ChangeLogRights, KeepEveryLoginFromHoldingUpACommit)
{
    server::Session reader(m_database.name());
    // The number by which commits used to take turns, in a session that may lock by numbers at all.
    reader.run("BEGIN; SELECT pg_advisory_xact_lock(4216580302); SET LOCAL ROLE oryx_reader;"
               "LOCK TABLE acp, event_notify IN ACCESS SHARE MODE");
    for (const std::string role : {"oryx_reader", "oryx_server"}) {
        for (const std::string mode : {"ACCESS SHARE", "EXCLUSIVE"}) {
            server::Session other(m_database.name());
            EXPECT_THROW(other.run("SET ROLE " + role + "; BEGIN; LOCK TABLE event_turn IN " + mode + " MODE"),
                         std::runtime_error);
        }
    }
    sql("SET lock_timeout = '5s'; INSERT INTO acp VALUES ('manager1')");
    EXPECT_EQ(rows("SELECT pk_char FROM event_notify"), "manager1\n");
}

TEST_F(ChangeLogRights, KeepEveryLoginFromMakingLargeObjects)
{
    for (const std::string function : {"lo_creat(-1)", "lo_create(0)", "lo_from_bytea(0, 'a')"}) {
        EXPECT_EQ(outcome(m_executor.execute("SELECT " + function)),
                  "query error: [42501] ERROR:  permission denied for function " +
                      function.substr(0, function.find('(')));
    }
}

// A database whose log is stamped by the row -----------------------------------------------------------------------

class OlderLog : public MigrationTest {
protected:
    OlderLog() : MigrationTest("150") {}
    ~OlderLog() override { server::Session(m_name).run("DROP OWNED BY " + m_role + "; DROP ROLE " + m_role); }

    void SetUp() override { m_session->run("CREATE ROLE " + m_role); }

    const std::string m_role = m_name;
};

constexpr const char* kLog = "SELECT table_name, pk_int, pk_char, evt_timestamp FROM public.event_notify"
                             " ORDER BY evt_timestamp, pk_int, pk_char";

TEST_F(OlderLog, IsKeptWithItsReadersAndGoneOn)
{
    m_session->run("GRANT USAGE ON SCHEMA public TO " + m_role + "; GRANT SELECT ON event_notify TO " + m_role);
    m_session->run("INSERT INTO acp VALUES ('a'), ('b'); INSERT INTO subscriber (sid) VALUES (7)");
    const std::string kept = m_session->rows(kLog);
    const std::string highest = m_session->value("SELECT max(evt_timestamp) FROM event_notify");

    ASSERT_EQ(apply(), 0) << told();

    server::Session session(m_name);
    EXPECT_EQ(session.rows(kLog), kept);
    session.run("SELECT setval('event_notify_stamp', " + highest + " + 60000000)"); // as left by a clock since set back
    session.run("UPDATE acp SET link_type = 'tls' WHERE handle = 'a'; DELETE FROM subscriber");
    session.run("SET ROLE " + m_role);
    EXPECT_EQ(session.rows("SELECT table_name, pk_int, pk_char FROM event_notify WHERE evt_timestamp > '" + highest +
                           "' ORDER BY evt_timestamp"),
              "acp|NULL|a\nsubscriber|7|NULL\n");
    session.run("RESET ROLE");
    EXPECT_EQ(session.rows("SELECT trim_event_notify('-1 day')"), "5\n");
    EXPECT_EQ(session.rows(kLog), "");
}

TEST_F(OlderLog, IsDumpedAndRestoredWithItsStamps)
{
    m_session->run("INSERT INTO acp VALUES ('a')");
    ASSERT_EQ(apply(), 0) << told();
    m_session->run("INSERT INTO acp VALUES ('b'), ('c')");
    const std::string kept = m_session->rows(kLog);
    server::Session session(restore());
    EXPECT_EQ(session.rows(kLog), kept);
    // The transaction that was numbered so where the log comes from is another one here.
    session.run("BEGIN; UPDATE public.event_change SET xid = pg_current_xact_id(); INSERT INTO public.acp VALUES ('d');"
                "COMMIT");
    EXPECT_EQ(session.rows("SELECT pk_char FROM public.event_notify WHERE evt_timestamp >"
                           " (SELECT max(evt_timestamp) FROM public.event_notify WHERE pk_char <> 'd')"),
              "d\n");
    EXPECT_THROW(session.run("SET ROLE oryx_reader; SELECT lo_create(0)"), std::runtime_error);
}

} // namespace

} // namespace changeLogTest
