#include "contract/DeskContact.h"
#include "contract/ServiceFixture.h"

#include <dal/UtilityConvert.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdlib>
#include <ctime>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace addressMapLookupTest {

namespace {

using fake::Cell;
using fake::noRows;
using fake::nothing;
using fake::refused;
using fake::rows;
using oryx::ContactRecord;
using oryx::DatabaseResult;
using oryx::LocationService;

constexpr const char* kOld = "Wed Dec 17 07:37:16 1997";
constexpr const char* kNew = "Wed Dec 17 07:37:17 1997";
constexpr const char* kNewest = "Wed Dec 17 07:37:18 1997";

/// A row of the address maps.
std::vector<Cell> map(const Cell& handle, const Cell& csid, const Cell& pattern, const Cell& modified = kOld)
{
    return {"sequential", "t", handle, csid, pattern, modified, "3"};
}

std::string contactsOf(const std::string& csid)
{
    return spliced(kContactsOfSet, csid);
}

std::string lookUp(LocationService& service, const char* uri, Found found = {})
{
    return found.after(service.lookupAddressMap(uri, found.ordering, found.replaceUri, found.contacts));
}

const std::string kNotFound = "not found\nordering='before' replace=true\n";
const std::string kNoContacts = "okay\nordering='before' replace=true\n";

class AddressMapLookup : public ConnectedServiceTest {
protected:
    std::string lookUp(const char* uri, const Found& found = {})
    {
        return addressMapLookupTest::lookUp(service, uri, found);
    }

    /// A lookup while the table holds these maps is served by that contact set, which has no contacts here.
    void expectServed(const std::string& uri, const std::string& csid, const fake::Rows& maps)
    {
        libpq.replies({rows(maps), noRows(10)});
        EXPECT_EQ(lookUp(uri.c_str()), kNoContacts) << uri;
        EXPECT_EQ(libpq.take(), sent({kMaps, contactsOf(csid)})) << uri;
    }

    /// A lookup while the table holds these maps finds none, and no contacts are asked for.
    void expectNotServed(const std::string& uri, const fake::Rows& maps)
    {
        libpq.replies({rows(maps)});
        EXPECT_EQ(lookUp(uri.c_str()), kNotFound) << uri;
        EXPECT_EQ(libpq.take(), sent({kMaps})) << uri;
    }

    std::string keys(const std::vector<std::string>& list = {}) { return mapKeys(service, list); }
    std::string entry(const std::string& key) { return mapEntry(service, key); }
};

// The course of a lookup

/// The time of a lookup stands behind this.
const std::string kTime = "tnow is ";
const std::string kModified = std::to_string(oryx::convertTime(kOld));

/// The trace of the reading of the maps.
std::string mapsTrace(int count)
{
    return traceLines("DatabaseCommandExecutor", {"looking up address_maps"}) + answeredTrace(kMaps) +
           traceLines("DatabaseCommandExecutor", {"found " + std::to_string(count) + " address map records"}) +
           serviceTrace({"result contains " + std::to_string(count) + " maps"});
}

/// The trace of a row with the key, the pattern and, in place of "{}", what becomes of it.
std::string rowTrace(const std::string& key, const std::string& pattern, const std::string& fate)
{
    return serviceTrace(
        {"tnow is NOW", "key=" + key + ", pat=" + pattern + ", time=" + kModified + ", priority=3, ordering=sequential",
         spliced(fate, key)});
}

std::string compiledTrace(const std::string& pattern, const std::string& outcome = "compile ok")
{
    return traceLines("AddressMap", {"compiling expression '" + pattern + "'"}) +
           traceLines("RegEx", {"compiling '" + pattern + "'", outcome});
}

std::string checkedTrace(const std::string& uri, const std::string& key, const std::string& pattern,
                         const std::vector<std::string>& outcome)
{
    std::vector<std::string> lines = {"checking '" + uri + "' for match on " + pattern};
    lines.insert(lines.end(), outcome.begin(), outcome.end());
    return serviceTrace({"checking " + uri + " for match on " + key}) +
           traceLines("AddressMap", {"checking regex match for " + uri + " against " + pattern}) +
           traceLines("RegEx", lines);
}

const std::string kAdded = "adding new map for {}";
const std::string kUpdated = "updating existing map entry for {}";
const std::string kCompiledBefore = traceLines("AddressMap", {"expression already compiled"});

TEST_F(AddressMapLookup, IsTracedFromTheTableToTheSubstitution)
{
    libpq.replies({rows({map("sales", "7", "^sip:1%s"), map("100%n", "8", "^sip:2"), map("desk", "9", ".")}),
                   rows({contactOfSet("sip:$user@gw")})});
    const std::string uri = "sip:2%25@h";
    EXPECT_EQ(lookUp(uri.c_str()), "okay\nordering='parallel' replace=false\n" + shownContactOfSet("sip:2%25@gw"));
    EXPECT_EQ(libpq.take(), sent({kMaps, contactsOf("8")}));
    EXPECT_EQ(timeless(trace.take(), kTime),
              mapsTrace(3) +                                                            //
                  rowTrace("sales-7", "^sip:1%s", kAdded) + compiledTrace("^sip:1%s") + //
                  rowTrace("100%n-8", "^sip:2", kAdded) + compiledTrace("^sip:2") +     //
                  rowTrace("desk-9", ".", kAdded) + compiledTrace(".") +                //
                  checkedTrace(uri, "sales-7", "^sip:1%s", {"not a match"}) +           //
                  checkedTrace(uri, "100%n-8", "^sip:2", {"match found"}) +             //
                  serviceTrace({"MATCH found for 100%n-8", "looking up contacts for csid 8"}) + contactOfSetTrace("8") +
                  serviceTrace({"found 1 contacts, performing substitution...", "address is sip:$user@gw",
                                "replaced contact address with sip:2%25@gw"}));
}

TEST_F(AddressMapLookup, TracesHowTheCacheIsBroughtIntoLine)
{
    expectNotServed("sip:x@h", {map("a", "1", "^sip:1"), map("b", "2", "^sip:2"), map("c", "3", "(")});
    trace.take();
    expectNotServed("sip:x@h", {map("d", "4", "^sip:4"), map("c", "3", "("), map("a", "1", "^sip:5")});
    EXPECT_EQ(timeless(trace.take(), kTime),
              mapsTrace(3) + serviceTrace({"marking entry for a-1", "marking entry for b-2", "marking entry for c-3"}) +
                  rowTrace("d-4", "^sip:4", kAdded) + compiledTrace("^sip:4") + rowTrace("c-3", "(", kUpdated) +
                  kCompiledBefore + //
                  rowTrace("a-1", "^sip:5", kUpdated) + kCompiledBefore +
                  serviceTrace({"map for a-1 still exists", "removing map entry for b-2", "map for c-3 still exists"}) +
                  // Of the first map the new text is shown and the old expression is in force.
                  serviceTrace({"checking sip:x@h for match on a-1"}) +
                  traceLines("AddressMap", {"checking regex match for sip:x@h against ^sip:5"}) +
                  traceLines("RegEx", {"checking 'sip:x@h' for match on ^sip:1", "not a match"}) +
                  checkedTrace("sip:x@h", "c-3", "(", {"match failed, invalid regex"}) +
                  checkedTrace("sip:x@h", "d-4", "^sip:4", {"not a match"}));
}

TEST_F(AddressMapLookup, TracesTheTimeOfEachRow)
{
    const std::time_t before = std::time(nullptr);
    expectNotServed("sip:x@h", {map("a", "1", "^sip:1")});
    const std::time_t after = std::time(nullptr);
    const std::string lines = trace.take("LocationService");
    const std::string front = "LocationService prn: " + kTime;
    const std::size_t at = lines.find(front);
    ASSERT_NE(at, std::string::npos);
    const std::time_t traced = std::strtol(lines.c_str() + at + front.size(), nullptr, 10);
    EXPECT_LE(before, traced);
    EXPECT_LE(traced, after);
}

TEST_F(AddressMapLookup, SendsTheSameWithTracingOff)
{
    zel::setTraceSink({});
    expectServed("sip:2@h", "8", {map("sales", "7", "^sip:1"), map("help", "8", "^sip:2")});
    expectServed("sip:1@h", "9", {map("help", "8", "^sip:2"), map("desk", "9", "^sip:1")});
    EXPECT_EQ(keys(), "[help-8][desk-9]");
    EXPECT_EQ(trace.take(), "");
}

TEST_F(AddressMapLookup, ReadsTheTimeOfARowWholeAlsoAfter2038)
{
    if (sizeof(std::time_t) > sizeof(long)) {
        GTEST_SKIP() << "a record's time ends before this system's does";
    }
    const std::string late = "Wed Dec 17 07:37:16 2042";
    const std::string later = "Wed Dec 17 07:37:17 2042";
    expectServed("sip:1@h", "1", {map("a", "1", "^sip:1", late)});
    EXPECT_NE(trace.take().find(", time=" + std::to_string(oryx::convertTime(late.c_str())) + ", "), std::string::npos);
    expectServed("sip:2@h", "1", {map("a", "1", "^sip:2", later)});
}

// Texts that the lookup itself changes

/// A URI that lies within a string object, and goes where that goes; one too long for it.
const std::string kShortUri = "sip:alice@h";
const std::string kLongUri = "sip:alice.of.the.sales.department@oryx.example";

TEST_F(AddressMapLookup, TakesTheUriFromAContactOfTheVector)
{
    for (const std::string& uri : {kShortUri, kLongUri}) {
        ContactRecord first;
        first.setAddress(uri.c_str());
        Found held;
        held.contacts = {first};
        libpq.replies({rows({map("a", "1", "^sip:alice")}),
                       rows({contactOfSet("$user"), contactOfSet("$protocol"), contactOfSet("sip:bob@gw")})});
        const DatabaseResult result = service.lookupAddressMap(held.contacts.front().address().c_str(), held.ordering,
                                                               held.replaceUri, held.contacts);
        const std::string user = uri.substr(4, uri.find('@') - 4);
        EXPECT_EQ(held.after(result), "okay\nordering='parallel' replace=false\n" + show(first) +
                                          shownContactOfSet(user) + shownContactOfSet("sip") +
                                          shownContactOfSet("sip:bob@gw"));
    }
}

TEST_F(AddressMapLookup, TakesTheUriFromTheOrdering)
{
    Found held;
    held.ordering = kLongUri;
    libpq.replies({rows({map("a", "1", "^sip:alice")}), rows({contactOfSet("sip:$user@gw")})});
    const DatabaseResult result =
        service.lookupAddressMap(held.ordering.c_str(), held.ordering, held.replaceUri, held.contacts);
    EXPECT_EQ(held.after(result),
              "okay\nordering='parallel' replace=false\n" + shownContactOfSet("sip:alice.of.the.sales.department@gw"));
}

TEST_F(AddressMapLookup, TakesTheUriFromAMapThatGoes)
{
    const std::string pattern = "sip:alice.of.the.sales.department";
    expectNotServed("sip:x@h", {map("a", "1", pattern)});
    std::string key = "a-1";
    Found found;
    libpq.replies({rows({map("b", "2", "^sip:alice")}), rows({contactOfSet("$protocol")})});
    const DatabaseResult result = service.lookupAddressMap(service.lookupMapEntry(key)->pattern(), found.ordering,
                                                           found.replaceUri, found.contacts);
    EXPECT_EQ(found.after(result), "okay\nordering='parallel' replace=false\n" + shownContactOfSet("sip"));
}

// What ends it early

TEST_F(AddressMapLookup, RefusesANullUriBeforeAnythingIsSent)
{
    expectNotServed("sip:x@h", {map("a", "1", "^sip:1")});
    trace.take();
    libpq.loseConnection(); // not even looked at
    EXPECT_EQ(lookUp(nullptr), "query error: null uri\nordering='before' replace=true\n");
    EXPECT_EQ(libpq.take(), "");
    EXPECT_EQ(trace.take(), "");
    EXPECT_EQ(keys(), "[a-1]");
}

TEST_F(AddressMapLookup, LeavesTheCacheWhenTheMapsCannotBeRead)
{
    expectNotServed("sip:x@h", {map("a", "1", "^sip:1"), map("b", "2", "^sip:2")});
    trace.take();
    const std::string refusal = "ERROR:  100%s refused\n";
    const std::string reason = refusal + ", sqlState=42601, sqlcommand=" + kMaps;
    libpq.replies({refused("42601", refusal), refused("42601", refusal)});
    EXPECT_EQ(lookUp("sip:1@h"), "query error: " + reason + "\nordering='before' replace=true\n");
    EXPECT_EQ(libpq.take(), "exec " + kMaps + "\nreset\nexec " + kMaps + "\n");
    loseForGood();
    EXPECT_EQ(lookUp("sip:1@h"), "connection error: " + kServerGone + "\nordering='before' replace=true\n");
    EXPECT_EQ(libpq.take(), "reset\n");
    EXPECT_EQ(trace.take("LocationService"), serviceTrace({reason, kServerGone}));
    EXPECT_EQ(keys(), "[a-1][b-2]");
    EXPECT_EQ(entry("a-1"), "a-1 csid=1 pattern='^sip:1'");
}

TEST_F(AddressMapLookup, PassesOnWhatTheContactLookupAnswers)
{
    libpq.replies({rows({map("a", "1", "^sip:1")}), refused("42601"), refused("42601")});
    const std::string reason = spliced(kRefused, contactsOf("1"));
    Found held;
    held.contacts = {desk()};
    EXPECT_EQ(lookUp("sip:1@h", held), "query error: " + reason + "\nordering='before' replace=true\n" + kDesk);
    EXPECT_EQ(libpq.take(), sent({kMaps, contactsOf("1")}) + "reset\n" + sent({contactsOf("1")}));
    EXPECT_TRUE(trace.take("LocationService")
                    .ends_with(serviceTrace(
                        {"MATCH found for a-1", "looking up contacts for csid 1", "lookup failed: " + reason})));
    EXPECT_EQ(keys(), "[a-1]");
}

TEST_F(AddressMapLookup, IsAConnectionErrorWhenTheConnectionIsLostBeforeTheContacts)
{
    libpq.replies({rows({map("a", "1", "^sip:1")}), nothing()});
    libpq.resetsTo({CONNECTION_BAD});
    EXPECT_EQ(lookUp("sip:1@h"), "connection error: fatal error, query failed\nordering='before' replace=true\n");
    EXPECT_EQ(libpq.take(), sent({kMaps, contactsOf("1")}) + "reset\n");
    EXPECT_TRUE(
        trace.take("LocationService")
            .ends_with(serviceTrace({"looking up contacts for csid 1", "lookup failed: fatal error, query failed"})));
    EXPECT_EQ(keys(), "[a-1]");
}

class NeverConnectedLookup : public testing::Test, protected ConnectedService {};

TEST_F(NeverConnectedLookup, IsAConnectionErrorAlsoForANullUri)
{
    const std::string untouched = "ordering='before' replace=true\n";
    EXPECT_EQ(lookUp(service, "sip:1@h"), kNeverConnected + untouched);
    EXPECT_EQ(lookUp(service, nullptr), kNeverConnected + untouched);
    EXPECT_EQ(libpq.take(), "");
    const std::string line = "lookup attempted without a database connection";
    EXPECT_EQ(trace.take(), serviceTrace({line, line}));
}

// The cache

TEST_F(AddressMapLookup, EmptiesTheCacheWithTheTable)
{
    expectServed("sip:1@h", "1", {map("a", "1", "^sip:1")});
    libpq.replies({noRows(7)});
    trace.take();
    EXPECT_EQ(lookUp("sip:1@h"), kNotFound);
    EXPECT_EQ(trace.take("LocationService"),
              serviceTrace({"result contains 0 maps", "marking entry for a-1", "removing map entry for a-1"}));
    EXPECT_EQ(keys(), "");
}

TEST_F(AddressMapLookup, KeepsAMapInItsPlaceWhateverItsPriority)
{
    expectServed("sip:1@h", "2", {map("b", "2", "^sip:1"), map("a", "1", "^sip:1")});
    expectServed("sip:1@h", "2", {map("a", "1", "^sip:1", kNew), map("b", "2", "^sip:1")});
    EXPECT_EQ(keys(), "[b-2][a-1]");
}

TEST_F(AddressMapLookup, AppendsANewMapAndLetsItMatchAtOnce)
{
    expectNotServed("sip:9@h", {map("b", "2", "^sip:2"), map("c", "3", "^sip:3")});
    expectServed("sip:9@h", "1", {map("a", "1", "^sip:9"), map("b", "2", "^sip:2"), map("c", "3", "^sip:3")});
    EXPECT_EQ(keys(), "[b-2][c-3][a-1]");
}

TEST_F(AddressMapLookup, KeepsTheOrderOfArrivalHoweverTheTableIsOrdered)
{
    const std::vector<std::pair<std::string, std::string>> tables = {
        {"abcdefgh", "[a-1][b-1][c-1][d-1][e-1][f-1][g-1][h-1]"},
        {"hgfedcba", "[a-1][b-1][c-1][d-1][e-1][f-1][g-1][h-1]"},
        {"efghabcd", "[a-1][b-1][c-1][d-1][e-1][f-1][g-1][h-1]"},
        {"gxgeycgx", "[c-1][e-1][g-1][x-1][y-1]"},
        {"yabxcc", "[c-1][x-1][y-1][a-1][b-1]"},
        {"z", "[z-1]"},
        {"zzaza", "[z-1][a-1]"},
    };
    for (const auto& [handles, expected] : tables) {
        fake::Rows maps;
        for (const char handle : handles) {
            maps.push_back(map(std::string(1, handle), "1", "^sip:1"));
        }
        expectNotServed("sip:x@h", maps);
        EXPECT_EQ(keys(), expected) << handles;
    }
}

TEST_F(AddressMapLookup, LetsGoOfAMapWithItsRowAndGivesItANewPlaceLater)
{
    const auto a = map("a", "1", "^sip:");
    const auto b = map("b", "2", "^sip:");
    expectServed("sip:1@h", "1", {a, b});
    expectServed("sip:1@h", "2", {b});
    EXPECT_EQ(entry("a-1"), "none");
    expectServed("sip:1@h", "2", {a, b});
    EXPECT_EQ(keys(), "[b-2][a-1]");
}

TEST_F(AddressMapLookup, TakesANewHandleOrContactSetForANewMap)
{
    expectServed("sip:1@h", "1", {map("a", "1", "^sip:1"), map("b", "2", "^sip:1")});
    expectServed("sip:1@h", "2", {map("a", "9", "^sip:1"), map("b", "2", "^sip:1")});
    EXPECT_EQ(keys(), "[b-2][a-9]");
    expectServed("sip:1@h", "9", {map("a", "9", "^sip:1"), map("B", "2", "^sip:1")});
    EXPECT_EQ(keys(), "[a-9][B-2]");
}

TEST_F(AddressMapLookup, CompilesAPatternAgainOnlyForALaterTime)
{
    expectServed("sip:1@h", "1", {map("a", "1", "^sip:1", kNew)});
    expectNotServed("sip:2@h", {map("a", "1", "^sip:2", kNew)});
    EXPECT_EQ(entry("a-1"), "a-1 csid=1 pattern='^sip:2'");
    expectServed("sip:1@h", "1", {map("a", "1", "^sip:2", kOld)});
    expectServed("sip:2@h", "1", {map("a", "1", "^sip:2", kNewest)});
    expectNotServed("sip:1@h", {map("a", "1", "^sip:2", kNewest)});
}

TEST_F(AddressMapLookup, CompilesAPatternWithoutATimeEveryTime)
{
    expectServed("sip:1@h", "1", {map("a", "1", "^sip:1", std::nullopt)});
    expectServed("sip:2@h", "1", {map("a", "1", "^sip:2", "no time")});
    expectServed("sip:3@h", "1", {map("a", "1", "^sip:3", kOld)});
    expectServed("sip:3@h", "1", {map("a", "1", "^sip:4", std::nullopt)});
}

TEST_F(AddressMapLookup, SharesAMapAmongRowsOfOneHandleAndContactSet)
{
    expectServed("sip:2@h", "1", {map("a", "1", "^sip:1", kOld), map("b", "2", "."), map("a", "1", "^sip:2", kNew)});
    EXPECT_EQ(keys(), "[a-1][b-2]");
    EXPECT_EQ(entry("a-1"), "a-1 csid=1 pattern='^sip:2'");
}

TEST_F(AddressMapLookup, ShowsTheLastOfSuchRowsAndMatchesTheLatest)
{
    expectServed("sip:1@h", "1", {map("a", "1", "^sip:1", kNew), map("a", "1", "^sip:2", kOld)});
    EXPECT_EQ(entry("a-1"), "a-1 csid=1 pattern='^sip:2'");
    expectServed("sip:1@h", "1", {map("a", "1", "^sip:3", kOld), map("a", "1", "^sip:4", kNew)});
    EXPECT_EQ(entry("a-1"), "a-1 csid=1 pattern='^sip:4'");
}

TEST_F(AddressMapLookup, TakesTheContactSetOfTheLastRowWithTheSameKey)
{
    // Their keys read the same: "a", "-", "-1" and "a-", "-", "1".
    expectServed("sip:1@h", "1", {map("a", "-1", "^sip:1"), map("a-", "1", "^sip:1")});
    EXPECT_EQ(keys(), "[a--1]");
    EXPECT_EQ(entry("a--1"), "a--1 csid=1 pattern='^sip:1'");
}

TEST_F(AddressMapLookup, CountsARowWithoutAContactSetAsMinusOneAndDoesNotServeItsMatch)
{
    expectNotServed("sip:1@h", {map("x", std::nullopt, "^sip:1"), map("b", "2", "^sip:1")});
    EXPECT_EQ(keys(), "[x--1][b-2]");
    EXPECT_EQ(entry("x--1"), "x--1 csid=-1 pattern='^sip:1'");
    EXPECT_TRUE(trace.take("LocationService").ends_with(serviceTrace({"MATCH found for x--1"})));
}

TEST_F(AddressMapLookup, DoesNotServeAMatchWithContactSetZero)
{
    expectNotServed("sip:1@h", {map("x", "0", "^sip:1"), map("b", "2", "^sip:1")});
    EXPECT_EQ(keys(), "[x-0][b-2]");
}

TEST_F(AddressMapLookup, NamesAMapWithoutAHandleByItsContactSetAlone)
{
    expectServed("sip:1@h", "7", {map(std::nullopt, "7", "^sip:1")});
    EXPECT_EQ(keys(), "[-7]");
}

// Patterns

TEST_F(AddressMapLookup, KeepsAnInvalidPatternAndNeverMatchesIt)
{
    expectServed("sip:(@h", "2", {map("a", "1", "("), map("b", "2", "^sip:")});
    EXPECT_EQ(keys(), "[a-1][b-2]");
    EXPECT_EQ(entry("a-1"), "a-1 csid=1 pattern='('");
    expectServed("sip:(@h", "2", {map("a", "1", "^sip:"), map("b", "2", "^sip:")});
    expectServed("sip:(@h", "1", {map("a", "1", "^sip:", kNew), map("b", "2", "^sip:")});
}

TEST_F(AddressMapLookup, NeverMatchesAPatternThatBecameInvalid)
{
    expectServed("sip:1@h", "1", {map("a", "1", "^sip:1", kOld)});
    expectNotServed("sip:1@h", {map("a", "1", "[", kNew)});
    EXPECT_EQ(keys(), "[a-1]");
}

TEST_F(AddressMapLookup, NeverMatchesAMissingOrEmptyPattern)
{
    expectNotServed("sip:1@h", {map("a", "1", std::nullopt), map("b", "2", "")});
    EXPECT_EQ(keys(), "[a-1][b-2]");
    EXPECT_EQ(entry("a-1"), "a-1 csid=1 pattern=''");
    expectServed("sip:1@h", "2", {map("a", "1", "", kNew), map("b", "2", "^sip:", kNew)});
    expectNotServed("sip:1@h", {map("a", "1", std::nullopt, kNewest), map("b", "2", "", kNewest)});
}

TEST_F(AddressMapLookup, FindsAPatternAnywhereInTheUriAndMindsItsCase)
{
    expectServed("sip:1@HOST", "3", {map("a", "1", "host"), map("b", "2", "^1@"), map("c", "3", "1@HO?S")});
}

// Contacts and what is filled into them

TEST_F(AddressMapLookup, FillsAllContactsOfTheVector)
{
    Found held;
    held.contacts = {desk(), desk()};
    held.contacts[0].setAddress("sip:held@$host");
    held.contacts[0].setContactHeader("<sip:$user@$host>");
    libpq.replies({rows({map("a", "1", "^sip:")}), rows({contactOfSet("sip:$user@gw"), contactOfSet("sip:bob@gw")})});
    ContactRecord filled = held.contacts[0];
    filled.setAddress("sip:held@oryx.example");
    trace.take();
    EXPECT_EQ(lookUp("sip:alice@oryx.example", held), "okay\nordering='parallel' replace=false\n" + show(filled) +
                                                          kDesk + shownContactOfSet("sip:alice@gw") +
                                                          shownContactOfSet("sip:bob@gw"));
    EXPECT_TRUE(
        trace.take("LocationService")
            .ends_with(serviceTrace({"looking up contacts for csid 1", "found 4 contacts, performing substitution...",
                                     "address is sip:held@$host", "replaced contact address with sip:held@oryx.example",
                                     "address is sip:al%20ice@192.0.2.7:5060",
                                     "replaced contact address with sip:al%20ice@192.0.2.7:5060",
                                     "address is sip:$user@gw", "replaced contact address with sip:alice@gw",
                                     "address is sip:bob@gw", "replaced contact address with sip:bob@gw"})));
}

TEST_F(AddressMapLookup, SaysWhereTheUriHasNoPartsAndNeverShowsIt)
{
    const fake::Rows maps = {map("a", "1", "secret")};
    libpq.replies({rows(maps), rows({contactOfSet("sip:$user@gw")})});
    EXPECT_EQ(lookUp("tel:+4930;x=secret"), "okay\nordering='parallel' replace=false\n" + shownContactOfSet("sip:@gw"));
    EXPECT_EQ(
        trace.take("oryx"),
        "oryx prn: the request URI that address map a-1 matches is not a SIP URI: its parts are empty in the contacts\n");
    libpq.replies({rows(maps), rows({contactOfSet("sip:$user@gw")})});
    EXPECT_EQ(lookUp("sip:a:secret@h"), "okay\nordering='parallel' replace=false\n" + shownContactOfSet("sip:a@gw"));
    EXPECT_EQ(trace.take("oryx"), "");
}

TEST_F(AddressMapLookup, IsOkayWithoutContacts)
{
    libpq.replies({rows({map("a", "1", "^sip:")}), noRows(10)});
    EXPECT_EQ(lookUp("sip:alice@oryx.example"), kNoContacts);
    EXPECT_TRUE(trace.take("LocationService")
                    .ends_with(serviceTrace(
                        {"looking up contacts for csid 1", "found 0 contacts, performing substitution..."})));
}

struct Template {
    std::string name;
    std::string address;
    std::string uri;
    std::string filled;
};

void PrintTo(const Template& row, std::ostream* out)
{
    *out << row.name;
}

class ContactTemplate : public ConnectedServiceTest, public testing::WithParamInterface<Template> {};

TEST_P(ContactTemplate, IsFilledFromThePartsOfTheUri)
{
    libpq.replies({rows({map("a", "1", ".")}), rows({contactOfSet(GetParam().address)})});
    EXPECT_EQ(lookUp(service, GetParam().uri.c_str()),
              "okay\nordering='parallel' replace=false\n" + shownContactOfSet(GetParam().filled));
}

std::vector<Template> templates()
{
    const std::string all = "$protocol|$user|$password|$host|$port|$parameters|$headers";
    const std::string braced = "${protocol}x${user}x${password}x${host}x${port}x${parameters}x${headers}";
    const std::string full = "sip:alice:secret@example.com:5070;transport=tcp;lr?Subject=call&Priority=urgent";
    return {
        {"EveryPart", all, full, "sip|alice|secret|example.com|5070|transport=tcp;lr|Subject=call&Priority=urgent"},
        {"EveryPartInBraces", braced, full,
         "sipxalicexsecretxexample.comx5070xtransport=tcp;lrxSubject=call&Priority=urgent"},
        {"MissingParts", all, "sips:example.com", "sips|||example.com|$port||"},
        {"MissingPortInBraces", "sip:$user@gw:${port}", "sip:bob@h", "sip:bob@gw:${port}"},
        {"UnknownVariable", "sip:$nobody@${realm}.$Host", "sip:bob@h", "sip:$nobody@${realm}.$Host"},
        {"LongerName", "sip:$users@$hosts", "sip:bob@h", "sip:$users@$hosts"},
        {"PartTwice", "sip:$user.$user@gw", "sip:bob@h", "sip:bob.bob@gw"},
        {"NoVariable", "sip:100@192.0.2.9:5060;x=50%25", "sip:bob@h", "sip:100@192.0.2.9:5060;x=50%25"},
        {"LoneMarker", "sip:$@gw$", "sip:bob@h", "sip:$@gw$"},
        {"ValueWithAMarker", "sip:$user@gw", "sip:$host@h", "sip:$host@gw"},
        {"EscapedPart", "sip:$user@gw", "sip:b%6fb@h", "sip:b%6fb@gw"},
        {"EmptyAddress", "", "sip:bob@h", ""},
        {"UriThatDoesNotParse", all, "not a uri", "||||$port||"},
    };
}

INSTANTIATE_TEST_SUITE_P(Of, ContactTemplate, testing::ValuesIn(templates()), kRowName);

// The operations on the cache

TEST_F(AddressMapLookup, AppendsTheKeysInTheOrderOfTheCache)
{
    EXPECT_EQ(keys({"before"}), "[before]");
    expectNotServed("sip:x@h", {map("b", "2", "^sip:2"), map("a", "1", "^sip:1")});
    EXPECT_EQ(keys({"before"}), "[before][b-2][a-1]");
}

TEST_F(AddressMapLookup, FindsAMapByItsWholeKeyOnly)
{
    EXPECT_EQ(entry("a-1"), "none");
    expectNotServed("sip:x@h", {map("a", "1", "^sip:1"), map("b", "12", "^sip:2")});
    EXPECT_EQ(entry("b-12"), "b-12 csid=12 pattern='^sip:2'");
    EXPECT_EQ(entry("A-1") + entry("a") + entry("b-1") + entry("a-1 ") + entry(""), "nonenonenonenonenone");
}

TEST_F(AddressMapLookup, RemovesTheMapWithAKeyAndNothingForAnUnknownOne)
{
    const fake::Rows maps = {map("a", "1", "^sip:1"), map("b", "2", "^sip:2"), map("c", "3", "^sip:3")};
    expectNotServed("sip:x@h", maps);
    std::string key = "b-3";
    service.removeMapEntry(key);
    EXPECT_EQ(keys(), "[a-1][b-2][c-3]");
    key = "b-2";
    service.removeMapEntry(key);
    service.removeMapEntry(key);
    EXPECT_EQ(keys(), "[a-1][c-3]");
    expectServed("sip:2@h", "2", maps);
    EXPECT_EQ(keys(), "[a-1][c-3][b-2]");
}

TEST_F(AddressMapLookup, ForgetsAllMapsWhenTheyAreCleared)
{
    service.clearMapEntries();
    expectServed("sip:1@h", "1", {map("a", "1", "^sip:1"), map("b", "2", "^sip:2")});
    service.clearMapEntries();
    EXPECT_EQ(keys(), "");
    // Made anew: the order is the table's again, and a pattern counts whatever its time.
    expectServed("sip:3@h", "2", {map("b", "2", "^sip:3"), map("a", "1", "^sip:1")});
    EXPECT_EQ(keys(), "[b-2][a-1]");
}

TEST_F(AddressMapLookup, KeepsTheCacheOverANewConnection)
{
    expectServed("sip:1@h", "1", {map("a", "1", "^sip:1")});
    connect();
    EXPECT_EQ(keys(), "[a-1]");
    expectServed("sip:1@h", "1", {map("a", "1", "^sip:2")});
}

TEST_F(NeverConnectedLookup, HasNoMapsToListFindOrRemove)
{
    std::string key = "a-1";
    service.removeMapEntry(key);
    service.clearMapEntries();
    std::vector<std::string> keys = {"before"};
    service.getMapKeys(keys);
    EXPECT_EQ(keys, std::vector<std::string>{"before"});
    EXPECT_EQ(service.lookupMapEntry(key), nullptr);
    EXPECT_EQ(libpq.take(), "");
    EXPECT_EQ(trace.take(), "");
}

} // namespace

} // namespace addressMapLookupTest
