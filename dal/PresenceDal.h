#pragma once

#include <dal/Dal.h>
#include <util/OryxExport.h>

#include <string>
#include <utility>

/// \file
/// The event server's records: plain values that carry rows between the database and the server.
///
/// A setter or constructor that takes a `const char*` skips a null pointer. Numbers start at 0; times are seconds since
/// the epoch. What an operation does not fill is empty or 0 in a listing's record, and as it was in a caller's.

namespace oryx {

/// One subscription dialog (table `subscription_states`; RFC 6665).
///
/// - Stored by `addWatcher`, filled by `getWatcher` and the listings: identifier, From, To, Call-ID, both CSeqs, Event,
///   remote Contact, route set, request URI and package.
/// - Filled by `getIncomingMatchingSubscriptions` alone, and never stored with a dialog: watcher identity, document
///   type and expiry time. So a dialog's own row has no expiry.
/// \ingroup event_records
class PresenceRecord {
public:
    PresenceRecord() = default;
    /// What the arguments do not name stays empty or 0.
    PresenceRecord(const char* subscriptionid, const char* sid, const char* fromhdr, const char* tohdr,
                   const char* callId, int subcseq, const char* eventhdr, const char* remotecontacthdr,
                   const char* routeset, int notcseq, const char* requestUri, const char* packageid)
        : m_subcseq(subcseq), m_notcseq(notcseq)
    {
        SetSubscriptionid(subscriptionid);
        SetSid(sid);
        SetFromhdr(fromhdr);
        SetTohdr(tohdr);
        SetCallId(callId);
        SetEventhdr(eventhdr);
        SetRemotecontacthdr(remotecontacthdr);
        SetRouteset(routeset);
        SetRequestUri(requestUri);
        SetPackageid(packageid);
    }

    ///@{
    /// A field of the row.
    /// The caller's own key. Listings take a dialog as received if it holds "incoming#", as sent if "outgoing#",
    /// anywhere: "incoming#a84b4c76".
    const std::string& subscriptionid() const { return m_subscriptionid; }
    const std::string& sid() const { return m_sid; } ///< The caller's own; no operation fills it.
    const std::string& fromhdr() const { return m_fromhdr; }
    const std::string& tohdr() const { return m_tohdr; }
    const std::string& callId() const { return m_callId; }
    int subcseq() const { return m_subcseq; } ///< CSeq of the last SUBSCRIBE.
    const std::string& eventhdr() const { return m_eventhdr; }
    const std::string& remotecontacthdr() const { return m_remotecontacthdr; }
    const std::string& routeset() const { return m_routeset; }
    int notcseq() const { return m_notcseq; } ///< CSeq of the last NOTIFY.
    const std::string& requestUri() const { return m_requestUri; }
    /// The event package. The listings with two and three filters find it only if "#" follows the text asked for:
    /// "presence#" or "presence#1".
    const std::string& packageid() const { return m_packageid; }
    int oid() const { return m_oid; } ///< The caller's own; no operation fills it.
    const std::string& watcherIdentity() const { return m_watcherIdentity; } ///< Of its watcher, where read.
    int docType() const { return m_docType; }                                ///< Of its watcher, where read.
    long expiryTime() const { return m_expiryTime; }                         ///< Of its watcher, where read.
    ///@}

    ///@{
    /// Sets a field; a null text leaves it as it is.
    void SetSubscriptionid(const char* subscriptionid) { detail::setText(m_subscriptionid, subscriptionid); }
    void SetSid(const char* sid) { detail::setText(m_sid, sid); }
    void SetFromhdr(const char* fromhdr) { detail::setText(m_fromhdr, fromhdr); }
    void SetTohdr(const char* tohdr) { detail::setText(m_tohdr, tohdr); }
    void SetCallId(const char* callId) { detail::setText(m_callId, callId); }
    void SetSubcseq(int subcseq) { m_subcseq = subcseq; }
    void SetEventhdr(const char* eventhdr) { detail::setText(m_eventhdr, eventhdr); }
    void SetRemotecontacthdr(const char* contact) { detail::setText(m_remotecontacthdr, contact); }
    void SetRouteset(const char* routeset) { detail::setText(m_routeset, routeset); }
    void SetNotcseq(int notcseq) { m_notcseq = notcseq; }
    void SetRequestUri(const char* requestUri) { detail::setText(m_requestUri, requestUri); }
    void SetPackageid(const char* packageid) { detail::setText(m_packageid, packageid); }
    void SetOid(int oid) { m_oid = oid; }
    void SetWatcherIdentity(const char* identity) { detail::setText(m_watcherIdentity, identity); }
    void SetDocType(int docType) { m_docType = docType; }
    void SetExpiryTime(long expiryTime) { m_expiryTime = expiryTime; }
    ///@}

private:
    std::string m_subscriptionid;
    std::string m_sid;
    std::string m_fromhdr;
    std::string m_tohdr;
    std::string m_callId;
    int m_subcseq = 0;
    std::string m_eventhdr;
    std::string m_remotecontacthdr;
    std::string m_routeset;
    int m_notcseq = 0;
    std::string m_requestUri;
    std::string m_packageid;
    int m_oid = 0;
    std::string m_watcherIdentity;
    int m_docType = 0;
    long m_expiryTime = 0;
};

/// One watcher-information subscription (table `watcherinfo`; RFC 3857).
///
/// Stored by `addWinfoForPresentity` and filled by `getWinfoForPresentity`: everything. `updateWinfoForPresentity`
/// stores scheme, first version and expiry, and finds the row by the subscribe key.
/// \ingroup event_records
class WatcherInfoRecord {
public:
    /// The arguments are not in the order of the fields.
    WatcherInfoRecord(const char* winfokey, const char* subscribekey, const char* presUrlScheme, int startingdocversion,
                      long expirytime)
        : WatcherInfoRecord(winfokey, subscribekey, startingdocversion, expirytime)
    {
        SetPresUrlScheme(presUrlScheme);
    }
    /// The same without the scheme, which stays empty.
    WatcherInfoRecord(const char* winfokey, const char* subscribekey, int startingdocversion, long expirytime)
        : m_startingdocversion(startingdocversion), m_expirytime(expirytime)
    {
        SetWinfokey(winfokey);
        SetSubscribekey(subscribekey);
    }

    ///@{
    /// A field of the row.
    const std::string& winfokey() const { return m_winfokey; }           ///< What the list of watchers is looked up by.
    const std::string& presurlscheme() const { return m_presUrlScheme; } ///< Scheme of the presentity's URI.
    const std::string& subscribekey() const { return m_subscribekey; }   ///< The row's key, column `subscriberkey`.
    int startingdocversion() const { return m_startingdocversion; }      ///< Version of the first document.
    long expirytime() const { return m_expirytime; }
    ///@}

    ///@{
    /// Sets a field; a null text leaves it as it is.
    void SetWinfokey(const char* winfokey) { detail::setText(m_winfokey, winfokey); }
    void SetPresUrlScheme(const char* scheme) { detail::setText(m_presUrlScheme, scheme); }
    void SetSubscribekey(const char* subscribekey) { detail::setText(m_subscribekey, subscribekey); }
    void SetStartingdocversion(int version) { m_startingdocversion = version; }
    void SetExpirytime(long expirytime) { m_expirytime = expirytime; }
    ///@}

private:
    std::string m_winfokey;
    std::string m_presUrlScheme;
    std::string m_subscribekey;
    int m_startingdocversion = 0;
    long m_expirytime = 0;
};

/// One entry of an access control list: who asks, and what they are granted (table `access_control_list`).
///
/// Stored by nothing; `getAccessControlList` fills both, from rules whose state is ACTIVE.
/// \ingroup event_records
class AccessControlEntry {
public:
    /// Null texts leave their fields empty.
    AccessControlEntry(const char* requester, const char* action)
    {
        detail::setText(m_requester, requester);
        detail::setText(m_action, action);
    }

    std::string requester() const { return m_requester; } ///< Who asks, as provisioned.
    std::string action() const { return m_action; }       ///< A text of provisioning's own ("allow"); not judged here.

private:
    std::string m_requester;
    std::string m_action;
};

/// One watcher of a presentity (table `event_watchers`).
///
/// - Stored by `addWatcherState`: everything but the remote contact.
/// - Filled by both listings: everything but the event. `getWatcherState` adds the dialog's remote contact and gives
///   the key asked for; `getWatchers` gives no remote contact, and the presentity in place of the key.
///
/// Document type, watcher type and watcher state are codes of the caller's own: stored and given back, never judged.
/// \ingroup event_records
class ORYX_EXPORT WatchersRecord {
public:
    /// The arguments are in the order of the fields.
    WatchersRecord(std::string presentitykey, std::string watcheropaque, int doctype, int watchertype, int watcherstate,
                   long expirytime, std::string watcheridentity, std::string presentity, unsigned long docversion,
                   std::string event, std::string remoteContactHdr)
        : _presentitykey(std::move(presentitykey)),
          _watcheropaque(std::move(watcheropaque)),
          _doctype(doctype),
          _watchertype(watchertype),
          _watcherstate(watcherstate),
          _expirytime(expirytime),
          _watcheridentity(std::move(watcheridentity)),
          _presentity(std::move(presentity)),
          _docversion(docversion),
          _event(std::move(event)),
          _remoteContactHdr(std::move(remoteContactHdr))
    {
    }

    ///@{
    /// A field of the row.
    /// The caller's own key. `getWatchers(records, first, second)` finds those that hold second, "#", first:
    /// "bob@oryx.example#presence".
    const std::string& presentitykey() const { return _presentitykey; }
    const std::string& watcheropaque() const { return _watcheropaque; } ///< `subscriptionid` of the watcher's dialog.
    int doctype() const { return _doctype; }                            ///< A code of the caller's.
    int watchertype() const { return _watchertype; }                    ///< A code of the caller's.
    int watcherstate() const { return _watcherstate; }                  ///< A code of the caller's.
    long expirytime() const { return _expirytime; }
    const std::string& watcheridentity() const { return _watcheridentity; }
    const std::string& presentity() const { return _presentity; }
    unsigned long docversion() const { return _docversion; } ///< Of the last document sent.
    const std::string& event() const { return _event; }      ///< The event package: stored, filled by no listing.
    const std::string& remoteContactHdr() const { return _remoteContactHdr; } ///< The dialog's; not stored.
    ///@}

    ///@{
    /// Sets a field.
    void presentitykey(const std::string& key) { _presentitykey = key; }
    void watcheropaque(const std::string& opaque) { _watcheropaque = opaque; }
    void doctype(int doctype) { _doctype = doctype; }
    void watchertype(int watchertype) { _watchertype = watchertype; }
    void watcherstate(int watcherstate) { _watcherstate = watcherstate; }
    void expirytime(int expirytime) { _expirytime = expirytime; } ///< Beyond 2038 by the constructor alone.
    void watcheridentity(const std::string& identity) { _watcheridentity = identity; }
    void presentity(const std::string& presentity) { _presentity = presentity; }
    void docversion(unsigned long docversion) { _docversion = docversion; }
    void event(const std::string& event) { _event = event; }
    void remoteContactHdr(const std::string& contact) { _remoteContactHdr = contact; }
    ///@}

    /// The prefix and all fields in one line, for diagnostics.
    std::string dumpToString(const std::string& prefix) const;

private:
    std::string _presentitykey;
    std::string _watcheropaque;
    int _doctype;
    int _watchertype;
    int _watcherstate;
    long _expirytime;
    std::string _watcheridentity;
    std::string _presentity;
    unsigned long _docversion;
    std::string _event;
    std::string _remoteContactHdr;
};

/// One source of a presentity's state: a publisher or a registered contact (table `event_sources`; RFC 3903).
///
/// Stored by `addSourceOpaque`: everything. Filled by `getSourceOpaque`: everything; by `getAllEventSources` and
/// `getSources`: everything but the presentity.
/// \ingroup event_records
class SourcesRecord {
public:
    /// The expiry time is not where its field is.
    SourcesRecord(const char* presentitykey, const char* sourceopaque, const char* contact, long expirytime,
                  const char* event)
        : m_expirytime(expirytime)
    {
        detail::setText(m_presentitykey, presentitykey);
        detail::setText(m_sourceopaque, sourceopaque);
        detail::setText(m_contact, contact);
        detail::setText(m_event, event);
    }
    /// The same with the presentity, which the other leaves empty.
    SourcesRecord(const char* presentitykey, const char* sourceopaque, const char* contact, long expirytime,
                  const char* event, const char* presentity)
        : SourcesRecord(presentitykey, sourceopaque, contact, expirytime, event)
    {
        detail::setText(m_presentity, presentity);
    }

    ///@{
    /// A field of the row.
    std::string presentitykey() const { return m_presentitykey; }
    std::string sourceopaque() const { return m_sourceopaque; } ///< The caller's own key; changes go by it alone.
    std::string contact() const { return m_contact; }
    std::string event() const { return m_event; }           ///< The event package.
    std::string presentity() const { return m_presentity; } ///< Its address; what `getSources` searches.
    long expirytime() const { return m_expirytime; }
    ///@}

private:
    std::string m_presentitykey;
    std::string m_sourceopaque;
    std::string m_contact;
    std::string m_event;
    std::string m_presentity;
    long m_expirytime;
};

/// One subscription that a presence list made on its watcher's behalf (table `listsubscriptions`; RFC 4662).
///
/// `createListMapping` and `updateStateForListMapping` store these values; `getAllMappingsForList` fills everything.
/// \ingroup event_records
class ListSubscriptionRecord {
public:
    /// Null texts leave their fields empty.
    ListSubscriptionRecord(const char* listfsmidentifier, const char* subscriptionidentifier, long expirytime)
        : m_expirytime(expirytime)
    {
        detail::setText(m_listfsmidentifier, listfsmidentifier);
        detail::setText(m_subscriptionidentifier, subscriptionidentifier);
    }

    std::string listfsmidentifier() const { return m_listfsmidentifier; }           ///< Of the list's state machine.
    std::string subscriptionidentifier() const { return m_subscriptionidentifier; } ///< Of the subscription it made.
    long expirytime() const { return m_expirytime; }                                ///< When the subscription expires.

private:
    std::string m_listfsmidentifier;
    std::string m_subscriptionidentifier;
    long m_expirytime;
};

/// A contact with the address of record that it is registered for.
///
/// Stored by nothing; `flushExpiredContacts` and `removeExpiredBindings` fill handle, domain, public address key,
/// contact header, expiry, Call-ID and CSeq.
/// \ingroup event_records
class ExtendedContactRecord : public ContactRecord {
public:
    ///@{
    /// A field of the address of record.
    const std::string& handle() const { return m_handle; }
    const std::string& domain() const { return m_domain; }
    int sid() const { return m_sid; } ///< The public address key, whatever the name says.
    int oid() const { return m_oid; } ///< The caller's own; no operation fills it.
    ///@}

    ///@{
    /// Sets a field; a null text leaves it as it is.
    void setHandle(const char* handle) { detail::setText(m_handle, handle); }
    void setDomain(const char* domain) { detail::setText(m_domain, domain); }
    void setSid(int sid) { m_sid = sid; }
    void setOid(int oid) { m_oid = oid; }
    ///@}

private:
    int m_sid = 0;
    std::string m_domain;
    std::string m_handle;
    int m_oid = 0;
};

/// One conference extension and its state (table `conf_state`).
///
/// Stored by `addConfExtState` and filled by the listings: everything, but for the start time of obsolete extensions.
/// \ingroup event_records
class ORYX_EXPORT ConfExtRecord {
public:
    /// The arguments are in the order of the fields.
    ConfExtRecord(std::string extension, std::string conf_status, unsigned int start_time)
        : _extension(std::move(extension)), _conf_status(std::move(conf_status)), _start_time(start_time)
    {
    }

    const std::string& extension() const { return _extension; }     ///< Its number, as text.
    const std::string& conf_status() const { return _conf_status; } ///< "IN USE", "IDLE" or "INVALID", in capitals.
    unsigned int start_time() const { return _start_time; }         ///< When the state was set; whole, beyond 2038 too.

    ///@{
    /// Sets a field.
    void extension(const std::string& extension) { _extension = extension; }
    void conf_status(const std::string& status) { _conf_status = status; }
    void start_time(unsigned int start_time) { _start_time = start_time; }
    ///@}

    /// The prefix and all fields in one line, for diagnostics.
    std::string dumpToString(const std::string& prefix) const;

private:
    std::string _extension;
    std::string _conf_status;
    unsigned int _start_time;
};

/// One change of a watched table (table `event_notify`); `getUpdatedPrimaryKeys` fills everything but the command.
/// \ingroup event_records
class DatabaseUpdate {
public:
    /// The number comes before the text, unlike the fields.
    DatabaseUpdate(std::string relation_name, int intpkey, std::string strpkey, std::string cmd, std::string timestamp)
        : m_relation_name(std::move(relation_name)),
          m_strpkey(std::move(strpkey)),
          m_intpkey(intpkey),
          m_cmd(std::move(cmd)),
          m_timestamp(std::move(timestamp))
    {
    }

    const std::string& relation_name() const { return m_relation_name; } ///< The changed table.
    const std::string& strpkey() const { return m_strpkey; } ///< The changed row's key, where it is a text; or empty.
    int intpkey() const { return m_intpkey; }                ///< The changed row's key, where it is a number; or 0.
    const std::string& cmd() const { return m_cmd; }         ///< Empty in what the change log gives.
    const std::string& timestamp() const { return m_timestamp; } ///< A number; the highest is the next "since".

    ///@{
    /// Sets a field.
    void set_relation_name(const std::string& relation_name) { m_relation_name = relation_name; }
    void set_strpkey(const std::string& strpkey) { m_strpkey = strpkey; }
    void set_intpkey(int intpkey) { m_intpkey = intpkey; }
    void set_cmd(const std::string& cmd) { m_cmd = cmd; }
    void set_timestamp(const std::string& timestamp) { m_timestamp = timestamp; }
    ///@}

private:
    std::string m_relation_name;
    std::string m_strpkey;
    int m_intpkey;
    std::string m_cmd;
    std::string m_timestamp;
};

/// How to reach one call manager (table `acp`); or, in `getCMforBulkSub`, which ones are asked for. A setter ignores a
/// null pointer.
/// \ingroup event_records
class ORYX_EXPORT CMRecord {
public:
    const std::string& GetHandle() const { return cmhandle; }      ///< The call manager's name.
    const std::string& GetLinkType() const { return link_type; }   ///< Transport: "tcp", "tls" or another.
    const std::string& GetIPAddress() const { return ip_address; } ///< Without its port.
    const std::string& GetPort() const { return port; }            ///< As text; empty when none is known.

    /// Sets the call manager's name.
    void SetHandle(const char* handle);
    /// Sets the address. What follows the first colon is the port, and no other port counts from then on.
    void SetIPAddress(const char* address);
    /// Sets the port; ignored once the port came with the address.
    void SetPort(const char* text);
    /// Sets the transport, and the default port too if there is none yet.
    void SetLinkType(const char* type);
    /// Sets the port to 5060 for "tcp", 5061 for "tls" (RFC 3261 section 19.1.2), unless the port came with the
    /// address.
    void SetDefaultPort();

    /// The prefix and all fields in one line, for diagnostics.
    std::string dumpToString(const std::string& prefix) const;

private:
    std::string cmhandle;
    std::string link_type;
    std::string ip_address;
    std::string port;
    bool embedded_port = false; // the port came with the address
};

} // namespace oryx
