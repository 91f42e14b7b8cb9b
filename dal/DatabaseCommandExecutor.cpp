#include <dal/DatabaseCommandExecutor.h>

#include <dal/internal/Frame.h>
#include <dal/internal/SystemParameters.h>

#include <mutex>

namespace oryx {

namespace {

/// The domains that this process answers for: read once, shared by all location executors.
std::mutex domainListMutex;
std::vector<std::string> domainList;

} // namespace

DatabaseCommandExecutor::DatabaseCommandExecutor() : CommandExecutor("DatabaseCommandExecutor") {}

std::string& DatabaseCommandExecutor::getErrorMessage()
{
    return m_frame->errorText;
}

DatabaseResult& DatabaseCommandExecutor::transactionExecute(const std::string& cmd, DatabaseResult& result,
                                                            QueryResult& qres, bool isTransaction)
{
    if (zel::Trace::enabled(zel::TraceKind::prn)) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
        m_frame->trace.prn(("******** transactionExecute(): cmd=\n" + cmd).c_str());
#pragma GCC diagnostic pop
    }
    const Run outcome = m_frame->run(cmd, qres);
    if (outcome == Run::okay) {
        result.setOkay();
        return result;
    }
    if (outcome == Run::connectionFailed) {
        m_frame->trace.prn("execute update failed");
        result.setConnectionError();
    } else {
        m_frame->trace.prn("query error");
        result.setQueryError();
    }
    result.setErrorMessage(m_frame->errorText);
    if (isTransaction && (!m_frame->connection || !m_frame->connection->execute("ROLLBACK;", qres))) {
        m_frame->trace.prn("rollback execution failed\n");
    }
    return result;
}

std::string DatabaseCommandExecutor::getSystemParameterValue(const std::string& application, const std::string& scope,
                                                             const std::string& name)
{
    if (!systemParameterNamed(m_frame->trace, application, scope, name)) {
        return {};
    }
    DatabaseResult outcome;
    QueryResult result;
    if (!transactionExecute(systemParameterQuery(application, scope, name), outcome, result, false).okay()) {
        return {};
    }
    if (result.rows() == 0) {
        m_frame->trace.prn("getSystemParameterValue(): Query returned 0 rows, No available domains found!");
        return {};
    }
    const char* const value = result.getValue(0, 0);
    return value != nullptr ? value : "";
}

std::string& DatabaseCommandExecutor::getNthElementOfDomainList(std::string& domainName, unsigned int index)
{
    domainName.clear();
    const std::lock_guard lock(domainListMutex);
    if (domainList.empty()) {
        if (!checkConnect()) {
            m_frame->trace.prn("getNthElementOfDomainList(): *** ERROR ***: No database connection opened!");
            return domainName;
        }
        m_frame->trace.prn(
            "getNthElementOfDomainList(): *** INFO ***: try to query Table 'system_parameters' directly!");
        getDomainNameList(domainList);
        if (domainList.empty()) {
            m_frame->trace.prn(
                "getNthElementOfDomainList(): *** ERROR ***: Empty Domain Name retrieved from Table 'system_parameters'!");
            return domainName;
        }
    }
    return pickDomain(m_frame->trace, domainList, index, domainName);
}

} // namespace oryx
