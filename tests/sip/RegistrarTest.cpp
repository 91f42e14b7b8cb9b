// The registrar as telephones see it: RFC 3261 section 10.3, item by item, and what goes with it.

#include "sip/SipTest.h"
#include "support/TemporaryDirectory.h"

#include <Crypt.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <memory>
#include <regex>
#include <thread>
#include <vector>

namespace registrarTest {

namespace {

using phone::Message;
using phone::Phone;

class Registrar : public SipTest {};

/// The statement that the page of the servers has.
std::string upgrade()
{
    std::ifstream page(ORYX_SCENARIOS "/../../../docs/servers.md");
    const std::string text{std::istreambuf_iterator<char>(page), {}};
    const std::string mark = "\n```sql\n";
    const std::size_t begin = text.find(mark) + mark.size();
    return text.substr(begin, text.find("```", begin) - begin);
}

/// Section 10.3, item 8.
TEST_F(Registrar, StoresABindingAndListsIt)
{
    startRegistrar();
    Phone alice("alice", "oryx.example", m_port);
    const Message answer = alice.ask(alice.registration("<sip:alice@192.0.2.1:5070>;q=0.5"));
    EXPECT_EQ(status(answer), "200 OK");
    EXPECT_EQ(answer.field("Contact"), "<sip:alice@192.0.2.1:5070>;q=0.5;expires=3600");
    EXPECT_NE(answer.field("Date"), "");
    EXPECT_EQ(bindings(), "sip:alice@192.0.2.1:5070\n");
}

TEST_F(Registrar, EndsWithinTwoSecondsWhenItIsTold)
{
    startRegistrar();
    EXPECT_EQ(stop(), 0);
}

TEST_F(Registrar, EndsInTimeWhileTheDatabaseKeepsARequestWaiting)
{
    startRegistrar();
    server::Session holder(m_database.name());
    holder.run("BEGIN; LOCK TABLE public_address IN ACCESS EXCLUSIVE MODE");
    Phone alice("alice", "oryx.example", m_port);
    alice.send(alice.registration("<sip:alice@192.0.2.1>"));
    EXPECT_TRUE(alice.socket().silent(100));
    EXPECT_EQ(stop(), 0);
    EXPECT_EQ(alice.receive().status(), 503);
}

/// Section 21.5.4: the first is under way at the end, and the others have not begun.
TEST_F(Registrar, AnswersThatItCannotToWhateverIsLeftAtItsEnd)
{
    startRegistrar();
    server::Session holder(m_database.name());
    holder.run("BEGIN; LOCK TABLE public_address IN ACCESS EXCLUSIVE MODE");
    std::vector<std::unique_ptr<Phone>> telephones; // of one address, so of one worker
    for (int n = 0; n < 4; ++n) {
        telephones.push_back(std::make_unique<Phone>("alice", "oryx.example", m_port));
        telephones.back()->send(telephones.back()->registration("<sip:alice@192.0.2.1>"));
    }
    EXPECT_TRUE(telephones[0]->socket().silent(100));
    EXPECT_EQ(stop(), 0);
    for (const auto& telephone : telephones) {
        const Message answer = telephone->receive();
        EXPECT_EQ(status(answer), "503 Service Unavailable");
        EXPECT_NE(answer.field("Retry-After"), "");
    }
}

/// Section 21.5.4.
TEST_F(Registrar, AnswersThatItCannotWhileTheDatabaseDoesNot)
{
    startRegistrar();
    server::Session holder(m_database.name());
    holder.run("BEGIN; LOCK TABLE public_address IN ACCESS EXCLUSIVE MODE");
    Phone alice("alice", "oryx.example", m_port);
    const Message answer = alice.ask(alice.registration("<sip:alice@192.0.2.1>"));
    EXPECT_EQ(status(answer), "503 Service Unavailable");
    EXPECT_NE(answer.field("Retry-After"), "");
    holder.run("COMMIT");
    EXPECT_EQ(status(alice.ask(alice.registration("<sip:alice@192.0.2.1>"))), "200 OK");
}

/// What has come while the one before was under way is applied together.
class RegistrarOfMany : public Registrar {
protected:
    static constexpr std::size_t kUsers = 40;

    RegistrarOfMany()
    {
        sql("INSERT INTO contact_set (csid) SELECT n FROM generate_series(100, 139) n;"
            "INSERT INTO public_address (handle, sip_domain, csid)"
            " SELECT 'user' || n, 'oryx.example', n FROM generate_series(100, 139) n");
        for (std::size_t user = 0; user < kUsers; ++user) {
            m_phones.push_back(std::make_unique<Phone>("user" + std::to_string(100 + user), "oryx.example", m_port));
        }
    }
    /// With a deadline that is not met on a busy machine either.
    void startPatientRegistrar()
    {
        setenv("ORYX_DEADLINE", "20s", 1);
        startRegistrar({"--auth", "none", "--workers", "1"});
        unsetenv("ORYX_DEADLINE");
    }
    static std::string contactOf(std::size_t user) { return "sip:x@192.0.2.1:" + std::to_string(1024 + user); }
    Message registration(std::size_t user) { return m_phones[user]->registration("<" + contactOf(user) + ">"); }
    /// Has them all come while the database keeps the first of them waiting; what each is answered.
    std::vector<std::string> askAll(const std::vector<Message>& requests)
    {
        server::Session holder(m_database.name());
        holder.run("BEGIN; LOCK TABLE public_address IN ACCESS EXCLUSIVE MODE");
        m_phones[0]->send(requests[0]);
        const std::string waiting = "SELECT count(*) FROM pg_locks JOIN pg_database d ON d.oid = database"
                                    " WHERE NOT granted AND datname = current_database()";
        for (int look = 0; look < 300 && m_session.value(waiting) == "0"; ++look) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        for (std::size_t user = 1; user < kUsers; ++user) {
            m_phones[user]->send(requests[user]);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100)); // as it reads them
        holder.run("COMMIT");
        std::vector<std::string> answers;
        for (const auto& telephone : m_phones) {
            const Message answer = telephone->receive();
            answers.push_back(status(answer) + " " + answer.field("Contact"));
        }
        return answers;
    }
    static std::string done(std::size_t user) { return "200 OK <" + contactOf(user) + ">;expires=3600"; }
    void expectAllDone()
    {
        std::vector<Message> requests;
        std::vector<std::string> expected;
        for (std::size_t user = 0; user < kUsers; ++user) {
            requests.push_back(registration(user));
            expected.push_back(done(user));
        }
        EXPECT_EQ(askAll(requests), expected);
    }

    std::vector<std::unique_ptr<Phone>> m_phones;
};

/// Section 10.3, item 8.
TEST_F(RegistrarOfMany, AnswersEachWithItsOwnBindings)
{
    startPatientRegistrar();
    expectAllDone();
    EXPECT_EQ(rows("SELECT count(*), count(DISTINCT csid), count(DISTINCT xmin::text) < 30 FROM contact"), "40|40|t\n");
}

/// Section 10.3, items 4, 5 and 7.
TEST_F(RegistrarOfMany, RefusesOneForWhatItIsAndNoOther)
{
    startPatientRegistrar();
    std::vector<Message> requests;
    std::vector<std::string> expected;
    for (std::size_t user = 0; user < kUsers; ++user) {
        EXPECT_EQ(status(m_phones[user]->ask(registration(user))), "200 OK");
        requests.push_back(registration(user));
        expected.push_back(done(user));
    }
    requests[5].set("To", "<sip:nobody@oryx.example>");
    expected[5] = "404 Not Found ";
    requests[10].set("CSeq", "0 REGISTER");
    expected[10] = "500 Request Is Out of Order ";
    requests[15].set("To", "<sip:carol@oryx.example>");
    expected[15] = "403 Forbidden ";
    requests[20] = m_phones[20]->registration("*", 0);
    expected[20] = "200 OK ";
    EXPECT_EQ(askAll(requests), expected);
    EXPECT_EQ(rows("SELECT count(*), min(cseq), max(cseq) FROM contact"), "39|1|2\n");
}

/// Section 21.5.4.
TEST_F(RegistrarOfMany, AnswersAllButTheOneWhoseBindingsAreLocked)
{
    startRegistrar({"--auth", "none", "--workers", "1"});
    EXPECT_EQ(status(m_phones[7]->ask(registration(7))), "200 OK");
    server::Session holder(m_database.name());
    holder.run("BEGIN; SELECT FROM contact FOR UPDATE");
    std::vector<Message> requests;
    std::vector<std::string> expected;
    for (std::size_t user = 0; user < kUsers; ++user) {
        requests.push_back(registration(user));
        expected.push_back(user == 7 ? "503 Service Unavailable " : done(user));
    }
    EXPECT_EQ(askAll(requests), expected);
    EXPECT_EQ(stop(), 0);
}

/// All that is waiting would take longer than one question may.
TEST_F(RegistrarOfMany, AsksASlowDatabaseForFewerAtOnce)
{
    sql("CREATE FUNCTION take_time() RETURNS trigger LANGUAGE plpgsql AS"
        " $$ BEGIN PERFORM pg_sleep(0.05); RETURN NEW; END $$;"
        "CREATE TRIGGER take_time BEFORE INSERT ON contact FOR EACH ROW EXECUTE FUNCTION take_time()");
    startRegistrar({"--auth", "none", "--workers", "1"});
    expectAllDone();
}

TEST_F(RegistrarOfMany, EndsInTimeWhileTheDatabaseKeepsThemWaiting)
{
    startRegistrar({"--auth", "none", "--workers", "1"});
    server::Session holder(m_database.name());
    holder.run("BEGIN; SELECT FROM public_address FOR UPDATE; LOCK TABLE contact IN ACCESS EXCLUSIVE MODE");
    for (std::size_t user = 0; user < kUsers; ++user) {
        m_phones[user]->send(registration(user));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(700)); // several are under way now
    EXPECT_EQ(stop(), 0);
}

/// Section 10.2.3.
TEST_F(Registrar, ListsBindingsWithoutAContact)
{
    startRegistrar();
    Phone alice("alice", "oryx.example", m_port);
    alice.ask(alice.registration("<sip:alice@192.0.2.1>"));
    alice.ask(alice.registration("<sip:alice@192.0.2.2>"));
    const Message answer = alice.ask(alice.registration("", -1));
    EXPECT_EQ(status(answer), "200 OK");
    // Some seconds may have passed meanwhile.
    EXPECT_EQ(std::regex_replace(answer.field("Contact"), std::regex("=3[56][0-9][0-9]"), "=3600"),
              "<sip:alice@192.0.2.1>;expires=3600, <sip:alice@192.0.2.2>;expires=3600");
}

/// Whatever its length.
TEST_F(Registrar, StoresTheWholeContact)
{
    startRegistrar();
    Phone alice("alice", "oryx.example", m_port);
    const std::string contact = "\"" + std::string(150, 'a') + "\" <sip:alice@192.0.2.1>;line=1;q=0.5";
    EXPECT_EQ(status(alice.ask(alice.registration(contact))), "200 OK");
    EXPECT_EQ(rows("SELECT contact_header FROM contact"), contact + "\n");
}

/// Section 10.3, item 6, and 10.2.2.
TEST_F(Registrar, RemovesAllBindingsWithAStar)
{
    startRegistrar();
    Phone alice("alice", "oryx.example", m_port);
    alice.ask(alice.registration("<sip:alice@192.0.2.1>"));
    const Message answer = alice.ask(alice.registration("*", 0));
    EXPECT_EQ(status(answer), "200 OK");
    EXPECT_EQ(answer.field("Contact"), "");
    EXPECT_EQ(bindings(), "");
}

/// Section 10.3, item 6.
TEST_F(Registrar, RefusesAStarWithAnExpiryOrBesideAContact)
{
    startRegistrar();
    Phone alice("alice", "oryx.example", m_port);
    EXPECT_EQ(status(alice.ask(alice.registration("*", 3600))), "400 Bad Request");
    EXPECT_EQ(status(alice.ask(alice.registration("*", -1))), "400 Bad Request");
    EXPECT_EQ(status(alice.ask(alice.registration("<sip:alice@192.0.2.1>", 0).add("Contact", "*"))), "400 Bad Request");
}

/// Section 10.3, item 7.
TEST_F(Registrar, TakesTheExpiryOfParameterOrFieldOrItsOwn)
{
    startRegistrar({"--auth", "none", "--min-expires", "30", "--max-expires", "5000", "--default-expires", "300"});
    Phone alice("alice", "oryx.example", m_port);
    const auto granted = [&](const std::string& parameter, int field) {
        return alice.ask(alice.registration("<sip:alice@192.0.2.1>" + parameter, field))
            .parameter("Contact", "expires");
    };
    EXPECT_EQ(granted(";expires=100", 200), "100");
    EXPECT_EQ(granted("", 200), "200");
    EXPECT_EQ(granted("", -1), "300");
    EXPECT_EQ(granted(";expires=6000", -1), "5000");
    EXPECT_EQ(granted(";expires=99999999999", -1), "5000");
    EXPECT_EQ(granted(";expires=soon", -1), "300");
    EXPECT_EQ(granted(";expires=0", 200), "");
    EXPECT_EQ(bindings(), "");
}

/// Sections 10.3, item 7, and 21.4.17.
TEST_F(Registrar, RefusesAnExpiryThatIsTooBrief)
{
    startRegistrar();
    Phone alice("alice", "oryx.example", m_port);
    const Message answer = alice.ask(alice.registration("<sip:alice@192.0.2.1>", 10));
    EXPECT_EQ(status(answer), "423 Interval Too Brief");
    EXPECT_EQ(answer.field("Min-Expires"), "60");
    EXPECT_EQ(bindings(), "");
}

/// Section 10.3, item 7: an hour is enough for any registrar.
TEST_F(Registrar, TakesAnHourWhateverItsLeast)
{
    startRegistrar({"--auth", "none", "--min-expires", "7200", "--default-expires", "7200"});
    Phone alice("alice", "oryx.example", m_port);
    EXPECT_EQ(status(alice.ask(alice.registration("<sip:alice@192.0.2.1>", 3599))), "423 Interval Too Brief");
    EXPECT_EQ(status(alice.ask(alice.registration("<sip:alice@192.0.2.1>", 3600))), "200 OK");
}

/// RFC 5626 section 4.1: what telephones say of themselves does no harm.
TEST_F(Registrar, TakesContactsThatSayMuch)
{
    startRegistrar();
    Phone alice("alice", "oryx.example", m_port);
    const std::string contact =
        "<sip:alice@192.0.2.1;ob>;+sip.instance=\"<urn:uuid:00000000-0000-1000-8000-000A95A0E128>\""
        ";reg-id=1;q=0.5;methods=\"INVITE, ACK\";x='y'";
    const Message answer = alice.ask(alice.registration(contact));
    EXPECT_EQ(status(answer), "200 OK");
    EXPECT_EQ(answer.field("Contact"), "<sip:alice@192.0.2.1;ob>;q=0.5;expires=3600");
}

/// Of the announcement: 5 s are less than the list would be read again in without one.
TEST_F(Registrar, HearsOfADomainThatIsNewOrTakenAway)
{
    startRegistrar();
    Phone alice("alice", "new.example", m_port);
    const auto awaitStatus = [&](const std::string& expected) {
        const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        std::string last;
        while (last != expected && std::chrono::steady_clock::now() < until) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            last = status(alice.ask(alice.registration("<sip:alice@192.0.2.1>")));
        }
        EXPECT_EQ(last, expected);
    };
    sql("UPDATE system_parameters SET value = 'oryx.example, new.example'");
    awaitStatus("404 Not Found"); // served, and nobody's
    sql("UPDATE system_parameters SET value = 'oryx.example'");
    awaitStatus("403 Forbidden");
}

/// Section 10.3, item 5: each domain has its own addresses; by the server's own address all are registered.
TEST_F(Registrar, BindsAnAddressAtItsOwnDomainAlone)
{
    sql("UPDATE system_parameters SET value = 'oryx.example,other.example';"
        "INSERT INTO public_address (handle, sip_domain, csid) VALUES ('alice', 'other.example', 2)");
    startRegistrar();
    Phone alice("alice", "oryx.example", m_port);
    const auto answerAt = [&](const std::string& host, const std::string& to) {
        Message request = alice.registration("<sip:alice@192.0.2.1>").set("To", "<sip:alice@" + to + ">");
        request.first = "REGISTER sip:" + host + " SIP/2.0";
        return status(alice.ask(request));
    };
    EXPECT_EQ(answerAt("oryx.example", "other.example"), "404 Not Found");
    EXPECT_EQ(answerAt("other.example", "oryx.example"), "404 Not Found");
    const std::string here = "127.0.0.1:" + std::to_string(m_port);
    EXPECT_EQ(answerAt("oryx.example:" + std::to_string(m_port) + ";maddr=127.0.0.1", "other.example"),
              "404 Not Found");
    EXPECT_EQ(bindings(), "");
    EXPECT_EQ(answerAt("Other.example.", "other.example"), "200 OK");
    EXPECT_EQ(answerAt("oryx.example", "ORYX.example"), "200 OK");
    EXPECT_EQ(answerAt(here, "other.example"), "200 OK");
    EXPECT_EQ(rows("SELECT csid FROM contact ORDER BY csid"), "1\n2\n");
}

/// Section 10.3, items 1 and 5: behind a NAT, or under a host name of its own, this server is no domain.
TEST_F(Registrar, KnowsItselfByTheNamesItIsGiven)
{
    startRegistrar({"--auth", "none", "--name", "pbx.oryx.example", "--name", "[2001:db8::1]", "--name", "192.0.2.9"});
    Phone alice("alice", "oryx.example", m_port);
    const auto answerAt = [&](const std::string& uri) {
        Message request = alice.registration("<sip:alice@192.0.2.1>").set("To", "<sip:alice@oryx.example>");
        request.first = "REGISTER sip:" + uri + " SIP/2.0";
        return status(alice.ask(request));
    };
    const std::string port = ":" + std::to_string(m_port);
    EXPECT_EQ(answerAt("PBX.oryx.example." + port), "200 OK");
    EXPECT_EQ(answerAt("[2001:DB8:0::1]" + port), "200 OK");
    EXPECT_EQ(answerAt("oryx.example" + port + ";maddr=192.0.2.9"), "200 OK");
    for (const char* const other : {"pbx.oryx.example:9", "other.oryx.example"}) { // for a proxy to send on
        EXPECT_EQ(answerAt(other), "403 Forbidden") << other;
    }
    const Message message = alice.request("MESSAGE", "sip:bob@oryx.example");
    EXPECT_EQ(status(alice.ask(Message(message).add("Route", "<sip:192.0.2.9" + port + ";lr>"))),
              "480 Temporarily Unavailable");
}

/// Section 10.3, item 7: an older request of the same Call-ID.
TEST_F(Registrar, RefusesARequestThatANewerOneOvertook)
{
    startRegistrar();
    Phone alice("alice", "oryx.example", m_port);
    const Message older = alice.registration("<sip:alice@192.0.2.1>", 100);
    const Message newer = alice.registration("<sip:alice@192.0.2.1>", 200);
    EXPECT_EQ(status(alice.ask(newer)), "200 OK");
    EXPECT_EQ(alice.ask(older).status(), 500);
    EXPECT_GT(std::stoi(alice.ask(alice.registration("", -1)).parameter("Contact", "expires")), 150);
}

/// Section 17.2.2: what is sent again is answered again.
TEST_F(Registrar, AnswersARequestThatIsSentAgain)
{
    startRegistrar();
    Phone alice("alice", "oryx.example", m_port);
    const Message request = alice.registration("<sip:alice@192.0.2.1>");
    const Message answer = alice.ask(request);
    EXPECT_EQ(status(answer), "200 OK");
    EXPECT_NE(answer.parameter("To", "tag"), "");
    EXPECT_EQ(alice.ask(request).text(), answer.text());
}

/// Section 8.2.6.
TEST_F(Registrar, GivesAnAnswerWhatItHasFromItsRequest)
{
    startRegistrar();
    Phone alice("alice", "oryx.example", m_port);
    Message request = alice.registration("<sip:alice@192.0.2.1>");
    request.set("From", "\"Alice \\\"A\\\" L.\" <sip:alice@oryx.example>;tag=7;x=\"y;z\"");
    request.set("To", "Alice <sip:alice@oryx.example;p=1>;y=z");
    request.add("Via", "SIP/2.0/TCP edge.example.net:5061;branch=z9hG4bKedge");
    const Message answer = alice.ask(request);
    EXPECT_EQ(status(answer), "200 OK");
    EXPECT_EQ(answer.field("From"), request.field("From"));
    EXPECT_EQ(answer.field("To"), request.field("To") + ";tag=" + answer.parameter("To", "tag"));
    EXPECT_EQ(answer.field("Call-ID") + " " + answer.field("CSeq"), alice.callId + " " + request.field("CSeq"));
    EXPECT_EQ(answer.parameter("Via", "branch"), request.parameter("Via", "branch"));
    EXPECT_EQ(answer.parameter("Via", "rport"), std::to_string(alice.socket().port()));
    EXPECT_TRUE(answer.field("Via").ends_with(", SIP/2.0/TCP edge.example.net:5061;branch=z9hG4bKedge"));
}

/// Whoever wrote that into the database has no header fields of his own in an answer.
TEST_F(Registrar, SendsNoTextThatEndsItsLine)
{
    startRegistrar();
    sql("INSERT INTO contact (csid, address, permanent) VALUES (1, E'sip:a@192.0.2.9>\\r\\nServer: evil\\r\\nX: <', true)");
    Phone alice("alice", "oryx.example", m_port);
    const Message answer = alice.ask(alice.registration("<sip:alice@192.0.2.1>"));
    EXPECT_EQ(status(answer), "500 Internal Server Error");
    EXPECT_EQ(answer.text().find("evil"), std::string::npos);
    sql("DELETE FROM contact WHERE permanent");
    EXPECT_EQ(status(alice.ask(alice.registration("<sip:alice@192.0.2.1>"))), "200 OK");
}

/// Section 17.2.2. A lost answer must not turn into a challenge: the count of the nonce has been used.
TEST_F(Registrar, AnswersAProofThatIsSentAgain)
{
    startRegistrar({});
    Phone alice("alice", "oryx.example", m_port);
    Message request = alice.registration("<sip:alice@192.0.2.1>");
    const Message challenge = alice.ask(request);
    EXPECT_EQ(alice.ask(request).text(), challenge.text());
    request = alice.registration("<sip:alice@192.0.2.1>");
    request.set("Authorization", alice.credentials(request, challenge, "alice", "MD5"));
    const Message answer = alice.ask(request);
    EXPECT_EQ(status(answer), "200 OK");
    EXPECT_EQ(alice.ask(request).text(), answer.text());
}

/// Section 17.2.2: nothing is answered before there is an answer.
TEST_F(Registrar, AnswersOnceWhatIsSentAgainWhileItIsUnderWay)
{
    startRegistrar();
    server::Session holder(m_database.name());
    holder.run("BEGIN; LOCK TABLE public_address IN ACCESS EXCLUSIVE MODE");
    Phone alice("alice", "oryx.example", m_port);
    const Message request = alice.registration("<sip:alice@192.0.2.1>");
    for (int times = 0; times < 3; ++times) {
        alice.send(request);
    }
    EXPECT_TRUE(alice.socket().silent(100));
    holder.run("COMMIT");
    EXPECT_EQ(alice.receive().status(), 200);
    EXPECT_TRUE(alice.socket().silent());
}

/// Section 17.2.2: what the network has kept back does not undo what came after it.
TEST_F(Registrar, StoresNothingAgainForARequestThatComesAgainLate)
{
    startRegistrar();
    Phone alice("alice", "oryx.example", m_port);
    const Message request = alice.registration("<sip:alice@192.0.2.1>");
    const Message answer = alice.ask(request);
    EXPECT_EQ(status(alice.ask(alice.registration("<sip:alice@192.0.2.1>", 0))), "200 OK");
    EXPECT_EQ(alice.ask(request).text(), answer.text());
    EXPECT_EQ(bindings(), "");
}

/// Section 17.2.3, where a client of RFC 2543 has the same branch for all.
TEST_F(Registrar, TellsRequestsWithTheSameBranchApart)
{
    startRegistrar();
    Phone alice("alice", "oryx.example", m_port);
    for (const char* const contact : {"<sip:alice@192.0.2.1>", "<sip:alice@192.0.2.2>"}) {
        const Message request = alice.registration(contact)
                                    .set("Via", "SIP/2.0/UDP " + alice.socket().hostPort() + ";branch=1")
                                    .set("From", "<sip:alice@oryx.example>;tag=1");
        EXPECT_EQ(status(alice.ask(request)), "200 OK");
    }
    EXPECT_EQ(bindings(), "sip:alice@192.0.2.1\nsip:alice@192.0.2.2\n");
}

/// Section 10.3, item 5.
TEST_F(Registrar, KnowsNoAddressThatIsNotProvisioned)
{
    startRegistrar();
    Phone nobody("nobody", "oryx.example", m_port);
    Phone stranger("alice", "elsewhere.example", m_port);
    EXPECT_EQ(status(nobody.ask(nobody.registration("<sip:nobody@192.0.2.1>"))), "404 Not Found");
    EXPECT_EQ(
        status(stranger.ask(stranger.registration("<sip:a@192.0.2.1>").set("To", "<sip:alice@elsewhere.example>"))),
        "403 Forbidden"); // it would have to leave
    EXPECT_EQ(bindings(), "");
}

/// Section 10.3, item 5: in its canonical form.
TEST_F(Registrar, TakesAnAddressInAnyCaseWithEscapesAndByItsAlias)
{
    startRegistrar();
    for (const char* const to :
         {"<sip:ALICE@Oryx.Example>", "<sip:%61lice@oryx.example>", "<sip:1001@oryx.example.>"}) {
        Phone alice("alice", "oryx.example", m_port);
        EXPECT_EQ(status(alice.ask(alice.registration("<sip:alice@192.0.2.1>").set("To", to))), "200 OK") << to;
    }
    EXPECT_EQ(bindings(), "sip:alice@192.0.2.1\n");
}

/// Section 10.3, item 1: its request URI alone says whom a REGISTER is for.
TEST_F(Registrar, TakesARegisterWhoseToHasATag)
{
    startRegistrar();
    Phone alice("alice", "oryx.example", m_port);
    const Message request =
        alice.registration("<sip:alice@192.0.2.1>").set("To", "<sip:alice@oryx.example>;tag=before");
    const Message answer = alice.ask(request);
    EXPECT_EQ(status(answer), "200 OK");
    EXPECT_EQ(answer.field("To"), request.field("To"));
    EXPECT_EQ(bindings(), "sip:alice@192.0.2.1\n");
}

/// RFC 5630 section 5.4: what is reached in the clear is bound to no URI that asks for TLS.
TEST_F(Registrar, BindsNothingThatAsksForTls)
{
    startRegistrar();
    Phone alice("alice", "oryx.example", m_port);
    EXPECT_EQ(status(alice.ask(alice.registration("<SIPS:alice@192.0.2.1>"))), "400 Bad Request");
    EXPECT_EQ(status(alice.ask(alice.registration("<sip:alice@192.0.2.1>, <sips:alice@192.0.2.1>"))),
              "400 Bad Request");
    Message request = alice.registration("<sip:alice@192.0.2.1>");
    request.first = "REGISTER sips:oryx.example SIP/2.0";
    EXPECT_EQ(status(alice.ask(request)), "416 Unsupported URI Scheme");
    EXPECT_EQ(bindings(), "");
    // What is there all the same, as of a server that has TLS, may go.
    for (const char* const removed : {"<sips:alice@192.0.2.1>;expires=0", "<SIPS:alice@192.0.2.1>", "*"}) {
        sql("INSERT INTO contact (csid, address, expires) VALUES (1, 'sips:alice@192.0.2.1', 4000000000)");
        EXPECT_EQ(status(alice.ask(alice.registration(removed, 0))), "200 OK") << removed;
        EXPECT_EQ(bindings(), "") << removed;
    }
    // Who has come by TLS to a server before this one says so.
    EXPECT_EQ(status(alice.ask(alice.registration("<sip:alice@192.0.2.1;transport=tls>"))), "200 OK");
}

/// Section 10.3, item 7: a telephone that writes its contact otherwise refreshes its binding, and is called once.
TEST_F(Registrar, KnowsABindingHoweverItIsWritten)
{
    startRegistrar();
    Phone alice("alice", "oryx.example", m_port);
    for (const char* const contact :
         {"<sip:alice@Host.example;transport=tcp;ob;line=aB>", "<sip:alice@host.example;ob;transport=TCP;line=aB>",
          "<SIP:%61lice@host.example;Line=aB;OB;Transport=TCP>"}) {
        EXPECT_EQ(status(alice.ask(alice.registration(contact))), "200 OK") << contact;
        EXPECT_EQ(bindings(), "sip:alice@host.example;line=aB;ob;transport=tcp\n");
    }
    for (const char* const other :
         {"<sip:ALICE@host.example;ob;transport=tcp;line=aB>", "<sip:alice@host.example;ob;transport=udp;line=aB>"}) {
        EXPECT_EQ(status(alice.ask(alice.registration(other))), "200 OK") << other;
    }
    EXPECT_EQ(rows("SELECT count(*) FROM contact"), "3\n");
    EXPECT_EQ(status(alice.ask(alice.registration("<sip:alice@host.example;LINE=aB;TRANSPORT=Tcp;ob>", 0))), "200 OK");
    EXPECT_EQ(rows("SELECT count(*) FROM contact"), "2\n");
}

/// The page's statement takes those away that telephones have stored again, and nothing else.
TEST_F(Registrar, LeavesNoBindingOfAnEarlierVersionAfterItsUpgrade)
{
    startRegistrar();
    Phone alice("alice", "oryx.example", m_port);
    sql("INSERT INTO contact (csid, address, call_id, cseq, expires, permanent) VALUES"
        " (1, 'sip:alice@Host.example;transport=TCP;ob', '" +
        alice.callId +
        "', 0, 4000000000, false),"
        " (1, 'sip:alice@Host.example;transport=UDP;ob', '" +
        alice.callId +
        "', 0, 4000000000, false),"
        " (1, 'SIP:alice@host.example;transport=tcp;ob', 'of another', 0, 4000000000, false),"
        " (1, 'sip:alice@HOST.example;transport=tcp;ob', NULL, NULL, NULL, true)");
    ASSERT_EQ(status(alice.ask(alice.registration("<sip:alice@Host.example;transport=TCP;ob>"))), "200 OK");
    EXPECT_EQ(rows("SELECT count(*) FROM contact"), "5\n");
    sql(upgrade());
    EXPECT_EQ(rows("SELECT address COLLATE \"C\" FROM contact ORDER BY 1"),
              "SIP:alice@host.example;transport=tcp;ob\n"
              "sip:alice@HOST.example;transport=tcp;ob\n"
              "sip:alice@Host.example;transport=UDP;ob\n"
              "sip:alice@host.example;ob;transport=tcp\n");
}

/// Section 10.3, item 2.
TEST_F(Registrar, RefusesExtensionsThatItDoesNotKnow)
{
    startRegistrar();
    Phone alice("alice", "oryx.example", m_port);
    const Message answer = alice.ask(alice.registration("<sip:alice@192.0.2.1>").add("Require", "path, gruu"));
    EXPECT_EQ(status(answer), "420 Bad Extension");
    EXPECT_EQ(answer.field("Unsupported"), "gruu");
}

/// RFC 3327 section 5.3.
TEST_F(Registrar, KeepsThePathAndReturnsIt)
{
    startRegistrar();
    Phone alice("alice", "oryx.example", m_port);
    const Message answer = alice.ask(alice.registration("<sip:alice@192.0.2.1>")
                                         .add("Supported", "path")
                                         .add("Path", "<sip:edge1.example;lr>")
                                         .add("Path", "<sip:edge2.example;lr>"));
    EXPECT_EQ(status(answer), "200 OK");
    EXPECT_EQ(answer.field("Path"), "<sip:edge1.example;lr>, <sip:edge2.example;lr>");
    EXPECT_EQ(bindings(), "sip:alice@192.0.2.1 <sip:edge1.example;lr>, <sip:edge2.example;lr>\n");
}

/// Section 21.4.4.
TEST_F(Registrar, LimitsTheBindingsOfAnAddress)
{
    startRegistrar();
    Phone alice("alice", "oryx.example", m_port);
    for (int n = 0; n < 32; ++n) {
        ASSERT_EQ(status(alice.ask(alice.registration("<sip:alice@192.0.2." + std::to_string(n) + ">"))), "200 OK");
    }
    EXPECT_EQ(status(alice.ask(alice.registration("<sip:alice@192.0.2.99>"))), "403 Forbidden");
    EXPECT_EQ(status(alice.ask(alice.registration("<sip:alice@192.0.2.5>"))), "200 OK");
}

/// RFC 7616 and RFC 8760.
TEST_F(Registrar, AsksForProofAndTakesIt)
{
    startRegistrar({});
    for (const char* const algorithm : {"MD5", "SHA-256"}) {
        Phone alice("alice", "oryx.example", m_port);
        const Message challenge = alice.ask(alice.registration("<sip:alice@192.0.2.1>"));
        EXPECT_EQ(status(challenge), "401 Unauthorized");
        EXPECT_EQ(challenge.parameter("WWW-Authenticate", "realm"), "oryx.example");
        EXPECT_EQ(challenge.parameter("WWW-Authenticate", "algorithm", 0), "MD5");
        EXPECT_EQ(challenge.parameter("WWW-Authenticate", "algorithm", 1), "SHA-256");
        EXPECT_EQ(status(alice.ask(alice.registration("<sip:alice@192.0.2.1>"), "alice", algorithm)), "200 OK");
        EXPECT_EQ(status(alice.ask(alice.registration("<sip:alice@192.0.2.1>"), "wrong", algorithm)),
                  "401 Unauthorized");
    }
}

/// RFC 7616 section 5.5.
TEST_F(Registrar, TakesAProofOnce)
{
    startRegistrar({});
    Phone alice("alice", "oryx.example", m_port);
    const Message challenge = alice.ask(alice.registration("<sip:alice@192.0.2.1>"));
    Message request = alice.registration("<sip:alice@192.0.2.1>");
    request.set("Authorization", alice.credentials(request, challenge, "alice", "MD5"));
    EXPECT_EQ(status(alice.ask(request)), "200 OK");
    Message again = alice.registration("<sip:mallory@192.0.2.66>");
    again.set("Authorization", alice.credentials(again, challenge, "alice", "MD5"));
    const Message answer = alice.ask(again);
    EXPECT_EQ(status(answer), "401 Unauthorized");
    EXPECT_EQ(answer.parameter("WWW-Authenticate", "stale"), "true");
    EXPECT_EQ(bindings(), "sip:alice@192.0.2.1\n");
}

/// RFC 3261 section 22.4, item 8: a server must take it. It has no count, so each nonce is good for one request.
TEST_F(Registrar, TakesAProofWithoutQopOnce)
{
    startRegistrar({});
    Phone alice("alice", "oryx.example", m_port);
    const Message challenge = alice.ask(alice.registration("<sip:alice@192.0.2.1>"));
    Message wrong = alice.registration("<sip:mallory@192.0.2.66>");
    wrong.set("Authorization", alice.oldCredentials(wrong, challenge, "wrong"));
    const Message refused = alice.ask(wrong);
    EXPECT_EQ(status(refused), "401 Unauthorized");
    EXPECT_EQ(refused.parameter("WWW-Authenticate", "stale"), "");
    Message request = alice.registration("<sip:alice@192.0.2.1>");
    request.set("Authorization", alice.oldCredentials(request, challenge, "alice"));
    EXPECT_EQ(status(alice.ask(request)), "200 OK");
    Message again = alice.registration("<sip:mallory@192.0.2.66>");
    again.set("Authorization", request.field("Authorization"));
    const Message answer = alice.ask(again);
    EXPECT_EQ(status(answer), "401 Unauthorized");
    EXPECT_EQ(answer.parameter("WWW-Authenticate", "stale"), "true");
    EXPECT_EQ(bindings(), "sip:alice@192.0.2.1\n");
}

/// RFC 7616 section 5.5.
TEST_F(Registrar, TakesNoProofWithoutQopForANonceThatWasUsedWithIt)
{
    startRegistrar({});
    Phone alice("alice", "oryx.example", m_port);
    const Message challenge = alice.ask(alice.registration("<sip:alice@192.0.2.1>"));
    Message request = alice.registration("<sip:alice@192.0.2.1>");
    request.set("Authorization", alice.credentials(request, challenge, "alice", "MD5"));
    EXPECT_EQ(status(alice.ask(request)), "200 OK");
    Message old = alice.registration("<sip:alice@192.0.2.2>");
    old.set("Authorization", alice.oldCredentials(old, challenge, "alice"));
    const Message answer = alice.ask(old);
    EXPECT_EQ(status(answer), "401 Unauthorized");
    EXPECT_EQ(answer.parameter("WWW-Authenticate", "stale"), "true");
}

/// RFC 7616 section 5.5. The same telephone by another name is another worker's: with four of them the two names of
/// alice's are apart.
TEST_F(Registrar, TakesAProofOnceWhateverNameIsUsed)
{
    startRegistrar({"--workers", "4"});
    Phone alice("alice", "oryx.example", m_port);
    const Message challenge = alice.ask(alice.registration("<sip:alice@192.0.2.1>"));
    Message request = alice.registration("<sip:alice@192.0.2.1>");
    request.set("Authorization", alice.credentials(request, challenge, "alice", "MD5"));
    EXPECT_EQ(status(alice.ask(request)), "200 OK");
    Message again = alice.registration("<sip:mallory@192.0.2.66>");
    again.set("To", "<sip:1001@oryx.example>").set("Authorization", request.field("Authorization"));
    EXPECT_EQ(status(alice.ask(again)), "401 Unauthorized");
    EXPECT_EQ(bindings(), "sip:alice@192.0.2.1\n");
    // With a challenge of its own it is welcome.
    Message other = alice.registration("<sip:alice@192.0.2.2>");
    EXPECT_EQ(status(alice.ask(other.set("To", "<sip:1001@oryx.example>"), "alice")), "200 OK");
}

/// RFC 7616 section 3.4.6.
TEST_F(Registrar, TakesNoProofThatWasMadeForAnotherServer)
{
    startRegistrar({});
    Phone alice("alice", "oryx.example", m_port);
    const auto answerFor = [&](const std::string& uri) {
        const Message challenge = alice.ask(alice.registration("<sip:alice@192.0.2.1>"));
        Message request = alice.registration("<sip:alice@192.0.2.1>");
        Message said = request;
        said.first = "REGISTER " + uri + " SIP/2.0";
        return status(alice.ask(request.set("Authorization", alice.credentials(said, challenge, "alice", "MD5"))));
    };
    EXPECT_EQ(answerFor("sip:elsewhere.example"), "400 Bad Request");
    EXPECT_EQ(answerFor("nothing"), "400 Bad Request");
    EXPECT_EQ(answerFor("sip:oryx.example:5099;maddr=elsewhere.example"), "400 Bad Request");
    EXPECT_EQ(answerFor("sip:ORYX.example;transport=udp"), "200 OK");
    EXPECT_EQ(answerFor("sip:127.0.0.1:" + std::to_string(m_port)), "200 OK");
}

/// Section 10.3, item 4: who proves to be somebody else may not. Who proves nothing is not told who there is.
TEST_F(Registrar, TakesNobodyElsesProofAndNoBarredSubscribers)
{
    startRegistrar({});
    Phone bob("bob", "oryx.example", m_port);
    for (const auto& [password, answer] : std::vector<std::pair<std::string, std::string>>{
             {"bob", "403 Forbidden"}, {"wrong", "401 Unauthorized"}, {"alice", "401 Unauthorized"}}) {
        for (const char* const name : {"alice", "nobody"}) {
            Message request = bob.registration("<sip:bob@192.0.2.66>");
            request.set("To", std::string("<sip:") + name + "@oryx.example>");
            EXPECT_EQ(status(bob.ask(request, password)), answer) << name << ' ' << password;
        }
    }
    Phone carol("carol", "oryx.example", m_port);
    EXPECT_EQ(status(carol.ask(carol.registration("<sip:carol@192.0.2.1>"), "carol")), "403 Forbidden");
    EXPECT_EQ(bindings(), "");
}

/// One with two lines tries what it knows of the one for the other: it is asked for that one's, not for the same anew.
TEST_F(Registrar, AsksATelephoneWithTwoLinesForTheRightOne)
{
    startRegistrar({});
    Phone telephone("bob", "oryx.example", m_port);
    Message first = telephone.registration("<sip:bob@192.0.2.1>");
    const Message challenge = telephone.ask(first);
    Message other = telephone.registration("<sip:alice@192.0.2.1>");
    other.set("To", "<sip:alice@oryx.example>");
    const Message answer =
        telephone.ask(other.set("Authorization", telephone.credentials(other, challenge, "bob", "MD5")));
    EXPECT_EQ(status(answer), "401 Unauthorized");
    EXPECT_EQ(answer.parameter("WWW-Authenticate", "stale"), "");
}

/// Section 10.3: items 3 and 4 come before 5 to 7, of which a stranger hears nothing.
TEST_F(Registrar, SaysWhatIsWrongToWhoHasProvedWhoHeIs)
{
    sql("UPDATE system_parameters SET value = 'oryx.example,other.example';"
        "INSERT INTO public_address (handle, sip_domain, csid) VALUES ('alice', 'other.example', 1)");
    startRegistrar({});
    Phone alice("alice", "oryx.example", m_port);
    Message tooBrief = alice.registration("<sip:alice@192.0.2.1>;expires=1");
    Message broken = alice.registration("<sip:alice@192.0.2.1>;q=2");
    Message elsewhere = alice.registration("<sip:alice@192.0.2.1>");
    elsewhere.set("To", "<sip:alice@other.example>");
    for (Message* const request : {&tooBrief, &broken, &elsewhere}) {
        EXPECT_EQ(status(alice.ask(*request, "wrong")), "401 Unauthorized");
        request->set("CSeq", std::to_string(++alice.cseq) + " REGISTER").set("Via", alice.via());
    }
    const Message brief = alice.ask(tooBrief, "alice");
    EXPECT_EQ(status(brief), "423 Interval Too Brief");
    EXPECT_EQ(brief.field("Min-Expires"), "60");
    EXPECT_EQ(status(alice.ask(broken, "alice")), "400 Bad Request");
    EXPECT_EQ(status(alice.ask(elsewhere, "alice")), "404 Not Found");
    // Nobody could prove that he is of a domain that is not served.
    Message nobodys = alice.registration("<sip:alice@192.0.2.1>");
    EXPECT_EQ(status(alice.ask(nobodys.set("To", "<sip:alice@elsewhere.example>"), "alice")), "404 Not Found");
    EXPECT_EQ(bindings(), "");
    EXPECT_EQ(status(alice.ask(alice.registration("<sip:alice@192.0.2.1>"), "alice")), "200 OK");
}

/// Who tries names learns nothing from the answers, for nobody has proved anything.
TEST_F(Registrar, TellsStrangersNothingOfWhoThereIs)
{
    startRegistrar({});
    for (const char* const name : {"alice", "carol", "nobody"}) {
        Phone stranger(name, "oryx.example", m_port);
        const Message answer = stranger.ask(stranger.registration("<sip:x@192.0.2.1>"), "wrong");
        EXPECT_EQ(status(answer), "401 Unauthorized") << name;
        EXPECT_EQ(answer.parameter("WWW-Authenticate", "stale"), "") << name;
    }
}

/// Section 21.4.1: an address that cannot be read is nobody's, and no proof could make it somebody's.
TEST_F(Registrar, ChallengesNobodyWithoutAnAddress)
{
    startRegistrar({});
    Phone alice("alice", "oryx.example", m_port);
    EXPECT_EQ(status(alice.ask(alice.registration("<sip:a@192.0.2.1>").set("To", "<tel:+4930123456>"))),
              "400 Bad Request");
}

/// The name in credentials is the subscriber's auth_user_id, whatever else he is called.
TEST_F(Registrar, KnowsASubscriberByTheNameForHisCredentials)
{
    sql("UPDATE subscriber SET user_id = 'number-2', auth_user_id = 'smith' WHERE sid = 2");
    startRegistrar({});
    for (const auto& [name, answer] : std::vector<std::pair<std::string, std::string>>{
             {"bob", "401 Unauthorized"}, {"number-2", "401 Unauthorized"}, {"smith", "200 OK"}}) {
        Phone telephone(name, "oryx.example", m_port);
        Message request = telephone.registration("<sip:bob@192.0.2.1>").set("From", "<sip:bob@oryx.example>;tag=1");
        EXPECT_EQ(status(telephone.ask(request.set("To", "<sip:bob@oryx.example>"), "bob")), answer) << name;
    }
    EXPECT_EQ(bindings(), "sip:bob@192.0.2.1\n");
}

/// A stored password that the server's key does not open fits nothing: neither itself, nor the stored text, nor none.
TEST_F(Registrar, RefusesASubscriberWhosePasswordItCannotRead)
{
    const TemporaryDirectory directory;
    const std::string own = directory.write("own", std::string(64, 'a'));
    const std::string other = directory.write("other", std::string(64, 'b'));
    Phone alice("alice", "oryx.example", m_port);
    Phone bob("bob", "oryx.example", m_port);
    setenv("ORYX_CRYPT_KEY_FILE", own.c_str(), 1);
    std::string stored;
    ASSERT_TRUE(Crypt::encrypt("alice", stored));
    sql("UPDATE subscriber SET s_password = '" + stored + "' WHERE sid = 1");
    startRegistrar({});
    EXPECT_EQ(status(alice.ask(alice.registration("<sip:alice@192.0.2.1>"), "alice")), "200 OK");
    for (const std::string& key : {other, directory.file("none")}) {
        setenv("ORYX_CRYPT_KEY_FILE", key.c_str(), 1);
        EXPECT_EQ(stop(), 0);
        startRegistrar({});
        for (const std::string& password : {std::string("alice"), stored, std::string()}) {
            EXPECT_EQ(status(alice.ask(alice.registration("<sip:alice@192.0.2.2>"), password)), "401 Unauthorized");
        }
        EXPECT_EQ(status(bob.ask(bob.registration("<sip:bob@192.0.2.1>"), "bob")), "200 OK");
    }
    unsetenv("ORYX_CRYPT_KEY_FILE");
    EXPECT_EQ(bindings(), "sip:alice@192.0.2.1\nsip:bob@192.0.2.1\n");
}

/// By his own credentials, which were right a moment ago; nobody reaches him either.
TEST_F(Registrar, HearsThatASubscriberIsBarred)
{
    startRegistrar({});
    Phone alice("alice", "oryx.example", m_port);
    Phone bob("bob", "oryx.example", m_port);
    const auto answer = [&] { return status(alice.ask(alice.registration("<" + alice.contact() + ">"), "alice")); };
    EXPECT_EQ(answer(), "200 OK");
    sql("UPDATE subscriber SET active = false WHERE sid = 1");
    std::string last;
    for (int look = 0; look < 500 && last != "403 Forbidden"; ++look) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        last = answer();
    }
    EXPECT_EQ(last, "403 Forbidden");
    EXPECT_EQ(status(bob.ask(bob.request("MESSAGE", "sip:alice@oryx.example"))), "404 Not Found");
    EXPECT_TRUE(alice.socket().silent());
}

TEST_F(Registrar, HearsOfANewPassword)
{
    startRegistrar({});
    Phone alice("alice", "oryx.example", m_port);
    EXPECT_EQ(status(alice.ask(alice.registration("<sip:alice@192.0.2.1>"), "alice")), "200 OK");
    sql("UPDATE subscriber SET s_password = 'new' WHERE sid = 1");
    std::string last;
    for (int look = 0; look < 100 && last != "200 OK"; ++look) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        last = status(alice.ask(alice.registration("<sip:alice@192.0.2.1>"), "new"));
    }
    EXPECT_EQ(last, "200 OK");
    EXPECT_EQ(status(alice.ask(alice.registration("<sip:alice@192.0.2.1>"), "alice")), "401 Unauthorized");
}

} // namespace

} // namespace registrarTest
