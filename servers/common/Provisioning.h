#pragma once

#include <common/Options.h>

#include <dal/ChangeListener.h>
#include <dal/DatabaseCommandExecutor.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace oryx::sip {

/// What provisioning has decided and servers keep: the domains that are served, and how often subscribers have changed.
/// Heard of, or looked for, on threads of its own.
class Provisioning {
public:
    /// Gets the changes, on the thread that hears of them; those of publications and access rules too, and whose
    /// publications have changed.
    using OnChanges = std::function<void(const ChangeSet& changes)>;

    explicit Provisioning(const Options& options, OnChanges onChanges = nullptr);
    ~Provisioning();
    Provisioning(const Provisioning&) = delete;
    Provisioning& operator=(const Provisioning&) = delete;

    /// Whether the list of domains has been read. For any thread, as all but the next two.
    bool known() const { return m_known.load(std::memory_order_acquire); }
    /// Whether the server answers for that host, in lower case. For the SIP thread alone: the list is its own.
    bool serves(const std::string& host) const;
    /// The realm of credentials: the first domain served, unless the command line says another. For the SIP thread
    /// alone.
    std::string realm() const;
    /// Counts up whenever subscribers or addresses may have changed: what was kept of them holds no longer.
    unsigned changes() const { return m_changes.load(std::memory_order_acquire); }
    /// Whether changes are heard of, and taken up.
    bool listening() const { return m_listener.listening() && m_readOf == m_announced; }

private:
    using Domains = std::vector<std::string>;

    const Domains& domains() const;
    bool readDomains();
    void handOver(Domains domains);
    void announceDomains();
    void keepDomains();

    Options m_options;
    OnChanges m_onChanges;
    std::atomic<unsigned> m_changes{0};
    std::atomic<bool> m_known{false};
    std::atomic<bool> m_stop{false};
    mutable std::unique_ptr<const Domains> m_domains = std::make_unique<const Domains>(); // the SIP thread's
    mutable std::atomic<const Domains*> m_handedOver{nullptr}; // to it, which has not taken it yet
    Domains m_read;                                            // from the database; the reader's, as the next two
    DatabaseCommandExecutor m_executor;
    bool m_connected = false;
    std::atomic<unsigned> m_announced{0}; // how often the list was
    std::atomic<unsigned> m_readOf{0};    // up to which announcement
    std::mutex m_mutex;
    std::condition_variable m_called; // the reader
    ChangeListener m_listener;
    std::thread m_thread;
    std::thread m_reader;
};

} // namespace oryx::sip
