#pragma once

#include <dal/CommandExecutor.h>
#include <dal/PresenceDal.h>

#include <initializer_list>
#include <string>
#include <vector>

namespace oryx {

/// The event server's statements.
///
/// Values go into the statements as they are, unescaped: a quote in one breaks the statement at best. Every operation
/// answers a connection error when there is no usable connection, and a query error, sending nothing, when an argument
/// that it needs is missing; what else it answers stands beside it. The message is then `getErrorMessage()`; not found
/// carries none. Listings append to the caller's vector, and nothing unless they are okay. NULL columns leave the
/// fields of a record that the caller passes in as they were, and are empty or 0 in records made here. A null text
/// counts as an empty one where nothing is said of it. An executor is used by one thread at a time.
class ORYX_EXPORT PresenceDatabaseCommandExecutor : public CommandExecutor {
public:
    /// Without a connection: every operation answers a connection error until `connect`.
    PresenceDatabaseCommandExecutor();

    /// The reason of the last failure.
    const std::string& getErrorMessage() const { return m_errorMsg; }

    /// Runs any one statement. Okay when it selected or touched a row, not found when it did neither; query error for
    /// an empty text or a failed statement, connection error without a usable connection. `qres` holds the result, if
    /// there is one.
    DatabaseResult executeSqlCmd(const std::string& cmd, QueryResult& qres);

    std::string getSystemParameterValue(const std::string& application, const std::string& scope,
                                        const std::string& name) override;
    /// Reads the list afresh on every call.
    std::string& getNthElementOfDomainList(std::string& domainName, unsigned int index) override;

    // Subscription dialogs (presence/Dialogs.cpp)

    /// Reads a dialog; the identifier is needed. Okay, not found (`out` untouched), or query error when the statement
    /// fails.
    DatabaseResult getWatcher(const char* subscriptionId, PresenceRecord& out);
    /// Stores a dialog; Call-ID and route set may be empty, all other texts are needed. Okay, constraint error when
    /// there is one with that identifier, connection error when the statement fails otherwise.
    DatabaseResult addWatcher(const PresenceRecord& record);
    /// Removes a dialog. Okay, also when there is none; connection error when the statement fails.
    DatabaseResult deleteWatcher(const char* subscriptionId);
    /// Stores the remote contact and CSeq of a dialog's last SUBSCRIBE; identifier and contact are needed. Okay, also
    /// when there is no such dialog; connection error when the statement fails.
    DatabaseResult updateWatcherContact(const char* subscriptionId, const char* contact, int subcseq);
    /// Stores the remote contact and CSeq of a dialog's last NOTIFY; the identifier is needed, and a null contact
    /// leaves the stored one as it is. Okay, also when there is no such dialog; connection error when the statement
    /// fails.
    DatabaseResult updatePresentityContact(const char* subscriptionId, const char* contact, int notcseq);
    /// Appends as many copies of the first dialog that has a watcher row as there are such dialogs, with watcher
    /// identity, expiry time and document type. Okay, not found when there are none, query error when the statement
    /// fails.
    DatabaseResult getIncomingMatchingSubscriptions(std::vector<PresenceRecord>& records);
    /// Appends as many copies of the first incoming dialog as there are incoming dialogs. Okay, not found when there
    /// are none, query error when the statement fails.
    DatabaseResult getIncomingSubscriptions(std::vector<PresenceRecord>& records);
    /// Appends the incoming dialogs whose package holds `package`. Okay, not found when there are none, query error
    /// when the statement fails.
    DatabaseResult getIncomingSubscriptions(std::vector<PresenceRecord>& records, const char* package);
    /// Appends the incoming dialogs whose From header, request URI and package hold the texts (the package's followed
    /// by "#"). Okay, not found when there are none, query error when the statement fails.
    DatabaseResult getIncomingSubscriptions(std::vector<PresenceRecord>& records, const char* from,
                                            const char* requestUri, const char* package);
    /// Appends as many copies of the first outgoing dialog whose To header and package hold the texts (the package's
    /// followed by "#") as there are such dialogs. Okay, not found when there are none, query error when the statement
    /// fails.
    DatabaseResult getOutgoingSubscribes(std::vector<PresenceRecord>& records, const char* to, const char* package);

    // Watchers of a presentity (presence/Watchers.cpp)

    /// Appends the watchers that have a dialog, with its remote contact and without their event. Okay, also when there
    /// are none; query error when the statement fails.
    DatabaseResult getWatcherState(const char* presentityKey, std::vector<WatchersRecord>& records);
    /// Whether there is that watcher: okay or not found; query error when the statement fails.
    DatabaseResult getWatcherState(const char* presentityKey, const char* watcherOpaque);
    /// Stores a watcher, without its remote contact; both keys are needed. Okay, or connection error when the statement
    /// fails, also when the watcher is already there.
    DatabaseResult addWatcherState(const WatchersRecord& record);
    /// Sets a watcher's state; both keys are needed. Okay, also when there is no such watcher; connection error when
    /// the statement fails.
    DatabaseResult updateWatcherState(const char* presentityKey, const char* watcherOpaque, int state);
    /// Sets when a watcher expires, in seconds since the epoch; both keys are needed. Okay, also when there is no such
    /// watcher; connection error when the statement fails.
    DatabaseResult updateWatcherExpiry(const char* presentityKey, const char* watcherOpaque, int expiry);
    /// Sets the version of the last document sent to a watcher; both keys are needed. Okay, also when there is no such
    /// watcher; connection error when the statement fails.
    DatabaseResult updateWatcherDocVersion(const char* presentityKey, const char* watcherOpaque, unsigned long version);
    /// Removes a watcher. Okay, also when there is none; connection error when the statement fails.
    DatabaseResult deleteWatcherState(const char* presentityKey, const char* watcherOpaque);
    /// Appends the watchers whose presentity key holds `second`, "#" and `first`, without event and remote contact;
    /// their key becomes the presentity. Okay, not found when there are none, query error when the statement fails.
    DatabaseResult getWatchers(std::vector<WatchersRecord>& records, const char* first, const char* second);

    // Event sources and watcher information (presence/Sources.cpp)

    /// Appends the sources of an event package, which is needed, without their presentity. Okay, also when there are
    /// none; query error when the statement fails.
    DatabaseResult getAllEventSources(const char* event, std::vector<SourcesRecord>& records);
    /// Appends the sources of a presentity. Okay, also when there are none; query error when the statement fails.
    DatabaseResult getSourceOpaque(const char* presentityKey, std::vector<SourcesRecord>& records);
    /// Appends the sources whose presentity and event hold the texts, without their presentity. Okay, not found when
    /// there are none, query error when the statement fails.
    DatabaseResult getSources(std::vector<SourcesRecord>& records, const char* presentity, const char* event);
    /// Stores a source; both keys are needed. Okay, or connection error when the statement fails, also when the source
    /// is already there.
    DatabaseResult addSourceOpaque(SourcesRecord record);
    /// Sets when a source expires, in seconds since the epoch: every row of it, whatever its presentity; yet neither
    /// key may be null. Okay, also when there is no such source; connection error when the statement fails.
    DatabaseResult updateSourceExpiry(const char* presentityKey, const char* sourceOpaque, int expiry);
    /// Removes every row of a source, whatever its presentity: that key is not read. Okay, also when there is none;
    /// connection error when the statement fails.
    DatabaseResult deleteSourceOpaque(const char* presentityKey, const char* sourceOpaque);
    /// Appends the watcher-information subscriptions under a key, which is needed. Okay, not found when there are none,
    /// query error when the statement fails.
    DatabaseResult getWinfoForPresentity(const char* winfoKey, std::vector<WatcherInfoRecord>& records);
    /// Stores a watcher-information subscription; all its texts are needed. Okay, or connection error when the
    /// statement fails, also when the subscription is already there.
    DatabaseResult addWinfoForPresentity(WatcherInfoRecord record);
    /// Stores scheme, first document version and expiry time of the subscription with the record's subscribe key; both
    /// texts are needed. Okay, also when there is no such subscription; connection error when the statement fails.
    DatabaseResult updateWinfoForPresentity(WatcherInfoRecord record);
    /// Removes a watcher-information subscription. Okay, also when there is none; connection error when the statement
    /// fails.
    DatabaseResult deleteWinfoForPresentity(const char* subscriberKey);

    // Access control and presence lists (presence/Authorization.cpp)

    /// Appends the active rules for the address, else for the handle alone, else the default policy: the rules for the
    /// system's nodes. Okay, not found when there are none of these or the default policy cannot be read, query error
    /// when another statement fails.
    DatabaseResult getAccessControlList(const char* handle, const char* domain, const char* application,
                                        std::vector<AccessControlEntry>& entries);
    /// Appends the active rules for a handle, else the default policy, and answers as the form with a domain does.
    DatabaseResult getAccessControlList(const char* handle, const char* application,
                                        std::vector<AccessControlEntry>& entries);
    /// Reads a list's key into `id`, which must not be null. Okay, not found (`id` untouched), or query error when the
    /// statement fails.
    DatabaseResult getListId(const char* listName, int* id);
    /// Appends the URIs of a list's members. Okay, also when there are none or no such list; query error when the
    /// statement fails.
    DatabaseResult getListEntries(int listId, std::vector<std::string>& uris);
    /// Okay: every watcher may read every list.
    DatabaseResult isWatcherAllowedToAccessList(int watcher, int listId);
    /// Whether a watcher may subscribe to a list: okay when a rule allows the address, its domain, its handle in any
    /// domain, or everybody; not found otherwise; query error when the statement fails.
    DatabaseResult isWatcherAllowedToSubscribeToList(int listId, const char* handle, const char* domain);
    /// Stores a list's subscription, which expires at `expiry` (seconds since the epoch); both identifiers are needed.
    /// Okay, or connection error when the statement fails, also when the subscription is already there.
    DatabaseResult createListMapping(const char* listFsmId, const char* subscriptionId, long expiry);
    /// Removes a list's subscription. Okay, also when there is none; connection error when the statement fails.
    DatabaseResult removeListMapping(const char* listFsmId, const char* subscriptionId);
    /// Appends a list's subscriptions. Okay, not found when there are none, query error when the statement fails.
    DatabaseResult getAllMappingsForList(const char* listFsmId, std::vector<ListSubscriptionRecord>& records);
    /// Gives a list's subscription another identifier and expiry time; list and old identifier are needed. Okay, also
    /// when there is no such subscription; connection error when the statement fails.
    DatabaseResult updateStateForListMapping(const char* listFsmId, const char* oldSubscriptionId,
                                             const char* newSubscriptionId, long expiry);

    // Conference extensions (presence/Conference.cpp). An extension given must not be empty.

    static const std::string STR_CONF_IN_USE;  ///< "IN USE".
    static const std::string STR_CONF_IDLE;    ///< "IDLE".
    static const std::string STR_CONF_INVALID; ///< "INVALID".
    /// The text of a state: 0 idle, 1 in use, 2 and all others invalid.
    static const std::string& confStateEnumToString(unsigned int state);
    /// The state of a text in either case; an empty one is idle, an unknown one invalid.
    static unsigned int confStateStringToEnum(const std::string& text);

    /// Reads an extension's status and when it was set. Okay, or not found with `status` empty and `start_time` 0,
    /// which here stands for every failure too but an empty extension (query error, both untouched).
    DatabaseResult getConfExtState(const std::string& extension, std::string& status, unsigned int& start_time);
    /// Sets an extension's status and when it was set; a time beyond 2147483647 is stored as a negative number, and
    /// read back as it was. Okay, not found when there is no such extension, query error when it is empty or the
    /// statement fails.
    DatabaseResult setConfExtState(const std::string& extension, const std::string& status, unsigned int start_time);
    /// Stores an extension with its state. Okay, or query error when the extension is empty or the statement fails,
    /// also when the extension is already there.
    DatabaseResult addConfExtState(const ConfExtRecord& record);
    /// Removes an extension's state. Okay, not found when there is none, query error when the extension is empty or the
    /// statement fails.
    DatabaseResult deleteConfExtState(const std::string& extension);
    /// Replaces `out` by the extensions whose status matches the regular expression in either case (or does not, if
    /// negated); an empty one matches every extension. Okay, not found when there are none, query error when the
    /// statement fails; `out` is left as it was unless okay.
    DatabaseResult getAllConfExtRecord(std::vector<ConfExtRecord>& out, const std::string& pattern, bool negate);
    /// Replaces `out` by the extension, status and start time that a query selects, the start time 0 where it selects
    /// none. Answers as `executeSqlCmd` does; `out` is left as it was unless there are rows.
    DatabaseResult selectMultipleConfExtRecords(const std::string& sqlText, std::vector<ConfExtRecord>& out);
    /// Replaces `out` by the extensions that are provisioned for conferences. Okay, not found when there are none,
    /// query error when the statement fails; `out` is left as it was unless okay.
    DatabaseResult getAllValidConfExts(std::vector<ConfExtRecord>& out);
    /// Replaces `out` by the extensions that no longer are provisioned for conferences and are not in use; their start
    /// time is 0. Okay, not found when there are none, query error when the statement fails; `out` is left as it was
    /// unless okay.
    DatabaseResult getAllObsoleteConfExtNotInUse(std::vector<ConfExtRecord>& out);
    /// Removes the extensions that are neither provisioned for conferences nor in use. Okay, not found when there are
    /// none, query error when the statement fails.
    DatabaseResult deleteAllObsoleteConfExtNotInUse();
    /// Marks an idle extension as in use and gives it; no two callers get the same. One that is no longer provisioned
    /// counts until it is removed. Sent again after a lost answer it marks a second one, and the first stays in use.
    /// Okay, not found when none is idle, query error when the statement fails; `extension` is empty unless okay.
    DatabaseResult reserveRandomlyIdleConfExtAsInUse(std::string& extension);

    // Changes of provisioning, and call managers (presence/Changes.cpp)

    /// Waits as `DatabaseConnection::waitOnListen` does, on this executor's connection. Okay when the callback or a
    /// lost connection ended the wait, connection error when it could not go on.
    DatabaseResult waitForNotify(bool (*callback)(bool, const std::string&));
    /// Appends the logged changes of a table, whose name is needed, since a time stamp, in no particular order; empty
    /// or "0" means all. The highest of their time stamps, as numbers, is the next "since". A key that is NULL reads as
    /// the row's before. Okay, not found when there are none, query error when the statement
    /// fails.
    DatabaseResult getUpdatedPrimaryKeys(const std::string& tableName, const std::string& since,
                                         std::vector<DatabaseUpdate>& updates);
    /// Replaces `records` by the call managers, those that have the non-empty values of its first record if it holds
    /// any (as regular expressions in either case, if asked). Okay also when the statement fails: there are none then.
    /// `records` is left as it was without a usable connection.
    DatabaseResult getCMforBulkSub(std::vector<CMRecord>& records, bool regexMatch);

    // The registrar's data (presence/Location.cpp)

    /// Appends the contacts of a public address key, with permanent flag, keys and path. Okay also when there are none
    /// (`ordering` is then left as it was); not found for an inactive subscriber, with `ordering` and `replaceUri` set;
    /// query error when the statement fails. `replaceUri` becomes true before all else, and stays so unless the contact
    /// set says otherwise; `contacts` grows only when okay.
    DatabaseResult lookupContacts(int publicAddressId, std::string& ordering, bool& replaceUri,
                                  std::vector<ContactRecord>& contacts);
    /// Appends the contacts of a contact set, with permanent flag, keys and path. Okay also when there are none
    /// (`ordering` is then left as it was) and for an inactive subscriber; query error when the statement fails or the
    /// key is below 1 ("NULL csid", in the result only). `replaceUri` becomes true before all else, and stays so unless
    /// the contact set says otherwise; `contacts` grows only when okay.
    DatabaseResult lookupContacts(std::string& ordering, int csid, bool& replaceUri,
                                  std::vector<ContactRecord>& contacts);
    /// Reads an address of record; handle and domain are needed. Okay, not found (`rec` untouched), or query error when
    /// the statement fails.
    DatabaseResult lookupPublicAddress(const char* handle, const char* domain, PublicAddressRecord& rec);
    /// Reads the contact set key of a public address key, which must not be 0. Okay, not found, or query error when the
    /// statement fails; `csid` is set only when okay, and left as it was for a NULL column.
    DatabaseResult getCsid(int publicAddressId, int& csid);
    /// Reads the public address key of an extension, which must not be empty. Okay, not found (also for a text that is
    /// no number), or query error when the statement fails; `paid` is set only when okay, and left as it was for a NULL
    /// column.
    DatabaseResult getPaidFromExtension(const std::string& extension, int& paid);
    /// Reads the contact set key of a contact's key, which must not be 0. Okay, not found (also for a text that is no
    /// number), or query error when the statement fails; `csid` is set only when okay, and left as it was for a NULL
    /// column.
    DatabaseResult getCsidFromContactId(int contactId, int& csid);
    /// Appends the address maps in ascending priority. Okay, also when there are none; query error when the statement
    /// fails.
    DatabaseResult getAddressMaps(std::vector<AddressMapRecord>& maps);
    /// Appends the addresses of record that share the contact set of one, itself among them; handle and domain are
    /// needed. Okay, not found when it is unknown or its subscriber inactive, query error when the statement fails.
    DatabaseResult getAliases(const char* handle, const char* domain, std::vector<PublicAddressRecord>& aliases);
    /// Whether two addresses of record share a contact set; all four texts are needed. Okay, not found unless both are
    /// known and different, query error when the statement fails; `aliases` is false unless okay.
    DatabaseResult areAliases(const char* handle1, const char* domain1, const char* handle2, const char* domain2,
                              bool& aliases);
    /// Appends the proxy's system parameters. Okay, also when there are none; query error when the statement fails.
    DatabaseResult getProxyConfig(std::vector<ProxyConfig>& items);
    /// Appends the subscribers, of one type unless it is null, their passwords as stored. Okay, not found when there
    /// are none, query error when the statement fails.
    DatabaseResult getSubscribers(std::vector<SubscriberRecord>& subscribers, const char* type);
    /// Reads the subscriber whom an address of record belongs to, the password in clear; handle and domain must not be
    /// empty. Okay, not found (`rec` untouched), or query error when the statement fails.
    ///
    /// To authenticate (see `examples/authentication`), hand over a fresh record and refuse an empty password: NULL
    /// leaves the password of a record that was used before, which is another subscriber's, and its active flag; an
    /// empty stored password stays empty. The active flag becomes what is stored (`LocationService` leaves that of an
    /// inactive subscriber as it was). A password that cannot be decrypted becomes a random text, another each time,
    /// that nothing a client sends compares equal to; a failure line says so.
    DatabaseResult lookupSubscriber(const std::string& handle, const std::string& domain, SubscriberRecord& rec);
    /// Appends all addresses of record, or the primary ones. Okay, not found when there are none, query error when the
    /// statement fails.
    DatabaseResult getAllPublicAddresses(std::vector<PublicAddressRecord>& addresses, bool primaryOnly);
    /// Appends the contacts that expired before the current second, and removes them, permanent ones too. Okay, not
    /// found when there are none, query error when the statement that reads them fails, connection error, with nothing
    /// appended, when the removal does.
    DatabaseResult flushExpiredContacts(std::vector<ExtendedContactRecord>& expired);

    // What an earlier run of the event server left behind (presence/Reset.cpp)

    /// Removes every dialog. Okay, also when there is none; connection error when the statement fails, and all are
    /// still there.
    DatabaseResult removeSubscriptionStates();
    /// Removes every watcher, with the outcomes of `removeSubscriptionStates`.
    DatabaseResult removeEventWatchers();
    /// Removes every source, with the outcomes of `removeSubscriptionStates`.
    DatabaseResult removeEventSources();
    /// Removes every subscription of a presence list, with the outcomes of `removeSubscriptionStates`.
    DatabaseResult removeListWatchers();
    /// Removes every watcher-information subscription, with the outcomes of `removeSubscriptionStates`.
    DatabaseResult removeWinfoWatchers();
    /// Removes all five in one transaction, or none of them. Okay, also when there is nothing; connection error when a
    /// statement fails.
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
