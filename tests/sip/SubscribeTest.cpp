// Subscriptions as telephones see them: RFC 6665 section 4.2, presence (RFC 3856), who watches it (RFC 3857), and lists
// (RFC 4662).

#include "sip/Baresip.h"
#include "sip/SipTest.h"

#include <chrono>
#include <csignal>
#include <cstdint>
#include <map>
#include <random>
#include <regex>
#include <set>
#include <thread>
#include <utility>

namespace subscribeTest {

namespace {

using phone::Message;
using phone::Phone;

const std::string kAlice = "sip:alice@oryx.example";

/// A telephone that subscribes, and answers NOTIFY.
class Watcher {
public:
    Watcher(const std::string& user, int server) : m_phone(user, "oryx.example", server) {}

    Phone& phone() { return m_phone; }
    /// A SUBSCRIBE without a dialog.
    Message request(const std::string& to, int expires = 3600, const std::string& event = "presence")
    {
        Message message = m_phone.request("SUBSCRIBE", to);
        message.set("Event", event);
        return message.set("Expires", std::to_string(expires));
    }
    /// Subscribes; the answer.
    Message subscribe(Message request)
    {
        m_request = std::move(request);
        m_answer = m_phone.ask(m_request);
        return m_answer;
    }
    Message subscribe(const std::string& to, int expires = 3600, const std::string& event = "presence")
    {
        return subscribe(request(to, expires, event));
    }
    /// The next SUBSCRIBE in the dialog.
    Message next(int expires)
    {
        Message message =
            request(m_request.first.substr(10, m_request.first.rfind(' ') - 10), expires, m_request.field("Event"));
        for (const char* const name : {"From", "Call-ID"}) {
            message.set(name, m_request.field(name));
        }
        return message.set("To", m_answer.field("To"));
    }
    Message refresh(int expires) { return m_phone.ask(next(expires)); }
    /// The next NOTIFY, which is answered.
    Message notified(int status = 200, int milliseconds = 5000)
    {
        Message notify = m_phone.receive(milliseconds);
        m_phone.send(m_phone.response(notify, status, status == 200 ? "OK" : "No"));
        return notify;
    }
    bool silent() { return m_phone.socket().silent(); }

private:
    Phone m_phone;
    Message m_request;
    Message m_answer;
};

/// Subscription-State without the seconds, with what the body says of the presentity.
std::string told(const Message& notify)
{
    const std::string state = notify.field("Subscription-State");
    const bool open = notify.body.find("<basic>open</basic>") != std::string::npos;
    const bool closed = notify.body.find("<basic>closed</basic>") != std::string::npos;
    return notify.method() + " " + state.substr(0, state.find(";expires")) + (open ? " open" : "") +
           (closed ? " closed" : "");
}

class Subscribing : public SipTest {
protected:
    void allow(const std::string& requester, const std::string& action = "allow")
    {
        sql("DELETE FROM access_control_list WHERE requester = '" + requester +
            "';"
            "INSERT INTO access_control_list (object, requester, access_action, application) VALUES"
            " ('alice@oryx.example', '" +
            requester + "', '" + action + "', 'presence')");
    }
    void publish(const std::string& tag = "tag", int seconds = 3600) { sql(publication("alice", tag, seconds)); }
    static std::string publication(const std::string& handle, const std::string& tag = "tag", int seconds = 3600)
    {
        return "SELECT apply_publication('" + handle + "', 'oryx.example', 'presence', '', '" + tag + "', " +
               std::to_string(seconds) +
               ", 'application/pidf+xml', '<presence xmlns=\"urn:ietf:params:xml:ns:pidf\" entity=\"sip:" + handle +
               "@oryx.example\"><tuple id=\"t\"><status><basic>open</basic></status></tuple></presence>', 0);";
    }
    /// What registers bob there, until a second ago.
    static std::string expired(const std::string& contact)
    {
        return "INSERT INTO contact (csid, address, contact_header, expires) VALUES (2, '" + contact + "', '<" +
               contact + ">;expires=60', extract(epoch FROM now())::int - 1)";
    }
    std::string stored() { return rows("SELECT count(*) FROM subscription_states"); }
    /// Bob's subscription is as it was when what registers him has expired, after something else has been done.
    void outlivesItsRegistration(const std::string& before = "")
    {
        allow("bob@oryx.example");
        startEvents();
        Watcher bob("bob", m_port);
        bob.subscribe(kAlice);
        bob.notified();
        sql(before + expired(bob.phone().contact()));
        EXPECT_TRUE(bob.phone().socket().silent(2500));
        EXPECT_EQ(stored(), "1\n");
    }
    /// What nobody is told of happens some time.
    bool storedBecomes(const std::string& count)
    {
        for (int tries = 0; tries < 100 && stored() != count; ++tries) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return stored() == count;
    }
    /// That many watch alice, and one watches bob, all of them by bob's telephone; one worker serves them.
    static constexpr int kMany = 60;
    void startWithMany()
    {
        allow("*");
        publish();
        startEvents({"--auth", "none", "--workers", "1"});
    }
    static void subscribeMany(Watcher& bob)
    {
        for (int n = 0; n < kMany; ++n) {
            const std::string from = "<sip:watcher" + std::to_string(n) + "@oryx.example>;tag=1";
            EXPECT_EQ(status(bob.subscribe(bob.request(kAlice).set("From", from))), "200 OK");
            EXPECT_EQ(told(bob.notified()), "NOTIFY active open");
        }
        EXPECT_EQ(status(bob.subscribe(bob.phone().address())), "200 OK");
        EXPECT_EQ(told(bob.notified()), "NOTIFY active closed");
    }
    /// Of the rule that hides alice they are told after the one is that bob is there.
    static void areToldLast(Watcher& bob)
    {
        int before = 0;
        while (told(bob.notified()) == "NOTIFY active closed") {
            ++before;
        }
        EXPECT_LE(before, 16);
        for (; before < kMany; ++before) {
            EXPECT_EQ(told(bob.notified()), "NOTIFY active closed");
        }
        EXPECT_TRUE(bob.silent());
    }
    /// Subscriptions like the one that there is.
    void copy(const std::string& table, const std::string& key, int first, int last)
    {
        sql("INSERT INTO " + table + " SELECT (jsonb_populate_record(NULL::" + table +
            ", to_jsonb(one) || jsonb_build_object('" + key + "', one." + key + " || n))).* FROM (SELECT * FROM " +
            table + " ORDER BY " + key + " LIMIT 1) one, generate_series(" + std::to_string(first) + ", " +
            std::to_string(last) + ") n");
    }
    void kill()
    {
        m_server->signal(SIGKILL);
        m_server->wait();
    }
};

/// RFC 6665 section 4.2.1.2, RFC 3856 section 6.7.
TEST_F(Subscribing, IsAnsweredAndToldWhatThereIs)
{
    allow("bob@oryx.example");
    startEvents();
    Watcher bob("bob", m_port);
    const Message answer = bob.subscribe(kAlice);
    EXPECT_EQ(status(answer), "200 OK");
    EXPECT_EQ(answer.field("Expires"), "3600");
    EXPECT_EQ(answer.field("Contact"), "<sip:127.0.0.1:" + std::to_string(m_port) + ";transport=udp>");
    const Message notify = bob.notified();
    EXPECT_EQ(told(notify), "NOTIFY active closed");
    EXPECT_EQ(notify.first, "NOTIFY " + bob.phone().contact() + " SIP/2.0");
    EXPECT_EQ(notify.field("Event"), "presence");
    EXPECT_EQ(notify.field("CSeq"), "1 NOTIFY");
    EXPECT_EQ(notify.field("From"), answer.field("To"));
    EXPECT_EQ(notify.field("To"), answer.field("From"));
    EXPECT_EQ(notify.field("Call-ID"), answer.field("Call-ID"));
    EXPECT_EQ(notify.field("Content-Type"), "application/pidf+xml");
    EXPECT_EQ(stored(), "1\n");
}

/// RFC 6665 section 4.2.2: whoever has stored it.
TEST_F(Subscribing, IsToldOfAPublication)
{
    allow("bob@oryx.example");
    startEvents();
    Watcher bob("bob", m_port);
    bob.subscribe(kAlice);
    EXPECT_EQ(told(bob.notified()), "NOTIFY active closed");
    publish();
    const Message notify = bob.notified();
    EXPECT_EQ(told(notify), "NOTIFY active open");
    EXPECT_EQ(notify.field("CSeq"), "2 NOTIFY");
}

/// Section 4.2.1.1.
TEST_F(Subscribing, TakesTheExpiryAskedForWithinBounds)
{
    allow("bob@oryx.example");
    startEvents({"--auth", "none", "--min-expires", "30", "--max-expires", "5000", "--default-expires", "300"});
    Watcher bob("bob", m_port);
    const Message brief = bob.subscribe(kAlice, 29);
    EXPECT_EQ(status(brief), "423 Interval Too Brief");
    EXPECT_EQ(brief.field("Min-Expires"), "30");
    EXPECT_EQ(bob.subscribe(kAlice, 30).field("Expires"), "30");
    EXPECT_EQ(bob.subscribe(kAlice, 6000).field("Expires"), "5000");
    EXPECT_EQ(bob.subscribe(bob.request(kAlice).set("Expires", "")).field("Expires"), "300");
}

/// Section 4.2.1.4, and RFC 3261 section 12.2.2: the target of what is sent next.
TEST_F(Subscribing, IsRefreshedWithANewContact)
{
    allow("bob@oryx.example");
    startEvents();
    Watcher bob("bob", m_port);
    bob.subscribe(kAlice);
    bob.notified();
    const std::string contact = bob.phone().contact() + ";line=2";
    const Message answer = bob.phone().ask(bob.next(600).set("Contact", "<" + contact + ">"));
    EXPECT_EQ(status(answer), "200 OK");
    EXPECT_EQ(answer.field("Expires"), "600");
    const Message notify = bob.notified();
    EXPECT_EQ(notify.first, "NOTIFY " + contact + " SIP/2.0");
    EXPECT_EQ(told(notify), "NOTIFY active closed");
    EXPECT_EQ(
        rows(
            "SELECT remotecontacthdr, subcseq, notcseq, expirytime - extract(epoch FROM now())::int BETWEEN 590 AND 600"
            " FROM subscription_states JOIN event_watchers ON subscriptionid = watcheropaque"),
        contact + "|2|2|t\n");
}

/// RFC 3261 section 12.2.2.
TEST_F(Subscribing, IsNotRefreshedByAnOlderRequest)
{
    allow("bob@oryx.example");
    startEvents();
    Watcher bob("bob", m_port);
    bob.subscribe(kAlice);
    bob.notified();
    EXPECT_EQ(bob.phone().ask(bob.next(600).set("CSeq", "1 SUBSCRIBE")).status(), 500);
}

/// Section 4.2.1.4.
TEST_F(Subscribing, EndsWithALastNotify)
{
    allow("bob@oryx.example");
    startEvents();
    Watcher bob("bob", m_port);
    bob.subscribe(kAlice);
    bob.notified();
    EXPECT_EQ(bob.refresh(0).field("Expires"), "0");
    EXPECT_EQ(told(bob.notified()), "NOTIFY terminated;reason=timeout closed");
    EXPECT_EQ(stored(), "0\n");
    EXPECT_EQ(status(bob.refresh(600)), "481 Call/Transaction Does Not Exist");
}

/// Section 4.4.3.
TEST_F(Subscribing, CanFetchWithoutStaying)
{
    allow("bob@oryx.example");
    startEvents();
    publish();
    Watcher bob("bob", m_port);
    EXPECT_EQ(bob.subscribe(kAlice, 0).field("Expires"), "0");
    EXPECT_EQ(told(bob.notified()), "NOTIFY terminated;reason=timeout open");
    EXPECT_EQ(stored(), "0\n");
}

/// Section 4.2.1.4.
TEST_F(Subscribing, EndsWhenItExpires)
{
    allow("bob@oryx.example");
    startEvents({"--auth", "none", "--min-expires", "1"});
    Watcher bob("bob", m_port);
    const auto begun = std::chrono::steady_clock::now();
    bob.subscribe(kAlice, 2);
    EXPECT_EQ(told(bob.notified()), "NOTIFY active closed");
    EXPECT_EQ(told(bob.notified()), "NOTIFY terminated;reason=timeout closed");
    EXPECT_GE(std::chrono::steady_clock::now() - begun, std::chrono::seconds(2));
    EXPECT_EQ(stored(), "0\n");
}

/// Section 4.2.2.
TEST_F(Subscribing, EndsWhenTheSubscriberKnowsOfNone)
{
    allow("bob@oryx.example");
    startEvents();
    Watcher bob("bob", m_port);
    bob.subscribe(kAlice);
    bob.notified(481);
    EXPECT_TRUE(bob.silent());
    EXPECT_EQ(stored(), "0\n");
    EXPECT_EQ(status(bob.refresh(600)), "481 Call/Transaction Does Not Exist");
}

/// Section 4.2.1.1, and RFC 3261 sections 8.2.1 to 8.2.3.
TEST_F(Subscribing, RefusesWhatItDoesNotUnderstand)
{
    allow("bob@oryx.example");
    startEvents();
    Watcher bob("bob", m_port);
    const Message event = bob.subscribe(kAlice, 3600, "dialog");
    EXPECT_EQ(status(event), "489 Bad Event");
    EXPECT_EQ(event.field("Allow-Events"), "presence, presence.winfo");
    EXPECT_EQ(status(bob.subscribe(bob.request(kAlice).set("Event", ""))), "489 Bad Event");
    EXPECT_EQ(status(bob.subscribe(bob.request(kAlice).set("Accept", "text/plain"))), "406 Not Acceptable");
    Message filter = bob.request(kAlice).set("Content-Type", "application/simple-filter+xml");
    filter.body = "<filter-set/>";
    EXPECT_EQ(status(bob.subscribe(filter)), "415 Unsupported Media Type");
    const Message extension = bob.subscribe(bob.request(kAlice).set("Require", "everything"));
    EXPECT_EQ(status(extension), "420 Bad Extension");
    EXPECT_EQ(extension.field("Unsupported"), "everything");
    EXPECT_EQ(status(bob.subscribe(bob.request("sips:alice@oryx.example"))), "416 Unsupported URI Scheme");
    EXPECT_EQ(status(bob.subscribe(bob.request(kAlice).set("Contact", "<sips:bob@127.0.0.1>"))), "400 Bad Request");
    EXPECT_EQ(status(bob.subscribe(bob.request(kAlice).set("Contact", ""))), "400 Bad Request");
    EXPECT_EQ(status(bob.subscribe(bob.request(kAlice).add("Contact", "<sip:second@127.0.0.1>"))), "400 Bad Request");
    EXPECT_EQ(status(bob.subscribe(bob.request(kAlice).set("To", "<" + kAlice + ">;tag=none"))),
              "481 Call/Transaction Does Not Exist");
    EXPECT_EQ(status(bob.phone().ask(bob.phone().request("MESSAGE", kAlice))), "405 Method Not Allowed");
}

/// RFC 3261 sections 11.2 and 8.2.2.3.
TEST_F(Subscribing, CanAskWhatIsUnderstood)
{
    startEvents();
    Phone bob("bob", "oryx.example", m_port);
    const Message answer = bob.ask(bob.request("OPTIONS", "sip:oryx.example").set("Require", "eventlist"));
    EXPECT_EQ(status(answer), "200 OK");
    EXPECT_EQ(answer.field("Allow"), "SUBSCRIBE, PUBLISH, OPTIONS");
    EXPECT_EQ(answer.field("Allow-Events"), "presence, presence.winfo");
    EXPECT_EQ(answer.field("Supported"), "eventlist");
    EXPECT_EQ(answer.field("Accept"), "application/pidf+xml");
    const Message refused = bob.ask(bob.request("OPTIONS", "sip:oryx.example").set("Require", "gruu"));
    EXPECT_EQ(status(refused), "420 Bad Extension");
    EXPECT_EQ(refused.field("Unsupported"), "gruu");
    EXPECT_EQ(status(bob.ask(bob.request("OPTIONS", "sips:oryx.example"))), "416 Unsupported URI Scheme");
}

/// RFC 3261 section 8.2.2.1.
TEST_F(Subscribing, KnowsPeopleOfItsOwnDomainAlone)
{
    startEvents();
    Watcher bob("bob", m_port);
    EXPECT_EQ(status(bob.subscribe("sip:nobody@oryx.example")), "404 Not Found");
    EXPECT_EQ(status(bob.subscribe("sip:alice@elsewhere.example")), "403 Forbidden");
    EXPECT_EQ(status(bob.subscribe("sip:nobody@oryx.example", 3600, "presence.winfo")), "404 Not Found");
}

/// Section 4.2.1.3.
TEST_F(Subscribing, NeedsAProof)
{
    allow("bob@oryx.example");
    startEvents({});
    Watcher bob("bob", m_port);
    const Message challenge = bob.subscribe(kAlice);
    EXPECT_EQ(status(challenge), "401 Unauthorized");
    EXPECT_EQ(status(bob.phone().ask(bob.request(kAlice), "wrong")), "401 Unauthorized");
    EXPECT_EQ(status(bob.phone().ask(bob.request(kAlice), "bob", "SHA-256")), "200 OK");
    EXPECT_EQ(told(bob.notified()), "NOTIFY active closed");
    Watcher carol("carol", m_port);
    EXPECT_EQ(status(carol.phone().ask(carol.request(kAlice), "carol")), "403 Forbidden");
    Phone stranger("eve", "elsewhere.example", m_port);
    Message request = stranger.request("SUBSCRIBE", kAlice);
    EXPECT_EQ(status(stranger.ask(request.set("Event", "presence"))), "403 Forbidden");
}

/// RFC 3856 section 6.6.
TEST_F(Subscribing, WaitsUntilItIsApproved)
{
    startEvents();
    Watcher bob("bob", m_port);
    EXPECT_EQ(status(bob.subscribe(kAlice)), "200 OK");
    const Message pending = bob.notified();
    EXPECT_EQ(told(pending), "NOTIFY pending");
    EXPECT_EQ(pending.body, "");
    publish();
    EXPECT_TRUE(bob.silent());
    allow("bob@oryx.example");
    EXPECT_EQ(told(bob.notified()), "NOTIFY active open");
    allow("bob@oryx.example", "block");
    EXPECT_EQ(told(bob.notified()), "NOTIFY terminated;reason=rejected");
    EXPECT_EQ(stored(), "0\n");
    EXPECT_EQ(status(bob.refresh(600)), "481 Call/Transaction Does Not Exist");
}

/// Section 4.2.1.3.
TEST_F(Subscribing, ToBeBlockedIsToBeRefused)
{
    allow("bob@oryx.example", "block");
    startEvents();
    Watcher bob("bob", m_port);
    EXPECT_EQ(status(bob.subscribe(kAlice)), "403 Forbidden");
    EXPECT_EQ(stored(), "0\n");
}

/// RFC 3856 section 6.6.2: polite blocking.
TEST_F(Subscribing, ToBeBlockedPolitelyIsToSeeNobody)
{
    allow("bob@oryx.example", "polite");
    startEvents();
    publish();
    Watcher bob("bob", m_port);
    EXPECT_EQ(status(bob.subscribe(kAlice)), "200 OK");
    EXPECT_EQ(told(bob.notified()), "NOTIFY active closed");
}

TEST_F(Subscribing, FallsBackToTheNodesRules)
{
    sql("INSERT INTO node VALUES ('node', 'sip1');"
        "INSERT INTO access_control_list (object, requester, access_action, application) VALUES"
        " ('node', '*', 'block', 'presence'), ('node', '*@oryx.example', 'allow', 'presence')");
    startEvents();
    Watcher bob("bob", m_port);
    EXPECT_EQ(status(bob.subscribe(kAlice)), "200 OK");
    EXPECT_EQ(told(bob.notified()), "NOTIFY active closed");
    Phone stranger("eve", "elsewhere.example", m_port);
    EXPECT_EQ(status(stranger.ask(stranger.request("SUBSCRIBE", kAlice).set("Event", "presence"))), "403 Forbidden");
}

/// Section 4.2.2 and RFC 3261 section 12.2.1.1: dialogs come from the database.
TEST_F(Subscribing, GoesOnAfterTheServerWasKilled)
{
    allow("bob@oryx.example");
    startEvents();
    Watcher bob("bob", m_port);
    const std::string proxy = "<sip:" + bob.phone().socket().hostPort() + ";lr>";
    EXPECT_EQ(bob.subscribe(bob.request(kAlice).set("Record-Route", proxy)).field("Record-Route"), proxy);
    EXPECT_EQ(bob.notified().field("Route"), proxy);
    kill();
    publish();
    startEvents();
    const Message notify = bob.notified();
    EXPECT_EQ(told(notify), "NOTIFY active open");
    EXPECT_EQ(notify.field("CSeq"), "2 NOTIFY");
    EXPECT_EQ(notify.field("Route"), proxy);
    EXPECT_EQ(notify.first, "NOTIFY " + bob.phone().contact() + " SIP/2.0");
    EXPECT_EQ(status(bob.refresh(600)), "200 OK");
    EXPECT_EQ(bob.notified().field("CSeq"), "3 NOTIFY");
}

/// Section 8.2.1: the parameters that tell it from others.
TEST_F(Subscribing, KeepsItsEventsParameters)
{
    allow("bob@oryx.example");
    startEvents();
    Watcher bob("bob", m_port);
    bob.subscribe(kAlice, 3600, "presence;id=7;other=\"a b\"");
    EXPECT_EQ(bob.notified().field("Event"), "presence;id=7;other=\"a b\"");
    EXPECT_EQ(status(bob.refresh(600)), "200 OK");
    EXPECT_EQ(bob.notified().field("Event"), "presence;id=7;other=\"a b\"");
}

/// RFC 3261 section 12.2.1.1: whatever the length of the names.
TEST_F(Subscribing, KeepsTheWholeOfBothEnds)
{
    allow("bob@oryx.example");
    startEvents();
    Watcher bob("bob", m_port);
    Message request = bob.request(kAlice);
    request.set("From", "\"" + std::string(150, 'b') + "\" " + request.field("From"));
    const Message answer = bob.subscribe(request);
    const Message notify = bob.notified();
    EXPECT_EQ(notify.field("From"), answer.field("To"));
    EXPECT_EQ(notify.field("To"), answer.field("From"));
}

/// Section 4.2.1.4.
TEST_F(Subscribing, ThatExpiredWhileTheServerWasAwayEnds)
{
    allow("bob@oryx.example");
    startEvents();
    Watcher bob("bob", m_port);
    bob.subscribe(kAlice);
    bob.notified();
    kill();
    sql("UPDATE event_watchers SET expirytime = floor(extract(epoch FROM now()))::int - 1");
    startEvents();
    EXPECT_EQ(told(bob.notified()), "NOTIFY terminated;reason=timeout closed");
    EXPECT_EQ(stored(), "0\n");
}

/// What was registered there is not there any more.
TEST_F(Subscribing, EndsWithTheRegistrationThatItCameFrom)
{
    allow("bob@oryx.example");
    startEvents();
    Watcher bob("bob", m_port);
    bob.subscribe(kAlice);
    bob.notified();
    sql(expired("sip:bob@192.0.2.7"));
    EXPECT_TRUE(bob.phone().socket().silent(1500));
    sql(expired(bob.phone().contact()));
    EXPECT_EQ(told(bob.notified()), "NOTIFY terminated;reason=timeout closed");
    EXPECT_EQ(stored(), "0\n");
    EXPECT_EQ(bindings(), "");
}

/// An earlier version stored contacts as they were written.
TEST_F(Subscribing, EndsWithTheRegistrationHoweverItsContactWasStored)
{
    allow("bob@oryx.example");
    startEvents();
    Watcher bob("bob", m_port);
    bob.subscribe(kAlice);
    bob.notified();
    kill();
    const std::string at = "bob@" + bob.phone().socket().hostPort();
    sql("UPDATE subscription_states SET remotecontacthdr = 'SIP:" + at + ";Transport=UDP;Ob'");
    startEvents();
    EXPECT_EQ(bob.notified().first, "NOTIFY sip:" + at + ";ob;transport=udp SIP/2.0");
    sql("INSERT INTO contact (csid, address, contact_header, expires) VALUES (2, 'sip:" + at + "', '<sip:" + at +
        ";OB;transport=udp>;expires=60', extract(epoch FROM now())::int - 1)");
    EXPECT_EQ(told(bob.notified()), "NOTIFY terminated;reason=timeout closed");
    EXPECT_EQ(stored(), "0\n");
}

/// As when it is refreshed in the moment between.
TEST_F(Subscribing, StaysWithARegistrationThatIsNotTakenAway)
{
    sql("CREATE FUNCTION keep() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN RETURN NULL; END $$;"
        "CREATE TRIGGER keep BEFORE DELETE ON contact FOR EACH ROW EXECUTE FUNCTION keep()");
    outlivesItsRegistration();
}

TEST_F(Subscribing, StaysWithARegistrationThatIsMadeAgainAtOnce)
{
    sql("CREATE FUNCTION again() RETURNS trigger LANGUAGE plpgsql SECURITY DEFINER AS $$ BEGIN"
        " INSERT INTO contact (csid, address, contact_header, expires)"
        " VALUES (OLD.csid, OLD.address, OLD.contact_header, OLD.expires + 3600); RETURN NULL; END $$;"
        "CREATE TRIGGER again AFTER DELETE ON contact FOR EACH ROW EXECUTE FUNCTION again()");
    outlivesItsRegistration();
    EXPECT_EQ(rows("SELECT expires > current_second() FROM contact"), "t\n");
}

/// Whether it is registered again, nobody knows then.
TEST_F(Subscribing, StaysWhereNobodyCanTellWhetherItsRegistrationDoes)
{
    outlivesItsRegistration("REVOKE SELECT ON subscriber FROM oryx_presence;");
    EXPECT_EQ(bindings(), "");
}

/// As after an outage: all of them at once, while their telephones come back, and somebody holds one of them.
TEST_F(Subscribing, DoesNotWaitForRegistrationsThatExpire)
{
    allow("bob@oryx.example");
    startEvents({"--auth", "none", "--workers", "1"});
    const std::unique_ptr<Program> events = std::move(m_server);
    Watcher bob("bob", std::exchange(m_port, phone::freePort()));
    startRegistrar();
    Phone alice("alice", "oryx.example", m_port);
    sql("INSERT INTO contact (csid, address, contact_header, expires)"
        " SELECT 1, address, '<' || address || '>;expires=60', extract(epoch FROM now())::int + 1"
        " FROM unnest('{sip:alice@192.0.2.1,sip:alice@192.0.2.2}'::text[]) address");
    server::Session holder(m_database.name());
    holder.run("BEGIN; SELECT FROM contact WHERE address = 'sip:alice@192.0.2.2' FOR UPDATE");
    std::this_thread::sleep_for(std::chrono::milliseconds(3500)); // until a sweep has come to it
    sql("INSERT INTO contact (csid, address, contact_header, expires)"
        " SELECT 2, 'sip:bob@192.0.2.7:' || n, '<sip:bob@192.0.2.7:' || n || '>;expires=60', extract(epoch FROM now())::int - 1"
        " FROM generate_series(1, 50000) n");
    auto begun = std::chrono::steady_clock::now();
    const auto quick = [&] {
        const auto former = std::exchange(begun, std::chrono::steady_clock::now());
        return begun - former < std::chrono::seconds(2);
    };
    EXPECT_EQ(status(alice.ask(alice.registration("<sip:alice@192.0.2.1>"))), "200 OK");
    EXPECT_EQ(status(bob.subscribe(kAlice)), "200 OK");
    EXPECT_EQ(told(bob.notified()), "NOTIFY active closed");
    EXPECT_TRUE(quick());
    const auto leaves = [&](const std::string& left) {
        for (int tries = 0; tries < 200 && bindings() != left; ++tries) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return bindings() == left;
    };
    EXPECT_TRUE(leaves("sip:alice@192.0.2.1\nsip:alice@192.0.2.2\n"));
    quick();
    EXPECT_EQ(status(bob.refresh(600)), "200 OK");
    EXPECT_EQ(told(bob.notified()), "NOTIFY active closed");
    EXPECT_TRUE(quick());
    holder.run("COMMIT");
    EXPECT_TRUE(leaves("sip:alice@192.0.2.1\n"));
}

/// Section 4.2.2.
TEST_F(Subscribing, IsToldThatAPublicationHasExpired)
{
    allow("bob@oryx.example");
    startEvents();
    publish("tag", 4);
    Watcher bob("bob", m_port);
    bob.subscribe(kAlice);
    EXPECT_EQ(told(bob.notified()), "NOTIFY active open");
    EXPECT_EQ(told(bob.notified(200, 20000)), "NOTIFY active closed");
}

/// RFC 3857 section 4, RFC 3858.
class WatcherInformation : public Subscribing {
protected:
    /// Each watcher of a document, and its version.
    static std::string watchers(const Message& notify)
    {
        static const std::regex watcher("<watcher [^>]*>[^<]*</watcher>");
        static const std::regex version("version=\"([0-9]+)\" state=\"([a-z]+)\"");
        std::smatch found;
        std::string text =
            std::regex_search(notify.body, found, version) ? found[1].str() + " " + found[2].str() : "none";
        for (std::sregex_iterator at(notify.body.begin(), notify.body.end(), watcher); at != std::sregex_iterator();
             ++at) {
            const std::string one = at->str();
            for (const char* const name : {"status", "event"}) {
                const std::regex attribute(std::string(name) + "=\"([a-z]+)\"");
                text += (std::regex_search(one, found, attribute) ? " " + found[1].str() : " none");
            }
            text += " " + one.substr(one.find('>') + 1, one.rfind('<') - one.find('>') - 1);
        }
        return text;
    }
};

/// RFC 3857 section 4.7.
TEST_F(WatcherInformation, TellsThePresentityWhoWatches)
{
    startEvents();
    Watcher alice("alice", m_port);
    EXPECT_EQ(status(alice.subscribe(kAlice, 3600, "presence.winfo")), "200 OK");
    const Message first = alice.notified();
    EXPECT_EQ(first.field("Content-Type"), "application/watcherinfo+xml");
    EXPECT_EQ(first.field("Event"), "presence.winfo");
    EXPECT_EQ(watchers(first), "0 full");
    Watcher bob("bob", m_port);
    bob.subscribe(kAlice);
    EXPECT_EQ(told(bob.notified()), "NOTIFY pending");
    EXPECT_EQ(watchers(alice.notified()), "1 full pending subscribe sip:bob@oryx.example");
    allow("bob@oryx.example");
    EXPECT_EQ(told(bob.notified()), "NOTIFY active closed");
    EXPECT_EQ(watchers(alice.notified()), "2 full active approved sip:bob@oryx.example");
    bob.refresh(0);
    EXPECT_EQ(told(bob.notified()), "NOTIFY terminated;reason=timeout closed");
    EXPECT_EQ(watchers(alice.notified()), "3 full terminated timeout sip:bob@oryx.example");
}

/// RFC 6665 section 4.2.2: changes are told.
TEST_F(WatcherInformation, IsNotToldAnewWhileNobodyWatches)
{
    startEvents();
    Watcher alice("alice", m_port);
    alice.subscribe(kAlice, 3600, "presence.winfo");
    EXPECT_EQ(watchers(alice.notified()), "0 full");
    allow("bob@oryx.example");
    EXPECT_TRUE(alice.silent());
    Watcher bob("bob", m_port);
    bob.subscribe(kAlice);
    EXPECT_EQ(watchers(alice.notified()), "1 full active subscribe sip:bob@oryx.example");
}

/// RFC 3857 section 4.6.
TEST_F(WatcherInformation, IsNobodyElsesBusiness)
{
    allow("bob@oryx.example");
    startEvents();
    Watcher bob("bob", m_port);
    EXPECT_EQ(status(bob.subscribe(kAlice, 3600, "presence.winfo")), "403 Forbidden");
}

TEST_F(WatcherInformation, GoesOnAfterTheServerWasKilled)
{
    allow("bob@oryx.example");
    startEvents();
    Watcher alice("alice", m_port);
    alice.subscribe(kAlice, 3600, "presence.winfo");
    EXPECT_EQ(watchers(alice.notified()), "0 full");
    Watcher bob("bob", m_port);
    bob.subscribe(kAlice);
    bob.notified();
    EXPECT_EQ(watchers(alice.notified()), "1 full active subscribe sip:bob@oryx.example");
    kill();
    startEvents();
    EXPECT_EQ(told(bob.notified()), "NOTIFY active closed");
    const Message notify = alice.notified();
    EXPECT_EQ(watchers(notify), "2 full active subscribe sip:bob@oryx.example");
    EXPECT_EQ(notify.field("CSeq"), "3 NOTIFY");
    EXPECT_EQ(alice.refresh(0).status(), 200);
    EXPECT_EQ(alice.notified().field("Subscription-State"), "terminated;reason=timeout");
    EXPECT_EQ(rows("SELECT count(*) FROM watcherinfo"), "0\n");
}

/// RFC 4662 sections 4 and 5.
class PresenceList : public Subscribing {
protected:
    PresenceList()
    {
        sql("INSERT INTO buddy_list VALUES (7, 'friends');"
            "INSERT INTO buddy_list_detail VALUES ('friends', 'sip:alice@oryx.example'), ('friends', 'sip:nobody@oryx.example');"
            "INSERT INTO presence_list_authorization VALUES (7, 'bob', 'oryx.example', 'A')");
    }
    Message request(Watcher& watcher)
    {
        return watcher.request("sip:friends@oryx.example").set("Supported", "eventlist");
    }
    /// Version, and each resource with the state of its instance.
    static std::string resources(const Message& notify)
    {
        static const std::regex part(
            "version=\"([0-9]+)\"|<resource [^>]*uri=\"([^\"]+)\"|<instance [^>]*state=\"([a-z]+)\"");
        std::string text;
        for (std::sregex_iterator at(notify.body.begin(), notify.body.end(), part); at != std::sregex_iterator();
             ++at) {
            text += (text.empty() ? "" : " ") + (*at)[1].str() + (*at)[2].str() + (*at)[3].str();
        }
        return text;
    }
};

/// RFC 4662 section 4.5.
TEST_F(PresenceList, IsNotifiedAsAWhole)
{
    allow("bob@oryx.example");
    startEvents();
    Watcher bob("bob", m_port);
    const Message answer = bob.subscribe(request(bob));
    EXPECT_EQ(status(answer), "200 OK");
    EXPECT_EQ(answer.field("Require"), "eventlist");
    const Message first = bob.notified();
    EXPECT_EQ(told(first), "NOTIFY active closed");
    EXPECT_EQ(first.field("Require"), "eventlist");
    EXPECT_TRUE(first.field("Content-Type").starts_with("multipart/related;")) << first.field("Content-Type");
    EXPECT_EQ(resources(first), "0 sip:alice@oryx.example active sip:nobody@oryx.example terminated");
    publish();
    const Message second = bob.notified();
    EXPECT_EQ(told(second), "NOTIFY active open");
    EXPECT_EQ(resources(second), "1 sip:alice@oryx.example active sip:nobody@oryx.example terminated");
}

/// RFC 4662 section 5.5: the state of each instance.
TEST_F(PresenceList, ShowsOfEachMemberWhatHeAllows)
{
    startEvents();
    publish();
    Watcher bob("bob", m_port);
    bob.subscribe(request(bob));
    EXPECT_EQ(resources(bob.notified()), "0 sip:alice@oryx.example pending sip:nobody@oryx.example terminated");
    allow("bob@oryx.example");
    const Message approved = bob.notified();
    EXPECT_EQ(told(approved), "NOTIFY active open");
    sql("INSERT INTO buddy_list_detail VALUES ('friends', 'sip:bob@oryx.example')");
    EXPECT_EQ(resources(bob.notified()), "2 sip:alice@oryx.example active sip:bob@oryx.example active"
                                         " sip:nobody@oryx.example terminated");
    sql("DELETE FROM buddy_list");
    EXPECT_EQ(told(bob.notified()), "NOTIFY terminated;reason=noresource");
}

/// RFC 4662 section 4.1.
TEST_F(PresenceList, IsForThoseWhoKnowListsAndMaySeeIt)
{
    startEvents();
    Watcher bob("bob", m_port);
    const Message answer = bob.subscribe("sip:friends@oryx.example");
    EXPECT_EQ(status(answer), "421 Extension Required");
    EXPECT_EQ(answer.field("Require"), "eventlist");
    Watcher alice("alice", m_port);
    EXPECT_EQ(status(alice.subscribe(request(alice))), "403 Forbidden");
}

TEST_F(PresenceList, GoesOnAfterTheServerWasKilled)
{
    allow("bob@oryx.example");
    startEvents();
    Watcher bob("bob", m_port);
    bob.subscribe(request(bob));
    bob.notified();
    kill();
    startEvents();
    const Message notify = bob.notified();
    EXPECT_EQ(notify.field("CSeq"), "2 NOTIFY");
    EXPECT_EQ(resources(notify), "1 sip:alice@oryx.example active sip:nobody@oryx.example terminated");
}

/// RFC 3261 section 12.2.1.1, as proxies of old expect it.
TEST_F(Subscribing, ReachesAStrictRouter)
{
    allow("bob@oryx.example");
    startEvents();
    Watcher bob("bob", m_port);
    const std::string first = "sip:" + bob.phone().socket().hostPort();
    bob.subscribe(bob.request(kAlice).set("Record-Route", "<" + first + ">, <sip:192.0.2.8;lr>"));
    const Message notify = bob.notified();
    EXPECT_EQ(notify.first, "NOTIFY " + first + " SIP/2.0");
    EXPECT_EQ(notify.field("Route"), "<sip:192.0.2.8;lr>, <" + bob.phone().contact() + ">");
}

/// Section 4.2.2: one after another.
TEST_F(Subscribing, IsToldAllThatHappensBeforeAnAnswerAtOnce)
{
    allow("bob@oryx.example");
    startEvents();
    Watcher bob("bob", m_port);
    bob.subscribe(kAlice);
    const Message first = bob.phone().receive();
    publish();
    allow("bob@oryx.example", "polite");
    allow("bob@oryx.example");
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    bob.phone().send(bob.phone().response(first, 200, "OK"));
    Message notify = bob.notified();
    while (notify.field("CSeq") == "1 NOTIFY") { // it was sent again
        notify = bob.notified();
    }
    EXPECT_EQ(told(notify), "NOTIFY active open");
    EXPECT_EQ(notify.field("CSeq"), "2 NOTIFY");
    EXPECT_TRUE(bob.silent());
}

/// RFC 3261 section 21.5.4.
TEST_F(Subscribing, IsPutOffWhileTheDatabaseDoesNotAnswer)
{
    allow("bob@oryx.example");
    startEvents();
    server::Session holder(m_database.name());
    holder.run("BEGIN; LOCK TABLE public_address IN ACCESS EXCLUSIVE MODE");
    Watcher bob("bob", m_port);
    const Message answer = bob.subscribe(kAlice);
    EXPECT_EQ(status(answer), "503 Service Unavailable");
    EXPECT_NE(answer.field("Retry-After"), "");
    holder.run("COMMIT");
    EXPECT_EQ(status(bob.subscribe(kAlice)), "200 OK");
    EXPECT_EQ(told(bob.notified()), "NOTIFY active closed");
}

/// Also those after a restart, each once.
TEST_F(Subscribing, IsToldWhoeverElseIs)
{
    constexpr int kWatchers = 100;
    allow("*");
    startEvents();
    Watcher bob("bob", m_port);
    for (int n = 0; n < kWatchers; ++n) {
        const std::string another = "sip:watcher" + std::to_string(n) + "@oryx.example";
        EXPECT_EQ(status(bob.subscribe(bob.request(kAlice).set("From", "<" + another + ">;tag=1"))), "200 OK");
        EXPECT_EQ(told(bob.notified()), "NOTIFY active closed");
    }
    const auto toldAll = [&] {
        std::set<std::string> calls;
        std::string different;
        for (int n = 0; n < kWatchers; ++n) {
            const Message notify = bob.notified();
            calls.insert(notify.field("Call-ID"));
            different += told(notify) == "NOTIFY active open" ? "" : told(notify);
        }
        return std::to_string(calls.size()) + different;
    };
    publish();
    EXPECT_EQ(toldAll(), "100");
    kill();
    startEvents();
    EXPECT_EQ(toldAll(), "100");
    EXPECT_EQ(rows("SELECT DISTINCT notcseq FROM subscription_states"), "3\n");
    EXPECT_TRUE(bob.silent());
}

TEST_F(Subscribing, IsToldLaterWhatTheDatabaseKeepsBack)
{
    allow("bob@oryx.example");
    startEvents();
    Watcher bob("bob", m_port);
    bob.subscribe(kAlice);
    bob.notified();
    server::Session holder(m_database.name());
    holder.run("BEGIN; LOCK TABLE subscription_states IN ACCESS EXCLUSIVE MODE");
    publish();
    EXPECT_TRUE(bob.phone().socket().silent(1500));
    holder.run("COMMIT");
    const Message notify = bob.notified();
    EXPECT_EQ(told(notify), "NOTIFY active open");
    EXPECT_EQ(notify.field("CSeq"), "2 NOTIFY");
    EXPECT_TRUE(bob.silent());
}

/// Only what the same worker does waits with it.
TEST_F(Subscribing, IsToldOfOneWhileAnothersRowsAreLocked)
{
    constexpr int kLocked = 40;
    constexpr int kOthers = 16; // more than a few of whom another worker serves
    allow("*");
    startEvents({"--auth", "none", "--workers", "4"});
    Watcher locked("bob", m_port);
    for (int n = 0; n < kLocked; ++n) {
        const std::string from = "<sip:locked" + std::to_string(n) + "@oryx.example>;tag=1";
        EXPECT_EQ(status(locked.subscribe(locked.request(kAlice).set("From", from))), "200 OK");
        locked.notified();
    }
    Watcher other("bob", m_port);
    std::string published;
    for (int n = 0; n < kOthers; ++n) {
        const std::string handle = "other" + std::to_string(n);
        const std::string address = "sip:" + handle + "@oryx.example";
        sql("INSERT INTO public_address (csid, handle, sip_domain) VALUES (2, '" + handle + "', 'oryx.example')");
        EXPECT_EQ(status(other.subscribe(other.request(address).set("From", "<" + address + ">;tag=1"))), "200 OK");
        other.notified();
        published += publication(handle);
    }
    server::Session holder(m_database.name());
    holder.run("BEGIN; SELECT FROM subscription_states WHERE fromhdr LIKE '%locked%' FOR UPDATE");
    publish();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const auto begun = std::chrono::steady_clock::now();
    sql(published);
    for (int n = 0; n < kOthers / 4; ++n) {
        EXPECT_EQ(told(other.notified()), "NOTIFY active open");
    }
    EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(3));
    holder.run("COMMIT");
}

/// What concerns few goes before what may concern everybody.
TEST_F(Subscribing, IsToldOfAPublicationBeforeOthersAreOfARule)
{
    startWithMany();
    Watcher bob("bob", m_port);
    subscribeMany(bob);
    server::Session holder(m_database.name()); // so that all of it waits
    holder.run("BEGIN; LOCK TABLE subscription_states IN ACCESS EXCLUSIVE MODE");
    allow("*", "polite");
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    sql(publication("bob"));
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    holder.run("COMMIT");
    areToldLast(bob);
}

/// What has been refused does not lose its turn.
TEST_F(Subscribing, IsToldAgainOfAPublicationBeforeOthersAreOfARule)
{
    startWithMany();
    Watcher bob("bob", m_port);
    subscribeMany(bob);
    sql(publication("bob"));
    EXPECT_EQ(told(bob.notified(503)), "NOTIFY active open");
    server::Session holder(m_database.name());
    holder.run("BEGIN; LOCK TABLE subscription_states IN ACCESS EXCLUSIVE MODE");
    allow("*", "polite");
    std::this_thread::sleep_for(std::chrono::milliseconds(1300)); // the refused one is made again after a second
    holder.run("COMMIT");
    areToldLast(bob);
}

/// A worker that has no room is asked again now and then, not once for each of them.
TEST_F(Subscribing, TakesNoTimeOfOthersWhileItWaitsForAWorker)
{
    constexpr int kWaiting = 2000;
    allow("*");
    startEvents({"--auth", "none", "--workers", "1"});
    Watcher bob("bob", m_port);
    EXPECT_EQ(status(bob.subscribe(kAlice)), "200 OK");
    bob.notified();
    kill();
    copy("subscription_states", "subscriptionid", 101, 100 + kWaiting);
    copy("event_watchers", "watcheropaque", 101, 100 + kWaiting);
    startEvents({"--auth", "none", "--workers", "1"});
    for (int n = 0; n <= kWaiting; ++n) {
        bob.notified();
    }
    server::Session holder(m_database.name());
    holder.run("BEGIN; LOCK TABLE access_control_list IN ACCESS EXCLUSIVE MODE");
    Watcher other("bob", m_port);
    for (int n = 0; n < 1100; ++n) {
        const std::string from = "<sip:watcher" + std::to_string(n) + "@oryx.example>;tag=1";
        other.phone().send(other.request(kAlice).set("From", from));
    }
    EXPECT_EQ(status(other.phone().receive()), "503 Service Unavailable");
    const auto spent = [&] {
        const double before = m_server->processorTime();
        std::this_thread::sleep_for(std::chrono::seconds(2));
        return m_server->processorTime() - before;
    };
    const double byOthers = spent();
    publish("another");
    EXPECT_LT(spent(), byOthers + 0.1);
    holder.run("COMMIT");
    for (int n = 0; n <= kWaiting; ++n) {
        EXPECT_EQ(told(bob.notified()), "NOTIFY active open");
    }
}

/// As when PostgreSQL was restarted.
TEST_F(Subscribing, IsToldAfterAllConnectionsWereLost)
{
    allow("bob@oryx.example");
    startEvents();
    Watcher bob("bob", m_port);
    bob.subscribe(kAlice);
    bob.notified();
    sql("SELECT pg_terminate_backend(pid) FROM pg_stat_activity"
        " WHERE datname = current_database() AND pid <> pg_backend_pid()");
    publish();
    EXPECT_EQ(told(bob.notified()), "NOTIFY active open");
    EXPECT_EQ(status(bob.refresh(600)), "200 OK");
    EXPECT_EQ(bob.notified().field("CSeq"), "3 NOTIFY");
}

TEST_F(Subscribing, StaysWhenTheServerIsToldToEnd)
{
    allow("bob@oryx.example");
    startEvents();
    Watcher bob("bob", m_port);
    bob.subscribe(kAlice);
    bob.notified();
    EXPECT_EQ(stop(), 0);
    EXPECT_EQ(stored(), "1\n");
}

/// However many registrations there are still to be taken away.
TEST_F(Subscribing, ServerEndsWithThePieceThatItIsSweeping)
{
    sql("CREATE FUNCTION wait() RETURNS trigger SECURITY DEFINER LANGUAGE plpgsql AS"
        " $$ BEGIN PERFORM pg_advisory_xact_lock(1); RETURN NULL; END $$;"
        "CREATE TRIGGER wait AFTER DELETE ON contact FOR EACH STATEMENT EXECUTE FUNCTION wait()");
    const auto become = [&](const std::string& query, const std::string& expected) {
        for (int tries = 0; tries < 500 && rows(query) != expected; ++tries) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return rows(query) == expected;
    };
    server::Session holder(m_database.name());
    holder.run("SELECT pg_advisory_lock(1)");
    sql("INSERT INTO contact (csid, address, contact_header, expires)"
        " SELECT 2, 'sip:bob@192.0.2.7:' || n, '<sip:bob@192.0.2.7:' || n || '>;expires=60', extract(epoch FROM now())::int - 1"
        " FROM generate_series(1, 15000) n");
    startEvents();
    EXPECT_TRUE(become("SELECT count(*) FROM pg_locks WHERE locktype = 'advisory' AND NOT granted", "1\n"));
    Watcher bob("bob", m_port);
    m_server->signal(SIGTERM);
    EXPECT_EQ(status(bob.subscribe(kAlice)), "503 Service Unavailable"); // the signal has come to it
    holder.run("SELECT pg_advisory_unlock(1)");
    EXPECT_EQ(m_server->wait(2), 0);
    EXPECT_EQ(rows("SELECT count(*) FROM contact"), "10000\n");
}

/// RFC 3261 section 21.4.1: what cannot be meant, and what is meant to hurt.
TEST_F(Subscribing, WithAHostileTextIsRefusedAndTheNextIsServed)
{
    allow("bob@oryx.example");
    startEvents();
    Watcher bob("bob", m_port);
    const auto refused = [&](const Message& request) { return status(bob.subscribe(request)); };
    const std::string from = bob.request(kAlice).field("From");
    EXPECT_EQ(refused(bob.request(kAlice).set("From", "<sip:bob@oryx.example>")), "400 Bad Request");
    EXPECT_EQ(refused(bob.request(kAlice).set("From", "<tel:+4912345>;tag=1")), "400 Bad Request");
    EXPECT_EQ(refused(bob.request(kAlice).set("From", "\"" + std::string(2000, 'b') + "\" " + from)),
              "400 Bad Request");
    EXPECT_EQ(refused(bob.request(kAlice).set("From", "\"\xff\" " + from)), "400 Bad Request");
    EXPECT_EQ(refused(bob.request(kAlice).set("CSeq", "4294967295 SUBSCRIBE")), "400 Bad Request");
    EXPECT_EQ(refused(bob.request(kAlice).set("Contact", "<mailto:bob@oryx.example>")), "400 Bad Request");
    EXPECT_EQ(refused(bob.request(kAlice).set("Contact", "<sip:" + std::string(1100, 'b') + "@127.0.0.1>")),
              "400 Bad Request");
    EXPECT_EQ(refused(bob.request(kAlice).set("Event", "presence;id=" + std::string(2000, '1'))), "400 Bad Request");
    EXPECT_EQ(refused(bob.request("sip:alice%00@oryx.example")), "400 Bad Request");
    EXPECT_EQ(refused(bob.request("sip:alice%0a@oryx.example")), "400 Bad Request");
    EXPECT_EQ(refused(bob.request("sip:alice%27%3Bselect@oryx.example")), "404 Not Found");
    EXPECT_EQ(stored(), "0\n");
    EXPECT_EQ(refused(bob.request(kAlice).set("From", "\"Bob 'O''Neill\" " + from)), "200 OK");
    EXPECT_EQ(told(bob.notified()), "NOTIFY active closed");
}

/// Nothing of what comes is a reason to end.
TEST_F(Subscribing, IsServedAfterAnyNumberOfMangledRequests)
{
    allow("bob@oryx.example");
    startEvents();
    Watcher mangler("bob", m_port);
    mangler.subscribe(kAlice);
    std::mt19937 random(1);
    for (int n = 0; n < 2000; ++n) {
        std::string text = (n % 2 == 0 ? mangler.request(kAlice, n % 3 == 0 ? 0 : 3600) : mangler.next(3600)).text();
        for (std::uint32_t changes = 1 + random() % 4; changes > 0; --changes) {
            const std::size_t at = random() % text.size();
            switch (random() % 3) {
            case 0:
                text[at] = static_cast<char>(random());
                break;
            case 1:
                text.erase(at, random() % 20);
                break;
            default:
                text.insert(at, text.substr(random() % text.size(), random() % 20));
                break;
            }
        }
        mangler.phone().socket().send(m_port, text);
        if (n % 20 == 0) { // it has no more than it can take
            EXPECT_EQ(status(mangler.phone().ask(mangler.phone().request("OPTIONS", "sip:oryx.example"))), "200 OK");
        }
    }
    Watcher alice("alice", m_port);
    Message request = alice.request(kAlice);
    EXPECT_EQ(status(alice.subscribe(request)), "200 OK");
    EXPECT_EQ(told(alice.notified()), "NOTIFY active closed");
    EXPECT_EQ(stop(), 0);
}

/// RFC 6665 section 4.2.2: what was refused for now was not told.
TEST_F(Subscribing, IsToldAgainWhatItCouldNotTake)
{
    allow("bob@oryx.example");
    startEvents();
    Watcher bob("bob", m_port);
    bob.subscribe(kAlice);
    EXPECT_EQ(told(bob.notified(503)), "NOTIFY active closed");
    const Message again = bob.notified(401);
    EXPECT_EQ(told(again), "NOTIFY active closed");
    EXPECT_EQ(again.field("CSeq"), "2 NOTIFY");
    EXPECT_EQ(bob.notified().field("CSeq"), "3 NOTIFY");
    EXPECT_TRUE(bob.silent());
}

/// RFC 3261 section 20.33.
TEST_F(Subscribing, IsToldAgainWhenTheRefusalSays)
{
    allow("bob@oryx.example");
    startEvents();
    Watcher bob("bob", m_port);
    bob.subscribe(kAlice);
    Message refusal = bob.phone().response(bob.phone().receive(), 503, "No");
    bob.phone().send(refusal.set("Retry-After", "2"));
    EXPECT_TRUE(bob.phone().socket().silent(1700));
    EXPECT_EQ(told(bob.notified()), "NOTIFY active closed");
}

/// RFC 6665 section 4.4.1: a refresh of a telephone that has moved while it was told something.
TEST_F(Subscribing, GoesOnAtItsNewContactWhateverTheOldOneSays)
{
    allow("bob@oryx.example");
    startEvents();
    Watcher bob("bob", m_port);
    bob.subscribe(kAlice);
    const Message old = bob.phone().receive();
    Phone second("bob", "oryx.example", m_port);
    EXPECT_EQ(status(bob.phone().ask(bob.next(600).set("Contact", "<" + second.contact() + ">"))), "200 OK");
    const Message notify = second.receive();
    EXPECT_EQ(notify.first, "NOTIFY " + second.contact() + " SIP/2.0");
    EXPECT_EQ(told(notify), "NOTIFY active closed");
    bob.phone().send(bob.phone().response(old, 481, "No"));
    second.send(second.response(notify, 200, "OK"));
    EXPECT_TRUE(second.socket().silent());
    EXPECT_EQ(stored(), "1\n");
    Phone third("bob", "oryx.example", m_port);
    EXPECT_EQ(status(bob.phone().ask(bob.next(0).set("Contact", "<" + third.contact() + ">"))), "200 OK");
    EXPECT_EQ(told(third.receive()), "NOTIFY terminated;reason=timeout closed");
}

/// RFC 3261 section 12.2.2: by when they come, not by when they are done.
TEST_F(Subscribing, IsNotRefreshedByAnOlderRequestWhileTheNewerIsStored)
{
    allow("bob@oryx.example");
    startEvents();
    Watcher bob("bob", m_port);
    bob.subscribe(kAlice);
    bob.notified();
    server::Session holder(m_database.name());
    holder.run("BEGIN; LOCK TABLE subscription_states IN ACCESS EXCLUSIVE MODE");
    const Message newer = bob.next(600);
    const Message older = bob.next(300).set("CSeq", newer.field("CSeq"));
    bob.phone().send(newer);
    bob.phone().send(older);
    EXPECT_EQ(bob.phone().receive().first, "SIP/2.0 500 Request Is Out of Order");
    holder.run("COMMIT");
}

/// RFC 6665 section 6.3: nobody fills the server's memory.
TEST_F(Subscribing, CanBeHadEightTimes)
{
    allow("bob@oryx.example");
    startEvents();
    Watcher bob("bob", m_port);
    for (int n = 0; n < 8; ++n) {
        EXPECT_EQ(status(bob.subscribe(kAlice)), "200 OK");
        bob.notified();
    }
    EXPECT_EQ(status(bob.subscribe(kAlice)), "403 Forbidden");
    Watcher alice("alice", m_port);
    EXPECT_EQ(status(alice.subscribe(kAlice)), "200 OK");
    EXPECT_EQ(status(bob.phone().ask(bob.request("sip:bob@oryx.example"))), "200 OK");
}

/// RFC 6665 section 6.3.
TEST_F(Subscribing, CanBeHadEightTimesHoweverManyAskAtOnce)
{
    constexpr int kRequests = 100;
    allow("bob@oryx.example");
    const int page = phone::freePort();
    setenv("ORYX_DEADLINE", "20s", 1);
    startEvents({"--auth", "none", "--workers", "2", "--metrics", "127.0.0.1:" + std::to_string(page)});
    unsetenv("ORYX_DEADLINE");
    server::Session holder(m_database.name()); // so that all are there before the first is stored
    holder.run("BEGIN; LOCK TABLE subscription_states IN ACCESS EXCLUSIVE MODE");
    Watcher bob("bob", m_port);
    for (int n = 0; n < kRequests; ++n) {
        Message request = bob.request(kAlice);
        bob.phone().send(request.set("Call-ID", "burst" + std::to_string(n)));
    }
    const std::string all = "oryx_requests_total " + std::to_string(kRequests) + "\n";
    for (int tries = 0; tries < 1000 && pageAt(page).find(all) == std::string::npos; ++tries) {
    }
    EXPECT_NE(pageAt(page).find(all), std::string::npos);
    holder.run("COMMIT");
    std::map<std::string, std::set<std::string>> calls; // by what they were told
    for (int answered = 0; answered < kRequests;) {
        const Message message = bob.phone().receive();
        if (message.status() != 0) {
            calls[status(message)].insert(message.field("Call-ID"));
            ++answered;
        } else {
            calls["NOTIFY"].insert(message.field("Call-ID"));
            bob.phone().send(bob.phone().response(message, 200, "OK"));
        }
    }
    while (calls["NOTIFY"].size() < 8) {
        calls["NOTIFY"].insert(bob.notified().field("Call-ID"));
    }
    EXPECT_EQ(calls["200 OK"].size(), 8U);
    EXPECT_EQ(calls["NOTIFY"], calls["200 OK"]);
    EXPECT_TRUE(storedBecomes("8\n"));
}

/// RFC 6665 section 6.3.
TEST_F(Subscribing, CanBeHadTwoHundredAndFiftySixTimesInAll)
{
    allow("bob@oryx.example");
    startEvents();
    Watcher bob("bob", m_port);
    bob.subscribe(kAlice);
    bob.notified();
    kill();
    const auto another = [&] {
        startEvents();
        Phone phone("bob", "oryx.example", m_port);
        Message request = phone.request("SUBSCRIBE", "sip:bob@oryx.example");
        return status(phone.ask(request.set("Event", "presence").set("Expires", "0")));
    };
    copy("subscription_states", "subscriptionid", 101, 354);
    copy("event_watchers", "watcheropaque", 101, 354);
    EXPECT_EQ(another(), "200 OK");
    kill();
    copy("subscription_states", "subscriptionid", 355, 355);
    copy("event_watchers", "watcheropaque", 355, 355);
    EXPECT_EQ(another(), "403 Forbidden");
}

/// RFC 3261 section 8.2.2.2: what a proxy on the way has forked would be two subscriptions of one watcher.
TEST_F(Subscribing, IsHadOnceOfARequestThatComesByTwoWays)
{
    allow("bob@oryx.example");
    startEvents();
    Watcher bob("bob", m_port);
    const Message request = bob.request(kAlice);
    const Message answer = bob.subscribe(request);
    EXPECT_EQ(status(answer), "200 OK");
    bob.notified();
    Message merged = request;
    EXPECT_EQ(bob.phone().ask(merged.set("Via", bob.phone().via())).status(), 482);
    EXPECT_EQ(bob.phone().ask(request).text(), answer.text());
    EXPECT_EQ(stored(), "1\n");
    EXPECT_TRUE(bob.silent());
    EXPECT_EQ(status(bob.refresh(3600)), "200 OK");
}

/// RFC 7616 sections 3.3 and 3.4.6: a proof for another request, and one with another's nonce.
TEST_F(Subscribing, NeedsAProofOfItsOwn)
{
    allow("bob@oryx.example");
    startEvents({});
    Watcher bob("bob", m_port);
    const Message challenge = bob.subscribe(kAlice);
    Message request = bob.request(kAlice);
    request.set("Authorization",
                bob.phone().credentials(bob.request("sip:bob@elsewhere.example"), challenge, "bob", "MD5"));
    EXPECT_EQ(status(bob.subscribe(request)), "400 Bad Request");
    Watcher alice("alice", m_port);
    Message borrowed = alice.request(kAlice);
    borrowed.set("Authorization", alice.phone().credentials(borrowed, challenge, "alice", "MD5"));
    const Message refused = alice.subscribe(borrowed);
    EXPECT_EQ(status(refused), "401 Unauthorized");
    EXPECT_EQ(refused.parameter("WWW-Authenticate", "stale"), "true");
}

/// RFC 3261 section 12.2.2: what nobody has proven to have sent does not count.
TEST_F(Subscribing, IsNotMadeOlderByOthers)
{
    allow("bob@oryx.example");
    startEvents({});
    Watcher bob("bob", m_port);
    Message request = bob.request(kAlice);
    request.set("Authorization", bob.phone().credentials(request, bob.subscribe(kAlice), "bob", "MD5"));
    EXPECT_EQ(status(bob.subscribe(request)), "200 OK");
    bob.notified();
    Message forged = bob.next(3600);
    forged.set("CSeq", "2147483647 SUBSCRIBE");
    forged.set("Authorization",
               R"(Digest username="bob", realm="oryx.example", nonce="0", uri="sip:alice@oryx.example",)"
               R"( response="00000000000000000000000000000000")");
    const Message challenge = bob.phone().ask(forged);
    EXPECT_EQ(status(challenge), "401 Unauthorized");
    Message refresh = bob.next(3600);
    refresh.set("Authorization", bob.phone().credentials(refresh, challenge, "bob", "MD5"));
    EXPECT_EQ(status(bob.phone().ask(refresh)), "200 OK");
}

TEST_F(Subscribing, ObeysTheStricterOfTwoRules)
{
    sql("INSERT INTO access_control_list (object, requester, access_action, application) VALUES"
        " ('alice@oryx.example', 'bob@oryx.example', 'allow', 'presence'),"
        " ('alice@oryx.example', 'bob@oryx.example', 'block', 'presence')");
    startEvents();
    Watcher bob("bob", m_port);
    EXPECT_EQ(status(bob.subscribe(kAlice)), "403 Forbidden");
}

/// RFC 6665 section 8.2.1: by type and id.
TEST_F(Subscribing, IsRefreshedWhateverElseItsEventSays)
{
    allow("bob@oryx.example");
    startEvents();
    Watcher bob("bob", m_port);
    bob.subscribe(kAlice, 3600, "presence;other=1;id=7");
    bob.notified();
    EXPECT_EQ(status(bob.phone().ask(bob.next(600).set("Event", "presence;id=7"))), "200 OK");
    EXPECT_EQ(bob.notified().field("Event"), "presence;other=1;id=7");
    EXPECT_EQ(status(bob.phone().ask(bob.next(600).set("Event", "presence;id=8"))),
              "481 Call/Transaction Does Not Exist");
}

/// RFC 6665 section 4.2.1.1: an hour is never too brief.
TEST_F(Subscribing, MayAlwaysLastAnHour)
{
    allow("bob@oryx.example");
    startEvents({"--auth", "none", "--min-expires", "7200", "--default-expires", "7200", "--max-expires", "9000"});
    Watcher bob("bob", m_port);
    EXPECT_EQ(status(bob.subscribe(kAlice, 3599)), "423 Interval Too Brief");
    EXPECT_EQ(bob.subscribe(kAlice, 3600).field("Expires"), "3600");
}

TEST_F(Subscribing, ThatCannotBeReadKeepsNobodyFromStarting)
{
    allow("bob@oryx.example");
    startEvents();
    Watcher bob("bob", m_port);
    Watcher other("bob", m_port);
    bob.subscribe(kAlice);
    other.subscribe(kAlice);
    bob.notified();
    other.notified();
    kill();
    sql("UPDATE subscription_states SET remotecontacthdr = 'sip:bob@[::1' WHERE callid = '" +
        bob.next(600).field("Call-ID") + "'");
    startEvents();
    EXPECT_EQ(told(other.notified()), "NOTIFY active closed");
    EXPECT_TRUE(bob.silent());
}

/// RFC 3261 section 8.2.2.3.
TEST_F(Subscribing, NamesAllExtensionsThatItDoesNotKnow)
{
    startEvents();
    Watcher bob("bob", m_port);
    const Message answer = bob.subscribe(bob.request(kAlice).set("Require", "first, eventlist, second"));
    EXPECT_EQ(status(answer), "420 Bad Extension");
    EXPECT_EQ(answer.field("Unsupported"), "first, second");
}

TEST_F(WatcherInformation, HasAllWatchersWhateverIsReadFirst)
{
    allow("bob@oryx.example");
    startEvents();
    Watcher alice("alice", m_port);
    alice.subscribe(kAlice, 3600, "presence.winfo");
    alice.notified();
    Watcher bob("bob", m_port);
    bob.subscribe(kAlice);
    bob.notified();
    alice.notified();
    kill();
    sql("CREATE TEMPORARY TABLE copy AS SELECT * FROM subscription_states;"
        "TRUNCATE subscription_states;"
        "INSERT INTO subscription_states SELECT * FROM copy ORDER BY packageid DESC");
    startEvents();
    EXPECT_EQ(watchers(alice.notified()), "2 full active subscribe sip:bob@oryx.example");
    EXPECT_TRUE(alice.silent());
}

/// He has no subscription, RFC 6665 section 4.4.3.
TEST_F(WatcherInformation, DoesNotTellOfWhoeverFetches)
{
    allow("bob@oryx.example");
    startEvents();
    Watcher alice("alice", m_port);
    alice.subscribe(kAlice, 3600, "presence.winfo");
    EXPECT_EQ(watchers(alice.notified()), "0 full");
    Watcher bob("bob", m_port);
    bob.subscribe(kAlice, 0);
    EXPECT_EQ(told(bob.notified()), "NOTIFY terminated;reason=timeout closed");
    EXPECT_TRUE(alice.silent());
}

/// RFC 6665 section 4.1.3: the reason.
TEST_F(WatcherInformation, EndsWithTheAddress)
{
    startEvents();
    Watcher alice("alice", m_port);
    alice.subscribe(kAlice, 3600, "presence.winfo");
    alice.notified();
    sql("DELETE FROM public_address WHERE handle = 'alice'");
    EXPECT_EQ(told(alice.notified()), "NOTIFY terminated;reason=noresource");
    EXPECT_EQ(rows("SELECT count(*) FROM watcherinfo"), "0\n");
}

/// RFC 6665 section 4.1.3: the reason.
TEST_F(PresenceList, EndsWhenItMayNotBeSeenAnyMore)
{
    startEvents();
    Watcher bob("bob", m_port);
    bob.subscribe(request(bob));
    bob.notified();
    sql("DELETE FROM presence_list_authorization");
    EXPECT_EQ(told(bob.notified()), "NOTIFY terminated;reason=rejected");
    EXPECT_EQ(stored(), "0\n");
}

/// RFC 3986 section 6.2.2: names have their case, and their escapes no meaning.
TEST_F(PresenceList, IsKnownByItsNameAsItIs)
{
    sql("UPDATE buddy_list SET buddy_list_name = 'Good Friends'");
    startEvents();
    Watcher bob("bob", m_port);
    EXPECT_EQ(status(bob.subscribe(request(bob))), "404 Not Found");
    const std::string uri = "sip:Good%20Friends@oryx.example";
    EXPECT_EQ(status(bob.subscribe(bob.request(uri).set("Supported", "eventlist"))), "200 OK");
    EXPECT_NE(bob.notified().body.find("uri=\"" + uri + "\""), std::string::npos);
    kill();
    startEvents();
    EXPECT_EQ(resources(bob.notified()), "1 sip:alice@oryx.example pending sip:nobody@oryx.example terminated");
}

/// RFC 3261 section 18.1.1: no more than a datagram takes.
TEST_F(PresenceList, ShowsTheFirstOfVeryManyMembers)
{
    sql("INSERT INTO buddy_list_detail SELECT 'friends', 'sip:m' || n || '@oryx.example' FROM generate_series(1000, 1999) n");
    startEvents();
    Watcher bob("bob", m_port);
    EXPECT_EQ(status(bob.subscribe(request(bob))), "200 OK");
    const Message notify = bob.notified();
    EXPECT_LT(notify.body.size(), 57344U);
    const std::string shown = resources(notify);
    EXPECT_TRUE(shown.starts_with("0 sip:alice@oryx.example pending sip:m1000@oryx.example terminated")) << shown;
    EXPECT_TRUE(shown.ends_with("sip:m1254@oryx.example terminated")) << shown;
}

/// RFC 6665 section 6.3: also one whose name has capitals.
TEST_F(PresenceList, CanBeSubscribedToEightTimes)
{
    sql("UPDATE buddy_list SET buddy_list_name = 'Friends'");
    startEvents();
    Watcher bob("bob", m_port);
    const auto subscribes = [&] {
        return status(bob.subscribe(bob.request("sip:Friends@oryx.example").set("Supported", "eventlist")));
    };
    for (int n = 0; n < 8; ++n) {
        EXPECT_EQ(subscribes(), "200 OK");
        bob.notified();
    }
    EXPECT_EQ(subscribes(), "403 Forbidden");
    EXPECT_TRUE(storedBecomes("8\n"));
    EXPECT_TRUE(bob.silent());
}

/// RFC 4662 section 5.5: the same instance in each document.
TEST_F(PresenceList, KeepsTheNamesOfItsMembersInstances)
{
    const auto instanceOfAlice = [](const Message& notify) {
        const std::size_t at = notify.body.find("<instance id=", notify.body.find("sip:alice@oryx.example"));
        return notify.body.substr(at, notify.body.find(' ', at + 10) - at);
    };
    startEvents();
    Watcher bob("bob", m_port);
    bob.subscribe(request(bob));
    const std::string before = instanceOfAlice(bob.notified());
    sql("INSERT INTO buddy_list_detail VALUES ('friends', 'sip:a@oryx.example'), ('friends', 'sip:1001@oryx.example')");
    EXPECT_EQ(instanceOfAlice(bob.notified()), before);
}

/// Telephones that nobody here wrote: one publishes that it is there, the other sees it, with digest.
TEST_F(Subscribing, ShowsOneTelephoneThatAnotherIsThere)
{
    allow("bob@oryx.example");
    startEvents({});
    const std::unique_ptr<Baresip> bob = Baresip::withPresence("bob", m_port, "alice@oryx.example");
    const std::unique_ptr<Baresip> alice = Baresip::withPresence("alice", m_port, "");
    alice->command("presence_online");
    EXPECT_TRUE(bob->sees("Online")) << bob->said() << alice->said();
    alice->command("presence_offline");
    EXPECT_TRUE(bob->sees("Offline")) << bob->said() << alice->said();
}

/// RFC 6665 section 4.2.2 and RFC 3903 section 4.1: neither has to begin again when the server does.
TEST_F(Subscribing, ShowsTelephonesEachOtherAfterARestart)
{
    allow("bob@oryx.example");
    startEvents({});
    const std::unique_ptr<Baresip> bob = Baresip::withPresence("bob", m_port, "alice@oryx.example");
    const std::unique_ptr<Baresip> alice = Baresip::withPresence("alice", m_port, "");
    alice->command("presence_online");
    EXPECT_TRUE(bob->sees("Online")) << bob->said() << alice->said();
    kill();
    startEvents({});
    alice->command("presence_offline");
    EXPECT_TRUE(bob->sees("Offline")) << bob->said() << alice->said();
    alice->command("presence_online");
    EXPECT_TRUE(bob->sees("Online")) << bob->said() << alice->said();
}

} // namespace

} // namespace subscribeTest
