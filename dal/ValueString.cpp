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
    m_names += std::string_view(nm != nullptr ? nm : "");
}

void ValueString::addQuoted(std::string_view v, bool cut)
{
    separate(m_values);
    m_values += '\'';
    m_places.push_back({m_values.size(), v.size(), false, cut});
    m_values += v;
    m_values += '\'';
}

void ValueString::addValue(const char* v)
{
    if (v != nullptr) {
        addQuoted(v, false);
    } else {
        addBare("NULL", true);
    }
}

void ValueString::add(const char* nm, const char* v)
{
    addName(nm);
    addValue(v);
}

void ValueString::add(const char* nm, const std::string& v)
{
    addName(nm);
    if (v.empty()) {
        addValue(nullptr);
        return;
    }
    const std::string_view whole = v;
    const std::string_view text = whole.substr(0, whole.find('\0'));
    addQuoted(text, text.size() < whole.size());
}

void ValueString::addBare(std::string_view v, bool null)
{
    separate(m_values);
    m_places.push_back({m_values.size(), null ? 0 : v.size(), null});
    m_values += v;
}

void ValueString::addExplicit(const char* nm, long v)
{
    addName(nm);
    addBare(std::to_string(v), false);
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
