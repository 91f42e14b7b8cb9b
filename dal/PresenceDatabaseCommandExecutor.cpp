#include <dal/PresenceDatabaseCommandExecutor.h>

#include <dal/internal/Frame.h>
#include <dal/internal/SystemParameters.h>

namespace oryx {

namespace {

/// A statement that neither selected nor touched a row found nothing.
DatabaseResult judgeRows(const QueryResult& qres, zel::Trace& trace)
{
    const int rows = qres.rows();
    const int affected = qres.updateCount();
    DatabaseResult result;
    if (rows == 0 && affected == 0) {
        trace.prn(
            "PresenceDatabaseCommandExecutor::executeSqlCmd: 0 rows selected (Query) or affected (Update, Insert, or Delete)!");
        result.setNotFound();
    }
    if (rows > 0) {
        trace.prn("PresenceDatabaseCommandExecutor::executeSqlCmd: retrieved %d rows.", rows);
    }
    if (affected > 0) {
        trace.prn("PresenceDatabaseCommandExecutor::executeSqlCmd: %d rows affected!", affected);
    }
    return result;
}

} // namespace

PresenceDatabaseCommandExecutor::PresenceDatabaseCommandExecutor() : CommandExecutor("PresenceDatabaseCommandExecutor")
{
}

const std::string& PresenceDatabaseCommandExecutor::getErrorMessage() const
{
    return m_frame->errorText;
}

DatabaseResult PresenceDatabaseCommandExecutor::executeSqlCmd(const std::string& cmd, QueryResult& qres)
{
    if (&cmd == &m_frame->errorText) {
        return executeSqlCmd(std::string(cmd), qres); // a failure changes that text before the command is traced
    }
    m_frame->trace.prn("PresenceDatabaseCommandExecutor::executeSqlCmd(): ");
    if (cmd.empty()) {
        DatabaseResult result;
        result.setQueryError();
        result.setErrorMessage("PresenceDatabaseCommandExecutor::executeSqlCmd: --- Empty query command! ---");
        return result;
    }
    if (!checkConnect()) {
        m_frame->trace.prn("PresenceDatabaseCommandExecutor::executeSqlCmd: '%s': checkConnect() failed!", cmd.c_str());
        return m_frame->connectionError();
    }
    m_frame->trace.prn("PresenceDatabaseCommandExecutor::executeSqlCmd(): '%s'", cmd.c_str());
    switch (m_frame->send(cmd, qres)) {
    case Run::connectionFailed:
        m_frame->trace.prn("PresenceDatabaseCommandExecutor::executeSqlCmd: '%s': errorConnection() failed!",
                           cmd.c_str());
        errorConnection();
        return m_frame->connectionError();
    case Run::queryFailed:
        m_frame->trace.prn("PresenceDatabaseCommandExecutor::executeSqlCmd: '%s': queryResult.failed()!", cmd.c_str());
        error(qres);
        return m_frame->queryError();
    case Run::okay:
        break;
    }
    return judgeRows(qres, m_frame->trace);
}

std::string PresenceDatabaseCommandExecutor::getSystemParameterValue(const std::string& application,
                                                                     const std::string& scope, const std::string& name)
{
    if (!systemParameterNamed(m_frame->trace, application, scope, name)) {
        return {};
    }
    QueryResult result;
    if (!executeSqlCmd(systemParameterQuery(application, scope, name), result).okay()) {
        m_frame->trace.prn("getSystemParameterValue(): *** execution of SQL command failed! ***");
        return {};
    }
    if (result.rows() == 0) {
        m_frame->trace.prn("getSystemParameterValue(): *** Query returned 0 rows, No available records found! ***");
        return {};
    }
    const char* const value = result.getValue(0, 0);
    return value != nullptr ? value : "";
}

std::string& PresenceDatabaseCommandExecutor::getNthElementOfDomainList(std::string& domainName, unsigned int index)
{
    std::vector<std::string> domains;
    getDomainNameList(domains);
    return pickDomain(m_frame->trace, domains, index, domainName);
}

} // namespace oryx
