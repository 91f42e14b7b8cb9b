#pragma once

#include <dal/PresenceDatabaseCommandExecutor.h>
#include <dal/PresenceService.h>
#include <dal/internal/Call.h>

namespace oryx {

/// What the operations that stand beside a service's own need of it.
struct PresenceAccess {
    /// Runs an operation of a service that was connected, with one deadline; it gets what the executor stands on.
    template <typename Operation>
    static DatabaseResult guarded(PresenceService& service, Operation operation)
    {
        DatabaseResult result;
        service.checkConnect(result);
        if (!result.okay()) {
            return result;
        }
        Frame& frame = frameOf(*service.m_exec);
        return frame.guarded([&] {
            const Call call(frame);
            return operation(frame);
        });
    }
};

} // namespace oryx
