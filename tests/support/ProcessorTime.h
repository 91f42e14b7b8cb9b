#pragma once

#include <ctime>

#include <chrono>

/// What this thread has had of the processor: what others on a busy machine take is not in it.
inline std::chrono::duration<double> processorTime()
{
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}
