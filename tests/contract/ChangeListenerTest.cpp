#include "support/FakeLibpq.h"
#include "support/Show.h"
#include "support/TraceLog.h"

#include <dal/ChangeListener.h>

#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <regex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace changeListenerTest {

namespace {

using fake::command;
using fake::nothing;
using fake::refused;
using fake::rows;
using oryx::ChangeListener;
using oryx::ChangeListenerOptions;
using oryx::ChangeSet;
using oryx::SessionOptions;

const std::string kConnect = "start host=db dbname=oryx user=events1 password=secret\nnotices\n";
const std::string kSubscribe = "send LISTEN acp;LISTEN extension;LISTEN conf_state;LISTEN conf_state_reset;"
                               "LISTEN public_address;LISTEN subscriber;LISTEN contact_set;"
                               "LISTEN sip_event_aggregator;LISTEN OWN;\n";
/// Connected and subscribed; and notified by another connection, which is gone then.
const std::string kBegin = kConnect + kSubscribe + kConnect + "send SELECT pg_notify('OWN', '1');\nfinish\n";

std::string changesQuery(const std::string& table, const std::string& since)
{
    return "send SELECT pk_int, pk_char, evt_timestamp FROM event_notify WHERE table_name = '" + table +
           "' AND evt_timestamp > " + since + ";\n";
}

std::string shown(const ChangeSet& changes)
{
    std::string text = changes.everything ? "everything\n" : "";
    for (const oryx::ChangedTable& table : changes.tables) {
        text += table.name + (table.readAgain ? " again\n" : "\n");
        for (const oryx::DatabaseUpdate& row : table.rows) {
            text += "    " + show(row);
        }
    }
    return text;
}

const std::string kEverything = "everything\n"
                                "acp again\n"
                                "extension again\n"
                                "conf_state again\n"
                                "conf_state_reset again\n"
                                "public_address again\n"
                                "subscriber again\n"
                                "contact_set again\n"
                                "sip_event_aggregator again\n";

/// A listener that stops itself in a call.
class Listener : public testing::Test {
protected:
    Listener()
    {
        m_options.session = {SessionOptions::Statements::plain, std::chrono::milliseconds(0)};
        m_libpq.echoes();
        m_libpq.errorMessage("");
    }

    /// Runs until so many calls are made, `act` beside each; what they told.
    std::string run(std::size_t calls, const std::function<void()>& act = nullptr)
    {
        ChangeListener listener("postgresql://db/oryx", "events1", "secret", m_options);
        std::string text;
        const oryx::DatabaseResult result = listener.run([&](const ChangeSet& changes) {
            text += shown(changes);
            if (--calls == 0) {
                listener.stop();
            }
            if (act) {
                act();
            }
        });
        m_position = listener.position();
        return result.okay() ? text : show(result);
    }

    /// What was asked of libpq, the private channel as OWN, but for the taking of notifications.
    std::string asked()
    {
        const std::string calls = std::regex_replace(m_libpq.take(), std::regex("(consume|notifies)\n"), "");
        return std::regex_replace(calls, std::regex("oryx_listener_[0-9_]+"), "OWN");
    }

    /// The table that was asked for beside those of the change log is subscribed to, and its changes are told.
    void hearsOfAllAnd(const std::string& table)
    {
        m_libpq.replies({command()});
        const auto notifyOnce = [this, table, first = true]() mutable {
            if (std::exchange(first, false)) {
                m_libpq.notifies({table, "acp"});
            }
        };
        EXPECT_EQ(run(2, notifyOnce), kEverything + table + " again\nacp again\n" + table + " again\n");
        EXPECT_EQ(asked(), std::regex_replace(kBegin, std::regex("LISTEN OWN;"), "LISTEN " + table + ";LISTEN OWN;") +
                               "finish\n");
    }

    fake::Libpq m_libpq;
    TraceLog m_trace;
    ChangeListenerOptions m_options;
    oryx::ChangePosition m_position;
};

TEST_F(Listener, SubscribesToAllTablesHasItselfNotifiedAndTellsToReadEverything)
{
    m_libpq.replies({command()});
    EXPECT_EQ(run(1), kEverything);
    EXPECT_EQ(asked(), kBegin + "finish\n");
    EXPECT_EQ(m_trace.take("oryx"), "oryx prn: change listener: listening\n");
}

TEST_F(Listener, TellsNotificationsOnceForEachTable)
{
    m_libpq.replies({command()});
    EXPECT_EQ(run(2,
                  [this, first = true]() mutable {
                      if (std::exchange(first, false)) {
                          m_libpq.notifies({"subscriber", "contact", "acp", std::nullopt, "subscriber"});
                      }
                  }),
              kEverything + "acp again\nsubscriber again\n");
    EXPECT_EQ(asked(), kBegin + "finish\n");
}

TEST_F(Listener, HearsOfPublicationsWhereItIsAskedTo)
{
    m_options.publications = true;
    hearsOfAllAnd("publication");
}

TEST_F(Listener, HearsOfAccessRulesWhereItIsAskedTo)
{
    m_options.accessRules = true;
    hearsOfAllAnd("access_control_list");
}

TEST_F(Listener, HearsOfParametersWhereItIsAskedTo)
{
    m_options.parameters = true;
    hearsOfAllAnd("system_parameters");
}

TEST_F(Listener, NotifiesItselfWhenItIsIdle)
{
    const int silent = eventfd(0, EFD_CLOEXEC); // never has input
    m_libpq.socket(silent);
    m_options.idleCheck = std::chrono::milliseconds(1);
    m_libpq.replies({command()});
    std::thread later;
    EXPECT_EQ(run(2,
                  [&] {
                      if (!later.joinable()) {
                          later = std::thread([this] {
                              std::this_thread::sleep_for(std::chrono::milliseconds(50));
                              m_libpq.notifies({"acp"}); // is found when the answer to a check is looked for
                          });
                      }
                  }),
              kEverything + "acp again\n");
    later.join();
    EXPECT_TRUE(
        asked().starts_with(kBegin + "send SELECT pg_notify('OWN', '2');\nsend SELECT pg_notify('OWN', '3');\n"));
    close(silent);
}

TEST_F(Listener, ReadsTheLogOfTheTablesThatAreTold)
{
    m_options.followLog = true;
    m_options.position = {{"acp", "0"}, {"subscriber", "1700"}};
    m_libpq.replies({command(), rows({{"0", "manager2", "1802"}, {"0", "manager1", "999"}}), fake::noRows(3),
                     fake::noRows(3), fake::noRows(3), fake::noRows(3), rows({{"7", "", "1801"}}), refused("42501"),
                     fake::noRows(3)});
    EXPECT_EQ(run(1), "everything\n"
                      "acp\n"
                      "    " +
                          show(oryx::DatabaseUpdate("acp", 0, "manager1", "", "999")) + "    " +
                          show(oryx::DatabaseUpdate("acp", 0, "manager2", "", "1802")) +
                          "extension again\n"
                          "conf_state again\n"
                          "conf_state_reset again\n"
                          "public_address again\n"
                          "subscriber\n"
                          "    " +
                          show(oryx::DatabaseUpdate("subscriber", 7, "", "", "1801")) +
                          "contact_set again\n"
                          "sip_event_aggregator again\n");
    EXPECT_EQ(asked(), kBegin + changesQuery("acp", "0") + changesQuery("extension", "0") +
                           changesQuery("conf_state", "0") + changesQuery("conf_state_reset", "0") +
                           changesQuery("public_address", "0") + changesQuery("subscriber", "'1700'") +
                           changesQuery("contact_set", "0") + changesQuery("sip_event_aggregator", "0") + "finish\n");
    EXPECT_EQ(m_position, (oryx::ChangePosition{{"acp", "1802"},
                                                {"extension", "0"},
                                                {"conf_state", "0"},
                                                {"conf_state_reset", "0"},
                                                {"public_address", "0"},
                                                {"subscriber", "1801"},
                                                {"sip_event_aggregator", "0"}}));
}

TEST_F(Listener, ConnectsAgainWhereItsSubscriptionIsLostOrRefused)
{
    m_libpq.errorMessage("the reason\n");
    m_libpq.replies({nothing(), refused("42501"), command()});
    EXPECT_EQ(run(1), kEverything);
    EXPECT_EQ(asked(), kConnect + kSubscribe + "finish\n" + kConnect + kSubscribe + "finish\n" + kBegin + "finish\n");
    const std::string traced = m_trace.take("oryx");
    EXPECT_TRUE(traced.starts_with("oryx log: change listener: not listening: the reason\n")) << traced;
    EXPECT_TRUE(traced.ends_with("oryx log: change listener: listening again\n")) << traced;
}

TEST_F(Listener, SaysWhetherItListens)
{
    m_libpq.replies({command()});
    ChangeListener listener("postgresql://db/oryx", "events1", "secret", m_options);
    EXPECT_FALSE(listener.listening());
    std::vector<bool> listening;
    listener.run([&](const ChangeSet&) {
        listening.push_back(listener.listening());
        if (listening.size() == 1) {
            m_libpq.notifies({"acp"});
        } else {
            listener.stop();
        }
    });
    EXPECT_EQ(listening, (std::vector<bool>{false, true}));
    EXPECT_FALSE(listener.listening());
}

TEST_F(Listener, RunsNothingWithoutACallback)
{
    ChangeListener listener("postgresql://db/oryx", "events1", "secret", m_options);
    EXPECT_EQ(show(listener.run(nullptr)), "query error: a listener needs a callback");
    EXPECT_EQ(m_libpq.take(), "");
}

TEST_F(Listener, TellsWhatOfItsUriIsIgnoredOncePerRun)
{
    m_libpq.replies({nothing(), command()});
    ChangeListener listener("postgresql://db:5433/oryx", "events1", "secret", m_options);
    listener.run([&](const ChangeSet& /*changes*/) { listener.stop(); });
    const std::string traced = m_trace.take("oryx");
    const std::string line = "oryx log: the port in the database URI is ignored";
    EXPECT_EQ(traced.find(line), 0U) << traced;
    EXPECT_EQ(traced.rfind(line), 0U) << traced;
    m_libpq.take();
}

} // namespace

} // namespace changeListenerTest
