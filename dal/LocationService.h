#pragma once

#include <dal/Dal.h>
#include <dal/DatabaseResult.h>
#include <util/Export.h>
#include <zel/Trace.h>

#include <memory>
#include <string>
#include <vector>

namespace oryx {

class DatabaseCommandExecutor;

/// What a registrar or proxy holds: addresses of record, their contacts, and the host's settings.
///
/// The operations answer with a result; on a service that was never connected that is a connection error. `key` is
/// the public address key from `getPublicAddressKey`. Texts go into the statements as they are: what comes from the
/// network must hold no quote. One service serves one thread at a time; several services may run at once.
class ORYX_EXPORT LocationService {
public:
    LocationService();
    ~LocationService();
    LocationService(const LocationService&) = delete;
    LocationService& operator=(const LocationService&) = delete;

    /// Connects to the database at `uri` ("scheme://host/database", or a bare database name), replacing the connection
    /// held so far. Neither the database nor the user may be empty, nor hold a blank. Okay, or a connection error with
    /// the server's reason.
    DatabaseResult connect(const char* uri, const char* user, const char* password);
    /// Sets `result` to a connection error on a service that was never connected; leaves it as it is otherwise.
    void checkConnect(DatabaseResult& result);

    /// The key of an address of record. Okay, not found, connection or query error; `key` is -1 unless okay, and left
    /// as it was on a service that was never connected.
    DatabaseResult getPublicAddressKey(const char* handle, const char* domain, int& key);
    /// The subscriber whom an address of record belongs to, with the password in clear. Okay, not found, or connection
    /// error, which here stands for every failure; `rec` is changed only when okay.
    DatabaseResult lookupSubscriber(const char* handle, const char* domain, SubscriberRecord& rec);

    /// Appends the contacts of an address of record to `contacts`.
    ///
    /// Okay also when there are none, or when the address of record is unknown: then `ordering` is left as it was. Not
    /// found when the subscriber is inactive, with `ordering` and `replaceUri` set; connection or query error.
    /// `replaceUri` becomes true unless the contact set says otherwise, and is left as it was on a service that was
    /// never connected; `contacts` grows only when okay.
    DatabaseResult lookupContacts(int key, std::string& ordering, bool& replaceUri,
                                  std::vector<ContactRecord>& contacts);
    DatabaseResult lookupContacts(const char* handle, const char* domain, std::string& ordering, bool& replaceUri,
                                  std::vector<ContactRecord>& contacts);

    /// Adds, removes or refreshes all contacts of the vector in one transaction, or none of them (RFC 3261 section
    /// 10.3, item 7). Okay (also for an empty vector, which sends nothing), connection or query error. A refresh leaves
    /// the permanent flag and the type as they are. Removing or refreshing a contact that is not there is okay.
    DatabaseResult registerContacts(int key, std::vector<ContactRecord>& contacts);
    DatabaseResult unregisterContacts(int key, std::vector<ContactRecord>& contacts);
    DatabaseResult updateContacts(int key, std::vector<ContactRecord>& contacts);
    /// Removes the contacts that expired before the current second, permanent ones excepted. Okay, connection or query
    /// error.
    DatabaseResult removeExpiredContacts();

    /// This server's node type. Okay, not found (no host settings, or an empty type), connection or query error;
    /// `nodeType` is empty unless okay, and left as it was on a service that was never connected.
    DatabaseResult getNodeType(std::string& nodeType);
    /// Replaces `items` by the configuration of one proxy. Okay also when there is none; connection or query error,
    /// which leave `items` as it was.
    DatabaseResult getProxyConfig(const char* proxyName, std::vector<ProxyConfig>& items);
    /// Sets `out` to the first SIP domain this server answers for, to empty on every failure, and returns it.
    std::string& getDomainName(std::string& out);

private:
    /// Runs an operation of a service that was connected.
    template <typename Operation>
    DatabaseResult guarded(Operation operation);
    /// Rolls a failed transaction back, so that none stays open on the connection; its result passes through.
    DatabaseResult concluded(const DatabaseResult& result);

    std::unique_ptr<DatabaseCommandExecutor> m_exec;
    zel::Trace m_trace{"LocationService"};
};

} // namespace oryx
