// What services and executors count of real connections, and what an operator is told of an outage.

#include "support/DatabaseTest.h"
#include "support/Proxy.h"
#include "support/TraceLog.h"

#include <dal/DatabaseConnection.h>
#include <dal/PresenceDatabaseCommandExecutor.h>
#include <dal/PresenceService.h>
#include <dal/QueryResult.h>
#include <dal/SessionStatistics.h>

#include <chrono>
#include <cstdlib>
#include <string>

namespace sessionStatisticsTest {

namespace {

using oryx::SessionStatistics;

class Statistics : public ServiceTest {
protected:
    Statistics() { setenv("PGPORT", m_proxy.port().c_str(), 1); }

    oryx::DatabaseResult lookUp()
    {
        int key = 0;
        return m_service.getPublicAddressKey("alice", "oryx.example", key);
    }

    std::string port() const { return "port " + m_proxy.port(); }

    server::Proxy m_proxy;
};

TEST_F(Statistics, OfAServiceCountALossAndItsRepetition)
{
    EXPECT_TRUE(lookUp().okay());
    terminate(backend());
    EXPECT_TRUE(lookUp().okay());
    const SessionStatistics statistics = m_service.getStatistics();
    EXPECT_EQ(statistics.connects, 2U);
    EXPECT_EQ(statistics.losses, 1U);
    EXPECT_EQ(statistics.repetitions, 1U);
    EXPECT_EQ(statistics.refusals, 0U);
    EXPECT_EQ(statistics.lastError.substr(0, statistics.lastError.find('\n')),
              plainOrBound("FATAL:  terminating connection due to administrator command",
                           "server closed the connection unexpectedly"));
}

TEST_F(Statistics, OfAServiceCountWhatCannotBeConnected)
{
    m_proxy.refuse(true);
    m_proxy.hangUp();
    EXPECT_TRUE(lookUp().connectionError() || lookUp().queryError());
    EXPECT_TRUE(lookUp().connectionError());
    EXPECT_GE(m_service.getStatistics().failures, 2U);
    EXPECT_NE(m_service.getStatistics().lastError.find(port()), std::string::npos)
        << m_service.getStatistics().lastError;
}

TEST_F(Statistics, GoOnWithTheServicesNextConnection)
{
    EXPECT_TRUE(m_service.connect(m_database.uri().c_str(), server::kUser, server::kPassword).okay());
    EXPECT_EQ(m_service.getStatistics().connects, 2U);
}

TEST_F(Statistics, TellOfRefusedStatements)
{
    oryx::PresenceService service;
    ASSERT_TRUE(service.connect(m_database.uri().c_str(), server::kUser, server::kPassword).okay());
    EXPECT_TRUE(service.getPresenceDatabaseCommandExecutor()->execute("SELECT 1/0").queryError());
    EXPECT_EQ(service.getStatistics().refusals, 1U);
    EXPECT_EQ(service.getStatistics().losses, 0U);
    EXPECT_EQ(service.getStatistics().lastError, "a statement was refused: 22012");
}

TEST_F(Statistics, TellHowLongAStatementHasTakenAtMost)
{
    oryx::PresenceDatabaseCommandExecutor executor;
    ASSERT_TRUE(executor.connect(m_database.uri().c_str(), server::kUser, server::kPassword));
    EXPECT_TRUE(executor.execute("SELECT pg_sleep(0.05)").okay());
    EXPECT_GE(executor.getStatistics().longest, std::chrono::milliseconds(40)); // a tick less
    EXPECT_TRUE(executor.execute("SELECT 1").okay());
    EXPECT_GE(executor.getStatistics().longest, std::chrono::milliseconds(40));
}

TEST_F(Statistics, OfAnExecutorAndAConnectionCountForTheProcess)
{
    const SessionStatistics before = SessionStatistics::ofProcess();
    oryx::PresenceDatabaseCommandExecutor executor;
    ASSERT_TRUE(executor.connect(m_database.uri().c_str(), server::kUser, server::kPassword));
    oryx::DatabaseConnection connection;
    ASSERT_TRUE(connection.connect(m_database.uri().c_str(), server::kUser, server::kPassword));
    EXPECT_EQ(executor.getStatistics().connects, 1U);
    EXPECT_EQ(connection.getStatistics().connects, 1U);
    EXPECT_EQ(SessionStatistics::ofProcess().connects - before.connects, 2U);
}

TEST_F(Statistics, OfDeadlinesCountThem)
{
    oryx::LocationService service;
    service.setSessionOptions({oryx::SessionOptions::Statements::bound, std::chrono::seconds(1)});
    ASSERT_TRUE(service.connect(m_database.uri().c_str(), server::kUser, server::kPassword).okay());
    m_proxy.swallow(true);
    int key = 0;
    EXPECT_TRUE(service.getPublicAddressKey("alice", "oryx.example", key).connectionError());
    m_proxy.swallow(false);
    EXPECT_EQ(service.getStatistics().late, 1U);
    EXPECT_GE(service.getStatistics().longest, std::chrono::milliseconds(900));
    EXPECT_EQ(service.getStatistics().lastError, "no answer within the deadline of 1000 ms");
}

/// How often the sink is told of an outage.
int reports = 0;

TEST_F(Statistics, TellTheOperatorOfAnOutageOnceAMinute)
{
    reports = 0;
    const zel::TraceSink before =
        zel::setTraceSink([](std::string_view channel, zel::TraceKind kind, std::string_view text) {
            reports += channel == "oryx" && kind == zel::TraceKind::log &&
                               text.starts_with("connections to the database are being lost")
                           ? 1
                           : 0;
        });
    m_proxy.refuse(true);
    m_proxy.hangUp();
    for (int i = 0; i < 5; ++i) {
        EXPECT_FALSE(lookUp().okay());
    }
    zel::setTraceSink(before);
    EXPECT_EQ(reports, 1);
}

} // namespace

} // namespace sessionStatisticsTest
