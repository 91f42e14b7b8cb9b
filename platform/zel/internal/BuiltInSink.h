#pragma once

#include <memory>
#include <string_view>

#include <zel/Trace.h>

namespace spdlog {
class logger;
}

namespace zel {

/// Writes lines to standard error or to a rotating file, with passwords masked.
class BuiltInSink {
public:
    BuiltInSink(std::shared_ptr<spdlog::logger> logger, bool failuresOnly);

    void operator()(std::string_view channel, TraceKind kind, std::string_view text) const;
    bool failuresOnly() const { return m_failuresOnly; }

private:
    std::shared_ptr<spdlog::logger> m_logger;
    bool m_failuresOnly;
};

/// The sink that `ORYX_TRACE` and `ORYX_TRACE_FILE` ask for; empty for none. What is wrong with them is said once, on
/// standard error.
TraceSink sinkFromEnvironment();

} // namespace zel
