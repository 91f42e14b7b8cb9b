// Each answer of the servers as a client sees it that nobody here wrote: SIPp, by the scenarios of tests/sip/scenarios,
// which say what they hold to.

#include "sip/SipTest.h"
#include "sip/Sipp.h"

#include <algorithm>
#include <ostream>

namespace scenariosTest {

namespace {

struct Scenario {
    std::string name;
    /// What stands in the database besides.
    std::string sql = "";
    std::vector<std::string> options = {"--auth", "none"};
};

void PrintTo(const Scenario& scenario, std::ostream* out)
{
    *out << scenario.name;
}

std::string nameOf(const testing::TestParamInfo<Scenario>& info)
{
    std::string name = info.param.name;
    std::replace(name.begin(), name.end(), '-', '_');
    return name;
}

class Scenarios : public SipTest, public testing::WithParamInterface<Scenario> {
protected:
    void SetUp() override
    {
        if (!GetParam().sql.empty()) {
            sql(GetParam().sql);
        }
    }
};
class RegistrarScenarios : public Scenarios {};
class EventScenarios : public Scenarios {};

TEST_P(RegistrarScenarios, AreAnswered)
{
    startRegistrar(GetParam().options);
    EXPECT_EQ(playScenario(GetParam().name, m_port), "");
}

TEST_P(EventScenarios, AreAnswered)
{
    startEvents(GetParam().options);
    EXPECT_EQ(playScenario(GetParam().name, m_port), "");
}

const std::vector<std::string> kDigest{"--auth", "digest"};

/// Whether bob may watch alice.
std::string rule(const std::string& action)
{
    return "INSERT INTO access_control_list (object, requester, access_action, application) VALUES"
           " ('alice@oryx.example', 'bob@oryx.example', '" +
           action + "', 'presence')";
}

const std::string kDenied =
    "INSERT INTO domain_access (direction, sip_domain, domain_action, qvalue) VALUES ('i', 'spam.example', 'd', 1)";

const std::vector<Scenario> kRegistrar{
    {"register-200-expires"},
    {"register-200-path"},
    {"register-200-star"},
    {"register-400"},
    {"register-401-stale-md5", "", kDigest},
    {"register-401-stale-sha256", "", kDigest},
    {"register-401-wrong", "", kDigest},
    {"register-403"},
    {"register-404"},
    {"register-423"},
    {"message-403-inbound", kDenied},
    {"message-403-outbound"},
    {"message-404"},
    {"message-480"},
    {"message-482"},
    {"message-483"},
    {"invite-200-fork"},
    {"invite-408"},
    {"invite-487"},
};

const std::vector<Scenario> kEvents{
    {"subscribe-200", rule("allow")},
    {"subscribe-200-pending", rule("confirm")},
    {"subscribe-403", rule("block")},
    {"subscribe-404"},
    {"subscribe-423"},
    {"subscribe-489"},
    {"publish-200"},
    {"publish-412"},
    {"publish-415"},
    {"publish-423"},
};

INSTANTIATE_TEST_SUITE_P(Sipp, RegistrarScenarios, testing::ValuesIn(kRegistrar), nameOf);
INSTANTIATE_TEST_SUITE_P(Sipp, EventScenarios, testing::ValuesIn(kEvents), nameOf);

} // namespace

} // namespace scenariosTest
