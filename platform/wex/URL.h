#pragma once

#include <string>
#include <string_view>

namespace wex {

/// Host and database of a database URI: `scheme://[user[:password]@][host[:port],...][/path][?query][#fragment]`.
/// Never changes once constructed.
///
/// The scheme and "://" are required. Not valid are also a blank or control character, an escape that is not %HH or is
/// %00, a port outside 1 to 65535, and a host with a character that RFC 3986 section 3.2.2 does not allow.
class URL {
public:
    ///@{
    /// Takes a URI apart. A null text is not valid.
    explicit URL(const char* text);
    explicit URL(const std::string& text);
    ///@}

    /// True if the text is such a URI.
    bool isValid() const { return m_valid; }

    /// The host, or the hosts with commas between them, without user and ports. Escapes are resolved, so that the
    /// directory of a socket can be given ("%2Frun%2Fpostgresql"); an IPv6 address comes without its brackets. Empty
    /// when there is none, and when the URI is not valid.
    void getHost(std::string& host) const { host = m_host; }

    /// The path without its leading "/", escapes resolved. Empty when there is none, and when the URI is not valid.
    void getPath(std::string& path) const { path = m_path; }

private:
    void parse(std::string_view text);

    bool m_valid = false;
    std::string m_host;
    std::string m_path;
};

} // namespace wex
