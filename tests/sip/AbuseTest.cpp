// What one machine can do to a server on purpose, and what others notice of it: nothing.

#include "sip/SipTest.h"

#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace abuseTest {

namespace {

using phone::Message;
using phone::Phone;
using phone::Socket;
using phone::Transport;

class Abuse : public SipTest {
protected:
    /// The address sanitizer keeps 256 MB of what has been given back, unless it is told to keep less.
    Abuse() { setenv("ASAN_OPTIONS", "quarantine_size_mb=1:thread_local_quarantine_size_kb=64", 1); }
    /// By how many kB the server has grown.
    long grownSince(long before) const { return m_server->memory() - before; }
    Message question(const std::string& host = "127.0.0.1", Transport transport = Transport::udp)
    {
        return Phone("mallory", "oryx.example", m_port, host, transport).request("OPTIONS", "sip:oryx.example");
    }
    /// A request of so many header fields, each in the fewest bytes.
    static std::string withFields(const Message& request, std::size_t count, const std::string& field = "a\n")
    {
        std::string text = request.text();
        std::string fields;
        for (std::size_t n = 0; n < count; ++n) {
            fields += field;
        }
        return text.insert(text.find("Max-Forwards"), fields);
    }
    std::unique_ptr<Phone> phoneAt(const std::string& host) const
    {
        return std::make_unique<Phone>("alice", "oryx.example", m_port, host, Transport::tcp);
    }
    /// Those of one machine, each of whom has asked something.
    static std::vector<std::unique_ptr<Phone>> crowdAt(int port)
    {
        std::vector<std::unique_ptr<Phone>> crowd;
        for (int n = 0; n < 400; ++n) {
            crowd.push_back(std::make_unique<Phone>("mallory", "oryx.example", port, "127.0.0.1", Transport::tcp));
            crowd.back()->send(crowd.back()->request("OPTIONS", "sip:oryx.example"));
        }
        return crowd;
    }
    /// The registrar with fewer descriptors than a crowd has.
    void startWithFewDescriptors(std::vector<std::string> options)
    {
        rlimit limit{};
        ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
        if (limit.rlim_max < 1000) {
            GTEST_SKIP() << "this process may have " << limit.rlim_max << " descriptors";
        }
        const rlimit few{256, 256};
        const rlimit many{std::min<rlim_t>(limit.rlim_max, 4096), limit.rlim_max};
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &many), 0);
        options.insert(options.end(), {"--auth", "none"});
        startRegistrar(options);
        ASSERT_EQ(prlimit(m_server->process(), RLIMIT_NOFILE, &few, nullptr), 0);
    }
    static std::string asked(Phone& telephone)
    {
        return status(telephone.ask(telephone.request("OPTIONS", "sip:oryx.example")));
    }
    /// Somebody else, by UDP.
    std::string others() const
    {
        Phone other("bob", "oryx.example", m_port);
        return asked(other);
    }
};

/// One datagram of many short lines would take the stack seconds to read.
TEST_F(Abuse, ByManyShortLinesHoldsUpNobody)
{
    startRegistrar();
    Phone mallory("mallory", "oryx.example", m_port);
    for (const char* const field : {"a\n", "v:SIP/2.0/UDP a,b\n", "i: x\r\n", "k:a,a,a,a,a,a,a,a\r\n"}) {
        const Message request = mallory.request("OPTIONS", "sip:oryx.example");
        mallory.socket().send(m_port, withFields(request, 58000 / std::string(field).size(), field));
        EXPECT_EQ(status(mallory.receive()), "413 Request Entity Too Large") << field;
    }
    mallory.socket().send(m_port, "\r\n\r\n" + withFields(mallory.request("OPTIONS", "sip:oryx.example"), 20000));
    EXPECT_EQ(status(mallory.receive()), "413 Request Entity Too Large");
    EXPECT_EQ(others(), "200 OK");
}

TEST_F(Abuse, ByManyShortLinesOfAStreamEndsIt)
{
    startRegistrar();
    Phone mallory("mallory", "oryx.example", m_port, "127.0.0.1", Transport::tcp);
    const Message request = mallory.request("OPTIONS", "sip:oryx.example");
    const std::string text = withFields(request, 20000);
    mallory.socket().send(m_port, text.substr(0, 300)); // in pieces
    EXPECT_TRUE(mallory.socket().silent(200));
    mallory.socket().send(m_port, text.substr(300));
    EXPECT_EQ(status(mallory.receive()), "413 Request Entity Too Large");
    EXPECT_TRUE(mallory.socket().closed());
    EXPECT_EQ(others(), "200 OK");
}

/// As many as proxies and telephones may need.
TEST_F(Abuse, IsNotWhatHasManyFieldsForAReason)
{
    startRegistrar();
    Phone alice("alice", "oryx.example", m_port);
    Message request = alice.request("OPTIONS", "sip:oryx.example");
    for (int n = 0; n < 69; ++n) {
        request.add("Via", "SIP/2.0/UDP 192.0.2.1;branch=z9hG4bK" + std::to_string(n));
        request.add("Record-Route", "<sip:192.0.2.1;lr>");
        request.add("Warning", "399 a \"b\"");
    }
    EXPECT_EQ(status(alice.ask(request)), "200 OK");
    request.body.assign(20000, '\n'); // a body's lines do not count
    request.set("CSeq", "2 OPTIONS").set("Content-Type", "text/plain");
    EXPECT_EQ(status(alice.ask(request)), "200 OK");
    Phone stream("alice", "oryx.example", m_port, "127.0.0.1", Transport::tcp);
    request.set("Via", stream.via());
    const std::string text = request.text();
    const std::size_t end = text.find("\r\n\r\n");
    for (const std::size_t cut : {end - 1, end, end + 1, end + 2, end + 3, end + 4, end + 5}) {
        stream.socket().send(m_port, text.substr(0, cut));
        EXPECT_TRUE(stream.socket().silent(20));
        stream.socket().send(m_port, text.substr(cut));
        EXPECT_EQ(status(stream.receive()), "200 OK") << cut - end;
    }
}

/// Nobody waits for what will not be read.
TEST_F(Abuse, ByABodyThatIsTooLargeEndsTheStream)
{
    startRegistrar();
    for (const char* const length : {"4294967295", "4294967296", "18446744073709551616", "65537", "-1"}) {
        Phone mallory("mallory", "oryx.example", m_port, "127.0.0.1", Transport::tcp);
        std::string text = mallory.request("OPTIONS", "sip:oryx.example").text();
        text.replace(text.find("Content-Length: 0") + 16, 1, length);
        mallory.socket().send(m_port, text);
        const int refused = mallory.receive().status();
        EXPECT_TRUE(refused == 413 || refused == 400) << refused;
        EXPECT_TRUE(mallory.socket().closed()) << length;
    }
}

/// The first message of a stream and a later one, each in what comes of it in whole lines, in one line, and in a body.
TEST_F(Abuse, ByAMessageThatIsTooLargeEndsTheStream)
{
    startRegistrar();
    for (const bool later : {false, true}) {
        for (const std::string& field : {"a: " + std::string(1000, 'x') + "\r\n", "a: " + std::string(70000, 'x')}) {
            Phone mallory("mallory", "oryx.example", m_port, "127.0.0.1", Transport::tcp);
            const std::string before = later ? mallory.request("OPTIONS", "sip:oryx.example").text() : "";
            const Message request = mallory.request("OPTIONS", "sip:oryx.example");
            mallory.socket().send(m_port, before + withFields(request, 70000 / field.size() + 1, field));
            EXPECT_EQ(status(mallory.receive()), later ? "200 OK" : "413 Request Entity Too Large");
            if (later) {
                EXPECT_EQ(status(mallory.receive()), "413 Request Entity Too Large");
            }
            EXPECT_TRUE(mallory.socket().closed()) << later << field.size();
        }
        Phone mallory("mallory", "oryx.example", m_port, "127.0.0.1", Transport::tcp);
        const std::string before = later ? mallory.request("OPTIONS", "sip:oryx.example").text() : "";
        Message request = mallory.request("OPTIONS", "sip:oryx.example").add("a", std::string(10000, 'x'));
        request.body.assign(60000, 'x');
        mallory.socket().send(m_port, before + request.text());
        EXPECT_TRUE(mallory.socket().closed()) << later;
    }
}

/// A proxy's connection may bring the requests of many telephones at once.
TEST_F(Abuse, IsNotAStreamOfManyMessages)
{
    constexpr int kMany = 800;
    startRegistrar();
    Phone proxy("proxy", "oryx.example", m_port, "127.0.0.1", Transport::tcp);
    EXPECT_EQ(asked(proxy), "200 OK");
    std::string text;
    for (int n = 0; n < kMany; ++n) {
        text += proxy.request("OPTIONS", "sip:oryx.example").text();
    }
    ASSERT_GT(text.size(), 200U * 1024);
    m_server->signal(SIGSTOP); // as if it had much else to do
    std::thread writer([&] { proxy.socket().send(m_port, text); });
    EXPECT_TRUE(proxy.socket().silent(200));
    m_server->signal(SIGCONT);
    int answered = 0;
    try {
        while (answered < kMany && status(proxy.receive()) == "200 OK") {
            ++answered;
        }
    } catch (const std::runtime_error&) { // nothing more
    }
    writer.join();
    EXPECT_EQ(answered, kMany);
}

/// Also where there is nobody whom 413 could be sent to, and of a stream that has brought a request.
TEST_F(Abuse, ByAMessageThatDoesNotEndEndsTheStream)
{
    startRegistrar();
    for (const std::string& before : {std::string(), question("127.0.0.1", Transport::tcp).text()}) {
        for (const char* const begin : {"a", "OPTIONS sip:a SIP/2.0\r\na: ", "SIP/2.0 200 OK\r\na: "}) {
            Socket socket("127.0.0.1", Transport::tcp);
            socket.send(m_port, before + begin);
            for (int n = 0; n < 20; ++n) {
                static_cast<void>(socket.silent(10)); // so that they are read one by one
                socket.send(m_port, std::string(4000, 'x'));
            }
            EXPECT_TRUE(socket.closed(1000)) << before.size() << begin;
        }
    }
}

TEST_F(Abuse, ByStreamsWithoutAnEndTakesNoMemory)
{
    startRegistrar();
    const long before = m_server->memory();
    std::vector<std::unique_ptr<Socket>> sockets;
    for (const char* const piece :
         {"a", "a: b\r\n", "\r\n", "INVITE ", "OPTIONS sip:a SIP/2.0\r\n ", "SIP/2.0 200 OK\r\nv:"}) {
        for (int n = 0; n < (*piece == 'a' ? 200 : 20); ++n) {
            sockets.push_back(std::make_unique<Socket>("127.0.0.1", Transport::tcp));
            std::string text;
            while (text.size() < 60000) {
                text += piece;
            }
            sockets.back()->send(m_port, text);
        }
    }
    EXPECT_EQ(others(), "200 OK");
    EXPECT_LT(grownSince(before), 40000);
}

/// RFC 3261 section 18.2.2, RFC 3581 section 4: back to where a datagram came from, whatever its Via says.
TEST_F(Abuse, SendsNoAnswersToSomebodyElse)
{
    startRegistrar();
    const Socket third("127.0.0.2");
    Phone mallory("mallory", "oryx.example", m_port);
    const auto fromThird = [&](Message request, const std::string& parameters) {
        return request.set("Via", "SIP/2.0/UDP " + third.hostPort() + ";branch=z9hG4bK" + request.field("Call-ID") +
                                      parameters);
    };
    const auto request = [&](const std::string& method) { return mallory.request(method, "sip:oryx.example"); };
    for (const std::string& parameters :
         {std::string(), std::string(";maddr=127.0.0.2"), std::string(";received=127.0.0.2"),
          ";received=127.0.0.2;rport=" + std::to_string(third.port()),
          // The stack looks at the first of a name, and writes an answer by the last.
          std::string(";maddr=127.0.0.2;maddr=127.0.0.2;MADDR=127.0.0.2"),
          std::string(";received=127.0.0.2;received=127.0.0.2;received=127.0.0.2"),
          ";rport;received=127.0.0.2;received=127.0.0.2;rport=" + std::to_string(third.port())}) {
        mallory.send(fromThird(request("OPTIONS"), parameters));
        mallory.send(fromThird(request("REGISTER"), parameters));
        mallory.send(fromThird(request("CANCEL"), parameters));
        mallory.send(fromThird(request("MESSAGE").set("CSeq", "x"), parameters));
        Message version = fromThird(request("OPTIONS"), parameters);
        version.first.replace(version.first.size() - 3, 3, "3.0");
        mallory.send(version);
        mallory.socket().send(m_port, withFields(fromThird(request("OPTIONS"), parameters), 300));
    }
    EXPECT_TRUE(third.silent(500));
    for (const char* const method : {"OPTIONS", "CANCEL"}) { // with a transaction, and without
        Phone honest("bob", "oryx.example", m_port);
        Message twice = honest.request(method, "sip:oryx.example");
        honest.send(twice.set("Via", honest.via() + ";rport=9"));
        EXPECT_EQ(status(honest.receive()), *method == 'O' ? "200 OK" : "481 Call/Transaction Does Not Exist")
            << method;
    }
    Message version = request("OPTIONS");
    version.first.replace(version.first.size() - 3, 3, "3.0");
    Phone honest("bob", "oryx.example", m_port);
    version.set("Via", "SIP/2.0/UDP 192.0.2.1:9;branch=z9hG4bKhonest;rport");
    honest.send(version);
    EXPECT_EQ(status(honest.receive()), "505 Version Not Supported");
}

/// The stack would ask for the address of the name before it did anything else.
TEST_F(Abuse, ByANameInViaIsAnsweredAtOnce)
{
    startRegistrar();
    for (const char* const method : {"OPTIONS", "REGISTER"}) {
        Phone mallory("alice", "oryx.example", m_port);
        Message request = mallory.request(method, "sip:oryx.example", mallory.address());
        mallory.send(request.set("Via", mallory.via() + ";maddr=nobody.invalid"));
        EXPECT_EQ(status(mallory.receive()), "200 OK") << method;
    }
}

TEST_F(Abuse, ByDatagramsThatAreNoMessagesIsNotAnswered)
{
    startRegistrar();
    Socket socket;
    std::string garbage(65507, '\0');
    for (std::size_t n = 0; n < garbage.size(); ++n) {
        garbage[n] = static_cast<char>(n * 31 % 251);
    }
    for (const std::string& text : {std::string(), std::string("\r\n\r\n"), std::string("\r\n"), std::string(4, '\0'),
                                    garbage, std::string(65507, 'A'), std::string(65506, '\n')}) {
        socket.send(m_port, text);
    }
    EXPECT_TRUE(socket.silent());
    EXPECT_EQ(others(), "200 OK");
}

/// RFC 5393 section 3: two subscribers with eight contacts each, all of which are the other one. A loop is seen only
/// after eight times seven times seven times six and so on requests.
TEST_F(Abuse, ByForksThatForkStaysSmall)
{
    sql("UPDATE system_parameters SET value = 'oryx.example,127.0.0.1' WHERE name = 'ServerNames';"
        "INSERT INTO public_address (handle, sip_domain, csid) VALUES ('alice', '127.0.0.1', 1), ('bob', '127.0.0.1', 2)");
    startRegistrar();
    for (const auto& [user, other] : {std::pair("alice", "bob"), std::pair("bob", "alice")}) {
        Phone telephone(user, "oryx.example", m_port);
        std::string contacts;
        for (int n = 0; n < 8; ++n) {
            contacts += std::string(n > 0 ? ", " : "") + "<sip:" + other + "@127.0.0.1:" + std::to_string(m_port) +
                        ";n=" + std::to_string(n) + ">";
        }
        EXPECT_EQ(status(telephone.ask(telephone.registration(contacts))), "200 OK");
    }
    Phone mallory("mallory", "oryx.example", m_port);
    const double spent = m_server->processorTime();
    const int answer = mallory.ask(mallory.request("MESSAGE", "sip:alice@oryx.example")).status();
    EXPECT_TRUE(answer == 440 || answer == 482) << answer;
    EXPECT_LT(m_server->processorTime() - spent, 3);
}

/// Who sends and does not read holds up nobody. (He is given up after half a minute, which no test waits for.)
TEST_F(Abuse, ByWhoeverDoesNotReadHoldsUpNobody)
{
    startRegistrar();
    const long before = m_server->memory();
    Phone mallory("mallory", "oryx.example", m_port, "127.0.0.1", Transport::tcp);
    std::string text;
    for (int n = 0; n < 100; ++n) {
        text += mallory.request("OPTIONS", "sip:oryx.example").text();
    }
    mallory.socket().fill(m_port, text);
    EXPECT_EQ(others(), "200 OK");
    EXPECT_LT(grownSince(before), 40000);
}

/// Those of one machine that are too many go, not those of others, and everything else has its descriptors.
TEST_F(Abuse, ByManyConnectionsShutsNobodyElseOut)
{
    const std::string port = std::to_string(m_port);
    ASSERT_NO_FATAL_FAILURE(
        startWithFewDescriptors({"--listen", "tcp:127.0.0.2:" + port, "--listen", "tcp:127.0.0.3:" + port}));
    if (IsSkipped()) {
        return;
    }
    const std::unique_ptr<Phone> telephone = phoneAt("127.0.0.2");
    EXPECT_EQ(status(telephone->ask(telephone->registration("<" + telephone->contact() + ">"))), "200 OK");
    std::vector<std::unique_ptr<Phone>> crowd = crowdAt(m_port);
    EXPECT_EQ(asked(*phoneAt("127.0.0.3")), "200 OK");
    EXPECT_EQ(asked(*telephone), "200 OK");
    const double spent = m_server->processorTime();
    EXPECT_TRUE(telephone->socket().silent(1000));
    EXPECT_LT(m_server->processorTime() - spent, 0.5);
    sql("SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE pid <> pg_backend_pid() AND datname = current_database()");
    Phone other("bob", "oryx.example", m_port);
    std::string registered;
    for (int n = 0; n < 40 && registered != "200 OK"; ++n) { // once the server has connected anew
        registered = status(other.ask(other.registration("<" + other.contact() + ">")));
        EXPECT_TRUE(other.socket().silent(100));
    }
    EXPECT_EQ(registered, "200 OK");
    crowd.clear();
    EXPECT_EQ(asked(*phoneAt("127.0.0.1")), "200 OK");
    EXPECT_EQ(asked(*telephone), "200 OK");
}

/// Who has just come, and has not said anything whole yet, does not make room for a machine that has too many.
TEST_F(Abuse, ByManyConnectionsShutsNoNewcomerOut)
{
    ASSERT_NO_FATAL_FAILURE(startWithFewDescriptors({"--listen", "tcp:127.0.0.2:" + std::to_string(m_port)}));
    if (IsSkipped()) {
        return;
    }
    const std::unique_ptr<Phone> newcomer = phoneAt("127.0.0.2");
    const std::string request = newcomer->request("OPTIONS", "sip:oryx.example").text();
    newcomer->socket().send(m_port, request.substr(0, 100));
    const std::vector<std::unique_ptr<Phone>> crowd = crowdAt(m_port);
    EXPECT_TRUE(newcomer->socket().silent());
    newcomer->socket().send(m_port, request.substr(100));
    EXPECT_EQ(status(newcomer->receive()), "200 OK");
}

/// The system writes their addresses as those of IPv6; they are no less somebody's own for that.
TEST_F(Abuse, ByManyConnectionsOfIPv4ToASocketOfIPv6ShutsNobodyElseOut)
{
    const int port = phone::freePort();
    ASSERT_NO_FATAL_FAILURE(startWithFewDescriptors({"--listen", "tcp:[::ffff:127.0.0.1]:" + std::to_string(port),
                                                     "--listen", "tcp:[::ffff:127.0.0.2]:" + std::to_string(port)}));
    if (IsSkipped()) {
        return;
    }
    Phone telephone("alice", "oryx.example", port, "127.0.0.2", Transport::tcp);
    EXPECT_EQ(asked(telephone), "200 OK");
    const std::vector<std::unique_ptr<Phone>> crowd = crowdAt(port);
    EXPECT_TRUE(telephone.socket().silent());
    EXPECT_EQ(asked(telephone), "200 OK");
}

/// A burst of telephones that come back together.
TEST_F(Abuse, IsNotABurstOfConnections)
{
    startRegistrar();
    m_server->signal(SIGSTOP); // as if it had much else to do
    std::vector<std::unique_ptr<Phone>> telephones;
    for (int n = 0; n < 300; ++n) {
        telephones.push_back(phoneAt("127.0.0.1"));
        telephones.back()->send(telephones.back()->request("OPTIONS", "sip:oryx.example"));
    }
    m_server->signal(SIGCONT);
    for (const std::unique_ptr<Phone>& telephone : telephones) {
        EXPECT_EQ(status(telephone->receive()), "200 OK");
    }
}

/// Whoever has sent requests before must not be left with a stream that nobody reads.
TEST_F(Abuse, ByAStreamThatCannotBeReadAnyMoreEndsIt)
{
    startRegistrar();
    for (const std::string& broken :
         {std::string("nonsense\r\n\r\n"), std::string("OPTIONS\r\n\r\n"),
          std::string("OPTIONS sip:oryx.example SIP/2.0\r\nContent-Length: many\r\n\r\n"),
          std::string("OPTIONS sip:oryx.example SIP/2.0\r\nVia: none\r\nContent-Length: 0\r\n\r\n"),
          std::string(5000, 'A') + "\r\n\r\n"}) {
        Phone mallory("mallory", "oryx.example", m_port, "127.0.0.1", Transport::tcp);
        EXPECT_EQ(status(mallory.ask(mallory.request("OPTIONS", "sip:oryx.example"))), "200 OK");
        mallory.socket().send(m_port, broken);
        EXPECT_TRUE(mallory.socket().closed()) << broken;
    }
}

} // namespace

} // namespace abuseTest
