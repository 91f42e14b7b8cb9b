#include "support/DatabaseTest.h"
#include "support/Show.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <stdexcept>
#include <string>
#include <vector>

namespace hostAndRoutingTest {

namespace {

class HostAndRouting : public ExecutorTest {
protected:
    void SetUp() override
    {
        ExecutorTest::SetUp();
        provisionAlice();
    }

    std::string hostInfo(oryx::HostInfo info = {})
    {
        const oryx::DatabaseResult result = m_executor.getHostInfo(info);
        return outcome(result) + " " + show(info);
    }

    std::string maps()
    {
        std::vector<oryx::AddressMapRecord> found;
        const oryx::DatabaseResult result = m_executor.getAddressMaps(found);
        return outcome(result) + "\n" + show(found);
    }

    /// The modification time of the one map there is.
    int modified()
    {
        std::vector<oryx::AddressMapRecord> found;
        EXPECT_TRUE(m_executor.getAddressMaps(found).okay());
        return found.size() == 1 ? found.front().modTime() : -1;
    }

    std::string proxyConfig(const char* name)
    {
        std::vector<oryx::ProxyConfig> items{{"as", "before", "it"}};
        const oryx::DatabaseResult result = m_executor.getProxyConfig(name, items);
        return outcome(result) + "\n" + show(items);
    }

    std::string accessRules()
    {
        std::vector<oryx::DomainAccess> rules;
        const oryx::DatabaseResult result = m_executor.getDomainAccessList(rules);
        return outcome(result) + "\n" + show(rules);
    }

    /// The client's own time zone, whatever the server's is.
    static void liveIn(const char* zone)
    {
        setenv("TZ", zone, 1);
        tzset();
    }
};

// Rules of their own: time zone files may be missing.
constexpr const char* kBerlin = "CET-1CEST,M3.5.0,M10.5.0/3";
constexpr const char* kNewYork = "EST5EDT,M3.2.0,M11.1.0";

oryx::HostInfo filledHostInfo()
{
    oryx::HostInfo info;
    info.setNodeType("branch");
    info.setParent("hub");
    info.setParentContact("17");
    info.setTopUrl("sip:top.oryx.example");
    info.setServerName("edge1");
    info.setOutboundAllowInternal(false);
    info.setOutboundAllowExternal(true);
    info.setOutboundProxy("sip:out.oryx.example");
    info.setOutboundDirect("a.example, b.example");
    return info;
}

oryx::AddressMapRecord addressMap(const char* handle, const char* pattern, int priority)
{
    oryx::AddressMapRecord map;
    map.setHandle(handle);
    map.setPattern(pattern);
    map.setCsid(12);
    map.setOrdering("sequential");
    map.setPriority(priority);
    return map;
}

TEST_F(HostAndRouting, HasNoHostSettingsInAnEmptyTable)
{
    EXPECT_EQ(hostInfo(), "not found " + show(oryx::HostInfo()));
    EXPECT_EQ(hostInfo(filledHostInfo()), "not found " + show(filledHostInfo()));
}

TEST_F(HostAndRouting, ReadsTheHostSettingsByPosition)
{
    sql("INSERT INTO host_info VALUES ('branch', 'hub', '17', 'sip:top.oryx.example', 'edge1', false, true,"
        " 'sip:out.oryx.example', 'a.example, b.example')");
    EXPECT_EQ(hostInfo(), "okay " + show(filledHostInfo()));
}

TEST_F(HostAndRouting, LeavesHostSettingsAsTheyWereWhereAColumnIsNull)
{
    sql("INSERT INTO host_info VALUES (NULL)");
    EXPECT_EQ(hostInfo(), "okay " + show(oryx::HostInfo()));
    EXPECT_EQ(hostInfo(filledHostInfo()), "okay " + show(filledHostInfo()));
}

TEST_F(HostAndRouting, TakesTheHostsFlagsFromTheTable)
{
    sql("INSERT INTO host_info (outbound_allow_internal, outbound_allow_external) VALUES (true, true)");
    oryx::HostInfo info;
    info.setOutboundAllowExternal(true);
    EXPECT_EQ(hostInfo(), "okay " + show(info));
    sql("UPDATE host_info SET outbound_allow_internal = false, outbound_allow_external = false");
    info.setOutboundAllowInternal(false);
    info.setOutboundAllowExternal(false);
    EXPECT_EQ(hostInfo(), "okay " + show(info));
    oryx::HostInfo filled = filledHostInfo();
    filled.setOutboundAllowExternal(false);
    EXPECT_EQ(hostInfo(filledHostInfo()), "okay " + show(filled));
}

TEST_F(HostAndRouting, HasOneHost)
{
    sql("INSERT INTO host_info (node_type) VALUES ('branch')");
    EXPECT_THROW(sql("INSERT INTO host_info (node_type) VALUES ('hub')"), std::runtime_error);
}

TEST_F(HostAndRouting, HasNoFailureWithoutAddressMaps)
{
    EXPECT_EQ(maps(), "okay\n");
}

TEST_F(HostAndRouting, ReadsAddressMapsInTheOrderOfTheirPriority)
{
    liveIn("UTC0");
    sql("INSERT INTO address_map (handle, csid, pattern, modification_time, priority) VALUES"
        " ('c', 12, '^sip:c\\d+@\u00e5.example$', '2001-09-09 01:46:40', 30),"
        " ('a', 12, '^sip:a', '2001-09-09 01:46:40', -10), ('b', 12, '', '2001-09-09 01:46:40', 20)");
    std::vector<oryx::AddressMapRecord> expected{addressMap("a", "^sip:a", -10), addressMap("b", "", 20),
                                                 addressMap("c", "^sip:c\\d+@\u00e5.example$", 30)};
    for (oryx::AddressMapRecord& map : expected) {
        map.setModTime(1000000000);
    }
    EXPECT_EQ(maps(), "okay\n" + show(expected));
}

TEST_F(HostAndRouting, ReadsAnAddressMapsReplacingFromItsContactSet)
{
    sql("INSERT INTO address_map (handle, csid, pattern, priority) VALUES ('a', 12, '^sip:a', 1)");
    oryx::AddressMapRecord map = addressMap("a", "^sip:a", 1);
    map.setModTime(modified());
    EXPECT_EQ(maps(), "okay\n" + show(map));
    sql("UPDATE contact_set SET replace_uri = true");
    EXPECT_EQ(maps(), "okay\n" + show(map));
    sql("UPDATE contact_set SET replace_uri = false");
    map.setReplaceUri(false);
    EXPECT_EQ(maps(), "okay\n" + show(map));
}

TEST_F(HostAndRouting, LeavesAnAddressMapsDefaultsWhereAColumnIsNull)
{
    sql("UPDATE contact_set SET ordering = NULL");
    sql("INSERT INTO address_map (csid) VALUES (12)");
    oryx::AddressMapRecord map;
    map.setCsid(12);
    map.setModTime(modified());
    EXPECT_EQ(maps(), "okay\n" + show(map));
}

TEST_F(HostAndRouting, PassesOverAnAddressMapWithoutContactSet)
{
    sql("INSERT INTO address_map (handle, pattern) VALUES ('a', '^sip:a')");
    EXPECT_EQ(maps(), "okay\n");
}

TEST_F(HostAndRouting, TakesAModificationTimeForTheClientsLocalTime)
{
    sql("INSERT INTO address_map (csid, modification_time) VALUES (12, '2004-07-01 12:00:00')");
    liveIn("UTC0");
    EXPECT_EQ(modified(), 1088683200);
    liveIn(kBerlin);
    EXPECT_EQ(modified(), 1088683200 - 2 * 3600);
    liveIn(kNewYork);
    EXPECT_EQ(modified(), 1088683200 + 4 * 3600);
    // A one-digit day, in winter.
    sql("UPDATE address_map SET modification_time = '2004-12-03 07:05:09.4'");
    liveIn(kBerlin);
    EXPECT_EQ(modified(), 1102053909);
}

TEST_F(HostAndRouting, ReadsAnyModificationTimeOfTheYear)
{
    liveIn("UTC0");
    sql("INSERT INTO address_map (handle, csid, modification_time, priority)"
        " SELECT n, 12, timestamp '2003-01-31' + n * interval '28 days 1 hour 1 minute 1 second', n"
        " FROM generate_series(0, 13) AS n");
    std::string expected;
    for (int n = 0; n <= 13; ++n) {
        expected += std::to_string(1043971200 + n * (28 * 86400 + 3661)) + " ";
    }
    std::vector<oryx::AddressMapRecord> found;
    EXPECT_TRUE(m_executor.getAddressMaps(found).okay());
    std::string times;
    for (const oryx::AddressMapRecord& map : found) {
        times += std::to_string(map.modTime()) + " ";
    }
    EXPECT_EQ(times, expected);
}

TEST_F(HostAndRouting, SeesANewPatternByItsLaterModificationTime)
{
    liveIn("UTC0");
    sql("INSERT INTO address_map (csid, pattern, modification_time) VALUES (12, '^sip:a', '2001-09-09 01:46:40')");
    EXPECT_EQ(modified(), 1000000000);
    sql("UPDATE address_map SET pattern = '^sip:b'");
    const int once = modified();
    EXPECT_GT(once, 1000000000);
    // Within the same second too: a server compiles a pattern again only when its time is later.
    sql("UPDATE address_map SET pattern = '^sip:c'");
    const int twice = modified();
    EXPECT_GT(twice, once);
    sql("UPDATE address_map SET pattern = '^sip:c'");
    EXPECT_EQ(modified(), twice);
}

TEST_F(HostAndRouting, GivesANewAddressMapTheTimeOfItsMaking)
{
    sql("INSERT INTO address_map (csid, pattern) VALUES (12, '^sip:a')");
    EXPECT_EQ(rows("SELECT modification_time BETWEEN localtimestamp - interval '1 minute' AND localtimestamp"
                   " FROM address_map"),
              "t\n");
}

TEST_F(HostAndRouting, ReadsTheConfigurationOfOneProxy)
{
    sql("INSERT INTO proxy_configuration (proxy_name, scope, property_name, property_value) VALUES"
        " ('edge', 'sip', 'port', '5060'), ('core', 'sip', 'port', '5061'), ('edge', NULL, 'realm', NULL),"
        " ('edge', '', NULL, 'b\u00fccher.example'), ('edge', 'sip', 'port', '5062')");
    EXPECT_EQ(proxyConfig("core"), "okay\n" + show(oryx::ProxyConfig("sip", "port", "5061")));
    EXPECT_EQ(proxyConfig("edge"), "okay\n" + show(std::vector<oryx::ProxyConfig>{{"sip", "port", "5060"},
                                                                                  {"", "realm", ""},
                                                                                  {"", "", "b\u00fccher.example"},
                                                                                  {"sip", "port", "5062"}}));
    EXPECT_EQ(proxyConfig("none"), "okay\n");
}

TEST_F(HostAndRouting, KeepsTheItemsWhereAConfigurationCannotBeRead)
{
    const std::string before = show(oryx::ProxyConfig("as", "before", "it"));
    EXPECT_EQ(proxyConfig(nullptr), "query error: null proxy name\n" + before);
    EXPECT_EQ(proxyConfig("o'neill"), plainOrBound("query error: " + kBroken + "\n" + before, "okay\n"));
    EXPECT_EQ(proxyConfig("edge"), "okay\n");
    sql("REVOKE SELECT ON proxy_configuration FROM oryx_server");
    EXPECT_EQ(proxyConfig("edge"),
              "query error: [42501] ERROR:  permission denied for table proxy_configuration\n" + before);
}

TEST_F(HostAndRouting, ReadsAccessRulesInTheOrderOfTheirQvalue)
{
    EXPECT_EQ(accessRules(), "okay\n");
    sql("INSERT INTO domain_access (direction, sip_domain, domain_action, qvalue) VALUES"
        " ('o', 'c.example', 'a', 10), ('i', 'a.example', 'd', 0.5), ('*', '*', 'd', 99), (NULL, NULL, NULL, 9)");
    EXPECT_EQ(accessRules(), "okay\n"
                             "rule -1 'a.example' direction='i' action='d'\n"
                             "rule -1 '' direction='' action=''\n"
                             "rule -1 'c.example' direction='o' action='a'\n"
                             "rule -1 '*' direction='*' action='d'\n");
}

} // namespace

} // namespace hostAndRoutingTest
