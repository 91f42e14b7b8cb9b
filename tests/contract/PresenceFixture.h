#pragma once

#include "contract/ExecutorFixture.h"

#include <dal/PresenceDatabaseCommandExecutor.h>

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

/// \file
/// What the tests of the event server's statements share: the executor on the scripted libpq, and the kinds that its
/// operations come in, each held against every way in which a statement can end.

using PresenceOperation = OperationOf<oryx::PresenceDatabaseCommandExecutor>;
using PresenceRefusal = RefusalOf<oryx::PresenceDatabaseCommandExecutor>;
using PresenceStatementTest = StatementTestOf<oryx::PresenceDatabaseCommandExecutor>;
using PresenceRefusalTest = RefusalTestOf<oryx::PresenceDatabaseCommandExecutor>;

inline std::string presenceTrace(const std::vector<std::string>& texts)
{
    return traceLines(kChannelOf<oryx::PresenceDatabaseCommandExecutor>, texts);
}

/// A connected executor.
class PresenceTest : public ExecutorTestOf<oryx::PresenceDatabaseCommandExecutor> {
protected:
    std::string traced() { return trace.take("PresenceDatabaseCommandExecutor"); }
};

/// A call that sends one statement.
struct Statement {
    std::string name;
    std::string operation; // as it traces itself
    std::function<std::string(oryx::PresenceDatabaseCommandExecutor&)> call;
    std::string text;
    fake::Reply reply = fake::command("1");
    std::vector<std::string> rowsTraced = {}; // once the statement went well
};

/// An operation that traces itself before the connection is looked after, and its statement before that is sent.
inline PresenceOperation sending(const Statement& statement)
{
    const std::string begun = presenceTrace({statement.operation});
    const std::string sent = begun + presenceTrace({statement.text});
    const std::string rowsTraced = presenceTrace(statement.rowsTraced);
    return {
        .name = statement.name,
        .call = statement.call,
        .statement = statement.text,
        .reply = statement.reply,
        .answers = {},
        .traces = {sent + rowsTraced, begun, sent, sent},
        .answeredTrace = sent + answeredTrace(statement.text, statement.reply.status) + rowsTraced,
    };
}

/// A query: it answers `done`, or a failure of its kind with the out arguments `untouched`.
inline PresenceOperation query(const Statement& statement, const std::string& done, const std::string& untouched)
{
    PresenceOperation operation = sending(statement);
    operation.answers = statusThen("", untouched);
    operation.answers.done = done;
    return operation;
}

/// A change of rows that may or may not be there: every failure is the connection's, which has no words where the
/// server refused, and a success leaves no error text.
inline PresenceOperation update(const Statement& statement)
{
    PresenceOperation operation = sending(statement);
    operation.answers = {"okay", "connection error: {}", "connection error: {}", "connection error"};
    operation.errorTexts = {"", "{}", "{}", ""};
    return operation;
}

/// A new row, or the removal of rows: every failure is a connection error, told in the server's words where it refused,
/// and in those of the failure before where the connection was lost.
inline PresenceOperation insertOrDelete(const Statement& statement)
{
    PresenceOperation operation = sending(statement);
    operation.answers = {"okay", "connection error: {}", "connection error: " + kEarlierFailure,
                         "connection error: {}"};
    operation.errorTexts = {kEarlierFailure, "{}", kEarlierFailure, "{}"};
    return operation;
}

/// The changes, and each of them once more where the server finds no row to touch.
inline std::vector<PresenceOperation> andTouchingNoRow(std::vector<PresenceOperation> changes)
{
    const std::size_t count = changes.size();
    for (std::size_t i = 0; i < count; ++i) {
        PresenceOperation& again = changes.emplace_back(PresenceOperation(changes[i]));
        again.name += "TouchingNoRow";
        again.reply = fake::command("0");
    }
    return changes;
}

/// What an operation answers, and its vector behind it, which held `records` before.
template <typename Record, typename Call>
std::string appending(std::vector<Record> records, const Call& call)
{
    const std::string answer = show(call(records));
    return answer + "\n" + show(records);
}

/// A call refused for its arguments by an operation that traces itself.
inline PresenceRefusal refusal(const std::string& name, const std::string& operation, const std::string& message,
                               const std::function<std::string(oryx::PresenceDatabaseCommandExecutor&)>& call,
                               const std::string& untouched = "")
{
    return {name, call, "query error: " + message + untouched, message, presenceTrace({operation})};
}
