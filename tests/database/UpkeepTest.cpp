// The upkeep that a timer calls, and the alarms: what they do, what they find, and that they do no harm.

#include "support/DatabaseTest.h"
#include "support/MigrationTest.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <stdexcept>
#include <string>

namespace upkeepTest {

namespace {

class Upkeep : public ExecutorTest {
protected:
    /// What a run did, without the alarms.
    std::string done(const std::string& arguments = "")
    {
        return rows("SELECT state, item, value, unit, detail FROM oryx_upkeep(" + arguments +
                    ") WHERE item NOT IN (SELECT alarm FROM alarm_limit)");
    }

    /// What a further run within the hour does.
    std::string doneAgain(const std::string& arguments = "")
    {
        done();
        return done(arguments);
    }

    /// An alarm's state, what there is, and the detail.
    std::string alarm(const std::string& name)
    {
        return rows("SELECT state, value, detail FROM oryx_alarms() WHERE alarm = '" + name + "'");
    }

    std::string state(const std::string& name)
    {
        return m_session.value("SELECT state FROM oryx_alarms() WHERE alarm = '" + name + "'");
    }

    void allow(const std::string& name, int allowed)
    {
        sql("UPDATE alarm_limit SET allowed = " + std::to_string(allowed) + " WHERE alarm = '" + name + "'");
    }

    /// A role that may log in, for all tests of it at once.
    void makeRole(const std::string& name)
    {
        sql("DO $$ BEGIN CREATE ROLE " + name + " LOGIN PASSWORD '" + server::kPasswordKept +
            "'; EXCEPTION WHEN duplicate_object OR unique_violation THEN NULL; END $$");
        sql("GRANT CONNECT ON DATABASE " + m_database.name() + " TO " + name);
    }

    /// What a server is told.
    std::string ask(const std::string& statement) { return outcome(m_executor.execute(statement)); }

    /// How upkeep and alarms call the library's session in that state.
    std::string session(const std::string& inState)
    {
        return "session " + backend() + " of " + server::kUser + " (no name), " + inState;
    }

    /// Without what differs from run to run.
    static std::string withoutSeconds(std::string text)
    {
        const std::size_t open = text.find(", open for ");
        return open == std::string::npos ? text : text.erase(open, text.find(" s", open) + 2 - open);
    }
};

const std::string kNothingForgotten = "done|forget_sendings|0|rows|not written for a day\n";

TEST_F(Upkeep, TrimsTheChangeLogAndForgetsEndedSessions)
{
    sql("INSERT INTO acp VALUES ('manager')");
    sql("INSERT INTO sending (session, number) VALUES ('00000000-0000-0000-0000-000000000001', 25),"
        " ('00000000-0000-0000-0000-000000000002', 23)");
    sql("UPDATE sending SET sent_at = now() - number * interval '1 hour'");
    EXPECT_EQ(done("'1 hour'"), "done|forget_sendings|1|rows|not written for a day\n"
                                "done|trim_change_log|0|rows|older than 01:00:00\n");
    EXPECT_EQ(rows("SELECT number FROM sending"), "23\n");
    sql("DELETE FROM upkeep_run; UPDATE event_stamp SET evt_timestamp = evt_timestamp - 3660000000");
    EXPECT_EQ(done("'1 hour'"), kNothingForgotten + "done|trim_change_log|1|rows|older than 01:00:00\n");
    EXPECT_EQ(rows("SELECT * FROM event_notify"), "");
}

TEST_F(Upkeep, LeavesAnHoursChangesWhateverItIsTold)
{
    sql("INSERT INTO acp VALUES ('unread')");
    sql("UPDATE event_stamp SET evt_timestamp = evt_timestamp - 3540000000"); // 59 minutes
    // The last is an hour where a month is 30 days, and days of the future with any eight months that are to come.
    for (const std::string keep : {"-1 hour", "0", "59 minutes", "-8 months 240 days 1 hour"}) {
        sql("DELETE FROM upkeep_run");
        done("'" + keep + "'");
        EXPECT_EQ(rows("SELECT pk_char FROM event_notify"), "unread\n") << keep;
    }
    sql("DELETE FROM upkeep_run");
    EXPECT_EQ(done("'-1 hour'"), kNothingForgotten + "done|trim_change_log|0|rows|older than 01:00:00\n");
}

TEST_F(Upkeep, LeavesForThatHourWhateverTheMonthsAre)
{
    sql("CREATE OR REPLACE FUNCTION trim_some_changes(keep interval, most integer) RETURNS bigint LANGUAGE plpgsql AS $$ "
        "BEGIN RAISE '% months', extract(year FROM keep) * 12 + extract(month FROM keep); END $$");
    for (const std::string keep : {"1 year", "2 months", "1 month -20 days"}) {
        EXPECT_EQ(done("'" + keep + "'"), kNothingForgotten + "failed|trim_change_log|NULL|rows|0 months\n") << keep;
    }
}

TEST_F(Upkeep, DoesTheRestThoughNoTimeIsSoLongAgo)
{
    ASSERT_EQ(ask("BEGIN; SELECT FROM contact"), "okay");
    const std::string named = session("idle in transaction");
    for (const std::string keep : {"9999 years", "-999999 years"}) {
        EXPECT_EQ(done("'" + keep + "'"),
                  kNothingForgotten + "failed|trim_change_log|NULL|rows|timestamp out of range\n");
    }
    EXPECT_EQ(withoutSeconds(done("'9999 years', idle_limit => '0'")),
              "done|end_forgotten_transactions|1|sessions|" + named + "\n" + kNothingForgotten +
                  "failed|trim_change_log|NULL|rows|timestamp out of range\n");
    EXPECT_EQ(state("upkeep_failed"), "alarm");
}

TEST_F(Upkeep, TrimsNothingWhereNothingIsSaid)
{
    sql("INSERT INTO acp VALUES ('old')");
    sql("UPDATE event_stamp SET evt_timestamp = 1");
    done("NULL");
    EXPECT_EQ(rows("SELECT pk_char FROM event_notify"), "old\n");
}

TEST_F(Upkeep, ReadsTheChangeLogOnceAnHourOrUntilItIsTrimmed)
{
    EXPECT_EQ(doneAgain(), kNothingForgotten);
    sql("UPDATE upkeep_run SET run_at = run_at - interval '61 minutes'");
    EXPECT_EQ(done(), kNothingForgotten + "done|trim_change_log|0|rows|older than 7 days\n");

    sql("DELETE FROM upkeep_run; REVOKE EXECUTE ON FUNCTION trim_some_changes(interval, integer) FROM oryx_owner");
    const std::string refused =
        kNothingForgotten + "failed|trim_change_log|NULL|rows|permission denied for function trim_some_changes\n";
    EXPECT_EQ(done(), refused);
    EXPECT_EQ(done(), refused);
    EXPECT_EQ(state("upkeep_failed"), "alarm");
}

TEST_F(Upkeep, EndsASessionThatLeavesATransactionOpen)
{
    ASSERT_EQ(ask("BEGIN; SELECT FROM contact"), "okay");
    const std::string forgotten = backend();
    const std::string named = session("idle in transaction");
    EXPECT_EQ(doneAgain(), kNothingForgotten); // it has a minute
    EXPECT_EQ(withoutSeconds(done("idle_limit => '0'")),
              "done|end_forgotten_transactions|1|sessions|" + named + "\n" + kNothingForgotten);
    EXPECT_EQ(remaining(forgotten), "");
    EXPECT_EQ(doneAgain("idle_limit => '0'"), kNothingForgotten);
    EXPECT_EQ(ask("SELECT 1"), "okay"); // in a new session
}

TEST_F(Upkeep, CancelsAStatementThatGoesOnAndOn)
{
    auto asked = std::async(std::launch::async, [this] { return ask("SELECT pg_sleep(300)"); });
    EXPECT_NE(waitingBackend(), "");
    EXPECT_EQ(doneAgain("idle_limit => '0'"), kNothingForgotten);
    const std::string cancelled = backend();
    const std::string named = session("active");
    EXPECT_EQ(withoutSeconds(done("running_limit => '0'")),
              "done|end_forgotten_transactions|1|sessions|" + named + "\n" + kNothingForgotten);
    // A plain statement is sent once more.
    EXPECT_NE(waitingBackend(cancelled), "");
    done("running_limit => '0'");
    EXPECT_EQ(asked.get(), "query error: [57014] ERROR:  canceling statement due to user request");
}

TEST_F(Upkeep, EndsAStatementThatGoesOnThoughItIsCancelled)
{
    server::Session stubborn(m_database.name(), server::kUser);
    const std::string process = stubborn.value("SELECT pg_backend_pid()");
    auto asked = std::async(std::launch::async, [&stubborn]() -> std::string {
        try {
            stubborn.run("DO $$ BEGIN LOOP BEGIN PERFORM pg_sleep(300);"
                         " EXCEPTION WHEN query_canceled THEN NULL; END; END LOOP; END $$");
        } catch (const std::runtime_error& ended) {
            return ended.what();
        }
        return "done";
    });
    const std::string one = "done|end_forgotten_transactions|1|sessions|session " + process + " of " + server::kUser +
                            " (no name), active\n" + kNothingForgotten;
    const std::string asleep =
        "SELECT count(*) FROM pg_stat_activity WHERE wait_event = 'PgSleep' AND pid = " + process;
    while (m_session.value(asleep) == "0") {
    }
    done();
    EXPECT_EQ(withoutSeconds(done("running_limit => '0'")), one);
    EXPECT_EQ(asked.wait_for(std::chrono::seconds(1)), std::future_status::timeout);
    EXPECT_EQ(m_session.value(asleep), "1");
    EXPECT_EQ(withoutSeconds(done("running_limit => '-3 minutes'")), one); // as three minutes later
    EXPECT_EQ(remaining(process), "");
    sql("SELECT pg_terminate_backend(" + process + ")"); // or this waits for ever
    EXPECT_EQ(asked.get().substr(0, 59), "FATAL:  terminating connection due to administrator command");
}

TEST_F(Upkeep, TakesForEndedWhatHasEndedByItself)
{
    done();
    sql("CREATE OR REPLACE VIEW open_transaction AS SELECT 2147483647 AS pid, 'gone'::name AS usename,"
        " '' AS application_name, state, interval '1 hour' AS open_for, interval '1 hour' AS idle_for,"
        " state <> 'active' AS is_idle, false AS may_migrate FROM (VALUES ('active'), ('idle in transaction')) v(state)");
    const std::string one = "done|end_forgotten_transactions|1|sessions|session 2147483647 of gone (no name), ";
    EXPECT_EQ(done("running_limit => '58 minutes'"),
              one + "active, open for 3600 s\n" + one + "idle in transaction, open for 3600 s\n" + kNothingForgotten);
    EXPECT_EQ(state("upkeep_failed"), "ok");
}

TEST_F(Upkeep, LetsAMigrationWaitForWhatItBuildsElsewhere)
{
    server::Session applying(m_database.name());
    applying.run("BEGIN; LOCK TABLE schema_migration IN SHARE UPDATE EXCLUSIVE MODE");
    EXPECT_EQ(doneAgain("idle_limit => '0'"), kNothingForgotten);
    applying.run("COMMIT");
}

TEST_F(Upkeep, TrimsALongLogRunByRun)
{
    sql("INSERT INTO event_notify_earlier SELECT 'acp', NULL, 'manager', n FROM generate_series(1, 200001) n");
    EXPECT_EQ(done(),
              kNothingForgotten + "done|trim_change_log|200000|rows|older than 7 days, and the next run goes on\n");
    EXPECT_EQ(done(), kNothingForgotten + "done|trim_change_log|1|rows|older than 7 days\n");
    EXPECT_EQ(doneAgain(), kNothingForgotten);
}

TEST_F(Upkeep, TrimsALargeLoadsStampRunByRun)
{
    sql("INSERT INTO acp SELECT n FROM generate_series(1, 250000) n");
    sql("INSERT INTO acp VALUES ('later')");
    sql("UPDATE event_stamp SET evt_timestamp = 1 WHERE evt_timestamp = (SELECT min(evt_timestamp) FROM event_stamp)");
    EXPECT_EQ(rows("SELECT trim_some_changes('7 days', 1000)"), "1000\n");
    EXPECT_EQ(rows("SELECT count(*) FROM event_notify WHERE evt_timestamp = 1"), "249000\n");

    EXPECT_EQ(done(),
              kNothingForgotten + "done|trim_change_log|200000|rows|older than 7 days, and the next run goes on\n");
    EXPECT_EQ(rows("SELECT count(*) FROM event_notify WHERE evt_timestamp = 1"), "49000\n");
    EXPECT_EQ(done(), kNothingForgotten + "done|trim_change_log|49000|rows|older than 7 days\n");
    EXPECT_EQ(rows("SELECT pk_char FROM event_notify"), "later\n");
    EXPECT_EQ(rows("SELECT count(*) FROM event_stamp"), "1\n");
    EXPECT_EQ(rows("SELECT count(*) FROM event_change"), "1\n");
}

TEST_F(Upkeep, EndsForgottenSessionsThoughTheTrimmingIsCancelled)
{
    sql("CREATE OR REPLACE FUNCTION trim_some_changes(keep interval, most integer) RETURNS bigint LANGUAGE sql"
        " AS 'SELECT 0::bigint FROM pg_sleep(300)'");
    ASSERT_EQ(ask("BEGIN; SELECT FROM contact"), "okay");
    const std::string forgotten = backend();
    const std::string named = session("idle in transaction");
    m_session.run("SET statement_timeout = '3s'");
    EXPECT_EQ(withoutSeconds(done("idle_limit => '0'")),
              "done|end_forgotten_transactions|1|sessions|" + named + "\n" + kNothingForgotten +
                  "failed|trim_change_log|NULL|rows|canceling statement due to statement timeout\n");
    m_session.run("RESET statement_timeout");
    EXPECT_EQ(remaining(forgotten), "");
    EXPECT_EQ(rows("SELECT trimmed, failed FROM upkeep_run"), "NULL|1\n");
    EXPECT_EQ(state("upkeep_failed"), "alarm");
}

TEST_F(Upkeep, TrimsForSoLong)
{
    sql("CREATE OR REPLACE FUNCTION trim_some_changes(keep interval, most integer) RETURNS bigint LANGUAGE sql"
        " AS 'SELECT most::bigint FROM pg_sleep(0.1)'");
    EXPECT_EQ(rows("SELECT removed < 2000000, goes_on FROM upkeep_trim('7 days', 2000000, '1 second')"), "t|t\n");
    EXPECT_EQ(rows("SELECT * FROM upkeep_trim('7 days', 40000, '1 minute')"), "40000|t\n");
}

TEST_F(Upkeep, LetsAMigrationTakeItsTime)
{
    makeRole("oryx_test_migration");
    sql("GRANT oryx_owner TO oryx_test_migration");
    ASSERT_TRUE(m_executor.connect(m_database.uri().c_str(), "oryx_test_migration", server::kPassword));
    auto asked = std::async(std::launch::async, [this] { return ask("SELECT pg_sleep(2)"); });
    while (m_session.value("SELECT count(*) FROM pg_stat_activity WHERE datname = current_database()"
                           " AND usename = 'oryx_test_migration' AND wait_event = 'PgSleep'") == "0") {
    }
    EXPECT_EQ(doneAgain("running_limit => '0'"), kNothingForgotten);
    EXPECT_EQ(asked.get(), "okay");
}

TEST_F(Upkeep, LetsAVacuumTakeItsTime)
{
    // Not as the schema's owner, who is left alone in any case, nor as a superuser, whom nobody else can cancel.
    makeRole("oryx_test_vacuum");
    sql("ALTER DATABASE " + m_database.name() + " OWNER TO oryx_test_vacuum");
    sql("INSERT INTO contact_set (csid) VALUES (12);"
        "INSERT INTO contact (csid, address) SELECT 12, n FROM generate_series(1, 20000) n");
    ASSERT_TRUE(m_executor.connect(m_database.uri().c_str(), "oryx_test_vacuum", server::kPassword));
    ASSERT_EQ(ask("SET vacuum_cost_delay = 100"), "okay");
    ASSERT_EQ(ask("SET vacuum_cost_limit = 1"), "okay");
    auto asked = std::async(std::launch::async, [this] { return ask("VACUUM contact"); });
    std::string pid;
    while (pid.empty()) {
        pid = m_session.value("SELECT pid FROM pg_stat_progress_vacuum WHERE datname = current_database()"
                              " AND relid = 'contact'::regclass");
    }
    EXPECT_EQ(doneAgain("idle_limit => '0', running_limit => '0'"), kNothingForgotten);
    sql("SELECT pg_cancel_backend(" + pid + ")");
    asked.wait();
    sql("ALTER DATABASE " + m_database.name() + " OWNER TO CURRENT_USER");
}

TEST_F(Upkeep, SaysWhatItMayNotEnd)
{
    server::Session superuser(m_database.name());
    superuser.run("BEGIN; SELECT FROM contact");
    EXPECT_EQ(withoutSeconds(doneAgain("idle_limit => '0'")),
              "failed|end_forgotten_transactions|1|sessions|session " + superuser.value("SELECT pg_backend_pid()") +
                  " of postgres (no name), idle in transaction: must be a superuser to terminate superuser process\n" +
                  kNothingForgotten);
    EXPECT_EQ(alarm("upkeep_failed").substr(0, 9), "alarm|1|a");
    superuser.run("ROLLBACK");
    done();
    EXPECT_EQ(state("upkeep_failed"), "ok");
}

TEST_F(Upkeep, TakesTurnsThatOnlyTheOwnerCanTake)
{
    server::Session other(m_database.name());
    other.run("BEGIN; SELECT FROM oryx_upkeep()");
    EXPECT_EQ(rows("SELECT * FROM oryx_upkeep()"), "upkeep|done|NULL|NULL|NULL|another run is at it|NULL\n");
    other.run("COMMIT");
    EXPECT_EQ(done(), kNothingForgotten);
    EXPECT_EQ(ask("SELECT FROM upkeep_turn FOR UPDATE"),
              "query error: [42501] ERROR:  permission denied for table upkeep_turn");
}

TEST_F(Upkeep, WaitsForNobody)
{
    done();
    server::Session other(m_database.name());
    other.run("BEGIN; LOCK TABLE sending");
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(done(), "failed|forget_sendings|NULL|rows|canceling statement due to lock timeout\n");
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
    other.run("COMMIT");
    EXPECT_EQ(done(), kNothingForgotten);
}

TEST_F(Upkeep, IsForOperatorsAlone)
{
    EXPECT_EQ(ask("SELECT * FROM oryx_upkeep()"),
              "query error: [42501] ERROR:  permission denied for function oryx_upkeep");
    EXPECT_EQ(ask("SELECT * FROM oryx_alarms()"),
              "query error: [42501] ERROR:  permission denied for function oryx_alarms");
    EXPECT_EQ(ask("SELECT * FROM end_forgotten_transactions('0', '0')"),
              "query error: [42501] ERROR:  permission denied for function end_forgotten_transactions");
    EXPECT_EQ(ask("SELECT * FROM horizon_holder"),
              "query error: [42501] ERROR:  permission denied for view horizon_holder");
}

TEST_F(Upkeep, LimitsIdleTransactionsOfWhoeverHasNoLimit)
{
    EXPECT_EQ(m_session.value("SHOW idle_in_transaction_session_timeout"), "1min");
}

TEST_F(Upkeep, FindsNothingWrongInANewDatabase)
{
    done();
    EXPECT_EQ(rows("SELECT alarm, state, allowed, unit FROM oryx_alarms()"),
              "archiving_behind|ok|4096|MB\n"
              "archiving_failed|ok|300|s\n"
              "change_log_rows|ok|5000000|rows\n"
              "connections_used|ok|80|% of max_connections\n"
              "dead_rows|ok|40|% of the rows\n"
              "extensions_in_use|ok|0|extensions\n"
              "horizon_held_back|ok|1000000|transactions\n"
              "idle_transaction|ok|120|s\n"
              "invalid_indexes|ok|0|indexes\n"
              "log_held_by_slots|ok|4096|MB\n"
              "log_written|ok|150|GB a day\n"
              "notifications_unread|ok|10|% of the queue\n"
              "oldest_transaction|ok|600|s\n"
              "prepared_transaction|ok|300|s\n"
              "refreshes_moved|ok|20|% of the refreshes\n"
              "replication_lag|ok|64|MB\n"
              "replication_stopped|ok|600|s\n"
              "sequences_used|ok|75|% of the numbers\n"
              "slots_lost|ok|0|slots\n"
              "transaction_ids_used|ok|60|% of what there is\n"
              "upkeep_failed|ok|0|tasks\n"
              "upkeep_missing|ok|600|s\n");
}

TEST_F(Upkeep, NamesWhoHoldsAnOldTransaction)
{
    sql("INSERT INTO contact_set (csid) VALUES (12)");
    ASSERT_EQ(ask("BEGIN ISOLATION LEVEL REPEATABLE READ; SELECT FROM contact"), "okay");
    sql("INSERT INTO contact_set (csid) VALUES (13)");
    sql("INSERT INTO contact_set (csid) VALUES (14)");
    allow("horizon_held_back", 1);
    allow("oldest_transaction", -1);
    EXPECT_NE(alarm("horizon_held_back").find(session("idle in transaction")), std::string::npos);
    EXPECT_EQ(state("horizon_held_back"), "alarm");
    EXPECT_NE(alarm("oldest_transaction").find(session("idle in transaction")), std::string::npos);
    EXPECT_EQ(state("oldest_transaction"), "alarm");
    allow("idle_transaction", -1);
    EXPECT_NE(alarm("idle_transaction").find("session " + backend()), std::string::npos);
    EXPECT_EQ(state("idle_transaction"), "alarm");
    ASSERT_EQ(ask("ROLLBACK"), "okay");
    EXPECT_EQ(alarm("horizon_held_back"), "ok|0|NULL\n");
    EXPECT_EQ(alarm("idle_transaction"), "alarm|0|NULL\n");
    EXPECT_EQ(alarm("oldest_transaction"), "alarm|0|NULL\n");
}

TEST_F(Upkeep, TakesALongReportForNoIdleOne)
{
    allow("oldest_transaction", 0);
    allow("idle_transaction", 0);
    auto asked = std::async(std::launch::async, [this] { return ask("SELECT pg_sleep(3)"); });
    EXPECT_NE(waitingBackend(), "");
    sql("SELECT pg_sleep(1)");
    EXPECT_EQ(state("oldest_transaction"), "alarm");
    EXPECT_EQ(alarm("idle_transaction"), "ok|0|NULL\n");
    EXPECT_EQ(asked.get(), "okay");
}

TEST_F(Upkeep, AlarmsAtAnnouncementsThatAreNotRead)
{
    server::Session deaf(m_database.name());
    deaf.run("LISTEN mine");
    deaf.run("BEGIN; SELECT 1");
    sql("SELECT pg_notify('other', n::text || repeat('x', 7900)) FROM generate_series(1, 200) n");
    allow("notifications_unread", 0);
    EXPECT_EQ(state("notifications_unread"), "alarm");
    deaf.run("ROLLBACK");
}

TEST_F(Upkeep, AlarmsAtWhatWouldStopAService)
{
    EXPECT_EQ(state("upkeep_missing"), "unknown");
    done();
    sql("SELECT setval('subscriber_sid_seq', 1610612736)");
    sql("SELECT setval('contact_contact_id_seq', 2147483647)"); // starts over
    EXPECT_EQ(alarm("sequences_used"), "ok|75.0|subscriber_sid_seq\n");
    sql("SELECT setval('subscriber_sid_seq', 1632087572)");
    EXPECT_EQ(alarm("sequences_used"), "alarm|76.0|subscriber_sid_seq\n");

    sql("UPDATE pg_index SET indisvalid = false WHERE indexrelid = 'contact_set_sid'::regclass");
    EXPECT_EQ(alarm("invalid_indexes"), "alarm|1|public.contact_set_sid\n");

    sql("INSERT INTO conf_state VALUES ('4711', 'IN USE', 5), ('4712', 'IDLE', 5),"
        " ('4713', 'IN USE', floor(extract(epoch FROM now())))");
    EXPECT_EQ(alarm("extensions_in_use"), "alarm|1|4711\n");

    sql("UPDATE upkeep_run SET run_at = run_at - interval '601 seconds'");
    EXPECT_EQ(state("upkeep_missing"), "alarm");
    sql("UPDATE upkeep_run SET wal_position = '0/0'");
    allow("log_written", 0);
    EXPECT_EQ(state("log_written"), "alarm");
    allow("connections_used", 0);
    EXPECT_EQ(state("connections_used"), "alarm");
    allow("transaction_ids_used", -1);
    EXPECT_EQ(state("transaction_ids_used"), "alarm");
}

TEST_F(Upkeep, AlarmsAtRefreshesThatLeaveTheirPage)
{
    sql("INSERT INTO contact_set (csid) VALUES (12);"
        "INSERT INTO contact (csid, address) SELECT 12, n FROM generate_series(1, 10000) n");
    sql("VACUUM ANALYZE contact");
    done();
    sql("UPDATE contact SET expires = 1 WHERE contact_id % 10 = 0");
    sql("SELECT pg_stat_force_next_flush()");
    EXPECT_EQ(state("refreshes_moved"), "ok");
    EXPECT_EQ(state("dead_rows"), "ok");
    sql("DELETE FROM upkeep_run");
    done();
    ASSERT_EQ(ask("BEGIN ISOLATION LEVEL REPEATABLE READ; SELECT FROM contact"), "okay");
    for (int refresh = 2; refresh < 5; ++refresh) {
        sql("UPDATE contact SET expires = " + std::to_string(refresh));
    }
    sql("SELECT pg_stat_force_next_flush()");
    EXPECT_EQ(state("refreshes_moved"), "alarm");
    EXPECT_EQ(state("dead_rows"), "alarm");
    ASSERT_EQ(ask("ROLLBACK"), "okay");
}

TEST_F(Upkeep, TakesTheRowsThatItHasTrimmedForNoAlarm)
{
    sql("ALTER TABLE event_change SET (autovacuum_enabled = off)"); // the next minute
    sql("INSERT INTO acp SELECT n FROM generate_series(1, 15000) n");
    sql("UPDATE event_stamp SET evt_timestamp = 1");
    done();
    sql("SELECT pg_stat_force_next_flush()");
    ASSERT_EQ(rows("SELECT n_dead_tup FROM pg_stat_user_tables WHERE relname = 'event_change'"), "15000\n");
    EXPECT_EQ(state("dead_rows"), "ok");
}

TEST_F(Upkeep, DoesNotTakeForGoodWhatItCannotSee)
{
    done();
    sql("BEGIN; REVOKE pg_read_all_stats FROM oryx_owner");
    EXPECT_EQ(rows("SELECT alarm FROM oryx_alarms() WHERE state = 'unknown'"),
              "horizon_held_back\nidle_transaction\noldest_transaction\nreplication_lag\n");
    sql("ROLLBACK");
}

// The archive -------------------------------------------------------------------------------------------------------

/// What the archiver tells is the test's, as are the runs, soon after the server's start.
class Archive : public Upkeep {
protected:
    static std::string at(int milliseconds)
    {
        return "pg_postmaster_start_time() + interval '" + std::to_string(milliseconds) + " milliseconds'";
    }

    /// The last file archived, and when; or none since statistics were lost.
    void archived(const std::string& file, int milliseconds) { tells("'" + file + "'", at(milliseconds), at(0)); }
    void lost(int milliseconds) { tells("NULL", "NULL::timestamptz", at(milliseconds)); }
    /// The last file that could not be archived, and when.
    void failed(const std::string& file, int milliseconds)
    {
        m_failed = "'" + file + "'::text AS last_failed_wal, " + at(milliseconds);
    }

    void run(int milliseconds, int writing)
    {
        sql("INSERT INTO upkeep_run (run_at, wal_position, refreshes, refreshes_in_place) SELECT " + at(milliseconds) +
            ", '0/0'::pg_lsn + " + std::to_string(writing) +
            " * setting::numeric, 0, 0 FROM pg_settings WHERE name = 'wal_segment_size'");
    }

    std::string waits() { return m_session.value("SELECT archiving_waits_for() > 0"); }

private:
    void tells(const std::string& file, const std::string& time, const std::string& since)
    {
        sql("CREATE OR REPLACE VIEW archiver AS SELECT " + file + "::text AS last_archived_wal, " + time +
            " AS last_archived_time, " + m_failed + " AS last_failed_time, " + since + " AS stats_reset");
    }

    std::string m_failed = "NULL::text AS last_failed_wal, NULL::timestamptz";
};

TEST_F(Archive, IsWaitedForFromTheNextFinishedFileOn)
{
    for (const std::string file : {"000000010000000000000028", "000000010000000000000028.partial"}) {
        sql("DELETE FROM upkeep_run");
        archived(file, 5);
        run(1, 40);
        run(10, 41);
        EXPECT_EQ(waits(), "f") << file;
        run(20, 42);
        EXPECT_EQ(waits(), "t") << file;
    }
}

TEST_F(Archive, IsNotWaitedForAfterABackupUntilAFileIsFinished)
{
    // Named after the file that the backup began in; three have been archived with it.
    for (const std::string file : {"000000010000000000000028.00000028.backup", "00000002.history"}) {
        sql("DELETE FROM upkeep_run");
        archived(file, 5);
        run(1, 40);
        run(10, 43);
        run(15, 43);
        EXPECT_EQ(waits(), "f") << file;
        run(20, 44);
        EXPECT_EQ(waits(), "t") << file;
    }
}

TEST_F(Archive, IsNotWaitedForAfterStatisticsWereLostUntilAFileIsFinished)
{
    lost(15);
    run(1, 40);
    run(10, 41);
    run(20, 42);
    EXPECT_EQ(waits(), "f");
    run(30, 43);
    EXPECT_EQ(waits(), "t");
}

TEST_F(Archive, IsWaitedForFromAFailedFileOnThatWasFinishedBeforeTheServersStart)
{
    const std::string forTheFile = "000000010000000000000029";
    failed(forTheFile, 15);
    archived("000000010000000000000028", -5);
    run(20, 41);
    EXPECT_EQ(waits(), "f") << "it is being written";
    run(30, 42);
    EXPECT_EQ(waits(), "t");
    sql("DELETE FROM upkeep_run");
    run(20, 42);
    EXPECT_EQ(waits(), "t");
    failed(forTheFile, -1);
    archived("000000010000000000000028", -5);
    EXPECT_EQ(waits(), "f") << "before the last start: it may be none of those that are to be archived since";
    failed(forTheFile, 15);
    archived(forTheFile, 16);
    EXPECT_EQ(waits(), "f");
}

TEST_F(Archive, AlarmsWhereItFallsBehindTheLog)
{
    done();
    sql("CREATE OR REPLACE FUNCTION wal_position() RETURNS pg_lsn LANGUAGE sql RETURN '2/0'::pg_lsn");
    archived("000000010000000100000000", 5);
    EXPECT_EQ(state("archiving_behind"), "alarm"); // 4 GiB, but for one file
    archived(m_session.value("SELECT pg_walfile_name('2/0'::pg_lsn - 1)"), 5);
    EXPECT_EQ(state("archiving_behind"), "ok");
    archived("000000010000000100000000", -5); // before the last start: nothing may have been to be archived since
    EXPECT_EQ(state("archiving_behind"), "ok");
    archived("000000010000000000000028.00000028.backup", 5);
    EXPECT_EQ(state("archiving_behind"), "ok");
}

// A database whose upkeep trims first ------------------------------------------------------------------------------

class OlderUpkeep : public MigrationTest {
protected:
    OlderUpkeep() : MigrationTest("260") {}

    std::string limit(const std::string& alarm)
    {
        return m_session->value("SELECT allowed FROM alarm_limit WHERE alarm = '" + alarm + "'");
    }
};

TEST_F(OlderUpkeep, IsReplacedWhileTheLogIsWrittenAndRead)
{
    leaveOut("310");
    m_session->run("INSERT INTO acp VALUES ('logged')");
    server::Session writer(m_name);
    writer.run("BEGIN; INSERT INTO acp VALUES ('open'); SET CONSTRAINTS ALL IMMEDIATE");
    server::Session reader(m_name);
    reader.run("BEGIN; SELECT FROM event_notify, contact, alarm_limit");
    EXPECT_EQ(apply("--attempts=1"), 0) << told();
    writer.run("COMMIT");
    reader.run("COMMIT");
    EXPECT_EQ(m_session->rows("SELECT pk_char FROM event_notify ORDER BY evt_timestamp"), "logged\nopen\n");
    EXPECT_EQ(limit("oldest_transaction"), "600");
    EXPECT_EQ(limit("idle_transaction"), "120");
}

/// With its change log's triggers as they were for all tables.
class OlderTriggers : public MigrationTest {
protected:
    OlderTriggers() : MigrationTest("310") {}
};

TEST_F(OlderTriggers, IsReplacedWhileTheLoggedTablesAreRead)
{
    m_session->run("INSERT INTO acp VALUES ('before')");
    server::Session reader(m_name);
    reader.run(
        "BEGIN; SELECT FROM acp, extension, conf_state, conf_state_reset, public_address, subscriber, contact_set,"
        " sip_event_aggregator, event_notify");
    EXPECT_EQ(apply("--attempts=1"), 0) << told();
    reader.run("COMMIT");
    m_session->run("INSERT INTO acp VALUES ('after')");
    EXPECT_EQ(m_session->rows("SELECT pk_char FROM event_notify ORDER BY evt_timestamp"), "before\nafter\n");
}

TEST_F(OlderUpkeep, LeavesAnOperatorHisLimit)
{
    m_session->run("UPDATE alarm_limit SET allowed = 300 WHERE alarm = 'oldest_transaction'");
    EXPECT_EQ(apply(), 0) << told();
    EXPECT_EQ(limit("oldest_transaction"), "300");
}

} // namespace

} // namespace upkeepTest
