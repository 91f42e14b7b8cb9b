#pragma once

#include <common/Database.h>
#include <common/Options.h>
#include <common/Subscribers.h>

#include <chrono>
#include <string_view>
#include <thread>

namespace oryx::sip {

/// What a worker holds: a session with the database, and what it remembers of subscribers. All that is about an address
/// of record comes to the same worker, so nothing of this is shared. `Service` is one of the library's services.
template <typename Service>
class SessionOf {
public:
    /// What it asks the database may take as long as is asked for, if that is longer than what requests have.
    SessionOf(const Options& options, const Provisioning& provisioning, const Nonces& nonces,
              std::chrono::milliseconds patience = std::chrono::milliseconds::zero())
        : m_options(options), m_provisioning(provisioning), m_subscribers(provisioning, nonces), m_patience(patience)
    {
    }

    /// Connects, and sees that it is known what is served; or waits for a moment after it failed.
    bool connect()
    {
        m_connected = m_connected || connectAnew();
        if (m_connected && m_provisioning.known()) {
            return true;
        }
        std::this_thread::sleep_for(kReconnectPause);
        return false;
    }
    Service& service() { return m_service; }
    /// Does what tasks have left to be done together; here none of them leaves anything.
    void settle() {}
    /// Whether the credentials are those of the address' subscriber, for a request of that method.
    Verdict authenticate(const Address& address, const Credentials& credentials, std::string_view method)
    {
        const auto lookup = [this](const Address& of, SubscriberRecord& subscriber) {
            const char* const handle = of.handle.c_str(); // the services take their texts in two ways
            const char* const domain = of.domain.c_str();
            return m_service.lookupSubscriber(handle, domain, subscriber);
        };
        return m_subscribers.authenticate(address, credentials, method, lookup);
    }

private:
    /// A deadline is a connection's, and holds while that is made, too: a patient session finds out with the ordinary
    /// one whether the database is there, lest it hangs on one that is silent.
    bool connectAnew()
    {
        SessionOptions options = sessionOptions();
        bool connected = connectWith(options);
        if (connected && options.deadline < m_patience) {
            options.deadline = m_patience;
            connected = connectWith(options);
        }
        return connected;
    }
    bool connectWith(const SessionOptions& options)
    {
        m_service.setSessionOptions(options);
        return m_service.connect(m_options.database.c_str(), m_options.user.c_str(), m_options.password.c_str()).okay();
    }

    const Options& m_options;
    const Provisioning& m_provisioning;
    Subscribers m_subscribers;
    std::chrono::milliseconds m_patience;
    Service m_service;
    bool m_connected = false;
};

} // namespace oryx::sip
