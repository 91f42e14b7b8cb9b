#pragma once

#include "support/DatabaseTest.h"
#include "support/Show.h"

#include <dal/PresenceDatabaseCommandExecutor.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

/// \file
/// What the tests of the event server's statements share.

/// What the server says to a plain statement with `kQuoted` in it.
inline const std::string kBrokenQuery = "query error: " + kBroken + "\n";
inline const std::string kBrokenChange = "connection error: " + kBroken;
/// Updates tell the connection's reason, and nothing was wrong with that.
inline const std::string kRefusedUpdate = "connection error";

inline std::string duplicateOf(const std::string& key)
{
    return ": [23505] ERROR:  duplicate key value violates unique constraint \"" + key + "\"";
}

/// The lines of a listing whose order is the server's choice, in one of ours.
inline std::string sorted(const std::string& listing)
{
    std::istringstream text(listing);
    std::vector<std::string> lines;
    for (std::string line; std::getline(text, line);) {
        lines.push_back(line);
    }
    std::sort(lines.begin(), lines.end());
    return oryx::show(lines);
}

class PresenceTest : public DatabaseTest {
protected:
    void SetUp() override { connect(m_executor); }

    void connect(oryx::PresenceDatabaseCommandExecutor& executor)
    {
        ASSERT_TRUE(executor.connect(m_database.uri().c_str(), server::kUser, server::kPassword))
            << executor.getErrorMessage();
    }

    /// A listing's answer and the records it gives.
    template <typename Record, typename List>
    static std::string listed(const List& list)
    {
        std::vector<Record> records;
        const oryx::DatabaseResult result = list(records);
        return outcome(result) + "\n" + oryx::show(records);
    }

    oryx::PresenceDatabaseCommandExecutor m_executor;
};
