// The same over UDP and TCP, IPv4 and IPv6, and from each to each: RFC 3261 section 18, RFC 5658.

#include "sip/SipTest.h"

#include <sys/resource.h>

#include <algorithm>
#include <array>
#include <memory>

namespace transportsTest {

namespace {

using phone::Message;
using phone::Phone;
using phone::Transport;

struct Way {
    const char* host;
    Transport transport;
};

constexpr Way kUdp{"127.0.0.1", Transport::udp};
constexpr Way kTcp{"127.0.0.1", Transport::tcp};
constexpr Way kUdpSix{"::1", Transport::udp};
constexpr Way kTcpSix{"::1", Transport::tcp};
constexpr std::array kWays{kUdp, kTcp, kUdpSix, kTcpSix};

class Transports : public SipTest {
protected:
    /// The registrar with a socket of each kind, TCP's first.
    void startWithAll(std::vector<std::string> options)
    {
        const std::string port = std::to_string(m_port);
        for (const std::string& socket : {"tcp:[::1]:" + port, "udp:[::1]:" + port}) {
            options.insert(options.end(), {"--listen", socket});
        }
        startRegistrar(options);
    }
    Phone phoneOf(const std::string& user, const Way& way) const
    {
        return {user, "oryx.example", m_port, way.host, way.transport};
    }
    static std::string nameOf(const Way& way)
    {
        return std::string(way.transport == Transport::tcp ? "TCP " : "UDP ") + way.host;
    }
    /// The socket of the server that a telephone of that kind talks with.
    std::string socketOf(const Way& way) const
    {
        const std::string host = way.host;
        return "sip:" + (host == "::1" ? "[::1]" : host) + ":" + std::to_string(m_port) +
               ";transport=" + (way.transport == Transport::tcp ? "tcp" : "udp");
    }
    void call(const Way& from, const Way& to);
};

/// RFC 3261 section 10.
TEST_F(Transports, RegisterAlike)
{
    startWithAll({});
    for (const Way& way : kWays) {
        SCOPED_TRACE(nameOf(way));
        Phone alice = phoneOf("alice", way);
        const std::string contact = "<" + alice.contact() + ">";
        EXPECT_EQ(status(alice.ask(alice.registration(contact), "wrong")), "401 Unauthorized");
        EXPECT_EQ(status(alice.ask(alice.registration(contact), "alice", "SHA-256")), "200 OK");
        EXPECT_EQ(bindings(), alice.contact() + "\n");
        EXPECT_EQ(status(alice.ask(alice.registration(contact, 7200), "alice")), "200 OK");
        EXPECT_EQ(status(alice.ask(alice.registration("*", 0), "alice")), "200 OK");
        EXPECT_EQ(bindings(), "");
    }
}

/// A call, and its end by the one who was called. Each finds the way back by what the proxy has recorded: one route
/// where both come by the same socket, one for each socket otherwise (RFC 5658 section 4).
void Transports::call(const Way& from, const Way& to)
{
    Phone caller = phoneOf("bob", from);
    Phone called = phoneOf("alice", to);
    ASSERT_EQ(status(called.ask(called.registration("<" + called.contact() + ">"))), "200 OK");
    const Message request = caller.request("INVITE", "sip:alice@oryx.example");
    caller.send(request);
    const Message offered = called.receive();
    const std::string routes = offered.field("Record-Route");
    const std::string own = socketOf(from) == socketOf(to) ? "" : "<" + socketOf(to) + ";lr;";
    EXPECT_EQ(routes.find(own.empty() ? "<" + socketOf(from) + ";lr;" : own), 0U) << routes;
    EXPECT_EQ(std::count(routes.begin(), routes.end(), '<'), own.empty() ? 1 : 2) << routes;
    EXPECT_NE(routes.find("<" + socketOf(from) + ";lr;"), std::string::npos) << routes;

    const Message accepted = called.response(offered, 200, "OK");
    called.send(accepted);
    Message answer = caller.receive();
    while (answer.status() < 200) {
        answer = caller.receive();
    }
    EXPECT_EQ(status(answer), "200 OK");
    // To the caller, the routes lead the other way round.
    const std::string told = answer.field("Record-Route");
    const std::size_t comma = told.find(", ");
    const std::string back = comma == std::string::npos ? told : told.substr(comma + 2) + ", " + told.substr(0, comma);
    Message acknowledgement = caller.request("ACK", called.contact());
    acknowledgement.set("From", request.field("From")).set("Call-ID", request.field("Call-ID"));
    acknowledgement.set("To", accepted.field("To")).set("CSeq", "1 ACK").set("Route", back);
    caller.send(acknowledgement);
    const Message acknowledged = called.receive();
    EXPECT_EQ(acknowledged.method(), "ACK");
    EXPECT_EQ(acknowledged.field("Route"), "");

    Message end = called.request("BYE", caller.contact());
    end.set("From", accepted.field("To")).set("To", request.field("From"));
    end.set("Call-ID", request.field("Call-ID")).set("Route", routes);
    called.send(end);
    const Message ended = caller.receive();
    EXPECT_EQ(ended.first, "BYE " + caller.contact() + " SIP/2.0");
    EXPECT_EQ(ended.field("Route"), "");
    caller.send(caller.response(ended, 200, "OK"));
    EXPECT_EQ(status(called.receive()), "200 OK");
    ASSERT_EQ(status(called.ask(called.registration("*", 0))), "200 OK");
}

TEST_F(Transports, CallFromEachToEach)
{
    startWithAll({"--auth", "none", "--record-route"});
    for (const Way& from : kWays) {
        for (const Way& to : kWays) {
            SCOPED_TRACE(nameOf(from) + " to " + nameOf(to));
            ASSERT_NO_FATAL_FAILURE(call(from, to));
        }
    }
}

/// Sections 16.4 and 19.1.1: a maddr may be of any family, and is this proxy's by whichever socket it names.
TEST_F(Transports, LeadByMaddr)
{
    startWithAll({"--auth", "none"});
    for (const Way& way : kWays) {
        SCOPED_TRACE(nameOf(way));
        Phone caller = phoneOf("bob", way);
        Phone called = phoneOf("alice", kUdpSix);
        const std::string contact =
            "sip:alice@192.0.2.1:" + std::to_string(called.socket().port()) + ";maddr=[::1];user=ip";
        ASSERT_EQ(status(called.ask(called.registration("<" + contact + ">"))), "200 OK");
        const std::string host = std::string(way.host) == "::1" ? "[::1]" : way.host;
        const std::string transport = way.transport == Transport::tcp ? "tcp" : "udp";
        caller.send(caller.request("MESSAGE", "sip:alice@oryx.example:" + std::to_string(m_port) +
                                                  ";transport=" + transport + ";maddr=" + host));
        const Message offered = called.receive();
        EXPECT_EQ(offered.first, "MESSAGE " + contact + " SIP/2.0");
        called.send(called.response(offered, 200, "OK"));
        EXPECT_EQ(status(caller.receive()), "200 OK");
        ASSERT_EQ(status(called.ask(called.registration("*", 0))), "200 OK");
    }
}

/// Section 9.1, by streams.
TEST_F(Transports, CancelByTcp)
{
    startWithAll({"--auth", "none"});
    Phone called = phoneOf("alice", kTcpSix);
    Phone caller = phoneOf("bob", kTcp);
    ASSERT_EQ(status(called.ask(called.registration("<" + called.contact() + ">"))), "200 OK");
    const Message request = caller.request("INVITE", "sip:alice@oryx.example");
    caller.send(request);
    const Message offered = called.receive();
    called.send(called.response(offered, 180, "Ringing"));
    EXPECT_EQ(caller.receive().status(), 100);
    EXPECT_EQ(caller.receive().status(), 180);
    Message cancel = request;
    cancel.first.replace(0, 6, "CANCEL");
    cancel.set("CSeq", std::to_string(caller.cseq) + " CANCEL").set("Contact", "");
    EXPECT_EQ(status(caller.ask(cancel)), "200 OK");
    const Message cancelled = called.receive();
    EXPECT_EQ(cancelled.method(), "CANCEL");
    called.send(called.response(cancelled, 200, "OK"));
    called.send(called.response(offered, 487, "Request Terminated"));
    EXPECT_EQ(status(caller.receive()), "487 Request Terminated");
}

/// RFC 3263 section 4.1: UDP, whichever socket was named first.
TEST_F(Transports, AreUdpWhereNothingElseIsSaid)
{
    const std::string port = std::to_string(phone::freePort());
    startRegistrar({"--auth", "none", "--listen", "tcp:[::1]:" + port, "--listen", "udp:[::1]:" + port});
    Phone called = phoneOf("alice", kUdpSix);
    Phone caller = phoneOf("bob", kTcp);
    ASSERT_EQ(
        status(caller.ask(caller.registration("<" + called.contact() + ">").set("To", "<sip:alice@oryx.example>"))),
        "200 OK");
    caller.send(caller.request("MESSAGE", "sip:alice@oryx.example"));
    const Message passed = called.receive();
    EXPECT_EQ(passed.first, "MESSAGE " + called.contact() + " SIP/2.0");
    EXPECT_EQ(passed.field("Via").find("SIP/2.0/UDP [::1]:" + port + ";"), 0U) << passed.field("Via");
}

/// Each telephone by TCP keeps its connection: more of them than a process may have unless it asks.
TEST_F(Transports, HoldManyConnections)
{
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 4096);
    if (limit.rlim_cur < 2000) {
        GTEST_SKIP() << "this process may have " << limit.rlim_cur << " descriptors";
    }
    const rlimit few{1024, limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0); // which the server inherits
    startRegistrar();
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    std::vector<std::unique_ptr<Phone>> telephones;
    for (int n = 0; n < 1200; ++n) {
        telephones.push_back(std::make_unique<Phone>("alice", "oryx.example", m_port, "127.0.0.1", Transport::tcp));
        telephones.back()->send(telephones.back()->request("OPTIONS", "sip:oryx.example"));
    }
    for (const std::unique_ptr<Phone>& telephone : telephones) {
        ASSERT_EQ(status(telephone->receive()), "200 OK");
    }
}

/// Connections are for telephones: who begins to talk and says nothing gives his to others, who said something keeps
/// it.
TEST_F(Transports, AreNotHeldBySilence)
{
    startRegistrar();
    Phone telephone = phoneOf("alice", kTcp);
    EXPECT_EQ(status(telephone.ask(telephone.request("OPTIONS", "sip:oryx.example"))), "200 OK");
    phone::Socket half("127.0.0.1", Transport::tcp);
    half.send(m_port, "OPT");
    phone::Socket ping("127.0.0.1", Transport::tcp);
    ping.send(m_port, "\r\n\r\n");
    EXPECT_TRUE(ping.closed(40000));
    EXPECT_TRUE(half.closed(5000));
    EXPECT_EQ(status(telephone.ask(telephone.request("OPTIONS", "sip:oryx.example"))), "200 OK");
}

/// However an address is written, and by the name that the command line gives.
TEST_F(Transports, AreThisServersByAnyOfTheirNames)
{
    const std::string port = std::to_string(phone::freePort());
    const std::string six = std::to_string(phone::freePort("::1"));
    startRegistrar({"--auth", "none", "--listen", "udp:localhost:" + port, "--listen", "udp:[::1]:" + six});
    Phone alice = phoneOf("alice", kUdp);
    EXPECT_EQ(status(alice.ask(alice.request("OPTIONS", "sip:localhost:" + port))), "200 OK");
    EXPECT_EQ(status(alice.ask(alice.request("OPTIONS", "sip:[0:0:0:0:0:0:0:1]:" + six))), "200 OK");
}

/// RFC 5626 section 3.5.1: a telephone that asks if its connection lives is told so.
TEST_F(Transports, AnswerSignsOfLife)
{
    startRegistrar();
    phone::Socket socket("127.0.0.1", Transport::tcp);
    socket.send(m_port, "\r\n\r\n");
    EXPECT_FALSE(socket.silent(2000));
}

/// A message of STUN: what begins its header, what is left of it, its attributes.
std::string stun(const std::string& type, const std::string& number, const std::string& attributes = "")
{
    const auto length = static_cast<char>(attributes.size());
    return type + std::string({'\0', length}) + number + attributes;
}

/// RFC 5626 section 3.5.2, RFC 5389 section 7.3.1: a telephone behind a NAT is told as whom it is seen. Its port and
/// address are written as XOR-MAPPED-ADDRESS, with the cookie, or by RFC 3489 as MAPPED-ADDRESS where there is none.
TEST_F(Transports, AnswerStun)
{
    const std::string request("\x00\x01", 2);
    const std::string response("\x01\x01");
    const std::string cookie("\x21\x12\xA4\x42");
    const std::string rest("twelve bytes");
    const std::string software("\x80\x22\x00\x03one\x00", 8);
    startWithAll({});
    phone::Socket four("127.0.0.1", Transport::udp);
    const auto port = static_cast<unsigned>(four.port());
    const auto written = [&](unsigned mask) {
        return std::string({static_cast<char>((port ^ mask) >> 8U), static_cast<char>(port ^ mask)});
    };
    const std::string sought = stun(response, cookie + rest,
                                    std::string("\x00\x20\x00\x08\x00\x01", 6) + written(0x2112) + "\x5E\x12\xA4\x43");
    four.send(m_port, stun(request, cookie + rest));
    EXPECT_EQ(four.receive(), sought);
    four.send(m_port, stun(request, cookie + rest, software));
    EXPECT_EQ(four.receive(), sought);
    four.send(m_port, stun(request, "four" + rest));
    EXPECT_EQ(four.receive(),
              stun(response, "four" + rest,
                   std::string("\x00\x01\x00\x08\x00\x01", 6) + written(0) + std::string("\x7F\0\0\1", 4)));
    four.send(m_port, stun(request, cookie + rest, software + std::string("\x00\x03\x00\x04\x00\x00\x00\x06", 8)));
    EXPECT_EQ(four.receive(),
              stun("\x01\x11", cookie + rest,
                   std::string("\x00\x09\x00\x04\x00\x00\x04\x14\x00\x0A\x00\x02\x00\x03\x00\x00", 16)));
    phone::Socket six("::1", Transport::udp);
    std::string hidden = cookie + rest; // and ::1, of which only the last bit is set
    hidden.back() = static_cast<char>(hidden.back() ^ 1);
    const unsigned sixPort = static_cast<unsigned>(six.port()) ^ 0x2112U;
    six.send(m_port, stun(request, cookie + rest));
    EXPECT_EQ(six.receive(),
              stun(response, cookie + rest,
                   std::string("\x00\x20\x00\x14\x00\x02", 6) +
                       std::string({static_cast<char>(sixPort >> 8U), static_cast<char>(sixPort)}) + hidden));
}

/// Whatever else may be STUN is not answered, and nobody is told of it.
TEST_F(Transports, AreSilentToOtherStun)
{
    startRegistrar();
    const std::string request("\x00\x01", 2);
    const std::string number("\x21\x12\xA4\x42twelve bytes");
    phone::Socket socket;
    for (const std::string& text :
         {stun(request, number, "abc"), stun(request, number, std::string("\x80\x22\xFF\xFF", 4)),
          stun(request, number).substr(0, 19), stun(std::string("\x00\x02", 2), number), stun("\x01\x01", number),
          std::string(1000, '\0')}) {
        socket.send(m_port, text);
    }
    EXPECT_TRUE(socket.silent());
    EXPECT_EQ(m_server->soFar(), "ready\n");
}

} // namespace

} // namespace transportsTest
