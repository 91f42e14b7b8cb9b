#pragma once

#include "drills/Account.h"

#include <string>

namespace drill {

/// Phones that do not wait for an answer: a change loses its answer, is sent again by the library once it has a
/// connection again, and in between the phone has had a newer one acknowledged through another server.
///
/// The refresh of a registration is followed by another one, its removal by a new registration, and the release of an
/// extension by its next reservation. There must be one extension alone; the first phone uses it.
void runLate(const Account& account, const std::string& folder);

} // namespace drill
