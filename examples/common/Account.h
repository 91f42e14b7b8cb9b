// What the examples share: who connects, and the account they give of themselves on standard output.

#pragma once

#include <dal/DatabaseResult.h>
#include <util/MaskSecrets.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <type_traits>

/// An environment variable; empty when it is not set.
inline std::string environment(const char* name)
{
    const char* const value = std::getenv(name);
    return value != nullptr ? value : "";
}

inline const char* name(oryx::DatabaseResult::status status)
{
    switch (status) {
    case oryx::DatabaseResult::OKAY:
        return "okay";
    case oryx::DatabaseResult::CONNECTION_ERROR:
        return "connection error";
    case oryx::DatabaseResult::QUERY_ERROR:
        return "query error";
    case oryx::DatabaseResult::NOTFOUND:
        return "not found";
    case oryx::DatabaseResult::CONSTRAINT_ERROR:
        return "constraint violated";
    }
    return "unknown";
}

/// Prints a step and its outcome, passwords masked; true when it is okay.
inline bool report(const std::string& step, const oryx::DatabaseResult& result)
{
    std::printf("%-52s %s\n", oryx::maskSecrets(step).c_str(), name(result.getStatus()));
    if (!result.getErrorMessage().empty()) {
        std::printf("    %s\n", oryx::maskSecrets(result.getErrorMessage()).c_str());
    }
    return result.okay();
}

/// Connects a service, an executor or a mere connection as the user that PGUSER and PGPASSWORD name, as with every
/// PostgreSQL client; false, with the reason printed, when that fails.
template <typename Connection>
bool connectFromEnvironment(Connection& connection, const std::string& database)
{
    const std::string user = environment("PGUSER");
    if (user.empty()) {
        std::fprintf(stderr, "PGUSER must name the user to connect as\n");
        return false;
    }
    const std::string password = environment("PGPASSWORD");
    const auto outcome = connection.connect(database.c_str(), user.c_str(), password.c_str());
    oryx::DatabaseResult result;
    if constexpr (std::is_same_v<decltype(outcome), const bool>) { // below the services
        if (!outcome) {
            result.setConnectionError();
            result.setErrorMessage(connection.getErrorMessage());
        }
    } else {
        result = outcome;
    }
    return report("connect to " + database, result);
}
