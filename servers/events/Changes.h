#pragma once

#include <common/Bell.h>
#include <common/Loop.h>
#include <common/Ring.h>
#include <events/Notifier.h>

#include <dal/ChangeListener.h>

#include <atomic>
#include <memory>
#include <set>
#include <string>

namespace oryx::sip {

/// Brings what is heard from the database to the SIP thread, in order and without a lock.
class Changes {
public:
    /// On the thread that listens.
    void hear(const ChangeSet& changes);
    /// From now on the notifier is told, on the loop's thread.
    void tell(Loop& loop, Notifier& notifier);
    /// Nobody is told any more.
    void stop(Loop& loop)
    {
        m_stopped = true;
        loop.unwatch(m_bell.descriptor());
    }

private:
    /// The presentities of whom something else is published; or anything may have changed.
    struct News {
        bool anything = false;
        std::set<std::string> presentities;
    };

    Ring<News, 256> m_news;
    Bell m_bell;
    std::atomic<bool> m_stopped{false};
};

} // namespace oryx::sip
