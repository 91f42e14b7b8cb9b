#include <common/Headers.h>

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <string_view>

namespace headersTest {

namespace {

using oryx::sip::parameterOf;

/// As a word, with what tells an empty value from none.
std::string parameter(std::string parameters, std::string_view name)
{
    parameters.shrink_to_fit(); // a sanitizer sees what is read behind it
    url_t uri{};
    uri.url_params = parameters.data();
    const std::optional<std::string_view> value = parameterOf(uri, name);
    return value ? "=" + std::string(*value) : "none";
}

/// RFC 3261 section 19.1.1.
TEST(UriParameter, IsFoundByItsWholeName)
{
    EXPECT_EQ(parameter("transport=tcp;lr;oryx=1.a", "lr"), "=");
    EXPECT_EQ(parameter("transport=tcp;LR;Oryx=1.a", "oryx"), "=1.a");
    EXPECT_EQ(parameter("transport=tcp;lr=;x=a=b", "x"), "=a=b");
    EXPECT_EQ(parameter(";;lr;", "lr"), "=");
    EXPECT_EQ(parameter("x=lr;l;lr1", "lr"), "none");
    EXPECT_EQ(parameter("lr", "lrx"), "none");
    EXPECT_EQ(parameter("", "lr"), "none");
    EXPECT_EQ(parameterOf(url_t{}, "lr"), std::nullopt);
}

/// It once was looked for behind the end of the URI, in what the memory held there.
TEST(UriParameter, IsNotFoundBehindTheLastOne)
{
    for (std::string last : {std::string("lrx"), std::string("transport=udp;lr-of-another-kind-and-long")}) {
        EXPECT_EQ(parameter(last + std::string(1, '\0') + "lr", "lr"), "none");
        EXPECT_EQ(parameter(last, "lr"), "none");
    }
}

} // namespace

} // namespace headersTest
