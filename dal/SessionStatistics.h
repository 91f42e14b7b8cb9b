#pragma once

#include <util/OryxExport.h>

#include <chrono>
#include <cstdint>
#include <string>

namespace oryx {

/// What has become of the connections and statements of a service, of an executor, or of the whole process: counted
/// since it was made, over all its connections. May be read while other threads use it.
struct ORYX_EXPORT SessionStatistics {
    std::uint64_t connects = 0;    ///< Connections made, the first ones too.
    std::uint64_t failures = 0;    ///< Attempts to connect that failed.
    std::uint64_t losses = 0;      ///< Connections found lost.
    std::uint64_t repetitions = 0; ///< Statements sent again.
    std::uint64_t refusals = 0;    ///< Statements that the server refused; a repeated one counts once.
    std::uint64_t late = 0;        ///< Operations that ran into their deadline.

    /// How long a statement has taken at most, resets and repetitions included; in steps of the kernel's tick, which is
    /// 10 milliseconds at most.
    std::chrono::milliseconds longest{0};

    /// The last of the failures, losses, refusals and deadlines, without a value or a password: libpq's words, or the
    /// SQLSTATE. Empty while there was none.
    std::string lastError;
    /// When that was.
    std::chrono::system_clock::time_point lastErrorAt;

    /// What all services and executors of this process have counted together, those that are gone too.
    static SessionStatistics ofProcess();
};

} // namespace oryx
