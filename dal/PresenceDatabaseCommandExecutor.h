#pragma once

#include <dal/CommandExecutor.h>
#include <dal/PresenceDal.h>

#include <initializer_list>
#include <string>
#include <vector>

namespace oryx {

struct ContactQuery;

/// The event server's statements.
///
/// Values go into the statements as they are, unescaped: a quote in one breaks the statement at best. Every operation
/// answers a connection error when there is no usable connection, and a query error, sending nothing, when an argument
/// that it needs is missing; what else it answers stands beside it. The message is then `getErrorMessage()`; not found
/// carries none. Listings append to the caller's vector. NULL columns leave the fields of a record that the caller
/// passes in as they were, and are empty or 0 in records made here. A null text counts as an empty one where nothing is
/// said of it. An executor is used by one thread at a time.
class ORYX_EXPORT PresenceDatabaseCommandExecutor : public CommandExecutor {
public:
    PresenceDatabaseCommandExecutor();

    const std::string& getErrorMessage() const { return m_errorMsg; }

    /// Runs any one statement. Okay when it selected or touched a row, not found when it did neither; query error for
    /// an empty text or a failed statement, connection error without a usable connection.
    DatabaseResult executeSqlCmd(const std::string& cmd, QueryResult& qres);

    std::string getSystemParameterValue(const std::string& application, const std::string& scope,
                                        const std::string& name) override;
    /// Reads the list afresh on every call.
    std::string& getNthElementOfDomainList(std::string& domainName, unsigned int index) override;

    // Subscription dialogs (presence/Dialogs.cpp)
    // Lookups: query error when the statement fails. Changes: okay also when no row matches, connection error when the
    // statement fails.

    /// Okay, or not found with `out` untouched.
    DatabaseResult getWatcher(const char* subscriptionId, PresenceRecord& out);
    /// Stores a dialog. Constraint error when there is one with that identifier. Call-ID and route set may be empty.
    DatabaseResult addWatcher(const PresenceRecord& record);
    DatabaseResult deleteWatcher(const char* subscriptionId);
    DatabaseResult updateWatcherContact(const char* subscriptionId, const char* contact, int subcseq);
    /// A null contact leaves the stored one as it is.
    DatabaseResult updatePresentityContact(const char* subscriptionId, const char* contact, int notcseq);
    /// Appends as many copies of the first dialog that has a watcher row as there are such dialogs, with watcher
    /// identity, expiry time and document type; not found when there are none.
    DatabaseResult getIncomingMatchingSubscriptions(std::vector<PresenceRecord>& records);
    /// Appends as many copies of the first incoming dialog as there are incoming dialogs; not found when there are
    /// none.
    DatabaseResult getIncomingSubscriptions(std::vector<PresenceRecord>& records);
    /// Appends the incoming dialogs whose package holds `package`; not found when there are none.
    DatabaseResult getIncomingSubscriptions(std::vector<PresenceRecord>& records, const char* package);
    /// Appends the incoming dialogs whose From header, request URI and package hold the texts (the package's followed
    /// by "#"); not found when there are none.
    DatabaseResult getIncomingSubscriptions(std::vector<PresenceRecord>& records, const char* from,
                                            const char* requestUri, const char* package);
    /// Appends as many copies of the first outgoing dialog whose To header and package hold the texts as there are such
    /// dialogs; not found when there are none.
    DatabaseResult getOutgoingSubscribes(std::vector<PresenceRecord>& records, const char* to, const char* package);

    // Watchers of a presentity (presence/Watchers.cpp), with outcomes as above

    /// Appends the watchers that have a dialog, with its remote contact. Okay also when there are none.
    DatabaseResult getWatcherState(const char* presentityKey, std::vector<WatchersRecord>& records);
    /// Whether there is that watcher: okay or not found.
    DatabaseResult getWatcherState(const char* presentityKey, const char* watcherOpaque);
    /// Stores a watcher, without its remote contact. Connection error also when it is already there.
    DatabaseResult addWatcherState(const WatchersRecord& record);
    DatabaseResult updateWatcherState(const char* presentityKey, const char* watcherOpaque, int state);
    DatabaseResult updateWatcherExpiry(const char* presentityKey, const char* watcherOpaque, int expiry);
    DatabaseResult updateWatcherDocVersion(const char* presentityKey, const char* watcherOpaque, unsigned long version);
    DatabaseResult deleteWatcherState(const char* presentityKey, const char* watcherOpaque);
    /// Appends the watchers whose presentity key holds `second`, "#" and `first`; their key becomes the presentity. Not
    /// found when there are none.
    DatabaseResult getWatchers(std::vector<WatchersRecord>& records, const char* first, const char* second);

    // Event sources and watcher information (presence/Sources.cpp), with outcomes as above

    /// Appends the sources of an event package, without their presentity. Okay also when there are none.
    DatabaseResult getAllEventSources(const char* event, std::vector<SourcesRecord>& records);
    /// Appends the sources of a presentity. Okay also when there are none.
    DatabaseResult getSourceOpaque(const char* presentityKey, std::vector<SourcesRecord>& records);
    /// Appends the sources whose presentity and event hold the texts, without their presentity; not found when there
    /// are none.
    DatabaseResult getSources(std::vector<SourcesRecord>& records, const char* presentity, const char* event);
    /// Connection error also when the source is already there.
    DatabaseResult addSourceOpaque(SourcesRecord record);
    /// Every row of that source, whatever its presentity; yet the presentity key must not be null.
    DatabaseResult updateSourceExpiry(const char* presentityKey, const char* sourceOpaque, int expiry);
    /// Every row of that source, whatever its presentity.
    DatabaseResult deleteSourceOpaque(const char* presentityKey, const char* sourceOpaque);
    /// Appends the watcher-information subscriptions under a key; not found when there are none.
    DatabaseResult getWinfoForPresentity(const char* winfoKey, std::vector<WatcherInfoRecord>& records);
    /// Connection error also when the subscription is already there.
    DatabaseResult addWinfoForPresentity(WatcherInfoRecord record);
    DatabaseResult updateWinfoForPresentity(WatcherInfoRecord record);
    DatabaseResult deleteWinfoForPresentity(const char* subscriberKey);

    // Access control and presence lists (presence/Authorization.cpp), with outcomes as above

    /// Appends the active rules for the address, else for the handle alone, else the default policy: the rules for the
    /// system's nodes. Not found when there are none of these.
    DatabaseResult getAccessControlList(const char* handle, const char* domain, const char* application,
                                        std::vector<AccessControlEntry>& entries);
    DatabaseResult getAccessControlList(const char* handle, const char* application,
                                        std::vector<AccessControlEntry>& entries);
    /// Okay, or not found with `id` untouched. `id` must not be null.
    DatabaseResult getListId(const char* listName, int* id);
    /// Appends the URIs of a list's members. Okay also when there are none.
    DatabaseResult getListEntries(int listId, std::vector<std::string>& uris);
    /// Okay: every watcher may read every list.
    DatabaseResult isWatcherAllowedToAccessList(int watcher, int listId);
    /// Okay when allowed, not found when not.
    DatabaseResult isWatcherAllowedToSubscribeToList(int listId, const char* handle, const char* domain);
    /// Stores a list's subscription. Connection error also when it is already there.
    DatabaseResult createListMapping(const char* listFsmId, const char* subscriptionId, long expiry);
    DatabaseResult removeListMapping(const char* listFsmId, const char* subscriptionId);
    /// Appends a list's subscriptions; not found when there are none.
    DatabaseResult getAllMappingsForList(const char* listFsmId, std::vector<ListSubscriptionRecord>& records);
    DatabaseResult updateStateForListMapping(const char* listFsmId, const char* oldSubscriptionId,
                                             const char* newSubscriptionId, long expiry);

    // Conference extensions (presence/Conference.cpp), with outcomes as executeSqlCmd has them

    static const std::string STR_CONF_IN_USE;
    static const std::string STR_CONF_IDLE;
    static const std::string STR_CONF_INVALID;
    /// The text of a state: 0 idle, 1 in use, 2 and all others invalid.
    static const std::string& confStateEnumToString(unsigned int state);
    /// The state of a text in either case; an empty one is idle.
    static unsigned int confStateStringToEnum(const std::string& text);

    /// Okay, or not found with `status` empty and `start_time` 0, which here stands for every failure too but an empty
    /// extension (query error, both untouched).
    DatabaseResult getConfExtState(const std::string& extension, std::string& status, unsigned int& start_time);
    /// A start time beyond 2147483647 is stored as a negative number, and read back as it was.
    DatabaseResult setConfExtState(const std::string& extension, const std::string& status, unsigned int start_time);
    DatabaseResult addConfExtState(const ConfExtRecord& record);
    DatabaseResult deleteConfExtState(const std::string& extension);
    /// Replaces `out` by the extensions whose status matches the regular expression in either case (or does not, if
    /// negated); an empty one matches every extension. Not found, with `out` as it was, when there are none.
    DatabaseResult getAllConfExtRecord(std::vector<ConfExtRecord>& out, const std::string& pattern, bool negate);
    /// Replaces `out` by the extension, status and start time that a query selects; `out` is left as it was unless
    /// there are rows.
    DatabaseResult selectMultipleConfExtRecords(const std::string& sqlText, std::vector<ConfExtRecord>& out);
    /// The extensions that are provisioned for conferences.
    DatabaseResult getAllValidConfExts(std::vector<ConfExtRecord>& out);
    /// Those that no longer are, and are not in use; their start time is 0.
    DatabaseResult getAllObsoleteConfExtNotInUse(std::vector<ConfExtRecord>& out);
    DatabaseResult deleteAllObsoleteConfExtNotInUse();
    /// Marks an idle extension as in use and gives it; not found, with `extension` empty, when none is idle. No two
    /// callers get the same.
    DatabaseResult reserveRandomlyIdleConfExtAsInUse(std::string& extension);

    // Changes of provisioning, and call managers (presence/Changes.cpp)

    /// Waits as `DatabaseConnection::waitOnListen` does, on this executor's connection. Okay when the callback or a
    /// lost connection ended the wait, connection error when it could not go on.
    DatabaseResult waitForNotify(bool (*callback)(bool, const std::string&));
    /// Appends the logged changes of a table since a time stamp; empty or "0" means all. Not found when there are none.
    DatabaseResult getUpdatedPrimaryKeys(const std::string& tableName, const std::string& since,
                                         std::vector<DatabaseUpdate>& updates);
    /// Replaces `records` by the call managers, those that have the non-empty values of its first record if it holds
    /// any (as regular expressions in either case, if asked). Okay also when the statement fails: there are none then.
    DatabaseResult getCMforBulkSub(std::vector<CMRecord>& records, bool regexMatch);

    // The registrar's data (presence/Location.cpp)

    /// As the registrar's lookups, and with permanent flag, keys and path. Okay also when there are none; not found for
    /// an inactive subscriber, by public address key only. `replaceUri` becomes true before all else.
    DatabaseResult lookupContacts(int publicAddressId, std::string& ordering, bool& replaceUri,
                                  std::vector<ContactRecord>& contacts);
    DatabaseResult lookupContacts(std::string& ordering, int csid, bool& replaceUri,
                                  std::vector<ContactRecord>& contacts);
    /// Okay, or not found with `rec` untouched.
    DatabaseResult lookupPublicAddress(const char* handle, const char* domain, PublicAddressRecord& rec);
    /// Okay, or not found with the number untouched; a NULL column is okay and leaves it untouched too. A text that is
    /// no number counts as not found.
    DatabaseResult getCsid(int publicAddressId, int& csid);
    DatabaseResult getPaidFromExtension(const std::string& extension, int& paid);
    DatabaseResult getCsidFromContactId(int contactId, int& csid);
    /// Appends the address maps in ascending priority. Okay also when there are none.
    DatabaseResult getAddressMaps(std::vector<AddressMapRecord>& maps);
    /// Appends the addresses of record that share the contact set of one, itself among them; not found when it is
    /// unknown or its subscriber inactive.
    DatabaseResult getAliases(const char* handle, const char* domain, std::vector<PublicAddressRecord>& aliases);
    /// Whether two addresses of record share a contact set; not found, with `aliases` false, unless both are known and
    /// different.
    DatabaseResult areAliases(const char* handle1, const char* domain1, const char* handle2, const char* domain2,
                              bool& aliases);
    /// Appends the proxy's system parameters. Okay also when there are none.
    DatabaseResult getProxyConfig(std::vector<ProxyConfig>& items);
    /// Appends the subscribers, of one type unless it is null, their passwords as stored; not found when there are
    /// none.
    DatabaseResult getSubscribers(std::vector<SubscriberRecord>& subscribers, const char* type);
    /// The subscriber whom an address of record belongs to, the password in clear. Okay, or not found with `rec`
    /// untouched.
    DatabaseResult lookupSubscriber(const std::string& handle, const std::string& domain, SubscriberRecord& rec);
    /// Appends all addresses of record, or the primary ones; not found when there are none.
    DatabaseResult getAllPublicAddresses(std::vector<PublicAddressRecord>& addresses, bool primaryOnly);
    /// Appends the contacts that expired before the current second, and removes them, permanent ones too; not found
    /// when there are none. Connection error, with nothing appended, when the removal fails.
    DatabaseResult flushExpiredContacts(std::vector<ExtendedContactRecord>& expired);

    // What an earlier run of the event server left behind (presence/Reset.cpp). Okay also when nothing is there;
    // connection error when the statement fails, and the table is then as it was.

    DatabaseResult removeSubscriptionStates();
    DatabaseResult removeEventWatchers();
    DatabaseResult removeEventSources();
    DatabaseResult removeListWatchers();
    DatabaseResult removeWinfoWatchers();
    /// All five, or none of them.
    DatabaseResult removeEventServerState();

private:
    struct Refusal;
    enum class Listing;
    enum class Violation;
    using Refusals = std::initializer_list<Refusal>;

    // What every operation does, written once (presence/Verbs.h).
    bool begin(const char* operation, Refusals refusals, DatabaseResult& outcome);
    bool fetch(const std::string& statement, QueryResult& result, DatabaseResult& outcome);
    void traceRows(const char* format, int rows);
    template <typename Record, typename Statement, typename Append>
    DatabaseResult list(const char* operation, Refusals refusals, Listing kind, std::vector<Record>& records,
                        Statement statement, Append append, const char* rowsTrace = nullptr);
    template <typename Statement, typename Read>
    DatabaseResult find(const char* operation, Refusals refusals, Statement statement, Read read,
                        const char* rowsTrace = nullptr);
    template <typename Statement>
    DatabaseResult update(const char* operation, Refusals refusals, Statement statement);
    template <typename Statement>
    DatabaseResult insertOrDelete(const char* operation, Refusals refusals, Statement statement, Violation violation);
    template <typename Statement>
    DatabaseResult insertOrDelete(const char* operation, Refusals refusals, Statement statement);

    DatabaseResult updated(const std::string& statement);
    DatabaseResult insertedOrDeleted(const std::string& statement, Violation violation);
    DatabaseResult judgeRows(const QueryResult& qres);
    DatabaseResult getDefaultPolicy(const char* application, std::vector<AccessControlEntry>& entries);
    DatabaseResult refuse(const char* why);
    DatabaseResult findNumber(Refusals refusals, const std::string& statement, int& number);
};

} // namespace oryx
