#include <common/Database.h>
#include <common/Provisioning.h>

#include <algorithm>
#include <cctype>
#include <utility>

namespace oryx::sip {

namespace {

ChangeListenerOptions boundListening(bool presence)
{
    ChangeListenerOptions options;
    options.session.statements = SessionOptions::Statements::bound;
    options.followLog = presence;
    options.publications = presence;
    options.accessRules = presence;
    options.parameters = true;
    return options;
}

/// How often the list of domains is read without an announcement: there may be none, as behind a pooler, of a logical
/// copy, or with an earlier release's schema.
constexpr std::chrono::seconds kReadAgain{10};

bool isOfDomains(const ChangedTable& table)
{
    return table.name == "system_parameters";
}

/// What subscribers' secrets are read from; conferences, say, come and go by the minute.
bool isOfSubscribers(const ChangedTable& table)
{
    return table.name == "subscriber" || table.name == "public_address" || table.name == "contact_set";
}

} // namespace

Provisioning::Provisioning(const Options& options, OnChanges onChanges)
    : m_options(options),
      m_onChanges(std::move(onChanges)),
      m_listener(options.database, options.user, options.password, boundListening(m_onChanges != nullptr))
{
    m_executor.setSessionOptions(sessionOptions());
    m_thread = std::thread([this] {
        m_listener.run([this](const ChangeSet& changes) {
            if (std::any_of(changes.tables.begin(), changes.tables.end(), isOfSubscribers)) {
                m_changes.fetch_add(1, std::memory_order_release);
            }
            if (std::any_of(changes.tables.begin(), changes.tables.end(), isOfDomains)) {
                announceDomains();
            }
            if (m_onChanges) {
                m_onChanges(changes);
            }
        });
    });
    m_reader = std::thread([this] { keepDomains(); });
}

Provisioning::~Provisioning()
{
    m_stop = true;
    announceDomains(); // to wake the reader
    m_listener.stop();
    m_thread.join();
    m_reader.join();
    m_domains.reset(m_handedOver.exchange(nullptr));
}

/// The newest list; the one before is thrown away here, where nobody is in the middle of it.
const Provisioning::Domains& Provisioning::domains() const
{
    if (m_handedOver.load(std::memory_order_relaxed) != nullptr) {
        m_domains.reset(m_handedOver.exchange(nullptr, std::memory_order_acquire));
    }
    return *m_domains;
}

bool Provisioning::serves(const std::string& host) const
{
    const Domains& all = domains();
    return std::find(all.begin(), all.end(), host) != all.end();
}

std::string Provisioning::realm() const
{
    const Domains& all = domains();
    return !m_options.realm.empty() || all.empty() ? m_options.realm : all.front();
}

void Provisioning::announceDomains()
{
    const std::lock_guard lock(m_mutex);
    ++m_announced;
    m_called.notify_one();
}

/// In the reader: the listener has more to hear of.
void Provisioning::keepDomains()
{
    unsigned seen = 0;
    std::unique_lock lock(m_mutex);
    while (!m_stop) {
        const std::chrono::milliseconds pause = m_readOf == m_announced ? kReadAgain : kReconnectPause;
        m_called.wait_for(lock, pause, [&] { return seen != m_announced; });
        seen = m_announced;
        lock.unlock();
        m_readOf = !m_stop && readDomains() ? seen : m_readOf.load();
        lock.lock();
    }
}

/// False when it could not be read, and is as it was: better than none.
bool Provisioning::readDomains()
{
    Domains domains;
    m_connected = (m_connected || m_executor.connect(m_options.database.c_str(), m_options.user.c_str(),
                                                     m_options.password.c_str())) &&
                  (m_executor.getDomainNameList(domains) != 0 || m_executor.getErrorMessage().empty());
    if (!m_connected) {
        return false;
    }
    for (std::string& domain : domains) {
        std::transform(domain.begin(), domain.end(), domain.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    }
    handOver(std::move(domains));
    return true;
}

/// Hands the list over to the SIP thread, in the place of one that it has not taken yet.
void Provisioning::handOver(Domains domains)
{
    if (domains != m_read) {
        m_read = domains;
        auto list = std::make_unique<const Domains>(std::move(domains));
        list.reset(m_handedOver.exchange(list.release(), std::memory_order_acq_rel));
        m_changes.fetch_add(1, std::memory_order_release); // the realm may be another, and with it all secrets
    }
    m_known.store(true, std::memory_order_release);
}

} // namespace oryx::sip
