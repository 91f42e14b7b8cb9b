#pragma once

#include <common/Endpoint.h>
#include <common/Loop.h>

#include <chrono>
#include <functional>

namespace oryx::sip {

/// Ends the loop after a signal: when nothing is under way any more, or after so long that all ends in time. When the
/// rest has not, as where a worker waits for a database that does not answer, the process ends with status 0 all the
/// same, before those who wait for two seconds kill it.
class Ending {
public:
    /// `signals` can be read when the server is to end; `begun` is called then. `idle` tells whether nothing is under
    /// way.
    Ending(
        Loop& loop, Endpoint& endpoint, int signals, std::function<bool()> idle, std::function<void()> begun = [] {});
    ~Ending();
    Ending(const Ending&) = delete;
    Ending& operator=(const Ending&) = delete;

private:
    void begin();
    void look();

    Loop& m_loop;
    Endpoint& m_endpoint;
    int m_signals;
    std::function<bool()> m_idle;
    std::function<void()> m_begun;
    Timer m_timer;
    bool m_begins = false;                        // further signals change nothing
    std::chrono::steady_clock::time_point m_last; // look
};

} // namespace oryx::sip
