#pragma once

#include <dal/CommandExecutor.h>
#include <dal/PresenceDal.h>

#include <string>
#include <vector>

namespace oryx {

/// The event server's statements.
///
/// - Connection error without a usable connection; query error, nothing sent, when an argument that is needed is
///   missing. What else an operation answers stands beside it. The message is then `getErrorMessage()`; not found
///   carries none.
/// - A statement that the server refuses is a query error of a lookup and of the conference extensions' operations, a
///   connection error of any other change (an update's message is then empty). It costs a reset of the connection and
///   is sent a second time; `DatabaseConnection::execute` has the whole rule.
/// - Listings append to the caller's vector unless they say "replaces", in no particular order, and change nothing
///   unless they are okay. What has expired is listed until it is removed: the caller leaves it out.
/// - NULL columns leave the fields of a record that the caller passes in as they were, and are empty or 0 in records
///   made here. Each record says what is stored of it and what is filled.
/// - Values go into plain statements as they are, unescaped: a quote in one breaks the statement at best; in bound ones
///   (`SessionOptions`) it is a character. A null text counts as an empty one where nothing is said of it.
///
/// An executor is used by one thread at a time.
/// \ingroup events
class ORYX_EXPORT PresenceDatabaseCommandExecutor : public CommandExecutor {
public:
    /// Without a connection: every operation answers a connection error until `connect`.
    PresenceDatabaseCommandExecutor();

    /// The reason of the last failure.
    const std::string& getErrorMessage() const;

    /// Runs any one statement. Okay when it selected or touched a row, not found when it did neither; query error for
    /// an empty text or a failed statement, connection error without a usable connection. `qres` holds the result, if
    /// there is one.
    DatabaseResult executeSqlCmd(const std::string& cmd, QueryResult& qres);

    std::string getSystemParameterValue(const std::string& application, const std::string& scope,
                                        const std::string& name) override;
    /// Reads the list afresh on every call.
    std::string& getNthElementOfDomainList(std::string& domainName, unsigned int index) override;

    /// \name Subscription dialogs
    /// A dialog received holds "incoming#" in its identifier, one sent "outgoing#". A dialog's row has no expiry: that
    /// is its watcher's.
    ///@{

    /// Reads a dialog into `out`; the identifier is needed. Okay, not found (`out` untouched), or query error when the
    /// statement fails.
    DatabaseResult getWatcher(const char* subscriptionId, PresenceRecord& out);
    /// Stores a dialog, but for its watcher's identity, document type and expiry; Call-ID and route set may be empty,
    /// all other texts are needed. Okay, constraint error when there is one with that identifier, connection error when
    /// the statement fails otherwise.
    DatabaseResult addWatcher(const PresenceRecord& record);
    /// Removes a dialog, and not its watcher. Okay, also when there is none; connection error when the statement fails.
    DatabaseResult deleteWatcher(const char* subscriptionId);
    /// Stores remote contact and CSeq of a dialog's last SUBSCRIBE; identifier and contact are needed. A lower CSeq
    /// than the stored one, but for one below 0, changes nothing (RFC 3261 section 12.2.2). Okay, also then and when
    /// there is no such dialog; connection error when the statement fails.
    DatabaseResult updateWatcherContact(const char* subscriptionId, const char* contact, int subcseq);
    /// Stores remote contact and CSeq of a dialog's last NOTIFY; the identifier is needed, and a null contact leaves
    /// the stored one as it is. A lower CSeq than the stored one, but for one below 0, changes nothing. Okay, also then
    /// and when there is no such dialog; connection error when the statement fails.
    DatabaseResult updatePresentityContact(const char* subscriptionId, const char* contact, int notcseq);
    /// Appends **copies of one** dialog that has a watcher row, as many as there are such dialogs, with watcher
    /// identity, expiry time and document type. Okay, not found when there are none, query error when the statement
    /// fails.
    DatabaseResult getIncomingMatchingSubscriptions(std::vector<PresenceRecord>& records);
    /// Appends **copies of one** incoming dialog, as many as there are incoming dialogs; the form with a package gives
    /// each. Okay, not found when there are none, query error when the statement fails.
    DatabaseResult getIncomingSubscriptions(std::vector<PresenceRecord>& records);
    /// Appends the dialogs with "incoming#" in their identifier whose package holds `package`; an empty one finds all
    /// of them. Okay, not found when there are none, query error when the statement fails.
    DatabaseResult getIncomingSubscriptions(std::vector<PresenceRecord>& records, const char* package);
    /// Appends the dialogs with "incoming#" in their identifier whose From header holds `from`, request URI
    /// `requestUri`, and package `package` followed by "#" (give "presence" for "presence#1"). Okay, not found when
    /// there are none, query error when the statement fails.
    DatabaseResult getIncomingSubscriptions(std::vector<PresenceRecord>& records, const char* from,
                                            const char* requestUri, const char* package);
    /// Appends **copies of one** dialog with "outgoing#" in its identifier whose To header holds `to`, and package
    /// `package` followed by "#"; as many as there are such dialogs. Okay, not found when there are none, query error
    /// when the statement fails.
    DatabaseResult getOutgoingSubscribes(std::vector<PresenceRecord>& records, const char* to, const char* package);

    ///@}
    /// \name Watchers of a presentity
    /// Types and states are the caller's own codes. Expired watchers are listed until they are removed.
    ///@{

    /// Appends the watchers with that presentity key whose dialog is stored (`watcheropaque` is its identifier), with
    /// its remote contact and without their event. Okay, also when there are none; query error when the statement
    /// fails.
    DatabaseResult getWatcherState(const char* presentityKey, std::vector<WatchersRecord>& records);
    /// Whether there is that watcher: okay or not found; query error when the statement fails.
    DatabaseResult getWatcherState(const char* presentityKey, const char* watcherOpaque);
    /// Stores a watcher, without its remote contact; both keys are needed. The document version is written whole. Okay,
    /// or connection error when the statement fails, also when the watcher is already there.
    DatabaseResult addWatcherState(const WatchersRecord& record);
    /// Sets a watcher's state; both keys are needed. Okay, also when there is no such watcher; connection error when
    /// the statement fails.
    DatabaseResult updateWatcherState(const char* presentityKey, const char* watcherOpaque, int state);
    /// Sets when a watcher expires, in seconds since the epoch; both keys are needed. Okay, also when there is no such
    /// watcher; connection error when the statement fails.
    DatabaseResult updateWatcherExpiry(const char* presentityKey, const char* watcherOpaque, int expiry);
    /// Sets the version of the last document sent to a watcher; both keys are needed. It is written whole, and reads
    /// back so; the table takes none above 9,223,372,036,854,775,807. Okay, also when there is no such watcher;
    /// connection error when the statement fails.
    DatabaseResult updateWatcherDocVersion(const char* presentityKey, const char* watcherOpaque, unsigned long version);
    /// Removes a watcher, and not its dialog. Okay, also when there is none; connection error when the statement fails.
    DatabaseResult deleteWatcherState(const char* presentityKey, const char* watcherOpaque);
    /// Appends the watchers whose presentity key holds `second`, "#" and `first`, **in this order** ("presence",
    /// "bob@oryx.example" find "bob@oryx.example#presence"); without event and remote contact, their key replaced by
    /// the presentity. Okay, not found when there are none, query error when the statement fails.
    DatabaseResult getWatchers(std::vector<WatchersRecord>& records, const char* first, const char* second);

    ///@}
    /// \name Event sources and watcher information
    /// What has expired is listed until it is removed.
    ///@{

    /// Appends the sources of an event package, which is needed, without their presentity. Okay, also when there are
    /// none; query error when the statement fails.
    DatabaseResult getAllEventSources(const char* event, std::vector<SourcesRecord>& records);
    /// Appends the sources with that presentity key. Okay, also when there are none; query error when the statement
    /// fails.
    DatabaseResult getSourceOpaque(const char* presentityKey, std::vector<SourcesRecord>& records);
    /// Appends the sources whose presentity (not its key) and event hold the texts, without their presentity. Okay, not
    /// found when there are none, query error when the statement fails.
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
    /// Appends the watcher-information subscriptions under a key, which is needed, the expiry time whole. Okay, not
    /// found when there are none, query error when the statement fails.
    DatabaseResult getWinfoForPresentity(const char* winfoKey, std::vector<WatcherInfoRecord>& records);
    /// Stores a watcher-information subscription; all its texts are needed. Okay, or connection error when the
    /// statement fails, also when the subscription is already there.
    DatabaseResult addWinfoForPresentity(WatcherInfoRecord record);
    /// Stores scheme, first document version and expiry time of the subscription with the record's subscribe key, and
    /// not its `winfokey`; both texts are needed. Okay, also when there is no such subscription; connection error when
    /// the statement fails.
    DatabaseResult updateWinfoForPresentity(WatcherInfoRecord record);
    /// Removes a watcher-information subscription. Okay, also when there is none; connection error when the statement
    /// fails.
    DatabaseResult deleteWinfoForPresentity(const char* subscriberKey);

    ///@}
    /// \name Access control and presence lists
    /// Expired list subscriptions are listed until they are removed.
    ///@{

    /// Appends the active rules of one application ("presence") for the object handle, "@", domain, else for the handle
    /// alone, else the default policy: the rules for the system's nodes. Okay, not found when there are none of these
    /// or the default policy cannot be read, query error when another statement fails.
    DatabaseResult getAccessControlList(const char* handle, const char* domain, const char* application,
                                        std::vector<AccessControlEntry>& entries);
    /// Appends the active rules for a handle, else the default policy, and answers as the form with a domain does.
    DatabaseResult getAccessControlList(const char* handle, const char* application,
                                        std::vector<AccessControlEntry>& entries);
    /// Reads the key of the list with that name into `id`, which must not be null. Okay, not found (`id` untouched), or
    /// query error when the statement fails.
    DatabaseResult getListId(const char* listName, int* id);
    /// Appends the URIs of a list's members. Okay, also when there are none or no such list; query error when the
    /// statement fails.
    DatabaseResult getListEntries(int listId, std::vector<std::string>& uris);
    /// Okay: every watcher may read every list. Reads neither argument.
    DatabaseResult isWatcherAllowedToAccessList(int watcher, int listId);
    /// Whether a watcher may subscribe to a list: okay when a rule with the action "A" allows the address, its domain,
    /// its handle in any domain, or everybody ("*" in the rule); not found otherwise; query error when the statement
    /// fails. Any other action allows nobody, and denies nobody whom another rule allows.
    DatabaseResult isWatcherAllowedToSubscribeToList(int listId, const char* handle, const char* domain);
    /// Stores a list's subscription, which expires at `expiry` (seconds since the epoch); both identifiers are needed,
    /// and are the caller's own. Okay, or connection error when the statement fails, also when the subscription is
    /// already there.
    DatabaseResult createListMapping(const char* listFsmId, const char* subscriptionId, long expiry);
    /// Removes a list's subscription. Okay, also when there is none; connection error when the statement fails.
    DatabaseResult removeListMapping(const char* listFsmId, const char* subscriptionId);
    /// Appends a list's subscriptions. Okay, not found when there are none, query error when the statement fails.
    DatabaseResult getAllMappingsForList(const char* listFsmId, std::vector<ListSubscriptionRecord>& records);
    /// Gives a list's subscription another identifier and expiry time; list and old identifier are needed, a null new
    /// one is stored as empty. Okay, also when there is no such subscription; connection error when the statement
    /// fails.
    DatabaseResult updateStateForListMapping(const char* listFsmId, const char* oldSubscriptionId,
                                             const char* newSubscriptionId, long expiry);

    ///@}
    /// \name Conference extensions
    /// An extension given must not be empty. A status is stored as given, and only the three texts below in their
    /// capitals count elsewhere: a reservation takes "IDLE", the obsolete are all but "IN USE".
    ///@{

    static const std::string STR_CONF_IN_USE;  ///< "IN USE".
    static const std::string STR_CONF_IDLE;    ///< "IDLE".
    static const std::string STR_CONF_INVALID; ///< "INVALID".
    /// The text of a state: 0 idle, 1 in use, 2 and all others invalid.
    static const std::string& confStateEnumToString(unsigned int state);
    /// The state of a text in either case; an empty one is idle, an unknown one invalid.
    static unsigned int confStateStringToEnum(const std::string& text);

    /// Reads an extension's status and when it was set. Okay, or not found with `status` empty and `start_time` 0,
    /// which here stands for every failure too, with its message, but for an empty extension (query error, both
    /// untouched).
    DatabaseResult getConfExtState(const std::string& extension, std::string& status, unsigned int& start_time);
    /// Sets an extension's status and when it was set; every time reads back as it was written. An extension that is
    /// "IN USE" since a later time than this, 0 excepted, keeps its state unless it is to be "IN USE" again: who
    /// releases it holds it no longer. Okay, not found then and when there is no such extension, query error when it is
    /// empty or the statement fails.
    DatabaseResult setConfExtState(const std::string& extension, const std::string& status, unsigned int start_time);
    /// Stores an extension with its state, the start time whole. Okay, or query error when the extension is empty or
    /// the statement fails, also when the extension is already there.
    DatabaseResult addConfExtState(const ConfExtRecord& record);
    /// Removes an extension's state. Okay, not found when there is none, query error when the extension is empty or the
    /// statement fails.
    DatabaseResult deleteConfExtState(const std::string& extension);
    /// **Replaces** `out` by the extensions whose status matches the regular expression in either case (or does not, if
    /// negated); an empty one matches every extension. Okay, not found when there are none, query error when the
    /// statement fails; `out` is left as it was unless okay.
    DatabaseResult getAllConfExtRecord(std::vector<ConfExtRecord>& out, const std::string& pattern, bool negate);
    /// **Replaces** `out` by the extension, status and start time that a query selects, the start time 0 where it
    /// selects none. Answers as `executeSqlCmd` does; `out` is left as it was unless there are rows.
    DatabaseResult selectMultipleConfExtRecords(const std::string& sqlText, std::vector<ConfExtRecord>& out);
    /// **Replaces** `out` by the extensions that are provisioned for conferences (`ext_type` "c"); one without a state
    /// is INVALID since 0. Okay, not found when there are none, query error when the statement fails; `out` is left as
    /// it was unless okay.
    DatabaseResult getAllValidConfExts(std::vector<ConfExtRecord>& out);
    /// **Replaces** `out` by the extensions that no longer are provisioned for conferences and are not "IN USE"; their
    /// start time is 0. Okay, not found when there are none, query error when the statement fails; `out` is left as it
    /// was unless okay.
    DatabaseResult getAllObsoleteConfExtNotInUse(std::vector<ConfExtRecord>& out);
    /// Removes the states of extensions that are neither provisioned for conferences nor "IN USE". Okay, not found when
    /// there are none, query error when the statement fails.
    DatabaseResult deleteAllObsoleteConfExtNotInUse();
    /// Marks an "IDLE" extension as "IN USE" since now and gives it; no two callers get the same. One that is no longer
    /// provisioned counts until it is removed. Sent again after a lost answer it gives the same with bound statements;
    /// with plain ones it marks a second one, and the first stays in use. Okay, not found when none is idle, query
    /// error when the statement fails; `extension` is empty unless okay.
    DatabaseResult reserveRandomlyIdleConfExtAsInUse(std::string& extension);

    ///@}
    /// \name Changes of provisioning, and call managers
    ///@{

    /// Waits as `DatabaseConnection::waitOnListen` does, on this executor's connection; the callback must not be null.
    /// Okay when the callback or a lost connection ended the wait, connection error when it could not go on.
    DatabaseResult waitForNotify(bool (*callback)(bool, const std::string&));
    /// Appends the logged changes of a table, whose name is needed, since a time stamp, in no particular order; empty
    /// or "0" means all, anything else must be a number. The highest of their time stamps, as numbers, is the next
    /// "since". The key is a number for `public_address`, `subscriber`, `contact_set` and `conf_state_reset`, a text
    /// for `acp`, `extension`, `conf_state` and `sip_event_aggregator`; other tables are not logged. A key that is NULL
    /// reads as the row's before. Okay, not found when there are none, query error when the statement fails.
    DatabaseResult getUpdatedPrimaryKeys(const std::string& tableName, const std::string& since,
                                         std::vector<DatabaseUpdate>& updates);
    /// **Replaces** `records` by the call managers, those that have the non-empty values of its first record if it
    /// holds any (as regular expressions in either case, if asked). Its port is compared with the column `sip_port`,
    /// and `SetLinkType("tls")` brings a port along; "^tls" does not. Okay also when the statement fails: there are
    /// none then. `records` is left as it was without a usable connection.
    DatabaseResult getCMforBulkSub(std::vector<CMRecord>& records, bool regexMatch);

    ///@}
    /// \name The registrar's data
    /// Expired contacts are given until they are removed: the caller leaves them out.
    ///@{

    /// **By public address key** (the form whose first argument is a number). Appends the contacts, with permanent
    /// flag, keys, type and path. Okay also when there are none or no such key (`ordering` is then left as it was); not
    /// found for an inactive subscriber, with `ordering` and `replaceUri` set; query error when the statement fails.
    /// `replaceUri` becomes true before all else, and stays so unless the contact set says otherwise; `contacts` grows
    /// only when okay.
    DatabaseResult lookupContacts(int publicAddressId, std::string& ordering, bool& replaceUri,
                                  std::vector<ContactRecord>& contacts);
    /// **By contact set key**, `csid` (here the form whose first argument is `ordering`). Appends the contacts, with
    /// permanent flag, keys, type and path. Okay also when there are none or no such key (`ordering` is then left as it
    /// was) and for an inactive subscriber; query error when the statement fails or the key is below 1 ("NULL csid", in
    /// the result only). `replaceUri` becomes true before all else, and stays so unless the contact set says otherwise;
    /// `contacts` grows only when okay.
    DatabaseResult lookupContacts(std::string& ordering, int csid, bool& replaceUri,
                                  std::vector<ContactRecord>& contacts);
    /// Reads an address of record, but for its administrative domain; handle and domain are needed, in lower case.
    /// Okay, not found (`rec` untouched), or query error when the statement fails.
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
    /// Appends the addresses of record that share the contact set of one, itself among them, but for their
    /// administrative domains; handle and domain are needed. Okay, not found when it is unknown or its subscriber not
    /// active, query error when the statement fails.
    DatabaseResult getAliases(const char* handle, const char* domain, std::vector<PublicAddressRecord>& aliases);
    /// Whether two addresses of record share a contact set; all four texts are needed. Okay, not found unless both are
    /// known and different, query error when the statement fails; `aliases` is false unless okay.
    DatabaseResult areAliases(const char* handle1, const char* domain1, const char* handle2, const char* domain2,
                              bool& aliases);
    /// **Appends** the system parameters of application "oryxproxy", unlike the registrar's, which reads one proxy's
    /// table and replaces. Okay, also when there are none; query error when the statement fails.
    DatabaseResult getProxyConfig(std::vector<ProxyConfig>& items);
    /// Appends the subscribers, of one type unless it is null, their passwords as stored, without their organisation.
    /// Okay, not found when there are none, query error when the statement fails.
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
    /// Appends the contacts that expired before the current second, and removes them, permanent ones too unless they
    /// have no expiry. A contact comes once for every address of record on its set; one whose set has none may be
    /// removed without being given. Okay, not found when there are none, query error when the statement that reads them
    /// fails, connection error, with nothing appended, when the removal does.
    DatabaseResult flushExpiredContacts(std::vector<ExtendedContactRecord>& expired);

    ///@}
    /// \name What an earlier run of the event server left behind
    ///@{

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

    ///@}
};

} // namespace oryx
