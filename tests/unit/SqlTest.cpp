#include <dal/internal/Number.h>
#include <dal/internal/Sql.h>

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <string_view>

namespace {

using oryx::appendSql;
using oryx::leadingInt;
using oryx::sql;

TEST(SqlTest, LeavesATextWithoutGapsAsItStands)
{
    EXPECT_EQ(sql("SELECT '{', '}', '%s' FROM node;"), "SELECT '{', '}', '%s' FROM node;");
    EXPECT_EQ(sql(""), "");
}

TEST(SqlTest, SplicesItsValuesInTheirOrder)
{
    EXPECT_EQ(sql("UPDATE contact SET csid={} WHERE address='{}' AND csid={};", 7, "sip:alice@example.com", -8L),
              "UPDATE contact SET csid=7 WHERE address='sip:alice@example.com' AND csid=-8;");
    EXPECT_EQ(sql("{}", "a"), "a");
    EXPECT_EQ(sql("{}{}", "a", "b"), "ab");
}

TEST(SqlTest, TakesTextOfEveryKindAndNullAsNothing)
{
    const char* const null = nullptr;
    EXPECT_EQ(sql("'{}' '{}' '{}' '{}' '{}'", "literal", std::string("string"), std::string_view("view"), null, ""),
              "'literal' 'string' 'view' '' ''");
}

TEST(SqlTest, LeavesQuotesPercentsAndGapsInValuesAsTheyAre)
{
    EXPECT_EQ(sql("'{}' '{}'", "o'hara {} 100%s", "{}"), "'o'hara {} 100%s' '{}'");
}

TEST(SqlTest, WritesTheLargestNumbersOfEveryType)
{
    EXPECT_EQ(sql("{} {}", std::numeric_limits<int>::min(), std::numeric_limits<int>::max()), "-2147483648 2147483647");
    EXPECT_EQ(sql("{} {}", 0, std::numeric_limits<unsigned int>::max()), "0 4294967295");
    EXPECT_EQ(sql("{} {}", std::numeric_limits<long long>::min(), std::numeric_limits<unsigned long long>::max()),
              "-9223372036854775808 18446744073709551615");
}

TEST(SqlTest, SplicesLongValuesWhole)
{
    const std::string value(5000, 'x');
    EXPECT_EQ(sql("'{}','{}';", value, value), "'" + value + "','" + value + "';");
}

TEST(SqlTest, AppendsStatementsToATransaction)
{
    std::string transaction = "BEGIN TRANSACTION;";
    for (const int csid : {7, 8}) {
        appendSql(transaction, "DELETE FROM contact WHERE csid={};", csid);
    }
    appendSql(transaction, "COMMIT TRANSACTION;");
    EXPECT_EQ(transaction, "BEGIN TRANSACTION;DELETE FROM contact WHERE csid=7;DELETE FROM contact WHERE csid=8;COMMIT "
                           "TRANSACTION;");
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
