#pragma once

#include <atomic>
#include <chrono>

namespace oryx {

/// A request to stop, from any thread or signal handler to whoever waits: a descriptor that has input while there is
/// one, to be watched beside others.
class StopSignal {
public:
    StopSignal();
    ~StopSignal();
    StopSignal(const StopSignal&) = delete;
    StopSignal& operator=(const StopSignal&) = delete;

    /// Makes it this process's own, where it was made before a fork: parent and child would stop each other.
    void adopt();
    /// Whether the system had a descriptor to give; without one nothing can be requested.
    bool valid() const { return m_descriptor >= 0; }
    int descriptor() const { return m_descriptor; }

    /// Safe in a signal handler; leaves errno as it is. Several requests are one. Ignored where it is another
    /// process's.
    void request() const noexcept;
    bool requested() const { return await(std::chrono::milliseconds(0)); }
    /// Waits for a request, no longer than that; whether there is one.
    bool await(std::chrono::milliseconds atMost) const;
    /// Forgets the requests so far.
    void clear() const;

private:
    int m_descriptor;
    std::atomic<unsigned> m_generation;
};

} // namespace oryx
