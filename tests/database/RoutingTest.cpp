#include "support/DatabaseTest.h"
#include "support/Show.h"
#include "support/TraceLog.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace routingTest {

namespace {

class Routing : public ServiceTest {
protected:
    void SetUp() override
    {
        ServiceTest::SetUp();
        sql("INSERT INTO host_info (parent_contact, outbound_allow_internal, outbound_allow_external, outbound_proxy,"
            " outbound_direct) VALUES ('12', true, false, 'sip:out.oryx.example', 'a.example b.example;c.example')");
    }

    std::string defaultRoute()
    {
        std::string ordering = "-";
        bool replaceUri = false;
        std::vector<oryx::ContactRecord> found;
        const std::string answer = outcome(m_service.getDefaultRoute(ordering, replaceUri, found));
        return answer + " " + ordering + (replaceUri ? " replacing\n" : "\n") + show(found);
    }

    std::string route(const char* uri, bool internal)
    {
        std::string proxy = "as before";
        bool allowed = !internal;
        const std::string answer = outcome(m_service.getOutboundRoute(uri, internal, proxy, allowed));
        return answer + (allowed ? " allowed '" : " denied '") + proxy + "'";
    }
    std::string internal(const char* uri) { return route(uri, true); }
    std::string external(const char* uri) { return route(uri, false); }

    std::string inbound(const char* domain)
    {
        bool allowed = false;
        const std::string answer = outcome(m_service.checkInboundDomainAccess(domain, allowed));
        return answer + (allowed ? " allowed" : " denied");
    }

    void addRules(const std::string& rules)
    {
        sql("INSERT INTO domain_access (direction, sip_domain, domain_action, qvalue) VALUES " + rules);
    }
};

TEST_F(Routing, TheDefaultRouteIsTheParentsContactSet)
{
    EXPECT_EQ(registerAll({"sip:$user@hub.oryx.example"}), "okay");
    EXPECT_EQ(defaultRoute(), "okay sequential replacing\n" + show(contact("sip:$user@hub.oryx.example")));
    sql("UPDATE contact_set SET replace_uri = false; UPDATE subscriber SET active = false");
    EXPECT_EQ(defaultRoute(), "okay sequential\n" + show(contact("sip:$user@hub.oryx.example")));
    sql("UPDATE host_info SET parent_contact = '13'");
    EXPECT_EQ(defaultRoute(), "okay - replacing\n");
}

TEST_F(Routing, TheDefaultRouteNeedsAContactSet)
{
    sql("UPDATE host_info SET parent_contact = 'sip:hub.oryx.example'");
    EXPECT_EQ(defaultRoute(), "query error: NULL csid - replacing\n");
    sql("UPDATE host_info SET parent_contact = NULL");
    EXPECT_EQ(defaultRoute(), "query error: NULL csid - replacing\n");
    sql("DELETE FROM host_info");
    EXPECT_EQ(defaultRoute(), "not found -\n");
}

TEST_F(Routing, NoRequestIsRoutedWithoutHostSettings)
{
    sql("DELETE FROM host_info");
    EXPECT_EQ(internal("sip:bob@example.com"), "not found denied 'as before'");
    EXPECT_EQ(external("sip:bob@example.com"), "not found allowed 'as before'");
}

TEST_F(Routing, AnInternalRequestLeavesUnlessARuleDenies)
{
    EXPECT_EQ(internal("sip:bob@example.com"), "okay allowed 'sip:out.oryx.example'");
    addRules("('i', 'example.com', 'd', 1), ('o', 'example.com', 'a', 2)");
    EXPECT_EQ(internal("sip:bob@example.com"), "okay allowed 'sip:out.oryx.example'");
    addRules("('*', 'example.com', 'd', 3)");
    EXPECT_EQ(internal("sip:bob@example.com"), "okay denied 'as before'");
    EXPECT_EQ(internal("sip:bob@other.example"), "okay allowed 'sip:out.oryx.example'");
}

TEST_F(Routing, AnInternalRequestStaysWhereNoneLeavesUnlessARuleAllows)
{
    sql("UPDATE host_info SET outbound_allow_internal = false");
    EXPECT_EQ(internal("sip:bob@example.com"), "okay denied 'as before'");
    addRules("('o', 'example.com', 'd', 1), ('o', 'example.com', 'a', 2)");
    EXPECT_EQ(internal("sip:bob@example.com"), "okay allowed 'sip:out.oryx.example'");
    EXPECT_EQ(internal("sip:bob@other.example"), "okay denied 'as before'");
}

TEST_F(Routing, AnExternalRequestFollowsTheHostsSettingAlone)
{
    addRules("('*', 'example.com', 'd', 1), ('*', 'a.example', 'a', 2)");
    EXPECT_EQ(external("sip:bob@a.example"), "okay denied 'as before'");
    sql("UPDATE host_info SET outbound_allow_external = true");
    EXPECT_EQ(external("sip:bob@example.com"), "okay allowed 'sip:out.oryx.example'");
}

TEST_F(Routing, AHostOnTheBypassListIsReachedDirectly)
{
    EXPECT_EQ(internal("sip:bob@c.example:5070"), "okay allowed ''");
    EXPECT_EQ(internal("sip:bob@example"), "okay allowed 'sip:out.oryx.example'");
    sql("UPDATE host_info SET outbound_direct = NULL");
    EXPECT_EQ(internal("sip:bob@c.example:5070"), "okay allowed 'sip:out.oryx.example'");
    sql("UPDATE host_info SET outbound_proxy = NULL");
    EXPECT_EQ(internal("sip:bob@c.example:5070"), "okay allowed ''");
}

TEST_F(Routing, TheRulesAreTakenInTheOrderOfTheirQvalue)
{
    addRules("('o', 'c.example', 'a', 10), ('i', 'a.example', 'd', 0.5), ('*', 'b.example', 'd', 9)");
    TraceLog trace;
    EXPECT_EQ(internal("sip:bob@b.example"), "okay denied 'as before'");
    EXPECT_EQ(trace.take("LocationService"), "LocationService prn: domain access list:\n"
                                             "LocationService prn: domain=a.example dir=i action=d\n"
                                             "LocationService prn: domain=b.example dir=* action=d\n"
                                             "LocationService prn: domain=c.example dir=o action=a\n"
                                             "LocationService prn: checking internal request\n"
                                             "LocationService prn: internal request is allowed, checking deny list\n"
                                             "LocationService prn: request denied by access list\n");
}

TEST_F(Routing, AnInboundRequestIsAcceptedUnlessARuleDenies)
{
    EXPECT_EQ(inbound("a.example"), "okay allowed");
    addRules("('i', 'a.example', 'a', 1), ('i', 'a.example', 'd', 2), ('*', 'b.example', 'd', 3),"
             " ('o', 'c.example', 'd', 4), ('*', 'd.example', 'a', 5), ('i', NULL, 'd', 6)");
    EXPECT_EQ(inbound("a.example"), "okay denied");
    EXPECT_EQ(inbound("b.example"), "okay denied");
    EXPECT_EQ(inbound("c.example"), "okay allowed");
    EXPECT_EQ(inbound("d.example"), "okay allowed");
    EXPECT_EQ(inbound("other.example"), "okay allowed");
    EXPECT_EQ(inbound(nullptr), "okay allowed");
}

TEST_F(Routing, ARequestIsRoutedThoughTheRulesCannotBeRead)
{
    sql("REVOKE SELECT ON domain_access FROM oryx_server");
    const std::string refused = "query error: [42501] ERROR:  permission denied for table domain_access";
    EXPECT_EQ(internal("sip:bob@example.com"), refused + " allowed 'sip:out.oryx.example'");
    EXPECT_EQ(external("sip:bob@example.com"), refused + " denied 'as before'");
    EXPECT_EQ(internal("not a uri"), "query error: getOutboundRoute: invalid outbound uri denied 'as before'");
    EXPECT_EQ(inbound("a.example"), refused + " denied");
}

TEST_F(Routing, QuestionsAreAnsweredOverANewConnectionWhenTheirsWasTerminated)
{
    EXPECT_EQ(registerAll({"sip:hub.oryx.example"}), "okay");
    addRules("('*', 'example.com', 'd', 1)");
    terminate(backend());
    EXPECT_EQ(defaultRoute(), "okay sequential replacing\n" + show(contact("sip:hub.oryx.example")));
    terminate(backend());
    EXPECT_EQ(internal("sip:bob@example.com"), "okay denied 'as before'");
    terminate(backend());
    EXPECT_EQ(inbound("example.com"), "okay denied");
}

} // namespace

} // namespace routingTest
