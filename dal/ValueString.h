#pragma once

#include <util/Export.h>

#include <string>

namespace oryx {

/// Builds the column list and the value list of an INSERT, or the argument list of a stored function.
///
/// Values go between single quotes as they are, unescaped. `names()` and `values()` close their list, so each is called
/// once per statement.
class ORYX_EXPORT ValueString {
public:
    void addName(const char* nm);
    /// A quoted text, or NULL for a null pointer.
    void addValue(const char* v);
    void add(const char* nm, const char* v);
    /// An empty string is written as NULL.
    void add(const char* nm, const std::string& v);
    /// A bare number.
    void addExplicit(const char* nm, long v);

    /// The list with its closing parenthesis; valid until the next call that changes it.
    const char* names();
    const char* values();

private:
    std::string m_names = "(";
    std::string m_values = "(";
};

} // namespace oryx
