#pragma once

#include <common/Endpoint.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>

/// \file
/// Digest authentication (RFC 7616; its algorithms in SIP, RFC 8760).

namespace oryx::sip {

enum class Algorithm { sha256, md5 };

/// What a client sends to prove that it knows the password.
struct Credentials {
    Algorithm algorithm = Algorithm::md5;
    std::string user;
    std::string realm;
    std::string nonce;
    std::string uri;
    std::string cnonce;
    std::string count; ///< As it was sent: part of what is hashed.
    std::string response;
    bool qop = false; ///< Whether it is "auth"; none as in RFC 2069 otherwise.

    /// Whether they were made for a request of that method by who knows the secret.
    bool match(std::string_view method, std::string_view secret) const;
    /// Whether they were made for a request to that URI, or to this server, as `isHere` knows it: some telephones say
    /// its address, and proxies may change the request URI (RFC 3261 section 22.4, item 8).
    bool areFor(const url_t& target, const std::function<bool(const url_t& url)>& isHere) const;
};

/// What can be kept in place of a password: the hash of user, realm and password, in hexadecimal digits.
std::string secretOf(Algorithm algorithm, std::string_view user, std::string_view realm, std::string_view password);

/// The credentials for that realm among a request's; those of the stronger algorithm where there are several. False
/// where there are none, or what there is cannot be read.
bool readCredentials(const msg_auth_t* headers, std::string_view realm, Credentials& credentials);

/// Whether credentials are for that realm, whatever else they are.
bool isOfRealm(const msg_auth_t& header, std::string_view realm);

/// Nonces that tell by themselves when they were made, by whom, and for whom. Used by any thread.
class Nonces {
public:
    Nonces();
    /// One for what has that key (`Address::key`): as the counts of nonces are kept by worker, whoever has two
    /// addresses could use it once with each otherwise.
    std::string make(std::size_t key) const;
    /// Whether it was made here, for that key, less than five minutes ago.
    bool fresh(std::string_view nonce, std::size_t key) const;

    static constexpr std::chrono::seconds kLife{300};

private:
    std::string sealed(std::string_view time, std::size_t key) const;

    std::array<unsigned char, 32> m_key{};
};

/// Which nonce counts have been used, so that nobody sends another's request again (RFC 7616 section 5.5).
class NonceCounts {
public:
    /// Whether the count is higher than all before it with that nonce, which is a fresh one; it is used then. Of a
    /// nonce that is older than what is remembered nobody knows, and none can be used.
    bool use(std::string_view nonce, std::string_view count);

    /// After so many nonces those before them are forgotten, as with time: whoever has a password can have any number.
    static constexpr std::size_t kMost = 100000;

private:
    using Clock = std::chrono::steady_clock;
    /// The highest count by the nonce's random part.
    using Counts = std::unordered_map<std::uint64_t, std::uint32_t>;

    void forgetOld();

    Counts m_used;
    Clock::time_point m_since = Clock::now();
    Counts m_usedBefore; // which nonces that are still fresh may be in
    Clock::time_point m_sinceBefore = Clock::time_point::min();
};

/// Answers a request with a challenge for each algorithm: 401, or 407 for a proxy's. `stale` says that the credentials
/// were right but for their nonce.
///
/// MD5 comes first, in spite of RFC 8760 section 2.3: telephones that know nothing else read the first challenge alone,
/// and those that know SHA-256 find theirs behind it.
void challenge(Incoming& request, int status, const std::string& realm, const std::string& nonce, bool stale);

} // namespace oryx::sip
