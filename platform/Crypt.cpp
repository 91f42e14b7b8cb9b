#include <Crypt.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <optional>
#include <string_view>
#include <system_error>
#include <unistd.h>
#include <utility>

#include <sodium.h>

#include <zel/Trace.h>

namespace {

constexpr std::string_view kPrefix = "{oryx1}";
constexpr std::string_view kWhiteSpace = " \t\r\n\f\v";
constexpr std::size_t kKeySize = crypto_aead_xchacha20poly1305_ietf_KEYBYTES;
constexpr std::size_t kNonceSize = crypto_aead_xchacha20poly1305_ietf_NPUBBYTES;
constexpr std::size_t kTagSize = crypto_aead_xchacha20poly1305_ietf_ABYTES;
constexpr int kBase64 = sodium_base64_VARIANT_ORIGINAL;

const unsigned char* bytes(std::string_view text)
{
    return reinterpret_cast<const unsigned char*>(text.data());
}
unsigned char* bytes(std::string& text)
{
    return reinterpret_cast<unsigned char*>(text.data());
}

/// Memory that holds a secret only as long as it lives.
template <typename T, std::size_t Size>
struct Secret : std::array<T, Size> {
    Secret() = default;
    Secret(const Secret&) = delete;
    Secret& operator=(const Secret&) = delete;
    ~Secret() { sodium_memzero(this->data(), sizeof(T) * Size); }
};

using Key = Secret<unsigned char, kKeySize>;
using KeyText = Secret<char, 1024>;

/// An operation's outcome in words; nothing when it succeeded.
using Failure = std::optional<std::string>;

Failure systemFailure(const std::string& path)
{
    return "key file " + path + ": " + std::error_code(errno, std::generic_category()).message();
}

/// Reads as much of the file as the buffer holds.
Failure readText(const std::string& path, KeyText& text, std::size_t& size)
{
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0) {
        return systemFailure(path);
    }
    Failure failure;
    ssize_t got = 1;
    for (size = 0; got != 0 && size < text.size();) {
        got = read(file, text.data() + size, text.size() - size);
        if (got < 0 && errno != EINTR) {
            failure = systemFailure(path);
            break;
        }
        size += got > 0 ? static_cast<std::size_t>(got) : 0;
    }
    close(file);
    return failure;
}

std::string_view trimmed(std::string_view text)
{
    text.remove_prefix(std::min(text.find_first_not_of(kWhiteSpace), text.size()));
    return text.substr(0, text.find_last_not_of(kWhiteSpace) + 1);
}

Failure readKey(Key& key)
{
    const char* path = std::getenv("ORYX_CRYPT_KEY_FILE");
    if (!path || !*path) {
        return "ORYX_CRYPT_KEY_FILE is not set";
    }
    KeyText text;
    std::size_t size = 0;
    if (Failure failure = readText(path, text, size)) {
        return failure;
    }
    const std::string_view digits = trimmed({text.data(), size});
    std::size_t length = 0;
    if (size == text.size() || digits.size() != 2 * kKeySize ||
        sodium_hex2bin(key.data(), key.size(), digits.data(), digits.size(), nullptr, &length, nullptr) != 0) {
        return std::string("key file ") + path + ": not 64 hexadecimal digits";
    }
    return std::nullopt;
}

Failure prepare(Key& key)
{
    if (sodium_init() < 0) {
        return "the system gives no random numbers";
    }
    return readKey(key);
}

std::string toBase64(std::string_view binary)
{
    std::string text(sodium_base64_encoded_len(binary.size(), kBase64), '\0');
    sodium_bin2base64(text.data(), text.size(), bytes(binary), binary.size(), kBase64);
    text.pop_back(); // the terminating zero
    return text;
}

/// Empty if the text is not base64.
std::string fromBase64(std::string_view text)
{
    std::string binary(text.size(), '\0');
    std::size_t size = 0;
    if (sodium_base642bin(bytes(binary), binary.size(), text.data(), text.size(), nullptr, &size, nullptr, kBase64) !=
        0) {
        return {};
    }
    binary.resize(size);
    return binary;
}

Failure seal(const std::string& clear, std::string& stored)
{
    Key key;
    if (Failure failure = prepare(key)) {
        return failure;
    }
    std::string sealed(kNonceSize + clear.size() + kTagSize, '\0');
    unsigned char* nonce = bytes(sealed);
    randombytes_buf(nonce, kNonceSize);
    crypto_aead_xchacha20poly1305_ietf_encrypt(nonce + kNonceSize, nullptr, bytes(clear), clear.size(), bytes(kPrefix),
                                               kPrefix.size(), nullptr, nonce, key.data());
    stored = std::string(kPrefix) + toBase64(sealed);
    return std::nullopt;
}

Failure unseal(std::string_view text, std::string& clear)
{
    const std::string sealed = fromBase64(text);
    if (sealed.size() < kNonceSize + kTagSize) {
        return "the stored text is damaged";
    }
    Key key;
    if (Failure failure = prepare(key)) {
        return failure;
    }
    const unsigned char* nonce = bytes(std::string_view(sealed));
    const std::size_t length = sealed.size() - kNonceSize;
    std::string opened(length - kTagSize, '\0');
    if (crypto_aead_xchacha20poly1305_ietf_decrypt(bytes(opened), nullptr, nullptr, nonce + kNonceSize, length,
                                                   bytes(kPrefix), kPrefix.size(), nonce, key.data()) != 0) {
        return "it was encrypted with another key, or altered since";
    }
    clear = std::move(opened);
    return std::nullopt;
}

/// Says what failed, if something did, and leaves nothing in `result` then.
bool concluded(const char* action, const Failure& failure, std::string& result)
{
    if (failure) {
        zel::Trace("Crypt").log("cannot %s a password: %s", action, failure->c_str());
        result.clear();
    }
    return !failure;
}

} // namespace

bool Crypt::encrypt(const std::string& clear, std::string& stored)
{
    return concluded("encrypt", seal(clear, stored), stored);
}

bool Crypt::decrypt(const std::string& stored, std::string& clear)
{
    if (!stored.starts_with(kPrefix)) {
        clear = stored;
        return true;
    }
    return concluded("decrypt", unseal(std::string_view(stored).substr(kPrefix.size()), clear), clear);
}
