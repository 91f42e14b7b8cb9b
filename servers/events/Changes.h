#pragma once

#include <common/Bell.h>
#include <common/Loop.h>
#include <events/Notifier.h>

#include <dal/ChangeListener.h>

#include <atomic>
#include <optional>
#include <set>
#include <string>

namespace oryx::sip {

/// Brings what is heard from the database to the SIP thread, without a lock.
class Changes {
public:
    /// The notifier, which is there when the loop runs, is told on its thread.
    Changes(Loop& loop, std::optional<Notifier>& notifier);
    ~Changes();
    Changes(const Changes&) = delete;
    Changes& operator=(const Changes&) = delete;

    /// On the thread that listens.
    void hear(const ChangeSet& changes);

private:
    /// The presentities of whom something else is published; or anything may have changed.
    struct News {
        bool anything = false;
        std::set<std::string> presentities;
    };

    void tell();

    Loop& m_loop;
    std::optional<Notifier>& m_notifier;
    std::atomic<News*> m_news{nullptr}; // what has been heard and not told; owned
    Bell m_bell;
};

} // namespace oryx::sip
