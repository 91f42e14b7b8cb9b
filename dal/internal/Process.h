#pragma once

#include <mutex>

namespace oryx {

/// How often this process and those that it was forked from have forked: a number that a child does not share with its
/// parent. What was opened under another number is another process's.
unsigned generation();

/// A mutex that no child inherits held. What is done under it is short, and forks nothing.
std::mutex& mutexAcrossForks();

} // namespace oryx
