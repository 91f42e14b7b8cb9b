#pragma once

#include <dal/Dal.h>
#include <dal/QueryResult.h>
#include <dal/internal/Row.h>
#include <dal/internal/Statement.h>
#include <zel/Trace.h>

#include <string>
#include <vector>

/// \file
/// Statements and rows of the registrar's tables that both executors read.

namespace oryx {

class DatabaseCommandExecutor;
class PresenceDatabaseCommandExecutor;

/// Where a query of contacts with their contact set has its columns, and what its trace calls the replace-URI flag.
/// Columns 0 and 1 are the set's ordering and that flag.
struct ContactQuery {
    const char* replaceUriName;
    int activeColumn; // of the subscriber; -1 when the query does not join it
    int firstContactColumn;
    bool whole; // the permanent flag, both keys and the path follow the contact's other columns
};

/// Appends the contacts of a successful query. Okay also when there are none (nothing is changed then); not found when
/// the subscriber is inactive, with `ordering` and `replaceUri` set.
DatabaseResult readContacts(const QueryResult& result, const ContactQuery& query, zel::Trace& trace,
                            std::string& ordering, bool& replaceUri, std::vector<ContactRecord>& contacts);

///@{
/// That executor's `lookupPublicAddress`, inside an operation that looks up for itself: a record that is not filled
/// whole when memory runs out is nobody's.
DatabaseResult findPublicAddress(DatabaseCommandExecutor& executor, const char* handle, const char* domain,
                                 PublicAddressRecord& rec);
DatabaseResult findPublicAddress(PresenceDatabaseCommandExecutor& executor, const char* handle, const char* domain,
                                 PublicAddressRecord& rec);
///@}

/// Fills a record from a row of an address of record: handle, sip_domain, csid, scope, public_address_id.
void readPublicAddress(const Row& row, PublicAddressRecord& rec);

/// Every address map with its contact set, in the order of priority.
Statement addressMapQuery();
///@{
/// Runs it, up to the trace of how many there are, as that executor's `getAddressMaps` does.
DatabaseResult fetchAddressMaps(DatabaseCommandExecutor& executor, QueryResult& result);
DatabaseResult fetchAddressMaps(PresenceDatabaseCommandExecutor& executor, QueryResult& result);
///@}
void traceAddressMaps(const QueryResult& result, zel::Trace& trace);
/// One of its rows.
AddressMapRecord readAddressMap(const Row& row);
/// Appends all of them.
void readAddressMaps(const QueryResult& result, std::vector<AddressMapRecord>& maps);

/// The subscriber whom an address of record belongs to: sid, auth_user_id, oid, s_type, auth_type, s_password, active.
Statement subscriberQuery(const char* handle, const char* domain);
/// Fills a record from such a row, the password decrypted, or unguessable if it cannot be. The active flag is only
/// traced: the executors judge it differently. False, the record untouched, if the system gives no random numbers for
/// that.
[[nodiscard]] bool readSubscriber(const Row& row, zel::Trace& trace, SubscriberRecord& rec);
/// The error text then.
constexpr const char* kNoRandomNumbers = "the stored password cannot be read, and there are no random numbers";

} // namespace oryx
