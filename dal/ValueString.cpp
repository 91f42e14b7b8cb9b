#include <dal/ValueString.h>

namespace oryx {

namespace {

// What most statements need, in bytes.
constexpr std::size_t kUsualColumns = 12;
constexpr std::size_t kUsualNames = 150;
constexpr std::size_t kUsualValues = 500;

void separate(std::string& list)
{
    if (list.size() != 1) {
        list += ',';
    }
}

} // namespace

ValueString::ValueString()
{
    m_names.reserve(kUsualNames);
    m_names = '(';
    m_values.reserve(kUsualValues);
    m_values = '(';
    m_places.reserve(kUsualColumns);
}

void ValueString::addName(const char* nm)
{
    separate(m_names);
    m_names += nm != nullptr ? nm : "";
}

void ValueString::addValue(const char* v)
{
    separate(m_values);
    if (v != nullptr) {
        const std::size_t begin = m_values.append("'").size();
        m_places.push_back({begin, m_values.append(v).size() - begin});
        m_values += '\'';
    } else {
        m_places.push_back({m_values.size(), 0, true});
        m_values += "NULL";
    }
}

void ValueString::add(const char* nm, const char* v)
{
    addName(nm);
    addValue(v);
}

void ValueString::add(const char* nm, const std::string& v)
{
    add(nm, v.empty() ? nullptr : v.c_str());
    m_places.back().cut = v.find('\0') != std::string::npos;
}

void ValueString::addExplicit(const char* nm, long v)
{
    addNumber(nm, std::to_string(v));
}

void ValueString::addNumber(const char* nm, const std::string& digits)
{
    addName(nm);
    separate(m_values);
    m_places.push_back({m_values.size(), digits.size()});
    m_values += digits;
}

const char* ValueString::names()
{
    m_names += ')';
    return m_names.c_str();
}

const char* ValueString::values()
{
    m_values += ')';
    return m_values.c_str();
}

} // namespace oryx
