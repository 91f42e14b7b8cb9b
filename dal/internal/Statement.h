#pragma once

#include <dal/ValueString.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace oryx {

/// Where a value goes in a fixed text.
inline constexpr std::string_view kGap = "{}";

/// A statement's fixed text, checked while compiling to hold one "{}" for each value; where they stand is known then.
template <typename... Values>
class SqlText {
public:
    template <std::size_t Size>
    // NOLINTNEXTLINE(google-explicit-constructor): the literal itself is the argument
    consteval SqlText(const char (&text)[Size]) : m_text(text, Size - 1)
    {
        static_assert(Size <= std::numeric_limits<std::uint16_t>::max());
        std::size_t gaps = 0;
        for (std::size_t at = m_text.find(kGap); at != std::string_view::npos;
             at = m_text.find(kGap, at + kGap.size())) {
            if (gaps < m_gaps.size()) {
                m_gaps[gaps] = static_cast<std::uint16_t>(at);
            }
            ++gaps;
        }
        if (gaps != m_gaps.size()) {
            throw "a statement needs one {} for each of its values"; // never runs: it stops the compiler
        }
    }

    std::string_view text() const { return m_text; }
    std::span<const std::uint16_t> gaps() const { return m_gaps; }

private:
    std::string_view m_text;
    std::array<std::uint16_t, sizeof...(Values)> m_gaps{};
};

/// A text whose gap has no quotes around it: it brings them along, or is NULL where it is an empty string.
struct QuotedOrNull {
    explicit QuotedOrNull(const std::string& value) : text(value.empty() ? nullptr : value.c_str()) {}

    const char* text; // null for NULL
};

/// One value of a statement: a text as it stands (null as an empty one), one in quotes or NULL, or a whole number in
/// decimal. Refers to the caller's text, which ends in a NUL.
class SqlValue {
public:
    SqlValue() = default;
    explicit SqlValue(const std::string& text) : m_text(text.c_str()), m_length(text.size()), m_form(Form::bare) {}
    explicit SqlValue(const char* text)
        : m_text(text != nullptr ? text : ""), m_length(std::string_view(m_text).size()), m_form(Form::bare)
    {
    }
    explicit SqlValue(const QuotedOrNull& value)
        : m_text(value.text != nullptr ? value.text : "NULL"),
          m_length(std::string_view(m_text).size()),
          m_form(value.text != nullptr ? Form::quoted : Form::null)
    {
    }
    template <std::integral Number>
    explicit SqlValue(Number number) : m_text(nullptr), m_form(Form::bare)
    {
        char* const end = std::to_chars(m_digits.data(), m_digits.data() + m_digits.size() - 1, number).ptr;
        *end = '\0';
        m_length = static_cast<std::size_t>(end - m_digits.data());
    }

    std::string_view text() const { return {m_text != nullptr ? m_text : m_digits.data(), m_length}; }
    /// The same for libpq, null for NULL.
    const char* parameter() const { return m_form != Form::null ? text().data() : nullptr; }
    bool quoted() const { return m_form == Form::quoted; }
    /// How much of a statement's text it takes.
    std::size_t size() const { return m_length + (quoted() ? 2 : 0); }

private:
    enum class Form : std::uint8_t { bare, quoted, null };

    const char* m_text; // null for a number
    std::size_t m_length;
    Form m_form;
    std::array<char, std::numeric_limits<unsigned long long>::digits10 + 3> m_digits;
};

/// Whether a value given so outlives the call it is given to: a text that is made for it does not.
template <typename Value>
inline constexpr bool outlivesTheCall = !std::is_same_v<std::remove_cv_t<Value>, std::string>;

/// One of a statement's fixed texts.
struct SqlPart {
    const char* text;
    std::uint16_t size;
    std::uint8_t gaps; // how many it has

    // NOLINTNEXTLINE(google-explicit-constructor): it is a text
    operator std::string_view() const { return {text, size}; }
};

/// One statement: its fixed texts and its values, not yet joined. How they are sent is the connection's business.
///
/// Refers to the caller's values, so it is used up before the operation that made it returns.
class Statement {
public:
    /// A fixed text with one value for each of its gaps.
    template <typename... Values>
    explicit Statement(std::string_view text, std::span<const std::uint16_t> gaps, const Values&... values)
    {
        add(text, gaps, values...);
    }
    /// A fixed text whose last gap is for a value list, and the one before, if there is one, for its column list.
    Statement(std::string_view text, std::span<const std::uint16_t> gaps, ValueString&& lists)
        : m_lists(std::move(lists))
    {
        addText(text, gaps);
        m_size += m_lists->valueList().size() + 1 + (hasColumnList() ? m_lists->nameList().size() + 1 : 0);
    }

    /// Appends a further text with its values.
    template <typename... Values>
    Statement& append(std::type_identity_t<SqlText<std::remove_cvref_t<Values>...>> text, Values&&... values)
    {
        static_assert((outlivesTheCall<Values> && ...), "the statement refers to its values, so they must stay");
        add(text.text(), text.gaps(), values...);
        return *this;
    }

    ///@{
    /// A change that does harm where it takes effect again, late: a bound one says which one it is, so that the schema
    /// knows its repetition.
    Statement& once() &
    {
        m_once = true;
        return *this;
    }
    Statement&& once() && { return std::move(once()); }
    ///@}
    /// The same, of a call of a function that keeps by itself which change it is, and its answer for the repetition.
    Statement&& onceAnswered() &&
    {
        m_keepsAnswer = true;
        return std::move(once());
    }
    bool takesEffectOnce() const { return m_once; }
    bool keepsAnswer() const { return m_keepsAnswer; }

    /// The whole text, its values spliced in unescaped.
    std::string text() const;
    /// Writes it in the place of what is there: at most one allocation, none where there is room.
    void writeTo(std::string& text) const;
    /// How long it is.
    std::size_t size() const { return m_size; }
    /// Writes it as a piece of a longer one that has room for it, and gives where it ends.
    char* write(char* out) const;

    /// What stays the same whatever the values are: the fixed texts, and the columns of the lists.
    std::span<const SqlPart> parts() const { return {m_parts.data(), m_partCount}; }
    std::span<const SqlValue> values() const { return {m_values.data(), m_lists ? 0 : m_gapCount}; }
    const ValueString* lists() const { return m_lists ? &*m_lists : nullptr; }

private:
    template <typename... Values>
    void add(std::string_view text, std::span<const std::uint16_t> gaps, const Values&... values)
    {
        std::size_t next = m_gapCount;
        addText(text, gaps); // makes sure that there is room
        ((m_size += std::construct_at(&m_values[next++], values)->size()), ...);
    }
    void addText(std::string_view text, std::span<const std::uint16_t> gaps)
    {
        const bool takesMore = m_partCount < kMostParts && gaps.size() <= kMostValues - m_gapCount;
        if (!takesMore || (m_lists && m_partCount > 0)) {
            throw std::logic_error("a statement of more parts than any of the library needs");
        }
        m_parts[m_partCount++] = {text.data(), static_cast<std::uint16_t>(text.size()),
                                  static_cast<std::uint8_t>(gaps.size())};
        std::copy(gaps.begin(), gaps.end(), m_gaps.begin() + static_cast<std::ptrdiff_t>(m_gapCount));
        m_gapCount += gaps.size();
        m_size += text.size() - kGap.size() * gaps.size();
    }
    char* writeLists(char* out) const;
    bool hasColumnList() const { return m_gapCount == 2; }

    // The most that any text of the library needs.
    static constexpr std::size_t kMostParts = 10;
    static constexpr std::size_t kMostValues = 12;

    std::optional<ValueString> m_lists;
    std::array<SqlPart, kMostParts> m_parts;
    std::size_t m_partCount = 0;
    std::array<SqlValue, kMostValues> m_values;
    std::array<std::uint16_t, kMostValues> m_gaps; // each in its part
    std::size_t m_gapCount = 0;
    std::size_t m_size = 0;
    bool m_once = false;
    bool m_keepsAnswer = false;
};

/// A text with its values spliced in as they stand, for what is no statement: one allocation.
template <typename... Values>
std::string spliced(std::type_identity_t<SqlText<Values...>> text, const Values&... values)
{
    return Statement(text.text(), text.gaps(), values...).text();
}

/// A statement of a fixed text and its values.
template <typename... Values>
Statement sql(std::type_identity_t<SqlText<Values...>> text, Values&&... values)
{
    static_assert((outlivesTheCall<Values> && ...), "the statement refers to its values, so they must stay");
    return Statement(text.text(), text.gaps(), values...);
}

/// An INSERT: the text has a "{}" for the column list and one for the value list.
inline Statement insertion(SqlText<ValueString, ValueString> text, ValueString&& columns)
{
    return {text.text(), text.gaps(), std::move(columns)};
}

/// A call of a stored function: the text has a "{}" for the argument list.
inline Statement call(SqlText<ValueString> text, ValueString&& arguments)
{
    return {text.text(), text.gaps(), std::move(arguments)};
}

/// Statements that take effect together or not at all.
struct Transaction {
    std::string_view begin;
    std::vector<Statement> statements;
    std::string_view commit;

    /// Adds a statement of a fixed text and its values.
    template <typename... Values>
    Statement& add(std::type_identity_t<SqlText<Values...>> text, Values&&... values)
    {
        static_assert((outlivesTheCall<Values> && ...), "the statement refers to its values, so they must stay");
        return statements.emplace_back(text.text(), text.gaps(), values...);
    }
    /// The same, of a change that does harm where it takes effect again.
    template <typename... Values>
    void addOnce(std::type_identity_t<SqlText<Values...>> text, Values&&... values)
    {
        add<Values...>(text, std::forward<Values>(values)...).once();
    }

    /// All of it as one text.
    std::string text() const;
    /// Writes it in the place of what is there.
    void writeTo(std::string& text) const;
};

} // namespace oryx
