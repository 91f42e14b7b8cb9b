#include <dal/internal/BoundText.h>

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace boundTextTest {

namespace {

using oryx::BoundText;
using oryx::call;
using oryx::insertion;
using oryx::Parameters;
using oryx::QuotedOrNull;
using oryx::sql;
using oryx::Statement;
using oryx::ValueString;

/// A statement as it is sent: its text, and each parameter behind it in brackets.
std::string shown(const Statement& statement)
{
    const BoundText bound(statement);
    Parameters parameters;
    bound.fill(statement, parameters);
    std::string text = bound.text();
    for (const char* const value : parameters.values) {
        text.append(value != nullptr ? std::string(" [").append(value).append("]") : " NULL");
    }
    return text;
}

TEST(BoundTextTest, LeavesATextWithoutValuesAsItStands)
{
    EXPECT_EQ(shown(sql("SELECT * FROM conf_state WHERE conf_status != 'IN USE';")),
              "SELECT * FROM conf_state WHERE conf_status != 'IN USE';");
}

TEST(BoundTextTest, MakesAParameterOfEveryValueInItsOrder)
{
    EXPECT_EQ(shown(sql("UPDATE contact SET csid={}, address = '{}' WHERE id={} AND active='t';", -7, "sip:a", 8L)),
              "UPDATE contact SET csid=$1, address = $2 WHERE id=$3 AND active='t'; [-7] [sip:a] [8]");
}

TEST(BoundTextTest, TakesWhatStandsAroundAValueIntoItsParameter)
{
    EXPECT_EQ(shown(sql("SELECT 1 WHERE a like '%%{}%%' AND b like '%%{}#%%';", "x", "y")),
              "SELECT 1 WHERE a like $1 AND b like $2; [%%x%%] [%%y#%%]");
}

TEST(BoundTextTest, JoinsTheValuesOfOneQuotedText)
{
    EXPECT_EQ(shown(sql("SELECT 1 WHERE object='{}@{}' and key like '%%{}#{}%%' and n={};", "bob", "oryx.example", "k",
                        "p", 4)),
              "SELECT 1 WHERE object=$1 and key like $2 and n=$3; [bob@oryx.example] [%%k#p%%] [4]");
}

TEST(BoundTextTest, NumbersTheParametersOfAllParts)
{
    Statement statement = sql("SELECT 1 WHERE handle = '{}'", "cm1");
    statement.append(" AND ").append("sip_port = '{}'", "5060").append(";");
    EXPECT_EQ(shown(statement), "SELECT 1 WHERE handle = $1 AND sip_port = $2; [cm1] [5060]");
}

TEST(BoundTextTest, TakesValuesAsTheyAre)
{
    const std::string hostile = "o'hara\\ $1 {} %s; -- /* \" \n";
    EXPECT_EQ(shown(sql("SELECT '{}';", hostile)), "SELECT $1; [" + hostile + "]");
    EXPECT_EQ(shown(sql("SELECT '%%{}%%';", hostile)), "SELECT $1; [%%" + hostile + "%%]");
}

TEST(BoundTextTest, SendsATextThatMayBeNullWithoutItsQuotes)
{
    const std::string route = "<sip:edge.example;lr>";
    const std::string none;
    EXPECT_EQ(shown(sql("VALUES('{}',{},{});", "dialog-1", QuotedOrNull(route), QuotedOrNull(none))),
              "VALUES($1,$2,$3); [dialog-1] [<sip:edge.example;lr>] NULL");
}

TEST(BoundTextTest, TakesNullForAnEmptyText)
{
    const char* const null = nullptr;
    EXPECT_EQ(shown(sql("SELECT '{}','{}';", null, "")), "SELECT $1,$2; [] []");
}

TEST(BoundTextTest, BindsTheListsOfAnInsertion)
{
    ValueString columns;
    columns.add("sid", "o'hara");
    columns.add("ordering", std::string());
    columns.add("scope", "");
    columns.addExplicit("csid", 12);
    EXPECT_EQ(shown(insertion("INSERT INTO contact_set{} VALUES{};", std::move(columns))),
              "INSERT INTO contact_set(sid,ordering,scope,csid) VALUES($1,$2,$3,$4); [o'hara] NULL [] [12]");
}

TEST(BoundTextTest, BindsTheArgumentsOfACall)
{
    ValueString arguments;
    arguments.add("handle", static_cast<const char*>(nullptr));
    arguments.addExplicit("expires", -1);
    EXPECT_EQ(shown(call("SELECT add_contact{}", std::move(arguments))), "SELECT add_contact($1,$2) NULL [-1]");
}

std::string keyOf(const oryx::Statement& statement)
{
    std::string key = "of the statement before";
    BoundText::writeKey(statement, key);
    return key;
}

TEST(BoundTextTest, KnowsAStatementAgainWhateverItsValues)
{
    const auto statement = [](const char* handle) { return sql("SELECT '{}';", handle); };
    EXPECT_EQ(keyOf(statement("a")), keyOf(statement("b")));
    EXPECT_NE(keyOf(statement("a")), keyOf(sql("SELECT '{}' ;", "a")));
}

TEST(BoundTextTest, TellsInsertionsOfOtherColumnsApart)
{
    const auto statement = [](const char* column) {
        ValueString columns;
        columns.add(column, "a");
        return insertion("INSERT INTO node {} VALUES{};", std::move(columns));
    };
    EXPECT_EQ(keyOf(statement("node_id")), keyOf(statement("node_id")));
    EXPECT_NE(keyOf(statement("node_id")), keyOf(statement("other")));
}

TEST(BoundTextTest, HasANameThatBelongsToTheText)
{
    EXPECT_EQ(BoundText(sql("SELECT '{}';", "a")).name(), "oryx_ac461d83ea56049");
    EXPECT_NE(BoundText(sql("SELECT '{}';", "a")).name(), BoundText(sql("SELECT '{}' ;", "a")).name());
}

TEST(BoundTextTest, RefusesANulInAnyValue)
{
    const std::string withNul("a\0b", 3);
    EXPECT_TRUE(BoundText::canBeSent(sql("SELECT '{}';", "a")));
    EXPECT_FALSE(BoundText::canBeSent(sql("SELECT '{}','{}';", "a", withNul)));
    ValueString columns;
    columns.add("event", withNul);
    EXPECT_FALSE(BoundText::canBeSent(insertion("INSERT INTO event_watchers {} VALUES{};", std::move(columns))));
}

} // namespace

} // namespace boundTextTest
