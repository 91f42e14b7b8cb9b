#pragma once

#include <util/Export.h>
#include <util/RegExp.h>
#include <zel/Trace.h>

#include <ctime>
#include <string>

namespace oryx {

/// A cached address map: a compiled pattern and the contact set that serves the request URIs it matches.
///
/// Used by one thread at a time.
class ORYX_EXPORT AddressMap {
public:
    /// Compiles `pattern` unless the expression held is as new as `modTime` (seconds since the epoch). The pattern's
    /// text is kept in any case. A pattern that is empty or does not compile never matches. The return value carries no
    /// meaning.
    bool compile(const char* pattern, time_t modTime);
    /// Whether the expression held is found in a request URI, which must not be null.
    bool matches(const char* uri);

    /// Null leaves the key as it is.
    void setKey(const char* key);
    const char* key() const { return m_key.c_str(); }
    void setCsid(int csid) { m_csid = csid; }
    int csid() const { return m_csid; }
    const char* pattern() const { return m_pattern.c_str(); }

private:
    int m_csid = -1;
    std::string m_key; // handle, hyphen, csid
    std::string m_pattern;
    RegExp m_regex;
    time_t m_time = 0; // of the expression held; 0: none yet
    zel::Trace m_trace{"AddressMap"};
};

} // namespace oryx
