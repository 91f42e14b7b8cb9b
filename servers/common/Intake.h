#pragma once

#include <cstdint>

namespace oryx::sip {

/// The bytes that a message may have.
constexpr unsigned kLargestMessage = 64 * 1024;

/// How many messages have been refused so far because they were too large, or had too many header fields to be read in
/// time.
std::uint64_t refusedMessages();

} // namespace oryx::sip
