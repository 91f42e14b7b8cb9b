#include "support/DatabaseTest.h"
#include "support/Show.h"
#include "support/TraceLog.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <sstream>
#include <string>
#include <vector>

namespace addressMapLookupTest {

namespace {

/// Two contact sets with a contact each that names its set: "sales", 12, and "help", 13.
class AddressMaps : public ServiceTest {
protected:
    void SetUp() override
    {
        ServiceTest::SetUp();
        sql("INSERT INTO contact_set (csid, sid, ordering) VALUES (13, 7, 'parallel')");
        sql("INSERT INTO contact (csid, address) VALUES (12, 'sip:$user@sales'), (13, 'sip:$user@help')");
    }

    void addMap(const std::string& handle, int csid, const std::string& pattern, int priority = 1)
    {
        sql("INSERT INTO address_map (handle, csid, pattern, priority) VALUES ('" + handle + "', " +
            std::to_string(csid) + ", '" + pattern + "', " + std::to_string(priority) + ")");
    }

    /// Where a request URI goes.
    std::string served(const std::string& uri) { return served(m_service, uri); }

    static std::string served(oryx::LocationService& service, const std::string& uri)
    {
        std::string ordering = "-";
        bool replaceUri = false;
        std::vector<oryx::ContactRecord> found;
        std::string text = outcome(service.lookupAddressMap(uri.c_str(), ordering, replaceUri, found));
        text += " " + ordering + (replaceUri ? " replacing" : "");
        for (const oryx::ContactRecord& contact : found) {
            text += " " + contact.address();
        }
        return text;
    }

    std::string keys()
    {
        std::vector<std::string> list;
        m_service.getMapKeys(list);
        std::string text;
        for (const std::string& key : list) {
            text += "[" + key + "]";
        }
        return text;
    }

    /// The lines in which a lookup tells the rows it read.
    std::string rowsTraced()
    {
        TraceLog trace;
        served("sip:100@oryx.example");
        const std::string lines = trace.take("LocationService");
        const std::string front = "LocationService prn: key=";
        std::string told;
        for (std::size_t at = lines.find(front); at != std::string::npos; at = lines.find(front, at + 1)) {
            told += lines.substr(at, lines.find('\n', at) + 1 - at);
        }
        return told;
    }

    /// What rowsTraced gives for the one map there is, its time as the server understands it in that zone.
    std::string rowStored(const std::string& zone)
    {
        return rows("SELECT 'LocationService prn: key=' || handle || '-' || csid || ', pat=' || pattern || ', time=' ||"
                    " extract(epoch FROM modification_time AT TIME ZONE '" +
                    zone + "')::bigint || ', priority=' || priority || ', ordering=sequential' FROM address_map");
    }
};

/// How a plan that was run reads its tables.
std::string scans(const std::string& plan)
{
    std::string text;
    std::istringstream lines(plan);
    for (std::string line; std::getline(lines, line);) {
        if (line.find(" Scan ") != std::string::npos) {
            text += line.substr(line.find_first_not_of(" ->")) + "\n";
        }
    }
    return text;
}

const std::string kNone = "not found - replacing";

TEST_F(AddressMaps, ServeNothingWhileThereAreNone)
{
    EXPECT_EQ(served("sip:100@oryx.example"), kNone);
    addMap("sales", 12, "^sip:2");
    EXPECT_EQ(served("sip:100@oryx.example"), kNone);
}

TEST_F(AddressMaps, ServeAUriWithTheContactsOfTheirSetFilledFromItsParts)
{
    sql("DELETE FROM contact; UPDATE contact_set SET replace_uri = false WHERE csid = 12");
    EXPECT_EQ(registerAll({"${protocol}:$user:$password@gw.$host:$port;$parameters?$headers"}), "okay");
    addMap("sales", 12, "^sips?:1[0-9]{2}[:@]");
    std::vector<oryx::ContactRecord> found;
    std::string ordering;
    bool replaceUri = true;
    EXPECT_EQ(show(m_service.lookupAddressMap("sip:100:pw@oryx.example:5070;user=phone?Subject=call", ordering,
                                              replaceUri, found)),
              "okay");
    oryx::ContactRecord expected = contact("${protocol}:$user:$password@gw.$host:$port;$parameters?$headers");
    expected.setAddress("sip:100:pw@gw.oryx.example:5070;user=phone?Subject=call");
    EXPECT_EQ(show(found), show(expected));
    EXPECT_EQ(ordering, "sequential");
    EXPECT_FALSE(replaceUri);
}

TEST_F(AddressMaps, ServeWithTheContactsOfAnInactiveSubscriberToo)
{
    addMap("sales", 12, "^sip:1");
    sql("UPDATE subscriber SET active = false");
    EXPECT_EQ(served("sip:100@oryx.example"), "okay sequential replacing sip:100@sales");
}

TEST_F(AddressMaps, AreOkayWhereTheSetHasNoContacts)
{
    addMap("sales", 12, "^sip:1");
    sql("DELETE FROM contact");
    EXPECT_EQ(served("sip:100@oryx.example"), "okay - replacing");
}

TEST_F(AddressMaps, MatchInTheOrderOfTheirPriorityAtFirstAndKeepIt)
{
    addMap("b", 13, "^sip:", 20);
    addMap("a", 12, "^sip:", 10);
    const std::string bySales = "okay sequential replacing sip:100@sales";
    const std::string byHelp = "okay parallel replacing sip:100@help";
    EXPECT_EQ(served("sip:100@oryx.example"), bySales);
    sql("UPDATE address_map SET priority = 5 WHERE handle = 'b'");
    EXPECT_EQ(served("sip:100@oryx.example"), bySales);
    EXPECT_EQ(keys(), "[a-12][b-13]");
    oryx::LocationService another;
    EXPECT_EQ(show(another.connect(m_database.uri().c_str(), server::kUser, server::kPassword)), "okay");
    EXPECT_EQ(served(another, "sip:100@oryx.example"), byHelp);
}

TEST_F(AddressMaps, MatchTheirNewPatternOnTheNextLookupHoweverSoonItIsChanged)
{
    addMap("sales", 12, "^sip:0");
    // All but one or two of these changes fall into one second.
    for (int n = 1; n <= 5; ++n) {
        const std::string former = "sip:" + std::to_string(n - 1) + "@oryx.example";
        const std::string digit = std::to_string(n);
        EXPECT_EQ(served(former), "okay sequential replacing sip:" + std::to_string(n - 1) + "@sales");
        sql("UPDATE address_map SET pattern = '^sip:" + digit + "'");
        EXPECT_EQ(served("sip:" + digit + "@oryx.example"), "okay sequential replacing sip:" + digit + "@sales");
        EXPECT_EQ(served(former), kNone);
    }
}

TEST_F(AddressMaps, MatchTheirOldPatternWhileTheModificationTimeIsTheSame)
{
    addMap("sales", 12, "^sip:1");
    EXPECT_EQ(served("sip:1@oryx.example"), "okay sequential replacing sip:1@sales");
    sql("ALTER TABLE address_map DISABLE TRIGGER modified; UPDATE address_map SET pattern = '^sip:2';"
        "ALTER TABLE address_map ENABLE TRIGGER modified");
    EXPECT_EQ(served("sip:1@oryx.example"), "okay sequential replacing sip:1@sales");
    EXPECT_EQ(served("sip:2@oryx.example"), kNone);
    sql("UPDATE address_map SET modification_time = modification_time + interval '1 second'");
    EXPECT_EQ(served("sip:1@oryx.example"), kNone);
    EXPECT_EQ(served("sip:2@oryx.example"), "okay sequential replacing sip:2@sales");
}

TEST_F(AddressMaps, MatchTheirNewPatternAlsoAfter2038)
{
    if (sizeof(std::time_t) > sizeof(long)) {
        GTEST_SKIP() << "a record's time ends before this system's does";
    }
    sql("INSERT INTO address_map (handle, csid, pattern, modification_time) VALUES"
        " ('sales', 12, '^sip:1', '2042-12-17 07:37:16')");
    EXPECT_EQ(served("sip:1@oryx.example"), "okay sequential replacing sip:1@sales");
    sql("UPDATE address_map SET pattern = '^sip:2'");
    EXPECT_EQ(served("sip:1@oryx.example"), kNone);
    EXPECT_EQ(served("sip:2@oryx.example"), "okay sequential replacing sip:2@sales");
}

TEST_F(AddressMaps, ComeAndGoWithTheirRows)
{
    addMap("sales", 12, "^sip:");
    EXPECT_EQ(served("sip:100@oryx.example"), "okay sequential replacing sip:100@sales");
    addMap("help", 13, "^sip:", 0);
    EXPECT_EQ(served("sip:100@oryx.example"), "okay sequential replacing sip:100@sales");
    EXPECT_EQ(keys(), "[sales-12][help-13]");
    sql("DELETE FROM address_map WHERE handle = 'sales'");
    EXPECT_EQ(served("sip:100@oryx.example"), "okay parallel replacing sip:100@help");
    EXPECT_EQ(keys(), "[help-13]");
    sql("DELETE FROM address_map");
    EXPECT_EQ(served("sip:100@oryx.example"), kNone);
    EXPECT_EQ(keys(), "");
}

TEST_F(AddressMaps, FollowTheirRowToAnotherContactSet)
{
    addMap("sales", 12, "^sip:");
    EXPECT_EQ(served("sip:100@oryx.example"), "okay sequential replacing sip:100@sales");
    sql("UPDATE address_map SET csid = 13");
    EXPECT_EQ(served("sip:100@oryx.example"), "okay parallel replacing sip:100@help");
    EXPECT_EQ(keys(), "[sales-13]");
}

TEST_F(AddressMaps, GoWithTheirContactSet)
{
    addMap("sales", 12, "^sip:");
    EXPECT_EQ(served("sip:100@oryx.example"), "okay sequential replacing sip:100@sales");
    sql("DELETE FROM contact_set WHERE csid = 12");
    EXPECT_EQ(served("sip:100@oryx.example"), kNone);
    EXPECT_EQ(keys(), "");
}

TEST_F(AddressMaps, NeverMatchWithoutAValidPattern)
{
    sql("INSERT INTO address_map (handle, csid, pattern, priority) VALUES"
        " ('null', 12, NULL, 1), ('empty', 12, '', 2), ('open', 12, '(', 3), ('help', 13, '^sip:', 4)");
    EXPECT_EQ(served("sip:100@oryx.example"), "okay parallel replacing sip:100@help");
    EXPECT_EQ(keys(), "[null-12][empty-12][open-12][help-13]");
    sql("UPDATE address_map SET pattern = '^sip:' WHERE handle = 'empty'");
    EXPECT_EQ(served("sip:100@oryx.example"), "okay sequential replacing sip:100@sales");
}

TEST_F(AddressMaps, AreNotServedWithContactSetZero)
{
    sql("INSERT INTO contact_set (csid, sid) VALUES (0, 7)");
    addMap("nowhere", 0, "^sip:");
    EXPECT_EQ(served("sip:100@oryx.example"), kNone);
    EXPECT_EQ(keys(), "[nowhere-0]");
}

TEST_F(AddressMaps, ReadTheirTimeInTheClientsZone)
{
    // Rules of their own, which the server understands too: time zone files may be missing.
    for (const char* const zone : {"UTC0", "CET-1CEST,M3.5.0,M10.5.0/3", "EST5EDT,M3.2.0,M11.1.0"}) {
        setenv("TZ", zone, 1);
        tzset();
        for (const char* const time : {"2004-07-01 12:00:00", "2023-12-03 07:05:09"}) {
            sql("DELETE FROM address_map; INSERT INTO address_map VALUES (1, 'sales', 12, '^sip:1', '" +
                std::string(time) + "', 3)");
            EXPECT_EQ(rowsTraced(), rowStored(zone)) << zone << " " << time;
        }
    }
}

TEST_F(AddressMaps, ReadTheirTimeOverEveryConnection)
{
    setenv("TZ", "UTC0", 1);
    tzset();
    addMap("sales", 12, "^sip:1");
    EXPECT_EQ(rowsTraced(), rowStored("UTC0"));
    terminate(backend());
    EXPECT_EQ(rowsTraced(), rowStored("UTC0"));
}

TEST_F(AddressMaps, ServeOverANewConnectionWhenTheirsWasTerminated)
{
    addMap("sales", 12, "^sip:1");
    addMap("help", 13, "^sip:2");
    EXPECT_EQ(served("sip:1@oryx.example"), "okay sequential replacing sip:1@sales");
    terminate(backend());
    EXPECT_EQ(served("sip:1@oryx.example"), "okay sequential replacing sip:1@sales");
    terminate(backend());
    sql("UPDATE address_map SET pattern = '^sip:3' WHERE handle = 'sales'; DELETE FROM address_map WHERE handle = 'help'");
    EXPECT_EQ(served("sip:3@oryx.example"), "okay sequential replacing sip:3@sales");
    EXPECT_EQ(served("sip:2@oryx.example"), kNone);
    EXPECT_EQ(keys(), "[sales-12]");
}

TEST_F(AddressMaps, ReadNoContactSetsButTheirOwnAmongAMillion)
{
    const std::string statement =
        "SELECT contact_set.ordering,  contact_set.replace_uri, address_map.handle, address_map.csid,  address_map.pattern, address_map.modification_time, address_map.priority  FROM contact_set, address_map  WHERE address_map.csid = contact_set.csid  ORDER BY address_map.priority ASC; ";
    const std::string explain = "EXPLAIN (ANALYZE, COSTS OFF, TIMING OFF, SUMMARY OFF) ";
    sql(kSetIndexesAside);
    sql("SET session_replication_role = replica;"
        "INSERT INTO contact_set (csid) SELECT generate_series(100, 1000099)");
    sql(kBuildIndexes);
    sql("ANALYZE contact_set;"
        "PREPARE maps AS " +
        statement);
    for (const std::string maps : {"10", "1000", "10000"}) {
        sql("TRUNCATE address_map; INSERT INTO address_map (handle, csid, pattern, priority)"
            "    SELECT 'map' || n, 100 + n * 97 % 1000000, 'sip:' || n, n FROM generate_series(1, " +
            maps + ") n; ANALYZE address_map");
        const std::string proportional = "Seq Scan on address_map (actual rows=" + maps +
                                         " loops=1)\n"
                                         "Index Scan using contact_set_pkey on contact_set (actual rows=1 loops=" +
                                         maps + ")\n";
        EXPECT_EQ(scans(rows(explain + statement)), proportional);
        for (int i = 1; i <= 7; ++i) { // planned anew, as long as the server thinks that worth its while
            EXPECT_EQ(scans(rows(explain + "EXECUTE maps")), proportional) << "execution " << i;
        }
    }
}

} // namespace

} // namespace addressMapLookupTest
