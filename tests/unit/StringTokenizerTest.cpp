#include <StringTokenizer.h>

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace stringTokenizerTest {

namespace {

using Tokens = std::vector<std::string>;

Tokens tokens(const std::string& text, const std::string& delimiters)
{
    StringTokenizer tokenizer(text, delimiters);
    Tokens result;
    while (tokenizer.hasMoreTokens()) {
        result.push_back(tokenizer.nextToken());
    }
    return result;
}

TEST(StringTokenizer, separatesAtEveryCharacterOfTheSet)
{
    EXPECT_EQ(tokens("a,b;c:d e", " ,;:"), (Tokens{"a", "b", "c", "d", "e"}));
}

TEST(StringTokenizer, givesNoEmptyTokens)
{
    EXPECT_EQ(tokens(" , first.example, ;second.example,,", " ,;:"), (Tokens{"first.example", "second.example"}));
}

TEST(StringTokenizer, splitsATimeStampWithABlankPaddedDayIntoSevenTokens)
{
    EXPECT_EQ(tokens("Wed Dec  7 07:37:16 1997", ":- ."), (Tokens{"Wed", "Dec", "7", "07", "37", "16", "1997"}));
}

TEST(StringTokenizer, givesTheWholeTextWithoutDelimiters)
{
    EXPECT_EQ(tokens("a,b", ""), (Tokens{"a,b"}));
    EXPECT_EQ(tokens("a,b", "|"), (Tokens{"a,b"}));
}

TEST(StringTokenizer, hasNoTokensInAnEmptyTextOrInDelimitersAlone)
{
    EXPECT_EQ(tokens("", ","), Tokens{});
    EXPECT_EQ(tokens("", ""), Tokens{});
    EXPECT_EQ(tokens(",,,", ","), Tokens{});
}

TEST(StringTokenizer, keepsAZeroByteInAToken)
{
    const std::string withZero("a\0b", 3);
    EXPECT_EQ(tokens(withZero + ",c", ","), (Tokens{withZero, "c"}));
}

TEST(StringTokenizer, givesAnEmptyTokenWhenNoneIsLeft)
{
    StringTokenizer tokenizer("only", ",");
    EXPECT_EQ(tokenizer.nextToken(), "only");
    EXPECT_FALSE(tokenizer.hasMoreTokens());
    EXPECT_EQ(tokenizer.nextToken(), "");
    EXPECT_EQ(tokenizer.countTokens(), 0U);
}

TEST(StringTokenizer, countsTheTokensStillToComeWithoutTakingAny)
{
    StringTokenizer tokenizer(",a,,b,c,", ",");
    EXPECT_EQ(tokenizer.countTokens(), 3U);
    EXPECT_EQ(tokenizer.countTokens(), 3U);
    EXPECT_EQ(tokenizer.nextToken(), "a");
    EXPECT_EQ(tokenizer.countTokens(), 2U);
    EXPECT_EQ(tokenizer.nextToken(), "b");
}

TEST(StringTokenizer, outlivesTheTextItWasMadeFrom)
{
    auto text = std::make_unique<std::string>("a text too long for the short string buffer, and another");
    StringTokenizer tokenizer(*text, ",");
    text.reset();
    EXPECT_EQ(tokenizer.nextToken(), "a text too long for the short string buffer");
}

} // namespace

} // namespace stringTokenizerTest
