// The database goes away and comes back while telephones register: RFC 3261 section 21.5.4.

#include "sip/Baresip.h"
#include "sip/SipTest.h"
#include "sip/Sipp.h"
#include "support/ServerControl.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <future>
#include <map>
#include <set>
#include <sstream>
#include <thread>

namespace outageTest {

namespace {

using phone::Message;
using phone::Phone;

class Outage : public SipTest {
protected:
    /// The status line of one more telephone's registration; what is acknowledged is noted.
    std::string registers()
    {
        Phone telephone(m_acknowledged.size() % 2 == 0 ? "alice" : "bob", "oryx.example", m_port);
        const std::string contact = "sip:x@192.0.2.1:" + std::to_string(++m_last);
        const Message answer = telephone.ask(telephone.registration("<" + contact + ">"));
        if (answer.status() == 200) {
            m_acknowledged.insert(contact);
        } else {
            EXPECT_EQ(status(answer), "503 Service Unavailable");
            EXPECT_NE(answer.field("Retry-After"), "");
        }
        return status(answer);
    }
    /// Registers until that is the answer; false when it does not become so in time.
    bool registersUntil(const std::string& wanted)
    {
        for (int tries = 0; tries < 300; ++tries) {
            if (registers() == wanted) {
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return false;
    }
    /// Those that were acknowledged and are not there.
    std::set<std::string> lost()
    {
        m_session = server::Session(m_database.name());
        std::istringstream lines(bindings());
        std::set<std::string> missing = m_acknowledged;
        for (std::string line; std::getline(lines, line);) {
            missing.erase(line);
        }
        return missing;
    }

    server::ServerControl m_control{m_session};
    std::set<std::string> m_acknowledged;
    int m_last = 1024;
};

/// RFC 3261 section 21.5.4.
TEST_F(Outage, IsToldAndThenForgotten)
{
    startRegistrar();
    for (const char* const mode : {"fast", "immediate"}) {
        EXPECT_EQ(registers(), "200 OK");
        m_control.stop(mode);
        EXPECT_EQ(registers(), "503 Service Unavailable");
        EXPECT_EQ(registers(), "503 Service Unavailable");
        m_control.start();
        EXPECT_TRUE(registersUntil("200 OK"));
    }
    EXPECT_EQ(lost(), std::set<std::string>());
}

/// RFC 3261 section 21.5.4.
TEST_F(Outage, IsToldToAnyTelephone)
{
    startRegistrar();
    m_control.stop("fast");
    EXPECT_EQ(playScenario("register-503", m_port), "");
    m_control.start();
}

/// RFC 3261 section 12.2: what a call needs of the database, it has got when it begins.
TEST_F(Outage, EndsNoCall)
{
    startRegistrar({"--record-route"});
    Baresip alice("alice", m_port);
    Baresip bob("bob", m_port);
    ASSERT_TRUE(alice.tells("REGISTER_OK")) << alice.said();
    ASSERT_TRUE(bob.tells("REGISTER_OK")) << bob.said();
    ASSERT_TRUE(alice.reaches(bob)) << alice.said() << bob.said();
    m_control.stop("immediate");
    EXPECT_TRUE(bob.hears());
    m_control.start();
    EXPECT_TRUE(alice.hears());
    alice.command("hangup");
    EXPECT_TRUE(bob.tells("CALL_CLOSED")) << bob.said();
}

/// RFC 3261 section 10.3, item 7: what is answered 200 has been committed.
TEST_F(Outage, LosesNothingThatWasAcknowledged)
{
    startRegistrar();
    auto crash = std::async(std::launch::async, [this] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        m_control.restart("immediate");
    });
    for (int n = 0; n < 40; ++n) {
        registers();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    crash.get();
    EXPECT_TRUE(registersUntil("200 OK"));
    EXPECT_EQ(lost(), std::set<std::string>());
}

/// The same: of many that are applied together, some are under way whenever the database goes.
TEST_F(Outage, OfManyAtOnceLosesNothingThatWasAcknowledged)
{
    constexpr int kRequests = 3000; // at 10,000 a second
    sql("INSERT INTO contact_set (csid) SELECT n FROM generate_series(10000, 12999) n;"
        "INSERT INTO public_address (handle, sip_domain, csid)"
        " SELECT 'user' || n, 'oryx.example', n FROM generate_series(10000, 12999) n");
    startRegistrar({"--auth", "none", "--workers", "1"});
    phone::Socket socket;
    auto crash = std::async(std::launch::async, [this] {
        std::this_thread::sleep_for(std::chrono::milliseconds(150));
        m_control.restart("immediate");
    });
    std::map<int, int> answers;
    const auto take = [&](int milliseconds) {
        while (!socket.silent(milliseconds)) {
            const Message answer = Message::parse(socket.receive());
            ++answers[answer.status()];
            if (answer.status() == 200) {
                m_acknowledged.insert("sip:" + answer.field("Call-ID"));
            }
        }
    };
    for (int number = 0; number < kRequests; ++number) {
        const std::string contact = "x@192.0.2.1:" + std::to_string(1024 + number);
        const std::string user = "user" + std::to_string(10000 + number);
        socket.send(m_port, "REGISTER sip:oryx.example SIP/2.0\r\nVia: SIP/2.0/UDP " + socket.hostPort() +
                                ";branch=z9hG4bK" + std::to_string(number) +
                                "\r\nMax-Forwards: 70\r\nFrom: <sip:" + user +
                                "@oryx.example>;tag=1\r\nTo: <sip:" + user + "@oryx.example>\r\nCall-ID: " + contact +
                                "\r\nCSeq: 1 REGISTER\r\nContact: <sip:" + contact +
                                ">\r\nExpires: 3600\r\nContent-Length: 0\r\n\r\n");
        if (number % 10 == 9) {
            take(1);
        }
    }
    take(2000);
    crash.get();
    EXPECT_EQ(lost(), std::set<std::string>());
    EXPECT_GT(answers[200], 0);
    EXPECT_GT(answers[503], 0);
    for (const auto& [code, count] : answers) {
        EXPECT_TRUE(code == 200 || code == 503) << code << ": " << count;
    }
}

/// The database says nothing any more, much is waiting for it, and the operator has said to wait long.
TEST_F(Outage, DoesNotHoldUpTheEnd)
{
    sql("INSERT INTO host_info (node_type, outbound_allow_internal) VALUES ('leaf', true)");
    setenv("ORYX_DEADLINE", "20s", 1);
    startRegistrar({"--workers", "1"});
    unsetenv("ORYX_DEADLINE");
    Phone bob("bob", "oryx.example", m_port);
    const std::string to = "sip:x@127.0.0.2:9";
    const Message challenge = bob.ask(bob.request("MESSAGE", to));
    ASSERT_EQ(challenge.status(), 407);
    const server::Stopped stopped(m_control.folder());
    for (int n = 0; n < 10; ++n) {
        Message request = bob.request("MESSAGE", to);
        bob.send(request.set("Proxy-Authorization", bob.credentials(request, challenge, "bob", "MD5")));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    m_server->signal(SIGTERM);
    EXPECT_EQ(m_server->wait(2), 0);
}

TEST_F(Outage, AtTheBeginningIsWaitedFor)
{
    m_control.stop("fast");
    std::vector<std::string> arguments{"--listen",   "udp:127.0.0.1:" + std::to_string(m_port),
                                       "--database", m_database.uri(),
                                       "--user",     server::kUser,
                                       "--auth",     "none"};
    m_server = std::make_unique<Program>(ORYX_REGISTRAR, arguments,
                                         std::vector<std::string>{std::string("PGPASSWORD=") + server::kPassword});
    std::string answer;
    for (int tries = 0; tries < 100 && answer.empty(); ++tries) {
        Phone alice("alice", "oryx.example", m_port);
        alice.send(alice.registration("<sip:alice@192.0.2.1>"));
        answer = alice.socket().silent(50) ? "" : status(alice.receive());
    }
    EXPECT_EQ(answer, "503 Service Unavailable");
    m_control.start();
    EXPECT_EQ(m_server->line(), "ready");
    EXPECT_EQ(registers(), "200 OK");
}

/// RFC 6665 section 4.2.2: what was stored is told when the database is there again.
TEST_F(Outage, EndsNoSubscription)
{
    startEvents();
    Phone bob("bob", "oryx.example", m_port);
    const auto subscribes = [&] {
        Message request = bob.request("SUBSCRIBE", bob.address());
        return bob.ask(request.set("Event", "presence").set("Expires", "600"));
    };
    const auto told = [&](const std::string& what) {
        const Message notify = bob.receive(10000);
        bob.send(bob.response(notify, 200, "OK"));
        return notify.body.find(what) != std::string::npos ? notify.field("CSeq") : notify.text();
    };
    EXPECT_EQ(status(subscribes()), "200 OK");
    EXPECT_EQ(told("<basic>closed</basic>"), "1 NOTIFY");
    m_control.stop("immediate");
    EXPECT_EQ(status(subscribes()), "503 Service Unavailable");
    m_control.start();
    m_session = server::Session(m_database.name());
    sql("SELECT apply_publication('bob', 'oryx.example', 'presence', '', 'tag', 600, 'application/pidf+xml',"
        " '<presence xmlns=\"urn:ietf:params:xml:ns:pidf\" entity=\"sip:bob@oryx.example\"><tuple id=\"t\"><status>"
        "<basic>open</basic></status></tuple></presence>', 0)");
    EXPECT_EQ(told("<basic>open</basic>"), "2 NOTIFY");
}

} // namespace

} // namespace outageTest
