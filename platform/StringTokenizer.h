#pragma once

#include <cstddef>
#include <string>

/// Splits a text at every character of a set. A run of them separates once, at the ends they separate nothing: no token
/// is empty. Keeps copies of both texts; used by one thread at a time.
class StringTokenizer {
public:
    /// Every character of `delimiters` separates.
    StringTokenizer(std::string text, std::string delimiters);

    /// True while a token is left.
    bool hasMoreTokens() const;

    /// Takes the next token; an empty text when none is left.
    std::string nextToken();

    /// How many tokens are still to come; takes none.
    std::size_t countTokens() const;

private:
    std::string m_text;
    std::string m_delimiters;
    std::size_t m_position = 0; ///< Where the next token begins; npos when none is left.
};
