#include "database/PresenceFixture.h"

#include <array>
#include <future>
#include <latch>
#include <string>
#include <vector>

namespace conferenceTest {

namespace {

using oryx::ConfExtRecord;

class ConferenceStates : public PresenceTest {
protected:
    void SetUp() override
    {
        PresenceTest::SetUp();
        sql("INSERT INTO conf_state VALUES ('600', 'IDLE', 1700000000), ('601', 'IN USE', 1700000001),"
            " ('602', 'INVALID', NULL), ('603', 'In use', 1700000003)");
    }

    std::string stored() { return rows("SELECT * FROM conf_state ORDER BY extension"); }

    std::string state(const std::string& extension)
    {
        std::string status = "as before";
        unsigned int startTime = 7;
        const oryx::DatabaseResult result = m_executor.getConfExtState(extension, status, startTime);
        return outcome(result) + " '" + status + "' since " + std::to_string(startTime);
    }

    /// What a listing answers and leaves in a vector that held something before.
    template <typename List>
    static std::string listedOver(const List& list)
    {
        std::vector<ConfExtRecord> records{{"as", "before", 1}};
        const oryx::DatabaseResult result = list(records);
        return outcome(result) + "\n" + show(records);
    }

    std::string matching(const std::string& pattern, bool negate = false)
    {
        return listedOver([&](auto& records) { return m_executor.getAllConfExtRecord(records, pattern, negate); });
    }

    std::string selected(const std::string& query)
    {
        return listedOver([&](auto& records) { return m_executor.selectMultipleConfExtRecords(query, records); });
    }

    std::string valid()
    {
        return listedOver([&](auto& records) { return m_executor.getAllValidConfExts(records); });
    }

    std::string obsolete()
    {
        return listedOver([&](auto& records) { return m_executor.getAllObsoleteConfExtNotInUse(records); });
    }

    std::string reserved()
    {
        std::string extension = "as before";
        const oryx::DatabaseResult result = m_executor.reserveRandomlyIdleConfExtAsInUse(extension);
        return outcome(result) + " '" + extension + "'";
    }
};

const std::string kStored = "600|IDLE|1700000000\n601|IN USE|1700000001\n602|INVALID|NULL\n603|In use|1700000003\n";
const std::string kBefore = "conference 'as' 'before' since 1\n";
const std::string k600 = "conference '600' 'IDLE' since 1700000000\n";
const std::string k601 = "conference '601' 'IN USE' since 1700000001\n";
const std::string k602 = "conference '602' 'INVALID' since 0\n";
const std::string k603 = "conference '603' 'In use' since 1700000003\n";

TEST_F(ConferenceStates, AreReadByTheirExtension)
{
    EXPECT_EQ(state("600"), "okay 'IDLE' since 1700000000");
    EXPECT_EQ(state("602"), "okay 'INVALID' since 0");
    EXPECT_EQ(state("699"), "not found '' since 0");
}

TEST_F(ConferenceStates, ThatCannotBeReadAreNotFound)
{
    EXPECT_EQ(state(kQuoted), plainOrBound("not found: " + kBroken, "not found") + " '' since 0");
    EXPECT_EQ(state(""), "query error: getConfExtState: missing one or more parameters\n 'as before' since 7");
    sql("REVOKE SELECT ON conf_state FROM oryx_server");
    EXPECT_EQ(state("600"), "not found: [42501] ERROR:  permission denied for table conf_state '' since 0");
}

TEST_F(ConferenceStates, AreSet)
{
    EXPECT_EQ(show(m_executor.setConfExtState("600", "IN USE", 1700000009)), "okay");
    EXPECT_EQ(show(m_executor.setConfExtState("602", "", 0)), "okay");
    EXPECT_EQ(stored(), "600|IN USE|1700000009\n601|IN USE|1700000001\n602||0\n603|In use|1700000003\n");
}

TEST_F(ConferenceStates, GiveTheirStartTimeBackHoweverItWasWritten)
{
    for (const unsigned int time : {0U, 2147483647U, 2147483648U, 4294967295U}) {
        const std::string expected = "okay 'IN USE' since " + std::to_string(time);
        EXPECT_EQ(show(m_executor.setConfExtState("600", "IN USE", time)), "okay");
        EXPECT_EQ(state("600"), expected);
        EXPECT_EQ(show(m_executor.addConfExtState({"599", "IN USE", time})), "okay");
        EXPECT_EQ(state("599"), expected);
        EXPECT_EQ(show(m_executor.deleteConfExtState("599")), "okay");
    }
}

TEST_F(ConferenceStates, AreNotSetForAnExtensionThatHasNone)
{
    EXPECT_EQ(show(m_executor.setConfExtState("699", "IDLE", 1)), "not found");
    EXPECT_EQ(show(m_executor.setConfExtState("", "IDLE", 1)),
              "query error: setConfExtState: missing one or more parameters\n");
    EXPECT_EQ(outcome(m_executor.setConfExtState("600", kQuoted, 1)), plainOrBound("query error: " + kBroken, "okay"));
    EXPECT_EQ(outcome(m_executor.setConfExtState(kQuoted, "IDLE", 1)),
              plainOrBound("query error: " + kBroken, "not found"));
    EXPECT_EQ(rows("SELECT conf_status FROM conf_state ORDER BY extension"),
              plainOrBound("IDLE", "o'neill") + "\nIN USE\nINVALID\nIn use\n");
}

TEST_F(ConferenceStates, AreAdded)
{
    EXPECT_EQ(show(m_executor.addConfExtState({"598", "IDLE", 1700000005})), "okay");
    EXPECT_EQ(show(m_executor.addConfExtState({"599", "", 0})), "okay");
    EXPECT_EQ(stored(), "598|IDLE|1700000005\n599||0\n" + kStored);
}

TEST_F(ConferenceStates, AreNotAddedTwiceOrWithoutAnExtension)
{
    EXPECT_EQ(outcome(m_executor.addConfExtState({"600", "IN USE", 5})),
              "query error" + duplicateOf("conf_state_pkey"));
    EXPECT_EQ(show(m_executor.addConfExtState({"", "IN USE", 5})),
              "query error: addConfExtState: missing one or more parameters\n");
    EXPECT_EQ(outcome(m_executor.addConfExtState({"699", kQuoted, 5})),
              plainOrBound("query error: " + kBroken, "okay"));
    EXPECT_EQ(stored(), plainOrBound(kStored, kStored + "699|o'neill|5\n"));
}

TEST_F(ConferenceStates, ThatBeganLateAreStoredNegativeByAChangeAndWholeByAnAddition)
{
    EXPECT_EQ(show(m_executor.setConfExtState("600", "IN USE", 4294967295U)), "okay");
    EXPECT_EQ(rows("SELECT start_time FROM conf_state WHERE extension = '600'"), "-1\n");
    EXPECT_EQ(state("600"), "okay 'IN USE' since 4294967295");
    EXPECT_EQ(show(m_executor.addConfExtState({"699", "IDLE", 2147483648U})), "okay");
    EXPECT_EQ(rows("SELECT start_time FROM conf_state WHERE extension = '699'"), "2147483648\n");
    EXPECT_EQ(state("699"), "okay 'IDLE' since 2147483648");
}

TEST_F(ConferenceStates, AreRemovedOneByOne)
{
    EXPECT_EQ(show(m_executor.deleteConfExtState("600")), "okay");
    EXPECT_EQ(show(m_executor.deleteConfExtState("600")), "not found");
    EXPECT_EQ(show(m_executor.deleteConfExtState("")),
              "query error: deleteConfExtState(): missing one or more parameters\n");
    EXPECT_EQ(outcome(m_executor.deleteConfExtState(kQuoted)), plainOrBound("query error: " + kBroken, "not found"));
    EXPECT_EQ(rows("SELECT extension FROM conf_state ORDER BY 1"), "601\n602\n603\n");
}

TEST_F(ConferenceStates, AreListedByAPatternInEitherCase)
{
    EXPECT_EQ(matching("use"), "okay\n" + k601 + k603);
    EXPECT_EQ(matching("use", true), "okay\n" + k600 + k602);
    EXPECT_EQ(matching("^i(dle|nvalid)$"), "okay\n" + k600 + k602);
    EXPECT_EQ(matching(""), "okay\n" + k600 + k601 + k602 + k603);
    EXPECT_EQ(matching("", true), "okay\n" + k600 + k601 + k602 + k603);
}

TEST_F(ConferenceStates, LeaveAListingAsItWasWhereNoneIsFound)
{
    EXPECT_EQ(matching("BUSY"), "not found\n" + kBefore);
    EXPECT_EQ(matching("i", true), "not found\n" + kBefore);
    EXPECT_EQ(matching(kQuoted), plainOrBound("query error: " + kBroken, "not found") + "\n" + kBefore);
    EXPECT_EQ(matching("("),
              "query error: [2201B] ERROR:  invalid regular expression: parentheses () not balanced\n" + kBefore);
}

TEST_F(ConferenceStates, AreListedByAQueryOfTheCallers)
{
    EXPECT_EQ(selected("SELECT * FROM conf_state WHERE extension = '601'"), "okay\n" + k601);
    EXPECT_EQ(selected("SELECT 700, NULL"), "okay\nconference '700' '' since 0\n");
    EXPECT_EQ(selected("SELECT 'no', 'rows' WHERE false"), "not found\n" + kBefore);
    EXPECT_EQ(selected("UPDATE conf_state SET conf_status = 'IDLE'"), "okay\n" + kBefore);
    EXPECT_EQ(selected("SELECT wrong"), "query error: [42703] ERROR:  column \"wrong\" does not exist\n" + kBefore);
    EXPECT_EQ(selected(""),
              "query error: PresenceDatabaseCommandExecutor::executeSqlCmd: --- Empty query command! ---\n" + kBefore);
}

TEST_F(ConferenceStates, OfConferenceExtensionsAreValid)
{
    EXPECT_EQ(valid(), "not found\n" + kBefore);
    sql("INSERT INTO extension VALUES ('601', 'c'), ('602', 'u')");
    EXPECT_EQ(valid(), "okay\n" + k601);
    sql("DELETE FROM conf_state");
    EXPECT_EQ(valid(), "okay\nconference '601' 'INVALID' since 0\n");
    sql("REVOKE SELECT ON select_all_valid_conf_ext FROM oryx_server");
    EXPECT_EQ(valid(), "query error: [42501] ERROR:  permission denied for view select_all_valid_conf_ext\n" + kBefore);
}

TEST_F(ConferenceStates, OfOtherExtensionsAreObsoleteUnlessInUse)
{
    EXPECT_EQ(show(m_executor.deleteConfExtState("603")), "okay");
    sql("INSERT INTO extension VALUES ('600', 'c'), ('602', 'u')");
    EXPECT_EQ(obsolete(), "okay\n" + k602);
    sql("UPDATE conf_state SET start_time = 1700000002 WHERE extension = '602'");
    EXPECT_EQ(obsolete(), "okay\n" + k602);
    sql("INSERT INTO extension VALUES ('599', 'c'); UPDATE extension SET ext_type = 'c'");
    EXPECT_EQ(obsolete(), "not found\n" + kBefore);
    sql("REVOKE SELECT ON select_all_obsolete_conf_ext_not_in_use FROM oryx_server");
    EXPECT_EQ(obsolete(), "query error: [42501] ERROR:  permission denied for view "
                          "select_all_obsolete_conf_ext_not_in_use\n" +
                              kBefore);
}

TEST_F(ConferenceStates, ThatAreObsoleteArePurged)
{
    sql("INSERT INTO extension VALUES ('600', 'c'), ('602', 'u')");
    EXPECT_EQ(show(m_executor.deleteAllObsoleteConfExtNotInUse()), "okay");
    EXPECT_EQ(rows("SELECT extension FROM conf_state ORDER BY 1"), "600\n601\n");
    EXPECT_EQ(show(m_executor.deleteAllObsoleteConfExtNotInUse()), "not found");
    sql("REVOKE DELETE ON conf_state FROM oryx_server");
    EXPECT_EQ(outcome(m_executor.deleteAllObsoleteConfExtNotInUse()),
              "query error: [42501] ERROR:  permission denied for table conf_state");
}

TEST_F(ConferenceStates, ThatAreIdleAreReserved)
{
    EXPECT_EQ(reserved(), "okay '600'");
    EXPECT_EQ(state("601"), "okay 'IN USE' since 1700000001");
    EXPECT_EQ(rows("SELECT conf_status, start_time BETWEEN extract(epoch FROM now()) - 60 AND extract(epoch FROM now())"
                   " FROM conf_state WHERE extension = '600'"),
              "IN USE|t\n");
    EXPECT_EQ(reserved(), "not found ''");
}

TEST_F(ConferenceStates, AreNotReservedWhereTheServerRefuses)
{
    sql("REVOKE UPDATE ON conf_state FROM oryx_server");
    EXPECT_EQ(reserved(), "query error: [42501] ERROR:  permission denied for table conf_state ''");
    EXPECT_EQ(stored(), kStored);
}

TEST_F(ConferenceStates, AreReservedOnceEachByEightServersAtATime)
{
    sql("DELETE FROM conf_state; INSERT INTO conf_state SELECT n, 'IDLE', 0 FROM generate_series(1001, 1400) AS n");
    constexpr int kServers = 8;
    std::latch start(kServers);
    const auto reserveAll = [&] {
        oryx::PresenceDatabaseCommandExecutor executor;
        const bool connected = executor.connect(m_database.uri().c_str(), server::kUser, server::kPassword);
        start.arrive_and_wait();
        std::string reservations = connected ? "" : executor.getErrorMessage();
        std::string extension;
        oryx::DatabaseResult result = executor.reserveRandomlyIdleConfExtAsInUse(extension);
        while (result.okay()) {
            reservations += "('" + extension + "'),";
            result = executor.reserveRandomlyIdleConfExtAsInUse(extension);
        }
        EXPECT_EQ(outcome(result) + " '" + extension + "'", "not found ''");
        return reservations;
    };
    std::array<std::future<std::string>, kServers> servers;
    for (auto& server : servers) {
        server = std::async(std::launch::async, reserveAll);
    }
    std::string reservations;
    for (auto& server : servers) {
        reservations += server.get();
    }
    reservations.pop_back();
    sql("CREATE TEMPORARY TABLE reservation (extension text); INSERT INTO reservation VALUES " + reservations);
    EXPECT_EQ(rows("SELECT count(*), count(DISTINCT extension), min(extension), max(extension) FROM reservation"),
              "400|400|1001|1400\n");
    EXPECT_EQ(rows("SELECT conf_status, count(*) FROM conf_state GROUP BY conf_status"), "IN USE|400\n");
}

} // namespace

} // namespace conferenceTest
