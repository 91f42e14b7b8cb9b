// Addresses of record: table public_address, and the stored functions that provision them.

#include <dal/DatabaseCommandExecutor.h>

#include <dal/internal/Frame.h>
#include <dal/location/LocationRows.h>

namespace oryx {

namespace {

/// Calls a stored function that provisions an address of record: 0 done, -1 failed.
int provision(Frame& frame, const Statement& statement)
{
    if (!frame.checkConnect()) {
        return -1;
    }
    frame.traceText(statement);
    return frame.callFunction(statement) ? 0 : -1;
}

} // namespace

int DatabaseCommandExecutor::createPublicAddress(int sid, const char* handle, const char* domain)
{
    return m_frame->guarded(-1, [&] {
        ValueString arguments;
        arguments.add("sid", std::to_string(sid));
        arguments.add("handle", handle);
        arguments.add("sip_domain", domain);
        return provision(*m_frame, call("SELECT create_public_address{}", std::move(arguments)));
    });
}

int DatabaseCommandExecutor::aliasPublicAddress(const char* handle, const char* domain, const char* alias)
{
    return m_frame->guarded(-1, [&] {
        ValueString arguments;
        arguments.add("handle", handle);
        arguments.add("sip_domain", domain);
        arguments.add("alias", alias);
        return provision(*m_frame, call("SELECT create_public_address_alias{}", std::move(arguments)));
    });
}

int DatabaseCommandExecutor::importPublicAddress(int sid, const char* handle, const char* domain, const char* contact)
{
    return m_frame->guarded(-1, [&] {
        ValueString arguments;
        arguments.add("sid", std::to_string(sid));
        arguments.add("handle", handle);
        arguments.add("sip_domain", domain);
        arguments.add("contact", contact);
        return provision(*m_frame, call("SELECT import_public_address{}", std::move(arguments)));
    });
}

int DatabaseCommandExecutor::addPublicAddress(const PublicAddressRecord& rec)
{
    return m_frame->guarded(-1, [&] {
        if (!m_frame->checkConnect() ||
            !m_frame->require(!rec.handle().empty() && !rec.domain().empty() && rec.csid() > 0,
                              "addPublicAddress: missing one or more parameters\n")) {
            return -1;
        }
        ValueString columns;
        columns.add("handle", rec.handle());
        columns.add("sip_domain", rec.domain());
        columns.add("csid", std::to_string(rec.csid()));
        QueryResult result;
        Statement statement = insertion("INSERT INTO public_address{} VALUES{};", std::move(columns));
        return m_frame->run(statement, result) == Run::okay ? 0 : -1;
    });
}

DatabaseResult DatabaseCommandExecutor::lookupPublicAddress(const char* handle, const char* domain,
                                                            PublicAddressRecord& rec)
{
    return m_frame->fill(rec,
                         [&](PublicAddressRecord& found) { return findPublicAddress(*this, handle, domain, found); });
}

DatabaseResult findPublicAddress(DatabaseCommandExecutor& executor, const char* handle, const char* domain,
                                 PublicAddressRecord& rec)
{
    Frame& frame = frameOf(executor);
    if (!frame.checkConnect()) {
        return frame.connectionError();
    }
    if (!frame.require(handle != nullptr && domain != nullptr, "invalid parameters")) {
        return frame.queryError();
    }
    QueryResult result;
    DatabaseResult outcome = frame.runForResult(
        sql("SELECT handle, sip_domain, csid, scope, public_address_id FROM public_address WHERE  handle='{}' AND sip_domain='{}';",
            handle, domain),
        result);
    if (outcome.okay() && result.rows() == 0) {
        outcome.setNotFound();
    }
    if (outcome.okay()) {
        readPublicAddress(Row(result, 0), rec);
    }
    return outcome;
}

} // namespace oryx
