#include "database/PresenceFixture.h"

#include <string>
#include <vector>

namespace authorizationTest {

namespace {

using oryx::AccessControlEntry;
using oryx::ListSubscriptionRecord;

class AccessControl : public PresenceTest {
protected:
    /// A rule for each object, whose requester tells which.
    void addRules(const std::vector<std::string>& objects, const std::string& state = "ACTIVE")
    {
        for (const std::string& object : objects) {
            sql("INSERT INTO access_control_list (object, requester, access_action, state, application) VALUES ('" +
                object + "', 'sip:" + object + "', 'allow', '" + state + "', 'presence')");
        }
    }

    std::string ofAddress(const char* handle = "bob", const char* domain = "oryx.example",
                          const char* application = "presence")
    {
        return listed<AccessControlEntry>(
            [&](auto& entries) { return m_executor.getAccessControlList(handle, domain, application, entries); });
    }

    std::string ofHandle(const char* handle = "bob", const char* application = "presence")
    {
        return listed<AccessControlEntry>(
            [&](auto& entries) { return m_executor.getAccessControlList(handle, application, entries); });
    }
};

class PresenceLists : public PresenceTest {
protected:
    void SetUp() override
    {
        PresenceTest::SetUp();
        sql("INSERT INTO buddy_list VALUES (5, 'friends'), (6, 'empty'), (7, 'others')");
        sql("INSERT INTO buddy_list_detail VALUES ('friends', 'sip:bob@oryx.example', true),"
            " ('friends', 'sip:mallory@example.com', false), ('friends', 'sip:carol@example.com', true),"
            " ('others', 'sip:dave@example.com', true)");
    }

    std::string id(const char* name)
    {
        int id = -7;
        const oryx::DatabaseResult result = m_executor.getListId(name, &id);
        return outcome(result) + " " + std::to_string(id);
    }

    std::string entries(int listId)
    {
        return listed<std::string>([&](auto& uris) { return m_executor.getListEntries(listId, uris); });
    }

    std::string maySubscribe(int listId, const char* handle, const char* domain)
    {
        return outcome(m_executor.isWatcherAllowedToSubscribeToList(listId, handle, domain));
    }

    void authorize(const std::string& handle, const std::string& domain, const std::string& action = "A")
    {
        sql("INSERT INTO presence_list_authorization VALUES (5, '" + handle + "', '" + domain + "', '" + action + "')");
    }
};

class ListMappings : public PresenceTest {
protected:
    void SetUp() override
    {
        PresenceTest::SetUp();
        EXPECT_EQ(show(m_executor.createListMapping("list1", "sub1", 2000000000)), "okay");
        EXPECT_EQ(show(m_executor.createListMapping("list1", "sub2", -1)), "okay");
        EXPECT_EQ(show(m_executor.createListMapping("list2", "sub1", 60)), "okay");
    }

    std::string stored() { return rows("SELECT * FROM listsubscriptions ORDER BY 1, 2"); }

    std::string found(const char* list)
    {
        return listed<ListSubscriptionRecord>(
            [&](auto& records) { return m_executor.getAllMappingsForList(list, records); });
    }
};

std::string entry(const std::string& object)
{
    return show(AccessControlEntry(("sip:" + object).c_str(), "allow"));
}

const std::string kMapped = "list1|sub1|2000000000\nlist1|sub2|-1\nlist2|sub1|60\n";

TEST_F(AccessControl, GoesByTheAddressThenTheHandleThenTheDefaultPolicy)
{
    EXPECT_EQ(ofAddress(), "not found\n");
    EXPECT_EQ(ofHandle(), "not found\n");
    sql("INSERT INTO node VALUES ('node1', 'first'), ('node2', 'second')");
    addRules({"node1", "node3", "node2"});
    const std::string policy = ofAddress();
    EXPECT_EQ(sorted(policy), sorted("okay\n" + entry("node1") + entry("node2")));
    EXPECT_EQ(ofHandle(), policy);
    addRules({"bob"});
    EXPECT_EQ(ofAddress(), "okay\n" + entry("bob"));
    EXPECT_EQ(ofHandle(), "okay\n" + entry("bob"));
    addRules({"bob@oryx.example", "bob@example.com"});
    EXPECT_EQ(ofAddress(), "okay\n" + entry("bob@oryx.example"));
    EXPECT_EQ(ofHandle(), "okay\n" + entry("bob"));
}

TEST_F(AccessControl, CountsActiveRulesOfTheApplicationAlone)
{
    sql("INSERT INTO node VALUES ('node1')");
    addRules({"node1", "bob", "bob@oryx.example"}, "INACTIVE");
    addRules({"node1", "bob", "bob@oryx.example"}, "active");
    EXPECT_EQ(ofAddress(), "not found\n");
    EXPECT_EQ(ofHandle(), "not found\n");
    addRules({"node1", "bob", "bob@oryx.example"});
    EXPECT_EQ(ofAddress(), "okay\n" + entry("bob@oryx.example"));
    EXPECT_EQ(ofAddress("bob", "oryx.example", "dialog"), "not found\n");
    EXPECT_EQ(ofHandle("bob", "dialog"), "not found\n");
    EXPECT_EQ(ofHandle("carol"), "okay\n" + entry("node1"));
}

TEST_F(AccessControl, IsListedBehindWhatIsThereWithNullColumnsEmpty)
{
    sql("INSERT INTO access_control_list (object, application) VALUES ('bob@oryx.example', 'presence'),"
        " ('bob', 'presence'), ('node1', 'presence'); INSERT INTO node VALUES ('node1')");
    std::vector<AccessControlEntry> entries{{"sip:alice", "deny"}};
    EXPECT_EQ(show(m_executor.getAccessControlList("bob", "oryx.example", "presence", entries)), "okay");
    EXPECT_EQ(show(m_executor.getAccessControlList("bob", "presence", entries)), "okay");
    EXPECT_EQ(show(m_executor.getAccessControlList("carol", "presence", entries)), "okay");
    const std::string empty = show(AccessControlEntry("", ""));
    EXPECT_EQ(show(entries), show(AccessControlEntry("sip:alice", "deny")) + empty + empty + empty);
}

TEST_F(AccessControl, IsGrantedToNobodyThroughAQuoteInAValue)
{
    const std::string nothing = plainOrBound(kBrokenQuery, "not found\n");
    EXPECT_EQ(ofAddress(kQuoted), nothing);
    EXPECT_EQ(ofAddress("bob", kQuoted), nothing);
    EXPECT_EQ(ofAddress("bob", "oryx.example", kQuoted), nothing);
    EXPECT_EQ(ofHandle(kQuoted), nothing);
    EXPECT_EQ(ofHandle("bob", kQuoted), nothing);
}

TEST_F(AccessControl, HasNoDefaultPolicyThatTheServerRefusesToRead)
{
    sql("REVOKE SELECT ON node FROM oryx_server");
    EXPECT_EQ(ofAddress(), "not found\n");
    EXPECT_EQ(ofHandle(), "not found\n");
}

TEST_F(PresenceLists, HaveANumberByTheirName)
{
    EXPECT_EQ(id("friends"), "okay 5");
    EXPECT_EQ(id("enemies"), "not found -7");
    EXPECT_EQ(id(kQuoted), plainOrBound("query error: " + kBroken, "not found") + " -7");
}

TEST_F(PresenceLists, HaveTheirMembersListed)
{
    EXPECT_EQ(sorted(entries(5)), sorted("okay\n'sip:bob@oryx.example'\n'sip:carol@example.com'\n"));
    EXPECT_EQ(entries(6), "okay\n");
    EXPECT_EQ(entries(99), "okay\n");
    std::vector<std::string> uris{"as before"};
    EXPECT_EQ(show(m_executor.getListEntries(7, uris)), "okay");
    EXPECT_EQ(oryx::show(uris), "'as before'\n'sip:dave@example.com'\n");
    sql("REVOKE SELECT ON buddy_list FROM oryx_server");
    EXPECT_EQ(entries(5), "query error: [42501] ERROR:  permission denied for table buddy_list\n");
}

TEST_F(PresenceLists, MayBeReadByEverybody)
{
    EXPECT_EQ(show(m_executor.isWatcherAllowedToAccessList(0, -1)), "okay");
    EXPECT_EQ(show(m_executor.isWatcherAllowedToAccessList(7, 99)), "okay");
}

TEST_F(PresenceLists, MayBeSubscribedToByWhomTheyName)
{
    EXPECT_EQ(maySubscribe(5, "alice", "oryx.example"), "not found");
    authorize("alice", "oryx.example");
    EXPECT_EQ(maySubscribe(5, "alice", "oryx.example"), "okay");
    EXPECT_EQ(maySubscribe(6, "alice", "oryx.example"), "not found");
    EXPECT_EQ(maySubscribe(5, "bob", "oryx.example"), "not found");
    EXPECT_EQ(maySubscribe(5, "alice", "example.com"), "not found");
    authorize("*", "example.com");
    authorize("carol", "*");
    EXPECT_EQ(maySubscribe(5, "bob", "example.com"), "okay");
    EXPECT_EQ(maySubscribe(5, "carol", "oryx.example"), "okay");
    EXPECT_EQ(maySubscribe(5, "bob", "oryx.example"), "not found");
    authorize("*", "*");
    EXPECT_EQ(maySubscribe(5, "bob", "oryx.example"), "okay");
    EXPECT_EQ(maySubscribe(6, "bob", "oryx.example"), "not found");
}

TEST_F(PresenceLists, MayNotBeSubscribedToThroughAnyOtherAction)
{
    authorize("alice", "oryx.example", "D");
    authorize("*", "oryx.example", "a");
    authorize("*", "*", "");
    EXPECT_EQ(maySubscribe(5, "alice", "oryx.example"), "not found");
    EXPECT_EQ(maySubscribe(5, kQuoted, "oryx.example"), plainOrBound("query error: " + kBroken, "not found"));
    EXPECT_EQ(maySubscribe(5, "alice", kQuoted), plainOrBound("query error: " + kBroken, "not found"));
}

TEST_F(ListMappings, AreStoredAndListedByTheirList)
{
    EXPECT_EQ(stored(), kMapped);
    EXPECT_EQ(found("list1"), "okay\n" + show(ListSubscriptionRecord("list1", "sub1", 2000000000)) +
                                  show(ListSubscriptionRecord("list1", "sub2", -1)));
    EXPECT_EQ(found("list3"), "not found\n");
    EXPECT_EQ(found(kQuoted), plainOrBound(kBrokenQuery, "not found\n"));
    const ListSubscriptionRecord before("as", "before", 1);
    std::vector<ListSubscriptionRecord> records{before};
    EXPECT_EQ(show(m_executor.getAllMappingsForList("list2", records)), "okay");
    EXPECT_EQ(show(records), show(before) + show(ListSubscriptionRecord("list2", "sub1", 60)));
}

TEST_F(ListMappings, MayBeEmptyOrLackAnExpiry)
{
    EXPECT_EQ(show(m_executor.createListMapping("", "", 5)), "okay");
    EXPECT_EQ(stored(), "||5\n" + kMapped);
    sql("UPDATE listsubscriptions SET expirytime = NULL");
    EXPECT_EQ(found(""), "okay\n" + show(ListSubscriptionRecord("", "", 0)));
}

TEST_F(ListMappings, AreNotStoredIncompleteOrTwice)
{
    const std::string incomplete = "query error: createListMapping: missing one or more parameters\n";
    EXPECT_EQ(show(m_executor.createListMapping(nullptr, "sub9", 5)), incomplete);
    EXPECT_EQ(show(m_executor.createListMapping("list9", nullptr, 5)), incomplete);
    EXPECT_EQ(outcome(m_executor.createListMapping("list9", kQuoted, 5)), plainOrBound(kBrokenChange, "okay"));
    EXPECT_EQ(outcome(m_executor.createListMapping("list1", "sub1", 5)),
              "connection error" + duplicateOf("listsubscriptions_pkey"));
    EXPECT_EQ(stored(), plainOrBound(kMapped, kMapped + "list9|o'neill|5\n"));
}

TEST_F(ListMappings, AreMovedToAnotherSubscription)
{
    EXPECT_EQ(show(m_executor.updateStateForListMapping("list1", "sub1", "sub3", 2147483647)), "okay");
    EXPECT_EQ(stored(), "list1|sub2|-1\nlist1|sub3|2147483647\nlist2|sub1|60\n");
}

TEST_F(ListMappings, StayAsTheyAreWhereNoneIsMoved)
{
    EXPECT_EQ(show(m_executor.updateStateForListMapping("list9", "sub1", "sub3", 5)), "okay");
    EXPECT_EQ(show(m_executor.updateStateForListMapping("list1", "sub1", "sub2", 5)), kRefusedUpdate);
    EXPECT_EQ(show(m_executor.updateStateForListMapping("list1", "sub1", kQuoted, 5)),
              plainOrBound(kRefusedUpdate, "okay"));
    const std::string incomplete = "query error: updateStateForListMapping: missing one or more parameters\n";
    EXPECT_EQ(show(m_executor.updateStateForListMapping(nullptr, "sub1", "sub3", 5)), incomplete);
    EXPECT_EQ(show(m_executor.updateStateForListMapping("list1", nullptr, "sub3", 5)), incomplete);
    EXPECT_EQ(stored(), plainOrBound(kMapped, "list1|o'neill|5\nlist1|sub2|-1\nlist2|sub1|60\n"));
}

TEST_F(ListMappings, AreRemovedOneByOne)
{
    EXPECT_EQ(show(m_executor.removeListMapping("list1", "sub1")), "okay");
    EXPECT_EQ(show(m_executor.removeListMapping("list1", "sub1")), "okay");
    EXPECT_EQ(outcome(m_executor.removeListMapping("list1", kQuoted)), plainOrBound(kBrokenChange, "okay"));
    EXPECT_EQ(stored(), "list1|sub2|-1\nlist2|sub1|60\n");
}

} // namespace

} // namespace authorizationTest
