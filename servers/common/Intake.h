#pragma once

#include <cstdint>

namespace oryx::sip {

/// The bytes that a message may have.
constexpr unsigned kLargestMessage = 64 * 1024;
/// The bytes that the stack may hold of a stream: a part of a message, and what is read at once.
constexpr unsigned kMostHeld = 4 * kLargestMessage;

/// How many messages have been refused so far because they were too large, or had too many header fields to be read in
/// time.
std::uint64_t refusedMessages();

} // namespace oryx::sip
