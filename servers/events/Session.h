#pragma once

#include <common/Database.h>
#include <common/Session.h>

#include <dal/PresenceService.h>

#include <algorithm>
#include <chrono>
#include <memory>

namespace oryx::sip {

/// What a worker of the event server holds.
using EventSession = SessionOf<PresenceService>;

/// Has one wait longer than requests do, for what goes through whole tables.
inline std::unique_ptr<EventSession> patient(std::unique_ptr<EventSession> session)
{
    SessionOptions options = sessionOptions();
    options.deadline = std::max(options.deadline, std::chrono::milliseconds(30000));
    session->service().setSessionOptions(options);
    return session;
}

} // namespace oryx::sip
