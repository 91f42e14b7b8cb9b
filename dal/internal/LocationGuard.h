#pragma once

#include <dal/DatabaseCommandExecutor.h>
#include <dal/LocationService.h>
#include <dal/internal/Call.h>

namespace oryx {

template <typename Operation>
DatabaseResult LocationService::guarded(Operation operation)
{
    DatabaseResult result;
    checkConnect(result);
    if (!result.okay()) {
        return result;
    }
    const Call call(frameOf(*m_exec));
    return operation();
}

} // namespace oryx
