#pragma once

#include <dal/PresenceDatabaseCommandExecutor.h>
#include <dal/internal/Row.h>
#include <dal/internal/Sql.h>

/// \file
/// What the event server's operations have in common: trace, connection, arguments, statement, and the outcome of their
/// kind. An operation says what is its own.

namespace oryx {

/// An argument that an operation does not take, and the reason its caller is given.
struct PresenceDatabaseCommandExecutor::Refusal {
    bool refused;
    const char* why;
};

/// What a listing without rows means, and which rows it delivers.
enum class PresenceDatabaseCommandExecutor::Listing {
    mayBeEmpty,         // nobody there is an answer
    notFoundWhenEmpty,  // the caller asked for something that should be there
    firstRowThroughout, // likewise; the caller wants the number of rows and one example
};

/// What a change that a constraint refuses is to its caller.
enum class PresenceDatabaseCommandExecutor::Violation {
    isConnectionError, // a failure like any other
    isConstraintError, // the row is already there
};

/// An argument that each record repeats: a copy, for the text may be one of those records'.
inline std::string copied(const char* text)
{
    return text != nullptr ? text : "";
}

/// A query for any number of rows; `append` is called for each. `rowsTrace` is a format for their number.
template <typename Record, typename Statement, typename Append>
DatabaseResult PresenceDatabaseCommandExecutor::list(const char* operation, Refusals refusals, Listing kind,
                                                     std::vector<Record>& records, Statement statement, Append append,
                                                     const char* rowsTrace)
{
    DatabaseResult outcome;
    QueryResult result;
    if (!begin(operation, refusals, outcome) || !fetch(statement(), result, outcome)) {
        return outcome;
    }
    const int rows = result.rows();
    traceRows(rowsTrace, rows);
    if (rows == 0 && kind != Listing::mayBeEmpty) {
        outcome.setNotFound();
    }
    forEachRow(result, records,
               [&](const Row& row) { append(kind == Listing::firstRowThroughout ? Row(result, 0) : row); });
    return outcome;
}

/// A query for one row: `read` is called for the first; not found without one.
template <typename Statement, typename Read>
DatabaseResult PresenceDatabaseCommandExecutor::find(const char* operation, Refusals refusals, Statement statement,
                                                     Read read, const char* rowsTrace)
{
    DatabaseResult outcome;
    QueryResult result;
    if (!begin(operation, refusals, outcome) || !fetch(statement(), result, outcome)) {
        return outcome;
    }
    const int rows = result.rows();
    traceRows(rowsTrace, rows);
    if (rows == 0) {
        outcome.setNotFound();
    } else {
        read(Row(result, 0));
    }
    return outcome;
}

/// A change of rows that may or may not be there: okay in either case. Every failure is a connection error, with the
/// connection's words.
template <typename Statement>
DatabaseResult PresenceDatabaseCommandExecutor::update(const char* operation, Refusals refusals, Statement statement)
{
    DatabaseResult outcome;
    return begin(operation, refusals, outcome) ? updated(statement()) : outcome;
}

/// A new row, or the removal of rows that may or may not be there. A failed statement is a connection error, with the
/// server's words.
template <typename Statement>
DatabaseResult PresenceDatabaseCommandExecutor::insertOrDelete(const char* operation, Refusals refusals,
                                                               Statement statement, Violation violation)
{
    DatabaseResult outcome;
    return begin(operation, refusals, outcome) ? insertedOrDeleted(statement(), violation) : outcome;
}

template <typename Statement>
DatabaseResult PresenceDatabaseCommandExecutor::insertOrDelete(const char* operation, Refusals refusals,
                                                               Statement statement)
{
    return insertOrDelete(operation, refusals, statement, Violation::isConnectionError);
}

} // namespace oryx
