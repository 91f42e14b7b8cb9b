#include "support/FailingNew.h"

#include <dal/UtilityConvert.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <optional>
#include <sstream>
#include <string>

namespace utilityConvertTest {

namespace {

using oryx::convertTime;
using oryx::monthToInt;
using oryx::stringLower;
using oryx::UtilityConvert;

TEST(NumberToString, PrintsWholeNumbersInDecimal)
{
    EXPECT_EQ(UtilityConvert::numberToString(0), "0");
    EXPECT_EQ(UtilityConvert::numberToString(INT_MIN), "-2147483648");
    EXPECT_EQ(UtilityConvert::numberToString(INT_MAX), "2147483647");
    EXPECT_EQ(UtilityConvert::numberToString(4294967295U), "4294967295");
    EXPECT_EQ(UtilityConvert::numberToString(-2147483647L), "-2147483647");
    EXPECT_EQ(UtilityConvert::numberToString(4294967295UL), "4294967295");
}

TEST(NumberToString, PrintsAFloatWithSixDecimals)
{
    EXPECT_EQ(UtilityConvert::numberToString(1.5F), "1.500000");
    EXPECT_EQ(UtilityConvert::numberToString(-0.0625F), "-0.062500");
    EXPECT_EQ(UtilityConvert::numberToString(0.0F), "0.000000");
    EXPECT_EQ(UtilityConvert::numberToString(std::numeric_limits<float>::max()),
              "340282346638528859811704183484516925440.000000");
}

TEST(NumberToString, PrintsADoubleWithSixSignificantDigitsAndAPoint)
{
    EXPECT_EQ(UtilityConvert::numberToString(1.5), "1.50000");
    EXPECT_EQ(UtilityConvert::numberToString(0.0), "0.00000");
    EXPECT_EQ(UtilityConvert::numberToString(100000.0), "100000.");
    EXPECT_EQ(UtilityConvert::numberToString(-1234567.0), "-1.23457e+06");
    EXPECT_EQ(UtilityConvert::numberToString(std::numeric_limits<double>::max()), "1.79769e+308");
}

/// A float with that precision, and what is written to standard output beside it.
std::string printed(float value, unsigned int precision)
{
    testing::internal::CaptureStdout();
    const std::string text = UtilityConvert::numberToString(value, precision);
    return text + "|" + testing::internal::GetCapturedStdout();
}

TEST(NumberToString, PrintsAFloatWithAPrecisionAndWritesItToStandardOutput)
{
    EXPECT_EQ(printed(2.0F, 1), "2.0|float: 2.0\n");
    EXPECT_EQ(printed(-0.0625F, 3), "-0.062|float: -0.062\n");
    EXPECT_EQ(printed(2.0F, 10), "2.0000000000|float: 2.0000000000\n");
    EXPECT_EQ(printed(std::numeric_limits<float>::max(), 10),
              "340282346638528859811704183484516925440.0000000000|"
              "float: 340282346638528859811704183484516925440.0000000000\n");
}

TEST(NumberToString, TakesSixDecimalsForAPrecisionOfNoneOrMoreThanTen)
{
    EXPECT_EQ(printed(2.0F, 0), "2.000000|float: 2.000000\n");
    EXPECT_EQ(printed(2.0F, 11), "2.000000|float: 2.000000\n");
    EXPECT_EQ(printed(2.0F, UINT_MAX), "2.000000|float: 2.000000\n");
}

TEST(Itoa, PrintsInTheBaseAskedFor)
{
    EXPECT_EQ(UtilityConvert::itoa(255, 16), "ff");
    EXPECT_EQ(UtilityConvert::itoa(-10, 2), "-1010");
    EXPECT_EQ(UtilityConvert::itoa(1234567890, 10), "1234567890");
    EXPECT_EQ(UtilityConvert::itoa(0x89abcde, 16), "89abcde");
    EXPECT_EQ(UtilityConvert::itoa(INT_MIN, 10), "-2147483648");
    EXPECT_EQ(UtilityConvert::itoa(INT_MIN, 16), "-80000000");
    EXPECT_EQ(UtilityConvert::itoa(8, 3), "22");
}

TEST(Itoa, IsEmptyForABaseOutsideTwoToSixteen)
{
    EXPECT_EQ(UtilityConvert::itoa(7, 0), "");
    EXPECT_EQ(UtilityConvert::itoa(7, 1), "");
    EXPECT_EQ(UtilityConvert::itoa(7, 17), "");
    EXPECT_EQ(UtilityConvert::itoa(-7, UINT_MAX), "");
}

TEST(Itoa, IsEmptyForZero)
{
    EXPECT_EQ(UtilityConvert::itoa(0, 10), "");
    EXPECT_EQ(UtilityConvert::itoa(0, 2), "");
}

TEST(Itoa, KeepsTheLowestThirtyDigits)
{
    EXPECT_EQ(UtilityConvert::itoa((1 << 30) - 1, 2), std::string(30, '1'));
    EXPECT_EQ(UtilityConvert::itoa(1 << 30, 2), std::string(30, '0'));
    EXPECT_EQ(UtilityConvert::itoa(INT_MAX, 2), std::string(30, '1'));
    EXPECT_EQ(UtilityConvert::itoa(INT_MIN, 2), "-" + std::string(30, '0'));
}

TEST(BoolToString, RefersToTheConstants)
{
    EXPECT_EQ(UtilityConvert::TRUE_STRING, "TRUE");
    EXPECT_EQ(UtilityConvert::FALSE_STRING, "FALSE");
    EXPECT_EQ(&UtilityConvert::boolToString(true), &UtilityConvert::TRUE_STRING);
    EXPECT_EQ(&UtilityConvert::boolToString(false), &UtilityConvert::FALSE_STRING);
}

/// The number and the flag that a parser gives for a flag of false and for one of true before.
template <typename Number>
std::string parsed(Number (*parse)(const std::string&, bool&), const std::string& text)
{
    std::ostringstream out;
    out << std::boolalpha;
    for (bool status : {false, true}) {
        errno = 0;
        out << parse(text, status) << ' ' << status << ' ';
    }
    return out.str();
}

std::string parsedInt(const std::string& text)
{
    return parsed<int>(UtilityConvert::stringToInt, text);
}

std::string parsedUInt(const std::string& text)
{
    return parsed<unsigned int>(UtilityConvert::stringToUInt, text);
}

std::string parsedLong(const std::string& text)
{
    return parsed<long>(UtilityConvert::stringToLong, text);
}

std::string parsedULong(const std::string& text)
{
    return parsed<unsigned long>(UtilityConvert::stringToULong, text);
}

std::string parsedFloat(const std::string& text)
{
    return parsed<float>(UtilityConvert::stringToFloat, text);
}

std::string parsedDouble(const std::string& text)
{
    return parsed<double>(UtilityConvert::stringToDouble, text);
}

TEST(StringToLong, TakesAWholeNumber)
{
    EXPECT_EQ(parsedLong("12"), "12 true 12 true ");
    EXPECT_EQ(parsedLong("-12"), "-12 true -12 true ");
    EXPECT_EQ(parsedLong("+012"), "12 true 12 true ");
    EXPECT_EQ(parsedLong(" \t12"), "12 true 12 true ");
}

TEST(StringToLong, GivesWhatATextBeginsWithAndAFalseFlag)
{
    EXPECT_EQ(parsedLong("12x"), "12 false 12 false ");
    EXPECT_EQ(parsedLong("12 "), "12 false 12 false ");
    EXPECT_EQ(parsedLong("0x10"), "0 false 0 false ");
    EXPECT_EQ(parsedLong("abc"), "0 false 0 false ");
    EXPECT_EQ(parsedLong(" "), "0 false 0 false ");
}

TEST(StringToLong, LeavesTheFlagForAnEmptyText)
{
    EXPECT_EQ(parsedLong(""), "0 false 0 true ");
}

TEST(StringToLong, StopsAtTheLimitsOfThirtyTwoBits)
{
    EXPECT_EQ(parsedLong("2147483647"), "2147483647 true 2147483647 true ");
    EXPECT_EQ(parsedLong("2147483648"), "2147483647 false 2147483647 false ");
    EXPECT_EQ(parsedLong("99999999999999999999"), "2147483647 false 2147483647 false ");
    EXPECT_EQ(parsedLong("-2147483648"), "-2147483648 true -2147483648 true ");
    EXPECT_EQ(parsedLong("-2147483649"), "-2147483648 false -2147483648 false ");
    EXPECT_EQ(parsedLong("-99999999999999999999"), "-2147483648 false -2147483648 false ");
}

TEST(StringToULong, TakesAWholeNumber)
{
    EXPECT_EQ(parsedULong("12"), "12 true 12 true ");
    EXPECT_EQ(parsedULong(" +12"), "12 true 12 true ");
    EXPECT_EQ(parsedULong("12x"), "12 false 12 false ");
    EXPECT_EQ(parsedULong("12 "), "12 false 12 false ");
    EXPECT_EQ(parsedULong("x-12"), "0 false 0 false ");
    EXPECT_EQ(parsedULong(""), "0 false 0 true ");
}

TEST(StringToULong, StopsAtTheLimitsOfThirtyTwoBits)
{
    EXPECT_EQ(parsedULong("4294967295"), "4294967295 true 4294967295 true ");
    EXPECT_EQ(parsedULong("4294967296"), "4294967295 false 4294967295 false ");
    EXPECT_EQ(parsedULong("99999999999999999999"), "4294967295 false 4294967295 false ");
}

TEST(StringToULong, NegatesWithinThirtyTwoBits)
{
    EXPECT_EQ(parsedULong("-1"), "4294967295 true 4294967295 true ");
    EXPECT_EQ(parsedULong(" -0"), "0 true 0 true ");
    EXPECT_EQ(parsedULong("-4294967295"), "1 true 1 true ");
    EXPECT_EQ(parsedULong("-4294967296"), "4294967295 false 4294967295 false ");
    EXPECT_EQ(parsedULong("-18446744073709551615"), "4294967295 false 4294967295 false ");
    EXPECT_EQ(parsedULong("-99999999999999999999"), "4294967295 false 4294967295 false ");
}

TEST(StringToInt, GivesTheLargestIntWheneverTheFlagIsFalse)
{
    EXPECT_EQ(parsedInt("12"), "12 true 12 true ");
    EXPECT_EQ(parsedInt("-2147483648"), "-2147483648 true -2147483648 true ");
    EXPECT_EQ(parsedInt("12x"), "2147483647 false 2147483647 false ");
    EXPECT_EQ(parsedInt("abc"), "2147483647 false 2147483647 false ");
    EXPECT_EQ(parsedInt("2147483648"), "2147483647 false 2147483647 false ");
    EXPECT_EQ(parsedInt("4294967297"), "2147483647 false 2147483647 false ");
    EXPECT_EQ(parsedInt("-2147483649"), "2147483647 false 2147483647 false ");
}

TEST(StringToInt, LeavesTheFlagForAnEmptyText)
{
    EXPECT_EQ(parsedInt(""), "2147483647 false 0 true ");
}

TEST(StringToUInt, HasNoSubstituteForAFailure)
{
    EXPECT_EQ(parsedUInt("4294967295"), "4294967295 true 4294967295 true ");
    EXPECT_EQ(parsedUInt("12x"), "12 false 12 false ");
    EXPECT_EQ(parsedUInt("abc"), "0 false 0 false ");
    EXPECT_EQ(parsedUInt("4294967296"), "4294967295 false 4294967295 false ");
    EXPECT_EQ(parsedUInt(""), "0 false 0 true ");
}

TEST(StringToFloat, TakesADecimalNumber)
{
    EXPECT_EQ(parsedFloat("1.5"), "1.5 true 1.5 true ");
    EXPECT_EQ(parsedFloat(" -2.5e3"), "-2500 true -2500 true ");
    EXPECT_EQ(parsedFloat("1.5x"), "1.5 false 1.5 false ");
    EXPECT_EQ(parsedFloat("1.5 "), "1.5 false 1.5 false ");
    EXPECT_EQ(parsedFloat("abc"), "0 false 0 false ");
    EXPECT_EQ(parsedFloat(""), "0 false 0 true ");
}

TEST(StringToDouble, TakesADecimalNumber)
{
    EXPECT_EQ(parsedDouble("1.5"), "1.5 true 1.5 true ");
    EXPECT_EQ(parsedDouble("1e300"), "1e+300 true 1e+300 true ");
    EXPECT_EQ(parsedDouble("1e400"), "inf false inf false ");
    EXPECT_EQ(parsedDouble("1.5x"), "1.5 false 1.5 false ");
    EXPECT_EQ(parsedDouble("1.5 "), "1.5 false 1.5 false ");
    EXPECT_EQ(parsedDouble("abc"), "0 false 0 false ");
    EXPECT_EQ(parsedDouble(""), "0 false 0 true ");
}

TEST(StringToFloat, NarrowsToAFloat)
{
    EXPECT_EQ(UtilityConvert::stringToFloat("0.1"), 0.1F);
    EXPECT_EQ(UtilityConvert::stringToDouble("0.1"), 0.1);
}

TEST(DecimalParsers, FailWhereAnEarlierCallLeftItsErrno)
{
    bool status = true;
    errno = ENOENT;
    EXPECT_EQ(UtilityConvert::stringToFloat("1.5", status), 1.5F);
    EXPECT_FALSE(status);
    status = true;
    errno = ENOENT;
    EXPECT_EQ(UtilityConvert::stringToDouble("1.5", status), 1.5);
    EXPECT_FALSE(status);
}

TEST(WholeNumberParsers, DoNotMindAnErrnoOfAnEarlierCall)
{
    bool status = false;
    errno = ERANGE;
    EXPECT_EQ(UtilityConvert::stringToLong("12", status), 12);
    EXPECT_TRUE(status);
    status = false;
    errno = ERANGE;
    EXPECT_EQ(UtilityConvert::stringToULong("12", status), 12U);
    EXPECT_TRUE(status);
}

TEST(WholeNumberParsers, LeaveARangeErrorForTheNextDecimalParser)
{
    for (const char* const text : {"2147483648", "9223372036854775808"}) {
        bool status = true;
        UtilityConvert::stringToLong(text, status);
        EXPECT_EQ(errno, ERANGE) << text;
        UtilityConvert::stringToDouble("1.5", status);
        EXPECT_FALSE(status) << text;
    }
    bool status = true;
    UtilityConvert::stringToULong("4294967296", status);
    EXPECT_EQ(errno, ERANGE);
}

/// Whether a text is a whole number of that type, and what is stored.
template <typename Number>
std::string stored(const std::string& text)
{
    Number number = 99;
    const bool whole = UtilityConvert::stringToInteger(text, number);
    return (whole ? "true " : "false ") + std::to_string(number);
}

TEST(StringToInteger, StoresTheNumberWhetherOrNotItIsAllOfTheText)
{
    EXPECT_EQ(stored<long>("-12"), "true -12");
    EXPECT_EQ(stored<long>("-12x"), "false -12");
    EXPECT_EQ(stored<long>("x"), "false 0");
    EXPECT_EQ(stored<long>("2147483648"), "false 2147483647");
    EXPECT_EQ(stored<unsigned long>("12"), "true 12");
    EXPECT_EQ(stored<unsigned long>("12x"), "false 12");
    EXPECT_EQ(stored<unsigned long>("x"), "false 0");
    EXPECT_EQ(stored<unsigned long>("4294967296"), "false 4294967295");
}

TEST(StringToInteger, TakesAnEmptyTextForZero)
{
    EXPECT_EQ(stored<long>(""), "true 0");
    EXPECT_EQ(stored<unsigned long>(""), "true 0");
}

TEST(ParsersWithoutAFlag, GiveTheSameNumbers)
{
    errno = 0;
    EXPECT_EQ(UtilityConvert::stringToInt(""), 2147483647);
    EXPECT_EQ(UtilityConvert::stringToInt("abc"), 2147483647);
    EXPECT_EQ(UtilityConvert::stringToInt("-12"), -12);
    EXPECT_EQ(UtilityConvert::stringToUInt(""), 0U);
    EXPECT_EQ(UtilityConvert::stringToUInt("12x"), 12U);
    EXPECT_EQ(UtilityConvert::stringToLong(""), 0);
    EXPECT_EQ(UtilityConvert::stringToLong("-12x"), -12);
    EXPECT_EQ(UtilityConvert::stringToULong(""), 0U);
    EXPECT_EQ(UtilityConvert::stringToULong("-1"), 4294967295U);
    EXPECT_EQ(UtilityConvert::stringToFloat(""), 0.0F);
    EXPECT_EQ(UtilityConvert::stringToFloat("1.5x"), 1.5F);
    EXPECT_EQ(UtilityConvert::stringToDouble(""), 0.0);
    EXPECT_EQ(UtilityConvert::stringToDouble("-1.5"), -1.5);
}

TEST(ToLowerCase, ChangesItsTextAndReturnsIt)
{
    std::string text = "ALICE@Oryx.Example;Lr=1 \xC3\x84";
    EXPECT_EQ(&UtilityConvert::toLowerCase(text), &text);
    EXPECT_EQ(text, "alice@oryx.example;lr=1 \xC3\x84");
}

TEST(ToUpperCase, ChangesItsTextAndReturnsIt)
{
    std::string text = "alice@Oryx.Example;lr=1 \xC3\xA4";
    EXPECT_EQ(&UtilityConvert::toUpperCase(text), &text);
    EXPECT_EQ(text, "ALICE@ORYX.EXAMPLE;LR=1 \xC3\xA4");
}

TEST(StringLower, ReplacesItsOutTextByALowerCaseCopy)
{
    std::string out = "an earlier text";
    stringLower("ALICE@Oryx.Example 1", out);
    EXPECT_EQ(out, "alice@oryx.example 1");
    stringLower(std::string("BOB"), out);
    EXPECT_EQ(out, "bob");
}

TEST(StringLower, EmptiesItsOutTextForNullAndForAnEmptyText)
{
    std::string out = "an earlier text";
    stringLower(nullptr, out);
    EXPECT_EQ(out, "");
    out = "an earlier text";
    stringLower("", out);
    EXPECT_EQ(out, "");
    out = "an earlier text";
    stringLower(std::string(), out);
    EXPECT_EQ(out, "");
}

TEST(Utf8ToAscii, LeavesAsciiAsItIs)
{
    const std::string text("alice\x7F\n\0bob", 11);
    EXPECT_EQ(UtilityConvert::utf8ToAscii(text), text);
    EXPECT_EQ(UtilityConvert::utf8ToAscii(""), "");
}

TEST(Utf8ToAscii, FoldsEveryOtherByteIntoOneByte)
{
    EXPECT_EQ(UtilityConvert::utf8ToAscii("\xC3"), "\xF0");
    EXPECT_EQ(UtilityConvert::utf8ToAscii("\xA9"), "\xF4");
    EXPECT_EQ(UtilityConvert::utf8ToAscii("\xFF"), "\x06");
    EXPECT_EQ(UtilityConvert::utf8ToAscii("\x80"), "\xE2");
    EXPECT_EQ(UtilityConvert::utf8ToAscii("\x9F"), "\xF9");
    EXPECT_EQ(UtilityConvert::utf8ToAscii("\xA0"), "\xEB");
    EXPECT_EQ(UtilityConvert::utf8ToAscii("Ren\xC3\xA9 \xC3\xA9"), "Ren\xF0\xF4 \xF0\xF4");
}

char* allocated(const char* text)
{
    const std::size_t size = std::strlen(text) + 1;
    return static_cast<char*>(std::memcpy(new char[size], text, size));
}

TEST(SafeCharPointerToString, CopiesTheText)
{
    char text[] = "alice";
    std::string s = "an earlier text";
    EXPECT_EQ(&UtilityConvert::safeCharPointerToString(s, text, false), &s);
    EXPECT_EQ(s, "alice");
    EXPECT_EQ(UtilityConvert::safeCharPointerToString(text, false), "alice");
    EXPECT_EQ(&UtilityConvert::safeCharPointerToString(s, "bob"), &s);
    EXPECT_EQ(s, "bob");
    EXPECT_EQ(UtilityConvert::safeCharPointerToString("bob"), "bob");
}

// That a text is released, as an array and once, is what the address sanitizer sees.
TEST(SafeCharPointerToString, ReleasesTheTextWhenAskedTo)
{
    std::string s = "an earlier text";
    EXPECT_EQ(&UtilityConvert::safeCharPointerToString(s, allocated("alice"), true), &s);
    EXPECT_EQ(s, "alice");
    EXPECT_EQ(UtilityConvert::safeCharPointerToString(allocated("bob"), true), "bob");
}

TEST(SafeCharPointerToString, IsEmptyForNullAndReleasesNothing)
{
    for (const bool release : {false, true}) {
        std::string s = "an earlier text";
        EXPECT_EQ(&UtilityConvert::safeCharPointerToString(s, nullptr, release), &s);
        EXPECT_EQ(s, "");
        EXPECT_EQ(UtilityConvert::safeCharPointerToString(nullptr, release), "");
    }
    std::string s = "an earlier text";
    EXPECT_EQ(&UtilityConvert::safeCharPointerToString(s, nullptr), &s);
    EXPECT_EQ(s, "");
    EXPECT_EQ(UtilityConvert::safeCharPointerToString(nullptr), "");
}

TEST(SafeCharPointerToString, IsEmptyWhenTheTextCannotBeStored)
{
    const std::string longText(1000, 'x');
    char* const releasedText = allocated(longText.c_str());
    std::string s = "an earlier text";
    failNextNew();
    UtilityConvert::safeCharPointerToString(s, releasedText, true);
    EXPECT_EQ(s, "");
    failNextNew();
    EXPECT_EQ(UtilityConvert::safeCharPointerToString(longText.c_str()), "");
}

TEST(MonthToInt, CountsTheEnglishAbbreviationsFromZero)
{
    std::string months;
    for (const char* name : {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"}) {
        months += std::to_string(monthToInt(name)) + " ";
    }
    EXPECT_EQ(months, "0 1 2 3 4 5 6 7 8 9 10 11 ");
}

TEST(MonthToInt, KnowsNoOtherText)
{
    for (const char* name : {"", "jan", "JAN", "Janu", "Ja", " Jan", "1"}) {
        EXPECT_EQ(monthToInt(name), -1) << name;
    }
}

/// Local time is what TZ says, in the form that needs no time-zone files.
class ConvertTimeTest : public testing::Test {
protected:
    void SetUp() override { setTimeZone("UTC0"); }

    void TearDown() override
    {
        if (m_environment) {
            setTimeZone(m_environment->c_str());
        } else {
            unsetenv("TZ");
            tzset();
        }
    }

    static void setTimeZone(const char* zone)
    {
        setenv("TZ", zone, 1);
        tzset();
    }

private:
    static std::optional<std::string> environment()
    {
        const char* const zone = std::getenv("TZ");
        return zone != nullptr ? std::optional<std::string>(zone) : std::nullopt;
    }

    const std::optional<std::string> m_environment = environment();
};

TEST_F(ConvertTimeTest, ReadsTheLayoutOfCtime)
{
    EXPECT_EQ(convertTime("Wed Dec 17 07:37:16 1997"), 882344236);
    EXPECT_EQ(convertTime("Wed Dec 17 07:37:16 1997\n"), 882344236);
}

TEST_F(ConvertTimeTest, ReadsWhatCtimeWrites)
{
    for (const time_t instant : {time_t{1}, time_t{882344236}, time_t{1078012800}, time_t{2147483647}}) {
        EXPECT_EQ(convertTime(std::ctime(&instant)), instant);
    }
}

TEST_F(ConvertTimeTest, TakesADayPaddedWithABlank)
{
    EXPECT_EQ(convertTime("Sun Dec  7 07:37:16 1997"), 881480236);
}

TEST_F(ConvertTimeTest, SeparatesAtColonsHyphensBlanksAndDots)
{
    EXPECT_EQ(convertTime("-Wed.Dec-17 07.37-16:.1997 "), 882344236);
}

TEST_F(ConvertTimeTest, IgnoresTheWeekday)
{
    EXPECT_EQ(convertTime("xyz Dec 17 07:37:16 1997"), 882344236);
}

TEST_F(ConvertTimeTest, TakesLocalTimeAndLetsTheZoneDecideOnDaylightSaving)
{
    setTimeZone("EST5EDT,M4.1.0,M10.5.0");
    EXPECT_EQ(convertTime("Wed Dec 17 07:37:16 1997"), 882344236 + 5 * 3600);
    EXPECT_EQ(convertTime("Tue Jul  1 12:00:00 1997"), 867758400 + 4 * 3600);
}

TEST_F(ConvertTimeTest, TakesTheLeapDayOfACommonYearForTheFirstOfMarch)
{
    EXPECT_EQ(convertTime("Sat Feb 29 00:00:00 1997"), 857174400);
    EXPECT_EQ(convertTime("Sun Feb 29 00:00:00 2004"), 1078012800);
}

TEST_F(ConvertTimeTest, TakesWhatIsNoNumberForZero)
{
    EXPECT_EQ(convertTime("Wed Dec xx 07:37:16 1997"), 880875436);
}

TEST_F(ConvertTimeTest, IsZeroForAnythingButSevenTokens)
{
    for (const char* text : {"", " :-.", "Wed Dec 17 07:37 1997", "Wed Dec 17 07:37:16.5 1997", "1997-12-17 07:37:16",
                             "Wed Dec 17 07:37:16 1997 UTC"}) {
        EXPECT_EQ(convertTime(text), 0) << text;
    }
    EXPECT_EQ(convertTime(nullptr), 0);
}

TEST_F(ConvertTimeTest, IsZeroForAnUnknownMonth)
{
    EXPECT_EQ(convertTime("Wed dec 17 07:37:16 1997"), 0);
    EXPECT_EQ(convertTime("Wed 12 17 07:37:16 1997"), 0);
}

TEST_F(ConvertTimeTest, IsZeroForTheSecondThatStandsForAFailure)
{
    EXPECT_EQ(convertTime("Wed Dec 31 23:59:58 1969"), -2);
    EXPECT_EQ(convertTime("Wed Dec 31 23:59:59 1969"), 0);
}

} // namespace

} // namespace utilityConvertTest
