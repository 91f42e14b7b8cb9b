#include "drills/Late.h"

#include "drills/Children.h"
#include "drills/Jobs.h"
#include "drills/Load.h"
#include "drills/Network.h"
#include "support/Proxy.h"
#include "support/Server.h"

#include <chrono>
#include <cstdlib>
#include <functional>
#include <future>
#include <map>
#include <string>
#include <thread>

namespace drill {

namespace {

/// How long connecting again takes, and how far into it the newer request is sent: more than a second after the older
/// one, so that a start time in seconds tells them apart.
constexpr std::chrono::milliseconds kReconnect(1300);
constexpr std::chrono::milliseconds kNewer(1050);

class Phone {
public:
    Phone(const Account& account, int number, const std::string& folder)
        : m_number(number),
          m_name("c" + std::to_string(number) + ".0"),
          m_marks(folder + "/marks"),
          m_journal(folder + "/journal/" + std::to_string(number)),
          m_slow(account, m_journal),
          m_other(account, m_journal)
    {
    }

    void connect()
    {
        m_other.connect();
        server::port();                              // the relay's way to the server, read before
        setenv("PGPORT", m_relay.port().c_str(), 1); // for the connections to come
        m_slow.connect();
        m_relay.delay(kReconnect);
    }

    void work(const std::string& change, const Stop& stop)
    {
        const std::map<std::string, void (Phone::*)()> changes{{"registration", &Phone::registration},
                                                               {"refresh", &Phone::refresh},
                                                               {"removal", &Phone::removal},
                                                               {"release", &Phone::release}};
        while (!stop.isThere()) {
            (this->*changes.at(change))();
        }
    }

private:
    int address() const { return m_number * kAddresses + 1; }

    void late(const std::function<void()>& older, const std::function<void()>& newer)
    {
        const std::size_t before = m_relay.losses();
        m_relay.lose({server::Proxy::Loss::answer});
        auto repeated = std::async(std::launch::async, older);
        std::this_thread::sleep_for(kNewer);
        newer();
        repeated.get();
        m_marks.fault(m_relay.losses() - before);
    }

    /// Followed by a removal.
    void registration()
    {
        const long cseq = ++m_cseq;
        late([this, cseq] { m_slow.registerContacts(address(), m_name, cseq); },
             [this] { m_other.removeContacts(address(), m_name); });
        m_other.lookUpContacts(m_name);
        m_other.removeContacts(address(), m_name);
    }

    /// Followed by another one.
    void refresh()
    {
        m_other.registerContacts(address(), m_name, ++m_cseq);
        const long older = ++m_cseq;
        late([this, older] { m_slow.refreshContacts(address(), m_name, older); },
             [this] { m_other.refreshContacts(address(), m_name, ++m_cseq); });
        m_other.lookUpContacts(m_name);
        m_other.removeContacts(address(), m_name);
    }

    /// Followed by a new registration.
    void removal()
    {
        m_other.registerContacts(address(), m_name, ++m_cseq);
        late([this] { m_slow.removeContacts(address(), m_name); },
             [this] { m_other.registerContacts(address(), m_name, ++m_cseq); });
        m_other.lookUpContacts(m_name);
        m_other.removeContacts(address(), m_name);
    }

    /// Followed by the next reservation. There is an extension for each phone, and none for the third conference,
    /// unless a late release takes one from the second.
    void release()
    {
        const std::string extension = m_other.reserve().seen;
        std::string second = kAbsent;
        late([this, &extension] { m_slow.release(extension); }, [this, &second] { second = m_other.reserve().seen; });
        const std::string third = m_other.reserve().seen;
        for (const std::string& held : {second, third}) {
            if (held != kAbsent) {
                m_other.readExtension(held);
                m_other.release(held);
            }
        }
    }

    int m_number;
    std::string m_name;
    Marks m_marks;
    server::Proxy m_relay;
    Journal m_journal;
    Jobs m_slow;
    Jobs m_other;
    long m_cseq = 0;
};

} // namespace

void runLate(const Account& account, const std::string& folder, const std::string& change)
{
    // In processes, each of which has its own way to the server in PGPORT.
    runChildren(kWorkers, [&](int number) {
        Phone phone(account, number, folder);
        phone.connect();
        phone.work(change, Stop(folder));
    });
}

} // namespace drill
