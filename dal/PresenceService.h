#pragma once

#include <dal/AddressMap.h>
#include <dal/DatabaseResult.h>
#include <dal/PresenceDal.h>
#include <dal/SessionOptions.h>
#include <dal/SessionStatistics.h>
#include <util/OryxExport.h>
#include <zel/Trace.h>

#include <memory>
#include <string>
#include <vector>

namespace oryx {

class AddressMapCache;
class Meter;
class PresenceDatabaseCommandExecutor;

/// What a presence and event server holds: dialogs, watchers, sources, lists, conference extensions, the change feed,
/// and the registrar's data that it needs.
///
/// - The operations answer with a result. On a service that was never connected that is a connection error, and nothing
///   else is touched unless said otherwise; otherwise each answers and fills as the operation of the same name in
///   `PresenceDatabaseCommandExecutor`, where this is told. That class has a few operations more, to be called on
///   `getPresenceDatabaseCommandExecutor()`.
/// - Listings append to the caller's vector unless they say "replaces". What has expired (contacts, watchers, sources,
///   watcher information, list subscriptions) is given until it is removed: the caller leaves it out.
/// - A statement that the server refuses costs a reset of the connection and is sent a second time;
///   `DatabaseConnection::execute` has the whole rule.
/// - Texts go into plain statements as they are: what comes from the network must hold no quote (`isCleanText`); in
///   bound ones (`SessionOptions`) a quote is a character.
/// - One service serves one thread at a time; several services may run at once, and a server that waits for
///   notifications holds one for that alone.
/// \ingroup events
class ORYX_EXPORT PresenceService {
public:
    /// Without a connection; touches no database.
    PresenceService();
    /// Ends the connection and forgets the compiled address maps.
    ~PresenceService();
    PresenceService(const PresenceService&) = delete;
    PresenceService& operator=(const PresenceService&) = delete;

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
    /// The executor, which belongs to the service and lives until the next `connect`. On a service that was never
    /// connected it is the one of the process, whose operations all answer with a connection error; as every executor,
    /// it is used by one thread at a time.
    PresenceDatabaseCommandExecutor* getPresenceDatabaseCommandExecutor();

    /// \name Subscription dialogs
    ///@{

    /// \copydoc PresenceDatabaseCommandExecutor::getWatcher
    DatabaseResult getWatcher(const char* subscriptionId, PresenceRecord& out);
    /// \copydoc PresenceDatabaseCommandExecutor::addWatcher
    DatabaseResult addWatcher(PresenceRecord record);
    /// \copydoc PresenceDatabaseCommandExecutor::deleteWatcher
    DatabaseResult deleteWatcher(const char* subscriptionId);
    /// \copydoc PresenceDatabaseCommandExecutor::updateWatcherContact
    DatabaseResult updateWatcherContact(const char* subscriptionId, const char* contact, int subcseq);
    /// \copydoc PresenceDatabaseCommandExecutor::updatePresentityContact
    DatabaseResult updatePresentityContact(const char* subscriptionId, const char* contact, int notcseq);
    /// \copydoc PresenceDatabaseCommandExecutor::getIncomingMatchingSubscriptions
    DatabaseResult getIncomingMatchingSubscriptions(std::vector<PresenceRecord>& records);
    /// \copydoc PresenceDatabaseCommandExecutor::getIncomingSubscriptions(std::vector<PresenceRecord>&, const char*)
    DatabaseResult getIncomingSubscriptions(std::vector<PresenceRecord>& records, const char* package);

    ///@}
    /// \name Watchers of a presentity
    ///@{

    /// \copydoc PresenceDatabaseCommandExecutor::getWatcherState(const char*, std::vector<WatchersRecord>&)
    DatabaseResult getWatcherState(const char* presentityKey, std::vector<WatchersRecord>& records);
    /// \copydoc PresenceDatabaseCommandExecutor::getWatcherState(const char*, const char*)
    DatabaseResult getWatcherState(const char* presentityKey, const char* watcherOpaque);
    /// \copydoc PresenceDatabaseCommandExecutor::addWatcherState
    DatabaseResult addWatcherState(WatchersRecord record);
    /// \copydoc PresenceDatabaseCommandExecutor::updateWatcherState
    DatabaseResult updateWatcherState(const char* presentityKey, const char* watcherOpaque, int state);
    /// \copydoc PresenceDatabaseCommandExecutor::updateWatcherExpiry
    DatabaseResult updateWatcherExpiry(const char* presentityKey, const char* watcherOpaque, int expiry);
    /// \copydoc PresenceDatabaseCommandExecutor::updateWatcherDocVersion
    DatabaseResult updateWatcherDocVersion(const char* presentityKey, const char* watcherOpaque, unsigned long version);
    /// \copydoc PresenceDatabaseCommandExecutor::deleteWatcherState
    DatabaseResult deleteWatcherState(const char* presentityKey, const char* watcherOpaque);

    ///@}
    /// \name Event sources and watcher information
    ///@{

    /// \copydoc PresenceDatabaseCommandExecutor::getAllEventSources
    DatabaseResult getAllEventSources(const char* event, std::vector<SourcesRecord>& records);
    /// \copydoc PresenceDatabaseCommandExecutor::getSourceOpaque
    DatabaseResult getSourceOpaque(const char* presentityKey, std::vector<SourcesRecord>& records);
    /// \copydoc PresenceDatabaseCommandExecutor::addSourceOpaque
    DatabaseResult addSourceOpaque(SourcesRecord record);
    /// \copydoc PresenceDatabaseCommandExecutor::updateSourceExpiry
    DatabaseResult updateSourceExpiry(const char* presentityKey, const char* sourceOpaque, int expiry);
    /// \copydoc PresenceDatabaseCommandExecutor::deleteSourceOpaque
    DatabaseResult deleteSourceOpaque(const char* presentityKey, const char* sourceOpaque);
    /// \copydoc PresenceDatabaseCommandExecutor::getWinfoForPresentity
    DatabaseResult getWinfoForPresentity(const char* winfoKey, std::vector<WatcherInfoRecord>& records);
    /// \copydoc PresenceDatabaseCommandExecutor::addWinfoForPresentity
    DatabaseResult addWinfoForPresentity(WatcherInfoRecord record);
    /// \copydoc PresenceDatabaseCommandExecutor::updateWinfoForPresentity
    DatabaseResult updateWinfoForPresentity(WatcherInfoRecord record);
    /// \copydoc PresenceDatabaseCommandExecutor::deleteWinfoForPresentity
    DatabaseResult deleteWinfoForPresentity(const char* subscriberKey);

    ///@}
    /// \name Access control and presence lists
    ///@{

    /// \copydoc PresenceDatabaseCommandExecutor::getAccessControlList(const char*, const char*, const char*,
    /// std::vector<AccessControlEntry>&)
    DatabaseResult getAccessControlList(const char* handle, const char* domain, const char* application,
                                        std::vector<AccessControlEntry>& entries);
    /// \copydoc PresenceDatabaseCommandExecutor::getListId
    DatabaseResult getListId(const char* listName, int* id);
    /// \copydoc PresenceDatabaseCommandExecutor::getListEntries
    DatabaseResult getListEntries(int listId, std::vector<std::string>& uris);
    /// \copydoc PresenceDatabaseCommandExecutor::isWatcherAllowedToAccessList
    DatabaseResult isWatcherAllowedToAccessList(int watcher, int listId);
    /// \copydoc PresenceDatabaseCommandExecutor::isWatcherAllowedToSubscribeToList
    DatabaseResult isWatcherAllowedToSubscribeToList(int listId, const char* handle, const char* domain);
    /// \copydoc PresenceDatabaseCommandExecutor::createListMapping
    DatabaseResult createListMapping(const char* listFsmId, const char* subscriptionId, long expiry);
    /// \copydoc PresenceDatabaseCommandExecutor::removeListMapping
    DatabaseResult removeListMapping(const char* listFsmId, const char* subscriptionId);
    /// \copydoc PresenceDatabaseCommandExecutor::getAllMappingsForList
    DatabaseResult getAllMappingsForList(const char* listFsmId, std::vector<ListSubscriptionRecord>& records);
    /// \copydoc PresenceDatabaseCommandExecutor::updateStateForListMapping
    DatabaseResult updateStateForListMapping(const char* listFsmId, const char* oldSubscriptionId,
                                             const char* newSubscriptionId, long expiry);

    ///@}
    /// \name Conference extensions
    ///@{

    /// \copydoc PresenceDatabaseCommandExecutor::getConfExtState
    DatabaseResult getConfExtState(const std::string& extension, std::string& status, unsigned int& start_time);
    /// \copydoc PresenceDatabaseCommandExecutor::setConfExtState
    DatabaseResult setConfExtState(const std::string& extension, const std::string& status, unsigned int start_time);
    /// \copydoc PresenceDatabaseCommandExecutor::addConfExtState
    DatabaseResult addConfExtState(const ConfExtRecord& record);
    /// \copydoc PresenceDatabaseCommandExecutor::deleteConfExtState
    DatabaseResult deleteConfExtState(const std::string& extension);
    /// \copydoc PresenceDatabaseCommandExecutor::getAllConfExtRecord
    DatabaseResult getAllConfExtRecord(std::vector<ConfExtRecord>& out, const std::string& pattern, bool negate);
    /// \copydoc PresenceDatabaseCommandExecutor::getAllValidConfExts
    DatabaseResult getAllValidConfExts(std::vector<ConfExtRecord>& out);
    /// \copydoc PresenceDatabaseCommandExecutor::getAllObsoleteConfExtNotInUse
    DatabaseResult getAllObsoleteConfExtNotInUse(std::vector<ConfExtRecord>& out);
    /// \copydoc PresenceDatabaseCommandExecutor::deleteAllObsoleteConfExtNotInUse
    DatabaseResult deleteAllObsoleteConfExtNotInUse();
    /// \copydoc PresenceDatabaseCommandExecutor::reserveRandomlyIdleConfExtAsInUse
    DatabaseResult reserveRandomlyIdleConfExtAsInUse(std::string& extension);

    ///@}
    /// \name Changes of provisioning, and call managers
    ///@{

    /// \copydoc PresenceDatabaseCommandExecutor::waitForNotify
    DatabaseResult waitForNotify(bool (*callback)(bool, const std::string&));
    /// \copydoc PresenceDatabaseCommandExecutor::getUpdatedPrimaryKeys
    DatabaseResult getUpdatedPrimaryKeys(const std::string& tableName, const std::string& since,
                                         std::vector<DatabaseUpdate>& updates);
    /// \copydoc PresenceDatabaseCommandExecutor::getCMforBulkSub
    DatabaseResult getCMforBulkSub(std::vector<CMRecord>& records, bool regexMatch);

    ///@}
    /// \name The registrar's data
    ///@{

    /// **By contact set key**, `csid`: `LocationService::lookupContacts` with the same arguments takes a public address
    /// key.
    ///
    /// \copydetails PresenceDatabaseCommandExecutor::lookupContacts(std::string&,int,bool&,std::vector<ContactRecord>&)
    DatabaseResult lookupContacts(int csid, std::string& ordering, bool& replaceUri,
                                  std::vector<ContactRecord>& contacts);
    /// \copydoc PresenceDatabaseCommandExecutor::flushExpiredContacts
    DatabaseResult flushExpiredContacts(std::vector<ExtendedContactRecord>& expired);
    /// The keys of an address of record and of its contact set, whatever the case it is written in: the table holds
    /// lower case. Okay, not found, connection or query error; `key` is -1 and `csid` left as it was unless okay. On a
    /// service that was never connected both are left as they were.
    DatabaseResult getPublicAddressKey(const char* handle, const char* domain, int& key, int& csid);
    /// The contact set key of a public address key (`userId`, whatever the name says), which must not be 0. Okay, not
    /// found, connection or query error; `csid` is -1 unless okay, and where the column is NULL; left as it was on a
    /// service that was never connected.
    DatabaseResult getCsid(int userId, int& csid);
    /// The contact set key of a contact's key, which must not be 0. Okay, not found, connection or query error; `csid`
    /// as above.
    DatabaseResult getCsidFromContactId(int contact_id, int& csid);
    /// The public address key of an extension, which must not be empty. Okay, not found, connection or query error;
    /// `paid` as above.
    DatabaseResult getPaidFromExtension(const std::string& extension, int& paid);
    /// \copydoc PresenceDatabaseCommandExecutor::getAliases
    DatabaseResult getAliases(const char* handle, const char* domain, std::vector<PublicAddressRecord>& aliases);
    /// \copydoc PresenceDatabaseCommandExecutor::areAliases
    DatabaseResult areAliases(const char* handle1, const char* domain1, const char* handle2, const char* domain2,
                              bool& aliases);
    /// \copydoc PresenceDatabaseCommandExecutor::getProxyConfig
    DatabaseResult getProxyConfig(std::vector<ProxyConfig>& items);
    /// \copydoc PresenceDatabaseCommandExecutor::lookupSubscriber
    /// In short, to authenticate: a fresh record, no empty password, and only an active flag of "t".
    DatabaseResult lookupSubscriber(const std::string& handle, const std::string& domain, SubscriberRecord& rec);
    /// \copydoc PresenceDatabaseCommandExecutor::getAllPublicAddresses
    DatabaseResult getAllPublicAddresses(std::vector<PublicAddressRecord>& addresses, bool primaryOnly);
    /// Sets `out` to the first SIP domain this server answers for, to empty on every failure, and returns it. The
    /// domains are the value of "oryxproxy", "ServerInfo", "ServerNames" in `system_parameters`; the list is read
    /// on every call.
    std::string& getDomainName(std::string& out);

    ///@}
    /// \name Address maps
    ///@{

    /// As `LocationService::lookupAddressMap`, the contacts filled as `lookupContacts` here fills them.
    ///
    /// \copydetails LocationService::lookupAddressMap
    DatabaseResult lookupAddressMap(const char* uri, std::string& ordering, bool& replaceUri,
                                    std::vector<ContactRecord>& contacts);
    /// \copydoc LocationService::getMapKeys
    void getMapKeys(std::vector<std::string>& keys);
    /// \copydoc LocationService::lookupMapEntry
    AddressMap* lookupMapEntry(std::string& key);
    /// \copydoc LocationService::removeMapEntry
    void removeMapEntry(std::string& key);
    /// \copydoc LocationService::clearMapEntries
    void clearMapEntries();

    ///@}

private:
    friend struct PresenceAccess;

    /// Runs an operation of a service that was connected; traces `refusal`, if there is one, for another.
    template <typename Operation>
    DatabaseResult guarded(Operation operation, const char* refusal = nullptr);
    /// Looks a key up, -1 unless it is found, and traces how that went.
    template <typename Operation, typename Found>
    DatabaseResult lookedUp(int& key, Operation operation, Found traceFound);

    std::unique_ptr<PresenceDatabaseCommandExecutor> m_exec;
    zel::Trace m_trace{"PresenceService"};
    SessionOptions m_options = SessionOptions::fromEnvironment();
    std::shared_ptr<Meter> m_meter;
    std::unique_ptr<AddressMapCache> m_addrMap;
};

} // namespace oryx
