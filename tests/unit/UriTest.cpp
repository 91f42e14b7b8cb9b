#include <wex/Uri.h>

#include <iterator>
#include <string>

#include <gtest/gtest.h>

namespace uriTest {

namespace {

/// All that a URI says, one part per bracket.
std::string parts(const wex::Uri& uri)
{
    return std::string(uri.isValid() ? "valid" : "invalid") + " [" + uri.getProtocol() + "] [" + uri.getUser() + "] [" +
           uri.getPassword() + "] [" + uri.getHost() + "] [" + std::to_string(uri.getPort()) + "] [" +
           uri.getParameters() + "] [" + uri.getHeaders() + "]";
}

std::string parts(const std::string& text)
{
    return parts(wex::Uri(text));
}

const std::string kInvalid = "invalid [] [] [] [] [0] [] []";

TEST(Uri, givesEveryPart)
{
    EXPECT_EQ(parts("sip:alice:secret@example.com:5070;transport=tcp;lr?Subject=call&Priority=urgent"),
              "valid [sip] [alice] [secret] [example.com] [5070] [transport=tcp;lr] [Subject=call&Priority=urgent]");
}

TEST(Uri, givesEmptyPartsForWhatIsAbsent)
{
    EXPECT_EQ(parts("sip:example.com"), "valid [sip] [] [] [example.com] [0] [] []");
    EXPECT_EQ(parts("sips:bob@example.com"), "valid [sips] [bob] [] [example.com] [0] [] []");
    EXPECT_EQ(parts("sip:bob:@example.com"), "valid [sip] [bob] [] [example.com] [0] [] []");
    EXPECT_EQ(parts("sip:bob@example.com?Subject="), "valid [sip] [bob] [] [example.com] [0] [] [Subject=]");
}

TEST(Uri, keepsEachPartAsItStandsInTheText)
{
    EXPECT_EQ(parts("SIP:%61lice%2541:p%40%7e@Example.COM:05060;X=%41%3b?H=%20%25"),
              "valid [SIP] [%61lice%2541] [p%40%7e] [Example.COM] [5060] [X=%41%3b] [H=%20%25]");
}

TEST(Uri, takesSeparatorsThatTheGrammarAllowsInAUser)
{
    EXPECT_EQ(parts("sip:+1-212-555-1212;phone-context=a?b/c&d=e$,@gw.example.com;user=phone"),
              "valid [sip] [+1-212-555-1212;phone-context=a?b/c&d=e$,] [] [gw.example.com] [0] [user=phone] []");
    EXPECT_EQ(parts("sip:-_.!~*'()@h"), "valid [sip] [-_.!~*'()] [] [h] [0] [] []");
}

TEST(Uri, takesSeparatorsThatTheGrammarAllowsInParametersAndHeaders)
{
    EXPECT_EQ(parts("sip:h;maddr=[::1];a=/:&+$?route=[::1]/?:+$"),
              "valid [sip] [] [] [h] [0] [maddr=[::1];a=/:&+$] [route=[::1]/?:+$]");
}

TEST(Uri, takesAnAddressForAHost)
{
    EXPECT_EQ(parts("sip:a@192.0.2.1:1"), "valid [sip] [a] [] [192.0.2.1] [1] [] []");
    EXPECT_EQ(parts("sip:a@010.255.0.001"), "valid [sip] [a] [] [010.255.0.001] [0] [] []");
    EXPECT_EQ(parts("sip:a@[::1]"), "valid [sip] [a] [] [[::1]] [0] [] []");
    EXPECT_EQ(parts("sip:[2001:DB8::192.0.2.1]:65535;lr"), "valid [sip] [] [] [[2001:DB8::192.0.2.1]] [65535] [lr] []");
}

TEST(Uri, takesAHostnameWithATrailingDotAndDigitsInItsLabels)
{
    EXPECT_EQ(parts("sip:1.2-3.a1.:5060"), "valid [sip] [] [] [1.2-3.a1.] [5060] [] []");
}

class RefusedUri : public testing::TestWithParam<const char*> {};

TEST_P(RefusedUri, isNotValidAndHasNoParts)
{
    EXPECT_EQ(parts(GetParam()), kInvalid);
}

INSTANTIATE_TEST_SUITE_P(Scheme, RefusedUri,
                         testing::Values("", "*", "alice", "alice@example.com", "tel:+12125551212",
                                         "http://example.com", "sipx:a@example.com", ":a@example.com", "sip",
                                         "sip:", "sip://example.com", "<sip:a@example.com>"));

INSTANTIATE_TEST_SUITE_P(Userinfo, RefusedUri,
                         testing::Values("sip:@example.com", "sip::secret@example.com", "sip:a:b:c@example.com",
                                         "sip:a@b@example.com", "sip:a\"b@example.com", "sip:a#b@example.com",
                                         "sip:a[b@example.com", "sip:a:p;q@example.com", "sip:a:p?q@example.com",
                                         "sip:a:p/q@example.com", "sip:\xC3\xA9@example.com"));

INSTANTIATE_TEST_SUITE_P(Host, RefusedUri,
                         testing::Values("sip:a@", "sip:a@-b.example", "sip:a@b-.example", "sip:a@b..example",
                                         "sip:a@.b", "sip:a@.", "sip:a@b..", "sip:a@b_c.example", "sip:a@example.1com",
                                         "sip:a@123", "sip:a@1.2.3", "sip:a@1.2.3.4.5", "sip:a@256.1.1.1",
                                         "sip:a@1.1.1.0001", "sip:a@1.2.3.4.", "sip:a@%41.example", "sip:a@b!c",
                                         "sip:a@b,c", "sip:a@\xC3\xA9.example"));

INSTANTIATE_TEST_SUITE_P(Ipv6Host, RefusedUri,
                         testing::Values("sip:a@::1", "sip:a@[::1", "sip:a@::1]", "sip:a@[]", "sip:a@[:]",
                                         "sip:a@[1:2:3]", "sip:a@[1::2::3]", "sip:a@[12345::]", "sip:a@[::g]",
                                         "sip:a@[::1]x", "sip:a@[fe80::1%25eth0]", "sip:a@[192.0.2.1]", "sip:[::1]@b"));

INSTANTIATE_TEST_SUITE_P(Port, RefusedUri,
                         testing::Values("sip:a@b:", "sip:a@b:;lr", "sip:a@b:?h=v", "sip:a@b:0", "sip:a@b:65536",
                                         "sip:a@b:4294972356", "sip:a@b:99999999999999999999", "sip:a@b:-1",
                                         "sip:a@b:+1", "sip:a@b:50x", "sip:a@b:5060:5060",
                                         "sip:a@[::1]:", "sip:a@b:%35"));

INSTANTIATE_TEST_SUITE_P(ParametersAndHeaders, RefusedUri,
                         testing::Values("sip:a@b;", "sip:a@b;;lr", "sip:a@b;lr;", "sip:a@b;=v",
                                         "sip:a@b;n=", "sip:a@b;n=v=w", "sip:a@b;n=\"v\"", "sip:a@b;n=v@w", "sip:a@b?",
                                         "sip:a@b?h", "sip:a@b?=v", "sip:a@b?h=v&", "sip:a@b?h=v&&i=w", "sip:a@b?h=v=w",
                                         "sip:a@b?h=v;w", "sip:a@b/path", "sip:a@b#fragment"));

INSTANTIATE_TEST_SUITE_P(Characters, RefusedUri,
                         testing::Values(" sip:a@b", "sip:a@b ", "sip:a b@c", "sip:a@b\r\n", "sip:a\t@b", "sip:a\x01@b",
                                         "sip:a\x7F@b", "sip:%@b", "sip:%4@b", "sip:%4g@b", "sip:a:%zz@b",
                                         "sip:a@b;n=%1", "sip:a@b?h=%", "sip:a%%41@b"));

TEST(Uri, refusesANullTextAndAZeroByte)
{
    const char* null = nullptr;
    EXPECT_EQ(parts(wex::Uri(null)), kInvalid);
    EXPECT_EQ(parts(std::string("sip:a@b\0", 8)), kInvalid);
    EXPECT_EQ(parts(std::string("sip:a@b\0.example", 16)), kInvalid);
}

TEST(Uri, takesTextFromAnArrayAsFromAString)
{
    EXPECT_EQ(parts(wex::Uri("sip:alice@example.com")), "valid [sip] [alice] [] [example.com] [0] [] []");
}

TEST(Uri, takesLongParts)
{
    const std::string user(100000, 'u');
    std::string escapes;
    for (int i = 0; i < 100000; ++i) {
        escapes += "%41";
    }
    const std::string zeros(1000, '0');
    EXPECT_EQ(parts("sip:" + user + "@b:" + zeros + "5060;n=" + escapes),
              "valid [sip] [" + user + "] [] [b] [5060] [n=" + escapes + "] []");
}

/// The text that the parts make when put together again.
std::string together(const wex::Uri& uri)
{
    const auto behind = [](const char* separator, const std::string& part) {
        return part.empty() ? part : separator + part;
    };
    std::string text = uri.getProtocol() + ":" + uri.getUser() + behind(":", uri.getPassword());
    text += uri.getUser().empty() ? "" : "@";
    text += uri.getHost() + behind(":", uri.getPort() == 0 ? "" : std::to_string(uri.getPort()));
    return text + behind(";", uri.getParameters()) + behind("?", uri.getHeaders());
}

TEST(Uri, losesNothingOfAnyTextItTakes)
{
    const std::string pieces[] = {"sip:", "a",     "@",     ":", ";", "?", "=", "&",
                                  "%41",  "%2541", "[::1]", ".", "5", "/", "#"};
    constexpr unsigned kTexts = 300000;
    unsigned seed = 1;
    unsigned taken = 0;
    for (unsigned i = 0; i < kTexts; ++i) {
        std::string text = "sip:";
        for (unsigned length = 1 + i % 9; length != 0; --length) {
            seed = seed * 1664525U + 1013904223U;
            text += pieces[(seed >> 16U) % std::size(pieces)];
        }
        const wex::Uri uri(text);
        // An empty password leaves its ":" behind, which the parts cannot show.
        if (uri.isValid() && text.find(":@") == std::string::npos) {
            ++taken;
            ASSERT_EQ(together(uri), text);
        }
    }
    EXPECT_GT(taken, 1000U);
}

} // namespace

} // namespace uriTest
