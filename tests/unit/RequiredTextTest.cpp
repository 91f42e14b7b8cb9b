#include <util/internal/RequiredText.h>

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace requiredTextTest {

namespace {

/// Patterns, each with the text that it is found to need.
using Needs = std::vector<std::pair<std::string, std::string>>;

void expectNeeds(const Needs& needs)
{
    for (const auto& [pattern, text] : needs) {
        EXPECT_EQ(oryx::requiredText(pattern), text) << pattern;
    }
}

TEST(RequiredText, isTheLongestPlainRunOfADialPlansPattern)
{
    expectNeeds({
        {"^sip:1000017@oryx\\.example", "sip:1000017@oryx.example"},
        {"^sips?:(1000017)@oryx\\.example", ":1000017@oryx.example"},
        {"^sips?:(\\+?49)?[0-9]{3,15}@(gw[0-9]{1,2}|proxy)\\.oryx\\.example(:[0-9]{1,5})?(;.*)?$", ""},
        {"^sip:[0-9]{3}@desk\\.oryx\\.example$", "@desk.oryx.example"},
        {"alice.bob", "alice"},
        {"", ""},
    });
}

TEST(RequiredText, isOpenWhereAlternativesOrRepeatedGroupsAre)
{
    expectNeeds({
        {"alice|bob", ""},
        {"sip:(alice|bob)@oryx", ""},
        {"sip:(alice)?@oryx", ""},
        {"sip:(alice)*@oryx", ""},
        {"sip:(alice){0,2}@oryx", ""},
    });
}

TEST(RequiredText, leavesOutWhatARepetitionTakes)
{
    expectNeeds({
        {"abcd*ef", "abc"},
        {"abcd?ef", "abc"},
        {"abcd+ef", "abc"},
        {"abcd{0,3}ef", "abc"},
        {"ab\\.*cde", "cde"},
        {"ab[cd]*efg", "efg"},
    });
}

TEST(RequiredText, takesNothingFromBracketsAndClasses)
{
    expectNeeds({
        {"a[bcdef]gh", "gh"},
        {"a[^]bcdef]gh", "gh"},
        {"a[]bcdef]gh", "gh"},
        {"a[[:alpha:]bcd]gh", "gh"},
        {"a[[.].]bcd]gh", "gh"},
        {"ab\\wcd\\<efg\\1", "efg"},
        {"ab.cde$", "cde"},
    });
}

TEST(RequiredText, takesSignsWithABackslashAsThemselves)
{
    expectNeeds({
        {"a\\|b\\*c", "a|b*c"}, {"\\(a\\)", "(a)"}, {"sales)x@", "sales"}, // needs "sales)x@"
    });
}

TEST(RequiredText, takesNoPartOfACharacterBeyondAscii)
{
    expectNeeds({
        {"m\xc3\xbcller", "ller"},
        {"tab\there", "here"},
    });
}

} // namespace

} // namespace requiredTextTest
