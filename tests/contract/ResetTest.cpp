#include "contract/PresenceFixture.h"

namespace resetTest {

namespace {

using fake::command;
using fake::nothing;
using fake::refused;
using Executor = oryx::PresenceDatabaseCommandExecutor;

const std::string kReset =
    "BEGIN TRANSACTION;DELETE FROM SUBSCRIPTION_STATES;DELETE FROM EVENT_WATCHERS;DELETE FROM EVENT_SOURCES;DELETE FROM LISTSUBSCRIPTIONS;DELETE FROM WATCHERINFO;COMMIT TRANSACTION;";

PresenceOperation removeEventServerState()
{
    PresenceOperation operation = insertOrDelete({
        .name = "removeEventServerState",
        .operation = "removeEventServerState()",
        .call = [](Executor& executor) { return show(executor.removeEventServerState()); },
        .text = kReset,
        .reply = command(),
    });
    operation.rollsBack = true;
    operation.rollsBackWhenLost = true;
    operation.traces.connectionFailed +=
        presenceTrace({"transaction failed because of connection error, rolling back"});
    operation.traces.queryFailed += presenceTrace({"transaction failed, rolling back"});
    return operation;
}

std::vector<PresenceOperation> operations()
{
    return {
        insertOrDelete({
            .name = "removeSubscriptionStates",
            .operation = "removeSubscriptionStates()",
            .call = [](Executor& executor) { return show(executor.removeSubscriptionStates()); },
            .text = "DELETE FROM subscription_states;",
            .reply = command("3"),
        }),
        insertOrDelete({
            .name = "removeEventWatchers",
            .operation = "removeEventWatchers()",
            .call = [](Executor& executor) { return show(executor.removeEventWatchers()); },
            .text = "DELETE FROM event_watchers;",
            .reply = command("3"),
        }),
        insertOrDelete({
            .name = "removeEventSources",
            .operation = "removeEventSources()",
            .call = [](Executor& executor) { return show(executor.removeEventSources()); },
            .text = "DELETE FROM event_sources;",
            .reply = command("3"),
        }),
        insertOrDelete({
            .name = "removeListWatchers",
            .operation = "removeListWatchers()",
            .call = [](Executor& executor) { return show(executor.removeListWatchers()); },
            .text = "DELETE FROM listsubscriptions;",
            .reply = command("3"),
        }),
        insertOrDelete({
            .name = "removeWinfoWatchers",
            .operation = "removeWinfoWatchers()",
            .call = [](Executor& executor) { return show(executor.removeWinfoWatchers()); },
            .text = "DELETE FROM watcherinfo;",
            .reply = command("3"),
        }),
        removeEventServerState(),
    };
}

class ResetStatement : public PresenceStatementTest {};

TEST_P(ResetStatement, AnswersForItsEndingAndLeavesTheReason)
{
    endsAsTheCourseDoes();
}

INSTANTIATE_TEST_SUITE_P(OnCourse, ResetStatement, testing::ValuesIn(onEveryCourse(andTouchingNoRow(operations()))),
                         kRowName);

class ResetTest : public PresenceTest {};

TEST_F(ResetTest, RemovingFromAnEmptyTableIsOkay)
{
    libpq.replies({command("0"), command("0"), command("0"), command("0"), command("0"), command()});
    EXPECT_EQ(show(executor.removeSubscriptionStates()), "okay");
    EXPECT_EQ(show(executor.removeEventWatchers()), "okay");
    EXPECT_EQ(show(executor.removeEventSources()), "okay");
    EXPECT_EQ(show(executor.removeListWatchers()), "okay");
    EXPECT_EQ(show(executor.removeWinfoWatchers()), "okay");
    EXPECT_EQ(show(executor.removeEventServerState()), "okay");
}

TEST_F(ResetTest, AWholeResetIsOneRequest)
{
    libpq.replies({command()});
    EXPECT_EQ(show(executor.removeEventServerState()), "okay");
    EXPECT_EQ(libpq.take(), "exec " + kReset + "\n");
    EXPECT_EQ(trace.take(),
              presenceTrace({"removeEventServerState()", kReset}) + answeredTrace(kReset, PGRES_COMMAND_OK));
}

TEST_F(ResetTest, AWholeResetThatIsRefusedIsRolledBackOnce)
{
    libpq.replies({refused("42601"), refused("42601"), command()});
    EXPECT_EQ(show(executor.removeEventServerState()), "connection error: " + spliced(kRefused, kReset));
    EXPECT_EQ(libpq.take(), "exec " + kReset + "\nreset\nexec " + kReset + "\nexec ROLLBACK\n");
    EXPECT_EQ(trace.take("PresenceDatabaseCommandExecutor"),
              presenceTrace({"removeEventServerState()", kReset, "transaction failed, rolling back"}));
}

TEST_F(ResetTest, AWholeResetWhoseConnectionIsLostIsRolledBackOnce)
{
    libpq.replies({nothing(), nothing(), command()});
    executor.error("an earlier failure");
    EXPECT_EQ(show(executor.removeEventServerState()), "connection error: an earlier failure");
    EXPECT_EQ(libpq.take(), "exec " + kReset + "\nreset\nexec " + kReset + "\nexec ROLLBACK\n");
}

TEST_F(ResetTest, ARollbackThatFindsNoConnectionEitherChangesNothing)
{
    libpq.resetsTo({CONNECTION_BAD, CONNECTION_BAD});
    libpq.replies({nothing(), nothing()});
    executor.error("an earlier failure");
    EXPECT_EQ(show(executor.removeEventServerState()), "connection error: an earlier failure");
    EXPECT_EQ(executor.getErrorMessage(), "an earlier failure");
    EXPECT_EQ(libpq.take(), "exec " + kReset + "\nreset\nexec ROLLBACK\nreset\n");
}

TEST_F(ResetTest, AConnectionThatIsLostWithoutAnEarlierFailureLeavesTheMessageEmpty)
{
    libpq.replies({nothing(), nothing()});
    EXPECT_EQ(show(executor.removeEventWatchers()), "connection error");
    EXPECT_EQ(executor.getErrorMessage(), "");
}

} // namespace

} // namespace resetTest
