#include <VariableSubstitution.h>

#include <string>

#include <gtest/gtest.h>

namespace variableSubstitutionTest {

namespace {

Hashtable<std::string> uriVariables()
{
    Hashtable<std::string> variables;
    variables.put("user", "alice");
    variables.put("host", "example.com");
    variables.put("port", "5060");
    variables.put("password", "");
    variables.put("loop", "$user");
    variables.put("with space", "spaced");
    variables.put("", "nameless");
    return variables;
}

std::string filled(const std::string& text, const std::string& marker = "$")
{
    std::string result = "old content";
    VariableSubstitution::subst(text, result, uriVariables(), marker);
    return result;
}

TEST(VariableSubstitution, replacesNamesOfLetters)
{
    EXPECT_EQ(filled("sip:$user@$host:$port"), "sip:alice@example.com:5060");
    EXPECT_EQ(filled("$user"), "alice");
    EXPECT_EQ(filled("$user$host"), "aliceexample.com");
}

TEST(VariableSubstitution, replacesNamesInBraces)
{
    EXPECT_EQ(filled("sip:${user}x@${host}"), "sip:alicex@example.com");
    EXPECT_EQ(filled("${with space}"), "spaced");
}

TEST(VariableSubstitution, takesTheLongestRunOfLettersForAName)
{
    EXPECT_EQ(filled("$users"), "$users");
    EXPECT_EQ(filled("$user1"), "alice1");
    EXPECT_EQ(filled("$user\xC3\xA9"), "alice\xC3\xA9");
}

TEST(VariableSubstitution, leavesUnknownNamesAsTheyStand)
{
    EXPECT_EQ(filled("a $unknown b ${nobody} c $User d"), "a $unknown b ${nobody} c $User d");
}

TEST(VariableSubstitution, leavesAMarkerWithoutANameAsItStands)
{
    EXPECT_EQ(filled("$"), "$");
    EXPECT_EQ(filled("$ $1 ${} $"), "$ $1 ${} $");
    EXPECT_EQ(filled("$$user$"), "$alice$");
}

TEST(VariableSubstitution, leavesAnUnclosedBraceAsItStands)
{
    EXPECT_EQ(filled("${user"), "${user");
    EXPECT_EQ(filled("${host} ${user $port"), "example.com ${user 5060");
    EXPECT_EQ(filled("} ${user"), "} ${user");
}

TEST(VariableSubstitution, takesABracedNameToTheFirstClosingBrace)
{
    EXPECT_EQ(filled("${user}}"), "alice}");
    EXPECT_EQ(filled("${a ${user} $host"), "${a ${user} example.com");
}

TEST(VariableSubstitution, doesNotSearchAValueForVariables)
{
    EXPECT_EQ(filled("$loop ${loop}"), "$user $user");
}

TEST(VariableSubstitution, replacesAVariableByItsEmptyValue)
{
    EXPECT_EQ(filled("a$password:${password}b"), "a:b");
}

TEST(VariableSubstitution, returnsATextWithoutVariablesUnchanged)
{
    EXPECT_EQ(filled("sip:bob@example.com"), "sip:bob@example.com");
    EXPECT_EQ(filled(""), "");
}

TEST(VariableSubstitution, takesAnyTextForAMarker)
{
    EXPECT_EQ(filled("%%user $user %user %%{host}", "%%"), "alice $user %user example.com");
    EXPECT_EQ(filled("$user ${host}", ""), "$user ${host}");
}

TEST(VariableSubstitution, fillsATextInPlace)
{
    std::string text = "a template longer than the short string buffer: $user";
    VariableSubstitution::subst(text, text, uriVariables(), "$");
    EXPECT_EQ(text, "a template longer than the short string buffer: alice");
}

TEST(VariableSubstitution, takesTimeInProportionToTheText)
{
    std::string braces;
    std::string closed;
    for (int i = 0; i < 500000; ++i) {
        braces += "${";
        closed += "${user}";
    }
    EXPECT_EQ(filled(braces), braces);
    EXPECT_EQ(filled(braces + "}"), braces + "}");
    EXPECT_EQ(filled("}" + braces), "}" + braces);
    EXPECT_EQ(filled(closed).size(), 2500000U);
}

} // namespace

} // namespace variableSubstitutionTest
