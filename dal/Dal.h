#pragma once

#include <algorithm>
#include <limits>
#include <string>

/// \file
/// The registrar's records: plain values that carry rows between the database and the servers.
///
/// A text setter ignores a null pointer; keys start at -1 and other numbers at 0 unless said otherwise. Members carry
/// the names of their columns. What an operation does not store stays as it is in the row, or empty in a new one; what
/// it does not fill keeps the record's value.

namespace oryx {

namespace detail {

inline void setText(std::string& field, const char* text)
{
    if (text != nullptr) {
        field = text;
    }
}

} // namespace detail

/// A subscriber (table `subscriber`).
///
/// - Stored by `addSubscriber`: key (unless negative), user id, type, authentication type, password as it is, active
///   flag; not the organisation. `changeSubscriberPassword` stores the password alone.
/// - Filled by `lookupSubscriber`: everything; by `getSubscribers`: everything but the organisation, the password as
///   stored.
/// \ingroup registrar_records
class SubscriberRecord {
public:
    ///@{
    /// A field of the row.
    int sid() const { return m_sid; }
    const std::string& userId() const { return m_uid; } ///< Column `user_id` when stored, `auth_user_id` when read.
    const std::string& type() const { return m_type; }  ///< A text of provisioning's own ("home"); never judged here.
    const std::string& authType() const { return m_authType; } ///< Likewise ("digest").
    const std::string& password() const { return m_password; } ///< Stored form or clear, as the lookup says.
    int oid() const { return m_oid; }                          ///< Key of the owning organisation.
    const std::string& active() const { return m_active; }     ///< Database boolean, "t" or "f"; "t" at first.
    ///@}

    ///@{
    /// Sets a field; a null text leaves it as it is.
    void setId(int sid) { m_sid = sid; }
    void setUserId(const char* uid) { detail::setText(m_uid, uid); }
    void setType(const char* type) { detail::setText(m_type, type); }
    void setAuthType(const char* authType) { detail::setText(m_authType, authType); }
    void setPassword(const char* password) { detail::setText(m_password, password); }
    void setOid(int oid) { m_oid = oid; }
    /// NUL leaves the flag as it is.
    void setActive(char c)
    {
        if (c != '\0') {
            m_active.assign(1, c);
        }
    }
    ///@}

private:
    int m_sid = -1;
    std::string m_uid;
    std::string m_type;
    std::string m_authType;
    std::string m_password;
    int m_oid = -1;
    std::string m_active = "t";
};

/// An address of record: a handle at a SIP domain (table `public_address`).
///
/// - Stored by `addPublicAddress`: handle, domain and contact set key, nothing else.
/// - Filled by `lookupPublicAddress` and `getAliases`: everything but the administrative domain; by
///   `getAllPublicAddresses`: everything.
/// \ingroup registrar_records
class PublicAddressRecord {
public:
    PublicAddressRecord() = default;
    /// Null texts leave their fields empty; the row's key is -1.
    PublicAddressRecord(const char* handle, const char* domain, int csid, const char* scope) : m_csid(csid)
    {
        setHandle(handle);
        setDomain(domain);
        setScope(scope);
    }

    ///@{
    /// A field of the row.
    int public_address_id() const { return m_public_address_id; }
    const std::string& handle() const { return m_handle; } ///< User part of the address, in lower case.
    const std::string& domain() const { return m_domain; } ///< SIP domain of the address, in lower case.
    int csid() const { return m_csid; }                    ///< Key of the contact set it routes to.
    const std::string& scope() const { return m_scope; }   ///< A text of provisioning's own; never judged here.
    const std::string& adminDomain() const { return m_adminDomain; } ///< Filled by getAllPublicAddresses alone.
    ///@}

    ///@{
    /// Sets a field; a null text leaves it as it is.
    void setHandle(const char* handle) { detail::setText(m_handle, handle); }
    void setDomain(const char* domain) { detail::setText(m_domain, domain); }
    void setScope(const char* scope) { detail::setText(m_scope, scope); }
    void setAdminDomain(const char* adminDomain) { detail::setText(m_adminDomain, adminDomain); }
    void setCsid(int csid) { m_csid = csid; }
    void setPublicAddressId(int id) { m_public_address_id = id; }
    ///@}

private:
    std::string m_handle;
    std::string m_domain;
    int m_csid = -1;
    std::string m_scope;
    std::string m_adminDomain;
    int m_public_address_id = -1;
};

/// The set of contacts of one subscriber, with the order in which they are tried (table `contact_set`).
///
/// - Stored by `addContactSet`: all three, so both keys must be set first. The replace-URI flag is not: a new set
///   replaces the URI.
/// - Filled by nothing; lookups of contacts give the ordering by itself.
/// \ingroup registrar_records
class ContactSetRecord {
public:
    ///@{
    /// A field of the row.
    int csid() const { return m_csid; }
    int sid() const { return m_sid; } ///< Key of the owning subscriber.
    /// How the contacts are tried: a text of provisioning's own ("sequential"), never judged here.
    const std::string& ordering() const { return m_ordering; }
    ///@}

    ///@{
    /// Sets a field; a null text leaves it as it is.
    void setCsid(int csid) { m_csid = csid; }
    void setSid(int sid) { m_sid = sid; }
    void setOrdering(const char* ordering) { detail::setText(m_ordering, ordering); }
    ///@}

private:
    int m_csid = -1;
    int m_sid = -1;
    std::string m_ordering;
};

/// One registered binding of a contact set (table `contact`; RFC 3261 section 10).
///
/// | Operation | Address | Expiry, q-value, capabilities, header, Call-ID, CSeq | Permanent | Contact set key |
/// | --- | --- | --- | --- | --- |
/// | `addContact(handle, ...)` | stored | stored | stored | not read: the address of record decides |
/// | `addContact(rec)` | stored | stored | stored | stored |
/// | `registerContacts` | stored | stored | stored | not read: the key decides |
/// | `updateContacts` | finds the row | stored | stays | not read: the key decides |
/// | `unregisterContacts` | finds the row | not read | not read | not read: the key decides |
/// | the registrar's lookups | filled | filled | not filled | not filled |
/// | the event server's lookups | filled | filled | filled | filled |
/// | `flushExpiredContacts` | not filled | expiry, header, Call-ID, CSeq | not filled | not filled |
/// | `removeExpiredBindings` | not filled | expiry, header, Call-ID, CSeq | not filled | not filled |
///
/// No operation stores type or path. The registrar's lookups fill the type, the event server's type, path and contact
/// key too; `flushExpiredContacts` and `removeExpiredBindings` none of them.
/// \ingroup registrar_records
class ContactRecord {
public:
    ///@{
    /// A field of the row.
    int contactid() const { return m_contact_id; }           ///< Key of the row.
    const std::string& address() const { return m_address; } ///< The contact's URI: which binding of the set it is.
    int csid() const { return m_csid; }                      ///< Key of its contact set.
    const std::string& qvalue() const { return m_qvalue; }   ///< Preference, as text; empty where none was given.
    /// Seconds since the epoch; one read from the database is held to the limits of a long. 0 where the row has none:
    /// it never expires.
    long expires() const { return m_expires; }
    const std::string& permanent() const { return m_permanent; } ///< Database boolean, "t" or "f"; "f" at first.
    const std::string& capabilities() const { return m_capabilities; }
    const std::string& contactHeader() const { return m_contactHeader; } ///< The Contact header as received.
    const std::string& callId() const { return m_callId; }               ///< Call-ID of the REGISTER.
    long cseq() const { return m_cseq; }                                 ///< CSeq of the REGISTER.
    const std::string& type() const { return m_type; }             ///< Column `c_type`: a text of provisioning's own.
    const std::string& pathVector() const { return m_pathVector; } ///< The Path recorded (RFC 3327).
    ///@}

    ///@{
    /// Sets a field; a null text leaves it as it is.
    void setContactid(int id) { m_contact_id = id; }
    void setAddress(const char* address) { detail::setText(m_address, address); }
    void setCsid(int csid) { m_csid = csid; }
    void setQvalue(const char* qvalue) { detail::setText(m_qvalue, qvalue); }
    void setExpires(long expires) { m_expires = expires; }
    /// 't' or 'f'; NUL too replaces the flag.
    void setPermanent(char c) { m_permanent.assign(1, c); }
    void setCapabilities(const char* capabilities) { detail::setText(m_capabilities, capabilities); }
    void setContactHeader(const char* contactHeader) { detail::setText(m_contactHeader, contactHeader); }
    void setCallId(const char* callId) { detail::setText(m_callId, callId); }
    void setType(const char* type) { detail::setText(m_type, type); }
    void setCseq(long cseq) { m_cseq = cseq; }
    void setPathVector(const char* pathVector) { detail::setText(m_pathVector, pathVector); }
    ///@}

private:
    int m_contact_id = -1;
    std::string m_address;
    int m_csid = -1;
    std::string m_qvalue;
    long m_expires = 0;
    std::string m_permanent = "f";
    std::string m_capabilities;
    std::string m_contactHeader;
    std::string m_callId;
    std::string m_type;
    long m_cseq = 0;
    std::string m_pathVector;
};

/// This server's place in the deployment and its outbound policy (the one row of table `host_info`).
///
/// Stored by nothing; `getHostInfo` fills everything.
/// \ingroup registrar_records
class HostInfo {
public:
    ///@{
    /// A field of the row.
    const std::string& nodeType() const { return m_nodeType; }
    const std::string& parent() const { return m_parent; }
    const std::string& parentContact() const { return m_parentContact; } ///< Key of the parent's contact set, as text.
    const std::string& topUrl() const { return m_topUrl; }
    const std::string& serverName() const { return m_serverName; }
    const std::string& outboundProxy() const { return m_outboundProxy; } ///< For external requests.
    /// Hosts that bypass the outbound proxy, with blanks, commas, semicolons or colons between them.
    const std::string& outboundDirect() const { return m_outboundDirect; }
    bool outboundAllowInternal() const { return m_outboundAllowInternal; } ///< True at first.
    bool outboundAllowExternal() const { return m_outboundAllowExternal; } ///< False at first.
    ///@}

    ///@{
    /// Sets a field; a null text leaves it as it is.
    void setNodeType(const char* nodeType) { detail::setText(m_nodeType, nodeType); }
    void setParent(const char* parent) { detail::setText(m_parent, parent); }
    void setParentContact(const char* parentContact) { detail::setText(m_parentContact, parentContact); }
    void setTopUrl(const char* topUrl) { detail::setText(m_topUrl, topUrl); }
    void setServerName(const char* serverName) { detail::setText(m_serverName, serverName); }
    void setOutboundProxy(const char* proxy) { detail::setText(m_outboundProxy, proxy); }
    void setOutboundDirect(const char* direct) { detail::setText(m_outboundDirect, direct); }
    void setOutboundAllowInternal(bool allow) { m_outboundAllowInternal = allow; }
    void setOutboundAllowExternal(bool allow) { m_outboundAllowExternal = allow; }
    ///@}

private:
    std::string m_nodeType;
    std::string m_parent;
    std::string m_parentContact;
    std::string m_topUrl;
    std::string m_serverName;
    std::string m_outboundProxy;
    std::string m_outboundDirect;
    bool m_outboundAllowInternal = true;
    bool m_outboundAllowExternal = false;
};

/// A pattern that maps matching request URIs onto a contact set (table `address_map` with its contact set).
///
/// Stored by nothing; `getAddressMaps` fills everything but the row's key.
/// \ingroup registrar_records
class AddressMapRecord {
public:
    ///@{
    /// A field of the row.
    int mapid() const { return m_map_id; } ///< The caller's own; no operation fills it.
    const std::string& handle() const { return m_handle; }
    const std::string& pattern() const { return m_pattern; } ///< POSIX extended regular expression.
    int csid() const { return m_csid; }                      ///< Key of the contact set it leads to.
    /// Seconds since the epoch, held to the limits of an int.
    int modTime() const
    {
        constexpr long kMin = std::numeric_limits<int>::min();
        constexpr long kMax = std::numeric_limits<int>::max();
        return static_cast<int>(std::clamp(m_modTime, kMin, kMax));
    }
    long wholeModTime() const { return m_modTime; }            ///< The same, also after 2038.
    int priority() const { return m_priority; }                ///< Lower values come first.
    const std::string& ordering() const { return m_ordering; } ///< The contact set's.
    bool replaceUri() const { return m_replaceUri; }           ///< The contact set's; true at first.
    ///@}

    ///@{
    /// Sets a field; a null text leaves it as it is.
    void setMapid(int id) { m_map_id = id; }
    void setHandle(const char* handle) { detail::setText(m_handle, handle); }
    void setPattern(const char* pattern) { detail::setText(m_pattern, pattern); }
    void setOrdering(const char* ordering) { detail::setText(m_ordering, ordering); }
    void setCsid(int csid) { m_csid = csid; }
    void setModTime(long modTime) { m_modTime = modTime; }
    void setPriority(int priority) { m_priority = priority; }
    void setReplaceUri(bool replaceUri) { m_replaceUri = replaceUri; }
    ///@}

private:
    int m_map_id = -1;
    std::string m_handle;
    std::string m_pattern;
    int m_csid = -1;
    long m_modTime = 0;
    int m_priority = 0;
    bool m_replaceUri = true;
    std::string m_ordering;
};

/// One configuration item of a proxy.
///
/// The registrar's `getProxyConfig` reads one proxy's rows of table `proxy_configuration`, the event server's the rows
/// of application "oryxproxy" in `system_parameters`; both fill all three texts.
/// \ingroup registrar_records
class ProxyConfig {
public:
    ProxyConfig() = default;
    /// Null texts leave their fields empty.
    ProxyConfig(const char* scope, const char* name, const char* value)
    {
        setScope(scope);
        setName(name);
        setValue(value);
    }

    ///@{
    /// A field of the row, never null; valid until it is set again or the record ends.
    const char* scope() const { return m_scope.c_str(); }
    const char* name() const { return m_name.c_str(); }
    const char* value() const { return m_value.c_str(); }
    ///@}

    ///@{
    /// Sets a field; a null text leaves it as it is.
    void setScope(const char* scope) { detail::setText(m_scope, scope); }
    void setName(const char* name) { detail::setText(m_name, name); }
    void setValue(const char* value) { detail::setText(m_value, value); }
    ///@}

private:
    std::string m_scope;
    std::string m_name;
    std::string m_value;
};

/// One rule that allows or denies a SIP domain in one direction (table `domain_access`).
///
/// Stored by nothing; `getDomainAccessList` fills everything but the row's key.
/// \ingroup registrar_records
class DomainAccess {
public:
    ///@{
    /// A field of the row.
    int domainid() const { return m_domain_id; }                 ///< The caller's own; no operation fills it.
    const std::string& domain() const { return m_domain; }       ///< Compared whole and byte for byte: no wildcards.
    const std::string& direction() const { return m_direction; } ///< "i" inbound, "o" outbound, "*" both.
    const std::string& action() const { return m_action; }       ///< "a" allow, "d" deny.
    ///@}

    ///@{
    /// Sets a field; a null text leaves it as it is.
    void setDomainid(int id) { m_domain_id = id; }
    void setDomain(const char* domain) { detail::setText(m_domain, domain); }
    void setDirection(const char* direction) { detail::setText(m_direction, direction); }
    void setAction(const char* action) { detail::setText(m_action, action); }
    ///@}

    /// Replaces `out` by the rule as one line of trace.
    void toString(std::string& out) const
    {
        out.assign("domain=").append(m_domain).append(" dir=").append(m_direction).append(" action=").append(m_action);
    }

private:
    int m_domain_id = -1;
    std::string m_domain;
    std::string m_action;
    std::string m_direction;
};

} // namespace oryx
