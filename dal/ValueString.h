#pragma once

#include <util/OryxExport.h>

#include <concepts>
#include <string>

namespace oryx {

/// Builds the column list and the value list of an INSERT, or the argument list of a stored function.
///
/// Values go between single quotes as they are, unescaped. `names()` and `values()` close their list, so each is called
/// once per statement.
/// \ingroup core
class ORYX_EXPORT ValueString {
public:
    /// Adds a column; null is an empty name.
    void addName(const char* nm);
    /// Adds a value: a quoted text, or NULL for a null pointer.
    void addValue(const char* v);
    /// Adds a column and its value: a quoted text, or NULL for a null pointer.
    void add(const char* nm, const char* v);
    /// The same, and an empty string is written as NULL.
    void add(const char* nm, const std::string& v);
    /// Adds a column and its value, a bare number.
    void addExplicit(const char* nm, long v);
    /// The same for a number without a sign, which may be more than a long holds.
    template <std::unsigned_integral Number>
    void addExplicit(const char* nm, Number v)
    {
        addNumber(nm, std::to_string(v));
    }

    /// The column list with its closing parenthesis; valid until the next call that changes it.
    const char* names();
    /// The value list, likewise.
    const char* values();

private:
    void addNumber(const char* nm, const std::string& digits);

    std::string m_names = "(";
    std::string m_values = "(";
};

} // namespace oryx
