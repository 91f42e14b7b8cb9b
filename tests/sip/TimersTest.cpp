// What takes minutes, in no time: the registrar has a clock that the test moves (libfaketime).

#include "sip/SipTest.h"
#include "support/TemporaryDirectory.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace timersTest {

namespace {

using phone::Message;
using phone::Phone;

class Timers : public SipTest {
protected:
    Timers()
    {
        write(0);
        setenv("LD_PRELOAD", "/usr/$LIB/faketime/libfaketimeMT.so.1", 1);
        setenv("FAKETIME_TIMESTAMP_FILE", clock().c_str(), 1);
        setenv("FAKETIME_NO_CACHE", "1", 1);
        startRegistrar();
        unsetenv("LD_PRELOAD");
    }
    /// What the clock shares with a server's children, it may leave behind.
    void TearDown() override
    {
        const std::string process = std::to_string(m_server->process());
        m_server.reset();
        std::filesystem::remove("/dev/shm/faketime_shm_" + process);
        std::filesystem::remove("/dev/shm/sem.faketime_sem_" + process);
    }

    /// Has the server's clock show so many seconds more than ours.
    void setClock(int seconds)
    {
        wake(); // what it is at is done by the clock as it was
        write(seconds);
        wake(); // it sleeps by our clock
    }
    void write(int seconds) const
    {
        const std::string next = m_folder.file("next");
        std::ofstream(next) << '+' << seconds;
        std::filesystem::rename(next, clock());
    }
    void wake() { EXPECT_EQ(status(m_monitor.ask(m_monitor.request("OPTIONS", "sip:oryx.example"))), "200 OK"); }
    std::string clock() const { return m_folder.file("clock"); }

    TemporaryDirectory m_folder;
    Phone m_monitor{"monitor", "oryx.example", m_port};
    Phone called{"alice", "oryx.example", m_port};
    Phone caller{"bob", "oryx.example", m_port};
};

/// RFC 3261 section 16.6, item 11, 16.7, item 2, and 16.8: more than three minutes from when the telephone has said
/// last that it rings.
TEST_F(Timers, EndACallThatNobodyTakes)
{
    ASSERT_EQ(status(called.ask(called.registration("<" + called.contact() + ">", 36000))), "200 OK");
    caller.send(caller.request("INVITE", "sip:alice@oryx.example"));
    const Message offered = called.receive();
    EXPECT_EQ(caller.receive().status(), 100);
    called.send(called.response(offered, 180, "Ringing"));
    EXPECT_EQ(caller.receive().status(), 180);
    setClock(180);
    EXPECT_TRUE(called.socket().silent());
    called.send(called.response(offered, 180, "Ringing"));
    EXPECT_EQ(caller.receive().status(), 180);
    setClock(360);
    EXPECT_TRUE(called.socket().silent());
    setClock(366);
    const Message cancel = called.receive();
    EXPECT_EQ(cancel.first, "CANCEL " + called.contact() + " SIP/2.0");
    called.send(called.response(cancel, 200, "OK"));
    called.send(called.response(offered, 487, "Request Terminated"));
    EXPECT_EQ(called.receive().method(), "ACK");
    EXPECT_EQ(status(caller.receive()), "408 Request Timeout");
}

/// Section 16.8: who rings on after he was told to stop, and never says that he has stopped, is given up once.
TEST_F(Timers, OutliveATelephoneThatRingsOnWhenItWasToldToStop)
{
    Phone deaf("alice", "oryx.example", m_port);
    for (Phone* const telephone : {&deaf, &called}) {
        ASSERT_EQ(status(telephone->ask(telephone->registration("<" + telephone->contact() + ">", 36000))), "200 OK");
    }
    caller.send(caller.request("INVITE", "sip:alice@oryx.example"));
    EXPECT_EQ(caller.receive().status(), 100);
    const Message atDeaf = deaf.receive();
    const Message offered = called.receive();
    const auto ring = [&](Phone& telephone, const Message& request) {
        telephone.send(telephone.response(request, 180, "Ringing"));
        EXPECT_EQ(caller.receive().status(), 180);
    };
    ring(deaf, atDeaf);
    ring(called, offered);
    setClock(180);
    ring(called, offered);
    setClock(186);
    const Message cancel = deaf.receive();
    EXPECT_EQ(cancel.method(), "CANCEL");
    deaf.send(deaf.response(cancel, 200, "OK"));
    ring(deaf, atDeaf);
    setClock(219);
    ring(called, offered);
    setClock(373);
    EXPECT_TRUE(deaf.socket().silent());
    called.send(called.response(offered, 200, "OK"));
    EXPECT_EQ(status(caller.receive()), "200 OK");
}

/// Where one cannot be sent to, the next has all his own time: nobody comes after him.
TEST_F(Timers, LetTheLastTelephoneRingWhereTheOneBeforeCannotBeCalled)
{
    sql("UPDATE contact_set SET ordering = 'sequential' WHERE csid = 1;"
        "INSERT INTO contact (csid, address, qvalue, permanent) VALUES (1, 'tel:+4930123456', '0.9', true)");
    ASSERT_EQ(status(called.ask(called.registration("<" + called.contact() + ">;q=0.3", 36000))), "200 OK");
    caller.send(caller.request("INVITE", "sip:alice@oryx.example"));
    EXPECT_EQ(caller.receive().status(), 100);
    const Message offered = called.receive();
    called.send(called.response(offered, 180, "Ringing"));
    EXPECT_EQ(caller.receive().status(), 180);
    setClock(60);
    EXPECT_TRUE(called.socket().silent());
    called.send(called.response(offered, 200, "OK"));
    EXPECT_EQ(status(caller.receive()), "200 OK");
}

/// Section 17.1.1.2, Timer B: half a minute for the first word.
TEST_F(Timers, EndACallToATelephoneThatSaysNothing)
{
    ASSERT_EQ(status(called.ask(called.registration("<" + called.contact() + ">", 36000))), "200 OK");
    caller.send(caller.request("INVITE", "sip:alice@oryx.example"));
    EXPECT_EQ(called.receive().method(), "INVITE");
    EXPECT_EQ(caller.receive().status(), 100);
    setClock(25);
    EXPECT_TRUE(caller.socket().silent());
    setClock(33);
    EXPECT_EQ(status(caller.receive()), "408 Request Timeout");
}

/// Who sends a byte now and then, and never a whole request, is nobody's telephone.
TEST_F(Timers, EndAConnectionThatNeverSaysAnythingWhole)
{
    Phone telephone("alice", "oryx.example", m_port, "127.0.0.1", phone::Transport::tcp);
    EXPECT_EQ(status(telephone.ask(telephone.request("OPTIONS", "sip:oryx.example"))), "200 OK");
    phone::Socket slow("127.0.0.1", phone::Transport::tcp);
    for (const int seconds : {9, 25}) { // less each than what the stack waits for the next one
        slow.send(m_port, "O");
        setClock(seconds);
        EXPECT_FALSE(slow.closed(500)) << seconds;
    }
    slow.send(m_port, "O");
    setClock(42);
    EXPECT_TRUE(slow.closed());
    EXPECT_EQ(status(telephone.ask(telephone.request("OPTIONS", "sip:oryx.example"))), "200 OK");
}

} // namespace

} // namespace timersTest
