#pragma once

#include <dal/DatabaseCommandExecutor.h>
#include <dal/LocationService.h>
#include <dal/internal/Call.h>

namespace oryx {

template <typename Operation>
DatabaseResult LocationService::guarded(Operation operation)
{
    if (!m_exec) {
        DatabaseResult result;
        checkConnect(result);
        return result;
    }
    Frame& frame = frameOf(*m_exec);
    return frame.guarded([&] {
        const Call call(frame);
        return operation();
    });
}

} // namespace oryx
