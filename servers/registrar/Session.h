#pragma once

#include <common/Session.h>

#include <dal/LocationService.h>

namespace oryx::sip {

/// What a worker of the registrar holds.
using Session = SessionOf<LocationService>;

} // namespace oryx::sip
