#include <dal/PresenceDatabaseCommandExecutor.h>

#include <dal/internal/Frame.h>
#include <dal/internal/SystemParameters.h>
#include <dal/presence/SqlCommand.h>

namespace oryx {

PresenceDatabaseCommandExecutor::PresenceDatabaseCommandExecutor() : CommandExecutor("PresenceDatabaseCommandExecutor")
{
}

const std::string& PresenceDatabaseCommandExecutor::getErrorMessage() const
{
    return m_frame->errorText;
}

DatabaseResult PresenceDatabaseCommandExecutor::executeSqlCmd(const std::string& cmd, QueryResult& qres)
{
    return m_frame->guarded([&] { return executeSqlCommand(*m_frame, cmd, qres); });
}

std::string PresenceDatabaseCommandExecutor::getSystemParameterValue(const std::string& application,
                                                                     const std::string& scope, const std::string& name)
{
    return m_frame->guarded(std::string(), [&] {
        if (!systemParameterNamed(m_frame->trace, application, scope, name)) {
            return std::string();
        }
        QueryResult result;
        if (!executeSqlCommand(*m_frame, systemParameterQuery(application, scope, name), result).okay()) {
            m_frame->trace.prn("getSystemParameterValue(): *** execution of SQL command failed! ***");
            return std::string();
        }
        if (result.rows() == 0) {
            m_frame->trace.prn("getSystemParameterValue(): *** Query returned 0 rows, No available records found! ***");
            return std::string();
        }
        const char* const value = result.getValue(0, 0);
        return std::string(value != nullptr ? value : "");
    });
}

std::string& PresenceDatabaseCommandExecutor::getNthElementOfDomainList(std::string& domainName, unsigned int index)
{
    domainName.clear();
    m_frame->attempt([&] {
        std::vector<std::string> domains;
        getDomainNameList(domains);
        pickDomain(m_frame->trace, domains, index, domainName);
    });
    return domainName;
}

} // namespace oryx
