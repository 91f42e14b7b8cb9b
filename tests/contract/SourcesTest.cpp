#include "contract/PresenceFixture.h"

namespace sourcesTest {

namespace {

using fake::Cell;
using fake::command;
using fake::noRows;
using fake::refused;
using fake::rows;
using oryx::SourcesRecord;
using oryx::WatcherInfoRecord;
using Executor = oryx::PresenceDatabaseCommandExecutor;

const std::string kOfEvent =
    "SELECT sourceopaque, contact, expirytime, presentitykey, event FROM event_sources WHERE event='pre%sence';";
const std::string kOfPresentity =
    "SELECT sourceopaque, contact, expirytime, event, presentity  FROM event_sources WHERE presentitykey ='bob#pre%sence';";
const std::string kMatching =
    "SELECT sourceopaque, contact, expirytime,presentitykey,event FROM event_sources  WHERE presentity like '%%sip:bob%%' and  event like '%%presence%%';";
const std::string kAdd =
    "INSERT INTO event_sources (presentitykey,sourceopaque,contact,expirytime,event,presentity) VALUES('carol#dialog','publish#9','<sip:c%20arol@198.51.100.9>',99,'dialog','sip:carol@example.com');";
const std::string kWinfo =
    "SELECT subscriberkey, startingdocversion,expirytime,presurlscheme  FROM watcherinfo WHERE winfokey='bob.w%info';";
const std::string kAddWinfo =
    "INSERT INTO watcherinfo (winfokey,presurlscheme,subscriberkey,startingdocversion,expirytime) VALUES('carol.w%info','sips','incoming#9',98,99);";
const std::string kUpdateWinfo =
    "UPDATE watcherinfo SET presurlscheme='sips', startingdocversion = 98,expirytime = 99 WHERE subscriberkey='incoming#9';";

/// A source as the listing of an event and the one by patterns give it, and as that of a presentity does.
const std::vector<Cell> kRow = {"publish#1", "<sip:bob@192.0.2.1>", "1700000000", "bob#presence", "presence"};
const std::vector<Cell> kSecondRow = {"publish#2", "<sip:dave@192.0.2.2>", "1800000000", "dave#dialog", "dialog"};
const std::vector<Cell> kRowOfPresentity = {"publish#1", "<sip:bob@192.0.2.1>", "1700000000", "presence",
                                            "sip:bob@oryx.example"};
const std::vector<Cell> kSecondRowOfPresentity = {"publish#2", "<sip:bob@192.0.2.2>", "1800000000", "dialog",
                                                  "sip:bob@example.com"};
const std::vector<Cell> kWinfoRow = {"incoming#1", "2", "1700000000", "sip"};
const std::vector<Cell> kSecondWinfoRow = {"incoming#2", "12", "1800000000", "pres"};

const std::string kRead =
    "source 'publish#1' of 'bob#presence' contact='<sip:bob@192.0.2.1>' event='presence' presentity='' expires=1700000000\n";
const std::string kSecondRead =
    "source 'publish#2' of 'dave#dialog' contact='<sip:dave@192.0.2.2>' event='dialog' presentity='' expires=1800000000\n";
const std::string kReadOfPresentity =
    "source 'publish#1' of 'bob#pre%sence' contact='<sip:bob@192.0.2.1>' event='presence' presentity='sip:bob@oryx.example' expires=1700000000\n";
const std::string kSecondReadOfPresentity =
    "source 'publish#2' of 'bob#pre%sence' contact='<sip:bob@192.0.2.2>' event='dialog' presentity='sip:bob@example.com' expires=1800000000\n";
const std::string kWinfoRead = "winfo 'bob.w%info' for 'incoming#1' scheme='sip' from version=2 expires=1700000000\n";
const std::string kSecondWinfoRead =
    "winfo 'bob.w%info' for 'incoming#2' scheme='pres' from version=12 expires=1800000000\n";

SourcesRecord before()
{
    return {"carol#dialog", "publish#9", "<sip:c%20arol@198.51.100.9>", 99, "dialog", "sip:carol@example.com"};
}

const std::string kBefore =
    "source 'publish#9' of 'carol#dialog' contact='<sip:c%20arol@198.51.100.9>' event='dialog' presentity='sip:carol@example.com' expires=99\n";

WatcherInfoRecord winfoBefore()
{
    return {"carol.w%info", "incoming#9", "sips", 98, 99};
}

const std::string kWinfoBefore = "winfo 'carol.w%info' for 'incoming#9' scheme='sips' from version=98 expires=99\n";

std::string listsOfEvent(Executor& executor)
{
    return appending<SourcesRecord>({before()},
                                    [&](auto& records) { return executor.getAllEventSources("pre%sence", records); });
}

std::string listsOfPresentity(Executor& executor)
{
    return appending<SourcesRecord>({before()},
                                    [&](auto& records) { return executor.getSourceOpaque("bob#pre%sence", records); });
}

std::string listsMatching(Executor& executor)
{
    return appending<SourcesRecord>({before()},
                                    [&](auto& records) { return executor.getSources(records, "sip:bob", "presence"); });
}

std::string listsWinfo(Executor& executor)
{
    return appending<WatcherInfoRecord>(
        {winfoBefore()}, [&](auto& records) { return executor.getWinfoForPresentity("bob.w%info", records); });
}

std::vector<PresenceOperation> queries()
{
    const std::vector<std::string> one = {"retrieved 1 rows"};
    const std::vector<std::string> none = {"retrieved 0 rows"};
    return {
        query({"getAllEventSources", "getAllPresenceSources()", listsOfEvent, kOfEvent, rows({kRow}), one},
              "okay\n" + kBefore + kRead, kBefore),
        query({"getAllEventSourcesWithoutAny", "getAllPresenceSources()", listsOfEvent, kOfEvent, noRows(5), none},
              "okay\n" + kBefore, kBefore),
        query({"getSourceOpaque", "getSourceOpaque()", listsOfPresentity, kOfPresentity, rows({kRowOfPresentity}), one},
              "okay\n" + kBefore + kReadOfPresentity, kBefore),
        query({"getSourceOpaqueWithoutAny", "getSourceOpaque()", listsOfPresentity, kOfPresentity, noRows(5), none},
              "okay\n" + kBefore, kBefore),
        query({"getSources", "getSources()", listsMatching, kMatching, rows({kRow}), one}, "okay\n" + kBefore + kRead,
              kBefore),
        query({"getSourcesWithoutAny", "getSources()", listsMatching, kMatching, noRows(5), none},
              "not found\n" + kBefore, kBefore),
        query({"getWinfoForPresentity",
               "getWinfoForPresentity()",
               listsWinfo,
               kWinfo,
               rows({kWinfoRow}),
               {"Retrieved 1 rows"}},
              "okay\n" + kWinfoBefore + kWinfoRead, kWinfoBefore),
        query({"getWinfoForPresentityWithoutAny",
               "getWinfoForPresentity()",
               listsWinfo,
               kWinfo,
               noRows(4),
               {"Retrieved 0 rows"}},
              "not found\n" + kWinfoBefore, kWinfoBefore),
    };
}

std::vector<PresenceOperation> changes()
{
    return {
        insertOrDelete({
            .name = "addSourceOpaque",
            .operation = "addSourceOpaque()",
            .call = [](Executor& executor) { return show(executor.addSourceOpaque(before())); },
            .text = kAdd,
        }),
        insertOrDelete({
            .name = "deleteSourceOpaque",
            .operation = "deleteSourceOpaque()",
            .call = [](Executor& executor) { return show(executor.deleteSourceOpaque("bob#presence", "publish%s")); },
            .text = "DELETE FROM event_sources WHERE sourceopaque = 'publish%s';",
        }),
        update({
            .name = "updateSourceExpiry",
            .operation = "updateSourceExpiry()",
            .call =
                [](Executor& executor) { return show(executor.updateSourceExpiry("bob%presence", "publish%s", 60)); },
            .text = "UPDATE event_sources SET expirytime=60 WHERE sourceopaque='publish%s';",
            .reply = command("2"),
        }),
        update({
            .name = "updateSourceExpiryOfEmptyTexts",
            .operation = "updateSourceExpiry()",
            .call = [](Executor& executor) { return show(executor.updateSourceExpiry("", "", -1)); },
            .text = "UPDATE event_sources SET expirytime=-1 WHERE sourceopaque='';",
        }),
        insertOrDelete({
            .name = "addWinfoForPresentity",
            .operation = "addWinfoForPresentity()",
            .call = [](Executor& executor) { return show(executor.addWinfoForPresentity(winfoBefore())); },
            .text = kAddWinfo,
        }),
        update({
            .name = "updateWinfoForPresentity",
            .operation = "updateWinfoForPresentity()",
            .call = [](Executor& executor) { return show(executor.updateWinfoForPresentity(winfoBefore())); },
            .text = kUpdateWinfo,
        }),
        insertOrDelete({
            .name = "deleteWinfoForPresentity",
            .operation = "deleteWinfoForPresentity()",
            .call = [](Executor& executor) { return show(executor.deleteWinfoForPresentity("incoming#1%s")); },
            .text = "DELETE FROM watcherinfo WHERE subscriberkey = 'incoming#1%s';",
        }),
    };
}

class SourceStatement : public PresenceStatementTest {};

TEST_P(SourceStatement, AnswersForItsEndingAndLeavesTheReason)
{
    endsAsTheCourseDoes();
}

INSTANTIATE_TEST_SUITE_P(OfAChange, SourceStatement, testing::ValuesIn(onEveryCourse(andTouchingNoRow(changes()))),
                         kRowName);
INSTANTIATE_TEST_SUITE_P(OfAQuery, SourceStatement, testing::ValuesIn(onEveryCourse(queries())), kRowName);

class SourceArguments : public PresenceRefusalTest {};

TEST_P(SourceArguments, AreNeededForAStatement)
{
    sendsNothing();
}

PresenceRefusal incompleteSource(const std::string& name, const char* presentityKey, const char* sourceOpaque)
{
    return refusal("addSourceOpaqueWithout" + name, "addSourceOpaque()",
                   "addSourceOpaque: missing one or more parameters\n", [=](Executor& executor) {
                       return show(executor.addSourceOpaque(
                           SourcesRecord(presentityKey, sourceOpaque, "contact", 60, "presence", "presentity")));
                   });
}

PresenceRefusal incompleteWinfo(const std::string& name, const WatcherInfoRecord& record)
{
    return refusal("addWinfoForPresentityWithout" + name, "addWinfoForPresentity()",
                   "addWinfoForPresentity: missing one or more parameters\n",
                   [record](Executor& executor) { return show(executor.addWinfoForPresentity(record)); });
}

/// The one refusal that is traced too.
PresenceRefusal incompleteUpdate(const std::string& name, const WatcherInfoRecord& record)
{
    PresenceRefusal incomplete =
        refusal("updateWinfoForPresentityWithout" + name, "updateWinfoForPresentity()",
                "updateWinfoForPresentity: missing one or more parameters\n",
                [record](Executor& executor) { return show(executor.updateWinfoForPresentity(record)); });
    incomplete.traced += presenceTrace({"updateWinfoForPresentity: missing one or more parameters\n"});
    return incomplete;
}

std::vector<PresenceRefusal> refusals()
{
    return {
        refusal(
            "getAllEventSourcesWithoutEvent", "getAllPresenceSources()",
            "getAllEventSources: missing one or more parameters\n",
            [](Executor& executor) {
                return appending<SourcesRecord>(
                    {before()}, [&](auto& records) { return executor.getAllEventSources(nullptr, records); });
            },
            "\n" + kBefore),
        incompleteSource("Key", "", "publish#1"),
        incompleteSource("Opaque", "bob#presence", ""),
        refusal("updateSourceExpiryWithoutKey", "updateSourceExpiry()",
                "invalid parameters passed to updateSourceExpiry",
                [](Executor& executor) { return show(executor.updateSourceExpiry(nullptr, "publish#1", 60)); }),
        refusal("updateSourceExpiryWithoutOpaque", "updateSourceExpiry()",
                "invalid parameters passed to updateSourceExpiry",
                [](Executor& executor) { return show(executor.updateSourceExpiry("bob#presence", nullptr, 60)); }),
        refusal(
            "getWinfoForPresentityWithoutKey", "getWinfoForPresentity()",
            "invalid parameters passed to getWinfoForPresentity",
            [](Executor& executor) {
                return appending<WatcherInfoRecord>(
                    {winfoBefore()}, [&](auto& records) { return executor.getWinfoForPresentity(nullptr, records); });
            },
            "\n" + kWinfoBefore),
        incompleteWinfo("SubscriberKey", WatcherInfoRecord("bob.winfo", "", "sip", 1, 60)),
        incompleteWinfo("Scheme", WatcherInfoRecord("bob.winfo", "incoming#1", "", 1, 60)),
        incompleteWinfo("WinfoKey", WatcherInfoRecord("", "incoming#1", "sip", 1, 60)),
        incompleteUpdate("SubscriberKey", WatcherInfoRecord("bob.winfo", "", "sip", 1, 60)),
        incompleteUpdate("Scheme", WatcherInfoRecord("bob.winfo", "incoming#1", "", 1, 60)),
    };
}

INSTANTIATE_TEST_SUITE_P(Missing, SourceArguments, testing::ValuesIn(refusals()), kRowName);

class SourcesTest : public PresenceTest {};

TEST_F(SourcesTest, TheSourcesOfAnEventAreListedEachForItself)
{
    libpq.replies({rows({kRow, kSecondRow, kRow})});
    EXPECT_EQ(listsOfEvent(executor), "okay\n" + kBefore + kRead + kSecondRead + kRead);
    EXPECT_EQ(traced(), presenceTrace({"getAllPresenceSources()", kOfEvent, "retrieved 3 rows"}));
}

TEST_F(SourcesTest, TheSourcesOfAPresentityAreListedEachForItself)
{
    libpq.replies({rows({kRowOfPresentity, kSecondRowOfPresentity, kRowOfPresentity})});
    EXPECT_EQ(listsOfPresentity(executor),
              "okay\n" + kBefore + kReadOfPresentity + kSecondReadOfPresentity + kReadOfPresentity);
    EXPECT_EQ(traced(), presenceTrace({"getSourceOpaque()", kOfPresentity, "retrieved 3 rows"}));
}

TEST_F(SourcesTest, MatchingSourcesAreListedEachForItself)
{
    libpq.replies({rows({kRow, kSecondRow, kRow})});
    EXPECT_EQ(listsMatching(executor), "okay\n" + kBefore + kRead + kSecondRead + kRead);
    EXPECT_EQ(traced(), presenceTrace({"getSources()", kMatching, "retrieved 3 rows"}));
}

TEST_F(SourcesTest, WatcherInformationIsListedEachForItself)
{
    libpq.replies({rows({kWinfoRow, kSecondWinfoRow, kWinfoRow})});
    EXPECT_EQ(listsWinfo(executor), "okay\n" + kWinfoBefore + kWinfoRead + kSecondWinfoRead + kWinfoRead);
    EXPECT_EQ(traced(), presenceTrace({"getWinfoForPresentity()", kWinfo, "Retrieved 3 rows"}));
}

TEST_F(SourcesTest, WithoutRowsTheExactListingsAreOkayAndTheOthersNotFound)
{
    std::vector<SourcesRecord> sources;
    std::vector<WatcherInfoRecord> winfo;
    libpq.replies({noRows(5), noRows(5), noRows(5), noRows(4)});
    EXPECT_EQ(show(executor.getAllEventSources("presence", sources)), "okay");
    EXPECT_EQ(show(executor.getSourceOpaque("bob#presence", sources)), "okay");
    EXPECT_EQ(show(executor.getSources(sources, "bob", "presence")), "not found");
    EXPECT_EQ(show(executor.getWinfoForPresentity("bob.winfo", winfo)), "not found");
    EXPECT_EQ(show(sources) + show(winfo), "");
}

TEST_F(SourcesTest, ANullColumnIsEmptyInASource)
{
    const std::vector<std::string> expected = {
        "source '' of 'bob#presence' contact='<sip:bob@192.0.2.1>' event='presence' presentity='' expires=1700000000\n",
        "source 'publish#1' of 'bob#presence' contact='' event='presence' presentity='' expires=1700000000\n",
        "source 'publish#1' of 'bob#presence' contact='<sip:bob@192.0.2.1>' event='presence' presentity='' expires=0\n",
        "source 'publish#1' of '' contact='<sip:bob@192.0.2.1>' event='presence' presentity='' expires=1700000000\n",
        "source 'publish#1' of 'bob#presence' contact='<sip:bob@192.0.2.1>' event='' presentity='' expires=1700000000\n",
    };
    for (std::size_t column = 0; column < expected.size(); ++column) {
        libpq.replies({rows({withNull(kRow, column)}), rows({withNull(kRow, column)})});
        EXPECT_EQ(listsOfEvent(executor), "okay\n" + kBefore + expected[column]) << "column " << column;
        EXPECT_EQ(listsMatching(executor), "okay\n" + kBefore + expected[column]) << "column " << column;
    }
}

TEST_F(SourcesTest, ANullColumnIsEmptyInASourceOfAPresentity)
{
    const std::vector<std::string> expected = {
        "source '' of 'bob#pre%sence' contact='<sip:bob@192.0.2.1>' event='presence' presentity='sip:bob@oryx.example' expires=1700000000\n",
        "source 'publish#1' of 'bob#pre%sence' contact='' event='presence' presentity='sip:bob@oryx.example' expires=1700000000\n",
        "source 'publish#1' of 'bob#pre%sence' contact='<sip:bob@192.0.2.1>' event='presence' presentity='sip:bob@oryx.example' expires=0\n",
        "source 'publish#1' of 'bob#pre%sence' contact='<sip:bob@192.0.2.1>' event='' presentity='sip:bob@oryx.example' expires=1700000000\n",
        "source 'publish#1' of 'bob#pre%sence' contact='<sip:bob@192.0.2.1>' event='presence' presentity='' expires=1700000000\n",
    };
    for (std::size_t column = 0; column < expected.size(); ++column) {
        libpq.replies({rows({withNull(kRowOfPresentity, column)})});
        EXPECT_EQ(listsOfPresentity(executor), "okay\n" + kBefore + expected[column]) << "column " << column;
    }
}

TEST_F(SourcesTest, ANullColumnIsEmptyInWatcherInformation)
{
    const std::vector<std::string> expected = {
        "winfo 'bob.w%info' for '' scheme='sip' from version=2 expires=1700000000\n",
        "winfo 'bob.w%info' for 'incoming#1' scheme='sip' from version=0 expires=1700000000\n",
        "winfo 'bob.w%info' for 'incoming#1' scheme='sip' from version=2 expires=0\n",
        "winfo 'bob.w%info' for 'incoming#1' scheme='' from version=2 expires=1700000000\n",
    };
    for (std::size_t column = 0; column < expected.size(); ++column) {
        libpq.replies({rows({withNull(kWinfoRow, column)})});
        EXPECT_EQ(listsWinfo(executor), "okay\n" + kWinfoBefore + expected[column]) << "column " << column;
    }
}

TEST_F(SourcesTest, ANumberIsReadAsFarAsItGoes)
{
    libpq.replies({rows({{"publish#1", "contact", "60s", "bob#presence", "presence"},
                         {"publish#1", "contact", "", "bob#presence", "presence"}}),
                   rows({{"incoming#1", "2x", " 60", "sip"}, {"incoming#1", "x", "60.5", "sip"}})});
    EXPECT_EQ(listsMatching(executor),
              "okay\n" + kBefore +
                  "source 'publish#1' of 'bob#presence' contact='contact' event='presence' presentity='' expires=60\n"
                  "source 'publish#1' of 'bob#presence' contact='contact' event='presence' presentity='' expires=0\n");
    EXPECT_EQ(listsWinfo(executor), "okay\n" + kWinfoBefore +
                                        "winfo 'bob.w%info' for 'incoming#1' scheme='sip' from version=2 expires=60\n"
                                        "winfo 'bob.w%info' for 'incoming#1' scheme='sip' from version=0 expires=60\n");
}

TEST_F(SourcesTest, ASourceIsDeletedWithoutItsPresentity)
{
    libpq.replies({command("1")});
    EXPECT_EQ(show(executor.deleteSourceOpaque(nullptr, "s")), "okay");
    EXPECT_EQ(libpq.take(), "exec DELETE FROM event_sources WHERE sourceopaque = 's';\n");
}

TEST_F(SourcesTest, ASourceOfFewTextsIsStoredWithNulls)
{
    libpq.replies({command("1")});
    EXPECT_EQ(show(executor.addSourceOpaque(SourcesRecord("bob#presence", "publish#1", "", -1, ""))), "okay");
    EXPECT_EQ(
        libpq.take(),
        "exec INSERT INTO event_sources (presentitykey,sourceopaque,contact,expirytime,event,presentity) VALUES('bob#presence','publish#1',NULL,-1,NULL,NULL);\n");
}

TEST_F(SourcesTest, WatcherInformationIsUpdatedWithoutItsOwnKey)
{
    libpq.replies({command("1")});
    EXPECT_EQ(show(executor.updateWinfoForPresentity(WatcherInfoRecord("", "incoming#1", "sip", -1, 0))), "okay");
    EXPECT_EQ(
        libpq.take(),
        "exec UPDATE watcherinfo SET presurlscheme='sip', startingdocversion = -1,expirytime = 0 WHERE subscriberkey='incoming#1';\n");
}

TEST_F(SourcesTest, ADuplicateIsAConnectionErrorInTheServersWords)
{
    const auto duplicate = refused("23505", "ERROR:  duplicate key value\n");
    libpq.replies({duplicate, duplicate, duplicate, duplicate});
    EXPECT_EQ(show(executor.addSourceOpaque(before())),
              "connection error: ERROR:  duplicate key value\n, sqlState=23505, sqlcommand=" + kAdd);
    EXPECT_EQ(show(executor.addWinfoForPresentity(winfoBefore())),
              "connection error: ERROR:  duplicate key value\n, sqlState=23505, sqlcommand=" + kAddWinfo);
}

TEST_F(SourcesTest, AQuoteInAnArgumentGoesIntoTheStatementAsItIs)
{
    std::vector<SourcesRecord> records;
    const auto syntax = refused("42601");
    libpq.replies({syntax, syntax, syntax, syntax, syntax, syntax});
    EXPECT_EQ(
        show(executor.getSources(records, "bob's", "pre'sence")),
        "query error: ERROR:  refused\n, sqlState=42601, sqlcommand=SELECT sourceopaque, contact, expirytime,presentitykey,event FROM event_sources  WHERE presentity like '%%bob's%%' and  event like '%%pre'sence%%';");
    EXPECT_EQ(
        show(executor.deleteWinfoForPresentity("it's")),
        "connection error: ERROR:  refused\n, sqlState=42601, sqlcommand=DELETE FROM watcherinfo WHERE subscriberkey = 'it's';");
    libpq.take();
    EXPECT_EQ(show(executor.updateSourceExpiry("bob's", "it's", 60)), "connection error");
    EXPECT_EQ(libpq.takeStatements(),
              std::vector<std::string>(2, "UPDATE event_sources SET expirytime=60 WHERE sourceopaque='it's';"));
}

TEST_F(SourcesTest, ANullTextThatIsNotCheckedCountsAsEmpty)
{
    std::vector<SourcesRecord> records;
    libpq.replies({rows({kRowOfPresentity}), noRows(5), command("0"), command("0")});
    EXPECT_EQ(show(executor.getSourceOpaque(nullptr, records)), "okay");
    EXPECT_EQ(
        show(records),
        "source 'publish#1' of '' contact='<sip:bob@192.0.2.1>' event='presence' presentity='sip:bob@oryx.example' expires=1700000000\n");
    executor.getSources(records, nullptr, nullptr);
    executor.deleteSourceOpaque(nullptr, nullptr);
    executor.deleteWinfoForPresentity(nullptr);
    EXPECT_EQ(
        libpq.take(),
        "exec SELECT sourceopaque, contact, expirytime, event, presentity  FROM event_sources WHERE presentitykey ='';\n"
        "exec SELECT sourceopaque, contact, expirytime,presentitykey,event FROM event_sources  WHERE presentity like '%%%%' and  event like '%%%%';\n"
        "exec DELETE FROM event_sources WHERE sourceopaque = '';\n"
        "exec DELETE FROM watcherinfo WHERE subscriberkey = '';\n");
}

TEST_F(SourcesTest, AKeyMayPointIntoTheVectorThatGrows)
{
    std::vector<WatcherInfoRecord> records = {winfoBefore()};
    libpq.replies({rows({kWinfoRow, kWinfoRow, kWinfoRow})});
    EXPECT_EQ(show(executor.getWinfoForPresentity(records.front().winfokey().c_str(), records)), "okay");
    const std::string appended =
        "winfo 'carol.w%info' for 'incoming#1' scheme='sip' from version=2 expires=1700000000\n";
    EXPECT_EQ(show(records), kWinfoBefore + appended + appended + appended);
}

} // namespace

} // namespace sourcesTest
