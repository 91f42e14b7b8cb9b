// Registered contacts: table contact, and the three queries that fetch them with their contact set.

#include <dal/DatabaseCommandExecutor.h>

#include <dal/internal/Call.h>
#include <dal/internal/Frame.h>
#include <dal/location/LocationRows.h>

namespace oryx {

namespace {

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

DatabaseResult fetchContacts(Frame& frame, const Statement& statement, const ContactQuery& query, std::string& ordering,
                             bool& replaceUri, std::vector<ContactRecord>& contacts)
{
    QueryResult result;
    DatabaseResult outcome = frame.runForResult(statement, result);
    return outcome.okay() ? readContacts(result, query, frame.trace, ordering, replaceUri, contacts) : outcome;
}

} // namespace

int DatabaseCommandExecutor::addContact(const char* handle, const char* domain, ContactRecord& rec)
{
    return m_frame->guarded(-1, [&] {
        if (!m_frame->checkConnect()) {
            return -1;
        }
        ValueString arguments;
        arguments.add("handle", handle);
        arguments.add("sip_domain", domain);
        addContactColumns(arguments, rec);
        const Statement statement = call("SELECT add_contact{}", std::move(arguments)).once();
        m_frame->traceText(statement);
        return m_frame->callFunction(statement) ? 0 : -1;
    });
}

int DatabaseCommandExecutor::addContact(ContactRecord& rec)
{
    return m_frame->guarded(-1, [&] {
        if (!m_frame->checkConnect()) {
            return -1;
        }
        ValueString columns;
        columns.add("csid", std::to_string(rec.csid()));
        addContactColumns(columns, rec);
        Statement statement = insertion("INSERT INTO contact{} VALUES{};", std::move(columns)).once();
        m_frame->traceText(statement);
        QueryResult result;
        return m_frame->run(statement, result) == Run::okay ? 0 : -1;
    });
}

int DatabaseCommandExecutor::removeContact(const char* handle, const char* domain, const char* address)
{
    return m_frame->guarded(-1, [&] {
        if (!m_frame->checkConnect()) {
            return 0; // a registrar that lost its database still answers the phone that signs off
        }
        if (!m_frame->require(handle != nullptr && domain != nullptr && address != nullptr, "invalid parameters")) {
            return -1;
        }
        ValueString arguments;
        arguments.add("handle", handle);
        arguments.add("sip_domain", domain);
        arguments.add("address", address);
        const Statement statement = call("SELECT remove_contact{}", std::move(arguments)).once();
        m_frame->traceText(statement);
        QueryResult result;
        return m_frame->run(statement, result) == Run::okay ? 0 : -1;
    });
}

DatabaseResult DatabaseCommandExecutor::lookupContacts(const char* handle, const char* domain, std::string& ordering,
                                                       bool& replaceUri, std::vector<ContactRecord>& contacts)
{
    return m_frame->guarded([&] {
        replaceUri = true;
        if (!m_frame->checkConnect()) {
            return m_frame->connectionError();
        }
        if (!m_frame->require(handle != nullptr && domain != nullptr, "invalid parameters")) {
            return m_frame->queryError();
        }
        Statement statement = sql(
            "SELECT contact_set.ordering,contact_set.replace_uri,subscriber.active, contact.address,contact.qvalue,contact.expires,contact.capabilities,contact.contact_header, contact.call_id,contact.cseq,contact.c_type   FROM public_address, contact_set, contact, subscriber WHERE  (public_address.handle = '{}' AND public_address.sip_domain = '{}' AND public_address.csid = contact_set.csid AND  contact.csid = contact_set.csid AND subscriber.sid = contact_set.sid);",
            handle, domain);
        return fetchContacts(*m_frame, statement, {"replace uri", 2, 3, false}, ordering, replaceUri, contacts);
    });
}

DatabaseResult DatabaseCommandExecutor::lookupContacts(int publicAddressId, std::string& ordering, bool& replaceUri,
                                                       std::vector<ContactRecord>& contacts)
{
    return m_frame->guarded([&] {
        replaceUri = true;
        if (!m_frame->checkConnect()) {
            return m_frame->connectionError();
        }
        Statement statement = sql(
            "SELECT contact_set.ordering, contact_set.replace_uri,subscriber.active, contact.address, contact.qvalue,  contact.expires, contact.capabilities, contact.contact_header,contact.call_id,contact.cseq,contact.c_type  FROM public_address, contact_set, contact, subscriber WHERE (public_address.id = {} AND contact_set.csid = public_address.csid AND  contact.csid = contact_set.csid AND contact_set.sid = subscriber.sid);",
            publicAddressId);
        m_frame->traceText(statement);
        return fetchContacts(*m_frame, statement, {"replace", 2, 3, false}, ordering, replaceUri, contacts);
    });
}

DatabaseResult DatabaseCommandExecutor::lookupContacts(std::string& ordering, int csid, bool& replaceUri,
                                                       std::vector<ContactRecord>& contacts)
{
    const Call call(*m_frame);
    return m_frame->guarded([&] {
        replaceUri = true;
        if (!m_frame->checkConnect()) {
            return m_frame->connectionError();
        }
        if (csid < 1) {
            DatabaseResult result;
            result.setQueryError();
            result.setErrorMessage("NULL csid");
            return result;
        }
        if (!m_frame->checkConnect()) {
            return m_frame->connectionError();
        }
        Statement statement = sql(
            "SELECT contact_set.ordering, contact_set.replace_uri, contact.address, contact.qvalue,  contact.expires, contact.capabilities, contact.contact_header,contact.call_id,contact.cseq,contact.c_type  FROM contact_set, contact WHERE (contact_set.csid = '{}' AND contact.csid = contact_set.csid);",
            csid);
        m_frame->traceText(statement);
        return fetchContacts(*m_frame, statement, {"replaceUri", -1, 2, false}, ordering, replaceUri, contacts);
    });
}

} // namespace oryx
