#include <StringTokenizer.h>

#include <utility>

StringTokenizer::StringTokenizer(std::string text, std::string delimiters)
    : m_text(std::move(text)), m_delimiters(std::move(delimiters)), m_position(m_text.find_first_not_of(m_delimiters))
{
}

bool StringTokenizer::hasMoreTokens() const
{
    return m_position != std::string::npos;
}

std::string StringTokenizer::nextToken()
{
    if (!hasMoreTokens()) {
        return {};
    }
    const auto end = m_text.find_first_of(m_delimiters, m_position);
    std::string token = m_text.substr(m_position, end - m_position);
    m_position = m_text.find_first_not_of(m_delimiters, end);
    return token;
}

std::size_t StringTokenizer::countTokens() const
{
    std::size_t count = 0;
    for (auto at = m_position; at != std::string::npos; ++count) {
        at = m_text.find_first_not_of(m_delimiters, m_text.find_first_of(m_delimiters, at));
    }
    return count;
}
