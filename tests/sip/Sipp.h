#pragma once

#include <string>
#include <vector>

/// Has SIPp play one call of a scenario of tests/sip/scenarios with the server on that port. Empty when all came as the
/// scenario says within so many seconds, else what SIPp tells.
std::string playScenario(const std::string& name, int port, const std::vector<std::string>& arguments = {"-m", "1"},
                         int seconds = 20);
