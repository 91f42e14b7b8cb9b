// Bindings that have expired: what is sent to remove some, and what its rows mean.

#include "contract/ServiceFixture.h"

#include <dal/ExpiredBindings.h>
#include <dal/PresenceService.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace expiredBindingsTest {

namespace {

using fake::refused;
using fake::rows;
using oryx::ExtendedContactRecord;

const std::string kRemoval =
    "WITH gone AS (DELETE FROM contact WHERE contact_id = ANY (ARRAY(SELECT contact_id FROM contact WHERE NOT permanent AND expires < (SELECT current_second()) LIMIT 5000 FOR UPDATE SKIP LOCKED)) RETURNING csid, contact_header, expires, call_id, cseq) SELECT public_address_id, contact_header, expires, call_id, cseq, handle, sip_domain FROM gone, public_address WHERE public_address.csid = gone.csid";

class ExpiredBindingsTest : public ConnectedServiceTestOf<oryx::PresenceService> {
protected:
    std::string remove() { return show(removeExpiredBindings(service, m_removed)); }

    std::vector<ExtendedContactRecord> m_removed;
};

TEST_F(ExpiredBindingsTest, AreRemovedByOneStatementAndAppended)
{
    ExtendedContactRecord before;
    before.setHandle("before");
    m_removed.push_back(before);
    libpq.replies({rows({{"34", "<sip:alice@198.51.100.3>;q=0.7", "1600000000", "cid@198.51.100.3", "17", "alice",
                          "oryx.example"}}),
                   fake::noRows(7)});
    EXPECT_EQ(remove(), "okay");
    const std::string both =
        show(before) +
        "of 'alice'@'oryx.example' sid=34 oid=0 contact -1 '' csid=-1 q='' expires=1600000000 permanent='f' capabilities='' header='<sip:alice@198.51.100.3>;q=0.7' call='cid@198.51.100.3' cseq=17 type='' path=''\n";
    EXPECT_EQ(show(m_removed), both);
    EXPECT_EQ(remove(), "okay");
    EXPECT_EQ(show(m_removed), both);
    EXPECT_EQ(libpq.take(), sent({kRemoval, kRemoval}));
}

TEST_F(ExpiredBindingsTest, StayWhereTheirRemovalIsRefusedOrLost)
{
    libpq.replies({refused("42601"), refused("42601")});
    EXPECT_EQ(remove(), "query error: " + spliced(kRefused, kRemoval));
    libpq.take();
    loseForGood();
    EXPECT_EQ(remove(), "connection error: " + kServerGone);
    EXPECT_EQ(libpq.take(), "reset\n");
    EXPECT_EQ(show(m_removed), "");
}

TEST(ExpiredBindings, AreNotSoughtByAServiceThatWasNeverConnected)
{
    oryx::PresenceService service;
    std::vector<ExtendedContactRecord> removed;
    EXPECT_EQ(show(removeExpiredBindings(service, removed)) + "\n", kNeverConnected);
}

} // namespace

} // namespace expiredBindingsTest
