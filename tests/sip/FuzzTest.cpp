// A server's sockets, tried with messages that nobody thought of.
//
// ORYX_FUZZ_SECONDS has it take longer, ORYX_FUZZ_SEED has the same choices made again (what the server answers in time
// is among what they are made of), and ORYX_FUZZ_SERVER names another server to be tried: any that has the registrar's
// command line.

#include "sip/SipTest.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <map>
#include <random>
#include <set>
#include <string_view>
#include <utility>
#include <vector>

namespace fuzzTest {

namespace {

using phone::Message;
using phone::Phone;
using phone::Socket;
using phone::Transport;

constexpr std::array<std::string_view, 41> kWords{"\r\n",
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
                                                  "\xFF\xFE",
                                                  "<![CDATA[",
                                                  "<!DOCTYPE x [",
                                                  "<!--",
                                                  "&lt;",
                                                  "&#0;",
                                                  "xmlns:x=",
                                                  "/>"};

/// What is asked for: of whom, and of which event package.
struct Wish {
    const char* method;
    const char* uri; ///< The telephone's own where it is empty.
    const char* event = "presence";
};
/// What a server is tried with.
struct Trials {
    std::vector<Wish> wishes;
    std::string stores;            ///< The method that is answered 200 only after a worker has stored something.
    std::set<std::string> reached; ///< What the wishes must lead to, as `Fuzz::m_seen` has it.
};

const Trials kOfRegistrar{{{"REGISTER", "sip:oryx.example"},
                           {"REGISTER", "sip:oryx.example"},
                           {"MESSAGE", "sip:bob@oryx.example"},
                           {"INVITE", "sip:alice@oryx.example"},
                           {"OPTIONS", "sip:1001@oryx.example"},
                           {"CANCEL", "sip:alice@oryx.example"},
                           {"PRACK", "sip:alice@oryx.example"},
                           {"SUBSCRIBE", "sip:bob@oryx.example"},
                           {"BYE", ""},
                           {"ACK", ""},
                           {"MESSAGE", ""},
                           {"MESSAGE", "sip:x@elsewhere.example"},
                           {"INVITE", "sip:127.0.0.1"}},
                          "REGISTER",
                          {"200 REGISTER", "200 MESSAGE", "200 INVITE", "200 BYE"}};
const Trials kOfEvents{{{"PUBLISH", ""},
                        {"PUBLISH", ""},
                        {"SUBSCRIBE", "sip:alice@oryx.example"},
                        {"SUBSCRIBE", "sip:bob@oryx.example"},
                        {"SUBSCRIBE", "sip:friends@oryx.example"},
                        {"SUBSCRIBE", "sip:alice@oryx.example", "presence.winfo"},
                        {"SUBSCRIBE", "sip:x@elsewhere.example"},
                        {"NOTIFY", ""},
                        {"INVITE", "sip:127.0.0.1"}},
                       "PUBLISH",
                       {"200 PUBLISH", "200 SUBSCRIBE", "NOTIFY application/pidf+xml",
                        "NOTIFY application/watcherinfo+xml", "NOTIFY multipart/related"}};

/// What comes beside it, and often is not understood, or refused.
constexpr std::array<std::array<const char*, 2>, 10> kBeside{
    {{"Path", "<sip:127.0.0.1;lr>"},
     {"Require", "path"},
     {"Supported", "path, outbound"},
     {"Accept", "application/pidf+xml"},
     {"Authorization", "Digest username=\"alice\", realm=\"oryx.example\", nonce=\"0\", uri=\"sip:oryx.example\", "
                       "response=\"0\", qop=auth, nc=00000001, cnonce=\"0\", algorithm=MD5"},
     {"Subscription-State", "active;expires=5"},
     {"SIP-If-Match", "x"},
     {"RAck", "1 1 INVITE"},
     {"Event", "presence.winfo;id=7"},
     {"Expires", "3600"}}};

constexpr const char* kDocument =
    "<?xml version=\"1.0\"?><presence xmlns=\"urn:ietf:params:xml:ns:pidf\" "
    "xmlns:p=\"urn:ietf:params:xml:ns:pidf:data-model\" entity=\"sip:alice@oryx.example\"><tuple id=\"t\">"
    "<status><basic>open</basic></status><contact priority=\"0.8\">sip:alice@127.0.0.1</contact></tuple>"
    "<note>here</note><p:person id=\"p\"><p:note>at &lt;work&gt;</p:note></p:person></presence>";

/// Somebody's telephone, and what it has been told and may use.
struct Caller {
    explicit Caller(const std::string& name, int server, Transport transport = Transport::udp)
        : user(name), phone(name, "oryx.example", server, "127.0.0.1", transport)
    {
    }

    std::string user; ///< His password, too.
    Phone phone;
    std::map<std::string, Message> challenges; ///< Those not answered yet, by method.
    std::map<std::string, Message> dialogs;    ///< The answer that has made each, by method.
    std::string entityTag;                     ///< Of what he has published.
};

class Fuzz : public SipTest {
protected:
    /// Bob may watch alice, who waits for him to decide; both have a list, and may call whom they find on this host.
    /// The others are left alone: they ask whether each worker still answers.
    Fuzz()
    {
        sql("INSERT INTO access_control_list (object, requester, access_action, application) VALUES"
            " ('alice@oryx.example', 'bob@oryx.example', 'allow', 'presence'),"
            " ('bob@oryx.example', '*', 'confirm', 'presence');"
            "INSERT INTO host_info (node_type, outbound_allow_internal) VALUES ('leaf', false);"
            "INSERT INTO domain_access (direction, sip_domain, domain_action, qvalue) VALUES ('o', '127.0.0.1', 'a', 1);"
            "INSERT INTO buddy_list VALUES (7, 'friends');"
            "INSERT INTO buddy_list_detail VALUES ('friends', 'sip:alice@oryx.example'), ('friends', 'sip:bob@oryx.example'),"
            " ('friends', 'sip:nobody@oryx.example');"
            "INSERT INTO presence_list_authorization VALUES (7, 'alice', 'oryx.example', 'A'),"
            " (7, 'bob', 'oryx.example', 'A');"
            "INSERT INTO subscriber (sid, user_id, auth_user_id, s_password, active)"
            " SELECT n, 'other' || n, 'other' || n, 'other' || n, true FROM generate_series(11, 10 + " +
            std::to_string(kOthers) +
            ") n;"
            "INSERT INTO contact_set (csid, sid, ordering) SELECT sid, sid, 'parallel' FROM subscriber WHERE sid > 10;"
            "INSERT INTO public_address (handle, sip_domain, csid)"
            " SELECT user_id, 'oryx.example', sid FROM subscriber WHERE sid > 10");
    }
    static unsigned fromEnvironment(const char* name, unsigned otherwise)
    {
        const char* const said = std::getenv(name);
        return said != nullptr ? static_cast<unsigned>(std::strtoul(said, nullptr, 10)) : otherwise;
    }
    std::size_t upTo(std::size_t limit) { return limit == 0 ? 0 : m_random() % limit; }
    bool oneIn(std::size_t chances) { return upTo(chances) == 0; }
    template <typename List>
    auto& oneOf(List& list)
    {
        return list[upTo(list.size())];
    }
    /// A request as telephones send it, with all that it takes to be granted.
    Message right(Caller& caller, const Wish& wish)
    {
        static const std::vector<std::string> lives{"0", "1", "2", "60"};
        const std::string method = wish.method;
        const std::string own = method == "PUBLISH" ? caller.phone.address() : caller.phone.contact();
        const std::string uri = *wish.uri != '\0' ? wish.uri : own;
        Message message =
            caller.phone.request(method, uri, method == "REGISTER" ? caller.phone.address() : std::string());
        message.set("Expires", oneOf(lives)).set("Event", wish.event);
        if (method == "SUBSCRIBE") {
            message.add("Supported", "eventlist");
        }
        if (method == "PUBLISH") {
            message.set("SIP-If-Match", oneIn(2) ? caller.entityTag : "");
            message.set("Content-Type", "application/pidf+xml");
            message.body = oneIn(3) ? mutated(kDocument) : kDocument;
        }
        const auto dialog = caller.dialogs.find(method == "SUBSCRIBE" ? method : "INVITE");
        if (dialog != caller.dialogs.end() && (oneIn(3) || method == "BYE")) {
            const Message& answer = dialog->second;
            const std::string target = answer.field("Contact");
            message.first = method + " " + target.substr(1, target.find('>') - 1) + " SIP/2.0";
            for (const char* const name : {"From", "To", "Call-ID"}) {
                message.set(name, answer.field(name));
            }
            message.set("Route", answer.field("Record-Route"));
        }
        return message;
    }
    /// The same with what makes it less so, and proof that is good once.
    std::string whole(Caller& caller, const Trials& trials)
    {
        const std::string own = "<sip:127.0.0.1:" + std::to_string(m_port) + ";lr;oryx=0123456789abcdef>";
        Message message = right(caller, oneOf(trials.wishes));
        for (const auto& [name, value] : kBeside) {
            if (oneIn(12)) {
                message.add(name, value);
            }
        }
        for (const char* const name : {"Route", "Record-Route", "Path"}) {
            if (oneIn(12)) {
                message.add(name, own);
            }
        }
        if (oneIn(12)) {
            message.body = kDocument;
        }
        if (const auto challenge = caller.challenges.extract(message.method())) {
            message.set(
                challenge.mapped().status() == 401 ? "Authorization" : "Proxy-Authorization",
                caller.phone.credentials(message, challenge.mapped(), caller.user, oneIn(2) ? "MD5" : "SHA-256"));
        }
        return oneIn(16) ? caller.phone.response(message, static_cast<int>(100 + upTo(600)), "So").text()
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
    /// Answers what has come in, not always as it should, and keeps what an answer tells.
    void answerAll(Caller& caller)
    {
        Socket& socket = caller.phone.socket();
        while (!socket.silent(0)) {
            const Message message = Message::parse(socket.receive());
            const int status = message.status();
            if (status != 0) {
                keep(caller, message, status);
            } else if (!message.fields.empty()) {
                const std::string type = message.field("Content-Type");
                m_seen.insert(message.method() + " " + type.substr(0, type.find(';')));
                Message answer = caller.phone.response(message, 200, "OK");
                if (oneIn(8)) {
                    answer.first = "SIP/2.0 " + std::to_string(300 + upTo(400)) + " So";
                    answer.add("Retry-After", "1");
                }
                socket.send(m_port, oneIn(2) ? answer.text() : mutated(answer.text()));
            }
        }
    }
    void keep(Caller& caller, const Message& answer, int status)
    {
        const std::string cseq = answer.field("CSeq");
        const std::string method = cseq.substr(cseq.find(' ') + 1);
        if (status == 401 || status == 407) {
            caller.challenges[method] = answer;
        }
        if (status == 200) {
            m_seen.insert("200 " + method);
        }
        const bool makesDialog = method == "SUBSCRIBE" || method == "INVITE";
        if (status == 200 && makesDialog && answer.field("Contact").starts_with("<")) {
            caller.dialogs[method] = answer;
        }
        if (status == 200 && method == "PUBLISH") {
            caller.entityTag = answer.field("SIP-ETag");
        }
    }
    /// What a good request is answered that takes a worker, and has it store something; with patience while there is
    /// too much to do, or a datagram is lost for it.
    std::string answer(const std::string& name, const std::string& method)
    {
        const auto end = std::chrono::steady_clock::now() + kPatience;
        std::string said;
        while (said != "200 OK" && std::chrono::steady_clock::now() < end) {
            Phone other(name, "oryx.example", m_port);
            Message request = other.registration("<sip:" + name + "@127.0.0.1:9>", 2);
            if (method == "PUBLISH") {
                request = other.request(method, other.address());
                request.set("Event", "presence").set("Expires", "2").set("Content-Type", "application/pidf+xml");
                request.body = kDocument;
            }
            try {
                said = status(other.ask(request, name));
            } catch (const std::exception& error) {
                said = error.what();
            }
        }
        return said;
    }
    void allAnswer(const std::string& method)
    {
        for (int n = 11; n < 11 + kOthers; ++n) {
            ASSERT_EQ(answer("other" + std::to_string(n), method), "200 OK") << n << ": " << m_server->soFar();
        }
    }
    bool complains()
    {
        const std::string said = m_server->soFar();
        return said.find("Sanitizer") != std::string::npos || said.find("runtime error") != std::string::npos;
    }

    /// Half of the time without proof, half with it.
    void isTried(const std::string& server, const Trials& trials);
    /// The least time; on a busy machine more, until what must be has been reached.
    void isTriedFor(std::chrono::milliseconds time, const Trials& trials);

    static constexpr int kOthers = 16; // so many that each of four workers has one
    static constexpr std::chrono::seconds kPatience{30};
    unsigned m_seed = fromEnvironment("ORYX_FUZZ_SEED", std::random_device()());
    std::mt19937 m_random{m_seed};
    std::set<std::string> m_seen; ///< Methods that were granted, and requests that came, with what was in them.
};

void Fuzz::isTried(const std::string& server, const Trials& trials)
{
    SCOPED_TRACE("ORYX_FUZZ_SEED=" + std::to_string(m_seed));
    const std::chrono::milliseconds time = std::chrono::seconds(fromEnvironment("ORYX_FUZZ_SECONDS", 5));
    for (const char* const proof : {"none", "digest"}) {
        SCOPED_TRACE(proof);
        start(server, {"--auth", proof, "--record-route", "--workers", "4", "--min-expires", "1"});
        isTriedFor(time / 2, trials);
        allAnswer(trials.stores);
        EXPECT_EQ(m_server->soFar(), "ready\n"); // nobody can fill a log
        m_server->signal(SIGTERM);
        EXPECT_EQ(m_server->wait(20), 0); // a sanitizer looks for what was lost
        EXPECT_FALSE(complains()) << m_server->soFar();
    }
}

void Fuzz::isTriedFor(std::chrono::milliseconds time, const Trials& trials)
{
    std::array<Caller, 2> callers{Caller("alice", m_port), Caller("bob", m_port)};
    for (Caller& caller : callers) {
        caller.phone.ask(caller.phone.registration("<" + caller.phone.contact() + ">"), caller.user);
    }
    m_seen.clear();
    const auto begin = std::chrono::steady_clock::now();
    const auto lasts = [&](std::chrono::milliseconds how) { return std::chrono::steady_clock::now() - begin < how; };
    const auto reached = [&] {
        return std::includes(m_seen.begin(), m_seen.end(), trials.reached.begin(), trials.reached.end());
    };
    for (int count = 1; lasts(time) || (!reached() && lasts(time + kPatience)); ++count) {
        Caller& caller = oneOf(callers);
        if (oneIn(10)) {
            Caller other(caller.user, m_port, Transport::tcp);
            other.challenges = std::exchange(caller.challenges, {});
            const std::string messages = mutated(whole(other, trials) + whole(other, trials));
            other.phone.socket().send(m_port, messages.substr(0, upTo(messages.size())));
        } else {
            const std::string message = whole(caller, trials);
            caller.phone.socket().send(m_port, oneIn(3) ? message : mutated(message));
            answerAll(caller);
        }
        if (count % 1000 == 0) {
            ASSERT_FALSE(complains()) << m_server->soFar();
            ASSERT_NO_FATAL_FAILURE(allAnswer(trials.stores));
        }
    }
    for (const std::string& what : trials.reached) {
        EXPECT_TRUE(m_seen.contains(what)) << what;
    }
}

TEST_F(Fuzz, LeavesTheServerAnswering)
{
    const char* const server = std::getenv("ORYX_FUZZ_SERVER");
    isTried(server != nullptr ? server : ORYX_REGISTRAR, kOfRegistrar);
}

TEST_F(Fuzz, LeavesTheEventServerAnswering)
{
    isTried(ORYX_EVENTS, kOfEvents);
}

} // namespace

} // namespace fuzzTest
