// The roles by job (schema/190_roles_by_job.sql): each may do what the operations it is for need, in both ways of
// sending, and has no right that none of them needs. What else it might try is in tests/database/RolesTest.cpp.

#include "hostile/World.h"
#include "support/TraceLog.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace rightsTest {

namespace {

using Statements = oryx::SessionOptions::Statements;
using Names = std::set<std::string>;

/// What the one holds and the other does not.
Names without(const Names& names, const Names& others)
{
    Names left;
    std::set_difference(names.begin(), names.end(), others.begin(), others.end(), std::inserter(left, left.end()));
    return left;
}

/// Whom the operations of registrar, proxy and provisioning are for; those of the event server are for it.
const std::map<std::string, Names> kServed{
    {"LocationService::getPublicAddressKey", {"oryx_registrar", "oryx_proxy"}},
    {"LocationService::lookupSubscriber", {"oryx_registrar"}}, // which gives the password
    {"LocationService::lookupContacts", {"oryx_registrar", "oryx_proxy"}},
    {"LocationService::registerContacts", {"oryx_registrar"}},
    {"LocationService::unregisterContacts", {"oryx_registrar"}},
    {"LocationService::updateContacts", {"oryx_registrar"}},
    {"LocationService::removeExpiredContacts", {"oryx_registrar"}},
    {"LocationService::getNodeType", {"oryx_registrar", "oryx_proxy"}},
    {"LocationService::getProxyConfig", {"oryx_registrar", "oryx_proxy"}},
    {"LocationService::getDomainName", {"oryx_registrar", "oryx_proxy"}},
    {"LocationService::lookupAddressMap", {"oryx_proxy"}},
    {"LocationService::lookupMapEntry", {"oryx_proxy"}},
    {"LocationService::removeMapEntry", {"oryx_proxy"}},
    {"LocationService::getDefaultRoute", {"oryx_proxy"}},
    {"LocationService::getOutboundRoute", {"oryx_proxy"}},
    {"LocationService::checkInboundDomainAccess", {"oryx_proxy"}},
    {"oryx::applyRegistration", {"oryx_registrar"}},
    {"oryx::applyRegistrations", {"oryx_registrar"}},
    {"oryx::lookupBindings", {"oryx_registrar", "oryx_proxy"}},
    {"oryx::findTarget", {"oryx_proxy"}},
    {"oryx::applyPublication", {"oryx_presence"}},
    {"oryx::livePublications", {"oryx_presence"}},
    {"oryx::removeExpiredBindings", {"oryx_presence"}},
    {"oryx::removeExpiredPublications", {"oryx_presence"}},
    {"DatabaseCommandExecutor::checkConnect", {"oryx_registrar", "oryx_proxy", "oryx_provisioning"}},
    {"DatabaseCommandExecutor::getSystemParameterValue", {"oryx_registrar", "oryx_proxy"}},
    {"DatabaseCommandExecutor::getNthElementOfDomainList", {"oryx_registrar", "oryx_proxy"}},
    {"DatabaseCommandExecutor::getDomainNameList", {"oryx_registrar", "oryx_proxy"}},
    {"DatabaseCommandExecutor::getDomainName", {"oryx_registrar", "oryx_proxy"}},
    {"DatabaseCommandExecutor::lookupSubscriber", {"oryx_registrar"}},
    {"DatabaseCommandExecutor::addSubscriber", {"oryx_provisioning"}},
    {"DatabaseCommandExecutor::removeSubscriber", {"oryx_provisioning"}},
    {"DatabaseCommandExecutor::changeSubscriberPassword", {"oryx_provisioning"}},
    {"DatabaseCommandExecutor::addContactSet", {"oryx_provisioning"}},
    {"DatabaseCommandExecutor::createPublicAddress", {"oryx_provisioning"}},
    {"DatabaseCommandExecutor::aliasPublicAddress", {"oryx_provisioning"}},
    {"DatabaseCommandExecutor::addPublicAddress", {"oryx_provisioning"}},
    {"DatabaseCommandExecutor::importPublicAddress", {"oryx_provisioning"}},
    {"DatabaseCommandExecutor::lookupPublicAddress", {"oryx_registrar", "oryx_proxy", "oryx_provisioning"}},
    {"DatabaseCommandExecutor::addContact", {"oryx_registrar"}},
    {"DatabaseCommandExecutor::removeContact", {"oryx_registrar"}},
    {"DatabaseCommandExecutor::lookupContacts", {"oryx_registrar", "oryx_proxy"}},
    {"DatabaseCommandExecutor::getHostInfo", {"oryx_registrar", "oryx_proxy"}},
    {"DatabaseCommandExecutor::getAddressMaps", {"oryx_proxy"}},
    {"DatabaseCommandExecutor::getProxyConfig", {"oryx_registrar", "oryx_proxy"}},
    {"DatabaseCommandExecutor::getDomainAccessList", {"oryx_proxy"}},
    // What a ChangeListener asks, whoever it listens for.
    {"PresenceDatabaseCommandExecutor::getUpdatedPrimaryKeys", {"oryx_registrar", "oryx_proxy", "oryx_presence"}},
};

/// A row of each table that provisioning writes: the table, its columns, values for them, and a change of one of them.
struct Provisioned {
    const char* table;
    const char* columns;
    const char* values;
    const char* change;
};
constexpr Provisioned kProvisioned[]{
    {"subscriber", "user_id", "'erin'", "oid = 1"},
    {"contact_set", "sid", "7", "replace_uri = false"},
    {"public_address", "handle, sip_domain, csid", "'erin', 'oryx.example', 12", "scope = 'private'"},
    {"contact", "csid, address, permanent", "12, 'sip:erin@192.0.2.3', true", "qvalue = '0.5'"},
    {"host_info", "node_type", "'leaf'", "parent = 'one'"},
    {"address_map", "handle, csid, pattern", "'erin', 12, '^sip:erin@'", "priority = 5"},
    {"proxy_configuration", "proxy_name", "'erin'", "scope = 'other'"},
    {"domain_access", "direction, sip_domain", "'i', 'erin.example'", "domain_action = 'a'"},
    {"system_parameters", "application, scope, name", "'erin', 'scope', 'name'", "value = '1'"},
    {"access_control_list", "object, application", "'erin', 'presence'", "state = 'INACTIVE'"},
    {"node", "node_id", "'erin'", "node_name = 'erin'"},
    {"buddy_list", "buddy_list_name", "'erin'", "buddy_list_name = buddy_list_name || '2'"},
    {"buddy_list_detail", "buddy_list_name, buddy_uri", "'family', 'sip:erin@oryx.example'", "isbuddy = false"},
    {"presence_list_authorization", "listid, handle, sip_domain, access_action", "1, 'erin', '*', 'A'",
     "access_action = 'D'"},
    {"extension", "extension", "'erin'", "ext_type = 'u'"},
    {"conf_state", "extension", "'erin'", "conf_status = 'IDLE'"},
    {"acp", "handle", "'erin'", "link_type = 'tls'"},
    {"sip_event_aggregator", "handle, sip_address", "'erin', 'sip:erin@oryx.example'", "sip_address = 'sip:x@x'"},
};
const char* const kReadBySupport[]{"contact_set",
                                   "public_address",
                                   "contact",
                                   "host_info",
                                   "address_map",
                                   "address_map_refused",
                                   "proxy_configuration",
                                   "domain_access",
                                   "system_parameters",
                                   "subscription_states",
                                   "event_watchers",
                                   "event_sources",
                                   "watcherinfo",
                                   "access_control_list",
                                   "node",
                                   "buddy_list",
                                   "buddy_list_detail",
                                   "presence_list_authorization",
                                   "listsubscriptions",
                                   "extension",
                                   "conf_state",
                                   "select_all_valid_conf_ext",
                                   "select_all_obsolete_conf_ext_not_in_use",
                                   "acp",
                                   "sip_event_aggregator",
                                   "conf_state_reset",
                                   "event_notify",
                                   "schema_migration",
                                   "alarm_limit",
                                   "upkeep_run",
                                   "key_sequence",
                                   "public_address_not_in_lower_case",
                                   "publication"};

/// What provisioning sends beside the library's operations: every row by hand, too.
std::vector<std::string> provisioningStatements()
{
    std::vector<std::string> statements{
        "SELECT add_contact('alice', 'oryx.example', 'sip:alice@192.0.2.3', NULL, true, '', '', '', '', 0)",
        "SELECT remove_contact('alice', 'oryx.example', 'sip:alice@192.0.2.3')",
        // The columns that can be read of it, by which subscribers are found.
        "SELECT sid, user_id, auth_user_id, oid, s_type, auth_type, active FROM subscriber",
        "SELECT * FROM set_key_sequences()",
        "SELECT analyze_provisioned()",
        "SELECT * FROM public_address_not_in_lower_case",
        "INSERT INTO conf_state_reset DEFAULT VALUES",
        "DELETE FROM conf_state_reset WHERE requested_at < now() - interval '1 day'",
        "UPDATE address_map_refused SET pattern = '^sip:twice@'",
        "WITH mended AS (DELETE FROM address_map_refused WHERE address_map_pattern_refusal(pattern) IS NULL RETURNING *)"
        " INSERT INTO address_map (map_id, handle, csid, pattern, priority)"
        " SELECT map_id, handle, csid, pattern, priority FROM mended",
    };
    for (const Provisioned& row : kProvisioned) {
        const std::string table = row.table;
        statements.push_back("INSERT INTO " + table + " (" + row.columns + ") VALUES (" + row.values + ")");
        statements.push_back("UPDATE " + table + " SET " + row.change);
        statements.push_back("DELETE FROM " + table);
        if (table != "subscriber") {
            statements.push_back("SELECT * FROM " + table);
        }
    }
    return statements;
}

/// What a role sends by hand.
std::vector<std::string> statementsOf(const std::string& group)
{
    if (group == "oryx_provisioning") {
        return provisioningStatements();
    }
    if (group == "oryx_operator") {
        return {"SELECT trim_event_notify('7 days')", "SELECT * FROM oryx_upkeep()", "SELECT * FROM oryx_alarms()",
                "SELECT * FROM set_key_sequences()", "UPDATE alarm_limit SET allowed = allowed"};
    }
    std::vector<std::string> statements;
    if (group == "oryx_reader") {
        statements.push_back("SELECT sid, user_id, auth_user_id, oid, s_type, auth_type, active FROM subscriber");
        for (const std::string table : kReadBySupport) {
            statements.push_back("SELECT * FROM " + table);
        }
    }
    return statements;
}

/// The operation that an entry calls, as "Class::operation".
std::string operationOf(const Entry& entry)
{
    return entry.argument.substr(0, entry.argument.find('('));
}

/// Each way of calling each operation once, whichever of its arguments holds a text.
Entries callsOfOperations()
{
    Entries table = textlessOperations();
    Names known;
    for (Entry& entry : allEntries()) {
        if (known.insert(entry.argument.substr(0, entry.argument.find(')')) + entry.variant).second) {
            table.push_back(std::move(entry));
        }
    }
    return table;
}

Names servedBy(const std::string& operation)
{
    const auto found = kServed.find(operation);
    return found != kServed.end()              ? found->second
           : operation.starts_with("Presence") ? Names{"oryx_presence"}
                                               : Names();
}

Entries callsOf(const std::string& group)
{
    Entries calls;
    for (Entry& entry : callsOfOperations()) {
        if (servedBy(operationOf(entry)).contains(group)) {
            calls.push_back(std::move(entry));
        }
    }
    for (const std::string& statement : statementsOf(group)) {
        calls.push_back({
            .argument = statement,
            .call = [statement](Library& library,
                                const std::string& /*text*/) { return told(library.registrar.execute(statement)); },
        });
    }
    return calls;
}

/// Changes that a role can make beside what it is for, because it makes the same by other statements. Some of them need
/// more when they are bound, and are refused then.
const std::map<std::string, Names> kChangesBeside{
    {"oryx_presence", {"LocationService::removeExpiredContacts", "LocationService::unregisterContacts"}},
    // The one changes nothing, of what is registered alone; the other is as its own sweep.
    {"oryx_registrar", {"oryx::findTarget", "oryx::removeExpiredBindings"}},
    {"oryx_provisioning",
     {"DatabaseCommandExecutor::addContact", "DatabaseCommandExecutor::removeContact",
      "LocationService::registerContacts", "LocationService::removeExpiredContacts",
      "LocationService::unregisterContacts", "LocationService::updateContacts",
      "PresenceDatabaseCommandExecutor::addConfExtState",
      "PresenceDatabaseCommandExecutor::deleteAllObsoleteConfExtNotInUse",
      "PresenceDatabaseCommandExecutor::deleteConfExtState", "PresenceDatabaseCommandExecutor::flushExpiredContacts",
      "PresenceDatabaseCommandExecutor::setConfExtState", "PresenceService::addConfExtState",
      "PresenceService::deleteAllObsoleteConfExtNotInUse", "PresenceService::deleteConfExtState",
      "PresenceService::flushExpiredContacts", "PresenceService::setConfExtState"}},
};
Names changesBeside(const std::string& group)
{
    const auto found = kChangesBeside.find(group);
    return found != kChangesBeside.end() ? found->second : Names();
}

/// A call, and what it sends.
struct Sent {
    Entry entry;
    std::string traced;
    bool said; ///< Whether it says, bound, which change it is. Without the right to it does not, and takes effect.
};

/// Whether an operation changes nothing in the database, to tell by its name.
bool looks(const std::string& operation)
{
    const std::string name = operation.substr(operation.find("::") + 2);
    return name.starts_with("get") || name.starts_with("lookup") || name.starts_with("is") || name.starts_with("are") ||
           name.starts_with("check") || name == "removeMapEntry";
}

class Rights : public testing::Test {
protected:
    /// Whether the server refuses a call for want of a right. (Of a schema that is closed it knows no table.)
    bool refused(Library& library, const Entry& entry)
    {
        m_world.arrange(entry, kPlainText);
        library.registrar.okay(); // forgets the SQLSTATE of an earlier failure
        library.events.okay();
        m_trace.take();
        m_answer = entry.call(library, kPlainText);
        m_traced = m_trace.take();
        return m_traced.find("permission denied") != std::string::npos ||
               m_traced.find("does not exist") != std::string::npos;
    }

    struct Calls {
        std::vector<std::string> answers; ///< Of each call.
        Names refused;                    ///< The operations of which a call was.
    };
    /// Each way of calling each operation.
    Calls callAll(const std::string& user, Statements statements)
    {
        Library library;
        m_world.connect(library, statements, user);
        Calls calls;
        for (const Entry& entry : callsOfOperations()) {
            const std::string operation = operationOf(entry);
            const bool wasRefused = refused(library, entry);
            if (wasRefused) {
                calls.refused.insert(operation);
            }
            calls.answers.push_back(m_answer);
            if (!entry.before.empty() || !(wasRefused || looks(operation))) {
                m_world.bringBack(m_world.snapshot());
            }
        }
        return calls;
    }

    /// The operations that a role is not for, that change something, and that it is not refused; those that it is for
    /// answer it right.
    Names changesOfOthers(const std::string& group, Statements statements, const Calls& right)
    {
        const Calls calls = callAll(server::loginOf(group), statements);
        const Entries table = callsOfOperations();
        Names others;
        for (std::size_t i = 0; i < table.size(); ++i) {
            const std::string operation = operationOf(table[i]);
            if (servedBy(operation).contains(group)) {
                EXPECT_EQ(calls.answers[i], right.answers[i]) << group << ": " << table[i].argument;
            } else if (!looks(operation) && !calls.refused.contains(operation)) {
                others.insert(operation);
            }
        }
        return others;
    }

    /// The rights that a role has itself, each as "PRIVILEGE ON OBJECT".
    std::vector<std::string> rightsOf(const std::string& group);
    /// Calls an operation, bound; whether it says which change it is.
    bool says(const Entry& entry)
    {
        m_world.rows("DELETE FROM sending");
        refused(m_bound, entry);
        return m_world.rows("SELECT FROM sending") != "";
    }

    /// Whether one of the calls is refused without a right, and no more when it is given back, or says no more which
    /// change it is. Those are tried first that have sent what it is about.
    bool isNeeded(const std::string& right, const std::string& group, const std::vector<Sent>& calls);

    TraceLog m_trace;
    World m_world;
    std::string m_answer;
    std::string m_traced;
    Library m_plain;
    Library m_bound;
};

std::vector<std::string> Rights::rightsOf(const std::string& group)
{
    const std::string query =
        "WITH held AS ("
        "SELECT format('%s ON %s', privilege_type, CASE relkind WHEN 'S' THEN 'SEQUENCE ' ELSE '' END || relname) AS name,"
        " grantee FROM pg_class, aclexplode(relacl) WHERE relnamespace = 'public'::regnamespace"
        " UNION ALL SELECT format('%s (%I) ON %I', privilege_type, attname, relname), grantee"
        " FROM pg_attribute JOIN pg_class ON attrelid = pg_class.oid, aclexplode(attacl)"
        " UNION ALL SELECT format('%s ON FUNCTION %s', privilege_type, pg_proc.oid::regprocedure), grantee"
        " FROM pg_proc, aclexplode(proacl)"
        " UNION ALL SELECT format('%s ON SCHEMA %I', privilege_type, nspname), grantee"
        " FROM pg_namespace, aclexplode(nspacl))"
        " SELECT name FROM held WHERE grantee = '" +
        group + "'::regrole ORDER BY name";
    std::vector<std::string> rights;
    std::istringstream lines(m_world.rows(query));
    for (std::string line; std::getline(lines, line);) {
        rights.push_back(line);
    }
    return rights;
}

bool Rights::isNeeded(const std::string& right, const std::string& group, const std::vector<Sent>& calls)
{
    std::string object = right.substr(right.rfind(" ON ") + 4);
    object = object.substr(object.rfind(' ') + 1, object.find('('));
    std::vector<std::reference_wrapper<const Sent>> tried(calls.begin(), calls.end());
    std::stable_partition(tried.begin(), tried.end(),
                          [&](const Sent& call) { return call.traced.find(object) != std::string::npos; });
    const bool ofSaying = object.starts_with("sending");
    const auto bind = [&] { m_world.connect(m_bound, Statements::bound, server::loginOf(group)); };
    m_world.rows("REVOKE " + right + " FROM " + group);
    if (ofSaying) {
        bind(); // it has said all until here
    }
    const auto needing = std::find_if(tried.begin(), tried.end(), [&](const Sent& call) {
        return ofSaying ? call.said && !says(call.entry) : refused(m_bound, call.entry) || refused(m_plain, call.entry);
    });
    m_world.rows("GRANT " + right + " TO " + group);
    const bool needed = needing != tried.end();
    if (ofSaying) {
        bind(); // it says nothing any more
    } else if (needed) {
        EXPECT_FALSE(refused(m_bound, needing->get().entry) || refused(m_plain, needing->get().entry)) << m_traced;
    }
    m_world.bringBack(m_world.snapshot());
    return needed;
}

/// Operations that have nothing to do with rights, or send the caller's own statements.
const Names kWithoutStatements{
    "checkConnect",
    "clearMapEntries",
    "confStateEnumToString",
    "confStateStringToEnum",
    "connect",
    "executeSqlCmd",
    "getErrorMessage",
    "getMapKeys",
    "getPresenceDatabaseCommandExecutor",
    "getStatistics",
    "lookupMapEntry",
    "removeMapEntry",
    "selectMultipleConfExtRecords",
    "setSessionOptions",
    "transactionExecute",
    "waitForNotify", // LISTEN, which everybody may
};

/// The public operations of a class, from its header.
Names declaredBy(const std::string& name)
{
    const std::string command = "cd '" ORYX_SOURCE "' && tests/completeness/declarations " + name + " <dal/" + name +
                                ".h | cut -f 2 | sort -u >'" + testing::TempDir() + "declared'";
    EXPECT_EQ(std::system(command.c_str()), 0);
    Names names;
    std::ifstream lines(testing::TempDir() + "declared");
    for (std::string line; std::getline(lines, line);) {
        if (!kWithoutStatements.contains(line)) {
            names.insert(std::string(name).append("::").append(line));
        }
    }
    return names;
}

TEST(RightsTable, HasEveryOperation)
{
    Names declared;
    for (const char* const name :
         {"LocationService", "PresenceService", "DatabaseCommandExecutor", "PresenceDatabaseCommandExecutor"}) {
        declared.merge(declaredBy(name));
    }
    Names called;
    for (const Entry& entry : callsOfOperations()) {
        const std::string operation = operationOf(entry);
        EXPECT_NE(servedBy(operation), Names()) << operation;
        called.insert(operation);
    }
    EXPECT_EQ(without(declared, called), Names());
    for (const auto& [operation, groups] : kServed) {
        EXPECT_TRUE(called.contains(operation)) << operation;
    }
}

TEST_F(Rights, LetPlainCallsOfARolesOwnOperationsThroughAndNoOtherChange)
{
    const Calls right = callAll(server::kUser, Statements::plain);
    EXPECT_EQ(right.refused, Names());
    for (const std::string group : server::kGroups) {
        EXPECT_EQ(changesOfOthers(group, Statements::plain, right), changesBeside(group)) << group;
    }
}

TEST_F(Rights, LetBoundCallsOfARolesOwnOperationsThroughAndNoOtherChange)
{
    const Calls right = callAll(server::kUser, Statements::bound);
    EXPECT_EQ(right.refused, Names());
    for (const std::string group : server::kGroups) {
        EXPECT_EQ(without(changesOfOthers(group, Statements::bound, right), changesBeside(group)), Names()) << group;
    }
}

TEST_F(Rights, AreAllNeeded)
{
    for (const std::string group : server::kGroups) {
        m_world.connect(m_plain, Statements::plain, server::loginOf(group));
        m_world.connect(m_bound, Statements::bound, server::loginOf(group));
        std::vector<Sent> calls;
        for (const Entry& entry : callsOf(group)) {
            EXPECT_FALSE(refused(m_bound, entry)) << group << ", bound: " << entry.argument << "\n" << m_traced;
            const bool said = says(entry);
            EXPECT_FALSE(refused(m_plain, entry)) << group << ", plain: " << entry.argument << "\n" << m_traced;
            calls.push_back({entry, m_traced + entry.argument, said});
        }
        for (const std::string& right : rightsOf(group)) {
            EXPECT_TRUE(isNeeded(right, group, calls)) << group << " has " << right;
        }
    }
}

} // namespace

} // namespace rightsTest
