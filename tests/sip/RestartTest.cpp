// The server killed and started again while telephones are registered and talk.

#include "sip/SipTest.h"

#include <csignal>

namespace restartTest {

namespace {

using phone::Message;
using phone::Phone;

class Restart : public SipTest {
protected:
    void killAndStart(const std::vector<std::string>& options)
    {
        m_server->signal(SIGKILL);
        EXPECT_EQ(m_server->wait(2), -SIGKILL);
        startRegistrar(options);
    }
    Phone called{"alice", "oryx.example", m_port};
    Phone caller{"bob", "oryx.example", m_port};
};

/// RFC 3261 section 10: what was acknowledged is bound.
TEST_F(Restart, LeavesTelephonesRegistered)
{
    startRegistrar({});
    const Message request = called.registration("<" + called.contact() + ">");
    EXPECT_EQ(status(called.ask(request, "alice")), "200 OK");
    killAndStart({});
    caller.send(caller.request("MESSAGE", "sip:alice@oryx.example"));
    EXPECT_EQ(called.receive().method(), "MESSAGE");
    EXPECT_EQ(status(called.ask(called.registration("<" + called.contact() + ">"), "alice")), "200 OK");
}

/// A nonce of before is no more than old: its count is not known any longer.
TEST_F(Restart, AsksForProofAnew)
{
    startRegistrar({});
    const Message challenge = called.ask(called.registration("<" + called.contact() + ">"));
    killAndStart({});
    Message request = called.registration("<" + called.contact() + ">");
    request.set("Authorization", called.credentials(request, challenge, "alice", "MD5"));
    const Message answer = called.ask(request);
    EXPECT_EQ(status(answer), "401 Unauthorized");
    EXPECT_EQ(answer.parameter("WWW-Authenticate", "stale"), "true");
}

/// Section 12.2, by the routes of section 16.6, item 4.
TEST_F(Restart, LetsACallGoOn)
{
    const std::vector<std::string> options{"--auth", "none", "--record-route"};
    startRegistrar(options);
    ASSERT_EQ(status(called.ask(called.registration("<" + called.contact() + ">"))), "200 OK");
    const Message request = caller.request("INVITE", "sip:alice@oryx.example");
    caller.send(request);
    const Message offered = called.receive();
    const Message accepted = called.response(offered, 200, "OK");
    called.send(accepted);
    EXPECT_EQ(caller.receive().status(), 100);
    const std::string route = caller.receive().field("Record-Route");
    killAndStart(options);

    const auto inDialog = [&](const std::string& method, const std::string& cseq) {
        Message next = caller.request(method, called.contact());
        next.set("From", request.field("From"))
            .set("To", accepted.field("To"))
            .set("Call-ID", request.field("Call-ID"));
        return next.set("CSeq", cseq + " " + method).set("Route", route);
    };
    caller.send(inDialog("ACK", "1"));
    EXPECT_EQ(called.receive().first, "ACK " + called.contact() + " SIP/2.0");
    caller.send(inDialog("INVITE", "2"));
    const Message again = called.receive();
    EXPECT_EQ(again.first, "INVITE " + called.contact() + " SIP/2.0");
    called.send(called.response(again, 200, "OK"));
    EXPECT_EQ(caller.receive().status(), 100);
    EXPECT_EQ(caller.receive().status(), 200);
    caller.send(inDialog("ACK", "2"));
    EXPECT_EQ(called.receive().method(), "ACK");

    Message end = called.request("BYE", caller.contact());
    end.set("From", accepted.field("To")).set("To", request.field("From")).set("Call-ID", request.field("Call-ID"));
    called.send(end.set("Route", offered.field("Record-Route")));
    const Message ended = caller.receive();
    EXPECT_EQ(ended.first, "BYE " + caller.contact() + " SIP/2.0");
    caller.send(caller.response(ended, 200, "OK"));
    EXPECT_EQ(status(called.receive()), "200 OK");
}

} // namespace

} // namespace restartTest
