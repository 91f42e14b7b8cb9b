#include <dal/AddressMap.h>

#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <unit/TraceCapture.h>

namespace addressMapTest {

namespace {

using Lines = std::vector<std::string>;

constexpr time_t kModified = 882344236;

/// The first characters of every line that an address map itself traces.
constexpr const char* kOwnChannel = "AddressMap ";

/// The address map's own lines, without those of its expression.
Lines ownLines(const TraceCapture& trace)
{
    Lines lines = trace.lines();
    std::erase_if(lines, [](const std::string& line) { return !line.starts_with(kOwnChannel); });
    return lines;
}

TEST(AddressMap, isEmptyAtFirst)
{
    oryx::AddressMap map;
    EXPECT_STREQ(map.key(), "");
    EXPECT_STREQ(map.pattern(), "");
    const TraceCapture trace;
    EXPECT_FALSE(map.matches("sip:alice@oryx.example"));
    EXPECT_EQ(trace.lines(), (Lines{"AddressMap prn checking regex match for sip:alice@oryx.example against ",
                                    "RegEx prn checking 'sip:alice@oryx.example' for match on ",
                                    "RegEx prn match failed, invalid regex"}));
}

TEST(AddressMap, keepsItsKeyAndContactSet)
{
    oryx::AddressMap map;
    map.setKey("sales-17");
    map.setCsid(17);
    map.setKey(nullptr);
    EXPECT_STREQ(map.key(), "sales-17");
    EXPECT_EQ(map.csid(), 17);
    map.setKey("");
    EXPECT_STREQ(map.key(), "");
}

TEST(AddressMap, tracesItsCompilation)
{
    const TraceCapture trace;
    oryx::AddressMap map;
    map.compile("^sip:1[0-9]+@", kModified);
    EXPECT_STREQ(map.pattern(), "^sip:1[0-9]+@");
    EXPECT_EQ(trace.lines(), (Lines{"AddressMap prn compiling expression '^sip:1[0-9]+@'",
                                    "RegEx prn compiling '^sip:1[0-9]+@'", "RegEx prn compile ok"}));
}

TEST(AddressMap, compilesAPartOfItsOwnPattern)
{
    oryx::AddressMap map;
    map.compile("^sip:1[0-9]+@", kModified);
    map.compile(map.pattern() + 1, kModified + 1);
    EXPECT_STREQ(map.pattern(), "sip:1[0-9]+@");
    EXPECT_TRUE(map.matches("<sip:100@oryx.example>"));
    EXPECT_FALSE(map.matches("<sip:200@oryx.example>"));
}

TEST(AddressMap, keepsATimeAfter2038)
{
    constexpr auto kLast = std::numeric_limits<time_t>::max();
    oryx::AddressMap map;
    map.compile("^sip:1", kLast - 1);
    map.compile("^sip:2", kLast);
    EXPECT_TRUE(map.matches("sip:2@oryx.example"));
    map.compile("^sip:3", kLast);
    EXPECT_TRUE(map.matches("sip:2@oryx.example"));
}

TEST(AddressMap, tracesAMatchAndItsAbsence)
{
    oryx::AddressMap map;
    map.compile("^sip:1", kModified);
    const TraceCapture trace;
    EXPECT_TRUE(map.matches("sip:100@oryx.example"));
    EXPECT_FALSE(map.matches("sip:200@oryx.example"));
    EXPECT_EQ(trace.lines(),
              (Lines{"AddressMap prn checking regex match for sip:100@oryx.example against ^sip:1",
                     "RegEx prn checking 'sip:100@oryx.example' for match on ^sip:1", "RegEx prn match found",
                     "AddressMap prn checking regex match for sip:200@oryx.example against ^sip:1",
                     "RegEx prn checking 'sip:200@oryx.example' for match on ^sip:1", "RegEx prn not a match"}));
}

TEST(AddressMap, hasTheExtendedSyntaxAndHeedsCase)
{
    oryx::AddressMap map;
    map.compile("(alice|bob)@", kModified);
    EXPECT_TRUE(map.matches("sip:bob@oryx.example"));
    EXPECT_FALSE(map.matches("sip:BOB@oryx.example"));
}

TEST(AddressMap, isCompiledAgainOnlyWhenItsRowIsNewer)
{
    oryx::AddressMap map;
    map.compile("alice", kModified);
    for (const time_t modified : {kModified, kModified - 1, time_t{0}}) {
        const TraceCapture trace;
        map.compile("bob", modified);
        EXPECT_EQ(trace.lines(), Lines{"AddressMap prn expression already compiled"});
        EXPECT_TRUE(map.matches("sip:alice@oryx.example"));
    }
    map.compile("bob", kModified + 1);
    EXPECT_FALSE(map.matches("sip:alice@oryx.example"));
    EXPECT_TRUE(map.matches("sip:bob@oryx.example"));
}

TEST(AddressMap, showsTheLatestPatternBesideTheExpressionInForce)
{
    oryx::AddressMap map;
    map.compile("alice", kModified);
    map.compile("bob", kModified);
    EXPECT_STREQ(map.pattern(), "bob");
    const TraceCapture trace;
    EXPECT_FALSE(map.matches("sip:bob@oryx.example"));
    EXPECT_EQ(trace.lines(),
              (Lines{"AddressMap prn checking regex match for sip:bob@oryx.example against bob",
                     "RegEx prn checking 'sip:bob@oryx.example' for match on alice", "RegEx prn not a match"}));
}

TEST(AddressMap, withoutAModificationTimeIsCompiledEveryTime)
{
    oryx::AddressMap map;
    map.compile("alice", 0);
    EXPECT_TRUE(map.matches("sip:alice@oryx.example"));
    map.compile("bob", 0);
    EXPECT_TRUE(map.matches("sip:bob@oryx.example"));
    EXPECT_FALSE(map.matches("sip:alice@oryx.example"));
}

TEST(AddressMap, whosePatternDoesNotCompileWaitsForANewerOne)
{
    oryx::AddressMap map;
    const TraceCapture trace;
    map.compile("sip:(", kModified);
    map.compile("alice", kModified);
    EXPECT_FALSE(map.matches("sip:alice@oryx.example"));
    EXPECT_EQ(trace.lines(), (Lines{"AddressMap prn compiling expression 'sip:('", "RegEx prn compiling 'sip:('",
                                    "RegEx prn compile failed", "AddressMap prn expression already compiled",
                                    "AddressMap prn checking regex match for sip:alice@oryx.example against alice",
                                    "RegEx prn checking 'sip:alice@oryx.example' for match on sip:(",
                                    "RegEx prn match failed, invalid regex"}));
    map.compile("alice", kModified + 1);
    EXPECT_TRUE(map.matches("sip:alice@oryx.example"));
}

TEST(AddressMap, losesItsExpressionToANewerOneThatDoesNotCompile)
{
    oryx::AddressMap map;
    map.compile("alice", kModified);
    map.compile("alice(", kModified + 1);
    EXPECT_FALSE(map.matches("sip:alice@oryx.example"));
}

TEST(AddressMap, neverMatchesAnEmptyPattern)
{
    oryx::AddressMap map;
    const TraceCapture trace;
    map.compile("", kModified);
    EXPECT_FALSE(map.matches(""));
    EXPECT_FALSE(map.matches("sip:alice@oryx.example"));
    EXPECT_EQ(ownLines(trace),
              (Lines{"AddressMap prn compiling expression ''", "AddressMap prn checking regex match for  against ",
                     "AddressMap prn checking regex match for sip:alice@oryx.example against "}));
}

TEST(AddressMap, losesItsExpressionToANewerEmptyPattern)
{
    oryx::AddressMap map;
    map.compile("alice", kModified);
    map.compile("", kModified + 1);
    EXPECT_STREQ(map.pattern(), "");
    EXPECT_FALSE(map.matches("sip:alice@oryx.example"));
    // The time counts for the empty pattern as for any other.
    map.compile("alice", kModified + 1);
    EXPECT_FALSE(map.matches("sip:alice@oryx.example"));
    map.compile("alice", kModified + 2);
    EXPECT_TRUE(map.matches("sip:alice@oryx.example"));
}

TEST(AddressMap, neverMatchesAMissingPattern)
{
    oryx::AddressMap map;
    map.compile(nullptr, kModified);
    EXPECT_STREQ(map.pattern(), "");
    EXPECT_FALSE(map.matches("sip:alice@oryx.example"));
}

TEST(AddressMap, losesItsExpressionToANewerMissingPattern)
{
    oryx::AddressMap map;
    map.compile("alice", kModified);
    map.compile(nullptr, kModified + 1);
    EXPECT_FALSE(map.matches("sip:alice@oryx.example"));
}

TEST(AddressMap, keepsItsExpressionWhenAMissingPatternIsNoNewer)
{
    oryx::AddressMap map;
    map.compile("alice", kModified);
    map.compile(nullptr, kModified);
    EXPECT_STREQ(map.pattern(), "alice");
    EXPECT_TRUE(map.matches("sip:alice@oryx.example"));
}

} // namespace

} // namespace addressMapTest
