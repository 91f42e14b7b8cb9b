#include <dal/internal/Process.h>

#include <pthread.h>

#include <atomic>

namespace oryx {

namespace {

std::atomic<unsigned> forks = 0;

/// Counts in each child. A comparison of process ids would cost a system call for every statement.
const int counted = pthread_atfork(nullptr, nullptr, [] { forks.fetch_add(1, std::memory_order_relaxed); });

} // namespace

unsigned generation()
{
    return forks.load(std::memory_order_relaxed);
}

} // namespace oryx
