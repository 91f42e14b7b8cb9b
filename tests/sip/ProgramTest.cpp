// The program as whoever starts it sees it: its command line, and its page of counters.

#include "sip/SipTest.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <string>
#include <vector>

namespace {

using phone::Phone;

class Command : public SipTest {
protected:
    /// What it says to these arguments, and its exit status.
    static std::string said(const std::vector<std::string>& arguments)
    {
        Program program(ORYX_REGISTRAR, arguments);
        const std::string text = program.rest();
        return text + std::to_string(program.wait());
    }
    static const std::vector<std::string>& needed()
    {
        static const std::vector<std::string> arguments{"--listen", "udp:127.0.0.1:0", "--database",
                                                        "oryx",     "--user",          "u"};
        return arguments;
    }
    /// The same behind what is needed.
    static std::string saidWith(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), needed().begin(), needed().end());
        return said(arguments);
    }
};

TEST_F(Command, ThatIsWrongGetsOneLineAndStatusTwo)
{
    const std::string begun = "oryx-registrar: ";
    EXPECT_EQ(said({}), begun + "--listen, --database and --user are needed; --help tells of them all\n2");
    EXPECT_EQ(said({"--listen", "sctp:127.0.0.1:5060"}),
              begun + "--listen: not udp:HOST:PORT or tcp:HOST:PORT: sctp:127.0.0.1:5060\n2");
    EXPECT_EQ(said({"--listen", "udp:::1:5060"}),
              begun + "--listen: not udp:HOST:PORT or tcp:HOST:PORT: udp:::1:5060\n2");
    EXPECT_EQ(said({"--listen", "udp:127.0.0.1:70000"}),
              begun + "--listen: not udp:HOST:PORT or tcp:HOST:PORT: udp:127.0.0.1:70000\n2");
    EXPECT_EQ(said({"--workers", "0"}), begun + "--workers: not a number from 1 to 64: 0\n2");
    EXPECT_EQ(said({"--auth", "basic"}), begun + "--auth: not digest or none: basic\n2");
    EXPECT_EQ(said({"--password-file", "/nowhere"}), begun + "--password-file: not a readable file: /nowhere\n2");
    EXPECT_EQ(said({"--metrics", "9090"}), begun + "--metrics: not HOST:PORT: 9090\n2");
    EXPECT_EQ(said({"--realm", "a\"b"}), begun + "--realm: not a text without quotes and backslashes: a\"b\n2");
    EXPECT_EQ(said({"--event-server", "events"}), begun + "--event-server: not a SIP URI: events\n2");
    EXPECT_EQ(said({"--min-expires", "soon"}), begun + "--min-expires: not a number of seconds: soon\n2");
    EXPECT_EQ(said({"--nothing"}), begun + "--nothing: no such option, or without its value\n2");
    EXPECT_EQ(said({"--user"}), begun + "--user: no such option, or without its value\n2");
    EXPECT_EQ(said({"something"}), begun + "something: no option\n2");
    const std::string order = begun + "--min-expires, --default-expires and --max-expires must be in this order\n2";
    EXPECT_EQ(saidWith({"--min-expires", "100", "--max-expires", "50"}), order);
    EXPECT_EQ(saidWith({"--default-expires", "50"}), order);
}

TEST_F(Command, TellsItsOptionsAndItsVersion)
{
    EXPECT_EQ(said({"--version"}), "oryx-registrar " ORYX_VERSION "\n0");
    const std::string help = said({"--help"});
    EXPECT_EQ(help.find("usage: oryx-registrar --listen udp:HOST:PORT --database URI --user NAME [option...]\n"), 0U)
        << help;
    EXPECT_TRUE(help.ends_with("\n0")) << help;
}

TEST_F(Command, OfTheEventServerIsTheSame)
{
    Program version(ORYX_EVENTS, {"--version"});
    EXPECT_EQ(version.rest(), "oryx-events " ORYX_VERSION "\n");
    Program wrong(ORYX_EVENTS, {"--nothing"});
    EXPECT_EQ(wrong.rest(), "oryx-events: --nothing: no such option, or without its value\n");
    EXPECT_EQ(wrong.wait(), 2);
}

TEST_F(Command, ThatNamesASocketOfOthersEndsWithOne)
{
    startRegistrar();
    std::vector<std::string> arguments = needed();
    arguments[1] = "udp:192.0.2.99:5060"; // nobody's here
    const std::string text = said(arguments);
    EXPECT_NE(text.find("--listen: cannot listen on udp:192.0.2.99:5060\n1"), std::string::npos) << text;
}

TEST_F(Command, FitsTheDefaultExpiryToALimitThatStandsAlone)
{
    startRegistrar({"--auth", "none", "--max-expires", "600"});
    Phone alice("alice", "oryx.example", m_port);
    EXPECT_EQ(alice.ask(alice.registration("<sip:alice@192.0.2.1>", -1)).parameter("Contact", "expires"), "600");
}

/// What a server answers by HTTP there.
std::string pageAt(int port)
{
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<std::uint16_t>(port));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const std::string request = "GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n";
    std::string page;
    if (connect(descriptor, reinterpret_cast<sockaddr*>(&to), sizeof to) == 0 &&
        send(descriptor, request.data(), request.size(), 0) > 0) {
        std::array<char, 4096> text{};
        for (ssize_t size = 0; (size = recv(descriptor, text.data(), text.size(), 0)) > 0;) {
            page.append(text.data(), static_cast<std::size_t>(size));
        }
    }
    close(descriptor);
    return page;
}

TEST_F(Command, CountsWhatItHasDone)
{
    const int port = phone::freePort();
    startRegistrar({"--auth", "none", "--metrics", "127.0.0.1:" + std::to_string(port)});
    Phone alice("alice", "oryx.example", m_port);
    alice.ask(alice.registration("<sip:alice@192.0.2.1>"));
    alice.ask(alice.registration("<sip:alice@192.0.2.1>", 5));
    const std::string page = pageAt(port);
    EXPECT_EQ(page.find("HTTP/1.1 200 OK\r\nContent-Type: text/plain; version=0.0.4\r\n"), 0U) << page;
    for (const char* const line :
         {"oryx_requests_total 2\n", "oryx_answers_total{class=\"2xx\"} 1\n", "oryx_answers_total{class=\"4xx\"} 1\n",
          "oryx_answers_total{class=\"5xx\"} 0\n", "oryx_statement_seconds_count 1\n",
          "oryx_statement_seconds_bucket{le=\"+Inf\"} 1\n", "oryx_database_connections_lost_total 0\n"}) {
        EXPECT_NE(page.find(line), std::string::npos) << line << page;
    }
}

} // namespace
