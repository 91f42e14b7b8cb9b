#include <dal/internal/Statement.h>

#include <algorithm>

namespace oryx {

namespace {

/// Takes what stands before the next gap, and the gap.
std::string_view takeUntilGap(std::string_view& text)
{
    const std::size_t gap = text.find(kGap);
    const std::string_view before = text.substr(0, gap);
    text.remove_prefix(gap + kGap.size());
    return before;
}

/// Room for so much more, however often a text is added to.
void makeRoom(std::string& out, std::size_t more)
{
    const std::size_t needed = out.size() + more;
    if (needed > out.capacity()) {
        out.reserve(std::max(needed, 2 * out.capacity()));
    }
}

} // namespace

namespace detail {

std::size_t splicedSize(std::string_view text, std::span<const SqlValue> values)
{
    std::size_t size = text.size();
    for (const SqlValue& value : values) {
        size += value.text().size();
    }
    return size;
}

void splice(std::string& out, std::string_view text, std::span<const SqlValue> values)
{
    for (const SqlValue& value : values) {
        out.append(takeUntilGap(text)).append(value.text());
    }
    out.append(text);
}

} // namespace detail

void Statement::add(std::string_view text, std::span<const SqlValue> values)
{
    m_parts.at(m_partCount++) = text;
    for (const SqlValue& value : values) {
        m_values.at(m_valueCount++) = value;
    }
}

const std::string& Statement::text()
{
    if (m_text.empty()) {
        appendTo(m_text);
    }
    return m_text;
}

std::string Statement::takeText()
{
    text();
    return std::move(m_text);
}

void Statement::appendTo(std::string& out) const
{
    if (m_lists) {
        spliceLists(out);
        return;
    }
    std::size_t size = detail::splicedSize({}, values());
    for (const std::string_view part : parts()) {
        size += part.size();
    }
    makeRoom(out, size);
    std::span<const SqlValue> rest = values();
    for (const std::string_view part : parts()) {
        const std::size_t gaps = gapsOf(part);
        detail::splice(out, part, rest.first(gaps));
        rest = rest.subspan(gaps);
    }
}

void Statement::spliceLists(std::string& out) const
{
    std::string_view text = m_parts.front();
    const bool insertion = gapsOf(text) == 2;
    makeRoom(out, text.size() + m_lists->nameList().size() + m_lists->valueList().size() + 2);
    if (insertion) {
        out.append(takeUntilGap(text)).append(m_lists->nameList()).append(")");
    }
    out.append(takeUntilGap(text)).append(m_lists->valueList()).append(")").append(text);
}

std::size_t gapsOf(std::string_view text)
{
    std::size_t gaps = 0;
    for (std::size_t at = text.find(kGap); at != std::string_view::npos; at = text.find(kGap, at + kGap.size())) {
        ++gaps;
    }
    return gaps;
}

std::string Transaction::text() const
{
    std::string text(begin);
    for (const Statement& statement : statements) {
        statement.appendTo(text);
    }
    return text.append(commit);
}

} // namespace oryx
