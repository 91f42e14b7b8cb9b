#pragma once

namespace oryx::sip {

/// Something that wakes another thread which waits for its descriptor.
class Bell {
public:
    Bell();
    ~Bell();
    Bell(const Bell&) = delete;
    Bell& operator=(const Bell&) = delete;

    void ring() const;
    /// Waits until it has been rung, once or several times since the last call.
    void await() const;
    int descriptor() const { return m_descriptor; }

private:
    int m_descriptor;
};

} // namespace oryx::sip
