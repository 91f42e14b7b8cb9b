#include "support/DatabaseTest.h"
#include "support/Show.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

namespace contactsTest {

namespace {

class Contacts : public ExecutorTest {
protected:
    void SetUp() override
    {
        ExecutorTest::SetUp();
        provisionAlice();
    }

    /// What a lookup that failed or found nothing leaves as it was.
    struct Found {
        std::string ordering = "as before";
        bool replaceUri = false;
        std::vector<oryx::ContactRecord> contacts;
    };

    static std::string show(const oryx::DatabaseResult& result, const Found& found)
    {
        return outcome(result) + " ordering='" + found.ordering + "' replace=" + (found.replaceUri ? "yes" : "no") +
               "\n" + oryx::show(found.contacts);
    }

    std::string byAddress(const char* handle = "alice", const char* domain = "oryx.example")
    {
        Found found;
        const auto result = m_executor.lookupContacts(handle, domain, found.ordering, found.replaceUri, found.contacts);
        return show(result, found);
    }

    std::string byKey(int key = 42)
    {
        Found found;
        const auto result = m_executor.lookupContacts(key, found.ordering, found.replaceUri, found.contacts);
        return show(result, found);
    }

    std::string bySet(int csid = 12)
    {
        Found found;
        const auto result = m_executor.lookupContacts(found.ordering, csid, found.replaceUri, found.contacts);
        return show(result, found);
    }

    /// All three lookups find the same.
    void expectFound(const std::string& expected)
    {
        EXPECT_EQ(byAddress(), expected);
        EXPECT_EQ(byKey(), expected);
        EXPECT_EQ(bySet(), expected);
    }

    int add(oryx::ContactRecord contact, int csid = 12)
    {
        contact.setCsid(csid);
        return m_executor.addContact(contact);
    }

    int add(const char* handle, const char* domain, oryx::ContactRecord contact)
    {
        return m_executor.addContact(handle, domain, contact);
    }
};

const std::string kNothing = "okay ordering='as before' replace=yes\n";
const std::string kAlicesSet = "okay ordering='sequential' replace=yes\n";
const std::string kRowOfA = "12|sip:a@192.0.2.1|0.7|2000000000|f|audio|<sip:a@192.0.2.1>;q=0.7|"
                            "843817637684230@998sdasdh09|1826|1\n";

TEST_F(Contacts, AreFoundWithTheirSetsOrderingInAllThreeWays)
{
    EXPECT_EQ(add(contact("sip:a@192.0.2.1")), 0);
    EXPECT_EQ(add(contact("sip:b@192.0.2.2")), 0);
    EXPECT_EQ(storedContacts(), kRowOfA + "12|sip:b@192.0.2.2|0.7|2000000000|f|audio|<sip:b@192.0.2.2>;q=0.7|"
                                          "843817637684230@998sdasdh09|1826|1\n");
    expectFound(kAlicesSet + oryx::show(contacts({"sip:a@192.0.2.1", "sip:b@192.0.2.2"})));
}

TEST_F(Contacts, KeepEveryNumberOfTheirTypes)
{
    oryx::ContactRecord last = contact("sip:a@192.0.2.1");
    last.setExpires(std::numeric_limits<long>::max());
    last.setCseq(std::numeric_limits<long>::max());
    EXPECT_EQ(add(last), 0);
    expectFound(kAlicesSet + oryx::show(last));
    oryx::ContactRecord first = contact("sip:a@192.0.2.1");
    first.setExpires(std::numeric_limits<long>::min());
    first.setCseq(std::numeric_limits<long>::min());
    first.setCallId("another"); // of the same call it would be older, and change nothing
    EXPECT_EQ(add("alice", "oryx.example", first), 0);
    expectFound(kAlicesSet + oryx::show(first));
}

TEST_F(Contacts, HaveTheirTypeReadButNotWritten)
{
    oryx::ContactRecord binding = contact("sip:a@192.0.2.1");
    binding.setType("phone");
    binding.setPathVector("<sip:edge@192.0.2.8;lr>");
    EXPECT_EQ(add(binding), 0);
    EXPECT_EQ(rows("SELECT c_type, path_vector FROM contact"), "NULL|NULL\n");
    sql("UPDATE contact SET c_type = 'phone', path_vector = '<sip:edge@192.0.2.8;lr>'");
    binding.setPathVector("");
    expectFound(kAlicesSet + oryx::show(binding));
}

TEST_F(Contacts, AreNoFailureWhereThereAreNone)
{
    expectFound(kNothing);
    EXPECT_EQ(byAddress("bob"), kNothing);
    EXPECT_EQ(byAddress("alice", "example.com"), kNothing);
    EXPECT_EQ(byKey(43), kNothing);
    EXPECT_EQ(byKey(-1), kNothing);
    EXPECT_EQ(bySet(13), kNothing);
}

TEST_F(Contacts, OfAnInactiveSubscriberAreFoundByTheirSetAlone)
{
    EXPECT_EQ(add(contact("sip:a@192.0.2.1")), 0);
    sql("UPDATE subscriber SET active = false; UPDATE contact_set SET replace_uri = false");
    EXPECT_EQ(byAddress(), "not found ordering='sequential' replace=no\n");
    EXPECT_EQ(byKey(), "not found ordering='sequential' replace=no\n");
    EXPECT_EQ(bySet(), "okay ordering='sequential' replace=no\n" + oryx::show(contact("sip:a@192.0.2.1")));
    sql("UPDATE subscriber SET active = NULL; UPDATE contact_set SET replace_uri = true");
    expectFound(kAlicesSet + oryx::show(contact("sip:a@192.0.2.1")));
}

TEST_F(Contacts, OfASetWithoutSubscriberAreFoundByTheirSetAlone)
{
    EXPECT_EQ(add(contact("sip:a@192.0.2.1")), 0);
    sql("UPDATE contact_set SET sid = NULL");
    EXPECT_EQ(byAddress(), kNothing);
    EXPECT_EQ(byKey(), kNothing);
    EXPECT_EQ(bySet(), kAlicesSet + oryx::show(contact("sip:a@192.0.2.1")));
}

TEST_F(Contacts, ReplaceTheUriUnlessTheirSetSaysOtherwise)
{
    EXPECT_EQ(add(contact("sip:a@192.0.2.1")), 0);
    const std::string found = oryx::show(contact("sip:a@192.0.2.1"));
    sql("UPDATE contact_set SET replace_uri = true");
    expectFound("okay ordering='sequential' replace=yes\n" + found);
    sql("UPDATE contact_set SET replace_uri = false");
    expectFound("okay ordering='sequential' replace=no\n" + found);
    sql("UPDATE contact_set SET replace_uri = NULL, ordering = NULL");
    expectFound("okay ordering='' replace=yes\n" + found);
}

TEST_F(Contacts, KeepTheirDefaultsWhereAColumnIsNull)
{
    sql("INSERT INTO contact (csid, address) VALUES (12, 'sip:a@192.0.2.1')");
    oryx::ContactRecord bare;
    bare.setAddress("sip:a@192.0.2.1");
    expectFound(kAlicesSet + oryx::show(bare));
    sql("UPDATE contact SET qvalue = '', capabilities = '', contact_header = '', call_id = '', c_type = '', cseq = 0");
    expectFound(kAlicesSet + oryx::show(bare));
}

TEST_F(Contacts, AreAppendedToThoseFoundBefore)
{
    EXPECT_EQ(add(contact("sip:a@192.0.2.1")), 0);
    Found found;
    for (int i = 0; i < 2; ++i) {
        m_executor.lookupContacts(42, found.ordering, found.replaceUri, found.contacts);
        m_executor.lookupContacts("alice", "oryx.example", found.ordering, found.replaceUri, found.contacts);
        m_executor.lookupContacts(found.ordering, 12, found.replaceUri, found.contacts);
    }
    EXPECT_EQ(oryx::show(found.contacts), oryx::show(contacts(std::vector<std::string>(6, "sip:a@192.0.2.1"))));
}

TEST_F(Contacts, AreNotLookedUpForArgumentsThatNameNobody)
{
    EXPECT_EQ(byAddress(nullptr), "query error: invalid parameters ordering='as before' replace=yes\n");
    EXPECT_EQ(byAddress("alice", nullptr), "query error: invalid parameters ordering='as before' replace=yes\n");
    EXPECT_EQ(bySet(0), "query error: NULL csid ordering='as before' replace=yes\n");
    EXPECT_EQ(bySet(-12), "query error: NULL csid ordering='as before' replace=yes\n");
    EXPECT_EQ(byAddress("o'neill"),
              plainOrBound("query error: " + kBroken, "okay") + " ordering='as before' replace=yes\n");
    expectFound(kNothing);
}

TEST_F(Contacts, OfAnAddressOfRecordAreStoredOrRefreshed)
{
    EXPECT_EQ(add("alice", "oryx.example", contact("sip:a@192.0.2.1")), 0);
    EXPECT_EQ(storedContacts(), kRowOfA);
    const std::string key = rows("SELECT contact_id FROM contact");

    oryx::ContactRecord refreshed = contact("sip:a@192.0.2.1");
    refreshed.setQvalue("");
    refreshed.setExpires(2147483647);
    refreshed.setPermanent('t');
    refreshed.setCapabilities("");
    refreshed.setContactHeader("<sip:a@192.0.2.1>");
    refreshed.setCallId("other");
    refreshed.setCseq(2147483647);
    EXPECT_EQ(add("alice", "oryx.example", refreshed), 0);
    EXPECT_EQ(storedContacts(), "12|sip:a@192.0.2.1||2147483647|t||<sip:a@192.0.2.1>|other|2147483647|1\n");
    EXPECT_EQ(rows("SELECT contact_id FROM contact"), key);
    refreshed.setPermanent('f');
    expectFound(kAlicesSet + oryx::show(refreshed));
}

TEST_F(Contacts, AreNotStoredForAnAddressOfRecordThatIsNotThere)
{
    EXPECT_EQ(add("bob", "oryx.example", contact("sip:b@192.0.2.2")), -1);
    EXPECT_EQ(reason(), "[23503] ERROR:  no such address of record: bob@oryx.example");
    EXPECT_EQ(add(nullptr, "oryx.example", contact("sip:b@192.0.2.2")), -1);
    EXPECT_EQ(storedContacts(), "");
    EXPECT_EQ(add("alice", "oryx.example", contact("sip:a@192.0.2.1")), 0);
    EXPECT_EQ(storedContacts(), kRowOfA);
}

TEST_F(Contacts, MayHaveAQuoteInTheirAddressWhereItIsACharacter)
{
    const std::string stored = plainOrBound("", "sip:o'neill@192.0.2.2\n");
    EXPECT_EQ(add("alice", "oryx.example", contact("sip:o'neill@192.0.2.2")), plainOrBound(-1, 0));
    EXPECT_EQ(reason(), plainOrBound(kBroken, ""));
    EXPECT_EQ(rows("SELECT address FROM contact"), stored);
    EXPECT_EQ(m_executor.removeContact("alice", "oryx.example", "sip:o'neill@192.0.2.3"), plainOrBound(-1, 0));
    EXPECT_EQ(reason(), plainOrBound(kBroken, ""));
    EXPECT_EQ(rows("SELECT address FROM contact"), stored);
    EXPECT_EQ(m_executor.removeContact("alice", "oryx.example", "sip:o'neill@192.0.2.2"), plainOrBound(-1, 0));
    EXPECT_EQ(storedContacts(), "");
}

TEST_F(Contacts, OfASetAreNotStoredTwice)
{
    EXPECT_EQ(add(contact("sip:a@192.0.2.1")), 0);
    oryx::ContactRecord again = contact("sip:a@192.0.2.1");
    again.setQvalue("1.0");
    EXPECT_EQ(add(again), -1);
    EXPECT_EQ(reason(), "[23505] ERROR:  duplicate key value violates unique constraint \"contact_csid_address_key\"");
    EXPECT_EQ(storedContacts(), kRowOfA);
}

TEST_F(Contacts, NeedASetThatIsThere)
{
    EXPECT_EQ(add(contact("sip:a@192.0.2.1"), 99), -1);
    const std::string noSuchSet = "[23503] ERROR:  insert or update on table \"contact\" violates foreign key "
                                  "constraint \"contact_csid_fkey\"";
    EXPECT_EQ(reason(), noSuchSet);
    EXPECT_EQ(add(contact("sip:o'neill@192.0.2.1"), 99), -1);
    EXPECT_EQ(reason(), plainOrBound(kBroken, noSuchSet));
    oryx::ContactRecord odd = contact("sip:a@192.0.2.1");
    odd.setPermanent('?');
    EXPECT_EQ(add(odd), -1);
    EXPECT_EQ(reason(), "[22P02] ERROR:  invalid input syntax for type boolean: \"?\"");
    EXPECT_EQ(storedContacts(), "");
}

TEST_F(Contacts, OfTwoSetsMayShareAnAddress)
{
    sql("INSERT INTO contact_set (csid, sid) VALUES (13, 7)");
    EXPECT_EQ(add(contact("sip:a@192.0.2.1"), 12), 0);
    EXPECT_EQ(add(contact("sip:a@192.0.2.1"), 13), 0);
    EXPECT_EQ(rows("SELECT csid, address FROM contact ORDER BY csid"), "12|sip:a@192.0.2.1\n13|sip:a@192.0.2.1\n");
}

TEST_F(Contacts, AreRemovedOneByOne)
{
    EXPECT_EQ(add(contact("sip:a@192.0.2.1")), 0);
    EXPECT_EQ(add(contact("sip:b@192.0.2.2")), 0);
    EXPECT_EQ(m_executor.removeContact("alice", "oryx.example", "sip:b@192.0.2.2"), 0);
    EXPECT_EQ(storedContacts(), kRowOfA);
}

TEST_F(Contacts, CanBeRemovedWhereThereAreNone)
{
    EXPECT_EQ(add(contact("sip:a@192.0.2.1")), 0);
    EXPECT_EQ(m_executor.removeContact("alice", "oryx.example", "sip:b@192.0.2.2"), 0);
    EXPECT_EQ(m_executor.removeContact("bob", "oryx.example", "sip:a@192.0.2.1"), 0);
    EXPECT_EQ(m_executor.removeContact("alice", "example.com", "sip:a@192.0.2.1"), 0);
    EXPECT_EQ(storedContacts(), kRowOfA);
}

TEST_F(Contacts, AreNotRemovedForArgumentsThatNameNone)
{
    EXPECT_EQ(add(contact("sip:a@192.0.2.1")), 0);
    EXPECT_EQ(m_executor.removeContact(nullptr, "oryx.example", "sip:a@192.0.2.1"), -1);
    EXPECT_EQ(m_executor.removeContact("alice", nullptr, "sip:a@192.0.2.1"), -1);
    EXPECT_EQ(m_executor.removeContact("alice", "oryx.example", nullptr), -1);
    EXPECT_EQ(reason(), "invalid parameters");
    EXPECT_EQ(storedContacts(), kRowOfA);
}

TEST_F(Contacts, CountAsRemovedWithoutAConnection)
{
    oryx::DatabaseCommandExecutor unconnected;
    EXPECT_EQ(unconnected.removeContact("alice", "oryx.example", "sip:a@192.0.2.1"), 0);
    EXPECT_EQ(unconnected.removeContact(nullptr, nullptr, nullptr), 0);
    oryx::ContactRecord binding = contact("sip:a@192.0.2.1");
    EXPECT_EQ(unconnected.addContact(binding), -1);
    EXPECT_EQ(unconnected.addContact("alice", "oryx.example", binding), -1);
}

TEST_F(Contacts, KeepTextsOfAnyLanguageAndLength)
{
    oryx::ContactRecord binding = contact("sip:\u00e5sa@b\u00fccher.example;tag=%41");
    binding.setCapabilities("\u65e5\u672c\u8a9e \U0001f4de \\n {}$1");
    const std::string longHeader = "<sip:a@192.0.2.1>;x=" + std::string(1024UL * 1024UL, 'x');
    binding.setContactHeader(longHeader.c_str());
    EXPECT_EQ(add(binding), 0);
    EXPECT_EQ(add("alice", "oryx.example", binding), 0);
    expectFound(kAlicesSet + oryx::show(binding));
}

} // namespace

} // namespace contactsTest
