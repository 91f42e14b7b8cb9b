#include <wex/URL.h>

#include <string>

#include <gtest/gtest.h>

namespace urlTest {

namespace {

/// Validity, host and path.
std::string parts(const wex::URL& url)
{
    std::string host = "old host";
    std::string path = "old path";
    url.getHost(host);
    url.getPath(path);
    return std::string(url.isValid() ? "valid" : "invalid") + " [" + host + "] [" + path + "]";
}

std::string parts(const std::string& text)
{
    return parts(wex::URL(text));
}

const std::string kInvalid = "invalid [] []";

TEST(URL, givesHostAndPath)
{
    EXPECT_EQ(parts("postgresql://db.example.com/oryx"), "valid [db.example.com] [oryx]");
    EXPECT_EQ(parts("x-y+z.1://h/a/b"), "valid [h] [a/b]");
    EXPECT_EQ(parts("postgresql://h//a"), "valid [h] [/a]");
}

TEST(URL, takesAnEmptyHostAndAnAbsentPath)
{
    EXPECT_EQ(parts("postgresql:///oryx"), "valid [] [oryx]");
    EXPECT_EQ(parts("postgresql://h"), "valid [h] []");
    EXPECT_EQ(parts("postgresql://h/"), "valid [h] []");
    EXPECT_EQ(parts("postgresql://"), "valid [] []");
    EXPECT_EQ(parts("postgresql://:5432/oryx"), "valid [] [oryx]");
}

TEST(URL, decodesASocketDirectory)
{
    EXPECT_EQ(parts("postgresql://%2Fvar%2frun%2Fpostgresql/oryx"), "valid [/var/run/postgresql] [oryx]");
    EXPECT_EQ(parts("postgresql://%2Ftmp:5433/oryx"), "valid [/tmp] [oryx]");
}

TEST(URL, decodesThePath)
{
    EXPECT_EQ(parts("postgresql://h/a%20b%2Fc%3F%C3%A9%25"), "valid [h] [a b/c?\xC3\xA9%]");
    EXPECT_EQ(parts("postgresql://h/\xC3\xA9"), "valid [h] [\xC3\xA9]");
}

TEST(URL, dropsUserAndPort)
{
    EXPECT_EQ(parts("postgresql://alice@h:5432/oryx"), "valid [h] [oryx]");
    EXPECT_EQ(parts("postgresql://alice:se:cr%40et@h/oryx"), "valid [h] [oryx]");
    EXPECT_EQ(parts("postgresql://alice:p@ss@h:1/oryx"), "valid [h] [oryx]");
    EXPECT_EQ(parts("postgresql://@h:65535"), "valid [h] []");
}

TEST(URL, keepsAHostList)
{
    EXPECT_EQ(parts("postgresql://a,b/oryx"), "valid [a,b] [oryx]");
    EXPECT_EQ(parts("postgresql://u:p@a:5432,b:5433,%2Ftmp,[::1]:5434/oryx"), "valid [a,b,/tmp,::1] [oryx]");
    EXPECT_EQ(parts("postgresql://a,,b,/oryx"), "valid [a,,b,] [oryx]");
}

TEST(URL, takesTheBracketsOffAnIpv6Address)
{
    EXPECT_EQ(parts("postgresql://[2001:db8::1]:5432/oryx"), "valid [2001:db8::1] [oryx]");
    EXPECT_EQ(parts("postgresql://[fe80::1%25eth0]/oryx"), "valid [fe80::1%eth0] [oryx]");
}

TEST(URL, cutsThePathBeforeQueryAndFragment)
{
    EXPECT_EQ(parts("postgresql://h/oryx?sslmode=require&x=a/b"), "valid [h] [oryx]");
    EXPECT_EQ(parts("postgresql://h/oryx#part?"), "valid [h] [oryx]");
    EXPECT_EQ(parts("postgresql://h?a=@b/c"), "valid [h] []");
    EXPECT_EQ(parts("postgresql://h#f"), "valid [h] []");
    EXPECT_EQ(parts("postgresql://h/a@b:c"), "valid [h] [a@b:c]");
}

class RefusedURL : public testing::TestWithParam<const char*> {};

TEST_P(RefusedURL, isNotValidAndHasNoParts)
{
    EXPECT_EQ(parts(GetParam()), kInvalid);
}

INSTANTIATE_TEST_SUITE_P(Scheme, RefusedURL,
                         testing::Values("", "oryx", "oryx@h", "host=h dbname=oryx", "postgresql:oryx",
                                         "postgresql:/oryx", "://h/oryx", "//h/oryx", "1sql://h/oryx", "a_b://h/oryx",
                                         "a%41://h/oryx"));

INSTANTIATE_TEST_SUITE_P(Characters, RefusedURL,
                         testing::Values("x://a b/c", "x://h/a b", "x://h/a\tb", "x://h/a\n", " x://h/a", "x ://h/a",
                                         "x://h/a?\x01", "x://h\x7F/a", "x://h<i/a", "x://h\\i/a", "x://h|i/a",
                                         "x://\xC3\xA9/a"));

INSTANTIATE_TEST_SUITE_P(Escapes, RefusedURL,
                         testing::Values("x://%/a", "x://%2/a", "x://%2g/a", "x://%00/a", "x://h/%", "x://h/a%0",
                                         "x://h/%00", "x://h/%%41", "x://u:%zz@h/a", "x://h/a?%q", "x://h/a#%1"));

INSTANTIATE_TEST_SUITE_P(Port, RefusedURL,
                         testing::Values("x://h:/a", "x://h:0/a", "x://h:65536/a", "x://h:99999999999999999999/a",
                                         "x://h:-1/a", "x://h:5x/a", "x://h:1:2/a", "x://a:1,b:/c", "x://a:x,b:1/c",
                                         "x://[::1]:/a", "x://h:%35/a"));

INSTANTIATE_TEST_SUITE_P(Ipv6Host, RefusedURL,
                         testing::Values("x://[::1/a", "x://::1]/a", "x://[]/a", "x://[h]/a", "x://[::g]/a",
                                         "x://[::1]x/a", "x://x[::1]/a", "x://[::1,::2]/a", "x://::1/a"));

TEST(URL, refusesANullTextAndAZeroByte)
{
    const char* null = nullptr;
    EXPECT_EQ(parts(wex::URL(null)), kInvalid);
    EXPECT_EQ(parts(std::string("x://h/a\0b", 9)), kInvalid);
}

TEST(URL, takesTextFromAnArrayAsFromAString)
{
    EXPECT_EQ(parts(wex::URL("x://h/a")), "valid [h] [a]");
}

} // namespace

} // namespace urlTest
