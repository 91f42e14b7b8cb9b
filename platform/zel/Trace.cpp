#include <zel/Trace.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <mutex>
#include <utility>

#include <zel/internal/BuiltInSink.h>

namespace zel {

constinit std::atomic<unsigned> Trace::s_kinds{kUndecided};

/// Which kinds go anywhere, for those who decide it.
struct TracedKinds {
    static constexpr unsigned kLog = Trace::bit(TraceKind::log);
    static constexpr unsigned kEverything = Trace::bit(TraceKind::prn) | kLog;

    static bool undecided() { return Trace::s_kinds.load(std::memory_order_relaxed) == Trace::kUndecided; }
    static void decide(unsigned kinds) { Trace::s_kinds.store(kinds, std::memory_order_relaxed); }
};

namespace {

struct Current {
    std::mutex mutex;
    std::shared_ptr<const TraceSink> sink; ///< Null while tracing is off.
};

/// Never destroyed: destructors that run at exit may trace.
Current& current()
{
    static auto* const instance = new Current;
    return *instance;
}

/// Makes `next` the current sink and leaves the previous one in it, to be released when the mutex no longer is held: a
/// sink's destructor may trace. The caller holds the mutex.
void exchange(Current& state, std::shared_ptr<const TraceSink>& next)
{
    const auto* builtIn = next ? next->target<BuiltInSink>() : nullptr;
    const unsigned accepted = builtIn && builtIn->failuresOnly() ? TracedKinds::kLog : TracedKinds::kEverything;
    TracedKinds::decide(next ? accepted : 0);
    state.sink.swap(next);
}

std::shared_ptr<const TraceSink> shared(TraceSink sink)
{
    return sink ? std::make_shared<const TraceSink>(std::move(sink)) : nullptr;
}

/// The caller holds the mutex.
void decideFromEnvironment(Current& state)
{
    if (TracedKinds::undecided()) {
        auto sink = shared(sinkFromEnvironment());
        exchange(state, sink);
    }
}

std::shared_ptr<const TraceSink> currentSink()
{
    Current& state = current();
    const std::lock_guard lock(state.mutex);
    return state.sink;
}

void emit(const char* channel, TraceKind kind, std::string_view text)
{
    if (const auto sink = currentSink()) {
        (*sink)(channel, kind, text);
    }
}

/// Diagnostics must not fail what they report on: whatever is thrown on the way to the sink ends here.
__attribute__((format(printf, 3, 0))) void emitFormatted(const char* channel, TraceKind kind, const char* format,
                                                         va_list arguments) noexcept
{
    va_list again;
    va_copy(again, arguments);
    try {
        char line[1024];
        const int length = std::vsnprintf(line, sizeof line, format, arguments);
        if (length < 0) {
            emit(channel, kind, format);
        } else if (const auto size = static_cast<std::size_t>(length); size < sizeof line) {
            emit(channel, kind, {line, size});
        } else {
            std::string whole(size, '\0');
            std::vsnprintf(whole.data(), size + 1, format, again);
            emit(channel, kind, whole);
        }
    } catch (...) {
    }
    va_end(again);
}

} // namespace

unsigned Trace::decidedKinds() noexcept
{
    try {
        Current& state = current();
        const std::lock_guard lock(state.mutex);
        decideFromEnvironment(state);
        return s_kinds.load(std::memory_order_relaxed);
    } catch (...) {
        return 0;
    }
}

TraceSink setTraceSink(TraceSink sink)
{
    auto previous = shared(std::move(sink));
    {
        Current& state = current();
        const std::lock_guard lock(state.mutex);
        decideFromEnvironment(state);
        exchange(state, previous);
    }
    return previous ? *previous : TraceSink();
}

void Trace::prn(const char* format, ...) const
{
    if (enabled(TraceKind::prn)) {
        va_list arguments;
        va_start(arguments, format);
        emitFormatted(m_channel, TraceKind::prn, format, arguments);
        va_end(arguments);
    }
}

void Trace::prn(const std::string& text) const
{
    if (!enabled(TraceKind::prn)) {
        return;
    }
    try {
        emit(m_channel, TraceKind::prn, text);
    } catch (...) {
    }
}

void Trace::log(const char* format, ...) const
{
    if (enabled(TraceKind::log)) {
        va_list arguments;
        va_start(arguments, format);
        emitFormatted(m_channel, TraceKind::log, format, arguments);
        va_end(arguments);
    }
}

} // namespace zel
