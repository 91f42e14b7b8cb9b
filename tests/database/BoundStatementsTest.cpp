// What bound statements do that plain ones do not; every other test of this program runs both ways.

#include "support/DatabaseTest.h"
#include "support/Proxy.h"
#include "support/Show.h"

#include <dal/PresenceDatabaseCommandExecutor.h>
#include <dal/PresenceService.h>
#include <dal/QueryResult.h>
#include <dal/SessionOptions.h>

#include <cstdlib>
#include <set>
#include <string>
#include <vector>

namespace boundStatementsTest {

namespace {

using oryx::DatabaseResult;
using oryx::QueryResult;
using oryx::SessionOptions;

class Bound : public DatabaseTest {
protected:
    void SetUp() override
    {
        SessionOptions options;
        options.statements = SessionOptions::Statements::bound;
        m_service.setSessionOptions(options);
        m_executor.setSessionOptions(options);
        ASSERT_TRUE(m_service.connect(m_database.uri().c_str(), server::kUser, server::kPassword).okay());
        ASSERT_TRUE(m_executor.connect(m_database.uri().c_str(), server::kUser, server::kPassword));
        provisionAlice();
    }

    /// What the event server's session answers, a value.
    std::string answer(const std::string& query)
    {
        QueryResult result;
        m_executor.executeSqlCmd(query, result);
        const char* const value = result.getValue(0, 0);
        return value != nullptr ? value : "nothing";
    }
    std::string session() { return answer("SELECT pg_backend_pid()"); }
    std::string prepared()
    {
        return answer("SELECT string_agg(statement, '|' ORDER BY prepare_time) FROM pg_prepared_statements");
    }
    std::string reserved()
    {
        std::string extension;
        const DatabaseResult result = m_executor.reserveRandomlyIdleConfExtAsInUse(extension);
        return result.okay() ? extension : outcome(result);
    }

    oryx::LocationService m_service;
    oryx::PresenceDatabaseCommandExecutor m_executor;
};

TEST_F(Bound, StatementsArePreparedAtTheirFirstUseAndKept)
{
    int id = 0;
    EXPECT_TRUE(m_executor.getListId("friends", &id).notFound());
    EXPECT_TRUE(m_executor.getListId("family", &id).notFound());
    EXPECT_EQ(prepared(), "SELECT buddy_list_id FROM buddy_list WHERE buddy_list_name =$1;");
}

TEST_F(Bound, AChangeSaysItsNumberBeforeItsStatement)
{
    ASSERT_TRUE(m_executor.addConfExtState({"700", "IDLE", 5}).okay());
    EXPECT_EQ(
        prepared(),
        "INSERT INTO sending AS kept (session, number) VALUES ($1, $2) ON CONFLICT (session) DO UPDATE SET number = CASE WHEN kept.number < excluded.number THEN excluded.number ELSE sending_has_taken_effect(kept.answer) END, answer = NULL, sent_at = now()|"
        "INSERT INTO conf_state (extension,conf_status,start_time) VALUES($1,$2,$3);");
}

TEST_F(Bound, AReservationIsToldItsNumber)
{
    ASSERT_EQ(reserved(), "not found");
    EXPECT_EQ(
        prepared(),
        "SELECT set_config('oryx.sending', $1, true)|"
        "select * FROM reserve_one_available_conf_ext_randomly() where reserve_one_available_conf_ext_randomly IS NOT NULL;");
}

TEST_F(Bound, StatementsAreForgottenWithTheirConnection)
{
    int id = 0;
    EXPECT_TRUE(m_executor.getListId("friends", &id).notFound());
    const std::string before = session();
    terminate(before);
    EXPECT_TRUE(m_executor.getListId("friends", &id).notFound());
    EXPECT_NE(session(), before);
    EXPECT_EQ(prepared(), "SELECT buddy_list_id FROM buddy_list WHERE buddy_list_name =$1;");
}

TEST_F(Bound, StatementsArePreparedAgainWhenTheServerHasForgottenThem)
{
    int id = 0;
    EXPECT_TRUE(m_executor.getListId("friends", &id).notFound());
    QueryResult ignored;
    m_executor.executeSqlCmd("DEALLOCATE ALL", ignored);
    EXPECT_TRUE(m_executor.getListId("friends", &id).notFound());
}

TEST_F(Bound, StatementsArePreparedAgainWhenAMigrationChangesWhatTheySelect)
{
    sql("INSERT INTO conf_state VALUES ('700', 'IDLE', 5)");
    std::vector<oryx::ConfExtRecord> records;
    ASSERT_TRUE(m_executor.getAllConfExtRecord(records, "", false).okay());
    sql("ALTER TABLE conf_state ADD COLUMN remark text");
    EXPECT_TRUE(m_executor.getAllConfExtRecord(records, "", false).okay());
    EXPECT_EQ(records.size(), 1U);
}

TEST_F(Bound, StatementsArePreparedAgainAfterACallersTransactionInWhichTheyWereOutdated)
{
    sql("INSERT INTO conf_state VALUES ('700', 'IDLE', 5)");
    std::vector<oryx::ConfExtRecord> records;
    QueryResult ignored;
    ASSERT_TRUE(m_executor.getAllConfExtRecord(records, "", false).okay());
    sql("ALTER TABLE conf_state ADD COLUMN remark text");
    m_executor.executeSqlCmd("BEGIN", ignored);
    EXPECT_EQ(m_executor.getAllConfExtRecord(records, "", false).getSqlState(), "0A000");
    m_executor.executeSqlCmd("BEGIN", ignored);
    EXPECT_TRUE(m_executor.getAllConfExtRecord(records, "", false).okay());
    m_executor.executeSqlCmd("COMMIT", ignored);
}

TEST_F(Bound, AStatementThatSomebodyElsePreparedUnderItsNameIsUsed)
{
    int id = 0;
    QueryResult names;
    EXPECT_TRUE(m_executor.getListId("friends", &id).notFound());
    const std::string name = answer("SELECT name FROM pg_prepared_statements");
    oryx::PresenceDatabaseCommandExecutor other;
    SessionOptions options;
    options.statements = SessionOptions::Statements::bound;
    other.setSessionOptions(options);
    ASSERT_TRUE(other.connect(m_database.uri().c_str(), server::kUser, server::kPassword));
    other.executeSqlCmd("PREPARE " + name + " AS SELECT 1", names);
    EXPECT_TRUE(other.getListId("friends", &id).notFound());
}

TEST_F(Bound, ARefusedStatementCostsNoReconnectAndIsNotRepeated)
{
    sql("CREATE SEQUENCE sendings; GRANT USAGE ON sendings TO oryx_server;"
        "CREATE FUNCTION refuse() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN PERFORM nextval('sendings'); "
        "RAISE EXCEPTION 'refused'; END $$;"
        "CREATE TRIGGER refuse BEFORE INSERT ON listsubscriptions FOR EACH ROW EXECUTE FUNCTION refuse()");
    const std::string before = session();
    const DatabaseResult result = m_executor.createListMapping("fsm", "sub", 7);
    EXPECT_EQ(outcome(result), "connection error: [P0001] ERROR:  refused");
    EXPECT_EQ(result.getSqlState(), "P0001");
    EXPECT_EQ(session(), before);
    EXPECT_EQ(rows("SELECT last_value FROM sendings"), "1\n");
}

TEST_F(Bound, AMessageHoldsTheStatementWithoutItsValues)
{
    std::vector<oryx::DatabaseUpdate> updates;
    const DatabaseResult result = m_executor.getUpdatedPrimaryKeys("acp", "yesterday", updates);
    EXPECT_TRUE(result.queryError());
    EXPECT_NE(result.getErrorMessage().find(
                  "sqlcommand=SELECT pk_int, pk_char, evt_timestamp FROM event_notify WHERE table_name = $1 AND "
                  "evt_timestamp > $2;"),
              std::string::npos)
        << result.getErrorMessage();
    EXPECT_EQ(result.getSqlState(), "22P02");
}

TEST_F(Bound, AMessageNamesTheStatementThatFailedOfSeveral)
{
    sql("REVOKE DELETE ON event_watchers FROM oryx_server");
    EXPECT_EQ(m_executor.removeEventServerState().getErrorMessage(),
              "ERROR:  permission denied for table event_watchers\n, sqlState=42501, "
              "sqlcommand=DELETE FROM EVENT_WATCHERS;");
}

TEST_F(Bound, AChangeThatIsRefusedAsItTakesEffectCostsNoReconnect)
{
    // Changes of this table wait for their turn in the log, at the very end.
    server::Session other(m_database.name());
    other.run("BEGIN; LOCK TABLE event_turn IN EXCLUSIVE MODE");
    const std::string before = session();
    QueryResult ignored;
    m_executor.executeSqlCmd("SET lock_timeout = '100ms'", ignored);
    const DatabaseResult late = m_executor.addConfExtState({"700", "IDLE", 7});
    EXPECT_EQ(outcome(late), "query error: [55P03] ERROR:  canceling statement due to lock timeout");
    EXPECT_EQ(late.getSqlState(), "55P03");
    EXPECT_EQ(session(), before);
    EXPECT_EQ(rows("SELECT * FROM conf_state"), "");
    other.run("COMMIT");
    EXPECT_TRUE(m_executor.addConfExtState({"700", "IDLE", 7}).okay());
}

TEST_F(Bound, ARegistrationIsStoredWholeOrNotAtAll)
{
    std::vector<oryx::ContactRecord> twice = contacts({"sip:a@192.0.2.1", "sip:b@192.0.2.1", "sip:a@192.0.2.1"});
    const DatabaseResult result = m_service.registerContacts(42, twice);
    EXPECT_TRUE(result.queryError());
    EXPECT_EQ(result.getSqlState(), "23505");
    EXPECT_EQ(storedContacts(), "");
    twice.pop_back();
    EXPECT_TRUE(m_service.registerContacts(42, twice).okay());
    EXPECT_EQ(rows("SELECT address FROM contact ORDER BY address"), "sip:a@192.0.2.1\nsip:b@192.0.2.1\n");
}

TEST_F(Bound, AQuoteIsACharacter)
{
    const std::string hostile = R"(sip:o'hara\"$1;--/*%_@192.0.2.1)";
    std::vector<oryx::ContactRecord> one = contacts({hostile});
    ASSERT_TRUE(m_service.registerContacts(42, one).okay());
    std::string ordering;
    bool replaceUri = false;
    std::vector<oryx::ContactRecord> found;
    ASSERT_TRUE(m_service.lookupContacts(42, ordering, replaceUri, found).okay());
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found.front().address(), hostile);
    ASSERT_TRUE(m_service.unregisterContacts(42, one).okay());
    EXPECT_EQ(storedContacts(), "");
}

TEST_F(Bound, ANulIsRefusedBeforeAnythingIsSent)
{
    const std::string withNul("5\0"
                              "00",
                              4);
    const DatabaseResult result = m_executor.addConfExtState({withNul, "IDLE", 7});
    EXPECT_TRUE(result.queryError());
    EXPECT_EQ(result.getSqlState(), "22021");
    EXPECT_EQ(
        result.getErrorMessage(),
        "a value holds a NUL, sqlState=22021, sqlcommand=INSERT INTO conf_state (extension,conf_status,start_time) "
        "VALUES($1,$2,$3);");
    EXPECT_EQ(rows("SELECT * FROM conf_state"), "");
}

TEST_F(Bound, ARefusedStatementEndsTheTransactionItStandsIn)
{
    QueryResult ignored;
    m_executor.executeSqlCmd("BEGIN", ignored);
    EXPECT_TRUE(m_executor.executeSqlCmd("SELECT 1/0", ignored).queryError());
    EXPECT_EQ(answer("SELECT 'at work'"), "at work");
}

TEST_F(Bound, ACallersOwnTextMayHoldSeveralStatements)
{
    QueryResult result;
    EXPECT_TRUE(m_executor.executeSqlCmd("SELECT 1; SELECT 2, 3;", result).okay());
    EXPECT_STREQ(result.getValue(0, 1), "3");
}

TEST_F(Bound, TheExecutorKeepsTheSqlStateOfItsLastFailure)
{
    int id = 0;
    QueryResult ignored;
    EXPECT_TRUE(m_executor.executeSqlCmd("SELECT 1/0", ignored).queryError());
    EXPECT_EQ(m_executor.getSqlState(), "22012");
    EXPECT_TRUE(m_executor.updateWatcherState("key", "opaque", 1).okay());
    EXPECT_EQ(m_executor.getSqlState(), "");
    EXPECT_TRUE(m_executor.getListId("friends", &id).notFound());
}

TEST_F(Bound, APresenceServiceSendsAsItIsTold)
{
    oryx::PresenceService service;
    SessionOptions options;
    options.statements = SessionOptions::Statements::bound;
    service.setSessionOptions(options);
    ASSERT_TRUE(service.connect(m_database.uri().c_str(), server::kUser, server::kPassword).okay());
    int id = 0;
    EXPECT_TRUE(service.getListId("o'hara's", &id).notFound());
}

class BoundThroughRelay : public Bound {
protected:
    BoundThroughRelay() { setenv("PGPORT", m_relay.port().c_str(), 1); }

    server::Proxy m_relay;
};

TEST_F(BoundThroughRelay, AStatementWhoseConnectionIsCutWhileItIsSentIsSentAgain)
{
    const std::string megabytes(16U << 20U, 'x');
    int id = 0;
    m_relay.lose({server::Proxy::Loss::request});
    EXPECT_TRUE(m_executor.getListId(megabytes.c_str(), &id).notFound());
    EXPECT_TRUE(m_executor.getListId(megabytes.c_str(), &id).notFound());
}

} // namespace

} // namespace boundStatementsTest
