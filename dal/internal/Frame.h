#pragma once

#include <dal/DatabaseConnection.h>
#include <dal/DatabaseResult.h>
#include <dal/QueryResult.h>
#include <dal/internal/Memory.h>
#include <dal/internal/Meter.h>
#include <dal/internal/Row.h>
#include <dal/internal/Statement.h>
#include <zel/Trace.h>

#include <initializer_list>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

/// \file
/// What both command executors stand on. An operation says what is its own: trace, refusals, statement, which column
/// goes into which field; what it has in common with others of its kind is written here, once.

namespace oryx {

class CommandExecutor;

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
    explicit Frame(const char* channel) : meter(std::make_shared<Meter>()), trace(channel) {}

    bool connect(const char* uri, const char* user, const char* password);
    /// Whether there is a usable connection; one that was lost is reset first.
    bool checkConnect();

    /// Everything up to `endCall` is one operation to the caller, with one deadline.
    void beginCall()
    {
        if (m_calls++ == 0 && connection) {
            connection->beginOperation();
        }
    }
    void endCall() { --m_calls; }

    /// Whether values travel apart from the text.
    bool bound() const { return connection && connection->bound(); }

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
    /// A connection error of an addition, a deletion or the reset that brought back no result: its caller hears of the
    /// deadline, and otherwise of the last failure that had words.
    DatabaseResult unanswered();
    /// A query error with the error text as the message.
    DatabaseResult queryError() const;
    /// A query error with that reason.
    DatabaseResult refuse(const char* why);
    /// An argument check: false with `msg` as the reason unless `valid`.
    bool require(bool valid, const char* msg);
    /// The query error of an operation whose memory has run out. Nothing that it began stays open on the connection.
    [[gnu::cold]] DatabaseResult outOfMemory() noexcept;

    ///@{
    /// Runs an operation as its caller shall see it: nothing is thrown, and one whose memory runs out is a query error,
    /// or answers as it does to every failure.
    template <typename Operation>
    DatabaseResult guarded(Operation operation)
    {
        return unlessOutOfMemory(operation, [this] { return outOfMemory(); });
    }
    template <typename Answer, typename Operation>
    Answer guarded(const Answer& failed, Operation operation)
    {
        return unlessOutOfMemory(operation, [&] {
            outOfMemory();
            return failed;
        });
    }
    /// An operation without an answer: whether memory sufficed for it.
    template <typename Operation>
    bool attempt(Operation operation)
    {
        return guarded(false, [&] {
            operation();
            return true;
        });
    }
    ///@}
    /// The same of one that fills a caller's record: its answer is in it only when it is okay.
    template <typename Record, typename Lookup>
    DatabaseResult fill(Record& record, Lookup lookup)
    {
        return guarded([&] {
            Record found = record;
            DatabaseResult outcome = lookup(found);
            if (outcome.okay()) {
                record = std::move(found);
            }
            return outcome;
        });
    }

    // Statements, without checking the connection first

    /// Sends a `Statement`, a `Transaction` or a caller's own text; false when the connection brings back no result.
    /// What it brings is not looked at.
    template <typename Command>
    bool exchange(Command&& command, QueryResult& result)
    {
        if (connection && connection->send(command, result)) {
            return true;
        }
        sqlState.clear(); // of an earlier failure
        return false;
    }
    /// The same, and looks at the result; the error text stays, for a caller that has something to trace before it
    /// changes.
    template <typename Command>
    Run send(Command&& command, QueryResult& result)
    {
        if (!exchange(command, result)) {
            return Run::connectionFailed;
        }
        return result.failed() ? Run::queryFailed : Run::okay;
    }
    /// Takes the reason of a failure into the error text.
    void keepReason(Run outcome, const QueryResult& result);
    /// Both.
    template <typename Command>
    Run run(Command&& command, QueryResult& result)
    {
        const Run outcome = send(command, result);
        keepReason(outcome, result);
        return outcome;
    }
    /// The same for callers that answer with a result.
    template <typename Command>
    DatabaseResult runForResult(Command&& command, QueryResult& result)
    {
        return resultOf(run(command, result));
    }
    /// Runs bound statements in one transaction and one round trip; `take` is called with each one's number and result
    /// when all of them have taken effect.
    DatabaseResult runForEach(std::span<const Statement> statements, const DatabaseConnection::ResultTaker& take);
    /// Runs a change; `count` gets the number of rows it touched, and is left as it was on a failure.
    template <typename Command>
    bool executeUpdate(Command&& command, int& count)
    {
        QueryResult result;
        if (run(command, result) != Run::okay) {
            return false;
        }
        count = result.updateCount();
        return okay();
    }
    /// Runs a command whose rows nobody reads, with the connection checked first.
    template <typename Command>
    DatabaseResult execute(Command&& command)
    {
        return guarded([&] {
            DatabaseResult outcome;
            if (!checkConnect()) {
                outcome = connectionError();
                return outcome;
            }
            if (zel::Trace::enabled(zel::TraceKind::prn)) {
                trace.prn("execute: '%s'", textOf(command).c_str());
            }
            QueryResult result;
            if (!exchange(command, result)) {
                errorConnection();
                outcome = connectionError();
            }
            // A fatal result may have been stored before the connection failed; what the server said of the statement
            // then tells the caller more than the lost connection does.
            if (result.failed()) {
                error(result);
                outcome = queryError();
            }
            return outcome;
        });
    }
    /// Runs a call of a stored function, and a rollback after one that failed.
    bool callFunction(const Statement& statement);
    /// Ends a failed transaction. How that went does not count: the first failure is what the caller hears of.
    void rollback() const;
    ///@{
    /// A command as the server gets it: without its values, where they travel apart.
    std::string textOf(const Statement& statement) const;
    std::string textOf(const Transaction& transaction) const;
    static const std::string& textOf(const std::string& text) { return text; }
    ///@}
    /// Traces how many rows there are, where there is a format for it.
    void traceRows(const char* format, int rows) const;
    /// Traces that text behind a prefix.
    void traceText(const Statement& statement, const char* prefix = "") const
    {
        if (zel::Trace::enabled(zel::TraceKind::prn)) {
            trace.prn(prefix + textOf(statement));
        }
    }

    // Whole operations

    /// The first half of every operation: its trace, connection and arguments. An operation without a trace text has
    /// traced by itself, or does not.
    bool begin(const char* operation, Refusals refusals, DatabaseResult& outcome);
    /// Traces a query and runs it; `outcome` is changed by a failure alone.
    bool fetch(const Statement& statement, QueryResult& result, DatabaseResult& outcome);

    /// A query for any number of rows; `append` is called for each. `rowsTrace` is a format for their number.
    template <typename Record, typename MakeStatement, typename Append>
    DatabaseResult list(const char* operation, Refusals refusals, Listing kind, std::vector<Record>& records,
                        MakeStatement statement, Append append, const char* rowsTrace = nullptr)
    {
        return guarded([&] {
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
        });
    }

    /// A query for one row: `read` is called for the first; not found without one.
    template <typename MakeStatement, typename Read>
    DatabaseResult find(const char* operation, Refusals refusals, MakeStatement statement, Read read,
                        const char* rowsTrace = nullptr)
    {
        return guarded([&] {
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
        });
    }

    /// A change of rows that may or may not be there: okay in either case. Every failure is a connection error, with
    /// the connection's words.
    template <typename MakeStatement>
    DatabaseResult update(const char* operation, Refusals refusals, MakeStatement statement)
    {
        return guarded([&] {
            DatabaseResult outcome;
            return begin(operation, refusals, outcome) ? updated(statement()) : std::move(outcome);
        });
    }

    /// A new row, or the removal of rows that may or may not be there. A failed statement is a connection error, with
    /// the server's words.
    template <typename MakeStatement>
    DatabaseResult insertOrDelete(const char* operation, Refusals refusals, MakeStatement statement,
                                  Violation violation = Violation::isConnectionError)
    {
        return guarded([&] {
            DatabaseResult outcome;
            return begin(operation, refusals, outcome) ? insertedOrDeleted(statement(), violation) : std::move(outcome);
        });
    }

    std::unique_ptr<DatabaseConnection> connection; ///< Null until the first `connect`.
    std::optional<SessionOptions> options;          ///< For the next `connect`; none: the environment's.
    int interruption = -1;                          ///< For the next `connect`, where it is a listener's.
    std::shared_ptr<Meter> meter;                   ///< Counts for all connections; may be others' too.
    std::string errorText;                          ///< The reason of the last failure.
    std::string sqlState;     ///< Of the last failure; empty unless the server refused a statement.
    mutable zel::Trace trace; ///< The executor's channel; a suite's own traces need not be const.

private:
    DatabaseResult resultOf(Run run) const;
    DatabaseResult updated(const Statement& statement);
    DatabaseResult insertedOrDeleted(const Statement& statement, Violation violation);

    int m_calls = 0; // under way, one within the other
};

/// What an executor stands on, for the service that owns it.
Frame& frameOf(CommandExecutor& executor);

} // namespace oryx
