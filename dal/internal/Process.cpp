#include <dal/internal/Process.h>

#include <pthread.h>

namespace oryx {

constinit std::atomic<unsigned> detail::forks = 0;

namespace {

void lock()
{
    mutexAcrossForks().lock();
}

void unlock()
{
    mutexAcrossForks().unlock();
}

/// A comparison of process ids would cost a system call for every statement.
void countAndUnlock()
{
    detail::forks.fetch_add(1, std::memory_order_relaxed);
    unlock();
}

const int watched = pthread_atfork(lock, unlock, countAndUnlock);

} // namespace

std::mutex& mutexAcrossForks()
{
    static std::mutex mutex;
    return mutex;
}

} // namespace oryx
