// How a server learns that provisioning has changed: a service of its own waits in a thread of its own, while the
// server's other work goes on elsewhere.

#pragma once

#include "Account.h"

#include <dal/DatabaseCommandExecutor.h>
#include <dal/PresenceService.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <semaphore>
#include <string>
#include <thread>

namespace listener {

/// Nothing in the examples changes this table: a notification of it only shows that the listener hears.
inline const std::string kUnchangedTable = "sip_event_aggregator";

// What the callback knows: it is handed no data of the program's own.
inline std::counting_semaphore<> heard(0); // of the table that nothing changes
inline std::counting_semaphore<> announced(0);
inline std::atomic<bool> finished = false;

/// Called on the listener's thread. The wait ends when this answers true to an idle call, and one comes after every 5
/// seconds without a notification.
inline bool onChange(bool changed, const std::string& table)
{
    if (changed && table == kUnchangedTable) {
        heard.release();
    } else if (changed) {
        std::printf("    notified: %s\n", table.c_str());
        announced.release();
    }
    return finished;
}

/// The waiting thread; one at a time. `end()`, or its destruction, ends the wait.
class Thread {
public:
    explicit Thread(oryx::PresenceService& service)
    {
        finished = false;
        m_thread = std::thread([this, &service] { m_result = service.waitForNotify(onChange); });
    }
    ~Thread()
    {
        if (m_thread.joinable()) {
            end();
        }
    }
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    oryx::DatabaseResult end()
    {
        finished = true;
        m_thread.join();
        return m_result;
    }

private:
    oryx::DatabaseResult m_result;
    std::thread m_thread;
};

/// Returns when the listener hears: a change made before it has subscribed would go by unheard.
inline bool await(oryx::DatabaseCommandExecutor& provisioning)
{
    for (int attempt = 0; attempt < 10; ++attempt) {
        provisioning.execute("NOTIFY " + kUnchangedTable);
        if (heard.try_acquire_for(std::chrono::seconds(1))) {
            return true;
        }
    }
    return false;
}

/// Makes a change and waits until it is announced.
template <typename Change>
bool announce(const char* what, Change change)
{
    std::printf("%s\n", what);
    return change() && announced.try_acquire_for(std::chrono::seconds(10));
}

} // namespace listener
