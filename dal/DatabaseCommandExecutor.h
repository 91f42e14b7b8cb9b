#pragma once

#include <dal/CommandExecutor.h>
#include <dal/Dal.h>

#include <string>
#include <vector>

namespace oryx {

/// The registrar's statements: subscribers, public addresses, contacts, and the tables that configure host and routing.
///
/// - Values go into plain statements as they are, unescaped. A quote in one ends it, and what follows is read as SQL.
///   The statement fails as a query error at best, and does what the value says at worst. In bound statements
///   (`SessionOptions`) a quote is a character.
/// - `getErrorMessage()` holds the reason of a failure unless a result is said to.
/// - A statement that the server refuses costs a reset of the connection and is sent a second time;
///   `DatabaseConnection::execute` has the whole rule.
/// - Lookups append to the caller's vector unless they say "replaces". Expired contacts are found until they are
///   removed: the caller leaves them out. Each record says what is stored of it and what is filled.
///
/// An executor is used by one thread at a time.
/// \ingroup registrar
class ORYX_EXPORT DatabaseCommandExecutor : public CommandExecutor {
public:
    /// Without a connection, until `connect`.
    DatabaseCommandExecutor();

    /// The reason of the last failure.
    std::string& getErrorMessage();

    /// Runs a statement into `qres` without checking the connection first, and answers with `result`.
    ///
    /// With `isTransaction`, a failure is followed by a rollback, whose outcome `qres` then holds; `result` keeps the
    /// first failure. The statement's trace shows "%%" as "%", all else as it stands.
    DatabaseResult& transactionExecute(const std::string& cmd, DatabaseResult& result, QueryResult& qres,
                                       bool isTransaction);

    std::string getSystemParameterValue(const std::string& application, const std::string& scope,
                                        const std::string& name) override;
    /// The list is read once and shared by all location executors of the process until it ends. Threads that ask before
    /// it is there may read it each; a trace sink that asks while its own thread reads it gets an empty name.
    std::string& getNthElementOfDomainList(std::string& domainName, unsigned int index) override;

    /// \name Subscribers and their contact sets
    ///@{

    /// Stores a subscriber, the password as it is given, without its organisation. One with a negative key gets its key
    /// from the database, and is stored twice if the request is sent again after a lost connection; one without a user
    /// id gets the record's key, negative or not, as user id. Rows inserted; 0 when the statement failed, -1 without a
    /// connection.
    int addSubscriber(const SubscriberRecord& rec);
    /// The subscriber whom an address of record belongs to, with the password in clear. 1 found, 0 not found, -1
    /// failed; `rec` is changed only when found, and keeps its fields where a column is NULL.
    ///
    /// To authenticate, hand over a fresh record with its active flag set to 'f', and refuse an empty password: NULL
    /// leaves the password of a record that was used before, which is another subscriber's; an empty stored password
    /// stays empty; an inactive subscriber leaves the active flag as it was, "t" in a record as constructed. A password
    /// that cannot be decrypted becomes a random text, another each time.
    int lookupSubscriber(const char* handle, const char* domain, SubscriberRecord& rec);
    /// Removes a subscriber with contact sets, addresses, contacts and the address maps that lead to them; the key must
    /// not be 0. 1 done, also when there is none; -1 failed.
    int removeSubscriber(int sid);
    /// Stores a password in the form given (`Crypt::encrypt` makes the stored one). Rows updated, 0 when there is no
    /// such subscriber, -1 failed: also for the key 0 or a null password.
    int changeSubscriberPassword(int sid, const char* password);
    /// Stores a contact set under the key that the record has: subscriber, key and ordering, an empty one as NULL.
    /// Okay, connection error, or query error: also when the key is taken or negative, or there is no such subscriber.
    DatabaseResult addContactSet(const ContactSetRecord& rec);

    ///@}
    /// \name Public addresses
    ///@{

    /// Makes a contact set and a primary address of record on it for a subscriber. 0 done, -1 failed, with nothing
    /// made; the new keys are to be looked up.
    int createPublicAddress(int sid, const char* handle, const char* domain);
    /// Makes `alias` at the same domain share the contact set of an address of record. 0 done, -1 failed.
    int aliasPublicAddress(const char* handle, const char* domain, const char* alias);
    /// Stores an address of record, not a primary one, for an existing contact set: handle, domain and a positive csid,
    /// all required; neither scope nor administrative domain. 0 done, -1 failed.
    int addPublicAddress(const PublicAddressRecord& rec);
    /// As `createPublicAddress`, and stores the contact: permanent, without an expiry. 0 done, -1 failed.
    int importPublicAddress(int sid, const char* handle, const char* domain, const char* contact);
    /// Reads an address of record, but for its administrative domain; handle and domain in lower case. Okay, not found,
    /// connection error, or query error (a null text among them). `rec` is changed only when okay, and keeps its fields
    /// where a column is NULL.
    DatabaseResult lookupPublicAddress(const char* handle, const char* domain, PublicAddressRecord& rec);

    ///@}
    /// \name Contacts
    ///@{

    /// Stores or refreshes a contact of an address of record: everything but type, path and the keys, which are not
    /// read. Refreshing stores the permanent flag too. 0 done, -1 failed: also when the address is unknown.
    int addContact(const char* handle, const char* domain, ContactRecord& rec);
    /// Stores a contact in the contact set that the record names: everything but type, path and contact key. 0 done, -1
    /// failed: also when the contact is already there.
    int addContact(ContactRecord& rec);
    /// Removes a contact of an address of record. 0 done, also when there is none, and also without a connection; -1
    /// failed.
    int removeContact(const char* handle, const char* domain, const char* address);

    /// **By address of record**, handle and domain in lower case. Appends the contacts to `contacts`, with the set's
    /// ordering and replace-URI flag; permanent flag, keys and path are not filled.
    ///
    /// Okay also when there are none or no such address (then `ordering` is left as it was); not found when the
    /// subscriber is inactive, with `ordering` and `replaceUri` set; connection or query error (a null text among
    /// them). `replaceUri` is true unless a row says otherwise; `contacts` grows only when okay.
    DatabaseResult lookupContacts(const char* handle, const char* domain, std::string& ordering, bool& replaceUri,
                                  std::vector<ContactRecord>& contacts);
    /// **By public address key** (the form whose first argument is a number); otherwise as by address of record.
    DatabaseResult lookupContacts(int publicAddressId, std::string& ordering, bool& replaceUri,
                                  std::vector<ContactRecord>& contacts);
    /// **By contact set key** (the form whose first argument is `ordering`); otherwise as by address of record, but an
    /// inactive subscriber's contacts are okay too. A key below 1 is a query error, "NULL csid", in the result only.
    DatabaseResult lookupContacts(std::string& ordering, int csid, bool& replaceUri,
                                  std::vector<ContactRecord>& contacts);

    ///@}
    /// \name Host, routing and access tables
    ///@{

    /// The host's own settings. Okay, not found (`info` untouched), connection or query error. NULL columns leave their
    /// field as it was.
    DatabaseResult getHostInfo(HostInfo& info);
    /// Appends the address maps in ascending priority, each with its contact set's ordering and replace-URI flag. Okay
    /// also when there are none; connection or query error.
    DatabaseResult getAddressMaps(std::vector<AddressMapRecord>& maps);
    /// **Replaces** `items` by the configuration of one proxy (table `proxy_configuration`). Okay also when there is
    /// none; connection or query error, which leave `items` as it was.
    DatabaseResult getProxyConfig(const char* proxyName, std::vector<ProxyConfig>& items);
    /// Appends the domain access rules in ascending q-value. Okay also when there are none; connection or query error.
    DatabaseResult getDomainAccessList(std::vector<DomainAccess>& rules);

    ///@}

private:
    /// The domain at `index` of the list that the process shares; false when there is none yet.
    bool takeDomain(unsigned int index, std::string& domainName);
    /// Fills the list that the process shares, unless another thread has filled it meanwhile.
    void readDomains();
};

} // namespace oryx
