#include "database/PresenceFixture.h"
#include "support/TableChanges.h"
#include "support/TraceLog.h"

#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

namespace changesTest {

namespace {

using oryx::CMRecord;
using oryx::DatabaseUpdate;

class Changes : public PresenceTest {
protected:
    std::string changes(const std::string& table, const std::string& since = "")
    {
        return listed<DatabaseUpdate>(
            [&](auto& updates) { return m_executor.getUpdatedPrimaryKeys(table, since, updates); });
    }

    /// The stamp of the latest change to a table.
    std::string latest(const std::string& table)
    {
        return m_session.value("SELECT max(evt_timestamp) FROM event_notify WHERE table_name = '" + table + "'");
    }
};

class TableChangesOfTheEventServer : public PresenceTest {
protected:
    std::future<std::string> wait()
    {
        auto waiting =
            std::async(std::launch::async, [this] { return outcome(m_executor.waitForNotify(TableChanges::record)); });
        std::string seen;
        while (seen.find("--- SUCCESS ---: LISTEN on sip_event_aggregator") == std::string::npos) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            seen += m_trace.take();
        }
        return waiting;
    }

    TraceLog m_trace;
    TableChanges m_changes{[](bool /*changed*/, const std::string& /*table*/) { return false; }};
};

class CallManagers : public PresenceTest {
protected:
    void SetUp() override
    {
        PresenceTest::SetUp();
        sql("INSERT INTO acp VALUES ('manager1', 'tcp', '192.0.2.1', NULL), ('manager2', 'tls', '192.0.2.2:5081', '5070'),"
            " ('manager3', 'tls', '192.0.2.3', '5071'), ('manager4', 'udp', '192.0.2.4', ''),"
            " ('Manager5', 'tls', '192.0.2.5', ''), ('manager6', 'tls', '192.0.2.6', '5061'),"
            " ('manager7', NULL, NULL, NULL)");
    }

    std::string all()
    {
        return listed<CMRecord>([&](auto& records) { return m_executor.getCMforBulkSub(records, false); });
    }

    std::string matching(const CMRecord& wanted, bool regex)
    {
        std::vector<CMRecord> records{wanted};
        const oryx::DatabaseResult result = m_executor.getCMforBulkSub(records, regex);
        return outcome(result) + "\n" + show(records);
    }
};

std::string change(const std::string& table, int number, const std::string& text, const std::string& stamp)
{
    return show(DatabaseUpdate(table, number, text, "", stamp));
}

CMRecord manager(const char* handle, const char* type, const char* address, const char* port)
{
    CMRecord record;
    record.SetHandle(handle);
    record.SetPort(port);
    record.SetLinkType(type);
    record.SetIPAddress(address);
    return record;
}

const std::string k1 = "call manager 'manager1' type='tcp' address='192.0.2.1' port='5060'\n";
const std::string k2 = "call manager 'manager2' type='tls' address='192.0.2.2' port='5081'\n";
const std::string k3 = "call manager 'manager3' type='tls' address='192.0.2.3' port='5071'\n";
const std::string k4 = "call manager 'manager4' type='udp' address='192.0.2.4' port=''\n";
const std::string k5 = "call manager 'Manager5' type='tls' address='192.0.2.5' port='5061'\n";
const std::string k6 = "call manager 'manager6' type='tls' address='192.0.2.6' port='5061'\n";
const std::string k7 = "call manager 'manager7' type='' address='' port=''\n";

TEST_F(TableChangesOfTheEventServer, AreWaitedForUntilTheConnectionIsLost)
{
    auto waiting = wait();
    sql("INSERT INTO acp VALUES ('manager1')");
    EXPECT_EQ(m_changes.awaitChanges(1), "true 'acp'\n");
    terminate(backend());
    EXPECT_EQ(waiting.get(), "okay");
    EXPECT_EQ(m_executor.getErrorMessage(), "");
}

TEST_F(TableChangesOfTheEventServer, CannotBeWaitedForOnALostConnectionUntilItIsMended)
{
    terminate(backend());
    EXPECT_EQ(outcome(m_executor.waitForNotify(TableChanges::record)), "connection error");
    auto waiting = wait();
    sql("NOTIFY extension");
    EXPECT_EQ(m_changes.awaitChanges(1), "true 'extension'\n");
    terminate(backend());
    EXPECT_EQ(waiting.get(), "okay");
}

TEST_F(Changes, AreListedByTheirKeys)
{
    EXPECT_EQ(changes("acp"), "not found\n");
    sql("INSERT INTO acp VALUES ('manager1')");
    const std::string first = latest("acp");
    sql("UPDATE acp SET handle = handle");
    const std::string second = latest("acp");
    provisionAlice();
    const std::string all = "okay\n" + change("acp", 0, "manager1", first) + change("acp", 0, "manager1", second);
    EXPECT_EQ(changes("acp"), all);
    EXPECT_EQ(changes("acp", "0"), all);
    EXPECT_EQ(changes("subscriber"), "okay\n" + change("subscriber", 7, "", latest("subscriber")));
    EXPECT_EQ(changes("contact_set"), "okay\n" + change("contact_set", 12, "", latest("contact_set")));
    EXPECT_EQ(changes("public_address"), "okay\n" + change("public_address", 42, "", latest("public_address")));
    EXPECT_EQ(changes("contact"), "not found\n");
}

TEST_F(Changes, AreListedFromAStampOn)
{
    sql("INSERT INTO extension VALUES ('600'), ('601')");
    const std::string since = latest("extension");
    EXPECT_EQ(changes("extension", since), "not found\n");
    sql("DELETE FROM extension WHERE extension = '601'");
    EXPECT_EQ(changes("extension", since), "okay\n" + change("extension", 0, "601", latest("extension")));
    EXPECT_EQ(changes("extension", latest("extension")), "not found\n");
}

TEST_F(Changes, AreFollowedWithoutAGap)
{
    std::vector<DatabaseUpdate> updates;
    std::string since;
    for (const std::string name : {"m1", "m2", "m3"}) {
        sql("INSERT INTO acp VALUES ('" + name + "')");
        EXPECT_EQ(show(m_executor.getUpdatedPrimaryKeys("acp", since, updates)), "okay");
        since = updates.back().timestamp();
    }
    std::string keys;
    for (const DatabaseUpdate& update : updates) {
        keys += update.strpkey() + " ";
    }
    EXPECT_EQ(keys, "m1 m2 m3 ");
}

TEST_F(Changes, KeepThePreviousRowsKeyWhereAColumnIsNull)
{
    sql("INSERT INTO event_notify VALUES ('mixed', NULL, 'a', 1), ('mixed', 7, NULL, 2), ('mixed', NULL, 'b', 3)");
    EXPECT_EQ(changes("mixed"),
              "okay\n" + change("mixed", 0, "a", "1") + change("mixed", 7, "a", "2") + change("mixed", 7, "b", "3"));
}

TEST_F(Changes, CannotBeAskedForWithABadTableOrStamp)
{
    EXPECT_EQ(changes(""), "query error: invalid parameters\n");
    EXPECT_EQ(changes(kQuoted), plainOrBound(kBrokenQuery, "not found\n"));
    const std::string noNumber = "query error: [22P02] ERROR:  invalid input syntax for type bigint: ";
    EXPECT_EQ(changes("acp", kQuoted), plainOrBound(kBrokenQuery, noNumber + "\"o'neill\"\n"));
    EXPECT_EQ(changes("acp", "lately"), noNumber + "\"lately\"\n");
}

TEST_F(CallManagers, AreAllListedWithTheirPorts)
{
    EXPECT_EQ(all(), "okay\n" + k1 + k2 + k3 + k4 + k5 + k6 + k7);
    EXPECT_EQ(matching({}, true), "okay\n" + k1 + k2 + k3 + k4 + k5 + k6 + k7);
    sql("DELETE FROM acp");
    EXPECT_EQ(all(), "okay\n");
}

TEST_F(CallManagers, AreFoundByTheirVeryValues)
{
    EXPECT_EQ(matching(manager("manager1", nullptr, nullptr, nullptr), false), "okay\n" + k1);
    EXPECT_EQ(matching(manager("MANAGER1", nullptr, nullptr, nullptr), false), "okay\n");
    EXPECT_EQ(matching(manager(nullptr, "udp", nullptr, nullptr), false), "okay\n" + k4);
    EXPECT_EQ(matching(manager(nullptr, nullptr, "192.0.2.3", nullptr), false), "okay\n" + k3);
    EXPECT_EQ(matching(manager(nullptr, nullptr, nullptr, "5070"), false), "okay\n" + k2);
    EXPECT_EQ(matching(manager("manager3", "tls", "192.0.2.3", "5071"), false), "okay\n" + k3);
    EXPECT_EQ(matching(manager("manager2", "tls", "192.0.2.3", "5071"), false), "okay\n");
}

TEST_F(CallManagers, AreFoundByPatternsInEitherCase)
{
    EXPECT_EQ(matching(manager("^MANAGER[135]$", nullptr, nullptr, nullptr), true), "okay\n" + k1 + k3 + k5);
    EXPECT_EQ(matching(manager(nullptr, "T(CP|LS)", nullptr, nullptr), true), "okay\n" + k1 + k2 + k3 + k5 + k6);
    EXPECT_EQ(matching(manager(nullptr, nullptr, "2\\.[12]", nullptr), true), "okay\n" + k1 + k2);
    EXPECT_EQ(matching(manager(nullptr, nullptr, nullptr, "^507"), true), "okay\n" + k2 + k3);
    EXPECT_EQ(matching(manager("manager", "tls", "192", "7[01]"), true), "okay\n" + k2 + k3);
    EXPECT_EQ(matching(manager("carol", "tls", "192", "7[01]"), true), "okay\n");
}

TEST_F(CallManagers, AreSoughtWithTheDefaultPortOfTheirTransport)
{
    EXPECT_EQ(matching(manager(nullptr, "tls", nullptr, nullptr), false), "okay\n" + k6);
    EXPECT_EQ(matching(manager(nullptr, "tls", nullptr, nullptr), true), "okay\n" + k6);
    EXPECT_EQ(matching(manager(nullptr, "tcp", nullptr, nullptr), false), "okay\n");
}

TEST_F(CallManagers, AreSoughtWithTheAddressAndPortOfAnAddressApart)
{
    EXPECT_EQ(matching(manager(nullptr, nullptr, "192.0.2.2:5081", nullptr), false), "okay\n");
    EXPECT_EQ(matching(manager(nullptr, nullptr, "192.0.2.2:5070", nullptr), true), "okay\n" + k2);
}

TEST_F(CallManagers, AreNoneWhereTheyCannotBeRead)
{
    EXPECT_EQ(matching(manager(kQuoted, nullptr, nullptr, nullptr), false), "okay\n");
    EXPECT_EQ(matching(manager("(", nullptr, nullptr, nullptr), true), "okay\n");
    sql("REVOKE SELECT ON acp FROM oryx_server");
    EXPECT_EQ(matching({}, false), "okay\n");
}

} // namespace

} // namespace changesTest
