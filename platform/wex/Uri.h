#pragma once

#include <string>

#include <util/OryxExport.h>

/// The suite's URIs.
namespace wex {

/// The parts of a SIP or SIPS URI (RFC 3261 section 19.1.1), each as it stands in the text: still escaped, in the case
/// it was written in. Never changes once constructed.
///
/// A text that the grammar of RFC 3261 section 25.1 does not allow is not valid, nor is another scheme, a port beyond
/// 65535 or an address that cannot exist; all parts are then empty and the port is 0.
/// \ingroup platform
class ORYX_EXPORT Uri {
public:
    ///@{
    /// Takes a URI apart. A null text is not valid.
    explicit Uri(const char* text);
    explicit Uri(const std::string& text);
    ///@}

    /// True if the text is such a URI.
    bool isValid() const { return m_valid; }

    const std::string& getProtocol() const { return m_protocol; }     ///< "sip" or "sips".
    const std::string& getUser() const { return m_user; }             ///< Empty when there is none.
    const std::string& getPassword() const { return m_password; }     ///< Empty when there is none.
    const std::string& getHost() const { return m_host; }             ///< An IPv6 address keeps its brackets.
    int getPort() const { return m_port; }                            ///< 0 when there is none.
    const std::string& getParameters() const { return m_parameters; } ///< "a=b;c", without the leading ";".
    const std::string& getHeaders() const { return m_headers; }       ///< "a=b&c=d", without the "?".

private:
    void parse(const std::string& text);

    bool m_valid = false;
    std::string m_protocol;
    std::string m_user;
    std::string m_password;
    std::string m_host;
    int m_port = 0;
    std::string m_parameters;
    std::string m_headers;
};

} // namespace wex
