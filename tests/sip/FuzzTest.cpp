// A server's sockets, tried with messages that nobody thought of.
//
// ORYX_FUZZ_SECONDS has it take longer, ORYX_FUZZ_SEED has the same messages come again, and ORYX_FUZZ_SERVER names
// another server to be tried: any that has the registrar's command line.

#include "sip/SipTest.h"

#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <random>
#include <string_view>

namespace fuzzTest {

namespace {

using phone::Message;
using phone::Phone;
using phone::Socket;
using phone::Transport;

constexpr std::array<std::string_view, 34> kWords{"\r\n",
                                                  "\r\n\r\n",
                                                  "\r\n ",
                                                  "\n",
                                                  "\r",
                                                  "\"",
                                                  "<",
                                                  ">",
                                                  ";",
                                                  ",",
                                                  ":",
                                                  "@",
                                                  "?",
                                                  "&",
                                                  "=",
                                                  "%00",
                                                  "%",
                                                  "*",
                                                  "sip:",
                                                  "sips:",
                                                  "tel:",
                                                  "[::1]",
                                                  "[",
                                                  ";lr",
                                                  ";q=0.5",
                                                  "SIP/2.0",
                                                  ";expires=0",
                                                  "-1",
                                                  "0",
                                                  "4294967296",
                                                  "99999999999999999999",
                                                  ";transport=tcp",
                                                  ";maddr=127.0.0.1",
                                                  "\xFF\xFE"};

class Fuzz : public SipTest {
protected:
    static unsigned fromEnvironment(const char* name, unsigned otherwise)
    {
        const char* const said = std::getenv(name);
        return said != nullptr ? static_cast<unsigned>(std::strtoul(said, nullptr, 10)) : otherwise;
    }
    std::size_t upTo(std::size_t limit) { return limit == 0 ? 0 : m_random() % limit; }
    template <typename List>
    const auto& oneOf(const List& list)
    {
        return list[upTo(list.size())];
    }
    /// A message as telephones send it.
    std::string whole(Phone& telephone)
    {
        static const std::array<const char*, 11> methods{"REGISTER", "INVITE", "MESSAGE", "OPTIONS",
                                                         "BYE",      "CANCEL", "ACK",     "SUBSCRIBE",
                                                         "PUBLISH",  "NOTIFY", "PRACK"};
        static const std::array<const char*, 5> targets{"sip:oryx.example", "sip:alice@oryx.example",
                                                        "sip:bob@oryx.example", "sip:x@elsewhere.example",
                                                        "sip:127.0.0.1"};
        const std::string method = oneOf(methods);
        const std::string own = "<sip:127.0.0.1:" + std::to_string(m_port) + ";lr;oryx=0123456789abcdef>";
        Message message = telephone.request(method, oneOf(targets), "sip:alice@oryx.example");
        message.add("Route", own).add("Record-Route", own).add("Path", own).add("Supported", "path, outbound");
        message.add("Require", "path")
            .add("Expires", "60")
            .add("Event", "presence")
            .add("Accept", "application/pidf+xml");
        message.add("Authorization",
                    "Digest username=\"alice\", realm=\"oryx.example\", nonce=\"0\", uri=\"sip:oryx.example\", "
                    "response=\"0\", qop=auth, nc=00000001, cnonce=\"0\", algorithm=MD5");
        message.add("Subscription-State", "active;expires=5").add("SIP-If-Match", "x").add("RAck", "1 1 INVITE");
        for (int n = 0; n < 8; ++n) { // not all of them at once
            message.fields.erase(message.fields.begin() + 6 +
                                 static_cast<std::ptrdiff_t>(upTo(message.fields.size() - 6)));
        }
        message.body = upTo(2) == 0 ? ""
                                    : "<?xml version=\"1.0\"?><presence xmlns=\"urn:ietf:params:xml:ns:pidf\" "
                                      "entity=\"sip:alice@oryx.example\"><tuple id=\"t\"><status><basic>open"
                                      "</basic></status></tuple><note>here</note></presence>";
        return upTo(8) == 0 ? telephone.response(message, static_cast<int>(100 + upTo(600)), "So").text()
                            : message.text();
    }
    std::string mutated(std::string text)
    {
        for (std::size_t n = upTo(6); n > 0 && !text.empty(); --n) {
            const std::size_t at = upTo(text.size());
            const std::size_t length = upTo(std::min<std::size_t>(text.size() - at, 40)) + 1;
            switch (upTo(6)) {
            case 0:
                text[at] = static_cast<char>(m_random());
                break;
            case 1:
                text.erase(at, length);
                break;
            case 2:
                text.insert(at, oneOf(kWords));
                break;
            case 3:
                text.replace(at, std::min<std::size_t>(length, 4), oneOf(kWords));
                break;
            case 4:
                text.insert(upTo(text.size()), text.substr(at, length));
                break;
            default: { // one piece very often
                const std::string piece = text.substr(at, length);
                for (std::size_t times = upTo(300); times > 0; --times) {
                    text.insert(at, piece);
                }
            }
            }
        }
        return text.substr(0, 60000);
    }
    /// Answers what has come in, not always as it should.
    void answerAll(Phone& telephone)
    {
        while (!telephone.socket().silent(0)) {
            const Message message = Message::parse(telephone.socket().receive());
            if (message.status() == 0 && !message.fields.empty()) {
                telephone.socket().send(m_port, mutated(telephone.response(message, 200, "OK").text()));
            }
        }
    }
    /// Whether a good request is answered, be it that there is too much to do.
    bool answers()
    {
        for (int tries = 0; tries < 20; ++tries) {
            Phone bob("bob", "oryx.example", m_port);
            bob.send(bob.request("OPTIONS", "sip:oryx.example"));
            if (!bob.socket().silent(1000)) {
                return true;
            }
        }
        return false;
    }
    bool complains()
    {
        const std::string said = m_server->soFar();
        return said.find("Sanitizer") != std::string::npos || said.find("runtime error") != std::string::npos;
    }

    void isTried(const std::string& server);

    unsigned m_seed = fromEnvironment("ORYX_FUZZ_SEED", std::random_device()());
    std::mt19937 m_random{m_seed};
};

void Fuzz::isTried(const std::string& server)
{
    SCOPED_TRACE("ORYX_FUZZ_SEED=" + std::to_string(m_seed));
    start(server, {"--auth", upTo(2) == 0 ? "none" : "digest", "--record-route", "--workers", "4"});
    Phone telephone("alice", "oryx.example", m_port);
    telephone.send(telephone.registration("<" + telephone.contact() + ">"));
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(fromEnvironment("ORYX_FUZZ_SECONDS", 5));
    for (int count = 1; std::chrono::steady_clock::now() < end; ++count) {
        if (upTo(10) == 0) {
            Phone other("bob", "oryx.example", m_port, "127.0.0.1", Transport::tcp);
            const std::string messages = mutated(whole(other) + whole(other));
            other.socket().send(m_port, messages.substr(0, upTo(messages.size())));
        } else {
            telephone.socket().send(m_port, mutated(whole(telephone)));
            answerAll(telephone);
        }
        if (count % 1000 == 0) {
            ASSERT_FALSE(complains()) << m_server->soFar();
            ASSERT_TRUE(answers()) << m_server->soFar();
        }
    }
    EXPECT_TRUE(answers()) << m_server->soFar();
    EXPECT_EQ(m_server->soFar(), "ready\n"); // nobody can fill a log
    m_server->signal(SIGTERM);
    EXPECT_EQ(m_server->wait(20), 0); // a sanitizer looks for what was lost
    EXPECT_FALSE(complains()) << m_server->soFar();
}

TEST_F(Fuzz, LeavesTheServerAnswering)
{
    const char* const server = std::getenv("ORYX_FUZZ_SERVER");
    isTried(server != nullptr ? server : ORYX_REGISTRAR);
}

TEST_F(Fuzz, LeavesTheEventServerAnswering)
{
    isTried(ORYX_EVENTS);
}

} // namespace

} // namespace fuzzTest
