// Plain statements are what a service sends unless it is told otherwise, and both ways of sending tell the SQLSTATE.

#include "support/FakeLibpq.h"
#include "support/TraceLog.h"

#include <dal/DatabaseCommandExecutor.h>
#include <dal/LocationService.h>
#include <dal/PresenceDatabaseCommandExecutor.h>
#include <dal/PresenceService.h>
#include <dal/SessionOptions.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace sessionOptionsTest {

namespace {

using oryx::SessionOptions;

constexpr const char* kConnected = "connect dbname=oryx user=u password=p\nnotices\n";

template <typename Service>
class PlainService : public testing::Test {
};
using Services = testing::Types<oryx::LocationService, oryx::PresenceService>;
TYPED_TEST_SUITE(PlainService, Services);

TYPED_TEST(PlainService, ConnectsAsEver)
{
    fake::Libpq libpq;
    TypeParam service;
    service.setSessionOptions(SessionOptions());
    EXPECT_TRUE(service.connect("oryx", "u", "p").okay());
    EXPECT_EQ(libpq.take(), kConnected);
}

TYPED_TEST(PlainService, TellsOnceOfAWordThatItDoesNotKnow)
{
    setenv("ORYX_STATEMENTS", "binding", 1);
    fake::Libpq libpq;
    TraceLog trace;
    TypeParam service;
    service.connect("oryx", "u", "p");
    service.connect("oryx", "u", "p");
    unsetenv("ORYX_STATEMENTS");
    EXPECT_EQ(trace.take("oryx"),
              "oryx log: ORYX_STATEMENTS is \"binding\", not one of plain, bound: statements are plain\n");
}

template <typename Executor>
class PlainExecutor : public testing::Test {
};
using Executors = testing::Types<oryx::DatabaseCommandExecutor, oryx::PresenceDatabaseCommandExecutor>;
TYPED_TEST_SUITE(PlainExecutor, Executors);

TYPED_TEST(PlainExecutor, ConnectsAsEver)
{
    fake::Libpq libpq;
    TypeParam executor;
    executor.setSessionOptions(SessionOptions());
    EXPECT_TRUE(executor.connect("oryx", "u", "p"));
    EXPECT_EQ(libpq.take(), kConnected);
}

TYPED_TEST(PlainExecutor, TellsTheSqlStateOfARefusedStatement)
{
    fake::Libpq libpq;
    TypeParam executor;
    executor.connect("oryx", "u", "p");
    libpq.replies({fake::refused("57014"), fake::refused("57014"), fake::command()});
    const oryx::DatabaseResult refused = executor.execute("DELETE FROM contact;");
    EXPECT_TRUE(refused.queryError());
    EXPECT_EQ(refused.getSqlState(), "57014");
    EXPECT_EQ(executor.getSqlState(), "57014");
    EXPECT_EQ(executor.execute("DELETE FROM contact;").getSqlState(), "");
}

TYPED_TEST(PlainExecutor, TellsNoSqlStateOfALostConnection)
{
    fake::Libpq libpq;
    TypeParam executor;
    executor.connect("oryx", "u", "p");
    libpq.replies({fake::refused("57014"), fake::refused("57014")});
    executor.execute("DELETE FROM contact;");
    libpq.replies({fake::nothing(), fake::nothing()});
    const oryx::DatabaseResult lost = executor.execute("DELETE FROM contact;");
    EXPECT_TRUE(lost.connectionError());
    EXPECT_EQ(lost.getSqlState(), "");
    EXPECT_EQ(executor.getSqlState(), "");
}

/// What the environment asks for, as text, with the lines on the channel "oryx" behind it.
std::string asked(const char* statements, const char* deadline)
{
    setenv("ORYX_STATEMENTS", statements, 1);
    setenv("ORYX_DEADLINE", deadline, 1);
    TraceLog trace;
    const SessionOptions options = SessionOptions::fromEnvironment();
    unsetenv("ORYX_STATEMENTS");
    unsetenv("ORYX_DEADLINE");
    return (options.statements == SessionOptions::Statements::bound ? "bound " : "plain ") +
           std::to_string(options.deadline.count()) + "\n" + trace.take();
}

TEST(SessionOptionsTest, AreTakenFromTheEnvironment)
{
    EXPECT_EQ(asked("", ""), "plain 0\n");
    EXPECT_EQ(asked("plain", ""), "plain 0\n");
    EXPECT_EQ(asked("bound", ""), "bound 0\n");
    EXPECT_EQ(asked("bound", "500ms"), "bound 500\n");
    EXPECT_EQ(asked("bound", "2s"), "bound 2000\n");
}

TEST(SessionOptionsTest, TellOfWordsThatTheyDoNotKnow)
{
    EXPECT_EQ(asked("Bound", ""),
              "plain 0\noryx log: ORYX_STATEMENTS is \"Bound\", not one of plain, bound: statements are plain\n");
    for (const std::string word : {"2", "s", "0ms", "-1s", "2 s", "2m", "99999999999s", "3000000s"}) {
        EXPECT_EQ(asked("bound", word.c_str()), "bound 0\noryx log: ORYX_DEADLINE is \"" + word +
                                                    "\", not a time like 2s or 500ms: there is no deadline\n");
    }
    EXPECT_EQ(asked("plain", "2s"),
              "plain 2000\noryx log: ORYX_DEADLINE counts for bound statements only: set ORYX_STATEMENTS=bound\n");
}

} // namespace

} // namespace sessionOptionsTest
