// A listener that hears of every change in time, whatever becomes of its connection, and that can always be stopped.

#include "support/DatabaseTest.h"
#include "support/Proxy.h"
#include "support/Show.h"
#include "support/TraceLog.h"

#include <dal/ChangeListener.h>

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <future>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace changeListenerTest {

namespace {

using oryx::ChangedTable;
using oryx::ChangeListener;
using oryx::ChangeListenerOptions;
using oryx::ChangePosition;
using oryx::ChangeSet;
using oryx::DatabaseUpdate;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

/// What a listener is held to. On a machine that does nothing else, what it promises; on one however busy, what nothing
/// keeps that waits for its next idle check.
struct Measure {
    milliseconds stop;
    milliseconds burst; // from the last of 100,000 notifications
};
const Measure kMeasure = std::getenv("ORYX_DRILL") != nullptr ? Measure{milliseconds(100), milliseconds(2000)}
                                                              : Measure{milliseconds(1000), milliseconds(20000)};
constexpr seconds kPatience(20);

std::string shownKey(const DatabaseUpdate& row)
{
    return row.strpkey().empty() ? std::to_string(row.intpkey()) : row.strpkey();
}

/// "subscriber", "subscriber!" where it must be read again, "subscriber 7 8" with the keys of its rows.
std::string shown(const ChangedTable& table)
{
    std::string text = table.name + (table.readAgain ? "!" : "");
    for (const DatabaseUpdate& row : table.rows) {
        text += " " + shownKey(row);
    }
    return text;
}

std::string shown(const ChangeSet& changes)
{
    std::string text = changes.everything ? "everything:" : "";
    for (const ChangedTable& table : changes.tables) {
        text += (text.empty() ? "" : " ") + shown(table);
    }
    return text;
}

const std::string kEverything = "everything: acp! extension! conf_state! conf_state_reset! public_address! subscriber! "
                                "contact_set! sip_event_aggregator!";

ChangePosition beginning()
{
    ChangePosition position;
    for (const char* const table : {"acp", "extension", "conf_state", "conf_state_reset", "public_address",
                                    "subscriber", "contact_set", "sip_event_aggregator"}) {
        position[table] = "0";
    }
    return position;
}

/// The calls a listener made, shown; they come from its thread.
class Calls {
public:
    void add(const ChangeSet& changes)
    {
        const std::lock_guard lock(m_mutex);
        m_calls.push_back(shown(changes));
        m_sets.push_back(changes);
        m_added.notify_all();
    }

    /// As soon as there are so many, or what there is after a time within which they would have come.
    std::vector<std::string> await(std::size_t count)
    {
        std::unique_lock lock(m_mutex);
        m_added.wait_for(lock, kPatience, [&] { return m_calls.size() >= count; });
        return m_calls;
    }

    /// Waits until a call tells of the table, whatever else it tells.
    bool awaitTable(const std::string& name, std::size_t from = 0)
    {
        std::unique_lock lock(m_mutex);
        return m_added.wait_for(lock, kPatience, [&] {
            for (std::size_t i = from; i < m_sets.size(); ++i) {
                for (const ChangedTable& table : m_sets.at(i).tables) {
                    if (table.name == name) {
                        return true;
                    }
                }
            }
            return false;
        });
    }

    std::vector<ChangeSet> sets()
    {
        const std::lock_guard lock(m_mutex);
        return m_sets;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_added;
    std::vector<std::string> m_calls;
    std::vector<ChangeSet> m_sets;
};

milliseconds timed(const std::function<void()>& act)
{
    const auto begin = steady_clock::now();
    act();
    return std::chrono::ceil<milliseconds>(steady_clock::now() - begin);
}

class Listener : public DatabaseTest {
protected:
    void TearDown() override
    {
        if (m_running.valid()) {
            end();
        }
        m_listener.reset();
        DatabaseTest::TearDown();
    }

    ChangeListener& make() { return m_listener.emplace(m_database.uri(), server::kUser, server::kPassword, m_options); }

    void begin()
    {
        if (!m_listener) {
            make();
        }
        m_running = std::async(std::launch::async, [this] {
            m_thread = pthread_self();
            return show(m_listener->run([this](const ChangeSet& changes) {
                m_calls.add(changes);
                if (m_act) {
                    m_act(changes);
                }
            }));
        });
    }

    /// Begins, and returns when it listens; its calls so far are the first of all.
    void listen()
    {
        begin();
        ASSERT_FALSE(m_calls.await(1).empty());
    }

    /// Stops it and tells what the run answered, or that it took too long.
    std::string end(const std::function<void()>& stop = nullptr)
    {
        const milliseconds took = timed([&] {
            stop ? stop() : m_listener->stop();
            m_running.wait();
        });
        RecordProperty("stop_ms", std::to_string(took.count()));
        const std::string answer = m_running.get();
        return took <= kMeasure.stop ? answer : "stopped after " + std::to_string(took.count()) + " ms";
    }

    /// The server process that the listener listens on.
    std::string listening()
    {
        return m_session.value("SELECT pid FROM pg_stat_activity WHERE datname = current_database() AND usename = '" +
                               std::string(server::kUser) + "' ORDER BY backend_start LIMIT 1");
    }

    /// Waits for a line of the channel "oryx".
    testing::AssertionResult awaitTrace(const std::string& text)
    {
        const auto patience = steady_clock::now() + kPatience;
        while (m_traced.find(text) == std::string::npos && steady_clock::now() < patience) {
            std::this_thread::sleep_for(milliseconds(5));
            m_traced += m_trace.take("oryx");
        }
        return m_traced.find(text) != std::string::npos ? testing::AssertionSuccess()
                                                        : testing::AssertionFailure() << m_traced;
    }

    TraceLog m_trace;
    std::string m_traced;
    ChangeListenerOptions m_options;
    std::optional<ChangeListener> m_listener;
    Calls m_calls;
    std::function<void(const ChangeSet&)> m_act;
    std::atomic<pthread_t> m_thread;
    std::future<std::string> m_running;
};

/// The same through a proxy, with times that a test can wait for.
class ListenerThroughProxy : public Listener {
protected:
    ListenerThroughProxy()
    {
        setenv("PGPORT", m_proxy.port().c_str(), 1);
        m_options.idleCheck = milliseconds(100);
        m_options.answerTime = milliseconds(2000);
    }

    server::Proxy m_proxy;
};

/// One that follows the change log.
class ListenerOfTheLog : public Listener {
protected:
    ListenerOfTheLog()
    {
        m_options.followLog = true;
        m_options.position = beginning();
    }

    /// Every row handed over so far, a line each: stamp and key.
    std::string delivered()
    {
        std::multimap<long long, std::string> rows;
        for (const ChangeSet& changes : m_calls.sets()) {
            for (const ChangedTable& table : changes.tables) {
                for (const DatabaseUpdate& row : table.rows) {
                    rows.emplace(std::stoll(row.timestamp()), table.name + "|" + shownKey(row) + "\n");
                }
            }
        }
        std::string text;
        for (const auto& [stamp, row] : rows) {
            text += std::to_string(stamp) + "|" + row;
        }
        return text;
    }

    std::string logged()
    {
        return rows("SELECT evt_timestamp, table_name, coalesce(pk_char, pk_int::text) FROM event_notify"
                    " ORDER BY evt_timestamp");
    }

    void addManager(const std::string& handle) { sql("INSERT INTO acp VALUES ('" + handle + "')"); }
};

const std::string kNothingLogged =
    "everything: acp extension conf_state conf_state_reset public_address subscriber contact_set sip_event_aggregator";

TEST_F(Listener, IsToldAtFirstToReadEverythingAndThenOfEachChange)
{
    listen();
    sql("NOTIFY subscriber");
    EXPECT_EQ(m_calls.await(2), (std::vector<std::string>{kEverything, "subscriber!"}));
    sql("INSERT INTO acp VALUES ('manager1')");
    EXPECT_EQ(m_calls.await(3), (std::vector<std::string>{kEverything, "subscriber!", "acp!"}));
    EXPECT_EQ(end(), "okay");
    EXPECT_EQ(m_calls.await(3).size(), 3U);
    EXPECT_EQ(m_trace.take("oryx").find(" log: "), std::string::npos);
}

TEST_F(Listener, HearsOfPublicationsOnlyWhereItIsAskedTo)
{
    m_options.publications = true;
    listen();
    sql("INSERT INTO publication VALUES (42, 'presence', 'tag', 'tag', 'alice@oryx.example', 5, 'type', 'body')");
    EXPECT_EQ(m_calls.await(2), (std::vector<std::string>{kEverything + " publication!", "publication!"}));
    EXPECT_EQ(end(), "okay");
}

TEST_F(ListenerOfTheLog, HearsWhoHasPublished)
{
    m_options.publications = true;
    m_options.position["publication"] = "0";
    listen();
    sql("INSERT INTO publication VALUES (42, 'presence', 'tag', 'tag', 'alice@oryx.example', 5, 'type', 'body')");
    EXPECT_EQ(m_calls.await(2),
              (std::vector<std::string>{kNothingLogged + " publication", "publication alice@oryx.example"}));
    EXPECT_EQ(end(), "okay");
}

TEST_F(ListenerOfTheLog, HearsThatSomebodyElseMayWatchWhereItIsAskedTo)
{
    m_options.accessRules = true;
    listen();
    std::vector<std::string> expected{kNothingLogged + " access_control_list!"};
    for (const char* const change :
         {"INSERT INTO access_control_list (object, requester, application) VALUES ('a@h', 'b@h', 'presence')",
          "INSERT INTO node VALUES ('node', 'sip1')", "INSERT INTO buddy_list VALUES (7, 'friends')",
          "INSERT INTO buddy_list_detail VALUES ('friends', 'sip:a@h')",
          "INSERT INTO presence_list_authorization VALUES (7, 'b', 'h', 'A')", "TRUNCATE access_control_list"}) {
        sql(change);
        expected.emplace_back("access_control_list!");
        EXPECT_EQ(m_calls.await(expected.size()), expected) << change;
    }
    EXPECT_EQ(end(), "okay");
}

TEST_F(ListenerOfTheLog, HearsThatADomainIsServedOrNotWhereItIsAskedTo)
{
    m_options.parameters = true;
    listen();
    std::vector<std::string> expected{kNothingLogged + " system_parameters!"};
    for (const char* const change :
         {"INSERT INTO system_parameters VALUES ('oryxproxy', 'ServerInfo', 'ServerNames', 'oryx.example')",
          "UPDATE system_parameters SET value = 'oryx.example, new.example'", "DELETE FROM system_parameters",
          "TRUNCATE system_parameters"}) {
        sql(change);
        expected.emplace_back("system_parameters!");
        EXPECT_EQ(m_calls.await(expected.size()), expected) << change;
    }
    EXPECT_EQ(end(), "okay");
}

TEST_F(Listener, HandsOverAllThatIsPendingAtOnceEachTableOnceInAFixedOrder)
{
    std::promise<void> notified;
    m_act = [&, waiting = true](const ChangeSet& /*changes*/) mutable {
        if (std::exchange(waiting, false)) {
            notified.get_future().wait();
        }
    };
    listen();
    for (int i = 0; i < 3; ++i) {
        sql("NOTIFY sip_event_aggregator; NOTIFY subscriber; NOTIFY acp; NOTIFY contact; NOTIFY subscriber, 'x'");
    }
    std::this_thread::sleep_for(milliseconds(500)); // the server sends them after the commits have been answered
    notified.set_value();
    EXPECT_EQ(m_calls.await(2), (std::vector<std::string>{kEverything, "acp! subscriber! sip_event_aggregator!"}));
    EXPECT_EQ(end(), "okay");
    EXPECT_EQ(m_calls.await(2).size(), 2U);
}

TEST_F(Listener, NamesEveryTableOfAHundredThousandNotifications)
{
    listen();
    const std::vector<std::string> tables{
        "acp", "extension", "conf_state", "conf_state_reset", "public_address", "subscriber", "contact_set"};
    for (int transaction = 0; transaction < 10; ++transaction) {
        sql("SELECT pg_notify((ARRAY['acp', 'extension', 'conf_state', 'conf_state_reset', 'public_address',"
            " 'subscriber', 'contact_set'])[1 + n % 7], '" +
            std::to_string(transaction) + " ' || n) FROM generate_series(1, 10000) AS n");
    }
    const milliseconds took = timed([&] {
        sql("NOTIFY sip_event_aggregator"); // behind all the others
        EXPECT_TRUE(m_calls.awaitTable("sip_event_aggregator", 1));
    });
    RecordProperty("burst_ms", std::to_string(took.count()));
    EXPECT_LE(took, kMeasure.burst);
    for (const std::string& table : tables) {
        EXPECT_TRUE(m_calls.awaitTable(table, 1)) << table;
    }
    EXPECT_EQ(end(), "okay");
    EXPECT_LE(m_calls.sets().size(), 1000U); // not one for each
}

TEST_F(Listener, DoesNotFallBehindASlowCallback)
{
    m_act = [](const ChangeSet& /*changes*/) { std::this_thread::sleep_for(milliseconds(100)); };
    listen();
    for (int i = 0; i < 150; ++i) {
        sql("NOTIFY subscriber, '" + std::to_string(i) + "'");
        std::this_thread::sleep_for(milliseconds(20));
    }
    const milliseconds took = timed([&] {
        sql("NOTIFY acp");
        EXPECT_TRUE(m_calls.awaitTable("acp", 1));
    });
    EXPECT_LE(took, seconds(5)); // a hundred and fifty calls would take fifteen
    m_listener->stop();
    EXPECT_EQ(m_running.get(), "okay");
}

TEST_F(Listener, RunsNothingWithoutACallback)
{
    ChangeListener& listener = make();
    EXPECT_EQ(show(listener.run(nullptr)), "query error: a listener needs a callback");
}

TEST_F(Listener, IsStoppedByARequestFromBefore)
{
    ChangeListener& listener = make();
    listener.stop();
    listener.stop();
    EXPECT_EQ(show(listener.run([this](const ChangeSet& changes) { m_calls.add(changes); })), "okay");
    EXPECT_EQ(m_calls.sets().size(), 0U);
    listen(); // both counted for the run before
    EXPECT_EQ(end(), "okay");
}

TEST_F(Listener, IsStoppedTwiceAndRunAgain)
{
    m_act = [this](const ChangeSet& /*changes*/) {
        m_listener->stop();
        m_listener->stop();
    };
    listen();
    EXPECT_EQ(m_running.get(), "okay");
    m_act = nullptr;
    begin();
    EXPECT_EQ(m_calls.await(2), (std::vector<std::string>{kEverything, kEverything}));
    sql("NOTIFY acp");
    EXPECT_EQ(m_calls.await(3), (std::vector<std::string>{kEverything, kEverything, "acp!"}));
    EXPECT_EQ(end(), "okay");
}

TEST_F(Listener, IsStoppedByItsCallback)
{
    m_act = [this](const ChangeSet& changes) {
        if (!changes.everything) {
            m_listener->stop();
        }
    };
    listen();
    sql("NOTIFY acp");
    EXPECT_EQ(m_running.get(), "okay");
    EXPECT_EQ(m_calls.await(2), (std::vector<std::string>{kEverything, "acp!"}));
}

std::atomic<ChangeListener*> interrupted = nullptr;

TEST_F(Listener, IsStoppedByASignalHandler)
{
    struct sigaction stopping {};
    stopping.sa_handler = [](int /*number*/) { interrupted.load()->stop(); };
    struct sigaction former {};
    ASSERT_EQ(sigaction(SIGUSR1, &stopping, &former), 0);
    listen();
    interrupted = &*m_listener;
    EXPECT_EQ(end([this] { pthread_kill(m_thread, SIGUSR1); }), "okay"); // in the midst of its wait
    begin();
    m_calls.await(2);
    EXPECT_EQ(end([] { raise(SIGUSR1); }), "okay");
    ASSERT_EQ(sigaction(SIGUSR1, &former, nullptr), 0);
}

TEST_F(Listener, GoesOnAfterASignalThatDoesNotStopIt)
{
    struct sigaction noted {};
    noted.sa_handler = [](int /*number*/) {};
    struct sigaction former {};
    ASSERT_EQ(sigaction(SIGUSR1, &noted, &former), 0);
    listen();
    for (int i = 0; i < 20; ++i) {
        pthread_kill(m_thread, SIGUSR1);
        std::this_thread::sleep_for(milliseconds(1));
    }
    sql("NOTIFY acp");
    EXPECT_EQ(m_calls.await(2), (std::vector<std::string>{kEverything, "acp!"}));
    EXPECT_EQ(end(), "okay");
    ASSERT_EQ(sigaction(SIGUSR1, &former, nullptr), 0);
}

TEST_F(Listener, LeavesWhatItsCallbackThrowsToTheCaller)
{
    ChangeListener& listener = make();
    std::string pid;
    EXPECT_THROW(listener.run([&](const ChangeSet& /*changes*/) {
        pid = listening();
        throw std::runtime_error("the caller's");
    }),
                 std::runtime_error);
    EXPECT_EQ(remaining(pid), "");
    listen();
    EXPECT_EQ(m_calls.await(1), std::vector<std::string>{kEverything});
}

TEST_F(Listener, ConnectsAgainWhenItsBackendIsTerminatedAndTellsToReadEverything)
{
    listen();
    terminate(listening());
    EXPECT_EQ(m_calls.await(2), (std::vector<std::string>{kEverything, kEverything}));
    sql("NOTIFY acp");
    EXPECT_EQ(m_calls.await(3), (std::vector<std::string>{kEverything, kEverything, "acp!"}));
    EXPECT_TRUE(awaitTrace("oryx log: change listener: not listening: server closed the connection unexpectedly"));
    EXPECT_TRUE(awaitTrace("oryx log: change listener: listening again\n"));
    EXPECT_EQ(end(), "okay");
}

TEST_F(Listener, SaysWhetherItListens)
{
    std::vector<bool> said;
    m_act = [&](const ChangeSet&) { said.push_back(m_listener->listening()); };
    listen();
    sql("NOTIFY acp");
    m_calls.await(2);
    terminate(listening());
    m_calls.await(3);
    EXPECT_EQ(end(), "okay");
    EXPECT_EQ(said, (std::vector<bool>{false, true, false}));
    EXPECT_FALSE(m_listener->listening());
}

TEST_F(Listener, SaysWhyItCannotConnectAndNeverThePassword)
{
    m_listener.emplace(m_database.uri(), server::kUser, "not-the-password", m_options);
    begin();
    EXPECT_TRUE(awaitTrace("oryx log: change listener: not listening: connection to server at \"127.0.0.1\", port " +
                           server::port() + " failed: FATAL:  password authentication failed for user"));
    EXPECT_EQ(end(), "okay");
    m_traced += m_trace.take("oryx");
    EXPECT_EQ(m_traced.find("not-the-password"), std::string::npos);
    EXPECT_EQ(m_traced.find("not listening"), m_traced.rfind("not listening")); // once
    EXPECT_EQ(m_calls.sets().size(), 0U);
}

TEST_F(ListenerThroughProxy, NoticesThatTheNetworkSwallowsEverything)
{
    listen();
    m_proxy.swallow(true);
    const milliseconds took = timed(
        [&] { EXPECT_TRUE(awaitTrace("oryx log: change listener: not listening: no answer within the deadline of")); });
    EXPECT_LE(took, m_options.idleCheck + m_options.answerTime + kMeasure.stop);
    sql("NOTIFY acp"); // unheard
    m_proxy.swallow(false);
    EXPECT_EQ(m_calls.await(2), (std::vector<std::string>{kEverything, kEverything}));
    sql("NOTIFY subscriber");
    EXPECT_EQ(m_calls.await(3), (std::vector<std::string>{kEverything, kEverything, "subscriber!"}));
    EXPECT_EQ(end(), "okay");
}

TEST_F(ListenerThroughProxy, StaysConnectedWhileNothingHappens)
{
    listen();
    const std::string pid = listening();
    std::this_thread::sleep_for(10 * m_options.idleCheck);
    EXPECT_EQ(listening(), pid);
    sql("NOTIFY acp");
    EXPECT_EQ(m_calls.await(2), (std::vector<std::string>{kEverything, "acp!"}));
    EXPECT_EQ(end(), "okay");
}

TEST_F(ListenerThroughProxy, NoticesAPoolerThatLendsSessionsByTheTransaction)
{
    m_proxy.lend(true);
    begin();
    EXPECT_TRUE(awaitTrace("oryx log: change listener: not listening: notifications are not heard: a pooler in front "
                           "must keep a session per client\n"));
    EXPECT_EQ(m_calls.sets().size(), 0U);
    m_proxy.lend(false);
    EXPECT_EQ(m_calls.await(1), std::vector<std::string>{kEverything});
    EXPECT_EQ(end(), "okay");
}

TEST_F(ListenerThroughProxy, TellsToReadEverythingWhereItsConnectionIsLostAsItReadsTheLog)
{
    m_options.idleCheck = seconds(60);
    m_options.followLog = true;
    m_options.position = beginning();
    listen();
    m_proxy.lose({server::Proxy::Loss::request});
    sql("INSERT INTO acp VALUES ('manager1')");
    EXPECT_EQ(m_calls.await(2).at(1), "everything: acp manager1 extension conf_state conf_state_reset public_address "
                                      "subscriber contact_set sip_event_aggregator");
    EXPECT_EQ(end(), "okay");
}

TEST_F(ListenerThroughProxy, IsStoppedWhileItConnects)
{
    m_options.answerTime = seconds(60);
    m_proxy.swallow(true);
    begin();
    std::this_thread::sleep_for(milliseconds(300));
    EXPECT_EQ(end(), "okay");
}

TEST_F(ListenerThroughProxy, IsStoppedBetweenItsAttemptsToConnect)
{
    m_proxy.refuse(true);
    begin();
    std::this_thread::sleep_for(milliseconds(3400)); // the next is about three seconds away
    EXPECT_EQ(end(), "okay");
    EXPECT_TRUE(awaitTrace("Connection refused"));
}

TEST_F(ListenerThroughProxy, IsStoppedWhileItLooksWhetherTheServerIsThere)
{
    m_options.answerTime = seconds(60);
    listen();
    m_proxy.swallow(true);
    std::this_thread::sleep_for(milliseconds(400));
    EXPECT_EQ(end(), "okay");
}

TEST_F(ListenerOfTheLog, IsStoppedWhileItWaitsForTheLog)
{
    listen();
    server::Session holder(m_database.name());
    holder.run("BEGIN; LOCK TABLE event_notify");
    sql("NOTIFY acp");
    EXPECT_NE(waitingBackend(), "");
    EXPECT_EQ(end(), "okay");
    holder.run("COMMIT");
    EXPECT_EQ(m_calls.await(1), std::vector<std::string>{kNothingLogged});
}

TEST_F(ListenerOfTheLog, HearsWhatComesWithAnAnswer)
{
    m_options.idleCheck = seconds(60);
    listen();
    server::Session holder(m_database.name());
    holder.run("BEGIN; LOCK TABLE event_notify");
    sql("NOTIFY acp");
    EXPECT_NE(waitingBackend(), "");
    sql("NOTIFY subscriber"); // the server tells it when the statement has ended
    holder.run("COMMIT");
    EXPECT_EQ(m_calls.await(3), (std::vector<std::string>{kNothingLogged, "acp", "subscriber"}));
    EXPECT_EQ(end(), "okay");
}

TEST_F(ListenerOfTheLog, DeliversTheChangedRowsOfEachTableOnce)
{
    addManager("manager1");
    listen();
    addManager("manager2");
    EXPECT_EQ(m_calls.await(2).at(1), "acp manager2");
    sql("INSERT INTO subscriber (sid, user_id) VALUES (8, 'bob'), (9, 'carol')");
    EXPECT_EQ(m_calls.await(3).at(2), "subscriber 8 9");
    sql("NOTIFY acp");
    EXPECT_EQ(m_calls.await(4).at(3), "acp"); // the log has nothing new
    EXPECT_EQ(m_calls.await(4).at(0), "everything: acp manager1 extension conf_state conf_state_reset public_address "
                                      "subscriber contact_set sip_event_aggregator");
    EXPECT_EQ(delivered(), logged());
    EXPECT_EQ(end(), "okay");
}

TEST_F(ListenerOfTheLog, BeginsBehindWhatIsLoggedWhereItHasNoPosition)
{
    m_options.position.erase("acp");
    addManager("manager1");
    listen();
    addManager("manager2");
    EXPECT_EQ(m_calls.await(2),
              (std::vector<std::string>{"everything: acp! extension conf_state conf_state_reset public_address "
                                        "subscriber contact_set sip_event_aggregator",
                                        "acp manager2"}));
    EXPECT_EQ(end(), "okay");
}

TEST_F(ListenerOfTheLog, DeliversWhatHappenedWhileItWasNotConnected)
{
    listen();
    addManager("manager1");
    EXPECT_EQ(m_calls.await(2).at(1), "acp manager1");
    {
        // It comes back when the change is made, for the callback is not called in between.
        server::Session holder(m_database.name());
        holder.run("BEGIN; LOCK TABLE event_notify IN ACCESS EXCLUSIVE MODE");
        terminate(listening());
        EXPECT_NE(waitingBackend(), "");
        holder.run("INSERT INTO acp VALUES ('manager2'); COMMIT");
    }
    EXPECT_EQ(m_calls.await(3).at(2), "everything: acp manager2 extension conf_state conf_state_reset public_address "
                                      "subscriber contact_set sip_event_aggregator");
    EXPECT_EQ(end(), "okay");
    EXPECT_EQ(delivered(), logged());
}

TEST_F(ListenerOfTheLog, GoesOnWhereAnotherLeftOff)
{
    addManager("manager1");
    listen();
    EXPECT_EQ(end(), "okay");
    const ChangePosition position = m_listener->position();
    EXPECT_EQ(position.at("acp"), m_session.value("SELECT max(evt_timestamp) FROM event_notify"));
    EXPECT_EQ(position.at("subscriber"), "0");
    EXPECT_EQ(m_calls.sets().at(0).position, position);
    addManager("manager2");
    m_options.position = position;
    make();
    begin();
    EXPECT_EQ(m_calls.await(2).at(1), "everything: acp manager2 extension conf_state conf_state_reset public_address "
                                      "subscriber contact_set sip_event_aggregator");
    EXPECT_EQ(end(), "okay");
    EXPECT_EQ(delivered(), logged());
}

TEST_F(ListenerOfTheLog, DeliversAgainWhatItsCallbackDidNotReturnFrom)
{
    addManager("manager1");
    ChangeListener& listener = make();
    EXPECT_THROW(listener.run([](const ChangeSet& /*changes*/) { throw std::runtime_error("the caller's"); }),
                 std::runtime_error);
    EXPECT_EQ(listener.position(), beginning());
    listen();
    EXPECT_EQ(m_calls.await(1).at(0), "everything: acp manager1 extension conf_state conf_state_reset public_address "
                                      "subscriber contact_set sip_event_aggregator");
}

TEST_F(ListenerOfTheLog, IsToldToReadTheTablesAgainWhereTheLogIsRefused)
{
    sql("REVOKE SELECT ON event_notify FROM oryx_server");
    listen();
    addManager("manager1");
    EXPECT_EQ(m_calls.await(2), (std::vector<std::string>{kEverything, "acp!"}));
    EXPECT_TRUE(
        awaitTrace("oryx log: change listener: the log of acp cannot be read, so its rows are not told: ERROR:  "
                   "permission denied for view event_notify"));
    sql("GRANT SELECT ON event_notify TO oryx_server");
    addManager("manager2");
    EXPECT_EQ(m_calls.await(3).at(2), "acp manager1 manager2"); // the position has waited
    EXPECT_EQ(end(), "okay");
    m_traced += m_trace.take("oryx");
    EXPECT_EQ(m_traced.find("the log of acp"), m_traced.rfind("the log of acp")); // once
}

TEST_F(ListenerOfTheLog, MissesNothingAndDoublesNothingWhileItsConnectionsAreLost)
{
    listen();
    std::vector<std::thread> writers;
    for (int writer = 0; writer < 3; ++writer) {
        writers.emplace_back([this, writer] {
            server::Session session(m_database.name());
            for (int i = 0; i < 60; ++i) {
                const std::string handle = std::to_string(writer) + "-" + std::to_string(i);
                session.run("BEGIN; INSERT INTO acp VALUES ('" + handle + "'); SELECT pg_sleep(0.00" +
                            std::to_string(writer * 3) + "); INSERT INTO extension (extension) VALUES ('" + handle +
                            "'); " + (i % 5 == 4 ? "ROLLBACK" : "COMMIT"));
            }
        });
    }
    for (int i = 0; i < 8; ++i) {
        std::this_thread::sleep_for(milliseconds(100));
        sql("SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE usename = '" + std::string(server::kUser) +
            "' AND datname = current_database()");
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
    const std::size_t before = m_calls.await(1).size();
    sql("INSERT INTO subscriber (sid, user_id) VALUES (8, 'bob')"); // behind all the others
    const auto patience = steady_clock::now() + kPatience;
    while (delivered().find("subscriber|8") == std::string::npos && steady_clock::now() < patience) {
        m_calls.awaitTable("subscriber", before);
        std::this_thread::sleep_for(milliseconds(10));
    }
    EXPECT_EQ(delivered(), logged());
    EXPECT_EQ(end(), "okay");
}

} // namespace

} // namespace changeListenerTest
