#include "support/DatabaseTest.h"
#include "support/Show.h"
#include "support/TemporaryDirectory.h"
#include "support/TraceLog.h"

#include <Crypt.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace subscribersTest {

namespace {

class Subscribers : public ExecutorTest {
protected:
    std::string stored()
    {
        return rows("SELECT sid, user_id, auth_user_id, oid, s_type, auth_type, s_password, active"
                    " FROM subscriber ORDER BY sid");
    }

    /// Everything that belongs to a subscriber.
    std::string provisioned()
    {
        return stored() + rows("SELECT csid, sid FROM contact_set ORDER BY csid") +
               rows("SELECT handle, sip_domain, csid FROM public_address ORDER BY handle") +
               rows("SELECT csid, address FROM contact ORDER BY address") +
               rows("SELECT handle, csid FROM address_map ORDER BY handle");
    }

    /// The subscriber behind alice@oryx.example, read into `rec`.
    std::string lookup(oryx::SubscriberRecord rec = {})
    {
        const int found = m_executor.lookupSubscriber("alice", "oryx.example", rec);
        return std::to_string(found) + " " + show(rec);
    }

    static void useKey(const TemporaryDirectory& directory, const std::string& name, char digit)
    {
        setenv("ORYX_CRYPT_KEY_FILE", directory.write(name, std::string(64, digit)).c_str(), 1);
    }
};

oryx::SubscriberRecord alice()
{
    oryx::SubscriberRecord rec;
    rec.setId(7);
    rec.setUserId("alice");
    rec.setType("home");
    rec.setAuthType("digest");
    rec.setPassword("wonderland");
    rec.setOid(3);
    return rec;
}

TEST_F(Subscribers, AreStoredAndAuthenticateUnderTheirUserId)
{
    EXPECT_EQ(m_executor.addSubscriber(alice()), 1);
    oryx::SubscriberRecord bob;
    bob.setId(8);
    bob.setUserId("bob");
    bob.setActive('f');
    EXPECT_EQ(m_executor.addSubscriber(bob), 1);
    EXPECT_EQ(stored(), "7|alice|alice|NULL|home|digest|wonderland|t\n"
                        "8|bob|bob|NULL|NULL|NULL|NULL|f\n");
}

TEST_F(Subscribers, GetAKeyFromTheDatabaseThatNobodyHas)
{
    oryx::SubscriberRecord given;
    given.setId(1);
    EXPECT_EQ(m_executor.addSubscriber(given), 1);
    EXPECT_EQ(m_executor.addSubscriber({}), 1);
    EXPECT_EQ(m_executor.addSubscriber({}), 1);
    EXPECT_EQ(stored(), "1|1|1|NULL|NULL|NULL|NULL|t\n"
                        "2|-1|-1|NULL|NULL|NULL|NULL|t\n"
                        "3|-1|-1|NULL|NULL|NULL|NULL|t\n");
}

TEST_F(Subscribers, KeepAnAuthenticationNameOfTheirOwn)
{
    sql("INSERT INTO subscriber (sid, user_id, auth_user_id) VALUES (7, 'alice', 'alice@realm'), (8, 'bob', ''), (9, 'carol', NULL)");
    EXPECT_EQ(rows("SELECT auth_user_id FROM subscriber ORDER BY sid"), "alice@realm\n\ncarol\n");
}

TEST_F(Subscribers, AreNotStoredTwice)
{
    EXPECT_EQ(m_executor.addSubscriber(alice()), 1);
    EXPECT_EQ(m_executor.addSubscriber(alice()), 0);
    EXPECT_EQ(reason(), "[23505] ERROR:  duplicate key value violates unique constraint \"subscriber_pkey\"");
    EXPECT_EQ(stored(), "7|alice|alice|NULL|home|digest|wonderland|t\n");
}

TEST_F(Subscribers, MayHaveAQuoteInAValueWhereItIsACharacter)
{
    oryx::SubscriberRecord rec = alice();
    rec.setUserId("o'neill");
    EXPECT_EQ(m_executor.addSubscriber(rec), plainOrBound(0, 1));
    EXPECT_EQ(reason(), plainOrBound(kBroken, ""));
    EXPECT_EQ(stored(), plainOrBound("", "7|o'neill|o'neill|NULL|home|digest|wonderland|t\n"));
}

TEST_F(Subscribers, MayHaveNamesInAnyScript)
{
    oryx::SubscriberRecord rec = alice();
    rec.setUserId("\u00c6lice \u65e5\u672c");
    EXPECT_EQ(m_executor.addSubscriber(rec), 1);
    EXPECT_EQ(stored(), "7|\u00c6lice \u65e5\u672c|\u00c6lice \u65e5\u672c|NULL|home|digest|wonderland|t\n");
}

TEST_F(Subscribers, AreFoundByAnAddressOfRecord)
{
    provisionAlice();
    EXPECT_EQ(lookup(), "1 " + show(alice()));
    sql("UPDATE subscriber SET auth_user_id = 'alice@realm'");
    oryx::SubscriberRecord realm = alice();
    realm.setUserId("alice@realm");
    EXPECT_EQ(lookup(), "1 " + show(realm));
}

TEST_F(Subscribers, AreNotFoundByAnAddressThatNobodyHas)
{
    provisionAlice();
    oryx::SubscriberRecord rec;
    rec.setUserId("as before");
    const std::string before = show(rec);
    EXPECT_EQ(m_executor.lookupSubscriber("o'neill", "oryx.example", rec), plainOrBound(-1, 0));
    EXPECT_EQ(reason(), plainOrBound(kBroken, ""));
    EXPECT_EQ(m_executor.lookupSubscriber("bob", "oryx.example", rec), 0);
    EXPECT_EQ(m_executor.lookupSubscriber("alice", "example.com", rec), 0);
    EXPECT_EQ(m_executor.lookupSubscriber("", "", rec), 0);
    EXPECT_EQ(m_executor.lookupSubscriber(nullptr, "oryx.example", rec), -1);
    EXPECT_EQ(reason(), "invalid parameters passed to lookupSubscriber");
    EXPECT_EQ(m_executor.lookupSubscriber("alice", nullptr, rec), -1);
    EXPECT_EQ(show(rec), before);
    EXPECT_EQ(lookup(), "1 " + show(alice()));
}

TEST_F(Subscribers, LeaveFieldsAsTheyWereWhereAColumnIsNull)
{
    provisionAlice();
    sql("UPDATE subscriber SET auth_user_id = NULL, oid = NULL, s_type = NULL, auth_type = NULL,"
        " s_password = NULL, active = NULL");
    oryx::SubscriberRecord before;
    before.setId(99);
    before.setUserId("as before");
    before.setType("t");
    before.setAuthType("a");
    before.setPassword("p");
    before.setOid(88);
    before.setActive('f');
    oryx::SubscriberRecord after = before;
    after.setId(7);
    EXPECT_EQ(lookup(before), "1 " + show(after));
}

TEST_F(Subscribers, BecomeActiveOnlyWhereTheDatabaseSaysSo)
{
    provisionAlice();
    oryx::SubscriberRecord inactive = alice();
    inactive.setActive('f');
    EXPECT_EQ(lookup(inactive), "1 " + show(alice()));
    sql("UPDATE subscriber SET active = false");
    EXPECT_EQ(lookup(inactive), "1 " + show(inactive));
    EXPECT_EQ(lookup(), "1 " + show(alice()));
}

TEST_F(Subscribers, AreFoundWithTheirPasswordInClear)
{
    const TemporaryDirectory directory;
    useKey(directory, "key", 'a');
    provisionAlice();
    std::string stored;
    ASSERT_TRUE(Crypt::encrypt("Grin \u00a7 without 'a' cat", stored));
    EXPECT_EQ(m_executor.changeSubscriberPassword(7, stored.c_str()), 1);
    EXPECT_EQ(rows("SELECT s_password FROM subscriber"), stored + "\n");
    oryx::SubscriberRecord rec = alice();
    rec.setPassword("Grin \u00a7 without 'a' cat");
    EXPECT_EQ(lookup(), "1 " + show(rec));
}

TEST_F(Subscribers, HaveNoPasswordThatTheKeyDoesNotOpen)
{
    const TemporaryDirectory directory;
    useKey(directory, "key", 'a');
    provisionAlice();
    std::string stored;
    ASSERT_TRUE(Crypt::encrypt("wonderland", stored));
    EXPECT_EQ(m_executor.changeSubscriberPassword(7, stored.c_str()), 1);
    useKey(directory, "other", 'b');
    TraceLog trace;
    oryx::SubscriberRecord rec = alice();
    oryx::SubscriberRecord again = alice();
    EXPECT_EQ(m_executor.lookupSubscriber("alice", "oryx.example", rec), 1);
    EXPECT_EQ(m_executor.lookupSubscriber("alice", "oryx.example", again), 1);
    EXPECT_EQ(rec.password().size(), 64U);
    EXPECT_NE(rec.password(), again.password());
    EXPECT_NE(trace.take("Crypt").find(" log: "), std::string::npos);
}

TEST_F(Subscribers, ChangeTheirPasswordAsItIsPassed)
{
    provisionAlice();
    EXPECT_EQ(m_executor.changeSubscriberPassword(7, "looking glass"), 1);
    EXPECT_EQ(rows("SELECT s_password FROM subscriber"), "looking glass\n");
    EXPECT_EQ(m_executor.changeSubscriberPassword(8, "nobody's"), plainOrBound(-1, 0));
    EXPECT_EQ(m_executor.changeSubscriberPassword(8, "of nobody"), 0);
    EXPECT_EQ(m_executor.changeSubscriberPassword(0, "of nobody"), -1);
    EXPECT_EQ(reason(), "missing parameters");
    EXPECT_EQ(m_executor.changeSubscriberPassword(7, nullptr), -1);
    EXPECT_EQ(reason(), "missing parameters");
    EXPECT_EQ(rows("SELECT s_password FROM subscriber"), "looking glass\n");
}

TEST_F(Subscribers, TakeEverythingOfTheirsAlong)
{
    provisionAlice();
    sql("INSERT INTO contact (csid, address) VALUES (12, 'sip:alice@192.0.2.1')");
    sql("INSERT INTO address_map (handle, csid, pattern) VALUES ('sales', 12, '^sip:sales')");
    const std::string withContacts = provisioned();
    sql("INSERT INTO subscriber (sid, user_id) VALUES (8, 'bob');"
        "INSERT INTO contact_set (csid, sid) VALUES (13, 8), (14, 8);"
        "INSERT INTO public_address (handle, sip_domain, csid) VALUES ('bob', 'oryx.example', 13),"
        " ('robert', 'oryx.example', 13), ('bob', 'example.com', 14);"
        "INSERT INTO contact (csid, address) VALUES (13, 'sip:bob@192.0.2.2'), (14, 'sip:bob@192.0.2.2');"
        "INSERT INTO address_map (handle, csid, pattern) VALUES ('support', 13, '^sip:support')");
    EXPECT_EQ(m_executor.removeSubscriber(8), 1);
    EXPECT_EQ(provisioned(), withContacts);
    EXPECT_EQ(m_executor.removeSubscriber(7), 1);
    EXPECT_EQ(provisioned(), "");
}

TEST_F(Subscribers, CanBeRemovedAgain)
{
    provisionAlice();
    EXPECT_EQ(m_executor.removeSubscriber(7), 1);
    EXPECT_EQ(m_executor.removeSubscriber(7), 1);
    EXPECT_EQ(m_executor.removeSubscriber(0), -1);
    EXPECT_EQ(reason(), "missing parameters");
}

TEST_F(Subscribers, StayWholeWhenTheirRemovalFails)
{
    provisionAlice();
    sql("INSERT INTO contact (csid, address) VALUES (12, 'sip:alice@192.0.2.1');"
        "CREATE FUNCTION keep() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN RAISE 'kept'; END $$;"
        "CREATE TRIGGER keep BEFORE DELETE ON contact FOR EACH ROW EXECUTE FUNCTION keep()");
    const std::string before = provisioned();
    EXPECT_EQ(m_executor.removeSubscriber(7), -1);
    EXPECT_EQ(reason(), "[P0001] ERROR:  kept");
    EXPECT_EQ(provisioned(), before);
}

TEST_F(Subscribers, GetContactSets)
{
    provisionAlice();
    oryx::ContactSetRecord set;
    set.setSid(7);
    set.setCsid(13);
    set.setOrdering("parallel");
    EXPECT_EQ(show(m_executor.addContactSet(set)), "okay");
    EXPECT_EQ(outcome(m_executor.addContactSet(set)),
              "query error: [23505] ERROR:  duplicate key value violates unique constraint \"contact_set_pkey\"");
    set.setCsid(14);
    set.setOrdering("");
    EXPECT_EQ(show(m_executor.addContactSet(set)), "okay");
    set.setSid(8);
    set.setCsid(15);
    EXPECT_EQ(outcome(m_executor.addContactSet(set)),
              "query error: [23503] ERROR:  insert or update on table \"contact_set\" violates foreign key constraint "
              "\"contact_set_sid_fkey\"");
    EXPECT_EQ(rows("SELECT csid, sid, ordering, replace_uri FROM contact_set ORDER BY csid"),
              "12|7|sequential|NULL\n13|7|parallel|NULL\n14|7|NULL|NULL\n");
}

} // namespace

} // namespace subscribersTest
