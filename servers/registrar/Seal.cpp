#include <registrar/Seal.h>

#include <sodium.h>

#include <stdexcept>

namespace oryx::sip {

namespace {

const unsigned char* bytesOf(const std::string& text)
{
    return reinterpret_cast<const unsigned char*>(text.data());
}

} // namespace

Seal::Seal(const Options& options)
{
    if (sodium_init() < 0) {
        throw std::runtime_error("no random numbers");
    }
    if (options.password.empty()) {
        randombytes_buf(m_key.data(), m_key.size());
        return;
    }
    const std::string purpose = "record-route of " + options.user;
    std::array<unsigned char, crypto_pwhash_SALTBYTES> salt{};
    crypto_generichash(salt.data(), salt.size(), bytesOf(purpose), purpose.size(), nullptr, 0);
    if (crypto_pwhash(m_key.data(), m_key.size(), options.password.data(), options.password.size(), salt.data(),
                      crypto_pwhash_OPSLIMIT_INTERACTIVE, crypto_pwhash_MEMLIMIT_INTERACTIVE,
                      crypto_pwhash_ALG_DEFAULT) != 0) {
        throw std::runtime_error("no memory for a key");
    }
}

std::string Seal::of(const std::string& text) const
{
    std::array<unsigned char, 16> seal{};
    crypto_generichash(seal.data(), seal.size(), bytesOf(text), text.size(), m_key.data(), m_key.size());
    std::string hex(2 * seal.size() + 1, '\0');
    sodium_bin2hex(hex.data(), hex.size(), seal.data(), seal.size());
    hex.pop_back();
    return hex;
}

} // namespace oryx::sip
