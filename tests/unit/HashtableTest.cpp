#include <Hashtable.h>

#include <memory>
#include <sstream>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

namespace hashtableTest {

namespace {

template <typename Value>
std::string shown(const Value* value)
{
    std::ostringstream text;
    value ? text << *value : text << "none";
    return text.str();
}

TEST(Hashtable, givesTheValueLastPut)
{
    Hashtable<std::string> table;
    table.put("user", "alice");
    table.put("host", "example.com");
    table.put("user", "bob");
    EXPECT_EQ(shown(table.get("user")), "bob");
    EXPECT_EQ(shown(table.get("host")), "example.com");
    EXPECT_EQ(table.size(), 2U);
}

TEST(Hashtable, tellsAMissingKeyFromOneThatIsFalse)
{
    Hashtable<bool> marks;
    marks.put("sales-17", false);
    EXPECT_EQ(shown(marks.get("sales-17")), "0");
    EXPECT_TRUE(marks.containsKey("sales-17"));
    EXPECT_EQ(shown(marks.get("sales-18")), "none");
    EXPECT_FALSE(marks.containsKey("sales-18"));
}

TEST(Hashtable, looksUpAPieceOfALongerText)
{
    Hashtable<int> table;
    table.put("user", 1);
    const std::string_view reference = "user@host";
    EXPECT_EQ(shown(table.get(reference.substr(0, 4))), "1");
    EXPECT_EQ(shown(table.get(reference.substr(0, 5))), "none");
}

TEST(Hashtable, distinguishesKeysByCaseAndTakesTheEmptyOne)
{
    Hashtable<int> table;
    table.put("a", 1);
    table.put("A", 2);
    table.put("", 3);
    EXPECT_EQ(table.size(), 3U);
    EXPECT_EQ(shown(table.get("")), "3");
}

TEST(Hashtable, removesOneKeyOrAll)
{
    Hashtable<int> table;
    table.put("a", 1);
    table.put("b", 2);
    table.put("c", 3);
    EXPECT_TRUE(table.remove("a"));
    EXPECT_FALSE(table.remove("a"));
    EXPECT_EQ(shown(table.get("a")), "none");
    EXPECT_EQ(table.size(), 2U);
    table.clear();
    EXPECT_EQ(shown(table.get("b")), "none");
    EXPECT_EQ(table.size(), 0U);
}

TEST(Hashtable, takesOverAValueThatCannotBeCopied)
{
    Hashtable<std::unique_ptr<int>> table;
    table.put("a", std::make_unique<int>(1));
    table.put("a", std::make_unique<int>(2));
    const std::unique_ptr<int>* value = table.get("a");
    EXPECT_EQ(value ? **value : 0, 2);
}

} // namespace

} // namespace hashtableTest
