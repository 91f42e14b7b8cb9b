#pragma once

#include "drills/Account.h"

#include <chrono>
#include <string>

namespace drill {

/// How old what standbys show is: a binding is refreshed by a service for changes, and looked up at once by one for
/// lookups, again and again for a time. A line that tells how many of the lookups found the binding of before, and how
/// long it took until the new one was to be seen.
std::string measureStaleReads(const Account& changes, const Account& lookups, std::chrono::seconds time);

} // namespace drill
