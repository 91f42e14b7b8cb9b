#include <dal/UtilityConvert.h>

#include <dal/internal/Number.h>

#include <StringTokenizer.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <memory>
#include <utility>

namespace oryx {

namespace {

/// Long enough for the largest float with ten decimals.
using Buffer = std::array<char, 64>;

int upper(unsigned char c)
{
    return std::islower(c) != 0 ? std::toupper(c) : c;
}

int lower(unsigned char c)
{
    return std::isupper(c) != 0 ? std::tolower(c) : c;
}

double parseDouble(const std::string& s, bool& status)
{
    if (s.empty()) {
        return 0;
    }
    char* end = nullptr;
    const double value = std::strtod(s.c_str(), &end);
    status = errno == 0 && end == s.c_str() + s.size();
    return value;
}

/// Calls a parser for a caller who does not want its flag.
template <typename Number>
Number withoutStatus(Number (*parse)(const std::string&, bool&), const std::string& s)
{
    bool ignored = false;
    return parse(s, ignored);
}

} // namespace

const std::string UtilityConvert::TRUE_STRING = "TRUE";
const std::string UtilityConvert::FALSE_STRING = "FALSE";

std::string UtilityConvert::numberToString(int value)
{
    return std::to_string(value);
}

std::string UtilityConvert::numberToString(unsigned int value)
{
    return std::to_string(value);
}

std::string UtilityConvert::numberToString(long value)
{
    return std::to_string(value);
}

std::string UtilityConvert::numberToString(unsigned long value)
{
    return std::to_string(value);
}

std::string UtilityConvert::numberToString(float value)
{
    Buffer buffer{};
    std::snprintf(buffer.data(), buffer.size(), "%#.6f", static_cast<double>(value));
    return buffer.data();
}

std::string UtilityConvert::numberToString(double value)
{
    Buffer buffer{};
    std::snprintf(buffer.data(), buffer.size(), "%#.6g", value);
    return buffer.data();
}

std::string UtilityConvert::numberToString(float value, unsigned int precision)
{
    constexpr unsigned int kMostDecimals = 10;
    const int decimals = precision == 0 || precision > kMostDecimals ? 6 : static_cast<int>(precision);
    Buffer buffer{};
    std::snprintf(buffer.data(), buffer.size(), "%#.*f", decimals, static_cast<double>(value));
    std::printf("float: %s\n", buffer.data());
    return buffer.data();
}

std::string UtilityConvert::itoa(int value, unsigned int base)
{
    constexpr unsigned int kLeastBase = 2;
    constexpr unsigned int kMostBase = 16;
    if (base < kLeastBase || base > kMostBase) {
        return {};
    }
    constexpr std::size_t kMostDigits = 30;
    std::string digits;
    unsigned int magnitude = value < 0 ? 0U - static_cast<unsigned int>(value) : static_cast<unsigned int>(value);
    for (; magnitude != 0 && digits.size() < kMostDigits; magnitude /= base) {
        digits += "0123456789abcdef"[magnitude % base];
    }
    if (value < 0) {
        digits += '-';
    }
    std::reverse(digits.begin(), digits.end());
    return digits;
}

const std::string& UtilityConvert::boolToString(bool value)
{
    return value ? TRUE_STRING : FALSE_STRING;
}

long UtilityConvert::stringToLong(const std::string& s, bool& status)
{
    long value = 0;
    if (!s.empty()) {
        status = stringToInteger(s, value);
    }
    return value;
}

unsigned long UtilityConvert::stringToULong(const std::string& s, bool& status)
{
    unsigned long value = 0;
    if (!s.empty()) {
        status = stringToInteger(s, value);
    }
    return value;
}

int UtilityConvert::stringToInt(const std::string& s, bool& status)
{
    const long value = stringToLong(s, status);
    return status ? static_cast<int>(value) : std::numeric_limits<int>::max();
}

unsigned int UtilityConvert::stringToUInt(const std::string& s, bool& status)
{
    return static_cast<unsigned int>(stringToULong(s, status));
}

float UtilityConvert::stringToFloat(const std::string& s, bool& status)
{
    return static_cast<float>(parseDouble(s, status));
}

double UtilityConvert::stringToDouble(const std::string& s, bool& status)
{
    return parseDouble(s, status);
}

bool UtilityConvert::stringToInteger(const std::string& s, long& integer)
{
    errno = 0;
    char* end = nullptr;
    const long long value = std::strtoll(s.c_str(), &end, 10);
    const long long inRange = std::clamp<long long>(value, INT32_MIN, INT32_MAX);
    integer = static_cast<long>(inRange);
    if (inRange != value) {
        errno = ERANGE;
    }
    return errno == 0 && end == s.c_str() + s.size();
}

bool UtilityConvert::stringToInteger(const std::string& s, unsigned long& integer)
{
    errno = 0;
    char* end = nullptr;
    const unsigned long long value = std::strtoull(s.c_str(), &end, 10);
    // A minus sign negates within the type, as strtoul has it: the sign is taken off before the range is checked.
    const bool negative = std::find(s.c_str(), static_cast<const char*>(end), '-') != end;
    const unsigned long long magnitude = negative ? 0 - value : value;
    if (magnitude > UINT32_MAX) {
        errno = ERANGE;
    }
    const auto low = static_cast<std::uint32_t>(magnitude);
    integer = errno != 0 ? UINT32_MAX : negative ? 0U - low : low;
    return errno == 0 && end == s.c_str() + s.size();
}

int UtilityConvert::stringToInt(const std::string& s)
{
    return withoutStatus<int>(stringToInt, s);
}

unsigned int UtilityConvert::stringToUInt(const std::string& s)
{
    return withoutStatus<unsigned int>(stringToUInt, s);
}

long UtilityConvert::stringToLong(const std::string& s)
{
    return withoutStatus<long>(stringToLong, s);
}

unsigned long UtilityConvert::stringToULong(const std::string& s)
{
    return withoutStatus<unsigned long>(stringToULong, s);
}

float UtilityConvert::stringToFloat(const std::string& s)
{
    return withoutStatus<float>(stringToFloat, s);
}

double UtilityConvert::stringToDouble(const std::string& s)
{
    return withoutStatus<double>(stringToDouble, s);
}

std::string& UtilityConvert::toLowerCase(std::string& s)
{
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return static_cast<char>(lower(c)); });
    return s;
}

std::string& UtilityConvert::toUpperCase(std::string& s)
{
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return static_cast<char>(upper(c)); });
    return s;
}

std::string UtilityConvert::utf8ToAscii(const std::string& utf8)
{
    constexpr unsigned int kFirstFolded = 128;
    constexpr unsigned int kOffset = 122;
    const auto digit = [](unsigned int half) { return static_cast<unsigned int>("0123456789ABCDEF"[half]); };
    std::string folded = utf8;
    for (char& c : folded) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= kFirstFolded) {
            c = static_cast<char>(digit(byte >> 4U) + digit(byte & 0xFU) + kOffset);
        }
    }
    return folded;
}

std::string& UtilityConvert::safeCharPointerToString(std::string& s, char* p, bool toDeleteCharPointer)
{
    const std::unique_ptr<char[]> owned(toDeleteCharPointer ? p : nullptr);
    return safeCharPointerToString(s, p);
}

std::string UtilityConvert::safeCharPointerToString(char* p, bool toDeleteCharPointer)
{
    std::string s;
    return std::move(safeCharPointerToString(s, p, toDeleteCharPointer));
}

std::string& UtilityConvert::safeCharPointerToString(std::string& s, const char* p)
{
    try {
        s.assign(p != nullptr ? p : "");
    } catch (...) {
        s.clear();
    }
    return s;
}

std::string UtilityConvert::safeCharPointerToString(const char* p)
{
    std::string s;
    return std::move(safeCharPointerToString(s, p));
}

void stringLower(const char* str, std::string& out)
{
    out.assign(str != nullptr ? str : "");
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
}

void stringLower(const std::string& str, std::string& out)
{
    stringLower(str.c_str(), out);
}

int monthToInt(const std::string& m)
{
    static constexpr std::array kMonths{"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                        "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const auto* const month = std::find(kMonths.begin(), kMonths.end(), m);
    return month != kMonths.end() ? static_cast<int>(month - kMonths.begin()) : -1;
}

time_t convertTime(const char* ts)
{
    if (ts == nullptr) {
        return 0;
    }
    constexpr int kTokens = 7; // weekday, month, day, hour, minute, second, year
    StringTokenizer tokens(ts, ":- .");
    if (tokens.countTokens() != kTokens) {
        return 0;
    }
    tokens.nextToken(); // the weekday follows from the date
    const int month = monthToInt(tokens.nextToken());
    if (month == -1) {
        return 0;
    }
    const auto number = [&] { return leadingInt(tokens.nextToken().c_str()); };
    constexpr int kFirstYear = 1900;
    std::tm local{};
    local.tm_mon = month;
    local.tm_mday = number();
    local.tm_hour = number();
    local.tm_min = number();
    local.tm_sec = number();
    local.tm_year = number() - kFirstYear;
    local.tm_isdst = -1;
    const time_t seconds = std::mktime(&local);
    return seconds != -1 ? seconds : 0;
}

} // namespace oryx
