#pragma once

#include "contract/Course.h"
#include "support/FakeLibpq.h"
#include "support/Show.h"
#include "support/TraceLog.h"

#include <dal/DatabaseCommandExecutor.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

/// \file
/// What the tests of the registrar's statements share: an executor on the scripted libpq, and the table of all the ways
/// in which a statement can end, held against each operation.

inline std::string executorTrace(const std::vector<std::string>& texts)
{
    return traceLines("DatabaseCommandExecutor", texts);
}

inline std::vector<fake::Cell> withNull(std::vector<fake::Cell> row, std::size_t column)
{
    row.at(column) = std::nullopt;
    return row;
}

/// An executor that is not connected yet.
class UnconnectedExecutor {
protected:
    void connect()
    {
        ASSERT_TRUE(executor.connect("pgsql://db.oryx.example/registrar", "registrar", "secret"));
        libpq.take();
        trace.take();
    }

    fake::Libpq libpq;
    TraceLog trace;
    oryx::DatabaseCommandExecutor executor;
};

class ExecutorTest : public testing::Test, protected UnconnectedExecutor {
protected:
    void SetUp() override { connect(); }
};

/// A text for each ending of a statement.
struct PerEnding {
    std::string done;
    std::string notConnected;
    std::string connectionFailed;
    std::string queryFailed;

    const std::string& at(Ending ending) const
    {
        switch (ending) {
        case Ending::notConnected:
            return notConnected;
        case Ending::connectionFailed:
            return connectionFailed;
        case Ending::queryFailed:
            return queryFailed;
        case Ending::done:
            break;
        }
        return done;
    }
};

/// What an operation that answers with a status holds in each ending; `done` and `untouched` are its out arguments.
/// "{}" stands for the reason.
inline PerEnding statusThen(const std::string& done, const std::string& untouched)
{
    return {"okay\n" + done, "connection error: {}\n" + untouched, "connection error: {}\n" + untouched,
            "query error: {}\n" + untouched};
}

/// The same lines in every ending but the one without a connection, where there are none.
inline PerEnding tracedOnceConnected(const std::vector<std::string>& texts)
{
    const std::string lines = executorTrace(texts);
    return {lines, "", lines, lines};
}

struct Operation {
    std::string name;
    /// What the operation answers and what its out arguments hold then, as text.
    std::function<std::string(oryx::DatabaseCommandExecutor&)> call;
    std::string statement;
    fake::Reply reply;
    PerEnding answers;
    PerEnding traces = {};                                // lines of the executor's own channel
    bool rollsBack = false;                               // after a failed statement
    std::string errorTextWhenDone = "an earlier failure"; // as the failure before left it
};

struct OperationOnCourse {
    std::string name;
    Operation operation;
    Course course;
};

inline void PrintTo(const OperationOnCourse& row, std::ostream* out)
{
    *out << row.name;
}

/// Every way in which the statement of an operation can end that calls the connection itself.
inline std::vector<Course> courses()
{
    using fake::nothing;
    using fake::refused;
    const std::string never = "attempt to execute a command with no database connection";
    const std::string lost = "fatal error, query failed";
    const std::string lostAgain = "fatal query error after reset";
    const std::string notReset = "fatal query error, connection reset failed";
    const std::string duplicate = "ERROR:  refused\n, sqlState=23505, sqlcommand={}";
    const std::vector<ConnStatusType> bad = {CONNECTION_BAD};
    const auto empty = fake::status(PGRES_EMPTY_QUERY);
    const auto syntax = refused("42601");
    const auto unique = refused("23505");
    const std::string once = "exec {}\n";
    const std::string retried = "exec {}\nreset\nexec {}\n";
    const std::string retriedTwice = "exec {}\nreset\nexec {}\nreset\nexec {}\n";
    constexpr auto open = Connection::open;
    return {
        {"Answered", open, {}, {}, once, Ending::done, ""},
        {"NeverConnected", Connection::never, {}, {}, "", Ending::notConnected, never},
        {"ResetBeforehand", Connection::lost, {}, {}, "reset\nexec {}\n", Ending::done, ""},
        {"NotResetBeforehand", Connection::lost, bad, {}, "reset\n", Ending::notConnected, kServerGone},
        {"LostAndSentAgain", open, {}, {nothing()}, retried, Ending::done, ""},
        {"LostAndNotReset", open, bad, {nothing()}, "exec {}\nreset\n", Ending::connectionFailed, lost},
        {"LostTwice", open, {}, {nothing(), nothing()}, retried, Ending::connectionFailed, lostAgain},
        {"RefusedOnce", open, {}, {syntax}, retried, Ending::done, ""},
        {"RefusedTwice", open, {}, {syntax, syntax}, retried, Ending::queryFailed, kRefused},
        {"RefusedByAConstraint", open, {}, {unique, unique}, retried, Ending::queryFailed, duplicate},
        {"RefusedAndNotReset", open, bad, {syntax}, "exec {}\nreset\n", Ending::connectionFailed, notReset},
        {"RefusedThenLost", open, {}, {syntax, nothing()}, retried, Ending::connectionFailed, lostAgain},
        {"LostThenRefusedTwice", open, {}, {nothing(), syntax, syntax}, retriedTwice, Ending::queryFailed, kRefused},
        {"LostThenRefusedOnce", open, {}, {nothing(), syntax}, retriedTwice, Ending::done, ""},
        {"FailedWithoutRetry", open, {}, {empty}, once, Ending::queryFailed, kEmptyQuery},
    };
}

/// The courses as an operation sees them that ends a failed statement with a rollback, whose outcome does not count.
inline std::vector<Course> rollingBack(std::vector<Course> courses)
{
    for (Course& course : courses) {
        if (course.ending == Ending::queryFailed) {
            course.replies.push_back(fake::command());
            course.calls += "exec ROLLBACK\n";
        }
    }
    const auto failed = fake::status(PGRES_EMPTY_QUERY);
    courses.push_back({"RollbackFails",
                       Connection::open,
                       {},
                       {failed, failed},
                       "exec {}\nexec ROLLBACK\n",
                       Ending::queryFailed,
                       kEmptyQuery});
    courses.push_back({"RollbackLosesTheConnection",
                       Connection::open,
                       {CONNECTION_BAD},
                       {failed, fake::nothing()},
                       "exec {}\nexec ROLLBACK\nreset\n",
                       Ending::queryFailed,
                       kEmptyQuery});
    return courses;
}

inline std::vector<OperationOnCourse> onEveryCourse(const std::vector<Operation>& operations)
{
    std::vector<OperationOnCourse> rows;
    for (const Operation& operation : operations) {
        for (const Course& course : operation.rollsBack ? rollingBack(courses()) : courses()) {
            rows.push_back({operation.name + "_" + course.name, operation, course});
        }
    }
    return rows;
}

/// One operation on one course: its answer, the statements, resets and rollbacks sent, its own trace, and the error
/// text it leaves.
class StatementTest : public testing::TestWithParam<OperationOnCourse>, protected UnconnectedExecutor {
protected:
    void endsAsTheCourseDoes()
    {
        const auto& [name, operation, course] = GetParam();
        if (course.connection != Connection::never) {
            connect();
        }
        follow(course, operation.reply, libpq);
        executor.error("an earlier failure");
        const std::string reason = spliced(course.reason, operation.statement);

        EXPECT_EQ(operation.call(executor), spliced(operation.answers.at(course.ending), reason));
        EXPECT_EQ(libpq.take(), spliced(course.calls, operation.statement));
        EXPECT_EQ(trace.take("DatabaseCommandExecutor"), operation.traces.at(course.ending));
        EXPECT_EQ(executor.getErrorMessage(), course.ending == Ending::done ? operation.errorTextWhenDone : reason);
    }
};

/// A call that an operation refuses for its arguments.
struct Refusal {
    std::string name;
    std::function<std::string(oryx::DatabaseCommandExecutor&)> call;
    std::string answer;
    std::string errorText; // that the executor holds then
};

inline void PrintTo(const Refusal& refusal, std::ostream* out)
{
    *out << refusal.name;
}

class RefusalTest : public testing::TestWithParam<Refusal>, protected UnconnectedExecutor {
protected:
    void SetUp() override { connect(); }

    /// Nothing is sent, and the connection is looked after before the arguments are.
    void sendsNothing()
    {
        EXPECT_EQ(refused(), "");
        libpq.loseConnection();
        EXPECT_EQ(refused(), "reset\n");
    }

private:
    /// What the refused call asks of libpq.
    std::string refused()
    {
        executor.error("an earlier failure");
        EXPECT_EQ(GetParam().call(executor), GetParam().answer);
        EXPECT_EQ(executor.getErrorMessage(), GetParam().errorText);
        EXPECT_EQ(trace.take(), "");
        return libpq.take();
    }
};
