// PUBLISH requests and publications: what is sent for each, and what its rows mean.

#include "contract/ServiceFixture.h"
#include "support/FailingRandom.h"
#include "support/ShowPublications.h"

#include <dal/PresenceService.h>

#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

namespace publicationsTest {

namespace {

using fake::nothing;
using fake::refused;
using fake::rows;
using oryx::DatabaseResult;
using oryx::PublishAnswer;
using oryx::PublishOutcome;
using oryx::PublishRequest;

/// The entity tag that is given is TAG.
const std::string kPublish =
    "SELECT apply_publication('alice', 'oryx.example', 'presence', 'former', 'TAG', 1800, 'application/pidf+xml', '<p a=\"{}\"/>', 32)";
const std::string kLive =
    "SELECT publication.entity_tag, publication.expires - current_second(), publication.content_type, publication.body FROM public_address LEFT JOIN publication ON publication.public_address_id = public_address.public_address_id AND publication.event = 'presence' AND publication.expires > current_second() WHERE public_address.handle = 'alice' AND public_address.sip_domain = 'oryx.example' ORDER BY publication.modified, publication.first_tag";
const std::string kSweep = "SELECT * FROM remove_expired_publications()";

PublishRequest wholePublication()
{
    PublishRequest request;
    request.event = "presence";
    request.entityTag = "former";
    request.expires = 1800;
    request.contentType = "application/pidf+xml";
    request.body = R"(<p a="{}"/>)";
    request.maxPublications = 32;
    return request;
}

std::string tagless(const std::string& text)
{
    return std::regex_replace(text, std::regex("[0-9a-f]{32}"), "TAG");
}

class PublicationsTest : public ConnectedServiceTestOf<oryx::PresenceService> {
protected:
    std::string apply(const PublishRequest& request, const char* handle = "alice", const char* domain = "oryx.example")
    {
        m_answer = {PublishOutcome::done, "of an earlier request", 5};
        const DatabaseResult result = applyPublication(service, handle, domain, request, m_answer);
        return show(result) + "\n" + show(m_answer);
    }
    /// What a request answers that gets this reply.
    std::string answer(const fake::Reply& reply)
    {
        libpq.replies({reply});
        return apply(wholePublication());
    }
    std::string live()
    {
        const DatabaseResult result = livePublications(service, "alice", "oryx.example", "presence", m_live);
        return show(result) + "\n" + show(m_live);
    }

    PublishAnswer m_answer;
    std::vector<oryx::LivePublication> m_live;
};

TEST_F(PublicationsTest, ARequestIsOneStatement)
{
    EXPECT_EQ(answer(rows({{"done"}})), "okay\ndone, 1800 s, tag of 32");
    EXPECT_EQ(libpq.take(), "exec " + std::regex_replace(kPublish, std::regex("TAG"), m_answer.entityTag) + "\n");
    EXPECT_EQ(tagless(trace.take()), "oryx prn: " + kPublish + "\n" + answeredTrace(kPublish));
    const std::string first = m_answer.entityTag;
    EXPECT_EQ(answer(rows({{"done"}})), "okay\ndone, 1800 s, tag of 32");
    EXPECT_NE(m_answer.entityTag, first);
}

TEST_F(PublicationsTest, ARequestAnswersForTheSchemasWord)
{
    EXPECT_EQ(answer(rows({{"unknown"}})), "not found\nunknown presentity, 0 s, tag of 0");
    EXPECT_EQ(answer(rows({{"inactive"}})), "not found\ninactive, 0 s, tag of 0");
    EXPECT_EQ(answer(rows({{"unmatched"}})),
              "constraint error: no live publication has that entity tag\ncondition failed, 0 s, tag of 0");
    EXPECT_EQ(answer(rows({{"many"}})),
              "constraint error: there would be too many publications\ntoo many publications, 0 s, tag of 0");
    EXPECT_EQ(answer(rows({{"Done"}})),
              "query error: an answer to a publication that nobody knows: 'Done'\nfailed, 0 s, tag of 0");
    EXPECT_EQ(answer(fake::noRows(1)),
              "query error: an answer to a publication that nobody knows: ''\nfailed, 0 s, tag of 0");
}

TEST_F(PublicationsTest, ARequestIsSentAgainAfterALostConnectionAndFailsLikeEveryStatement)
{
    libpq.replies({nothing(), rows({{"done"}})});
    EXPECT_EQ(apply(wholePublication()), "okay\ndone, 1800 s, tag of 32");
    const std::string statement = std::regex_replace(kPublish, std::regex("TAG"), m_answer.entityTag);
    EXPECT_EQ(libpq.take(), "exec " + statement + "\nreset\nexec " + statement + "\n"); // by which it is known again
    libpq.replies({refused("42601"), refused("42601")});
    EXPECT_EQ(tagless(apply(wholePublication())),
              "query error: " + spliced(kRefused, kPublish) + "\nfailed, 0 s, tag of 0");
    libpq.take();
    loseForGood();
    EXPECT_EQ(apply(wholePublication()), "connection error: " + kServerGone + "\nfailed, 0 s, tag of 0");
    EXPECT_EQ(libpq.take(), "reset\n");
}

TEST_F(PublicationsTest, NothingIsSentForWhatIsNoRequest)
{
    const std::string failed = "\nfailed, 0 s, tag of 0";
    PublishRequest request = wholePublication();
    EXPECT_EQ(apply(request, nullptr), "query error: invalid parameters" + failed);
    EXPECT_EQ(apply(request, "alice", nullptr), "query error: invalid parameters" + failed);
    request.event.clear();
    EXPECT_EQ(apply(request), "query error: a publication without an event package" + failed);
    request = wholePublication();
    request.body.assign(oryx::kLongestPublication + 1, 'a');
    EXPECT_EQ(apply(request), "query error: a publication that is too long" + failed);
    request = wholePublication();
    request.entityTag.clear();
    request.expires = 0;
    EXPECT_EQ(apply(request), "query error: an initial publication of nothing" + failed);
    request.expires = 1800;
    request.body.clear();
    EXPECT_EQ(apply(request), "query error: an initial publication of nothing" + failed);
    {
        const NoRandomNumbers none;
        EXPECT_EQ(apply(wholePublication()), "query error: the system gives no random numbers" + failed);
    }
    EXPECT_EQ(show(livePublications(service, nullptr, "oryx.example", "presence", m_live)),
              "query error: invalid parameters");
    EXPECT_EQ(show(livePublications(service, "alice", nullptr, "presence", m_live)), "query error: invalid parameters");
    EXPECT_EQ(show(livePublications(service, "alice", "oryx.example", nullptr, m_live)),
              "query error: invalid parameters");
    EXPECT_EQ(libpq.take(), "");
}

TEST_F(PublicationsTest, WhatIsPublishedIsOneStatementAndReplacesWhatWasFound)
{
    libpq.replies({rows({{"tag", "60", "type", "<a/>"}, {"other", "4294967296", "type", "<b/>"}}),
                   rows({{std::nullopt, std::nullopt, std::nullopt, std::nullopt}}), fake::noRows(4)});
    EXPECT_EQ(live(), "okay\n<a/> (type) 60 s\n<b/> (type) 2147483647 s\n");
    EXPECT_EQ(m_live.front().entityTag, "tag");
    EXPECT_EQ(trace.take(), "oryx prn: " + kLive + "\n" + answeredTrace(kLive));
    const std::vector<oryx::LivePublication> before = m_live;
    EXPECT_EQ(live(), "okay\n");
    m_live = before;
    EXPECT_EQ(live(), "not found\n" + show(before));
    EXPECT_EQ(libpq.take(), sent({kLive, kLive, kLive}));
}

TEST_F(PublicationsTest, WhatHasExpiredIsOneStatementAndIsAppended)
{
    std::vector<oryx::ExpiredPublication> expired{{"first@oryx.example", "dialog"}};
    libpq.replies({rows({{"alice@oryx.example", "presence"}}), refused("42601"), refused("42601")});
    EXPECT_EQ(show(removeExpiredPublications(service, expired)), "okay");
    EXPECT_EQ(show(expired), "first@oryx.example dialog\nalice@oryx.example presence\n");
    EXPECT_EQ(libpq.take(), sent({kSweep}));
    EXPECT_EQ(show(removeExpiredPublications(service, expired)), "query error: " + spliced(kRefused, kSweep));
    EXPECT_EQ(expired.size(), 2U);
}

TEST(Publications, AskNothingOfAServiceThatWasNeverConnected)
{
    oryx::PresenceService service;
    PublishAnswer answer{PublishOutcome::done, "tag", 5};
    std::vector<oryx::LivePublication> live;
    std::vector<oryx::ExpiredPublication> expired;
    EXPECT_EQ(show(applyPublication(service, "alice", "oryx.example", wholePublication(), answer)) + "\n",
              kNeverConnected);
    EXPECT_EQ(show(answer), "failed, 0 s, tag of 0");
    EXPECT_EQ(show(livePublications(service, "alice", "oryx.example", "presence", live)) + "\n", kNeverConnected);
    EXPECT_EQ(show(removeExpiredPublications(service, expired)) + "\n", kNeverConnected);
}

} // namespace

} // namespace publicationsTest
