#include "contract/Course.h"
#include "support/FakeLibpq.h"
#include "support/TableChanges.h"
#include "support/TraceLog.h"

#include <dal/DatabaseConnection.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace tableChangeNotificationTest {

namespace {

using fake::command;
using fake::nothing;
using fake::refused;

const std::vector<std::string> kTables = {
    "acp",        "extension",   "conf_state",          "conf_state_reset", "public_address",
    "subscriber", "contact_set", "sip_event_aggregator"};

std::string log(const std::string& text)
{
    return "DatabaseConnection log: " + text + "\n";
}

std::string prn(const std::string& text)
{
    return traceLines("DatabaseConnection", {text});
}

std::string attempt(const std::string& table)
{
    return prn("DatabaseConnection::listenForDbTableChangeNotification(): Attempting to LISTEN on " + table);
}

std::string success(const std::string& table)
{
    return attempt(table) +
           prn("DatabaseConnection::listenForDbTableChangeNotification(): --- SUCCESS ---: LISTEN on " + table);
}

std::string refusal(const std::string& table)
{
    return attempt(table) + log("DatabaseConnection::listenForDbTableChangeNotification(): *** ERROR ***: Failed to "
                                "exec LISTEN on on " +
                                table);
}

const std::string kResetting = prn("listenForDbTableChangeNotification: resetting the connection");
const std::string kResetFailed = log("listenForDbTableChangeNotification: reset failed");
const std::string kRetrying = log("listenForDbTableChangeNotification: connection reset, retrying query");
const std::string kFailedAgain = log("listenForDbTableChangeNotification: query listen failed even after reset");

/// The statements, or the trace, of the first `count` subscriptions.
std::string statements(std::size_t count = kTables.size())
{
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
        text += "exec LISTEN " + kTables.at(i) + "\n";
    }
    return text;
}

std::string successes(std::size_t count = kTables.size())
{
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
        text += success(kTables.at(i));
    }
    return text;
}

/// One turn of the wait, as libpq sees it.
const std::string kTurn = "consume\nnotifies\n";

const std::string kEarlier = "an earlier failure";
const std::string kAccepted = "true '" + kEarlier + "'\n";
const std::string kFailed = "false '" + kEarlier + "'\n";

class TableChange : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_connection.connect("registrar", "alice", "secret"));
        m_libpq.errorMessage(kServerGone);
        m_connection.error(kEarlier.c_str());
        m_libpq.take();
        m_trace.take();
    }

    /// What an operation returned, the error text it left, and what it asked of libpq.
    std::string told(bool returned)
    {
        return std::string(returned ? "true" : "false") + " '" + m_connection.getErrorMessage() + "'\n" +
               m_libpq.take();
    }

    std::string listen(const std::string& table = "subscriber")
    {
        return told(m_connection.listenForDbTableChangeNotification(table));
    }

    /// Waits with every subscription accepted.
    std::string wait()
    {
        m_libpq.replies(std::vector<fake::Reply>(kTables.size(), command()));
        return waitScripted();
    }
    std::string waitScripted() { return told(m_connection.waitOnListen(TableChanges::record)); }

    fake::Libpq m_libpq;
    TraceLog m_trace;
    oryx::DatabaseConnection m_connection;
};

using TableChangeSubscription = TableChange;

/// A wait whose callback answers every call with true: the first idle call ends it.
class TableChangeWait : public TableChange {
protected:
    TableChanges m_changes{[](bool /*changed*/, const std::string& /*table*/) { return true; }};
};

/// A wait with a callback of the test's own.
using TableChangeCallback = TableChange;

TEST_F(TableChangeSubscription, IsOneStatement)
{
    m_libpq.replies({command()});
    EXPECT_EQ(listen(), kAccepted + "exec LISTEN subscriber\n");
    EXPECT_EQ(m_trace.take(), success("subscriber"));
}

TEST_F(TableChangeSubscription, TakesTheNameAsItStands)
{
    m_libpq.replies({command()});
    EXPECT_EQ(listen("My \"table\" 100%s"), kAccepted + "exec LISTEN My \"table\" 100%s\n");
    EXPECT_EQ(m_trace.take(), success("My \"table\" 100%s"));
}

TEST_F(TableChangeSubscription, IsRefusedWithoutAReset)
{
    m_libpq.replies({refused("42601")});
    EXPECT_EQ(listen(), kFailed + "exec LISTEN subscriber\n");
    EXPECT_EQ(m_trace.take(), refusal("subscriber"));
}

TEST_F(TableChangeSubscription, IsAcceptedByACompletedCommandOnly)
{
    for (const ExecStatusType status : {PGRES_EMPTY_QUERY, PGRES_TUPLES_OK, PGRES_COPY_OUT, PGRES_NONFATAL_ERROR}) {
        m_libpq.replies({fake::status(status)});
        EXPECT_EQ(listen(), kFailed + "exec LISTEN subscriber\n") << status;
        EXPECT_EQ(m_trace.take(), refusal("subscriber"));
    }
}

TEST_F(TableChangeSubscription, FailsWhenTheConnectionIsLostForGood)
{
    m_libpq.replies({nothing()});
    m_libpq.resetsTo({CONNECTION_BAD});
    EXPECT_EQ(listen(), "false '" + kServerGone + "'\nexec LISTEN subscriber\nreset\n");
    EXPECT_EQ(m_trace.take(), attempt("subscriber") + kResetting + kResetFailed);
}

TEST_F(TableChangeSubscription, IsSentAgainAfterAReset)
{
    m_libpq.replies({nothing(), command()});
    EXPECT_EQ(listen(), "true ''\nexec LISTEN subscriber\nreset\nexec LISTEN subscriber\n");
    EXPECT_EQ(m_trace.take(), attempt("subscriber") + kResetting + kRetrying);
}

TEST_F(TableChangeSubscription, CountsAsAcceptedAfterAResetWhateverItsStatus)
{
    m_libpq.replies({nothing(), refused("42601")});
    EXPECT_EQ(listen(), "true ''\nexec LISTEN subscriber\nreset\nexec LISTEN subscriber\n");
    EXPECT_EQ(m_trace.take(), attempt("subscriber") + kResetting + kRetrying);
}

TEST_F(TableChangeSubscription, FailsWhenTheConnectionIsLostAgainAfterTheReset)
{
    m_libpq.replies({nothing(), nothing()});
    EXPECT_EQ(listen(), "false ''\nexec LISTEN subscriber\nreset\nexec LISTEN subscriber\n");
    EXPECT_EQ(m_trace.take(), attempt("subscriber") + kResetting + kRetrying + kFailedAgain);
}

TEST_F(TableChangeSubscription, ClearsItsLastResultAlsoWhereThatIsNone)
{
    m_libpq.replies({nothing()});
    m_libpq.resetsTo({CONNECTION_BAD});
    listen();
    EXPECT_EQ(m_libpq.nullsCleared(), 1);
    m_libpq.replies({nothing(), nothing()});
    listen();
    EXPECT_EQ(m_libpq.nullsCleared(), 2);
    m_libpq.replies({nothing(), command(), command(), refused("42601")});
    listen();
    listen();
    listen();
    EXPECT_EQ(m_libpq.nullsCleared(), 2);
}

TEST_F(TableChangeWait, SubscribesToEveryTableInOrderAndIsEndedByTheIdleCall)
{
    EXPECT_EQ(wait(), kAccepted + statements() + kTurn);
    EXPECT_EQ(m_changes.calls(), "false ''\n");
    EXPECT_EQ(m_trace.take(), successes());
}

TEST_F(TableChangeWait, DoesNotBeginWhenTheFirstSubscriptionIsRefused)
{
    m_libpq.replies({refused("42601")});
    EXPECT_EQ(waitScripted(), kFailed + statements(1));
    EXPECT_EQ(m_changes.calls(), "");
    EXPECT_EQ(m_trace.take(), refusal("acp"));
}

TEST_F(TableChangeWait, LeavesTheSubscriptionsBeforeARefusedOne)
{
    m_libpq.replies({command(), command(), command(), refused("42601")});
    EXPECT_EQ(waitScripted(), kFailed + statements(4));
    EXPECT_EQ(m_changes.calls(), "");
    EXPECT_EQ(m_trace.take(), successes(3) + refusal("conf_state_reset"));
}

TEST_F(TableChangeWait, GoesOnSubscribingAfterAReset)
{
    m_libpq.replies({nothing()});
    EXPECT_EQ(wait(), "true ''\nexec LISTEN acp\nreset\n" + statements() + kTurn);
    EXPECT_EQ(m_trace.take(), attempt("acp") + kResetting + kRetrying + successes().substr(success("acp").size()));
}

TEST_F(TableChangeWait, HandsOnANotification)
{
    m_libpq.notifies({"subscriber"});
    // Its answer to a change is true as well, and not read.
    EXPECT_EQ(wait(), kAccepted + statements() + kTurn + kTurn);
    EXPECT_EQ(m_changes.calls(), "true 'subscriber'\nfalse ''\n");
    EXPECT_EQ(m_trace.take(), successes() + prn("subscriber table updated"));
}

TEST_F(TableChangeWait, TakesOneNotificationAtATimeAndNoneForAnother)
{
    m_libpq.notifies({"subscriber", "subscriber", "contact_set"});
    EXPECT_EQ(wait(), kAccepted + statements() + kTurn + kTurn + kTurn + kTurn);
    EXPECT_EQ(m_changes.calls(), "true 'subscriber'\ntrue 'subscriber'\ntrue 'contact_set'\nfalse ''\n");
    EXPECT_EQ(m_trace.take(), successes() + prn("subscriber table updated") + prn("subscriber table updated") +
                                  prn("contact_set table updated"));
}

TEST_F(TableChangeWait, TakesANameAsItStands)
{
    m_libpq.notifies({"", "100%s"});
    EXPECT_EQ(wait(), kAccepted + statements() + kTurn + kTurn + kTurn);
    EXPECT_EQ(m_changes.calls(), "true ''\ntrue '100%s'\nfalse ''\n");
    EXPECT_EQ(m_trace.take(), successes() + prn(" table updated") + prn("100%s table updated"));
}

TEST_F(TableChangeWait, KeepsANotificationWithoutANameToItself)
{
    m_libpq.notifies({std::nullopt, "acp"});
    EXPECT_EQ(wait(), kAccepted + statements() + kTurn + kTurn + kTurn);
    EXPECT_EQ(m_changes.calls(), "true 'acp'\nfalse ''\n");
    EXPECT_EQ(m_trace.take(), successes() + log("notifier table has no name!") + prn("acp table updated"));
}

TEST_F(TableChangeWait, EndsWellWhenTheConnectionIsLostBeforeItsFirstTurn)
{
    m_libpq.loseConnection();
    EXPECT_EQ(wait(), kAccepted + statements());
    EXPECT_EQ(m_changes.calls(), "");
    EXPECT_EQ(m_trace.take(), successes());
}

TEST_F(TableChangeWait, FailsWithoutASocket)
{
    m_libpq.socket(-1);
    EXPECT_EQ(wait(), kFailed + statements());
    EXPECT_EQ(m_changes.calls(), "");
    EXPECT_EQ(m_trace.take(), successes() + log("waitOnListen::Failed to create socket descriptor"));
}

TEST_F(TableChangeWait, FailsWhenTheSocketIsClosed)
{
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    const int descriptor = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(close(descriptor), 0);
    m_libpq.socket(descriptor);
    EXPECT_EQ(wait(), kFailed + statements());
    EXPECT_EQ(m_changes.calls(), "");
    EXPECT_EQ(m_trace.take(), successes() + log("waitOnListen::select failed"));
}

TEST_F(TableChangeWait, FailsOnASocketBeyondItsReadSet)
{
    for (const int number : {65536, 65537, 1 << 20, 2147483647}) {
        m_libpq.socket(number);
        EXPECT_EQ(wait(), kFailed + statements()) << number;
        EXPECT_EQ(m_trace.take(), successes() + log("waitOnListen::select failed"));
    }
    EXPECT_EQ(m_changes.calls(), "");
}

TEST_F(TableChangeWait, TakesASocketBeyondThePlatformsReadSet)
{
    const int descriptor = open("/dev/null", O_RDONLY | O_CLOEXEC);
    const int beyond = fcntl(descriptor, F_DUPFD_CLOEXEC, 1024);
    close(descriptor);
    if (beyond < 0) {
        GTEST_SKIP() << "this process may not have so many descriptors";
    }
    m_libpq.socket(beyond);
    m_libpq.notifies({"subscriber"});
    EXPECT_EQ(wait(), kAccepted + statements() + kTurn + kTurn);
    EXPECT_EQ(m_changes.calls(), "true 'subscriber'\nfalse ''\n");
    close(beyond);
}

TEST_F(TableChangeCallback, IsCalledUntilItsIdleAnswerIsTrue)
{
    int idle = 0;
    TableChanges changes([&](bool changed, const std::string& /*table*/) {
        if (!changed && ++idle == 2) {
            m_libpq.notifies({"acp"});
        }
        return idle == 3;
    });
    EXPECT_EQ(wait(), kAccepted + statements() + kTurn + kTurn + kTurn + kTurn);
    EXPECT_EQ(changes.calls(), "false ''\nfalse ''\ntrue 'acp'\nfalse ''\n");
    EXPECT_EQ(m_trace.take(), successes() + prn("acp table updated"));
}

TEST_F(TableChangeCallback, IsNotCalledAgainOnceTheConnectionIsLost)
{
    TableChanges changes([&](bool /*changed*/, const std::string& /*table*/) {
        m_libpq.loseConnection();
        return false;
    });
    EXPECT_EQ(wait(), kAccepted + statements() + kTurn);
    EXPECT_EQ(changes.calls(), "false ''\n");
    EXPECT_EQ(m_trace.take(), successes());
}

TEST_F(TableChangeCallback, IsNotCalledForAnIdlePeriodOnceTheConnectionIsLost)
{
    m_libpq.notifies({"subscriber"});
    TableChanges changes([&](bool changed, const std::string& /*table*/) {
        if (changed) {
            m_libpq.loseConnection();
        }
        return false;
    });
    EXPECT_EQ(wait(), kAccepted + statements() + kTurn);
    EXPECT_EQ(changes.calls(), "true 'subscriber'\n");
}

TEST_F(TableChangeCallback, MayFollowAFormerWait)
{
    TableChanges changes([](bool changed, const std::string& /*table*/) { return !changed; });
    EXPECT_EQ(wait(), kAccepted + statements() + kTurn);
    m_libpq.notifies({"contact_set"});
    EXPECT_EQ(wait(), kAccepted + statements() + kTurn + kTurn);
    EXPECT_EQ(changes.calls(), "false ''\ntrue 'contact_set'\nfalse ''\n");
}

} // namespace

} // namespace tableChangeNotificationTest
