#include <dal/internal/Statement.h>

#include <algorithm>

namespace oryx {

namespace {

// What building a statement costs is little more than the copying: its text is as long as it will be from the start,
// and each piece is copied to where the one before ended.

char* put(char* out, std::string_view text)
{
    return std::copy(text.begin(), text.end(), out);
}

char* put(char* out, const SqlValue& value)
{
    return value.quoted() ? put(put(put(out, "'"), value.text()), "'") : put(out, value.text());
}

/// A fixed text with each of its gaps filled by its value.
char* put(char* out, std::string_view text, std::span<const std::uint16_t> gaps, const SqlValue* value)
{
    const char* next = text.data();
    for (const std::size_t gap : gaps) {
        out = put(out, {next, text.data() + gap});
        out = put(out, *value++);
        next = text.data() + gap + kGap.size();
    }
    return put(out, {next, text.data() + text.size()});
}

} // namespace

std::string Statement::text() const
{
    std::string whole;
    writeTo(whole);
    return whole;
}

void Statement::writeTo(std::string& text) const
{
    text.resize(m_size);
    write(text.data());
}

char* Statement::write(char* out) const
{
    if (m_lists) {
        return writeLists(out);
    }
    const std::uint16_t* gap = m_gaps.data();
    const SqlValue* value = m_values.data();
    for (const SqlPart& part : parts()) {
        out = put(out, part, {gap, part.gaps}, value);
        gap += part.gaps;
        value += part.gaps;
    }
    return out;
}

char* Statement::writeLists(char* out) const
{
    const std::string_view text = m_parts.front();
    std::size_t begin = 0;
    if (hasColumnList()) {
        out = put(put(put(out, text.substr(0, m_gaps.front())), m_lists->nameList()), ")");
        begin = m_gaps.front() + kGap.size();
    }
    const std::size_t values = m_gaps.at(m_gapCount - 1);
    out = put(put(put(out, text.substr(begin, values - begin)), m_lists->valueList()), ")");
    return put(out, text.substr(values + kGap.size()));
}

std::string Transaction::text() const
{
    std::string whole;
    writeTo(whole);
    return whole;
}

void Transaction::writeTo(std::string& text) const
{
    std::size_t size = begin.size() + commit.size();
    for (const Statement& statement : statements) {
        size += statement.size();
    }
    text.resize(size);
    char* out = put(text.data(), begin);
    for (const Statement& statement : statements) {
        out = statement.write(out);
    }
    put(out, commit);
}

} // namespace oryx
