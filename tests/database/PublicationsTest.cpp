// PUBLISH requests, and what is published then.

#include "support/DatabaseTest.h"
#include "support/Proxy.h"
#include "support/ShowPublications.h"

#include <dal/PresenceService.h>
#include <dal/Publications.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <future>
#include <string>
#include <thread>
#include <vector>

namespace publicationsTest {

namespace {

using oryx::PublishAnswer;
using oryx::PublishRequest;
using server::Proxy;

const std::string kDone = "okay, done";
const std::string kUnmatched = "constraint error: no live publication has that entity tag, condition failed";
const std::string kMany = "constraint error: there would be too many publications, too many publications";
const std::string kUnknown = "not found, unknown presentity";

PublishRequest initial(const std::string& body, std::uint32_t expires = 3600)
{
    PublishRequest request;
    request.event = "presence";
    request.expires = expires;
    request.contentType = "application/pidf+xml";
    request.body = body;
    return request;
}

PublishRequest later(const std::string& tag, const std::string& body = "", std::uint32_t expires = 3600)
{
    PublishRequest request = initial(body, expires);
    request.entityTag = tag;
    return request;
}

/// An event server with answers as a test reads them.
struct EventServer {
    oryx::PresenceService service;
    std::string tag; // of the last request that was done

    void connect(const std::string& uri)
    {
        ASSERT_TRUE(service.connect(uri.c_str(), server::kUser, server::kPassword).okay());
    }

    std::string apply(const PublishRequest& request, const char* handle = "alice", const char* domain = "oryx.example")
    {
        PublishAnswer answer;
        const oryx::DatabaseResult result = applyPublication(service, handle, domain, request, answer);
        const bool done = answer.outcome == oryx::PublishOutcome::done;
        EXPECT_EQ(answer.entityTag.size(), done ? 32U : 0U);
        EXPECT_EQ(answer.expires, done ? request.expires : 0U);
        tag = done ? answer.entityTag : tag;
        return outcome(result) + ", " + oryx::show(answer.outcome);
    }
    /// The tag of a publication that is new.
    std::string publish(const std::string& body, std::uint32_t expires = 3600)
    {
        EXPECT_EQ(apply(initial(body, expires)), kDone);
        return tag;
    }
    std::string live(const char* handle = "alice", const char* event = "presence")
    {
        std::vector<oryx::LivePublication> found(1); // of an earlier call
        const oryx::DatabaseResult result = livePublications(service, handle, "oryx.example", event, found);
        return result.okay() ? oryx::show(found) : outcome(result);
    }
    std::string removeExpired()
    {
        std::vector<oryx::ExpiredPublication> expired;
        const oryx::DatabaseResult result = removeExpiredPublications(service, expired);
        return result.okay() ? oryx::show(expired) : outcome(result);
    }
};

std::string shown(const std::string& body, int seconds = 3600)
{
    return body + " (application/pidf+xml) " + std::to_string(seconds) + " s\n";
}

class Publications : public DatabaseTest {
protected:
    void SetUp() override
    {
        provisionAlice();
        setSecond(1000000);
        m_server.connect(m_database.uri());
        m_other.connect(m_database.uri());
    }

    /// The database's clock stands still at that second.
    void setSecond(long second)
    {
        sql("CREATE OR REPLACE FUNCTION current_second() RETURNS bigint LANGUAGE sql STABLE RETURN " +
            std::to_string(second) + "::bigint");
    }
    std::string stored() { return rows("SELECT event, presentity, expires, body FROM publication ORDER BY modified"); }
    /// The presentities of the changes that are logged, in order.
    std::string logged() { return rows("SELECT pk_char FROM event_notify WHERE table_name = 'publication'"); }

    EventServer m_server;
    EventServer m_other;
};

TEST_F(Publications, AreStoredAndGivenBackWithTheLatestLast)
{
    EXPECT_EQ(m_server.live(), "");
    PublishRequest dialogs = initial("<dialog/>");
    dialogs.event = "dialog";
    dialogs.contentType = "application/dialog-info+xml";
    EXPECT_EQ(m_server.apply(dialogs), kDone);
    const std::string first = m_server.publish("<a/>");
    const std::string second = m_other.publish("<b/>", 600);
    EXPECT_NE(first, second);
    EXPECT_EQ(stored(), "dialog|alice@oryx.example|1003600|<dialog/>\npresence|alice@oryx.example|1003600|<a/>\n"
                        "presence|alice@oryx.example|1000600|<b/>\n");
    EXPECT_EQ(m_server.live(), shown("<a/>") + shown("<b/>", 600));
    EXPECT_EQ(m_server.live("alice", "dialog"), "<dialog/> (application/dialog-info+xml) 3600 s\n");
    EXPECT_EQ(m_server.apply(later(first, "<c/>")), kDone);
    EXPECT_EQ(m_server.live(), shown("<b/>", 600) + shown("<c/>"));
}

TEST_F(Publications, AreKnownByTheirEntityTag)
{
    const std::string tag = m_server.publish("<a/>");
    std::vector<oryx::LivePublication> found;
    EXPECT_EQ(outcome(livePublications(m_server.service, "alice", "oryx.example", "presence", found)), "okay");
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found.front().entityTag, tag);
}

TEST_F(Publications, LastLongerWhenTheyAreRefreshedAndGetANewTag)
{
    const std::string tag = m_server.publish("<a/>", 60);
    m_server.publish("<b/>");
    setSecond(1000059);
    EXPECT_EQ(m_server.apply(later(tag, "", 600)), kDone);
    EXPECT_NE(m_server.tag, tag);
    EXPECT_EQ(m_server.live(), shown("<a/>", 600) + shown("<b/>", 3541)); // in their order
    EXPECT_EQ(m_server.apply(later(tag)), kUnmatched);
    EXPECT_EQ(m_server.apply(later(m_server.tag, "<c/>", 60)), kDone);
    EXPECT_EQ(m_server.live(), shown("<b/>", 3541) + shown("<c/>", 60));
}

TEST_F(Publications, AreGoneWhenTheyAreRemoved)
{
    m_server.publish("<a/>");
    const std::string tag = m_server.publish("<b/>");
    EXPECT_EQ(m_server.apply(later(tag, "<ignored/>", 0)), kDone);
    EXPECT_EQ(m_server.live(), shown("<a/>"));
    EXPECT_EQ(m_server.apply(later(tag)), kUnmatched);
    EXPECT_EQ(m_server.apply(later(m_server.tag)), kUnmatched);
}

TEST_F(Publications, EndWhenTheyExpire)
{
    const std::string tag = m_server.publish("<a/>", 60);
    setSecond(1000059);
    EXPECT_EQ(m_server.live(), shown("<a/>", 1));
    setSecond(1000060);
    EXPECT_EQ(m_server.live(), "");
    EXPECT_EQ(m_server.apply(later(tag)), kUnmatched);
}

TEST_F(Publications, AreConditionalOnPresentityAndPackage)
{
    sql("INSERT INTO public_address (handle, sip_domain, csid) VALUES ('bob', 'oryx.example', NULL)");
    const std::string tag = m_server.publish("<a/>");
    EXPECT_EQ(m_server.apply(later(tag), "bob"), kUnmatched);
    PublishRequest dialogs = later(tag);
    dialogs.event = "dialog";
    EXPECT_EQ(m_server.apply(dialogs), kUnmatched);
    EXPECT_EQ(m_server.apply(later(tag + "0")), kUnmatched);
    EXPECT_EQ(m_server.apply(initial("<b/>"), "bob"), kDone);
    EXPECT_EQ(m_server.live("bob"), shown("<b/>"));
    EXPECT_EQ(m_server.live(), shown("<a/>"));
}

TEST_F(Publications, TellAnUnknownAddressAndAnInactiveSubscriberApart)
{
    EXPECT_EQ(m_server.apply(initial("<a/>"), "nobody"), kUnknown);
    EXPECT_EQ(m_server.apply(initial("<a/>"), "alice", "elsewhere.example"), kUnknown);
    EXPECT_EQ(m_server.live("nobody"), "not found");
    sql("UPDATE subscriber SET active = false");
    EXPECT_EQ(m_server.apply(initial("<a/>")), "not found, inactive");
    EXPECT_EQ(stored(), "");
}

TEST_F(Publications, OfAnAddressThatWasMadeAnewAreNotThoseOfTheFormerOne)
{
    const std::string tag = m_server.publish("<a/>");
    sql("DELETE FROM public_address WHERE handle = 'alice'");
    EXPECT_EQ(m_server.live(), "not found");
    sql("INSERT INTO public_address (handle, sip_domain, csid) VALUES ('alice', 'oryx.example', 12)");
    EXPECT_EQ(m_server.live(), "");
    EXPECT_EQ(m_server.apply(later(tag)), kUnmatched);
}

TEST_F(Publications, AreRefusedWhereThereWouldBeTooMany)
{
    PublishRequest limited = initial("<a/>", 60);
    limited.maxPublications = 2;
    EXPECT_EQ(m_server.apply(limited), kDone);
    EXPECT_EQ(m_server.apply(limited), kDone);
    EXPECT_EQ(m_server.apply(limited), kMany);
    PublishRequest refresh = later(m_server.tag);
    refresh.maxPublications = 2;
    EXPECT_EQ(m_server.apply(refresh), kDone);
    limited.event = "dialog";
    EXPECT_EQ(m_server.apply(limited), kDone);
    limited.event = "presence";
    setSecond(1000060);
    EXPECT_EQ(m_server.apply(limited), kDone);
    EXPECT_EQ(m_server.apply(limited), kMany);
    EXPECT_EQ(m_server.apply(initial("<b/>")), kDone);
}

TEST_F(Publications, AreAQueryErrorWhereTheRequestIsNone)
{
    EXPECT_EQ(m_server.apply(initial("")), "query error: an initial publication of nothing, failed");
    EXPECT_EQ(m_server.apply(initial("<a/>", 0)), "query error: an initial publication of nothing, failed");
    EXPECT_EQ(m_server.apply(PublishRequest()), "query error: a publication without an event package, failed");
    EXPECT_EQ(m_server.apply(initial(std::string(oryx::kLongestPublication + 1, 'a'))),
              "query error: a publication that is too long, failed");
    EXPECT_EQ(m_server.apply(initial(std::string(oryx::kLongestPublication, 'a'))), kDone);
    EXPECT_EQ(m_server.apply(initial("<a/>"), nullptr), "query error: invalid parameters, failed");
    EXPECT_EQ(m_server.apply(initial("<a/>"), "alice", nullptr), "query error: invalid parameters, failed");
    EXPECT_EQ(m_server.live(nullptr), "query error: invalid parameters");
    EXPECT_EQ(m_server.live("alice", nullptr), "query error: invalid parameters");
    EventServer unconnected;
    EXPECT_EQ(unconnected.apply(initial("<a/>")),
              "connection error: lookup attempted without a database connection, failed");
    EXPECT_EQ(unconnected.live(), "connection error: lookup attempted without a database connection");
    EXPECT_EQ(unconnected.removeExpired(), "connection error: lookup attempted without a database connection");
}

TEST_F(Publications, TakeEveryTextForWhatItIs)
{
    const std::string hostile = R"(<a b="{},%s%_NULL;$1--\">)";
    const std::string tag = m_server.publish(hostile);
    EXPECT_EQ(m_server.live(), shown(hostile));
    EXPECT_EQ(m_server.apply(later(kQuoted)), plainOrBound("query error: " + kBroken + ", failed", kUnmatched));
}

TEST_F(Publications, AreAnnouncedAndLoggedUnlessTheyAreOnlyRefreshed)
{
    const std::string alice = "alice@oryx.example\n";
    sql("LISTEN publication");
    const std::string tag = m_server.publish("<a/>");
    EXPECT_EQ(logged(), alice);
    EXPECT_EQ(m_server.apply(later(tag)), kDone);
    EXPECT_EQ(m_server.apply(later(m_server.tag, "<a/>")), kDone);
    EXPECT_EQ(logged(), alice); // nobody would see a difference
    EXPECT_EQ(m_server.apply(later(m_server.tag, "<b/>")), kDone);
    EXPECT_EQ(logged(), alice + alice);
    EXPECT_EQ(m_server.apply(later(m_server.tag, "", 0)), kDone);
    EXPECT_EQ(logged(), alice + alice + alice);
    EXPECT_EQ(m_server.apply(later(tag, "<c/>")), kUnmatched);
    setSecond(1000060);
    EXPECT_EQ(m_server.removeExpired(), "");
    EXPECT_EQ(stored(), "");
    EXPECT_EQ(logged(), alice + alice + alice); // whose end was told
    m_server.publish("<d/>", 60);
    setSecond(1000120);
    EXPECT_EQ(m_server.removeExpired(), "alice@oryx.example presence\n");
    EXPECT_EQ(logged(), alice + alice + alice + alice + alice);
    m_server.publish("<e/>");
    sql("TRUNCATE publication");
    EXPECT_EQ(logged(), alice + alice + alice + alice + alice + alice + alice);
}

TEST_F(Publications, ThatHaveExpiredAreRemovedAndTheirPresentitiesNamedOnce)
{
    m_server.publish("<a/>", 60);
    m_server.publish("<b/>", 60);
    m_server.publish("<c/>", 61);
    PublishRequest dialogs = initial("<dialog/>", 60);
    dialogs.event = "dialog";
    EXPECT_EQ(m_server.apply(dialogs), kDone);
    EXPECT_EQ(m_server.removeExpired(), "");
    setSecond(1000060);
    sql("BEGIN; SELECT FROM publication WHERE body = '<b/>' FOR UPDATE");
    EXPECT_EQ(m_server.removeExpired(), "alice@oryx.example dialog\nalice@oryx.example presence\n"); // without waiting
    sql("COMMIT");
    EXPECT_EQ(m_other.removeExpired(), "alice@oryx.example presence\n");
    EXPECT_EQ(stored(), "presence|alice@oryx.example|1000061|<c/>\n");
}

TEST_F(Publications, AreModifiedByOneOfTwoServersThatDoItAtOnce)
{
    const std::string tag = m_server.publish("<a/>");
    for (int round = 0; round < 20; ++round) {
        auto first = std::async(std::launch::async, [&] { return m_server.apply(later(tag, "<b/>")); });
        auto second = std::async(std::launch::async, [&] { return m_other.apply(later(tag, "<c/>")); });
        std::vector<std::string> answers{first.get(), second.get()};
        std::sort(answers.begin(), answers.end());
        EXPECT_EQ(answers, (std::vector<std::string>{kUnmatched, kDone}));
        sql("UPDATE publication SET entity_tag = '" + tag + "'");
    }
}

TEST_F(Publications, AreLimitedForTwoServersAtOnceToo)
{
    PublishRequest limited = initial("<a/>");
    limited.maxPublications = 1;
    for (int round = 0; round < 20; ++round) {
        auto first = std::async(std::launch::async, [&] { return m_server.apply(limited); });
        auto second = std::async(std::launch::async, [&] { return m_other.apply(limited); });
        std::vector<std::string> answers{first.get(), second.get()};
        std::sort(answers.begin(), answers.end());
        EXPECT_EQ(answers, (std::vector<std::string>{kMany, kDone}));
        sql("DELETE FROM publication");
    }
}

/// One of the servers loses connections.
class PublicationsThroughProxy : public Publications {
protected:
    void SetUp() override
    {
        Publications::SetUp();
        setenv("PGPORT", m_proxy.port().c_str(), 1);
        m_losing.connect(m_database.uri());
    }

    Proxy m_proxy;
    EventServer m_losing;
};

TEST_F(PublicationsThroughProxy, AreAnsweredAsTheFirstTimeWhereTheAnswerWasLost)
{
    m_proxy.lose({Proxy::Loss::answer});
    EXPECT_EQ(m_losing.apply(initial("<a/>")), kDone);
    EXPECT_EQ(stored(), "presence|alice@oryx.example|1003600|<a/>\n");
    m_proxy.lose({Proxy::Loss::answer});
    EXPECT_EQ(m_losing.apply(later(m_losing.tag, "<b/>", 60)), kDone);
    EXPECT_EQ(m_losing.live(), shown("<b/>", 60));
    m_proxy.lose({Proxy::Loss::answer});
    EXPECT_EQ(m_losing.apply(later(m_losing.tag)), kDone);
    m_proxy.lose({Proxy::Loss::answer});
    EXPECT_EQ(m_losing.apply(later(m_losing.tag, "", 0)), kDone);
    EXPECT_EQ(m_losing.live(), "");
}

TEST_F(PublicationsThroughProxy, AreLimitedWithoutCountingTheFirstSending)
{
    PublishRequest limited = initial("<a/>");
    limited.maxPublications = 1;
    m_proxy.lose({Proxy::Loss::answer});
    EXPECT_EQ(m_losing.apply(limited), kDone);
    EXPECT_EQ(m_losing.apply(limited), kMany);
}

} // namespace

} // namespace publicationsTest
