#include "support/MigrationTest.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <regex>
#include <stdexcept>
#include <string>
#include <thread>

namespace migrationsTest {

namespace {

using Clock = std::chrono::steady_clock;

/// A database as the first release left it, with what the test adds behind it.
class Migrations : public MigrationTest {
protected:
    Migrations() : MigrationTest("150") {}

    /// Its copy of the folder ends there, so that the test's own migrations are the next ones.
    void SetUp() override
    {
        const std::string folder = "'" + m_folder.file("schema") + "'";
        ASSERT_EQ(run("rm -f " + folder + "/1[5-9]*.sql " + folder + "/[2-8]*.sql"), 0);
    }

    /// What a run that is to fail says first, without the place in the file.
    std::string refusal(const std::string& options = "") const
    {
        EXPECT_NE(apply(options), 0);
        const std::string said = m_folder.read("err");
        const std::string line = said.substr(0, said.find('\n'));
        const std::size_t error = line.find("ERROR:");
        return error == std::string::npos ? line : line.substr(error);
    }
};

/// A lookup as it comes at each request, until it is over; the longest that one took.
std::chrono::milliseconds longestLookup(const std::string& database, const std::future<int>& over)
{
    server::Session session(database);
    Clock::duration longest{};
    do {
        const Clock::time_point before = Clock::now();
        session.run("SELECT contact.address FROM public_address, contact_set, contact, subscriber WHERE"
                    " (public_address.id = 1 AND contact_set.csid = public_address.csid AND"
                    " contact.csid = contact_set.csid AND contact_set.sid = subscriber.sid)");
        longest = std::max(longest, Clock::now() - before);
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    } while (over.wait_for(std::chrono::seconds(0)) == std::future_status::timeout);
    return std::chrono::duration_cast<std::chrono::milliseconds>(longest);
}

TEST_F(Migrations, AreListedWithHowTheyStand)
{
    EXPECT_EQ(apply("--status"), 0);
    addMigration("900_last", "SELECT 1;");

    EXPECT_EQ(apply("--status"), 1);

    const std::string status = told();
    const std::string line = "140_late_changes                 applied 20";
    EXPECT_NE(status.find(line), std::string::npos) << status;
    EXPECT_NE(status.find("900_last                         pending\n"), std::string::npos) << status;
    EXPECT_EQ(applied("150"), "");
}

TEST_F(Migrations, AreListedWhereThereIsNoTableOfThem)
{
    m_session->run("DROP TABLE schema_migration");

    EXPECT_EQ(apply("--status"), 1);

    EXPECT_EQ(told().find("010_foundation                   pending\n"), 0U) << told();
    EXPECT_EQ(m_session->rows("SELECT to_regclass('schema_migration')"), "NULL\n");
}

TEST_F(Migrations, AreToldBeforehand)
{
    addMigration("900_one", "SELECT 1;");
    addMigration("901_two", "CREATE TABLE made ();");

    EXPECT_EQ(apply("--dry-run"), 0);

    EXPECT_EQ(told(), "would apply 900_one\nwould apply 901_two\n");
    EXPECT_EQ(applied("150"), "");
    EXPECT_EQ(m_session->rows("SELECT to_regclass('made')"), "NULL\n");
}

TEST_F(Migrations, AreRefusedIfTheFolderIsOlderThanTheDatabase)
{
    m_session->run("INSERT INTO schema_migration (number, name, checksum) VALUES (950, '950_later', '')");
    addMigration("960_latest", "SELECT 1;");

    EXPECT_EQ(refusal(), "ERROR:  the database has migration 950_later, which this folder has not");

    EXPECT_EQ(applied("150"), "950_later\n");
    EXPECT_EQ(apply("--dry-run"), 3);
    EXPECT_EQ(told(), "schema/apply: the database has migration 950_later, which this folder has not."
                      " Use the release that applied it, or a later one.\n");
}

TEST_F(Migrations, AreRefusedBelowAppliedOnes)
{
    addMigration("910_later", "SELECT 1;");
    ASSERT_EQ(apply(), 0) << told();
    addMigration("900_between", "SELECT 1;");

    EXPECT_EQ(refusal(), "ERROR:  migration 900_between is not applied, and later ones are");

    EXPECT_EQ(applied("150"), "910_later\n");
}

TEST_F(Migrations, AreRefusedIfChangedSince)
{
    addMigration("900_one", "SELECT 1;");
    ASSERT_EQ(apply(), 0) << told();
    addMigration("900_one", "SELECT 2;");
    addMigration("910_two", "SELECT 1;");

    EXPECT_EQ(refusal(), "ERROR:  migration 900_one has been changed since it was applied");

    EXPECT_EQ(applied("150"), "900_one\n");
    EXPECT_EQ(apply("--status"), 1);
    EXPECT_NE(told().find("900_one                          changed"), std::string::npos) << told();
}

TEST_F(Migrations, AreRefusedIfTheyEndTheirTransaction)
{
    addMigration("900_fine", "CREATE TABLE made ();");
    for (const std::string statement : {"COMMIT", "Rollback", "BEGIN", "START TRANSACTION", "end", "ABORT",
                                        "SAVEPOINT a", "PREPARE TRANSACTION 'a'"}) {
        addMigration("910_own",
                     "SELECT 'a''b;', E'\\';', \"oid\" FROM pg_class; -- '\n/* ' */ " + statement + ";\nSELECT 1;");
        const std::string word = statement == "end"        ? "END"
                                 : statement == "Rollback" ? "ROLLBACK"
                                                           : statement.substr(0, statement.find(' '));
        EXPECT_EQ(refusal(),
                  "schema/apply: migration 910_own has a statement " + word + ": the transaction is not its own");
    }
    EXPECT_EQ(applied("150"), "");
    EXPECT_EQ(m_session->rows("SELECT to_regclass('made')"), "NULL\n");

    addMigration("910_own", "-- COMMIT;\n/* ; COMMIT; */ SELECT '; COMMIT;', E'\\'; COMMIT;', $$; COMMIT; $$,"
                            " $a$; COMMIT; $$ ; COMMIT; $a$;\nDO $do$ BEGIN PERFORM 1; END; $do$;\n"
                            "PREPARE transactions AS SELECT 1;\nCREATE TABLE \"; COMMIT;\" (commit text);\n");
    EXPECT_EQ(apply(), 0) << told();
    EXPECT_EQ(applied("150"), "900_fine\n910_own\n");
}

TEST_F(Migrations, LeaveNothingBehindIfTheyFail)
{
    addMigration("900_fine", "CREATE TABLE made ();");
    addMigration("910_broken", "CREATE TABLE also_made ();\nSELECT 1/0;");

    EXPECT_EQ(refusal(), "ERROR:  division by zero");

    EXPECT_EQ(applied("150"), "900_fine\n");
    EXPECT_EQ(m_session->rows("SELECT to_regclass('also_made')"), "NULL\n");
}

TEST_F(Migrations, AreAppliedOnceByRunsAtOnce)
{
    addMigration("900_slow", "CREATE TABLE made (); DO $$ BEGIN PERFORM pg_sleep(1); END $$;");

    const std::string other = makeEmpty();
    const std::string first = "'" + m_folder.file("schema") + "/apply' " + other;
    EXPECT_EQ(run(first + " & first=$!; " + first + "; second=$?; wait $first && [ $second = 0 ]"), 0) << told();

    const std::string all = told();
    EXPECT_EQ(std::count(all.begin(), all.end(), '\n'), 16) << all;
    EXPECT_EQ(server::Session(other).rows("SELECT count(*), count(DISTINCT number) FROM schema_migration"), "16|16\n");
}

TEST_F(Migrations, WaitForNoLockThatAnybodyCanTake)
{
    addMigration("900_one", "SELECT 1;");
    server::Session reader(m_name);
    reader.run("SET ROLE oryx_reader; BEGIN; SELECT pg_advisory_lock(4216580301)");
    reader.run("LOCK TABLE schema_migration IN ACCESS SHARE MODE");
    for (const std::string mode : {"SHARE UPDATE EXCLUSIVE", "EXCLUSIVE", "ACCESS EXCLUSIVE"}) {
        EXPECT_THROW(reader.run("SAVEPOINT lock; LOCK TABLE schema_migration IN " + mode + " MODE"),
                     std::runtime_error);
        reader.run("ROLLBACK TO lock");
    }

    EXPECT_EQ(run("timeout 20 " + applyCommand()), 0) << told();

    EXPECT_EQ(applied("150"), "900_one\n");
}

TEST_F(Migrations, KeepNoCallWaitingBehindAReader)
{
    addMigration("900_hot", "SET LOCAL ROLE oryx_owner; ALTER TABLE contact ADD CHECK (true) NOT VALID;"
                            " ALTER TABLE public_address ADD CHECK (true) NOT VALID; RESET ROLE;");
    server::Session reader(m_name);
    reader.run("BEGIN; SELECT FROM contact, public_address LIMIT 1");

    const std::future<int> over = std::async(std::launch::async, [this] { return apply(); });
    std::future<std::chrono::milliseconds> longest =
        std::async(std::launch::async, [&] { return longestLookup(m_name, over); });
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));
    EXPECT_EQ(applied("150"), "");
    reader.run("COMMIT");

    over.wait();
    EXPECT_EQ(told(), "applied 900_hot\n");
    EXPECT_LT(longest.get(), std::chrono::milliseconds(1000));
}

TEST_F(Migrations, AreGivenUpIfALockIsNotToBeHad)
{
    addMigration("900_fine", "DO $$ BEGIN RAISE WARNING 'looked at'; END $$;");
    addMigration("910_hot", "CREATE TABLE made (); ALTER TABLE contact ADD CHECK (true) NOT VALID;");
    server::Session reader(m_name);
    reader.run("SET application_name = 'report'; BEGIN; SELECT FROM contact LIMIT 1");

    EXPECT_EQ(apply("--attempts=3 --lock-timeout=50"), 3);

    EXPECT_EQ(applied("150"), "900_fine\n");
    EXPECT_EQ(m_session->rows("SELECT to_regclass('made')"), "NULL\n");
    const std::string said = told();
    EXPECT_NE(said.find("WARNING:  looked at\n"), std::string::npos) << said;
    EXPECT_NE(said.find("ERROR:  canceling statement due to lock timeout\n"), std::string::npos) << said;
    EXPECT_EQ(said.find("55P03"), std::string::npos) << said;
    EXPECT_EQ(said.find("LOCATION"), std::string::npos) << said;
    EXPECT_NE(said.find("given up after 3 attempts"), std::string::npos) << said;
    EXPECT_NE(said.find("|report|idle in transaction|since "), std::string::npos) << said;
}

TEST_F(Migrations, BuildIndexesBesideTheCalls)
{
    addMigration("900_index", "-- outside a transaction\n"
                              "SET ROLE oryx_owner;\n"
                              "CREATE INDEX CONCURRENTLY IF NOT EXISTS further ON contact (call_id);\n");
    addMigration("910_next", "CREATE TABLE made ();");

    EXPECT_EQ(apply(), 0);

    EXPECT_EQ(told(), "applied 900_index\napplied 910_next\n");
    EXPECT_EQ(m_session->rows("SELECT indisvalid FROM pg_index WHERE indexrelid = 'further'::regclass"), "t\n");
}

TEST_F(Migrations, AreOneAtATimeOutsideTransactionsToo)
{
    addMigration("900_index", "-- outside a transaction\n"
                              "CREATE INDEX CONCURRENTLY further ON contact (call_id);\n");
    server::Session writer(m_name);
    writer.run("BEGIN; INSERT INTO contact_set (csid) VALUES (1); INSERT INTO contact (csid, address) VALUES (1, 'a')");
    const std::string once = applyCommand() + " & first=$!; ";
    std::future<int> over = std::async(
        std::launch::async, [&] { return run(once + applyCommand() + "; second=$?; wait $first && [ $second = 0 ]"); });
    // The one builds, waiting for the writer; the other waits for its lock.
    while (m_session->value("SELECT count(*) FROM pg_stat_activity WHERE datname = current_database() AND"
                            " wait_event_type = 'Lock'") != "2") {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    writer.run("COMMIT");

    EXPECT_EQ(over.get(), 0);
    EXPECT_EQ(told(), "applied 900_index\n");
}

TEST_F(Migrations, AreRepeatedIfTheyHaveStoppedHalfWay)
{
    const std::string index = "-- outside a transaction\n"
                              "SELECT 'DROP INDEX CONCURRENTLY further' FROM pg_index"
                              " WHERE indexrelid = to_regclass('further') AND NOT indisvalid \\gexec\n"
                              "CREATE UNIQUE INDEX CONCURRENTLY IF NOT EXISTS further ON contact (call_id);\n";
    addMigration("900_index", index);
    m_session->run("INSERT INTO contact_set (csid) VALUES (1);"
                   " INSERT INTO contact (csid, address, call_id) VALUES (1, 'a', 'same'), (1, 'b', 'same')");

    EXPECT_NE(apply(), 0);
    EXPECT_NE(told().find("could not create unique index"), std::string::npos) << told();
    EXPECT_NE(told().find("ERROR:  the migration has stopped half-way\n"), std::string::npos) << told();
    EXPECT_EQ(applied("150"), "");

    m_session->run("DELETE FROM contact WHERE address = 'b'");
    EXPECT_EQ(apply(), 0) << told();
    EXPECT_EQ(applied("150"), "900_index\n");
    EXPECT_EQ(m_session->rows("SELECT indisvalid FROM pg_index WHERE indexrelid = 'further'::regclass"), "t\n");
}

// What differs -----------------------------------------------------------------------------------------------------

/// A database with the whole schema.
class SchemaCheck : public MigrationTest {
protected:
    /// What is found there; ends in the exit status.
    std::string check(const std::string& database) const
    {
        const int status = run("'" + m_folder.file("schema") + "/apply' --check " + database);
        return told() + std::to_string(status);
    }

    /// What is found after statements that a superuser runs there.
    std::string checkAfter(const std::string& statements) const
    {
        m_session->run(statements);
        return check(m_name);
    }

    /// Has the findings run as a script, as superuser.
    void mend(const std::string& database) const
    {
        EXPECT_EQ(run("'" + m_folder.file("schema") + "/apply' --check " + database +
                      " | psql -X -q -v ON_ERROR_STOP=1 " + database),
                  0)
            << told();
    }
};

TEST_F(SchemaCheck, FindsNothingWhereTheSchemaHasJustBeenApplied)
{
    const std::string made = makeEmpty();
    ASSERT_EQ(run("'" + m_folder.file("schema") + "/apply' " + made), 0) << told();
    EXPECT_EQ(check(made), "0") << "after a change of the migrations: scripts/expect-schema";
}

TEST_F(SchemaCheck, LeavesOperatorsWhatIsTheirs)
{
    EXPECT_EQ(
        checkAfter("CREATE TABLE report (); GRANT SELECT ON contact TO pg_monitor;"
                   " CREATE INDEX ON contact (expires); CREATE FUNCTION mine() RETURNS int LANGUAGE sql AS 'SELECT 1'"),
        "0");
}

TEST_F(SchemaCheck, TellsWhatAPlainRestoreLoses)
{
    const std::string restored = restore();

    EXPECT_EQ(check(restored),
              std::regex_replace(std::string(R"(-- grant CONNECT ON DATABASE @ TO PUBLIC: not of the schema
REVOKE CONNECT ON DATABASE @ FROM PUBLIC;
-- grant CONNECT ON DATABASE @ TO oryx_owner: missing
GRANT CONNECT ON DATABASE @ TO oryx_owner;
-- grant CONNECT ON DATABASE @ TO oryx_presence: missing
GRANT CONNECT ON DATABASE @ TO oryx_presence;
-- grant CONNECT ON DATABASE @ TO oryx_provisioning: missing
GRANT CONNECT ON DATABASE @ TO oryx_provisioning;
-- grant CONNECT ON DATABASE @ TO oryx_proxy: missing
GRANT CONNECT ON DATABASE @ TO oryx_proxy;
-- grant CONNECT ON DATABASE @ TO oryx_reader: missing
GRANT CONNECT ON DATABASE @ TO oryx_reader;
-- grant CONNECT ON DATABASE @ TO oryx_registrar: missing
GRANT CONNECT ON DATABASE @ TO oryx_registrar;
-- grant CONNECT ON DATABASE @ TO oryx_server: missing
GRANT CONNECT ON DATABASE @ TO oryx_server;
-- grant TEMPORARY ON DATABASE @ TO PUBLIC: not of the schema
REVOKE TEMPORARY ON DATABASE @ FROM PUBLIC;
-- setting DateStyle: missing
ALTER DATABASE @ SET DateStyle TO 'Postgres, MDY';
-- setting cpu_tuple_cost: missing
ALTER DATABASE @ SET cpu_tuple_cost TO '0.03';
-- setting enable_memoize: missing
ALTER DATABASE @ SET enable_memoize TO 'off';
-- setting enable_mergejoin: missing
ALTER DATABASE @ SET enable_mergejoin TO 'off';
-- setting idle_in_transaction_session_timeout: missing
ALTER DATABASE @ SET idle_in_transaction_session_timeout TO '1min';
-- setting random_page_cost: missing
ALTER DATABASE @ SET random_page_cost TO '1.1';
1)"),
                                 std::regex("@"), restored));
    mend(restored);
    EXPECT_EQ(check(restored), "0");
}

TEST_F(SchemaCheck, TellsWhatIsMissingOrChanged)
{
    EXPECT_EQ(checkAfter("DROP INDEX contact_set_sid"), R"(-- index public.contact_set_sid: missing
CREATE INDEX CONCURRENTLY contact_set_sid ON public.contact_set USING btree (sid);
1)");
    mend(m_name);
    EXPECT_EQ(
        checkAfter("ALTER TABLE contact DISABLE TRIGGER keep_newer"),
        "-- trigger keep_newer ON public.contact: changed\nALTER TABLE public.contact ENABLE TRIGGER keep_newer;\n1");
    mend(m_name);
    EXPECT_EQ(checkAfter("DROP TRIGGER announce_change ON acp"), R"(-- trigger announce_change ON public.acp: missing
CREATE TRIGGER announce_change AFTER INSERT OR DELETE OR UPDATE OR TRUNCATE ON public.acp FOR EACH STATEMENT EXECUTE FUNCTION public.announce_change();
1)");
    mend(m_name);
    EXPECT_EQ(checkAfter("ALTER TABLE contact DROP CONSTRAINT contact_csid_address_key"),
              "-- constraint contact_csid_address_key ON public.contact: missing\n"
              "ALTER TABLE public.contact ADD CONSTRAINT contact_csid_address_key UNIQUE (csid, address);\n1");
    mend(m_name);
    EXPECT_EQ(checkAfter("ALTER TABLE conf_state ADD further text"),
              "-- column public.conf_state.further: not of the schema\n1");
    m_session->run("ALTER TABLE conf_state DROP further");
    EXPECT_EQ(checkAfter("CREATE OR REPLACE FUNCTION change_nothing() RETURNS trigger LANGUAGE plpgsql AS"
                         " 'BEGIN RETURN NEW; END'"),
              "-- function public.change_nothing(): changed;"
              " the last of: grep -lw change_nothing schema/[0-9]*.sql\n1");
}

TEST_F(SchemaCheck, TellsWhoMayMoreOrLess)
{
    EXPECT_EQ(checkAfter("GRANT SELECT ON subscriber TO oryx_reader"),
              "-- grant SELECT ON TABLE public.subscriber TO oryx_reader: not of the schema\n"
              "REVOKE SELECT ON TABLE public.subscriber FROM oryx_reader;\n"
              "GRANT SELECT (active) ON TABLE public.subscriber TO oryx_reader;\n"
              "GRANT SELECT (auth_type) ON TABLE public.subscriber TO oryx_reader;\n"
              "GRANT SELECT (auth_user_id) ON TABLE public.subscriber TO oryx_reader;\n"
              "GRANT SELECT (oid) ON TABLE public.subscriber TO oryx_reader;\n"
              "GRANT SELECT (s_type) ON TABLE public.subscriber TO oryx_reader;\n"
              "GRANT SELECT (sid) ON TABLE public.subscriber TO oryx_reader;\n"
              "GRANT SELECT (user_id) ON TABLE public.subscriber TO oryx_reader;\n1");
    mend(m_name);
    EXPECT_EQ(checkAfter("GRANT SELECT (s_password) ON subscriber TO oryx_reader"),
              "-- grant SELECT (s_password) ON TABLE public.subscriber TO oryx_reader: not of the schema\n"
              "REVOKE SELECT (s_password) ON TABLE public.subscriber FROM oryx_reader;\n1");
    mend(m_name);
    EXPECT_EQ(checkAfter("GRANT EXECUTE ON FUNCTION remove_subscriber(integer) TO PUBLIC"),
              "-- grant EXECUTE ON FUNCTION public.remove_subscriber(integer) TO PUBLIC: not of the schema\n"
              "REVOKE EXECUTE ON FUNCTION public.remove_subscriber(integer) FROM PUBLIC;\n1");
    mend(m_name);
    EXPECT_EQ(checkAfter("REVOKE UPDATE ON contact FROM oryx_server"),
              "-- grant UPDATE ON TABLE public.contact TO oryx_server: missing\n"
              "GRANT UPDATE ON TABLE public.contact TO oryx_server;\n1");
    mend(m_name);
    EXPECT_EQ(checkAfter("ALTER TABLE contact OWNER TO postgres"),
              "-- owner TABLE public.contact: changed\n"
              "ALTER TABLE public.contact OWNER TO oryx_owner;\n1");
    mend(m_name);
    // Nothing that other tests, which share the roles, could notice.
    EXPECT_EQ(
        checkAfter("ALTER ROLE oryx_reader LOGIN; GRANT pg_checkpoint TO oryx_reader"),
        "-- role oryx_reader: changed\n"
        "ALTER ROLE oryx_reader NOLOGIN NOSUPERUSER NOCREATEDB NOCREATEROLE NOREPLICATION NOBYPASSRLS;\n"
        "-- membership pg_checkpoint TO oryx_reader: not of the schema\nREVOKE pg_checkpoint FROM oryx_reader;\n1");
    mend(m_name);
    EXPECT_EQ(check(m_name), "0");
}

TEST_F(SchemaCheck, TellsWhichOfTheServersFunctionsAreOpenWhateverTheirArguments)
{
    EXPECT_EQ(
        checkAfter(
            "GRANT EXECUTE ON FUNCTION pg_logical_emit_message(boolean, text, bytea), lo_creat(integer) TO PUBLIC"),
        "-- kept from PUBLIC lo_creat: missing\n"
        "REVOKE EXECUTE ON FUNCTION lo_creat(integer) FROM PUBLIC;\n"
        "-- kept from PUBLIC pg_logical_emit_message: missing\n"
        "REVOKE EXECUTE ON FUNCTION pg_logical_emit_message(boolean,text,text),"
        " pg_logical_emit_message(boolean,text,bytea) FROM PUBLIC;\n1");
    mend(m_name);
    // As from PostgreSQL 17 on.
    EXPECT_EQ(
        checkAfter("CREATE FUNCTION pg_catalog.pg_logical_emit_message(boolean, text, text, boolean) RETURNS pg_lsn"
                   " LANGUAGE sql AS 'SELECT NULL::pg_lsn'"),
        "-- kept from PUBLIC pg_logical_emit_message: missing\n"
        "REVOKE EXECUTE ON FUNCTION pg_logical_emit_message(boolean,text,text),"
        " pg_logical_emit_message(boolean,text,bytea),"
        " pg_logical_emit_message(boolean,text,text,boolean) FROM PUBLIC;\n1");
    mend(m_name);
    EXPECT_EQ(check(m_name), "0");
}

TEST_F(SchemaCheck, TellsSettings)
{
    m_session->run("ALTER DATABASE " + m_name + " RESET DateStyle");
    EXPECT_EQ(checkAfter("ALTER DATABASE " + m_name + " SET enable_memoize TO on"),
              "-- setting DateStyle: missing\nALTER DATABASE " + m_name +
                  " SET DateStyle TO 'Postgres, MDY';\n-- setting enable_memoize: changed\nALTER DATABASE " + m_name +
                  " SET enable_memoize TO 'off';\n1");
    mend(m_name);
    EXPECT_EQ(check(m_name), "0");
}

TEST_F(SchemaCheck, IsTheReadersToo)
{
    EXPECT_EQ(run("PGOPTIONS='-c role=oryx_reader' " + applyCommand("--check")), 0) << told();
    EXPECT_EQ(run("PGOPTIONS='-c role=oryx_reader' " + applyCommand("--status")), 0) << told();
    EXPECT_EQ(run("PGOPTIONS='-c role=oryx_reader' " + applyCommand("--dry-run")), 0) << told();
}

TEST_F(SchemaCheck, TellsMigrationsToo)
{
    addMigration("999_last", "SELECT 1;");
    EXPECT_EQ(check(m_name), "-- migration 999_last is pending: schema/apply --dry-run says more\n1");
}

} // namespace

} // namespace migrationsTest
