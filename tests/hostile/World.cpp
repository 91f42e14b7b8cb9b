#include "hostile/World.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <iterator>
#include <set>
#include <sstream>

namespace {

/// What is there besides the rows that a call is about: none of it may be found, changed or removed.
/// Capitals are let in, which are in most texts: what is refused reaches no further.
constexpr const char* kAlwaysThere = R"(
    ALTER TABLE public_address DROP CONSTRAINT public_address_in_lower_case;
    INSERT INTO subscriber (sid, user_id, auth_user_id, oid, s_type, auth_type, s_password)
        VALUES (7, 'alice', 'alice', 3, 'home', 'digest', 'wonderland'), (8, 'bob', 'bob', 3, 'work', 'digest', 'b'),
               (9, 'carol', 'carol', 3, 'other', 'digest', 'c');
    INSERT INTO contact_set (csid, sid, ordering) VALUES (12, 7, 'sequential'), (13, 8, 'parallel'),
        (14, 9, 'sequential');
    INSERT INTO public_address (public_address_id, handle, sip_domain, csid, scope)
        VALUES (42, 'alice', 'oryx.example', 12, 'public'), (43, 'bob', 'oryx.example', 13, 'public'),
               (45, 'carol', 'other.example', 13, 'public');
    INSERT INTO contact (contact_id, csid, address, contact_header) VALUES (1, 12, 'sip:alice@192.0.2.7', 'alice'),
        (2, 13, 'sip:bob@192.0.2.8', 'bob'), (3, 13, 'sip:carol@192.0.2.9', 'bob''s');
    INSERT INTO host_info (node_type, server_name, outbound_proxy) VALUES ('leaf', 'one', 'proxy.oryx.example');
    INSERT INTO domain_access (direction, sip_domain, domain_action, qvalue) VALUES ('i', 'bad.example', 'd', 1);
    INSERT INTO proxy_configuration (proxy_name, scope, property_name, property_value)
        VALUES ('proxy', 'scope', 'other', 'other');
    INSERT INTO system_parameters VALUES ('oryxproxy', 'ServerInfo', 'ServerNames', 'oryx.example'),
        ('other', 'scope', 'name', '1'), ('hara', 'other', 'name', '2'), ('hara', 'scope', 'other', '3');
    INSERT INTO subscription_states VALUES
        ('incoming#1', 'from', 'to', 'call', 1, 'event', 'contact', 'route', 2, 'sip:o@oryx.example', 'presence#1'),
        ('outgoing#1', 'from', 'o_hara', 'call', 1, 'event', 'contact', 'route', 2, 'sip:o@oryx.example', 'dialog#1');
    INSERT INTO event_watchers VALUES ('o#presence', 'incoming#1', 1, 2, 3, 4, 5, 'identity', 'presence', 'o');
    INSERT INTO event_sources VALUES ('o#presence', 'source', 'contact', 5, 'presence', 'o');
    INSERT INTO watcherinfo VALUES ('o', 'subscriber', 'sip', 1, 5);
    INSERT INTO access_control_list (object, requester, access_action, application)
        VALUES ('o', '*', 'deny', 'presence'), ('o@oryx.example', '*', 'deny', 'presence'),
               ('node', '*', 'ask', 'dialog'), ('other@oryx.example', '*', 'deny', 'application'),
               ('carol@other.example', '*', 'deny', 'application'), ('carol@oryx.example', '*', 'deny', 'other'),
               ('other', '*', 'deny', 'application'), ('carol', '*', 'deny', 'other');
    INSERT INTO node VALUES ('node', 'node');
    INSERT INTO buddy_list (buddy_list_id, buddy_list_name) VALUES (1, 'friends'), (2, 'family');
    INSERT INTO buddy_list_detail VALUES ('friends', 'sip:o@oryx.example');
    INSERT INTO presence_list_authorization VALUES (2, '*', '*', 'A');
    INSERT INTO listsubscriptions VALUES ('list', 'subscription', 5);
    INSERT INTO extension VALUES ('700', 'c', '42');
    INSERT INTO conf_state VALUES ('700', 'IDLE', 5), ('701', 'IN USE', 6), ('702', 'o_hara%', 7);
    INSERT INTO acp VALUES ('manager', 'udp', '192.0.2.1', '5070'), ('o', 'udp', '192.0.2.2', '5070');
    INSERT INTO sip_event_aggregator VALUES ('aggregator', 'sip:aggregator@oryx.example');
    INSERT INTO conf_state_reset (reset_id, requested_at) VALUES (1, 'epoch');
    INSERT INTO event_notify_earlier VALUES ('acp', NULL, 'manager', 5), ('subscriber', 7, NULL, 5), ('contact_set', 7, NULL, 100);
)";

/// What is registered for an hour expires when the contacts of the tables do.
constexpr const char* kStopClock =
    "CREATE OR REPLACE FUNCTION current_second() RETURNS bigint LANGUAGE sql STABLE RETURN 1999996400::bigint";

/// Every row of every table, a line each. What a transaction has logged goes without what is the transaction's own: its
/// number, its beginning and its stamp; so does a publication without its entity tags and its time.
constexpr const char* kMakeSnapshot = R"(
    DO $$
    DECLARE
        query text;
    BEGIN
        SELECT string_agg(format('SELECT %L || replace(%s::text, chr(10), %L) FROM public.%I', relname || '|',
                                 CASE relname WHEN 'event_change' THEN 'ROW(table_name, pk_int, pk_char)'
                                              WHEN 'publication' THEN 'ROW(public_address_id, event, presentity, expires, content_type, body)'
                                              ELSE quote_ident(relname) END, '\n', relname), ' UNION ALL ')
            INTO query FROM pg_class
            WHERE relnamespace = 'public'::regnamespace AND relkind = 'r'
                AND relname NOT IN ('schema_migration', 'sending', 'event_stamp', 'registration_turn', 'publication_turn');  -- no text gets there
        EXECUTE 'PREPARE snapshot AS ' || query;
    END
    $$)";

/// Copies of all tables in a schema of their own, and for each table two statements that bring it back to its copy.
constexpr const char* kMakeCopies = R"(
    CREATE SCHEMA copies;
    DO $$
    DECLARE
        name text;
        columns text;
    BEGIN
        FOR name IN SELECT relname FROM pg_class WHERE relnamespace = 'public'::regnamespace AND relkind = 'r'
                AND relname NOT IN ('registration_turn', 'publication_turn') LOOP
            SELECT string_agg(quote_ident(attname), ', ') INTO columns FROM pg_attribute
                WHERE attrelid = format('public.%I', name)::regclass AND attnum > 0 AND attgenerated = '';
            EXECUTE format('CREATE TABLE copies.%I AS TABLE public.%I', name, name);
            EXECUTE format('PREPARE %I AS DELETE FROM public.%I', 'empty_' || name, name);
            EXECUTE format('PREPARE %I AS INSERT INTO public.%I (%s) SELECT %s FROM copies.%I', 'fill_' || name, name,
                           columns, columns, name);
        END LOOP;
    END
    $$;
)";

/// Keys are given from here on, the same ones each time.
constexpr const char* kRestartKeys =
    "SELECT setval('subscriber_sid_seq', 1000), setval('contact_set_csid_seq', 1000), "
    "setval('contact_contact_id_seq', 1000), setval('public_address_public_address_id_seq', 1000)";

constexpr const char* kLibrarysSessions =
    "SELECT pid FROM pg_stat_activity WHERE datname = current_database() AND usename = 'oryx_test_server' ORDER BY pid";

constexpr const char* kOpenTransactions =
    "SELECT count(*) FROM pg_stat_activity WHERE datname = current_database() AND usename = 'oryx_test_server' AND "
    "state LIKE 'idle in transaction%'";

Snapshot linesOf(const std::string& text)
{
    Snapshot snapshot;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        snapshot.push_back(line);
    }
    std::sort(snapshot.begin(), snapshot.end());
    return snapshot;
}

std::string substituted(std::string pattern, const std::string& text)
{
    for (std::size_t at = pattern.find("$1"); at != std::string::npos; at = pattern.find("$1", at + text.size())) {
        pattern.replace(at, 2, text);
    }
    return pattern;
}

} // namespace

Snapshot without(const Snapshot& snapshot, const Snapshot& other)
{
    Snapshot left;
    std::set_difference(snapshot.begin(), snapshot.end(), other.begin(), other.end(), std::back_inserter(left));
    return left;
}

World::World(Statements statements) : m_session(m_database.name()), m_keeper(m_database.name())
{
    setenv("PGSSLMODE", "disable", 1);
    // A transaction that the library leaves open must not keep the test waiting.
    m_session.run("SET lock_timeout = '5s'");
    m_keeper.run("SET lock_timeout = '5s'; SET session_replication_role = replica");
    m_keeper.run(kAlwaysThere);
    m_keeper.run(kStopClock);
    m_keeper.run(kMakeCopies);
    m_session.run(kMakeSnapshot);
    m_start = snapshot();
    connect(library, statements, server::kUser);
    m_sessions = m_session.rows(kLibrarysSessions);
}

void World::connect(Library& connected, Statements statements, const std::string& user) const
{
    const auto connectPart = [&](auto& part) {
        oryx::SessionOptions options;
        options.statements = statements;
        part.setSessionOptions(options);
        part.connect(m_database.socketUri().c_str(), user.c_str(), server::kPassword);
    };
    connectPart(connected.location);
    connectPart(connected.presence);
    connectPart(connected.registrar);
    connectPart(connected.events);
}

void World::bringBack(const Snapshot& now)
{
    std::set<std::string> tables;
    for (const Snapshot& rows : {without(now, m_start), without(m_start, now)}) {
        for (const std::string& row : rows) {
            tables.insert(row.substr(0, row.find('|')));
        }
    }
    for (const std::string& table : tables) {
        m_keeper.run("EXECUTE empty_" + table + "; EXECUTE fill_" + table);
    }
}

std::string World::arrange(const Entry& entry, const std::string& text)
{
    m_session.run(kRestartKeys);
    std::string refusal;
    for (const std::string& statement : entry.before) {
        const std::string state = m_keeper.ask(statement, text).sqlState;
        refusal = refusal.empty() ? state : refusal;
    }
    return refusal;
}

void World::add(const std::string& statement, const std::string& text)
{
    EXPECT_EQ(m_keeper.ask(statement, text).sqlState, "") << statement;
}

World::Expected World::expect(const Entry& entry, const std::string& text)
{
    Expected expected{"", {}};
    m_session.run("BEGIN");
    m_session.run(kRestartKeys);
    for (const std::string& statement : entry.change) {
        if (expected.refusal.empty()) {
            expected.refusal = m_session.ask(statement, text).sqlState;
        }
    }
    if (expected.refusal.empty()) {
        expected.snapshot = snapshot();
    }
    m_session.run("ROLLBACK");
    if (!expected.refusal.empty()) {
        expected.snapshot = snapshot();
    }
    m_session.run(kRestartKeys);
    return expected;
}

std::string World::search(const Entry& entry, const std::string& text)
{
    const server::Session::Answer answer = m_session.ask(entry.found, text);
    if (!answer.sqlState.empty()) {
        return entry.refused.empty() ? "query error " + answer.sqlState + "\n" : entry.refused;
    }
    return answer.rows.empty() ? entry.answer : "okay\n" + answer.rows;
}

std::string World::answer(const Entry& entry, const Expected& expected, const std::string& absent,
                          const std::string& text)
{
    const bool refused = !absent.empty() || !expected.refusal.empty();
    return !entry.found.empty()                ? search(entry, text)
           : refused && !entry.refused.empty() ? entry.refused
                                               : substituted(entry.answer, text);
}

Snapshot World::snapshot()
{
    return linesOf(m_session.rows("EXECUTE snapshot"));
}

bool World::sessionsKept()
{
    return m_session.rows(kLibrarysSessions) == m_sessions;
}

std::string World::openTransactions()
{
    return m_session.value(kOpenTransactions);
}
