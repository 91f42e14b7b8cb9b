#include <registrar/Session.h>

#include <common/Database.h>

#include <thread>
#include <utility>

namespace oryx::sip {

namespace {

constexpr std::size_t kMostSecrets = 100000;
/// How long they may be kept when no change is heard of, as while the listener has lost its connection.
constexpr std::chrono::seconds kSecretsAge{30};

} // namespace

Session::Session(const Options& options, const Provisioning& provisioning, const Nonces& nonces)
    : m_options(options), m_provisioning(provisioning), m_nonces(nonces)
{
    m_service.setSessionOptions(sessionOptions());
}

bool Session::connect()
{
    m_connected =
        m_connected ||
        m_service.connect(m_options.database.c_str(), m_options.user.c_str(), m_options.password.c_str()).okay();
    if (m_connected && m_provisioning.known()) {
        return true;
    }
    std::this_thread::sleep_for(kReconnectPause);
    return false;
}

Verdict Session::authenticate(const Address& address, const Credentials& credentials, std::string_view method)
{
    const Secrets& secrets = secretsOf(address, credentials.realm);
    if (secrets.verdict != Verdict::accepted) {
        return secrets.verdict;
    }
    const std::string& secret = credentials.algorithm == Algorithm::sha256 ? secrets.sha256 : secrets.md5;
    if (credentials.user != secrets.user || !credentials.match(method, secret)) {
        return Verdict::wrong;
    }
    // Without a count they could be sent again by anybody.
    if (!credentials.qop) {
        return Verdict::wrong;
    }
    const bool fresh = m_nonces.fresh(credentials.nonce) && m_counts.use(credentials.nonce, credentials.count);
    return fresh ? Verdict::accepted : Verdict::stale;
}

const Session::Secrets& Session::secretsOf(const Address& address, const std::string& realm)
{
    const unsigned changes = m_provisioning.changes();
    if (changes != m_secretsOf || m_secrets.size() >= kMostSecrets) {
        m_secrets.clear();
        m_secretsOf = changes;
    }
    Secrets& known = m_secrets[address.text()];
    if (known.verdict != Verdict::accepted || std::chrono::steady_clock::now() - known.read > kSecretsAge) {
        known = readSecrets(address, realm);
    }
    return known;
}

Session::Secrets Session::readSecrets(const Address& address, const std::string& realm)
{
    Secrets secrets;
    // A fresh record: NULL columns leave what a record holds, and that would be another subscriber's. Inactive until
    // the database says otherwise.
    SubscriberRecord subscriber;
    subscriber.setActive('f');
    const DatabaseResult result =
        m_service.lookupSubscriber(address.handle.c_str(), address.domain.c_str(), subscriber);
    if (!result.okay()) {
        secrets.verdict = result.getStatus() == DatabaseResult::NOTFOUND ? Verdict::unknown : Verdict::failed;
        return secrets;
    }
    // Without a password, whoever sends an empty one must not be taken for him.
    const bool barred = subscriber.active() != "t" || subscriber.password().empty();
    secrets.verdict = barred ? Verdict::barred : Verdict::accepted;
    secrets.user = subscriber.userId();
    secrets.sha256 = secretOf(Algorithm::sha256, secrets.user, realm, subscriber.password());
    secrets.md5 = secretOf(Algorithm::md5, secrets.user, realm, subscriber.password());
    secrets.read = std::chrono::steady_clock::now();
    return secrets;
}

} // namespace oryx::sip
