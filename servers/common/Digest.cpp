#include <common/Digest.h>

#include <sodium.h>
#include <sofia-sip/su_md5.h>

#include <algorithm>
#include <charconv>
#include <initializer_list>
#include <stdexcept>
#include <utility>

namespace oryx::sip {

namespace {

std::string hexOf(const unsigned char* bytes, std::size_t size)
{
    std::string text(2 * size + 1, '\0');
    sodium_bin2hex(text.data(), text.size(), bytes, size);
    text.pop_back();
    return text;
}

/// The hash of the parts with a colon between each two, in hexadecimal digits.
std::string hash(Algorithm algorithm, std::initializer_list<std::string_view> parts)
{
    std::string text;
    const char* separator = "";
    for (const std::string_view part : parts) {
        text.append(separator).append(part);
        separator = ":";
    }
    if (algorithm == Algorithm::sha256) {
        std::array<unsigned char, crypto_hash_sha256_BYTES> digest{};
        crypto_hash_sha256(digest.data(), reinterpret_cast<const unsigned char*>(text.data()), text.size());
        return hexOf(digest.data(), digest.size());
    }
    su_md5_t md5{};
    std::array<unsigned char, static_cast<std::size_t>(SU_MD5_DIGEST_SIZE)> digest{};
    su_md5_init(&md5);
    su_md5_update(&md5, text.data(), static_cast<usize_t>(text.size()));
    su_md5_digest(&md5, digest.data());
    return hexOf(digest.data(), digest.size());
}

/// A parameter's value without its quotes; false when it is missing or torn.
bool read(const msg_auth_t& header, const char* name, std::string& value)
{
    const char* const found = msg_params_find(header.au_params, name);
    if (found == nullptr) {
        return false;
    }
    std::string_view text = found;
    value.clear();
    if (text.empty() || text.front() != '"') {
        value = text;
        return true;
    }
    if (text.size() < 2 || text.back() != '"') {
        return false;
    }
    text = text.substr(1, text.size() - 2);
    for (std::size_t at = 0; at < text.size(); ++at) {
        at += text[at] == '\\' && at + 1 < text.size() ? 1U : 0U;
        value.push_back(text[at]);
    }
    return true;
}

/// MD5 where nothing else is said.
bool readAlgorithm(const msg_auth_t& header, Algorithm& algorithm)
{
    std::string name;
    const bool said = read(header, "algorithm=", name);
    algorithm = su_casematch(name.c_str(), "SHA-256") != 0 ? Algorithm::sha256 : Algorithm::md5;
    return !said || algorithm == Algorithm::sha256 || su_casematch(name.c_str(), "MD5") != 0;
}

/// What counts and client's nonce are needed for.
bool readQop(const msg_auth_t& header, Credentials& credentials)
{
    std::string qop;
    credentials.qop = read(header, "qop=", qop);
    return !credentials.qop || (su_casematch(qop.c_str(), "auth") != 0 && read(header, "cnonce=", credentials.cnonce) &&
                                read(header, "nc=", credentials.count));
}

bool readAll(const msg_auth_t& header, Credentials& credentials)
{
    return su_casematch(header.au_scheme, "Digest") != 0 && readAlgorithm(header, credentials.algorithm) &&
           read(header, "username=", credentials.user) && read(header, "realm=", credentials.realm) &&
           read(header, "nonce=", credentials.nonce) && read(header, "uri=", credentials.uri) &&
           read(header, "response=", credentials.response) && readQop(header, credentials);
}

/// Not those that give up when they meet an algorithm that they do not know, wherever it stands.
bool readsSeveralChallenges(const sip_t& sip)
{
    const std::string_view agent = sip.sip_user_agent != nullptr ? sip.sip_user_agent->g_string : "";
    return !agent.starts_with("baresip v0.") && !agent.starts_with("baresip v1.");
}

constexpr std::size_t kTimeDigits = 10;
constexpr std::size_t kSaltBytes = 8;
constexpr std::size_t kSealBytes = 16;

/// When a nonce was made, by its own word: in whole seconds.
std::chrono::seconds timeOf(std::string_view nonce)
{
    std::int64_t seconds = 0;
    std::from_chars(nonce.data(), nonce.data() + kTimeDigits, seconds);
    return std::chrono::seconds(seconds);
}

} // namespace

std::string secretOf(Algorithm algorithm, std::string_view user, std::string_view realm, std::string_view password)
{
    return hash(algorithm, {user, realm, password});
}

bool Credentials::match(std::string_view method, std::string_view secret) const
{
    const std::string request = hash(algorithm, {method, uri});
    const std::string expected = qop ? hash(algorithm, {secret, nonce, count, cnonce, "auth", request})
                                     : hash(algorithm, {secret, nonce, request});
    return expected.size() == response.size() && sodium_memcmp(expected.data(), response.data(), expected.size()) == 0;
}

bool Credentials::areFor(const url_t& target, const std::function<bool(const url_t& url)>& isHere) const
{
    Scratch scratch;
    const url_t* const said = url_make(scratch.home(), uri.c_str());
    return said != nullptr && (url_cmp(said, &target) == 0 || isHere(*said));
}

bool readCredentials(const msg_auth_t* headers, std::string_view realm, Credentials& credentials)
{
    bool found = false;
    for (; headers != nullptr; headers = headers->au_next) {
        Credentials read;
        if (readAll(*headers, read) && read.realm == realm && (!found || read.algorithm == Algorithm::sha256)) {
            credentials = std::move(read);
            found = true;
        }
    }
    return found;
}

bool isOfRealm(const msg_auth_t& header, std::string_view realm)
{
    std::string said;
    return read(header, "realm=", said) && said == realm;
}

Nonces::Nonces()
{
    if (sodium_init() < 0) {
        throw std::runtime_error("no random numbers");
    }
    randombytes_buf(m_key.data(), m_key.size());
}

std::string Nonces::make(std::size_t key) const
{
    // The time, and something that tells those of one second apart.
    std::string time = std::to_string(
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now().time_since_epoch()).count());
    time.insert(0, kTimeDigits - std::min(time.size(), kTimeDigits), '0');
    std::array<unsigned char, kSaltBytes> salt{};
    randombytes_buf(salt.data(), salt.size());
    time += hexOf(salt.data(), salt.size());
    return time + sealed(time, key);
}

bool Nonces::fresh(std::string_view nonce, std::size_t key) const
{
    if (nonce.size() <= 2 * kSealBytes + kTimeDigits) {
        return false;
    }
    const std::string_view time = nonce.substr(0, nonce.size() - 2 * kSealBytes);
    const auto now =
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now().time_since_epoch());
    return now - timeOf(nonce) < kLife &&
           sodium_memcmp(sealed(time, key).data(), nonce.data() + time.size(), 2 * kSealBytes) == 0;
}

std::string Nonces::sealed(std::string_view time, std::size_t key) const
{
    const std::string text = std::string(time) + ":" + std::to_string(key);
    std::array<unsigned char, crypto_auth_hmacsha256_BYTES> seal{};
    crypto_auth_hmacsha256(seal.data(), reinterpret_cast<const unsigned char*>(text.data()), text.size(), m_key.data());
    return hexOf(seal.data(), kSealBytes);
}

bool NonceCounts::use(std::string_view nonce, std::string_view count)
{
    std::uint32_t value = 0;
    const auto [end, error] = std::from_chars(count.data(), count.data() + count.size(), value, 16);
    if (error != std::errc() || end != count.data() + count.size() || count.size() != 8) {
        return false;
    }
    forgetOld();
    std::uint64_t key = 0;
    std::from_chars(nonce.data() + kTimeDigits, nonce.data() + kTimeDigits + 2 * kSaltBytes, key, 16);
    const auto before = m_usedBefore.find(key);
    const bool known = before != m_usedBefore.end() || m_used.contains(key);
    if (!known && timeOf(nonce) < m_sinceBefore.time_since_epoch()) { // it may have been used, and forgotten
        return false;
    }
    std::uint32_t& used = m_used.try_emplace(key, before != m_usedBefore.end() ? before->second : 0).first->second;
    if (value <= used) {
        return false;
    }
    used = value;
    return true;
}

/// Nonces that are not accepted any more need no count.
void NonceCounts::forgetOld()
{
    const auto now = Clock::now();
    if (now - m_since >= Nonces::kLife || m_used.size() >= kMost) {
        m_usedBefore = std::exchange(m_used, {});
        m_sinceBefore = std::exchange(m_since, now);
    }
}

void challenge(Incoming& request, int status, const std::string& realm, const std::string& nonce, bool stale)
{
    const auto text = [&](const char* algorithm) {
        return R"(Digest realm=")" + realm + R"(", algorithm=)" + algorithm + R"(, nonce=")" + nonce +
               R"(", qop="auth")" + (stale ? ", stale=true" : "");
    };
    const std::string md5 = text("MD5");
    const std::string sha256 = text("SHA-256");
    const bool several = readsSeveralChallenges(request.sip());
    if (status == 401) {
        request.answer(SIP_401_UNAUTHORIZED, SIPTAG_WWW_AUTHENTICATE_STR(md5.c_str()),
                       TAG_IF(several, SIPTAG_WWW_AUTHENTICATE_STR(sha256.c_str())));
    } else {
        request.answer(SIP_407_PROXY_AUTH_REQUIRED, SIPTAG_PROXY_AUTHENTICATE_STR(md5.c_str()),
                       TAG_IF(several, SIPTAG_PROXY_AUTHENTICATE_STR(sha256.c_str())));
    }
}

} // namespace oryx::sip
