#pragma once

#include <dal/DatabaseConnection.h>
#include <dal/DatabaseResult.h>
#include <dal/QueryResult.h>
#include <dal/internal/Row.h>
#include <dal/internal/Sql.h>
#include <zel/Trace.h>

#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

/// \file
/// What both command executors stand on. An operation says what is its own: trace, refusals, statement, which column
/// goes into which field; what it has in common with others of its kind is written here, once.

namespace oryx {

/// An argument that an operation does not take, and the reason its caller is given.
struct Refusal {
    bool refused;
    const char* why;
};
using Refusals = std::initializer_list<Refusal>;

/// How the running of a statement ended.
enum class Run { okay, connectionFailed, queryFailed };

/// What a listing without rows means, and which rows it delivers.
enum class Listing {
    mayBeEmpty,         // nobody there is an answer
    notFoundWhenEmpty,  // the caller asked for something that should be there
    firstRowThroughout, // likewise; the caller wants the number of rows and one example
};

/// What a change that a constraint refuses is to its caller.
enum class Violation {
    isConnectionError, // a failure like any other
    isConstraintError, // the row is already there
};

/// An argument that each record repeats: a copy, for the text may be one of those records'.
inline std::string copied(const char* text)
{
    return text != nullptr ? text : "";
}

/// An executor's connection, error text and trace, and what its operations do with them.
class Frame {
public:
    /// Without a connection; traces on the channel of that name.
    explicit Frame(const char* channel) : trace(channel) {}

    bool connect(const char* uri, const char* user, const char* password);
    /// Whether there is a usable connection; one that was lost is reset first.
    bool checkConnect();

    // Outcomes

    /// Success: empties the error text. Always true.
    bool okay();
    ///@{
    /// Failure with a reason. Always false.
    bool error(const char* msg);
    bool error(const QueryResult& result);
    bool errorConnection();
    ///@}
    /// A connection error with the error text as the message.
    DatabaseResult connectionError() const;
    /// A query error with the error text as the message.
    DatabaseResult queryError() const;
    /// A query error with that reason.
    DatabaseResult refuse(const char* why);
    /// An argument check: false with `msg` as the reason unless `valid`.
    bool require(bool valid, const char* msg);

    // Statements, without checking the connection first

    /// Sends a statement; the error text stays, for a caller that has something to trace before it changes.
    Run send(const std::string& statement, QueryResult& result) const;
    /// Takes the reason of a failure into the error text.
    void keepReason(Run outcome, const QueryResult& result);
    /// Both.
    Run run(const std::string& statement, QueryResult& result);
    /// The same for callers that answer with a result.
    DatabaseResult runForResult(const std::string& statement, QueryResult& result);
    /// Runs a change; `count` gets the number of rows it touched, and is left as it was on a failure.
    bool executeUpdate(const std::string& statement, int& count);
    /// Runs a call of a stored function, and a rollback after one that failed.
    bool callFunction(const std::string& statement);
    /// Ends a failed transaction. How that went does not count: the first failure is what the caller hears of.
    void rollback() const;

    // Whole operations

    /// The first half of every operation: its trace, connection and arguments. An operation without a trace text has
    /// traced by itself, or does not.
    bool begin(const char* operation, Refusals refusals, DatabaseResult& outcome);
    /// Traces a query and runs it.
    bool fetch(const std::string& statement, QueryResult& result, DatabaseResult& outcome);

    /// A query for any number of rows; `append` is called for each. `rowsTrace` is a format for their number.
    template <typename Record, typename Statement, typename Append>
    DatabaseResult list(const char* operation, Refusals refusals, Listing kind, std::vector<Record>& records,
                        Statement statement, Append append, const char* rowsTrace = nullptr)
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
    DatabaseResult find(const char* operation, Refusals refusals, Statement statement, Read read,
                        const char* rowsTrace = nullptr)
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

    /// A change of rows that may or may not be there: okay in either case. Every failure is a connection error, with
    /// the connection's words.
    template <typename Statement>
    DatabaseResult update(const char* operation, Refusals refusals, Statement statement)
    {
        DatabaseResult outcome;
        return begin(operation, refusals, outcome) ? updated(statement()) : outcome;
    }

    /// A new row, or the removal of rows that may or may not be there. A failed statement is a connection error, with
    /// the server's words.
    template <typename Statement>
    DatabaseResult insertOrDelete(const char* operation, Refusals refusals, Statement statement,
                                  Violation violation = Violation::isConnectionError)
    {
        DatabaseResult outcome;
        return begin(operation, refusals, outcome) ? insertedOrDeleted(statement(), violation) : outcome;
    }

    std::unique_ptr<DatabaseConnection> connection; ///< Null until the first `connect`.
    std::string errorText;                          ///< The reason of the last failure.
    mutable zel::Trace trace;                       ///< The executor's channel; a suite's own traces need not be const.

private:
    void traceRows(const char* format, int rows) const;
    DatabaseResult updated(const std::string& statement);
    DatabaseResult insertedOrDeleted(const std::string& statement, Violation violation);
};

} // namespace oryx
