#include "database/PresenceFixture.h"

#include <limits>
#include <string>
#include <vector>

namespace sourcesTest {

namespace {

using oryx::SourcesRecord;
using oryx::WatcherInfoRecord;

class EventSources : public PresenceTest {
protected:
    void add(const std::vector<SourcesRecord>& sources)
    {
        for (const SourcesRecord& source : sources) {
            EXPECT_EQ(outcome(m_executor.addSourceOpaque(source)), "okay");
        }
    }

    std::string stored() { return rows("SELECT * FROM event_sources ORDER BY presentitykey, sourceopaque"); }

    std::string ofEvent(const char* event)
    {
        return listed<SourcesRecord>([&](auto& records) { return m_executor.getAllEventSources(event, records); });
    }

    std::string ofPresentity(const char* key)
    {
        return listed<SourcesRecord>([&](auto& records) { return m_executor.getSourceOpaque(key, records); });
    }

    std::string matching(const char* presentity, const char* event)
    {
        return listed<SourcesRecord>([&](auto& records) { return m_executor.getSources(records, presentity, event); });
    }
};

class WatcherInformation : public PresenceTest {
protected:
    void add(const std::vector<WatcherInfoRecord>& records)
    {
        for (const WatcherInfoRecord& record : records) {
            EXPECT_EQ(outcome(m_executor.addWinfoForPresentity(record)), "okay");
        }
    }

    std::string stored() { return rows("SELECT * FROM watcherinfo ORDER BY subscriberkey"); }

    std::string found(const char* key)
    {
        return listed<WatcherInfoRecord>([&](auto& records) { return m_executor.getWinfoForPresentity(key, records); });
    }
};

SourcesRecord source(const std::string& user, const char* opaque, const char* event, bool withPresentity = true)
{
    return {(user + "#" + event).c_str(),
            opaque,
            ("<sip:" + user + "@192.0.2.1>").c_str(),
            2000000000,
            event,
            withPresentity ? ("sip:" + user + "@oryx.example").c_str() : ""};
}

/// As the listings give it that do not read the presentity.
std::string bare(const std::string& user, const char* opaque, const char* event)
{
    return show(source(user, opaque, event, false));
}

const SourcesRecord kAlice = source("alice", "s1", "presence");
const SourcesRecord kBob = source("bob", "s2", "presence.winfo");
const SourcesRecord kCarol = source("carol", "s3", "presence");
const std::string kRowOfAlice = "alice#presence|s1|<sip:alice@192.0.2.1>|2000000000|presence|sip:alice@oryx.example\n";
const std::string kRowOfBob =
    "bob#presence.winfo|s2|<sip:bob@192.0.2.1>|2000000000|presence.winfo|sip:bob@oryx.example\n";

const WatcherInfoRecord kFirst("bob#winfo", "s1", "sip", 1, 2000000000);
const WatcherInfoRecord kSecond("carol#winfo", "s2", "pres", 2, 2100000000);
const std::string kRowOfFirst = "bob#winfo|s1|sip|1|2000000000\n";
const std::string kRowOfSecond = "carol#winfo|s2|pres|2|2100000000\n";

TEST_F(EventSources, AreStored)
{
    add({kAlice, kBob, {"k", "s", "", -1, ""}});
    EXPECT_EQ(stored(), kRowOfAlice + kRowOfBob + "k|s|NULL|-1|NULL|NULL\n");
}

TEST_F(EventSources, AreNotStoredIncompleteOrTwice)
{
    const std::string incomplete = "query error: addSourceOpaque: missing one or more parameters\n";
    EXPECT_EQ(show(m_executor.addSourceOpaque({"", "s1", "c", 0, "e"})), incomplete);
    EXPECT_EQ(show(m_executor.addSourceOpaque({"k", nullptr, "c", 0, "e"})), incomplete);
    EXPECT_EQ(outcome(m_executor.addSourceOpaque({"k", "s", kQuoted, 0, "e"})), plainOrBound(kBrokenChange, "okay"));
    add({kAlice});
    EXPECT_EQ(outcome(m_executor.addSourceOpaque(kAlice)), "connection error" + duplicateOf("event_sources_pkey"));
    EXPECT_EQ(stored(), plainOrBound(kRowOfAlice, kRowOfAlice + "k|s|o'neill|0|e|NULL\n"));
}

TEST_F(EventSources, AreListedByEventWithoutTheirPresentity)
{
    add({kAlice, kBob, kCarol});
    EXPECT_EQ(ofEvent("presence"), "okay\n" + bare("alice", "s1", "presence") + bare("carol", "s3", "presence"));
    EXPECT_EQ(ofEvent("pres"), "okay\n");
    EXPECT_EQ(ofEvent(nullptr), "query error: getAllEventSources: missing one or more parameters\n\n");
    EXPECT_EQ(ofEvent(kQuoted), plainOrBound(kBrokenQuery, "okay\n"));
}

TEST_F(EventSources, AreListedByPresentityKey)
{
    add({kAlice, kBob});
    EXPECT_EQ(ofPresentity("alice#presence"), "okay\n" + show(kAlice));
    EXPECT_EQ(ofPresentity("alice"), "okay\n");
    EXPECT_EQ(ofPresentity(kQuoted), plainOrBound(kBrokenQuery, "okay\n"));
}

TEST_F(EventSources, AreListedByPartsOfPresentityAndEvent)
{
    add({kAlice, kBob, kCarol});
    EXPECT_EQ(matching("@oryx.example", "presence"), "okay\n" + bare("alice", "s1", "presence") +
                                                         bare("bob", "s2", "presence.winfo") +
                                                         bare("carol", "s3", "presence"));
    EXPECT_EQ(matching("bob", "winfo"), "okay\n" + bare("bob", "s2", "presence.winfo"));
    EXPECT_EQ(matching("c_rol", ""), "okay\n" + bare("carol", "s3", "presence"));
    EXPECT_EQ(matching("alice", "winfo"), "not found\n");
    EXPECT_EQ(matching("dave", "presence"), "not found\n");
    EXPECT_EQ(matching(kQuoted, "presence"), plainOrBound(kBrokenQuery, "not found\n"));
    EXPECT_EQ(matching("alice", kQuoted), plainOrBound(kBrokenQuery, "not found\n"));
}

TEST_F(EventSources, AreListedBehindThoseAlreadyThere)
{
    add({kAlice});
    std::vector<SourcesRecord> records{kBob};
    EXPECT_EQ(show(m_executor.getAllEventSources("presence", records)), "okay");
    EXPECT_EQ(show(m_executor.getSourceOpaque("alice#presence", records)), "okay");
    EXPECT_EQ(show(m_executor.getSources(records, "alice", "presence")), "okay");
    const std::string bareAlice = bare("alice", "s1", "presence");
    EXPECT_EQ(show(records), show(kBob) + bareAlice + show(kAlice) + bareAlice);
}

TEST_F(EventSources, AreListedWithTheirNullColumnsEmpty)
{
    sql("INSERT INTO event_sources (presentitykey, sourceopaque, event) VALUES ('k', 's', 'e')");
    const std::string source = "okay\n" + show(SourcesRecord("k", "s", "", 0, "e"));
    EXPECT_EQ(ofEvent("e"), source);
    EXPECT_EQ(ofPresentity("k"), source);
    EXPECT_EQ(matching("", ""), "not found\n");
    sql("UPDATE event_sources SET presentity = ''");
    EXPECT_EQ(matching("", ""), source);
    sql("UPDATE event_sources SET event = NULL");
    EXPECT_EQ(ofPresentity("k"), "okay\n" + show(SourcesRecord("k", "s", "", 0, "")));
}

TEST_F(EventSources, ExpireTogetherWhateverTheirPresentity)
{
    add({kAlice, kBob, {"other", "s1", "", 5, ""}});
    EXPECT_EQ(show(m_executor.updateSourceExpiry("nobody", "s1", 60)), "okay");
    EXPECT_EQ(rows("SELECT presentitykey, expirytime FROM event_sources ORDER BY presentitykey"),
              "alice#presence|60\nbob#presence.winfo|2000000000\nother|60\n");
}

TEST_F(EventSources, StayAsTheyAreWhereNoneIsUpdated)
{
    add({kAlice});
    EXPECT_EQ(show(m_executor.updateSourceExpiry("alice#presence", "s9", 60)), "okay");
    EXPECT_EQ(show(m_executor.updateSourceExpiry("alice#presence", kQuoted, 60)), plainOrBound(kRefusedUpdate, "okay"));
    const std::string invalid = "query error: invalid parameters passed to updateSourceExpiry";
    EXPECT_EQ(show(m_executor.updateSourceExpiry(nullptr, "s1", 60)), invalid);
    EXPECT_EQ(show(m_executor.updateSourceExpiry("alice#presence", nullptr, 60)), invalid);
    EXPECT_EQ(stored(), kRowOfAlice);
}

TEST_F(EventSources, AreRemovedWhateverTheirPresentity)
{
    add({kAlice, kBob, {"other", "s1", "", 5, ""}});
    EXPECT_EQ(show(m_executor.deleteSourceOpaque(nullptr, "s1")), "okay");
    EXPECT_EQ(stored(), kRowOfBob);
    EXPECT_EQ(show(m_executor.deleteSourceOpaque("bob#presence.winfo", "s1")), "okay");
    EXPECT_EQ(outcome(m_executor.deleteSourceOpaque("bob#presence.winfo", kQuoted)),
              plainOrBound(kBrokenChange, "okay"));
    EXPECT_EQ(stored(), kRowOfBob);
}

TEST_F(WatcherInformation, IsStoredAndListedByItsKey)
{
    add({kFirst, kSecond});
    EXPECT_EQ(stored(), kRowOfFirst + kRowOfSecond);
    EXPECT_EQ(found("bob#winfo"), "okay\n" + show(kFirst));
    std::vector<WatcherInfoRecord> records{kFirst};
    EXPECT_EQ(show(m_executor.getWinfoForPresentity("carol#winfo", records)), "okay");
    EXPECT_EQ(show(records), show(kFirst) + show(kSecond));
}

TEST_F(WatcherInformation, KeepsEveryNumberOfItsTypes)
{
    const WatcherInfoRecord last("bob#winfo", "s1", "sip", std::numeric_limits<int>::max(),
                                 std::numeric_limits<long>::max());
    add({last});
    EXPECT_EQ(found("bob#winfo"), "okay\n" + show(last));
    const WatcherInfoRecord first("bob#winfo", "s1", "sip", std::numeric_limits<int>::min(),
                                  std::numeric_limits<long>::min());
    EXPECT_EQ(outcome(m_executor.updateWinfoForPresentity(first)), "okay");
    EXPECT_EQ(found("bob#winfo"), "okay\n" + show(first));
}

TEST_F(EventSources, KeepEveryNumberOfTheirTypes)
{
    const SourcesRecord last("bob#presence", "s1", "c", std::numeric_limits<long>::max(), "presence", "bob");
    const SourcesRecord first("bob#presence", "s2", "c", std::numeric_limits<long>::min(), "presence", "bob");
    add({last, first});
    EXPECT_EQ(ofPresentity("bob#presence"), "okay\n" + show(last) + show(first));
}

TEST_F(WatcherInformation, IsNotFoundUnderAKeyThatNoneHas)
{
    add({kFirst});
    EXPECT_EQ(found("dave#winfo"), "not found\n");
    EXPECT_EQ(found(nullptr), "query error: invalid parameters passed to getWinfoForPresentity\n");
    EXPECT_EQ(found(kQuoted), plainOrBound(kBrokenQuery, "not found\n"));
}

TEST_F(WatcherInformation, IsListedWithItsNullColumnsEmpty)
{
    sql("INSERT INTO watcherinfo (winfokey, subscriberkey) VALUES ('bob#winfo', 's1')");
    EXPECT_EQ(found("bob#winfo"), "okay\n" + show(WatcherInfoRecord("bob#winfo", "s1", "", 0, 0)));
}

TEST_F(WatcherInformation, IsNotStoredIncompleteOrTwice)
{
    const std::string incomplete = "query error: addWinfoForPresentity: missing one or more parameters\n";
    EXPECT_EQ(show(m_executor.addWinfoForPresentity({"w", "", "sip", 0, 0})), incomplete);
    EXPECT_EQ(show(m_executor.addWinfoForPresentity({"w", "s", "", 0, 0})), incomplete);
    EXPECT_EQ(show(m_executor.addWinfoForPresentity({"", "s", "sip", 0, 0})), incomplete);
    EXPECT_EQ(outcome(m_executor.addWinfoForPresentity({kQuoted, "s", "sip", 0, 0})),
              plainOrBound(kBrokenChange, "okay"));
    add({kFirst});
    EXPECT_EQ(outcome(m_executor.addWinfoForPresentity(kFirst)), "connection error" + duplicateOf("watcherinfo_pkey"));
    EXPECT_EQ(stored(), plainOrBound(kRowOfFirst, "o'neill|s|sip|0|0\n" + kRowOfFirst));
}

TEST_F(WatcherInformation, IsUpdatedByItsSubscriber)
{
    add({kFirst, kSecond});
    EXPECT_EQ(show(m_executor.updateWinfoForPresentity({"other", "s2", "sips", 9, 60})), "okay");
    EXPECT_EQ(stored(), kRowOfFirst + "carol#winfo|s2|sips|9|60\n");
}

TEST_F(WatcherInformation, StaysAsItIsWhereNoneIsUpdated)
{
    add({kFirst});
    const std::string incomplete = "query error: updateWinfoForPresentity: missing one or more parameters\n";
    EXPECT_EQ(show(m_executor.updateWinfoForPresentity({"bob#winfo", "s9", "sips", 9, 60})), "okay");
    EXPECT_EQ(show(m_executor.updateWinfoForPresentity({"bob#winfo", "", "sips", 9, 60})), incomplete);
    EXPECT_EQ(show(m_executor.updateWinfoForPresentity({"bob#winfo", "s1", "", 9, 60})), incomplete);
    EXPECT_EQ(show(m_executor.updateWinfoForPresentity({"bob#winfo", "s1", kQuoted, 9, 60})),
              plainOrBound(kRefusedUpdate, "okay"));
    EXPECT_EQ(stored(), plainOrBound(kRowOfFirst, "bob#winfo|s1|o'neill|9|60\n"));
}

TEST_F(WatcherInformation, IsRemovedByItsSubscriber)
{
    add({kFirst, kSecond});
    EXPECT_EQ(show(m_executor.deleteWinfoForPresentity("s2")), "okay");
    EXPECT_EQ(show(m_executor.deleteWinfoForPresentity("s2")), "okay");
    EXPECT_EQ(outcome(m_executor.deleteWinfoForPresentity(kQuoted)), plainOrBound(kBrokenChange, "okay"));
    EXPECT_EQ(stored(), kRowOfFirst);
}

} // namespace

} // namespace sourcesTest
