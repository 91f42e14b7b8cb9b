#include <dal/PresenceDatabaseCommandExecutor.h>

#include <dal/DatabaseConnection.h>

namespace oryx {

PresenceDatabaseCommandExecutor::PresenceDatabaseCommandExecutor() : CommandExecutor("PresenceDatabaseCommandExecutor")
{
}

DatabaseResult PresenceDatabaseCommandExecutor::executeSqlCmd(const std::string& cmd, QueryResult& qres)
{
    if (&cmd == &m_errorMsg) {
        return executeSqlCmd(std::string(cmd), qres); // a failure changes that text before the command is traced
    }
    m_trace.prn("PresenceDatabaseCommandExecutor::executeSqlCmd(): ");
    if (cmd.empty()) {
        DatabaseResult result;
        result.setQueryError();
        result.setErrorMessage("PresenceDatabaseCommandExecutor::executeSqlCmd: --- Empty query command! ---");
        return result;
    }
    if (!checkConnect()) {
        m_trace.prn("PresenceDatabaseCommandExecutor::executeSqlCmd: '%s': checkConnect() failed!", cmd.c_str());
        return connectionError();
    }
    m_trace.prn("PresenceDatabaseCommandExecutor::executeSqlCmd(): '%s'", cmd.c_str());
    if (!m_conn->execute(cmd, qres)) {
        m_trace.prn("PresenceDatabaseCommandExecutor::executeSqlCmd: '%s': errorConnection() failed!", cmd.c_str());
        errorConnection();
        return connectionError();
    }
    if (qres.failed()) {
        m_trace.prn("PresenceDatabaseCommandExecutor::executeSqlCmd: '%s': queryResult.failed()!", cmd.c_str());
        error(qres);
        return queryError();
    }
    return judgeRows(qres);
}

DatabaseResult PresenceDatabaseCommandExecutor::judgeRows(const QueryResult& qres)
{
    const int rows = qres.rows();
    const int affected = qres.updateCount();
    DatabaseResult result;
    if (rows == 0 && affected == 0) {
        m_trace.prn(
            "PresenceDatabaseCommandExecutor::executeSqlCmd: 0 rows selected (Query) or affected (Update, Insert, or Delete)!");
        result.setNotFound();
    }
    if (rows > 0) {
        m_trace.prn("PresenceDatabaseCommandExecutor::executeSqlCmd: retrieved %d rows.", rows);
    }
    if (affected > 0) {
        m_trace.prn("PresenceDatabaseCommandExecutor::executeSqlCmd: %d rows affected!", affected);
    }
    return result;
}

std::string PresenceDatabaseCommandExecutor::getSystemParameterValue(const std::string& application,
                                                                     const std::string& scope, const std::string& name)
{
    if (!systemParameterNamed(application, scope, name)) {
        return {};
    }
    QueryResult result;
    if (!executeSqlCmd(systemParameterQuery(application, scope, name), result).okay()) {
        m_trace.prn("getSystemParameterValue(): *** execution of SQL command failed! ***");
        return {};
    }
    if (result.rows() == 0) {
        m_trace.prn("getSystemParameterValue(): *** Query returned 0 rows, No available records found! ***");
        return {};
    }
    const char* const value = result.getValue(0, 0);
    return value != nullptr ? value : "";
}

std::string& PresenceDatabaseCommandExecutor::getNthElementOfDomainList(std::string& domainName, unsigned int index)
{
    std::vector<std::string> domains;
    getDomainNameList(domains);
    return pickDomain(domains, index, domainName);
}

} // namespace oryx
