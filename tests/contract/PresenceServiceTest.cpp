#include "contract/ServiceFixture.h"
#include "support/TableChanges.h"

#include <dal/PresenceDatabaseCommandExecutor.h>
#include <dal/PresenceService.h>
#include <dal/UtilityConvert.h>

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace presenceServiceTest {

namespace {

using fake::Cell;
using fake::command;
using fake::noRows;
using fake::refused;
using fake::Reply;
using fake::rows;
using oryx::AccessControlEntry;
using oryx::CMRecord;
using oryx::ConfExtRecord;
using oryx::ContactRecord;
using oryx::DatabaseResult;
using oryx::DatabaseUpdate;
using oryx::ExtendedContactRecord;
using oryx::ListSubscriptionRecord;
using oryx::PresenceDatabaseCommandExecutor;
using oryx::PresenceRecord;
using oryx::PresenceService;
using oryx::ProxyConfig;
using oryx::PublicAddressRecord;
using oryx::show;
using oryx::SourcesRecord;
using oryx::SubscriberRecord;
using oryx::WatcherInfoRecord;
using oryx::WatchersRecord;

/// The time of a sweep stands behind this, that of an address-map lookup behind the other.
const std::string kSweepTime = "expires < ";
const std::string kLookupTime = "tnow is ";

std::string facadeTrace(const std::vector<std::string>& texts)
{
    return traceLines("PresenceService", texts);
}

std::string presenceTrace(const std::vector<std::string>& texts)
{
    return traceLines("PresenceDatabaseCommandExecutor", texts);
}

// The operations that are handed to the executor

/// One answer of the server: what is asked of libpq then, and what travels back through the service.
struct Way {
    std::string name;
    std::vector<Reply> replies;
    std::string calls;
    std::string answer;
};

struct Forwarded {
    std::string name;
    /// What the operation answers and what its out arguments hold then, as text.
    std::function<std::string(PresenceService&)> call;
    std::string untouched = {}; // the out arguments, as they were
    std::vector<Way> ways = {};
    std::string lost = {}; // the answer over a connection lost for good
    std::string traced = {};
    std::string refusal = {}; // traced too on a service that was never connected
};

void PrintTo(const Forwarded& operation, std::ostream* out)
{
    *out << operation.name;
}

/// The ways of one statement: with rows, or a row touched; without; and refused.
std::vector<Way> ways(const std::string& statement, const Reply& reply, const std::string& done,
                      const std::string& none, const std::string& refusedAnswer)
{
    const std::string once = sent({statement});
    const bool isQuery = !reply.rows.empty();
    return {{"Done", {reply}, once, done},
            {"NoRow", {isQuery ? noRows(static_cast<int>(reply.rows[0].size())) : command("0")}, once, none},
            {"Refused",
             {refused("42601"), refused("42601")},
             once + "reset\n" + once,
             spliced(refusedAnswer, spliced(kRefused, statement))}};
}

using Call = std::function<std::string(PresenceService&)>;

/// A query that answers `none` with its out arguments `untouched` where there is no row.
Forwarded query(const std::string& name, const Call& call, const std::string& untouched, const std::string& statement,
                const std::vector<Cell>& row, const std::string& done, const std::string& none)
{
    return {.name = name,
            .call = call,
            .untouched = untouched,
            .ways =
                ways(statement, rows({row}), "okay\n" + done, none + "\n" + untouched, "query error: {}\n" + untouched),
            .lost = "connection error: " + kServerGone + "\n" + untouched};
}

/// A change; a failed update has no words of the server's.
Forwarded change(const std::string& name, const std::function<DatabaseResult(PresenceService&)>& call,
                 const std::string& statement, const std::string& none, const std::string& refusedAnswer)
{
    return {.name = name,
            .call = [call](auto& service) { return show(call(service)) + "\n"; },
            .ways = ways(statement, command("1"), "okay\n", none + "\n", refusedAnswer + "\n"),
            .lost = "connection error: " + kServerGone + "\n"};
}

const std::string kUpdateRefused = "connection error";
const std::string kChangeRefused = "connection error: {}";

/// What a listing answers, and its vector behind it, which held one record before.
template <typename Record, typename List>
std::string behind(const Record& before, const List& list)
{
    std::vector<Record> records{before};
    const std::string answer = show(list(records));
    return answer + "\n" + show(records);
}

// Dialogs and watchers

const PresenceRecord kDialogBefore("before", nullptr, "before", "before", "before", 1, "before", "before", "before", 2,
                                   "before", "before");
const PresenceRecord kDialog("incoming#1", nullptr, "<sip:alice@oryx.example>;tag=1", "<sip:bob@oryx.example>;tag=2",
                             "a84b4c76e66710@192.0.2.7", 7, "presence", "<sip:alice@192.0.2.7>",
                             "<sip:edge.oryx.example;lr>", 3, "sip:bob@oryx.example", "presence#1");
const std::vector<Cell> kDialogRow = {"incoming#1",
                                      "<sip:alice@oryx.example>;tag=1",
                                      "<sip:bob@oryx.example>;tag=2",
                                      "a84b4c76e66710@192.0.2.7",
                                      "7",
                                      "presence",
                                      "<sip:alice@192.0.2.7>",
                                      "<sip:edge.oryx.example;lr>",
                                      "3",
                                      "sip:bob@oryx.example",
                                      "presence#1"};

std::vector<Forwarded> dialogs()
{
    std::vector<Cell> matchingRow = kDialogRow;
    matchingRow.insert(matchingRow.end(), {"sip:alice@oryx.example", "1800000000", "4"});
    PresenceRecord matching = kDialog;
    matching.SetWatcherIdentity("sip:alice@oryx.example");
    matching.SetExpiryTime(1800000000);
    matching.SetDocType(4);
    const std::string before = show(kDialogBefore);
    const std::string one =
        "SELECT subscriptionid, fromhdr, tohdr, callid, subcseq, eventhdr, remotecontacthdr, routeset, notcseq, requesturi,packageid  FROM subscription_states WHERE subscriptionid = 'incoming#1';";
    const std::string allMatching =
        "SELECT subscriptionid, fromhdr, tohdr, callid, subcseq, eventhdr, remotecontacthdr, routeset, notcseq, requesturi,packageid,watcheridentity,expirytime,doctype FROM subscription_states, event_watchers where subscriptionid = watcheropaque;";
    const std::string ofPackage =
        "SELECT subscriptionid, fromhdr, tohdr, callid, subcseq, eventhdr, remotecontacthdr, routeset, notcseq, requesturi,packageid  FROM subscription_states  WHERE subscriptionid like '%%incoming#%%' AND packageid like '%%presence%%';";
    const std::string added =
        "INSERT INTO subscription_states (subscriptionid,fromhdr,tohdr,callid,subcseq,eventhdr,remotecontacthdr,routeset,notcseq,requesturi,packageid) VALUES('incoming#1','<sip:alice@oryx.example>;tag=1','<sip:bob@oryx.example>;tag=2','a84b4c76e66710@192.0.2.7',7,'presence','<sip:alice@192.0.2.7>','<sip:edge.oryx.example;lr>',3,'sip:bob@oryx.example','presence#1');";
    return {
        query(
            "getWatcher",
            [](auto& service) {
                PresenceRecord out = kDialogBefore;
                const std::string answer = show(service.getWatcher("incoming#1", out));
                return answer + "\n" + show(out);
            },
            before, one, kDialogRow, show(kDialog), "not found"),
        change(
            "updateWatcherContact",
            [](auto& service) { return service.updateWatcherContact("incoming#1", "<sip:alice@h>", 8); },
            "UPDATE subscription_states SET subcseq=8,remotecontacthdr = '<sip:alice@h>' WHERE subscriptionid='incoming#1';",
            "okay", kUpdateRefused),
        change(
            "updatePresentityContact",
            [](auto& service) { return service.updatePresentityContact("incoming#1", "<sip:bob@h>", 9); },
            "UPDATE subscription_states SET notcseq=9 , remotecontacthdr = '<sip:bob@h>'  WHERE subscriptionid='incoming#1';",
            "okay", kUpdateRefused),
        change(
            "addWatcher", [](auto& service) { return service.addWatcher(kDialog); }, added, "okay", kChangeRefused),
        change(
            "deleteWatcher", [](auto& service) { return service.deleteWatcher("incoming#1"); },
            "DELETE FROM subscription_states WHERE subscriptionid = 'incoming#1';", "okay", kChangeRefused),
        query(
            "getIncomingMatchingSubscriptions",
            [](auto& service) {
                return behind(kDialogBefore,
                              [&](auto& records) { return service.getIncomingMatchingSubscriptions(records); });
            },
            before, allMatching, matchingRow, before + show(matching), "not found"),
        query(
            "getIncomingSubscriptions",
            [](auto& service) {
                return behind(kDialogBefore,
                              [&](auto& records) { return service.getIncomingSubscriptions(records, "presence"); });
            },
            before, ofPackage, kDialogRow, before + show(kDialog), "not found"),
    };
}

const WatchersRecord kWatcherBefore("before", "before", 1, 2, 3, 4, "before", "before", 5, "before", "before");

std::vector<Forwarded> watchers()
{
    const std::string before = show(kWatcherBefore);
    const WatchersRecord listed("presence#bob", "incoming#1", 4, 5, 6, 1800000000, "sip:alice@oryx.example",
                                "sip:bob@oryx.example", 17, "", "<sip:alice@192.0.2.7>");
    return {
        query(
            "getWatcherState",
            [](auto& service) {
                return behind(kWatcherBefore,
                              [&](auto& records) { return service.getWatcherState("presence#bob", records); });
            },
            before,
            "SELECT watcheropaque,doctype,watchertype,watcherstate,expirytime,watcheridentity,presentity,docversion,remotecontacthdr FROM event_watchers,subscription_states WHERE presentitykey ='presence#bob' and watcheropaque=subscriptionid;",
            {"incoming#1", "4", "5", "6", "1800000000", "sip:alice@oryx.example", "sip:bob@oryx.example", "17",
             "<sip:alice@192.0.2.7>"},
            before + show(listed), "okay"),
        query(
            "getWatcherStateOfOne",
            [](auto& service) { return show(service.getWatcherState("presence#bob", "incoming#1")) + "\n"; }, "",
            "SELECT watcheropaque,doctype,watchertype,watcherstate,expirytime,watcheridentity,presentity,docversion FROM event_watchers WHERE presentitykey ='presence#bob' and watcheropaque='incoming#1';",
            {"incoming#1", "4", "5", "6", "1800000000", "", "", "17"}, "", "not found"),
        change(
            "addWatcherState",
            [](auto& service) {
                return service.addWatcherState({"presence#bob", "incoming#1", 4, 5, 6, 1800000000,
                                                "sip:alice@oryx.example", "sip:bob@oryx.example", 17, "presence",
                                                "not stored"});
            },
            "INSERT INTO event_watchers (presentitykey,watcheropaque,doctype,docversion,watchertype,watcherstate,expirytime,watcheridentity,event,presentity) VALUES('presence#bob','incoming#1',4,17,5,6,1800000000,'sip:alice@oryx.example','presence','sip:bob@oryx.example');",
            "okay", kChangeRefused),
        change(
            "updateWatcherState",
            [](auto& service) { return service.updateWatcherState("presence#bob", "incoming#1", 7); },
            "UPDATE event_watchers SET watcherstate=7 WHERE watcheropaque = 'incoming#1' AND presentitykey='presence#bob';",
            "okay", kUpdateRefused),
        change(
            "updateWatcherExpiry",
            [](auto& service) { return service.updateWatcherExpiry("presence#bob", "incoming#1", 1900000000); },
            "UPDATE event_watchers SET expirytime=1900000000 WHERE watcheropaque='incoming#1' AND presentitykey='presence#bob';",
            "okay", kUpdateRefused),
        change(
            "updateWatcherDocVersion",
            [](auto& service) { return service.updateWatcherDocVersion("presence#bob", "incoming#1", 4294967295UL); },
            "UPDATE event_watchers SET docversion=4294967295 WHERE watcheropaque = 'incoming#1' AND presentitykey='presence#bob';",
            "okay", kUpdateRefused),
        change(
            "deleteWatcherState",
            [](auto& service) { return service.deleteWatcherState("presence#bob", "incoming#1"); },
            "DELETE FROM event_watchers WHERE watcheropaque = 'incoming#1' AND presentitykey='presence#bob';", "okay",
            kChangeRefused),
    };
}

// Sources and watcher information

const SourcesRecord kSourceBefore("before", "before", "before", 1, "before", "before");
const SourcesRecord kSource("presence#bob", "source#1", "<sip:bob@192.0.2.8>", 1800000000, "presence",
                            "sip:bob@oryx.example");
const WatcherInfoRecord kWinfoBefore("before", "before", "before", 1, 2);
const WatcherInfoRecord kWinfo("winfo#bob", "incoming#5", "pres", 3, 1800000000);

std::vector<Forwarded> sources()
{
    const std::string before = show(kSourceBefore);
    return {
        query(
            "getAllEventSources",
            [](auto& service) {
                return behind(kSourceBefore,
                              [&](auto& records) { return service.getAllEventSources("presence", records); });
            },
            before,
            "SELECT sourceopaque, contact, expirytime, presentitykey, event FROM event_sources WHERE event='presence';",
            {"source#1", "<sip:bob@192.0.2.8>", "1800000000", "presence#bob", "presence"},
            before + show(SourcesRecord("presence#bob", "source#1", "<sip:bob@192.0.2.8>", 1800000000, "presence")),
            "okay"),
        query(
            "getSourceOpaque",
            [](auto& service) {
                return behind(kSourceBefore,
                              [&](auto& records) { return service.getSourceOpaque("presence#bob", records); });
            },
            before,
            "SELECT sourceopaque, contact, expirytime, event, presentity  FROM event_sources WHERE presentitykey ='presence#bob';",
            {"source#1", "<sip:bob@192.0.2.8>", "1800000000", "presence", "sip:bob@oryx.example"},
            before + show(kSource), "okay"),
        change(
            "addSourceOpaque", [](auto& service) { return service.addSourceOpaque(kSource); },
            "INSERT INTO event_sources (presentitykey,sourceopaque,contact,expirytime,event,presentity) VALUES('presence#bob','source#1','<sip:bob@192.0.2.8>',1800000000,'presence','sip:bob@oryx.example');",
            "okay", kChangeRefused),
        change(
            "updateSourceExpiry",
            [](auto& service) { return service.updateSourceExpiry("presence#bob", "source#1", 60); },
            "UPDATE event_sources SET expirytime=60 WHERE sourceopaque='source#1';", "okay", kUpdateRefused),
        change(
            "deleteSourceOpaque", [](auto& service) { return service.deleteSourceOpaque("presence#bob", "source#1"); },
            "DELETE FROM event_sources WHERE sourceopaque = 'source#1';", "okay", kChangeRefused),
        query(
            "getWinfoForPresentity",
            [](auto& service) {
                return behind(kWinfoBefore,
                              [&](auto& records) { return service.getWinfoForPresentity("winfo#bob", records); });
            },
            show(kWinfoBefore),
            "SELECT subscriberkey, startingdocversion,expirytime,presurlscheme  FROM watcherinfo WHERE winfokey='winfo#bob';",
            {"incoming#5", "3", "1800000000", "pres"}, show(kWinfoBefore) + show(kWinfo), "not found"),
        change(
            "addWinfoForPresentity", [](auto& service) { return service.addWinfoForPresentity(kWinfo); },
            "INSERT INTO watcherinfo (winfokey,presurlscheme,subscriberkey,startingdocversion,expirytime) VALUES('winfo#bob','pres','incoming#5',3,1800000000);",
            "okay", kChangeRefused),
        change(
            "updateWinfoForPresentity", [](auto& service) { return service.updateWinfoForPresentity(kWinfo); },
            "UPDATE watcherinfo SET presurlscheme='pres', startingdocversion = 3,expirytime = 1800000000 WHERE subscriberkey='incoming#5';",
            "okay", kUpdateRefused),
        change(
            "deleteWinfoForPresentity", [](auto& service) { return service.deleteWinfoForPresentity("incoming#5"); },
            "DELETE FROM watcherinfo WHERE subscriberkey = 'incoming#5';", "okay", kChangeRefused),
    };
}

// Access control and presence lists

Forwarded accessControlList()
{
    const std::string ofAddress =
        "SELECT requester,access_action FROM access_control_list WHERE object='bob@oryx.example' and state ='ACTIVE' and application='presence';";
    const std::string ofHandle =
        "SELECT requester,access_action FROM access_control_list WHERE object='bob' and state='ACTIVE' and application='presence';";
    const std::string ofNodes =
        "SELECT requester, access_action FROM access_control_list,node WHERE object = node_id and state='ACTIVE' and application='presence';";
    const AccessControlEntry before("before", "before");
    Forwarded operation = query(
        "getAccessControlList",
        [before](auto& service) {
            return behind(before, [&](auto& entries) {
                return service.getAccessControlList("bob", "oryx.example", "presence", entries);
            });
        },
        show(before), ofAddress, {"alice@oryx.example", "allow"},
        show(before) + show(AccessControlEntry("alice@oryx.example", "allow")), "");
    operation.ways[1] = {"NoRule",
                         {noRows(2), noRows(2), noRows(2)},
                         sent({ofAddress, ofHandle, ofNodes}),
                         "not found\n" + show(before)};
    return operation;
}

std::vector<Forwarded> lists()
{
    const ListSubscriptionRecord before("before", "before", 1);
    Forwarded access{
        .name = "isWatcherAllowedToAccessList",
        .call = [](auto& service) { return show(service.isWatcherAllowedToAccessList(7, 5)) + "\n"; },
        .ways = {{"Done", {}, "", "okay\n"}},
        .lost = "connection error: " + kServerGone + "\n",
    };
    return {
        accessControlList(),
        query(
            "getListId",
            [](auto& service) {
                int id = 99;
                const std::string answer = show(service.getListId("friends", &id));
                return answer + "\nid=" + std::to_string(id) + "\n";
            },
            "id=99\n", "SELECT buddy_list_id FROM buddy_list WHERE buddy_list_name ='friends';", {"5"}, "id=5\n",
            "not found"),
        query(
            "getListEntries",
            [](auto& service) {
                return behind(std::string("before"), [&](auto& uris) { return service.getListEntries(5, uris); });
            },
            "'before'\n",
            "SELECT buddy_uri FROM buddy_list_detail,buddy_list WHERE buddy_list_id =5 and buddy_list.buddy_list_name=buddy_list_detail.buddy_list_name and isbuddy='t';",
            {"sip:carol@oryx.example"}, "'before'\n'sip:carol@oryx.example'\n", "okay"),
        access,
        query(
            "isWatcherAllowedToSubscribeToList",
            [](auto& service) {
                return show(service.isWatcherAllowedToSubscribeToList(5, "alice", "oryx.example")) + "\n";
            },
            "",
            "SELECT listid FROM presence_list_authorization  WHERE listid=5 AND access_action='A' AND ( (handle ='alice' AND sip_domain = 'oryx.example') OR ( handle ='*' AND sip_domain = 'oryx.example') OR ( handle ='alice' AND sip_domain = '*') OR (handle = '*' AND sip_domain = '*'));",
            {"5"}, "", "not found"),
        change(
            "createListMapping",
            [](auto& service) { return service.createListMapping("list#5", "outgoing#1", 1800000000); },
            "INSERT INTO listsubscriptions (listfsmidentifier,subscriptionidentifier,expirytime) VALUES('list#5','outgoing#1',1800000000);",
            "okay", kChangeRefused),
        change(
            "removeListMapping", [](auto& service) { return service.removeListMapping("list#5", "outgoing#1"); },
            "DELETE FROM listsubscriptions WHERE listfsmidentifier = 'list#5' AND subscriptionidentifier = 'outgoing#1';",
            "okay", kChangeRefused),
        query(
            "getAllMappingsForList",
            [before](auto& service) {
                return behind(before, [&](auto& records) { return service.getAllMappingsForList("list#5", records); });
            },
            show(before),
            "SELECT subscriptionidentifier, expirytime FROM listsubscriptions WHERE  listfsmidentifier='list#5';",
            {"outgoing#1", "1800000000"},
            show(before) + show(ListSubscriptionRecord("list#5", "outgoing#1", 1800000000)), "not found"),
        change(
            "updateStateForListMapping",
            [](auto& service) {
                return service.updateStateForListMapping("list#5", "outgoing#1", "outgoing#2", 1900000000);
            },
            "UPDATE listsubscriptions SET subscriptionidentifier='outgoing#2', expirytime = 1900000000 WHERE listfsmidentifier='list#5' AND subscriptionidentifier = 'outgoing#1';",
            "okay", kUpdateRefused),
    };
}

// Conference extensions

const ConfExtRecord kConferenceBefore("before", "before", 1);

/// A listing, which replaces the records where there are some.
template <typename List>
Forwarded conferences(const std::string& name, List list, const std::string& statement, const std::vector<Cell>& row,
                      const ConfExtRecord& done)
{
    return query(
        name,
        [list](auto& service) {
            return behind(kConferenceBefore, [&](auto& records) { return list(service, records); });
        },
        show(kConferenceBefore), statement, row, show(done), "not found");
}

Forwarded conferenceState()
{
    const std::string statement = "SELECT conf_status, start_time FROM conf_state WHERE extension = '600';";
    const std::string none = "\nstatus='' since 0\n";
    const auto call = [](auto& service) {
        std::string status = "before";
        unsigned int since = 99;
        const std::string answer = show(service.getConfExtState("600", status, since));
        return answer + "\nstatus='" + status + "' since " + std::to_string(since) + "\n";
    };
    return {.name = "getConfExtState",
            .call = call,
            .untouched = "status='before' since 99\n",
            .ways = ways(statement, rows({{"IN USE", "1700000000"}}), "okay\nstatus='IN USE' since 1700000000\n",
                         "not found" + none, "not found: {}" + none),
            .lost = "not found: " + kServerGone + none};
}

Forwarded reservation()
{
    const std::string statement =
        "select * FROM reserve_one_available_conf_ext_randomly() where reserve_one_available_conf_ext_randomly IS NOT NULL;";
    const auto call = [](auto& service) {
        std::string extension = "before";
        const std::string answer = show(service.reserveRandomlyIdleConfExtAsInUse(extension));
        return answer + "\n" + show(extension);
    };
    return {.name = "reserveRandomlyIdleConfExtAsInUse",
            .call = call,
            .untouched = "'before'\n",
            .ways = ways(statement, rows({{"600"}}), "okay\n'600'\n", "not found\n''\n", "query error: {}\n''\n"),
            .lost = "connection error: " + kServerGone + "\n''\n",
            .traced = facadeTrace({"PresenceService::reserveRandomlyIdleConfExtAsInUse(): "})};
}

std::vector<Forwarded> conferences()
{
    const std::string failed = "query error: {}";
    Forwarded valid = conferences(
        "getAllValidConfExts", [](auto& service, auto& records) { return service.getAllValidConfExts(records); },
        "select * from select_all_valid_conf_ext;", {"600", "IDLE", "1700000000"},
        ConfExtRecord("600", "IDLE", 1700000000));
    valid.traced = facadeTrace({"PresenceService::getAllValidConfExts(): "});
    Forwarded obsolete = conferences(
        "getAllObsoleteConfExtNotInUse",
        [](auto& service, auto& records) { return service.getAllObsoleteConfExtNotInUse(records); },
        "select extension, conf_status from select_all_obsolete_conf_ext_not_in_use;", {"700", "INVALID"},
        ConfExtRecord("700", "INVALID", 0));
    obsolete.traced = facadeTrace({"PresenceService::getAllObsoleteConfExtNotInUse(): "});
    Forwarded purge = change(
        "deleteAllObsoleteConfExtNotInUse", [](auto& service) { return service.deleteAllObsoleteConfExtNotInUse(); },
        "delete from conf_state where conf_status != 'IN USE' and extension not in (select extension from extension where ext_type='c');",
        "not found", failed);
    purge.traced = facadeTrace({"PresenceService::deleteAllObsoleteConfExtNotInUse(): "});
    return {
        conferenceState(),
        change(
            "setConfExtState", [](auto& service) { return service.setConfExtState("600", "IDLE", 1700000000); },
            "UPDATE conf_state SET conf_status ='IDLE', start_time ='1700000000' WHERE extension = '600';", "not found",
            failed),
        change(
            "addConfExtState",
            [](auto& service) {
                return service.addConfExtState({"600", "IDLE", 1700000000});
            },
            "INSERT INTO conf_state (extension,conf_status,start_time) VALUES('600','IDLE',1700000000);", "not found",
            failed),
        change(
            "deleteConfExtState", [](auto& service) { return service.deleteConfExtState("600"); },
            "DELETE FROM conf_state WHERE extension = '600';", "not found", failed),
        conferences(
            "getAllConfExtRecord",
            [](auto& service, auto& records) { return service.getAllConfExtRecord(records, "use", true); },
            "SELECT * FROM conf_state WHERE NOT (conf_status ~* 'use');", {"600", "IDLE", "1700000000"},
            ConfExtRecord("600", "IDLE", 1700000000)),
        valid,
        obsolete,
        purge,
        reservation(),
    };
}

// Changes, and call managers

Forwarded callManagers()
{
    CMRecord sample;
    sample.SetHandle("cm");
    CMRecord found;
    found.SetHandle("cm1");
    found.SetPort("5070");
    found.SetLinkType("tls");
    found.SetIPAddress("192.0.2.9");
    const std::string statement = "SELECT handle,link_type,sip_trunk_ipaddress,sip_port FROM acp WHERE handle ~* 'cm';";
    return {.name = "getCMforBulkSub",
            .call =
                [sample](auto& service) {
                    return behind(sample, [&](auto& records) { return service.getCMforBulkSub(records, true); });
                },
            .untouched = show(sample),
            .ways = ways(statement, rows({{"cm1", "tls", "192.0.2.9", "5070"}}), "okay\n" + show(found), "okay\n",
                         "okay\n"),
            .lost = "connection error: " + kServerGone + "\n" + show(sample),
            .refusal = facadeTrace({"PresenceService:getCMforBulkSub(): PresenceService:result not okay"})};
}

Forwarded changeWait()
{
    const std::string subscriptions =
        sent({"LISTEN acp", "LISTEN extension", "LISTEN conf_state", "LISTEN conf_state_reset", "LISTEN public_address",
              "LISTEN subscriber", "LISTEN contact_set", "LISTEN sip_event_aggregator"});
    return {
        .name = "waitForNotify",
        .call =
            [](auto& service) {
                TableChanges changes([](bool /*changed*/, const std::string& /*table*/) { return true; });
                const std::string answer = show(service.waitForNotify(TableChanges::record));
                return answer + "\n" + changes.calls();
            },
        .ways = {{"Idle", std::vector<Reply>(8, command()), subscriptions + "consume\nnotifies\n", "okay\nfalse ''\n"},
                 {"Refused", {refused("42601")}, sent({"LISTEN acp"}), "connection error\n"}},
        .lost = "connection error: " + kServerGone + "\n",
        .refusal = facadeTrace({"PresenceService::waitForNotify(): PresenceService:result not okay"})};
}

std::vector<Forwarded> changes()
{
    const DatabaseUpdate before("before", 1, "before", "before", "before");
    Forwarded updates = query(
        "getUpdatedPrimaryKeys",
        [before](auto& service) {
            return behind(before, [&](auto& found) { return service.getUpdatedPrimaryKeys("acp", "1700", found); });
        },
        show(before),
        "SELECT pk_int, pk_char, evt_timestamp FROM event_notify WHERE table_name = 'acp' AND evt_timestamp > '1700';",
        {"5", "cm1", "1701"}, show(before) + show(DatabaseUpdate("acp", 5, "cm1", "", "1701")), "not found");
    updates.refusal = facadeTrace({"PresenceService::getUpdatedPrimaryKeys(): PresenceService:result not okay"});
    return {callManagers(), changeWait(), updates};
}

// The registrar's data

const PublicAddressRecord kAddressBefore("before", "before", 1, "before");

/// The contacts of a contact set, "{}" for its key.
const std::string kContactsWithPath =
    "SELECT contact_set.ordering, contact_set.replace_uri, contact.address, contact.qvalue,  contact.expires, contact.capabilities, contact.contact_header,contact.call_id,contact.cseq,contact.c_type,contact.permanent,contact.contact_id,contact.csid,contact.path_vector  FROM contact_set, contact WHERE (contact_set.csid = '{}' AND contact.csid = contact_set.csid);";

std::vector<Cell> contactWithPath(const std::string& address)
{
    std::vector<Cell> row = contactOfSet(address);
    row.insert(row.end(), {"t", "101", "12", "<sip:edge.oryx.example;lr>"});
    return row;
}

std::string shownContactWithPath(const std::string& address)
{
    return "contact 101 '" + address +
           "' csid=12 q='0.7' expires=1800000000 permanent='t' capabilities='caps' header='header' call='call' cseq=17 type='mobile' path='<sip:edge.oryx.example;lr>'\n";
}

Forwarded contacts()
{
    const std::string failed = "\nordering='before' replace=true\n";
    const auto call = [](auto& service) {
        Found found;
        return found.after(service.lookupContacts(12, found.ordering, found.replaceUri, found.contacts));
    };
    return {.name = "lookupContacts",
            .call = call,
            .untouched = "ordering='before' replace=false\n",
            .ways = ways(spliced(kContactsWithPath, "12"), rows({contactWithPath("sip:alice@192.0.2.7")}),
                         "okay\nordering='parallel' replace=false\n" + shownContactWithPath("sip:alice@192.0.2.7"),
                         "okay" + failed, "query error: {}" + failed),
            .lost = "connection error: " + kServerGone + failed};
}

Forwarded flush()
{
    const std::string select =
        "SELECT public_address_id,contact_header,expires,call_id,cseq,handle,sip_domain FROM contact, contact_set, public_address  WHERE expires < NOW AND contact_set.csid = contact.csid  AND public_address.csid = contact.csid FOR UPDATE ";
    const std::string remove = "DELETE FROM contact WHERE expires < NOW";
    ExtendedContactRecord before;
    before.setHandle("before");
    before.setSid(1);
    before.setOid(2);
    const std::string removed =
        "of 'alice'@'oryx.example' sid=34 oid=0 contact -1 '' csid=-1 q='' expires=1600000000 permanent='f' capabilities='' header='<sip:alice@192.0.2.7>' call='call' cseq=17 type='' path=''\n";
    Forwarded operation = query(
        "flushExpiredContacts",
        [before](auto& service) {
            return timeless(behind(before, [&](auto& expired) { return service.flushExpiredContacts(expired); }),
                            kSweepTime);
        },
        show(before), select, {"34", "<sip:alice@192.0.2.7>", "1600000000", "call", "17", "alice", "oryx.example"},
        show(before) + removed, "not found");
    operation.ways[0].replies.push_back(command("1"));
    operation.ways[0].calls = sent({select, remove});
    return operation;
}

Forwarded subscriber()
{
    const std::string statement =
        "SELECT subscriber.sid, subscriber.auth_user_id, subscriber.oid, subscriber.s_type, subscriber.auth_type,  subscriber.s_password, subscriber.active  FROM public_address,contact_set,subscriber WHERE  subscriber.sid = contact_set.sid AND contact_set.csid = public_address.csid  AND public_address.handle = 'alice' AND public_address.sip_domain = 'oryx.example';";
    SubscriberRecord before;
    before.setUserId("before");
    return query(
        "lookupSubscriber",
        [before](auto& service) {
            SubscriberRecord rec = before;
            const std::string answer = show(service.lookupSubscriber("alice", "oryx.example", rec));
            return answer + "\n" + show(rec);
        },
        show(before), statement, {"7", "alice", "3", "home", "digest", "secret", "t"},
        "subscriber 7 user='alice' type='home' auth='digest' password='secret' oid=3 active='t'\n", "not found");
}

Forwarded aliasTest()
{
    const std::string statement =
        "SELECT csid FROM public_address WHERE (handle='alice' AND sip_domain='oryx.example') OR (handle='al' AND sip_domain='example.com');";
    const auto call = [](auto& service) {
        bool aliases = true;
        const std::string answer = show(service.areAliases("alice", "oryx.example", "al", "example.com", aliases));
        return answer + (aliases ? "\ntrue\n" : "\nfalse\n");
    };
    return {.name = "areAliases",
            .call = call,
            .untouched = "true\n",
            .ways = ways(statement, rows({{"12"}, {"12"}}), "okay\ntrue\n", "not found\nfalse\n",
                         "query error: {}\nfalse\n"),
            .lost = "connection error: " + kServerGone + "\nfalse\n"};
}

std::vector<Forwarded> registrarsData()
{
    const ProxyConfig item("before", "before", "before");
    const std::string before = show(kAddressBefore);
    return {
        flush(),
        query(
            "getAliases",
            [](auto& service) {
                return behind(kAddressBefore,
                              [&](auto& aliases) { return service.getAliases("alice", "oryx.example", aliases); });
            },
            before,
            "SELECT other_address.handle, other_address.sip_domain, other_address.csid, other_address.scope, other_address.public_address_id FROM public_address, contact_set, subscriber, public_address as other_address WHERE public_address.handle='alice' AND public_address.sip_domain='oryx.example' AND subscriber.active='t' AND public_address.csid = contact_set.csid AND subscriber.sid = contact_set.sid AND public_address.csid = other_address.csid;",
            {"al", "oryx.example", "12", "public", "35"},
            before + "address 35 'al'@'oryx.example' csid=12 scope='public' admin=''\n", "not found"),
        aliasTest(),
        query(
            "getProxyConfig",
            [item](auto& service) { return behind(item, [&](auto& items) { return service.getProxyConfig(items); }); },
            show(item), "SELECT scope, name, value FROM system_parameters   WHERE application = 'oryxproxy';",
            {"sip", "timer.b", "32"}, show(item) + "item scope='sip' name='timer.b' value='32'\n", "okay"),
        contacts(),
        subscriber(),
        query(
            "getAllPublicAddresses",
            [](auto& service) {
                return behind(kAddressBefore,
                              [&](auto& addresses) { return service.getAllPublicAddresses(addresses, true); });
            },
            before,
            "SELECT public_address_id,sip_domain,handle,scope,admin_domain,csid from public_address  where primary_handle='t';",
            {"34", "oryx.example", "alice", "public", "admin.example", "12"},
            before + "address 34 'alice'@'oryx.example' csid=12 scope='public' admin='admin.example'\n", "not found"),
    };
}

std::vector<Forwarded> forwarded()
{
    std::vector<Forwarded> all;
    for (const auto& group : {dialogs(), watchers(), sources(), lists(), conferences(), changes(), registrarsData()}) {
        all.insert(all.end(), group.begin(), group.end());
    }
    return all;
}

class UnconnectedPresenceService : public testing::Test, protected ConnectedServiceOf<PresenceService> {};
class PresenceServiceTest : public ConnectedServiceTestOf<PresenceService> {};

class NeverConnectedPresence : public testing::TestWithParam<Forwarded>,
                               protected ConnectedServiceOf<PresenceService> {};

TEST_P(NeverConnectedPresence, IsAConnectionErrorThatLeavesTheOutArguments)
{
    EXPECT_EQ(GetParam().call(service), kNeverConnected + GetParam().untouched);
    EXPECT_EQ(libpq.take(), "");
    EXPECT_EQ(trace.take(), GetParam().traced + GetParam().refusal);
}

INSTANTIATE_TEST_SUITE_P(Service, NeverConnectedPresence, testing::ValuesIn(forwarded()), kRowName);

class LostPresence : public testing::TestWithParam<Forwarded>, protected ConnectedServiceOf<PresenceService> {
protected:
    void SetUp() override { connect(); }
};

TEST_P(LostPresence, AnswersAsTheExecutorDoes)
{
    loseForGood();
    EXPECT_EQ(GetParam().call(service), GetParam().lost);
    EXPECT_EQ(libpq.take(), "reset\n");
    EXPECT_EQ(trace.take("PresenceService"), GetParam().traced);
}

INSTANTIATE_TEST_SUITE_P(Service, LostPresence, testing::ValuesIn(forwarded()), kRowName);

struct ForwardedOnItsWay {
    std::string name;
    Forwarded operation;
    Way way;
};

void PrintTo(const ForwardedOnItsWay& row, std::ostream* out)
{
    *out << row.name;
}

std::vector<ForwardedOnItsWay> onEveryWay()
{
    std::vector<ForwardedOnItsWay> all;
    for (const Forwarded& operation : forwarded()) {
        for (const Way& way : operation.ways) {
            all.push_back({operation.name + "_" + way.name, operation, way});
        }
    }
    return all;
}

class PresenceForwarding : public testing::TestWithParam<ForwardedOnItsWay>,
                           protected ConnectedServiceOf<PresenceService> {
protected:
    void SetUp() override { connect(); }
};

TEST_P(PresenceForwarding, SendsTheStatementAndBringsTheAnswerBack)
{
    const auto& [name, operation, way] = GetParam();
    libpq.replies(way.replies);
    EXPECT_EQ(operation.call(service), way.answer);
    EXPECT_EQ(timeless(libpq.take(), kSweepTime), way.calls);
    EXPECT_EQ(trace.take("PresenceService"), operation.traced);
}

INSTANTIATE_TEST_SUITE_P(Of, PresenceForwarding, testing::ValuesIn(onEveryWay()), kRowName);

// Its executor

TEST_F(PresenceServiceTest, ConnectingAgainStartsAFreshExecutor)
{
    service.getPresenceDatabaseCommandExecutor()->error("of the former executor");
    connect();
    EXPECT_EQ(service.getPresenceDatabaseCommandExecutor()->getErrorMessage(), "");
}

TEST_F(PresenceServiceTest, GivesTheExecutorThatItWorksWith)
{
    PresenceDatabaseCommandExecutor* const executor = service.getPresenceDatabaseCommandExecutor();
    EXPECT_EQ(service.getPresenceDatabaseCommandExecutor(), executor);
    EXPECT_EQ(trace.take(), "");
    EXPECT_EQ(show(service.updateSourceExpiry(nullptr, "source#1", 60)),
              "query error: invalid parameters passed to updateSourceExpiry");
    EXPECT_EQ(executor->getErrorMessage(), "invalid parameters passed to updateSourceExpiry");
}

TEST_F(UnconnectedPresenceService, GivesTheProcesssOwnExecutorWhichIsNeverConnectedAndTracesThatEachTime)
{
    PresenceService another;
    PresenceDatabaseCommandExecutor* const executor = service.getPresenceDatabaseCommandExecutor();
    ASSERT_NE(executor, nullptr);
    EXPECT_EQ(service.getPresenceDatabaseCommandExecutor(), executor);
    EXPECT_EQ(another.getPresenceDatabaseCommandExecutor(), executor);
    const std::string line =
        "*** ERROR ***: PresenceService::getPresenceDatabaseCommandExecutor(): DB connection not initialized yet!";
    EXPECT_EQ(trace.take(), facadeTrace({line, line, line}));
    EXPECT_EQ(show(executor->removeEventServerState()),
              "connection error: attempt to execute a command with no database connection");
    connect();
    EXPECT_NE(service.getPresenceDatabaseCommandExecutor(), executor);
    EXPECT_EQ(trace.take(), "");
    EXPECT_EQ(another.getPresenceDatabaseCommandExecutor(), executor);
    EXPECT_EQ(show(executor->removeEventServerState()),
              "connection error: attempt to execute a command with no database connection");
    EXPECT_EQ(libpq.take(), "");
}

// The lookups of keys

/// A lookup of one number, which held 99 before.
struct KeyLookup {
    std::string name;
    std::function<DatabaseResult(PresenceService&, int&)> call;
    std::string statement;
    std::string begun;
    std::string found; // for 12
    std::string foundNone;
    bool readsAnyText; // a text that is no number counts as 0, not as not found
};

void PrintTo(const KeyLookup& lookup, std::ostream* out)
{
    *out << lookup.name;
}

class PresenceKeyLookup : public testing::TestWithParam<KeyLookup>, protected ConnectedServiceOf<PresenceService> {
protected:
    std::string lookUp()
    {
        int key = 99;
        const std::string answer = show(GetParam().call(service, key));
        return answer + "\nkey=" + std::to_string(key) + "\n";
    }

    /// The trace of a lookup whose statement got rows.
    static std::string answeredWith(const std::string& outcome)
    {
        return facadeTrace({GetParam().begun}) + presenceTrace({GetParam().statement}) +
               answeredTrace(GetParam().statement) + facadeTrace({outcome});
    }
};

TEST_P(PresenceKeyLookup, FindsTheKey)
{
    connect();
    libpq.replies({rows({{"12"}, {"13"}})});
    EXPECT_EQ(lookUp(), "okay\nkey=12\n");
    EXPECT_EQ(libpq.take(), sent({GetParam().statement}));
    EXPECT_EQ(trace.take(), answeredWith(GetParam().found));
}

TEST_P(PresenceKeyLookup, IsOkayAboutANullKeyAndGivesNone)
{
    connect();
    libpq.replies({rows({{std::nullopt}})});
    EXPECT_EQ(lookUp(), "okay\nkey=-1\n");
    EXPECT_EQ(trace.take(), answeredWith(GetParam().foundNone));
}

TEST_P(PresenceKeyLookup, GivesNoKeyWhereNothingIsFound)
{
    connect();
    libpq.replies({noRows()});
    EXPECT_EQ(lookUp(), "not found\nkey=-1\n");
    EXPECT_EQ(trace.take(), answeredWith("lookup failed"));
}

TEST_P(PresenceKeyLookup, JudgesATextThatIsNoNumber)
{
    connect();
    libpq.replies({rows({{"abc"}})});
    EXPECT_EQ(lookUp(), GetParam().readsAnyText ? "okay\nkey=0\n" : "not found\nkey=-1\n");
}

TEST_P(PresenceKeyLookup, PassesAFailureOnWithoutAKey)
{
    connect();
    libpq.replies({refused("42601"), refused("42601")});
    EXPECT_EQ(lookUp(), "query error: " + spliced(kRefused, GetParam().statement) + "\nkey=-1\n");
    loseForGood();
    EXPECT_EQ(lookUp(), "connection error: " + kServerGone + "\nkey=-1\n");
    EXPECT_EQ(trace.take("PresenceService"),
              facadeTrace({GetParam().begun, "lookup failed", GetParam().begun, "lookup failed"}));
}

TEST_P(PresenceKeyLookup, LeavesTheKeyOnAServiceThatWasNeverConnected)
{
    EXPECT_EQ(lookUp(), kNeverConnected + "key=99\n");
    EXPECT_EQ(libpq.take(), "");
    EXPECT_EQ(trace.take(), facadeTrace({GetParam().begun, "connection error"}));
}

std::vector<KeyLookup> keyLookups()
{
    return {
        {"getCsid", [](auto& service, int& key) { return service.getCsid(34, key); },
         "SELECT csid FROM public_address WHERE public_address_id='34';", "looking up csid 34",
         "csid found, userId=34 csid=12", "csid found, userId=34 csid=-1", true},
        {"getCsidFromContactId", [](auto& service, int& key) { return service.getCsidFromContactId(101, key); },
         "SELECT csid FROM contact WHERE contact_id='101';", "getCsidFromContactId 101",
         "csid found, contact_id=101 csid=12", "csid found, contact_id=101 csid=-1", false},
        {"getPaidFromExtension", [](auto& service, int& key) { return service.getPaidFromExtension("6%s0", key); },
         "SELECT paid FROM extension WHERE extension='6%s0';", "getPaidFromExtension 6%s0",
         "paid found, extension=6%s0 paid=12", "paid found, extension=6%s0 paid=-1", false},
    };
}

INSTANTIATE_TEST_SUITE_P(Of, PresenceKeyLookup, testing::ValuesIn(keyLookups()), kRowName);

TEST_F(PresenceServiceTest, KeyLookupsPassARefusalOfTheirArgumentOnWithoutAKey)
{
    int key = 99;
    EXPECT_EQ(show(service.getCsid(0, key)), "query error: invalid parameters");
    EXPECT_EQ(key, -1);
    key = 99;
    EXPECT_EQ(show(service.getCsidFromContactId(0, key)), "query error: invalid parameters");
    EXPECT_EQ(key, -1);
    key = 99;
    EXPECT_EQ(show(service.getPaidFromExtension("", key)), "query error: invalid parameters");
    EXPECT_EQ(key, -1);
    EXPECT_EQ(libpq.take(), "");
    EXPECT_EQ(trace.take(), facadeTrace({"looking up csid 0", "lookup failed", "getCsidFromContactId 0",
                                         "lookup failed", "getPaidFromExtension ", "lookup failed"}));
}

// The key of an address of record

std::string addressKeys(PresenceService& service, const char* handle, const char* domain)
{
    int key = 98;
    int csid = 99;
    const std::string answer = show(service.getPublicAddressKey(handle, domain, key, csid));
    return answer + "\nkey=" + std::to_string(key) + " csid=" + std::to_string(csid) + "\n";
}

std::string addressStatement(const std::string& handle, const std::string& domain)
{
    return "SELECT handle, sip_domain, csid, scope, public_address_id FROM public_address WHERE  handle='" + handle +
           "' AND sip_domain='" + domain + "';";
}

TEST_F(PresenceServiceTest, TheKeysOfAnAddressAreFoundInWhateverCaseItIsWritten)
{
    libpq.replies({rows({{"alice", "oryx.example", "12", "public", "34"}})});
    EXPECT_EQ(addressKeys(service, "ALice-\xc3\x84.1", "Oryx.EXAMPLE"), "okay\nkey=34 csid=12\n");
    const std::string statement = addressStatement("alice-\xc3\x84.1", "oryx.example");
    EXPECT_EQ(libpq.take(), sent({statement}));
    EXPECT_EQ(trace.take(), facadeTrace({"looking up public address ALice-\xc3\x84.1@Oryx.EXAMPLE"}) +
                                presenceTrace({statement}) + answeredTrace(statement) +
                                facadeTrace({"public address found, key=34 csid=12"}));
}

TEST_F(PresenceServiceTest, AnAddressWithNullKeysIsFoundWithoutThem)
{
    libpq.replies({rows({{"alice", "oryx.example", std::nullopt, "public", std::nullopt}})});
    EXPECT_EQ(addressKeys(service, "alice", "oryx.example"), "okay\nkey=-1 csid=-1\n");
    EXPECT_EQ(trace.take("PresenceService"),
              facadeTrace({"looking up public address alice@oryx.example", "public address found, key=-1 csid=-1"}));
}

TEST_F(PresenceServiceTest, AnUnknownAddressHasNoKeyAndLeavesTheContactSet)
{
    libpq.replies({noRows(5)});
    EXPECT_EQ(addressKeys(service, "alice", "oryx.example"), "not found\nkey=-1 csid=99\n");
    EXPECT_EQ(trace.take("PresenceService"),
              facadeTrace({"looking up public address alice@oryx.example", "lookup failed"}));
}

TEST_F(PresenceServiceTest, AFailedAddressLookupHasNoKeyAndLeavesTheContactSet)
{
    libpq.replies({refused("42601"), refused("42601")});
    EXPECT_EQ(addressKeys(service, "alice", "oryx.example"),
              "query error: " + spliced(kRefused, addressStatement("alice", "oryx.example")) + "\nkey=-1 csid=99\n");
    loseForGood();
    EXPECT_EQ(addressKeys(service, "alice", "oryx.example"), "connection error: " + kServerGone + "\nkey=-1 csid=99\n");
    const std::string line = "looking up public address alice@oryx.example";
    EXPECT_EQ(trace.take("PresenceService"), facadeTrace({line, "lookup failed", line, "lookup failed"}));
}

TEST_F(PresenceServiceTest, ANullHandleOrDomainIsLookedUpAsAnEmptyOneAndTracedAsNull)
{
    libpq.replies({noRows(5), noRows(5), noRows(5)});
    EXPECT_EQ(addressKeys(service, nullptr, "oryx.example"), "not found\nkey=-1 csid=99\n");
    EXPECT_EQ(addressKeys(service, "alice", nullptr), "not found\nkey=-1 csid=99\n");
    EXPECT_EQ(addressKeys(service, nullptr, nullptr), "not found\nkey=-1 csid=99\n");
    EXPECT_EQ(libpq.take(),
              sent({addressStatement("", "oryx.example"), addressStatement("alice", ""), addressStatement("", "")}));
    EXPECT_EQ(trace.take("PresenceService"),
              facadeTrace({"looking up public address null@oryx.example", "lookup failed",
                           "looking up public address alice@null", "lookup failed", "lookup failed"}));
}

TEST_F(UnconnectedPresenceService, HasNoKeysOfAnAddressAndLeavesThemAsTheyWere)
{
    EXPECT_EQ(addressKeys(service, "Alice", nullptr), kNeverConnected + "key=98 csid=99\n");
    EXPECT_EQ(addressKeys(service, nullptr, nullptr), kNeverConnected + "key=98 csid=99\n");
    EXPECT_EQ(libpq.take(), "");
    EXPECT_EQ(trace.take(),
              facadeTrace({"looking up public address Alice@null", "connection error", "connection error"}));
}

// The domain name

TEST_F(PresenceServiceTest, TheDomainNameIsTheFirstOfTheListWhichIsReadEachTime)
{
    const std::string statement =
        "SELECT system_parameters.value FROM system_parameters WHERE (((system_parameters.application = 'oryxproxy') AND (system_parameters.scope = 'ServerInfo')) AND (system_parameters.name = 'ServerNames'));";
    libpq.replies({rows({{"oryx.example, example.com"}}), rows({{"example.com"}})});
    std::string name = "before";
    EXPECT_EQ(&service.getDomainName(name), &name);
    EXPECT_EQ(name, "oryx.example");
    EXPECT_EQ(service.getDomainName(name), "example.com");
    EXPECT_EQ(libpq.take(), sent({statement, statement}));
    EXPECT_EQ(trace.take("PresenceService"), "");
}

TEST_F(PresenceServiceTest, TheDomainNameIsEmptyWhereItCannotBeRead)
{
    libpq.replies({noRows()});
    std::string name = "before";
    EXPECT_EQ(service.getDomainName(name), "");
    loseForGood();
    name = "before";
    EXPECT_EQ(service.getDomainName(name), "");
}

// Address maps

constexpr const char* kModified = "Wed Dec 17 07:37:16 1997";

std::vector<Cell> mapRow(const std::string& handle, const std::string& csid, const std::string& pattern)
{
    return {"sequential", "t", handle, csid, pattern, kModified, "3"};
}

std::string routed(PresenceService& service, const char* uri)
{
    Found found;
    return found.after(service.lookupAddressMap(uri, found.ordering, found.replaceUri, found.contacts));
}

/// The trace of the reading of one map, and of its row; "{}" stands for what becomes of that.
std::string mapRowTrace(const std::string& fate)
{
    return facadeTrace({"tnow is NOW",
                        "key=sales-12, pat=^sip:1, time=" + std::to_string(oryx::convertTime(kModified)) +
                            ", priority=3, ordering=sequential",
                        fate});
}

const std::string kMapRead = presenceTrace({"looking up address_maps", kMaps}) + answeredTrace(kMaps) +
                             presenceTrace({"found 1 address map records"}) + facadeTrace({"result contains 1 maps"});

/// The trace of the matching against that map.
std::string matchTrace(const std::string& uri, const std::string& outcome)
{
    return facadeTrace({"checking " + uri + " for match on sales-12"}) +
           traceLines("AddressMap", {"checking regex match for " + uri + " against ^sip:1"}) +
           traceLines("RegEx", {"checking '" + uri + "' for match on ^sip:1", outcome});
}

TEST_F(PresenceServiceTest, AnAddressMapIsServedWithContactsThatCarryKeysAndPath)
{
    libpq.replies({rows({mapRow("sales", "12", "^sip:1")}), rows({contactWithPath("sip:$user@gw.$host")})});
    EXPECT_EQ(routed(service, "sip:100@h"),
              "okay\nordering='parallel' replace=false\n" + shownContactWithPath("sip:100@gw.h"));
    const std::string contacts = spliced(kContactsWithPath, "12");
    EXPECT_EQ(libpq.take(), sent({kMaps, contacts}));
    EXPECT_EQ(timeless(trace.take(), kLookupTime),
              kMapRead + mapRowTrace("adding new map for sales-12") +
                  traceLines("AddressMap", {"compiling expression '^sip:1'"}) +
                  traceLines("RegEx", {"compiling '^sip:1'", "compile ok"}) + matchTrace("sip:100@h", "match found") +
                  facadeTrace({"MATCH found for sales-12", "looking up contacts for csid 12"}) +
                  presenceTrace({contacts}) + answeredTrace(contacts) +
                  presenceTrace({"retrieved 1 rows", "ordering is 'parallel'", "replaceUri is false"}) +
                  facadeTrace({"found 1 contacts, performing substitution...", "address is sip:$user@gw.$host",
                               "replaced contact address with sip:100@gw.h"}));
}

TEST_F(PresenceServiceTest, AddressMapsAreBroughtIntoLineWithTheirTable)
{
    libpq.replies({rows({mapRow("help", "13", "^sip:2"), mapRow("sales", "12", "^sip:1")}),
                   rows({mapRow("sales", "12", "^sip:1")})});
    EXPECT_EQ(routed(service, "sip:300@h"), "not found\nordering='before' replace=true\n");
    EXPECT_EQ(mapKeys(service), "[help-13][sales-12]");
    trace.take();
    EXPECT_EQ(routed(service, "sip:200@h"), "not found\nordering='before' replace=true\n");
    EXPECT_EQ(libpq.take(), sent({kMaps, kMaps}));
    EXPECT_EQ(timeless(trace.take(), kLookupTime),
              kMapRead + facadeTrace({"marking entry for help-13", "marking entry for sales-12"}) +
                  mapRowTrace("updating existing map entry for sales-12") +
                  traceLines("AddressMap", {"expression already compiled"}) +
                  facadeTrace({"removing map entry for help-13", "map for sales-12 still exists"}) +
                  matchTrace("sip:200@h", "not a match"));
    EXPECT_EQ(mapKeys(service), "[sales-12]");
}

TEST_F(PresenceServiceTest, AnAddressMapLookupPassesOnWhatEitherStatementAnswers)
{
    const std::string contacts = spliced(kContactsWithPath, "12");
    libpq.replies({refused("42601"), refused("42601"), rows({mapRow("sales", "12", "^sip:1")}), refused("42601"),
                   refused("42601")});
    const std::string ofMaps = spliced(kRefused, kMaps);
    const std::string ofContacts = spliced(kRefused, contacts);
    EXPECT_EQ(routed(service, "sip:100@h"), "query error: " + ofMaps + "\nordering='before' replace=true\n");
    EXPECT_EQ(trace.take("PresenceService"), facadeTrace({ofMaps}));
    EXPECT_EQ(routed(service, "sip:100@h"), "query error: " + ofContacts + "\nordering='before' replace=true\n");
    EXPECT_TRUE(trace.take("PresenceService").ends_with(facadeTrace({"lookup failed: " + ofContacts})));
    EXPECT_EQ(libpq.take(), sent({kMaps}) + "reset\n" + sent({kMaps, kMaps, contacts}) + "reset\n" + sent({contacts}));
    EXPECT_EQ(routed(service, nullptr), "query error: null uri\nordering='before' replace=true\n");
}

TEST_F(PresenceServiceTest, CompiledAddressMapsAreListedFoundRemovedAndCleared)
{
    libpq.replies({rows({mapRow("help", "13", "^sip:2"), mapRow("sales", "12", "^sip:1")})});
    routed(service, "sip:300@h");
    std::vector<std::string> keys = {"before"};
    service.getMapKeys(keys);
    EXPECT_EQ(keys, (std::vector<std::string>{"before", "help-13", "sales-12"}));
    EXPECT_EQ(mapEntry(service, "sales-12"), "sales-12 csid=12 pattern='^sip:1'");
    std::string key = "help-13";
    service.removeMapEntry(key);
    service.removeMapEntry(key);
    EXPECT_EQ(service.lookupMapEntry(key), nullptr);
    EXPECT_EQ(mapKeys(service), "[sales-12]");
    connect(); // keeps them
    EXPECT_EQ(mapKeys(service), "[sales-12]");
    service.clearMapEntries();
    EXPECT_EQ(mapKeys(service), "");
}

TEST_F(UnconnectedPresenceService, HasNoAddressMaps)
{
    const std::string untouched = "ordering='before' replace=true\n";
    EXPECT_EQ(routed(service, "sip:1@h"), kNeverConnected + untouched);
    EXPECT_EQ(routed(service, nullptr), kNeverConnected + untouched);
    const std::string line = "lookup attempted without a database connection";
    EXPECT_EQ(trace.take(), facadeTrace({line, line}));
    std::string key = "sales-12";
    service.removeMapEntry(key);
    service.clearMapEntries();
    EXPECT_EQ(mapKeys(service, {"before"}), "[before]");
    EXPECT_EQ(service.lookupMapEntry(key), nullptr);
    EXPECT_EQ(libpq.take(), "");
    EXPECT_EQ(trace.take(), "");
}

} // namespace

} // namespace presenceServiceTest
