// Where a request goes: every step of the search, and what comes of each.

#include "support/DatabaseTest.h"
#include "support/ShowBindings.h"

#include <dal/RequestTarget.h>
#include <gtest/gtest.h>

#include <string>

namespace requestTargetTest {

namespace {

class RequestTargets : public ServiceTest {
protected:
    void SetUp() override
    {
        ServiceTest::SetUp();
        sql("CREATE OR REPLACE FUNCTION current_second() RETURNS bigint LANGUAGE sql STABLE RETURN 1000000::bigint");
        sql("INSERT INTO contact_set (csid, sid, ordering) VALUES (20, NULL, 'parallel'), (30, NULL, NULL)");
        sql("INSERT INTO address_map (handle, csid, pattern, priority) VALUES ('gateway', 20, '^sip:[0-9]+@', 1)");
        sql("INSERT INTO host_info (parent_contact, outbound_allow_internal, outbound_allow_external, outbound_proxy) "
            "VALUES ('30', true, false, 'sip:proxy.oryx.example')");
    }

    void add(int csid, const std::string& address, int expires = 1000060)
    {
        sql("INSERT INTO contact (csid, address, expires, path_vector) VALUES (" + std::to_string(csid) + ", '" +
            address + "', " + std::to_string(expires) + ", '<sip:edge;lr>')");
    }

    std::string find(const std::string& handle, const std::string& domain = "oryx.example", bool served = true,
                     bool internal = true)
    {
        oryx::TargetQuestion question;
        question.uri = "sip:" + handle + "@" + domain;
        question.handle = handle;
        question.domain = domain;
        question.served = served;
        question.internal = internal;
        return find(question);
    }
    std::string find(const oryx::TargetQuestion& question)
    {
        oryx::RequestTarget target;
        target.set.bindings.resize(3); // of an earlier question
        target.proxy = "before";
        const oryx::DatabaseResult result = findTarget(m_service, question, target);
        return outcome(result) + "\n" + show(target);
    }
};

std::string shown(const std::string& address, const std::string& expires = "60 s")
{
    return "'" + address + "' " + expires +
           " q='' (1000) path='<sip:edge;lr>' header='' capabilities='' type='' call='' cseq=0\n";
}

const std::string kNone = "parallel, replaced\n";

TEST_F(RequestTargets, AreTheLiveBindingsOfTheAddressOfRecord)
{
    add(12, "sip:a@192.0.2.1");
    add(12, "sip:gone@192.0.2.1", 999999);
    EXPECT_EQ(find("alice"), "okay\nregistered (alice@oryx.example is registered, with 1 live bindings)\n"
                             "sequential, replaced\n" +
                                 shown("sip:a@192.0.2.1"));
}

TEST_F(RequestTargets, AreNoneOfAnAddressThatIsNotRegistered)
{
    add(12, "sip:gone@192.0.2.1", 1000000);
    add(30, "sip:parent@192.0.2.1");
    EXPECT_EQ(find("alice"), "not found\nnot registered (alice@oryx.example is not registered)\n" + kNone);
}

TEST_F(RequestTargets, AreNoneOfAnInactiveSubscriber)
{
    add(12, "sip:a@192.0.2.1");
    add(20, "sip:gateway@192.0.2.1");
    sql("UPDATE subscriber SET active = false; UPDATE address_map SET pattern = '^sip:'");
    EXPECT_EQ(find("alice"), "not found\ninactive (the subscriber of alice@oryx.example is inactive)\n" + kNone);
}

TEST_F(RequestTargets, AreWhatAnAddressMapSaysWhereNobodyHasTheUser)
{
    add(20, "sip:$user@gateway.oryx.example");
    add(20, "sip:gone@gateway.oryx.example", 5);
    EXPECT_EQ(
        find("5551234"),
        "okay\naddress map (an address map leads 5551234@oryx.example to contact set 20, with 1 live bindings)\n" +
            kNone + shown("sip:5551234@gateway.oryx.example"));
    // A map is asked for a host that is not served, too.
    EXPECT_EQ(
        find("42", "elsewhere.example", false),
        "okay\naddress map (an address map leads 42@elsewhere.example to contact set 20, with 1 live bindings)\n" +
            kNone + shown("sip:42@gateway.oryx.example"));
}

TEST_F(RequestTargets, AreWhatAnAddressMapSaysWhereTheUserIsNotRegistered)
{
    add(20, "sip:voicemail@oryx.example");
    sql("UPDATE address_map SET pattern = '^sip:alice@'");
    EXPECT_EQ(find("alice"),
              "okay\naddress map (an address map leads alice@oryx.example to contact set 20, with 1 live bindings)\n" +
                  kNone + shown("sip:voicemail@oryx.example"));
}

TEST_F(RequestTargets, AreNoneWhereTheMapsContactsHaveExpired)
{
    add(20, "sip:gone@gateway.oryx.example", 5);
    add(30, "sip:parent@192.0.2.1");
    EXPECT_EQ(find("5551234"),
              "not found\nnot registered (an address map leads 5551234@oryx.example to contact set 20, "
              "with 0 live bindings)\n" +
                  kNone);
}

TEST_F(RequestTargets, AreTheDefaultRoutesWhereNothingElseIsKnown)
{
    add(30, "sip:$user@parent.oryx.example");
    EXPECT_EQ(
        find("bob"),
        "okay\ndefault route (the default route leads bob@oryx.example to contact set 30, with 1 live bindings)\n" +
            kNone + shown("sip:$user@parent.oryx.example"));
    sql("DELETE FROM contact");
    EXPECT_EQ(find("bob"),
              "not found\nnot registered (the default route leads bob@oryx.example to contact set 30, with "
              "0 live bindings)\n" +
                  kNone);
    const std::string unknown =
        "not found\nunknown (nobody has bob@oryx.example, and there is no default route)\n" + kNone;
    sql("UPDATE host_info SET parent_contact = NULL");
    EXPECT_EQ(find("bob"), unknown);
    sql("UPDATE host_info SET parent_contact = 'none'");
    EXPECT_EQ(find("bob"), unknown);
    sql("DELETE FROM host_info");
    EXPECT_EQ(find("bob"), unknown);
}

TEST_F(RequestTargets, GoOutWhereTheHostIsNotServedAndMayBeSentTo)
{
    EXPECT_EQ(find("dave", "partner.example", false),
              "okay\noutbound (dave@partner.example is elsewhere, and goes out through sip:proxy.oryx.example) through "
              "sip:proxy.oryx.example\n" +
                  kNone);
    sql("UPDATE host_info SET outbound_direct = 'partner.example'");
    EXPECT_EQ(find("dave", "partner.example", false),
              "okay\noutbound (dave@partner.example is elsewhere, and goes out directly)\n" + kNone);
    const std::string denied = "not found\nnot allowed (nothing may be sent to partner.example)\n" + kNone;
    EXPECT_EQ(find("dave", "partner.example", false, false), denied);
    sql("INSERT INTO domain_access (direction, sip_domain, domain_action, qvalue) "
        "VALUES ('o', 'partner.example', 'd', 1)");
    EXPECT_EQ(find("dave", "partner.example", false), denied);
    sql("DELETE FROM host_info");
    EXPECT_EQ(find("dave", "partner.example", false), denied);
}

TEST_F(RequestTargets, HaveNoAddressOfRecordAtAHostThatIsNotServedOrWithoutAUser)
{
    sql("INSERT INTO public_address (handle, sip_domain, csid) VALUES ('alice', 'partner.example', 12), "
        "('', 'oryx.example', 12)");
    add(12, "sip:a@192.0.2.1");
    EXPECT_EQ(find("alice", "partner.example", false),
              "okay\noutbound (alice@partner.example is elsewhere, and goes out through sip:proxy.oryx.example) "
              "through sip:proxy.oryx.example\n" +
                  kNone);
    sql("DELETE FROM host_info");
    EXPECT_EQ(find(""), "not found\nunknown (nobody has @oryx.example, and there is no default route)\n" + kNone);
}

TEST_F(RequestTargets, AreNotToldWhereAStepFails)
{
    const std::string failed = "\nfailed ()\n" + kNone;
    add(12, "sip:a@192.0.2.1");
    oryx::TargetQuestion question;
    question.uri = "no URI";
    question.domain = "partner.example";
    question.served = false;
    EXPECT_EQ(find(question), "query error: getOutboundRoute: invalid outbound uri" + failed);
    sql("REVOKE SELECT ON domain_access FROM oryx_server");
    const std::string denied = "query error: [42501] ERROR:  permission denied for table ";
    EXPECT_EQ(find("dave", "partner.example", false), denied + "domain_access" + failed);
    sql("REVOKE SELECT ON host_info FROM oryx_server");
    EXPECT_EQ(find("bob"), denied + "host_info" + failed);
    sql("REVOKE SELECT ON address_map FROM oryx_server");
    EXPECT_EQ(find("bob"), denied + "address_map" + failed);
    EXPECT_EQ(find("alice").substr(0, 17), "okay\nregistered (");
    sql("REVOKE SELECT ON public_address FROM oryx_server");
    EXPECT_EQ(find("alice"), denied + "public_address" + failed);
    oryx::LocationService unconnected;
    oryx::RequestTarget target;
    EXPECT_EQ(show(findTarget(unconnected, question, target)),
              "connection error: lookup attempted without a database connection");
}

} // namespace

} // namespace requestTargetTest
