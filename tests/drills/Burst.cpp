#include "drills/Burst.h"

#include "support/Server.h"

#include <dal/ChangeListener.h>

#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace drill {

namespace {

constexpr std::size_t kNotifications = 100000;
/// What the callback takes: reading the tables again is work. A stop waits for it, too.
constexpr std::chrono::milliseconds kReading(100);
constexpr std::chrono::milliseconds kStopping(100);
const std::vector<std::string> kTables{
    "acp",        "extension",   "conf_state",          "conf_state_reset", "public_address",
    "subscriber", "contact_set", "sip_event_aggregator"};

/// What the listener has named since it was asked to begin anew.
class Named {
public:
    void add(const oryx::ChangeSet& changes)
    {
        const std::lock_guard lock(m_mutex);
        ++m_calls;
        m_unheard += changes.everything ? 1U : 0U;
        for (const oryx::ChangedTable& table : changes.tables) {
            m_tables.insert(table.name);
        }
        m_added.notify_all();
    }

    void beginAnew()
    {
        const std::lock_guard lock(m_mutex);
        m_tables.clear();
        m_calls = 0;
        m_unheard = 0;
    }

    /// How many tables have been named as soon as all have, or after the time.
    std::size_t await(std::chrono::seconds patience)
    {
        std::unique_lock lock(m_mutex);
        m_added.wait_for(lock, patience, [this] { return m_tables.size() == kTables.size(); });
        return m_tables.size();
    }

    std::size_t calls()
    {
        const std::lock_guard lock(m_mutex);
        return m_calls;
    }

    /// In how many calls the tables are named because nobody was listening before.
    std::size_t unheard()
    {
        const std::lock_guard lock(m_mutex);
        return m_unheard;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_added;
    std::set<std::string> m_tables;
    std::size_t m_calls = 0;
    std::size_t m_unheard = 0;
};

/// A listener at work in a thread of its own, until the object's end at the latest.
class Running {
public:
    Running(const Account& account, Named& named) : m_listener(account.uri, "events", account.password)
    {
        m_end = std::async(std::launch::async, [this, &named] {
            m_listener.run([&named](const oryx::ChangeSet& changes) {
                named.add(changes);
                std::this_thread::sleep_for(kReading);
            });
        });
    }
    ~Running() { m_listener.stop(); }
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;

    void stop()
    {
        m_listener.stop();
        m_end.get();
    }

private:
    oryx::ChangeListener m_listener;
    std::future<void> m_end;
};

void notifyAll()
{
    server::Session session("oryx");
    for (const std::string& table : kTables) {
        session.run("SELECT pg_notify('" + table + "', i::text) FROM generate_series(1, " +
                    std::to_string(kNotifications / kTables.size()) + ") i");
    }
}

} // namespace

Line runBurst(const Account& account)
{
    Named named;
    Running listener(account, named);
    Line line;
    // The first call names all: there was no connection before.
    line.verdict.lost = kTables.size() - named.await(std::chrono::seconds(10));
    named.beginAnew();
    notifyAll();

    const Time sent = now();
    line.verdict.lost += kTables.size() - named.await(std::chrono::seconds(10));
    line.verdict.longest = now() - sent;
    const Time asked = now();
    listener.stop();
    const Time stopping = now() - asked;
    line.verdict.lost += named.unheard(); // what was sent was missed
    line.verdict.operations = kNotifications;
    line.verdict.acknowledged = kNotifications;
    line.remark = std::to_string(named.calls()) + " calls, stopped within " +
                  std::to_string(std::chrono::ceil<std::chrono::milliseconds>(stopping).count()) + " ms";
    if (line.verdict.longest > std::chrono::seconds(2) || stopping > kReading + kStopping) {
        ++line.verdict.lost;
        line.remark += ", too late";
    }
    return line;
}

} // namespace drill
