#pragma once

#include <common/Loop.h>
#include <common/Workers.h>
#include <events/Notifier.h>
#include <events/Store.h>

namespace oryx::sip {

/// Takes away, every second, what has expired in the database with nobody asking for it: publications, and
/// registrations with what has been subscribed to from there. That may be very much: no request waits for its worker,
/// and each piece is seen to before the next, since nobody hears of it again.
class Sweeper {
public:
    /// The worker is one, and the sweeper's alone from `start` on.
    Sweeper(Loop& loop, Workers<EventSession>& worker, Notifier& notifier)
        : m_worker(worker), m_notifier(notifier), m_timer(loop, [this] { sweep(); })
    {
    }

    void start() { m_timer.set(std::chrono::seconds(1)); }
    void end() { m_ended = true; } ///< With the piece that is under way.

private:
    void sweep();

    Workers<EventSession>& m_worker;
    Notifier& m_notifier;
    Timer m_timer;
    bool m_ended = false;
};

} // namespace oryx::sip
