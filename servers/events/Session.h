#pragma once

#include <common/Session.h>

#include <dal/PresenceService.h>

namespace oryx::sip {

/// What a worker of the event server holds.
using EventSession = SessionOf<PresenceService>;

} // namespace oryx::sip
