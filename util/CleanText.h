#pragma once

#include <util/OryxExport.h>

#include <string_view>

/// \file
/// What a server asks of every text that came from the network, before it hands it to the library.
///
/// The library splices texts into its plain statements as they are, between single quotes; bound ones have them beside
/// the statement, where a quote is a character (the guide says where it is not). A clean text means itself there, and
/// leaves the rest of the statement as it is; nothing is ever altered. The server may still refuse it for what it is:
/// too long for a key (about 2,700 bytes), or no number where one is meant.
///
/// - A single quote ends the value. What follows is read as SQL.
/// - A NUL ends the whole statement for libpq.
/// - Invalid UTF-8 is refused by the server, whose databases are UTF-8: cut sequences, overlong forms, surrogates,
///   numbers beyond U+10FFFF. (A `PGCLIENTENCODING` in the environment would give the bytes another meaning: set none.)
/// - A backslash is an ordinary character of a value while `standard_conforming_strings` is on, PostgreSQL's default
///   since 9.1; turn it off for no session of the library's. In a search (`like '%%...%%'`) it is the escape character
///   and changes what follows it, the library's own pattern behind the value included.
///
/// A percent or an underscore in a search matches more than itself: a search for "a_b" finds "axb" too. It does not
/// change the statement and is clean; a server to whom it matters looks at what was found.
///
/// Regular expressions (`getAllConfExtRecord`, `getCMforBulkSub` if asked to match them) and statements
/// (`executeSqlCmd`, `selectMultipleConfExtRecords`) are the caller's own words. No text from the network belongs
/// there, clean or not.

namespace oryx {

/// Where a text goes.
/// \ingroup checks
enum class TextUse {
    value,   ///< stored, or compared as a whole: everywhere but in a search
    pattern, ///< searched for: getIncomingSubscriptions, getOutgoingSubscribes, getSources, getWatchers
};

/// Whether a text can be handed to the library. May be called by any thread at any time.
/// \ingroup checks
ORYX_EXPORT bool isCleanText(std::string_view text, TextUse use = TextUse::value);
/// Why it cannot, as a phrase for a log: one of its flaws. Null when it is clean.
/// \ingroup checks
ORYX_EXPORT const char* textFlaw(std::string_view text, TextUse use = TextUse::value);

} // namespace oryx
