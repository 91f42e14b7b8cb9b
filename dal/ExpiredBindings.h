#pragma once

#include <dal/DatabaseResult.h>
#include <dal/PresenceDal.h>
#include <util/OryxExport.h>

#include <cstddef>
#include <vector>

namespace oryx {

class PresenceService;

/// How many bindings one `removeExpiredBindings` removes.
/// \ingroup expired_bindings
inline constexpr std::size_t kMostExpiredBindings = 5000;

/// Removes up to `kMostExpiredBindings` contacts that expired before the current second of the database's clock; never
/// permanent ones, nor those that have no expiry. One statement, one round trip. It waits for nobody: what somebody
/// has locked is left for the next time. Who registers one of them again, or another of the same address of record,
/// waits for this one statement at the most.
///
/// Appends what was removed, each contact once for every address of record on its set, in no particular order, with the
/// same fields filled as by `PresenceService::flushExpiredContacts`; one whose set has no address is removed without
/// being given. Where as many are appended as are removed at the most, there may be more. What was removed by a
/// statement whose answer was lost is not given, nor where there is no memory for it.
///
/// Okay, also when there was none; connection or query error, with nothing appended.
/// \ingroup expired_bindings
ORYX_EXPORT DatabaseResult removeExpiredBindings(PresenceService& service, std::vector<ExtendedContactRecord>& removed);

} // namespace oryx
