#include "contract/PresenceFixture.h"

namespace watchersTest {

namespace {

using fake::Cell;
using fake::command;
using fake::noRows;
using fake::refused;
using fake::rows;
using oryx::WatchersRecord;
using Executor = oryx::PresenceDatabaseCommandExecutor;

const std::string kOfPresentity =
    "SELECT watcheropaque,doctype,watchertype,watcherstate,expirytime,watcheridentity,presentity,docversion,remotecontacthdr FROM event_watchers,subscription_states WHERE presentitykey ='bob#pre%sence' and watcheropaque=subscriptionid;";
const std::string kOne =
    "SELECT watcheropaque,doctype,watchertype,watcherstate,expirytime,watcheridentity,presentity,docversion FROM event_watchers WHERE presentitykey ='bob#presence' and watcheropaque='incoming#1%s';";
const std::string kMatching =
    "SELECT watcheropaque,doctype,watchertype,watcherstate,expirytime,watcheridentity,presentity,docversion  FROM event_watchers WHERE presentitykey like '%%bob#presence%%';";
const std::string kAdd =
    "INSERT INTO event_watchers (presentitykey,watcheropaque,doctype,docversion,watchertype,watcherstate,expirytime,watcheridentity,event,presentity) VALUES('carol#dialog','incoming#9',91,95,92,93,94,'dave','dialog','sip:carol@example.com');";

/// Rows of two watchers; where their dialogs are asked for too, the remote contact comes behind.
const std::vector<Cell> kRow = {"incoming#1", "2", "3", "4", "1700000000", "alice", "sip:bob@oryx.example", "5"};
const std::vector<Cell> kSecondRow = {"incoming#2",          "12", "13", "14", "1800000000", "dave",
                                      "sip:bob@example.com", "15"};

std::vector<Cell> withContact(std::vector<Cell> row, const Cell& contact)
{
    row.push_back(contact);
    return row;
}

const std::vector<Cell> kDialogRow = withContact(kRow, "<sip:alice@192.0.2.1>");
const std::vector<Cell> kSecondDialogRow = withContact(kSecondRow, "<sip:dave@192.0.2.2>");

const std::string kReadOfPresentity =
    "watcher 'incoming#1' of 'bob#pre%sence' doctype=2 type=3 state=4 expires=1700000000 identity='alice' presentity='sip:bob@oryx.example' version=5 event='' contact='<sip:alice@192.0.2.1>'\n";
const std::string kSecondReadOfPresentity =
    "watcher 'incoming#2' of 'bob#pre%sence' doctype=12 type=13 state=14 expires=1800000000 identity='dave' presentity='sip:bob@example.com' version=15 event='' contact='<sip:dave@192.0.2.2>'\n";
const std::string kReadOfMatching =
    "watcher 'incoming#1' of 'sip:bob@oryx.example' doctype=2 type=3 state=4 expires=1700000000 identity='alice' presentity='sip:bob@oryx.example' version=5 event='' contact=''\n";
const std::string kSecondReadOfMatching =
    "watcher 'incoming#2' of 'sip:bob@example.com' doctype=12 type=13 state=14 expires=1800000000 identity='dave' presentity='sip:bob@example.com' version=15 event='' contact=''\n";

WatchersRecord before()
{
    return {"carol#dialog",           "incoming#9", 91, 92, 93, 94, "dave", "sip:carol@example.com", 95, "dialog",
            "<sip:dave@198.51.100.9>"};
}

const std::string kBefore =
    "watcher 'incoming#9' of 'carol#dialog' doctype=91 type=92 state=93 expires=94 identity='dave' presentity='sip:carol@example.com' version=95 event='dialog' contact='<sip:dave@198.51.100.9>'\n";

std::string listsOfPresentity(Executor& executor)
{
    return appending<WatchersRecord>({before()},
                                     [&](auto& records) { return executor.getWatcherState("bob#pre%sence", records); });
}

std::string listsMatching(Executor& executor)
{
    return appending<WatchersRecord>({before()},
                                     [&](auto& records) { return executor.getWatchers(records, "presence", "bob"); });
}

std::string isThere(Executor& executor)
{
    return show(executor.getWatcherState("bob#presence", "incoming#1%s")) + "\n";
}

std::vector<PresenceOperation> queries()
{
    return {
        query({"getWatcherStateOfAPresentity",
               "getWatcherState()",
               listsOfPresentity,
               kOfPresentity,
               rows({kDialogRow}),
               {"retrieved 1 rows"}},
              "okay\n" + kBefore + kReadOfPresentity, kBefore),
        query({"getWatcherStateOfAPresentityWithoutAny",
               "getWatcherState()",
               listsOfPresentity,
               kOfPresentity,
               noRows(9),
               {"retrieved 0 rows"}},
              "okay\n" + kBefore, kBefore),
        query({"getWatcherState", "getWatcherState()", isThere, kOne, rows({kRow}), {"retrieved 1 rows"}}, "okay\n",
              ""),
        query({"getWatcherStateThatIsThereTwice",
               "getWatcherState()",
               isThere,
               kOne,
               rows({kRow, kSecondRow}),
               {"retrieved 2 rows"}},
              "okay\n", ""),
        query({"getWatcherStateThatIsNotThere", "getWatcherState()", isThere, kOne, noRows(8), {"retrieved 0 rows"}},
              "not found\n", ""),
        query({"getWatchers", "getWatchers", listsMatching, kMatching, rows({kRow}), {"retrieved 1 rows"}},
              "okay\n" + kBefore + kReadOfMatching, kBefore),
        query({"getWatchersWithoutAny", "getWatchers", listsMatching, kMatching, noRows(8), {"retrieved 0 rows"}},
              "not found\n" + kBefore, kBefore),
    };
}

std::vector<PresenceOperation> changes()
{
    return {
        insertOrDelete({
            .name = "addWatcherState",
            .operation = "addWatcherState()",
            .call = [](Executor& executor) { return show(executor.addWatcherState(before())); },
            .text = kAdd,
        }),
        insertOrDelete({
            .name = "deleteWatcherState",
            .operation = "deleteWatcherState()",
            .call = [](Executor& executor) { return show(executor.deleteWatcherState("bob#presence", "al%ice")); },
            .text = "DELETE FROM event_watchers WHERE watcheropaque = 'al%ice' AND presentitykey='bob#presence';",
        }),
        update({
            .name = "updateWatcherState",
            .operation = "updateWatcherState()",
            .call = [](Executor& executor) { return show(executor.updateWatcherState("bob#presence", "al%ice", 7)); },
            .text =
                "UPDATE event_watchers SET watcherstate=7 WHERE watcheropaque = 'al%ice' AND presentitykey='bob#presence';",
        }),
        update({
            .name = "updateWatcherStateOfEmptyTexts",
            .operation = "updateWatcherState()",
            .call = [](Executor& executor) { return show(executor.updateWatcherState("", "", -2147483647 - 1)); },
            .text = "UPDATE event_watchers SET watcherstate=-2147483648 WHERE watcheropaque = '' AND presentitykey='';",
        }),
        update({
            .name = "updateWatcherExpiry",
            .operation = "updateWatcherExpiry()",
            .call =
                [](Executor& executor) {
                    return show(executor.updateWatcherExpiry("bob#presence", "al%ice", 1700000000));
                },
            .text =
                "UPDATE event_watchers SET expirytime=1700000000 WHERE watcheropaque='al%ice' AND presentitykey='bob#presence';",
        }),
        update({
            .name = "updateWatcherExpiryOfEmptyTexts",
            .operation = "updateWatcherExpiry()",
            .call = [](Executor& executor) { return show(executor.updateWatcherExpiry("", "", -1)); },
            .text = "UPDATE event_watchers SET expirytime=-1 WHERE watcheropaque='' AND presentitykey='';",
        }),
        update({
            .name = "updateWatcherDocVersion",
            .operation = "updateWatcherDocVersion()",
            .call =
                [](Executor& executor) {
                    return show(executor.updateWatcherDocVersion("bob#presence", "al%ice", 4294967295UL));
                },
            .text =
                "UPDATE event_watchers SET docversion=4294967295 WHERE watcheropaque = 'al%ice' AND presentitykey='bob#presence';",
        }),
        update({
            .name = "updateWatcherDocVersionOfEmptyTexts",
            .operation = "updateWatcherDocVersion()",
            .call = [](Executor& executor) { return show(executor.updateWatcherDocVersion("", "", 0)); },
            .text = "UPDATE event_watchers SET docversion=0 WHERE watcheropaque = '' AND presentitykey='';",
        }),
    };
}

class WatcherStatement : public PresenceStatementTest {};

TEST_P(WatcherStatement, AnswersForItsEndingAndLeavesTheReason)
{
    endsAsTheCourseDoes();
}

INSTANTIATE_TEST_SUITE_P(OfAChange, WatcherStatement, testing::ValuesIn(onEveryCourse(andTouchingNoRow(changes()))),
                         kRowName);
INSTANTIATE_TEST_SUITE_P(OfAQuery, WatcherStatement, testing::ValuesIn(onEveryCourse(queries())), kRowName);

class WatcherArguments : public PresenceRefusalTest {};

TEST_P(WatcherArguments, AreNeededForAStatement)
{
    sendsNothing();
}

std::string adds(Executor& executor, const std::string& presentityKey, const std::string& watcherOpaque)
{
    WatchersRecord rec = before();
    rec.presentitykey(presentityKey);
    rec.watcheropaque(watcherOpaque);
    return show(executor.addWatcherState(rec));
}

std::vector<PresenceRefusal> refusals()
{
    return {
        refusal("addWatcherStateWithoutKey", "addWatcherState()", "addWatcherState: missing one or more parameters\n",
                [](Executor& executor) { return adds(executor, "", "incoming#9"); }),
        refusal("addWatcherStateWithoutOpaque", "addWatcherState()",
                "addWatcherState: missing one or more parameters\n",
                [](Executor& executor) { return adds(executor, "carol#dialog", ""); }),
        refusal("updateWatcherStateWithoutKey", "updateWatcherState()",
                "updateWatcherState: missing one or more parameters\n",
                [](Executor& executor) { return show(executor.updateWatcherState(nullptr, "incoming#1", 7)); }),
        refusal("updateWatcherStateWithoutOpaque", "updateWatcherState()",
                "updateWatcherState: missing one or more parameters\n",
                [](Executor& executor) { return show(executor.updateWatcherState("bob#presence", nullptr, 7)); }),
        refusal("updateWatcherExpiryWithoutKey", "updateWatcherExpiry()",
                "invalid parameters passed to updateWatcherExpiry",
                [](Executor& executor) { return show(executor.updateWatcherExpiry(nullptr, "incoming#1", 60)); }),
        refusal("updateWatcherExpiryWithoutOpaque", "updateWatcherExpiry()",
                "invalid parameters passed to updateWatcherExpiry",
                [](Executor& executor) { return show(executor.updateWatcherExpiry("bob#presence", nullptr, 60)); }),
        refusal("updateWatcherDocVersionWithoutKey", "updateWatcherDocVersion()",
                "updateWatcherDocVersion: missing one or more parameters\n",
                [](Executor& executor) { return show(executor.updateWatcherDocVersion(nullptr, "incoming#1", 8)); }),
        refusal("updateWatcherDocVersionWithoutOpaque", "updateWatcherDocVersion()",
                "updateWatcherDocVersion: missing one or more parameters\n",
                [](Executor& executor) { return show(executor.updateWatcherDocVersion("bob#presence", nullptr, 8)); }),
    };
}

INSTANTIATE_TEST_SUITE_P(Missing, WatcherArguments, testing::ValuesIn(refusals()), kRowName);

class WatchersTest : public PresenceTest {};

TEST_F(WatchersTest, TheWatchersOfAPresentityAreListedEachForItself)
{
    libpq.replies({rows({kDialogRow, kSecondDialogRow, kDialogRow})});
    EXPECT_EQ(listsOfPresentity(executor),
              "okay\n" + kBefore + kReadOfPresentity + kSecondReadOfPresentity + kReadOfPresentity);
    EXPECT_EQ(traced(), presenceTrace({"getWatcherState()", kOfPresentity, "retrieved 3 rows"}));
}

TEST_F(WatchersTest, MatchingWatchersAreListedEachForItself)
{
    libpq.replies({rows({kRow, kSecondRow, kRow})});
    EXPECT_EQ(listsMatching(executor), "okay\n" + kBefore + kReadOfMatching + kSecondReadOfMatching + kReadOfMatching);
    EXPECT_EQ(traced(), presenceTrace({"getWatchers", kMatching, "retrieved 3 rows"}));
}

TEST_F(WatchersTest, APresentityWithoutWatchersIsOkayInOneListingAndNotFoundInTheOther)
{
    std::vector<WatchersRecord> records;
    libpq.replies({noRows(9), noRows(8)});
    EXPECT_EQ(show(executor.getWatcherState("bob#presence", records)), "okay");
    EXPECT_EQ(show(executor.getWatchers(records, "presence", "bob")), "not found");
    EXPECT_EQ(show(records), "");
}

TEST_F(WatchersTest, ANullColumnIsEmptyInAWatcherOfAPresentity)
{
    const std::vector<std::string> expected = {
        "watcher '' of 'bob#pre%sence' doctype=2 type=3 state=4 expires=1700000000 identity='alice' presentity='sip:bob@oryx.example' version=5 event='' contact='<sip:alice@192.0.2.1>'\n",
        "watcher 'incoming#1' of 'bob#pre%sence' doctype=0 type=3 state=4 expires=1700000000 identity='alice' presentity='sip:bob@oryx.example' version=5 event='' contact='<sip:alice@192.0.2.1>'\n",
        "watcher 'incoming#1' of 'bob#pre%sence' doctype=2 type=0 state=4 expires=1700000000 identity='alice' presentity='sip:bob@oryx.example' version=5 event='' contact='<sip:alice@192.0.2.1>'\n",
        "watcher 'incoming#1' of 'bob#pre%sence' doctype=2 type=3 state=0 expires=1700000000 identity='alice' presentity='sip:bob@oryx.example' version=5 event='' contact='<sip:alice@192.0.2.1>'\n",
        "watcher 'incoming#1' of 'bob#pre%sence' doctype=2 type=3 state=4 expires=0 identity='alice' presentity='sip:bob@oryx.example' version=5 event='' contact='<sip:alice@192.0.2.1>'\n",
        "watcher 'incoming#1' of 'bob#pre%sence' doctype=2 type=3 state=4 expires=1700000000 identity='' presentity='sip:bob@oryx.example' version=5 event='' contact='<sip:alice@192.0.2.1>'\n",
        "watcher 'incoming#1' of 'bob#pre%sence' doctype=2 type=3 state=4 expires=1700000000 identity='alice' presentity='' version=5 event='' contact='<sip:alice@192.0.2.1>'\n",
        "watcher 'incoming#1' of 'bob#pre%sence' doctype=2 type=3 state=4 expires=1700000000 identity='alice' presentity='sip:bob@oryx.example' version=0 event='' contact='<sip:alice@192.0.2.1>'\n",
        "watcher 'incoming#1' of 'bob#pre%sence' doctype=2 type=3 state=4 expires=1700000000 identity='alice' presentity='sip:bob@oryx.example' version=5 event='' contact=''\n",
    };
    for (std::size_t column = 0; column < expected.size(); ++column) {
        libpq.replies({rows({withNull(kDialogRow, column)})});
        EXPECT_EQ(listsOfPresentity(executor), "okay\n" + kBefore + expected[column]) << "column " << column;
    }
}

TEST_F(WatchersTest, ARowOfNullsIsAnEmptyMatchingWatcher)
{
    libpq.replies({rows({withNull(kRow, 6), std::vector<Cell>(kRow.size())})});
    EXPECT_EQ(
        listsMatching(executor),
        "okay\n" + kBefore +
            "watcher 'incoming#1' of '' doctype=2 type=3 state=4 expires=1700000000 identity='alice' presentity='' version=5 event='' contact=''\n"
            "watcher '' of '' doctype=0 type=0 state=0 expires=0 identity='' presentity='' version=0 event='' contact=''\n");
}

TEST_F(WatchersTest, ANumberIsReadAsFarAsItGoes)
{
    libpq.replies({rows({{"incoming#1", "2x", " 3", "2147483648", "60s", "alice", "sip:bob@oryx.example", "5.5"},
                         {"incoming#1", "x", "", "-4", "", "alice", "sip:bob@oryx.example", "x"}})});
    EXPECT_EQ(
        listsMatching(executor),
        "okay\n" + kBefore +
            "watcher 'incoming#1' of 'sip:bob@oryx.example' doctype=2 type=3 state=2147483647 expires=60 identity='alice' presentity='sip:bob@oryx.example' version=5 event='' contact=''\n"
            "watcher 'incoming#1' of 'sip:bob@oryx.example' doctype=0 type=0 state=-4 expires=0 identity='alice' presentity='sip:bob@oryx.example' version=0 event='' contact=''\n");
}

TEST_F(WatchersTest, AWatcherOfFewTextsIsStoredWithNulls)
{
    libpq.replies({command("1")});
    EXPECT_EQ(show(executor.addWatcherState(
                  WatchersRecord("bob#presence", "incoming#1", 0, -1, 0, 0, "", "", 0, "", "<sip:alice@192.0.2.1>"))),
              "okay");
    EXPECT_EQ(
        libpq.take(),
        "exec INSERT INTO event_watchers (presentitykey,watcheropaque,doctype,docversion,watchertype,watcherstate,expirytime,watcheridentity,event,presentity) VALUES('bob#presence','incoming#1',0,0,-1,0,0,NULL,NULL,NULL);\n");
}

TEST_F(WatchersTest, AWatcherThatIsAlreadyThereIsAConnectionError)
{
    libpq.replies({refused("23505"), refused("23505")});
    EXPECT_EQ(show(executor.addWatcherState(before())),
              "connection error: ERROR:  refused\n, sqlState=23505, sqlcommand=" + kAdd);
}

TEST_F(WatchersTest, AQuoteInAnArgumentGoesIntoTheStatementAsItIs)
{
    const auto syntax = refused("42601");
    libpq.replies({syntax, syntax, syntax, syntax, syntax, syntax});
    EXPECT_EQ(
        show(executor.getWatcherState("bob's", "al'ice")),
        "query error: ERROR:  refused\n, sqlState=42601, sqlcommand=SELECT watcheropaque,doctype,watchertype,watcherstate,expirytime,watcheridentity,presentity,docversion FROM event_watchers WHERE presentitykey ='bob's' and watcheropaque='al'ice';");
    EXPECT_EQ(
        show(executor.deleteWatcherState("bob's", "al'ice")),
        "connection error: ERROR:  refused\n, sqlState=42601, sqlcommand=DELETE FROM event_watchers WHERE watcheropaque = 'al'ice' AND presentitykey='bob's';");
    libpq.take();
    EXPECT_EQ(show(executor.updateWatcherState("bob's", "al'ice", 7)), "connection error");
    EXPECT_EQ(
        libpq.takeStatements(),
        std::vector<std::string>(
            2, "UPDATE event_watchers SET watcherstate=7 WHERE watcheropaque = 'al'ice' AND presentitykey='bob's';"));
}

TEST_F(WatchersTest, ANullTextThatIsNotCheckedCountsAsEmpty)
{
    std::vector<WatchersRecord> records;
    libpq.replies({rows({kDialogRow}), noRows(8), noRows(8), command("0")});
    EXPECT_EQ(show(executor.getWatcherState(nullptr, records)), "okay");
    EXPECT_EQ(
        show(records),
        "watcher 'incoming#1' of '' doctype=2 type=3 state=4 expires=1700000000 identity='alice' presentity='sip:bob@oryx.example' version=5 event='' contact='<sip:alice@192.0.2.1>'\n");
    executor.getWatcherState(nullptr, static_cast<const char*>(nullptr));
    executor.getWatchers(records, nullptr, nullptr);
    executor.deleteWatcherState(nullptr, nullptr);
    EXPECT_EQ(
        libpq.take(),
        "exec SELECT watcheropaque,doctype,watchertype,watcherstate,expirytime,watcheridentity,presentity,docversion,remotecontacthdr FROM event_watchers,subscription_states WHERE presentitykey ='' and watcheropaque=subscriptionid;\n"
        "exec SELECT watcheropaque,doctype,watchertype,watcherstate,expirytime,watcheridentity,presentity,docversion FROM event_watchers WHERE presentitykey ='' and watcheropaque='';\n"
        "exec SELECT watcheropaque,doctype,watchertype,watcherstate,expirytime,watcheridentity,presentity,docversion  FROM event_watchers WHERE presentitykey like '%%#%%';\n"
        "exec DELETE FROM event_watchers WHERE watcheropaque = '' AND presentitykey='';\n");
}

TEST_F(WatchersTest, AKeyMayPointIntoTheVectorThatGrows)
{
    std::vector<WatchersRecord> records = {before()};
    libpq.replies({rows({kDialogRow, kDialogRow, kDialogRow})});
    EXPECT_EQ(show(executor.getWatcherState(records.front().presentitykey().c_str(), records)), "okay");
    const std::string appended =
        "watcher 'incoming#1' of 'carol#dialog' doctype=2 type=3 state=4 expires=1700000000 identity='alice' presentity='sip:bob@oryx.example' version=5 event='' contact='<sip:alice@192.0.2.1>'\n";
    EXPECT_EQ(show(records), kBefore + appended + appended + appended);
}

} // namespace

} // namespace watchersTest
