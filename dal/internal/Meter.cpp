#include <dal/internal/Meter.h>

#include <dal/internal/Process.h>

#include <util/MaskSecrets.h>
#include <zel/Trace.h>

#include <array>
#include <cstddef>
#include <exception>
#include <new>

namespace oryx {

namespace {

using std::chrono::steady_clock;

/// An outage is told once a minute, however many services meet it.
constexpr std::chrono::minutes kBetweenReports(1);

/// Whether a minute has gone by since this was last so.
bool reportIsDue()
{
    static std::atomic<steady_clock::rep> due = steady_clock::time_point::min().time_since_epoch().count();
    const steady_clock::time_point now = steady_clock::now();
    steady_clock::rep next = due.load(std::memory_order_relaxed);
    return now.time_since_epoch().count() >= next &&
           due.compare_exchange_strong(next, (now + kBetweenReports).time_since_epoch().count());
}

void reportOutage()
{
    if (!zel::Trace::enabled(zel::TraceKind::log) || !reportIsDue()) {
        return;
    }
    try {
        const SessionStatistics all = SessionStatistics::ofProcess();
        zel::Trace("oryx").log(
            "connections to the database are being lost, refused or late: since this process began %llu "
            "were lost, %llu could not be made and %llu were given up for a deadline; the last reason: %s",
            static_cast<unsigned long long>(all.losses), static_cast<unsigned long long>(all.failures),
            static_cast<unsigned long long>(all.late), all.lastError.c_str());
    } catch (const std::exception&) { // it is told in a minute
    }
}

} // namespace

SessionStatistics SessionStatistics::ofProcess()
{
    return Meter::ofProcess().read();
}

/// Never destroyed: connections may end when the program does.
Meter& Meter::ofProcess()
{
    alignas(Meter) static std::array<std::byte, sizeof(Meter)> place;
    static auto* const meter = new (place.data()) Meter;
    return *meter;
}

void Meter::count(Counter Meter::*counter)
{
    (this->*counter).fetch_add(1, std::memory_order_relaxed);
    (ofProcess().*counter).fetch_add(1, std::memory_order_relaxed);
}

void Meter::keep(std::string_view prefix, std::string_view error)
{
    try {
        const std::string masked =
            maskSecrets(std::string(prefix).append(error.substr(0, error.find_last_not_of('\n') + 1)));
        const auto now = std::chrono::system_clock::now();
        Meter& all = ofProcess();
        const std::lock_guard lock(mutexAcrossForks());
        for (Meter* const meter : {this, &all}) {
            meter->m_lastError = masked;
            meter->m_lastErrorAt = now;
        }
    } catch (const std::exception&) { // the counters tell enough
    }
}

void Meter::failed(std::string_view why)
{
    count(&Meter::m_failures);
    keep("", why);
    reportOutage();
}

void Meter::lost(std::string_view why)
{
    count(&Meter::m_losses);
    keep("", why);
    reportOutage();
}

void Meter::refused(std::string_view sqlState)
{
    count(&Meter::m_refusals);
    keep("a statement was refused: ", sqlState);
}

void Meter::ranLate(std::string_view why)
{
    count(&Meter::m_late);
    keep("", why);
    reportOutage();
}

/// What is not the longest here is not the longest of the process either.
void Meter::keepLongest(Ticks time)
{
    for (Meter* const meter : {this, &ofProcess()}) {
        Ticks longest = meter->m_longest.load(std::memory_order_relaxed);
        while (time > longest && !meter->m_longest.compare_exchange_weak(longest, time, std::memory_order_relaxed)) {
        }
    }
}

SessionStatistics Meter::read() const
{
    SessionStatistics statistics;
    statistics.connects = m_connects;
    statistics.failures = m_failures;
    statistics.losses = m_losses;
    statistics.repetitions = m_repetitions;
    statistics.refusals = m_refusals;
    statistics.late = m_late;
    statistics.longest = std::chrono::duration_cast<std::chrono::milliseconds>(TickClock::duration(m_longest));
    const std::lock_guard lock(mutexAcrossForks());
    statistics.lastError = m_lastError;
    statistics.lastErrorAt = m_lastErrorAt;
    return statistics;
}

} // namespace oryx
