#include "database/PresenceFixture.h"
#include "support/DatabaseTest.h"
#include "support/Show.h"

#include <gtest/gtest.h>
#include <libpq-fe.h>

#include <array>
#include <chrono>
#include <future>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace presenceSchemaTest {

namespace {

/// A second session is there for what happens while a transaction of the first is open; it rather fails than waits for
/// its end.
class PresenceSchema : public ExecutorTest {
protected:
    void SetUp() override
    {
        ExecutorTest::SetUp();
        m_other.run("SET statement_timeout = '20s'");
    }

    /// A statement as the servers run it.
    std::string asServer(const std::string& statement) { return outcome(m_executor.execute(statement)); }

    /// The plan of a bound statement that has been executed so often that the server may have settled for one that
    /// knows no values.
    std::string planWhenOftenUsed(const std::string& statement);

    server::Session m_other{m_database.name()};
};

std::string denied(const std::string& table)
{
    return "query error: [42501] ERROR:  permission denied for table " + table;
}

class Conferences : public PresenceSchema {
protected:
    void provisionConferences()
    {
        sql("INSERT INTO extension VALUES ('600', 'c'), ('601', 'c'), ('602', 'c'), ('603', 'c'), ('100', 'u')");
        sql("INSERT INTO conf_state VALUES ('600', 'IDLE', 11), ('601', 'IN USE', 12), ('602', '', NULL),"
            " ('100', 'IDLE', 13), ('700', 'IN USE', 14), ('701', 'INVALID', 15), ('702', NULL, 16)");
    }

    static std::string reserve(server::Session& session)
    {
        return session.rows("select * FROM reserve_one_available_conf_ext_randomly() where "
                            "reserve_one_available_conf_ext_randomly IS NOT NULL;");
    }
};

class ChangeLog : public PresenceSchema {
protected:
    /// The tables and keys logged since the last call, in the order of their stamps.
    std::string logged()
    {
        const std::string rows =
            m_session.rows("SELECT table_name, pk_int, pk_char FROM event_notify WHERE evt_timestamp > " + m_highest +
                           " ORDER BY evt_timestamp, pk_int, pk_char");
        m_highest = m_session.value("SELECT coalesce(max(evt_timestamp), " + m_highest + ") FROM event_notify");
        return rows;
    }

private:
    std::string m_highest = "0";
};

/// The channels of the announcements that statements cause, in a session that listens to `tables`.
template <typename Tables>
std::multiset<std::string> announced(const std::string& database, const Tables& tables, const std::string& statements)
{
    const std::unique_ptr<PGconn, void (*)(PGconn*)> listener(
        PQconnectdb(("dbname=" + database + " port=" + server::port()).c_str()), PQfinish);
    for (const char* const table : tables) {
        PQclear(PQexec(listener.get(), ("LISTEN " + std::string(table)).c_str()));
    }
    PQclear(PQexec(listener.get(), statements.c_str()));
    EXPECT_STREQ(PQerrorMessage(listener.get()), "");
    std::multiset<std::string> channels;
    while (const auto notification =
               std::unique_ptr<PGnotify, void (*)(void*)>(PQnotifies(listener.get()), PQfreemem)) {
        channels.insert(notification->relname);
    }
    return channels;
}

// The statements of the event server -------------------------------------------------------------------------------

struct Search {
    const char* statement;
    /// What it reads, in alphabetical order; empty where the condition leaves the choice to the planner.
    const char* plan;
};

const std::vector<Search>
    kSearches{
        {"SELECT subscriptionid, fromhdr, tohdr, callid, subcseq, eventhdr, remotecontacthdr, routeset, notcseq, requesturi,packageid  FROM subscription_states WHERE subscriptionid = 'incoming#7';",
         "subscription_states_pkey"},
        {"SELECT subscriptionid, fromhdr, tohdr, callid, subcseq, eventhdr, remotecontacthdr, routeset, notcseq, requesturi,packageid  FROM subscription_states  WHERE subscriptionid like '%%incoming#%%';",
         ""},
        {"SELECT subscriptionid, fromhdr, tohdr, callid, subcseq, eventhdr, remotecontacthdr, routeset, notcseq, requesturi,packageid  FROM subscription_states  WHERE subscriptionid like '%%incoming#%%' AND packageid like '%%package77#%%';",
         "subscription_states_received_package"},
        {"SELECT subscriptionid, fromhdr, tohdr, callid, subcseq, eventhdr, remotecontacthdr, routeset, notcseq, requesturi,packageid  FROM subscription_states  WHERE subscriptionid like '%%incoming#%%' and fromhdr like '%%user4711@%%' AND requesturi like '%%user4711@%%' AND packageid like '%%package7#%%';",
         "subscription_states_received"},
        {"SELECT subscriptionid, fromhdr, tohdr, callid, subcseq, eventhdr, remotecontacthdr, routeset, notcseq, requesturi,packageid  FROM subscription_states  WHERE subscriptionid like '%%outgoing#%%' and tohdr like '%%user4711@%%' AND packageid like '%%package7#%%';",
         "subscription_states_sent"},
        {"SELECT subscriptionid, fromhdr, tohdr, callid, subcseq, eventhdr, remotecontacthdr, routeset, notcseq, requesturi,packageid,watcheridentity,expirytime,doctype FROM subscription_states, event_watchers where subscriptionid = watcheropaque;",
         ""},
        {"SELECT watcheropaque,doctype,watchertype,watcherstate,expirytime,watcheridentity,presentity,docversion FROM event_watchers WHERE presentitykey ='presence#user7@oryx.example' and watcheropaque='incoming#7';",
         "event_watchers_pkey"},
        {"SELECT watcheropaque,doctype,watchertype,watcherstate,expirytime,watcheridentity,presentity,docversion,remotecontacthdr FROM event_watchers,subscription_states WHERE presentitykey ='presence#user7@oryx.example' and watcheropaque=subscriptionid;",
         "event_watchers_pkey subscription_states_pkey"},
        {"SELECT watcheropaque,doctype,watchertype,watcherstate,expirytime,watcheridentity,presentity,docversion  FROM event_watchers WHERE presentitykey like '%%presence#user4711@%%';",
         "event_watchers_presentitykey"},
        {"SELECT sourceopaque, contact, expirytime, presentitykey, event FROM event_sources WHERE event='package7';",
         "event_sources_event"},
        {"SELECT sourceopaque, contact, expirytime, event, presentity  FROM event_sources WHERE presentitykey ='presence#user7@oryx.example';",
         "event_sources_presentitykey"},
        {"SELECT sourceopaque, contact, expirytime,presentitykey,event FROM event_sources  WHERE presentity like '%%user4711@%%' and  event like '%%package%%';",
         "event_sources_searched"},
        {"SELECT subscriberkey, startingdocversion,expirytime,presurlscheme  FROM watcherinfo WHERE winfokey='winfo7';",
         "watcherinfo_winfokey"},
        {"SELECT requester,access_action FROM access_control_list WHERE object='user7@oryx.example' and state ='ACTIVE' and application='presence';",
         "access_control_list_active"},
        {"SELECT requester,access_action FROM access_control_list WHERE object='user7' and state='ACTIVE' and application='presence';",
         "access_control_list_active"},
        {"SELECT requester, access_action FROM access_control_list,node WHERE object = node_id and state='ACTIVE' and application='presence';",
         "access_control_list_active node read whole"},
        {"SELECT buddy_list_id FROM buddy_list WHERE buddy_list_name ='list7';", "buddy_list_buddy_list_name_key"},
        {"SELECT buddy_uri FROM buddy_list_detail,buddy_list WHERE buddy_list_id =7 and buddy_list.buddy_list_name=buddy_list_detail.buddy_list_name and isbuddy='t';",
         "buddy_list_detail_pkey buddy_list_pkey"},
        {"SELECT subscriptionidentifier, expirytime FROM listsubscriptions WHERE  listfsmidentifier='list7';",
         "listsubscriptions_pkey"},
        {"SELECT listid FROM presence_list_authorization  WHERE listid=7 AND access_action='A' AND ( (handle ='alice' AND sip_domain = 'oryx.example') OR ( handle ='*' AND sip_domain = 'oryx.example') OR ( handle ='alice' AND sip_domain = '*') OR (handle = '*' AND sip_domain = '*'));",
         "presence_list_authorization_pkey"},
        {"SELECT conf_status, start_time FROM conf_state WHERE extension = '7';", "conf_state_pkey"},
        {"SELECT * FROM conf_state ;", ""},
        {"SELECT * FROM conf_state WHERE (conf_status ~* 'use');", ""},
        {"SELECT * FROM conf_state WHERE NOT (conf_status ~* 'use');", ""},
        {"select * from select_all_valid_conf_ext;", "conf_state_pkey extension_conference"},
        {"select extension, conf_status from select_all_obsolete_conf_ext_not_in_use;",
         "conf_state read whole extension_conference"},
        {"select * FROM reserve_one_available_conf_ext_randomly() where reserve_one_available_conf_ext_randomly IS NOT NULL;",
         ""},
        {"SELECT pk_int, pk_char, evt_timestamp FROM event_notify WHERE table_name = 'subscriber' AND evt_timestamp > '99990';",
         "event_change_xid event_notify_earlier_pkey event_stamp_pkey"},
        {"SELECT pk_int, pk_char, evt_timestamp FROM event_notify WHERE table_name = 'acp' AND evt_timestamp > 0;",
         "event_change_xid event_notify_earlier_pkey event_stamp_pkey"},
        {"SELECT handle,link_type,sip_trunk_ipaddress,sip_port FROM acp ;", ""},
        {"SELECT handle,link_type,sip_trunk_ipaddress,sip_port FROM acp WHERE sip_trunk_ipaddress = '192.0.2.1:4711';",
         "acp_search"},
        {"SELECT handle,link_type,sip_trunk_ipaddress,sip_port FROM acp WHERE handle = 'manager77' AND sip_trunk_ipaddress = '192.0.2.1:77' AND link_type = 'tls' AND sip_port = '5061';",
         "acp_pkey"},
        {"SELECT handle,link_type,sip_trunk_ipaddress,sip_port FROM acp WHERE handle ~* 'MANAGER4711' AND sip_trunk_ipaddress ~* '4711' AND link_type ~* 'tls' AND sip_port ~* '5061';",
         "acp_search"},
        {"SELECT contact_set.ordering, contact_set.replace_uri,subscriber.active, contact.address, contact.qvalue,  contact.expires, contact.capabilities, contact.contact_header,contact.call_id,contact.cseq,contact.c_type,contact.permanent,contact.contact_id,contact.csid, contact.path_vector  FROM public_address, contact_set, contact, subscriber WHERE (public_address.public_address_id = 7 AND contact_set.csid = public_address.csid AND  contact.csid = contact_set.csid AND contact_set.sid = subscriber.sid);", "contact_csid_address_key contact_set_pkey public_address_pkey subscriber_pkey"},
        {"SELECT contact_set.ordering, contact_set.replace_uri, contact.address, contact.qvalue,  contact.expires, contact.capabilities, contact.contact_header,contact.call_id,contact.cseq,contact.c_type,contact.permanent,contact.contact_id,contact.csid,contact.path_vector  FROM contact_set, contact WHERE (contact_set.csid = '7' AND contact.csid = contact_set.csid);",
         "contact_csid_address_key contact_set_pkey"},
        {"SELECT handle, sip_domain, csid, scope, public_address_id FROM public_address WHERE  handle='user7' AND sip_domain='oryx.example';",
         "public_address_handle_sip_domain_key"},
        {"SELECT csid FROM public_address WHERE public_address_id='7';", "public_address_pkey"},
        {"SELECT paid FROM extension WHERE extension='7';", "extension_pkey"},
        {"SELECT csid FROM contact WHERE contact_id='7';", "contact_pkey"},
        {"SELECT other_address.handle, other_address.sip_domain, other_address.csid, other_address.scope, other_address.public_address_id FROM public_address, contact_set, subscriber, public_address as other_address WHERE public_address.handle='user7' AND public_address.sip_domain='oryx.example' AND subscriber.active='t' AND public_address.csid = contact_set.csid AND subscriber.sid = contact_set.sid AND public_address.csid = other_address.csid;",
         "contact_set_pkey public_address_csid public_address_handle_sip_domain_key subscriber_pkey"},
        {"SELECT csid FROM public_address WHERE (handle='user7' AND sip_domain='oryx.example') OR (handle='user8' AND sip_domain='oryx.example');",
         "public_address_handle_sip_domain_key"},
        {"SELECT contact_set.ordering,  contact_set.replace_uri, address_map.handle, address_map.csid,  address_map.pattern, address_map.modification_time, address_map.priority  FROM contact_set, address_map  WHERE address_map.csid = contact_set.csid  ORDER BY address_map.priority ASC; ",
         ""},
        {"SELECT scope, name, value FROM system_parameters   WHERE application = 'oryxproxy';", ""},
        {"SELECT sid,s_type,auth_type,s_password,active,auth_user_id FROM subscriber;", ""},
        {"SELECT sid,s_type,auth_type,s_password,active,auth_user_id FROM subscriber WHERE s_type='group';",
         "subscriber_s_type"},
        {"SELECT subscriber.sid, subscriber.auth_user_id, subscriber.oid, subscriber.s_type, subscriber.auth_type,  subscriber.s_password, subscriber.active  FROM public_address,contact_set,subscriber WHERE  subscriber.sid = contact_set.sid AND contact_set.csid = public_address.csid  AND public_address.handle = 'user7' AND public_address.sip_domain = 'oryx.example';",
         "contact_set_pkey public_address_handle_sip_domain_key subscriber_pkey"},
        {"SELECT public_address_id,sip_domain,handle,scope,admin_domain,csid from public_address ;", ""},
        {"SELECT public_address_id,sip_domain,handle,scope,admin_domain,csid from public_address  where primary_handle='t';",
         ""},
        {"SELECT public_address_id,contact_header,expires,call_id,cseq,handle,sip_domain FROM contact, contact_set, public_address  WHERE expires < 1000 AND contact_set.csid = contact.csid  AND public_address.csid = contact.csid FOR UPDATE ",
         ""},
    };

const std::vector<Search> kChanges{
    {"INSERT INTO subscription_states (subscriptionid,fromhdr,tohdr,callid,subcseq,eventhdr,remotecontacthdr,routeset,notcseq,requesturi,packageid) VALUES('incoming#a','f','t',NULL,1,'e','c',NULL,0,'u','p');",
     ""},
    {"UPDATE subscription_states SET subcseq=2,remotecontacthdr = 'c' WHERE subscriptionid='incoming#7';",
     "subscription_states_pkey"},
    {"UPDATE subscription_states SET notcseq=2 , remotecontacthdr = 'c'  WHERE subscriptionid='incoming#7';",
     "subscription_states_pkey"},
    {"DELETE FROM subscription_states WHERE subscriptionid = 'incoming#7';", "subscription_states_pkey"},
    {"INSERT INTO event_watchers (presentitykey,watcheropaque,doctype,docversion,watchertype,watcherstate,expirytime,watcheridentity,event,presentity) VALUES('k','incoming#a',1,4294967295,2,3,1000,NULL,NULL,NULL);",
     ""},
    {"UPDATE event_watchers SET expirytime=60 WHERE watcheropaque='incoming#7' AND presentitykey='presence#user7@oryx.example';",
     "event_watchers_pkey"},
    {"UPDATE event_watchers SET watcherstate=1 WHERE watcheropaque = 'incoming#7' AND presentitykey='presence#user7@oryx.example';",
     "event_watchers_pkey"},
    {"UPDATE event_watchers SET docversion=4294967295 WHERE watcheropaque = 'incoming#7' AND presentitykey='presence#user7@oryx.example';",
     "event_watchers_pkey"},
    {"DELETE FROM event_watchers WHERE watcheropaque = 'incoming#7' AND presentitykey='presence#user7@oryx.example';",
     "event_watchers_pkey"},
    {"INSERT INTO event_sources (presentitykey,sourceopaque,contact,expirytime,event,presentity) VALUES('k','s',NULL,1000,NULL,NULL);",
     ""},
    {"UPDATE event_sources SET expirytime=60 WHERE sourceopaque='source7';", "event_sources_pkey"},
    {"DELETE FROM event_sources WHERE sourceopaque = 'source7';", "event_sources_pkey"},
    {"INSERT INTO watcherinfo (winfokey,presurlscheme,subscriberkey,startingdocversion,expirytime) VALUES('w','sip','s',0,1000);",
     ""},
    {"UPDATE watcherinfo SET presurlscheme='sip', startingdocversion = 1,expirytime = 60 WHERE subscriberkey='subscriber7';",
     "watcherinfo_pkey"},
    {"DELETE FROM watcherinfo WHERE subscriberkey = 'subscriber7';", "watcherinfo_pkey"},
    {"INSERT INTO listsubscriptions (listfsmidentifier,subscriptionidentifier,expirytime) VALUES('','',1000);", ""},
    {"DELETE FROM listsubscriptions WHERE listfsmidentifier = 'list7' AND subscriptionidentifier = 'sub7';",
     "listsubscriptions_pkey"},
    {"UPDATE listsubscriptions SET subscriptionidentifier='new', expirytime = 60 WHERE listfsmidentifier='list7' AND subscriptionidentifier = 'sub7';",
     "listsubscriptions_pkey"},
    {"UPDATE conf_state SET conf_status ='IDLE', start_time ='-1' WHERE extension = '7';", "conf_state_pkey"},
    {"INSERT INTO conf_state (extension,conf_status,start_time) VALUES('7','IDLE',4294967295);", ""},
    {"DELETE FROM conf_state WHERE extension = '7';", "conf_state_pkey"},
    {"delete from conf_state where conf_status != 'IN USE' and extension not in (select extension from extension where ext_type='c');",
     "conf_state read whole extension_conference"},
    {"DELETE FROM contact WHERE expires < 1000", ""},
    {"WITH gone AS (DELETE FROM contact WHERE contact_id = ANY (ARRAY(SELECT contact_id FROM contact WHERE NOT permanent AND expires < (SELECT current_second()) LIMIT 5000 FOR UPDATE SKIP LOCKED)) RETURNING csid, contact_header, expires, call_id, cseq) SELECT public_address_id, contact_header, expires, call_id, cseq, handle, sip_domain FROM gone, public_address WHERE public_address.csid = gone.csid",
     "contact read whole contact_pkey public_address_csid"},
    {"DELETE FROM SUBSCRIPTION_STATES;", ""},
    {"DELETE FROM EVENT_WATCHERS;", ""},
    {"DELETE FROM EVENT_SOURCES;", ""},
    {"DELETE FROM LISTSUBSCRIPTIONS;", ""},
    {"DELETE FROM WATCHERINFO;", ""},
};

// A household of its own for each number. The log is written by hand: it alone would take a while otherwise.
const char* const kHundredThousandRows = R"(
    SET session_replication_role = replica;
    CREATE TEMPORARY VIEW numbers AS SELECT n, 'user' || n || '@oryx.example' AS uri FROM generate_series(1, 100000) AS n;
    INSERT INTO subscriber (sid, user_id, s_type) SELECT n, 'user' || n, CASE n WHEN 7 THEN 'group' ELSE 'home' END FROM numbers;
    INSERT INTO contact_set (csid, sid) SELECT n, n FROM numbers;
    INSERT INTO public_address (handle, sip_domain, csid) SELECT 'user' || n, 'oryx.example', n FROM numbers;
    INSERT INTO contact (contact_id, csid, address, expires) SELECT n, n, 'sip:' || uri, 2000 + n FROM numbers;
    INSERT INTO subscription_states (subscriptionid, fromhdr, tohdr, requesturi, packageid)
        SELECT (ARRAY['incoming#', 'outgoing#'])[1 + n % 2] || n, 'sip:' || uri, 'sip:' || uri, 'sip:' || uri, format('package%s#', n % 100)
            FROM numbers;
    INSERT INTO event_watchers (presentitykey, watcheropaque)
        SELECT 'presence#' || uri, (ARRAY['incoming#', 'outgoing#'])[1 + n % 2] || n FROM numbers;
    INSERT INTO event_sources (presentitykey, sourceopaque, event, presentity)
        SELECT 'presence#' || uri, 'source' || n, 'package' || n % 100, 'sip:' || uri FROM numbers;
    INSERT INTO watcherinfo (winfokey, subscriberkey) SELECT 'winfo' || n, 'subscriber' || n FROM numbers;
    INSERT INTO access_control_list (object, requester, application) SELECT uri, '*', 'presence' FROM numbers;
    INSERT INTO node (node_id) VALUES ('node1'), ('node2');
    INSERT INTO buddy_list (buddy_list_name) SELECT 'list' || n FROM numbers WHERE n <= 10000;
    INSERT INTO buddy_list_detail (buddy_list_name, buddy_uri) SELECT 'list' || n % 10000, uri FROM numbers;
    INSERT INTO presence_list_authorization (listid, handle, sip_domain, access_action)
        SELECT n % 10000, 'user' || n, 'oryx.example', 'A' FROM numbers;
    INSERT INTO listsubscriptions SELECT 'list' || n % 10000, 'sub' || n, 1000 FROM numbers;
    INSERT INTO extension SELECT n, CASE n % 1000 WHEN 0 THEN 'c' ELSE 'u' END FROM numbers;
    INSERT INTO conf_state SELECT n, 'IDLE', 0 FROM numbers WHERE n <= 10000;
    INSERT INTO acp SELECT 'manager' || n, 'tls', '192.0.2.1:' || n, '5061' FROM numbers;
    INSERT INTO event_notify_earlier SELECT 'subscriber', n, NULL, n FROM numbers;
    INSERT INTO event_stamp SELECT 'subscriber', n, n::text::xid8, to_timestamp(n) FROM numbers;
    INSERT INTO event_change SELECT 'subscriber', n, NULL, n::text::xid8, to_timestamp(n), true FROM numbers;
    INSERT INTO event_notify_earlier SELECT 'acp', NULL, n, n FROM numbers WHERE n <= 100;
    INSERT INTO event_stamp SELECT 'acp', n, n::text::xid8, to_timestamp(n) FROM numbers WHERE n <= 100;
    INSERT INTO event_change SELECT 'acp', NULL, n, n::text::xid8, to_timestamp(n), true FROM numbers WHERE n <= 100;
    RESET session_replication_role)";

/// A statement's text with $1, $2, ... for its values, as bound statements have it, and the values.
struct Parted {
    std::string text;
    std::string values; // as EXECUTE takes them
};

Parted parted(const std::string& statement)
{
    // What stands in the statements themselves, whatever they are asked for.
    static const std::set<std::string> kFixed{
        "'%%incoming#%%'", "'%%outgoing#%%'", "'ACTIVE'", "'A'", "'t'", "'c'", "'IN USE'", "'*'", "'oryxproxy'"};
    static const std::regex kValue("'[^']*'|= ?[0-9]+\\b");
    Parted made;
    int count = 0;
    auto begin = statement.begin();
    for (std::sregex_iterator value(begin, statement.end(), kValue); value != std::sregex_iterator(); ++value) {
        const std::string found = value->str();
        const bool number = found.front() == '=';
        made.text.append(begin, (*value)[0].first);
        begin = (*value)[0].second;
        if (kFixed.count(found) > 0) {
            made.text += found;
            continue;
        }
        made.text.append(number ? "=$" : "$").append(std::to_string(++count));
        made.values.append(count > 1 ? "," : "").append(number ? found.substr(1) : found);
    }
    made.text.append(begin, statement.end());
    return made;
}

std::string PresenceSchema::planWhenOftenUsed(const std::string& statement)
{
    const Parted parts = parted(statement);
    const std::string execution = parts.values.empty() ? "EXECUTE used" : "EXECUTE used (" + parts.values + ")";
    sql("BEGIN; PREPARE used AS " + parts.text);
    for (int i = 0; i < 6; ++i) {
        sql(execution);
    }
    const std::string plan = rows("EXPLAIN (COSTS OFF) " + execution);
    sql("ROLLBACK; DEALLOCATE used");
    return plan;
}

/// The indexes and tables that a plan reads.
std::string reads(const std::string& plan)
{
    std::set<std::string> names;
    std::istringstream lines(plan);
    for (std::string line; std::getline(lines, line);) {
        for (const std::string mark : {"Scan using ", "Bitmap Index Scan on ", "Seq Scan on "}) {
            const std::size_t at = line.find(mark);
            if (at != std::string::npos) {
                const std::size_t begin = at + mark.size();
                names.insert(line.substr(begin, line.find(' ', begin) - begin) +
                             (mark == "Seq Scan on " ? " read whole" : ""));
            }
        }
    }
    std::string text;
    for (const std::string& name : names) {
        text += (text.empty() ? "" : " ") + name;
    }
    return text;
}

TEST_F(PresenceSchema, TakesEveryStatementOfAServer)
{
    for (const auto& statements : {kSearches, kChanges}) {
        for (const Search& search : statements) {
            EXPECT_EQ(asServer("EXPLAIN " + std::string(search.statement)), "okay") << search.statement;
        }
    }
}

TEST_F(PresenceSchema, FindsRowsAmongManyByTheirIndexes)
{
    sql(kSetIndexesAside);
    sql(kHundredThousandRows);
    sql(kBuildIndexes);
    sql("ANALYZE");
    for (const auto& statements : {kSearches, kChanges}) {
        for (const Search& search : statements) {
            if (*search.plan != '\0') {
                const std::string plan = rows("EXPLAIN (COSTS OFF) " + std::string(search.statement));
                EXPECT_EQ(reads(plan), search.plan) << search.statement << "\n" << plan;
                const std::string often = planWhenOftenUsed(search.statement);
                EXPECT_EQ(reads(often), search.plan) << search.statement << "\n" << often;
            }
        }
    }
}

TEST_F(PresenceSchema, RefreshesDialogsAndWatchersInTheirPages)
{
    sql("INSERT INTO subscription_states (subscriptionid, fromhdr, requesturi, packageid)"
        " VALUES ('incoming#7', 'sip:alice@oryx.example', 'sip:bob@oryx.example', 'presence#')");
    sql("INSERT INTO event_watchers VALUES ('presence#bob', 'incoming#7')");
    sql("INSERT INTO event_sources VALUES ('presence#bob', 'source7')");
    sql("INSERT INTO watcherinfo VALUES ('winfo7', 'subscriber7')");
    sql("INSERT INTO conf_state VALUES ('7', 'IDLE', 0)");
    sql("UPDATE subscription_states SET subcseq = 2, notcseq = 3, remotecontacthdr = 'c'");
    sql("UPDATE event_watchers SET expirytime = 60, watcherstate = 1, docversion = 2");
    sql("UPDATE event_sources SET expirytime = 60");
    sql("UPDATE watcherinfo SET presurlscheme = 'sip', startingdocversion = 1, expirytime = 60");
    sql("UPDATE conf_state SET conf_status = 'IN USE', start_time = 5");
    sql("SELECT pg_stat_force_next_flush()");
    EXPECT_EQ(rows("SELECT relname, n_tup_upd, n_tup_hot_upd FROM pg_stat_user_tables WHERE n_tup_upd > 0 AND"
                   " relname <> 'event_notify' ORDER BY relname"),
              "conf_state|1|1\nevent_sources|1|1\nevent_watchers|1|1\nsubscription_states|1|1\nwatcherinfo|1|1\n");
}

TEST_F(PresenceSchema, KeepsOneRowPerKey)
{
    const std::string duplicate = "query error: [23505] ERROR:  duplicate key value violates unique constraint ";
    const auto twice = [&](const std::string& statement) {
        EXPECT_EQ(asServer(statement), "okay");
        return asServer(statement);
    };
    EXPECT_EQ(twice("INSERT INTO subscription_states (subscriptionid) VALUES ('incoming#7')"),
              duplicate + "\"subscription_states_pkey\"");
    EXPECT_EQ(twice("INSERT INTO event_watchers VALUES ('presence#bob', 'incoming#7')"),
              duplicate + "\"event_watchers_pkey\"");
    EXPECT_EQ(twice("INSERT INTO event_sources VALUES ('presence#bob', 'source7')"),
              duplicate + "\"event_sources_pkey\"");
    EXPECT_EQ(twice("INSERT INTO watcherinfo VALUES ('winfo7', 'subscriber7')"), duplicate + "\"watcherinfo_pkey\"");
    EXPECT_EQ(twice("INSERT INTO listsubscriptions VALUES ('list7', 'sub7', 60)"),
              duplicate + "\"listsubscriptions_pkey\"");
    EXPECT_EQ(twice("INSERT INTO conf_state VALUES ('7', 'IDLE', 0)"), duplicate + "\"conf_state_pkey\"");
}

TEST_F(PresenceSchema, LetsServersOnlyReadWhatOperatorsSet)
{
    for (const std::string table :
         {"access_control_list", "node", "buddy_list", "buddy_list_detail", "presence_list_authorization", "extension",
          "acp", "sip_event_aggregator", "conf_state_reset"}) {
        EXPECT_EQ(asServer("SELECT * FROM " + table), "okay");
        EXPECT_EQ(asServer("DELETE FROM " + table), denied(table));
        EXPECT_EQ(asServer("INSERT INTO " + table + " DEFAULT VALUES"), denied(table));
    }
    EXPECT_EQ(asServer("SELECT * FROM event_notify"), "okay");
    const std::string noLog = "query error: [42501] ERROR:  permission denied for view event_notify";
    EXPECT_EQ(asServer("INSERT INTO event_notify DEFAULT VALUES"), noLog);
    for (const std::string table : {"event_notify_earlier", "event_change", "event_stamp", "event_turn"}) {
        EXPECT_EQ(asServer("SELECT * FROM " + table), denied(table));
    }
    EXPECT_EQ(asServer("SELECT trim_event_notify('0')"),
              "query error: [42501] ERROR:  permission denied for function trim_event_notify");
}

TEST_F(PresenceSchema, LetsReadersReadEverythingAndChangeNothing)
{
    sql("SET ROLE oryx_reader");
    for (const std::string table :
         {"subscription_states", "event_watchers", "event_sources", "watcherinfo", "access_control_list", "node",
          "buddy_list", "buddy_list_detail", "presence_list_authorization", "listsubscriptions", "extension",
          "conf_state", "select_all_valid_conf_ext", "select_all_obsolete_conf_ext_not_in_use", "acp",
          "sip_event_aggregator", "conf_state_reset", "event_notify"}) {
        EXPECT_EQ(rows("SELECT * FROM " + table), "");
        EXPECT_EQ(rows("SELECT privilege_type FROM information_schema.table_privileges WHERE grantee = 'oryx_reader'"
                       " AND table_name = '" +
                       table + "'"),
                  "SELECT\n");
    }
    EXPECT_THROW(rows("SELECT reserve_one_available_conf_ext_randomly()"), std::runtime_error);
    EXPECT_THROW(rows("SELECT trim_event_notify('0')"), std::runtime_error);
}

TEST_F(PresenceSchema, AnnouncesChangesOfTheEventServersTables)
{
    constexpr std::array kTables{"acp", "conf_state", "conf_state_reset", "extension", "sip_event_aggregator"};
    const std::multiset<std::string> all(kTables.begin(), kTables.end());
    EXPECT_EQ(announced(m_database.name(), kTables,
                        "INSERT INTO acp VALUES ('a'), ('b'); INSERT INTO extension VALUES ('1'), ('2');"
                        "INSERT INTO conf_state VALUES ('1'), ('2'); INSERT INTO conf_state_reset VALUES (1), (2);"
                        "INSERT INTO sip_event_aggregator VALUES ('a', 'sip:a'), ('b', 'sip:b')"),
              all);
    for (const std::string statement : {"DELETE FROM ", "TRUNCATE "}) {
        for (const std::string table : kTables) {
            EXPECT_EQ(announced(m_database.name(), kTables, statement + table), std::multiset<std::string>{table});
        }
    }
    EXPECT_EQ(announced(m_database.name(), kTables, "UPDATE conf_state SET conf_status = 'IDLE'"),
              std::multiset<std::string>{"conf_state"});
}

TEST_F(PresenceSchema, RemovesWithAListWhoIsOnItAndWhoMaySeeIt)
{
    sql("INSERT INTO buddy_list VALUES (5, 'friends'), (6, 'colleagues')");
    sql("INSERT INTO buddy_list_detail VALUES ('friends', 'sip:bob@oryx.example'), ('colleagues', 'sip:carol@oryx.example')");
    sql("INSERT INTO presence_list_authorization VALUES (5, '*', '*', 'A'), (6, 'dave', 'oryx.example', 'A')");
    sql("UPDATE buddy_list SET buddy_list_name = 'team' WHERE buddy_list_id = 6");
    sql("DELETE FROM buddy_list WHERE buddy_list_id = 5");
    EXPECT_EQ(rows("SELECT buddy_list_id, buddy_uri, handle FROM buddy_list LEFT JOIN buddy_list_detail USING"
                   " (buddy_list_name) FULL JOIN presence_list_authorization ON listid = buddy_list_id"),
              "6|sip:carol@oryx.example|dave\n");
}

TEST_F(Conferences, ListsEveryConferenceExtensionAsValid)
{
    provisionConferences();
    EXPECT_EQ(rows("select * from select_all_valid_conf_ext ORDER BY extension"),
              "600|IDLE|11\n601|IN USE|12\n602||0\n603|INVALID|0\n");
}

TEST_F(Conferences, ListsAsObsoleteWhatAPurgeRemoves)
{
    provisionConferences();
    const std::string obsolete = "100|IDLE\n701|INVALID\n702|\n";
    EXPECT_EQ(rows("select extension, conf_status from select_all_obsolete_conf_ext_not_in_use ORDER BY extension"),
              obsolete);
    EXPECT_EQ(rows("WITH purged AS (delete from conf_state where conf_status != 'IN USE' and extension not in (select"
                   " extension from extension where ext_type='c') RETURNING extension, conf_status)"
                   " SELECT * FROM purged ORDER BY extension"),
              obsolete);
    EXPECT_EQ(rows("SELECT extension FROM conf_state ORDER BY extension"), "600\n601\n602\n700\n");
}

TEST_F(Conferences, FindsAStateWithoutAStatusByWhatItDoesNotHold)
{
    EXPECT_EQ(asServer("INSERT INTO conf_state (extension,conf_status,start_time) VALUES('600',NULL,0);"), "okay");
    EXPECT_EQ(rows("SELECT * FROM conf_state WHERE NOT (conf_status ~* 'use');"), "600||0\n");
}

TEST_F(Conferences, AreReservedOnceEachAndAtOnceWhileOthersAreBeingReserved)
{
    sql("INSERT INTO conf_state VALUES ('600', 'IDLE', 0), ('601', 'IN USE', 7), ('602', 'IDLE', 0), ('603', 'INVALID', 8)");
    for (server::Session* const session : {&m_session, &m_other}) {
        session->run("SET ROLE oryx_server; BEGIN");
    }
    const std::string first = reserve(m_session);
    const std::string second = reserve(m_other);
    EXPECT_EQ((std::set{first, second}), (std::set<std::string>{"600\n", "602\n"}));
    EXPECT_EQ(reserve(m_session), "");
    EXPECT_EQ(reserve(m_other), "");
    m_session.run("COMMIT");
    m_other.run("ROLLBACK");
    EXPECT_EQ(rows("SELECT extension || E'\\n' = '" + first +
                   "', conf_status, start_time BETWEEN"
                   " extract(epoch FROM now()) - 60 AND extract(epoch FROM now()) FROM conf_state"
                   " WHERE extension IN ('600', '602') ORDER BY 1"),
              "f|IDLE|f\nt|IN USE|t\n");
    EXPECT_EQ(reserve(m_other), second);
    EXPECT_EQ(rows("SELECT * FROM conf_state WHERE extension IN ('601', '603') ORDER BY 1"),
              "601|IN USE|7\n603|INVALID|8\n");
}

TEST_F(Conferences, AreReservedInNoOrder)
{
    sql("INSERT INTO conf_state SELECT n, 'IDLE', 0 FROM generate_series(1, 20) AS n");
    std::set<std::string> first;
    for (int round = 0; round < 50; ++round) {
        sql("BEGIN");
        first.insert(reserve(m_session));
        sql("ROLLBACK");
    }
    EXPECT_GT(first.size(), 2U);
}

TEST_F(Conferences, AreNotReservedWhereNoneIsIdle)
{
    EXPECT_EQ(rows("SELECT reserve_one_available_conf_ext_randomly()"), "NULL\n");
    EXPECT_EQ(reserve(m_session), "");
}

TEST_F(ChangeLog, NamesTheKeyOfEveryChangedRow)
{
    struct Table {
        std::string name;
        std::string insertion;
        std::string key;
        std::string change;
    };
    const std::vector<Table> tables{
        {"acp", "VALUES ('manager', 'tcp')", "NULL|manager", "link_type = 'tls'"},
        {"extension", "VALUES ('600', 'u')", "NULL|600", "ext_type = 'c'"},
        {"conf_state", "VALUES ('600', 'IDLE', 0)", "NULL|600", "conf_status = 'INVALID'"},
        {"conf_state_reset", "VALUES (3)", "3|NULL", "requested_at = now()"},
        {"subscriber", "VALUES (7, 'alice')", "7|NULL", "oid = 3"},
        {"contact_set", "VALUES (12)", "12|NULL", "ordering = 'parallel'"},
        {"public_address", "VALUES (42, 'alice', 'oryx.example')", "42|NULL", "scope = 'public'"},
        {"sip_event_aggregator", "VALUES ('east', 'sip:east.oryx.example')", "NULL|east", "sip_address = 'sip:e'"},
    };
    for (const Table& table : tables) {
        const std::string row = table.name + "|" + table.key + "\n";
        sql("INSERT INTO " + table.name + " " + table.insertion);
        EXPECT_EQ(logged(), row);
        sql("UPDATE " + table.name + " SET " + table.change);
        EXPECT_EQ(logged(), row);
        sql("DELETE FROM " + table.name);
        EXPECT_EQ(logged(), row);
        sql("INSERT INTO " + table.name + " " + table.insertion);
        EXPECT_EQ(logged(), row);
        sql("BEGIN; UPDATE " + table.name + " SET " + table.change + "; TRUNCATE " + table.name + " CASCADE; COMMIT");
        EXPECT_EQ(logged(), row + row);
    }
}

TEST_F(ChangeLog, NamesBothKeysOfARowWhoseKeyChanges)
{
    sql("INSERT INTO acp VALUES ('former'), ('other'); INSERT INTO contact_set (csid) VALUES (12)");
    logged();
    sql("UPDATE acp SET handle = 'later' WHERE handle = 'former'");
    sql("UPDATE contact_set SET csid = 13");
    EXPECT_EQ(logged(), "acp|NULL|former\nacp|NULL|later\ncontact_set|12|NULL\ncontact_set|13|NULL\n");
    sql("UPDATE acp SET handle = lower(handle) WHERE handle = 'later'");
    EXPECT_EQ(logged(), "acp|NULL|later\n");
}

TEST_F(ChangeLog, NamesTheRowsThatARemovalReaches)
{
    provisionAlice();
    logged();
    sql("DELETE FROM subscriber");
    EXPECT_EQ(rows("SELECT table_name, pk_int, pk_char FROM event_notify ORDER BY evt_timestamp DESC LIMIT 3"),
              "public_address|42|NULL\ncontact_set|12|NULL\nsubscriber|7|NULL\n");
}

TEST_F(ChangeLog, HoldsNothingOfWhatIsRolledBack)
{
    sql("BEGIN; INSERT INTO acp VALUES ('a'); ROLLBACK");
    sql("BEGIN; SAVEPOINT here; INSERT INTO acp VALUES ('b'); ROLLBACK TO here; INSERT INTO acp VALUES ('c'); COMMIT");
    EXPECT_EQ(rows("SELECT table_name, pk_int, pk_char FROM event_notify"), "acp|NULL|c\n");
}

TEST_F(ChangeLog, GivesMicrosecondsSinceTheEpoch)
{
    sql("INSERT INTO acp VALUES ('a')");
    EXPECT_EQ(rows("SELECT to_timestamp(evt_timestamp / 1e6) BETWEEN now() - interval '1 minute' AND now()"
                   " FROM event_notify"),
              "t\n");
}

TEST_F(ChangeLog, ShowsAReaderWhatWasWrittenEarlierButCommittedLater)
{
    sql("BEGIN; INSERT INTO acp VALUES ('written first')");
    m_other.run("INSERT INTO acp VALUES ('committed first')");
    server::Session reader(m_database.name());
    const std::string table = "FROM event_notify WHERE table_name = 'acp' AND evt_timestamp > ";
    EXPECT_EQ(reader.rows("SELECT pk_char " + table + "0;"), "committed first\n");
    const std::string highest = reader.value("SELECT max(evt_timestamp) " + table + "0");
    sql("COMMIT");
    EXPECT_EQ(reader.rows("SELECT pk_char " + table + "'" + highest + "';"), "written first\n");
}

TEST_F(ChangeLog, StampsNoChangeBeforeAnEarlierStampCanBeSeen)
{
    sql("BEGIN; INSERT INTO acp VALUES ('stamped first'); SET CONSTRAINTS ALL IMMEDIATE");
    const std::string pid = m_other.value("SELECT pg_backend_pid()");
    auto committed = std::async(std::launch::async, [&] { m_other.run("INSERT INTO acp VALUES ('stamped second')"); });
    server::Session reader(m_database.name());
    reader.run("SET statement_timeout = '20s'; DO $$ BEGIN WHILE NOT EXISTS (SELECT FROM pg_locks WHERE pid = " + pid +
               " AND relation = 'event_turn'::regclass AND NOT granted) LOOP PERFORM pg_sleep(0.01); END LOOP; END $$");
    EXPECT_EQ(committed.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    EXPECT_EQ(reader.rows("SELECT pk_char FROM event_notify"), "");
    sql("COMMIT");
    committed.get();
    EXPECT_EQ(reader.rows("SELECT pk_char FROM event_notify ORDER BY evt_timestamp"),
              "stamped first\nstamped second\n");
}

TEST_F(ChangeLog, StampsOnwardsWhenTheClockGoesBack)
{
    // As if the last change had been stamped an hour from now.
    sql("SELECT setval('event_notify_stamp', 1000000 * (extract(epoch FROM now())::bigint + 3600))");
    sql("INSERT INTO acp VALUES ('a'), ('b')");
    sql("INSERT INTO acp VALUES ('c')");
    EXPECT_EQ(rows("SELECT pk_char, evt_timestamp - min(evt_timestamp) OVER () FROM event_notify"
                   " WHERE evt_timestamp > 1000000 * (extract(epoch FROM now()) + 3500) ORDER BY 1"),
              "a|0\nb|0\nc|1\n");
}

TEST_F(ChangeLog, NamesEachRowOfALargeChange)
{
    sql("INSERT INTO extension SELECT n, 'u' FROM generate_series(1, 10000) AS n");
    sql("UPDATE extension SET ext_type = 'c'");
    EXPECT_EQ(rows("SELECT count(*), count(DISTINCT pk_char), count(DISTINCT evt_timestamp), min(evt_timestamp) > 0"
                   " FROM event_notify WHERE table_name = 'extension'"),
              "20000|10000|2|t\n");
}

TEST_F(ChangeLog, IsNeverReadWholeByAChange)
{
    // What is planned for a log of one page stays planned when it has grown.
    sql("INSERT INTO acp VALUES ('a')");
    sql("VACUUM ANALYZE event_change");
    sql("INSERT INTO acp SELECT n FROM generate_series(1, 20) AS n");
    sql("INSERT INTO acp SELECT n FROM generate_series(21, 500) AS n");
    sql("SELECT pg_stat_force_next_flush()");
    EXPECT_EQ(rows("SELECT seq_scan, idx_scan FROM pg_stat_user_tables WHERE relname = 'event_change'"), "0|3\n");
}

TEST_F(ChangeLog, IsTrimmedOfWhatIsOlderThanAsked)
{
    sql("INSERT INTO event_notify (table_name, pk_char, evt_timestamp)"
        " SELECT 'acp', age, 1000000 * (extract(epoch FROM now()) - age) FROM unnest(ARRAY[30, 90000, 600000]) AS age");
    EXPECT_EQ(rows("SELECT trim_event_notify(NULL)"), "0\n");
    EXPECT_EQ(rows("SELECT trim_event_notify('7 days')"), "0\n");
    EXPECT_EQ(rows("SELECT trim_event_notify('1 day')"), "2\n");
    EXPECT_EQ(rows("SELECT pk_char FROM event_notify"), "30\n");
    sql("BEGIN; INSERT INTO acp VALUES ('while trimming')");
    EXPECT_EQ(rows("SELECT trim_event_notify('0')"), "1\n");
    sql("COMMIT");
    EXPECT_EQ(rows("SELECT pk_char FROM event_notify"), "while trimming\n");
}

} // namespace

} // namespace presenceSchemaTest
