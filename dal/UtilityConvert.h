#pragma once

#include <util/OryxExport.h>

#include <ctime>
#include <string>

namespace oryx {

/// Conversions between numbers, booleans and text.
///
/// Nothing is thrown but std::bad_alloc. A parser that takes a flag sets it to whether the whole text was a number
/// within range, and leaves it alone for an empty text: callers give it a value first. Whole numbers have the range of
/// 32 bits on every platform.
/// \ingroup conversions
class ORYX_EXPORT UtilityConvert {
public:
    static const std::string TRUE_STRING;  ///< "TRUE".
    static const std::string FALSE_STRING; ///< "FALSE".

    ///@{
    /// The number in decimal digits.
    static std::string numberToString(int value);
    static std::string numberToString(unsigned int value);
    static std::string numberToString(long value);
    static std::string numberToString(unsigned long value);
    ///@}
    /// The number with six decimals.
    static std::string numberToString(float value);
    /// The number with six significant digits, trailing zeros kept.
    static std::string numberToString(double value);
    /// The number with `precision` decimals, 1 to 10; 6 for any other. Writes the result to standard output as well.
    static std::string numberToString(float value, unsigned int precision);
    /// The number in a base from 2 to 16, lower-case digits; empty for any other base, and for 0. At most the 30 lowest
    /// digits.
    static std::string itoa(int value, unsigned int base);
    /// `TRUE_STRING` or `FALSE_STRING`.
    static const std::string& boolToString(bool value);

    ///@{
    /// The number that the text begins with; 0 for an empty text. A number out of range gives the nearest limit and a
    /// false flag.
    static long stringToLong(const std::string& s, bool& status);
    static unsigned long stringToULong(const std::string& s, bool& status);
    ///@}
    /// The number; 2147483647 whenever the flag is false afterwards.
    static int stringToInt(const std::string& s, bool& status);
    /// As `stringToULong` with a flag.
    static unsigned int stringToUInt(const std::string& s, bool& status);
    ///@{
    /// The number that the text begins with; 0 for an empty text. The flag is false too when errno was set before the
    /// call.
    static float stringToFloat(const std::string& s, bool& status);
    static double stringToDouble(const std::string& s, bool& status);
    ///@}
    ///@{
    /// Whether the whole text is a number in range; `integer` gets the number it begins with.
    static bool stringToInteger(const std::string& s, long& integer);
    static bool stringToInteger(const std::string& s, unsigned long& integer);
    ///@}

    ///@{
    /// As with a flag that starts false, for callers who do not read it.
    static int stringToInt(const std::string& s);
    static unsigned int stringToUInt(const std::string& s);
    static long stringToLong(const std::string& s);
    static unsigned long stringToULong(const std::string& s);
    static float stringToFloat(const std::string& s);
    static double stringToDouble(const std::string& s);
    ///@}

    ///@{
    /// Changes `s` in place, by the process's locale, and returns it.
    static std::string& toLowerCase(std::string& s);
    static std::string& toUpperCase(std::string& s);
    ///@}
    /// Folds every byte of 128 and above into one other byte; as long as the input, and not reversible.
    static std::string utf8ToAscii(const std::string& utf8);

    ///@{
    /// The text at `p`, empty for null; with `s`, set there, and `s` returned. With `toDeleteCharPointer`, `p` came
    /// from `new char[]` and is released.
    static std::string& safeCharPointerToString(std::string& s, char* p, bool toDeleteCharPointer);
    static std::string safeCharPointerToString(char* p, bool toDeleteCharPointer);
    static std::string& safeCharPointerToString(std::string& s, const char* p);
    static std::string safeCharPointerToString(const char* p);
    ///@}
};

///@{
/// Sets `out` to the lower-case form of `str`, to empty for null.
/// \ingroup conversions
ORYX_EXPORT void stringLower(const char* str, std::string& out);
ORYX_EXPORT void stringLower(const std::string& str, std::string& out);
///@}

/// 0 to 11 for the English abbreviations "Jan" to "Dec" as written, -1 for anything else.
/// \ingroup conversions
ORYX_EXPORT int monthToInt(const std::string& m);

/// Seconds since the epoch of a local time in the layout of ctime, "Wed Dec 17 07:37:16 1997"; 0 on every failure.
/// \ingroup conversions
ORYX_EXPORT time_t convertTime(const char* ts);

} // namespace oryx
