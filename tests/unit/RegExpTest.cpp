#include <util/RegExp.h>

#include <malloc.h>
#include <regex.h>

#include <cstddef>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include <unit/TraceCapture.h>

namespace regExpTest {

namespace {

using Lines = std::vector<std::string>;

static_assert(!std::is_copy_constructible_v<oryx::RegExp>);
static_assert(!std::is_copy_assignable_v<oryx::RegExp>);

/// Whether the pattern is valid and found in the text.
bool found(const char* pattern, const char* text, bool ignoreCase = false)
{
    oryx::RegExp expression;
    return expression.compile(pattern, ignoreCase) && expression.match(text);
}

TEST(RegExp, holdsNothingBeforeItIsCompiled)
{
    const TraceCapture trace;
    oryx::RegExp expression;
    EXPECT_FALSE(expression.valid());
    EXPECT_FALSE(expression.match("sip:alice@oryx.example"));
    EXPECT_EQ(trace.lines(), (Lines{"RegEx prn checking 'sip:alice@oryx.example' for match on ",
                                    "RegEx prn match failed, invalid regex"}));
}

TEST(RegExp, tracesItsCompilation)
{
    const TraceCapture trace;
    oryx::RegExp expression;
    EXPECT_TRUE(expression.compile("^sip:1[0-9]+@", false));
    EXPECT_TRUE(expression.valid());
    EXPECT_EQ(trace.lines(), (Lines{"RegEx prn compiling '^sip:1[0-9]+@'", "RegEx prn compile ok"}));
}

TEST(RegExp, tracesAMatchAndItsAbsence)
{
    oryx::RegExp expression;
    ASSERT_TRUE(expression.compile("^sip:1[0-9]+@", false));
    const TraceCapture trace;
    EXPECT_TRUE(expression.match("sip:100@oryx.example"));
    EXPECT_FALSE(expression.match("sip:alice@oryx.example"));
    EXPECT_EQ(
        trace.lines(),
        (Lines{"RegEx prn checking 'sip:100@oryx.example' for match on ^sip:1[0-9]+@", "RegEx prn match found",
               "RegEx prn checking 'sip:alice@oryx.example' for match on ^sip:1[0-9]+@", "RegEx prn not a match"}));
}

TEST(RegExp, tracesTextsAsTheyStand)
{
    const TraceCapture trace;
    oryx::RegExp expression;
    EXPECT_TRUE(expression.compile("%s", false));
    EXPECT_TRUE(expression.match("sip:%s%d@oryx.example"));
    EXPECT_EQ(trace.lines(),
              (Lines{"RegEx prn compiling '%s'", "RegEx prn compile ok",
                     "RegEx prn checking 'sip:%s%d@oryx.example' for match on %s", "RegEx prn match found"}));
}

TEST(RegExp, isFoundAnywhere)
{
    EXPECT_TRUE(found("alice", "sip:alice@oryx.example"));
    EXPECT_TRUE(found("example$", "sip:alice@oryx.example"));
    EXPECT_TRUE(found("", "sip:alice@oryx.example"));
    EXPECT_FALSE(found("^alice", "sip:alice@oryx.example"));
    EXPECT_FALSE(found("alice$", "sip:alice@oryx.example"));
    EXPECT_FALSE(found("alice", ""));
}

TEST(RegExp, hasTheExtendedSyntax)
{
    EXPECT_TRUE(found("^sip:(alice|bob)@", "sip:bob@oryx.example"));
    EXPECT_TRUE(found("^sip:[0-9]{3}@", "sip:100@oryx.example"));
    EXPECT_FALSE(found("^sip:[0-9]{3}@", "sip:1000@oryx.example"));
    EXPECT_TRUE(found("^sips?:\\+1", "sip:+15550100@oryx.example"));
    EXPECT_FALSE(found("^sip:al+ice@", "sip:al+ice@oryx.example"));
}

TEST(RegExp, heedsCaseUnlessToldNotTo)
{
    EXPECT_FALSE(found("ALICE", "sip:alice@oryx.example"));
    EXPECT_TRUE(found("ALICE", "sip:alice@oryx.example", true));
    EXPECT_TRUE(found("alice", "SIP:ALICE@ORYX.EXAMPLE", true));
    EXPECT_TRUE(found("^sip:(alice|bob)@", "SIP:BOB@ORYX.EXAMPLE", true));
}

TEST(RegExp, neverMatchesWhenItDoesNotCompile)
{
    const TraceCapture trace;
    oryx::RegExp expression;
    EXPECT_FALSE(expression.compile("sip:(", false));
    EXPECT_FALSE(expression.valid());
    EXPECT_FALSE(expression.match("sip:("));
    EXPECT_EQ(trace.lines(),
              (Lines{"RegEx prn compiling 'sip:('", "RegEx prn compile failed",
                     "RegEx prn checking 'sip:(' for match on sip:(", "RegEx prn match failed, invalid regex"}));
}

TEST(RegExp, tracesNoTextWhereThereIsNone)
{
    const TraceCapture trace;
    oryx::RegExp expression;
    EXPECT_FALSE(expression.match(nullptr));
    EXPECT_EQ(trace.lines(), Lines{"RegEx prn match failed, invalid regex"});
}

TEST(RegExp, isReplacedByTheNextOne)
{
    oryx::RegExp expression;
    EXPECT_TRUE(expression.compile("alice", true));
    EXPECT_TRUE(expression.compile("bob", false));
    EXPECT_FALSE(expression.match("sip:alice@oryx.example"));
    EXPECT_TRUE(expression.match("sip:bob@oryx.example"));
    EXPECT_FALSE(expression.match("sip:BOB@oryx.example"));
}

TEST(RegExp, isGoneAlsoWhenTheNextOneDoesNotCompile)
{
    oryx::RegExp expression;
    EXPECT_TRUE(expression.compile("alice", false));
    EXPECT_FALSE(expression.compile("[", false));
    EXPECT_FALSE(expression.valid());
    EXPECT_FALSE(expression.match("sip:alice@oryx.example"));
    EXPECT_TRUE(expression.compile("alice", false));
    EXPECT_TRUE(expression.match("sip:alice@oryx.example"));
}

TEST(RegExp, canBeLetGoOfMoreThanOnce)
{
    oryx::RegExp expression;
    expression.free();
    EXPECT_TRUE(expression.compile("alice", false));
    const TraceCapture trace;
    expression.free();
    expression.free();
    EXPECT_FALSE(expression.valid());
    EXPECT_FALSE(expression.match("alice"));
    EXPECT_EQ(trace.lines(),
              (Lines{"RegEx prn checking 'alice' for match on alice", "RegEx prn match failed, invalid regex"}));
    EXPECT_TRUE(expression.compile("bob", false));
    EXPECT_TRUE(expression.match("bob"));
}

TEST(RegExp, freesTheExpressionItReplaces)
{
    oryx::RegExp expression;
    EXPECT_TRUE(expression.compile("^sip:(alice|bob)@", false));
    const std::size_t before = mallinfo2().uordblks;
    for (int i = 0; i < 1000; ++i) {
        EXPECT_TRUE(expression.compile("^sip:(alice|bob)@", false));
    }
    // One such expression takes more than a kilobyte.
    EXPECT_LT(mallinfo2().uordblks, before + std::size_t{100} * 1024);
}

std::string randomText(std::mt19937& random, const char* alphabet)
{
    const std::string letters(alphabet);
    std::string text;
    for (auto left = random() % 9; left > 0; --left) {
        text += random() % 2 == 0 ? letters[random() % letters.size()] : "ab"[random() % 2];
    }
    return text;
}

constexpr const char* kLetters = "ab^$.*+?{}()[]|\\1,2-:=w\xc3\xa9";

// What is tried before the automaton must never decide otherwise than the automaton would.
TEST(RegExp, findsWhatRegexecFindsWhateverThePattern)
{
    std::mt19937 random(20261121); // the same patterns in every run
    int valid = 0;
    int matches = 0;
    for (int i = 0; i < 20000; ++i) {
        const std::string pattern = (i % 2 == 0 ? "^" : "") + randomText(random, kLetters);
        oryx::RegExp expression;
        regex_t plain{};
        const bool compiles = regcomp(&plain, pattern.c_str(), REG_EXTENDED) == 0;
        ASSERT_EQ(expression.compile(pattern.c_str(), false), compiles) << pattern;
        for (int j = 0; compiles && j < 5; ++j) {
            const std::string text = j == 0 ? pattern : randomText(random, kLetters);
            const bool match = regexec(&plain, text.c_str(), 0, nullptr, 0) == 0;
            ASSERT_EQ(expression.match(text.c_str()), match) << pattern << " in " << text;
            matches += match ? 1 : 0;
        }
        if (compiles) {
            regfree(&plain);
            ++valid;
        }
    }
    EXPECT_GT(valid, 10000);
    EXPECT_GT(matches, 10000);
}

TEST(RegExp, takesAParenthesisThatClosesNothingAsItself)
{
    EXPECT_TRUE(found("^sip:sales)x@", "sip:sales)x@oryx.example"));
    EXPECT_FALSE(found("^sip:sales)x@", "sip:salesx@oryx.example"));
}

TEST(RegExp, matchesNoNullText)
{
    oryx::RegExp expression;
    EXPECT_TRUE(expression.compile(".*", false));
    EXPECT_FALSE(expression.match(nullptr));
}

} // namespace

} // namespace regExpTest
