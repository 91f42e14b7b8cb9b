#pragma once

#include <dal/SessionStatistics.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>

namespace oryx {

/// The time of the kernel's last tick: some milliseconds coarse, and read at a fraction of a clock's cost.
struct TickClock {
    using duration = std::chrono::nanoseconds;
    using rep = duration::rep;
    using period = duration::period;
    using time_point = std::chrono::time_point<TickClock>;
    static constexpr bool is_steady = true;

    static time_point now() noexcept
    {
        timespec time{};
        clock_gettime(CLOCK_MONOTONIC_COARSE, &time);
        return time_point(std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec));
    }
};

/// Counts for one `SessionStatistics`, and for the process. Used by any thread; throws nothing but in `read`.
class Meter {
public:
    void connected() { count(&Meter::m_connects); }
    void failed(std::string_view why);
    void lost(std::string_view why);
    void repeated() { count(&Meter::m_repetitions); }
    void refused(std::string_view sqlState);
    void ranLate(std::string_view why);
    /// Every statement asks, and few are the longest.
    void took(TickClock::duration time)
    {
        if (time.count() > m_longest.load(std::memory_order_relaxed)) {
            keepLongest(time.count());
        }
    }

    SessionStatistics read() const;
    static Meter& ofProcess();

private:
    using Counter = std::atomic<std::uint64_t>;
    using Ticks = TickClock::rep;

    void count(Counter Meter::*counter);
    void keep(std::string_view prefix, std::string_view error);
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
    ~Measured() { m_meter.took(TickClock::now() - m_begin); }
    Measured(const Measured&) = delete;
    Measured& operator=(const Measured&) = delete;

private:
    Meter& m_meter;
    TickClock::time_point m_begin = TickClock::now();
};

} // namespace oryx
