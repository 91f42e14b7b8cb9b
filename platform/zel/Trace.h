#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <string_view>

#include <util/OryxExport.h>

/// The suite's traces.
namespace zel {

/// The kinds of lines: routine progress (`prn`), failures an operator must see (`log`).
/// \ingroup platform
enum class TraceKind { prn, log };

/// Receives every line of the process, formatted, whole and unaltered: of any length, newlines included. Called on the
/// tracing thread, by several at once; both texts are valid during the call only. What it throws is dropped.
/// \ingroup platform
using TraceSink = std::function<void(std::string_view channel, TraceKind kind, std::string_view text)>;

/// Sets the sink of the process; an empty one turns tracing off.
///
/// Returns the previous sink, empty if tracing was off. A built-in sink comes back as a function too: set again, it
/// goes on as before.
///
/// Safe while other threads trace: a line already under way on another thread may still reach the previous sink after
/// this call. A sink may trace and may set a sink; one that answers every line with a line of its own never ends. A
/// sink lives until the process ends: a program whose sink refers to objects of its own sets another before they go.
/// \ingroup platform
ORYX_EXPORT TraceSink setTraceSink(TraceSink sink);

/// A named channel for diagnostics. All channels share the sink of the process.
///
/// Until the program sets a sink, the environment decides at the first trace: `ORYX_TRACE` unset or `off` nothing,
/// `log` failures only, `all` everything, to standard error or to the file that `ORYX_TRACE_FILE` names. The file is
/// created for its owner alone (mode 0600), rotated at 10 MiB, five older ones are kept beside it, and it belongs to
/// one process; a symbolic link, a file that is not a regular one or has a second hard link, and another user's file
/// are refused, and standard error is used instead. Both settings are ignored in a program that runs with raised
/// privileges (setuid ones, for example). These built-in sinks show the time, thread, channel and kind with each text,
/// in one line: passwords are masked (see `<util/MaskSecrets.h>`), control characters shown escaped (`\\n`, `\\x1b`),
/// and the line feed at a text's end is left out.
///
/// With tracing off a call costs one relaxed load. No operation throws; all are safe from any thread, and from
/// destructors that run at exit.
/// \ingroup platform
class ORYX_EXPORT Trace {
public:
    /// The channel's name is kept as the pointer it is and must outlive the object; a string literal does.
    explicit Trace(const char* channel) noexcept : m_channel(channel ? channel : "") {}

    /// Traces routine progress, as printf formats it.
    void prn(const char* format, ...) const __attribute__((format(printf, 2, 3)));

    /// Traces routine progress: the text as it stands, "%" included.
    void prn(const std::string& text) const;

    /// Traces a failure an operator must see, as printf formats it.
    void log(const char* format, ...) const __attribute__((format(printf, 2, 3)));

    /// True if lines of this kind go anywhere: lets a caller skip making an argument that costs something.
    static bool enabled(TraceKind kind) noexcept
    {
        const unsigned kinds = s_kinds.load(std::memory_order_relaxed);
        return (kinds & bit(kind)) != 0 && (kinds != kUndecided || (decidedKinds() & bit(kind)) != 0);
    }

private:
    friend struct TracedKinds;

    static constexpr unsigned kUndecided = ~0U; // every bit, so that a call need not ask for it while tracing is off
    static constexpr unsigned bit(TraceKind kind) { return 1U << static_cast<unsigned>(kind); }
    // Has the environment decide.
    static unsigned decidedKinds() noexcept;
    // A bit for each kind that goes anywhere: all that a call reads while tracing is off.
    static std::atomic<unsigned> s_kinds;

    const char* m_channel;
};

} // namespace zel
