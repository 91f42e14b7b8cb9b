// Addresses of record: table public_address, and the stored functions that provision them.

#include <dal/DatabaseCommandExecutor.h>

#include <dal/internal/Row.h>
#include <dal/internal/Sql.h>

namespace oryx {

int DatabaseCommandExecutor::callPublicAddressFunction(const std::string& statement)
{
    if (!checkConnect()) {
        return -1;
    }
    m_trace.prn(statement);
    return callFunction(statement) ? 0 : -1;
}

int DatabaseCommandExecutor::createPublicAddress(int sid, const char* handle, const char* domain)
{
    ValueString arguments;
    arguments.add("sid", std::to_string(sid));
    arguments.add("handle", handle);
    arguments.add("sip_domain", domain);
    return callPublicAddressFunction(sql("SELECT create_public_address{}", arguments.values()));
}

int DatabaseCommandExecutor::aliasPublicAddress(const char* handle, const char* domain, const char* alias)
{
    ValueString arguments;
    arguments.add("handle", handle);
    arguments.add("sip_domain", domain);
    arguments.add("alias", alias);
    return callPublicAddressFunction(sql("SELECT create_public_address_alias{}", arguments.values()));
}

int DatabaseCommandExecutor::importPublicAddress(int sid, const char* handle, const char* domain, const char* contact)
{
    ValueString arguments;
    arguments.add("sid", std::to_string(sid));
    arguments.add("handle", handle);
    arguments.add("sip_domain", domain);
    arguments.add("contact", contact);
    return callPublicAddressFunction(sql("SELECT import_public_address{}", arguments.values()));
}

int DatabaseCommandExecutor::addPublicAddress(const PublicAddressRecord& rec)
{
    if (!checkConnect() || !require(!rec.handle().empty() && !rec.domain().empty() && rec.csid() > 0,
                                    "addPublicAddress: missing one or more parameters\n")) {
        return -1;
    }
    ValueString columns;
    columns.add("handle", rec.handle());
    columns.add("sip_domain", rec.domain());
    columns.add("csid", std::to_string(rec.csid()));
    QueryResult result;
    const std::string statement = sql("INSERT INTO public_address{} VALUES{};", columns.names(), columns.values());
    return run(statement, result) == Run::okay ? 0 : -1;
}

DatabaseResult DatabaseCommandExecutor::lookupPublicAddress(const char* handle, const char* domain,
                                                            PublicAddressRecord& rec)
{
    if (!checkConnect()) {
        return connectionError();
    }
    if (!require(handle != nullptr && domain != nullptr, "invalid parameters")) {
        return queryError();
    }
    QueryResult result;
    DatabaseResult outcome = runForResult(
        sql("SELECT handle, sip_domain, csid, scope, public_address_id FROM public_address WHERE  handle='{}' AND sip_domain='{}';",
            handle, domain),
        result);
    if (outcome.okay() && result.rows() == 0) {
        outcome.setNotFound();
    }
    if (outcome.okay()) {
        const Row row(result, 0);
        rec.setHandle(row.text(0));
        rec.setDomain(row.text(1));
        rec.setCsid(row.integer(2, rec.csid()));
        rec.setScope(row.text(3));
        rec.setPublicAddressId(row.integer(4, rec.public_address_id()));
    }
    return outcome;
}

} // namespace oryx
