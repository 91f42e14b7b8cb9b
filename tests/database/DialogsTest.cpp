#include "database/PresenceFixture.h"

#include <functional>
#include <set>
#include <string>
#include <vector>

namespace dialogsTest {

namespace {

using oryx::PresenceRecord;

class Dialogs : public PresenceTest {
protected:
    void add(const std::vector<PresenceRecord>& dialogs)
    {
        for (const PresenceRecord& dialog : dialogs) {
            EXPECT_EQ(outcome(m_executor.addWatcher(dialog)), "okay");
        }
    }

    std::string stored() { return rows("SELECT * FROM subscription_states ORDER BY subscriptionid"); }

    std::string read(const char* id, PresenceRecord record = {})
    {
        const oryx::DatabaseResult result = m_executor.getWatcher(id, record);
        return outcome(result) + "\n" + show(record);
    }

    std::string matching()
    {
        return listed<PresenceRecord>(
            [&](auto& records) { return m_executor.getIncomingMatchingSubscriptions(records); });
    }

    std::string incoming()
    {
        return listed<PresenceRecord>([&](auto& records) { return m_executor.getIncomingSubscriptions(records); });
    }

    std::string incoming(const char* package)
    {
        return listed<PresenceRecord>(
            [&](auto& records) { return m_executor.getIncomingSubscriptions(records, package); });
    }

    std::string incoming(const char* from, const char* requestUri, const char* package)
    {
        return listed<PresenceRecord>(
            [&](auto& records) { return m_executor.getIncomingSubscriptions(records, from, requestUri, package); });
    }

    std::string outgoing(const char* to, const char* package)
    {
        return listed<PresenceRecord>(
            [&](auto& records) { return m_executor.getOutgoingSubscribes(records, to, package); });
    }
};

PresenceRecord dialog(const std::string& id, const std::string& from, const std::string& to, const std::string& package)
{
    return {id.c_str(),
            nullptr,
            ("<sip:" + from + ">;tag=1").c_str(),
            ("<sip:" + to + ">;tag=2").c_str(),
            "843817637684230@998sdasdh09",
            7,
            "presence",
            ("<sip:" + from + ";gr>").c_str(),
            "<sip:edge@192.0.2.8;lr>",
            3,
            ("sip:" + to).c_str(),
            package.c_str()};
}

PresenceRecord alices()
{
    return dialog("alice.incoming#1", "alice@oryx.example", "bob@oryx.example", "presence#1");
}

const std::string kRowOfAlices =
    "alice.incoming#1|<sip:alice@oryx.example>;tag=1|<sip:bob@oryx.example>;tag=2|843817637684230@998sdasdh09|7|"
    "presence|<sip:alice@oryx.example;gr>|<sip:edge@192.0.2.8;lr>|3|sip:bob@oryx.example|presence#1\n";

/// Dialogs of both directions, in the order in which they are stored.
std::vector<PresenceRecord> several()
{
    return {dialog("outgoing#1", "bob@oryx.example", "alice@oryx.example", "presence#1"),
            dialog("incoming#2", "alice@oryx.example", "bob@oryx.example", "presence#2"),
            dialog("incoming#3", "carol@example.com", "bob@oryx.example", "presence.winfo#3"),
            dialog("incoming#4", "carol@example.com", "alice@oryx.example", "presence#4"),
            dialog("outgoing#5", "bob@oryx.example", "alice@oryx.example", "presence#5"),
            dialog("outgoing#6", "bob@oryx.example", "carol@example.com", "dialog#6")};
}

std::string of(const std::vector<PresenceRecord>& dialogs, const std::vector<std::size_t>& chosen)
{
    std::string text = "okay\n";
    for (const std::size_t i : chosen) {
        text += show(dialogs.at(i));
    }
    return text;
}

const std::string kNone = "not found\n";

TEST_F(Dialogs, AreStoredAndReadBack)
{
    add({alices(), dialog("incoming#2", "carol@example.com", "bob@oryx.example", "dialog#2")});
    EXPECT_EQ(rows("SELECT * FROM subscription_states WHERE subscriptionid = 'alice.incoming#1'"), kRowOfAlices);
    EXPECT_EQ(read("alice.incoming#1"), "okay\n" + show(alices()));
}

TEST_F(Dialogs, HoldTextsOfAnyLanguage)
{
    PresenceRecord record = alices();
    record.SetFromhdr("\"\u00c6lice \u65e5\u672c %s \\\" <sip:alice@oryx.example>");
    add({record});
    EXPECT_EQ(read("alice.incoming#1"), "okay\n" + show(record));
}

TEST_F(Dialogs, MayLackCallIdAndRouteSet)
{
    PresenceRecord record = alices();
    record.SetCallId("");
    record.SetRouteset("");
    add({record});
    EXPECT_EQ(rows("SELECT callid, routeset FROM subscription_states"), "NULL|NULL\n");
    EXPECT_EQ(read("alice.incoming#1"), "okay\n" + show(record));
}

TEST_F(Dialogs, AreNotStoredIncomplete)
{
    const std::vector<std::function<void(PresenceRecord&)>> omissions{
        [](auto& record) { record.SetSubscriptionid(""); },
        [](auto& record) { record.SetFromhdr(""); },
        [](auto& record) { record.SetTohdr(""); },
        [](auto& record) { record.SetEventhdr(""); },
        [](auto& record) { record.SetRemotecontacthdr(""); },
        [](auto& record) { record.SetRequestUri(""); },
        [](auto& record) { record.SetPackageid(""); },
    };
    for (const auto& omit : omissions) {
        PresenceRecord record = alices();
        omit(record);
        EXPECT_EQ(show(m_executor.addWatcher(record)), "query error: addWatcher: missing one or more parameters\n");
    }
    EXPECT_EQ(stored(), "");
}

TEST_F(Dialogs, AreNotStoredTwice)
{
    add({alices()});
    PresenceRecord again = alices();
    again.SetSubcseq(8);
    EXPECT_EQ(outcome(m_executor.addWatcher(again)), "constraint error" + duplicateOf("subscription_states_pkey"));
    EXPECT_EQ(stored(), kRowOfAlices);
}

TEST_F(Dialogs, AreNotStoredWhereTheServerRefusesThem)
{
    PresenceRecord record = alices();
    record.SetCallId(kQuoted);
    EXPECT_EQ(outcome(m_executor.addWatcher(record)), plainOrBound(kBrokenChange, "okay"));
    EXPECT_EQ(rows("SELECT callid FROM subscription_states"), plainOrBound("", "o'neill\n"));
    sql("DELETE FROM subscription_states");
    sql("REVOKE INSERT ON subscription_states FROM oryx_server");
    EXPECT_EQ(outcome(m_executor.addWatcher(alices())),
              "connection error: [42501] ERROR:  permission denied for table subscription_states");
    EXPECT_EQ(stored(), "");
}

TEST_F(Dialogs, AreNotFoundByAnIdentifierThatNoneHas)
{
    add({alices()});
    const std::string before = show(alices());
    EXPECT_EQ(read("incoming#1", alices()), "not found\n" + before);
    EXPECT_EQ(read("", alices()), "not found\n" + before);
    EXPECT_EQ(read(nullptr, alices()), "query error: invalid parameters passed to getWatcher\n" + before);
    EXPECT_EQ(read(kQuoted, alices()), plainOrBound(kBrokenQuery, "not found\n") + before);
}

TEST_F(Dialogs, LeaveFieldsAsTheyWereWhereAColumnIsNull)
{
    sql("INSERT INTO subscription_states (subscriptionid) VALUES ('incoming#9')");
    PresenceRecord after = alices();
    after.SetSubscriptionid("incoming#9");
    EXPECT_EQ(read("incoming#9", alices()), "okay\n" + show(after));
}

TEST_F(Dialogs, AreReadFromTheFirstOfTwoRows)
{
    sql("ALTER TABLE subscription_states DROP CONSTRAINT subscription_states_pkey");
    add({alices(), dialog("alice.incoming#1", "carol@example.com", "bob@oryx.example", "dialog#2")});
    EXPECT_EQ(read("alice.incoming#1"), "okay\n" + show(alices()));
}

TEST_F(Dialogs, FollowTheWatchersContact)
{
    add(several());
    EXPECT_EQ(outcome(m_executor.updateWatcherContact("incoming#2", "<sip:alice@192.0.2.9>", 2147483647)), "okay");
    EXPECT_EQ(outcome(m_executor.updateWatcherContact("incoming#3", "", -1)), "okay");
    EXPECT_EQ(rows("SELECT subscriptionid, subcseq, remotecontacthdr, notcseq FROM subscription_states"
                   " WHERE subcseq <> 7 ORDER BY 1"),
              "incoming#2|2147483647|<sip:alice@192.0.2.9>|3\nincoming#3|-1||3\n");
}

TEST_F(Dialogs, FollowThePresentitysContact)
{
    add(several());
    EXPECT_EQ(outcome(m_executor.updatePresentityContact("outgoing#1", "<sip:alice@192.0.2.9>", 9)), "okay");
    EXPECT_EQ(outcome(m_executor.updatePresentityContact("outgoing#5", nullptr, 7)), "okay");
    EXPECT_EQ(rows("SELECT subscriptionid, subcseq, remotecontacthdr, notcseq FROM subscription_states"
                   " WHERE notcseq <> 3 ORDER BY 1"),
              "outgoing#1|7|<sip:alice@192.0.2.9>|9\noutgoing#5|7|<sip:bob@oryx.example;gr>|7\n");
}

TEST_F(Dialogs, StayAsTheyAreWhereNoneIsUpdated)
{
    add({alices()});
    EXPECT_EQ(show(m_executor.updateWatcherContact("incoming#9", "c", 1)), "okay");
    EXPECT_EQ(show(m_executor.updatePresentityContact("incoming#9", "c", 1)), "okay");
    const std::string forContact = "query error: invalid parameters passed to updateWatcherContact";
    EXPECT_EQ(show(m_executor.updateWatcherContact(nullptr, "c", 1)), forContact);
    EXPECT_EQ(show(m_executor.updateWatcherContact("alice.incoming#1", nullptr, 1)), forContact);
    EXPECT_EQ(show(m_executor.updatePresentityContact(nullptr, "c", 1)),
              "query error: invalid parameters passed to updatePresentityContact");
    EXPECT_EQ(show(m_executor.updatePresentityContact(kQuoted, nullptr, 1)), plainOrBound(kRefusedUpdate, "okay"));
    EXPECT_EQ(stored(), kRowOfAlices);
}

TEST_F(Dialogs, FollowAContactWithAQuoteWhereItIsACharacter)
{
    add({alices()});
    const std::string answer = plainOrBound(kRefusedUpdate, "okay");
    const auto contact = [&] { return rows("SELECT subcseq, notcseq, remotecontacthdr FROM subscription_states"); };
    EXPECT_EQ(show(m_executor.updateWatcherContact("alice.incoming#1", kQuoted, 8)), answer);
    EXPECT_EQ(contact(), plainOrBound("7|3|<sip:alice@oryx.example;gr>\n", "8|3|o'neill\n"));
    EXPECT_EQ(show(m_executor.updatePresentityContact("alice.incoming#1", "o'hara", 9)), answer);
    EXPECT_EQ(contact(), plainOrBound("7|3|<sip:alice@oryx.example;gr>\n", "8|9|o'hara\n"));
}

TEST_F(Dialogs, AreRemovedOneByOne)
{
    add({alices(), dialog("incoming#2", "carol@example.com", "bob@oryx.example", "dialog#2")});
    EXPECT_EQ(show(m_executor.deleteWatcher("incoming#2")), "okay");
    EXPECT_EQ(show(m_executor.deleteWatcher("incoming#2")), "okay");
    EXPECT_EQ(outcome(m_executor.deleteWatcher(kQuoted)), plainOrBound(kBrokenChange, "okay"));
    EXPECT_EQ(stored(), kRowOfAlices);
}

TEST_F(Dialogs, ThatComeInAreListedAsCopiesOfTheFirst)
{
    EXPECT_EQ(incoming(), kNone);
    add(several());
    EXPECT_EQ(incoming(), of(several(), {1, 1, 1}));
}

TEST_F(Dialogs, AreListedBehindThoseAlreadyThere)
{
    add({alices()});
    std::vector<PresenceRecord> records{several().front()};
    EXPECT_EQ(show(m_executor.getIncomingSubscriptions(records)), "okay");
    EXPECT_EQ(show(m_executor.getIncomingSubscriptions(records, "presence")), "okay");
    EXPECT_EQ(show(records), show(several().front()) + show(alices()) + show(alices()));
}

TEST_F(Dialogs, ThatComeInAreListedByPackage)
{
    add(several());
    EXPECT_EQ(incoming("presence"), of(several(), {1, 2, 3}));
    EXPECT_EQ(incoming("winfo"), of(several(), {2}));
    EXPECT_EQ(incoming(""), of(several(), {1, 2, 3}));
    EXPECT_EQ(incoming("dialog"), kNone);
    EXPECT_EQ(incoming(kQuoted), plainOrBound(kBrokenQuery, kNone));
}

TEST_F(Dialogs, ThatComeInAreListedByWatcherPresentityAndPackage)
{
    add(several());
    EXPECT_EQ(incoming("carol@example.com", "bob@oryx.example", "presence.winfo"), of(several(), {2}));
    EXPECT_EQ(incoming("", "", "presence"), of(several(), {1, 3}));
    EXPECT_EQ(incoming("", "bob", "presence"), of(several(), {1}));
    EXPECT_EQ(incoming("carol", "", ""), of(several(), {2, 3}));
    EXPECT_EQ(incoming("carol", "carol", "presence"), kNone);
    EXPECT_EQ(incoming("", "", "dialog"), kNone);
    EXPECT_EQ(incoming(kQuoted, "", ""), plainOrBound(kBrokenQuery, kNone));
    EXPECT_EQ(incoming("", kQuoted, ""), plainOrBound(kBrokenQuery, kNone));
    EXPECT_EQ(incoming("", "", kQuoted), plainOrBound(kBrokenQuery, kNone));
}

TEST_F(Dialogs, ThatGoOutAreListedAsCopiesOfTheFirst)
{
    EXPECT_EQ(outgoing("", ""), kNone);
    add(several());
    EXPECT_EQ(outgoing("alice@oryx.example", "presence"), of(several(), {0, 0}));
    EXPECT_EQ(outgoing("", ""), of(several(), {0, 0, 0}));
    EXPECT_EQ(outgoing("", "dialog"), of(several(), {5}));
    EXPECT_EQ(outgoing("carol", "presence"), kNone);
    EXPECT_EQ(outgoing("bob", ""), kNone);
    EXPECT_EQ(outgoing(kQuoted, ""), plainOrBound(kBrokenQuery, kNone));
    EXPECT_EQ(outgoing("", kQuoted), plainOrBound(kBrokenQuery, kNone));
}

TEST_F(Dialogs, AreListedWithTheirNullColumnsEmpty)
{
    sql("INSERT INTO subscription_states (subscriptionid, packageid) VALUES ('incoming#9', 'presence#9')");
    PresenceRecord record;
    record.SetSubscriptionid("incoming#9");
    record.SetPackageid("presence#9");
    EXPECT_EQ(incoming(), "okay\n" + show(record));
    EXPECT_EQ(incoming("presence"), "okay\n" + show(record));
    sql("INSERT INTO event_watchers (presentitykey, watcheropaque) VALUES ('bob#presence', 'incoming#9')");
    EXPECT_EQ(matching(), "okay\n" + show(record));
}

TEST_F(Dialogs, WithAWatcherAreListedAsCopiesOfTheFirst)
{
    add(several());
    EXPECT_EQ(matching(), kNone);
    const auto watched = [](std::size_t i) {
        PresenceRecord record = several().at(i);
        record.SetWatcherIdentity("alice");
        record.SetExpiryTime(2000000000);
        record.SetDocType(4);
        return show(record);
    };
    const std::string watcher = "INSERT INTO event_watchers (presentitykey, watcheropaque, doctype, expirytime,"
                                " watcheridentity) VALUES ('bob#presence', '";
    sql(watcher + "incoming#2', 4, 2000000000, 'alice')");
    sql(watcher + "incoming#9', 4, 2000000000, 'alice')");
    EXPECT_EQ(matching(), "okay\n" + watched(1));
    sql(watcher + "outgoing#5', 4, 2000000000, 'alice')");
    // Which of the two comes first is the server's choice.
    const std::string found = matching();
    EXPECT_TRUE(
        (std::set<std::string>{"okay\n" + watched(1) + watched(1), "okay\n" + watched(4) + watched(4)}.contains(found)))
        << found;
}

TEST_F(Dialogs, CannotBeReadOrChangedWithoutTheRight)
{
    sql("REVOKE ALL ON subscription_states FROM oryx_server");
    const std::string denied = "[42501] ERROR:  permission denied for table subscription_states";
    EXPECT_EQ(incoming(), "query error: " + denied + "\n");
    EXPECT_EQ(matching(), "query error: " + denied + "\n");
    EXPECT_EQ(outcome(m_executor.deleteWatcher("incoming#1")), "connection error: " + denied);
    EXPECT_EQ(outcome(m_executor.updateWatcherContact("incoming#1", "c", 1)), kRefusedUpdate);
}

} // namespace

} // namespace dialogsTest
