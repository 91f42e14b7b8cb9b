// Bound statements: a text in an argument is that text and nothing else, whatever it holds. Each entry of the table is
// called with each of the texts, and the whole database is compared with what the call shall have done. And in both
// ways of sending: what the calls of the table do when memory runs out.

#include "hostile/Entry.h"
#include "hostile/Texts.h"
#include "support/FailingNew.h"
#include "support/InsideOperation.h"
#include "support/Server.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <exception>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

namespace {

using oryx::SessionOptions;

/// What is there besides the rows that a call is about: none of it may be found, changed or removed.
constexpr const char* kAlwaysThere = R"(
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
    INSERT INTO event_notify VALUES ('acp', NULL, 'manager', 5), ('subscriber', 7, NULL, 5), ('contact_set', 7, NULL, 100);
)";

/// What is registered for an hour expires when the contacts of the tables do.
constexpr const char* kStopClock =
    "CREATE OR REPLACE FUNCTION current_second() RETURNS bigint LANGUAGE sql STABLE RETURN 1999996400::bigint";

/// Every row of every table, a line each. The change log's stamps are moments, so it goes without them.
constexpr const char* kMakeSnapshot = R"(
    DO $$
    DECLARE
        query text;
    BEGIN
        SELECT string_agg(format('SELECT %L || replace(%s::text, chr(10), %L) FROM public.%I', relname || '|',
                                 CASE relname WHEN 'event_notify' THEN 'ROW(table_name, pk_int, pk_char)'
                                              ELSE quote_ident(relname) END, '\n', relname), ' UNION ALL ')
            INTO query FROM pg_class
            WHERE relnamespace = 'public'::regnamespace AND relkind = 'r'
                AND relname NOT IN ('schema_migration', 'sending');  -- which texts do not reach
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
        FOR name IN SELECT relname FROM pg_class WHERE relnamespace = 'public'::regnamespace AND relkind = 'r' LOOP
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

/// Lines in order.
using Snapshot = std::vector<std::string>;

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

Snapshot without(const Snapshot& snapshot, const Snapshot& other)
{
    Snapshot left;
    std::set_difference(snapshot.begin(), snapshot.end(), other.begin(), other.end(), std::back_inserter(left));
    return left;
}

std::string substituted(std::string pattern, const std::string& text)
{
    for (std::size_t at = pattern.find("$1"); at != std::string::npos; at = pattern.find("$1", at + text.size())) {
        pattern.replace(at, 2, text);
    }
    return pattern;
}

/// One database and one connected library for all entries.
class World {
public:
    explicit World(SessionOptions::Statements statements = SessionOptions::Statements::bound)
        : m_statements(statements), m_session(m_database.name()), m_keeper(m_database.name())
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
        connect(library.location);
        connect(library.presence);
        connect(library.registrar);
        connect(library.events);
        m_sessions = m_session.rows(kLibrarysSessions);
    }

    /// Makes the tables that are not as they were so again.
    void bringBack(const Snapshot& now)
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

    /// Adds what is there before a call; the SQLSTATE if the schema refuses it.
    std::string arrange(const Entry& entry, const std::string& text)
    {
        m_session.run(kRestartKeys);
        std::string refusal;
        for (const std::string& statement : entry.before) {
            const std::string state = m_keeper.ask(statement, text).sqlState;
            refusal = refusal.empty() ? state : refusal;
        }
        return refusal;
    }

    /// Adds rows, with a text for $1.
    void add(const std::string& statement, const std::string& text)
    {
        EXPECT_EQ(m_keeper.ask(statement, text).sqlState, "") << statement;
    }

    struct Expected {
        std::string refusal; ///< The SQLSTATE if the schema refuses the change.
        Snapshot snapshot;
    };
    /// What the change leads to; it is not made.
    Expected expect(const Entry& entry, const std::string& text)
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

    /// A search as the server answers it by itself.
    std::string search(const Entry& entry, const std::string& text)
    {
        const server::Session::Answer answer = m_session.ask(entry.found, text);
        if (!answer.sqlState.empty()) {
            return entry.refused.empty() ? "query error " + answer.sqlState + "\n" : entry.refused;
        }
        return answer.rows.empty() ? entry.answer : "okay\n" + answer.rows;
    }

    /// What the call shall answer after these, and where `arrange` met with that refusal.
    std::string answer(const Entry& entry, const Expected& expected, const std::string& absent, const std::string& text)
    {
        const bool refused = !absent.empty() || !expected.refusal.empty();
        return !entry.found.empty()                ? search(entry, text)
               : refused && !entry.refused.empty() ? entry.refused
                                                   : substituted(entry.answer, text);
    }

    Snapshot snapshot() { return linesOf(m_session.rows("EXECUTE snapshot")); }

    /// Whether the library still has the sessions that it began with.
    bool sessionsKept() { return m_session.rows(kLibrarysSessions) == m_sessions; }
    /// How many of them are in a transaction.
    std::string openTransactions() { return m_session.value(kOpenTransactions); }

    Library library;

private:
    template <typename Part>
    void connect(Part& part)
    {
        SessionOptions options;
        options.statements = m_statements;
        part.setSessionOptions(options);
        part.connect(m_database.uri().c_str(), server::kUser, server::kPassword);
    }

    SessionOptions::Statements m_statements;
    server::Database m_database;
    server::Session m_session;
    server::Session m_keeper; // adds and removes rows that are there before a call, without triggers and references
    Snapshot m_start;
    std::string m_sessions;
};

/// The SQLSTATE with which the schema refuses a text there, empty when it takes it.
std::string expectedRefusal(Place place, const std::string& text)
{
    switch (place) {
    case Place::column:
        return "";
    case Place::key:
        return isTooLongForAKey(text) ? "54000" : "";
    case Place::flag:
        return "22P02";
    }
    return "no such place";
}

class Hostile : public testing::TestWithParam<Entry> {
protected:
    static void SetUpTestSuite() { s_world.emplace(); }
    static void TearDownTestSuite() { s_world.reset(); }
    void TearDown() override { EXPECT_TRUE(s_world->sessionsKept()) << "a text cost a connection"; }

    static std::optional<World> s_world;
};

std::optional<World> Hostile::s_world;

TEST_P(Hostile, TextsAreThatTextAndNothingElse)
{
    const Entry& entry = GetParam();
    for (const auto& [name, text] : hostileTexts()) {
        SCOPED_TRACE(entry.argument + ": " + name);
        const std::string absent = s_world->arrange(entry, text);
        const World::Expected expected = s_world->expect(entry, text);
        EXPECT_EQ(absent.empty() ? expected.refusal : absent, expectedRefusal(entry.place, text));
        const std::string answer = s_world->answer(entry, expected, absent, text);
        s_world->library.registrar.okay(); // forgets the SQLSTATE of an earlier failure
        EXPECT_EQ(entry.call(s_world->library, text), answer);
        const Snapshot snapshot = s_world->snapshot();
        EXPECT_EQ(without(expected.snapshot, snapshot), Snapshot()) << "missing";
        EXPECT_EQ(without(snapshot, expected.snapshot), Snapshot()) << "too many";
        s_world->bringBack(snapshot);
    }
}

/// The argument as a test's name; tests/completeness/texts makes the same ones of the headers' arguments.
std::string testName(const testing::TestParamInfo<Entry>& entry)
{
    std::string name;
    for (const char c : entry.param.argument) {
        const bool word = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
        if (word) {
            name += c;
        } else if (!name.ends_with('_')) {
            name += '_';
        }
    }
    return entry.param.variant.empty() ? name : name + "__" + entry.param.variant;
}

class BoundTexts : public testing::Test {
protected:
    /// The keys of the sources whose presentity holds the text.
    std::string sources(const char* presentity)
    {
        return listedKeys<oryx::SourcesRecord>(
            [&](auto& records) { return m_world.library.events.getSources(records, presentity, "pattern"); },
            [](const oryx::SourcesRecord& record) { return record.sourceopaque(); });
    }

    World m_world;
};

TEST_F(BoundTexts, PatternCharactersKeepTheirMeaningInASearch)
{
    for (const char* const presentity : {"a_b'c", "axb'c", "100%", "100 in all", R"(a\b)", "ab"}) {
        m_world.add("INSERT INTO event_sources VALUES ('key', $1, '', 5, 'pattern', $1)", presentity);
    }
    EXPECT_EQ(sources("a_b'c"), "okay\na_b'c\naxb'c\n");
    EXPECT_EQ(sources("100%"), "okay\n100 in all\n100%\n");
    EXPECT_EQ(sources("%"), "okay\n100 in all\n100%\na\\b\na_b'c\nab\naxb'c\n");
    EXPECT_EQ(sources(R"(a\b)"), "okay\nab\n");
    EXPECT_EQ(sources(R"(a\\b)"), "okay\na\\b\n");
    EXPECT_EQ(sources(R"(100\%)"), "okay\n100%\n");
    // The library's own pattern behind a last backslash is a character then.
    EXPECT_EQ(sources(R"(100\)"), "okay\n100%\n");
}

TEST_F(BoundTexts, WhatIsNotUtf8IsRefusedAndCostsNoConnection)
{
    const Snapshot before = m_world.snapshot();
    EXPECT_EQ(told(m_world.library.events.createListMapping("fsm", "o\xff", 9)), "connection error 22021\n");
    int key = 0;
    EXPECT_EQ(told(m_world.library.location.getPublicAddressKey("o\xff", "oryx.example", key)), "query error 22021\n");
    EXPECT_EQ(m_world.snapshot(), before);
    EXPECT_TRUE(m_world.sessionsKept());
}

using WayAndEntry = std::tuple<SessionOptions::Statements, Entry>;

std::string wayAndName(const testing::TestParamInfo<WayAndEntry>& parameters)
{
    const auto& [statements, entry] = parameters.param;
    return testName({entry, 0}) + (statements == SessionOptions::Statements::bound ? "__bound" : "__plain");
}

/// Memory that runs out at each of an operation's allocations, one after the other.
class OutOfMemory : public testing::TestWithParam<WayAndEntry> {
protected:
    static void TearDownTestSuite() { s_world.reset(); }

    OutOfMemory() : m_world(worldOf(std::get<0>(GetParam()))) {}

    /// The answer of the call while the operation's allocation behind so many others fails.
    std::string answer(std::size_t news)
    {
        countNewsOnly(insideOperation);
        failNewAfter(news);
        std::string text;
        try {
            text = m_entry.call(m_world.library, kPlainText);
        } catch (const std::exception& thrown) {
            text = std::string("thrown: ") + thrown.what();
        }
        m_ranOut = newHasFailed();
        failNoNew();
        countNewsOnly(nullptr);
        return text;
    }
    const Entry m_entry = std::get<1>(GetParam());
    World& m_world;
    bool m_ranOut = true; // in the last call

private:
    static World& worldOf(SessionOptions::Statements statements)
    {
        if (!s_world || s_way != statements) {
            s_world.reset(); // databases are named alike
            s_world.emplace(statements);
            s_way = statements;
        }
        return *s_world;
    }

    static std::optional<World> s_world;
    static SessionOptions::Statements s_way;
};

std::optional<World> OutOfMemory::s_world;
SessionOptions::Statements OutOfMemory::s_way;

TEST_P(OutOfMemory, IsAnAnswerAndLeavesNothingHalfDone)
{
    const std::string absent = m_world.arrange(m_entry, kPlainText);
    const World::Expected expected = m_world.expect(m_entry, kPlainText);
    const std::string right = m_world.answer(m_entry, expected, absent, kPlainText);
    const Snapshot before = m_world.snapshot();
    std::string untouched; // what the call answers when it has got no memory at all
    for (std::size_t news = 0; m_ranOut; ++news) {
        SCOPED_TRACE("memory runs out after " + std::to_string(news));
        m_world.library.registrar.okay(); // forgets the SQLSTATE of an earlier failure
        const std::string given = answer(news);
        untouched = news == 0 ? given : untouched;
        if (!m_ranOut || given != untouched) {
            EXPECT_EQ(given, right);
        }
        EXPECT_EQ(given.find("thrown"), std::string::npos) << given;
        if (!m_entry.change.empty()) {
            const Snapshot after = m_world.snapshot();
            // What took effect before memory ran out has taken effect whole.
            EXPECT_TRUE(after == expected.snapshot || (given != right && after == before));
            EXPECT_EQ(m_world.openTransactions(), "0");
            m_world.bringBack(after);
            m_world.arrange(m_entry, kPlainText);
        }
    }
    EXPECT_NE(untouched, "okay\n");
    const Snapshot after = m_world.snapshot();
    EXPECT_EQ(after, before);
    m_world.bringBack(after);
}

INSTANTIATE_TEST_SUITE_P(BothWays, OutOfMemory,
                         testing::Combine(testing::Values(SessionOptions::Statements::plain,
                                                          SessionOptions::Statements::bound),
                                          testing::ValuesIn(oneOfEachOperation())),
                         wayAndName);

INSTANTIATE_TEST_SUITE_P(Bound, Hostile, testing::ValuesIn(allEntries()), testName);

} // namespace
