#pragma once

#include <dal/SessionStatistics.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>

namespace oryx {

/// Counts for one `SessionStatistics`, and for the process. Used by any thread.
class Meter {
public:
    Meter() = default;

    void connected() { count(&Meter::m_connects); }
    void failed(const std::string& why);
    void lost(const std::string& why);
    void repeated() { count(&Meter::m_repetitions); }
    void refused(const std::string& sqlState);
    void ranLate(const std::string& why);
    /// Every statement asks, and few are the longest.
    void took(std::chrono::steady_clock::duration time)
    {
        if (time.count() > m_longest.load(std::memory_order_relaxed)) {
            keepLongest(time.count());
        }
    }

    SessionStatistics read() const;
    static Meter& ofProcess();

private:
    using Counter = std::atomic<std::uint64_t>;
    using Ticks = std::chrono::steady_clock::rep;

    void count(Counter Meter::*counter);
    void keep(const std::string& error);
    void keepLongest(Ticks time);

    Counter m_connects = 0;
    Counter m_failures = 0;
    Counter m_losses = 0;
    Counter m_repetitions = 0;
    Counter m_refusals = 0;
    Counter m_late = 0;
    std::atomic<Ticks> m_longest = 0;

    std::string m_lastError; // this and the next under the mutex across forks
    std::chrono::system_clock::time_point m_lastErrorAt;
};

/// Measures how long its scope takes.
class Measured {
public:
    explicit Measured(Meter& meter) : m_meter(meter) {}
    ~Measured() { m_meter.took(std::chrono::steady_clock::now() - m_begin); }
    Measured(const Measured&) = delete;
    Measured& operator=(const Measured&) = delete;

private:
    Meter& m_meter;
    std::chrono::steady_clock::time_point m_begin = std::chrono::steady_clock::now();
};

} // namespace oryx
