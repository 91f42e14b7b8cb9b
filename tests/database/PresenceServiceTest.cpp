#include "support/DatabaseTest.h"
#include "support/Show.h"
#include "support/TableChanges.h"
#include "support/TraceLog.h"

#include <dal/PresenceDatabaseCommandExecutor.h>
#include <dal/PresenceService.h>

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

namespace presenceServiceTest {

namespace {

using oryx::AccessControlEntry;
using oryx::CMRecord;
using oryx::ConfExtRecord;
using oryx::ContactRecord;
using oryx::DatabaseResult;
using oryx::DatabaseUpdate;
using oryx::ExtendedContactRecord;
using oryx::ListSubscriptionRecord;
using oryx::PresenceRecord;
using oryx::PresenceService;
using oryx::ProxyConfig;
using oryx::PublicAddressRecord;
using oryx::show;
using oryx::SourcesRecord;
using oryx::SubscriberRecord;
using oryx::WatcherInfoRecord;
using oryx::WatchersRecord;

class PresenceServices : public DatabaseTest {
protected:
    void SetUp() override { connect(m_service); }

    void connect(PresenceService& service)
    {
        ASSERT_EQ(outcome(service.connect(m_database.uri().c_str(), server::kUser, server::kPassword)), "okay");
    }

    /// What a lookup of contacts or an address map answers and fills.
    template <typename Lookup>
    static std::string found(const Lookup& lookup)
    {
        std::string ordering = "-";
        bool replaceUri = false;
        std::vector<ContactRecord> contacts;
        const std::string answer = outcome(lookup(ordering, replaceUri, contacts));
        return answer + " " + ordering + (replaceUri ? " replacing\n" : "\n") + show(contacts);
    }

    std::string routed(const char* uri)
    {
        return found([&](auto& ordering, auto& replaceUri, auto& contacts) {
            return m_service.lookupAddressMap(uri, ordering, replaceUri, contacts);
        });
    }

    std::string mapKeys()
    {
        std::vector<std::string> keys;
        m_service.getMapKeys(keys);
        return show(keys);
    }

    PresenceService m_service;
};

/// The answer to a listing and the records that it appends.
template <typename Record, typename List>
std::string all(const List& list)
{
    std::vector<Record> records;
    const std::string answer = outcome(list(records));
    return answer + "\n" + show(records);
}

const PresenceRecord kDialog("incoming#1", nullptr, "<sip:alice@oryx.example>;tag=1", "<sip:bob@oryx.example>;tag=2",
                             "a84b4c76e66710@192.0.2.7", 7, "presence", "<sip:alice@192.0.2.7>",
                             "<sip:edge.oryx.example;lr>", 3, "sip:bob@oryx.example", "presence#1");

WatchersRecord watcher(int state, int expiry, unsigned long version, const std::string& contact)
{
    return {"presence#bob",           "incoming#1",           4,       5,  state,  expiry,
            "sip:alice@oryx.example", "sip:bob@oryx.example", version, "", contact};
}

/// A contact with every field, permanent, but for the keys that the database gives.
const std::string kInsertContact =
    "INSERT INTO contact (contact_id, csid, address, qvalue, expires, permanent, capabilities, contact_header, call_id,"
    " cseq, c_type, path_vector) VALUES (101, 12, 'sip:$user@gw.$host', '0.7', 1000000000, true, 'audio',"
    " '<sip:alice@192.0.2.7>', 'call', 17, 'home', '<sip:edge.oryx.example;lr>')";

std::string storedContact(const std::string& address)
{
    return "contact 101 '" + address +
           "' csid=12 q='0.7' expires=1000000000 permanent='t' capabilities='audio' header='<sip:alice@192.0.2.7>' "
           "call='call' cseq=17 type='home' path='<sip:edge.oryx.example;lr>'\n";
}

TEST_F(PresenceServices, KeepDialogs)
{
    EXPECT_EQ(outcome(m_service.addWatcher(kDialog)), "okay");
    EXPECT_EQ(outcome(m_service.addWatcher(kDialog)),
              "constraint error: [23505] ERROR:  duplicate key value violates unique constraint "
              "\"subscription_states_pkey\"");
    EXPECT_EQ(outcome(m_service.updateWatcherContact("incoming#1", "<sip:alice@192.0.2.9>", 8)), "okay");
    PresenceRecord expected = kDialog;
    expected.SetRemotecontacthdr("<sip:alice@192.0.2.9>");
    expected.SetSubcseq(8);
    PresenceRecord read;
    EXPECT_EQ(outcome(m_service.getWatcher("incoming#1", read)), "okay");
    EXPECT_EQ(show(read), show(expected));

    EXPECT_EQ(outcome(m_service.updatePresentityContact("incoming#1", "<sip:alice@192.0.2.10>", 4)), "okay");
    expected.SetRemotecontacthdr("<sip:alice@192.0.2.10>");
    expected.SetNotcseq(4);
    EXPECT_EQ(all<PresenceRecord>([&](auto& list) { return m_service.getIncomingSubscriptions(list, "presence"); }),
              "okay\n" + show(expected));
    EXPECT_EQ(outcome(m_service.deleteWatcher("incoming#1")), "okay");
    EXPECT_EQ(outcome(m_service.getWatcher("incoming#1", read)), "not found");
}

TEST_F(PresenceServices, KeepTheWatchersOfAPresentity)
{
    m_service.addWatcher(kDialog);
    EXPECT_EQ(outcome(m_service.getWatcherState("presence#bob", "incoming#1")), "not found");
    EXPECT_EQ(outcome(m_service.addWatcherState(watcher(6, 60, 1, ""))), "okay");
    EXPECT_EQ(outcome(m_service.getWatcherState("presence#bob", "incoming#1")), "okay");
    EXPECT_EQ(outcome(m_service.updateWatcherState("presence#bob", "incoming#1", 8)), "okay");
    EXPECT_EQ(outcome(m_service.updateWatcherExpiry("presence#bob", "incoming#1", 1800000000)), "okay");
    EXPECT_EQ(outcome(m_service.updateWatcherDocVersion("presence#bob", "incoming#1", 17)), "okay");
    EXPECT_EQ(all<WatchersRecord>([&](auto& list) { return m_service.getWatcherState("presence#bob", list); }),
              "okay\n" + show(watcher(8, 1800000000, 17, "<sip:alice@192.0.2.7>")));

    PresenceRecord watched = kDialog;
    watched.SetWatcherIdentity("sip:alice@oryx.example");
    watched.SetExpiryTime(1800000000);
    watched.SetDocType(4);
    EXPECT_EQ(all<PresenceRecord>([&](auto& list) { return m_service.getIncomingMatchingSubscriptions(list); }),
              "okay\n" + show(watched));
    EXPECT_EQ(outcome(m_service.deleteWatcherState("presence#bob", "incoming#1")), "okay");
    EXPECT_EQ(rows("SELECT * FROM event_watchers"), "");
}

TEST_F(PresenceServices, KeepSources)
{
    EXPECT_EQ(outcome(m_service.addSourceOpaque(
                  {"presence#bob", "source#1", "<sip:bob@h>", 60, "presence", "sip:bob@oryx.example"})),
              "okay");
    EXPECT_EQ(outcome(m_service.updateSourceExpiry("presence#bob", "source#1", 1800000000)), "okay");
    EXPECT_EQ(all<SourcesRecord>([&](auto& list) { return m_service.getSourceOpaque("presence#bob", list); }),
              "okay\n" + show(SourcesRecord("presence#bob", "source#1", "<sip:bob@h>", 1800000000, "presence",
                                            "sip:bob@oryx.example")));
    EXPECT_EQ(all<SourcesRecord>([&](auto& list) { return m_service.getAllEventSources("presence", list); }),
              "okay\n" + show(SourcesRecord("presence#bob", "source#1", "<sip:bob@h>", 1800000000, "presence")));
    EXPECT_EQ(outcome(m_service.deleteSourceOpaque("presence#bob", "source#1")), "okay");
    EXPECT_EQ(rows("SELECT * FROM event_sources"), "");
}

TEST_F(PresenceServices, KeepWatcherInformationSubscriptions)
{
    const auto winfo = [&] {
        return all<WatcherInfoRecord>([&](auto& list) { return m_service.getWinfoForPresentity("winfo#bob", list); });
    };
    EXPECT_EQ(winfo(), "not found\n");
    EXPECT_EQ(outcome(m_service.addWinfoForPresentity({"winfo#bob", "incoming#5", "pres", 3, 60})), "okay");
    const WatcherInfoRecord refreshed("winfo#bob", "incoming#5", "sip", 4, 1800000000);
    EXPECT_EQ(outcome(m_service.updateWinfoForPresentity(refreshed)), "okay");
    EXPECT_EQ(winfo(), "okay\n" + show(refreshed));
    EXPECT_EQ(outcome(m_service.deleteWinfoForPresentity("incoming#5")), "okay");
    EXPECT_EQ(winfo(), "not found\n");
}

TEST_F(PresenceServices, ReadTheAccessControlListWithItsFallBacks)
{
    const auto rules = [&] {
        return all<AccessControlEntry>(
            [&](auto& list) { return m_service.getAccessControlList("bob", "oryx.example", "presence", list); });
    };
    EXPECT_EQ(rules(), "not found\n");
    sql("INSERT INTO node (node_id) VALUES ('17');"
        "INSERT INTO access_control_list (object, requester, access_action, application) VALUES"
        " ('17', '*', 'block', 'presence')");
    EXPECT_EQ(rules(), "okay\nentry requester='*' action='block'\n");
    sql("INSERT INTO access_control_list (object, requester, access_action, application) VALUES"
        " ('bob', 'carol@oryx.example', 'confirm', 'presence')");
    EXPECT_EQ(rules(), "okay\nentry requester='carol@oryx.example' action='confirm'\n");
    sql("INSERT INTO access_control_list (object, requester, access_action, application) VALUES"
        " ('bob@oryx.example', 'alice@oryx.example', 'allow', 'presence')");
    EXPECT_EQ(rules(), "okay\nentry requester='alice@oryx.example' action='allow'\n");
}

TEST_F(PresenceServices, ReadListsAndWhoMaySubscribeToThem)
{
    sql("INSERT INTO buddy_list VALUES (5, 'friends');"
        "INSERT INTO buddy_list_detail VALUES ('friends', 'sip:carol@oryx.example', true),"
        " ('friends', 'sip:dave@oryx.example', false);"
        "INSERT INTO presence_list_authorization VALUES (5, 'alice', '*', 'A')");
    int id = -1;
    EXPECT_EQ(outcome(m_service.getListId("friends", &id)), "okay");
    EXPECT_EQ(id, 5);
    EXPECT_EQ(all<std::string>([&](auto& list) { return m_service.getListEntries(5, list); }),
              "okay\n'sip:carol@oryx.example'\n");
    EXPECT_EQ(outcome(m_service.isWatcherAllowedToAccessList(7, 5)), "okay");
    EXPECT_EQ(outcome(m_service.isWatcherAllowedToSubscribeToList(5, "alice", "example.com")), "okay");
    EXPECT_EQ(outcome(m_service.isWatcherAllowedToSubscribeToList(5, "bob", "example.com")), "not found");
}

TEST_F(PresenceServices, KeepTheSubscriptionsOfAList)
{
    const auto mappings = [&] {
        return all<ListSubscriptionRecord>([&](auto& list) { return m_service.getAllMappingsForList("list#5", list); });
    };
    EXPECT_EQ(outcome(m_service.createListMapping("list#5", "outgoing#1", 60)), "okay");
    EXPECT_EQ(outcome(m_service.updateStateForListMapping("list#5", "outgoing#1", "outgoing#2", 1800000000)), "okay");
    EXPECT_EQ(mappings(), "okay\nlist 'list#5' subscription='outgoing#2' expires=1800000000\n");
    EXPECT_EQ(outcome(m_service.removeListMapping("list#5", "outgoing#2")), "okay");
    EXPECT_EQ(mappings(), "not found\n");
}

TEST_F(PresenceServices, KeepTheStateOfConferenceExtensions)
{
    sql("INSERT INTO extension VALUES ('600', 'c')");
    EXPECT_EQ(outcome(m_service.addConfExtState({"600", "INVALID", 11})), "okay");
    EXPECT_EQ(outcome(m_service.addConfExtState({"700", "INVALID", 12})), "okay");
    EXPECT_EQ(outcome(m_service.addConfExtState({"701", "IN USE", 13})), "okay");
    EXPECT_EQ(outcome(m_service.setConfExtState("600", "IDLE", 14)), "okay");
    EXPECT_EQ(outcome(m_service.setConfExtState("601", "IDLE", 14)), "not found");
    std::string status;
    unsigned int since = 0;
    EXPECT_EQ(outcome(m_service.getConfExtState("600", status, since)), "okay");
    EXPECT_EQ(status + " " + std::to_string(since), "IDLE 14");
    EXPECT_EQ(all<ConfExtRecord>([&](auto& list) { return m_service.getAllConfExtRecord(list, "use|idle", true); }),
              "okay\nconference '700' 'INVALID' since 12\n");
    EXPECT_EQ(all<ConfExtRecord>([&](auto& list) { return m_service.getAllValidConfExts(list); }),
              "okay\nconference '600' 'IDLE' since 14\n");
    EXPECT_EQ(all<ConfExtRecord>([&](auto& list) { return m_service.getAllObsoleteConfExtNotInUse(list); }),
              "okay\nconference '700' 'INVALID' since 0\n");
    EXPECT_EQ(outcome(m_service.deleteAllObsoleteConfExtNotInUse()), "okay");
    EXPECT_EQ(outcome(m_service.deleteAllObsoleteConfExtNotInUse()), "not found");
    EXPECT_EQ(outcome(m_service.deleteConfExtState("701")), "okay");
    EXPECT_EQ(rows("SELECT * FROM conf_state"), "600|IDLE|14\n");
}

TEST_F(PresenceServices, ReserveEachIdleConferenceExtensionOnce)
{
    m_service.addConfExtState({"600", "IDLE", 11});
    std::string extension;
    EXPECT_EQ(outcome(m_service.reserveRandomlyIdleConfExtAsInUse(extension)), "okay");
    EXPECT_EQ(extension, "600");
    EXPECT_EQ(rows("SELECT extension, conf_status FROM conf_state"), "600|IN USE\n");
    EXPECT_EQ(outcome(m_service.reserveRandomlyIdleConfExtAsInUse(extension)), "not found");
    EXPECT_EQ(extension, "");
}

TEST_F(PresenceServices, FindCallManagers)
{
    sql("INSERT INTO acp VALUES ('manager1', 'tls', '192.0.2.1', ''), ('manager2', 'tcp', '192.0.2.2:5080', '5070')");
    const std::string first = "call manager 'manager1' type='tls' address='192.0.2.1' port='5061'\n";
    const std::string second = "call manager 'manager2' type='tcp' address='192.0.2.2' port='5080'\n";
    std::vector<CMRecord> records(1);
    records[0].SetHandle("MANAGER2");
    EXPECT_EQ(outcome(m_service.getCMforBulkSub(records, false)), "okay");
    EXPECT_EQ(show(records), "");
    EXPECT_EQ(outcome(m_service.getCMforBulkSub(records, false)), "okay");
    EXPECT_EQ(show(records), first + second);
    records.resize(1);
    records[0] = CMRecord();
    records[0].SetHandle("MANAGER2");
    EXPECT_EQ(outcome(m_service.getCMforBulkSub(records, true)), "okay");
    EXPECT_EQ(show(records), second);
}

TEST_F(PresenceServices, HearOfAChangeOnAServiceOfItsOwnAndReadItOnAnother)
{
    TraceLog trace;
    TableChanges changes([](bool /*changed*/, const std::string& /*table*/) { return false; });
    PresenceService waitingService;
    connect(waitingService);
    const std::string listener = backend();
    auto ended =
        std::async(std::launch::async, [&] { return outcome(waitingService.waitForNotify(TableChanges::record)); });
    std::string seen;
    while (seen.find("--- SUCCESS ---: LISTEN on sip_event_aggregator") == std::string::npos) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        seen += trace.take();
    }

    const auto updates = [&](const std::string& since) {
        return all<DatabaseUpdate>([&](auto& list) { return m_service.getUpdatedPrimaryKeys("acp", since, list); });
    };
    EXPECT_EQ(updates(""), "not found\n");
    sql("INSERT INTO acp VALUES ('manager1', 'tls', '192.0.2.1', '')");
    EXPECT_EQ(changes.awaitChanges(1), "true 'acp'\n");
    const std::string stamp = m_session.value("SELECT evt_timestamp FROM event_notify WHERE table_name = 'acp'");
    EXPECT_EQ(updates("0"), "okay\n" + show(DatabaseUpdate("acp", 0, "manager1", "", stamp)));
    EXPECT_EQ(updates(stamp), "not found\n");
    terminate(listener); // which wakes the wait at once
    EXPECT_EQ(ended.get(), "okay");
}

TEST_F(PresenceServices, ReadAddressesOfRecordAndSubscribers)
{
    provisionAlice();
    sql("INSERT INTO public_address (public_address_id, handle, sip_domain, csid, scope, admin_domain, primary_handle)"
        " VALUES (43, 'al', 'oryx.example', 12, 'local', 'admin.example', true)");
    const std::string alice = "address 42 'alice'@'oryx.example' csid=12 scope='public' admin=''\n";
    const std::string al = "address 43 'al'@'oryx.example' csid=12 scope='local' admin=''\n";
    std::vector<PublicAddressRecord> aliases;
    EXPECT_EQ(outcome(m_service.getAliases("alice", "oryx.example", aliases)), "okay");
    EXPECT_EQ(show(aliases), alice + al);
    bool shared = false;
    EXPECT_EQ(outcome(m_service.areAliases("alice", "oryx.example", "al", "oryx.example", shared)), "okay");
    EXPECT_TRUE(shared);
    EXPECT_EQ(outcome(m_service.areAliases("alice", "oryx.example", "bob", "oryx.example", shared)), "not found");
    EXPECT_FALSE(shared);
    EXPECT_EQ(all<PublicAddressRecord>([&](auto& list) { return m_service.getAllPublicAddresses(list, true); }),
              "okay\naddress 43 'al'@'oryx.example' csid=12 scope='local' admin='admin.example'\n");
    SubscriberRecord subscriber;
    EXPECT_EQ(outcome(m_service.lookupSubscriber("al", "oryx.example", subscriber)), "okay");
    EXPECT_EQ(show(subscriber),
              "subscriber 7 user='alice' type='home' auth='digest' password='wonderland' oid=3 active='t'\n");
}

TEST_F(PresenceServices, FindTheKeysOfAnAddressOfRecordInWhateverCaseItIsWritten)
{
    provisionAlice();
    int key = 0;
    int csid = 0;
    EXPECT_EQ(outcome(m_service.getPublicAddressKey("ALiCE", "Oryx.EXAMPLE", key, csid)), "okay");
    EXPECT_EQ(key, 42);
    EXPECT_EQ(csid, 12);
    EXPECT_EQ(outcome(m_service.getPublicAddressKey("bob", "oryx.example", key, csid)), "not found");
    EXPECT_EQ(key, -1);
    EXPECT_EQ(csid, 12);
}

TEST_F(PresenceServices, FindContactSetsAndAddressKeysAndGiveMinusOneForUnknownOnes)
{
    provisionAlice();
    sql(kInsertContact);
    sql("INSERT INTO extension VALUES ('100', 'u', '42'), ('101', 'u', 'abc')");
    int key = 0;
    EXPECT_EQ(outcome(m_service.getCsid(42, key)), "okay");
    EXPECT_EQ(key, 12);
    EXPECT_EQ(outcome(m_service.getCsid(43, key)), "not found");
    EXPECT_EQ(key, -1);
    EXPECT_EQ(outcome(m_service.getCsidFromContactId(101, key)), "okay");
    EXPECT_EQ(key, 12);
    EXPECT_EQ(outcome(m_service.getCsidFromContactId(102, key)), "not found");
    EXPECT_EQ(key, -1);
    EXPECT_EQ(outcome(m_service.getPaidFromExtension("100", key)), "okay");
    EXPECT_EQ(key, 42);
    EXPECT_EQ(outcome(m_service.getPaidFromExtension("101", key)), "not found");
    EXPECT_EQ(key, -1);
}

TEST_F(PresenceServices, ReadContactsAndFlushExpiredOnes)
{
    provisionAlice();
    sql(kInsertContact);
    const auto contacts = [&] {
        return found([&](auto& ordering, auto& replaceUri, auto& list) {
            return m_service.lookupContacts(12, ordering, replaceUri, list);
        });
    };
    const auto flushed = [&] {
        return all<ExtendedContactRecord>([&](auto& list) { return m_service.flushExpiredContacts(list); });
    };
    EXPECT_EQ(contacts(), "okay sequential replacing\n" + storedContact("sip:$user@gw.$host"));
    EXPECT_EQ(
        flushed(),
        "okay\nof 'alice'@'oryx.example' sid=42 oid=0 contact -1 '' csid=-1 q='' expires=1000000000 permanent='f' "
        "capabilities='' header='<sip:alice@192.0.2.7>' call='call' cseq=17 type='' path=''\n");
    EXPECT_EQ(flushed(), "not found\n");
    EXPECT_EQ(contacts(), "okay - replacing\n");
}

TEST_F(PresenceServices, ReadTheProxysParametersAndTheDomain)
{
    std::string domain = "before";
    EXPECT_EQ(m_service.getDomainName(domain), "");
    sql("DELETE FROM system_parameters; INSERT INTO system_parameters (application, scope, name, value) VALUES"
        " ('oryxproxy', 'ServerInfo', 'ServerNames', 'oryx.example, example.com')");
    EXPECT_EQ(m_service.getDomainName(domain), "oryx.example");
    EXPECT_EQ(all<ProxyConfig>([&](auto& list) { return m_service.getProxyConfig(list); }),
              "okay\nitem scope='ServerInfo' name='ServerNames' value='oryx.example, example.com'\n");
}

TEST_F(PresenceServices, ServeAUriThroughAnAddressMapWithContactsFilledFromItsParts)
{
    provisionAlice();
    sql(kInsertContact);
    sql("INSERT INTO address_map (handle, csid, pattern, priority) VALUES ('sales', 12, '^sip:1', 1)");
    EXPECT_EQ(routed("sip:200@oryx.example"), "not found - replacing\n");
    EXPECT_EQ(routed("sip:100@oryx.example"), "okay sequential replacing\n" + storedContact("sip:100@gw.oryx.example"));
    EXPECT_EQ(mapKeys(), "'sales-12'\n");
    std::string key = "sales-12";
    ASSERT_NE(m_service.lookupMapEntry(key), nullptr);
    EXPECT_STREQ(m_service.lookupMapEntry(key)->pattern(), "^sip:1");
    m_service.removeMapEntry(key);
    EXPECT_EQ(mapKeys(), "");
    EXPECT_EQ(routed("sip:200@oryx.example"), "not found - replacing\n");
    EXPECT_EQ(mapKeys(), "'sales-12'\n");
    m_service.clearMapEntries();
    EXPECT_EQ(mapKeys(), "");
}

TEST_F(PresenceServices, AnswerOverANewConnectionWhenTheirsWasTerminated)
{
    terminate(backend());
    EXPECT_EQ(outcome(m_service.createListMapping("list#5", "outgoing#1", 60)), "okay");
    EXPECT_EQ(rows("SELECT * FROM listsubscriptions"), "list#5|outgoing#1|60\n");
}

TEST_F(PresenceServices, StartAfreshWhenTheyConnectAgain)
{
    const std::string former = backend();
    connect(m_service);
    EXPECT_EQ(remaining(former), "");
    DatabaseResult result;
    m_service.checkConnect(result);
    EXPECT_EQ(outcome(result), "okay");
    EXPECT_EQ(outcome(m_service.createListMapping("list#5", "outgoing#1", 60)), "okay");
}

TEST_F(PresenceServices, AnswerForTheirServersRefusalOfAConnection)
{
    EXPECT_EQ(
        m_service.connect("postgresql://127.0.0.1/no_such_database", server::kUser, server::kPassword).getStatus(),
        DatabaseResult::CONNECTION_ERROR);
    EXPECT_EQ(m_service.deleteWatcher("incoming#1").getStatus(), DatabaseResult::CONNECTION_ERROR);
}

TEST_F(PresenceServices, GiveTheirExecutorForWhatTheyDoNotOffer)
{
    m_service.createListMapping("list#5", "outgoing#1", 60);
    EXPECT_EQ(outcome(m_service.getPresenceDatabaseCommandExecutor()->removeEventServerState()), "okay");
    EXPECT_EQ(rows("SELECT * FROM listsubscriptions"), "");
}

} // namespace

} // namespace presenceServiceTest
