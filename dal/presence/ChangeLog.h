#pragma once

#include <dal/DatabaseResult.h>
#include <dal/PresenceDal.h>
#include <dal/internal/Frame.h>

#include <string>
#include <vector>

namespace oryx {

/// `PresenceDatabaseCommandExecutor::getUpdatedPrimaryKeys`, for whoever has a frame.
DatabaseResult readChangeLog(Frame& frame, const std::string& tableName, const std::string& since,
                             std::vector<DatabaseUpdate>& updates);

} // namespace oryx
