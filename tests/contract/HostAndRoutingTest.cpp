#include "contract/ExecutorFixture.h"

#include <ctime>

namespace hostAndRoutingTest {

namespace {

using fake::Cell;
using fake::noRows;
using fake::refused;
using fake::rows;
using oryx::AddressMapRecord;
using oryx::DatabaseCommandExecutor;
using oryx::DomainAccess;
using oryx::HostInfo;
using oryx::ProxyConfig;

const std::string kHostInfo = "SELECT * FROM host_info";
const std::string kAddressMaps =
    "SELECT contact_set.ordering,  contact_set.replace_uri, address_map.handle, address_map.csid,  address_map.pattern, address_map.modification_time, address_map.priority  FROM contact_set, address_map  WHERE address_map.csid = contact_set.csid  ORDER BY address_map.priority ASC; ";
const std::string kProxyConfig =
    "SELECT scope, property_name, property_value  FROM proxy_configuration   WHERE proxy_name = 'edge%1';";
const std::string kDomainAccess = "SELECT direction,sip_domain,domain_action FROM domain_access ORDER BY qvalue";

const std::vector<Cell> kHostRow = {
    "leaf", "top.oryx.example",     "sip:top.oryx.example", "sip:root.oryx.example", "leaf.oryx.example", "t",
    "f",    "sip:out.oryx.example", "10.0.0.1,10.0.0.2"};
const std::vector<Cell> kMapRow = {"sequential", "f", "sales", "12", "^sip:1[0-9]+@", "Wed Dec 17 07:37:16 1997", "3"};

/// The seconds of a local time, as the tables' timestamps are understood.
std::string seconds(int year, int month, int day, int hour, int minute, int second)
{
    std::tm time{};
    time.tm_year = year - 1900;
    time.tm_mon = month - 1;
    time.tm_mday = day;
    time.tm_hour = hour;
    time.tm_min = minute;
    time.tm_sec = second;
    time.tm_isdst = -1;
    return std::to_string(std::mktime(&time));
}

const std::string kModified = seconds(1997, 12, 17, 7, 37, 16);
const std::string kMap = "map -1 'sales' pattern='^sip:1[0-9]+@' csid=12 modified=" + kModified +
                         " priority=3 replace=false ordering='sequential'\n";

/// A record no column of which comes from kHostRow.
HostInfo otherHost()
{
    HostInfo info;
    info.setNodeType("root");
    info.setParent("none");
    info.setParentContact("sip:none");
    info.setTopUrl("sip:self");
    info.setServerName("root.example.com");
    info.setOutboundAllowInternal(false);
    info.setOutboundAllowExternal(true);
    info.setOutboundProxy("sip:proxy");
    info.setOutboundDirect("localhost");
    return info;
}

const std::string kOtherHost =
    "host 'root.example.com' type='root' parent='none' contact='sip:none' top='sip:self' proxy='sip:proxy' direct='localhost' internal=false external=true\n";

std::string hostInfo(DatabaseCommandExecutor& executor)
{
    HostInfo info = otherHost();
    const std::string answer = show(executor.getHostInfo(info));
    return answer + "\n" + show(info);
}

std::string addressMaps(DatabaseCommandExecutor& executor)
{
    std::vector<AddressMapRecord> maps(1);
    maps.front().setHandle("before");
    const std::string answer = show(executor.getAddressMaps(maps));
    return answer + "\n" + show(maps);
}

const std::string kMapBefore = "map -1 'before' pattern='' csid=-1 modified=0 priority=0 replace=true ordering=''\n";

std::string proxyConfig(DatabaseCommandExecutor& executor, const char* proxyName)
{
    std::vector<ProxyConfig> items = {ProxyConfig("before", "before", "before")};
    const std::string answer = show(executor.getProxyConfig(proxyName, items));
    return answer + "\n" + show(items);
}

const std::string kItemBefore = "item scope='before' name='before' value='before'\n";

std::string domainAccess(DatabaseCommandExecutor& executor)
{
    std::vector<DomainAccess> rules(1);
    rules.front().setDomain("before");
    const std::string answer = show(executor.getDomainAccessList(rules));
    return answer + "\n" + show(rules);
}

const std::string kRuleBefore = "rule -1 'before' direction='' action=''\n";

Operation getHostInfo()
{
    const std::string start = executorTrace({"looking up host info"});
    return {
        .name = "getHostInfo",
        .call = hostInfo,
        .statement = kHostInfo,
        .reply = rows({kHostRow}),
        .answers = statusThen(
            "host 'leaf.oryx.example' type='leaf' parent='top.oryx.example' contact='sip:top.oryx.example' top='sip:root.oryx.example' proxy='sip:out.oryx.example' direct='10.0.0.1,10.0.0.2' internal=true external=false\n",
            kOtherHost),
        .traces = {start + executorTrace({"host_info returned 1 rows"}), "", start, start},
    };
}

Operation getHostInfoOfAnEmptyTable()
{
    const std::string start = executorTrace({"looking up host info"});
    PerEnding answers = statusThen("", kOtherHost);
    answers.done = "not found\n" + kOtherHost;
    return {
        .name = "getHostInfoOfAnEmptyTable",
        .call = hostInfo,
        .statement = kHostInfo,
        .reply = noRows(9),
        .answers = answers,
        .traces = {start + executorTrace({"zero rows found"}), "", start, start},
    };
}

Operation getAddressMaps()
{
    const std::string start = executorTrace({"looking up address_maps"});
    return {
        .name = "getAddressMaps",
        .call = addressMaps,
        .statement = kAddressMaps,
        .reply = rows({kMapRow}),
        .answers = statusThen(kMapBefore + kMap, kMapBefore),
        .traces = {start + executorTrace({"found 1 address map records"}), "", start, start},
    };
}

Operation getProxyConfig()
{
    const std::string start = executorTrace({"looking up proxy configuration for edge%1"});
    return {
        .name = "getProxyConfig",
        .call = [](DatabaseCommandExecutor& executor) { return proxyConfig(executor, "edge%1"); },
        .statement = kProxyConfig,
        .reply = rows({{"sip", "timer.b", "32"}}),
        .answers = statusThen("item scope='sip' name='timer.b' value='32'\n", kItemBefore),
        .traces = {start + executorTrace({"found 1 proxy configuration items"}), "", start, start},
    };
}

Operation getDomainAccessList()
{
    const std::string start = executorTrace({"getting domain access list"});
    return {
        .name = "getDomainAccessList",
        .call = domainAccess,
        .statement = kDomainAccess,
        .reply = rows({{"i", "example.com", "d"}}),
        .answers = statusThen(kRuleBefore + "rule -1 'example.com' direction='i' action='d'\n", kRuleBefore),
        .traces = {start, "", start + executorTrace({"execute query failed"}), start + executorTrace({"query error"})},
    };
}

class HostAndRoutingStatement : public StatementTest {};

TEST_P(HostAndRoutingStatement, AnswersForItsEndingAndLeavesTheReason)
{
    endsAsTheCourseDoes();
}

INSTANTIATE_TEST_SUITE_P(OnCourse, HostAndRoutingStatement,
                         testing::ValuesIn(onEveryCourse({getHostInfo(), getHostInfoOfAnEmptyTable(), getAddressMaps(),
                                                          getProxyConfig(), getDomainAccessList()})),
                         kRowName);

class HostAndRoutingTest : public ExecutorTest {
protected:
    std::string traced() { return trace.take("DatabaseCommandExecutor"); }
};

TEST_F(HostAndRoutingTest, AnEmptyHostTableIsNotFoundAndLeavesAFreshRecordFresh)
{
    libpq.replies({noRows(9)});
    HostInfo info;
    EXPECT_EQ(show(executor.getHostInfo(info)), "not found");
    EXPECT_EQ(show(info),
              "host '' type='' parent='' contact='' top='' proxy='' direct='' internal=true external=false\n");
    EXPECT_EQ(trace.take(), "DatabaseCommandExecutor prn: looking up host info\n" + answeredTrace(kHostInfo) +
                                "DatabaseCommandExecutor prn: zero rows found\n");
}

TEST_F(HostAndRoutingTest, ANullColumnOfTheHostLeavesItsFieldAsItWas)
{
    const std::vector<std::string> expected = {
        "host 'leaf.oryx.example' type='root' parent='top.oryx.example' contact='sip:top.oryx.example' top='sip:root.oryx.example' proxy='sip:out.oryx.example' direct='10.0.0.1,10.0.0.2' internal=true external=false\n",
        "host 'leaf.oryx.example' type='leaf' parent='none' contact='sip:top.oryx.example' top='sip:root.oryx.example' proxy='sip:out.oryx.example' direct='10.0.0.1,10.0.0.2' internal=true external=false\n",
        "host 'leaf.oryx.example' type='leaf' parent='top.oryx.example' contact='sip:none' top='sip:root.oryx.example' proxy='sip:out.oryx.example' direct='10.0.0.1,10.0.0.2' internal=true external=false\n",
        "host 'leaf.oryx.example' type='leaf' parent='top.oryx.example' contact='sip:top.oryx.example' top='sip:self' proxy='sip:out.oryx.example' direct='10.0.0.1,10.0.0.2' internal=true external=false\n",
        "host 'root.example.com' type='leaf' parent='top.oryx.example' contact='sip:top.oryx.example' top='sip:root.oryx.example' proxy='sip:out.oryx.example' direct='10.0.0.1,10.0.0.2' internal=true external=false\n",
        "host 'leaf.oryx.example' type='leaf' parent='top.oryx.example' contact='sip:top.oryx.example' top='sip:root.oryx.example' proxy='sip:out.oryx.example' direct='10.0.0.1,10.0.0.2' internal=false external=false\n",
        "host 'leaf.oryx.example' type='leaf' parent='top.oryx.example' contact='sip:top.oryx.example' top='sip:root.oryx.example' proxy='sip:out.oryx.example' direct='10.0.0.1,10.0.0.2' internal=true external=true\n",
        "host 'leaf.oryx.example' type='leaf' parent='top.oryx.example' contact='sip:top.oryx.example' top='sip:root.oryx.example' proxy='sip:proxy' direct='10.0.0.1,10.0.0.2' internal=true external=false\n",
        "host 'leaf.oryx.example' type='leaf' parent='top.oryx.example' contact='sip:top.oryx.example' top='sip:root.oryx.example' proxy='sip:out.oryx.example' direct='localhost' internal=true external=false\n",
    };
    for (std::size_t column = 0; column < kHostRow.size(); ++column) {
        libpq.replies({rows({withNull(kHostRow, column)})});
        EXPECT_EQ(hostInfo(executor), "okay\n" + expected[column]) << "column " << column;
    }
}

TEST_F(HostAndRoutingTest, OnlyALowerCaseTAtTheFrontAllowsOutboundRequests)
{
    const auto allowed = [this](const Cell& internal, const Cell& external) {
        std::vector<Cell> row = kHostRow;
        row[5] = internal;
        row[6] = external;
        libpq.replies({rows({row})});
        HostInfo info;
        EXPECT_TRUE(executor.getHostInfo(info).okay());
        return std::string(info.outboundAllowInternal() ? "internal " : "") +
               (info.outboundAllowExternal() ? "external" : "");
    };
    EXPECT_EQ(allowed(std::nullopt, std::nullopt), "internal ");
    EXPECT_EQ(allowed("t", "f"), "internal ");
    EXPECT_EQ(allowed("f", "t"), "external");
    EXPECT_EQ(allowed("true", "true"), "internal external");
    EXPECT_EQ(allowed("T", "1"), "");
    EXPECT_EQ(allowed("", ""), "");
}

TEST_F(HostAndRoutingTest, OnlyTheFirstHostIsRead)
{
    libpq.replies({rows({kHostRow, {"root", "", "", "", "", "t", "f", "", ""}})});
    EXPECT_EQ(
        hostInfo(executor),
        "okay\nhost 'leaf.oryx.example' type='leaf' parent='top.oryx.example' contact='sip:top.oryx.example' top='sip:root.oryx.example' proxy='sip:out.oryx.example' direct='10.0.0.1,10.0.0.2' internal=true external=false\n");
    EXPECT_EQ(traced(), executorTrace({"looking up host info", "host_info returned 2 rows"}));
}

TEST_F(HostAndRoutingTest, WithoutAddressMapsTheListIsOkayAndNothingIsAppended)
{
    libpq.replies({noRows(7)});
    EXPECT_EQ(addressMaps(executor), "okay\n" + kMapBefore);
    EXPECT_EQ(trace.take(), "DatabaseCommandExecutor prn: looking up address_maps\n" + answeredTrace(kAddressMaps) +
                                "DatabaseCommandExecutor prn: no address maps found\n");
}

TEST_F(HostAndRoutingTest, AddressMapsAreAppendedInTheOrderTheyCome)
{
    libpq.replies({rows({{"sequential", "t", "b", "2", "^b", "Sun Feb 29 00:00:00 2004", "1"},
                         {"parallel", "f", "a", "3", "^a", "Thu Jan 01 12:30:00 2026", "1"},
                         kMapRow})});
    EXPECT_EQ(addressMaps(executor),
              "okay\n" + kMapBefore + "map -1 'b' pattern='^b' csid=2 modified=" + seconds(2004, 2, 29, 0, 0, 0) +
                  " priority=1 replace=true ordering='sequential'\n"
                  "map -1 'a' pattern='^a' csid=3 modified=" +
                  seconds(2026, 1, 1, 12, 30, 0) + " priority=1 replace=false ordering='parallel'\n" + kMap);
    EXPECT_EQ(traced(), executorTrace({"looking up address_maps", "found 3 address map records"}));
}

TEST_F(HostAndRoutingTest, ANullColumnOfAnAddressMapLeavesTheDefault)
{
    const std::string modified = " modified=" + kModified;
    const std::vector<std::string> expected = {
        "map -1 'sales' pattern='^sip:1[0-9]+@' csid=12" + modified + " priority=3 replace=false ordering=''\n",
        "map -1 'sales' pattern='^sip:1[0-9]+@' csid=12" + modified +
            " priority=3 replace=true ordering='sequential'\n",
        "map -1 '' pattern='^sip:1[0-9]+@' csid=12" + modified + " priority=3 replace=false ordering='sequential'\n",
        "map -1 'sales' pattern='^sip:1[0-9]+@' csid=-1" + modified +
            " priority=3 replace=false ordering='sequential'\n",
        "map -1 'sales' pattern='' csid=12" + modified + " priority=3 replace=false ordering='sequential'\n",
        "map -1 'sales' pattern='^sip:1[0-9]+@' csid=12 modified=0 priority=3 replace=false ordering='sequential'\n",
        "map -1 'sales' pattern='^sip:1[0-9]+@' csid=12" + modified +
            " priority=0 replace=false ordering='sequential'\n",
    };
    for (std::size_t column = 0; column < kMapRow.size(); ++column) {
        libpq.replies({rows({withNull(kMapRow, column)})});
        EXPECT_EQ(addressMaps(executor), "okay\n" + kMapBefore + expected[column]) << "column " << column;
    }
}

TEST_F(HostAndRoutingTest, OnlyALowerCaseTAtTheFrontOrNullReplacesTheUriOfAMap)
{
    const auto replaces = [this](const Cell& flag) {
        std::vector<Cell> row = kMapRow;
        row[1] = flag;
        libpq.replies({rows({row})});
        std::vector<AddressMapRecord> maps;
        EXPECT_TRUE(executor.getAddressMaps(maps).okay());
        return maps.at(0).replaceUri();
    };
    EXPECT_TRUE(replaces(std::nullopt));
    EXPECT_TRUE(replaces("t"));
    EXPECT_TRUE(replaces("true"));
    EXPECT_FALSE(replaces("f"));
    EXPECT_FALSE(replaces("T"));
    EXPECT_FALSE(replaces(""));
}

TEST_F(HostAndRoutingTest, AModificationTimeThatIsNoneReadsAsZero)
{
    libpq.replies({rows({{"sequential", "f", "sales", "12", "^sip:1[0-9]+@", "1997-12-17 07:37:16", "3"}})});
    EXPECT_EQ(
        addressMaps(executor),
        "okay\n" + kMapBefore +
            "map -1 'sales' pattern='^sip:1[0-9]+@' csid=12 modified=0 priority=3 replace=false ordering='sequential'\n");
}

TEST_F(HostAndRoutingTest, ANullProxyNameIsRefusedWithoutAStatement)
{
    EXPECT_EQ(proxyConfig(executor, nullptr), "query error: null proxy name\n" + kItemBefore);
    EXPECT_EQ(executor.getErrorMessage(), "null proxy name");
    EXPECT_EQ(libpq.take(), "");
    EXPECT_EQ(trace.take(), "");
}

TEST_F(HostAndRoutingTest, AProxyWithoutConfigurationIsOkayAndEmptiesTheItems)
{
    libpq.replies({noRows(3)});
    EXPECT_EQ(proxyConfig(executor, "edge%1"), "okay\n");
    EXPECT_EQ(trace.take(), "DatabaseCommandExecutor prn: looking up proxy configuration for edge%1\n" +
                                answeredTrace(kProxyConfig) +
                                "DatabaseCommandExecutor prn: no configuration found for edge%1\n");
}

TEST_F(HostAndRoutingTest, EveryConfigurationItemIsTakenAndNullReadsAsEmpty)
{
    libpq.replies({rows({{"sip", "timer.b", "32"},
                         {std::nullopt, "timer.f", "64"},
                         {"sip", std::nullopt, "1"},
                         {"sip", "timer.c", std::nullopt},
                         {std::nullopt, std::nullopt, std::nullopt},
                         {"", "", ""}})});
    EXPECT_EQ(proxyConfig(executor, "edge%1"), "okay\n"
                                               "item scope='sip' name='timer.b' value='32'\n"
                                               "item scope='' name='timer.f' value='64'\n"
                                               "item scope='sip' name='' value='1'\n"
                                               "item scope='sip' name='timer.c' value=''\n"
                                               "item scope='' name='' value=''\n"
                                               "item scope='' name='' value=''\n");
    EXPECT_EQ(traced(),
              executorTrace({"looking up proxy configuration for edge%1", "found 6 proxy configuration items"}));
}

TEST_F(HostAndRoutingTest, AQuoteInAProxyNameGoesIntoTheStatementAsItIs)
{
    libpq.replies({noRows(3)});
    EXPECT_EQ(proxyConfig(executor, "it's"), "okay\n");
    EXPECT_EQ(
        libpq.take(),
        "exec SELECT scope, property_name, property_value  FROM proxy_configuration   WHERE proxy_name = 'it's';\n");
}

TEST_F(HostAndRoutingTest, WithoutAccessRulesTheListIsOkayAndNothingIsAppended)
{
    libpq.replies({noRows(3)});
    EXPECT_EQ(domainAccess(executor), "okay\n" + kRuleBefore);
    EXPECT_EQ(trace.take(), "DatabaseCommandExecutor prn: getting domain access list\n" + answeredTrace(kDomainAccess) +
                                "DatabaseCommandExecutor prn: query returned 0 rows\n");
}

TEST_F(HostAndRoutingTest, AccessRulesAreAppendedInTheOrderTheyComeAndNullReadsAsEmpty)
{
    libpq.replies({rows({{"o", "oryx.example", "a"},
                         {std::nullopt, "example.com", "d"},
                         {"*", std::nullopt, "a"},
                         {"i", ".*", std::nullopt}})});
    EXPECT_EQ(domainAccess(executor), "okay\n" + kRuleBefore +
                                          "rule -1 'oryx.example' direction='o' action='a'\n"
                                          "rule -1 'example.com' direction='' action='d'\n"
                                          "rule -1 '' direction='*' action='a'\n"
                                          "rule -1 '.*' direction='i' action=''\n");
    EXPECT_EQ(traced(), executorTrace({"getting domain access list"}));
}

TEST_F(HostAndRoutingTest, AFailedListOfAccessRulesIsTracedThroughItsRetry)
{
    libpq.replies({refused("42601"), refused("42601")});
    domainAccess(executor);
    EXPECT_EQ(trace.take(), executorTrace({"getting domain access list"}) + refusedTwiceTrace(kDomainAccess) +
                                executorTrace({"query error"}));
}

TEST_F(HostAndRoutingTest, AProxyMayBeNamedByAnItemThatItsConfigurationReplaces)
{
    libpq.replies({noRows(3)});
    const std::string name = "a proxy's name longer than a string holds without memory of its own";
    std::vector<ProxyConfig> items = {ProxyConfig("before", "before", name.c_str())};
    EXPECT_EQ(show(executor.getProxyConfig(items.front().value(), items)), "okay");
    EXPECT_EQ(show(items), "");
    EXPECT_EQ(traced(), executorTrace({("looking up proxy configuration for " + name).c_str(),
                                       ("no configuration found for " + name).c_str()}));
}

} // namespace

} // namespace hostAndRoutingTest
