#include "contract/PresenceFixture.h"

namespace dialogsTest {

namespace {

using fake::Cell;
using fake::command;
using fake::noRows;
using fake::refused;
using fake::rows;
using oryx::PresenceRecord;
using Executor = oryx::PresenceDatabaseCommandExecutor;

const std::string kGet =
    "SELECT subscriptionid, fromhdr, tohdr, callid, subcseq, eventhdr, remotecontacthdr, routeset, notcseq, requesturi,packageid  FROM subscription_states WHERE subscriptionid = 'incoming#1%s';";
const std::string kAdd =
    "INSERT INTO subscription_states (subscriptionid,fromhdr,tohdr,callid,subcseq,eventhdr,remotecontacthdr,routeset,notcseq,requesturi,packageid) VALUES('outgoing#9','<sip:carol@example.com>;tag=9','<sip:dave@example.com>','99@198.51.100.9',91,'dialog','<sip:carol@198.51.100.9>','<sip:core.example.com;lr>',92,'sip:dave@example.com','dialog#9');";
const std::string kIncomingMatching =
    "SELECT subscriptionid, fromhdr, tohdr, callid, subcseq, eventhdr, remotecontacthdr, routeset, notcseq, requesturi,packageid,watcheridentity,expirytime,doctype FROM subscription_states, event_watchers where subscriptionid = watcheropaque;";
const std::string kIncoming =
    "SELECT subscriptionid, fromhdr, tohdr, callid, subcseq, eventhdr, remotecontacthdr, routeset, notcseq, requesturi,packageid  FROM subscription_states  WHERE subscriptionid like '%%incoming#%%';";
const std::string kIncomingOfPackage =
    "SELECT subscriptionid, fromhdr, tohdr, callid, subcseq, eventhdr, remotecontacthdr, routeset, notcseq, requesturi,packageid  FROM subscription_states  WHERE subscriptionid like '%%incoming#%%' AND packageid like '%%pre%sence%%';";
const std::string kIncomingFiltered =
    "SELECT subscriptionid, fromhdr, tohdr, callid, subcseq, eventhdr, remotecontacthdr, routeset, notcseq, requesturi,packageid  FROM subscription_states  WHERE subscriptionid like '%%incoming#%%' and fromhdr like '%%alice%%' AND requesturi like '%%sip:bob%%' AND packageid like '%%presence#%%';";
const std::string kOutgoing =
    "SELECT subscriptionid, fromhdr, tohdr, callid, subcseq, eventhdr, remotecontacthdr, routeset, notcseq, requesturi,packageid  FROM subscription_states  WHERE subscriptionid like '%%outgoing#%%' and tohdr like '%%bob%%' AND packageid like '%%presence#%%';";

const std::vector<Cell> kRow = {
    "incoming#1", "<sip:alice@oryx.example>;tag=1", "<sip:bob@oryx.example>",     "1@192.0.2.1", "17",
    "presence",   "<sip:alice@192.0.2.1>",          "<sip:edge.oryx.example;lr>", "18",          "sip:bob@oryx.example",
    "presence#1"};
const std::vector<Cell> kSecondRow = {"incoming#2",
                                      "<sip:carol@oryx.example>",
                                      "<sip:dave@oryx.example>",
                                      "2@192.0.2.2",
                                      "27",
                                      "dialog",
                                      "<sip:carol@192.0.2.2>",
                                      "",
                                      "28",
                                      "sip:dave@oryx.example",
                                      "dialog#2"};

/// The row of a dialog and its watcher.
std::vector<Cell> watched(std::vector<Cell> row)
{
    row.insert(row.end(), {"alice", "1700000000", "3"});
    return row;
}

/// What is read of kRow and of kSecondRow, and of the first with its watcher.
const std::string kRead =
    "dialog 'incoming#1' sid='' from='<sip:alice@oryx.example>;tag=1' to='<sip:bob@oryx.example>' call='1@192.0.2.1' subcseq=17 event='presence' contact='<sip:alice@192.0.2.1>' route='<sip:edge.oryx.example;lr>' notcseq=18 uri='sip:bob@oryx.example' package='presence#1' oid=0 watcher='' doctype=0 expires=0\n";
const std::string kSecondRead =
    "dialog 'incoming#2' sid='' from='<sip:carol@oryx.example>' to='<sip:dave@oryx.example>' call='2@192.0.2.2' subcseq=27 event='dialog' contact='<sip:carol@192.0.2.2>' route='' notcseq=28 uri='sip:dave@oryx.example' package='dialog#2' oid=0 watcher='' doctype=0 expires=0\n";
const std::string kWatchedRead =
    "dialog 'incoming#1' sid='' from='<sip:alice@oryx.example>;tag=1' to='<sip:bob@oryx.example>' call='1@192.0.2.1' subcseq=17 event='presence' contact='<sip:alice@192.0.2.1>' route='<sip:edge.oryx.example;lr>' notcseq=18 uri='sip:bob@oryx.example' package='presence#1' oid=0 watcher='alice' doctype=3 expires=1700000000\n";

/// A record no column of which comes from kRow.
PresenceRecord before()
{
    PresenceRecord rec("outgoing#9", "sid-9", "<sip:carol@example.com>;tag=9", "<sip:dave@example.com>",
                       "99@198.51.100.9", 91, "dialog", "<sip:carol@198.51.100.9>", "<sip:core.example.com;lr>", 92,
                       "sip:dave@example.com", "dialog#9");
    rec.SetOid(93);
    rec.SetWatcherIdentity("dave");
    rec.SetDocType(94);
    rec.SetExpiryTime(95);
    return rec;
}

const std::string kBefore =
    "dialog 'outgoing#9' sid='sid-9' from='<sip:carol@example.com>;tag=9' to='<sip:dave@example.com>' call='99@198.51.100.9' subcseq=91 event='dialog' contact='<sip:carol@198.51.100.9>' route='<sip:core.example.com;lr>' notcseq=92 uri='sip:dave@example.com' package='dialog#9' oid=93 watcher='dave' doctype=94 expires=95\n";
/// The same once kRow was read into it.
const std::string kReadOver =
    "dialog 'incoming#1' sid='sid-9' from='<sip:alice@oryx.example>;tag=1' to='<sip:bob@oryx.example>' call='1@192.0.2.1' subcseq=17 event='presence' contact='<sip:alice@192.0.2.1>' route='<sip:edge.oryx.example;lr>' notcseq=18 uri='sip:bob@oryx.example' package='presence#1' oid=93 watcher='dave' doctype=94 expires=95\n";

std::string gets(Executor& executor, const char* subscriptionId)
{
    PresenceRecord rec = before();
    const std::string answer = show(executor.getWatcher(subscriptionId, rec));
    return answer + "\n" + show(rec);
}

std::string getsDialog(Executor& executor)
{
    return gets(executor, "incoming#1%s");
}

std::string adds(Executor& executor, void (PresenceRecord::*set)(const char*), const char* text)
{
    PresenceRecord rec = before();
    (rec.*set)(text);
    return show(executor.addWatcher(rec));
}

std::string listsIncomingMatching(Executor& executor)
{
    return appending<PresenceRecord>({before()},
                                     [&](auto& records) { return executor.getIncomingMatchingSubscriptions(records); });
}

std::string listsIncoming(Executor& executor)
{
    return appending<PresenceRecord>({before()},
                                     [&](auto& records) { return executor.getIncomingSubscriptions(records); });
}

std::string listsIncomingOfPackage(Executor& executor)
{
    return appending<PresenceRecord>(
        {before()}, [&](auto& records) { return executor.getIncomingSubscriptions(records, "pre%sence"); });
}

std::string listsIncomingFiltered(Executor& executor)
{
    return appending<PresenceRecord>({before()}, [&](auto& records) {
        return executor.getIncomingSubscriptions(records, "alice", "sip:bob", "presence");
    });
}

std::string listsOutgoing(Executor& executor)
{
    return appending<PresenceRecord>(
        {before()}, [&](auto& records) { return executor.getOutgoingSubscribes(records, "bob", "presence"); });
}

PresenceOperation addWatcher()
{
    PresenceOperation operation = insertOrDelete({
        .name = "addWatcher",
        .operation = "addWatcher()",
        .call = [](Executor& executor) { return show(executor.addWatcher(before())); },
        .text = kAdd,
    });
    operation.answerToAConstraint = "constraint error: {}";
    return operation;
}

std::vector<PresenceOperation> changes()
{
    return {
        addWatcher(),
        insertOrDelete({
            .name = "deleteWatcher",
            .operation = "deleteWatcher()",
            .call = [](Executor& executor) { return show(executor.deleteWatcher("incoming#1%s")); },
            .text = "DELETE FROM subscription_states WHERE subscriptionid = 'incoming#1%s';",
        }),
        update({
            .name = "updateWatcherContact",
            .operation = "updateWatcherContact()",
            .call =
                [](Executor& executor) {
                    return show(executor.updateWatcherContact("incoming#1", "<sip:al%20ice@192.0.2.7>", 19));
                },
            .text =
                "UPDATE subscription_states SET subcseq=19,remotecontacthdr = '<sip:al%20ice@192.0.2.7>' WHERE subscriptionid='incoming#1';",
        }),
        update({
            .name = "updateWatcherContactWithAnEmptyOne",
            .operation = "updateWatcherContact()",
            .call = [](Executor& executor) { return show(executor.updateWatcherContact("incoming#1", "", -19)); },
            .text =
                "UPDATE subscription_states SET subcseq=-19,remotecontacthdr = '' WHERE subscriptionid='incoming#1';",
        }),
        update({
            .name = "updatePresentityContact",
            .operation = "updatePresentityContact()",
            .call =
                [](Executor& executor) {
                    return show(executor.updatePresentityContact("incoming#1", "<sip:b%20ob@192.0.2.8>", 7));
                },
            .text =
                "UPDATE subscription_states SET notcseq=7 , remotecontacthdr = '<sip:b%20ob@192.0.2.8>'  WHERE subscriptionid='incoming#1';",
        }),
        update({
            .name = "updatePresentityContactWithAnEmptyOne",
            .operation = "updatePresentityContact()",
            .call = [](Executor& executor) { return show(executor.updatePresentityContact("incoming#1", "", 7)); },
            .text =
                "UPDATE subscription_states SET notcseq=7 , remotecontacthdr = ''  WHERE subscriptionid='incoming#1';",
        }),
        update({
            .name = "updatePresentityContactWithoutOne",
            .operation = "updatePresentityContact()",
            .call = [](Executor& executor) { return show(executor.updatePresentityContact("incoming#1", nullptr, 7)); },
            .text = "UPDATE subscription_states SET notcseq=7 WHERE subscriptionid='incoming#1';",
        }),
    };
}

std::vector<PresenceOperation> queries()
{
    const auto one = rows({kRow});
    const auto none = noRows(11);
    const std::string appended = "okay\n" + kBefore + kRead;
    const std::string empty = "not found\n" + kBefore;
    return {
        query({"getWatcher", "getWatcher()", getsDialog, kGet, one}, "okay\n" + kReadOver, kBefore),
        query({"getWatcherThatIsNotThere", "getWatcher()", getsDialog, kGet, none}, empty, kBefore),
        query({"getIncomingMatchingSubscriptions",
               "getIncomingMatchingSubscriptions() ",
               listsIncomingMatching,
               kIncomingMatching,
               rows({watched(kRow)}),
               {"subscription size 1", "subscriptions size 2 "}},
              "okay\n" + kBefore + kWatchedRead, kBefore),
        query({"getIncomingMatchingSubscriptionsWithoutAny",
               "getIncomingMatchingSubscriptions() ",
               listsIncomingMatching,
               kIncomingMatching,
               noRows(14),
               {"subscription size 0"}},
              empty, kBefore),
        query({"getIncomingSubscriptions", "getIncomingSubscriptions", listsIncoming, kIncoming, one}, appended,
              kBefore),
        query({"getIncomingSubscriptionsWithoutAny", "getIncomingSubscriptions", listsIncoming, kIncoming, none}, empty,
              kBefore),
        query({"getIncomingSubscriptionsOfAPackage", "getIncomingSubscribes package : pre%sence",
               listsIncomingOfPackage, kIncomingOfPackage, one},
              appended, kBefore),
        query({"getIncomingSubscriptionsOfAPackageWithoutAny", "getIncomingSubscribes package : pre%sence",
               listsIncomingOfPackage, kIncomingOfPackage, none},
              empty, kBefore),
        query({"getIncomingSubscriptionsFiltered", "getIncomingSubscriptions", listsIncomingFiltered, kIncomingFiltered,
               one},
              appended, kBefore),
        query({"getIncomingSubscriptionsFilteredWithoutAny", "getIncomingSubscriptions", listsIncomingFiltered,
               kIncomingFiltered, none},
              empty, kBefore),
        query({"getOutgoingSubscribes", "getOutgoingSubscribes", listsOutgoing, kOutgoing, one}, appended, kBefore),
        query({"getOutgoingSubscribesWithoutAny", "getOutgoingSubscribes", listsOutgoing, kOutgoing, none}, empty,
              kBefore),
    };
}

class DialogStatement : public PresenceStatementTest {};

TEST_P(DialogStatement, AnswersForItsEndingAndLeavesTheReason)
{
    endsAsTheCourseDoes();
}

INSTANTIATE_TEST_SUITE_P(OfAChange, DialogStatement, testing::ValuesIn(onEveryCourse(andTouchingNoRow(changes()))),
                         kRowName);
INSTANTIATE_TEST_SUITE_P(OfAQuery, DialogStatement, testing::ValuesIn(onEveryCourse(queries())), kRowName);

class DialogArguments : public PresenceRefusalTest {};

TEST_P(DialogArguments, AreNeededForAStatement)
{
    sendsNothing();
}

PresenceRefusal incomplete(const std::string& name, void (PresenceRecord::*set)(const char*))
{
    return refusal("addWatcherWithout" + name, "addWatcher()", "addWatcher: missing one or more parameters\n",
                   [set](Executor& executor) { return adds(executor, set, ""); });
}

std::vector<PresenceRefusal> refusals()
{
    return {
        refusal(
            "getWatcherWithoutKey", "getWatcher()", "invalid parameters passed to getWatcher",
            [](Executor& executor) { return gets(executor, nullptr); }, "\n" + kBefore),
        incomplete("Subscriptionid", &PresenceRecord::SetSubscriptionid),
        incomplete("Fromhdr", &PresenceRecord::SetFromhdr),
        incomplete("Tohdr", &PresenceRecord::SetTohdr),
        incomplete("Eventhdr", &PresenceRecord::SetEventhdr),
        incomplete("Remotecontacthdr", &PresenceRecord::SetRemotecontacthdr),
        incomplete("RequestUri", &PresenceRecord::SetRequestUri),
        incomplete("Packageid", &PresenceRecord::SetPackageid),
        refusal("updateWatcherContactWithoutKey", "updateWatcherContact()",
                "invalid parameters passed to updateWatcherContact",
                [](Executor& executor) { return show(executor.updateWatcherContact(nullptr, "contact", 1)); }),
        refusal("updateWatcherContactWithoutContact", "updateWatcherContact()",
                "invalid parameters passed to updateWatcherContact",
                [](Executor& executor) { return show(executor.updateWatcherContact("incoming#1", nullptr, 1)); }),
        refusal("updatePresentityContactWithoutKey", "updatePresentityContact()",
                "invalid parameters passed to updatePresentityContact",
                [](Executor& executor) { return show(executor.updatePresentityContact(nullptr, "contact", 1)); }),
    };
}

INSTANTIATE_TEST_SUITE_P(Missing, DialogArguments, testing::ValuesIn(refusals()), kRowName);

class DialogsTest : public PresenceTest {};

TEST_F(DialogsTest, AKeyOfTwoDialogsFillsTheRecordFromTheFirst)
{
    libpq.replies({rows({kRow, kSecondRow})});
    EXPECT_EQ(getsDialog(executor), "okay\n" + kReadOver);
}

/// A dialog as the fields of its text, in the order of a row's columns; what no row gives goes with its neighbour.
using Fields = std::vector<std::string>;

const Fields kFieldsBefore = {"dialog 'outgoing#9' sid='sid-9'",
                              " from='<sip:carol@example.com>;tag=9'",
                              " to='<sip:dave@example.com>'",
                              " call='99@198.51.100.9'",
                              " subcseq=91",
                              " event='dialog'",
                              " contact='<sip:carol@198.51.100.9>'",
                              " route='<sip:core.example.com;lr>'",
                              " notcseq=92",
                              " uri='sip:dave@example.com'",
                              " package='dialog#9' oid=93 watcher='dave' doctype=94 expires=95\n"};
const Fields kFieldsReadOver = {"dialog 'incoming#1' sid='sid-9'",
                                " from='<sip:alice@oryx.example>;tag=1'",
                                " to='<sip:bob@oryx.example>'",
                                " call='1@192.0.2.1'",
                                " subcseq=17",
                                " event='presence'",
                                " contact='<sip:alice@192.0.2.1>'",
                                " route='<sip:edge.oryx.example;lr>'",
                                " notcseq=18",
                                " uri='sip:bob@oryx.example'",
                                " package='presence#1' oid=93 watcher='dave' doctype=94 expires=95\n"};
const Fields kFieldsRead = {"dialog 'incoming#1' sid=''",
                            " from='<sip:alice@oryx.example>;tag=1'",
                            " to='<sip:bob@oryx.example>'",
                            " call='1@192.0.2.1'",
                            " subcseq=17",
                            " event='presence'",
                            " contact='<sip:alice@192.0.2.1>'",
                            " route='<sip:edge.oryx.example;lr>'",
                            " notcseq=18",
                            " uri='sip:bob@oryx.example'",
                            " package='presence#1' oid=0"};
const Fields kFieldsEmpty = {"dialog '' sid=''", " from=''",  " to=''",     " call=''", " subcseq=0",       " event=''",
                             " contact=''",      " route=''", " notcseq=0", " uri=''",  " package='' oid=0"};

std::string with(Fields fields, const Fields& others, std::size_t column)
{
    fields.at(column) = others.at(column);
    std::string text;
    for (const std::string& field : fields) {
        text += field;
    }
    return text;
}

TEST_F(DialogsTest, ANullColumnLeavesTheFieldOfTheRecordAsItWas)
{
    for (std::size_t column = 0; column < kRow.size(); ++column) {
        libpq.replies({rows({withNull(kRow, column)})});
        EXPECT_EQ(getsDialog(executor), "okay\n" + with(kFieldsReadOver, kFieldsBefore, column)) << "column " << column;
    }
}

TEST_F(DialogsTest, ARowOfNullsLeavesTheWholeRecordAsItWas)
{
    libpq.replies({rows({std::vector<Cell>(kRow.size())})});
    EXPECT_EQ(getsDialog(executor), "okay\n" + kBefore);
}

TEST_F(DialogsTest, AnEmptyColumnEmptiesTheFieldOfTheRecord)
{
    libpq.replies({rows({std::vector<Cell>(kRow.size(), "")})});
    EXPECT_EQ(
        getsDialog(executor),
        "okay\ndialog '' sid='sid-9' from='' to='' call='' subcseq=0 event='' contact='' route='' notcseq=0 uri='' package='' oid=93 watcher='dave' doctype=94 expires=95\n");
}

TEST_F(DialogsTest, ANumberIsReadAsFarAsItGoes)
{
    const auto numbers = [this](const char* subcseq, const char* notcseq) {
        std::vector<Cell> row = kRow;
        row[4] = subcseq;
        row[8] = notcseq;
        libpq.replies({rows({row})});
        PresenceRecord rec = before();
        EXPECT_TRUE(executor.getWatcher("incoming#1", rec).okay());
        return std::to_string(rec.subcseq()) + " " + std::to_string(rec.notcseq());
    };
    EXPECT_EQ(numbers("12abc", " 13"), "12 13");
    EXPECT_EQ(numbers("abc", "-1"), "0 -1");
    EXPECT_EQ(numbers("2147483648", "99999999999999999999"), "2147483647 2147483647");
}

TEST_F(DialogsTest, ANullColumnIsEmptyInAListedDialog)
{
    const std::vector<std::string (*)(Executor&)> listings = {listsIncoming, listsIncomingOfPackage,
                                                              listsIncomingFiltered, listsOutgoing};
    for (const auto& lists : listings) {
        for (std::size_t column = 0; column < kRow.size(); ++column) {
            libpq.replies({rows({withNull(kRow, column)})});
            EXPECT_EQ(lists(executor), "okay\n" + kBefore + with(kFieldsRead, kFieldsEmpty, column) +
                                           " watcher='' doctype=0 expires=0\n")
                << libpq.take();
        }
    }
}

TEST_F(DialogsTest, ANullColumnIsEmptyInAListedDialogWithItsWatcher)
{
    Fields read = kFieldsRead;
    Fields empty = kFieldsEmpty;
    // The text has the document type before the expiry time, the row behind it.
    read.insert(read.end(), {" watcher='alice'", " doctype=3", " expires=1700000000\n"});
    empty.insert(empty.end(), {" watcher=''", " doctype=0", " expires=0\n"});
    const std::vector<std::size_t> fieldOf = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 13, 12};
    for (std::size_t column = 0; column < fieldOf.size(); ++column) {
        libpq.replies({rows({withNull(watched(kRow), column)})});
        EXPECT_EQ(listsIncomingMatching(executor), "okay\n" + kBefore + with(read, empty, fieldOf[column]))
            << "column " << column;
    }
}

TEST_F(DialogsTest, ThreeIncomingDialogsAreListedAsTheFirstThreeTimes)
{
    libpq.replies({rows({kRow, kSecondRow, kSecondRow})});
    EXPECT_EQ(listsIncoming(executor), "okay\n" + kBefore + kRead + kRead + kRead);
}

TEST_F(DialogsTest, TwoOutgoingDialogsAreListedAsTheFirstTwice)
{
    libpq.replies({rows({kSecondRow, kRow})});
    EXPECT_EQ(listsOutgoing(executor), "okay\n" + kBefore + kSecondRead + kSecondRead);
}

TEST_F(DialogsTest, TwoDialogsWithWatchersAreListedAsTheFirstTwiceAndCountedEachTime)
{
    libpq.replies({rows({watched(kRow), watched(kSecondRow)})});
    EXPECT_EQ(listsIncomingMatching(executor), "okay\n" + kBefore + kWatchedRead + kWatchedRead);
    EXPECT_EQ(traced(), presenceTrace({"getIncomingMatchingSubscriptions() ", kIncomingMatching, "subscription size 2",
                                       "subscriptions size 2 ", "subscriptions size 3 "}));
}

TEST_F(DialogsTest, TheDialogsOfAPackageAreListedEachForItself)
{
    libpq.replies({rows({kRow, kSecondRow, kRow})});
    EXPECT_EQ(listsIncomingOfPackage(executor), "okay\n" + kBefore + kRead + kSecondRead + kRead);
}

TEST_F(DialogsTest, FilteredDialogsAreListedEachForItself)
{
    libpq.replies({rows({kRow, kSecondRow, kRow})});
    EXPECT_EQ(listsIncomingFiltered(executor), "okay\n" + kBefore + kRead + kSecondRead + kRead);
}

TEST_F(DialogsTest, ADialogWithoutCallIdAndRouteSetIsStoredWithNulls)
{
    PresenceRecord rec = before();
    rec.SetCallId("");
    rec.SetRouteset("");
    libpq.replies({command("1")});
    EXPECT_EQ(show(executor.addWatcher(rec)), "okay");
    EXPECT_EQ(
        libpq.take(),
        "exec INSERT INTO subscription_states (subscriptionid,fromhdr,tohdr,callid,subcseq,eventhdr,remotecontacthdr,routeset,notcseq,requesturi,packageid) VALUES('outgoing#9','<sip:carol@example.com>;tag=9','<sip:dave@example.com>',NULL,91,'dialog','<sip:carol@198.51.100.9>',NULL,92,'sip:dave@example.com','dialog#9');\n");
}

TEST_F(DialogsTest, ADialogIsAConstraintErrorForEveryKindOfViolation)
{
    const auto stored = [this](const std::string& sqlState) {
        libpq.replies({refused(sqlState), refused(sqlState)});
        return show(executor.addWatcher(before()));
    };
    EXPECT_EQ(stored("23505"), "constraint error: ERROR:  refused\n, sqlState=23505, sqlcommand=" + kAdd);
    EXPECT_EQ(stored("23502"), "constraint error: ERROR:  refused\n, sqlState=23502, sqlcommand=" + kAdd);
    EXPECT_EQ(stored("22001"), "connection error: ERROR:  refused\n, sqlState=22001, sqlcommand=" + kAdd);
}

TEST_F(DialogsTest, ADialogThatTheFirstAttemptLeftBehindIsAConstraintError)
{
    libpq.replies({fake::nothing(), refused("23505"), refused("23505")});
    EXPECT_EQ(show(executor.addWatcher(before())),
              "constraint error: ERROR:  refused\n, sqlState=23505, sqlcommand=" + kAdd);
}

TEST_F(DialogsTest, AQuoteInAnArgumentGoesIntoTheStatementAsItIs)
{
    const auto syntax = refused("42601");
    libpq.replies({syntax, syntax});
    EXPECT_EQ(
        gets(executor, "it's"),
        "query error: ERROR:  refused\n, sqlState=42601, sqlcommand=SELECT subscriptionid, fromhdr, tohdr, callid, subcseq, eventhdr, remotecontacthdr, routeset, notcseq, requesturi,packageid  FROM subscription_states WHERE subscriptionid = 'it's';\n" +
            kBefore);
    libpq.replies({syntax, syntax});
    EXPECT_EQ(
        show(executor.deleteWatcher("it's")),
        "connection error: ERROR:  refused\n, sqlState=42601, sqlcommand=DELETE FROM subscription_states WHERE subscriptionid = 'it's';");
    libpq.take();
    libpq.replies({syntax, syntax});
    EXPECT_EQ(show(executor.updateWatcherContact("it's", "c'", 1)), "connection error");
    EXPECT_EQ(libpq.takeStatements(),
              std::vector<std::string>(
                  2, "UPDATE subscription_states SET subcseq=1,remotecontacthdr = 'c'' WHERE subscriptionid='it's';"));
}

TEST_F(DialogsTest, ANullTextThatIsNotCheckedCountsAsEmpty)
{
    libpq.replies({command("0"), noRows(11), noRows(11), noRows(11)});
    std::vector<PresenceRecord> records;
    executor.deleteWatcher(nullptr);
    executor.getIncomingSubscriptions(records, nullptr);
    executor.getIncomingSubscriptions(records, nullptr, nullptr, nullptr);
    executor.getOutgoingSubscribes(records, nullptr, nullptr);
    EXPECT_EQ(
        libpq.take(),
        "exec DELETE FROM subscription_states WHERE subscriptionid = '';\n"
        "exec SELECT subscriptionid, fromhdr, tohdr, callid, subcseq, eventhdr, remotecontacthdr, routeset, notcseq, requesturi,packageid  FROM subscription_states  WHERE subscriptionid like '%%incoming#%%' AND packageid like '%%%%';\n"
        "exec SELECT subscriptionid, fromhdr, tohdr, callid, subcseq, eventhdr, remotecontacthdr, routeset, notcseq, requesturi,packageid  FROM subscription_states  WHERE subscriptionid like '%%incoming#%%' and fromhdr like '%%%%' AND requesturi like '%%%%' AND packageid like '%%#%%';\n"
        "exec SELECT subscriptionid, fromhdr, tohdr, callid, subcseq, eventhdr, remotecontacthdr, routeset, notcseq, requesturi,packageid  FROM subscription_states  WHERE subscriptionid like '%%outgoing#%%' and tohdr like '%%%%' AND packageid like '%%#%%';\n");
}

TEST_F(DialogsTest, AKeyMayPointIntoTheRecordThatIsFilled)
{
    PresenceRecord rec = before();
    libpq.replies({rows({kRow})});
    EXPECT_EQ(show(executor.getWatcher(rec.subscriptionid().c_str(), rec)), "okay");
    EXPECT_EQ(show(rec), kReadOver);
}

TEST_F(DialogsTest, AFilterMayPointIntoTheVectorThatGrows)
{
    std::vector<PresenceRecord> records = {before()};
    libpq.replies({rows({kRow, kSecondRow, kRow})});
    EXPECT_EQ(show(executor.getIncomingSubscriptions(records, records.front().packageid().c_str())), "okay");
    EXPECT_EQ(show(records), kBefore + kRead + kSecondRead + kRead);
}

} // namespace

} // namespace dialogsTest
