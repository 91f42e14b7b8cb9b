// Calls between telephones that nobody here wrote.

#include "sip/Baresip.h"
#include "sip/SipTest.h"
#include "sip/Sipp.h"

#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <thread>

namespace callsTest {

namespace {

class Calls : public SipTest {
protected:
    /// The user's telephone, which has registered.
    std::unique_ptr<Baresip> telephone(const std::string& user, int seconds = 60) const
    {
        auto made = std::make_unique<Baresip>(user, m_port, "", seconds);
        EXPECT_TRUE(made->tells("REGISTER_OK")) << made->said();
        return made;
    }
    /// Waits until that is what the database says; false when it does not in time.
    bool becomes(const std::string& query, const std::string& wanted)
    {
        for (int look = 0; look < 300 && rows(query) != wanted; ++look) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        return rows(query) == wanted;
    }
};

/// RFC 3261 sections 10, 16 and 22.
TEST_F(Calls, ConnectTwoTelephonesThatHearEachOther)
{
    startRegistrar({});
    const auto alice = telephone("alice");
    const auto bob = telephone("bob");
    ASSERT_TRUE(alice->reaches(*bob)) << alice->said() << bob->said();
    EXPECT_TRUE(alice->hears());
    EXPECT_TRUE(bob->hears());
    alice->command("hangup");
    EXPECT_TRUE(bob->tells("CALL_CLOSED")) << bob->said();
}

/// Sections 16.6 and 16.7, item 10: when one telephone is answered, the other stops.
TEST_F(Calls, RingAllTelephonesUntilOneIsAnswered)
{
    startRegistrar({});
    const auto alice = telephone("alice");
    const auto desk = telephone("bob");
    const auto mobile = telephone("bob");
    alice->command("dial", "sip:bob@oryx.example");
    ASSERT_TRUE(desk->tells("CALL_INCOMING")) << desk->said();
    ASSERT_TRUE(mobile->tells("CALL_INCOMING")) << mobile->said();
    desk->command("accept");
    EXPECT_TRUE(alice->tells("CALL_ESTABLISHED")) << alice->said();
    EXPECT_TRUE(mobile->tells("CALL_CLOSED")) << mobile->said();
    EXPECT_TRUE(desk->hears());
    alice->command("hangup");
    EXPECT_TRUE(desk->tells("CALL_CLOSED")) << desk->said();
}

/// Sections 9.1 and 16.10.
TEST_F(Calls, StopRingingWhenTheCallerHangsUp)
{
    startRegistrar({});
    const auto alice = telephone("alice");
    const auto bob = telephone("bob");
    alice->command("dial", "sip:bob@oryx.example");
    ASSERT_TRUE(bob->tells("CALL_INCOMING")) << bob->said();
    ASSERT_TRUE(alice->tells("CALL_RINGING")) << alice->said();
    alice->command("hangup");
    EXPECT_TRUE(bob->tells("CALL_CLOSED")) << bob->said();
}

/// Section 12.2, by the routes of section 16.6, item 4: a dialog is the telephones', and its requests find their way
/// through a server that has not seen its beginning.
TEST_F(Calls, GoOnWhenTheServerIsKilledAndStartedAgain)
{
    startRegistrar({"--record-route"});
    const auto alice = telephone("alice");
    const auto bob = telephone("bob");
    ASSERT_TRUE(alice->reaches(*bob)) << alice->said() << bob->said();
    m_server->signal(SIGKILL);
    m_server->wait();
    EXPECT_TRUE(bob->hears());
    startRegistrar({"--record-route"});
    EXPECT_TRUE(alice->hears());
    alice->command("hangup");
    EXPECT_TRUE(bob->tells("CALL_CLOSED")) << bob->said();
}

/// Sections 10.2.4 and 10.2.2: a telephone refreshes its binding, and takes it away when it is put out.
TEST_F(Calls, AreForTelephonesThatStayRegisteredUntilTheyQuit)
{
    startRegistrar({"--min-expires", "1"});
    const auto alice = telephone("alice", 3);
    const std::string first = rows("SELECT expires FROM contact");
    EXPECT_TRUE(becomes("SELECT expires > " + first + " FROM contact", "t\n")) << alice->said();
    alice->command("quit");
    EXPECT_TRUE(becomes("SELECT count(*) FROM contact", "0\n")) << alice->said();
}

/// Section 22.
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
    EXPECT_EQ(playScenario("register", m_port, {"-inf", users, "-m", "2"}), "");
    EXPECT_EQ(rows("SELECT count(*) FROM contact"), "2\n");
    std::remove(users.c_str());
}

} // namespace

} // namespace callsTest
