#include <dal/internal/Statement.h>

namespace oryx {

/// Writes texts behind each other into one that is as long as all of them from the start: what building a statement
/// costs is little more than the copying.
class Splicer {
public:
    explicit Splicer(std::size_t size) : m_out(size, '\0'), m_next(m_out.data()) {}

    Splicer& add(std::string_view text)
    {
        m_next += text.copy(m_next, text.size());
        return *this;
    }

    /// Adds a fixed text with each of its gaps filled by its value.
    void add(std::string_view text, std::span<const std::uint16_t> gaps, const SqlValue* value)
    {
        std::size_t begin = 0;
        for (const std::size_t gap : gaps) {
            add(text.substr(begin, gap - begin)).add((value++)->text());
            begin = gap + kGap.size();
        }
        add(text.substr(begin));
    }

    std::string take() { return std::move(m_out); }

private:
    std::string m_out;
    char* m_next;
};

namespace {

std::size_t sizeOf(std::span<const SqlValue> values)
{
    std::size_t size = 0;
    for (const SqlValue& value : values) {
        size += value.text().size();
    }
    return size;
}

} // namespace

std::string detail::splice(std::string_view text, std::span<const std::uint16_t> gaps, std::span<const SqlValue> values)
{
    Splicer splicer(text.size() + sizeOf(values) - kGap.size() * gaps.size());
    splicer.add(text, gaps, values.data());
    return splicer.take();
}

const std::string& Statement::text()
{
    if (m_text.empty()) {
        m_text = spliced();
    }
    return m_text;
}

std::string Statement::takeText()
{
    return m_text.empty() ? spliced() : std::move(m_text);
}

std::string Statement::spliced() const
{
    Splicer splicer(m_size);
    spliceInto(splicer);
    return splicer.take();
}

void Statement::spliceInto(Splicer& splicer) const
{
    if (m_lists) {
        spliceLists(splicer);
        return;
    }
    std::size_t first = 0;
    for (const SqlPart& part : parts()) {
        splicer.add(part, {m_gaps.data() + first, part.gaps}, m_values.data() + first);
        first += part.gaps;
    }
}

void Statement::spliceLists(Splicer& splicer) const
{
    const std::string_view text = m_parts.front();
    std::size_t begin = 0;
    if (hasColumnList()) {
        splicer.add(text.substr(0, m_gaps.front())).add(m_lists->nameList()).add(")");
        begin = m_gaps.front() + kGap.size();
    }
    const std::size_t values = m_gaps.at(m_gapCount - 1);
    splicer.add(text.substr(begin, values - begin))
        .add(m_lists->valueList())
        .add(")")
        .add(text.substr(values + kGap.size()));
}

std::string Transaction::text() const
{
    std::size_t size = begin.size() + commit.size();
    for (const Statement& statement : statements) {
        size += statement.size();
    }
    Splicer splicer(size);
    splicer.add(begin);
    for (const Statement& statement : statements) {
        statement.spliceInto(splicer);
    }
    splicer.add(commit);
    return splicer.take();
}

} // namespace oryx
