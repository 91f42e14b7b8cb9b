#pragma once

#include "drills/Account.h"

#include <chrono>
#include <string>

namespace drill {

/// How many requests a second a server answers: "refresh" (one binding of any address of record that
/// tests/drills/cluster provisions for this) or "lookup" (its bindings), by so many services at once. The number of
/// requests, and those of a second.
std::string measurePace(const Account& account, const std::string& request, int services, std::chrono::seconds time);

} // namespace drill
