// Calls between telephones that nobody here wrote.

#include "sip/Baresip.h"
#include "sip/SipTest.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <thread>

namespace {

class Calls : public SipTest {
protected:
    /// Waits until the other's tone has been heard for a second.
    static bool hears(const Baresip& telephone)
    {
        for (int look = 0; look < 150; ++look) {
            if (telephone.heard() > 0.5) {
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        return false;
    }
};

/// RFC 3261 sections 10, 16 and 22.
TEST_F(Calls, ConnectTwoTelephonesThatHearEachOther)
{
    startRegistrar({});
    Baresip alice("alice", m_port);
    Baresip bob("bob", m_port);
    ASSERT_TRUE(alice.tells("REGISTER_OK")) << alice.said();
    ASSERT_TRUE(bob.tells("REGISTER_OK")) << bob.said();
    alice.command("dial", "sip:bob@oryx.example");
    ASSERT_TRUE(bob.tells("CALL_INCOMING")) << bob.said();
    bob.command("accept");
    ASSERT_TRUE(bob.tells("CALL_ESTABLISHED")) << bob.said();
    ASSERT_TRUE(alice.tells("CALL_ESTABLISHED")) << alice.said();
    EXPECT_TRUE(hears(alice));
    EXPECT_TRUE(hears(bob));
    alice.command("hangup");
    EXPECT_TRUE(bob.tells("CALL_CLOSED")) << bob.said();
}

TEST_F(Calls, NeedTheRightPassword)
{
    startRegistrar({});
    Baresip alice("alice", m_port, "wrong");
    EXPECT_TRUE(alice.tells("REGISTER_FAIL")) << alice.said();
    EXPECT_EQ(bindings(), "");
}

/// Sections 10 and 22.
TEST_F(Calls, BeginWithRegistrationsOfAnyTelephone)
{
    startRegistrar({});
    const std::string users = testing::TempDir() + "oryx-sipp-" + std::to_string(getpid()) + ".csv";
    std::ofstream(users) << "SEQUENTIAL\nalice;[authentication username=alice password=alice]\n"
                            "bob;[authentication username=bob password=bob]\n";
    Program sipp("/usr/bin/sipp",
                 {"127.0.0.1:" + std::to_string(m_port), "-sf", ORYX_SCENARIOS "/register.xml", "-inf", users, "-m",
                  "2", "-i", "127.0.0.1", "-p", std::to_string(phone::freePort()), "-nostdin", "-timeout", "20s"});
    EXPECT_EQ(sipp.wait(30), 0) << sipp.soFar();
    EXPECT_EQ(rows("SELECT count(*) FROM contact"), "2\n");
    std::remove(users.c_str());
}

} // namespace
