#pragma once

#include <util/OryxExport.h>

#include <concepts>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace oryx {

namespace detail {

/// Where a value stands in a value list, without its quotes.
struct ValuePlace {
    std::size_t begin;
    std::size_t size;
    bool null = false;
    bool cut = false; // the text went on behind a NUL
};

} // namespace detail

/// Builds the column list and the value list of an INSERT, or the argument list of a stored function.
///
/// Values go between single quotes as they are, unescaped. `names()` and `values()` close their list, so each is called
/// once per statement.
/// \ingroup core
class ORYX_EXPORT ValueString {
public:
    /// Empty, with room for the columns of most tables.
    ValueString();

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
        addName(nm);
        addBare(std::to_string(v), false);
    }

    /// The column list with its closing parenthesis; valid until the next call that changes it.
    const char* names();
    /// The value list, likewise.
    const char* values();

private:
    friend class BoundText;
    friend class Statement;

    // The column list, not closed.
    std::string_view nameList() const { return m_names; }
    // The value list, not closed.
    std::string_view valueList() const { return m_values; }
    // The values, in their order.
    const std::vector<detail::ValuePlace>& valuePlaces() const { return m_places; }

    void addQuoted(std::string_view v, bool cut);
    void addBare(std::string_view v, bool null);

    std::string m_names;
    std::string m_values;
    std::vector<detail::ValuePlace> m_places;
};

} // namespace oryx
