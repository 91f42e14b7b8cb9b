#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace oryx {

/// A text that nobody can guess, of two hexadecimal digits for each of so many bytes, 256 at most; none if the system
/// gives no random numbers.
std::optional<std::string> randomText(std::size_t bytes);

} // namespace oryx
