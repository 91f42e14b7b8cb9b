#pragma once

#include <dal/SessionOptions.h>

#include <chrono>

namespace oryx::sip {

/// How a server's sessions send: bound unless ORYX_STATEMENTS says otherwise, and with a deadline that lets a server
/// which is told to end do so within two seconds.
SessionOptions sessionOptions();

/// How long to wait before connecting again.
constexpr std::chrono::milliseconds kReconnectPause{50};

} // namespace oryx::sip
