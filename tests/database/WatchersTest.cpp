#include "database/PresenceFixture.h"

#include <algorithm>
#include <limits>
#include <string>
#include <utility>
#include <vector>

namespace watchersTest {

namespace {

using oryx::WatchersRecord;

class Watchers : public PresenceTest {
protected:
    void add(const std::vector<WatchersRecord>& watchers)
    {
        for (const WatchersRecord& watcher : watchers) {
            EXPECT_EQ(outcome(m_executor.addWatcherState(watcher)), "okay");
        }
    }

    /// The dialogs that watchers have, and their remote contacts.
    void addDialog(const std::string& id, const std::string& contact)
    {
        sql("INSERT INTO subscription_states (subscriptionid, remotecontacthdr) VALUES ('" + id + "', " + contact +
            ")");
    }

    std::string stored() { return rows("SELECT * FROM event_watchers ORDER BY presentitykey, watcheropaque"); }

    std::string ofPresentity(const char* key)
    {
        return listed<WatchersRecord>([&](auto& records) { return m_executor.getWatcherState(key, records); });
    }

    std::string matching(const char* first, const char* second)
    {
        return listed<WatchersRecord>([&](auto& records) { return m_executor.getWatchers(records, first, second); });
    }

    std::string isThere(const char* key, const char* opaque)
    {
        return outcome(m_executor.getWatcherState(key, opaque));
    }
};

WatchersRecord watcher(const std::string& key, const std::string& opaque)
{
    return {key, opaque, 1, 2, 3, 2000000000, "alice", "sip:bob@oryx.example", 5, "presence", "<sip:alice@192.0.2.1>"};
}

const WatchersRecord kAlice = watcher("bob@oryx.example#presence", "incoming#1");
const WatchersRecord kCarol = watcher("bob@oryx.example#presence", "incoming#2");
const WatchersRecord kDave = watcher("carol@oryx.example#dialog", "incoming#1");

std::string row(const WatchersRecord& record)
{
    return record.presentitykey() + "|" + record.watcheropaque() +
           "|1|5|2|3|2000000000|alice|presence|sip:bob@oryx.example\n";
}

/// As a listing gives a watcher: under that key, without its event, and with its dialog's contact.
std::string read(WatchersRecord record, const std::string& key, const std::string& contact)
{
    record.presentitykey(key);
    record.event("");
    record.remoteContactHdr(contact);
    return show(record);
}

TEST_F(Watchers, AreStoredWithoutTheirContact)
{
    add({kAlice, kCarol, kDave});
    EXPECT_EQ(stored(), row(kAlice) + row(kCarol) + row(kDave));
}

TEST_F(Watchers, AreListedAfterTheyHaveExpired)
{
    WatchersRecord expired = kAlice;
    expired.expirytime(1000000000);
    add({expired});
    addDialog("incoming#1", "'<sip:alice@192.0.2.9>'");
    EXPECT_EQ(ofPresentity("bob@oryx.example#presence"),
              "okay\n" + read(expired, "bob@oryx.example#presence", "<sip:alice@192.0.2.9>"));
    EXPECT_EQ(matching("presence", "bob@oryx.example"), "okay\n" + read(expired, "sip:bob@oryx.example", ""));
}

TEST_F(Watchers, AreStoredWithTheirKeysAlone)
{
    add({{"key", "opaque", 0, 0, -1, 0, "", "", 0, "", ""}});
    EXPECT_EQ(stored(), "key|opaque|0|0|0|-1|0|NULL|NULL|NULL\n");
}

TEST_F(Watchers, AreNotStoredIncompleteOrTwice)
{
    const std::string incomplete = "query error: addWatcherState: missing one or more parameters\n";
    EXPECT_EQ(show(m_executor.addWatcherState(watcher("", "incoming#1"))), incomplete);
    EXPECT_EQ(show(m_executor.addWatcherState(watcher("key", ""))), incomplete);
    EXPECT_EQ(outcome(m_executor.addWatcherState(watcher(kQuoted, "incoming#1"))), plainOrBound(kBrokenChange, "okay"));
    add({kAlice});
    EXPECT_EQ(outcome(m_executor.addWatcherState(kAlice)), "connection error" + duplicateOf("event_watchers_pkey"));
    EXPECT_EQ(stored(), plainOrBound(row(kAlice), row(kAlice) + row(watcher(kQuoted, "incoming#1"))));
}

TEST_F(Watchers, AreThereOrNot)
{
    add({kAlice});
    EXPECT_EQ(isThere("bob@oryx.example#presence", "incoming#1"), "okay");
    EXPECT_EQ(isThere("bob@oryx.example#presence", "incoming#2"), "not found");
    EXPECT_EQ(isThere("carol@oryx.example#dialog", "incoming#1"), "not found");
    EXPECT_EQ(isThere(kQuoted, "incoming#1"), plainOrBound("query error: " + kBroken, "not found"));
    EXPECT_EQ(isThere("bob@oryx.example#presence", kQuoted), plainOrBound("query error: " + kBroken, "not found"));
}

TEST_F(Watchers, OfAPresentityAreListedWithTheirDialogsContact)
{
    add({kAlice, kDave, watcher("bob@oryx.example#presence", "incoming#3")});
    addDialog("incoming#1", "'<sip:alice@192.0.2.9>'");
    addDialog("incoming#2", "'<sip:carol@192.0.2.9>'");
    const std::string key = "bob@oryx.example#presence";
    EXPECT_EQ(ofPresentity(key.c_str()), "okay\n" + read(kAlice, key, "<sip:alice@192.0.2.9>"));
    add({kCarol});
    sql("UPDATE subscription_states SET remotecontacthdr = '<sip:one@192.0.2.9>'");
    EXPECT_EQ(sorted(ofPresentity(key.c_str())),
              sorted("okay\n" + read(kAlice, key, "<sip:one@192.0.2.9>") + read(kCarol, key, "<sip:one@192.0.2.9>")));
}

TEST_F(Watchers, OfAPresentityNeedNotBeThere)
{
    add({kAlice});
    EXPECT_EQ(ofPresentity("bob@oryx.example#presence"), "okay\n");
    EXPECT_EQ(ofPresentity("nobody"), "okay\n");
    EXPECT_EQ(ofPresentity(kQuoted), plainOrBound(kBrokenQuery, "okay\n"));
}

TEST_F(Watchers, AreListedBehindThoseAlreadyThere)
{
    add({kAlice});
    addDialog("incoming#1", "'c'");
    std::vector<WatchersRecord> records{kDave};
    EXPECT_EQ(show(m_executor.getWatcherState("bob@oryx.example#presence", records)), "okay");
    EXPECT_EQ(show(m_executor.getWatchers(records, "presence", "bob@oryx.example")), "okay");
    EXPECT_EQ(show(records),
              show(kDave) + read(kAlice, "bob@oryx.example#presence", "c") + read(kAlice, "sip:bob@oryx.example", ""));
}

TEST_F(Watchers, AreListedByAPartOfTheirKeyUnderThePresentity)
{
    add({kAlice, kDave, kCarol});
    const auto found = [](const WatchersRecord& record) { return read(record, "sip:bob@oryx.example", ""); };
    EXPECT_EQ(matching("presence", "bob@oryx.example"), "okay\n" + found(kAlice) + found(kCarol));
    EXPECT_EQ(matching("dia", "oryx.example"), "okay\n" + found(kDave));
    EXPECT_EQ(matching("", ""), "okay\n" + found(kAlice) + found(kDave) + found(kCarol));
    EXPECT_EQ(matching("bob@oryx.example", "presence"), "not found\n");
    EXPECT_EQ(matching(kQuoted, "bob"), plainOrBound(kBrokenQuery, "not found\n"));
    EXPECT_EQ(matching("presence", kQuoted), plainOrBound(kBrokenQuery, "not found\n"));
}

TEST_F(Watchers, AreListedWithTheirNullColumnsEmpty)
{
    sql("INSERT INTO event_watchers (presentitykey, watcheropaque) VALUES ('bob#presence', 'incoming#1')");
    addDialog("incoming#1", "NULL");
    const WatchersRecord bare("", "incoming#1", 0, 0, 0, 0, "", "", 0, "", "");
    EXPECT_EQ(ofPresentity("bob#presence"), "okay\n" + read(bare, "bob#presence", ""));
    EXPECT_EQ(matching("presence", "bob"), "okay\n" + show(bare));
}

TEST_F(Watchers, AreUpdatedOneByOne)
{
    add({kAlice, kCarol, kDave});
    const char* const key = "bob@oryx.example#presence";
    EXPECT_EQ(show(m_executor.updateWatcherState(key, "incoming#1", 7)), "okay");
    EXPECT_EQ(show(m_executor.updateWatcherExpiry(key, "incoming#1", 2147483647)), "okay");
    EXPECT_EQ(show(m_executor.updateWatcherDocVersion(key, "incoming#1", 4294967295UL)), "okay");
    EXPECT_EQ(stored(), "bob@oryx.example#presence|incoming#1|1|4294967295|2|7|2147483647|alice|presence|"
                        "sip:bob@oryx.example\n" +
                            row(kCarol) + row(kDave));
}

TEST_F(Watchers, KeepEveryNumberOfTheirTypes)
{
    using Int = std::numeric_limits<int>;
    using Long = std::numeric_limits<long>;
    constexpr auto kLastVersion = static_cast<unsigned long>(
        std::min<unsigned long long>(std::numeric_limits<unsigned long>::max(), std::numeric_limits<long long>::max()));
    const char* const key = "bob#presence";
    for (const unsigned long version : {4294967295UL, kLastVersion}) {
        sql("DELETE FROM event_watchers");
        WatchersRecord record(key, "incoming#1", Int::min(), Int::max(), Int::min(), Long::max(), "alice", "sip:bob@h",
                              version, "presence", "");
        add({record});
        EXPECT_EQ(matching("presence", "bob"), "okay\n" + read(record, "sip:bob@h", ""));
        EXPECT_EQ(outcome(m_executor.updateWatcherDocVersion(key, "incoming#1", version - 1)), "okay");
        record.docversion(version - 1);
        EXPECT_EQ(matching("presence", "bob"), "okay\n" + read(record, "sip:bob@h", ""));
    }
}

TEST_F(Watchers, StayAsTheyAreWhereNoneIsUpdated)
{
    add({kAlice});
    const char* const key = "bob@oryx.example#presence";
    EXPECT_EQ(show(m_executor.updateWatcherState(key, "incoming#9", 7)), "okay");
    EXPECT_EQ(show(m_executor.updateWatcherExpiry("nobody", "incoming#1", 7)), "okay");
    EXPECT_EQ(show(m_executor.updateWatcherDocVersion(key, "incoming#9", 7)), "okay");
    EXPECT_EQ(show(m_executor.updateWatcherState(key, kQuoted, 7)), plainOrBound(kRefusedUpdate, "okay"));
    EXPECT_EQ(show(m_executor.updateWatcherExpiry(kQuoted, "incoming#1", 7)), plainOrBound(kRefusedUpdate, "okay"));
    EXPECT_EQ(show(m_executor.updateWatcherDocVersion(key, kQuoted, 7)), plainOrBound(kRefusedUpdate, "okay"));
    const char* const missing = nullptr;
    for (const auto& [first, second] : {std::pair(key, missing), std::pair(missing, key)}) {
        EXPECT_EQ(show(m_executor.updateWatcherState(first, second, 7)),
                  "query error: updateWatcherState: missing one or more parameters\n");
        EXPECT_EQ(show(m_executor.updateWatcherExpiry(first, second, 7)),
                  "query error: invalid parameters passed to updateWatcherExpiry");
        EXPECT_EQ(show(m_executor.updateWatcherDocVersion(first, second, 7)),
                  "query error: updateWatcherDocVersion: missing one or more parameters\n");
    }
    EXPECT_EQ(stored(), row(kAlice));
}

TEST_F(Watchers, AreRemovedOneByOne)
{
    add({kAlice, kCarol, kDave});
    EXPECT_EQ(show(m_executor.deleteWatcherState("bob@oryx.example#presence", "incoming#1")), "okay");
    EXPECT_EQ(show(m_executor.deleteWatcherState("bob@oryx.example#presence", "incoming#1")), "okay");
    EXPECT_EQ(outcome(m_executor.deleteWatcherState("bob@oryx.example#presence", kQuoted)),
              plainOrBound(kBrokenChange, "okay"));
    EXPECT_EQ(stored(), row(kCarol) + row(kDave));
}

} // namespace

} // namespace watchersTest
