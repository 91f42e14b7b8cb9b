#include <dal/CommandExecutor.h>

#include <dal/DatabaseConnection.h>
#include <dal/internal/Sql.h>

#include <StringTokenizer.h>

#include <new>

namespace oryx {

const std::string CommandExecutor::SYSTEM_PARAMETERS_ORYX_PROXY = "oryxproxy";
const std::string CommandExecutor::SYSTEM_PARAMETERS_SERVER_INFO = "ServerInfo";
const std::string CommandExecutor::SYSTEM_PARAMETERS_SERVER_NAMES = "ServerNames";

CommandExecutor::CommandExecutor(const char* channel) : m_trace(channel) {}

CommandExecutor::~CommandExecutor() = default;

bool CommandExecutor::connect(const char* uri, const char* user, const char* password)
{
    m_conn.reset();
    m_conn.reset(new (std::nothrow) DatabaseConnection);
    if (!m_conn) {
        return error("failed to allocate connection object");
    }
    return m_conn->connect(uri, user, password) ? okay() : errorConnection();
}

bool CommandExecutor::checkConnect()
{
    if (!m_conn) {
        return errorConnection();
    }
    return m_conn->active() || m_conn->reset() || errorConnection();
}

DatabaseResult CommandExecutor::execute(const std::string& query)
{
    if (!checkConnect()) {
        return connectionError();
    }
    m_trace.prn("execute: '%s'", query.c_str());
    QueryResult result;
    DatabaseResult outcome;
    if (!m_conn->execute(query, result)) {
        errorConnection();
        outcome = connectionError();
    }
    // A fatal result may have been stored before the connection failed; what the server said of the statement then
    // tells the caller more than the lost connection does.
    if (result.failed()) {
        error(result);
        outcome = queryError();
    }
    return outcome;
}

bool CommandExecutor::executeUpdate(const std::string& cmd, int& count)
{
    QueryResult result;
    if (run(cmd, result) != Run::okay) {
        return false;
    }
    count = result.updateCount();
    return okay();
}

CommandExecutor::Run CommandExecutor::run(const std::string& statement, QueryResult& result)
{
    if (!m_conn || !m_conn->execute(statement, result)) {
        errorConnection();
        return Run::connectionFailed;
    }
    if (result.failed()) {
        error(result);
        return Run::queryFailed;
    }
    return Run::okay;
}

DatabaseResult CommandExecutor::runForResult(const std::string& statement, QueryResult& result)
{
    switch (run(statement, result)) {
    case Run::connectionFailed:
        return connectionError();
    case Run::queryFailed:
        return queryError();
    case Run::okay:
        break;
    }
    return {};
}

void CommandExecutor::rollback()
{
    QueryResult ignored;
    m_conn->execute("ROLLBACK", ignored);
}

DatabaseResult CommandExecutor::connectionError() const
{
    DatabaseResult result;
    result.setConnectionError();
    result.setErrorMessage(m_errorMsg);
    return result;
}

DatabaseResult CommandExecutor::queryError() const
{
    DatabaseResult result;
    result.setQueryError();
    result.setErrorMessage(m_errorMsg);
    return result;
}

bool CommandExecutor::okay()
{
    m_errorMsg.clear();
    return true;
}

bool CommandExecutor::error(const char* msg)
{
    m_errorMsg = msg != nullptr ? msg : "";
    return false;
}

bool CommandExecutor::error(const QueryResult& r)
{
    m_errorMsg = r.getErrorMessage();
    return false;
}

bool CommandExecutor::errorConnection()
{
    m_errorMsg = m_conn ? m_conn->getErrorMessage() : "attempt to execute a command with no database connection";
    return false;
}

bool CommandExecutor::systemParameterNamed(const std::string& application, const std::string& scope,
                                           const std::string& name)
{
    const bool named = !application.empty() && !scope.empty() && !name.empty();
    if (!named) {
        m_trace.prn("getSystemParameterValue(): *** ERROR ***: parameters can't be empty string!");
    }
    return named;
}

std::string CommandExecutor::systemParameterQuery(const std::string& application, const std::string& scope,
                                                  const std::string& name)
{
    return sql(
        "SELECT system_parameters.value FROM system_parameters WHERE (((system_parameters.application = '{}') AND (system_parameters.scope = '{}')) AND (system_parameters.name = '{}'));",
        application, scope, name);
}

int CommandExecutor::getDomainNameList(std::vector<std::string>& domainNameList)
{
    domainNameList.clear();
    const std::string value = getSystemParameterValue(SYSTEM_PARAMETERS_ORYX_PROXY, SYSTEM_PARAMETERS_SERVER_INFO,
                                                      SYSTEM_PARAMETERS_SERVER_NAMES);
    if (value.empty()) {
        m_trace.prn("getDomainNameList(): *** WARNING ***: Empty value for domains found!");
        return 0;
    }
    StringTokenizer domains(value, " ,;:");
    while (domains.hasMoreTokens()) {
        domainNameList.push_back(domains.nextToken());
    }
    const int count = static_cast<int>(domainNameList.size());
    m_trace.prn("getDomainNameList(): read %d domains, first is %s", count,
                domainNameList.empty() ? "" : domainNameList.front().c_str());
    return count;
}

std::string& CommandExecutor::pickDomain(const std::vector<std::string>& domains, unsigned int index,
                                         std::string& domainName)
{
    domainName.clear();
    if (index < domains.size()) {
        domainName = domains[index];
    } else {
        m_trace.prn("getNthElementOfDomainList(): *** ERROR ***: index out of bounds!");
    }
    return domainName;
}

std::string& CommandExecutor::getDomainName(std::string& domainName)
{
    return getNthElementOfDomainList(domainName, 0);
}

} // namespace oryx
