#pragma once

#include <dal/AddressMap.h>
#include <dal/Dal.h>
#include <dal/DatabaseResult.h>
#include <dal/SessionOptions.h>
#include <dal/SessionStatistics.h>
#include <util/OryxExport.h>
#include <zel/Trace.h>

#include <memory>
#include <string>
#include <vector>

/// The data access layer: services, the executors and connection beneath them, results and records.
namespace oryx {

class AddressMapCache;
class Meter;
class DatabaseCommandExecutor;
struct Transaction;

/// Whether the rules deny an outbound request to that host: any outbound rule ("o", or "*" for both directions) that
/// names it byte for byte and denies it ("d"). A rule that allows it does not stop the search.
/// \ingroup registrar
ORYX_EXPORT bool checkOutboundDenied(std::vector<DomainAccess>& list, std::string& host);
/// Whether the rules allow ("a") an outbound request to that host, likewise.
/// \ingroup registrar
ORYX_EXPORT bool checkOutboundAllowed(std::vector<DomainAccess>& list, std::string& host);

/// What a registrar or proxy holds: addresses of record, their contacts, and the host's settings.
///
/// - The operations answer with a result; on a service that was never connected that is a connection error.
/// - `key` is the public address key from `getPublicAddressKey`.
/// - Lookups append to the caller's vector unless they say "replaces". Expired contacts are found until
///   `removeExpiredContacts` removes them: the caller leaves out those whose expiry is neither 0 nor in the
///   future. The lookups do not show which are permanent: such a contact is stored without an expiry, as
///   `importPublicAddress` does.
/// - A statement that the server refuses costs a reset of the connection and is sent a second time;
///   `DatabaseConnection::execute` has the whole rule. A failed transaction leaves nothing behind.
/// - Texts go into plain statements as they are: what comes from the network must hold no quote (`isCleanText`); in
///   bound ones (`SessionOptions`) a quote is a character. Handles, domains and hosts are compared byte for byte; the
///   tables hold lower case.
/// - One service serves one thread at a time; several services may run at once.
/// \ingroup registrar
class ORYX_EXPORT LocationService {
public:
    /// Without a connection; touches no database.
    LocationService();
    /// Ends the connection and forgets the compiled address maps.
    ~LocationService();
    LocationService(const LocationService&) = delete;
    LocationService& operator=(const LocationService&) = delete;

    /// How the next connection sends its statements; until this is called, as the environment says.
    void setSessionOptions(const SessionOptions& options);
    /// What has become of the service's connections and statements so far; for any thread.
    SessionStatistics getStatistics() const;
    /// Connects to the database at `uri` ("scheme://host/database", or a bare database name), replacing the connection
    /// held so far. Neither database nor user may be empty; none of the texts may hold a blank or a backslash, or begin
    /// with a quote. Okay, or a connection error with the server's reason.
    DatabaseResult connect(const char* uri, const char* user, const char* password);
    /// Sets `result` to a connection error on a service that was never connected; leaves it as it is otherwise.
    void checkConnect(DatabaseResult& result);

    /// \name Addresses of record and their contacts
    ///@{

    /// The key of an address of record, handle and domain in lower case. Okay, not found, connection or query error;
    /// `key` is -1 unless okay, and left as it was on a service that was never connected.
    DatabaseResult getPublicAddressKey(const char* handle, const char* domain, int& key);
    /// The subscriber whom an address of record belongs to, with the password in clear. Okay, not found, or connection
    /// error, which here stands for every failure; `rec` is changed only when okay.
    ///
    /// To authenticate (see `examples/authentication`), hand over a fresh record with its active flag set to 'f', and
    /// refuse an empty password: NULL leaves the password of a record that was used before, which is another
    /// subscriber's; an empty stored password stays empty; an inactive subscriber leaves the active flag as it was, "t"
    /// in a record as constructed (`PresenceService` sets it). A password that cannot be decrypted becomes a random
    /// text, another each time, that nothing a client sends compares equal to; a failure line says so.
    DatabaseResult lookupSubscriber(const char* handle, const char* domain, SubscriberRecord& rec);

    /// **By public address key**: `PresenceService::lookupContacts` with the same arguments takes a contact set key.
    ///
    /// Appends the contacts to `contacts`: address, expiry, q-value, capabilities, header, Call-ID, CSeq and type are
    /// filled; permanent flag, keys and path are not. They come in no particular order, expired ones among them.
    /// `ordering` gets the set's text as provisioned; `replaceUri` says whether a contact's address replaces the
    /// request URI.
    ///
    /// Okay also when there are none or no such key: then `ordering` is left as it was. Not found when the subscriber
    /// is inactive, with `ordering` and `replaceUri` set; connection or query error. `replaceUri` becomes true unless
    /// the contact set says otherwise, and is left as it was on a service that was never connected; `contacts` grows
    /// only when okay.
    DatabaseResult lookupContacts(int key, std::string& ordering, bool& replaceUri,
                                  std::vector<ContactRecord>& contacts);
    /// **By address of record**, handle and domain in lower case; otherwise as by key. An unknown address is okay too,
    /// without contacts; a null text is a query error.
    DatabaseResult lookupContacts(const char* handle, const char* domain, std::string& ordering, bool& replaceUri,
                                  std::vector<ContactRecord>& contacts);

    /// Adds all contacts of the vector in one transaction, or none of them (RFC 3261 section 10.3, item 7).
    ///
    /// Stores address, expiry, q-value, capabilities, header, Call-ID, CSeq and the permanent flag; neither type nor
    /// path. The key decides the contact set, the records' `csid` is not read. Okay (also for an empty vector, which
    /// sends nothing), connection error, or query error: also when one of them is already there (with plain statements,
    /// as after an answer that was lost), or the key is unknown.
    DatabaseResult registerContacts(int key, std::vector<ContactRecord>& contacts);
    /// Removes all contacts of the vector in one transaction, or none of them; of a record only the address is read.
    /// Okay (also for an empty vector, which sends nothing, for a contact that is not there and for an unknown key),
    /// connection or query error.
    DatabaseResult unregisterContacts(int key, std::vector<ContactRecord>& contacts);
    /// Refreshes all contacts of the vector in one transaction, or none of them, each found by its address.
    ///
    /// Stores expiry, q-value, capabilities, header, Call-ID and CSeq; permanent flag, type and path stay as they are.
    /// One with the Call-ID of the stored contact and a lower CSeq is older, and changes nothing (RFC 3261
    /// section 10.3). Okay (also then, for an empty vector, which sends nothing, for a contact that is not there and
    /// for an unknown key), connection or query error.
    DatabaseResult updateContacts(int key, std::vector<ContactRecord>& contacts);
    /// Removes the contacts of all addresses that expired before the current second, permanent ones and those without
    /// an expiry excepted. Okay, also when there are none; connection or query error.
    DatabaseResult removeExpiredContacts();

    ///@}
    /// \name The host
    ///@{

    /// This server's node type. Okay, not found (no host settings, or an empty type), connection or query error;
    /// `nodeType` is empty unless okay, and left as it was on a service that was never connected.
    DatabaseResult getNodeType(std::string& nodeType);
    /// **Replaces** `items` by the configuration of one proxy (table `proxy_configuration`). Okay also when there is
    /// none; connection or query error, which leave `items` as it was.
    DatabaseResult getProxyConfig(const char* proxyName, std::vector<ProxyConfig>& items);
    /// Sets `out` to the first SIP domain this server answers for, to empty on every failure, and returns it. The
    /// domains are the value of "oryxproxy", "ServerInfo", "ServerNames" in `system_parameters`; the list is read once
    /// per process.
    std::string& getDomainName(std::string& out);

    ///@}
    /// \name Address maps
    ///@{

    /// Appends the contacts that serve a request URI that belongs to no subscriber: those of the first address map
    /// whose pattern is found in it, their addresses filled from its parts ("$user", "${host}", ...; RFC 3261 section
    /// 19.1.1). A part that the URI lacks is empty, and all are where it is no SIP URI, which a line on the trace
    /// channel "oryx" says; "port" without a port stays as it stands. All contacts of the vector are filled, also those
    /// that it held before. `uri` may be a text of the vector's contacts, or `ordering`'s.
    ///
    /// The maps are read on every call and kept compiled: a map keeps its place while it stays in the table, whatever
    /// becomes of its priority, and its pattern is compiled again only when its modification time is later, in whole
    /// seconds. Okay (an inactive subscriber's contacts too), not found (no map matches, or the matching one has no
    /// contact set), connection or query error (a null `uri` among them). `replaceUri` is true unless the contact set
    /// says otherwise; `ordering` and `contacts` as `lookupContacts` leaves them.
    DatabaseResult lookupAddressMap(const char* uri, std::string& ordering, bool& replaceUri,
                                    std::vector<ContactRecord>& contacts);
    /// Appends the keys of the compiled address maps: handle, hyphen, contact set key. None where memory runs out.
    void getMapKeys(std::vector<std::string>& keys);
    /// The compiled address map with that key, or null. It belongs to the service and lives until a lookup finds its
    /// row gone, it is removed here, or the service ends.
    AddressMap* lookupMapEntry(std::string& key);
    /// Forgets a compiled address map; the next lookup compiles it again and puts it last. An unknown key changes
    /// nothing.
    void removeMapEntry(std::string& key);
    /// Forgets all of them; the next lookup compiles them in the table's order.
    void clearMapEntries();

    ///@}
    /// \name Routing and domain access
    ///@{

    /// Appends the contacts that a request goes to when nothing else is known: those of the parent node, their
    /// addresses as they stand. Okay (an inactive subscriber's too), not found (no host settings), connection or query
    /// error (a parent contact that is no contact set key among them); `ordering`, `replaceUri` and `contacts` as
    /// `lookupContacts` leaves them, and as they were when the host settings cannot be read.
    DatabaseResult getDefaultRoute(std::string& ordering, bool& replaceUri, std::vector<ContactRecord>& contacts);
    /// Whether a request to `uri` may leave this host, and through which proxy (empty: directly).
    ///
    /// An internal request is judged by the host's setting and the outbound rules ("o" and "*") that name the URI's
    /// host byte for byte: allowed by the setting unless a rule denies it ("d"), else only if a rule allows it ("a").
    /// An external one is judged by the host's setting alone. A host that `HostInfo::outboundDirect` names needs no
    /// proxy.
    ///
    /// Okay, not found (no host settings), connection or query error (a null or invalid `uri` among them); `allowed` is
    /// set when okay, `proxy` when allowed too. Rules that cannot be read are a connection or query error, and still
    /// the answer is given as if there were none.
    DatabaseResult getOutboundRoute(const char* uri, bool internal, std::string& proxy, bool& allowed);
    /// Whether a request from that domain is accepted: unless an inbound rule ("i" or "*") names it byte for byte and
    /// denies it ("d"). Okay, connection or query error; `allowed` is set only when okay. A null domain is accepted as
    /// one that no rule names.
    DatabaseResult checkInboundDomainAccess(const char* domain, bool& allowed);

    ///@}

private:
    friend struct LocationAccess;

    /// Runs an operation of a service that was connected.
    template <typename Operation>
    DatabaseResult guarded(Operation operation);
    void traceText(const Transaction& transaction, const char* prefix = "");
    enum class Told { text, textAndOutcome };
    /// Traces a transaction that is complete, and sends it; one that fails is rolled back, so that none stays open on
    /// the connection.
    DatabaseResult commit(Transaction& transaction, Told told = Told::text);

    void traceRules(const std::vector<DomainAccess>& rules);
    bool internalAllowed(const HostInfo& info, std::vector<DomainAccess>& rules, std::string& host);
    bool externalAllowed(const HostInfo& info);
    void chooseProxy(const HostInfo& info, const std::string& host, std::string& proxy);
    bool bypassesProxy(const HostInfo& info, const std::string& host);

    zel::Trace m_trace{"LocationService"};
    SessionOptions m_options = SessionOptions::fromEnvironment();
    std::shared_ptr<Meter> m_meter;
    std::unique_ptr<DatabaseCommandExecutor> m_exec;
    std::unique_ptr<AddressMapCache> m_addrMap;
};

} // namespace oryx
