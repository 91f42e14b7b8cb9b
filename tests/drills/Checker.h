#pragma once

#include "drills/Journal.h"

#include <cstddef>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

/// \file
/// Whether what was acknowledged is there.

namespace drill {

/// What the database holds in the end: for each key its value, as a read would tell it, or an extension's state.
using Stored = std::map<std::string, std::string>;

/// The lines of a file, each a key and a value; a key that comes twice is there twice.
struct Snapshot {
    Stored stored;
    std::size_t twice = 0;
    static Snapshot read(const std::string& file);
};

/// What a drill has come to.
///
/// A key belongs to one worker, so its requests have an order. A request that was answered with an error is unknown: it
/// may have taken effect or not, until a read tells, or the next change of its key is acknowledged. Whatever else is
/// read or found in the end was wrong:
struct Verdict {
    std::size_t operations = 0;
    std::size_t acknowledged = 0;
    std::size_t errors = 0;            ///< Requests answered with an error, or not at all.
    std::size_t lost = 0;              ///< What was acknowledged is not there, or only a part of it.
    std::size_t doubled = 0;           ///< An extension given to two, or something there that was removed or never was.
    std::size_t overtaken = 0;         ///< An older value is in the place of the newer, acknowledged one.
    std::size_t orphaned = 0;          ///< Extensions in use by nobody, beyond those of unknown requests.
    Time longest{0};                   ///< The longest call.
    std::size_t vain = 0;              ///< Releases that took effect, were sent again, and then found nothing.
    std::size_t taken = 0;             ///< Extensions that a release took, sent again, from whom they were given to.
    std::vector<std::string> findings; ///< A line for each of the wrong ones.

    std::size_t wrong() const { return lost + doubled + overtaken; }
    /// Beside the columns that a limit explains: "lost", "doubled", "overtaken".
    std::size_t wrongBeside(const std::set<std::string>& excused) const;
};

/// One journal for each worker; keys of two workers are different.
Verdict judge(const std::vector<std::vector<Entry>>& journals, const Snapshot& end);

/// The longest that it took any worker from any of these moments to its next acknowledged change; -1 s if one had none
/// any more, and nothing if there are no moments.
std::optional<Time> recovery(const std::vector<std::vector<Entry>>& journals, const std::vector<Time>& returns);

} // namespace drill
