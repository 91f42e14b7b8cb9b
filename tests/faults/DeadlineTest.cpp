// No operation takes longer than its deadline, whatever has become of the server, and the next one works as soon as the
// server does.

#include "support/DatabaseTest.h"
#include "support/Proxy.h"

#include <dal/PresenceDatabaseCommandExecutor.h>
#include <dal/QueryResult.h>
#include <gtest/gtest.h>

#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

namespace {

using oryx::DatabaseResult;
using oryx::SessionOptions;
using server::Proxy;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kDeadline(50);
/// What a call may take beyond its deadline on a machine however busy: less than anything that has none.
constexpr milliseconds kGrace(5000);

milliseconds timed(const std::function<void()>& call)
{
    const auto begin = steady_clock::now();
    call();
    return std::chrono::ceil<milliseconds>(steady_clock::now() - begin);
}

class Deadline : public DatabaseTest {
protected:
    Deadline() { setenv("PGPORT", m_proxy.port().c_str(), 1); }

    void SetUp() override
    {
        const SessionOptions options{SessionOptions::Statements::bound, kDeadline};
        m_service.setSessionOptions(options);
        m_events.setSessionOptions(options);
        provisionAlice();
        ASSERT_TRUE(eventually([this] { return connect(); }));
    }

    /// On a busy machine the first attempts may be too late.
    bool connect()
    {
        return m_service.connect(m_database.uri().c_str(), server::kUser, server::kPassword).okay() &&
               m_events.connect(m_database.uri().c_str(), server::kUser, server::kPassword);
    }

    static bool eventually(const std::function<bool()>& succeeds)
    {
        const auto end = steady_clock::now() + std::chrono::seconds(30);
        while (steady_clock::now() < end) {
            if (succeeds()) {
                return true;
            }
        }
        return false;
    }

    DatabaseResult lookUp()
    {
        int key = 0;
        return m_service.getPublicAddressKey("alice", "oryx.example", key);
    }

    /// Calls so often, and tells how the calls ended and whether they were in time.
    std::string calls(std::size_t count, const std::function<DatabaseResult()>& call)
    {
        std::size_t late = 0;
        for (std::size_t i = 0; i < count; ++i) {
            DatabaseResult result;
            late += timed([&] { result = call(); }) > kDeadline + kGrace ? 1 : 0;
            if (!result.connectionError() || !result.getErrorMessage().starts_with("no answer within the deadline")) {
                return "answered: " + outcome(result);
            }
        }
        return late == 0 ? "in time" : std::to_string(late) + " calls were late";
    }

    Proxy m_proxy;
    oryx::LocationService m_service;
    oryx::PresenceDatabaseCommandExecutor m_events;
};

TEST_F(Deadline, HoldsWhileEverythingSentIsSwallowed)
{
    m_proxy.swallow(true);
    EXPECT_EQ(calls(200, [this] { return lookUp(); }), "in time");
    m_proxy.swallow(false);
    EXPECT_TRUE(eventually([this] { return lookUp().okay(); }));
}

TEST_F(Deadline, NamesItselfInTheMessage)
{
    m_proxy.swallow(true);
    EXPECT_EQ(lookUp().getErrorMessage(), "no answer within the deadline of 50 ms");
    m_proxy.swallow(false);
}

TEST_F(Deadline, HoldsForAConnectionThatIsMadeAnew)
{
    m_proxy.hangUp();
    m_proxy.swallow(true);
    EXPECT_EQ(calls(20, [this] { return lookUp(); }), "in time");
    m_proxy.swallow(false);
    EXPECT_TRUE(eventually([this] { return lookUp().okay(); }));
}

TEST_F(Deadline, HoldsForAllStatementsOfAnOperationTogether)
{
    // Two lookups that each find a row, think about it for a while and show none: together they take too long.
    sql("CREATE FUNCTION hidden() RETURNS boolean LANGUAGE sql AS 'SELECT pg_sleep(0.03) IS NULL';"
        "ALTER TABLE access_control_list ENABLE ROW LEVEL SECURITY;"
        "CREATE POLICY hidden ON access_control_list USING (hidden());"
        "INSERT INTO access_control_list (object, requester, access_action, state, application) VALUES "
        "('a@b', 'x', 'A', 'ACTIVE', 'presence'), ('a', 'x', 'A', 'ACTIVE', 'presence')");
    std::vector<oryx::AccessControlEntry> entries;
    EXPECT_EQ(calls(5, [&] { return m_events.getAccessControlList("a", "b", "presence", entries); }), "in time");
}

TEST_F(Deadline, HasTheServerCancelWhatItWorksAt)
{
    server::Session holder(m_database.name());
    holder.run("BEGIN; LOCK TABLE public_address");
    EXPECT_EQ(calls(20, [this] { return lookUp(); }), "in time");
    const auto waiting = [&] {
        return holder.value("SELECT count(*) FROM pg_stat_activity WHERE wait_event_type = 'Lock'") == "0";
    };
    EXPECT_TRUE(eventually(waiting));
    holder.run("COMMIT");
    EXPECT_TRUE(eventually([this] { return lookUp().okay(); }));
}

/// The processes of the test's own server, asked not to run; they run again with the object's end.
class Stopped {
public:
    explicit Stopped(const std::string& folder)
    {
        std::string postmaster;
        std::ifstream(folder + "/postmaster.pid") >> postmaster;
        std::ifstream children("/proc/" + postmaster + "/task/" + postmaster + "/children");
        m_processes.push_back(std::stoi(postmaster));
        for (pid_t child = 0; children >> child;) {
            m_processes.push_back(child);
        }
        signal(SIGSTOP);
    }
    ~Stopped() { signal(SIGCONT); }
    Stopped(const Stopped&) = delete;
    Stopped& operator=(const Stopped&) = delete;

private:
    void signal(int number) const
    {
        std::for_each(m_processes.begin(), m_processes.end(), [&](pid_t process) { ::kill(process, number); });
    }

    std::vector<pid_t> m_processes;
};

TEST_F(Deadline, HoldsWhileTheServerIsStopped)
{
    const std::string folder = m_session.value("SHOW data_directory");
    {
        const Stopped stopped(folder);
        EXPECT_EQ(calls(200, [this] { return lookUp(); }), "in time");
    }
    EXPECT_TRUE(eventually([this] { return lookUp().okay(); }));
}

std::vector<bool> wakeUps; // whether each call of the listener's callback told of a change

TEST_F(Deadline, EndsAListenersWaitWhenItsConnectionIsDead)
{
    wakeUps.clear();
    static Proxy* swallowing = nullptr;
    swallowing = &m_proxy;
    // Long enough for a server that is there to answer in, on a machine however busy.
    oryx::PresenceDatabaseCommandExecutor listener;
    listener.setSessionOptions({SessionOptions::Statements::bound, std::chrono::seconds(4)});
    ASSERT_TRUE(listener.connect(m_database.uri().c_str(), server::kUser, server::kPassword));
    const auto waited = timed([&] {
        listener.waitForNotify([](bool changed, const std::string&) {
            wakeUps.push_back(changed);
            swallowing->swallow(true);
            return false;
        });
    });
    EXPECT_EQ(wakeUps, (std::vector<bool>{false, false})); // the second one when the connection was found dead
    EXPECT_LT(waited, std::chrono::seconds(30));
    m_proxy.swallow(false);
}

} // namespace
