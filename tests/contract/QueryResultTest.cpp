#include "contract/Course.h"
#include "support/FakeLibpq.h"
#include "support/Show.h"
#include "support/TraceLog.h"

#include <dal/DatabaseResult.h>
#include <dal/QueryResult.h>
#include <dal/internal/Row.h>

#include <gtest/gtest.h>

#include <limits>
#include <sstream>
#include <string>
#include <type_traits>

namespace queryResultTest {

namespace {

using fake::command;
using fake::refused;
using fake::rows;
using fake::status;
using oryx::DatabaseResult;
using oryx::QueryResult;

static_assert(!std::is_copy_constructible_v<QueryResult>);
static_assert(!std::is_copy_assignable_v<QueryResult>);
static_assert(std::is_copy_constructible_v<DatabaseResult>);
static_assert(std::is_copy_assignable_v<DatabaseResult>);

static_assert(DatabaseResult::OKAY == 0);
static_assert(DatabaseResult::CONNECTION_ERROR == 1);
static_assert(DatabaseResult::QUERY_ERROR == 2);
static_assert(DatabaseResult::NOTFOUND == 3);
static_assert(DatabaseResult::CONSTRAINT_ERROR == 5);

std::string shown(const char* text)
{
    return text != nullptr ? "'" + std::string(text) + "'" : "null";
}

/// Everything a result answers, the value at row 0, column 0 for all of them.
std::string answers(const QueryResult& result)
{
    std::string name;
    const int code = result.getErrorCode(name);
    std::ostringstream out;
    out << std::boolalpha << code << " " << name << " failed=" << result.failed() << " rows=" << result.rows()
        << " columns=" << result.columns() << " updated=" << result.updateCount()
        << " name=" << shown(result.getColumnName(0)) << " value=" << shown(result.getValue(0, 0))
        << " null=" << result.isNull(0, 0) << " state=" << result.getSqlState()
        << " constraint=" << result.integrityConstraintViolation() << " message='" << result.getErrorMessage() << "'";
    return out.str();
}

const std::string kNotExecuted =
    "-1 NO QUERY EXECUTED failed=false rows=0 columns=0 updated=0 name=null value=null null=true state=00000 "
    "constraint=false message='not executed'";

class QueryResultTest : public testing::Test {
protected:
    /// Has the object hold what the server answered.
    const QueryResult& holding(fake::Reply reply)
    {
        result.setResult(libpq.result(std::move(reply)));
        return result;
    }

    std::string nameOfStatus(int number)
    {
        std::string name = "an earlier name";
        const int code = holding(status(static_cast<ExecStatusType>(number))).getErrorCode(name);
        return std::to_string(code) + " " + name;
    }

    fake::Libpq libpq;
    TraceLog trace;
    QueryResult result;
};

TEST_F(QueryResultTest, AnswersNeutrallyBeforeAnythingWasExecuted)
{
    EXPECT_EQ(answers(result), kNotExecuted);
    EXPECT_EQ(result.getSqlCommand(), "");
    EXPECT_EQ(trace.take(), "");
}

TEST_F(QueryResultTest, AnswersForAHeldSetOfRows)
{
    result.setSqlCommand("SELECT handle, csid FROM public_address;");
    EXPECT_EQ(answers(holding(rows({{"alice", "7"}, {"bob", std::nullopt}}))),
              "2 PGRES_TUPLES_OK failed=false rows=2 columns=2 updated=2 name='column0' value='alice' null=false "
              "state=00000 constraint=false "
              "message=', sqlState=00000, sqlcommand=SELECT handle, csid FROM public_address;'");
}

TEST_F(QueryResultTest, AnswersForACompletedCommand)
{
    result.setSqlCommand("DELETE FROM contact;");
    EXPECT_EQ(answers(holding(command("3"))),
              "1 PGRES_COMMAND_OK failed=false rows=0 columns=0 updated=3 name=null value=null null=true state=00000 "
              "constraint=false message=', sqlState=00000, sqlcommand=DELETE FROM contact;'");
}

TEST_F(QueryResultTest, AnswersForARefusedStatement)
{
    result.setSqlCommand("INSERT INTO contact;");
    EXPECT_EQ(answers(holding(refused("23505", "ERROR:  duplicate key\n"))),
              "7 PGRES_FATAL_ERROR failed=true rows=0 columns=0 updated=0 name=null value=null null=true state=23505 "
              "constraint=true message='ERROR:  duplicate key\n, sqlState=23505, sqlcommand=INSERT INTO contact;'");
}

TEST_F(QueryResultTest, FreesTheFirstResultForASecond)
{
    holding(command("1"));
    EXPECT_EQ(holding(command("2")).updateCount(), 2);
}

TEST_F(QueryResultTest, IsNotExecutedAgainOnceItsResultIsTakenAway)
{
    holding(rows({{"alice"}}));
    result.setResult(nullptr);
    EXPECT_EQ(answers(result), kNotExecuted);
}

TEST_F(QueryResultTest, FreesItsResultAtItsEnd)
{
    const fake::Reply reply = command("1");
    QueryResult shortLived;
    shortLived.setResult(libpq.result(reply));
    EXPECT_EQ(shortLived.updateCount(), 1);
}

TEST_F(QueryResultTest, KeepsTheStatementWhateverResultItHolds)
{
    result.setSqlCommand("SELECT 1;");
    holding(command());
    result.setResult(nullptr);
    EXPECT_EQ(result.getSqlCommand(), "SELECT 1;");
}

TEST_F(QueryResultTest, GivesNoValueOutsideItsRowsAndColumns)
{
    holding(rows({{"alice", "7"}, {"bob", "8"}}));
    EXPECT_EQ(shown(result.getValue(1, 1)), "'8'");
    EXPECT_EQ(shown(result.getValue(2, 0)), "null");
    EXPECT_EQ(shown(result.getValue(-1, 0)), "null");
    EXPECT_EQ(shown(result.getValue(0, 2)), "null");
    EXPECT_EQ(shown(result.getValue(0, -1)), "null");
    EXPECT_EQ(trace.take(), "");
}

TEST_F(QueryResultTest, ReadsSqlNullAsAnEmptyTextAndTellsItApart)
{
    holding(rows({{std::nullopt, ""}}));
    EXPECT_EQ(shown(result.getValue(0, 0)), "''");
    EXPECT_EQ(shown(result.getValue(0, 1)), "''");
    EXPECT_TRUE(result.isNull(0, 0));
    EXPECT_FALSE(result.isNull(0, 1));
}

TEST_F(QueryResultTest, IsNullOutsideItsRowsAndColumns)
{
    holding(rows({{"alice"}}));
    EXPECT_FALSE(result.isNull(0, 0));
    EXPECT_TRUE(result.isNull(1, 0));
    EXPECT_TRUE(result.isNull(-1, 0));
    EXPECT_TRUE(result.isNull(0, 1));
    EXPECT_TRUE(result.isNull(0, -1));
}

TEST_F(QueryResultTest, NamesItsColumnsAndNoOthers)
{
    holding(rows({{"alice", "7"}}));
    EXPECT_EQ(shown(result.getColumnName(0)), "'column0'");
    EXPECT_EQ(shown(result.getColumnName(1)), "'column1'");
    EXPECT_EQ(shown(result.getColumnName(2)), "null");
    EXPECT_EQ(shown(result.getColumnName(-1)), "null");
}

TEST_F(QueryResultTest, CountsNoRowsWhereLibpqTellsNone)
{
    EXPECT_EQ(holding(command("")).updateCount(), 0);
    EXPECT_EQ(holding(command("2147483647")).updateCount(), 2147483647);
    EXPECT_EQ(holding(command("4294967296")).updateCount(), 2147483647);
    fake::Reply reply = command();
    reply.cmdTuplesIsNull = true;
    EXPECT_EQ(holding(reply).updateCount(), 0);
}

TEST_F(QueryResultTest, FailsForEveryStatusButACompletedCommandAndASetOfRows)
{
    std::string failing;
    for (int number = 0; number <= 9; ++number) {
        if (holding(status(static_cast<ExecStatusType>(number))).failed()) {
            failing += std::to_string(number) + " ";
        }
    }
    EXPECT_EQ(failing, "0 3 4 5 6 7 8 9 ");
}

TEST_F(QueryResultTest, NamesTheStatusOfItsResult)
{
    EXPECT_EQ(nameOfStatus(0), "0 PGRES_EMPTY_QUERY");
    EXPECT_EQ(nameOfStatus(1), "1 PGRES_COMMAND_OK");
    EXPECT_EQ(nameOfStatus(2), "2 PGRES_TUPLES_OK");
    EXPECT_EQ(nameOfStatus(3), "3 PGRES_COPY_OUT");
    EXPECT_EQ(nameOfStatus(4), "4 PGRES_COPY_IN");
    EXPECT_EQ(nameOfStatus(5), "5 PGRES_BAD_RESPONSE");
    EXPECT_EQ(nameOfStatus(6), "6 PGRES_NONFATAL_ERROR");
    EXPECT_EQ(nameOfStatus(7), "7 PGRES_FATAL_ERROR");
    EXPECT_EQ(nameOfStatus(8), "8 UNRECOGNIZED CODE");
    EXPECT_EQ(nameOfStatus(11), "11 UNRECOGNIZED CODE");
    EXPECT_EQ(trace.take(), "");
}

TEST_F(QueryResultTest, TracesItsStatusEachTimeItIsAskedWhetherItFailed)
{
    result.setSqlCommand("SELECT '100%s';");
    holding(command());
    const std::string okay = "query result status is 1 (', sqlState=00000, sqlcommand=SELECT '100%s';')\n";
    result.failed();
    result.failed();
    EXPECT_EQ(trace.take(), traceLines("DatabaseConnection", {okay, okay}));
    holding(refused("42601"));
    result.failed();
    EXPECT_EQ(trace.take(),
              traceLines("DatabaseConnection", {"query result status is 7 ('ERROR:  refused\n, sqlState=42601, "
                                                "sqlcommand=SELECT '100%s';')\n"}));
}

TEST_F(QueryResultTest, HasAMessageOfItsOwnWhenLibpqGivesNone)
{
    fake::Reply reply = refused("42601");
    reply.messageIsNull = true;
    EXPECT_EQ(holding(reply).getErrorMessage(), "unspecified result");
}

TEST_F(QueryResultTest, TellsConstraintViolationsByTheClassOfTheirSqlState)
{
    EXPECT_TRUE(holding(refused("23505")).integrityConstraintViolation());
    EXPECT_TRUE(holding(refused("23503")).integrityConstraintViolation());
    EXPECT_TRUE(holding(refused("23000")).integrityConstraintViolation());
    EXPECT_FALSE(holding(refused("42601")).integrityConstraintViolation());
    EXPECT_FALSE(holding(refused("22023")).integrityConstraintViolation());
    EXPECT_FALSE(holding(refused("02300")).integrityConstraintViolation());
    EXPECT_FALSE(holding(refused("2")).integrityConstraintViolation());
    EXPECT_FALSE(holding(refused("")).integrityConstraintViolation());
}

TEST(QueryResultConstants, AreTheStatesOfSuccessAndOfAConstraintViolation)
{
    EXPECT_EQ(QueryResult::SQL_SUCCESSFUL_COMPLETION, "00000");
    EXPECT_EQ(QueryResult::SQL_INTEGRITY_CONSTRAINT_VIOLATION, "23000");
}

/// An outcome with that message and status, and which of its predicates hold.
std::string predicates(void (DatabaseResult::*set)())
{
    DatabaseResult result;
    result.setErrorMessage("a message");
    (result.*set)();
    const auto flag = [](bool holds, const char* name) { return holds ? std::string(" ") + name : ""; };
    return oryx::show(result) + " is" + flag(result.okay(), "okay") +
           flag(result.connectionError(), "connectionError") + flag(result.queryError(), "queryError") +
           flag(result.fatalError(), "fatalError") + flag(result.notFound(), "notFound") +
           flag(result.constraintError(), "constraintError");
}

TEST(DatabaseResultTest, IsOkayAndWithoutAMessageAtFirst)
{
    const DatabaseResult result;
    EXPECT_EQ(result.getStatus(), DatabaseResult::OKAY);
    EXPECT_TRUE(result.okay());
    EXPECT_EQ(result.getErrorMessage(), "");
}

TEST(DatabaseResultTest, KeepsItsMessageWhenItsStatusChanges)
{
    EXPECT_EQ(predicates(&DatabaseResult::setOkay), "okay: a message is okay");
    EXPECT_EQ(predicates(&DatabaseResult::setConnectionError),
              "connection error: a message is connectionError fatalError");
    EXPECT_EQ(predicates(&DatabaseResult::setQueryError), "query error: a message is queryError fatalError");
    EXPECT_EQ(predicates(&DatabaseResult::setNotFound), "not found: a message is notFound");
    EXPECT_EQ(predicates(&DatabaseResult::setConstraintError), "constraint error: a message is constraintError");
}

TEST(DatabaseResultTest, KeepsItsMessageForANullOne)
{
    DatabaseResult result;
    result.setErrorMessage("a message");
    result.setErrorMessage(nullptr);
    EXPECT_EQ(oryx::show(result), "okay: a message");
}

TEST(DatabaseResultTest, TakesItsMessageAsAnyKindOfText)
{
    DatabaseResult result;
    result.setErrorMessage(std::string("a string"));
    EXPECT_EQ(result.getErrorMessage(), "a string");
    result.setErrorMessage("");
    EXPECT_EQ(result.getErrorMessage(), "");
}

TEST(DatabaseResultTest, CopiesStatusAndMessage)
{
    DatabaseResult original;
    original.setQueryError();
    original.setErrorMessage("a message");
    const DatabaseResult copied(original);
    DatabaseResult assigned;
    assigned = original;
    original.setOkay();
    original.setErrorMessage("another");
    EXPECT_EQ(oryx::show(copied), "query error: a message");
    EXPECT_EQ(oryx::show(assigned), "query error: a message");
}

class RowTest : public QueryResultTest {
protected:
    /// The first row of a result of that one row.
    oryx::Row row(std::vector<fake::Cell> cells) { return {holding(rows({std::move(cells)})), 0}; }
};

TEST_F(RowTest, GivesTextAndTellsNullFromEmpty)
{
    const oryx::Row read = row({"alice", "", std::nullopt});
    EXPECT_EQ(shown(read.text(0)), "'alice'");
    EXPECT_EQ(shown(read.text(1)), "''");
    EXPECT_EQ(shown(read.text(2)), "null");
    EXPECT_EQ(shown(read.text(3)), "null");
}

TEST_F(RowTest, ReadsWholeNumbersOfThirtyTwoBits)
{
    const oryx::Row read = row({"7", "-8", "2147483648", "-2147483649", "9x", "", std::nullopt});
    EXPECT_EQ(read.integer(0, 5), 7);
    EXPECT_EQ(read.integer(1, 5), -8);
    EXPECT_EQ(read.integer(2, 5), std::numeric_limits<int>::max());
    EXPECT_EQ(read.integer(3, 5), std::numeric_limits<int>::min());
    EXPECT_EQ(read.integer(4, 5), 9);
    EXPECT_EQ(read.integer(5, 5), 0);
    EXPECT_EQ(read.integer(6, 5), 5);
}

TEST_F(RowTest, ReadsSeconds)
{
    const oryx::Row read = row({"1700000000", "-1", std::nullopt});
    EXPECT_EQ(read.number(0, 5), 1700000000);
    EXPECT_EQ(read.number(1, 5), -1);
    EXPECT_EQ(read.number(2, 5), 5);
}

TEST_F(RowTest, TakesOnlyALowerCaseTForTrue)
{
    const oryx::Row read = row({"t", "true", "f", "T", "", std::nullopt});
    std::string flags;
    for (int column = 0; column < 6; ++column) {
        flags += read.flag(column, true) ? "yes " : "no ";
    }
    EXPECT_EQ(flags, "yes yes no no no yes ");
    EXPECT_FALSE(read.flag(5, false));
}

TEST_F(RowTest, ReadsTheRowItStandsFor)
{
    holding(rows({{"alice"}, {"bob"}}));
    EXPECT_EQ(shown(oryx::Row(result, 1).text(0)), "'bob'");
    EXPECT_EQ(shown(oryx::Row(result, 2).text(0)), "null");
}

} // namespace

} // namespace queryResultTest
