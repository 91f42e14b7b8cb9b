#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

/// \file
/// What the workers of a drill asked for and what they were told, in files: every request before it is sent, every
/// answer before the next thing is done.

namespace drill {

/// Microseconds since the epoch: shell scripts write such times too (`date +%s%6N`).
using Time = std::chrono::microseconds;
Time now();

/// What is asked of a key.
enum class Kind {
    enter,   ///< Stores it with a value; refused where it is stored already.
    refresh, ///< Gives it a new value, if it is there.
    remove,  ///< Removes it, if it is there.
    look,    ///< Reads it.
    reserve, ///< Takes any idle extension; which one is known from the answer.
    release, ///< Makes an extension idle.
};

/// How a request was answered. An error tells nothing: the change may have taken effect or not. What was not sent,
/// because there was no connection, has surely not.
enum class Outcome { okay, none, error, unsent };

constexpr bool hasFailed(Outcome outcome)
{
    return outcome == Outcome::error || outcome == Outcome::unsent;
}

/// What stands for a value where there is none.
constexpr const char* kAbsent = "-";
/// What is read of an extension that somebody has reserved.
constexpr const char* kInUse = "IN_USE";
/// What is seen of a release that was sent again.
constexpr const char* kRepeated = "again";

struct Answer {
    Time at;
    Outcome outcome;
    std::string seen; ///< The value that was read, or the extension that was reserved; of an error, its words.
};

struct Entry {
    Kind kind;
    std::string key; ///< "contact/c3.7", "dialog/incoming#d3.7.2", "extension/8001"
    long value;      ///< CSeq, of what is stored or refreshed
    Time asked;
    std::optional<Answer> answer; ///< None where the worker was ended before it came.
};

/// One file of a journal; for any thread. Blanks part the words of a line, so no key holds one, and of a value each is
/// written as "_".
class Journal {
public:
    explicit Journal(const std::string& file);
    ~Journal();
    Journal(const Journal&) = delete;
    Journal& operator=(const Journal&) = delete;

    /// Notes a request that is about to be sent; the number that its answer is noted under.
    std::uint64_t ask(Kind kind, const std::string& key, long value = 0);
    void answer(std::uint64_t number, Outcome outcome, const std::string& seen = kAbsent);

    /// The requests of a file in the order in which they were made. The last line may have been cut short with its
    /// writer; any other that is none of a journal is thrown.
    static std::vector<Entry> read(const std::string& file);

private:
    void write(const std::string& line);

    int m_file;
    std::mutex m_mutex;
    std::uint64_t m_count = 0;
};

} // namespace drill
