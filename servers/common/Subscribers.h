#pragma once

#include <common/Address.h>
#include <common/Digest.h>
#include <common/Provisioning.h>

#include <dal/Dal.h>
#include <dal/DatabaseResult.h>

#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace oryx::sip {

/// What has become of a request's credentials.
enum class Verdict {
    accepted,
    wrong,  ///< they are nobody's, or not the subscriber's: a new challenge, which does not tell who there is
    stale,  ///< they are, but the nonce is too old, or was used before: a challenge that says so
    barred, ///< it is the subscriber, and he is inactive; or another one
    failed, ///< nobody could be asked
};

/// Who can prove who he is; what has been read of subscribers is kept until one of them changes, which must be heard
/// of. Of one worker: all that is about an address comes to the same.
class Subscribers {
public:
    /// Reads an address' subscriber from the database.
    using Lookup = std::function<DatabaseResult(const Address& address, SubscriberRecord& subscriber)>;

    Subscribers(const Provisioning& provisioning, const Nonces& nonces) : m_provisioning(provisioning), m_nonces(nonces)
    {
    }

    /// Whether the credentials are those of the address' subscriber, for a request of that method.
    Verdict authenticate(const Address& address, const Credentials& credentials, std::string_view method,
                         const Lookup& lookup);

private:
    /// What is kept in place of a subscriber's password.
    struct Secrets {
        Verdict verdict = Verdict::failed; // for whoever is right
        std::string realm;                 // which they are for: requests with the last one may still come
        std::string user;
        std::string sha256;
        std::string md5;
        std::chrono::steady_clock::time_point read;
    };

    /// Of a request that was challenged for the address with that key.
    Verdict judge(const Address& address, std::size_t challenged, const Credentials& credentials,
                  std::string_view method, const Lookup& lookup);
    const Secrets& secretsOf(const Address& address, const std::string& realm, const Lookup& lookup);
    static Secrets readSecrets(const Address& address, const std::string& realm, const Lookup& lookup);

    const Provisioning& m_provisioning;
    const Nonces& m_nonces;
    NonceCounts m_counts;
    std::unordered_map<std::string, Secrets> m_secrets; // of those who can be right
    Secrets m_unkept;                                   // of the last who cannot
    unsigned m_secretsOf = 0;                           // the count of changes that they are from
};

} // namespace oryx::sip
