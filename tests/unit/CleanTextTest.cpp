#include <util/CleanText.h>

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <string_view>

namespace cleanTextTest {

namespace {

using namespace std::string_literals;
using oryx::TextUse;

const std::string kQuote = "a single quote, which ends the value";
const std::string kNul = "a NUL, which ends the statement";
const std::string kBackslash = "a backslash, which changes the search pattern";
const std::string kInvalid = "invalid UTF-8, which the database refuses";

std::string flaw(std::string_view text, TextUse use)
{
    const char* const found = oryx::textFlaw(text, use);
    EXPECT_EQ(oryx::isCleanText(text, use), found == nullptr);
    return found != nullptr ? found : "clean";
}

/// What is said of a text as a value and as a pattern.
std::string flaws(std::string_view text)
{
    const std::string value = flaw(text, TextUse::value);
    const std::string pattern = flaw(text, TextUse::pattern);
    return value == pattern ? value : value + " / " + pattern;
}

/// What is said of a piece of text alone, and first, between and last among others; said once if it is all the same.
std::string flawsAnywhere(const std::string& piece)
{
    const std::string alone = flaws(piece);
    std::string said = alone;
    for (const std::string& text : {piece + "bob", "alice" + piece + "bob", "alice" + piece}) {
        if (const std::string embedded = flaws(text); embedded != alone) {
            said.append("; in '").append(text).append("' ").append(embedded);
        }
    }
    return said;
}

std::map<std::string, std::string> flawsOfEach(const std::map<std::string, std::string>& pieces)
{
    std::map<std::string, std::string> said;
    for (const auto& [name, piece] : pieces) {
        said[name] = flawsAnywhere(piece);
    }
    return said;
}

std::map<std::string, std::string> allAre(const std::string& flaw, const std::map<std::string, std::string>& pieces)
{
    std::map<std::string, std::string> said;
    for (const auto& [name, piece] : pieces) {
        said[name] = flaw;
    }
    return said;
}

TEST(CleanText, isCleanWhenItIsEmpty)
{
    EXPECT_EQ(flaws(""), "clean");
    EXPECT_EQ(flaws(std::string_view()), "clean");
}

TEST(CleanText, mayHoldWhateverSipHeadersHold)
{
    EXPECT_EQ(flaws("\"J\xC3\xBCrgen (work)\" <sip:alice%20b@[2001:db8::10]:5060;lr;x=\"a,b\">;tag=*~_!$&#?{}|^`@/"),
              "clean");
}

TEST(CleanText, mayHoldWhatWouldEndAStatementOutsideQuotes)
{
    EXPECT_EQ(flaws("; DROP TABLE contact; -- /* $$ \" U& E"), "clean");
    EXPECT_EQ(flaws("%%_"), "clean");
}

TEST(CleanText, mayHoldEveryOtherByteOfAscii)
{
    for (int c = 1; c < 0x80; ++c) {
        if (c != '\'' && c != '\\') {
            EXPECT_EQ(flawsAnywhere(std::string(1, static_cast<char>(c))), "clean") << c;
        }
    }
}

TEST(CleanText, holdsNoQuote)
{
    EXPECT_EQ(flawsAnywhere("'"), kQuote);
    EXPECT_EQ(flawsAnywhere("''"), kQuote);
}

TEST(CleanText, holdsNoQuoteBehindABackslash)
{
    EXPECT_EQ(flawsAnywhere("\\'"), kQuote);
}

TEST(CleanText, holdsNoNul)
{
    EXPECT_EQ(flawsAnywhere("\0"s), kNul);
}

TEST(CleanText, holdsNoBackslashInAPattern)
{
    EXPECT_EQ(flawsAnywhere("\\"), "clean / " + kBackslash);
    EXPECT_EQ(flawsAnywhere("\\\\"), "clean / " + kBackslash);
}

TEST(CleanText, isJudgedAsAValueUnlessAPatternIsMeant)
{
    EXPECT_TRUE(oryx::isCleanText("a\\b"));
    EXPECT_EQ(oryx::textFlaw("a\\b"), nullptr);
    EXPECT_FALSE(oryx::isCleanText("a'b"));
    EXPECT_STREQ(oryx::textFlaw("a'b"), kQuote.c_str());
}

TEST(CleanText, endsWhereItsViewEnds)
{
    EXPECT_EQ(flaws(std::string_view("alice'").substr(0, 5)), "clean");
    EXPECT_EQ(flaws(std::string_view("alice\xC3\xBC").substr(0, 6)), kInvalid);
}

TEST(CleanText, mayHoldEveryCharacterOfUnicode)
{
    const std::map<std::string, std::string> characters{
        {"U+0080", "\xC2\x80"},           {"U+07FF", "\xDF\xBF"},         {"U+0800", "\xE0\xA0\x80"},
        {"U+D7FF", "\xED\x9F\xBF"},       {"U+E000", "\xEE\x80\x80"},     {"U+FEFF", "\xEF\xBB\xBF"},
        {"U+FFFE", "\xEF\xBF\xBE"},       {"U+FFFF", "\xEF\xBF\xBF"},     {"U+10000", "\xF0\x90\x80\x80"},
        {"U+10FFFF", "\xF4\x8F\xBF\xBF"}, {"two", "\xC3\xBC\xE2\x82\xAC"}};
    EXPECT_EQ(flawsOfEach(characters), allAre("clean", characters));
}

TEST(CleanText, holdsNoInvalidUtf8)
{
    const std::map<std::string, std::string> sequences{
        {"lone continuation, lowest", "\x80"},
        {"lone continuation, highest", "\xBF"},
        {"one continuation too many", "\xC3\xBC\x80"},
        {"cut after 1 of 2", "\xC3"},
        {"cut after 1 of 3", "\xE2"},
        {"cut after 2 of 3", "\xE2\x82"},
        {"cut after 1 of 4", "\xF0"},
        {"cut after 2 of 4", "\xF0\x90"},
        {"cut after 3 of 4", "\xF0\x90\x80"},
        {"cut by another character", "\xE2\x82\xC3\xBC"},
        {"overlong slash in 2", "\xC0\xAF"},
        {"overlong U+0000 in 2", "\xC0\x80"},
        {"overlong quote in 2", "\xC0\xA7"},
        {"overlong U+007F in 2", "\xC1\xBF"},
        {"overlong U+0000 in 3", "\xE0\x80\x80"},
        {"overlong U+07FF in 3", "\xE0\x9F\xBF"},
        {"overlong U+0000 in 4", "\xF0\x80\x80\x80"},
        {"overlong U+FFFF in 4", "\xF0\x8F\xBF\xBF"},
        {"surrogate U+D800", "\xED\xA0\x80"},
        {"surrogate U+DFFF", "\xED\xBF\xBF"},
        {"pair of surrogates", "\xED\xA0\x80\xED\xB0\x80"},
        {"U+110000", "\xF4\x90\x80\x80"},
        {"U+13FFFF", "\xF4\xBF\xBF\xBF"},
        {"U+140000", "\xF5\x80\x80\x80"},
        {"first of 5", "\xF8\x88\x80\x80\x80"},
        {"first of 6", "\xFC\x84\x80\x80\x80\x80"},
        {"FE", "\xFE"},
        {"FF", "\xFF"},
        {"Latin-1", "J\xFCrgen"},
    };
    EXPECT_EQ(flawsOfEach(sequences), allAre(kInvalid, sequences));
}

} // namespace

} // namespace cleanTextTest
