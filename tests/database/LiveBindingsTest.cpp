// What a request to an address of record is sent to.

#include "support/DatabaseTest.h"
#include "support/ShowBindings.h"

#include <dal/LiveBindings.h>
#include <gtest/gtest.h>

#include <string>

namespace liveBindingsTest {

namespace {

class LiveBindings : public ServiceTest {
protected:
    std::string byKey(int key = 42)
    {
        oryx::BindingSet found = kept();
        const oryx::DatabaseResult result = lookupBindings(m_service, key, found);
        return outcome(result) + "\n" + show(found);
    }
    std::string byAddress(const char* handle = "alice", const char* domain = "oryx.example")
    {
        oryx::BindingSet found = kept();
        const oryx::DatabaseResult result = lookupBindings(m_service, handle, domain, found);
        return outcome(result) + "\n" + show(found);
    }
    /// Adds a contact: its address, q-value, and in how many seconds it expires.
    void add(const std::string& address, const std::string& qvalue, int expires)
    {
        sql("INSERT INTO contact (csid, address, qvalue, expires) VALUES (12, '" + address + "', '" + qvalue +
            "', current_second() + " + std::to_string(expires) + ")");
    }
    /// The addresses found, each with its preference.
    std::string order()
    {
        oryx::BindingSet found;
        EXPECT_TRUE(lookupBindings(m_service, 42, found).okay());
        std::string text;
        for (const oryx::LiveBinding& binding : found.bindings) {
            text += binding.address + " " + std::to_string(binding.preference) + "; ";
        }
        return text;
    }

private:
    static oryx::BindingSet kept()
    {
        oryx::BindingSet set;
        set.bindings.resize(1);
        set.bindings.front().address = "before";
        return set;
    }
};

const std::string kBefore = "parallel, replaced\n'before' for good q='' (1000) path='' header='' capabilities='' "
                            "type='' call='' cseq=0\n";

TEST_F(LiveBindings, AreGivenWholeByKeyAndByAddress)
{
    sql("CREATE OR REPLACE FUNCTION current_second() RETURNS bigint LANGUAGE sql STABLE RETURN 1000000::bigint");
    sql("INSERT INTO contact (csid, address, qvalue, expires, capabilities, contact_header, call_id, cseq, c_type, "
        "path_vector) VALUES (12, 'sip:a', '0.5', 1000090, 'audio', '<sip:a>', 'call', 4711, 'mobile', '<sip:edge;lr>')");
    sql("UPDATE contact_set SET replace_uri = false");
    const std::string found = "okay\nsequential, kept\n'sip:a' 90 s q='0.5' (500) path='<sip:edge;lr>' "
                              "header='<sip:a>' capabilities='audio' type='mobile' call='call' cseq=4711\n";
    EXPECT_EQ(byKey(), found);
    EXPECT_EQ(byAddress(), found);
}

TEST_F(LiveBindings, AreNotWhatHasExpired)
{
    sql("CREATE OR REPLACE FUNCTION current_second() RETURNS bigint LANGUAGE sql STABLE RETURN 1000000::bigint");
    add("sip:last", "", 1);
    add("sip:gone", "", 0);
    add("sip:long gone", "", -9);
    sql("INSERT INTO contact (csid, address, expires, permanent) VALUES (12, 'sip:permanent', 5, true), "
        "(12, 'sip:forever', NULL, false)");
    EXPECT_EQ(
        byKey(),
        "okay\nsequential, replaced\n"
        "'sip:last' 1 s q='' (1000) path='' header='' capabilities='' type='' call='' cseq=0\n"
        "'sip:permanent' for good, permanent q='' (1000) path='' header='' capabilities='' type='' call='' cseq=0\n"
        "'sip:forever' for good q='' (1000) path='' header='' capabilities='' type='' call='' cseq=0\n");
}

TEST_F(LiveBindings, ComeByPreferenceAndThenAsTheyWereRegistered)
{
    for (const char* const qvalue : {"0.5", "1", "0.05", "", "0", "0.5", "1.000", "0.123", "0.50", "0."}) {
        add(std::string("q=") + qvalue + "/" + rows("SELECT count(*) FROM contact").substr(0, 1), qvalue, 60);
    }
    EXPECT_EQ(order(), "q=1/1 1000; q=/3 1000; q=1.000/6 1000; q=0.5/0 500; q=0.5/5 500; q=0.50/8 500; "
                       "q=0.123/7 123; q=0.05/2 50; q=0/4 0; q=0./9 0; ");
}

TEST_F(LiveBindings, WithQValuesThatAreNoneAreTriedFirst)
{
    add("sip:low", "0.999", 60);
    for (const char* const qvalue : {"2", "0.1234", "-1", "0,5", "1.5", ".5", "0x1", "high", " 0"}) {
        add(std::string("q=") + qvalue, qvalue, 60);
    }
    EXPECT_EQ(order(), "q=2 1000; q=0.1234 1000; q=-1 1000; q=0,5 1000; q=1.5 1000; q=.5 1000; q=0x1 1000; "
                       "q=high 1000; q= 0 1000; sip:low 999; ");
}

TEST_F(LiveBindings, AreTriedTogetherUnlessTheOrderingIsSequential)
{
    const auto ordering = [this](const std::string& text) {
        sql("UPDATE contact_set SET ordering = " + text);
        return byKey();
    };
    EXPECT_EQ(ordering("'sequential'"), "okay\nsequential, replaced\n");
    EXPECT_EQ(ordering("'parallel'"), "okay\nparallel, replaced\n");
    EXPECT_EQ(ordering("'Sequential'"), "okay\nparallel, replaced\n");
    EXPECT_EQ(ordering("NULL"), "okay\nparallel, replaced\n");
}

TEST_F(LiveBindings, AreNotFoundWithoutAnAddressOrForAnInactiveSubscriber)
{
    EXPECT_EQ(byKey(), "okay\nsequential, replaced\n");
    EXPECT_EQ(byKey(43), "not found\n" + kBefore);
    EXPECT_EQ(byAddress("bob"), "not found\n" + kBefore);
    EXPECT_EQ(byAddress("alice", "elsewhere.example"), "not found\n" + kBefore);
    sql("UPDATE subscriber SET active = false");
    EXPECT_EQ(byKey(), "not found\n" + kBefore);
    EXPECT_EQ(byAddress(), "not found\n" + kBefore);
    sql("UPDATE subscriber SET active = NULL");
    EXPECT_EQ(byKey(), "okay\nsequential, replaced\n");
}

TEST_F(LiveBindings, ThatCannotBeLookedUpLeaveWhatWasThere)
{
    EXPECT_EQ(byAddress(nullptr), "query error: invalid parameters\n" + kBefore);
    EXPECT_EQ(byAddress("alice", nullptr), "query error: invalid parameters\n" + kBefore);
    EXPECT_EQ(byAddress(kQuoted), plainOrBound("query error: " + kBroken, "not found") + "\n" + kBefore);
    sql("REVOKE SELECT ON contact FROM oryx_server");
    EXPECT_EQ(byKey(), "query error: [42501] ERROR:  permission denied for table contact\n" + kBefore);
    oryx::LocationService unconnected;
    oryx::BindingSet found;
    EXPECT_EQ(show(lookupBindings(unconnected, 42, found)),
              "connection error: lookup attempted without a database connection");
}

TEST_F(LiveBindings, CanBeLookedUpWhereNothingMayBeWritten)
{
    add("sip:a", "", 60);
    sql("ALTER DATABASE " + m_database.name() + " SET default_transaction_read_only = on");
    ASSERT_TRUE(m_service.connect(m_database.uri().c_str(), server::kUser, server::kPassword).okay());
    EXPECT_EQ(order(), "sip:a 1000; ");
}

} // namespace

} // namespace liveBindingsTest
