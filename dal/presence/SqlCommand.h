#pragma once

#include <dal/internal/Frame.h>

#include <string>

namespace oryx {

/// Runs any one statement, the library's or a caller's own text: okay when it selected or touched a row, not found when
/// it did neither.
DatabaseResult executeSqlCommand(Frame& frame, Statement&& statement, QueryResult& result);
DatabaseResult executeSqlCommand(Frame& frame, const std::string& text, QueryResult& result);

} // namespace oryx
