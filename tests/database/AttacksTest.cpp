// What a login can do to others beside its own work: what is kept from it, and what is not, with its remedy
// (docs/schema.md). What it can do with tables, columns and functions is in RolesTest.cpp.

#include "support/DatabaseTest.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace attacksTest {

namespace {

constexpr std::chrono::seconds kPatience(20);

/// Every login role of the tests.
std::vector<std::string> allLogins()
{
    std::vector<std::string> logins{server::kUser};
    for (const char* const group : server::kGroups) {
        logins.push_back(server::loginOf(group));
    }
    return logins;
}

/// A telephone that registers for the first time.
const std::string kRegistration = "SELECT register_bindings(NULL, 'alice', 'oryx.example', 'call', 1, '', 0, false,"
                                  " ARRAY[['sip:alice@192.0.2.7', '3600', '', '', '', '']])";

class Attacks : public DatabaseTest {
protected:
    void SetUp() override { provisionAlice(); }

    /// "okay", or the first line of the refusal.
    static std::string tried(server::Session& session, const std::string& statements)
    {
        const std::string whole = told(session, statements);
        return whole.substr(0, whole.find('\n'));
    }
    /// "okay", or all that the server says to the refusal.
    static std::string told(server::Session& session, const std::string& statements)
    {
        try {
            session.run(statements);
        } catch (const std::runtime_error& failure) {
            return failure.what();
        }
        return "okay";
    }

    /// Whether a query comes to that answer.
    bool comesTo(const std::string& query, const std::string& answer)
    {
        const auto end = std::chrono::steady_clock::now() + kPatience;
        while (m_session.value(query) != answer) {
            if (std::chrono::steady_clock::now() > end) {
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return true;
    }

    /// What deploy/upkeep/role.sql grants, and nothing else.
    void grantTheUpkeep(const std::string& login)
    {
        sql("GRANT CONNECT ON DATABASE " + m_database.name() + " TO " + login + "; GRANT USAGE ON SCHEMA public TO " +
            login + "; GRANT EXECUTE ON FUNCTION oryx_upkeep(interval, interval, interval), oryx_alarms() TO " + login);
    }

    server::Session as(const std::string& group) const
    {
        return server::Session(m_database.name(), server::loginOf(group));
    }
};

/// A login role of the test's own, whose settings no other test meets.
class OwnLogin {
public:
    explicit OwnLogin(server::Session& superuser, const std::string& group = "")
        : m_superuser(superuser), m_name("oryx_attacked_" + std::to_string(::getpid()))
    {
        m_superuser.run("DROP ROLE IF EXISTS " + m_name + "; CREATE ROLE " + m_name + " LOGIN PASSWORD '" +
                        server::kPasswordKept + "'" + (group.empty() ? "" : " IN ROLE " + group));
    }
    ~OwnLogin() { m_superuser.run("DROP OWNED BY " + m_name + "; DROP ROLE " + m_name); }
    OwnLogin(const OwnLogin&) = delete;
    OwnLogin& operator=(const OwnLogin&) = delete;

    const std::string& name() const { return m_name; }

private:
    server::Session& m_superuser;
    std::string m_name;
};

// Kept from everybody ----------------------------------------------------------------------------------------------

TEST_F(Attacks, NoLoginReachesBeyondTheTables)
{
    const std::string function = "ERROR:  permission denied for function ";
    const std::string database = "ERROR:  permission denied for database " + m_database.name();
    const std::string file = "ERROR:  must be superuser or have privileges of the ";
    const struct {
        std::string statement;
        std::string refusal;
    } kAttacks[]{
        // what all sessions of the server share
        {"SELECT pg_advisory_lock(4216580301)", function + "pg_advisory_lock"},
        {"SELECT pg_advisory_xact_lock_shared(1, 2)", function + "pg_advisory_xact_lock_shared"},
        {"SELECT pg_try_advisory_lock(1)", function + "pg_try_advisory_lock"},
        {"SELECT lo_create(0)", function + "lo_create"},
        {"SELECT lo_from_bytea(0, 'x')", function + "lo_from_bytea"},
        {"SELECT lo_import('/etc/passwd')", function + "lo_import"},
        {"SELECT pg_logical_emit_message(false, 'x', 'y')", function + "pg_logical_emit_message"},
        {"CREATE TEMPORARY TABLE mine ()",
         "ERROR:  permission denied to create temporary tables in database \"" + m_database.name() + "\""},
        {"SELECT pg_create_physical_replication_slot('mine')",
         "ERROR:  must be superuser or replication role to use replication slots"},
        // the schema
        {"CREATE TABLE mine ()", "ERROR:  permission denied for schema public"},
        {"CREATE FUNCTION mine() RETURNS integer LANGUAGE sql AS 'SELECT 1'",
         "ERROR:  permission denied for schema public"},
        {"CREATE SCHEMA mine", database},
        {"CREATE EXTENSION hstore", "ERROR:  permission denied to create extension \"hstore\""},
        {"CREATE EXTENSION dblink", "ERROR:  permission denied to create extension \"dblink\""},
        {"CREATE PUBLICATION mine", database},
        {"DROP TABLE contact", "ERROR:  must be owner of table contact"},
        {"ALTER TABLE contact DISABLE TRIGGER USER", "ERROR:  must be owner of table contact"},
        {"ALTER DATABASE " + m_database.name() + " SET search_path = ''",
         "ERROR:  must be owner of database " + m_database.name()},
        // roles and settings
        {"CREATE ROLE mine", "ERROR:  permission denied to create role"},
        {"SET ROLE oryx_owner", "ERROR:  permission denied to set role \"oryx_owner\""},
        {"SET session_replication_role = replica",
         "ERROR:  permission denied to set parameter \"session_replication_role\""},
        {"SET temp_file_limit = -1", "ERROR:  permission denied to set parameter \"temp_file_limit\""},
        {"ALTER SYSTEM SET work_mem = '1GB'", "ERROR:  permission denied to set parameter \"work_mem\""},
        {"SELECT pg_reload_conf()", function + "pg_reload_conf"},
        // the server's files and programs
        {"COPY (SELECT 1) TO PROGRAM 'true'",
         file + "pg_execute_server_program role to COPY to or from an external program"},
        {"COPY (SELECT 1) TO '/tmp/mine'", file + "pg_write_server_files role to COPY to a file"},
        {"SELECT pg_read_file('PG_VERSION')", function + "pg_read_file"},
    };
    for (const std::string& login : allLogins()) {
        server::Session session(m_database.name(), login);
        for (const auto& attack : kAttacks) {
            EXPECT_EQ(tried(session, attack.statement), attack.refusal) << login << ": " << attack.statement;
        }
    }
}

TEST_F(Attacks, NoLoginEndsAnothersSession)
{
    const std::string member = "ERROR:  must be a member of the role whose ";
    for (const std::string& login : allLogins()) {
        server::Session session(m_database.name(), login);
        for (const std::string& other : allLogins()) {
            server::Session victim(m_database.name(), other);
            const std::string process = victim.value("SELECT pg_backend_pid()");
            if (other != login) {
                EXPECT_EQ(tried(session, "SELECT pg_terminate_backend(" + process + ")"),
                          member + "process is being terminated or member of pg_signal_backend");
                EXPECT_EQ(tried(session, "SELECT pg_cancel_backend(" + process + ")"),
                          member + "query is being canceled or member of pg_signal_backend");
            }
        }
        EXPECT_EQ(tried(session, "SELECT pg_terminate_backend(" + m_session.value("SELECT pg_backend_pid()") + ")"),
                  "ERROR:  must be a superuser to terminate superuser process");
    }
}

TEST_F(Attacks, WhoOnlyReadsLocksNoRowAndKeepsNobodyFromWriting)
{
    for (const std::string group : {"oryx_reader", "oryx_proxy", "oryx_operator"}) {
        server::Session reader = as(group);
        for (const std::string table : {"contact", "contact_set", "public_address"}) {
            const std::string denied = "ERROR:  permission denied for table " + table;
            for (const std::string strength : {"UPDATE", "NO KEY UPDATE", "SHARE", "KEY SHARE"}) {
                EXPECT_EQ(tried(reader, "SELECT 1 FROM " + table + " FOR " + strength), denied);
            }
            for (const std::string mode : {"ROW SHARE", "ROW EXCLUSIVE", "SHARE UPDATE EXCLUSIVE", "SHARE",
                                           "SHARE ROW EXCLUSIVE", "EXCLUSIVE", "ACCESS EXCLUSIVE"}) {
                EXPECT_EQ(tried(reader, "BEGIN; LOCK TABLE " + table + " IN " + mode + " MODE"), denied);
                reader.run("ROLLBACK");
            }
        }
        reader.run(
            "BEGIN ISOLATION LEVEL SERIALIZABLE; SELECT * FROM contact; LOCK TABLE contact IN ACCESS SHARE MODE");
        server::Session registrar = as("oryx_registrar");
        registrar.run("SET lock_timeout = '2s'");
        EXPECT_EQ(tried(registrar, "INSERT INTO contact (csid, address) VALUES (12, 'sip:" + group + "@192.0.2.1')"),
                  "okay");
    }
}

TEST_F(Attacks, ARegistrarsLocksKeepProvisioningFromNoSubscriber)
{
    server::Session registrar = as("oryx_registrar");
    for (const std::string table : {"contact_set", "public_address", "host_info"}) {
        EXPECT_EQ(tried(registrar, "SELECT 1 FROM " + table + " FOR KEY SHARE"),
                  "ERROR:  permission denied for table " + table);
        EXPECT_EQ(tried(registrar, "BEGIN; LOCK TABLE " + table + " IN SHARE MODE"),
                  "ERROR:  permission denied for table " + table);
        registrar.run("ROLLBACK");
    }
}

TEST_F(Attacks, WhatTheSweepIsLetLockChangesNothing)
{
    server::Session presence = as("oryx_presence");
    // The key is referred to, the address's number is computed; and a table cannot be locked for the right to a column.
    EXPECT_EQ(tried(presence, "UPDATE contact_set SET csid = 99"),
              "ERROR:  update or delete on table \"contact_set\" violates foreign key constraint "
              "\"public_address_csid_fkey\" on table \"public_address\"");
    EXPECT_EQ(tried(presence, "UPDATE public_address SET id = 99"),
              "ERROR:  column \"id\" can only be updated to DEFAULT");
    EXPECT_EQ(tried(presence, "UPDATE public_address SET csid = 99"),
              "ERROR:  permission denied for table public_address");
    EXPECT_EQ(tried(presence, "BEGIN; LOCK TABLE public_address IN SHARE MODE"),
              "ERROR:  permission denied for table public_address");
}

TEST_F(Attacks, NoLoginLocksTheTablesOfTurns)
{
    std::vector<std::string> logins = allLogins();
    OwnLogin upkeep(m_session);
    grantTheUpkeep(upkeep.name());
    logins.push_back(upkeep.name());
    for (const std::string& login : logins) {
        server::Session session(m_database.name(), login);
        for (const std::string table :
             {"event_turn", "registration_turn", "publication_turn", "upkeep_turn", "schema_migration"}) {
            for (const std::string mode : {"ROW SHARE", "ROW EXCLUSIVE", "SHARE UPDATE EXCLUSIVE", "SHARE",
                                           "SHARE ROW EXCLUSIVE", "EXCLUSIVE", "ACCESS EXCLUSIVE"}) {
                EXPECT_EQ(tried(session, "BEGIN; LOCK TABLE " + table + " IN " + mode + " MODE"),
                          "ERROR:  permission denied for table " + table)
                    << login << ": " << mode;
                session.run("ROLLBACK");
            }
            EXPECT_EQ(tried(session, "SELECT 1 FROM " + table + " FOR KEY SHARE"),
                      "ERROR:  permission denied for table " + table)
                << login;
        }
    }
}

TEST_F(Attacks, NoLoginTakesTheTurnsOfAnothersJob)
{
    const struct {
        std::string function;
        std::vector<std::string> takers;
    } kTurns[]{
        {"take_registration_turn", {server::kUser, server::loginOf("oryx_registrar")}},
        {"take_publication_turn", {server::kUser, server::loginOf("oryx_presence")}},
    };
    std::vector<std::string> logins = allLogins();
    OwnLogin upkeep(m_session);
    grantTheUpkeep(upkeep.name());
    logins.push_back(upkeep.name());
    for (const std::string& login : logins) {
        server::Session session(m_database.name(), login);
        for (const auto& [function, takers] : kTurns) {
            const bool takes = std::find(takers.begin(), takers.end(), login) != takers.end();
            EXPECT_EQ(tried(session, "SELECT " + function + "(n) FROM generate_series(0, 16383) n"),
                      takes ? "okay" : "ERROR:  permission denied for function " + function)
                << login;
        }
    }
}

TEST_F(Attacks, AnEventServersTurnsKeepNoTelephoneFromRegistering)
{
    server::Session presence = as("oryx_presence");
    presence.run("BEGIN; SELECT take_publication_turn(n) FROM generate_series(0, 16383) n");
    server::Session registrar = as("oryx_registrar");
    EXPECT_EQ(tried(registrar, "SET lock_timeout = '2s';" + kRegistration), "okay");
}

// Passwords --------------------------------------------------------------------------------------------------------

TEST_F(Attacks, WhoReadsNoPasswordFindsNoWayToOne)
{
    sql("ANALYZE subscriber");
    const std::string denied = "ERROR:  permission denied for table subscriber";
    for (const std::string group : {"oryx_reader", "oryx_proxy", "oryx_provisioning", "oryx_operator"}) {
        SCOPED_TRACE(group);
        server::Session session = as(group);
        for (
            const std::string statement :
            {"SELECT s_password FROM subscriber", "SELECT * FROM subscriber", "SELECT subscriber FROM subscriber",
             "SELECT sid FROM subscriber WHERE s_password = 'wonderland'", "COPY subscriber TO STDOUT",
             "SELECT to_jsonb(subscriber) FROM subscriber", "TABLE subscriber",
             "UPDATE subscriber SET user_id = s_password", "UPDATE subscriber SET user_id = 'x' RETURNING s_password",
             "INSERT INTO subscriber (user_id) VALUES ('x') RETURNING s_password",
             "INSERT INTO subscriber (sid) VALUES (7) ON CONFLICT (sid) DO UPDATE SET user_id = subscriber.s_password"}) {
            EXPECT_EQ(tried(session, statement), denied) << statement;
        }
        EXPECT_EQ(session.rows("SELECT * FROM pg_stats WHERE tablename = 'subscriber' AND attname = 's_password'"), "");
        // Nor does a refusal show the row that it is about.
        EXPECT_EQ(told(session, "UPDATE subscriber SET sid = -1 WHERE sid = 7").find("wonderland"), std::string::npos);
    }
    server::Session provisioning = as("oryx_provisioning");
    const std::string refusal = told(provisioning, "UPDATE subscriber SET sid = -1 WHERE sid = 7");
    EXPECT_NE(refusal.find("violates check constraint"), std::string::npos) << refusal;
    EXPECT_EQ(tried(provisioning, "UPDATE subscriber SET s_password = 'other' WHERE sid = 7"), "okay");
}

// Not prevented: what it comes to, and the remedy ------------------------------------------------------------------

TEST_F(Attacks, AReadersOpenTransactionKeepsTheSchemaFromChangingUntilItIsEnded)
{
    server::Session reader = as("oryx_reader");
    reader.run("SET idle_in_transaction_session_timeout = 0; BEGIN; SELECT 1 FROM contact");
    m_session.run("SET lock_timeout = '200ms'");
    EXPECT_EQ(tried(m_session, "ALTER TABLE contact ADD CHECK (csid > 0) NOT VALID"),
              "ERROR:  canceling statement due to lock timeout");
    EXPECT_EQ(tried(m_session, "SELECT pg_terminate_backend(pid, 5000) FROM pg_stat_activity WHERE usename = '" +
                                   server::loginOf("oryx_reader") +
                                   "' AND datname = current_database() AND state = 'idle in transaction'"),
              "okay");
    EXPECT_EQ(tried(m_session, "ALTER TABLE contact ADD CHECK (csid > 0) NOT VALID"), "okay");
}

TEST_F(Attacks, WhoHasChangesStampedBeforeItCommitsKeepsOthersFromItUntilTheUpkeepEndsIt)
{
    sql("INSERT INTO extension (extension) VALUES ('4711'); INSERT INTO conf_state VALUES ('4711', 'IDLE', 5)");
    OwnLogin upkeep(m_session);
    grantTheUpkeep(upkeep.name());
    server::Session keeper(m_database.name(), upkeep.name());
    for (const std::string group : {"oryx_presence", "oryx_provisioning"}) {
        SCOPED_TRACE(group);
        server::Session holder = as(group);
        const std::string process = holder.value("SELECT pg_backend_pid()");
        holder.run("SET idle_in_transaction_session_timeout = 0");
        holder.run("BEGIN; UPDATE conf_state SET start_time = 6; SET CONSTRAINTS ALL IMMEDIATE");
        server::Session provisioning = as("oryx_provisioning");
        const std::string change = "SET lock_timeout = '200ms'; UPDATE contact_set SET ordering = 'parallel'";
        EXPECT_EQ(tried(provisioning, change), "ERROR:  canceling statement due to lock timeout");
        server::Session registrar = as("oryx_registrar"); // what is not logged waits for nobody
        EXPECT_EQ(tried(registrar,
                        "SET lock_timeout = '200ms'; INSERT INTO contact (csid, address) VALUES (12, '" + group + "')"),
                  "okay");
        const std::string ended =
            keeper.rows("SELECT item, state FROM oryx_upkeep(idle_limit => '0') WHERE detail ~ 'session " + process +
                        " of " + server::loginOf(group) + " '");
        EXPECT_EQ(ended, "end_forgotten_transactions|done\n");
        EXPECT_EQ(tried(provisioning, change), "okay");
    }
}

TEST_F(Attacks, WhoGathersStatisticsWithItsChangesStampedIsCancelledByTheUpkeepToo)
{
    // For ANALYZE to take its time whatever it is told.
    sql("CREATE FUNCTION slow(text) RETURNS text IMMUTABLE LANGUAGE sql RETURN $1;"
        "CREATE INDEX ON public_address (slow(handle));"
        "CREATE OR REPLACE FUNCTION slow(text) RETURNS text IMMUTABLE LANGUAGE plpgsql"
        " AS 'BEGIN PERFORM pg_sleep(300); RETURN $1; END'");
    OwnLogin upkeep(m_session);
    grantTheUpkeep(upkeep.name());
    server::Session keeper(m_database.name(), upkeep.name());
    server::Session holder = as("oryx_provisioning");
    const std::string process = holder.value("SELECT pg_backend_pid()");
    holder.run("BEGIN; UPDATE contact_set SET ordering = 'serial'; SET CONSTRAINTS ALL IMMEDIATE");
    auto analysed = std::async(std::launch::async, [&holder] { return tried(holder, "SELECT analyze_provisioned()"); });
    EXPECT_TRUE(comesTo("SELECT count(*) FROM pg_stat_progress_analyze WHERE pid = " + process, "1"));

    server::Session provisioning = as("oryx_provisioning");
    const std::string change = "SET lock_timeout = '200ms'; UPDATE subscriber SET oid = 7";
    EXPECT_EQ(tried(provisioning, change), "ERROR:  canceling statement due to lock timeout");
    const std::string named = "detail ~ 'session " + process + " of " + server::loginOf("oryx_provisioning") + " '";
    EXPECT_EQ(keeper.rows("SELECT alarm FROM oryx_alarms() WHERE " + named), "horizon_held_back\noldest_transaction\n");
    EXPECT_EQ(keeper.rows("SELECT item, state FROM oryx_upkeep(running_limit => '0') WHERE " + named +
                          " AND item NOT IN (SELECT alarm FROM oryx_alarms())"),
              "end_forgotten_transactions|done\n");
    EXPECT_EQ(analysed.wait_for(kPatience), std::future_status::ready);
    sql("SELECT pg_terminate_backend(" + process + ", 5000)");
    EXPECT_EQ(analysed.get(), "ERROR:  canceling statement due to user request");
    EXPECT_EQ(tried(provisioning, change), "okay");
}

TEST_F(Attacks, WhoGathersStatisticsDoesNotHaveThemTakeTheirTime)
{
    sql("INSERT INTO contact (csid, address) SELECT 12, n FROM generate_series(1, 30000) n");
    server::Session provisioning = as("oryx_provisioning");
    provisioning.run("SET vacuum_cost_delay = 100; SET vacuum_cost_limit = 1; SET default_statistics_target = 1");
    EXPECT_EQ(tried(provisioning, "SET statement_timeout = '10s'; SELECT analyze_provisioned()"), "okay");
    EXPECT_EQ(
        rows(
            "SELECT array_length(most_common_vals::text::text[], 1) > 1 OR array_length(histogram_bounds::text::text[], 1) > 90"
            " FROM pg_stats WHERE tablename = 'contact' AND attname = 'address'"),
        "t\n");
}

TEST_F(Attacks, ARegistrarKeepsTelephonesFromRegisteringUntilTheUpkeepEndsIt)
{
    OwnLogin upkeep(m_session);
    grantTheUpkeep(upkeep.name());
    server::Session keeper(m_database.name(), upkeep.name());
    server::Session holder = as("oryx_registrar");
    holder.run("SET idle_in_transaction_session_timeout = 0");
    holder.run("BEGIN; SELECT take_registration_turn(n) FROM generate_series(0, 16383) n");
    server::Session registrar = as("oryx_registrar");
    EXPECT_EQ(tried(registrar, "SET lock_timeout = '200ms';" + kRegistration),
              "ERROR:  canceling statement due to lock timeout");
    keeper.run("SELECT FROM oryx_upkeep(idle_limit => '0')");
    EXPECT_EQ(tried(registrar, kRegistration), "okay");
}

TEST_F(Attacks, AnEventServerKeepsThemFromItByTheLocksOfItsSweepUntilTheUpkeepEndsIt)
{
    OwnLogin upkeep(m_session);
    grantTheUpkeep(upkeep.name());
    server::Session keeper(m_database.name(), upkeep.name());
    for (const std::string lock : {"LOCK TABLE contact", "SELECT FROM contact_set FOR UPDATE"}) {
        server::Session holder = as("oryx_presence");
        holder.run("SET idle_in_transaction_session_timeout = 0");
        holder.run("BEGIN; " + lock);
        server::Session registrar = as("oryx_registrar");
        EXPECT_EQ(tried(registrar, "SET lock_timeout = '200ms';" + kRegistration),
                  "ERROR:  canceling statement due to lock timeout")
            << lock;
        keeper.run("SELECT FROM oryx_upkeep(idle_limit => '0')");
        EXPECT_EQ(tried(registrar, kRegistration), "okay") << lock;
        sql("DELETE FROM contact");
    }
}

TEST_F(Attacks, AnybodyCanAnnounceAndFillTheQueueUntilTheOneWhoDoesNotReadIsEnded)
{
    server::Session deaf = as("oryx_reader");
    deaf.run("LISTEN mine");
    deaf.run("BEGIN; SELECT 1"); // and reads nothing of the queue
    server::Session crier = as("oryx_proxy");
    EXPECT_EQ(
        tried(crier, "SELECT pg_notify('contact_set', n::text || repeat('x', 7900)) FROM generate_series(1, 200) n"),
        "okay");
    EXPECT_EQ(m_session.value("SELECT pg_notification_queue_usage() > 0"), "t");
    m_session.run("SELECT pg_terminate_backend(" +
                  m_session.value("SELECT pid FROM pg_stat_activity WHERE usename = '" +
                                  server::loginOf("oryx_reader") + "' AND datname = current_database()") +
                  ", 5000)");
    EXPECT_TRUE(comesTo("SELECT pg_notification_queue_usage() < 0.0001", "t"));
}

TEST_F(Attacks, ALoginEndsItsOwnSessionsSoEachProcessHasOneOfItsOwn)
{
    server::Session one = as("oryx_registrar");
    server::Session other = as("oryx_registrar");
    EXPECT_EQ(one.value("SELECT pg_terminate_backend(" + other.value("SELECT pg_backend_pid()") + ", 5000)"), "t");
    OwnLogin second(m_session, "oryx_registrar");
    server::Session apart(m_database.name(), second.name());
    EXPECT_NE(tried(one, "SELECT pg_terminate_backend(" + apart.value("SELECT pg_backend_pid()") + ")"), "okay");
}

TEST_F(Attacks, ALoginBreaksItselfForTheNextConnectionsUntilItIsReset)
{
    OwnLogin login(m_session, "oryx_registrar");
    const std::string removal = "DELETE FROM contact";
    {
        server::Session session(m_database.name(), login.name());
        session.run("ALTER ROLE CURRENT_USER SET default_transaction_read_only = on");
        session.run("ALTER ROLE CURRENT_USER IN DATABASE " + m_database.name() + " SET search_path = nowhere");
        EXPECT_EQ(tried(session, removal), "okay"); // not this one
    }
    EXPECT_EQ(tried(*std::make_unique<server::Session>(m_database.name(), login.name()), "SELECT FROM contact"),
              "ERROR:  relation \"contact\" does not exist");
    EXPECT_EQ(rows("SELECT setconfig FROM pg_db_role_setting WHERE setrole = '" + login.name() +
                   "'::regrole ORDER BY setdatabase"),
              "{default_transaction_read_only=on}\n{search_path=nowhere}\n");
    sql("ALTER ROLE " + login.name() + " IN DATABASE " + m_database.name() + " RESET ALL");
    server::Session readOnly(m_database.name(), login.name());
    EXPECT_EQ(tried(readOnly, removal), "ERROR:  cannot execute DELETE in a read-only transaction");
    sql("ALTER ROLE " + login.name() + " RESET ALL");
    server::Session mended(m_database.name(), login.name());
    EXPECT_EQ(tried(mended, removal), "okay");
}

TEST_F(Attacks, WhatASuperuserHasSetForALoginItCannotTakeBack)
{
    OwnLogin login(m_session, "oryx_reader");
    sql("ALTER ROLE " + login.name() + " SET temp_file_limit = '1MB'; ALTER ROLE " + login.name() +
        " SET statement_timeout = '10s'");
    {
        server::Session session(m_database.name(), login.name());
        session.run("ALTER ROLE CURRENT_USER RESET ALL");
    }
    server::Session session(m_database.name(), login.name());
    EXPECT_EQ(session.value("SHOW temp_file_limit"), "1MB");
    EXPECT_EQ(session.value("SHOW statement_timeout"), "0"); // which every role may set for itself
    EXPECT_EQ(tried(session, "SET work_mem = '64kB'; SELECT count(*) FROM (SELECT DISTINCT n::text FROM"
                             " generate_series(1, 300000) n OFFSET 0) t"),
              "ERROR:  temporary file size exceeds temp_file_limit (1024kB)");
}

} // namespace

} // namespace attacksTest
