#pragma once

#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <functional>

/// What calls with a deadline are held to. A drill (ORYX_DRILL in the environment) holds them to what they promise, on
/// a machine that does nothing else; a test, on a machine however busy, to what nothing without a deadline keeps.
struct Measure {
    using Time = std::chrono::milliseconds;

    std::size_t calls; // at least so many
    Time deadline;
    Time grace;    // what a call may take beyond its deadline
    Time recovery; // until an operation works again

    /// A drill's, or a test's of so many calls with that deadline.
    static Measure drillOr(std::size_t calls, Time deadline)
    {
        if (std::getenv("ORYX_DRILL") != nullptr) {
            return {1000, Time(50), Time(100), Time(1000)};
        }
        return {calls, deadline, Time(10000), Time(60000)};
    }

    bool isLate(Time took) const { return took > deadline + grace; }

    /// Tries until it succeeds, within the time of recovery: on a busy machine first attempts may be too late.
    bool eventually(const std::function<bool()>& succeeds) const
    {
        const auto end = std::chrono::steady_clock::now() + recovery;
        while (std::chrono::steady_clock::now() < end) {
            if (succeeds()) {
                return true;
            }
        }
        return false;
    }
};

/// How long a call takes.
template <typename Call>
std::chrono::milliseconds timed(const Call& call)
{
    const auto begin = std::chrono::steady_clock::now();
    call();
    return std::chrono::ceil<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin);
}
