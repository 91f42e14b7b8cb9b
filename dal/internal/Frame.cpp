#include <dal/internal/Frame.h>

#include <dal/internal/Traced.h>

#include <new>

namespace oryx {

bool Frame::connect(const char* uri, const char* user, const char* password)
{
    return guarded(false, [&] {
        sqlState.clear();
        connection.reset();
        connection.reset(new (std::nothrow) DatabaseConnection(options ? *options : SessionOptions::fromEnvironment(),
                                                               meter, interruption));
        if (!connection) {
            return error("failed to allocate connection object");
        }
        connection->m_inOperation = true; // whoever uses a connection by itself has each of its calls bounded
        return connection->connect(uri, user, password) ? okay() : errorConnection();
    });
}

bool Frame::checkConnect()
{
    if (!connection) {
        return errorConnection();
    }
    if (m_calls == 0) {
        connection->beginOperation();
    }
    if (connection->active() || connection->reset()) {
        return true;
    }
    sqlState.clear();
    return errorConnection();
}

bool Frame::okay()
{
    errorText.clear();
    sqlState.clear();
    return true;
}

bool Frame::error(const char* msg)
{
    errorText = msg != nullptr ? msg : "";
    sqlState.clear();
    return false;
}

bool Frame::error(const QueryResult& result)
{
    errorText = result.getErrorMessage();
    sqlState = result.getSqlState();
    if (sqlState == QueryResult::SQL_SUCCESSFUL_COMPLETION) {
        sqlState.clear(); // libpq's own words, not the server's
    }
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
    result.setSqlState(sqlState);
    return result;
}

DatabaseResult Frame::unanswered()
{
    if (connection && connection->ranLate()) {
        errorConnection();
    }
    return connectionError();
}

DatabaseResult Frame::queryError() const
{
    DatabaseResult result;
    result.setQueryError();
    result.setErrorMessage(errorText);
    result.setSqlState(sqlState);
    return result;
}

DatabaseResult Frame::refuse(const char* why)
{
    error(why);
    return queryError();
}

DatabaseResult Frame::outOfMemory() noexcept
{
    if (connection) {
        connection->settle();
    }
    return refuse(kOutOfMemory);
}

bool Frame::require(bool valid, const char* msg)
{
    return valid || error(msg);
}

void Frame::keepReason(Run outcome, const QueryResult& result)
{
    if (outcome == Run::connectionFailed) {
        errorConnection();
    } else if (outcome == Run::queryFailed) {
        error(result);
    }
}

DatabaseResult Frame::resultOf(Run run) const
{
    switch (run) {
    case Run::connectionFailed:
        return connectionError();
    case Run::queryFailed:
        return queryError();
    case Run::okay:
        break;
    }
    return {};
}

DatabaseResult Frame::runForEach(std::span<const Statement> statements, const DatabaseConnection::ResultTaker& take)
{
    QueryResult result;
    if (!connection || !connection->sendForEach(statements, result, take)) {
        sqlState.clear(); // of an earlier failure
        errorConnection();
        return connectionError();
    }
    const Run outcome = result.failed() ? Run::queryFailed : Run::okay;
    keepReason(outcome, result);
    return resultOf(outcome);
}

bool Frame::callFunction(const Statement& statement)
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
    if (bound()) {
        return; // a refused statement has ended its transaction
    }
    QueryResult ignored;
    connection->execute("ROLLBACK", ignored);
}

bool Frame::begin(const char* operation, Refusals refusals, DatabaseResult& outcome)
{
    if (operation != nullptr) {
        traceProgress(trace, operation);
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

bool Frame::fetch(const Statement& statement, QueryResult& result, DatabaseResult& outcome)
{
    traceText(statement);
    const Run ended = run(statement, result);
    if (ended != Run::okay) {
        outcome = resultOf(ended);
    }
    return ended == Run::okay;
}

std::string Frame::textOf(const Statement& statement) const
{
    return connection ? connection->textOf(statement) : statement.text();
}

std::string Frame::textOf(const Transaction& transaction) const
{
    return connection ? connection->textOf(transaction) : transaction.text();
}

void Frame::traceRows(const char* format, int rows) const
{
    if (format != nullptr && zel::Trace::enabled(zel::TraceKind::prn)) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral" // a literal of the operation's, with one %d
        trace.prn(format, rows);
#pragma GCC diagnostic pop
    }
}

DatabaseResult Frame::updated(const Statement& statement)
{
    traceText(statement);
    int count = 0;
    if (!executeUpdate(statement, count)) {
        errorConnection();
        return connectionError();
    }
    return {};
}

DatabaseResult Frame::insertedOrDeleted(const Statement& statement, Violation violation)
{
    traceText(statement);
    QueryResult result;
    if (!exchange(statement, result)) {
        return unanswered();
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
