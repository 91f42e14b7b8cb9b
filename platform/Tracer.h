#pragma once

#include <zel/Trace.h>

/// A trace channel for routine progress alone: every line is a `prn` line of zel::Trace.
/// \ingroup platform
class Tracer : private zel::Trace {
public:
    using zel::Trace::prn;
    using zel::Trace::Trace;
};
