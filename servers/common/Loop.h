#pragma once

#include <common/Sofia.h>

#include <chrono>
#include <functional>
#include <memory>
#include <vector>

namespace oryx::sip {

/// The thread that all of SIP runs on: messages, transactions and timers of the stack, and what others hand to it.
class Loop {
public:
    Loop();
    ~Loop();
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;

    su_root_t* root() const { return m_root; }
    /// Calls `ready` on this thread whenever the descriptor can be read, until `unwatch`, which comes before it is
    /// closed.
    void watch(int descriptor, std::function<void()> ready);
    void unwatch(int descriptor);
    /// Runs until `stop`, which may be called by what runs on it.
    void run() { su_root_run(m_root); }
    void stop() { su_root_break(m_root); }

private:
    struct Watch;

    su_root_t* m_root;
    std::vector<std::unique_ptr<Watch>> m_watches;
};

/// Calls once, on the loop's thread, after a time; not any more when it has been destroyed or set anew.
class Timer {
public:
    Timer(const Loop& loop, std::function<void()> call);
    ~Timer() { su_timer_destroy(m_timer); }
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

    void set(std::chrono::milliseconds after);
    void cancel() { su_timer_reset(m_timer); }
    /// Whether it has yet to call.
    bool isSet() const { return su_timer_is_set(m_timer) != 0; }

private:
    static void expired(void* magic, su_timer_t* timer, void* self);

    std::function<void()> m_call;
    su_timer_t* m_timer;
};

} // namespace oryx::sip
