#include <dal/internal/Frame.h>

#include <new>

namespace oryx {

bool Frame::connect(const char* uri, const char* user, const char* password)
{
    connection.reset();
    connection.reset(new (std::nothrow) DatabaseConnection);
    if (!connection) {
        return error("failed to allocate connection object");
    }
    return connection->connect(uri, user, password) ? okay() : errorConnection();
}

bool Frame::checkConnect()
{
    if (!connection) {
        return errorConnection();
    }
    return connection->active() || connection->reset() || errorConnection();
}

bool Frame::okay()
{
    errorText.clear();
    return true;
}

bool Frame::error(const char* msg)
{
    errorText = msg != nullptr ? msg : "";
    return false;
}

bool Frame::error(const QueryResult& result)
{
    errorText = result.getErrorMessage();
    return false;
}

bool Frame::errorConnection()
{
    errorText = connection ? connection->getErrorMessage() : "attempt to execute a command with no database connection";
    return false;
}

DatabaseResult Frame::connectionError() const
{
    DatabaseResult result;
    result.setConnectionError();
    result.setErrorMessage(errorText);
    return result;
}

DatabaseResult Frame::queryError() const
{
    DatabaseResult result;
    result.setQueryError();
    result.setErrorMessage(errorText);
    return result;
}

DatabaseResult Frame::refuse(const char* why)
{
    error(why);
    return queryError();
}

bool Frame::require(bool valid, const char* msg)
{
    return valid || error(msg);
}

Run Frame::send(const std::string& statement, QueryResult& result) const
{
    if (!connection || !connection->execute(statement, result)) {
        return Run::connectionFailed;
    }
    return result.failed() ? Run::queryFailed : Run::okay;
}

void Frame::keepReason(Run outcome, const QueryResult& result)
{
    if (outcome == Run::connectionFailed) {
        errorConnection();
    } else if (outcome == Run::queryFailed) {
        error(result);
    }
}

Run Frame::run(const std::string& statement, QueryResult& result)
{
    const Run outcome = send(statement, result);
    keepReason(outcome, result);
    return outcome;
}

DatabaseResult Frame::runForResult(const std::string& statement, QueryResult& result)
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

bool Frame::executeUpdate(const std::string& statement, int& count)
{
    QueryResult result;
    if (run(statement, result) != Run::okay) {
        return false;
    }
    count = result.updateCount();
    return okay();
}

bool Frame::callFunction(const std::string& statement)
{
    QueryResult result;
    const Run outcome = run(statement, result);
    if (outcome == Run::queryFailed) {
        rollback();
    }
    return outcome == Run::okay;
}

void Frame::rollback() const
{
    QueryResult ignored;
    connection->execute("ROLLBACK", ignored);
}

bool Frame::begin(const char* operation, Refusals refusals, DatabaseResult& outcome)
{
    if (operation != nullptr) {
        trace.prn("%s", operation);
    }
    if (!checkConnect()) {
        outcome = connectionError();
        return false;
    }
    for (const Refusal& refusal : refusals) {
        if (refusal.refused) {
            outcome = refuse(refusal.why);
            return false;
        }
    }
    return true;
}

bool Frame::fetch(const std::string& statement, QueryResult& result, DatabaseResult& outcome)
{
    trace.prn(statement);
    outcome = runForResult(statement, result);
    return outcome.okay();
}

void Frame::traceRows(const char* format, int rows) const
{
    if (format != nullptr) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral" // a literal of the operation's, with one %d
        trace.prn(format, rows);
#pragma GCC diagnostic pop
    }
}

DatabaseResult Frame::updated(const std::string& statement)
{
    trace.prn(statement);
    int count = 0;
    if (!executeUpdate(statement, count)) {
        errorConnection();
        return connectionError();
    }
    return {};
}

DatabaseResult Frame::insertedOrDeleted(const std::string& statement, Violation violation)
{
    trace.prn(statement);
    QueryResult result;
    if (!connection->execute(statement, result)) {
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
