// Publications as telephones see them: RFC 3903 section 6, item by item, and what watchers are told then.

#include "sip/SipTest.h"

#include <chrono>
#include <cstdlib>
#include <optional>
#include <thread>

namespace publishTest {

namespace {

using phone::Message;
using phone::Phone;

const std::string kAlice = "sip:alice@oryx.example";

std::string pidf(const std::string& elements)
{
    return "<?xml version='1.0' encoding='UTF-8'?>\r\n<presence xmlns='urn:ietf:params:xml:ns:pidf' entity='" + kAlice +
           "'>\r\n" + elements + "\r\n</presence>\r\n";
}

std::string tuple(const std::string& id, const std::string& basic, const std::string& contact)
{
    return "<tuple id=\"" + id + "\"><status><basic>" + basic + "</basic></status><contact>" + contact +
           "</contact></tuple>";
}

/// What a NOTIFY has of these elements.
std::string composed(const std::string& elements)
{
    return R"(<?xml version="1.0" encoding="UTF-8"?>)"
           "\n"
           R"(<presence xmlns="urn:ietf:params:xml:ns:pidf" entity=")" +
           kAlice + "\">" + elements + "</presence>";
}

const std::string kOpen = tuple("t1", "open", "sip:alice@192.0.2.1");
const std::string kClosed = tuple("t1", "closed", "sip:alice@192.0.2.1");
const std::string kNobody = composed(R"(<tuple id="none"><status><basic>closed</basic></status></tuple>)");

class Publishing : public SipTest {
protected:
    void start(const std::vector<std::string>& options = {"--auth", "none"})
    {
        startEvents(options);
        m_alice.emplace("alice", "oryx.example", m_port);
    }
    /// A request with these elements; without a body if there are none.
    Message request(const std::string& elements, const std::string& tag = "", int expires = 3600)
    {
        Message message = m_alice->request("PUBLISH", kAlice);
        message.set("Contact", "").set("Event", "presence").set("Expires", std::to_string(expires));
        message.set("SIP-If-Match", tag);
        if (!elements.empty()) {
            message.set("Content-Type", "application/pidf+xml");
            message.body = pidf(elements);
        }
        return message;
    }
    Message ask(const Message& request) { return m_alice->ask(request); }
    std::string answer(const Message& request) { return status(ask(request)); }
    /// The answer to a request with that body, an initial one if there is no tag.
    std::string answerTo(const std::string& body, const std::string& tag = "")
    {
        Message message = request(kOpen, tag);
        message.body = body;
        return answer(message);
    }
    /// Publishes; the entity tag.
    std::string publish(const std::string& elements, const std::string& tag = "", int expires = 3600)
    {
        const Message given = ask(request(elements, tag, expires));
        EXPECT_EQ(status(given), "200 OK");
        return given.field("SIP-ETag");
    }
    /// What somebody who looks is told.
    std::string seen()
    {
        Phone watcher("alice", "oryx.example", m_port);
        watcher.send(watcher.request("SUBSCRIBE", kAlice).set("Event", "presence").set("Expires", "0"));
        std::string body = "nothing";
        for (int messages = 0; messages < 2; ++messages) {
            const Message message = watcher.receive();
            if (message.method() == "NOTIFY") {
                watcher.send(watcher.response(message, 200, "OK"));
                body = message.body;
            }
        }
        return body;
    }
    std::string stored() { return rows("SELECT count(*) FROM publication WHERE body <> ''"); }

    std::optional<Phone> m_alice;
};

/// RFC 3903 section 6, item 6.
TEST_F(Publishing, GivesAnEntityTagAndTheTimeGranted)
{
    start();
    EXPECT_EQ(seen(), kNobody);
    const Message given = ask(request(kOpen, "", 600));
    EXPECT_EQ(status(given), "200 OK");
    EXPECT_EQ(given.field("Expires"), "600");
    EXPECT_EQ(given.field("SIP-ETag").size(), 32U);
    EXPECT_EQ(seen(), composed(kOpen));
}

/// RFC 3903 sections 4.3 to 4.5.
TEST_F(Publishing, IsRefreshedModifiedAndRemovedByItsTag)
{
    start();
    const std::string first = publish(kOpen);
    const std::string second = publish("", first);
    EXPECT_NE(first, second);
    EXPECT_EQ(seen(), composed(kOpen));
    const std::string third = publish(kClosed, second, 600);
    EXPECT_EQ(seen(), composed(kClosed));
    const Message removed = ask(request("", third, 0));
    EXPECT_EQ(status(removed), "200 OK");
    EXPECT_EQ(removed.field("Expires"), "0");
    EXPECT_EQ(seen(), kNobody);
    for (const std::string& old : {first, second, third, removed.field("SIP-ETag")}) {
        EXPECT_EQ(answer(request("", old)), "412 Conditional Request Failed");
    }
}

/// RFC 3903 section 6 has item 3 before items 4 and 5; what needs no statement is refused without one.
TEST_F(Publishing, IsJudgedByItsConditionLast)
{
    start({"--auth", "none", "--min-expires", "60"});
    EXPECT_EQ(answer(request("", "other")), "412 Conditional Request Failed");
    EXPECT_EQ(answer(request("", "other", 59)), "423 Interval Too Brief");
    EXPECT_EQ(answer(request(kOpen, "other").set("Content-Type", "text/plain")), "415 Unsupported Media Type");
    EXPECT_EQ(answerTo("<presence>", "other"), "400 Bad Request");
    EXPECT_EQ(answerTo(std::string(20000, ' '), "other"), "413 Request Entity Too Large");
}

/// RFC 6665 section 4.2.2.
TEST_F(Publishing, IsToldToWatchersAtOnce)
{
    start();
    Phone watcher("alice", "oryx.example", m_port);
    const auto notified = [&] {
        Message message = watcher.receive();
        while (message.method() != "NOTIFY") {
            message = watcher.receive();
        }
        watcher.send(watcher.response(message, 200, "OK"));
        return message.body;
    };
    watcher.send(watcher.request("SUBSCRIBE", kAlice).set("Event", "presence").set("Expires", "600"));
    EXPECT_EQ(notified(), kNobody);
    const std::string tag = publish(kOpen);
    EXPECT_EQ(notified(), composed(kOpen));
    const std::string next = publish(kClosed, tag);
    EXPECT_EQ(notified(), composed(kClosed));
    const std::string refreshed = publish("", next);
    EXPECT_TRUE(watcher.socket().silent()); // nothing has changed
    publish("", refreshed, 0);
    EXPECT_EQ(notified(), kNobody);
}

/// Item 4.
TEST_F(Publishing, TakesTheExpiryAskedForWithinBounds)
{
    start({"--auth", "none", "--min-expires", "30", "--max-expires", "5000", "--default-expires", "300"});
    const Message brief = ask(request(kOpen, "", 29));
    EXPECT_EQ(status(brief), "423 Interval Too Brief");
    EXPECT_EQ(brief.field("Min-Expires"), "30");
    EXPECT_EQ(ask(request(kOpen, "", 30)).field("Expires"), "30");
    EXPECT_EQ(ask(request(kOpen, "", 6000)).field("Expires"), "5000");
    EXPECT_EQ(ask(request(kOpen).set("Expires", "")).field("Expires"), "300");
    EXPECT_EQ(rows("SELECT expires - current_second() > 4990 FROM publication ORDER BY expires DESC LIMIT 1"), "t\n");
}

/// RFC 3903 section 4.3: what is not refreshed is over.
TEST_F(Publishing, EndsWhenItExpires)
{
    start({"--auth", "none", "--min-expires", "1"});
    const std::string tag = publish(kOpen, "", 4); // the clock's seconds: more than three
    const auto published = std::chrono::steady_clock::now();
    EXPECT_EQ(seen(), composed(kOpen));
    std::this_thread::sleep_until(published + std::chrono::milliseconds(4100));
    EXPECT_EQ(seen(), kNobody);
    EXPECT_EQ(answer(request("", tag)), "412 Conditional Request Failed");
}

/// Item 1.
TEST_F(Publishing, IsForAddressesThatAreProvisioned)
{
    start();
    const auto asked = [&](const std::string& user, const std::string& domain) {
        Phone phone(user, domain, m_port);
        Message message = phone.request("PUBLISH", phone.address());
        message.set("Event", "presence").set("Content-Type", "application/pidf+xml").body = pidf(kOpen);
        return status(phone.ask(message));
    };
    EXPECT_EQ(asked("nobody", "oryx.example"), "404 Not Found");
    EXPECT_EQ(asked("alice", "elsewhere.example"), "404 Not Found");
    EXPECT_EQ(asked("carol", "oryx.example"), "403 Forbidden"); // inactive
    EXPECT_EQ(asked("ALICE", "Oryx.Example"), "200 OK");
    EXPECT_EQ(stored(), "1\n");
}

/// Item 2.
TEST_F(Publishing, IsOfThePackagePresence)
{
    start();
    for (const char* const event : {"dialog", "presence.winfo", "Presence", ""}) {
        const Message refused = ask(request(kOpen).set("Event", event));
        EXPECT_EQ(status(refused), "489 Bad Event") << event;
        EXPECT_EQ(refused.field("Allow-Events"), "presence");
    }
    EXPECT_EQ(answer(request(kOpen).set("Event", "presence;id=1")), "200 OK");
}

/// RFC 3261 section 8.2.2.1.
TEST_F(Publishing, RefusesUrisThatItDoesNotServe)
{
    start();
    for (const std::string uri : {"sips:alice@oryx.example", "sips:alice@elsewhere.example", "tel:1001"}) {
        Message message = request(kOpen);
        message.first = "PUBLISH " + uri + " SIP/2.0";
        EXPECT_EQ(answer(message), "416 Unsupported URI Scheme") << uri;
    }
    EXPECT_EQ(stored(), "0\n");
}

/// RFC 3261 section 8.2.2.3.
TEST_F(Publishing, RefusesExtensionsThatItDoesNotKnow)
{
    start();
    const Message refused = ask(request(kOpen).add("Require", "gruu"));
    EXPECT_EQ(status(refused), "420 Bad Extension");
    EXPECT_EQ(refused.field("Unsupported"), "gruu");
}

/// Item 3.
TEST_F(Publishing, HasTheConditionThatItsTagIsKnown)
{
    start();
    EXPECT_EQ(answer(request(kOpen, "unknown")), "412 Conditional Request Failed");
    EXPECT_EQ(answer(request("", "unknown", 0)), "412 Conditional Request Failed");
    EXPECT_EQ(answer(request("", std::string(2000, 'x'))), "400 Bad Request");
    EXPECT_EQ(stored(), "0\n");
}

/// Item 5.
TEST_F(Publishing, TakesPidfAlone)
{
    start();
    for (const char* const type : {"text/plain", "application/pidf-diff+xml", "application/xpidf+xml", ""}) {
        const Message refused = ask(request(kOpen).set("Content-Type", type));
        EXPECT_EQ(status(refused), "415 Unsupported Media Type") << type;
        EXPECT_EQ(refused.field("Accept"), "application/pidf+xml");
    }
    EXPECT_EQ(answer(request(kOpen).set("Content-Encoding", "gzip")), "415 Unsupported Media Type");
    EXPECT_EQ(answer(request(kOpen).set("Content-Type", "Application/PIDF+xml;charset=utf-8")), "200 OK");
}

/// RFC 3903 section 4: at first there is a body.
TEST_F(Publishing, NeedsSomethingToPublish)
{
    start();
    EXPECT_EQ(answer(request("")), "400 Bad Request");
    EXPECT_EQ(answer(request(kOpen, "", 0)), "400 Bad Request");
    EXPECT_EQ(stored(), "0\n");
}

/// Item 5.
TEST_F(Publishing, RefusesABrokenOrHostileBodyAndServesTheNext)
{
    start();
    const std::string bomb = "<!DOCTYPE presence [<!ENTITY a \"aaaaaaaaaa\"><!ENTITY b \"&a;&a;&a;&a;&a;&a;&a;&a;\">"
                             "<!ENTITY c \"&b;&b;&b;&b;&b;&b;&b;&b;\">]>";
    for (const std::string& body :
         {std::string("not a document"), std::string("<presence"), pidf("<tuple>"), pidf("<tuple/>"),
          std::string(R"(<presence xmlns="urn:example:other"/>)"), std::string("<!DOCTYPE presence>") + pidf(kOpen),
          std::string(R"(<!DOCTYPE presence SYSTEM "file:///etc/passwd">)") + pidf(kOpen),
          bomb + pidf("<note>&c;</note>").substr(40), pidf(std::string("a\x01") + "b"), pidf("\xFF\xFE"),
          pidf(std::string("a\0b", 3)), pidf(std::string(5000, '<'))}) {
        EXPECT_EQ(answerTo(body), "400 Bad Request") << body;
    }
    std::string deep;
    for (int n = 0; n < 4000; ++n) {
        deep += "<x>";
    }
    EXPECT_EQ(answerTo(pidf(deep)), "400 Bad Request");
    EXPECT_EQ(stored(), "0\n");
    publish(kOpen);
    EXPECT_EQ(seen(), composed(kOpen));
}

/// RFC 3261 section 21.4.11.
TEST_F(Publishing, RefusesWhatIsTooLong)
{
    start();
    EXPECT_EQ(answerTo(pidf("<note>" + std::string(16384, 'a') + "</note>")), "413 Request Entity Too Large");
    EXPECT_EQ(answerTo(pidf("<note>a" + std::string(15000, '\n') + "</note>")), "413 Request Entity Too Large");
    EXPECT_EQ(answerTo(pidf("<note>" + std::string(15000, 'a') + "</note>")), "200 OK");
}

/// A text of whatever kind means itself, however statements are sent.
TEST_F(Publishing, TakesEveryTextForWhatItIs)
{
    const std::string text = "o'hara; \\ $1 {} %s \xC3\xA9\xE2\x98\x8E -- \"&lt;&amp;";
    for (const char* const statements : {"plain", "bound"}) {
        setenv("ORYX_STATEMENTS", statements, 1);
        start();
        const std::string tag = publish("<note>" + text + "</note>");
        EXPECT_EQ(seen(), composed("<note>" + text + "</note>"));
        publish("", tag, 0);
        EXPECT_EQ(stop(), 0);
    }
    unsetenv("ORYX_STATEMENTS");
}

/// Section 14.1.
TEST_F(Publishing, IsThePresentitysOwnBusiness)
{
    start();
    Phone bob("bob", "oryx.example", m_port);
    Message forged = bob.request("PUBLISH", kAlice);
    forged.set("Event", "presence").set("Content-Type", "application/pidf+xml").body = pidf(kOpen);
    EXPECT_EQ(status(bob.ask(forged)), "403 Forbidden");
    EXPECT_EQ(stored(), "0\n");
}

/// RFC 3261 section 22, RFC 8760.
TEST_F(Publishing, NeedsAProof)
{
    start({});
    const Message challenged = ask(request(kOpen));
    EXPECT_EQ(challenged.status(), 401);
    EXPECT_EQ(challenged.parameter("WWW-Authenticate", "realm"), "oryx.example");
    EXPECT_EQ(status(m_alice->ask(request(kOpen), "wrong")), "401 Unauthorized");
    EXPECT_EQ(status(m_alice->ask(request(kOpen), "alice", "SHA-256")), "200 OK");
    EXPECT_EQ(status(m_alice->ask(request(kOpen), "alice")), "200 OK");
    // Somebody else's credentials, though right, are not hers.
    Phone bob("bob", "oryx.example", m_port);
    Message forged = bob.request("PUBLISH", kAlice);
    forged.set("From", "<" + kAlice + ">;tag=forged").set("Event", "presence");
    forged.set("Content-Type", "application/pidf+xml").body = pidf(kOpen);
    EXPECT_EQ(status(bob.ask(forged, "wrong")), "401 Unauthorized");
    EXPECT_EQ(status(bob.ask(forged, "bob")), "403 Forbidden");
    Phone carol("carol", "oryx.example", m_port);
    Message inactive = carol.request("PUBLISH", carol.address());
    inactive.set("Event", "presence").set("Content-Type", "application/pidf+xml").body = pidf(kOpen);
    EXPECT_EQ(status(carol.ask(inactive, "carol")), "403 Forbidden");
    EXPECT_EQ(stored(), "2\n");
}

/// RFC 3261 section 21.5.4.
TEST_F(Publishing, IsPutOffWhileTheDatabaseDoesNotAnswer)
{
    start();
    server::Session holder(m_database.name());
    holder.run("BEGIN; LOCK TABLE publication IN ACCESS EXCLUSIVE MODE");
    const Message refused = ask(request(kOpen));
    EXPECT_EQ(status(refused), "503 Service Unavailable");
    EXPECT_NE(refused.field("Retry-After"), "");
    holder.run("COMMIT");
    EXPECT_EQ(answer(request(kOpen)), "200 OK");
}

TEST_F(Publishing, IsComposedOfAllSources)
{
    start();
    const std::string other = tuple("t1", "closed", "sip:alice@192.0.2.2");
    const std::string renamed = tuple("t1-2", "closed", "sip:alice@192.0.2.2");
    const std::string first = publish(kOpen + "<note>at home</note>");
    const std::string second = publish(other);
    EXPECT_EQ(seen(), composed(kOpen + renamed + "<note>at home</note>"));
    // A telephone that has forgotten its tag publishes anew.
    publish(kClosed);
    EXPECT_EQ(seen(), composed(renamed + kClosed + "<note>at home</note>"));
    publish("", second, 0);
    EXPECT_EQ(seen(), composed(kClosed + "<note>at home</note>"));
}

/// RFC 3903 section 14.2.
TEST_F(Publishing, LimitsWhatOnePresentityPublishes)
{
    start();
    for (int n = 0; n < 32; ++n) {
        ASSERT_EQ(answer(request(kOpen)), "200 OK");
    }
    EXPECT_EQ(answer(request(kOpen)), "403 Forbidden");
}

TEST_F(Publishing, OutlivesTheServer)
{
    start();
    const std::string tag = publish(kOpen);
    EXPECT_EQ(stop(), 0);
    start();
    EXPECT_EQ(seen(), composed(kOpen));
    EXPECT_EQ(answer(request(kClosed, tag)), "200 OK");
    EXPECT_EQ(seen(), composed(kClosed));
}

} // namespace

} // namespace publishTest
