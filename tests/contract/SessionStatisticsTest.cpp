// What services and executors count of their connections and statements.

#include "support/FakeLibpq.h"

#include <dal/DatabaseCommandExecutor.h>
#include <dal/DatabaseConnection.h>
#include <dal/LocationService.h>
#include <dal/PresenceDatabaseCommandExecutor.h>
#include <dal/PresenceService.h>
#include <dal/QueryResult.h>
#include <dal/SessionStatistics.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>

namespace sessionStatisticsTest {

namespace {

using oryx::SessionStatistics;

std::string show(const SessionStatistics& statistics)
{
    return std::to_string(statistics.connects) + " connects, " + std::to_string(statistics.failures) + " failures, " +
           std::to_string(statistics.losses) + " losses, " + std::to_string(statistics.repetitions) + " repetitions, " +
           std::to_string(statistics.refusals) + " refusals, " + std::to_string(statistics.late) +
           " late: " + statistics.lastError;
}

template <typename Client>
class Counting : public testing::Test {
protected:
    fake::Libpq m_libpq;
};
using Clients = testing::Types<oryx::LocationService, oryx::PresenceService, oryx::DatabaseCommandExecutor,
                               oryx::PresenceDatabaseCommandExecutor, oryx::DatabaseConnection>;
TYPED_TEST_SUITE(Counting, Clients);

TYPED_TEST(Counting, BeginsWithNothing)
{
    const TypeParam service;
    EXPECT_EQ(show(service.getStatistics()), "0 connects, 0 failures, 0 losses, 0 repetitions, 0 refusals, 0 late: ");
    EXPECT_EQ(service.getStatistics().longest.count(), 0);
    EXPECT_EQ(service.getStatistics().lastErrorAt, std::chrono::system_clock::time_point());
}

TYPED_TEST(Counting, CountsWhatCannotBeConnected)
{
    TypeParam service;
    this->m_libpq.connectsWith(CONNECTION_BAD, "connection to server failed: no password=secret\n");
    service.connect("oryx", "u", "p");
    EXPECT_EQ(show(service.getStatistics()), "0 connects, 1 failures, 0 losses, 0 repetitions, 0 refusals, 0 late: "
                                             "connection to server failed: no password=***");
    EXPECT_NE(service.getStatistics().lastErrorAt, std::chrono::system_clock::time_point());
}

TEST(ConnectionStatistics, CountWhatIsAskedForAgain)
{
    fake::Libpq libpq;
    oryx::DatabaseConnection connection;
    connection.connect("oryx", "u", "p");
    connection.reset();
    libpq.errorMessage("no server\n");
    libpq.resetsTo({CONNECTION_BAD});
    connection.reset();
    EXPECT_EQ(show(connection.getStatistics()),
              "2 connects, 1 failures, 0 losses, 0 repetitions, 0 refusals, 0 late: no server");
}

template <typename Executor>
class CountingStatements : public testing::Test {
protected:
    void SetUp() override { m_executor.connect("oryx", "u", "p"); }

    fake::Libpq m_libpq;
    Executor m_executor;
};
using Executors = testing::Types<oryx::DatabaseCommandExecutor, oryx::PresenceDatabaseCommandExecutor>;
TYPED_TEST_SUITE(CountingStatements, Executors);

TYPED_TEST(CountingStatements, CountsARefusedStatementOnce)
{
    this->m_libpq.replies({fake::refused("23505"), fake::refused("23505")});
    this->m_executor.execute("INSERT INTO contact");
    EXPECT_EQ(show(this->m_executor.getStatistics()), "2 connects, 0 failures, 0 losses, 1 repetitions, 1 refusals, 0 "
                                                      "late: a statement was refused: 23505");
}

TYPED_TEST(CountingStatements, CountsALossWithoutAnAnswer)
{
    this->m_libpq.errorMessage("no connection to the server\n");
    this->m_libpq.replies({fake::nothing(), fake::command()});
    this->m_executor.execute("DELETE FROM contact");
    EXPECT_EQ(show(this->m_executor.getStatistics()), "2 connects, 0 failures, 1 losses, 1 repetitions, 0 refusals, 0 "
                                                      "late: no connection to the server");
}

TYPED_TEST(CountingStatements, CountsALossThatTheServerTellsOf)
{
    this->m_libpq.errorMessage("FATAL:  terminating connection\n");
    this->m_libpq.replies({fake::refused("57P01"), fake::command()});
    this->m_executor.execute("DELETE FROM contact");
    EXPECT_EQ(show(this->m_executor.getStatistics()), "2 connects, 0 failures, 1 losses, 1 repetitions, 0 refusals, 0 "
                                                      "late: FATAL:  terminating connection");
}

TYPED_TEST(CountingStatements, CountsAcrossConnections)
{
    this->m_executor.connect("oryx", "u", "p");
    EXPECT_EQ(this->m_executor.getStatistics().connects, 2U);
}

TYPED_TEST(CountingStatements, CountsForTheProcessToo)
{
    const SessionStatistics before = SessionStatistics::ofProcess();
    this->m_libpq.replies({fake::refused("23505"), fake::refused("23505")});
    this->m_executor.execute("INSERT INTO contact");
    const SessionStatistics after = SessionStatistics::ofProcess();
    EXPECT_EQ(after.refusals - before.refusals, 1U);
    EXPECT_EQ(after.repetitions - before.repetitions, 1U);
    EXPECT_EQ(after.connects - before.connects, 1U);
    EXPECT_EQ(after.lastError, "a statement was refused: 23505");
}

} // namespace

} // namespace sessionStatisticsTest
