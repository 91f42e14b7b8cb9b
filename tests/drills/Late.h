#pragma once

#include "drills/Account.h"

#include <string>

namespace drill {

/// Phones that do not wait for an answer: a change loses its answer, is sent again by the library once it has a
/// connection again, and in between the phone has had a newer one acknowledged through another server.
///
/// `change` is what comes late: a "registration", after a removal; a "refresh", after another one; a "removal", after a
/// new registration; or a "release" of an extension, after its next reservation.
void runLate(const Account& account, const std::string& folder, const std::string& change);

} // namespace drill
