#pragma once

#include "drills/Account.h"
#include "drills/Table.h"

namespace drill {

/// A listing that does not fit into the memory that the process may have: it must answer with an error and leave the
/// caller's records as they were, and the service must go on with what fits.
Line runMemory(const Account& account);

} // namespace drill
