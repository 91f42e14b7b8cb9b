#pragma once

#include <functional>
#include <string>

/// Runs a function in a child process: what it says there, which must be short, or what it throws, or the signal that
/// ended it.
std::string saidInChild(const std::function<std::string()>& say);
