#pragma once

#include <dal/internal/AddressMapCache.h>
#include <dal/internal/LocationGuard.h>

#include <utility>

namespace oryx {

/// What the operations that stand beside a service's own need of it.
struct LocationAccess {
    /// Runs an operation of a service that was connected, with one deadline.
    template <typename Operation>
    static DatabaseResult guarded(LocationService& service, Operation operation)
    {
        return service.guarded(std::move(operation));
    }
    static DatabaseCommandExecutor& executor(LocationService& service) { return *service.m_exec; }
    static AddressMapCache& addressMaps(LocationService& service) { return *service.m_addrMap; }
};

} // namespace oryx
