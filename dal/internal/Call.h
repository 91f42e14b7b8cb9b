#pragma once

#include <dal/internal/Frame.h>

namespace oryx {

/// One call of the library's user, as long as it lives: whatever it sends has one deadline together.
class Call {
public:
    explicit Call(Frame& frame) : m_frame(frame) { m_frame.beginCall(); }
    ~Call() { m_frame.endCall(); }
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

private:
    Frame& m_frame;
};

} // namespace oryx
