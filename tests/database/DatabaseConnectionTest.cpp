#include "support/DatabaseTest.h"
#include "support/Proxy.h"
#include "support/TraceLog.h"

#include <dal/DatabaseConnection.h>
#include <dal/QueryResult.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace databaseConnectionTest {

namespace {

class Connecting : public DatabaseTest {
protected:
    bool connect(const std::string& uri, const char* password = server::kPassword)
    {
        return m_connection.connect(uri.c_str(), server::kUser, password);
    }

    /// The first row of a query, as the library's connection answers it.
    std::string answer(const std::string& query)
    {
        oryx::QueryResult result;
        EXPECT_TRUE(m_connection.execute(query, result)) << m_connection.getErrorMessage();
        const char* const value = result.getValue(0, 0);
        return value != nullptr ? value : result.getErrorMessage();
    }

    oryx::DatabaseConnection m_connection;
};

class Executing : public Connecting {
protected:
    void SetUp() override
    {
        provisionAlice();
        ASSERT_TRUE(connect(m_database.uri())) << m_connection.getErrorMessage();
    }

    oryx::QueryResult m_result;
};

std::string failedAttempt(const std::string& port, const std::string& reason)
{
    return "connection to server at \"127.0.0.1\", port " + port + " failed: " + reason + "\n";
}

TEST_F(Connecting, ReachesTheDatabaseThatTheUriNames)
{
    EXPECT_TRUE(connect(m_database.uri()));
    EXPECT_TRUE(m_connection.active());
    EXPECT_EQ(m_connection.getErrorMessage(), "");
    EXPECT_EQ(answer("SELECT current_user || ' on ' || current_database()"),
              std::string(server::kUser) + " on " + m_database.name());
}

TEST_F(Connecting, TakesABareDatabaseNameForAUri)
{
    EXPECT_TRUE(connect(m_database.name()));
    EXPECT_EQ(answer("SELECT current_database()"), m_database.name());
}

TEST_F(Connecting, ReachesASocketByItsEscapedDirectory)
{
    std::string host;
    for (const char c : std::string(std::getenv("ORYX_SERVER_SOCKET"))) {
        host += c == '/' ? "%2F" : std::string(1, c);
    }
    EXPECT_TRUE(connect("postgresql://" + host + "/" + m_database.name())) << m_connection.getErrorMessage();
    EXPECT_EQ(answer("SELECT coalesce(inet_server_addr()::text, 'socket')"), "socket");
}

TEST_F(Connecting, TriesTheHostsOfAListInTheirOrder)
{
    // Nobody listens on the first one.
    EXPECT_TRUE(connect("postgresql://127.0.0.2,127.0.0.1/" + m_database.name())) << m_connection.getErrorMessage();
    EXPECT_EQ(answer("SELECT host(inet_server_addr())"), "127.0.0.1");
}

TEST_F(Connecting, NeedsUriUserAndPassword)
{
    EXPECT_FALSE(m_connection.connect(nullptr, server::kUser, server::kPassword));
    EXPECT_FALSE(m_connection.connect(m_database.uri().c_str(), nullptr, server::kPassword));
    EXPECT_FALSE(m_connection.connect(m_database.uri().c_str(), server::kUser, nullptr));
    EXPECT_EQ(m_connection.getErrorMessage(), "missing connection parameters");
    EXPECT_FALSE(m_connection.active());
    EXPECT_EQ(backend(), "");
}

TEST_F(Connecting, TellsWhyTheServerRefusedThePassword)
{
    TraceLog trace;
    EXPECT_FALSE(connect(m_database.uri(), "wrong"));
    EXPECT_EQ(m_connection.getErrorMessage(),
              failedAttempt(server::port(), "FATAL:  password authentication failed for user \"oryx_test_server\""));
    EXPECT_FALSE(m_connection.active());
    EXPECT_EQ(trace.take("DatabaseConnection"), "DatabaseConnection prn: host=127.0.0.1 dbname=" + m_database.name() +
                                                    " user=oryx_test_server password=wrong\n"
                                                    "DatabaseConnection prn: connection failed, status=1\n\n");
}

TEST_F(Connecting, TellsThatThereIsNoSuchDatabase)
{
    EXPECT_FALSE(connect("postgresql://127.0.0.1/oryx_nowhere"));
    EXPECT_EQ(m_connection.getErrorMessage(),
              failedAttempt(server::port(), "FATAL:  database \"oryx_nowhere\" does not exist"));
    EXPECT_FALSE(m_connection.active());
}

TEST_F(Connecting, TellsThatNobodyListens)
{
    server::Proxy proxy;
    proxy.refuse(true);
    setenv("PGPORT", proxy.port().c_str(), 1);
    EXPECT_FALSE(connect(m_database.uri()));
    EXPECT_EQ(m_connection.getErrorMessage(),
              failedAttempt(proxy.port(), "Connection refused\n"
                                          "\tIs the server running on that host and accepting TCP/IP connections?"));
    EXPECT_FALSE(m_connection.active());
}

TEST_F(Connecting, IsRepairedByTheFirstStatementOnceTheServerIsThere)
{
    server::Proxy proxy;
    proxy.refuse(true);
    setenv("PGPORT", proxy.port().c_str(), 1);
    ASSERT_FALSE(connect(m_database.uri()));
    const std::string refused = m_connection.getErrorMessage();

    oryx::QueryResult result;
    EXPECT_FALSE(m_connection.execute("SELECT 1", result));
    EXPECT_EQ(m_connection.getErrorMessage(), plainOrBound("fatal error, query failed", refused));
    EXPECT_EQ(result.getSqlCommand(), "SELECT 1");
    EXPECT_EQ(result.getErrorMessage(), "not executed");
    EXPECT_FALSE(m_connection.reset());

    proxy.refuse(false);
    TraceLog trace;
    EXPECT_EQ(answer("SELECT current_database()"), m_database.name());
    EXPECT_EQ(trace.take(), "DatabaseConnection prn: executing query\n"
                            "DatabaseConnection prn: fatal query error: retrying connection\n"
                            "DatabaseConnection prn: connection reset, retrying query\n"
                            "DatabaseConnection prn: query returned, setting result\n" +
                                plainOrBound("DatabaseConnection prn: query result status is 2 (', sqlState=00000, "
                                             "sqlcommand=SELECT current_database()')\n\n",
                                             ""));
    EXPECT_TRUE(m_connection.active());
    m_connection.close();
}

TEST_F(Connecting, CanBeClosedTwiceAndConnectedAgain)
{
    ASSERT_TRUE(connect(m_database.uri()));
    const std::string former = backend();
    TraceLog trace;
    m_connection.close();
    m_connection.close();
    EXPECT_EQ(trace.take(), "DatabaseConnection prn: connection closed\n");
    EXPECT_FALSE(m_connection.active());
    EXPECT_EQ(m_connection.getErrorMessage(), "no connection");
    EXPECT_FALSE(m_connection.reset());
    EXPECT_EQ(m_connection.getErrorMessage(), "no connection to reset");
    EXPECT_EQ(remaining(former), "");

    EXPECT_TRUE(connect(m_database.uri()));
    EXPECT_EQ(answer("SELECT current_database()"), m_database.name());
}

TEST_F(Connecting, ExecutesNothingBefore)
{
    oryx::QueryResult result;
    result.setSqlCommand("the one before");
    EXPECT_FALSE(m_connection.execute("SELECT 1", result));
    EXPECT_EQ(m_connection.getErrorMessage(), "no connection");
    EXPECT_EQ(result.getSqlCommand(), "the one before");
    EXPECT_EQ(result.getErrorMessage(), "not executed");
}

TEST_F(Executing, LeavesTheResultAsItIsWithoutAConnection)
{
    ASSERT_TRUE(m_connection.execute("SELECT 1", m_result));
    m_connection.close();
    EXPECT_FALSE(m_connection.execute("SELECT 2", m_result));
    EXPECT_EQ(m_connection.getErrorMessage(), "no connection");
    EXPECT_EQ(m_result.getSqlCommand(), "SELECT 1");
    EXPECT_STREQ(m_result.getValue(0, 0), "1");
}

TEST_F(Executing, ResetsAndRepeatsOnceAfterAUniqueViolationUnlessBound)
{
    // A sequence counts the attempts: what was taken from it stays taken.
    sql("CREATE SEQUENCE attempts; GRANT USAGE ON SEQUENCE attempts TO oryx_server");
    const std::string former = backend();

    EXPECT_TRUE(m_connection.execute("INSERT INTO subscriber (sid, oid) VALUES (7, nextval('attempts'))", m_result));
    EXPECT_EQ(m_connection.getErrorMessage(), "");
    EXPECT_TRUE(m_result.failed());
    EXPECT_TRUE(m_result.integrityConstraintViolation());
    EXPECT_EQ(rows("SELECT last_value FROM attempts"), plainOrBound("2\n", "1\n"));
    EXPECT_EQ(answer("SELECT pg_backend_pid()") == former, bound());
}

TEST_F(Executing, RepeatsAChangeThatWorksTheSecondTimeUnlessBound)
{
    sql("CREATE SEQUENCE attempts; GRANT USAGE ON SEQUENCE attempts TO oryx_server");
    EXPECT_TRUE(m_connection.execute(
        "INSERT INTO subscriber (sid) SELECT CASE nextval('attempts') WHEN 1 THEN 7 ELSE 8 END", m_result));
    EXPECT_EQ(m_result.failed(), bound());
    EXPECT_EQ(m_result.updateCount(), plainOrBound(1, 0));
    EXPECT_EQ(rows("SELECT sid FROM subscriber ORDER BY sid"), plainOrBound("7\n8\n", "7\n"));
}

TEST_F(Executing, CountsAnEmptyStatementAsFailedWithoutAReset)
{
    const std::string former = backend();
    EXPECT_TRUE(m_connection.execute("", m_result));
    EXPECT_TRUE(m_result.failed());
    std::string name;
    EXPECT_EQ(m_result.getErrorCode(name), 0);
    EXPECT_EQ(name, "PGRES_EMPTY_QUERY");
    EXPECT_EQ(answer("SELECT pg_backend_pid()"), former);
}

TEST_F(Executing, IsConnectedAnewByAReset)
{
    const std::string former = backend();
    EXPECT_TRUE(m_connection.reset());
    EXPECT_TRUE(m_connection.active());
    const std::string now = answer("SELECT pg_backend_pid()");
    EXPECT_NE(now, former);
    EXPECT_EQ(answer("SELECT current_user || ' on ' || current_database()"),
              std::string(server::kUser) + " on " + m_database.name());
}

TEST_F(Executing, EmptiesItsErrorTextWithASuccess)
{
    m_connection.error("the one before");
    EXPECT_EQ(answer("SELECT 1"), "1");
    EXPECT_EQ(m_connection.getErrorMessage(), "");
}

TEST_F(Executing, TracesTheServersNoticesAlsoAfterAReset)
{
    const std::string notice = "DO $$ BEGIN RAISE NOTICE 'contact % is 100%% new', 7; END $$";
    const std::string traced = "DatabaseConnection prn: executing query\n"
                               "DatabaseConnection prn: libpq MESSAGE: NOTICE:  contact 7 is 100% new\n\n"
                               "DatabaseConnection prn: query returned, setting result\n" +
                               plainOrBound("DatabaseConnection prn: query result status is 1 (', sqlState=00000, "
                                            "sqlcommand=" +
                                                notice + "')\n\n",
                                            "");
    TraceLog trace;
    EXPECT_TRUE(m_connection.execute(notice, m_result));
    EXPECT_EQ(trace.take(), traced);
    ASSERT_TRUE(m_connection.reset());
    EXPECT_TRUE(m_connection.execute(notice, m_result));
    EXPECT_EQ(trace.take(), traced);
}

} // namespace

} // namespace databaseConnectionTest
