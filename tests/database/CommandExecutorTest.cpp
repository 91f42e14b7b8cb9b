#include "support/DatabaseTest.h"
#include "support/Show.h"
#include "support/TraceLog.h"

#include <dal/DatabaseCommandExecutor.h>
#include <dal/PresenceDatabaseCommandExecutor.h>
#include <dal/QueryResult.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace commandExecutorTest {

namespace {

/// What both executors have.
template <typename Executor>
class ExecutorFrame : public DatabaseTest {
protected:
    bool connect(const char* password = server::kPassword)
    {
        return m_executor.connect(m_database.uri().c_str(), server::kUser, password);
    }

    std::string reason() { return gist(m_executor.getErrorMessage()); }

    void listDomains(const std::string& value)
    {
        sql("INSERT INTO system_parameters VALUES ('oryxproxy', 'ServerInfo', 'ServerNames', '" + value + "')");
    }

    std::string domain(unsigned int index)
    {
        std::string name = "the one before";
        EXPECT_EQ(&m_executor.getNthElementOfDomainList(name, index), &name);
        return name;
    }

    Executor m_executor;
};

using Executors = testing::Types<oryx::DatabaseCommandExecutor, oryx::PresenceDatabaseCommandExecutor>;
TYPED_TEST_SUITE(ExecutorFrame, Executors, );

class LocationExecutor : public ExecutorTest {
protected:
    void SetUp() override
    {
        ExecutorTest::SetUp();
        provisionAlice();
    }

    oryx::QueryResult m_result;
};

class PresenceExecutor : public ExecutorFrame<oryx::PresenceDatabaseCommandExecutor> {
protected:
    void SetUp() override
    {
        provisionAlice();
        ASSERT_TRUE(connect()) << m_executor.getErrorMessage();
    }

    std::string run(const std::string& statement) { return outcome(m_executor.executeSqlCmd(statement, m_result)); }

    oryx::QueryResult m_result;
};

TYPED_TEST(ExecutorFrame, RunsNothingBeforeItIsConnected)
{
    EXPECT_FALSE(this->m_executor.checkConnect());
    EXPECT_EQ(show(this->m_executor.execute("SELECT 1")),
              "connection error: attempt to execute a command with no database connection");
}

TYPED_TEST(ExecutorFrame, TellsWhyItCouldNotConnect)
{
    EXPECT_FALSE(this->connect("wrong"));
    const std::string refused = "connection to server at \"127.0.0.1\", port " + server::port() +
                                " failed: FATAL:  password authentication failed for user \"oryx_test_server\"\n";
    EXPECT_EQ(this->reason(), refused);
    EXPECT_EQ(show(this->m_executor.execute("SELECT 1")), "connection error: " + refused);
}

TYPED_TEST(ExecutorFrame, ConnectsAgainInPlaceOfTheFormerConnection)
{
    ASSERT_TRUE(this->connect());
    const std::string former = this->backend();
    ASSERT_TRUE(this->connect());
    EXPECT_EQ(this->reason(), "");
    EXPECT_NE(this->backend(), former);
    EXPECT_EQ(this->remaining(former), "");
}

TYPED_TEST(ExecutorFrame, ExecutesAStatementWhoseRowsNobodyReads)
{
    ASSERT_TRUE(this->connect());
    EXPECT_EQ(show(this->m_executor.execute("INSERT INTO subscriber (sid) VALUES (5)")), "okay");
    EXPECT_EQ(show(this->m_executor.execute("SELECT sid FROM subscriber WHERE sid = 6")), "okay");
    EXPECT_EQ(this->rows("SELECT sid FROM subscriber"), "5\n");
}

TYPED_TEST(ExecutorFrame, StaysUsableAfterAFailedStatement)
{
    ASSERT_TRUE(this->connect());
    EXPECT_EQ(outcome(this->m_executor.execute("INSERT INTO subscriber (sid) VALUES ('it's broken')")),
              "query error: [42601] ERROR:  syntax error at or near \"s\"");
    EXPECT_EQ(this->reason(), "[42601] ERROR:  syntax error at or near \"s\"");
    EXPECT_EQ(outcome(this->m_executor.execute("INSERT INTO subscriber (sid) VALUES (5), (5)")),
              "query error: [23505] ERROR:  duplicate key value violates unique constraint \"subscriber_pkey\"");
    EXPECT_EQ(show(this->m_executor.execute("INSERT INTO subscriber (sid) VALUES (6)")), "okay");
    EXPECT_EQ(this->rows("SELECT sid FROM subscriber"), "6\n");
}

TYPED_TEST(ExecutorFrame, CountsTheRowsOfAChange)
{
    ASSERT_TRUE(this->connect());
    this->sql("INSERT INTO subscriber (sid) VALUES (5), (6)");
    int count = -7;
    EXPECT_TRUE(this->m_executor.executeUpdate("UPDATE subscriber SET oid = 1", count));
    EXPECT_EQ(count, 2);
    EXPECT_TRUE(this->m_executor.executeUpdate("DELETE FROM subscriber WHERE sid = 7", count));
    EXPECT_EQ(count, 0);
    EXPECT_FALSE(this->m_executor.executeUpdate("UPDATE subscriber SET sid = 5", count));
    EXPECT_EQ(count, 0);
    EXPECT_EQ(this->reason(), "[23505] ERROR:  duplicate key value violates unique constraint \"subscriber_pkey\"");
    EXPECT_TRUE(this->m_executor.executeUpdate("UPDATE subscriber SET oid = 2 WHERE sid = 5", count));
    EXPECT_EQ(count, 1);
    EXPECT_EQ(this->reason(), "");
}

TYPED_TEST(ExecutorFrame, ReadsASystemParameter)
{
    ASSERT_TRUE(this->connect());
    this->sql(
        "INSERT INTO system_parameters VALUES ('oryxproxy', 'Timers', 'T1', '500'), ('oryxproxy', 'Timers', 'T2', ''),"
        " ('oryxproxy', 'Timers', 'T4', NULL), ('oryxpresence', 'Timers', 'T1', '100%')");
    const auto value = [this](const std::string& application, const std::string& scope, const std::string& name) {
        return this->m_executor.getSystemParameterValue(application, scope, name);
    };
    EXPECT_EQ(value("oryxproxy", "Timers", "T1"), "500");
    EXPECT_EQ(value("oryxpresence", "Timers", "T1"), "100%");
    EXPECT_EQ(value("oryxproxy", "Timers", "T2"), "");
    EXPECT_EQ(value("oryxproxy", "Timers", "T3"), "");
    EXPECT_EQ(value("oryxproxy", "Timers", "T4"), "");
    EXPECT_EQ(value("oryxproxy", "Timer's", "T1"), "");
    EXPECT_EQ(value("", "Timers", "T1"), "");
    EXPECT_EQ(value("oryxproxy", "", "T1"), "");
    EXPECT_EQ(value("oryxproxy", "Timers", ""), "");
    EXPECT_EQ(value("oryxproxy", "Timers", "T1"), "500");
}

TYPED_TEST(ExecutorFrame, SplitsTheDomainListAtEverySeparator)
{
    ASSERT_TRUE(this->connect());
    this->listDomains("oryx.example, example.com;example.org :b\u00fccher.example");
    std::vector<std::string> domains{"the one before"};
    EXPECT_EQ(this->m_executor.getDomainNameList(domains), 4);
    EXPECT_EQ(domains, (std::vector<std::string>{"oryx.example", "example.com", "example.org", "b\u00fccher.example"}));
    EXPECT_EQ(this->domain(2), "example.org");
    std::string first;
    EXPECT_EQ(this->m_executor.getDomainName(first), "oryx.example");
}

TYPED_TEST(ExecutorFrame, HasNoDomainBeyondTheList)
{
    ASSERT_TRUE(this->connect());
    this->listDomains("oryx.example,example.com");
    EXPECT_EQ(this->domain(1), "example.com");
    TraceLog trace;
    EXPECT_EQ(this->domain(3), "");
    EXPECT_NE(trace.take().find("getNthElementOfDomainList(): *** ERROR ***: index out of bounds!\n"),
              std::string::npos);
}

TYPED_TEST(ExecutorFrame, HasNoDomainWhereNoneIsListed)
{
    ASSERT_TRUE(this->connect());
    std::vector<std::string> domains{"the one before"};
    EXPECT_EQ(this->m_executor.getDomainNameList(domains), 0);
    EXPECT_EQ(domains, std::vector<std::string>());
    EXPECT_EQ(this->domain(0), "");
    this->listDomains(" ,;: ");
    EXPECT_EQ(this->m_executor.getDomainNameList(domains), 0);
    EXPECT_EQ(this->domain(0), "");
}

TEST_F(LocationExecutor, ReadsTheDomainListOncePerProcess)
{
    std::string name;
    EXPECT_EQ(m_executor.getDomainName(name), "");
    sql("INSERT INTO system_parameters VALUES ('oryxproxy', 'ServerInfo', 'ServerNames', 'oryx.example')");
    EXPECT_EQ(m_executor.getDomainName(name), "oryx.example");
    sql("UPDATE system_parameters SET value = 'example.com'");
    EXPECT_EQ(m_executor.getDomainName(name), "oryx.example");
    oryx::DatabaseCommandExecutor unconnected;
    EXPECT_EQ(unconnected.getDomainName(name), "oryx.example");
    std::vector<std::string> domains;
    EXPECT_EQ(m_executor.getDomainNameList(domains), 1);
    EXPECT_EQ(domains, std::vector<std::string>{"example.com"});
}

TEST_F(LocationExecutor, HasNoDomainBeforeItIsConnected)
{
    oryx::DatabaseCommandExecutor unconnected;
    TraceLog trace;
    std::string name = "the one before";
    EXPECT_EQ(unconnected.getDomainName(name), "");
    EXPECT_EQ(trace.take(), "DatabaseCommandExecutor prn: getNthElementOfDomainList(): *** ERROR ***: No database "
                            "connection opened!\n");
}

TEST_F(LocationExecutor, HandsOutTheRowsOfATransactionAwareStatement)
{
    oryx::DatabaseResult result;
    result.setNotFound();
    EXPECT_EQ(&m_executor.transactionExecute("SELECT handle FROM public_address", result, m_result, true), &result);
    EXPECT_EQ(show(result), "okay");
    EXPECT_STREQ(m_result.getValue(0, 0), "alice");
}

TEST_F(LocationExecutor, RollsAFailedTransactionBackAndTellsItsFailure)
{
    oryx::DatabaseResult result;
    m_executor.transactionExecute(
        "BEGIN; UPDATE subscriber SET oid = 9; INSERT INTO subscriber (sid) VALUES (7); COMMIT;", result, m_result,
        true);
    EXPECT_EQ(outcome(result),
              "query error: [23505] ERROR:  duplicate key value violates unique constraint \"subscriber_pkey\"");
    EXPECT_EQ(m_result.getErrorMessage(), ", sqlState=00000, sqlcommand=ROLLBACK;");
    EXPECT_EQ(sessionState(), "idle");
    EXPECT_EQ(rows("SELECT oid FROM subscriber"), "3\n");
}

TEST_F(LocationExecutor, LeavesTheRollbackToTheCallerOutsideATransaction)
{
    oryx::DatabaseResult result;
    m_executor.transactionExecute("BEGIN; INSERT INTO subscriber (sid) VALUES (7);", result, m_result, false);
    EXPECT_EQ(outcome(result),
              "query error: [23505] ERROR:  duplicate key value violates unique constraint \"subscriber_pkey\"");
    EXPECT_EQ(gist(m_result.getErrorMessage()),
              "[23505] ERROR:  duplicate key value violates unique constraint \"subscriber_pkey\"");
    EXPECT_EQ(sessionState(), plainOrBound("idle in transaction (aborted)", "idle"));
    EXPECT_EQ(show(m_executor.execute("ROLLBACK")), "okay");
}

TEST_F(PresenceExecutor, ReadsTheDomainListAfresh)
{
    listDomains("oryx.example");
    EXPECT_EQ(domain(0), "oryx.example");
    sql("UPDATE system_parameters SET value = 'example.com'");
    EXPECT_EQ(domain(0), "example.com");
    sql("DELETE FROM system_parameters");
    EXPECT_EQ(domain(0), "");
}

TEST_F(PresenceExecutor, TellsWhetherAStatementFoundOrTouchedARow)
{
    EXPECT_EQ(run("SELECT handle FROM public_address"), "okay");
    EXPECT_STREQ(m_result.getValue(0, 0), "alice");
    EXPECT_EQ(run("SELECT handle FROM public_address WHERE handle = 'bob'"), "not found");
    EXPECT_EQ(run("UPDATE subscriber SET oid = 4"), "okay");
    EXPECT_EQ(run("UPDATE subscriber SET oid = 4 WHERE sid = 8"), "not found");
    EXPECT_EQ(run("DELETE FROM subscriber"), "okay");
    EXPECT_EQ(run("DELETE FROM subscriber"), "not found");
    EXPECT_EQ(run("INSERT INTO subscriber (sid) VALUES (8)"), "okay");
    EXPECT_EQ(rows("SELECT sid FROM subscriber"), "8\n");
}

TEST_F(PresenceExecutor, TellsWhyAStatementFailed)
{
    EXPECT_EQ(run(""), "query error: PresenceDatabaseCommandExecutor::executeSqlCmd: --- Empty query command! ---");
    EXPECT_EQ(run("INSERT INTO subscriber (sid) VALUES (7)"),
              "query error: [23505] ERROR:  duplicate key value violates unique constraint \"subscriber_pkey\"");
    EXPECT_EQ(run("SELECT handle FROM public_address WHERE handle = 'o'neill'"),
              "query error: [42601] ERROR:  syntax error at or near \"neill\"");
    EXPECT_EQ(run("SELECT 100 % 7"), "okay");
}

TEST_F(PresenceExecutor, TellsThatItIsNotConnected)
{
    oryx::PresenceDatabaseCommandExecutor unconnected;
    EXPECT_EQ(show(unconnected.executeSqlCmd("SELECT 1", m_result)),
              "connection error: attempt to execute a command with no database connection");
    EXPECT_EQ(m_result.getErrorMessage(), "not executed");
}

} // namespace

} // namespace commandExecutorTest
