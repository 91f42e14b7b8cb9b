#pragma once

#include <dal/AddressMap.h>
#include <dal/DatabaseResult.h>
#include <dal/PresenceDal.h>
#include <util/Export.h>
#include <zel/Trace.h>

#include <memory>
#include <string>
#include <vector>

namespace oryx {

class AddressMapCache;
class PresenceDatabaseCommandExecutor;

/// What a presence and event server holds: dialogs, watchers, sources, lists, conference extensions, the change feed,
/// and the registrar's data that it needs.
///
/// The operations answer with a result. On a service that was never connected that is a connection error, and nothing
/// else is touched; otherwise each answers and fills as the operation of the same name in
/// `PresenceDatabaseCommandExecutor`, where this is told. Texts go into the statements as they are: what comes from the
/// network must hold no quote. One service serves one thread at a time; several services may run at once, and a server
/// that waits for notifications holds one for that alone.
class ORYX_EXPORT PresenceService {
public:
    PresenceService();
    ~PresenceService();
    PresenceService(const PresenceService&) = delete;
    PresenceService& operator=(const PresenceService&) = delete;

    /// Connects to the database at `uri` ("scheme://host/database", or a bare database name), replacing the connection
    /// held so far. Neither the database nor the user may be empty, nor hold a blank. Okay, or a connection error with
    /// the server's reason.
    DatabaseResult connect(const char* uri, const char* user, const char* password);
    /// Sets `result` to a connection error on a service that was never connected; leaves it as it is otherwise.
    void checkConnect(DatabaseResult& result);
    /// The executor, which belongs to the service and lives until the next `connect`. On a service that was never
    /// connected it is the process's own, whose operations all answer with a connection error.
    PresenceDatabaseCommandExecutor* getPresenceDatabaseCommandExecutor();

    // Subscription dialogs

    DatabaseResult getWatcher(const char* subscriptionId, PresenceRecord& out);
    DatabaseResult addWatcher(PresenceRecord record);
    DatabaseResult deleteWatcher(const char* subscriptionId);
    DatabaseResult updateWatcherContact(const char* subscriptionId, const char* contact, int subcseq);
    DatabaseResult updatePresentityContact(const char* subscriptionId, const char* contact, int notcseq);
    DatabaseResult getIncomingMatchingSubscriptions(std::vector<PresenceRecord>& records);
    DatabaseResult getIncomingSubscriptions(std::vector<PresenceRecord>& records, const char* package);

    // Watchers of a presentity

    DatabaseResult getWatcherState(const char* presentityKey, std::vector<WatchersRecord>& records);
    DatabaseResult getWatcherState(const char* presentityKey, const char* watcherOpaque);
    DatabaseResult addWatcherState(WatchersRecord record);
    DatabaseResult updateWatcherState(const char* presentityKey, const char* watcherOpaque, int state);
    DatabaseResult updateWatcherExpiry(const char* presentityKey, const char* watcherOpaque, int expiry);
    DatabaseResult updateWatcherDocVersion(const char* presentityKey, const char* watcherOpaque, unsigned long version);
    DatabaseResult deleteWatcherState(const char* presentityKey, const char* watcherOpaque);

    // Event sources and watcher information

    DatabaseResult getAllEventSources(const char* event, std::vector<SourcesRecord>& records);
    DatabaseResult getSourceOpaque(const char* presentityKey, std::vector<SourcesRecord>& records);
    DatabaseResult addSourceOpaque(SourcesRecord record);
    DatabaseResult updateSourceExpiry(const char* presentityKey, const char* sourceOpaque, int expiry);
    DatabaseResult deleteSourceOpaque(const char* presentityKey, const char* sourceOpaque);
    DatabaseResult getWinfoForPresentity(const char* winfoKey, std::vector<WatcherInfoRecord>& records);
    DatabaseResult addWinfoForPresentity(WatcherInfoRecord record);
    DatabaseResult updateWinfoForPresentity(WatcherInfoRecord record);
    DatabaseResult deleteWinfoForPresentity(const char* subscriberKey);

    // Access control and presence lists

    DatabaseResult getAccessControlList(const char* handle, const char* domain, const char* application,
                                        std::vector<AccessControlEntry>& entries);
    DatabaseResult getListId(const char* listName, int* id);
    DatabaseResult getListEntries(int listId, std::vector<std::string>& uris);
    DatabaseResult isWatcherAllowedToAccessList(int watcher, int listId);
    DatabaseResult isWatcherAllowedToSubscribeToList(int listId, const char* handle, const char* domain);
    DatabaseResult createListMapping(const char* listFsmId, const char* subscriptionId, long expiry);
    DatabaseResult removeListMapping(const char* listFsmId, const char* subscriptionId);
    DatabaseResult getAllMappingsForList(const char* listFsmId, std::vector<ListSubscriptionRecord>& records);
    DatabaseResult updateStateForListMapping(const char* listFsmId, const char* oldSubscriptionId,
                                             const char* newSubscriptionId, long expiry);

    // Conference extensions

    DatabaseResult getConfExtState(const std::string& extension, std::string& status, unsigned int& start_time);
    DatabaseResult setConfExtState(const std::string& extension, const std::string& status, unsigned int start_time);
    DatabaseResult addConfExtState(const ConfExtRecord& record);
    DatabaseResult deleteConfExtState(const std::string& extension);
    DatabaseResult getAllConfExtRecord(std::vector<ConfExtRecord>& out, const std::string& pattern, bool negate);
    DatabaseResult getAllValidConfExts(std::vector<ConfExtRecord>& out);
    DatabaseResult getAllObsoleteConfExtNotInUse(std::vector<ConfExtRecord>& out);
    DatabaseResult deleteAllObsoleteConfExtNotInUse();
    DatabaseResult reserveRandomlyIdleConfExtAsInUse(std::string& extension);

    // Changes of provisioning, and call managers

    DatabaseResult waitForNotify(bool (*callback)(bool, const std::string&));
    DatabaseResult getUpdatedPrimaryKeys(const std::string& tableName, const std::string& since,
                                         std::vector<DatabaseUpdate>& updates);
    DatabaseResult getCMforBulkSub(std::vector<CMRecord>& records, bool regexMatch);

    // The registrar's data

    /// By contact set key.
    DatabaseResult lookupContacts(int csid, std::string& ordering, bool& replaceUri,
                                  std::vector<ContactRecord>& contacts);
    DatabaseResult flushExpiredContacts(std::vector<ExtendedContactRecord>& expired);
    /// The keys of an address of record and of its contact set, whatever the case it is written in: the table holds
    /// lower case. `key` is -1 and `csid` left as it was unless okay.
    DatabaseResult getPublicAddressKey(const char* handle, const char* domain, int& key, int& csid);
    /// The key of a contact set; -1 unless okay.
    DatabaseResult getCsid(int userId, int& csid);
    DatabaseResult getCsidFromContactId(int contact_id, int& csid);
    /// The public address key of an extension; -1 unless okay.
    DatabaseResult getPaidFromExtension(const std::string& extension, int& paid);
    DatabaseResult getAliases(const char* handle, const char* domain, std::vector<PublicAddressRecord>& aliases);
    DatabaseResult areAliases(const char* handle1, const char* domain1, const char* handle2, const char* domain2,
                              bool& aliases);
    DatabaseResult getProxyConfig(std::vector<ProxyConfig>& items);
    DatabaseResult lookupSubscriber(const std::string& handle, const std::string& domain, SubscriberRecord& rec);
    DatabaseResult getAllPublicAddresses(std::vector<PublicAddressRecord>& addresses, bool primaryOnly);
    /// Sets `out` to the first SIP domain this server answers for, to empty on every failure, and returns it.
    std::string& getDomainName(std::string& out);

    // Address maps, as in LocationService

    DatabaseResult lookupAddressMap(const char* uri, std::string& ordering, bool& replaceUri,
                                    std::vector<ContactRecord>& contacts);
    void getMapKeys(std::vector<std::string>& keys);
    AddressMap* lookupMapEntry(std::string& key);
    void removeMapEntry(std::string& key);
    void clearMapEntries();

private:
    /// Runs an operation of a service that was connected; traces `refusal`, if there is one, for another.
    template <typename Operation>
    DatabaseResult guarded(Operation operation, const char* refusal = nullptr);
    /// Looks a key up, -1 unless it is found, and traces how that went.
    template <typename Operation, typename Found>
    DatabaseResult lookedUp(int& key, Operation operation, Found traceFound);

    std::unique_ptr<PresenceDatabaseCommandExecutor> m_exec;
    zel::Trace m_trace{"PresenceService"};
    std::unique_ptr<AddressMapCache> m_addrMap;
};

} // namespace oryx
