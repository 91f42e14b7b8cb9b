// Bindings that have expired, removed in pieces.

#include "support/DatabaseTest.h"
#include "support/Show.h"

#include <dal/ExpiredBindings.h>
#include <dal/PresenceService.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace expiredBindingsTest {

namespace {

using oryx::ExtendedContactRecord;

class ExpiredBindings : public DatabaseTest {
protected:
    void SetUp() override
    {
        provisionAlice();
        ASSERT_TRUE(m_service.connect(m_database.uri().c_str(), server::kUser, server::kPassword).okay());
    }

    /// What was removed, a line for each, in the order of their text.
    std::string removed()
    {
        std::vector<ExtendedContactRecord> records;
        const oryx::DatabaseResult result = removeExpiredBindings(m_service, records);
        std::sort(records.begin(), records.end(), [](const auto& a, const auto& b) { return show(a) < show(b); });
        return outcome(result) + "\n" + show(records);
    }
    std::size_t countRemoved()
    {
        std::vector<ExtendedContactRecord> records;
        EXPECT_EQ(outcome(removeExpiredBindings(m_service, records)), "okay");
        return records.size();
    }
    /// A contact that expired in 2001, unless told otherwise.
    void add(const std::string& user, const std::string& expires = "1000000000", const std::string& permanent = "false",
             int csid = 12)
    {
        sql("INSERT INTO contact (csid, address, contact_header, expires, call_id, cseq, permanent) VALUES (" +
            std::to_string(csid) + ", 'sip:" + user + "', '<sip:" + user + ">', " + expires + ", 'call1', 1826, " +
            permanent + ")");
    }
    void addMany(int count)
    {
        sql("INSERT INTO contact (csid, address, contact_header, expires) SELECT 12, uri, uri, 1000000000"
            " FROM generate_series(1, " +
            std::to_string(count) + ") n, format('sip:alice@192.0.2.1:%s', n) uri");
    }
    std::string stored() { return rows("SELECT address FROM contact ORDER BY contact_id"); }
    static std::string expired(const std::string& user, const std::string& handle = "alice", int key = 42,
                               const std::string& domain = "oryx.example")
    {
        ExtendedContactRecord record;
        record.setSid(key);
        record.setHandle(handle.c_str());
        record.setDomain(domain.c_str());
        record.setContactHeader(("<sip:" + user + ">").c_str());
        record.setExpires(1000000000);
        record.setCallId("call1");
        record.setCseq(1826);
        return show(record);
    }

    oryx::PresenceService m_service;
};

TEST_F(ExpiredBindings, AreRemovedAndNothingElse)
{
    add("desk@192.0.2.1");
    add("soft@192.0.2.1");
    add("live@192.0.2.1", "current_second() + 600");
    add("wall@192.0.2.1", "1000000000", "true");
    add("door@192.0.2.1", "NULL");
    add("gate@192.0.2.1", "NULL", "true");
    EXPECT_EQ(removed(), "okay\n" + expired("desk@192.0.2.1") + expired("soft@192.0.2.1"));
    const std::string left = "sip:live@192.0.2.1\nsip:wall@192.0.2.1\nsip:door@192.0.2.1\nsip:gate@192.0.2.1\n";
    EXPECT_EQ(stored(), left);
    EXPECT_EQ(removed(), "okay\n");
    EXPECT_EQ(stored(), left);
}

TEST_F(ExpiredBindings, HaveExpiredByTheDatabasesClock)
{
    sql("CREATE OR REPLACE FUNCTION current_second() RETURNS bigint LANGUAGE sql STABLE RETURN 1000000000::bigint");
    add("desk@192.0.2.1");
    EXPECT_EQ(removed(), "okay\n");
    sql("CREATE OR REPLACE FUNCTION current_second() RETURNS bigint LANGUAGE sql STABLE RETURN 1000000001::bigint");
    EXPECT_EQ(removed(), "okay\n" + expired("desk@192.0.2.1"));
}

TEST_F(ExpiredBindings, AreGivenForEachAddressOfTheirSetAsAFlushGivesThem)
{
    sql("INSERT INTO contact_set (csid, sid) VALUES (13, 7), (14, 7);"
        "INSERT INTO public_address (public_address_id, handle, sip_domain, csid) VALUES"
        " (43, 'bob', 'oryx.example', 13), (44, 'robert', 'example.com', 13)");
    const auto addAll = [&] {
        add("bob@192.0.2.2", "1000000000", "false", 13);
        add("carol@192.0.2.3", "1000000000", "false", 14); // of no address
    };
    addAll();
    const std::string both =
        "okay\n" + expired("bob@192.0.2.2", "bob", 43) + expired("bob@192.0.2.2", "robert", 44, "example.com");
    EXPECT_EQ(removed(), both);
    EXPECT_EQ(stored(), "");
    addAll();
    std::vector<ExtendedContactRecord> flushed;
    EXPECT_TRUE(m_service.flushExpiredContacts(flushed).okay());
    std::sort(flushed.begin(), flushed.end(), [](const auto& a, const auto& b) { return show(a) < show(b); });
    EXPECT_EQ("okay\n" + show(flushed), both);
}

TEST_F(ExpiredBindings, AreRemovedInPieces)
{
    addMany(12000);
    EXPECT_EQ(countRemoved(), oryx::kMostExpiredBindings);
    EXPECT_EQ(rows("SELECT count(*) FROM contact"), "7000\n");
    EXPECT_EQ(countRemoved(), oryx::kMostExpiredBindings);
    EXPECT_EQ(countRemoved(), 2000U);
    EXPECT_EQ(countRemoved(), 0U);
}

TEST_F(ExpiredBindings, ThatAreLockedAreLeftForTheNextTimeWithoutWaiting)
{
    add("desk@192.0.2.1");
    add("soft@192.0.2.1");
    sql("BEGIN; SELECT FROM contact WHERE address = 'sip:desk@192.0.2.1' FOR UPDATE");
    EXPECT_EQ(removed(), "okay\n" + expired("soft@192.0.2.1"));
    sql("COMMIT");
    EXPECT_EQ(removed(), "okay\n" + expired("desk@192.0.2.1"));
}

/// As while somebody provisions or registers: neither the sets nor the addresses are locked.
TEST_F(ExpiredBindings, AreRemovedWhileTheirSetAndAddressAreLocked)
{
    add("desk@192.0.2.1");
    sql("BEGIN; SELECT FROM contact_set FOR UPDATE; SELECT FROM public_address FOR UPDATE");
    EXPECT_EQ(removed(), "okay\n" + expired("desk@192.0.2.1"));
    sql("COMMIT");
}

TEST_F(ExpiredBindings, CannotBeRemovedWithoutTheRight)
{
    add("desk@192.0.2.1");
    sql("REVOKE DELETE ON contact FROM oryx_server");
    EXPECT_EQ(removed(), "query error: [42501] ERROR:  permission denied for table contact\n");
    EXPECT_EQ(stored(), "sip:desk@192.0.2.1\n");
}

/// Of two that remove at once each has what the other has not.
TEST_F(ExpiredBindings, AreRemovedByOneOfTwoServers)
{
    oryx::PresenceService other;
    ASSERT_TRUE(other.connect(m_database.uri().c_str(), server::kUser, server::kPassword).okay());
    addMany(12000);
    std::vector<ExtendedContactRecord> removed;
    std::vector<ExtendedContactRecord> byOther;
    const auto removeSome = [](oryx::PresenceService& service, std::vector<ExtendedContactRecord>& out) {
        for (int i = 0; i < 3; ++i) {
            EXPECT_TRUE(removeExpiredBindings(service, out).okay());
        }
    };
    std::thread thread([&] { removeSome(other, byOther); });
    removeSome(m_service, removed);
    thread.join();
    removed.insert(removed.end(), byOther.begin(), byOther.end());
    std::set<std::string> contacts;
    for (const ExtendedContactRecord& record : removed) {
        EXPECT_TRUE(contacts.insert(record.contactHeader()).second) << record.contactHeader();
    }
    EXPECT_GE(contacts.size(), oryx::kMostExpiredBindings);
    EXPECT_EQ(rows("SELECT count(*) FROM contact"), std::to_string(12000 - contacts.size()) + "\n");
}

} // namespace

} // namespace expiredBindingsTest
