#include "database/PresenceFixture.h"
#include "support/TemporaryDirectory.h"

#include <Crypt.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <string>
#include <vector>

namespace presenceLocationTest {

namespace {

using oryx::ContactRecord;
using oryx::ExtendedContactRecord;
using oryx::PublicAddressRecord;
using oryx::SubscriberRecord;

/// What the event server sees of the registrar's data.
class PresenceLocation : public PresenceTest {
protected:
    void SetUp() override
    {
        PresenceTest::SetUp();
        provisionAlice();
    }

    /// Bob, with an address of record and an alias on contact set 13.
    void provisionBob()
    {
        sql("INSERT INTO subscriber (sid, user_id, oid, s_type, active) VALUES (8, 'bob', 3, 'group', true);"
            "INSERT INTO contact_set (csid, sid) VALUES (13, 8);"
            "INSERT INTO public_address (public_address_id, handle, sip_domain, csid, admin_domain, primary_handle)"
            " VALUES (43, 'bob', 'oryx.example', 13, 'example.com', true),"
            " (44, 'robert', 'example.com', 13, NULL, false)");
    }

    void deny(const std::string& privilege, const std::string& table)
    {
        sql("REVOKE " + privilege + " ON " + table + " FROM oryx_server");
    }
};

class ContactsOfPresentities : public PresenceLocation {
protected:
    template <typename Lookup>
    static std::string found(const Lookup& lookup)
    {
        std::string ordering = "as before";
        bool replaceUri = false;
        std::vector<ContactRecord> contacts;
        const oryx::DatabaseResult result = lookup(ordering, replaceUri, contacts);
        return outcome(result) + " ordering='" + ordering + "' replace=" + (replaceUri ? "yes" : "no") + "\n" +
               show(contacts);
    }

    std::string byKey(int key = 42)
    {
        return found([&](auto& ordering, auto& replaceUri, auto& contacts) {
            return m_executor.lookupContacts(key, ordering, replaceUri, contacts);
        });
    }

    std::string bySet(int csid = 12)
    {
        return found([&](auto& ordering, auto& replaceUri, auto& contacts) {
            return m_executor.lookupContacts(ordering, csid, replaceUri, contacts);
        });
    }

    /// Both lookups find the same.
    void expectFound(const std::string& expected)
    {
        EXPECT_EQ(byKey(), expected);
        EXPECT_EQ(bySet(), expected);
    }

    void addDesk()
    {
        sql("INSERT INTO contact (contact_id, csid, address, qvalue, expires, permanent, capabilities, contact_header,"
            " call_id, cseq, c_type, path_vector) VALUES (70, 12, 'sip:desk@192.0.2.1', '0.7', 2000000000, true, 'audio',"
            " '<sip:desk@192.0.2.1>', 'call1', 1826, 'phone', '<sip:edge@192.0.2.8;lr>')");
    }
};

class Aliases : public PresenceLocation {
protected:
    std::string of(const char* handle, const char* domain)
    {
        return listed<PublicAddressRecord>(
            [&](auto& aliases) { return m_executor.getAliases(handle, domain, aliases); });
    }

    std::string are(const char* handle1, const char* domain1, const char* handle2, const char* domain2)
    {
        bool aliases = true;
        const oryx::DatabaseResult result = m_executor.areAliases(handle1, domain1, handle2, domain2, aliases);
        return outcome(result) + (aliases ? " yes" : " no");
    }
};

class ProvisionedSubscribers : public PresenceLocation {
protected:
    std::string all(const char* type)
    {
        return listed<SubscriberRecord>(
            [&](auto& subscribers) { return m_executor.getSubscribers(subscribers, type); });
    }

    /// The subscriber behind alice@oryx.example, read into `rec`.
    std::string lookup(SubscriberRecord rec = {}, const std::string& handle = "alice",
                       const std::string& domain = "oryx.example")
    {
        const oryx::DatabaseResult result = m_executor.lookupSubscriber(handle, domain, rec);
        return outcome(result) + "\n" + show(rec);
    }
};

class ExpiredContacts : public PresenceLocation {
protected:
    void SetUp() override
    {
        PresenceLocation::SetUp();
        provisionBob();
    }

    std::string flush()
    {
        return listed<ExtendedContactRecord>([&](auto& expired) { return m_executor.flushExpiredContacts(expired); });
    }

    /// A contact that expired in 2001, unless told otherwise.
    void add(int csid, const std::string& user, const std::string& expires = "1000000000", bool permanent = false)
    {
        sql("INSERT INTO contact (csid, address, contact_header, expires, call_id, cseq, permanent) VALUES (" +
            std::to_string(csid) + ", 'sip:" + user + "', '<sip:" + user + ">', " + expires + ", 'call1', 1826, " +
            (permanent ? "true" : "false") + ")");
    }

    std::string stored() { return rows("SELECT csid, address FROM contact ORDER BY contact_id"); }
};

ContactRecord desk()
{
    ContactRecord record = contact("sip:desk@192.0.2.1");
    record.setContactid(70);
    record.setCsid(12);
    record.setPermanent('t');
    record.setContactHeader("<sip:desk@192.0.2.1>");
    record.setCallId("call1");
    record.setType("phone");
    record.setPathVector("<sip:edge@192.0.2.8;lr>");
    return record;
}

PublicAddressRecord address(int key, const char* handle, const char* domain, int csid, const char* scope = "")
{
    PublicAddressRecord record(handle, domain, csid, scope);
    record.setPublicAddressId(key);
    return record;
}

const PublicAddressRecord kAlice = address(42, "alice", "oryx.example", 12, "public");
const PublicAddressRecord kBob = address(43, "bob", "oryx.example", 13);
const PublicAddressRecord kRobert = address(44, "robert", "example.com", 13);

SubscriberRecord subscriber(int sid, const char* user, const char* type, const char* authType, const char* password)
{
    SubscriberRecord record;
    record.setId(sid);
    record.setUserId(user);
    record.setType(type);
    record.setAuthType(authType);
    record.setPassword(password);
    return record;
}

/// As a lookup gives her: with her organisation, which listings do not read.
SubscriberRecord alice()
{
    SubscriberRecord record = subscriber(7, "alice", "home", "digest", "wonderland");
    record.setOid(3);
    return record;
}

const std::string kAliceListed = show(subscriber(7, "alice", "home", "digest", "wonderland"));
const std::string kBobListed = show(subscriber(8, "bob", "group", "", ""));

/// A contact as the sweep reports it.
std::string expired(int key, const char* handle, const char* domain, const std::string& user)
{
    ExtendedContactRecord record;
    record.setSid(key);
    record.setHandle(handle);
    record.setDomain(domain);
    record.setContactHeader(("<sip:" + user + ">").c_str());
    record.setExpires(1000000000);
    record.setCallId("call1");
    record.setCseq(1826);
    return show(record);
}

const std::string kNumberRefused = "query error: invalid parameters -7";

/// What a lookup of a number answers, and the number that was -7 before.
template <typename Lookup>
std::string number(const Lookup& lookup)
{
    int value = -7;
    const oryx::DatabaseResult result = lookup(value);
    return outcome(result) + " " + std::to_string(value);
}

std::string deniedQuery(const std::string& table)
{
    return "query error: [42501] ERROR:  permission denied for table " + table;
}

TEST_F(ContactsOfPresentities, AreFoundByKeyAndBySetWithEveryField)
{
    addDesk();
    provisionBob();
    sql("INSERT INTO contact (csid, address) VALUES (13, 'sip:bob@192.0.2.2')");
    expectFound("okay ordering='sequential' replace=yes\n" + show(desk()));
    sql("INSERT INTO contact (contact_id, csid, address, qvalue) VALUES (71, 12, 'sip:soft@192.0.2.3', '')");
    ContactRecord soft;
    soft.setContactid(71);
    soft.setCsid(12);
    soft.setAddress("sip:soft@192.0.2.3");
    expectFound("okay ordering='sequential' replace=yes\n" + show(desk()) + show(soft));
}

TEST_F(ContactsOfPresentities, HaveTheirSetsOrderingAndReplacement)
{
    addDesk();
    sql("UPDATE contact_set SET ordering = 'parallel', replace_uri = false");
    expectFound("okay ordering='parallel' replace=no\n" + show(desk()));
    sql("UPDATE contact_set SET ordering = NULL, replace_uri = NULL");
    expectFound("okay ordering='' replace=yes\n" + show(desk()));
    sql("UPDATE contact_set SET replace_uri = true");
    expectFound("okay ordering='' replace=yes\n" + show(desk()));
}

TEST_F(ContactsOfPresentities, OfAnInactiveSubscriberAreFoundByTheirSetAlone)
{
    addDesk();
    sql("UPDATE subscriber SET active = false; UPDATE contact_set SET replace_uri = false");
    EXPECT_EQ(byKey(), "not found ordering='sequential' replace=no\n");
    EXPECT_EQ(bySet(), "okay ordering='sequential' replace=no\n" + show(desk()));
    sql("UPDATE subscriber SET active = NULL");
    expectFound("okay ordering='sequential' replace=no\n" + show(desk()));
}

TEST_F(ContactsOfPresentities, NeedNotBeThere)
{
    const std::string nothing = " ordering='as before' replace=yes\n";
    expectFound("okay" + nothing);
    EXPECT_EQ(byKey(99), "okay" + nothing);
    EXPECT_EQ(byKey(0), "okay" + nothing);
    EXPECT_EQ(bySet(99), "okay" + nothing);
    EXPECT_EQ(bySet(0), "query error: NULL csid" + nothing);
    EXPECT_EQ(bySet(-1), "query error: NULL csid" + nothing);
    deny("SELECT", "contact");
    expectFound(deniedQuery("contact") + nothing);
}

TEST_F(PresenceLocation, FindsAnAddressOfRecord)
{
    const auto lookup = [&](const char* handle, const char* domain) {
        PublicAddressRecord record = address(9, "as", "before", 8, "it was");
        const oryx::DatabaseResult result = m_executor.lookupPublicAddress(handle, domain, record);
        return outcome(result) + "\n" + show(record);
    };
    EXPECT_EQ(lookup("alice", "oryx.example"), "okay\n" + show(kAlice));
    sql("UPDATE public_address SET csid = NULL, scope = NULL");
    EXPECT_EQ(lookup("alice", "oryx.example"), "okay\n" + show(address(42, "alice", "oryx.example", 8, "it was")));
    const std::string before = "\n" + show(address(9, "as", "before", 8, "it was"));
    EXPECT_EQ(lookup("alice", "example.com"), "not found" + before);
    EXPECT_EQ(lookup("bob", "oryx.example"), "not found" + before);
    EXPECT_EQ(lookup(nullptr, "oryx.example"), "query error: invalid parameters" + before);
    EXPECT_EQ(lookup("alice", nullptr), "query error: invalid parameters" + before);
    EXPECT_EQ(lookup(kQuoted, "oryx.example"), plainOrBound("query error: " + kBroken, "not found") + before);
    EXPECT_EQ(lookup("alice", kQuoted), plainOrBound("query error: " + kBroken, "not found") + before);
}

TEST_F(PresenceLocation, FindsTheContactSetOfAnAddressOfRecord)
{
    const auto csid = [&](int key) { return number([&](int& value) { return m_executor.getCsid(key, value); }); };
    EXPECT_EQ(csid(42), "okay 12");
    EXPECT_EQ(csid(43), "not found -7");
    EXPECT_EQ(csid(0), kNumberRefused);
    sql("UPDATE public_address SET csid = NULL");
    EXPECT_EQ(csid(42), "okay -7");
    deny("SELECT", "public_address");
    EXPECT_EQ(csid(42), deniedQuery("public_address") + " -7");
}

TEST_F(PresenceLocation, FindsTheAddressOfRecordOfAnExtension)
{
    sql("INSERT INTO extension (extension, paid) VALUES ('600', '42'), ('601', 'abc'), ('602', NULL), ('603', '12abc'),"
        " ('604', ''), ('605', '99999999999')");
    const auto paid = [&](const std::string& extension) {
        return number([&](int& value) { return m_executor.getPaidFromExtension(extension, value); });
    };
    EXPECT_EQ(paid("600"), "okay 42");
    EXPECT_EQ(paid("601"), "not found -7");
    EXPECT_EQ(paid("602"), "okay -7");
    EXPECT_EQ(paid("603"), "okay 12");
    EXPECT_EQ(paid("604"), "not found -7");
    EXPECT_EQ(paid("605"), "not found -7");
    EXPECT_EQ(paid("699"), "not found -7");
    EXPECT_EQ(paid(""), kNumberRefused);
    EXPECT_EQ(paid(kQuoted), plainOrBound("query error: " + kBroken, "not found") + " -7");
}

TEST_F(PresenceLocation, FindsTheContactSetOfAContact)
{
    sql("INSERT INTO contact (contact_id, csid, address) VALUES (70, 12, 'sip:desk@192.0.2.1')");
    const auto csid = [&](int id) {
        return number([&](int& value) { return m_executor.getCsidFromContactId(id, value); });
    };
    EXPECT_EQ(csid(70), "okay 12");
    EXPECT_EQ(csid(71), "not found -7");
    EXPECT_EQ(csid(0), kNumberRefused);
    deny("SELECT", "contact");
    EXPECT_EQ(csid(70), deniedQuery("contact") + " -7");
}

TEST_F(PresenceLocation, ReadsAddressMapsByPriority)
{
    setenv("TZ", "UTC", 1);
    tzset();
    const auto maps = [&] {
        return listed<oryx::AddressMapRecord>([&](auto& found) { return m_executor.getAddressMaps(found); });
    };
    EXPECT_EQ(maps(), "okay\n");
    sql("UPDATE contact_set SET replace_uri = false; INSERT INTO contact_set (csid, sid) VALUES (13, 7);"
        "INSERT INTO address_map (handle, csid, pattern, modification_time, priority) VALUES"
        " ('second', 12, '^sip:b', '2001-09-09 01:46:40', 2), ('first', 13, '^sip:a', '2001-09-09 01:46:41', 1)");
    EXPECT_EQ(maps(),
              "okay\n"
              "map -1 'first' pattern='^sip:a' csid=13 modified=1000000001 priority=1 replace=true ordering=''\n"
              "map -1 'second' pattern='^sip:b' csid=12 modified=1000000000 priority=2 replace=false "
              "ordering='sequential'\n");
    deny("SELECT", "address_map");
    EXPECT_EQ(maps(), deniedQuery("address_map") + "\n");
}

TEST_F(PresenceLocation, ReadsTheProxysConfiguration)
{
    const auto config = [&] {
        return listed<oryx::ProxyConfig>([&](auto& items) { return m_executor.getProxyConfig(items); });
    };
    EXPECT_EQ(config(), "okay\n");
    sql("INSERT INTO system_parameters VALUES ('oryxproxy', 'ServerInfo', 'ServerNames', 'oryx.example'),"
        " ('oryxproxy', 'Timers', 'T1', NULL), ('other', 'Timers', 'T2', '4000')");
    EXPECT_EQ(config(), "okay\nitem scope='ServerInfo' name='ServerNames' value='oryx.example'\n"
                        "item scope='Timers' name='T1' value=''\n");
    deny("SELECT", "system_parameters");
    EXPECT_EQ(config(), deniedQuery("system_parameters") + "\n");
}

TEST_F(PresenceLocation, ReadsAllAddressesOfRecordOrThePrimaryOnes)
{
    provisionBob();
    sql("INSERT INTO public_address (public_address_id, handle, sip_domain) VALUES (45, 'nobody', 'oryx.example')");
    const auto all = [&](bool primaryOnly) {
        return listed<PublicAddressRecord>(
            [&](auto& addresses) { return m_executor.getAllPublicAddresses(addresses, primaryOnly); });
    };
    PublicAddressRecord bob = kBob;
    bob.setAdminDomain("example.com");
    EXPECT_EQ(all(true), "okay\n" + show(bob));
    EXPECT_EQ(all(false),
              "okay\n" + show(kAlice) + show(bob) + show(kRobert) + show(address(45, "nobody", "oryx.example", -1)));
    sql("DELETE FROM public_address WHERE primary_handle");
    EXPECT_EQ(all(true), "not found\n");
    sql("DELETE FROM public_address");
    EXPECT_EQ(all(false), "not found\n");
    deny("SELECT", "public_address");
    EXPECT_EQ(all(false), deniedQuery("public_address") + "\n");
}

TEST_F(Aliases, ShareAContactSet)
{
    provisionBob();
    EXPECT_EQ(of("alice", "oryx.example"), "okay\n" + show(kAlice));
    EXPECT_EQ(sorted(of("bob", "oryx.example")), sorted("okay\n" + show(kBob) + show(kRobert)));
    EXPECT_EQ(sorted(of("robert", "example.com")), sorted("okay\n" + show(kBob) + show(kRobert)));
}

TEST_F(Aliases, AreNotFoundForAnUnknownAddressOrAnInactiveSubscriber)
{
    EXPECT_EQ(of("carol", "oryx.example"), "not found\n");
    EXPECT_EQ(of(nullptr, "oryx.example"), "query error: invalid parameters\n");
    EXPECT_EQ(of("alice", nullptr), "query error: invalid parameters\n");
    EXPECT_EQ(of(kQuoted, "oryx.example"), plainOrBound(kBrokenQuery, "not found\n"));
    sql("UPDATE subscriber SET active = false");
    EXPECT_EQ(of("alice", "oryx.example"), "not found\n");
    sql("UPDATE subscriber SET active = NULL");
    EXPECT_EQ(of("alice", "oryx.example"), "not found\n");
}

TEST_F(Aliases, AreToldFromStrangers)
{
    provisionBob();
    EXPECT_EQ(are("bob", "oryx.example", "robert", "example.com"), "okay yes");
    EXPECT_EQ(are("robert", "example.com", "bob", "oryx.example"), "okay yes");
    EXPECT_EQ(are("bob", "oryx.example", "alice", "oryx.example"), "okay no");
    EXPECT_EQ(are("bob", "oryx.example", "carol", "oryx.example"), "not found no");
    EXPECT_EQ(are("bob", "oryx.example", "bob", "oryx.example"), "not found no");
    EXPECT_EQ(are(kQuoted, "oryx.example", "bob", "oryx.example"),
              plainOrBound("query error: " + kBroken, "not found") + " no");
}

TEST_F(Aliases, AreNotToldWithoutBothAddresses)
{
    const std::string invalid = "query error: invalid parameters no";
    EXPECT_EQ(are(nullptr, "oryx.example", "bob", "oryx.example"), invalid);
    EXPECT_EQ(are("bob", nullptr, "bob", "oryx.example"), invalid);
    EXPECT_EQ(are("bob", "oryx.example", nullptr, "oryx.example"), invalid);
    EXPECT_EQ(are("bob", "oryx.example", "bob", nullptr), invalid);
}

TEST_F(ProvisionedSubscribers, AreListedByTheirType)
{
    provisionBob();
    EXPECT_EQ(all(nullptr), "okay\n" + kAliceListed + kBobListed);
    EXPECT_EQ(all("group"), "okay\n" + kBobListed);
    EXPECT_EQ(all("guest"), "not found\n");
    EXPECT_EQ(all(""), "not found\n");
    EXPECT_EQ(all(kQuoted), plainOrBound(kBrokenQuery, "not found\n"));
    sql("UPDATE subscriber SET s_type = '', active = false WHERE sid = 8");
    SubscriberRecord bob = subscriber(8, "bob", "", "", "");
    bob.setActive('f');
    EXPECT_EQ(all(""), "okay\n" + show(bob));
    sql("DELETE FROM subscriber");
    EXPECT_EQ(all(nullptr), "not found\n");
}

TEST_F(ProvisionedSubscribers, AreListedWithTheirNullColumnsEmpty)
{
    sql("UPDATE subscriber SET auth_user_id = NULL, s_type = NULL, auth_type = NULL, s_password = NULL, active = NULL");
    EXPECT_EQ(all(nullptr), "okay\n" + show(subscriber(7, "", "", "", "")));
}

TEST_F(ProvisionedSubscribers, HaveTheirPasswordInClearWhenLookedUpAndAsStoredWhenListed)
{
    const TemporaryDirectory directory;
    setenv("ORYX_CRYPT_KEY_FILE", directory.write("key", std::string(64, 'a')).c_str(), 1);
    std::string stored;
    ASSERT_TRUE(Crypt::encrypt("wonderland", stored));
    EXPECT_NE(stored, "wonderland");
    sql("UPDATE subscriber SET s_password = '" + stored + "'");
    EXPECT_EQ(lookup(), "okay\n" + show(alice()));
    EXPECT_EQ(all("home"), "okay\n" + show(subscriber(7, "alice", "home", "digest", stored.c_str())));
}

TEST_F(ProvisionedSubscribers, AreLookedUpByAnAddressOfRecord)
{
    provisionBob();
    EXPECT_EQ(lookup(), "okay\n" + show(alice()));
    SubscriberRecord inactive = alice();
    inactive.setActive('f');
    sql("UPDATE subscriber SET active = false");
    EXPECT_EQ(lookup(), "okay\n" + show(inactive));
    sql("UPDATE subscriber SET active = true");
    EXPECT_EQ(lookup(inactive), "okay\n" + show(alice()));
}

TEST_F(ProvisionedSubscribers, LeaveFieldsAsTheyWereWhereAColumnIsNull)
{
    sql("UPDATE subscriber SET auth_user_id = NULL, oid = NULL, s_type = NULL, auth_type = NULL, s_password = NULL,"
        " active = NULL");
    SubscriberRecord record = alice();
    record.setActive('f');
    EXPECT_EQ(lookup(record), "okay\n" + show(record));
}

TEST_F(ProvisionedSubscribers, AreNotFoundByAnAddressThatNobodyHas)
{
    const std::string before = "\n" + show(alice());
    const std::string invalid = "query error: invalid parameters passed to lookupSubscriber";
    EXPECT_EQ(lookup(alice(), "bob"), "not found" + before);
    EXPECT_EQ(lookup(alice(), "alice", "example.com"), "not found" + before);
    EXPECT_EQ(lookup(alice(), ""), invalid + before);
    EXPECT_EQ(lookup(alice(), "alice", ""), invalid + before);
    EXPECT_EQ(lookup(alice(), kQuoted), plainOrBound("query error: " + kBroken, "not found") + before);
    EXPECT_EQ(lookup(alice(), "alice", kQuoted), plainOrBound("query error: " + kBroken, "not found") + before);
}

TEST_F(ExpiredContacts, AreReportedAndRemovedPermanentOrNot)
{
    add(12, "desk@192.0.2.1");
    add(12, "soft@192.0.2.1", "4000000000");
    add(12, "wall@192.0.2.1", "1000000000", true);
    add(12, "door@192.0.2.1", "NULL", true);
    EXPECT_EQ(sorted(flush()), sorted("okay\n" + expired(42, "alice", "oryx.example", "desk@192.0.2.1") +
                                      expired(42, "alice", "oryx.example", "wall@192.0.2.1")));
    EXPECT_EQ(stored(), "12|sip:soft@192.0.2.1\n12|sip:door@192.0.2.1\n");
    EXPECT_EQ(flush(), "not found\n");
    EXPECT_EQ(stored(), "12|sip:soft@192.0.2.1\n12|sip:door@192.0.2.1\n");
}

TEST_F(ExpiredContacts, AreReportedForEachAliasOfTheirSet)
{
    add(13, "bob@192.0.2.2");
    EXPECT_EQ(sorted(flush()), sorted("okay\n" + expired(43, "bob", "oryx.example", "bob@192.0.2.2") +
                                      expired(44, "robert", "example.com", "bob@192.0.2.2")));
    EXPECT_EQ(stored(), "");
}

TEST_F(ExpiredContacts, OfASetWithoutAnAddressGoUnreportedWithOthers)
{
    sql("INSERT INTO contact_set (csid, sid) VALUES (14, 8)");
    add(14, "carol@192.0.2.3");
    EXPECT_EQ(flush(), "not found\n");
    EXPECT_EQ(stored(), "14|sip:carol@192.0.2.3\n");
    add(12, "desk@192.0.2.1");
    EXPECT_EQ(flush(), "okay\n" + expired(42, "alice", "oryx.example", "desk@192.0.2.1"));
    EXPECT_EQ(stored(), "");
}

TEST_F(ExpiredContacts, AreReportedBehindWhatIsThereWithNullColumnsEmpty)
{
    sql("INSERT INTO contact (csid, address, expires, cseq) VALUES (12, 'sip:desk@192.0.2.1', -1, 4294967295)");
    ExtendedContactRecord before;
    before.setHandle("as before");
    std::vector<ExtendedContactRecord> found{before};
    EXPECT_EQ(show(m_executor.flushExpiredContacts(found)), "okay");
    ExtendedContactRecord desk;
    desk.setSid(42);
    desk.setHandle("alice");
    desk.setDomain("oryx.example");
    desk.setExpires(-1);
    desk.setCseq(static_cast<long>(std::min<long long>(4294967295, std::numeric_limits<long>::max())));
    EXPECT_EQ(show(found), show(before) + show(desk));
}

TEST_F(ExpiredContacts, StayUnreportedWhereTheirRemovalIsRefused)
{
    add(12, "desk@192.0.2.1");
    deny("DELETE", "contact");
    EXPECT_EQ(flush(), "connection error: [42501] ERROR:  permission denied for table contact\n");
    EXPECT_EQ(stored(), "12|sip:desk@192.0.2.1\n");
    deny("SELECT", "contact");
    EXPECT_EQ(flush(), deniedQuery("contact") + "\n");
}

} // namespace

} // namespace presenceLocationTest
