#pragma once

#include <atomic>

namespace oryx::sip {

/// Something that wakes another thread which waits for its descriptor.
class Bell {
public:
    Bell();
    ~Bell();
    Bell(const Bell&) = delete;
    Bell& operator=(const Bell&) = delete;

    void ring();
    /// Waits until it has been rung, once or several times since the last call.
    void await();
    int descriptor() const { return m_descriptor; }

private:
    int m_descriptor;
    std::atomic<bool> m_rung{false}; // once is enough until it is heard
};

} // namespace oryx::sip
