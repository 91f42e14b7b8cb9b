#pragma once

#include <dal/ValueString.h>

#include <array>
#include <charconv>
#include <concepts>
#include <cstddef>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

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

/// One value of a statement: a text as it stands (null as an empty one), or a whole number in decimal. Refers to the
/// caller's text, which ends in a NUL.
class SqlValue {
public:
    SqlValue() : m_text("") {}
    explicit SqlValue(const std::string& text) : m_text(text.c_str()), m_length(text.size()) {}
    explicit SqlValue(const char* text) : m_text(text != nullptr ? text : ""), m_length(std::string_view(m_text).size())
    {
    }
    template <std::integral Number>
    explicit SqlValue(Number number) : m_text(nullptr)
    {
        char* const end = std::to_chars(m_digits.data(), m_digits.data() + m_digits.size() - 1, number).ptr;
        *end = '\0';
        m_length = static_cast<std::size_t>(end - m_digits.data());
    }

    const char* c_str() const { return m_text != nullptr ? m_text : m_digits.data(); }
    std::string_view text() const { return {c_str(), m_length}; }

private:
    const char* m_text; // null for a number
    std::size_t m_length = 0;
    std::array<char, std::numeric_limits<unsigned long long>::digits10 + 3> m_digits;
};

namespace detail {

/// Appends a fixed text with each "{}" replaced by its value.
void splice(std::string& out, std::string_view text, std::span<const SqlValue> values);
/// How long that is at most.
std::size_t splicedSize(std::string_view text, std::span<const SqlValue> values);

} // namespace detail

/// A text with its values spliced in as they stand, for what is no statement with values: one allocation.
template <typename... Values>
std::string spliced(std::type_identity_t<SqlText<Values...>> text, const Values&... values)
{
    const std::array<SqlValue, sizeof...(Values)> given{SqlValue(values)...};
    std::string out;
    out.reserve(detail::splicedSize(text.text(), given));
    detail::splice(out, text.text(), given);
    return out;
}

/// Where a value goes in a fixed text.
inline constexpr std::string_view kGap = "{}";
/// The number of them in a text.
std::size_t gapsOf(std::string_view text);

/// Whether a value given so outlives the call it is given to: a text that is made for it does not.
template <typename Value>
inline constexpr bool outlivesTheCall = !std::is_same_v<std::remove_cv_t<Value>, std::string>;

/// One statement: its fixed texts and its values, not yet joined. How they are sent is the connection's business.
///
/// Refers to the caller's values, so it is used up before the operation that made it returns.
class Statement {
public:
    /// A fixed text with one value for each "{}".
    explicit Statement(std::string_view text, std::span<const SqlValue> values = {}) { add(text, values); }
    /// A fixed text whose last "{}" is a value list, and the one before, if there is one, its column list.
    Statement(std::string_view text, ValueString&& lists) : m_lists(std::move(lists)), m_parts{text}, m_partCount(1) {}

    /// Appends a further text with its values.
    template <typename... Values>
    Statement& append(std::type_identity_t<SqlText<std::remove_cvref_t<Values>...>> text, Values&&... values)
    {
        static_assert((outlivesTheCall<Values> && ...), "the statement refers to its values, so they must stay");
        add(text.text(), std::array<SqlValue, sizeof...(Values)>{SqlValue(values)...});
        return *this;
    }

    /// The whole text, its values spliced in unescaped; one allocation, made at the first call.
    const std::string& text();
    /// Appends the whole text.
    void appendTo(std::string& out) const;
    /// The whole text, handed over.
    std::string takeText();

    /// What stays the same whatever the values are: the fixed texts, and the columns of the lists.
    std::span<const std::string_view> parts() const { return {m_parts.data(), m_partCount}; }
    std::span<const SqlValue> values() const { return {m_values.data(), m_valueCount}; }
    const ValueString* lists() const { return m_lists ? &*m_lists : nullptr; }

private:
    void add(std::string_view text, std::span<const SqlValue> values);
    void spliceLists(std::string& out) const;

    // The most that any statement of the library needs.
    static constexpr std::size_t kMostParts = 10;
    static constexpr std::size_t kMostValues = 9;

    std::optional<ValueString> m_lists;
    std::array<std::string_view, kMostParts> m_parts;
    std::size_t m_partCount = 0;
    std::array<SqlValue, kMostValues> m_values;
    std::size_t m_valueCount = 0;
    std::string m_text;
};

/// A statement of a fixed text and its values.
template <typename... Values>
Statement sql(std::type_identity_t<SqlText<Values...>> text, Values&&... values)
{
    static_assert((outlivesTheCall<Values> && ...), "the statement refers to its values, so they must stay");
    return Statement(text.text(), std::array<SqlValue, sizeof...(Values)>{SqlValue(values)...});
}

/// An INSERT: the text has a "{}" for the column list and one for the value list.
inline Statement insertion(SqlText<ValueString, ValueString> text, ValueString&& columns)
{
    return {text.text(), std::move(columns)};
}

/// A call of a stored function: the text has a "{}" for the argument list.
inline Statement call(SqlText<ValueString> text, ValueString&& arguments)
{
    return {text.text(), std::move(arguments)};
}

/// Statements that take effect together or not at all.
struct Transaction {
    std::string_view begin;
    std::vector<Statement> statements;
    std::string_view commit;

    /// All of it as one text.
    std::string text() const;
};

} // namespace oryx
