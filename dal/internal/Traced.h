#pragma once

#include <zel/Trace.h>

namespace oryx {

/// Traces a text that has nothing to fill in. For what stands on the way of every statement: while tracing is off it
/// does not even make a call.
inline void traceProgress(const zel::Trace& trace, const char* text)
{
    if (zel::Trace::enabled(zel::TraceKind::prn)) {
        trace.prn("%s", text);
    }
}

} // namespace oryx
