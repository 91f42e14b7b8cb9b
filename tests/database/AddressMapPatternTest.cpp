#include "support/DatabaseTest.h"
#include "support/MigrationTest.h"
#include "support/Show.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace addressMapPatternTest {

namespace {

const std::string kTooLarge = "stands for more than 1000 characters and operators when its repetitions are written out";
const std::string kTooManyStates = "needs more than 500 states: what follows a repetition matches what is repeated";

const std::string kTooManyWays =
    "has $ or a word's edge in it, does not begin with ^, and may go on in more than 16 ways at once";

std::string many(const std::string& text, int count)
{
    std::string all;
    for (int i = 0; i < count; ++i) {
        all += text;
    }
    return all;
}

class AddressMapPattern : public ServiceTest {
protected:
    /// Why the schema refuses a pattern, "fine" when it does not.
    std::string judged(const std::string& pattern)
    {
        return m_session.value("SELECT coalesce(address_map_pattern_refusal($p$" + pattern + "$p$), 'fine')");
    }

    /// The first line of what goes wrong with statements, "okay" when nothing does.
    std::string done(const std::string& statements)
    {
        try {
            sql(statements);
        } catch (const std::runtime_error& failure) {
            const std::string what = failure.what();
            return what.substr(0, what.find('\n'));
        }
        return "okay";
    }
};

TEST_F(AddressMapPattern, OfADialPlanIsFine)
{
    for (const std::string pattern : {
             R"()",
             R"(^sip:1000017@oryx\.example)",
             R"(^sips?:(1000017)@oryx\.example)",
             R"(^sips?:(\+?49)?[0-9]{3,15}@(gw[0-9]{1,2}|proxy)\.oryx\.example(:[0-9]{1,5})?(;.*)?$)",
             R"(^sip:\+?(1|2[07]|3[0123469]|4[013456789]|5[12345678]|6[0123456]|7|8[1246]|9[0123458])[0-9]{4,12}@)",
             R"(^sips?:[^@]+@[^;:]+(:[0-9]+)?(;[^;=]+(=[^;]*)?)*$)",
             R"(^sip:sales@|^sip:support@|^sip:(help|info)-?desk@.*\.example$)",
             R"(.*@.*\.example)",
             R"(sales|support)",
             R"(\bsales\b)",
             R"(^sip:[[:alnum:]_.-]+@oryx\.example$)",
             R"(^sip:(\w|%[[:xdigit:]]{2})+@)",
             R"([]a-b][[.-.]x][[=a=]]\.\\\^)",
         }) {
        EXPECT_EQ(judged(pattern), "fine") << pattern;
    }
    EXPECT_EQ(rows("SELECT address_map_pattern_refusal(NULL)"), "NULL\n");
}

TEST_F(AddressMapPattern, WithABackReferenceIsRefused)
{
    const std::vector<std::pair<std::string, std::string>> patterns{
        {R"((a)\1)", R"(has a back reference (\1))"},
        {R"(((a)(b)\9))", R"(has a back reference (\9))"},
        {R"((a)\\\1)", R"(has a back reference (\1))"},
        {R"((a)[]]\1)", R"(has a back reference (\1))"},
        {R"((a)[[:alpha:]\]\2)", R"(has a back reference (\2))"},
        {R"((a)\\1)", "fine"},
        {R"((a)[\1])", "fine"},
        {R"((a)[]\1])", "fine"},
        {R"((a)[^]\1])", "fine"},
        {R"((a)[[:alpha:]\1])", "fine"},
        {R"((a)[[.].]\1])", "fine"},
        {R"((a)\0)", "fine"},
    };
    for (const auto& [pattern, expected] : patterns) {
        EXPECT_EQ(judged(pattern), expected) << pattern;
    }
}

TEST_F(AddressMapPattern, IsRefusedBeyondEachLimitAndNotAtIt)
{
    const std::vector<std::pair<std::string, std::string>> patterns{
        {many("a", 500), "fine"},
        {many("a", 420) + "[" + many("a", 90) + "]", "fine"},
        {many("a", 420) + "[" + many("a", 91) + "]", "is longer than 512 bytes"},
        {"[" + many("\xc3\xa9", 255) + "]", "fine"},
        {"[" + many("\xc3\xa9", 255) + "a]", "is longer than 512 bytes"},
        {many("(", 16) + "a" + many(")", 16), "fine"},
        {many("(", 17) + "a" + many(")", 17), "nests parentheses more than 16 deep"},
        {many("\\(", 17) + many("[(]", 17), "fine"},
        {"(ab){249}", "fine"},
        {"(ab){250}", kTooLarge},
        {"(a|b){124}", "fine"},
        {"((){124}", "repeats what may match nothing"},
        {"a{998}", kTooManyStates},
        {"a{999}", kTooLarge},
        {"a{9}{9}{9}", kTooManyStates},
        {"a+++++++", "fine"},
        {"a++++++++", kTooLarge},
        {"a{2,3}{4,5}{6,7}", "fine"},
        {"a{2,30}{4,50}{6,70}", kTooLarge},
        {"a{32767}", kTooLarge},
        {"a{500}", "fine"},
        {"a{501}", kTooManyStates},
        {".*a.{7}b", "fine"},
        {".*a.{8}b", kTooManyStates},
        {R"(.*\b.{6}b)", "fine"},
        {R"(.*\b.{8}b)", kTooManyStates},
        {"[0-9]{1,16}@$", "fine"},
        {"[0-9]{1,17}@$", kTooManyWays},
        {"[0-9]{1,17}\\>", "fine"},
        {"[0-9]{1,18}\\>", kTooManyWays},
        {"^[0-9]{1,17}@$", "fine"},
        {"[0-9]{1,17}@", "fine"},
        {"a{0,98}b", "fine"},
        {"a{0,99}b", "may go on in too many ways at once (5050 in all states together, at most 5000)"},
    };
    for (const auto& [pattern, expected] : patterns) {
        EXPECT_EQ(judged(pattern), expected) << pattern;
    }
}

TEST_F(AddressMapPattern, ThatIsMostlyEmptyIsRefused)
{
    const std::vector<std::pair<std::string, std::string>> patterns{
        {"(a*)*", "repeats what may match nothing"},
        {"(a|)+", "repeats what may match nothing"},
        {"(a?b?){2}", "repeats what may match nothing"},
        {"a**", "repeats what may match nothing"},
        {"(a*b)*", "fine"},
        {"(a*)?", "fine"},
        {"(^a)*", "fine"},
        {"(^|a)*", "repeats what may match nothing"},
        {"(^a)?", "fine"},
        {"[^a]*[$]+", "fine"},
        {many("(^|a)", 5), "fine"},
        {many("(^|a)", 6), "lets its anchors hold in more than 256 ways"},
        {many("\\b", 4) + "a", "fine"},
        {many("\\B", 5) + "a", "lets its anchors hold in more than 256 ways"},
        {many("\\>", 8) + "a", "fine"},
        {many("\\<", 9) + "a", "lets its anchors hold in more than 256 ways"},
        {many("^", 8) + "a", "fine"},
        {many("$", 9) + "a", "lets its anchors hold in more than 256 ways"},
        {"^a$" + many("|^a$", 63), "fine"},
        {"^a$" + many("|^a$", 64), "lets its anchors hold in more than 256 ways"},
        {many("()", 16), "fine"},
        {many("()", 17), "has more than 16 empty alternatives or groups"},
        {many("a|", 16), "fine"},
        {many("|", 17), "has more than 16 empty alternatives or groups"},
    };
    for (const auto& [pattern, expected] : patterns) {
        EXPECT_EQ(judged(pattern), expected) << pattern;
    }
}

TEST_F(AddressMapPattern, ThatDoesNotCompileIsLeftToMatchNothing)
{
    for (const std::string pattern :
         {"*a", "^*", "(|{2})", "a{1", "a{}", "a{2,1}", "a{99999}", "(a", "[a", "a\\", "[[:alpha:", "[[.a", "\\b*"}) {
        EXPECT_EQ(judged(pattern), "fine") << pattern;
    }
}

TEST_F(AddressMapPattern, IsCheckedWhereverARowIsWritten)
{
    const std::string refusal = R"(ERROR:  the pattern has a back reference (\1))";
    EXPECT_EQ(done("INSERT INTO address_map (handle, csid, pattern) VALUES ('sales', 12, '(a)\\1')"), refusal);
    EXPECT_EQ(done("INSERT INTO address_map (handle, csid, pattern) VALUES ('sales', 12, '^sip:1@'),"
                   " ('none', 12, NULL), ('empty', 12, '')"),
              "okay");
    EXPECT_EQ(done("UPDATE address_map SET pattern = '(a)\\1' WHERE handle = 'sales'"), refusal);
    EXPECT_EQ(rows("SELECT handle, pattern FROM address_map ORDER BY map_id"), "sales|^sip:1@\nnone|NULL\nempty|\n");
}

TEST_F(AddressMapPattern, IsRefusedAsAViolationOfANamedConstraint)
{
    sql("CREATE FUNCTION refused() RETURNS text LANGUAGE plpgsql AS $$"
        "DECLARE state text; named text; of_table text; of_column text; told text;"
        "BEGIN"
        "    INSERT INTO address_map (handle, csid, pattern) VALUES ('sales', 12, '(a)\\1');"
        "    RETURN NULL;"
        "EXCEPTION WHEN OTHERS THEN"
        "    GET STACKED DIAGNOSTICS state = RETURNED_SQLSTATE, named = CONSTRAINT_NAME, of_table = TABLE_NAME,"
        "                            of_column = COLUMN_NAME, told = MESSAGE_TEXT;"
        "    RETURN concat_ws(' ', state, named, of_table, of_column) || ': ' || told;"
        "END $$");
    EXPECT_EQ(rows("SELECT refused()"),
              "23514 address_map_pattern_is_safe address_map pattern: the pattern has a back reference (\\1)\n");
    EXPECT_EQ(rows("SELECT conname FROM pg_constraint WHERE conrelid = 'address_map'::regclass AND contype = 'c'"),
              "address_map_pattern_is_safe\n");
}

TEST_F(AddressMapPattern, IsJudgedQuicklyHoweverLong)
{
    sql("SET statement_timeout = '20s'");
    for (const std::string made :
         {"repeat('(a|b)*', 20000000)", "'[' || repeat('a', 100000000)", "repeat('((((', 127)", "repeat('.*', 250)",
          "repeat('[ab]?', 90)", "'a{' || repeat('9', 500) || '}'", "repeat('(.*a|b+.)', 50)"}) {
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_NE(done("SELECT address_map_pattern_refusal(" + made + ")"), "") << made;
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(15)) << made;
    }
}

TEST_F(AddressMapPattern, CanBeWrittenByWhomAnOperatorLets)
{
    sql("DO $$ BEGIN CREATE ROLE oryx_test_provisioning NOLOGIN; EXCEPTION WHEN duplicate_object THEN NULL; END $$;"
        "GRANT USAGE ON SCHEMA public TO oryx_test_provisioning;"
        "GRANT INSERT ON address_map TO oryx_test_provisioning;"
        "SET ROLE oryx_test_provisioning; SET search_path = ''");
    const std::string insertion = "INSERT INTO public.address_map (handle, csid, pattern) VALUES ('sales', 12, ";
    EXPECT_EQ(done(insertion + "'^sips?:[0-9]{3,5}@.*')"), "okay");
    EXPECT_EQ(done(insertion + "'a{999}{999}')"), "ERROR:  the pattern " + kTooLarge);
    sql("RESET ROLE; RESET search_path; REVOKE ALL ON SCHEMA public FROM oryx_test_provisioning;"
        "REVOKE ALL ON address_map FROM oryx_test_provisioning");
}

TEST_F(AddressMapPattern, LetsReadersSeeWhatWasRefusedAndServersNot)
{
    sql("SET ROLE oryx_reader");
    EXPECT_EQ(done("SELECT * FROM address_map_refused"), "okay");
    EXPECT_EQ(done("DELETE FROM address_map_refused"), "ERROR:  permission denied for table address_map_refused");
    EXPECT_EQ(done("SELECT address_map_pattern_refusal('(a*)*')"), "okay");
    sql("SET ROLE oryx_server");
    EXPECT_EQ(done("SELECT * FROM address_map_refused"), "ERROR:  permission denied for table address_map_refused");
    sql("RESET ROLE");
}

// A database from before the rule ----------------------------------------------------------------------------------

class OlderDatabase : public MigrationTest {
protected:
    OlderDatabase() : MigrationTest("120") {}

    const server::Database m_other; // with which comes the role that the library connects as
};

TEST_F(OlderDatabase, KeepsGoodMapsAndMovesTheOthersAside)
{
    m_session->run("INSERT INTO contact_set (csid) VALUES (12), (13);"
                   "INSERT INTO contact (csid, address) VALUES (12, 'sip:$user@sales'), (13, 'sip:$user@help');"
                   "INSERT INTO address_map (map_id, handle, csid, pattern, modification_time, priority) VALUES"
                   " (101, 'twice', 13, '^sip:(.*)\\1@', '1997-12-17 07:37:16', 1),"
                   " (102, 'sales', 12, '^sip:[0-9]{3,5}@', '1997-12-17 07:37:17', 2),"
                   " (103, NULL, 12, repeat('(a', 17), '1997-12-17 07:37:18', 3),"
                   " (104, 'none', 12, NULL, '1997-12-17 07:37:19', NULL),"
                   " (105, 'bro''ken', 12, '(a', '1997-12-17 07:37:20', 4)");
    const std::string kept =
        m_session->rows("SELECT * FROM address_map WHERE map_id IN (102, 104, 105) ORDER BY map_id");

    EXPECT_EQ(apply(), 0);

    EXPECT_EQ(warnings(),
              "WARNING:  address map 101 (handle 'twice', csid 13) is moved to address_map_refused: its pattern has a"
              " back reference (\\1)\n"
              "WARNING:  address map 103 (handle NULL, csid 12) is moved to address_map_refused: its pattern nests"
              " parentheses more than 16 deep\n");
    EXPECT_EQ(m_session->rows("SELECT * FROM address_map ORDER BY map_id"), kept);
    EXPECT_EQ(
        m_session->rows("SELECT map_id, handle, csid, pattern, to_char(modification_time, 'YYYY-MM-DD HH24:MI:SS'),"
                        " priority, refusal, refused_at > now() - interval '1 hour' FROM address_map_refused"
                        " ORDER BY map_id"),
        "101|twice|13|^sip:(.*)\\1@|1997-12-17 07:37:16|1|has a back reference (\\1)|t\n"
        "103|NULL|12|" +
            many("(a", 17) + "|1997-12-17 07:37:18|3|nests parentheses more than 16 deep|t\n");

    setenv("PGSSLMODE", "disable", 1);
    oryx::LocationService service;
    ASSERT_TRUE(service.connect(("postgresql://127.0.0.1/" + m_name).c_str(), server::kUser, server::kPassword).okay());
    std::string ordering;
    bool replaceUri = false;
    std::vector<oryx::ContactRecord> contacts;
    EXPECT_EQ(outcome(service.lookupAddressMap("sip:4711@x", ordering, replaceUri, contacts)), "okay");
    ASSERT_EQ(contacts.size(), 1U);
    EXPECT_EQ(contacts.front().address(), "sip:4711@sales");

    // Mended, as docs/schema.md says.
    m_session->run("UPDATE address_map_refused SET pattern = '^sip:twice@' WHERE map_id = 101;"
                   "WITH mended AS (DELETE FROM address_map_refused WHERE address_map_pattern_refusal(pattern) IS NULL"
                   "                RETURNING *)"
                   "INSERT INTO address_map (map_id, handle, csid, pattern, priority)"
                   "    SELECT map_id, handle, csid, pattern, priority FROM mended;");
    EXPECT_EQ(m_session->rows("SELECT map_id FROM address_map_refused"), "103\n");
    contacts.clear();
    EXPECT_EQ(outcome(service.lookupAddressMap("sip:twice@x", ordering, replaceUri, contacts)), "okay");
}

TEST_F(OlderDatabase, IsDumpedAndRestoredWithTheRule)
{
    ASSERT_EQ(apply(), 0) << told();
    m_session->run(
        "INSERT INTO contact_set (csid) VALUES (12);"
        "INSERT INTO address_map (handle, csid, pattern) VALUES ('a', 12, '^sip:(a|\\bb)[[:alnum:]]{1,9}.*$')");
    server::Session session(restore());
    EXPECT_EQ(session.rows("SELECT handle FROM public.address_map"), "a\n");
    EXPECT_THROW(session.run("UPDATE public.address_map SET pattern = '(a*)*'"), std::runtime_error);
}

} // namespace

} // namespace addressMapPatternTest
