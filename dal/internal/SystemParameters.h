#pragma once

#include <dal/internal/Statement.h>
#include <zel/Trace.h>

#include <string>
#include <vector>

/// \file
/// What both executors' reading of a system parameter and of the domain list have in common.

namespace oryx {

/// Whether all three are given; traces it when one is not.
bool systemParameterNamed(zel::Trace& trace, const std::string& application, const std::string& scope,
                          const std::string& name);
/// The query for the value of a row of `system_parameters`.
Statement systemParameterQuery(const std::string& application, const std::string& scope, const std::string& name);
/// Sets `domainName` to the domain at `index`, to empty when there is none, and returns it.
std::string& pickDomain(zel::Trace& trace, const std::vector<std::string>& domains, unsigned int index,
                        std::string& domainName);

} // namespace oryx
