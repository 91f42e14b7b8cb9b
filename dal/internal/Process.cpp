#include <dal/internal/Process.h>

#include <pthread.h>

#include <atomic>

namespace oryx {

namespace {

std::atomic<unsigned> forks = 0;

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
    forks.fetch_add(1, std::memory_order_relaxed);
    unlock();
}

const int watched = pthread_atfork(lock, unlock, countAndUnlock);

} // namespace

unsigned generation()
{
    return forks.load(std::memory_order_relaxed);
}

std::mutex& mutexAcrossForks()
{
    static std::mutex mutex;
    return mutex;
}

} // namespace oryx
