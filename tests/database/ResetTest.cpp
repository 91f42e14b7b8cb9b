#include "database/PresenceFixture.h"
#include "support/Proxy.h"

#include <cstdlib>
#include <string>
#include <vector>

namespace resetTest {

namespace {

using Executor = oryx::PresenceDatabaseCommandExecutor;
using server::Proxy;

/// What an earlier run of the event server left behind.
class Leftovers : public PresenceTest {
protected:
    void SetUp() override
    {
        PresenceTest::SetUp();
        sql("INSERT INTO subscription_states (subscriptionid) VALUES ('incoming#1'), ('outgoing#2');"
            "INSERT INTO event_watchers (presentitykey, watcheropaque) VALUES ('k1', 'incoming#1'), ('k2', 'w2');"
            "INSERT INTO event_sources (presentitykey, sourceopaque) VALUES ('k1', 's1'), ('k2', 's2');"
            "INSERT INTO listsubscriptions VALUES ('l1', 's1', 1), ('l2', 's2', 2);"
            "INSERT INTO watcherinfo (winfokey, subscriberkey) VALUES ('w1', 's1'), ('w2', 's2')");
    }

    /// Of dialogs, watchers, sources, list mappings and watcher information.
    std::string left()
    {
        return rows("SELECT (SELECT count(*) FROM subscription_states), (SELECT count(*) FROM event_watchers),"
                    " (SELECT count(*) FROM event_sources), (SELECT count(*) FROM listsubscriptions),"
                    " (SELECT count(*) FROM watcherinfo)");
    }

    void deny(const std::string& table) { sql("REVOKE DELETE ON " + table + " FROM oryx_server"); }
    void allow(const std::string& table) { sql("GRANT DELETE ON " + table + " TO oryx_server"); }
};

/// The same behind a connection that gets lost.
class LostLeftovers : public Leftovers {
protected:
    LostLeftovers() { setenv("PGPORT", m_proxy.port().c_str(), 1); }

    /// The connection is lost, unknown to the library, and cannot be had again.
    void loseServer()
    {
        m_proxy.refuse(true);
        m_proxy.hangUp();
    }

    /// What a connection attempt is answered while nobody listens.
    std::string refusal() const
    {
        return "connection to server at \"127.0.0.1\", port " + m_proxy.port() +
               " failed: Connection refused\n"
               "\tIs the server running on that host and accepting TCP/IP connections?\n";
    }

    Proxy m_proxy;
};

struct Removal {
    oryx::DatabaseResult (Executor::*remove)();
    std::string table;
    std::string left;
};

const std::vector<Removal> kRemovals{
    {&Executor::removeSubscriptionStates, "subscription_states", "0|2|2|2|2\n"},
    {&Executor::removeEventWatchers, "event_watchers", "0|0|2|2|2\n"},
    {&Executor::removeEventSources, "event_sources", "0|0|0|2|2\n"},
    {&Executor::removeListWatchers, "listsubscriptions", "0|0|0|0|2\n"},
    {&Executor::removeWinfoWatchers, "watcherinfo", "0|0|0|0|0\n"},
};

const std::string kAll = "2|2|2|2|2\n";
const std::string kNothing = "0|0|0|0|0\n";

std::string denied(const std::string& table)
{
    return "connection error: [42501] ERROR:  permission denied for table " + table;
}

TEST_F(Leftovers, AreRemovedTableByTable)
{
    for (const Removal& removal : kRemovals) {
        EXPECT_EQ(show((m_executor.*removal.remove)()), "okay");
        EXPECT_EQ(left(), removal.left);
    }
    for (const Removal& removal : kRemovals) {
        EXPECT_EQ(show((m_executor.*removal.remove)()), "okay") << "from the empty " << removal.table;
    }
}

TEST_F(Leftovers, OfATableStayWhereItsRemovalIsRefused)
{
    for (const Removal& removal : kRemovals) {
        deny(removal.table);
        EXPECT_EQ(outcome((m_executor.*removal.remove)()), denied(removal.table));
    }
    EXPECT_EQ(left(), kAll);
}

TEST_F(Leftovers, AreRemovedAltogether)
{
    EXPECT_EQ(show(m_executor.removeEventServerState()), "okay");
    EXPECT_EQ(left(), kNothing);
    EXPECT_EQ(show(m_executor.removeEventServerState()), "okay");
    EXPECT_EQ(sessionState(), "idle");
}

TEST_F(Leftovers, AllStayWhereTheRemovalOfOneTableIsRefused)
{
    for (const Removal& removal : kRemovals) {
        deny(removal.table);
        EXPECT_EQ(outcome(m_executor.removeEventServerState()), denied(removal.table));
        EXPECT_EQ(left(), kAll);
        EXPECT_EQ(sessionState(), "idle");
        allow(removal.table);
    }
    EXPECT_EQ(show(m_executor.deleteWatcher("outgoing#2")), "okay");
    EXPECT_EQ(left(), "1|2|2|2|2\n");
    EXPECT_EQ(show(m_executor.removeEventServerState()), "okay");
    EXPECT_EQ(left(), kNothing);
}

TEST_F(Leftovers, AreRemovedBehindTheBackendThatWasTerminated)
{
    const std::string former = backend();
    terminate(former);
    EXPECT_EQ(show(m_executor.removeEventServerState()), "okay");
    EXPECT_EQ(left(), kNothing);
    EXPECT_NE(backend(), former);
}

TEST_F(LostLeftovers, AreRemovedByARequestThatWasSentAgain)
{
    m_proxy.lose({Proxy::Loss::request});
    EXPECT_EQ(show(m_executor.removeWinfoWatchers()), "okay");
    EXPECT_EQ(left(), "2|2|2|2|0\n");
    m_proxy.lose({Proxy::Loss::answer});
    EXPECT_EQ(show(m_executor.removeEventServerState()), "okay");
    EXPECT_EQ(left(), kNothing);
}

TEST_F(LostLeftovers, AreReadAndChangedBetweenTwoLosses)
{
    oryx::PresenceRecord record("incoming#3", nullptr, "f", "t", "", 1, "e", "c", "", 2, "u", "p");
    m_proxy.hangUp();
    EXPECT_EQ(show(m_executor.addWatcher(record)), "okay");
    m_proxy.hangUp();
    EXPECT_EQ(show(m_executor.updateWatcherContact("incoming#3", "d", 9)), "okay");
    m_proxy.hangUp();
    oryx::PresenceRecord found;
    EXPECT_EQ(show(m_executor.getWatcher("incoming#3", found)), "okay");
    record.SetRemotecontacthdr("d");
    record.SetSubcseq(9);
    EXPECT_EQ(show(found), show(record));
}

TEST_F(LostLeftovers, ShowADialogThatWasStoredAndSentAgain)
{
    const oryx::PresenceRecord record("incoming#3", nullptr, "f", "t", "", 1, "e", "c", "", 2, "u", "p");
    m_proxy.lose({Proxy::Loss::answer});
    EXPECT_EQ(outcome(m_executor.addWatcher(record)), "constraint error" + duplicateOf("subscription_states_pkey"));
    EXPECT_EQ(left(), "3|2|2|2|2\n");
}

TEST_F(LostLeftovers, StayWhileTheServerIsGone)
{
    EXPECT_EQ(show(m_executor.deleteConfExtState("")),
              "query error: deleteConfExtState(): missing one or more parameters\n");
    loseServer();
    EXPECT_EQ(show(m_executor.removeEventServerState()),
              "connection error: deleteConfExtState(): missing one or more parameters\n");
    EXPECT_EQ(show(m_executor.removeEventWatchers()), "connection error: " + refusal());
    m_proxy.refuse(false);
    EXPECT_EQ(left(), kAll);
    EXPECT_EQ(show(m_executor.removeEventServerState()), "okay");
    EXPECT_EQ(left(), kNothing);
}

TEST_F(LostLeftovers, TellTheConnectionsReasonWhereItIsAsked)
{
    loseServer();
    const std::string notReset =
        "connection error: " + plainOrBound("fatal query error, connection reset failed", refusal());
    oryx::PresenceRecord found;
    EXPECT_EQ(show(m_executor.getWatcher("incoming#1", found)), notReset);
    m_proxy.refuse(false);
    EXPECT_EQ(show(m_executor.getWatcher("incoming#1", found)), "okay");
    loseServer();
    EXPECT_EQ(show(m_executor.updateWatcherContact("incoming#1", "c", 1)), notReset);
}

} // namespace

} // namespace resetTest
