#pragma once

#include <dal/CommandExecutor.h>
#include <dal/Dal.h>

#include <mutex>

namespace oryx {

struct ContactQuery;

/// The registrar's statements: subscribers, public addresses, contacts, and the tables that configure host and routing.
///
/// Values go into the statements as they are, unescaped. A quote in one ends it, and what follows is read as SQL: at
/// best the statement fails as a query error, at worst it does what the value says. `getErrorMessage()` holds the
/// reason of a failure unless a result is said to. An executor is used by one thread at a time.
class ORYX_EXPORT DatabaseCommandExecutor : public CommandExecutor {
public:
    /// Without a connection, until `connect`.
    DatabaseCommandExecutor();

    /// The reason of the last failure.
    std::string& getErrorMessage() { return m_errorMsg; }

    /// Runs a statement into `qres` without checking the connection first, and answers with `result`.
    ///
    /// With `isTransaction`, a failure is followed by a rollback, whose outcome `qres` then holds; `result` keeps the
    /// first failure. The statement is traced as a printf format, so it must hold no "%".
    DatabaseResult& transactionExecute(const std::string& cmd, DatabaseResult& result, QueryResult& qres,
                                       bool isTransaction);

    std::string getSystemParameterValue(const std::string& application, const std::string& scope,
                                        const std::string& name) override;
    /// The list is read once and shared by all location executors of the process until it ends. While one reads it the
    /// others wait.
    std::string& getNthElementOfDomainList(std::string& domainName, unsigned int index) override;

    // Subscribers and their contact sets (location/Subscribers.cpp)

    /// Stores a subscriber. One with a negative key gets its key from the database, and is stored twice if the request
    /// is sent again after a lost connection; one without a user id gets the record's key, negative or not, as user id.
    /// Rows inserted; 0 when the statement failed, -1 without a connection.
    int addSubscriber(const SubscriberRecord& rec);
    /// The subscriber whom an address of record belongs to, with the password in clear. 1 found, 0 not found, -1
    /// failed; `rec` is changed only when found, and keeps its fields where a column is NULL.
    ///
    /// To authenticate, hand over a fresh record with its active flag set to 'f', and refuse an empty password: NULL
    /// leaves the password of a record that was used before, which is another subscriber's; an empty stored password
    /// stays empty; an inactive subscriber leaves the active flag as it was, "t" in a record as constructed. A password
    /// that cannot be decrypted becomes a random text, another each time.
    int lookupSubscriber(const char* handle, const char* domain, SubscriberRecord& rec);
    /// Removes a subscriber with contact sets, addresses and contacts. 1 done, -1 failed.
    int removeSubscriber(int sid);
    /// Stores a password in the form given. Rows updated, -1 failed.
    int changeSubscriberPassword(int sid, const char* password);
    /// Okay, connection error, or query error.
    DatabaseResult addContactSet(const ContactSetRecord& rec);

    // Public addresses (location/PublicAddresses.cpp)

    /// Makes a contact set and an address of record for a subscriber. 0 done, -1 failed.
    int createPublicAddress(int sid, const char* handle, const char* domain);
    /// Makes `alias` at the same domain share the contact set of an address of record. 0 done, -1 failed.
    int aliasPublicAddress(const char* handle, const char* domain, const char* alias);
    /// Stores an address of record for an existing contact set; handle, domain and a positive csid are required.
    /// 0 done, -1 failed.
    int addPublicAddress(const PublicAddressRecord& rec);
    /// As `createPublicAddress`, and stores the contact. 0 done, -1 failed.
    int importPublicAddress(int sid, const char* handle, const char* domain, const char* contact);
    /// Okay, not found, connection error, or query error. `rec` is changed only when okay, and keeps its fields where a
    /// column is NULL.
    DatabaseResult lookupPublicAddress(const char* handle, const char* domain, PublicAddressRecord& rec);

    // Contacts (location/Contacts.cpp)

    /// Stores or refreshes a contact of an address of record. 0 done, -1 failed.
    int addContact(const char* handle, const char* domain, ContactRecord& rec);
    /// Stores a contact in the contact set that the record names. 0 done, -1 failed.
    int addContact(ContactRecord& rec);
    /// Removes a contact of an address of record. 0 done, and also 0 without a connection; -1 failed.
    int removeContact(const char* handle, const char* domain, const char* address);

    ///@{
    /// The contacts of an address of record, of a public address key, or of a contact set: appended to `contacts`, with
    /// the set's ordering and replace-URI flag.
    ///
    /// Okay also when there are none (then `ordering` is left as it was); not found when the subscriber is inactive
    /// (the contact set form does not look), with `ordering` and `replaceUri` set; connection or query error (a contact
    /// set key below 1: "NULL csid", in the result only). `replaceUri` is true unless a row says otherwise; `contacts`
    /// grows only when okay.
    DatabaseResult lookupContacts(const char* handle, const char* domain, std::string& ordering, bool& replaceUri,
                                  std::vector<ContactRecord>& contacts);
    DatabaseResult lookupContacts(int publicAddressId, std::string& ordering, bool& replaceUri,
                                  std::vector<ContactRecord>& contacts);
    DatabaseResult lookupContacts(std::string& ordering, int csid, bool& replaceUri,
                                  std::vector<ContactRecord>& contacts);
    ///@}

    // Host, routing and access tables (location/HostAndRouting.cpp)

    /// The host's own settings. Okay, not found (`info` untouched), connection or query error. NULL columns leave their
    /// field as it was.
    DatabaseResult getHostInfo(HostInfo& info);
    /// Appends the address maps in ascending priority. Okay also when there are none; connection or query error.
    DatabaseResult getAddressMaps(std::vector<AddressMapRecord>& maps);
    /// Replaces `items` by the configuration of one proxy. Okay also when there is none; connection or query error,
    /// which leave `items` as it was.
    DatabaseResult getProxyConfig(const char* proxyName, std::vector<ProxyConfig>& items);
    /// Appends the domain access rules in ascending q-value. Okay also when there are none; connection or query error.
    DatabaseResult getDomainAccessList(std::vector<DomainAccess>& rules);

private:
    /// Runs a call of a stored function, and a rollback after one that failed.
    bool callFunction(const std::string& statement);
    /// The same for the provisioning of addresses of record, with the connection checked first. 0 done, -1 failed.
    int callPublicAddressFunction(const std::string& statement);
    DatabaseResult fetchContacts(const std::string& statement, const ContactQuery& query, std::string& ordering,
                                 bool& replaceUri, std::vector<ContactRecord>& contacts);

    static std::mutex m_domainListMutex;
    static std::vector<std::string> m_domainList;
};

} // namespace oryx
