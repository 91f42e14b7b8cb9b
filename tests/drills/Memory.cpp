#include "drills/Memory.h"

#include "support/LimitedMemory.h"

#include <algorithm>
#include <vector>

namespace drill {

namespace {

/// What the process may have beyond what it has, at first, and how much more each time: the memory runs out while the
/// rows arrive, and later while they are made into records.
constexpr rlim_t kRoom = 16U << 20U;
constexpr rlim_t kSteps = 64;

/// A listing within so much room: noted in the line, and whether it was okay.
bool list(oryx::PresenceService& service, rlim_t room, Line& line)
{
    std::vector<oryx::PublicAddressRecord> addresses(1);
    oryx::DatabaseResult listing;
    const Time began = now();
    {
        const LimitedMemory limited(room);
        listing = service.getAllPublicAddresses(addresses, false);
    }
    line.verdict.longest = std::max(line.verdict.longest, now() - began);
    ++line.verdict.operations;
    ++(listing.okay() ? line.verdict.acknowledged : line.verdict.errors);
    line.verdict.lost += !listing.okay() && addresses.size() != 1 ? 1U : 0U; // half filled
    return listing.okay();
}

bool lookUp(oryx::PresenceService& service)
{
    int key = 0;
    int csid = 0;
    return service.getPublicAddressKey("c0.0", "oryx.example", key, csid).okay();
}

} // namespace

Line runMemory(const Account& account)
{
    oryx::PresenceService service;
    account.connect(service);
    Line line;
    for (rlim_t step = 1; step <= kSteps && !list(service, step * kRoom, line); ++step) {
        ++line.faults;
        line.verdict.lost += lookUp(service) ? 0U : 1U; // what fits must be answered again
    }
    line.verdict.lost += line.verdict.acknowledged == 1 && line.faults > 0 ? 0U : 1U;
    return line;
}

} // namespace drill
