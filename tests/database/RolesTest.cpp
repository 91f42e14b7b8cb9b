#include "support/DatabaseTest.h"
#include "support/Show.h"
#include "support/TemporaryDirectory.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace rolesTest {

namespace {

class Roles : public ExecutorTest {
protected:
    void SetUp() override
    {
        ExecutorTest::SetUp();
        provisionAlice();
    }

    /// A statement as the servers run it.
    std::string asServer(const std::string& statement) { return outcome(m_executor.execute(statement)); }

    /// A statement as an operator with the reading role runs it.
    std::string asReader(const std::string& statement)
    {
        std::string outcome = "okay";
        try {
            sql("BEGIN; SET LOCAL ROLE oryx_reader; " + statement);
        } catch (const std::runtime_error& failure) {
            outcome = failure.what();
            outcome.resize(outcome.find('\n'));
        }
        sql("ROLLBACK");
        return outcome;
    }
};

std::string denied(const std::string& what)
{
    return "query error: [42501] ERROR:  " + what;
}

TEST_F(Roles, KeepServersFromChangingTheSchema)
{
    EXPECT_EQ(asServer("CREATE TABLE mine ()"), denied("permission denied for schema public"));
    EXPECT_EQ(asServer("CREATE TEMPORARY TABLE mine ()"),
              denied("permission denied to create temporary tables in database \"" + m_database.name() + "\""));
    EXPECT_EQ(asServer("CREATE SCHEMA mine"), denied("permission denied for database " + m_database.name()));
    EXPECT_EQ(asServer("ALTER TABLE contact ADD mine text"), denied("must be owner of table contact"));
    EXPECT_EQ(asServer("DROP TABLE contact"), denied("must be owner of table contact"));
    EXPECT_EQ(asServer("TRUNCATE contact"), denied("permission denied for table contact"));
    EXPECT_EQ(asServer("SET ROLE oryx_owner"), denied("permission denied to set role \"oryx_owner\""));
}

TEST_F(Roles, LetServersOnlyReadWhatOperatorsSet)
{
    for (const std::string table :
         {"host_info", "address_map", "proxy_configuration", "domain_access", "system_parameters"}) {
        EXPECT_EQ(asServer("SELECT * FROM " + table), "okay");
        EXPECT_EQ(asServer("DELETE FROM " + table), denied("permission denied for table " + table));
        EXPECT_EQ(asServer("INSERT INTO " + table + " DEFAULT VALUES"), denied("permission denied for table " + table));
    }
    EXPECT_EQ(asServer("SELECT * FROM schema_migration"), denied("permission denied for table schema_migration"));
    EXPECT_EQ(asServer("SELECT * FROM pg_authid"), denied("permission denied for table pg_authid"));
}

TEST_F(Roles, LetReadersSeeAllButPasswords)
{
    for (const std::string table : {"contact_set", "public_address", "contact", "host_info", "address_map",
                                    "proxy_configuration", "domain_access", "system_parameters", "schema_migration"}) {
        EXPECT_EQ(asReader("SELECT * FROM " + table), "okay");
        EXPECT_EQ(asReader("DELETE FROM " + table), "ERROR:  permission denied for table " + table);
    }
    EXPECT_EQ(asReader("SELECT sid, user_id, auth_user_id, oid, s_type, auth_type, active FROM subscriber"), "okay");
    EXPECT_EQ(asReader("SELECT s_password FROM subscriber"), "ERROR:  permission denied for table subscriber");
    EXPECT_EQ(asReader("UPDATE subscriber SET oid = 1"), "ERROR:  permission denied for table subscriber");
    EXPECT_EQ(asReader("SELECT remove_subscriber(7)"), "ERROR:  permission denied for function remove_subscriber");
}

// What each role can do --------------------------------------------------------------------------------------------
// Tried, and not read from the catalogue: each column of each table, each sequence and each function. That a role needs
// what it can do is in tests/hostile/RightsTest.cpp.

class RolesTried : public DatabaseTest {
protected:
    /// What a member of the group can do, a line for each object, and nothing of an object that is closed to it.
    std::string possible(const std::string& group);

private:
    bool can(const std::string& statement)
    {
        std::string refusal;
        try {
            m_login->run("BEGIN; " + statement);
        } catch (const std::runtime_error& failure) {
            refusal = failure.what();
        }
        m_login->run("ROLLBACK");
        return refusal.find("permission denied for " + m_object) == std::string::npos &&
               refusal.find("ERROR:  cannot ") == std::string::npos && // what nobody can, with this view or column
               refusal.find(" is not a table") == std::string::npos;
    }
    /// The word, if the statement can be run.
    std::string ifCan(const std::string& word, const std::string& statement)
    {
        return can(statement) ? " " + word : std::string();
    }
    /// The word, if the statement can be run for all columns; with those that it can be run for, if for some alone.
    std::string ifCanFor(const std::string& word, const std::vector<std::string>& columns, const std::string& before,
                         const std::string& behind);
    std::string possibleWithTable(const std::string& table);

    std::optional<server::Session> m_login;
    std::string m_object; // as a refusal names what is tried
};

std::vector<std::string> linesOf(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::string RolesTried::ifCanFor(const std::string& word, const std::vector<std::string>& columns,
                                 const std::string& before, const std::string& behind)
{
    std::string some;
    bool all = true;
    for (const std::string& column : columns) {
        if (can(before + column + behind)) {
            some += (some.empty() ? "" : " ") + column;
        } else {
            all = false;
        }
    }
    return some.empty() ? "" : " " + word + (all ? "" : "(" + some + ")");
}

std::string RolesTried::possibleWithTable(const std::string& table)
{
    const std::string named = "FROM pg_attribute WHERE attrelid = '" + table + "'::regclass AND attnum > 0";
    const std::string ordered = " ORDER BY attnum";
    const std::vector<std::string> columns = linesOf(rows("SELECT attname " + named + ordered));
    const std::vector<std::string> given =
        linesOf(rows("SELECT attname " + named + " AND attgenerated = ''" + ordered));
    return ifCanFor("SELECT", columns, "SELECT ", " FROM " + table) +
           ifCanFor("INSERT", given, "INSERT INTO " + table + " (", ") VALUES (NULL)") +
           ifCanFor("UPDATE", columns, "UPDATE " + table + " SET ", " = DEFAULT WHERE false") +
           ifCan("DELETE", "DELETE FROM " + table) + ifCan("TRUNCATE", "TRUNCATE " + table) +
           ifCan("TRIGGER", "CREATE TRIGGER mine AFTER INSERT ON " + table + " EXECUTE FUNCTION announce_change()");
}

std::string RolesTried::possible(const std::string& group)
{
    m_login.emplace(m_database.name(), server::loginOf(group));
    std::string text;
    const auto add = [&](const std::string& object, const std::string& what) {
        text += what.empty() ? "" : object + ":" + what + "\n";
    };
    const std::string inPublic = " FROM pg_class WHERE relnamespace = 'public'::regnamespace AND ";
    for (const std::string& table : linesOf(rows("SELECT relname" + inPublic + "relkind IN ('r', 'v') ORDER BY 1"))) {
        m_object = m_session.value("SELECT CASE relkind WHEN 'v' THEN 'view ' ELSE 'table ' END || relname" + inPublic +
                                   "relname = '" + table + "'");
        add(table, possibleWithTable(table));
    }
    for (const std::string& sequence : linesOf(rows("SELECT relname" + inPublic + "relkind = 'S' ORDER BY 1"))) {
        m_object = "sequence " + sequence;
        add(sequence, ifCan("nextval", "SELECT nextval('" + sequence + "')") +
                          ifCan("setval", "SELECT setval('" + sequence + "', 1)") +
                          ifCan("SELECT", "SELECT last_value FROM " + sequence));
    }
    const std::string functions =
        rows("SELECT proname || '|' || (SELECT coalesce(string_agg('NULL::' || format_type(type, NULL), ', '), '')"
             " FROM unnest(proargtypes) type) FROM pg_proc WHERE pronamespace = 'public'::regnamespace"
             " AND prorettype <> 'trigger'::regtype AND NOT coalesce(proacl::text ~ '[{,]=X', false)"
             " AND NOT EXISTS (SELECT FROM pg_depend WHERE objid = pg_proc.oid AND deptype = 'e') ORDER BY 1");
    for (const std::string& function : linesOf(functions)) {
        const std::string name = function.substr(0, function.find('|'));
        m_object = "function " + name;
        add(name, ifCan("EXECUTE", "SELECT " + name + "(" + function.substr(function.find('|') + 1) + ")"));
    }
    return text;
}

TEST_F(RolesTried, RegistrarsKeepBindingsAndReadCredentials)
{
    EXPECT_EQ(possible("oryx_registrar"),
              "contact: SELECT INSERT UPDATE DELETE\n"
              "contact_set: SELECT\n"
              "event_notify: SELECT\n"
              "host_info: SELECT\n"
              "proxy_configuration: SELECT\n"
              "public_address: SELECT\n"
              "sending: SELECT(session number answer) INSERT(session number) UPDATE(number answer sent_at)\n"
              "subscriber: SELECT(sid auth_user_id oid s_type auth_type s_password active)\n"
              "system_parameters: SELECT\n"
              "contact_contact_id_seq: nextval\n"
              "add_contact: EXECUTE\n"
              "address_csid: EXECUTE\n"
              "apply_registration: EXECUTE\n"
              "current_second: EXECUTE\n"
              "is_live: EXECUTE\n"
              "next_contact_id: EXECUTE\n"
              "register_bindings: EXECUTE\n"
              "remove_contact: EXECUTE\n"
              "sending_has_taken_effect: EXECUTE\n"
              "skip_used_keys: EXECUTE\n"
              "take_registration_turn: EXECUTE\n");
}

TEST_F(RolesTried, ProxiesReadWhereRequestsGoAndNoPassword)
{
    EXPECT_EQ(possible("oryx_proxy"), "address_map: SELECT\n"
                                      "contact: SELECT\n"
                                      "contact_set: SELECT\n"
                                      "domain_access: SELECT\n"
                                      "event_notify: SELECT\n"
                                      "host_info: SELECT\n"
                                      "proxy_configuration: SELECT\n"
                                      "public_address: SELECT\n"
                                      "subscriber: SELECT(sid active)\n"
                                      "system_parameters: SELECT\n"
                                      "current_second: EXECUTE\n"
                                      "is_live: EXECUTE\n"
                                      "register_bindings: EXECUTE\n");
}

TEST_F(RolesTried, EventServersKeepTheirStateAndSweepContacts)
{
    EXPECT_EQ(possible("oryx_presence"),
              "access_control_list: SELECT\n"
              "acp: SELECT\n"
              "address_map: SELECT\n"
              "buddy_list: SELECT\n"
              "buddy_list_detail: SELECT\n"
              "conf_state: SELECT INSERT UPDATE DELETE\n"
              "contact: SELECT UPDATE(id) DELETE\n"
              "contact_set: SELECT UPDATE(csid)\n"
              "event_notify: SELECT\n"
              "event_sources: SELECT INSERT UPDATE DELETE\n"
              "event_watchers: SELECT INSERT UPDATE DELETE\n"
              "extension: SELECT\n"
              "listsubscriptions: SELECT INSERT UPDATE DELETE\n"
              "node: SELECT\n"
              "presence_list_authorization: SELECT\n"
              "public_address: SELECT UPDATE(id)\n"
              "publication: SELECT INSERT UPDATE DELETE\n"
              "select_all_obsolete_conf_ext_not_in_use: SELECT\n"
              "select_all_valid_conf_ext: SELECT\n"
              "sending: SELECT(session number answer) INSERT(session number answer) UPDATE(number answer sent_at)\n"
              "subscriber: SELECT(sid auth_user_id oid s_type auth_type s_password active)\n"
              "subscription_states: SELECT INSERT UPDATE DELETE\n"
              "system_parameters: SELECT\n"
              "watcherinfo: SELECT INSERT UPDATE DELETE\n"
              "apply_publication: EXECUTE\n"
              "current_second: EXECUTE\n"
              "remove_expired_publications: EXECUTE\n"
              "reserve_one_available_conf_ext_randomly: EXECUTE\n"
              "sending_has_taken_effect: EXECUTE\n"
              "take_publication_turn: EXECUTE\n");
}

TEST_F(RolesTried, ProvisioningWritesWhatServersFindAndReadsNoPassword)
{
    EXPECT_EQ(possible("oryx_provisioning"),
              "access_control_list: SELECT INSERT UPDATE DELETE\n"
              "acp: SELECT INSERT UPDATE DELETE\n"
              "address_map: SELECT INSERT UPDATE DELETE\n"
              "address_map_refused: SELECT UPDATE DELETE\n"
              "buddy_list: SELECT INSERT UPDATE DELETE\n"
              "buddy_list_detail: SELECT INSERT UPDATE DELETE\n"
              "conf_state: SELECT INSERT UPDATE DELETE\n"
              "conf_state_reset: SELECT INSERT DELETE\n"
              "contact: SELECT INSERT UPDATE DELETE\n"
              "contact_set: SELECT INSERT UPDATE DELETE\n"
              "domain_access: SELECT INSERT UPDATE DELETE\n"
              "extension: SELECT INSERT UPDATE DELETE\n"
              "host_info: SELECT INSERT UPDATE DELETE\n"
              "node: SELECT INSERT UPDATE DELETE\n"
              "presence_list_authorization: SELECT INSERT UPDATE DELETE\n"
              "proxy_configuration: SELECT INSERT UPDATE DELETE\n"
              "public_address: SELECT INSERT UPDATE DELETE\n"
              "public_address_not_in_lower_case: SELECT\n"
              "sip_event_aggregator: SELECT INSERT UPDATE DELETE\n"
              "subscriber: SELECT(sid user_id auth_user_id oid s_type auth_type active) INSERT UPDATE DELETE\n"
              "system_parameters: SELECT INSERT UPDATE DELETE\n"
              "contact_contact_id_seq: nextval\n"
              "contact_set_csid_seq: nextval\n"
              "subscriber_sid_seq: nextval\n"
              "add_contact: EXECUTE\n"
              "address_csid: EXECUTE\n"
              "analyze_provisioned: EXECUTE\n"
              "create_public_address_alias: EXECUTE\n"
              "create_public_address: EXECUTE\n"
              "import_public_address: EXECUTE\n"
              "next_contact_id: EXECUTE\n"
              "next_csid: EXECUTE\n"
              "next_sid: EXECUTE\n"
              "remove_contact: EXECUTE\n"
              "remove_subscriber: EXECUTE\n"
              "set_key_sequences: EXECUTE\n"
              "skip_used_keys: EXECUTE\n");
}

TEST_F(RolesTried, OperatorsReadAllButPasswordsAndTrimTheLog)
{
    EXPECT_EQ(possible("oryx_operator"), "access_control_list: SELECT\n"
                                         "acp: SELECT\n"
                                         "address_map: SELECT\n"
                                         "address_map_refused: SELECT\n"
                                         "alarm_limit: SELECT UPDATE(allowed)\n"
                                         "buddy_list: SELECT\n"
                                         "buddy_list_detail: SELECT\n"
                                         "conf_state: SELECT\n"
                                         "conf_state_reset: SELECT\n"
                                         "contact: SELECT\n"
                                         "contact_set: SELECT\n"
                                         "domain_access: SELECT\n"
                                         "event_notify: SELECT\n"
                                         "event_sources: SELECT\n"
                                         "event_watchers: SELECT\n"
                                         "extension: SELECT\n"
                                         "host_info: SELECT\n"
                                         "key_sequence: SELECT\n"
                                         "listsubscriptions: SELECT\n"
                                         "node: SELECT\n"
                                         "presence_list_authorization: SELECT\n"
                                         "proxy_configuration: SELECT\n"
                                         "public_address: SELECT\n"
                                         "public_address_not_in_lower_case: SELECT\n"
                                         "publication: SELECT\n"
                                         "schema_migration: SELECT\n"
                                         "select_all_obsolete_conf_ext_not_in_use: SELECT\n"
                                         "select_all_valid_conf_ext: SELECT\n"
                                         "sip_event_aggregator: SELECT\n"
                                         "subscriber: SELECT(sid user_id auth_user_id oid s_type auth_type active)\n"
                                         "subscription_states: SELECT\n"
                                         "system_parameters: SELECT\n"
                                         "upkeep_run: SELECT\n"
                                         "watcherinfo: SELECT\n"
                                         "oryx_alarms: EXECUTE\n"
                                         "oryx_upkeep: EXECUTE\n"
                                         "set_key_sequences: EXECUTE\n"
                                         "trim_event_notify: EXECUTE\n");
}

TEST_F(RolesTried, ReadersReadAllButPasswords)
{
    EXPECT_EQ(possible("oryx_reader"), "access_control_list: SELECT\n"
                                       "acp: SELECT\n"
                                       "address_map: SELECT\n"
                                       "address_map_refused: SELECT\n"
                                       "alarm_limit: SELECT\n"
                                       "buddy_list: SELECT\n"
                                       "buddy_list_detail: SELECT\n"
                                       "conf_state: SELECT\n"
                                       "conf_state_reset: SELECT\n"
                                       "contact: SELECT\n"
                                       "contact_set: SELECT\n"
                                       "domain_access: SELECT\n"
                                       "event_notify: SELECT\n"
                                       "event_sources: SELECT\n"
                                       "event_watchers: SELECT\n"
                                       "extension: SELECT\n"
                                       "host_info: SELECT\n"
                                       "key_sequence: SELECT\n"
                                       "listsubscriptions: SELECT\n"
                                       "node: SELECT\n"
                                       "presence_list_authorization: SELECT\n"
                                       "proxy_configuration: SELECT\n"
                                       "public_address: SELECT\n"
                                       "public_address_not_in_lower_case: SELECT\n"
                                       "publication: SELECT\n"
                                       "schema_migration: SELECT\n"
                                       "select_all_obsolete_conf_ext_not_in_use: SELECT\n"
                                       "select_all_valid_conf_ext: SELECT\n"
                                       "sip_event_aggregator: SELECT\n"
                                       "subscriber: SELECT(sid user_id auth_user_id oid s_type auth_type active)\n"
                                       "subscription_states: SELECT\n"
                                       "system_parameters: SELECT\n"
                                       "upkeep_run: SELECT\n"
                                       "watcherinfo: SELECT\n");
}

TEST_F(RolesTried, WhoHasNoneCannotConnect)
{
    sql("DO $$ BEGIN CREATE ROLE oryx_test_nobody LOGIN; EXCEPTION WHEN duplicate_object OR unique_violation THEN NULL;"
        " END $$");
    try {
        server::Session nobody(m_database.name(), "oryx_test_nobody");
        FAIL() << "connected";
    } catch (const std::runtime_error& failure) {
        EXPECT_NE(std::string(failure.what()).find("permission denied for database"), std::string::npos)
            << failure.what();
    }
}

TEST_F(RolesTried, NobodyHasAnythingByBeingAbleToConnect)
{
    const std::string ofAll = ", aclexplode(acl) WHERE grantee = 0";
    EXPECT_EQ(rows("SELECT privilege_type FROM (SELECT coalesce(datacl, acldefault('d', datdba)) AS acl FROM"
                   " pg_database WHERE datname = current_database()) d" +
                   ofAll),
              "");
    EXPECT_EQ(rows("SELECT privilege_type FROM (SELECT coalesce(nspacl, acldefault('n', nspowner)) AS acl FROM"
                   " pg_namespace WHERE nspname = 'public') n" +
                   ofAll),
              "");
    EXPECT_EQ(rows("SELECT relname, privilege_type FROM (SELECT relname, coalesce(relacl, acldefault('r', relowner)) AS"
                   " acl FROM pg_class WHERE relnamespace = 'public'::regnamespace) c" +
                   ofAll),
              "");
    // What a constraint or a search calls with the rights of who writes the row or searches.
    EXPECT_EQ(rows("SELECT DISTINCT regexp_replace(proname, '(pattern)_.*', '\\1') FROM (SELECT pg_proc.oid, proname,"
                   " coalesce(proacl, acldefault('f', proowner)) AS acl FROM pg_proc"
                   " WHERE pronamespace = 'public'::regnamespace) p" +
                   ofAll + " AND NOT EXISTS (SELECT FROM pg_depend WHERE objid = oid AND deptype = 'e')"),
              "address_map_pattern\nis_like\ntelling_part\n");
}

TEST_F(RolesTried, ProvisioningLoadsTheSamplesAndWholeTables)
{
    const std::string psql =
        "PGHOST=\"$ORYX_SERVER_SOCKET\" psql --no-psqlrc --quiet --set=ON_ERROR_STOP=1 --username=" +
        server::loginOf("oryx_provisioning") + " --dbname=" + m_database.name();
    for (const std::string sample : {"registration", "presence", "registration"}) { // as often as one likes
        EXPECT_EQ(std::system((psql + " --file='" ORYX_SCHEMA "/sample/" + sample + ".sql'").c_str()), 0);
    }
    EXPECT_EQ(std::system(("printf 'erin\tsecret\nfrank\tsecret\n' | " + psql +
                           " --command='COPY subscriber (user_id, s_password) FROM STDIN'")
                              .c_str()),
              0);
    EXPECT_EQ(rows("SELECT user_id, s_password FROM subscriber ORDER BY user_id"),
              "alice|wonderland\nbob|builder\ncarol|christmas\nerin|secret\nfrank|secret\nsales|NULL\n");
}

// Without a superuser ----------------------------------------------------------------------------------------------

TEST_F(RolesTried, ProvisioningHasTheStatisticsOfWhatItLoads)
{
    const std::string known = "SELECT reltuples FROM pg_class WHERE oid = 'subscriber'::regclass";
    server::Session provisioning(m_database.name(), server::loginOf("oryx_provisioning"));
    provisioning.run("INSERT INTO subscriber (sid) SELECT generate_series(1, 1000)");
    provisioning.run("ANALYZE subscriber");
    EXPECT_EQ(rows(known), "-1\n"); // warned, and nothing done
    provisioning.run("SELECT analyze_provisioned()");
    EXPECT_EQ(rows(known), "1000\n");
    EXPECT_EQ(rows("SELECT relname FROM pg_class WHERE relkind = 'r' AND relnamespace = 'public'::regnamespace"
                   " AND has_table_privilege('oryx_provisioning', oid, 'INSERT') AND reltuples < 0"),
              "conf_state_reset\n"); // a row for each reset
}

TEST_F(DatabaseTest, AnOwnerWhoIsNoSuperuserAppliesTheSchemaAndIsToldWhatStaysOpen)
{
    const std::string owner = "oryx_owner_" + std::to_string(::getpid());
    const std::string owned = m_database.name() + "_owned";
    sql("DROP ROLE IF EXISTS " + owner + "; CREATE ROLE " + owner + " LOGIN IN ROLE oryx_owner");
    sql("CREATE DATABASE " + owned + " OWNER " + owner);
    const TemporaryDirectory folder;
    const std::string socket = std::getenv("ORYX_SERVER_SOCKET");
    EXPECT_EQ(std::system(("PGHOST='" + socket + "' PGUSER=" + owner + " '" ORYX_SCHEMA "/apply' " + owned + " >'" +
                           folder.file("out") + "' 2>'" + folder.file("err") + "'")
                              .c_str()),
              0)
        << folder.read("err");
    const std::string told = folder.read("err");
    EXPECT_NE(
        told.find("WARNING:  locks by number, large objects and messages to the log stay open to everybody who can"
                  " connect\nHINT:  schema/apply --check has the statements"),
        std::string::npos)
        << told;
    EXPECT_EQ(server::Session(owned).value("SELECT has_table_privilege('oryx_registrar', 'contact', 'INSERT')"), "t");
    sql("DROP DATABASE " + owned + " WITH (FORCE)");
    sql("DROP ROLE " + owner);
}

} // namespace

} // namespace rolesTest
