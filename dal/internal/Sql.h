#pragma once

#include <algorithm>
#include <array>
#include <charconv>
#include <concepts>
#include <cstddef>
#include <limits>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

namespace oryx {

/// A statement's fixed text, checked while compiling to hold one "{}" for each value.
template <typename... Values>
class SqlText {
public:
    template <std::size_t Size>
    // NOLINTNEXTLINE(google-explicit-constructor): the literal itself is the argument
    consteval SqlText(const char (&text)[Size]) : m_text(text, Size - 1)
    {
        std::size_t gaps = 0;
        for (std::size_t at = m_text.find("{}"); at != std::string_view::npos; at = m_text.find("{}", at + 2)) {
            ++gaps;
        }
        if (gaps != sizeof...(Values)) {
            throw "a statement needs one {} for each of its values"; // never runs: it stops the compiler
        }
    }

    std::string_view text() const { return m_text; }

private:
    std::string_view m_text;
};

/// One value as it is spliced into a statement: text as it stands (null as nothing), whole numbers in decimal.
class SqlValue {
public:
    explicit SqlValue(std::string_view text) : m_text(text) {}
    explicit SqlValue(const std::string& text) : m_text(text) {}
    explicit SqlValue(const char* text) : m_text(text != nullptr ? text : "") {}
    template <std::integral Number>
    explicit SqlValue(Number number)
    {
        char* const end = std::to_chars(m_digits.data(), m_digits.data() + m_digits.size(), number).ptr;
        m_length = static_cast<std::size_t>(end - m_digits.data());
    }

    std::string_view text() const { return m_length == 0 ? m_text : std::string_view(m_digits.data(), m_length); }

private:
    std::string_view m_text;
    std::size_t m_length = 0; // of the digits; 0 for a text
    std::array<char, std::numeric_limits<unsigned long long>::digits10 + 2> m_digits;
};

namespace detail {

/// The fixed text with each "{}" replaced by its value; `out` grows at most once.
inline void splice(std::string& out, std::string_view statement, std::span<const SqlValue> values)
{
    std::size_t length = out.size() + statement.size();
    for (const SqlValue& value : values) {
        length += value.text().size();
    }
    if (length > out.capacity()) {
        out.reserve(std::max(length, 2 * out.capacity()));
    }
    for (const SqlValue& value : values) {
        const std::size_t gap = statement.find("{}");
        out.append(statement.substr(0, gap)).append(value.text());
        statement.remove_prefix(gap + 2);
    }
    out.append(statement);
}

} // namespace detail

/// Appends a statement, its values spliced in unescaped, to the text of a transaction.
template <typename... Values>
void appendSql(std::string& out, std::type_identity_t<SqlText<Values...>> statement, const Values&... values)
{
    const std::array<SqlValue, sizeof...(Values)> spliced{SqlValue(values)...};
    detail::splice(out, statement.text(), spliced);
}

/// A statement, its values spliced in unescaped; one allocation.
template <typename... Values>
std::string sql(std::type_identity_t<SqlText<Values...>> statement, const Values&... values)
{
    std::string text;
    appendSql<Values...>(text, statement, values...);
    return text;
}

} // namespace oryx
