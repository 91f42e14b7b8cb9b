#pragma once

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <limits>
#include <string_view>
#include <system_error>

namespace oryx {

/// The leading whole number of a text, held to the limits of an int: a longer one must not come out as another number,
/// and must come out alike where `long` is 32 and where it is 64 bits wide.
inline int leadingInt(const char* text)
{
    // What the server writes is read without regard to the locale; the rest is for blanks, signs and limits.
    int number = 0;
    if (std::from_chars(text, text + std::string_view(text).size(), number).ec == std::errc()) {
        return number;
    }
    constexpr long long kMin = std::numeric_limits<int>::min();
    constexpr long long kMax = std::numeric_limits<int>::max();
    return static_cast<int>(std::clamp(std::strtoll(text, nullptr, 10), kMin, kMax));
}

/// The leading whole number of a text that may be negative or unsigned, as an unsigned int: -1 and 4294967295 are the
/// same. Held to the limits of both.
inline unsigned int leadingUnsigned(const char* text)
{
    constexpr long long kMin = std::numeric_limits<int>::min();
    constexpr long long kMax = std::numeric_limits<unsigned int>::max();
    return static_cast<unsigned int>(std::clamp(std::strtoll(text, nullptr, 10), kMin, kMax));
}

} // namespace oryx
