#include <dal/presence/Verbs.h>

#include <dal/DatabaseConnection.h>

namespace oryx {

/// The first half of every operation. An operation without a trace text has traced by itself, or does not.
bool PresenceDatabaseCommandExecutor::begin(const char* operation, Refusals refusals, DatabaseResult& outcome)
{
    if (operation != nullptr) {
        m_trace.prn("%s", operation);
    }
    if (!checkConnect()) {
        outcome = connectionError();
        return false;
    }
    for (const Refusal& refusal : refusals) {
        if (!require(!refusal.refused, refusal.why)) {
            outcome = queryError();
            return false;
        }
    }
    return true;
}

bool PresenceDatabaseCommandExecutor::fetch(const std::string& statement, QueryResult& result, DatabaseResult& outcome)
{
    m_trace.prn(statement);
    outcome = runForResult(statement, result);
    return outcome.okay();
}

void PresenceDatabaseCommandExecutor::traceRows(const char* format, int rows)
{
    if (format != nullptr) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral" // a literal of the operation's, with one %d
        m_trace.prn(format, rows);
#pragma GCC diagnostic pop
    }
}

DatabaseResult PresenceDatabaseCommandExecutor::updated(const std::string& statement)
{
    m_trace.prn(statement);
    int count = 0;
    if (!executeUpdate(statement, count)) {
        errorConnection();
        return connectionError();
    }
    return {};
}

DatabaseResult PresenceDatabaseCommandExecutor::insertedOrDeleted(const std::string& statement, Violation violation)
{
    m_trace.prn(statement);
    QueryResult result;
    if (!m_conn->execute(statement, result)) {
        return connectionError(); // the caller hears of the last failure that had words
    }
    if (!result.failed()) {
        return {};
    }
    error(result);
    DatabaseResult outcome = connectionError();
    if (violation == Violation::isConstraintError && result.integrityConstraintViolation()) {
        outcome.setConstraintError();
    }
    return outcome;
}

} // namespace oryx
