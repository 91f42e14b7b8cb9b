#pragma once

#include "contract/Course.h"
#include "support/FakeLibpq.h"
#include "support/Show.h"
#include "support/TraceLog.h"

#include <dal/DatabaseCommandExecutor.h>
#include <dal/PresenceDatabaseCommandExecutor.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <functional>
#include <initializer_list>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

/// \file
/// What the tests of the executors' statements share: an executor on the scripted libpq, and the table of all the ways
/// in which a statement can end, held against each operation. The names without "Of" are the registrar's.

/// The trace channel of an executor.
template <typename Executor>
inline const char* const kChannelOf = "DatabaseCommandExecutor";
template <>
inline const char* const kChannelOf<oryx::PresenceDatabaseCommandExecutor> = "PresenceDatabaseCommandExecutor";

inline std::string executorTrace(const std::vector<std::string>& texts)
{
    return traceLines(kChannelOf<oryx::DatabaseCommandExecutor>, texts);
}

inline std::vector<fake::Cell> withNull(std::vector<fake::Cell> row, std::size_t column)
{
    row.at(column) = std::nullopt;
    return row;
}

/// An executor that is not connected yet.
template <typename Executor>
class UnconnectedExecutorOf {
protected:
    void connect()
    {
        ASSERT_TRUE(executor.connect("pgsql://db.oryx.example/registrar", "registrar", "secret"));
        libpq.take();
        trace.take();
    }

    fake::Libpq libpq;
    TraceLog trace;
    Executor executor;
};

using UnconnectedExecutor = UnconnectedExecutorOf<oryx::DatabaseCommandExecutor>;

template <typename Executor>
class ExecutorTestOf : public testing::Test, protected UnconnectedExecutorOf<Executor> {
protected:
    void SetUp() override { this->connect(); }
};

using ExecutorTest = ExecutorTestOf<oryx::DatabaseCommandExecutor>;

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

/// What the executor holds before each call.
inline const std::string kEarlierFailure = "an earlier failure";

template <typename Executor>
struct OperationOf {
    std::string name;
    /// What the operation answers and what its out arguments hold then, as text.
    std::function<std::string(Executor&)> call;
    std::string statement;
    fake::Reply reply;
    PerEnding answers;
    PerEnding traces = {};                                      // lines of the executor's own channel
    bool rollsBack = false;                                     // after a failed statement
    bool rollsBackWhenLost = false;                             // after a connection that failed with it
    std::string answerToAConstraint = {};                       // where it is not that to any failed statement
    PerEnding errorTexts = {kEarlierFailure, "{}", "{}", "{}"}; // that the executor holds then
    std::string answeredTrace = {}; // all lines, the connection's too, where it is answered at once
};

using Operation = OperationOf<oryx::DatabaseCommandExecutor>;

template <typename Executor>
struct OperationOnCourse {
    std::string name;
    OperationOf<Executor> operation;
    Course course;
};

template <typename Executor>
void PrintTo(const OperationOnCourse<Executor>& row, std::ostream* out)
{
    *out << row.name;
}

/// The courses that some operations tell from others of their ending.
inline const std::string kAnsweredCourse = "Answered";
inline const std::string kConstraintCourse = "RefusedByAConstraint";

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
        {kAnsweredCourse, open, {}, {}, once, Ending::done, ""},
        {"NeverConnected", Connection::never, {}, {}, "", Ending::notConnected, never},
        {"ResetBeforehand", Connection::lost, {}, {}, "reset\nexec {}\n", Ending::done, ""},
        {"NotResetBeforehand", Connection::lost, bad, {}, "reset\n", Ending::notConnected, kServerGone},
        {"LostAndSentAgain", open, {}, {nothing()}, retried, Ending::done, ""},
        {"LostAndNotReset", open, bad, {nothing()}, "exec {}\nreset\n", Ending::connectionFailed, lost},
        {"LostTwice", open, {}, {nothing(), nothing()}, retried, Ending::connectionFailed, lostAgain},
        {"RefusedOnce", open, {}, {syntax}, retried, Ending::done, ""},
        {"RefusedTwice", open, {}, {syntax, syntax}, retried, Ending::queryFailed, kRefused},
        {kConstraintCourse, open, {}, {unique, unique}, retried, Ending::queryFailed, duplicate},
        {"RefusedAndNotReset", open, bad, {syntax}, "exec {}\nreset\n", Ending::connectionFailed, notReset},
        {"RefusedThenLost", open, {}, {syntax, nothing()}, retried, Ending::connectionFailed, lostAgain},
        {"LostThenRefusedTwice", open, {}, {nothing(), syntax, syntax}, retriedTwice, Ending::queryFailed, kRefused},
        {"LostThenRefusedOnce", open, {}, {nothing(), syntax}, retriedTwice, Ending::done, ""},
        {"FailedWithoutRetry", open, {}, {empty}, once, Ending::queryFailed, kEmptyQuery},
    };
}

/// The courses as an operation sees them that ends a failed statement with a rollback, whose outcome does not count.
inline std::vector<Course> rollingBack(std::vector<Course> courses, bool whenLost)
{
    for (Course& course : courses) {
        if (course.ending == Ending::queryFailed || (whenLost && course.ending == Ending::connectionFailed)) {
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

template <typename Executor>
std::vector<OperationOnCourse<Executor>> onEveryCourse(const std::vector<OperationOf<Executor>>& operations)
{
    std::vector<OperationOnCourse<Executor>> rows;
    for (const OperationOf<Executor>& operation : operations) {
        for (const Course& course :
             operation.rollsBack ? rollingBack(courses(), operation.rollsBackWhenLost) : courses()) {
            rows.push_back({operation.name + "_" + course.name, operation, course});
        }
    }
    return rows;
}

template <typename Executor>
std::vector<OperationOnCourse<Executor>> onEveryCourse(std::initializer_list<OperationOf<Executor>> operations)
{
    return onEveryCourse(std::vector<OperationOf<Executor>>(operations));
}

/// One operation on one course: its answer, the statements, resets and rollbacks sent, its own trace, and the error
/// text it leaves.
template <typename Executor>
class StatementTestOf : public testing::TestWithParam<OperationOnCourse<Executor>>,
                        protected UnconnectedExecutorOf<Executor> {
protected:
    void endsAsTheCourseDoes()
    {
        const auto& [name, operation, course] = this->GetParam();
        if (course.connection != Connection::never) {
            this->connect();
        }
        follow(course, operation.reply, this->libpq);
        this->executor.error(kEarlierFailure.c_str());
        const std::string reason = spliced(course.reason, operation.statement);
        const bool violation = course.name == kConstraintCourse && !operation.answerToAConstraint.empty();
        const std::string& answer = violation ? operation.answerToAConstraint : operation.answers.at(course.ending);
        const bool wholeTrace = course.name == kAnsweredCourse && !operation.answeredTrace.empty();

        EXPECT_EQ(operation.call(this->executor), spliced(answer, reason));
        EXPECT_EQ(this->libpq.take(), spliced(course.calls, operation.statement));
        EXPECT_EQ(wholeTrace ? this->trace.take() : this->trace.take(kChannelOf<Executor>),
                  wholeTrace ? operation.answeredTrace : operation.traces.at(course.ending));
        EXPECT_EQ(this->executor.getErrorMessage(), spliced(operation.errorTexts.at(course.ending), reason));
    }
};

using StatementTest = StatementTestOf<oryx::DatabaseCommandExecutor>;

/// A call that an operation refuses for its arguments.
template <typename Executor>
struct RefusalOf {
    std::string name;
    std::function<std::string(Executor&)> call;
    std::string answer;
    std::string errorText; // that the executor holds then
    std::string traced = {};
};

using Refusal = RefusalOf<oryx::DatabaseCommandExecutor>;

template <typename Executor>
void PrintTo(const RefusalOf<Executor>& refusal, std::ostream* out)
{
    *out << refusal.name;
}

template <typename Executor>
class RefusalTestOf : public testing::TestWithParam<RefusalOf<Executor>>, protected UnconnectedExecutorOf<Executor> {
protected:
    void SetUp() override { this->connect(); }

    /// Nothing is sent, and the connection is looked after before the arguments are.
    void sendsNothing()
    {
        EXPECT_EQ(refused(), "");
        this->libpq.loseConnection();
        EXPECT_EQ(refused(), "reset\n");
    }

private:
    /// What the refused call asks of libpq.
    std::string refused()
    {
        const auto& refusal = this->GetParam();
        this->executor.error(kEarlierFailure.c_str());
        EXPECT_EQ(refusal.call(this->executor), refusal.answer);
        EXPECT_EQ(this->executor.getErrorMessage(), refusal.errorText);
        EXPECT_EQ(this->trace.take(), refusal.traced);
        return this->libpq.take();
    }
};

using RefusalTest = RefusalTestOf<oryx::DatabaseCommandExecutor>;
