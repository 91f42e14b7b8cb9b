#pragma once

#include <cstddef>
#include <string_view>

namespace wex {

// The characters of RFC 3261 section 25.1 and RFC 3986 section 2: ASCII whatever the locale.

constexpr bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}
constexpr bool isLetter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
constexpr bool isAlphanumeric(char c)
{
    return isLetter(c) || isDigit(c);
}
constexpr bool isHexDigit(char c)
{
    return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

constexpr bool isBlankOrControl(char c)
{
    return static_cast<unsigned char>(c) <= 0x20 || c == 0x7F;
}

/// True if every character is alphanumeric, one of `others`, or part of an escape (%HH).
constexpr bool consistsOf(std::string_view text, std::string_view others)
{
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%') {
            if (text.size() - i < 3 || !isHexDigit(text[i + 1]) || !isHexDigit(text[i + 2])) {
                return false;
            }
            i += 2;
        } else if (!isAlphanumeric(text[i]) && others.find(text[i]) == std::string_view::npos) {
            return false;
        }
    }
    return true;
}

/// The number that decimal digits give; -1 for anything else, nothing at all included, and beyond 65535.
constexpr int smallNumber(std::string_view digits)
{
    int number = digits.empty() ? -1 : 0;
    for (const char c : digits) {
        number = isDigit(c) ? number * 10 + (c - '0') : -1;
        if (number < 0 || number > 0xFFFF) {
            return -1;
        }
    }
    return number;
}

} // namespace wex
