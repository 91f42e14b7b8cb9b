#pragma once

#include <dal/CommandExecutor.h>

namespace oryx {

/// The event server's statements.
///
/// Values go into the statements as they are, unescaped. An executor is used by one thread at a time.
class ORYX_EXPORT PresenceDatabaseCommandExecutor : public CommandExecutor {
public:
    PresenceDatabaseCommandExecutor();

    const std::string& getErrorMessage() const { return m_errorMsg; }

    /// Runs any one statement. Okay when it selected or touched a row, not found when it did neither; query error for
    /// an empty text or a failed statement, connection error without a usable connection.
    DatabaseResult executeSqlCmd(const std::string& cmd, QueryResult& qres);

    std::string getSystemParameterValue(const std::string& application, const std::string& scope,
                                        const std::string& name) override;
    /// Reads the list afresh on every call.
    std::string& getNthElementOfDomainList(std::string& domainName, unsigned int index) override;

private:
    DatabaseResult judgeRows(const QueryResult& qres);
};

} // namespace oryx
