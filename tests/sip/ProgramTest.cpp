// The program as whoever starts it sees it: its command line, and its page of counters.

#include "sip/SipTest.h"
#include "support/Proxy.h"
#include "support/TemporaryDirectory.h"

#include <chrono>
#include <csignal>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

namespace programTest {

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
    /// Whether a server whose output nobody sees comes to answer.
    bool answers() const
    {
        Phone alice("alice", "oryx.example", m_port);
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(15);
        while (std::chrono::steady_clock::now() < end) {
            alice.send(alice.request("OPTIONS", "sip:oryx.example"));
            if (!alice.socket().silent(100) && alice.receive().status() == 200) {
                return true;
            }
        }
        return false;
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
    EXPECT_EQ(said({"--name", "192.0.2.1:5060"}), begun + "--name: not a host: 192.0.2.1:5060\n2");
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

TEST_F(Command, NamesTheRealm)
{
    startRegistrar({"--realm", "The Oryx"});
    Phone alice("alice", "oryx.example", m_port);
    const phone::Message challenge = alice.ask(alice.registration("<sip:alice@192.0.2.1>"));
    EXPECT_EQ(challenge.parameter("WWW-Authenticate", "realm", 0), "The Oryx");
    EXPECT_EQ(challenge.parameter("WWW-Authenticate", "realm", 1), "The Oryx");
    EXPECT_EQ(status(alice.ask(alice.registration("<sip:alice@192.0.2.1>"), "alice", "SHA-256")), "200 OK");
}

/// Of a file's lines the first, and sooner than what the environment says.
TEST_F(Command, TakesThePasswordFromAFile)
{
    const TemporaryDirectory directory;
    const std::string file = directory.write("password", std::string(server::kPassword) + "\nanother line\n");
    const std::vector<std::string> arguments{"--listen",        "udp:127.0.0.1:" + std::to_string(m_port),
                                             "--database",      m_database.uri(),
                                             "--user",          server::kUser,
                                             "--password-file", file};
    m_server = std::make_unique<Program>(ORYX_REGISTRAR, arguments, std::vector<std::string>{"PGPASSWORD=not-this"});
    EXPECT_EQ(m_server->line(), "ready");
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

/// The session that waits longer than others for what it asks does not wait longer for a connection.
TEST_F(Command, IsReadySoonAfterASilentDatabaseSpeaks)
{
    server::Proxy database;
    database.swallow(true);
    Program events(ORYX_EVENTS,
                   {"--listen", "udp:127.0.0.1:" + std::to_string(m_port), "--database", m_database.uri(), "--user",
                    server::loginOf("oryx_presence")},
                   {"PGPORT=" + database.port(), std::string("PGPASSWORD=") + server::kPassword});
    std::this_thread::sleep_for(std::chrono::seconds(2));
    database.swallow(false);
    EXPECT_EQ(events.line(10), "ready");
}

/// Nor where the first of its hosts stays silent.
TEST_F(Command, IsReadySoonBesideASilentHost)
{
    server::Proxy silent;
    silent.swallow(true);
    Program events(ORYX_EVENTS,
                   {"--listen", "udp:127.0.0.1:" + std::to_string(m_port), "--database",
                    "postgresql://127.0.0.1,127.0.0.1/" + m_database.name(), "--user",
                    server::loginOf("oryx_presence")},
                   {"PGPORT=" + silent.port() + "," + server::port(), std::string("PGPASSWORD=") + server::kPassword});
    EXPECT_EQ(events.line(10), "ready");
}

/// There is nothing to be read anew, and calls go on.
TEST_F(Command, IsNotEndedByAHangUp)
{
    startRegistrar();
    m_server->signal(SIGHUP);
    m_server->signal(SIGPIPE);
    Phone alice("alice", "oryx.example", m_port);
    EXPECT_EQ(status(alice.ask(alice.request("OPTIONS", "sip:oryx.example"))), "200 OK");
    EXPECT_EQ(stop(), 0);
}

/// What is written to standard error must not reach a telephone, or the database, by the number that it had.
TEST_F(Command, NeedsNoStandardStreams)
{
    const std::string port = std::to_string(m_port);
    Program shell("/bin/sh",
                  {"-c", "exec " ORYX_REGISTRAR " --listen udp:127.0.0.1:" + port + " --database " + m_database.uri() +
                             " --user " + server::kUser + " --auth none <&- >&- 2>&-"},
                  {std::string("PGPASSWORD=") + server::kPassword});
    EXPECT_TRUE(answers());
    for (const char* const stream : {"0", "1", "2"}) {
        EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(shell.process()) + "/fd/" + stream),
                  "/dev/null");
    }
    shell.signal(SIGTERM);
    EXPECT_EQ(shell.wait(2), 0);
}

/// Nobody reads what it says: oryx-registrar ... | head -1.
TEST_F(Command, OutlivesWhoeverReadsItsOutput)
{
    const std::string port = std::to_string(m_port);
    Program shell("/bin/sh",
                  {"-c", "sh -c 'echo $$; exec " ORYX_REGISTRAR " --listen udp:127.0.0.1:" + port + " --database " +
                             m_database.uri() + " --user " + server::kUser + " --auth none' | head -1"},
                  {std::string("PGPASSWORD=") + server::kPassword});
    const pid_t server = std::stoi(shell.line());
    EXPECT_TRUE(answers());
    EXPECT_EQ(kill(server, SIGTERM), 0);
}

TEST_F(Command, WithAnAddressThatCannotBeHadGetsOneLineAndStatusOne)
{
    const phone::Socket taken;
    for (const std::string& address : {taken.hostPort(), std::string("192.0.2.1:5060")}) {
        const std::string text = said({"--listen", "udp:" + address, "--database", "oryx", "--user", "u"});
        EXPECT_EQ(text, std::string(ORYX_REGISTRAR) + ": --listen: cannot listen on udp:" + address + "\n1");
    }
}

/// Who asks for the page of counters and says nothing, too much, or reads nothing keeps it from others for a moment.
TEST_F(Command, CountsOnWhateverItsReadersDo)
{
    const int port = phone::freePort();
    startRegistrar({"--auth", "none", "--metrics", "127.0.0.1:" + std::to_string(port)});
    phone::Socket silent("127.0.0.1", phone::Transport::tcp);
    silent.send(port, "");
    phone::Socket deaf("127.0.0.1", phone::Transport::tcp);
    deaf.send(port, "G");
    phone::Socket loud("127.0.0.1", phone::Transport::tcp);
    loud.send(port, std::string(8000000, 'x'));
    EXPECT_EQ(pageAt(port).find("HTTP/1.1 200 OK\r\n"), 0U);
    phone::Socket waiting("127.0.0.1", phone::Transport::tcp);
    waiting.send(port, "");
    EXPECT_EQ(stop(), 0);
}

} // namespace

} // namespace programTest
