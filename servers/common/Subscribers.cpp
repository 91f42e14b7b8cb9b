#include <common/Subscribers.h>

namespace oryx::sip {

namespace {

constexpr std::size_t kMostSecrets = 100000;
/// How long they may be kept when no change is heard of, as while the listener has lost its connection.
constexpr std::chrono::seconds kSecretsAge{30};

} // namespace

Verdict Subscribers::authenticate(const Address& address, const Credentials& credentials, std::string_view method,
                                  const Lookup& lookup)
{
    const Secrets& secrets = secretsOf(address, credentials.realm, lookup);
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
    const bool fresh =
        m_nonces.fresh(credentials.nonce, address.key()) && m_counts.use(credentials.nonce, credentials.count);
    return fresh ? Verdict::accepted : Verdict::stale;
}

const Subscribers::Secrets& Subscribers::secretsOf(const Address& address, const std::string& realm,
                                                   const Lookup& lookup)
{
    const unsigned changes = m_provisioning.changes();
    if (changes != m_secretsOf || m_secrets.size() >= kMostSecrets) {
        m_secrets.clear();
        m_secretsOf = changes;
    }
    Secrets& known = m_secrets[address.text()];
    if (known.verdict != Verdict::accepted || std::chrono::steady_clock::now() - known.read > kSecretsAge) {
        known = readSecrets(realm, lookup);
    }
    return known;
}

Subscribers::Secrets Subscribers::readSecrets(const std::string& realm, const Lookup& lookup)
{
    Secrets secrets;
    // A fresh record: NULL columns leave what a record holds, and that would be another subscriber's. Inactive until
    // the database says otherwise.
    SubscriberRecord subscriber;
    subscriber.setActive('f');
    const DatabaseResult result = lookup(subscriber);
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
