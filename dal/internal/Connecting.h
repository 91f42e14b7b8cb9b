#pragma once

#include <dal/DatabaseResult.h>

#include <memory>

namespace oryx {

/// Replaces a service's executor by a new one, connected; the old connection is closed first.
template <typename Executor>
DatabaseResult reconnect(std::unique_ptr<Executor>& executor, const char* uri, const char* user, const char* password)
{
    executor = std::make_unique<Executor>();
    DatabaseResult result;
    if (!executor->connect(uri, user, password)) {
        result.setConnectionError();
        result.setErrorMessage(executor->getErrorMessage());
    }
    return result;
}

/// What every operation of a service without an executor answers.
template <typename Executor>
void checkConnected(const std::unique_ptr<Executor>& executor, DatabaseResult& result)
{
    if (!executor) {
        result.setConnectionError();
        result.setErrorMessage("lookup attempted without a database connection");
    }
}

} // namespace oryx
