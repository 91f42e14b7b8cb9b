#include <common/Subscribers.h>

namespace oryx::sip {

namespace {

constexpr std::string_view kFirstCount = "00000001";
constexpr std::size_t kMostSecrets = 100000;
/// How long they may be kept while the listener has lost its connection, and no change is heard of.
constexpr std::chrono::seconds kSecretsAge{30};

} // namespace

/// Whoever proves to be another subscriber is told that he may not, not asked again for ever (RFC 3261 section 10.3,
/// item 4). The library finds subscribers by their addresses alone, so he is known where his user name is his handle at
/// that domain, too; whoever else it is, he is asked again.
Verdict Subscribers::authenticate(const Address& address, const Credentials& credentials, std::string_view method,
                                  const Lookup& lookup)
{
    const Verdict verdict = judge(address, address.key(), credentials, method, lookup);
    if (verdict != Verdict::wrong) {
        return verdict;
    }
    const std::optional<Address> other = addressOf(("sip:" + credentials.user + "@" + address.domain).c_str());
    if (!other || other->text() == address.text()) {
        return verdict;
    }
    const Verdict others = judge(*other, address.key(), credentials, method, lookup);
    // A telephone with several lines may try what it knows of another one first: that is not to be made fresh.
    return others == Verdict::accepted ? Verdict::barred : others == Verdict::stale ? Verdict::wrong : others;
}

Verdict Subscribers::judge(const Address& address, std::size_t challenged, const Credentials& credentials,
                           std::string_view method, const Lookup& lookup)
{
    const Secrets& secrets = secretsOf(address, credentials.realm, lookup);
    if (secrets.verdict == Verdict::failed) {
        return Verdict::failed;
    }
    const std::string& secret = credentials.algorithm == Algorithm::sha256 ? secrets.sha256 : secrets.md5;
    if (secret.empty() || credentials.user != secrets.user || !credentials.match(method, secret)) {
        return Verdict::wrong;
    }
    // Who knows no qop sends no count (RFC 3261 section 22.4, item 8): the nonce is good for one request.
    const std::string_view count = credentials.qop ? std::string_view(credentials.count) : kFirstCount;
    const bool fresh = m_nonces.fresh(credentials.nonce, challenged) && m_counts.use(credentials.nonce, count);
    return fresh ? secrets.verdict : Verdict::stale;
}

const Subscribers::Secrets& Subscribers::secretsOf(const Address& address, const std::string& realm,
                                                   const Lookup& lookup)
{
    const unsigned changes = m_provisioning.changes();
    if (changes != m_secretsOf || m_secrets.size() >= kMostSecrets) {
        m_secrets.clear();
        m_secretsOf = changes;
    }
    const auto known = m_secrets.find(address.text());
    if (known != m_secrets.end() && known->second.realm == realm &&
        (m_provisioning.listening() || std::chrono::steady_clock::now() - known->second.read <= kSecretsAge)) {
        return known->second;
    }
    m_unkept = readSecrets(address, realm, lookup);
    if (m_unkept.verdict == Verdict::accepted) {
        return m_secrets.insert_or_assign(address.text(), std::move(m_unkept)).first->second;
    }
    if (known != m_secrets.end()) {
        m_secrets.erase(known);
    }
    return m_unkept;
}

Subscribers::Secrets Subscribers::readSecrets(const Address& address, const std::string& realm, const Lookup& lookup)
{
    Secrets secrets;
    // A fresh record: NULL columns leave what a record holds, and that would be another subscriber's. Inactive until
    // the database says otherwise.
    SubscriberRecord subscriber;
    subscriber.setActive('f');
    const DatabaseResult result = lookup(address, subscriber);
    if (!result.okay()) {
        secrets.verdict = result.getStatus() == DatabaseResult::NOTFOUND ? Verdict::wrong : Verdict::failed;
        return secrets;
    }
    if (subscriber.password().empty()) { // whoever sends an empty one must not be taken for him
        secrets.verdict = Verdict::wrong;
        return secrets;
    }
    secrets.verdict = subscriber.active() == "t" ? Verdict::accepted : Verdict::barred;
    secrets.realm = realm;
    secrets.user = subscriber.userId();
    secrets.sha256 = secretOf(Algorithm::sha256, secrets.user, realm, subscriber.password());
    secrets.md5 = secretOf(Algorithm::md5, secrets.user, realm, subscriber.password());
    secrets.read = std::chrono::steady_clock::now();
    return secrets;
}

} // namespace oryx::sip
