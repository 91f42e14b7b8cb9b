#pragma once

#include <common/Address.h>
#include <common/Digest.h>
#include <common/Options.h>
#include <registrar/Provisioning.h>

#include <dal/LocationService.h>

#include <chrono>
#include <string>
#include <unordered_map>

namespace oryx::sip {

/// What has become of a request's credentials.
enum class Verdict {
    accepted,
    wrong,   ///< they are not the subscriber's: a new challenge
    stale,   ///< they are, but the nonce is too old, or was used before: a challenge that says so
    unknown, ///< the address has no subscriber
    barred,  ///< the subscriber is inactive, or has no password that can be read
    failed,  ///< nobody could be asked
};

/// What a worker holds: a session with the database, and what it remembers of subscribers. All that is about an address
/// of record comes to the same worker, so nothing of this is shared.
class Session {
public:
    Session(const Options& options, const Provisioning& provisioning, const Nonces& nonces);

    /// Connects, and sees that it is known what is served; or waits for a moment after it failed.
    bool connect();
    LocationService& service() { return m_service; }
    /// Whether the credentials are those of the address' subscriber, for a request of that method.
    Verdict authenticate(const Address& address, const Credentials& credentials, std::string_view method);

private:
    /// What is kept in place of a subscriber's password.
    struct Secrets {
        Verdict verdict = Verdict::failed; // for whoever is right
        std::string user;
        std::string sha256;
        std::string md5;
        std::chrono::steady_clock::time_point read;
    };

    const Secrets& secretsOf(const Address& address, const std::string& realm);
    Secrets readSecrets(const Address& address, const std::string& realm);

    const Options& m_options;
    const Provisioning& m_provisioning;
    const Nonces& m_nonces;
    LocationService m_service;
    bool m_connected = false;
    NonceCounts m_counts;
    std::unordered_map<std::string, Secrets> m_secrets;
    unsigned m_secretsOf = 0; // the state of provisioning that they are from
};

} // namespace oryx::sip
