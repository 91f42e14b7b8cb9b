// The proxy as telephones see it: RFC 3261 section 16.

#include "sip/SipTest.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace proxyTest {

namespace {

using phone::Message;
using phone::Phone;

class Proxy : public SipTest {
protected:
    void answerOn(Phone& telephone, const std::string& parameters = "")
    {
        ASSERT_EQ(status(telephone.ask(telephone.registration("<" + telephone.contact() + ">" + parameters))),
                  "200 OK");
    }
    /// Alice's, and tried after those that she has with a higher q.
    void answerInTurn(Phone& last)
    {
        sql("UPDATE contact_set SET ordering = 'sequential' WHERE csid = 1");
        answerOn(last, ";q=0.3");
    }
    /// Both are alice's, and tried one after the other.
    void answerInTurn(Phone& first, Phone& second)
    {
        answerInTurn(second);
        answerOn(first, ";q=0.9");
    }
    /// Tells the server to end, and sees that it has heard.
    void beginEnd()
    {
        m_server->signal(SIGTERM);
        Phone probe("probe", "oryx.example", m_port);
        while (probe.ask(probe.request("OPTIONS", "sip:oryx.example")).status() == 200) {
        }
    }
    /// Whoever has a number is called there, a host with its port and parameters.
    void mapNumbersTo(const std::string& place)
    {
        sql("INSERT INTO contact_set (csid, ordering) VALUES (9, 'parallel');"
            "INSERT INTO address_map (handle, csid, pattern, priority) VALUES ('pstn', 9, '^sip:0[0-9]*@', 1);"
            "INSERT INTO contact (csid, address, permanent) VALUES (9, 'sip:$user@" +
            place + "', true)");
    }
    Phone alice() const { return {"alice", "oryx.example", m_port}; }
    Phone bob() const { return {"bob", "oryx.example", m_port}; }
    static Message invite(Phone& caller, const std::string& to = "sip:alice@oryx.example")
    {
        Message request = caller.request("INVITE", to);
        request.add("Content-Type", "application/sdp");
        request.body = "v=0\r\n";
        return request;
    }
    static Message cancelOf(const Message& request, const Phone& caller)
    {
        Message cancel = request;
        cancel.first.replace(0, 6, "CANCEL");
        cancel.set("CSeq", std::to_string(caller.cseq) + " CANCEL").set("Contact", "").set("Content-Type", "");
        cancel.body.clear();
        return cancel;
    }
    /// What the caller gets, provisional responses too, up to the final one.
    static std::string answers(Phone& caller, Message* final = nullptr)
    {
        std::string all;
        for (int last = 0; last < 200;) {
            const Message answer = caller.receive();
            last = answer.status();
            all += (all.empty() ? "" : ", ") + std::to_string(last);
            if (final != nullptr) {
                *final = answer;
            }
        }
        return all;
    }
};

/// RFC 3856 section 7 leaves to a domain where its presence is; other event packages are the telephones' own.
TEST_F(Proxy, SendsWhatIsAboutPresenceToTheEventServer)
{
    Phone events("events", "oryx.example", m_port);
    startRegistrar({"--event-server", "sip:" + events.socket().hostPort()});
    Phone watcher = bob();
    for (const auto& [method, package] : std::vector<std::pair<std::string, std::string>>{
             {"SUBSCRIBE", "presence"}, {"SUBSCRIBE", "presence.winfo"}, {"PUBLISH", "presence"}}) {
        Message request = watcher.request(method, "sip:alice@oryx.example");
        watcher.send(request.add("Event", package).add("Authorization", "Digest x"));
        const Message offered = events.receive();
        EXPECT_EQ(offered.first, method + " sip:alice@oryx.example SIP/2.0");
        EXPECT_EQ(offered.field("Authorization"), "Digest x"); // it asks for proof itself
        events.send(events.response(offered, 489, "Bad Event"));
        EXPECT_EQ(answers(watcher), "489");
    }
    EXPECT_EQ(status(watcher.ask(watcher.request("SUBSCRIBE", "sip:alice@oryx.example").add("Event", "dialog"))),
              "480 Temporarily Unavailable");
    EXPECT_EQ(status(watcher.ask(watcher.request("OPTIONS", "sip:alice@oryx.example").add("Event", "presence"))),
              "480 Temporarily Unavailable");
    EXPECT_TRUE(events.socket().silent());
}

/// Sections 16.6 and 16.7.
TEST_F(Proxy, ConnectsACall)
{
    startRegistrar({"--auth", "none", "--record-route"});
    Phone called = alice();
    Phone caller = bob();
    answerOn(called);
    const Message request = invite(caller);
    caller.send(request);
    const Message offered = called.receive();
    EXPECT_EQ(offered.first, "INVITE " + called.contact() + " SIP/2.0");
    EXPECT_EQ(offered.field("Max-Forwards"), "69");
    const std::string via = offered.field("Via");
    EXPECT_EQ(std::count(via.begin(), via.end(), 'z'), 2) << via; // each branch begins with it
    EXPECT_EQ(offered.body, request.body);
    called.send(called.response(offered, 180, "Ringing"));
    const Message accepted = called.response(offered, 200, "OK");
    called.send(accepted);
    Message answer;
    EXPECT_EQ(answers(caller, &answer), "100, 180, 200");

    // The dialog's own requests come the way that was recorded.
    const std::string route = answer.field("Record-Route");
    EXPECT_NE(route.find(";lr"), std::string::npos);
    Message acknowledgement = caller.request("ACK", called.contact());
    for (const char* const same : {"From", "Call-ID"}) {
        acknowledgement.set(same, request.field(same));
    }
    acknowledgement.set("To", accepted.field("To")).set("CSeq", "1 ACK").set("Route", route);
    caller.send(acknowledgement);
    const Message acknowledged = called.receive();
    EXPECT_EQ(acknowledged.first, "ACK " + called.contact() + " SIP/2.0");
    EXPECT_EQ(acknowledged.field("Route"), "");

    Message end = caller.request("BYE", called.contact());
    end.set("From", request.field("From")).set("Call-ID", request.field("Call-ID"));
    end.set("To", accepted.field("To")).set("Route", route);
    caller.send(end);
    const Message ended = called.receive();
    EXPECT_EQ(ended.method(), "BYE");
    called.send(called.response(ended, 200, "OK"));
    EXPECT_EQ(answers(caller), "200");
}

/// Section 21.4.18, and 21.4.5.
TEST_F(Proxy, TellsWhoIsAwayFromWhoIsNot)
{
    startRegistrar();
    Phone caller = bob();
    EXPECT_EQ(status(caller.ask(invite(caller))), "480 Temporarily Unavailable");
    EXPECT_EQ(status(caller.ask(invite(caller, "sip:nobody@oryx.example"))), "404 Not Found");
    EXPECT_EQ(status(caller.ask(invite(caller, "sip:carol@oryx.example"))), "404 Not Found");
}

/// Section 21.4.4.
TEST_F(Proxy, LetsNothingOutThatTheRulesDoNot)
{
    startRegistrar();
    Phone caller = bob();
    EXPECT_EQ(status(caller.ask(invite(caller, "sip:x@elsewhere.example"))), "403 Forbidden");
}

/// Sections 16.5 and 19.1.1: a request goes to the maddr of its URI, whatever its host is, and so do the rules.
TEST_F(Proxy, JudgesARequestByWhereItReallyGoes)
{
    Phone elsewhere("x", "elsewhere.example", m_port, "127.0.0.2");
    Phone partner("x", "allowed.example", m_port, "127.0.0.3");
    sql("INSERT INTO host_info (node_type, outbound_allow_internal) VALUES ('leaf', false);"
        "INSERT INTO domain_access (direction, sip_domain, domain_action, qvalue) VALUES ('o', 'allowed.example', 'a', 1),"
        " ('o', '127.0.0.3', 'a', 1)");
    startRegistrar();
    Phone caller = bob();
    const std::string port = ":" + std::to_string(elsewhere.socket().port());
    const std::string here = "127.0.0.1:" + std::to_string(m_port);
    for (const std::string& uri :
         {"sip:x@allowed.example" + port + ";maddr=127.0.0.2", "sip:x@allowed.example" + port + ";m%61DDR=127.0.0.2",
          "sip:x@127.0.0.3" + port + ";maddr=127.0.0.3;maddr=127.0.0.2",
          "sip:alice@oryx.example" + port + ";maddr=127.0.0.2", "sip:oryx.example" + port + ";maddr=127.0.0.2",
          "sip:" + here + ";maddr=127.0.0.2"}) {
        for (const char* const method : {"MESSAGE", "OPTIONS", "REGISTER"}) {
            EXPECT_EQ(status(caller.ask(caller.request(method, uri))), "403 Forbidden") << method << ' ' << uri;
        }
    }
    for (const std::string& route :
         {"sip:" + here + ";lr;maddr=127.0.0.2", "sip:oryx.example" + port + ";lr;maddr=127.0.0.2",
          "sip:alice@oryx.example" + port + ";lr;maddr=127.0.0.2"}) {
        Message request = caller.request("MESSAGE", "sip:alice@oryx.example");
        EXPECT_EQ(status(caller.ask(request.add("Route", "<" + route + ">"))), "403 Forbidden") << route;
    }
    EXPECT_TRUE(elsewhere.socket().silent());

    const std::string allowed = "sip:x@any.example:" + std::to_string(partner.socket().port());
    // Of two the stack takes the last.
    for (const char* const leading : {";maddr=127.0.0.3", ";maddr=127.0.0.2;maddr=127.0.0.3"}) {
        caller.send(caller.request("MESSAGE", allowed + leading));
        EXPECT_EQ(partner.receive().first, "MESSAGE " + allowed + leading + " SIP/2.0");
    }
}

/// No parameter of the request URI leads what an address map sends anywhere else than the map says.
TEST_F(Proxy, HasNoAddressMapLeadWhereAMaddrSays)
{
    Phone gateway("gateway", "oryx.example", m_port);
    mapNumbersTo(gateway.socket().hostPort() + ";${parameters}");
    startRegistrar();
    Phone caller = bob();
    caller.send(caller.request("MESSAGE", "sip:0301234@oryx.example;user=phone;maddr=127.0.0.2"));
    EXPECT_EQ(gateway.receive().first, "MESSAGE sip:0301234@" + gateway.socket().hostPort() + ";user=phone SIP/2.0");
}

/// Who is on the route is not who is called, and no address map's or registration's way leads to him. Whoever is called
/// would be looked for by section 16.5 all the same, and not by this proxy.
TEST_F(Proxy, FollowsARouteOnlyWhereTheRulesLetItOut)
{
    Phone elsewhere("x", "elsewhere.example", m_port, "127.0.0.2");
    Phone partner("x", "allowed.example", m_port, "127.0.0.3");
    sql("INSERT INTO host_info (node_type, outbound_allow_internal, parent_contact) VALUES ('leaf', false, '9');"
        "INSERT INTO domain_access (direction, sip_domain, domain_action, qvalue) VALUES ('o', '127.0.0.3', 'a', 1)");
    mapNumbersTo("127.0.0.1:9");
    startRegistrar();
    Phone called = alice();
    Phone caller = bob();
    answerOn(called);
    const auto routed = [&](const std::string& user, const std::string& hostPort) {
        Message request = caller.request("MESSAGE", "sip:alice@oryx.example");
        return request.add("Route", "<sip:" + user + "@" + hostPort + ";lr>");
    };
    const std::string outside = elsewhere.socket().hostPort();
    for (const Message& request : {routed("0301", outside), routed("alice", "oryx.example:9"),
                                   routed("nobody", "oryx.example:9"), routed("0301", "oryx.example:9")}) {
        EXPECT_EQ(status(caller.ask(request)), "403 Forbidden") << request.text();
    }
    EXPECT_TRUE(elsewhere.socket().silent());
    EXPECT_TRUE(called.socket().silent());
    caller.send(routed("0301", partner.socket().hostPort()));
    EXPECT_EQ(partner.receive().first, "MESSAGE sip:alice@oryx.example SIP/2.0");
}

/// Section 16.4: a maddr that names this proxy has done its work, if the request came as the URI says.
TEST_F(Proxy, TakesItsOwnMaddrOff)
{
    startRegistrar();
    Phone called = alice();
    Phone caller = bob();
    answerOn(called);
    const std::string port = ":" + std::to_string(m_port);
    const auto reachesOf = [&](Phone& sender, const Message& request) {
        sender.send(request);
        const Message offered = called.receive();
        EXPECT_EQ(offered.first, "MESSAGE " + called.contact() + " SIP/2.0");
        EXPECT_EQ(offered.field("Route"), "");
        called.send(called.response(offered, 200, "OK"));
        EXPECT_EQ(answers(sender), "200");
    };
    const auto reaches = [&](const Message& request) { reachesOf(caller, request); };
    const std::string to = "sip:alice@oryx.example";
    for (const char* const way : {";maddr=127.0.0.1", ";maddr=oryx.example;transport=udp"}) {
        reaches(caller.request("MESSAGE", to + port + way));
    }
    for (const char* const way : {";maddr=127.0.0.1;lr", ";lr;maddr=127.0.0.1;transport=tcp"}) {
        reaches(caller.request("MESSAGE", to).add("Route", "<sip:edge.example" + port + way + ">"));
    }
    // What is long comes by TCP where no transport is named (section 18.1.1).
    Phone stream("bob", "oryx.example", m_port, "127.0.0.1", phone::Transport::tcp);
    reachesOf(stream, stream.request("MESSAGE", to + port + ";maddr=127.0.0.1"));
    // What is behind it is judged by its own host.
    for (const std::string& uri : {"sip:x@elsewhere.example" + port + ";maddr=127.0.0.1",
                                   to + port + ";maddr=127.0.0.1;transport=tcp", to + ";maddr=127.0.0.1"}) {
        EXPECT_EQ(status(caller.ask(caller.request("MESSAGE", uri))), "403 Forbidden") << uri;
    }
}

/// RFC 3261 section 19.1.4: a host is the same in any case; and so is one with DNS' final dot, and an IPv6 address in
/// any of its forms.
TEST_F(Proxy, FindsARuleHoweverAHostIsWritten)
{
    sql("INSERT INTO host_info (node_type, outbound_allow_internal) VALUES ('leaf', true);"
        "INSERT INTO domain_access (direction, sip_domain, domain_action, qvalue) VALUES ('o', 'denied.example', 'd', 1),"
        " ('o', '[2001:db8::1]', 'd', 1)");
    startRegistrar();
    Phone caller = bob();
    for (const char* const host :
         {"denied.example", "Denied.Example", "denied.example.", "x.example;maddr=DENIED.example.", "[2001:db8::1]",
          "[2001:DB8:0:0::0:1]", "x.example;maddr=[2001:0db8::1]"}) {
        EXPECT_EQ(status(caller.ask(caller.request("MESSAGE", std::string("sip:x@") + host))), "403 Forbidden") << host;
    }
}

/// Section 21.4.4.
TEST_F(Proxy, TakesNothingFromADomainThatIsDenied)
{
    sql("INSERT INTO domain_access (direction, sip_domain, domain_action, qvalue) VALUES ('i', 'bad.example', 'd', 1)");
    startRegistrar();
    Phone caller("mallory", "bad.example", m_port);
    EXPECT_EQ(status(caller.ask(invite(caller))), "403 Forbidden");
    Phone other("zoe", "good.example", m_port);
    EXPECT_EQ(status(other.ask(invite(other))), "480 Temporarily Unavailable");
}

/// Section 16.3.
TEST_F(Proxy, RefusesWhatItCannotSendOn)
{
    startRegistrar();
    Phone caller = bob();
    EXPECT_EQ(status(caller.ask(invite(caller).set("Max-Forwards", "0"))), "483 Too Many Hops");
    EXPECT_EQ(status(caller.ask(invite(caller, "tel:+4930123456"))), "416 Unsupported URI Scheme");
    EXPECT_EQ(status(caller.ask(invite(caller, "sips:alice@oryx.example"))), "416 Unsupported URI Scheme");
    const Message answer = caller.ask(invite(caller).set("Proxy-Require", "teleport"));
    EXPECT_EQ(status(answer), "420 Bad Extension");
    EXPECT_EQ(answer.field("Unsupported"), "teleport");
    EXPECT_EQ(status(caller.ask(invite(caller, "sip:" + std::string(600, '1') + "@oryx.example"))),
              "414 Request-URI Too Long");
}

/// Section 16.3, item 4.
TEST_F(Proxy, NoticesALoop)
{
    startRegistrar();
    Phone caller = bob();
    Phone called = alice();
    answerOn(called);
    caller.send(invite(caller));
    Message back = called.receive();
    back.first = "INVITE sip:alice@oryx.example SIP/2.0"; // sent back as it came
    called.send(back);
    EXPECT_EQ(status(called.receive()), "482 Loop Detected");
}

/// RFC 5393 section 5.3: what all branches may become together is no more than what the request may.
TEST_F(Proxy, DividesTheBreadthAmongTheBranches)
{
    startRegistrar();
    Phone desk = alice();
    Phone mobile = alice();
    answerOn(desk);
    answerOn(mobile);
    Phone caller = bob();
    const auto breadths = [&](const std::string& said) {
        Message request = caller.request("MESSAGE", "sip:alice@oryx.example");
        caller.send(request.set("Max-breadth", said));
        std::vector<std::string> got;
        for (Phone* const telephone : {&desk, &mobile}) {
            const Message offered = telephone->receive();
            got.push_back(offered.field("Max-Breadth"));
            telephone->send(telephone->response(offered, 200, "OK"));
        }
        EXPECT_EQ(answers(caller), "200");
        std::sort(got.begin(), got.end());
        return got[0] + " " + got[1];
    };
    EXPECT_EQ(breadths(""), "30 30");
    EXPECT_EQ(breadths("5"), "2 3");
    EXPECT_EQ(breadths("2"), "1 1");
    EXPECT_EQ(breadths("4000000000"), "30 30");
    for (const char* const ordering : {"parallel", "sequential"}) {
        sql(std::string("UPDATE contact_set SET ordering = '") + ordering + "' WHERE csid = 1");
        for (const char* const too : {"1", "0"}) {
            Message request = caller.request("INVITE", "sip:alice@oryx.example");
            EXPECT_EQ(status(caller.ask(request.set("Max-Breadth", too))), "440 Max-Breadth Exceeded");
        }
    }
    EXPECT_TRUE(desk.socket().silent());
}

/// Section 16.6: all at once; 16.7, item 10: those that have not answered are cancelled.
TEST_F(Proxy, RingsAllTelephonesAndCancelsTheOthers)
{
    startRegistrar();
    Phone desk = alice();
    Phone mobile = alice();
    Phone caller = bob();
    answerOn(desk);
    answerOn(mobile);
    caller.send(invite(caller));
    const Message atDesk = desk.receive();
    const Message atMobile = mobile.receive();
    desk.send(desk.response(atDesk, 180, "Ringing"));
    mobile.send(mobile.response(atMobile, 180, "Ringing"));
    desk.send(desk.response(atDesk, 200, "OK"));
    EXPECT_EQ(answers(caller), "100, 180, 180, 200");
    const Message cancel = mobile.receive();
    EXPECT_EQ(cancel.first, "CANCEL " + mobile.contact() + " SIP/2.0");
    mobile.send(mobile.response(cancel, 200, "OK"));
    mobile.send(mobile.response(atMobile, 487, "Request Terminated"));
    EXPECT_EQ(mobile.receive().method(), "ACK");
    EXPECT_TRUE(caller.socket().silent());
}

/// Section 16.6: one after another, those with the highest q first.
TEST_F(Proxy, RingsByPreferenceWhereProvisioningSaysSo)
{
    startRegistrar();
    Phone first = alice();
    Phone second = alice();
    Phone caller = bob();
    answerInTurn(first, second);
    caller.send(invite(caller));
    const Message atFirst = first.receive();
    EXPECT_TRUE(second.socket().silent());
    first.send(first.response(atFirst, 486, "Busy Here"));
    const Message atSecond = second.receive();
    second.send(second.response(atSecond, 200, "OK"));
    EXPECT_EQ(answers(caller), "100, 200");
}

/// Section 16.7, item 6.
TEST_F(Proxy, GivesTheBestAnswer)
{
    startRegistrar();
    Phone desk = alice();
    Phone mobile = alice();
    Phone caller = bob();
    answerOn(desk);
    answerOn(mobile);
    const auto best = [&](int one, int other) {
        caller.send(invite(caller));
        const Message atDesk = desk.receive();
        const Message atMobile = mobile.receive();
        desk.send(desk.response(atDesk, one, "One"));
        mobile.send(mobile.response(atMobile, other, "Other"));
        EXPECT_EQ(desk.receive().method(), "ACK");
        EXPECT_EQ(mobile.receive().method(), "ACK");
        const std::string all = answers(caller);
        return all.substr(all.rfind(' ') + 1);
    };
    EXPECT_EQ(best(486, 302), "302");
    EXPECT_EQ(best(480, 415), "415");
    EXPECT_EQ(best(500, 486), "486");
    EXPECT_EQ(best(408, 480), "480");
    EXPECT_EQ(best(486, 603), "603");
    EXPECT_EQ(best(503, 503), "500");
}

/// Section 16.10.
TEST_F(Proxy, CancelsWhatTheCallerCancels)
{
    startRegistrar();
    Phone called = alice();
    Phone caller = bob();
    answerOn(called);
    const Message request = invite(caller);
    caller.send(request);
    const Message offered = called.receive();
    called.send(called.response(offered, 180, "Ringing"));
    EXPECT_EQ(caller.receive().status(), 100);
    EXPECT_EQ(caller.receive().status(), 180);
    const Message cancel = cancelOf(request, caller);
    caller.send(cancel);
    const Message answer = caller.receive();
    EXPECT_EQ(status(answer), "200 OK");
    EXPECT_EQ(answer.field("CSeq"), cancel.field("CSeq"));
    const Message cancelled = called.receive();
    EXPECT_EQ(cancelled.method(), "CANCEL");
    called.send(called.response(cancelled, 200, "OK"));
    called.send(called.response(offered, 487, "Request Terminated"));
    EXPECT_EQ(status(caller.receive()), "487 Request Terminated");
}

/// Section 9.2; by section 16.10 it would be sent on, for an INVITE that went on without a transaction.
TEST_F(Proxy, SendsNoCancelOnWithoutItsInvite)
{
    startRegistrar();
    Phone called = alice();
    Phone caller = bob();
    answerOn(called);
    EXPECT_EQ(status(caller.ask(cancelOf(invite(caller), caller))), "481 Call/Transaction Does Not Exist");
    EXPECT_TRUE(called.socket().silent());
}

/// Section 9.1: a telephone that does not end what it was asked to end is waited for no longer than 64 * T1.
TEST_F(Proxy, GivesUpWhoeverDoesNotAnswerACancel)
{
    startRegistrar();
    Phone called = alice();
    Phone caller = bob();
    answerOn(called);
    const Message request = invite(caller);
    caller.send(request);
    const Message offered = called.receive();
    called.send(called.response(offered, 180, "Ringing"));
    EXPECT_EQ(caller.receive().status(), 100);
    EXPECT_EQ(caller.receive().status(), 180);
    EXPECT_EQ(status(caller.ask(cancelOf(request, caller))), "200 OK");
    EXPECT_EQ(status(caller.receive(40000)), "487 Request Terminated");
}

/// Section 9.1: no CANCEL before the telephone has said something.
TEST_F(Proxy, CancelsWhatWasNotHeardOfLater)
{
    startRegistrar();
    Phone called = alice();
    Phone caller = bob();
    answerOn(called);
    const Message request = invite(caller);
    caller.send(request);
    const Message offered = called.receive();
    EXPECT_EQ(caller.receive().status(), 100);
    EXPECT_EQ(status(caller.ask(cancelOf(request, caller))), "200 OK");
    EXPECT_TRUE(called.socket().silent(200));
    called.send(called.response(offered, 100, "Trying"));
    const Message cancelled = called.receive();
    EXPECT_EQ(cancelled.method(), "CANCEL");
    EXPECT_EQ(cancelled.field("Via"), offered.field("Via").substr(0, offered.field("Via").find(", ")));
    EXPECT_EQ(cancelled.first.substr(7), offered.first.substr(7));
    for (const char* const same : {"From", "To", "Call-ID"}) {
        EXPECT_EQ(cancelled.field(same), offered.field(same));
    }
}

/// Nobody rings on for a server that is not there any more.
TEST_F(Proxy, EndsWhatRingsWhenItEnds)
{
    startRegistrar();
    Phone called = alice();
    Phone other = alice();
    Phone caller = bob();
    answerOn(called);
    answerOn(other); // says nothing
    caller.send(invite(caller));
    const Message offered = called.receive();
    called.send(called.response(offered, 180, "Ringing"));
    EXPECT_EQ(caller.receive().status(), 100);
    EXPECT_EQ(caller.receive().status(), 180);
    m_server->signal(SIGTERM);
    EXPECT_EQ(status(caller.receive()), "503 Service Unavailable");
    const Message cancelled = called.receive();
    EXPECT_EQ(cancelled.method(), "CANCEL");
    called.send(called.response(cancelled, 200, "OK"));
    called.send(called.response(offered, 487, "Request Terminated"));
    EXPECT_EQ(called.receive().method(), "ACK");
    EXPECT_EQ(m_server->wait(2), 0);
}

/// Section 17.1.2: of what is no INVITE nobody can be told to stop. Whoever was told that it failed would send it
/// again, and a telephone that has it already would have it twice.
TEST_F(Proxy, FinishesWhatATelephoneHasWhenItEnds)
{
    startRegistrar();
    Phone called = alice();
    Phone caller = bob();
    answerOn(called);
    caller.send(caller.request("MESSAGE", "sip:alice@oryx.example"));
    const Message offered = called.receive();
    beginEnd();
    called.send(called.response(offered, 200, "OK"));
    EXPECT_EQ(answers(caller), "200");
    EXPECT_EQ(m_server->wait(2), 0);
}

/// Section 9.1: the CANCEL waits until the telephone has said something, and the end for that.
TEST_F(Proxy, EndsWhatIsAboutToRingWhenItEnds)
{
    startRegistrar();
    Phone called = alice();
    Phone caller = bob();
    answerOn(called);
    caller.send(invite(caller));
    const Message offered = called.receive();
    m_server->signal(SIGTERM);
    EXPECT_EQ(answers(caller), "100, 503");
    called.send(called.response(offered, 180, "Ringing"));
    EXPECT_EQ(called.receive().method(), "CANCEL");
    EXPECT_EQ(m_server->wait(2), 0);
}

/// What no telephone has yet can be sent again by another way.
TEST_F(Proxy, BeginsNothingWhenItEnds)
{
    startRegistrar();
    Phone first = alice();
    Phone second = alice();
    Phone caller = bob();
    Phone other("carol", "oryx.example", m_port);
    answerInTurn(first, second);
    caller.send(caller.request("MESSAGE", "sip:alice@oryx.example"));
    const Message offered = first.receive();
    server::Session holder(m_database.name());
    holder.run("BEGIN; LOCK TABLE public_address IN ACCESS EXCLUSIVE MODE");
    other.send(other.request("MESSAGE", "sip:alice@oryx.example"));
    EXPECT_TRUE(other.socket().silent(100)); // the database is asked
    beginEnd();
    first.send(first.response(offered, 480, "Temporarily Unavailable"));
    holder.run("COMMIT");
    EXPECT_EQ(answers(caller), "480");
    EXPECT_EQ(answers(other), "503");
    EXPECT_EQ(m_server->wait(2), 0);
    EXPECT_TRUE(first.socket().silent(0) && second.socket().silent(0));
}

TEST_F(Proxy, EndsThoughATelephoneDoesNotAnswer)
{
    startRegistrar();
    Phone called = alice();
    Phone caller = bob();
    answerOn(called);
    caller.send(caller.request("MESSAGE", "sip:alice@oryx.example"));
    EXPECT_EQ(called.receive().method(), "MESSAGE");
    EXPECT_EQ(stop(), 0);
    EXPECT_EQ(answers(caller), "503"); // now, not before
}

/// The first signal counts: whoever sends others gets no more patience for them.
TEST_F(Proxy, EndsInTimeHoweverOftenItIsTold)
{
    startRegistrar();
    Phone called = alice();
    Phone caller = bob();
    answerOn(called);
    caller.send(caller.request("MESSAGE", "sip:alice@oryx.example"));
    EXPECT_EQ(called.receive().method(), "MESSAGE");
    const auto begun = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() - begun < std::chrono::milliseconds(1200)) {
        m_server->signal(SIGTERM);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    EXPECT_EQ(m_server->wait(2), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(2));
}

/// Section 16.7, item 6: nobody but the caller ends what he asks for.
TEST_F(Proxy, SaysThatNobodyAnsweredWhereNoneDid)
{
    startRegistrar();
    Phone called = alice();
    Phone caller = bob();
    answerOn(called);
    caller.send(invite(caller));
    called.send(called.response(called.receive(), 487, "Request Terminated"));
    EXPECT_EQ(answers(caller), "100, 408");
}

/// A telephone that rings in vain is given up for the next, however long it takes to stop.
TEST_F(Proxy, DoesNotWaitForTheTelephoneBefore)
{
    startRegistrar();
    Phone first = alice();
    Phone second = alice();
    Phone caller = bob();
    answerInTurn(first, second);
    caller.send(invite(caller));
    first.send(first.response(first.receive(), 180, "Ringing"));
    const Message atSecond = second.receive(25000);
    EXPECT_EQ(first.receive().method(), "CANCEL"); // which it does not answer
    second.send(second.response(atSecond, 200, "OK"));
    EXPECT_EQ(answers(caller), "100, 180, 200");
}

/// Section 17.1.2.2, Timer F: a client waits 32 s for what is no INVITE.
TEST_F(Proxy, AsksTheNextInTimeForAnAnswer)
{
    startRegistrar();
    Phone first = alice();
    Phone second = alice();
    Phone caller = bob();
    answerInTurn(first, second);
    caller.send(caller.request("MESSAGE", "sip:alice@oryx.example"));
    const Message atSecond = second.receive(6000);
    second.send(second.response(atSecond, 200, "OK"));
    EXPECT_EQ(answers(caller), "200");
}

/// Section 16.9: as if it had said 503 there, which is passed on as 500; with others, theirs is the better answer.
TEST_F(Proxy, SaysWhereItCannotSendAnything)
{
    startRegistrar();
    Phone called = alice();
    Phone caller = bob();
    for (const char* const nowhere : {"tel:+4930123456", "sip:alice@192.0.2.1;transport=tls"}) {
        sql("DELETE FROM contact");
        sql(std::string("INSERT INTO contact (csid, address, permanent) VALUES (1, '") + nowhere + "', true)");
        for (const char* const method : {"MESSAGE", "INVITE"}) {
            EXPECT_EQ(status(caller.ask(caller.request(method, "sip:alice@oryx.example"))), "500 Internal Server Error")
                << method << ' ' << nowhere;
        }
        answerOn(called);
        caller.send(caller.request("MESSAGE", "sip:alice@oryx.example"));
        called.send(called.response(called.receive(), 486, "Busy Here"));
        EXPECT_EQ(answers(caller), "486") << nowhere;
        sql("DELETE FROM contact WHERE NOT permanent; UPDATE contact SET qvalue = '0.9'");
        answerInTurn(called);
        caller.send(invite(caller)); // the next one at once
        called.send(called.response(called.receive(1000), 200, "OK"));
        EXPECT_EQ(answers(caller), "100, 200") << nowhere;
        sql("UPDATE contact_set SET ordering = 'parallel' WHERE csid = 1");
    }
    EXPECT_EQ(stop(), 0); // a sanitizer looks for what was lost
}

/// Section 26.2.2: by TLS or not at all, whoever has provisioned it.
TEST_F(Proxy, SendsNothingInTheClearToWhomAsksForTls)
{
    startRegistrar();
    Phone called = alice();
    Phone edge("edge", "oryx.example", m_port);
    Phone caller = bob();
    const std::string secure = "sips:alice@" + called.socket().hostPort();
    const std::string path = "<sip:" + edge.socket().hostPort() + ";lr>";
    for (const std::string& values : {"'" + secure + ";transport=udp', NULL", "'" + secure + "', '" + path + "'"}) {
        sql("DELETE FROM contact;"
            "INSERT INTO contact (csid, address, path_vector, permanent) VALUES (1, " +
            values + ", true)");
        EXPECT_EQ(status(caller.ask(caller.request("MESSAGE", "sip:alice@oryx.example"))), "500 Internal Server Error")
            << values;
    }
    EXPECT_TRUE(called.socket().silent());
    EXPECT_TRUE(edge.socket().silent());
}

/// RFC 4320 section 4.2.
TEST_F(Proxy, SendsNoTimeoutForAnythingButAnInvite)
{
    startRegistrar();
    Phone called = alice();
    Phone caller = bob();
    answerOn(called);
    const Message request = caller.request("MESSAGE", "sip:alice@oryx.example");
    caller.send(request);
    const Message passed = called.receive();
    called.send(called.response(passed, 408, "Request Timeout"));
    EXPECT_TRUE(caller.socket().silent());
    caller.send(request);
    EXPECT_TRUE(caller.socket().silent());
}

/// RFC 4320 section 4.1: not even where a telephone does.
TEST_F(Proxy, SendsNothingProvisionalForAnythingButAnInvite)
{
    startRegistrar();
    Phone called = alice();
    Phone caller = bob();
    answerOn(called);
    for (const char* const method : {"MESSAGE", "OPTIONS"}) {
        caller.send(caller.request(method, "sip:alice@oryx.example"));
        const Message passed = called.receive();
        called.send(called.response(passed, 100, "Trying"));
        called.send(called.response(passed, 183, "Session Progress"));
        EXPECT_TRUE(caller.socket().silent()) << method;
        called.send(called.response(passed, 200, "OK"));
        EXPECT_EQ(answers(caller), "200") << method;
    }
}

/// Section 17.2.2: by UDP an answer is there for whoever sends the same again. A stream brings each request once, so
/// what is answered needs no transaction any more; it was kept for 32 s, and 50,000 are all there may be. Nobody waits
/// for a telephone that is not there any more.
TEST_F(Proxy, KeepsNothingOfAStreamsRequestThatIsNoInvite)
{
    startRegistrar();
    Phone called = alice();
    Phone gone = alice();
    answerOn(called);
    answerOn(gone);
    for (const phone::Transport transport : {phone::Transport::udp, phone::Transport::tcp}) {
        Phone caller("bob", "oryx.example", m_port, "127.0.0.1", transport);
        const Message request = caller.request("MESSAGE", "sip:alice@oryx.example");
        caller.send(request);
        called.send(called.response(called.receive(), 200, "OK"));
        EXPECT_EQ(answers(caller), "200");
        caller.send(request);
        if (transport == phone::Transport::tcp) {
            called.send(called.response(called.receive(), 202, "Accepted"));
            EXPECT_EQ(answers(caller), "202");
        } else {
            EXPECT_EQ(answers(caller), "200");
            EXPECT_TRUE(called.socket().silent());
        }
        gone.send(gone.response(gone.receive(), 200, "OK"));
        EXPECT_TRUE(caller.socket().silent());
    }
}

/// Section 17.2.1: a caller who hears nothing for half a second asks again, however long the database takes.
TEST_F(Proxy, SaysOnceThatItTriesBeforeItKnowsWhere)
{
    setenv("ORYX_DEADLINE", "20s", 1);
    startRegistrar();
    unsetenv("ORYX_DEADLINE");
    Phone called = alice();
    Phone caller = bob();
    answerOn(called);
    server::Session holder(m_database.name());
    holder.run("BEGIN; LOCK TABLE public_address IN ACCESS EXCLUSIVE MODE");
    caller.send(invite(caller));
    EXPECT_EQ(caller.receive().status(), 100);
    EXPECT_TRUE(caller.socket().silent());
    holder.run("COMMIT");
    called.send(called.response(called.receive(), 200, "OK"));
    EXPECT_EQ(answers(caller), "200");
}

/// Section 9.2: while nobody has been asked yet.
TEST_F(Proxy, AsksNobodyWhenTheCallerHasCancelled)
{
    startRegistrar();
    Phone called = alice();
    Phone caller = bob();
    answerOn(called);
    server::Session holder(m_database.name());
    holder.run("BEGIN; LOCK TABLE public_address IN ACCESS EXCLUSIVE MODE");
    const Message request = invite(caller);
    caller.send(request);
    EXPECT_EQ(caller.receive().status(), 100);
    caller.send(cancelOf(request, caller));
    const std::string both = std::to_string(caller.receive().status()) + std::to_string(caller.receive().status());
    EXPECT_TRUE(both == "200487" || both == "487200") << both;
    holder.run("COMMIT");
    EXPECT_TRUE(called.socket().silent());
}

TEST_F(Proxy, SendsNothingOnForWhoeverSaysThatItIsOfADialog)
{
    Phone elsewhere("x", "elsewhere.example", m_port);
    startRegistrar();
    Phone caller = bob();
    Message request = invite(caller, "sip:x@" + elsewhere.socket().hostPort());
    request.set("To", "<sip:x@elsewhere.example>;tag=made-up");
    request.add("Route", "<sip:127.0.0.1:" + std::to_string(m_port) + ";lr;oryx=0123456789abcdef>");
    EXPECT_EQ(status(caller.ask(request)), "403 Forbidden");
    EXPECT_TRUE(elsewhere.socket().silent());
}

/// A dialog's route is a way to its other side, and to nobody else past the rules and without proof.
TEST_F(Proxy, LeadsADialogToNobodyElse)
{
    Phone elsewhere("x", "elsewhere.example", m_port, "127.0.0.2");
    startRegistrar({"--auth", "none", "--record-route"});
    Phone called = alice();
    Phone caller = bob();
    answerOn(called);
    const Message request = invite(caller);
    caller.send(request);
    const Message offered = called.receive();
    const Message accepted = called.response(offered, 200, "OK");
    called.send(accepted);
    Message answer;
    EXPECT_EQ(answers(caller, &answer), "100, 200");

    const auto fromCaller = [&](const std::string& method, const std::string& uri, const Message& routes) {
        Message next = caller.request(method, uri);
        next.set("From", request.field("From")).set("To", accepted.field("To"));
        return next.set("Call-ID", request.field("Call-ID")).set("Route", routes.field("Record-Route"));
    };
    const auto fromCalled = [&](const std::string& method, const std::string& uri, const Message& routes) {
        Message next = called.request(method, uri);
        next.set("From", accepted.field("To")).set("To", request.field("From"));
        return next.set("Call-ID", request.field("Call-ID")).set("Route", routes.field("Record-Route"));
    };
    const std::string port = std::to_string(elsewhere.socket().port());
    for (const std::string& foreign : {"sip:x@127.0.0.2:" + port, "sip:x@127.0.0.1:" + port + ";maddr=127.0.0.2"}) {
        for (const char* const method : {"INVITE", "BYE"}) {
            for (const Message& routes : {answer, offered}) {
                EXPECT_EQ(status(caller.ask(fromCaller(method, foreign, routes))), "403 Forbidden");
                EXPECT_EQ(status(called.ask(fromCalled(method, foreign, routes))), "403 Forbidden");
            }
        }
        caller.send(fromCaller("ACK", foreign, answer));
    }
    EXPECT_TRUE(elsewhere.socket().silent());

    // After a refresh, each is at another port of its host.
    Phone moved("alice", "oryx.example", m_port);
    caller.send(fromCaller("INVITE", moved.contact(), answer));
    EXPECT_EQ(moved.receive().first, "INVITE " + moved.contact() + " SIP/2.0");
    called.send(fromCalled("BYE", caller.contact(), offered));
    while (caller.receive().method() != "BYE") {
    }
}

/// A telephone that is reached by its maddr alone is rung by it, and its dialog leads there.
TEST_F(Proxy, LeadsADialogByTheMaddrOfAContact)
{
    startRegistrar({"--auth", "none", "--record-route"});
    Phone called = alice();
    Phone caller = bob();
    const std::string port = ":" + std::to_string(called.socket().port());
    const std::string contact = "sip:alice@192.0.2.1" + port + ";maddr=127.0.0.1";
    ASSERT_EQ(status(called.ask(called.registration("<" + contact + ">"))), "200 OK");
    const Message request = invite(caller);
    caller.send(request);
    Message accepted = called.response(called.receive(), 200, "OK");
    called.send(accepted.set("Contact", "<" + contact + ">"));
    Message answer;
    EXPECT_EQ(answers(caller, &answer), "100, 200");
    Message end = caller.request("BYE", contact);
    end.set("From", request.field("From")).set("To", accepted.field("To")).set("Call-ID", request.field("Call-ID"));
    caller.send(end.set("Route", answer.field("Record-Route")));
    EXPECT_EQ(called.receive().first, "BYE " + contact + " SIP/2.0");
}

/// Section 7.2: a status is of three digits.
TEST_F(Proxy, OutlivesAnAnswerThatThereIsNot)
{
    startRegistrar();
    Phone called = alice();
    Phone caller = bob();
    answerOn(called);
    caller.send(invite(caller));
    called.send(called.response(called.receive(), 700, "Beyond"));
    EXPECT_EQ(answers(caller), "100, 408");
    EXPECT_EQ(status(caller.ask(caller.request("OPTIONS", "sip:oryx.example"))), "200 OK");
}

/// RFC 3327 section 5.4.
TEST_F(Proxy, SendsAlongThePath)
{
    startRegistrar();
    Phone edge("edge", "oryx.example", m_port);
    Phone caller = bob();
    Phone called = alice();
    called.ask(called.registration("<sip:alice@192.0.2.1>").add("Path", "<sip:" + edge.socket().hostPort() + ";lr>"));
    caller.send(caller.request("MESSAGE", "sip:alice@oryx.example"));
    const Message passed = edge.receive();
    EXPECT_EQ(passed.first, "MESSAGE sip:alice@192.0.2.1 SIP/2.0");
    EXPECT_EQ(passed.field("Route"), "<sip:" + edge.socket().hostPort() + ";lr>");
    edge.send(edge.response(passed, 202, "Accepted"));
    EXPECT_EQ(answers(caller), "202");
}

/// RFC 3327 section 5.4, the same where the request URI stays: the contact is the last proxy on the way.
TEST_F(Proxy, SendsAlongThePathWithTheUriAsItCame)
{
    sql("UPDATE contact_set SET replace_uri = false WHERE csid = 1");
    startRegistrar();
    Phone edge("edge", "oryx.example", m_port);
    Phone caller = bob();
    Phone called = alice();
    const std::string path = "<sip:" + edge.socket().hostPort() + ";lr>";
    called.ask(called.registration("<sip:alice@192.0.2.1>").add("Path", path));
    caller.send(caller.request("MESSAGE", "sip:alice@oryx.example"));
    const Message passed = edge.receive();
    EXPECT_EQ(passed.first, "MESSAGE sip:alice@oryx.example SIP/2.0");
    EXPECT_EQ(passed.field("Route"), path + ", <sip:alice@192.0.2.1;lr>");
}

/// Section 16.6, item 6: a proxy that expects itself in the request URI.
TEST_F(Proxy, FitsTheRouteToAStrictRouter)
{
    startRegistrar();
    Phone edge("edge", "oryx.example", m_port);
    Phone caller = bob();
    Phone called = alice();
    const std::string strict = "sip:" + edge.socket().hostPort();
    called.ask(
        called.registration("<sip:alice@192.0.2.1>").add("Path", "<" + strict + ">").add("Path", "<sip:192.0.2.2;lr>"));
    caller.send(caller.request("MESSAGE", "sip:alice@oryx.example"));
    const Message passed = edge.receive();
    EXPECT_EQ(passed.first, "MESSAGE " + strict + " SIP/2.0");
    EXPECT_EQ(passed.field("Route"), "<sip:192.0.2.2;lr>, <sip:alice@192.0.2.1>");
}

/// Section 16.3, of the request URI as section 16.4 restores it.
TEST_F(Proxy, RefusesWhatAStrictRouterHasMovedAsItWouldOtherwise)
{
    startRegistrar();
    Phone called = alice();
    Phone caller = bob();
    answerOn(called);
    for (const auto& [moved, answer] : std::vector<std::pair<std::string, std::string>>{
             {"sips:alice@oryx.example", "416 Unsupported URI Scheme"},
             {"sip:alice@oryx.example?Subject=x", "400 Bad Request"},
             {"sip:alice@oryx.example;x=" + std::string(2048, '1'), "414 Request-URI Too Long"}}) {
        Message request = invite(caller, "sip:127.0.0.1:" + std::to_string(m_port) + ";oryx=x");
        EXPECT_EQ(status(caller.ask(request.add("Route", "<" + moved + ">"))), answer) << moved;
    }
    EXPECT_TRUE(called.socket().silent());
}

/// Section 16.4: what a strict router makes of a route through this proxy.
TEST_F(Proxy, RestoresWhatAStrictRouterHasMoved)
{
    startRegistrar({"--auth", "none", "--record-route"});
    Phone called = alice();
    Phone caller = bob();
    answerOn(called);
    const Message request = invite(caller);
    caller.send(request);
    const Message offered = called.receive();
    const Message accepted = called.response(offered, 200, "OK");
    called.send(accepted);
    Message answer;
    EXPECT_EQ(answers(caller, &answer), "100, 200");
    const std::string route = answer.field("Record-Route");
    Message end = caller.request("BYE", route.substr(1, route.size() - 2));
    end.set("From", request.field("From")).set("Call-ID", request.field("Call-ID"));
    end.set("To", accepted.field("To")).set("Route", "<" + called.contact() + ">");
    caller.send(end);
    const Message ended = called.receive();
    EXPECT_EQ(ended.first, "BYE " + called.contact() + " SIP/2.0");
    EXPECT_EQ(ended.field("Route"), "");
}

/// Section 16.5.
TEST_F(Proxy, FollowsAnAddressMap)
{
    Phone gateway("gateway", "oryx.example", m_port);
    mapNumbersTo(gateway.socket().hostPort());
    startRegistrar();
    Phone caller = bob();
    caller.send(caller.request("MESSAGE", "sip:0301234@oryx.example"));
    EXPECT_EQ(gateway.receive().first, "MESSAGE sip:0301234@" + gateway.socket().hostPort() + " SIP/2.0");
}

/// Whom nobody has at a served domain, the parent node may; whoever is only away has no way there.
TEST_F(Proxy, TakesTheDefaultRoute)
{
    Phone parent("parent", "oryx.example", m_port);
    sql("INSERT INTO host_info (node_type, parent_contact) VALUES ('leaf', '9');"
        "INSERT INTO contact_set (csid, ordering, replace_uri) VALUES (9, 'parallel', false);"
        "INSERT INTO contact (csid, address, permanent) VALUES (9, 'sip:" +
        parent.socket().hostPort() + "', true)");
    startRegistrar();
    Phone caller = bob();
    caller.send(caller.request("MESSAGE", "sip:somebody@oryx.example"));
    const Message passed = parent.receive();
    EXPECT_EQ(passed.first, "MESSAGE sip:somebody@oryx.example SIP/2.0");
    parent.send(parent.response(passed, 202, "Accepted"));
    EXPECT_EQ(answers(caller), "202");
    EXPECT_EQ(status(caller.ask(caller.request("MESSAGE", "sip:alice@oryx.example"))), "480 Temporarily Unavailable");
}

/// What goes out goes through the proxy that provisioning names, with its scheme or without; what need not, directly.
TEST_F(Proxy, GoesOutThroughAProxy)
{
    Phone border("border", "oryx.example", m_port);
    Phone near("x", "near.example", m_port);
    const std::string place = border.socket().hostPort();
    sql("INSERT INTO host_info (node_type, outbound_allow_internal, outbound_proxy, outbound_direct)"
        " VALUES ('leaf', true, '" +
        place + "', '127.0.0.1')");
    startRegistrar();
    Phone caller = bob();
    for (const std::string& proxy : {place, "sip:" + place}) {
        sql("UPDATE host_info SET outbound_proxy = '" + proxy + "'");
        caller.send(caller.request("MESSAGE", "sip:x@elsewhere.example;user=ip"));
        const Message passed = border.receive();
        EXPECT_EQ(passed.first, "MESSAGE sip:x@elsewhere.example;user=ip SIP/2.0");
        EXPECT_EQ(passed.field("Route"), "");
        border.send(border.response(passed, 200, "OK"));
        EXPECT_EQ(answers(caller), "200");
    }
    caller.send(caller.request("MESSAGE", near.contact()));
    EXPECT_EQ(near.receive().first, "MESSAGE " + near.contact() + " SIP/2.0");
    EXPECT_TRUE(border.socket().silent());
}

/// Section 16.3, item 6: whoever sends a request out in a subscriber's name must prove that he is the subscriber.
TEST_F(Proxy, AsksForProofBeforeARequestLeaves)
{
    Phone elsewhere("x", "elsewhere.example", m_port);
    sql("INSERT INTO host_info (node_type, outbound_allow_internal) VALUES ('leaf', true)");
    startRegistrar({});
    Phone caller = bob();
    const std::string to = "sip:x@" + elsewhere.socket().hostPort();
    EXPECT_EQ(status(caller.ask(caller.request("MESSAGE", to), "wrong")), "407 Proxy Authentication Required");
    Message request = caller.request("MESSAGE", to);
    const Message challenge = caller.ask(request);
    request = caller.request("MESSAGE", to);
    request.set("Proxy-Authorization", caller.credentials(request, challenge, "bob", "SHA-256"));
    const std::string next = "Digest realm=\"elsewhere.example\", username=\"bob\"";
    caller.send(request.add("Proxy-Authorization", next));
    const Message passed = elsewhere.receive();
    EXPECT_EQ(passed.first, "MESSAGE " + to + " SIP/2.0");
    EXPECT_EQ(passed.field("Proxy-Authorization"), next); // section 22.3: the next proxy's
    // Whose proof is another's may not send it in her name.
    Message others = caller.request("MESSAGE", to);
    EXPECT_EQ(status(caller.ask(others.set("From", "<sip:alice@oryx.example>;tag=1"), "bob")), "403 Forbidden");
    // Who has no address could never prove that it is his.
    EXPECT_EQ(status(caller.ask(caller.request("MESSAGE", to).set("From", "<sip:%00@oryx.example>;tag=1"))),
              "400 Bad Request");
}

/// Section 11.
TEST_F(Proxy, AnswersWhoeverLooksIfItIsThere)
{
    startRegistrar();
    Phone caller = bob();
    EXPECT_EQ(status(caller.ask(caller.request("OPTIONS", "sip:127.0.0.1:" + std::to_string(m_port)))), "200 OK");
    EXPECT_EQ(status(caller.ask(caller.request("OPTIONS", "sip:oryx.example"))), "200 OK");
    EXPECT_EQ(status(caller.ask(caller.request("OPTIONS", "sips:oryx.example"))), "416 Unsupported URI Scheme");
    // That of a dialog is not for this server, whose dialogs are all others'.
    EXPECT_EQ(status(caller.ask(caller.request("OPTIONS", "sip:oryx.example").set("To", "<sip:a@b.example>;tag=1"))),
              "404 Not Found");
}

/// Sections 11.2, 20.1 and 8.2.2.3, whether there is a transaction or not.
TEST_F(Proxy, TellsWhoeverAsksWhatItUnderstands)
{
    startRegistrar();
    for (const phone::Transport transport : {phone::Transport::udp, phone::Transport::tcp}) {
        Phone caller("bob", "oryx.example", m_port, "127.0.0.1", transport);
        const Message answer = caller.ask(caller.request("OPTIONS", "sip:oryx.example").set("Require", "path"));
        EXPECT_EQ(status(answer), "200 OK");
        EXPECT_EQ(answer.field("Allow"), "REGISTER, OPTIONS");
        EXPECT_EQ(answer.field("Supported"), "path");
        EXPECT_NE(answer.text().find("\r\nAccept:"), std::string::npos); // no body at all
        EXPECT_EQ(answer.field("Accept"), "");
        const Message refused = caller.ask(caller.request("OPTIONS", "sip:oryx.example").set("Require", "path, gruu"));
        EXPECT_EQ(status(refused), "420 Bad Extension");
        EXPECT_EQ(refused.field("Unsupported"), "gruu");
    }
}

} // namespace

} // namespace proxyTest
