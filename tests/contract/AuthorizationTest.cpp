#include "contract/PresenceFixture.h"

namespace authorizationTest {

namespace {

using fake::Cell;
using fake::command;
using fake::noRows;
using fake::nothing;
using fake::refused;
using fake::rows;
using oryx::AccessControlEntry;
using oryx::ListSubscriptionRecord;
using oryx::PresenceDatabaseCommandExecutor;

const std::string kOfAddress = "getAccessControlList for handle: alice domain : oryx.example, application: presence";
const std::string kOfHandle = "getAccessControlList for handle: alice application: presence";
const std::string kGoingOnWithTheDefault = "No ACL entries found for alice, getting the system default policy";

const std::string kRulesOfAddress =
    "SELECT requester,access_action FROM access_control_list WHERE object='alice@oryx.example' and state ='ACTIVE' and application='presence';";
const std::string kRulesOfHandle =
    "SELECT requester,access_action FROM access_control_list WHERE object='alice' and state='ACTIVE' and application='presence';";
const std::string kDefaultPolicy =
    "SELECT requester, access_action FROM access_control_list,node WHERE object = node_id and state='ACTIVE' and application='presence';";

const std::string kEntryBefore = "entry requester='before' action='before'\n";
const std::string kBob = "entry requester='bob@oryx.example' action='allow'\n";
const std::string kMappingBefore = "list 'before' subscription='before' expires=1\n";
const std::string kUriBefore = "'before'\n";

std::string rulesOfAddress(PresenceDatabaseCommandExecutor& executor)
{
    return appending(std::vector{AccessControlEntry("before", "before")}, [&](auto& entries) {
        return executor.getAccessControlList("alice", "oryx.example", "presence", entries);
    });
}

std::string rulesOfHandle(PresenceDatabaseCommandExecutor& executor)
{
    return appending(std::vector{AccessControlEntry("before", "before")},
                     [&](auto& entries) { return executor.getAccessControlList("alice", "presence", entries); });
}

std::string listId(PresenceDatabaseCommandExecutor& executor)
{
    int id = 4711;
    const std::string answer = show(executor.getListId("friends", &id));
    return answer + "\n" + std::to_string(id);
}

std::string members(PresenceDatabaseCommandExecutor& executor)
{
    std::vector<std::string> uris = {"before"};
    const std::string answer = show(executor.getListEntries(5, uris));
    return answer + "\n" + oryx::show(uris);
}

std::string mayBeSubscribedTo(PresenceDatabaseCommandExecutor& executor)
{
    return show(executor.isWatcherAllowedToSubscribeToList(5, "alice", "oryx.example")) + "\n";
}

std::string mappings(PresenceDatabaseCommandExecutor& executor)
{
    return appending(std::vector{ListSubscriptionRecord("before", "before", 1)},
                     [&](auto& records) { return executor.getAllMappingsForList("list-7", records); });
}

const Statement kAskForRulesOfAddress = {
    .name = "getAccessControlListOfAddress",
    .operation = kOfAddress,
    .call = rulesOfAddress,
    .text = kRulesOfAddress,
    .reply = rows({{"bob@oryx.example", "allow"}}),
    .rowsTraced = {"retrieved 1 rows"},
};

const Statement kAskForRulesOfHandle = {
    .name = "getAccessControlListOfHandle",
    .operation = kOfHandle,
    .call = rulesOfHandle,
    .text = kRulesOfHandle,
    .reply = rows({{"bob@oryx.example", "allow"}}),
    .rowsTraced = {"retrieved 1 rows"},
};

const Statement kGetListId = {
    .name = "getListId",
    .operation = "getListId() for friends",
    .call = listId,
    .text = "SELECT buddy_list_id FROM buddy_list WHERE buddy_list_name ='friends';",
    .reply = rows({{"5"}}),
    .rowsTraced = {"getListId retrieved 1 rows"},
};

const Statement kGetListEntries = {
    .name = "getListEntries",
    .operation = "getListEntries()",
    .call = members,
    .text =
        "SELECT buddy_uri FROM buddy_list_detail,buddy_list WHERE buddy_list_id =5 and buddy_list.buddy_list_name=buddy_list_detail.buddy_list_name and isbuddy='t';",
    .reply = rows({{"sip:bob@oryx.example"}}),
    .rowsTraced = {"retrieved 1 rows", "List entry 0 : sip:bob@oryx.example"},
};

const Statement kIsWatcherAllowedToSubscribeToList = {
    .name = "isWatcherAllowedToSubscribeToList",
    .operation = "isWatcherAllowedToAccessList()",
    .call = mayBeSubscribedTo,
    .text =
        "SELECT listid FROM presence_list_authorization  WHERE listid=5 AND access_action='A' AND ( (handle ='alice' AND sip_domain = 'oryx.example') OR ( handle ='*' AND sip_domain = 'oryx.example') OR ( handle ='alice' AND sip_domain = '*') OR (handle = '*' AND sip_domain = '*'));",
    .reply = rows({{"5"}}),
    .rowsTraced = {"isWatcherAllowedToSubscribeToList retrieved 1 rows"},
};

const Statement kGetAllMappingsForList = {
    .name = "getAllMappingsForList",
    .operation = "getAllMappingsForList()",
    .call = mappings,
    .text = "SELECT subscriptionidentifier, expirytime FROM listsubscriptions WHERE  listfsmidentifier='list-7';",
    .reply = rows({{"sub-1", "1700000000"}}),
    .rowsTraced = {"retrieved 1 rows"},
};

const Statement kCreateListMapping = {
    .name = "createListMapping",
    .operation = "createListMapping()",
    .call = [](auto& executor) { return show(executor.createListMapping("list-7", "sub-1", 1700000000)); },
    .text =
        "INSERT INTO listsubscriptions (listfsmidentifier,subscriptionidentifier,expirytime) VALUES('list-7','sub-1',1700000000);",
    .reply = command("1"),
};

const Statement kRemoveListMapping = {
    .name = "removeListMapping",
    .operation = "removeListMapping()",
    .call = [](auto& executor) { return show(executor.removeListMapping("list-7", "sub-1")); },
    .text = "DELETE FROM listsubscriptions WHERE listfsmidentifier = 'list-7' AND subscriptionidentifier = 'sub-1';",
    .reply = command("1"),
};

const Statement kUpdateStateForListMapping = {
    .name = "updateStateForListMapping",
    .operation = "updateStateForListMapping()",
    .call =
        [](auto& executor) { return show(executor.updateStateForListMapping("list-7", "sub-1", "sub-2", 1700000000)); },
    .text =
        "UPDATE listsubscriptions SET subscriptionidentifier='sub-2', expirytime = 1700000000 WHERE listfsmidentifier='list-7' AND subscriptionidentifier = 'sub-1';",
    .reply = command("1"),
};

class AuthorizationStatement : public PresenceStatementTest {};

TEST_P(AuthorizationStatement, AnswersForItsEndingAndLeavesTheReason)
{
    endsAsTheCourseDoes();
}

INSTANTIATE_TEST_SUITE_P(
    OnCourse, AuthorizationStatement,
    testing::ValuesIn(onEveryCourse({
        query(kAskForRulesOfAddress, "okay\n" + kEntryBefore + kBob, kEntryBefore),
        query(kAskForRulesOfHandle, "okay\n" + kEntryBefore + kBob, kEntryBefore),
        query(kGetListId, "okay\n5", "4711"),
        query(kGetListEntries, "okay\n" + kUriBefore + "'sip:bob@oryx.example'\n", kUriBefore),
        query(kIsWatcherAllowedToSubscribeToList, "okay\n", ""),
        query(kGetAllMappingsForList,
              "okay\n" + kMappingBefore + "list 'list-7' subscription='sub-1' expires=1700000000\n", kMappingBefore),
        insertOrDelete(kCreateListMapping),
        insertOrDelete(kRemoveListMapping),
        update(kUpdateStateForListMapping),
    })),
    kRowName);

class AuthorizationArguments : public PresenceRefusalTest {};

TEST_P(AuthorizationArguments, AreRefusedWithoutAStatementOnceTheConnectionIsThere)
{
    sendsNothing();
}

PresenceRefusal refusedMapping(const std::string& name, const char* list, const char* subscription)
{
    return refusal(name, "createListMapping()", "createListMapping: missing one or more parameters\n",
                   [=](auto& executor) { return show(executor.createListMapping(list, subscription, 1)); });
}

PresenceRefusal refusedState(const std::string& name, const char* list, const char* subscription)
{
    return refusal(
        name, "updateStateForListMapping()", "updateStateForListMapping: missing one or more parameters\n",
        [=](auto& executor) { return show(executor.updateStateForListMapping(list, subscription, "sub-2", 1)); });
}

INSTANTIATE_TEST_SUITE_P(That, AuthorizationArguments,
                         testing::Values(refusedMapping("CreationWithoutList", nullptr, "sub-1"),
                                         refusedMapping("CreationWithoutSubscription", "list-7", nullptr),
                                         refusedMapping("CreationWithNeither", nullptr, nullptr),
                                         refusedState("UpdateWithoutList", nullptr, "sub-1"),
                                         refusedState("UpdateWithoutOldSubscription", "list-7", nullptr),
                                         refusedState("UpdateWithNeither", nullptr, nullptr)),
                         kRowName);

/// The three questions for access rules, each answered by the next when it finds none.
class AccessControlListTest : public PresenceTest {};

TEST_F(AccessControlListTest, OfAnAddressWithRulesHoldsOnlyThose)
{
    libpq.replies({rows({{"bob@oryx.example", "allow"}, {"carol@example.com", "block"}})});
    EXPECT_EQ(rulesOfAddress(executor),
              "okay\n" + kEntryBefore + kBob + "entry requester='carol@example.com' action='block'\n");
    EXPECT_EQ(libpq.take(), "exec " + kRulesOfAddress + "\n");
    EXPECT_EQ(traced(), presenceTrace({kOfAddress, kRulesOfAddress, "retrieved 2 rows"}));
}

TEST_F(AccessControlListTest, OfAnAddressWithoutRulesIsThatOfItsHandle)
{
    libpq.replies({noRows(2), rows({{"bob@oryx.example", "allow"}})});
    EXPECT_EQ(rulesOfAddress(executor), "okay\n" + kEntryBefore + kBob);
    EXPECT_EQ(libpq.take(), "exec " + kRulesOfAddress + "\nexec " + kRulesOfHandle + "\n");
    EXPECT_EQ(trace.take(), presenceTrace({kOfAddress, kRulesOfAddress}) + answeredTrace(kRulesOfAddress) +
                                presenceTrace({"retrieved 0 rows", kOfHandle, kRulesOfHandle}) +
                                answeredTrace(kRulesOfHandle) + presenceTrace({"retrieved 1 rows"}));
}

TEST_F(AccessControlListTest, OfAnAddressWithoutRulesOfItsOwnOrItsHandleIsTheDefaultPolicy)
{
    libpq.replies({noRows(2), noRows(2), rows({{"bob@oryx.example", "allow"}})});
    EXPECT_EQ(rulesOfAddress(executor), "okay\n" + kEntryBefore + kBob);
    EXPECT_EQ(libpq.take(), "exec " + kRulesOfAddress + "\nexec " + kRulesOfHandle + "\nexec " + kDefaultPolicy + "\n");
    EXPECT_EQ(traced(),
              presenceTrace({kOfAddress, kRulesOfAddress, "retrieved 0 rows", kOfHandle, kRulesOfHandle,
                             "retrieved 0 rows", kGoingOnWithTheDefault, kDefaultPolicy, "retrieved 1 rows"}));
}

TEST_F(AccessControlListTest, OfAnAddressWithoutAnyRulesIsNotFound)
{
    executor.error(kEarlierFailure.c_str());
    libpq.replies({noRows(2), noRows(2), noRows(2)});
    EXPECT_EQ(rulesOfAddress(executor), "not found\n" + kEntryBefore);
    EXPECT_EQ(libpq.take(), "exec " + kRulesOfAddress + "\nexec " + kRulesOfHandle + "\nexec " + kDefaultPolicy + "\n");
    EXPECT_EQ(executor.getErrorMessage(), kEarlierFailure);
}

TEST_F(AccessControlListTest, OfAHandleWithoutRulesIsTheDefaultPolicy)
{
    libpq.replies({noRows(2), rows({{"bob@oryx.example", "allow"}, {"*", "block"}})});
    EXPECT_EQ(rulesOfHandle(executor), "okay\n" + kEntryBefore + kBob + "entry requester='*' action='block'\n");
    EXPECT_EQ(libpq.take(), "exec " + kRulesOfHandle + "\nexec " + kDefaultPolicy + "\n");
    // Whether the second statement failed is looked at by the connection alone.
    EXPECT_EQ(
        trace.take(),
        presenceTrace({kOfHandle, kRulesOfHandle}) + answeredTrace(kRulesOfHandle) +
            presenceTrace({"retrieved 0 rows", kGoingOnWithTheDefault, kDefaultPolicy}) +
            "DatabaseConnection prn: executing query\n"
            "DatabaseConnection prn: query returned, setting result\n"
            "DatabaseConnection prn: query result status is 2 (', sqlState=00000, sqlcommand=SELECT requester, access_action FROM access_control_list,node WHERE object = node_id and state='ACTIVE' and application='presence';')\n\n" +
            presenceTrace({"retrieved 2 rows"}));
}

TEST_F(AccessControlListTest, OfAHandleWithoutRulesOrDefaultPolicyIsNotFound)
{
    libpq.replies({noRows(2), noRows(2)});
    EXPECT_EQ(rulesOfHandle(executor), "not found\n" + kEntryBefore);
    EXPECT_EQ(traced(), presenceTrace({kOfHandle, kRulesOfHandle, "retrieved 0 rows", kGoingOnWithTheDefault,
                                       kDefaultPolicy, "retrieved 0 rows"}));
}

TEST_F(AccessControlListTest, IsNotFoundWhereTheDefaultPolicyIsRefused)
{
    executor.error(kEarlierFailure.c_str());
    libpq.replies({noRows(2), refused("42601"), refused("42601")});
    EXPECT_EQ(rulesOfHandle(executor), "not found\n" + kEntryBefore);
    EXPECT_EQ(libpq.take(),
              "exec " + kRulesOfHandle + "\nexec " + kDefaultPolicy + "\nreset\nexec " + kDefaultPolicy + "\n");
    EXPECT_EQ(executor.getErrorMessage(), kEarlierFailure);
    EXPECT_EQ(traced(), presenceTrace({kOfHandle, kRulesOfHandle, "retrieved 0 rows", kGoingOnWithTheDefault,
                                       kDefaultPolicy, "retrieved 0 rows"}));
}

TEST_F(AccessControlListTest, IsAConnectionErrorWhereTheDefaultPolicyIsLostWithTheConnection)
{
    libpq.replies({noRows(2), nothing()});
    libpq.resetsTo({CONNECTION_BAD});
    EXPECT_EQ(rulesOfHandle(executor), "connection error: fatal error, query failed\n" + kEntryBefore);
    EXPECT_EQ(libpq.take(), "exec " + kRulesOfHandle + "\nexec " + kDefaultPolicy + "\nreset\n");
    EXPECT_EQ(executor.getErrorMessage(), "fatal error, query failed");
    EXPECT_EQ(traced(),
              presenceTrace({kOfHandle, kRulesOfHandle, "retrieved 0 rows", kGoingOnWithTheDefault, kDefaultPolicy}));
}

TEST_F(AccessControlListTest, IsAFailureOfTheHandlesRulesWhereTheAddressHasNone)
{
    const std::string reason = spliced(kRefused, kRulesOfHandle);
    libpq.replies({noRows(2), refused("42601"), refused("42601")});
    EXPECT_EQ(rulesOfAddress(executor), "query error: " + reason + "\n" + kEntryBefore);
    EXPECT_EQ(executor.getErrorMessage(), reason);
}

TEST_F(AccessControlListTest, ChecksTheConnectionAgainBeforeItAsksForTheHandlesRules)
{
    libpq.replies({nothing(), noRows(2), rows({{"bob@oryx.example", "allow"}})});
    EXPECT_EQ(rulesOfAddress(executor), "okay\n" + kEntryBefore + kBob);
    EXPECT_EQ(libpq.take(),
              "exec " + kRulesOfAddress + "\nreset\nexec " + kRulesOfAddress + "\nexec " + kRulesOfHandle + "\n");
}

TEST_F(AccessControlListTest, HoldsEmptyTextsWhereAColumnIsNull)
{
    const std::vector<std::vector<Cell>> halves = {{std::nullopt, "allow"}, {"bob@oryx.example", std::nullopt}};
    const std::string expected = "okay\n" + kEntryBefore +
                                 "entry requester='' action='allow'\n"
                                 "entry requester='bob@oryx.example' action=''\n";
    libpq.replies({rows(halves), rows(halves), noRows(2), rows(halves)});
    EXPECT_EQ(rulesOfAddress(executor), expected);
    EXPECT_EQ(rulesOfHandle(executor), expected);
    EXPECT_EQ(rulesOfHandle(executor), expected); // the default policy's
}

TEST_F(AccessControlListTest, IsAskedForAndTracedWithTheTextsAsTheyStand)
{
    libpq.replies({noRows(2), noRows(2), noRows(2)});
    std::vector<AccessControlEntry> entries;
    EXPECT_EQ(show(executor.getAccessControlList("o'brien", "100%s", "it's", entries)), "not found");
    const std::string ofAddress =
        "SELECT requester,access_action FROM access_control_list WHERE object='o'brien@100%s' and state ='ACTIVE' and application='it's';";
    const std::string ofHandle =
        "SELECT requester,access_action FROM access_control_list WHERE object='o'brien' and state='ACTIVE' and application='it's';";
    const std::string ofNodes =
        "SELECT requester, access_action FROM access_control_list,node WHERE object = node_id and state='ACTIVE' and application='it's';";
    EXPECT_EQ(libpq.takeStatements(), (std::vector<std::string>{ofAddress, ofHandle, ofNodes}));
    EXPECT_EQ(traced(),
              presenceTrace({"getAccessControlList for handle: o'brien domain : 100%s, application: it's", ofAddress,
                             "retrieved 0 rows", "getAccessControlList for handle: o'brien application: it's", ofHandle,
                             "retrieved 0 rows", "No ACL entries found for o'brien, getting the system default policy",
                             ofNodes, "retrieved 0 rows"}));
}

class PresenceListTest : public PresenceTest {};

TEST_F(PresenceListTest, HasTheIdOfItsFirstRow)
{
    libpq.replies({rows({{"12abc"}, {"7"}})});
    EXPECT_EQ(listId(executor), "okay\n12");
    EXPECT_EQ(traced(), presenceTrace({"getListId() for friends",
                                       "SELECT buddy_list_id FROM buddy_list WHERE buddy_list_name ='friends';",
                                       "getListId retrieved 2 rows"}));
}

TEST_F(PresenceListTest, WithANullIdLeavesTheNumberAsItWas)
{
    libpq.replies({rows({{std::nullopt}})});
    EXPECT_EQ(listId(executor), "okay\n4711");
}

TEST_F(PresenceListTest, WithAnUnknownNameHasNoId)
{
    libpq.replies({noRows()});
    EXPECT_EQ(listId(executor), "not found\n4711");
    EXPECT_EQ(traced(), presenceTrace({kGetListId.operation, kGetListId.text, "getListId retrieved 0 rows"}));
}

TEST_F(PresenceListTest, ThatIsEmptyOrUnknownHasNoMembers)
{
    libpq.replies({noRows()});
    EXPECT_EQ(members(executor), "okay\n" + kUriBefore);
    EXPECT_EQ(traced(), presenceTrace({kGetListEntries.operation, kGetListEntries.text, "retrieved 0 rows"}));
}

TEST_F(PresenceListTest, MayNotBeSubscribedToWhereNoRowAllowsIt)
{
    libpq.replies({noRows()});
    EXPECT_EQ(mayBeSubscribedTo(executor), "not found\n");
    EXPECT_EQ(traced(),
              presenceTrace({kIsWatcherAllowedToSubscribeToList.operation, kIsWatcherAllowedToSubscribeToList.text,
                             "isWatcherAllowedToSubscribeToList retrieved 0 rows"}));
}

TEST_F(PresenceListTest, WithoutMappingsIsNotFound)
{
    libpq.replies({noRows(2)});
    EXPECT_EQ(mappings(executor), "not found\n" + kMappingBefore);
    EXPECT_EQ(traced(),
              presenceTrace({kGetAllMappingsForList.operation, kGetAllMappingsForList.text, "retrieved 0 rows"}));
}

TEST_F(PresenceListTest, LosesOrChangesAMappingThatItDoesNotHave)
{
    libpq.replies({command("0"), command("0")});
    EXPECT_EQ(kRemoveListMapping.call(executor), "okay");
    EXPECT_EQ(kUpdateStateForListMapping.call(executor), "okay");
}

TEST_F(PresenceListTest, HasItsMembersInTheOrderTheyCome)
{
    libpq.replies({rows({{"sip:bob@oryx.example"}, {std::nullopt}, {"sip:100%s@example.com"}})});
    EXPECT_EQ(members(executor), "okay\n" + kUriBefore + "'sip:bob@oryx.example'\n''\n'sip:100%s@example.com'\n");
    EXPECT_EQ(traced(), presenceTrace({kGetListEntries.operation, kGetListEntries.text, "retrieved 3 rows",
                                       "List entry 0 : sip:bob@oryx.example",
                                       "List entry 1 : ", "List entry 2 : sip:100%s@example.com"}));
}

TEST_F(PresenceListTest, MayBeReadByEveryWatcherOnceConnected)
{
    EXPECT_EQ(show(executor.isWatcherAllowedToAccessList(7, 5)), "okay");
    EXPECT_EQ(show(executor.isWatcherAllowedToAccessList(-2147483647 - 1, 2147483647)), "okay");
    EXPECT_EQ(libpq.take(), "");
    EXPECT_EQ(trace.take(), presenceTrace({"isWatcherAllowedToAccessList()", "isWatcherAllowedToAccessList()"}));
}

TEST_F(PresenceListTest, MayBeReadAfterAReset)
{
    libpq.loseConnection();
    EXPECT_EQ(show(executor.isWatcherAllowedToAccessList(7, 5)), "okay");
    EXPECT_EQ(libpq.take(), "reset\n");
}

TEST_F(PresenceListTest, MayNotBeReadOnceTheConnectionIsLost)
{
    libpq.loseConnection();
    libpq.errorMessage(kServerGone);
    libpq.resetsTo({CONNECTION_BAD});
    EXPECT_EQ(show(executor.isWatcherAllowedToAccessList(7, 5)), "connection error: " + kServerGone);
    EXPECT_EQ(libpq.take(), "reset\n");
    EXPECT_EQ(trace.take(), presenceTrace({"isWatcherAllowedToAccessList()"}));
}

TEST(PresenceListWithoutAConnection, MayNotBeRead)
{
    const fake::Libpq libpq;
    PresenceDatabaseCommandExecutor executor;
    EXPECT_EQ(show(executor.isWatcherAllowedToAccessList(7, 5)),
              "connection error: attempt to execute a command with no database connection");
    EXPECT_EQ(executor.getErrorMessage(), "attempt to execute a command with no database connection");
}

TEST_F(PresenceListTest, MayBeSubscribedToWhereSeveralRowsAllowIt)
{
    libpq.replies({rows({{"5"}, {"5"}})});
    EXPECT_EQ(mayBeSubscribedTo(executor), "okay\n");
    EXPECT_EQ(traced(),
              presenceTrace({kIsWatcherAllowedToSubscribeToList.operation, kIsWatcherAllowedToSubscribeToList.text,
                             "isWatcherAllowedToSubscribeToList retrieved 2 rows"}));
}

TEST_F(PresenceListTest, HasItsMappingsInTheOrderTheyCome)
{
    libpq.replies({rows({{"sub-1", "1700000000"}, {"sub-2", "-1"}})});
    EXPECT_EQ(mappings(executor), "okay\n" + kMappingBefore +
                                      "list 'list-7' subscription='sub-1' expires=1700000000\n"
                                      "list 'list-7' subscription='sub-2' expires=-1\n");
    EXPECT_EQ(traced(),
              presenceTrace({kGetAllMappingsForList.operation, kGetAllMappingsForList.text, "retrieved 2 rows"}));
}

TEST_F(PresenceListTest, HasAMappingWithoutWhatIsNull)
{
    libpq.replies({rows({{std::nullopt, "1700000000"}, {"sub-2", std::nullopt}})});
    EXPECT_EQ(mappings(executor), "okay\n" + kMappingBefore +
                                      "list 'list-7' subscription='' expires=1700000000\n"
                                      "list 'list-7' subscription='sub-2' expires=0\n");
}

TEST_F(PresenceListTest, StoresEmptyTextsOfAMappingAsEmpty)
{
    libpq.replies({command("1")});
    EXPECT_EQ(show(executor.createListMapping("", "", -1)), "okay");
    EXPECT_EQ(
        libpq.take(),
        "exec INSERT INTO listsubscriptions (listfsmidentifier,subscriptionidentifier,expirytime) VALUES('','',-1);\n");
}

TEST_F(PresenceListTest, TakesEveryTextAsItStands)
{
    libpq.replies({noRows(), noRows(), noRows(2), command("1"), command("1"), command("1")});
    int id = 4711;
    std::vector<ListSubscriptionRecord> records;
    executor.getListId("o'brien's 100%s", &id);
    executor.isWatcherAllowedToSubscribeToList(-1, "o'brien", "100%s");
    executor.getAllMappingsForList("o'brien", records);
    executor.createListMapping("o'brien", "100%s", 0);
    executor.removeListMapping("o'brien", "100%s");
    executor.updateStateForListMapping("o'brien", "100%s", "", -2147483647);
    EXPECT_EQ(
        libpq.take(),
        "exec SELECT buddy_list_id FROM buddy_list WHERE buddy_list_name ='o'brien's 100%s';\n"
        "exec SELECT listid FROM presence_list_authorization  WHERE listid=-1 AND access_action='A' AND ( (handle ='o'brien' AND sip_domain = '100%s') OR ( handle ='*' AND sip_domain = '100%s') OR ( handle ='o'brien' AND sip_domain = '*') OR (handle = '*' AND sip_domain = '*'));\n"
        "exec SELECT subscriptionidentifier, expirytime FROM listsubscriptions WHERE  listfsmidentifier='o'brien';\n"
        "exec INSERT INTO listsubscriptions (listfsmidentifier,subscriptionidentifier,expirytime) VALUES('o'brien','100%s',0);\n"
        "exec DELETE FROM listsubscriptions WHERE listfsmidentifier = 'o'brien' AND subscriptionidentifier = '100%s';\n"
        "exec UPDATE listsubscriptions SET subscriptionidentifier='', expirytime = -2147483647 WHERE listfsmidentifier='o'brien' AND subscriptionidentifier = '100%s';\n");
}

TEST_F(PresenceListTest, TakesANullTextThatNothingIsSaidOfAsAnEmptyOne)
{
    libpq.replies({noRows(), noRows(), noRows(2), command("1"), command("1")});
    int id = 4711;
    std::vector<ListSubscriptionRecord> records;
    executor.getListId(nullptr, &id);
    executor.isWatcherAllowedToSubscribeToList(5, nullptr, nullptr);
    executor.getAllMappingsForList(nullptr, records);
    executor.removeListMapping(nullptr, nullptr);
    executor.updateStateForListMapping("list-7", "sub-1", nullptr, 1);
    EXPECT_EQ(
        libpq.take(),
        "exec SELECT buddy_list_id FROM buddy_list WHERE buddy_list_name ='';\n"
        "exec SELECT listid FROM presence_list_authorization  WHERE listid=5 AND access_action='A' AND ( (handle ='' AND sip_domain = '') OR ( handle ='*' AND sip_domain = '') OR ( handle ='' AND sip_domain = '*') OR (handle = '*' AND sip_domain = '*'));\n"
        "exec SELECT subscriptionidentifier, expirytime FROM listsubscriptions WHERE  listfsmidentifier='';\n"
        "exec DELETE FROM listsubscriptions WHERE listfsmidentifier = '' AND subscriptionidentifier = '';\n"
        "exec UPDATE listsubscriptions SET subscriptionidentifier='', expirytime = 1 WHERE listfsmidentifier='list-7' AND subscriptionidentifier = 'sub-1';\n");
}

TEST_F(AccessControlListTest, TakesANullTextAsAnEmptyOne)
{
    libpq.replies({noRows(2), noRows(2), noRows(2)});
    std::vector<AccessControlEntry> entries;
    EXPECT_EQ(show(executor.getAccessControlList(nullptr, nullptr, nullptr, entries)), "not found");
    EXPECT_EQ(
        libpq.take(),
        "exec SELECT requester,access_action FROM access_control_list WHERE object='@' and state ='ACTIVE' and application='';\n"
        "exec SELECT requester,access_action FROM access_control_list WHERE object='' and state='ACTIVE' and application='';\n"
        "exec SELECT requester, access_action FROM access_control_list,node WHERE object = node_id and state='ACTIVE' and application='';\n");
}

} // namespace

} // namespace authorizationTest
