#pragma once

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

    /// Whether the system had a descriptor to give; without one nothing can be requested.
    bool valid() const { return m_descriptor >= 0; }
    int descriptor() const { return m_descriptor; }

    /// Safe in a signal handler; leaves errno as it is. Several requests are one.
    void request() const noexcept;
    bool requested() const { return await(std::chrono::milliseconds(0)); }
    /// Waits for a request, no longer than that; whether there is one.
    bool await(std::chrono::milliseconds atMost) const;
    /// Forgets the requests so far.
    void clear() const;

private:
    int m_descriptor;
};

} // namespace oryx
