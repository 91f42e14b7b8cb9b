#include <dal/ValueString.h>

namespace oryx {

namespace {

void separate(std::string& list)
{
    if (list.size() != 1) {
        list += ',';
    }
}

} // namespace

void ValueString::addName(const char* nm)
{
    separate(m_names);
    m_names += nm != nullptr ? nm : "";
}

void ValueString::addValue(const char* v)
{
    separate(m_values);
    if (v != nullptr) {
        m_values.append("'").append(v).append("'");
    } else {
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
}

void ValueString::addExplicit(const char* nm, long v)
{
    addNumber(nm, std::to_string(v));
}

void ValueString::addNumber(const char* nm, const std::string& digits)
{
    addName(nm);
    separate(m_values);
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
