#pragma once

#include <util/OryxExport.h>

#include <regex.h>

#include <string>

namespace oryx {

/// A compiled POSIX extended regular expression.
///
/// Holds at most one expression; one that did not compile never matches. Throws std::bad_alloc where memory runs out.
/// Used by one thread at a time.
/// \ingroup conversions
class ORYX_EXPORT RegExp {
public:
    RegExp() = default;
    ~RegExp();
    RegExp(const RegExp&) = delete;
    RegExp& operator=(const RegExp&) = delete;

    /// Replaces the expression held. Whether the new one is valid; null never is.
    bool compile(const char* expr, bool ignoreCase);
    /// Whether the expression is found anywhere in `text`; only its own anchors restrict where. False for null.
    bool match(const char* text);
    /// Whether an expression is held.
    bool valid() const { return m_compiled; }
    /// Whether memory ran out in the expression library the last time: the expression may be valid another time.
    bool lacksMemory() const { return m_lacksMemory; }
    /// Lets go of the expression, if one is held.
    void free();

private:
    std::string m_pattern;
    std::string m_required; // part of every text that matches
    regex_t m_regex{};
    bool m_compiled = false;
    bool m_lacksMemory = false;
};

} // namespace oryx
