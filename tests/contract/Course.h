#pragma once

#include "support/FakeLibpq.h"

#include <string>
#include <vector>

/// Where the running of a statement leaves the operation that asked for it.
enum class Ending { done, notConnected, connectionFailed, queryFailed };

enum class Connection { never, open, lost };

/// One way the running of a statement can go: what libpq does, what is then asked of it, and the reason the caller
/// hears. In both texts "{}" stands for the statement.
struct Course {
    std::string name;
    Connection connection = Connection::open;
    std::vector<ConnStatusType> resets = {};
    std::vector<fake::Reply> replies = {}; // where it ends well, the operation's own reply comes behind these
    std::string calls = {};
    Ending ending = Ending::done;
    std::string reason = {};
};

inline const std::string kServerGone = "server closed the connection unexpectedly\n";
/// The reasons after fake::refused("42601") and after fake::status(PGRES_EMPTY_QUERY).
inline const std::string kRefused = "ERROR:  refused\n, sqlState=42601, sqlcommand={}";
inline const std::string kEmptyQuery = ", sqlState=00000, sqlcommand={}";

/// The text with `value` for each "{}".
inline std::string spliced(std::string text, const std::string& value)
{
    for (std::size_t at = text.find("{}"); at != std::string::npos; at = text.find("{}", at + value.size())) {
        text.replace(at, 2, value);
    }
    return text;
}

/// Lines of the trace, one per text, of one channel.
inline std::string traceLines(const std::string& channel, const std::vector<std::string>& texts)
{
    std::string lines;
    for (const std::string& text : texts) {
        lines.append(channel).append(" prn: ").append(text).append("\n");
    }
    return lines;
}

/// What the connection traces of a statement that came back with the status, which connection and caller look at.
inline std::string answeredTrace(const std::string& statement, ExecStatusType status = PGRES_TUPLES_OK)
{
    const std::string judged =
        "query result status is " + std::to_string(status) + " (', sqlState=00000, sqlcommand=" + statement + "')\n";
    return traceLines("DatabaseConnection", {"executing query", "query returned, setting result", judged, judged});
}

/// The same of a statement that was refused with fake::refused("42601"), and again after the reset.
inline std::string refusedTwiceTrace(const std::string& statement)
{
    const std::string judged = "query result status is 7 ('" + spliced(kRefused, statement) + "')\n";
    return traceLines("DatabaseConnection", {"executing query", "query returned, setting result", judged,
                                             "fatal error, retrying after: PGRES_FATAL_ERROR", judged});
}

/// The same of a rollback that went well, whose outcome nobody looks at.
inline const std::string kRollbackTrace =
    "DatabaseConnection prn: executing query\n"
    "DatabaseConnection prn: query returned, setting result\n"
    "DatabaseConnection prn: query result status is 1 (', sqlState=00000, sqlcommand=ROLLBACK')\n\n";

/// Names the tests of a table after its rows.
inline constexpr auto kRowName = [](const auto& row) { return row.param.name; };

/// Scripts what comes before and during the operation; call it once the connection is made, if it is to be made.
inline void follow(const Course& course, const fake::Reply& reply, fake::Libpq& libpq)
{
    libpq.errorMessage(kServerGone);
    if (course.connection == Connection::lost) {
        libpq.loseConnection();
    }
    libpq.resetsTo(course.resets);
    libpq.replies(course.replies);
    if (course.ending == Ending::done) {
        libpq.replies({reply});
    }
    libpq.take();
}
