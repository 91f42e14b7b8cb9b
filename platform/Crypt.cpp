#include <Crypt.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <optional>
#include <string_view>
#include <sys/stat.h>
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

/// An open file, closed with its end.
struct File {
    explicit File(int opened) : descriptor(opened) {}
    File(const File&) = delete;
    File& operator=(const File&) = delete;
    ~File()
    {
        if (descriptor >= 0) {
            close(descriptor);
        }
    }
    const int descriptor;
};

/// Whether a key is open to more than those who need it. The group of a file that belongs to somebody else is how the
/// servers read it; that of their own file is a group too many.
bool isExposed(const struct stat& status)
{
    const mode_t others = status.st_uid == geteuid() ? S_IRWXG | S_IRWXO : S_IRWXO;
    return (status.st_mode & others) != 0;
}

/// A key comes from a regular file: others may write to a FIFO, and neither it nor a device ever ends.
Failure checkKind(const std::string& path, const File& file)
{
    struct stat status {};
    if (fstat(file.descriptor, &status) != 0) {
        return systemFailure(path);
    }
    if (!S_ISREG(status.st_mode)) {
        return "key file " + path + ": not a regular file";
    }
    if (isExposed(status)) {
        zel::Trace("Crypt").log("key file %s is open to others (mode %03o): chmod 600, and encrypt with a new key",
                                path.c_str(), static_cast<unsigned>(status.st_mode & 0777));
    }
    return std::nullopt;
}

/// Reads as much of the file as the buffer holds.
Failure readText(const std::string& path, KeyText& text, std::size_t& size)
{
    // Not to wait for a FIFO's other end.
    const File file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (file.descriptor < 0) {
        return systemFailure(path);
    }
    if (Failure failure = checkKind(path, file)) {
        return failure;
    }
    ssize_t got = 1;
    for (size = 0; got != 0 && size < text.size();) {
        got = read(file.descriptor, text.data() + size, text.size() - size);
        if (got < 0 && errno != EINTR) {
            return systemFailure(path);
        }
        size += got > 0 ? static_cast<std::size_t>(got) : 0;
    }
    return std::nullopt;
}

std::string_view trimmed(std::string_view text)
{
    text.remove_prefix(std::min(text.find_first_not_of(kWhiteSpace), text.size()));
    return text.substr(0, text.find_last_not_of(kWhiteSpace) + 1);
}

Failure readKey(Key& key)
{
    // Whoever starts a program that runs with more rights than his own does not choose its key.
    const char* path = secure_getenv("ORYX_CRYPT_KEY_FILE");
    if (!path || !*path) {
        const char* const ignored = std::getenv("ORYX_CRYPT_KEY_FILE");
        return ignored && *ignored ? "ORYX_CRYPT_KEY_FILE is ignored in a program that runs with raised privileges"
                                   : "ORYX_CRYPT_KEY_FILE is not set";
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
