#pragma once

#include <util/OryxExport.h>
#include <util/RegExp.h>
#include <zel/Trace.h>

#include <ctime>
#include <string>

namespace oryx {

/// A cached address map: a compiled pattern and the contact set that serves the request URIs it matches.
///
/// Used by one thread at a time.
/// \ingroup registrar events
class ORYX_EXPORT AddressMap {
public:
    /// Compiles `pattern` unless the expression held is as new as `modTime` (seconds since the epoch). The pattern's
    /// text is kept in any case. A pattern that is empty or does not compile never matches. The return value carries no
    /// meaning.
    bool compile(const char* pattern, time_t modTime);
    /// Whether memory did not suffice for the last pattern: `compile` tries again whatever its time.
    bool lacksMemory() const { return m_regex.lacksMemory(); }
    /// Whether the expression held is found in a request URI, which must not be null.
    bool matches(const char* uri);

    /// Sets the key; null leaves it as it is.
    void setKey(const char* key);
    /// Handle, hyphen, contact set key; valid until it is set again.
    const char* key() const { return m_key.c_str(); }
    /// Sets the key of the contact set.
    void setCsid(int csid) { m_csid = csid; }
    /// The key of the contact set; -1 until it is set.
    int csid() const { return m_csid; }
    /// The pattern last given to `compile`, compiled or not; valid until the next.
    const char* pattern() const { return m_pattern.c_str(); }

private:
    int m_csid = -1;
    std::string m_key;
    std::string m_pattern;
    RegExp m_regex;
    time_t m_time = 0; // of the expression held; 0: none yet
    zel::Trace m_trace{"AddressMap"};
};

} // namespace oryx
