#include <dal/internal/Number.h>
#include <dal/internal/Statement.h>

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <utility>

namespace statementTest {

namespace {

using oryx::call;
using oryx::insertion;
using oryx::leadingInt;
using oryx::QuotedOrNull;
using oryx::spliced;
using oryx::sql;
using oryx::Statement;
using oryx::Transaction;
using oryx::ValueString;

TEST(SplicedTest, LeavesATextWithoutGapsAsItStands)
{
    EXPECT_EQ(spliced("SELECT '{', '}', '%s' FROM node;"), "SELECT '{', '}', '%s' FROM node;");
    EXPECT_EQ(spliced(""), "");
}

TEST(SplicedTest, SplicesItsValuesInTheirOrder)
{
    EXPECT_EQ(spliced("UPDATE contact SET csid={} WHERE address='{}' AND csid={};", 7, "sip:alice@example.com", -8L),
              "UPDATE contact SET csid=7 WHERE address='sip:alice@example.com' AND csid=-8;");
    EXPECT_EQ(spliced("{}", "a"), "a");
    EXPECT_EQ(spliced("{}{}", "a", "b"), "ab");
}

TEST(SplicedTest, TakesTextOfEveryKindAndNullAsNothing)
{
    const char* const null = nullptr;
    EXPECT_EQ(spliced("'{}' '{}' '{}' '{}'", "literal", std::string("string"), null, ""), "'literal' 'string' '' ''");
}

TEST(SplicedTest, LeavesQuotesPercentsAndGapsInValuesAsTheyAre)
{
    EXPECT_EQ(spliced("'{}' '{}'", "o'hara {} 100%s", "{}"), "'o'hara {} 100%s' '{}'");
}

TEST(SplicedTest, WritesTheLargestNumbersOfEveryType)
{
    EXPECT_EQ(spliced("{} {}", std::numeric_limits<int>::min(), std::numeric_limits<int>::max()),
              "-2147483648 2147483647");
    EXPECT_EQ(spliced("{} {}", 0, std::numeric_limits<unsigned int>::max()), "0 4294967295");
    EXPECT_EQ(spliced("{} {}", std::numeric_limits<long long>::min(), std::numeric_limits<unsigned long long>::max()),
              "-9223372036854775808 18446744073709551615");
}

TEST(SplicedTest, SplicesLongValuesWhole)
{
    const std::string value(5000, 'x');
    EXPECT_EQ(spliced("'{}','{}';", value, value), "'" + value + "','" + value + "';");
}

TEST(StatementTest, JoinsItsPartsAndTheirValues)
{
    Statement statement = sql("SELECT handle FROM acp WHERE handle = '{}'", "cm1");
    const std::string port = "5060";
    statement.append(" AND sip_port = '{}'", port).append(";");
    EXPECT_EQ(statement.text(), "SELECT handle FROM acp WHERE handle = 'cm1' AND sip_port = '5060';");
    EXPECT_EQ(statement.text(), "SELECT handle FROM acp WHERE handle = 'cm1' AND sip_port = '5060';");
}

TEST(StatementTest, BringsTheQuotesOfATextThatMayBeNullAlong)
{
    const std::string route = "<sip:edge.example;lr>";
    const std::string none;
    EXPECT_EQ(sql("VALUES('{}',{},{},{});", "dialog-1", QuotedOrNull(route), QuotedOrNull(none), 7).text(),
              "VALUES('dialog-1','<sip:edge.example;lr>',NULL,7);");
}

TEST(StatementTest, WritesItsTextInThePlaceOfAnother)
{
    std::string text = "SELECT 1;";
    sql("DELETE FROM contact WHERE address='{}';", "sip:a").writeTo(text);
    EXPECT_EQ(text, "DELETE FROM contact WHERE address='sip:a';");
    sql("DELETE FROM node;").writeTo(text);
    EXPECT_EQ(text, "DELETE FROM node;");
}

TEST(StatementTest, JoinsTheListsOfAnInsertion)
{
    ValueString columns;
    columns.add("sid", "7");
    columns.add("ordering", std::string());
    columns.addExplicit("csid", 12);
    EXPECT_EQ(insertion("INSERT INTO contact_set{} VALUES{};", std::move(columns)).text(),
              "INSERT INTO contact_set(sid,ordering,csid) VALUES('7',NULL,12);");
}

TEST(StatementTest, JoinsTheArgumentsOfACall)
{
    ValueString arguments;
    arguments.add("id", "42");
    EXPECT_EQ(call("SELECT remove_subscriber{}", std::move(arguments)).text(), "SELECT remove_subscriber('42')");
}

TEST(StatementTest, TakesEffectOnceWhereItIsSaid)
{
    const auto said = [](const Statement& statement) {
        return std::string(statement.takesEffectOnce() ? "once" : "") + (statement.keepsAnswer() ? ", answered" : "");
    };
    EXPECT_EQ(said(sql("DELETE FROM contact;")), "");
    EXPECT_EQ(said(sql("DELETE FROM contact;").once()), "once");
    EXPECT_EQ(said(sql("SELECT reserve();").onceAnswered()), "once, answered");
    Statement statement = sql("DELETE FROM contact WHERE csid={}", 7);
    EXPECT_EQ(said(statement.once().append(" AND address='{}';", "sip:a")), "once");
    EXPECT_EQ(statement.text(), "DELETE FROM contact WHERE csid=7 AND address='sip:a';");
}

TEST(TransactionTest, KnowsWhichOfItsStatementsTakeEffectOnce)
{
    Transaction transaction{"BEGIN;", {}, "COMMIT;"};
    transaction.addOnce("DELETE FROM contact WHERE csid={};", 7);
    transaction.add("DELETE FROM node;");
    EXPECT_TRUE(transaction.statements.front().takesEffectOnce());
    EXPECT_FALSE(transaction.statements.back().takesEffectOnce());
    EXPECT_EQ(transaction.text(), "BEGIN;DELETE FROM contact WHERE csid=7;DELETE FROM node;COMMIT;");
}

TEST(TransactionTest, IsItsStatementsInARow)
{
    const Transaction transaction{"BEGIN TRANSACTION;",
                                  {sql("DELETE FROM contact WHERE csid={};", 7), sql("DELETE FROM node;")},
                                  "COMMIT TRANSACTION;"};
    EXPECT_EQ(transaction.text(),
              "BEGIN TRANSACTION;DELETE FROM contact WHERE csid=7;DELETE FROM node;COMMIT TRANSACTION;");
}

TEST(LeadingIntTest, IsTheNumberThatATextBeginsWith)
{
    EXPECT_EQ(leadingInt("12"), 12);
    EXPECT_EQ(leadingInt("-12"), -12);
    EXPECT_EQ(leadingInt(" +12"), 12);
    EXPECT_EQ(leadingInt("12x"), 12);
    EXPECT_EQ(leadingInt("012"), 12);
    EXPECT_EQ(leadingInt("x12"), 0);
    EXPECT_EQ(leadingInt(""), 0);
}

TEST(LeadingIntTest, StopsAtTheLimitsOfAnInt)
{
    EXPECT_EQ(leadingInt("2147483647"), 2147483647);
    EXPECT_EQ(leadingInt("2147483648"), 2147483647);
    EXPECT_EQ(leadingInt("99999999999999999999"), 2147483647);
    EXPECT_EQ(leadingInt("-2147483648"), std::numeric_limits<int>::min());
    EXPECT_EQ(leadingInt("-2147483649"), std::numeric_limits<int>::min());
    EXPECT_EQ(leadingInt("-99999999999999999999"), std::numeric_limits<int>::min());
}

} // namespace

} // namespace statementTest
