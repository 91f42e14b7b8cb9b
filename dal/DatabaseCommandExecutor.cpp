#include <dal/DatabaseCommandExecutor.h>

#include <dal/DatabaseConnection.h>

#include <string_view>
#include <utility>

namespace oryx {

std::mutex DatabaseCommandExecutor::m_domainListMutex;
std::vector<std::string> DatabaseCommandExecutor::m_domainList;

namespace {

/// What printf makes of a format without arguments. What would need one stands as it is: it came with a value.
std::string formatted(std::string_view format)
{
    std::string text;
    text.reserve(format.size());
    while (!format.empty()) {
        text += format.front();
        format.remove_prefix(format.starts_with("%%") ? 2 : 1);
    }
    return text;
}

/// Lives while this thread reads the domain list: a trace sink that asks for it meanwhile would have it read again, and
/// with every line of that reading once more.
class DomainReading {
public:
    DomainReading() { underWay = true; }
    ~DomainReading() { underWay = false; }
    DomainReading(const DomainReading&) = delete;
    DomainReading& operator=(const DomainReading&) = delete;

    static thread_local bool underWay;
};

thread_local bool DomainReading::underWay = false;

} // namespace

DatabaseCommandExecutor::DatabaseCommandExecutor() : CommandExecutor("DatabaseCommandExecutor") {}

DatabaseResult& DatabaseCommandExecutor::transactionExecute(const std::string& cmd, DatabaseResult& result,
                                                            QueryResult& qres, bool isTransaction)
{
    if (zel::Trace::enabled(zel::TraceKind::prn)) {
        m_trace.prn("******** transactionExecute(): cmd=\n" + formatted(cmd));
    }
    if (!m_conn || !m_conn->execute(cmd, qres)) {
        m_trace.prn("execute update failed");
        errorConnection();
        result.setConnectionError();
    } else if (qres.failed()) {
        m_trace.prn("query error");
        error(qres);
        result.setQueryError();
    } else {
        result.setOkay();
        return result;
    }
    result.setErrorMessage(m_errorMsg);
    if (isTransaction && (!m_conn || !m_conn->execute("ROLLBACK;", qres))) {
        m_trace.prn("rollback execution failed\n");
    }
    return result;
}

std::string DatabaseCommandExecutor::getSystemParameterValue(const std::string& application, const std::string& scope,
                                                             const std::string& name)
{
    if (!systemParameterNamed(application, scope, name)) {
        return {};
    }
    DatabaseResult outcome;
    QueryResult result;
    if (!transactionExecute(systemParameterQuery(application, scope, name), outcome, result, false).okay()) {
        return {};
    }
    if (result.rows() == 0) {
        m_trace.prn("getSystemParameterValue(): Query returned 0 rows, No available domains found!");
        return {};
    }
    const char* const value = result.getValue(0, 0);
    return value != nullptr ? value : "";
}

std::string& DatabaseCommandExecutor::getNthElementOfDomainList(std::string& domainName, unsigned int index)
{
    domainName.clear();
    const bool known = knowsDomains() || (!DomainReading::underWay && readDomains());
    // Once there, the list never changes: it is read without the lock, which nothing is traced under.
    return known ? pickDomain(m_domainList, index, domainName) : domainName;
}

bool DatabaseCommandExecutor::knowsDomains()
{
    const std::lock_guard lock(m_domainListMutex);
    return !m_domainList.empty();
}

bool DatabaseCommandExecutor::readDomains()
{
    const DomainReading reading;
    if (!checkConnect()) {
        m_trace.prn("getNthElementOfDomainList(): *** ERROR ***: No database connection opened!");
        return false;
    }
    m_trace.prn("getNthElementOfDomainList(): *** INFO ***: try to query Table 'system_parameters' directly!");
    std::vector<std::string> domains;
    getDomainNameList(domains);
    if (domains.empty()) {
        m_trace.prn(
            "getNthElementOfDomainList(): *** ERROR ***: Empty Domain Name retrieved from Table 'system_parameters'!");
    }
    const std::lock_guard lock(m_domainListMutex);
    if (m_domainList.empty()) {
        m_domainList = std::move(domains);
    }
    return !m_domainList.empty();
}

bool DatabaseCommandExecutor::callFunction(const std::string& statement)
{
    QueryResult result;
    const Run outcome = run(statement, result);
    if (outcome == Run::queryFailed) {
        rollback();
    }
    return outcome == Run::okay;
}

} // namespace oryx
