#include <dal/AddressMap.h>

namespace oryx {

bool AddressMap::compile(const char* pattern, time_t modTime)
{
    if (pattern != nullptr) {
        m_pattern = pattern;
    }
    if (m_time != 0 && m_time >= modTime) {
        m_trace.prn("expression already compiled");
        return true;
    }
    const char* const given = pattern != nullptr ? m_pattern.c_str() : ""; // it may have been a part of the text before
    m_trace.prn("compiling expression '%s'", given);
    m_regex.free();
    // To the regular-expression library an empty pattern matches everything; to an operator it is a map not filled in.
    const bool valid = *given != '\0' && m_regex.compile(given, false);
    // Only now, and not for want of memory: where that runs out, the next attempt compiles again.
    m_time = m_regex.lacksMemory() ? 0 : modTime;
    return valid;
}

bool AddressMap::matches(const char* uri)
{
    m_trace.prn("checking regex match for %s against %s", uri, m_pattern.c_str());
    return m_regex.match(uri);
}

void AddressMap::setKey(const char* key)
{
    if (key != nullptr) {
        m_key = key;
    }
}

} // namespace oryx
