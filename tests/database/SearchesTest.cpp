#include "database/PresenceFixture.h"

#include "support/MigrationTest.h"

#include <gtest/gtest.h>
#include <libpq-fe.h>

#include <memory>
#include <string>
#include <vector>

namespace searchesTest {

namespace {

using oryx::PresenceRecord;
using oryx::SourcesRecord;
using oryx::WatchersRecord;

/// Telephone numbers in one domain: what a search has in common with every row is longer than what tells rows apart.
constexpr const char* kNumbers = R"(
    CREATE TEMPORARY VIEW numbers AS
        SELECT n, '4930' || 1000000 + n * 7919 % 9000000 || '@oryx.example' AS uri FROM generate_series(1, current_setting('test.numbers')::int) AS n;
    INSERT INTO subscription_states (subscriptionid, fromhdr, tohdr, subcseq, notcseq, requesturi, packageid)
        SELECT (ARRAY['incoming#', 'outgoing#'])[1 + n % 2] || n, '<sip:' || uri || '>', '<sip:' || uri || '>', 1, 1,
               'sip:' || uri, 'presence#' || n FROM numbers;
    INSERT INTO event_watchers (presentitykey, watcheropaque) SELECT uri || '#presence', 'incoming#' || n FROM numbers;
    INSERT INTO event_sources (presentitykey, sourceopaque, event, presentity)
        SELECT uri || '#presence', 'source' || n, 'presence', 'sip:' || uri FROM numbers)";
/// Of the row with n = 4712, a dialog received, and with n = 4711, one sent.
constexpr const char* kReceived = "49302314328@oryx.example";
constexpr const char* kSent = "49302306409@oryx.example";

struct Search {
    std::string statement; // with the pattern's places as $1, $2, ...
    std::string patterns;
};

const std::vector<Search> kSearches{
    {"SELECT * FROM event_watchers WHERE presentitykey like $1", "'%%49302314328@oryx.example#presence%%'"},
    {"SELECT * FROM event_sources WHERE presentity like $1 and event like $2",
     "'%%49302314328@oryx.example%%','%%presence%%'"},
    {"SELECT * FROM event_sources WHERE presentity like $1 and event like $2", "'%%49302314328%%','%%presence%%'"},
    {"SELECT * FROM subscription_states WHERE subscriptionid like '%%incoming#%%' and fromhdr like $1 AND requesturi like $2 AND packageid like $3",
     "'%%sip:49302314328@oryx.example%%','%%sip:49302314328@oryx.example%%','%%presence#%%'"},
    {"SELECT * FROM subscription_states WHERE subscriptionid like '%%outgoing#%%' and tohdr like $1 AND packageid like $2",
     "'%%sip:49302306409@oryx.example%%','%%presence#%%'"},
};

class Searches : public PresenceTest {
protected:
    void storeNumbers(int count)
    {
        sql(kSetIndexesAside);
        sql("SET test.numbers = " + std::to_string(count));
        sql(kNumbers);
        sql(kBuildIndexes);
        sql("VACUUM ANALYZE subscription_states, event_watchers, event_sources");
    }

    /// How many of the database's pages a statement looks at, whether in memory or not.
    int pages(const std::string& statement)
    {
        return std::stoi(m_session.value(
            "SELECT (plan #>> '{0,Plan,Shared Hit Blocks}')::int + (plan #>> '{0,Plan,Shared Read Blocks}')::int"
            " FROM explained('" +
            doubled(statement) + "') AS plan"));
    }

    static std::string doubled(const std::string& text)
    {
        std::string made;
        for (const char c : text) {
            made.append(c == '\'' ? 2U : 1U, c);
        }
        return made;
    }
};

/// A database whose schema ends before the searches, with rows in it.
class DatabaseBeforeSearches : public MigrationTest {
protected:
    DatabaseBeforeSearches() : MigrationTest("150") {}
};

TEST_F(Searches, AskAnIndexForThePartThatTellsRowsApart)
{
    EXPECT_EQ(
        rows("SELECT pattern, telling_part(pattern) FROM unnest(ARRAY["
             "'%%4930123456789@oryx.example#presence%%', '%%presence#4930123456789@oryx.example%%',"
             "'%%sip:alice@oryx.example%%', '%%alice@host7.example%%', '%%sip:711@oryx.example%%',"
             "'%%4930123456789%%', '%%4930123456789#presence%%', '%%presence#711%%', '%%oryx.example%%',"
             "'%%<sip:al@oryx.example>;tag=9%%', 'presence', '%%', '',"
             "'%%493012345_789@oryx.example%%', '%%4930%789@oryx.example%%', '%%4930\\%789@oryx.example%%', NULL])"
             " AS pattern"),
        "%%4930123456789@oryx.example#presence%%|%23456789%\n"
        "%%presence#4930123456789@oryx.example%%|%23456789%\n"
        "%%sip:alice@oryx.example%%|%ip:alice%\n"
        "%%alice@host7.example%%|%alice%\n"
        "%%sip:711@oryx.example%%|%sip:711%\n"
        "%%4930123456789%%|%23456789%\n"
        "%%4930123456789#presence%%|%23456789%\n"
        "%%presence#711%%|%711%\n"
        "%%oryx.example%%|%.example%\n"
        "%%<sip:al@oryx.example>;tag=9%%|%<sip:al%\n"
        "presence|%presence%\n"
        "%%|%%\n"
        "|%%\n"
        "%%493012345_789@oryx.example%%|%%493012345_789@oryx.example%%\n"
        "%%4930%789@oryx.example%%|%%4930%789@oryx.example%%\n"
        "%%4930\\%789@oryx.example%%|%%4930\\%789@oryx.example%%\n"
        "NULL|NULL\n");
}

TEST_F(Searches, FindWhatLikeFinds)
{
    // Every text and pattern of up to a few signs, and some as they are searched for. A backslash at the end is an
    // error.
    sql(R"(
        CREATE TEMPORARY TABLE texts AS
            WITH RECURSIVE made (text) AS (
                SELECT '' UNION ALL SELECT text || sign FROM made, unnest(ARRAY['a', '1', '@', '#', '%', '\']) AS sign
                    WHERE length(text) < 3)
            SELECT text FROM made
            UNION ALL VALUES (NULL), ('sip:49301234567@oryx.example'), ('49301234567@oryx.example#presence'),
                             ('"4930@home" <sip:alice@oryx.example>;tag=49301234567'), ('ALICE@ORYX.EXAMPLE'), ('aaa@'), ('1@aaa@1');
        CREATE TEMPORARY TABLE patterns AS
            WITH RECURSIVE made (pattern) AS (
                SELECT '' UNION ALL SELECT pattern || sign FROM made, unnest(ARRAY['a', '1', '@', '#', '%', '_', '\']) AS sign
                    WHERE length(pattern) < 3)
            SELECT pattern FROM made WHERE right(pattern, 1) <> '\'
            UNION ALL SELECT '%%' || pattern || '%%' FROM made WHERE right(pattern, 1) <> '\'
            UNION ALL VALUES (NULL), ('%%49301234567@oryx.example%%'), ('%%9301234567@%%'), ('%%01234567%%'),
                             ('%%ome" <sip:alice@%%'), ('%%tag=49301234567%%'), ('%%alice@oryx.example%%'), ('%%4930_234567@%%'),
                             ('sip:49301234567@oryx.example'), ('49301234567@oryx.example'),
                             ('%aaa@%'), ('%aaa@'), ('aaa@%'), ('%1@aaa@1%'))");
    EXPECT_EQ(
        rows("SELECT text, pattern FROM texts, patterns WHERE"
             " (text::searched_text LIKE pattern::searched_text) IS DISTINCT FROM textlike(text, pattern) LIMIT 5"),
        "");
    EXPECT_EQ(rows("SELECT count(*) > 1000 FROM texts, patterns WHERE text::searched_text LIKE pattern::searched_text"),
              "t\n");
}

TEST_F(Searches, LookAtFewPagesForANumberAmongManyOfItsDomain)
{
    storeNumbers(30000);
    sql("CREATE FUNCTION explained(statement text) RETURNS json LANGUAGE plpgsql AS $$ DECLARE plan json; BEGIN"
        " EXECUTE 'EXPLAIN (ANALYZE, BUFFERS, FORMAT JSON) ' || statement INTO plan; RETURN plan; END $$");
    sql("SET max_parallel_workers_per_gather = 0");
    for (const Search& search : kSearches) {
        sql("PREPARE search AS " + search.statement);
        for (const std::string mode : {"force_custom_plan", "force_generic_plan"}) {
            sql("SET plan_cache_mode = " + mode);
            const std::string execution = "EXECUTE search (" + search.patterns + ")";
            EXPECT_LT(pages(execution), 40) << mode << "\n" << rows("EXPLAIN (ANALYZE, BUFFERS) " + execution);
        }
        sql("DEALLOCATE search");
    }
}

TEST_F(Searches, FindANumberAmongManyOfItsDomain)
{
    storeNumbers(5000);
    // The sixth and later ones, when bound, have a plan that knows no pattern.
    for (int time = 0; time < 7; ++time) {
        std::vector<WatchersRecord> watchers;
        EXPECT_EQ(outcome(m_executor.getWatchers(watchers, "presence", kReceived)), "okay");
        ASSERT_EQ(watchers.size(), 1U);
        EXPECT_EQ(watchers.front().watcheropaque(), "incoming#4712");
        std::vector<SourcesRecord> sources;
        EXPECT_EQ(outcome(m_executor.getSources(sources, kSent, "presence")), "okay");
        ASSERT_EQ(sources.size(), 1U);
        EXPECT_EQ(sources.front().sourceopaque(), "source4711");
        std::vector<PresenceRecord> dialogs;
        EXPECT_EQ(outcome(m_executor.getIncomingSubscriptions(dialogs, kReceived, kReceived, "presence")), "okay");
        EXPECT_EQ(outcome(m_executor.getOutgoingSubscribes(dialogs, kSent, "presence")), "okay");
        ASSERT_EQ(dialogs.size(), 2U);
        EXPECT_EQ(dialogs.front().subscriptionid() + " " + dialogs.back().subscriptionid(),
                  "incoming#4712 outgoing#4711");
        EXPECT_EQ(outcome(m_executor.getOutgoingSubscribes(dialogs, kReceived, "presence")), "not found");
    }
}

TEST_F(Searches, KeepNoStoredRowWaitingForTheOthers)
{
    EXPECT_EQ(rows("SELECT relname, reloptions FROM pg_class JOIN pg_index ON indexrelid = pg_class.oid"
                   " WHERE relam = (SELECT oid FROM pg_am WHERE amname = 'gin') AND indrelid IN"
                   " ('subscription_states'::regclass, 'event_watchers'::regclass, 'event_sources'::regclass)"
                   " ORDER BY relname"),
              "event_sources_searched|{fastupdate=off}\nevent_watchers_presentitykey|{fastupdate=off}\n"
              "subscription_states_received|{fastupdate=off}\nsubscription_states_received_package|{fastupdate=off}\n"
              "subscription_states_sent|{fastupdate=off}\n");
}

TEST_F(Searches, AreOfTextsForEveryClient)
{
    const std::unique_ptr<PGconn, void (*)(PGconn*)> client(
        PQconnectdb(("dbname=" + m_database.name() + " port=" + server::port()).c_str()), PQfinish);
    const std::unique_ptr<PGresult, void (*)(PGresult*)> result(
        PQexec(client.get(), "SELECT fromhdr, tohdr, requesturi, presentitykey, presentity, subscriptionid"
                             " FROM subscription_states, event_watchers"),
        PQclear);
    ASSERT_EQ(PQnfields(result.get()), 6) << PQresultErrorMessage(result.get());
    for (int column = 0; column < 6; ++column) {
        EXPECT_EQ(PQftype(result.get(), column), 25U) << PQfname(result.get(), column);
    }
}

TEST_F(DatabaseBeforeSearches, IsMigratedWithoutWritingItsRowsAnew)
{
    m_session->run(
        "INSERT INTO subscription_states (subscriptionid, fromhdr, tohdr, requesturi, packageid)"
        " SELECT (ARRAY['incoming#', 'outgoing#'])[1 + n % 2] || n, 'sip:' || n, 'sip:' || n, 'sip:' || n, 'presence#'"
        " FROM generate_series(1, 1000) AS n;"
        "INSERT INTO event_watchers SELECT n || '@oryx.example#presence', 'incoming#' || n FROM generate_series(1, 1000) AS n;"
        "INSERT INTO event_sources SELECT n || '@oryx.example#presence', 'source' || n, NULL, 1, 'presence', 'sip:' || n"
        " FROM generate_series(1, 1000) AS n;");
    const std::string files = "SELECT relname, relfilenode FROM pg_class WHERE relname IN ('subscription_states',"
                              " 'subscription_states_pkey', 'event_watchers', 'event_watchers_pkey',"
                              " 'event_watchers_presentitykey', 'event_sources', 'event_sources_pkey') ORDER BY 1";
    const std::string sums =
        "SELECT (SELECT md5(string_agg(d::text, '|' ORDER BY subscriptionid)) FROM subscription_states d),"
        " (SELECT md5(string_agg(w::text, '|' ORDER BY watcheropaque)) FROM event_watchers w),"
        " (SELECT md5(string_agg(s::text, '|' ORDER BY sourceopaque)) FROM event_sources s)";
    const std::string before = m_session->rows(files) + m_session->rows(sums);

    EXPECT_EQ(apply(), 0) << told();

    EXPECT_EQ(m_session->rows(files) + m_session->rows(sums), before);
    EXPECT_EQ(m_session->rows(
                  "SELECT watcheropaque FROM event_watchers WHERE presentitykey LIKE '%%777@oryx.example#presence%%'"),
              "incoming#777\n");
    EXPECT_EQ(m_session->rows(
                  "SELECT tablename, attname FROM pg_stats WHERE tablename || '.' || attname IN"
                  " ('subscription_states.fromhdr', 'subscription_states.tohdr', 'subscription_states.requesturi',"
                  " 'event_watchers.presentitykey', 'event_sources.presentity') ORDER BY 1, 2"),
              "event_sources|presentity\nevent_watchers|presentitykey\nsubscription_states|fromhdr\n"
              "subscription_states|requesturi\nsubscription_states|tohdr\n");
}

} // namespace

} // namespace searchesTest
