#pragma once

#include <atomic>
#include <mutex>

namespace oryx {

namespace detail {
extern std::atomic<unsigned> forks;
} // namespace detail

/// How often this process and those that it was forked from have forked: a number that a child does not share with its
/// parent. What was opened under another number is another process's.
inline unsigned generation()
{
    return detail::forks.load(std::memory_order_relaxed);
}

/// A mutex that no child inherits held. What is done under it is short, and forks nothing.
std::mutex& mutexAcrossForks();

} // namespace oryx
