#include "contract/PresenceFixture.h"
#include "support/TableChanges.h"

namespace changesTest {

namespace {

using fake::Cell;
using fake::command;
using fake::noRows;
using fake::nothing;
using fake::refused;
using fake::rows;
using oryx::CMRecord;
using oryx::DatabaseUpdate;
using oryx::PresenceDatabaseCommandExecutor;

/// A wait whose callback answers every call with true: the first idle call ends it.
class ChangeWait : public PresenceTest {
protected:
    void SetUp() override
    {
        PresenceTest::SetUp();
        libpq.errorMessage(kServerGone);
        executor.error(kEarlierFailure.c_str());
    }

    /// Waits with every subscription accepted.
    std::string wait()
    {
        libpq.replies(std::vector<fake::Reply>(8, command()));
        return show(executor.waitForNotify(TableChanges::record));
    }

    TableChanges m_changes{[](bool /*changed*/, const std::string& /*table*/) { return true; }};
};

const std::string kSubscriptions = "exec LISTEN acp\n"
                                   "exec LISTEN extension\n"
                                   "exec LISTEN conf_state\n"
                                   "exec LISTEN conf_state_reset\n"
                                   "exec LISTEN public_address\n"
                                   "exec LISTEN subscriber\n"
                                   "exec LISTEN contact_set\n"
                                   "exec LISTEN sip_event_aggregator\n";

TEST_F(ChangeWait, HandsEveryNotificationOnAndIsEndedByTheIdleCall)
{
    libpq.notifies({"acp", "extension"});
    EXPECT_EQ(wait(), "okay");
    EXPECT_EQ(m_changes.calls(), "true 'acp'\ntrue 'extension'\nfalse ''\n");
    EXPECT_EQ(libpq.take(), kSubscriptions + "consume\nnotifies\nconsume\nnotifies\nconsume\nnotifies\n");
    EXPECT_EQ(traced(), presenceTrace({"waitForNotify() "}));
    EXPECT_EQ(executor.getErrorMessage(), kEarlierFailure);
}

TEST_F(ChangeWait, IsAnnouncedBeforeItSubscribes)
{
    EXPECT_EQ(wait(), "okay");
    EXPECT_TRUE(trace.take().starts_with(
        "PresenceDatabaseCommandExecutor prn: waitForNotify() \n"
        "DatabaseConnection prn: DatabaseConnection::listenForDbTableChangeNotification(): Attempting to LISTEN on acp\n"));
    libpq.take();
}

TEST_F(ChangeWait, EndsWellWhenTheConnectionIsLostInBetween)
{
    libpq.replies(std::vector<fake::Reply>(8, command()));
    TableChanges changes([this](bool /*changed*/, const std::string& /*table*/) {
        libpq.loseConnection();
        return false;
    });
    EXPECT_EQ(show(executor.waitForNotify(TableChanges::record)), "okay");
    EXPECT_EQ(changes.calls(), "false ''\n");
}

TEST_F(ChangeWait, FollowsAResetWhereTheConnectionWasLostBefore)
{
    libpq.loseConnection();
    EXPECT_EQ(wait(), "okay");
    EXPECT_EQ(libpq.take(), "reset\n" + kSubscriptions + "consume\nnotifies\n");
}

TEST_F(ChangeWait, DoesNotBeginOnAConnectionLostForGood)
{
    libpq.loseConnection();
    libpq.resetsTo({CONNECTION_BAD});
    EXPECT_EQ(show(executor.waitForNotify(TableChanges::record)), "connection error: " + kServerGone);
    EXPECT_EQ(executor.getErrorMessage(), kServerGone);
    EXPECT_EQ(libpq.take(), "reset\n");
    EXPECT_EQ(trace.take(), presenceTrace({"waitForNotify() "}));
    EXPECT_EQ(m_changes.calls(), "");
}

TEST_F(ChangeWait, FailsWithoutWordsWhereASubscriptionIsRefused)
{
    libpq.replies({command(), refused("42601")});
    EXPECT_EQ(show(executor.waitForNotify(TableChanges::record)), "connection error");
    EXPECT_EQ(executor.getErrorMessage(), "");
    EXPECT_EQ(libpq.take(), "exec LISTEN acp\nexec LISTEN extension\n");
    EXPECT_EQ(traced(), presenceTrace({"waitForNotify() "}));
    EXPECT_EQ(m_changes.calls(), "");
}

TEST_F(ChangeWait, FailsInTheConnectionsWordsWhereASubscriptionIsLostWithIt)
{
    libpq.replies({nothing()});
    libpq.resetsTo({CONNECTION_BAD});
    EXPECT_EQ(show(executor.waitForNotify(TableChanges::record)), "connection error: " + kServerGone);
    EXPECT_EQ(executor.getErrorMessage(), kServerGone);
    EXPECT_EQ(libpq.take(), "exec LISTEN acp\nreset\n");
}

TEST_F(ChangeWait, FailsWithoutASocket)
{
    libpq.socket(-1);
    EXPECT_EQ(wait(), "connection error");
    EXPECT_EQ(executor.getErrorMessage(), "");
    EXPECT_EQ(m_changes.calls(), "");
}

TEST(ChangeWaitWithoutAConnection, IsAConnectionError)
{
    const fake::Libpq libpq;
    TraceLog trace;
    PresenceDatabaseCommandExecutor executor;
    EXPECT_EQ(show(executor.waitForNotify(TableChanges::record)),
              "connection error: attempt to execute a command with no database connection");
    EXPECT_EQ(executor.getErrorMessage(), "attempt to execute a command with no database connection");
    EXPECT_EQ(trace.take(), presenceTrace({"waitForNotify() "}));
}

const std::string kAllChanges =
    "SELECT pk_int, pk_char, evt_timestamp FROM event_notify WHERE table_name = 'acp' AND evt_timestamp > 0;";
const std::string kChangesSince =
    "SELECT pk_int, pk_char, evt_timestamp FROM event_notify WHERE table_name = 'acp' AND evt_timestamp > '1700000000';";

const std::string kUpdateBefore = "update of 'before' key=1 'before' command='before' at 'before'\n";

std::string updatesOf(PresenceDatabaseCommandExecutor& executor, const std::string& table, const std::string& since)
{
    return appending(std::vector{DatabaseUpdate("before", 1, "before", "before", "before")},
                     [&](auto& updates) { return executor.getUpdatedPrimaryKeys(table, since, updates); });
}

/// A query whose statement is traced behind "sql: ".
PresenceOperation changesSince(const std::string& name, const std::string& since, const std::string& text)
{
    const std::string begun = presenceTrace({"getUpdatedPrimaryKeys()"});
    const std::string sent = begun + presenceTrace({"sql: " + text});
    const std::string found =
        presenceTrace({"retrieved 1 rows", "getUpdatedPrimaryKeys: DatabaseUpdate - [acp, 7, boston, , 1700000001] "});
    return {
        .name = name,
        .call = [since](auto& executor) { return updatesOf(executor, "acp", since); },
        .statement = text,
        .reply = rows({{"7", "boston", "1700000001"}}),
        .answers =
            statusThen(kUpdateBefore + "update of 'acp' key=7 'boston' command='' at '1700000001'\n", kUpdateBefore),
        .traces = {sent + found, begun, sent, sent},
        .answeredTrace = sent + answeredTrace(text) + found,
    };
}

class ChangeFeedStatement : public PresenceStatementTest {};

TEST_P(ChangeFeedStatement, AnswersForItsEndingAndLeavesTheReason)
{
    endsAsTheCourseDoes();
}

INSTANTIATE_TEST_SUITE_P(OnCourse, ChangeFeedStatement,
                         testing::ValuesIn(onEveryCourse({changesSince("sinceATime", "1700000000", kChangesSince),
                                                          changesSince("sinceTheBeginning", "", kAllChanges)})),
                         kRowName);

class ChangeFeedArguments : public PresenceRefusalTest {};

TEST_P(ChangeFeedArguments, AreRefusedWithoutAStatementOnceTheConnectionIsThere)
{
    sendsNothing();
}

INSTANTIATE_TEST_SUITE_P(That, ChangeFeedArguments,
                         testing::Values(refusal(
                             "NameNoTable", "getUpdatedPrimaryKeys()", "invalid parameters",
                             [](auto& executor) { return updatesOf(executor, "", "1700000000"); },
                             "\n" + kUpdateBefore)),
                         kRowName);

class ChangeFeedTest : public PresenceTest {};

TEST_F(ChangeFeedTest, GivesEveryChangeSinceZeroOrNoTime)
{
    libpq.replies({noRows(3), noRows(3)});
    updatesOf(executor, "acp", "0");
    updatesOf(executor, "acp", "");
    EXPECT_EQ(libpq.take(), "exec " + kAllChanges + "\nexec " + kAllChanges + "\n");
}

TEST_F(ChangeFeedTest, TakesAnyOtherTimeAndTheTableAsTheyStand)
{
    libpq.replies({noRows(3), noRows(3), noRows(3)});
    updatesOf(executor, "acp", "00");
    updatesOf(executor, "acp", " ");
    updatesOf(executor, "o'brien", "100%s'");
    EXPECT_EQ(
        libpq.take(),
        "exec SELECT pk_int, pk_char, evt_timestamp FROM event_notify WHERE table_name = 'acp' AND evt_timestamp > '00';\n"
        "exec SELECT pk_int, pk_char, evt_timestamp FROM event_notify WHERE table_name = 'acp' AND evt_timestamp > ' ';\n"
        "exec SELECT pk_int, pk_char, evt_timestamp FROM event_notify WHERE table_name = 'o'brien' AND evt_timestamp > '100%s'';\n");
    EXPECT_TRUE(traced().ends_with(presenceTrace(
        {"sql: SELECT pk_int, pk_char, evt_timestamp FROM event_notify WHERE table_name = 'o'brien' AND evt_timestamp > '100%s'';",
         "retrieved 0 rows"})));
}

TEST_F(ChangeFeedTest, WithoutChangesIsNotFound)
{
    executor.error(kEarlierFailure.c_str());
    libpq.replies({noRows(3)});
    EXPECT_EQ(updatesOf(executor, "acp", "1700000000"), "not found\n" + kUpdateBefore);
    EXPECT_EQ(traced(), presenceTrace({"getUpdatedPrimaryKeys()", "sql: " + kChangesSince, "retrieved 0 rows"}));
    EXPECT_EQ(executor.getErrorMessage(), kEarlierFailure);
}

TEST_F(ChangeFeedTest, GivesTheChangesInTheOrderTheyCome)
{
    libpq.replies({rows({{"7", "boston", "1700000001"}, {"12abc", "", "1700000002"}, {"-1", "100%s", "x"}})});
    EXPECT_EQ(updatesOf(executor, "acp", "0"), "okay\n" + kUpdateBefore +
                                                   "update of 'acp' key=7 'boston' command='' at '1700000001'\n"
                                                   "update of 'acp' key=12 '' command='' at '1700000002'\n"
                                                   "update of 'acp' key=-1 '100%s' command='' at 'x'\n");
    EXPECT_EQ(traced(), presenceTrace({"getUpdatedPrimaryKeys()", "sql: " + kAllChanges, "retrieved 3 rows",
                                       "getUpdatedPrimaryKeys: DatabaseUpdate - [acp, 7, boston, , 1700000001] ",
                                       "getUpdatedPrimaryKeys: DatabaseUpdate - [acp, 12, , , 1700000002] ",
                                       "getUpdatedPrimaryKeys: DatabaseUpdate - [acp, -1, 100%s, , x] "}));
}

TEST_F(ChangeFeedTest, KeepsTheFormerRowsTextWhereAColumnIsNull)
{
    libpq.replies({rows({{"7", "boston", "1700000001"},
                         {std::nullopt, "dallas", "1700000002"},
                         {"8", std::nullopt, "1700000003"},
                         {"9", "", std::nullopt},
                         {std::nullopt, std::nullopt, std::nullopt}})});
    EXPECT_EQ(updatesOf(executor, "acp", "0"), "okay\n" + kUpdateBefore +
                                                   "update of 'acp' key=7 'boston' command='' at '1700000001'\n"
                                                   "update of 'acp' key=7 'dallas' command='' at '1700000002'\n"
                                                   "update of 'acp' key=8 'dallas' command='' at '1700000003'\n"
                                                   "update of 'acp' key=9 '' command='' at '1700000003'\n"
                                                   "update of 'acp' key=9 '' command='' at '1700000003'\n");
}

TEST_F(ChangeFeedTest, BeginsEmptyWhereTheFirstRowIsNull)
{
    libpq.replies({rows({{std::nullopt, std::nullopt, std::nullopt}})});
    EXPECT_EQ(updatesOf(executor, "acp", "0"),
              "okay\n" + kUpdateBefore + "update of 'acp' key=0 '' command='' at ''\n");
}

const std::string kAllCallManagers = "SELECT handle,link_type,sip_trunk_ipaddress,sip_port FROM acp ;";
const std::string kOneCallManager =
    "SELECT handle,link_type,sip_trunk_ipaddress,sip_port FROM acp WHERE handle = 'boston' AND sip_trunk_ipaddress = '10.0.0.1' AND link_type = 'udp' AND sip_port = '5070';";

const std::string kBulk = "PresenceDatabaseCommandExecutor::getCMforBulkSub(): ";
const std::string kBulkBegun = "getCMforBulkSub(): getCMRecord ...";
const std::string kRunner = "PresenceDatabaseCommandExecutor::executeSqlCmd";

CMRecord callManager(const char* handle, const char* address, const char* type, const char* port)
{
    CMRecord rec;
    rec.SetHandle(handle);
    rec.SetIPAddress(address);
    rec.SetPort(port);
    rec.SetLinkType(type);
    return rec;
}

std::string callManagers(PresenceDatabaseCommandExecutor& executor, const std::vector<CMRecord>& pattern,
                         bool regexMatch = false)
{
    return appending(pattern, [&](auto& records) { return executor.getCMforBulkSub(records, regexMatch); });
}

/// Any failure once the connection was there means that there are no call managers.
PresenceOperation getCMforBulkSub()
{
    const std::string begun = presenceTrace({kBulkBegun});
    const std::string sent =
        begun + presenceTrace({kBulk + kOneCallManager, kRunner + "(): ", kRunner + "(): '" + kOneCallManager + "'"});
    const auto ended = [](const std::string& how) {
        return presenceTrace(
            {kRunner + ": '" + kOneCallManager + "': " + how, "cmRecordList size 0", kBulk + "subscriptions size 0 "});
    };
    const std::string found = presenceTrace({kRunner + ": retrieved 1 rows.", kRunner + ": 1 rows affected!",
                                             "cmRecordList size 1", kBulk + "subscriptions size 1 "});
    return {
        .name = "getCMforBulkSub",
        .call =
            [](auto& executor) {
                return callManagers(executor, {callManager("boston", "10.0.0.1", "udp", "5070"),
                                               callManager("dallas", "10.0.0.2", "tcp", "5080")});
            },
        .statement = kOneCallManager,
        .reply = rows({{"boston", "tls", "10.0.0.9", "5090"}}),
        .answers = {"okay\ncall manager 'boston' type='tls' address='10.0.0.9' port='5090'\n",
                    "connection error: {}\n"
                    "call manager 'boston' type='udp' address='10.0.0.1' port='5070'\n"
                    "call manager 'dallas' type='tcp' address='10.0.0.2' port='5080'\n",
                    "okay\n", "okay\n"},
        .traces = {sent + found, begun, sent + ended("errorConnection() failed!"),
                   sent + ended("queryResult.failed()!")},
        .answeredTrace = sent + answeredTrace(kOneCallManager) + found,
    };
}

class CallManagerStatement : public PresenceStatementTest {};

TEST_P(CallManagerStatement, AnswersForItsEndingAndLeavesTheReason)
{
    endsAsTheCourseDoes();
}

INSTANTIATE_TEST_SUITE_P(OnCourse, CallManagerStatement, testing::ValuesIn(onEveryCourse({getCMforBulkSub()})),
                         kRowName);

class CallManagerTest : public PresenceTest {
protected:
    std::string asks(const std::vector<CMRecord>& pattern, bool regexMatch)
    {
        libpq.replies({noRows(4)});
        EXPECT_EQ(callManagers(executor, pattern, regexMatch), "okay\n");
        return libpq.take();
    }

    std::string finds(const fake::Rows& found)
    {
        libpq.replies({rows(found)});
        return callManagers(executor, {});
    }
};

TEST_F(CallManagerTest, AreAllAskedForWithoutAPattern)
{
    EXPECT_EQ(asks({}, false), "exec " + kAllCallManagers + "\n");
    EXPECT_EQ(asks({}, true), "exec " + kAllCallManagers + "\n");
    EXPECT_EQ(asks({CMRecord()}, false), "exec " + kAllCallManagers + "\n");
    EXPECT_EQ(asks({CMRecord(), callManager("dallas", "10.0.0.2", "tcp", "5080")}, true),
              "exec " + kAllCallManagers + "\n");
}

TEST_F(CallManagerTest, AreAskedForByEachValueOfThePattern)
{
    EXPECT_EQ(asks({callManager("boston", nullptr, nullptr, nullptr)}, false),
              "exec SELECT handle,link_type,sip_trunk_ipaddress,sip_port FROM acp WHERE handle = 'boston';\n");
    EXPECT_EQ(
        asks({callManager(nullptr, "10.0.0.1", nullptr, nullptr)}, false),
        "exec SELECT handle,link_type,sip_trunk_ipaddress,sip_port FROM acp WHERE sip_trunk_ipaddress = '10.0.0.1';\n");
    EXPECT_EQ(asks({callManager(nullptr, nullptr, "udp", nullptr)}, false),
              "exec SELECT handle,link_type,sip_trunk_ipaddress,sip_port FROM acp WHERE link_type = 'udp';\n");
    EXPECT_EQ(asks({callManager(nullptr, nullptr, nullptr, "5070")}, false),
              "exec SELECT handle,link_type,sip_trunk_ipaddress,sip_port FROM acp WHERE sip_port = '5070';\n");
}

TEST_F(CallManagerTest, AreAskedForByHandleAddressTypeAndPortInThisOrder)
{
    EXPECT_EQ(
        asks({callManager("boston", nullptr, nullptr, "5070")}, false),
        "exec SELECT handle,link_type,sip_trunk_ipaddress,sip_port FROM acp WHERE handle = 'boston' AND sip_port = '5070';\n");
    EXPECT_EQ(
        asks({callManager("boston", "10.0.0.1:5080", nullptr, nullptr)}, false),
        "exec SELECT handle,link_type,sip_trunk_ipaddress,sip_port FROM acp WHERE handle = 'boston' AND sip_trunk_ipaddress = '10.0.0.1' AND sip_port = '5080';\n");
    EXPECT_EQ(
        asks({callManager("bos.*", "^10[.]", "TLS", "50%")}, true),
        "exec SELECT handle,link_type,sip_trunk_ipaddress,sip_port FROM acp WHERE handle ~* 'bos.*' AND sip_trunk_ipaddress ~* '^10[.]' AND link_type ~* 'TLS' AND sip_port ~* '50%';\n");
}

TEST_F(CallManagerTest, OfTypeTlsAreAskedForWithItsDefaultPortToo)
{
    EXPECT_EQ(
        asks({callManager(nullptr, nullptr, "tls", nullptr)}, true),
        "exec SELECT handle,link_type,sip_trunk_ipaddress,sip_port FROM acp WHERE link_type ~* 'tls' AND sip_port ~* '5061';\n");
}

TEST_F(CallManagerTest, AreAskedForAndTracedInTheWordsOfThePatternAsTheyStand)
{
    const std::string statement =
        "SELECT handle,link_type,sip_trunk_ipaddress,sip_port FROM acp WHERE handle = 'o'brien 100%s';";
    EXPECT_EQ(asks({callManager("o'brien 100%s", nullptr, nullptr, nullptr)}, false), "exec " + statement + "\n");
    EXPECT_EQ(traced(),
              presenceTrace({kBulkBegun, kBulk + statement, kRunner + "(): ", kRunner + "(): '" + statement + "'",
                             kRunner + ": 0 rows selected (Query) or affected (Update, Insert, or Delete)!",
                             "cmRecordList size 0", kBulk + "subscriptions size 0 "}));
}

TEST_F(CallManagerTest, ThatAreNoneLeaveNotEvenThePattern)
{
    libpq.replies({noRows(4)});
    EXPECT_EQ(callManagers(executor, {callManager("boston", "10.0.0.1", "udp", "5070")}), "okay\n");
}

TEST_F(CallManagerTest, ReplaceThePatternInTheOrderTheyCome)
{
    libpq.replies({rows({{"boston", "tcp", "10.0.0.1", "5070"}, {"dallas", "udp", "10.0.0.2", "5080"}})});
    EXPECT_EQ(callManagers(executor, {callManager(".", nullptr, nullptr, nullptr)}, true),
              "okay\n"
              "call manager 'boston' type='tcp' address='10.0.0.1' port='5070'\n"
              "call manager 'dallas' type='udp' address='10.0.0.2' port='5080'\n");
    EXPECT_TRUE(traced().ends_with(presenceTrace({kRunner + ": retrieved 2 rows.", kRunner + ": 2 rows affected!",
                                                  "cmRecordList size 2", kBulk + "subscriptions size 2 "})));
}

TEST_F(CallManagerTest, WithAPortInTheAddressHaveThatPort)
{
    EXPECT_EQ(finds({{"boston", "tcp", "10.0.0.1:5080", "5070"}}),
              "okay\ncall manager 'boston' type='tcp' address='10.0.0.1' port='5080'\n");
    EXPECT_EQ(finds({{"boston", "tls", "10.0.0.1:", ""}}),
              "okay\ncall manager 'boston' type='tls' address='10.0.0.1' port=''\n");
}

TEST_F(CallManagerTest, WithoutAPortHaveTheDefaultOfTheirType)
{
    EXPECT_EQ(finds({{"a", "tcp", "10.0.0.1", ""},
                     {"b", "tls", "10.0.0.2", ""},
                     {"c", "tls", "10.0.0.3", std::nullopt},
                     {"d", "udp", "10.0.0.4", ""},
                     {"e", "TCP", "10.0.0.5", std::nullopt}}),
              "okay\n"
              "call manager 'a' type='tcp' address='10.0.0.1' port='5060'\n"
              "call manager 'b' type='tls' address='10.0.0.2' port='5061'\n"
              "call manager 'c' type='tls' address='10.0.0.3' port='5061'\n"
              "call manager 'd' type='udp' address='10.0.0.4' port=''\n"
              "call manager 'e' type='TCP' address='10.0.0.5' port=''\n");
}

TEST_F(CallManagerTest, AreWithoutWhatIsNull)
{
    const std::vector<Cell> row = {"boston", "tcp", "10.0.0.1", "5070"};
    EXPECT_EQ(finds({withNull(row, 0), withNull(row, 1), withNull(row, 2), withNull(row, 3)}),
              "okay\n"
              "call manager '' type='tcp' address='10.0.0.1' port='5070'\n"
              "call manager 'boston' type='' address='10.0.0.1' port='5070'\n"
              "call manager 'boston' type='tcp' address='' port='5070'\n"
              "call manager 'boston' type='tcp' address='10.0.0.1' port='5060'\n");
}

} // namespace

} // namespace changesTest
