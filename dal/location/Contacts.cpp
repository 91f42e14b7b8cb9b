// Registered contacts: table contact, and the three queries that fetch them with their contact set.

#include <dal/DatabaseCommandExecutor.h>

#include <dal/internal/Row.h>
#include <dal/internal/Sql.h>

namespace oryx {

/// Where one of the contact queries has its columns, and what its trace calls the replace-URI flag.
struct DatabaseCommandExecutor::ContactQuery {
    const char* replaceUriName;
    int activeColumn; // of the subscriber; -1 when the query does not join it
    int firstContactColumn;
};

namespace {

/// Reads a contact from address, q-value, expiry, capabilities, header, Call-ID, CSeq and type, in this order.
ContactRecord readContact(const Row& row, int first)
{
    ContactRecord contact;
    contact.setAddress(row.text(first));
    contact.setQvalue(row.text(first + 1));
    contact.setExpires(row.number(first + 2, contact.expires()));
    contact.setCapabilities(row.text(first + 3));
    contact.setContactHeader(row.text(first + 4));
    contact.setCallId(row.text(first + 5));
    contact.setCseq(row.number(first + 6, contact.cseq()));
    contact.setType(row.text(first + 7));
    return contact;
}

/// What a registration stores of a contact, from its address on.
void addContactColumns(ValueString& columns, const ContactRecord& rec)
{
    columns.add("address", rec.address().c_str());
    columns.addExplicit("expires", rec.expires());
    columns.add("permanent", rec.permanent());
    columns.add("qvalue", rec.qvalue().c_str());
    columns.add("capabilities", rec.capabilities().c_str());
    columns.add("contact_header", rec.contactHeader().c_str());
    columns.add("call_id", rec.callId().c_str());
    columns.addExplicit("cseq", rec.cseq());
}

} // namespace

int DatabaseCommandExecutor::addContact(const char* handle, const char* domain, ContactRecord& rec)
{
    if (!checkConnect()) {
        return -1;
    }
    ValueString arguments;
    arguments.add("handle", handle);
    arguments.add("sip_domain", domain);
    addContactColumns(arguments, rec);
    const std::string statement = sql("SELECT add_contact{}", arguments.values());
    m_trace.prn(statement);
    return callFunction(statement) ? 0 : -1;
}

int DatabaseCommandExecutor::addContact(ContactRecord& rec)
{
    if (!checkConnect()) {
        return -1;
    }
    ValueString columns;
    columns.add("csid", std::to_string(rec.csid()));
    addContactColumns(columns, rec);
    const std::string statement = sql("INSERT INTO contact{} VALUES{};", columns.names(), columns.values());
    m_trace.prn(statement);
    QueryResult result;
    return run(statement, result) == Run::okay ? 0 : -1;
}

int DatabaseCommandExecutor::removeContact(const char* handle, const char* domain, const char* address)
{
    if (!checkConnect()) {
        return 0; // a registrar that lost its database still answers the phone that signs off
    }
    if (!require(handle != nullptr && domain != nullptr && address != nullptr, "invalid parameters")) {
        return -1;
    }
    ValueString arguments;
    arguments.add("handle", handle);
    arguments.add("sip_domain", domain);
    arguments.add("address", address);
    const std::string statement = sql("SELECT remove_contact{}", arguments.values());
    m_trace.prn(statement);
    QueryResult result;
    return run(statement, result) == Run::okay ? 0 : -1;
}

DatabaseResult DatabaseCommandExecutor::lookupContacts(const char* handle, const char* domain, std::string& ordering,
                                                       bool& replaceUri, std::vector<ContactRecord>& contacts)
{
    replaceUri = true;
    if (!checkConnect()) {
        return connectionError();
    }
    if (!require(handle != nullptr && domain != nullptr, "invalid parameters")) {
        return queryError();
    }
    const std::string statement = sql(
        "SELECT contact_set.ordering,contact_set.replace_uri,subscriber.active, contact.address,contact.qvalue,contact.expires,contact.capabilities,contact.contact_header, contact.call_id,contact.cseq,contact.c_type   FROM public_address, contact_set, contact, subscriber WHERE  (public_address.handle = '{}' AND public_address.sip_domain = '{}' AND public_address.csid = contact_set.csid AND  contact.csid = contact_set.csid AND subscriber.sid = contact_set.sid);",
        handle, domain);
    return fetchContacts(statement, {"replace uri", 2, 3}, ordering, replaceUri, contacts);
}

DatabaseResult DatabaseCommandExecutor::lookupContacts(int publicAddressId, std::string& ordering, bool& replaceUri,
                                                       std::vector<ContactRecord>& contacts)
{
    replaceUri = true;
    if (!checkConnect()) {
        return connectionError();
    }
    const std::string statement = sql(
        "SELECT contact_set.ordering, contact_set.replace_uri,subscriber.active, contact.address, contact.qvalue,  contact.expires, contact.capabilities, contact.contact_header,contact.call_id,contact.cseq,contact.c_type  FROM public_address, contact_set, contact, subscriber WHERE (public_address.id = {} AND contact_set.csid = public_address.csid AND  contact.csid = contact_set.csid AND contact_set.sid = subscriber.sid);",
        publicAddressId);
    m_trace.prn(statement);
    return fetchContacts(statement, {"replace", 2, 3}, ordering, replaceUri, contacts);
}

DatabaseResult DatabaseCommandExecutor::lookupContacts(std::string& ordering, int csid, bool& replaceUri,
                                                       std::vector<ContactRecord>& contacts)
{
    replaceUri = true;
    if (!checkConnect()) {
        return connectionError();
    }
    if (csid < 1) {
        DatabaseResult result;
        result.setQueryError();
        result.setErrorMessage("NULL csid");
        return result;
    }
    if (!checkConnect()) {
        return connectionError();
    }
    const std::string statement = sql(
        "SELECT contact_set.ordering, contact_set.replace_uri, contact.address, contact.qvalue,  contact.expires, contact.capabilities, contact.contact_header,contact.call_id,contact.cseq,contact.c_type  FROM contact_set, contact WHERE (contact_set.csid = '{}' AND contact.csid = contact_set.csid);",
        csid);
    m_trace.prn(statement);
    return fetchContacts(statement, {"replaceUri", -1, 2}, ordering, replaceUri, contacts);
}

DatabaseResult DatabaseCommandExecutor::fetchContacts(const std::string& statement, const ContactQuery& query,
                                                      std::string& ordering, bool& replaceUri,
                                                      std::vector<ContactRecord>& contacts)
{
    QueryResult result;
    DatabaseResult outcome = runForResult(statement, result);
    if (!outcome.okay()) {
        return outcome;
    }
    const int rows = result.rows();
    m_trace.prn("retrieved %d rows", rows);
    if (rows == 0) {
        return outcome;
    }
    if (!readContactSet(result, query, ordering, replaceUri)) {
        outcome.setNotFound();
        return outcome;
    }
    if (contacts.empty()) {
        contacts.reserve(static_cast<std::size_t>(rows));
    }
    for (int i = 0; i < rows; ++i) {
        contacts.push_back(readContact(Row(result, i), query.firstContactColumn));
    }
    return outcome;
}

bool DatabaseCommandExecutor::readContactSet(const QueryResult& result, const ContactQuery& query,
                                             std::string& ordering, bool& replaceUri)
{
    const Row row(result, 0);
    const char* const orderingText = row.text(0);
    ordering = orderingText != nullptr ? orderingText : "";
    m_trace.prn("ordering is '%s'", ordering.c_str());
    replaceUri = row.flag(1, true);
    m_trace.prn("%s is %s", query.replaceUriName, replaceUri ? "true" : "false");
    const char* const active = query.activeColumn >= 0 ? row.text(query.activeColumn) : nullptr;
    if (active == nullptr) {
        return true;
    }
    m_trace.prn("active status = %s", active);
    return *active != 'f';
}

} // namespace oryx
