#pragma once

#include "drills/Account.h"
#include "drills/Table.h"

namespace drill {

/// A burst of 100,000 notifications on a ChangeListener that is slow: all tables must have been named within two
/// seconds, and the listener must be stopped within 100 ms.
Line runBurst(const Account& account);

} // namespace drill
