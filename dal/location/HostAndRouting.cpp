// What configures host and routing: tables host_info, address_map, proxy_configuration and domain_access.

#include <dal/DatabaseCommandExecutor.h>

#include <dal/internal/Frame.h>
#include <dal/location/LocationRows.h>

namespace oryx {

namespace {

/// Reads the table by position.
void readHostInfo(const Row& row, HostInfo& info)
{
    info.setNodeType(row.text(0));
    info.setParent(row.text(1));
    info.setParentContact(row.text(2));
    info.setTopUrl(row.text(3));
    info.setServerName(row.text(4));
    info.setOutboundAllowInternal(row.flag(5, info.outboundAllowInternal()));
    info.setOutboundAllowExternal(row.flag(6, info.outboundAllowExternal()));
    info.setOutboundProxy(row.text(7));
    info.setOutboundDirect(row.text(8));
}

} // namespace

DatabaseResult DatabaseCommandExecutor::getHostInfo(HostInfo& info)
{
    return m_frame->guarded([&] {
        if (!checkConnect()) {
            return m_frame->connectionError();
        }
        m_frame->trace.prn("looking up host info");
        QueryResult result;
        DatabaseResult outcome = m_frame->runForResult(sql("SELECT * FROM host_info"), result);
        if (!outcome.okay()) {
            return outcome;
        }
        if (result.rows() == 0) {
            m_frame->trace.prn("zero rows found");
            outcome.setNotFound();
            return outcome;
        }
        m_frame->trace.prn("host_info returned %d rows", result.rows());
        fillAllOrNone(info, [&](HostInfo& filled) { readHostInfo(Row(result, 0), filled); });
        return outcome;
    });
}

DatabaseResult fetchAddressMaps(DatabaseCommandExecutor& executor, QueryResult& result)
{
    Frame& frame = frameOf(executor);
    if (!frame.checkConnect()) {
        return frame.connectionError();
    }
    frame.trace.prn("looking up address_maps");
    DatabaseResult outcome = frame.runForResult(addressMapQuery(), result);
    if (outcome.okay()) {
        traceAddressMaps(result, frame.trace);
    }
    return outcome;
}

DatabaseResult DatabaseCommandExecutor::getAddressMaps(std::vector<AddressMapRecord>& maps)
{
    return m_frame->guarded([&] {
        QueryResult result;
        DatabaseResult outcome = fetchAddressMaps(*this, result);
        if (outcome.okay()) {
            readAddressMaps(result, maps);
        }
        return outcome;
    });
}

DatabaseResult DatabaseCommandExecutor::getProxyConfig(const char* proxyName, std::vector<ProxyConfig>& items)
{
    return m_frame->guarded([&] {
        if (!checkConnect()) {
            return m_frame->connectionError();
        }
        if (!m_frame->require(proxyName != nullptr, "null proxy name")) {
            return m_frame->queryError();
        }
        m_frame->trace.prn("looking up proxy configuration for %s", proxyName);
        QueryResult result;
        DatabaseResult outcome = m_frame->runForResult(
            sql("SELECT scope, property_name, property_value  FROM proxy_configuration   WHERE proxy_name = '{}';",
                proxyName),
            result);
        if (!outcome.okay()) {
            return outcome;
        }
        const int rows = result.rows();
        if (rows == 0) {
            m_frame->trace.prn("no configuration found for %s", proxyName);
        } else {
            m_frame->trace.prn("found %d proxy configuration items", rows);
        }
        replaceByRows(result, items,
                      [](auto& read, const Row& row) { read.emplace_back(row.text(0), row.text(1), row.text(2)); });
        return outcome;
    });
}

DatabaseResult DatabaseCommandExecutor::getDomainAccessList(std::vector<DomainAccess>& rules)
{
    return m_frame->guarded([&] {
        if (!checkConnect()) {
            return m_frame->connectionError();
        }
        m_frame->trace.prn("getting domain access list");
        QueryResult result;
        DatabaseResult outcome = m_frame->runForResult(
            sql("SELECT direction,sip_domain,domain_action FROM domain_access ORDER BY qvalue"), result);
        if (!outcome.okay()) {
            m_frame->trace.prn(outcome.connectionError() ? "execute query failed" : "query error");
            return outcome;
        }
        if (result.rows() == 0) {
            m_frame->trace.prn("query returned 0 rows");
        }
        forEachRow(result, rules, [&](const Row& row) {
            DomainAccess& rule = rules.emplace_back();
            rule.setDirection(row.text(0));
            rule.setDomain(row.text(1));
            rule.setAction(row.text(2));
        });
        return outcome;
    });
}

} // namespace oryx
