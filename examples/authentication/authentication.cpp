// How a registrar authenticates a request: HTTP digest as RFC 7616 has it, with SHA-256 (RFC 8760 for SIP), and
// everything else than the right answer refused.
//
//     authentication [DATABASE-URI]
//
// The requests are made up here, the subscribers are those of the sample data. The exit status tells whether the
// database could be asked, not who was let in.

#include "../common/Account.h"

#include <dal/LocationService.h>
#include <util/CleanText.h>

#include <sodium.h>

#include <algorithm>
#include <array>
#include <string>

namespace {

constexpr const char* kRealm = "oryx.example";

/// What a REGISTER brings: whose contacts it is about, and the answer to the server's challenge, with the parameters of
/// RFC 7616 section 3.4.
struct Request {
    std::string handle;
    std::string domain;
    std::string username;
    std::string nonce;
    std::string cnonce;
    std::string response;
};

std::string sha256(const std::string& text)
{
    std::array<unsigned char, crypto_hash_sha256_BYTES> hash{};
    crypto_hash_sha256(hash.data(), reinterpret_cast<const unsigned char*>(text.data()), text.size());
    std::array<char, 2 * crypto_hash_sha256_BYTES + 1> digits{};
    return sodium_bin2hex(digits.data(), digits.size(), hash.data(), hash.size());
}

/// The answer that whoever has the password gives (RFC 7616 section 3.4.1, qop "auth").
std::string digest(const Request& request, const std::string& password)
{
    const std::string a1 = request.username + ":" + kRealm + ":" + password;
    const std::string a2 = std::string("REGISTER:sip:") + kRealm;
    return sha256(sha256(a1) + ":" + request.nonce + ":00000001:" + request.cnonce + ":auth:" + sha256(a2));
}

/// In a time that tells nothing about where the texts differ.
bool same(const std::string& a, const std::string& b)
{
    return a.size() == b.size() && sodium_memcmp(a.data(), b.data(), a.size()) == 0;
}

/// Handles and domains are stored so.
std::string lowerCase(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    return text;
}

/// A domain may have been given with the final dot of DNS.
std::string withoutFinalDot(const std::string& domain)
{
    return domain.ends_with('.') ? domain.substr(0, domain.size() - 1) : domain;
}

/// Why the request is refused, for the operator alone: its sender is told 403 or 401 and no reason. Null when it is
/// whose it says it is.
const char* refusal(oryx::LocationService& service, const Request& request, bool& asked)
{
    const std::string handle = lowerCase(request.handle);
    const std::string domain = withoutFinalDot(lowerCase(request.domain));
    if (!oryx::isCleanText(handle) || !oryx::isCleanText(domain)) {
        return "no such address can be";
    }
    // A fresh record: NULL columns leave what a record holds, and that would be another subscriber's. Inactive until
    // the database says otherwise: it does so for active subscribers only.
    oryx::SubscriberRecord subscriber;
    subscriber.setActive('f');
    const oryx::DatabaseResult result = service.lookupSubscriber(handle.c_str(), domain.c_str(), subscriber);
    if (result.getStatus() == oryx::DatabaseResult::NOTFOUND) {
        return "nobody has this address";
    }
    if (!result.okay()) {
        asked = report("look the subscriber up", result);
        return "nobody could be asked"; // a server answers 503
    }
    if (subscriber.active() != "t") {
        return "the subscriber is inactive";
    }
    if (subscriber.password().empty()) {
        return "the subscriber has no password"; // whoever sends an empty one must not be taken for him
    }
    if (subscriber.userId() != request.username) {
        return "another subscriber's name";
    }
    // A password that could not be decrypted has come as a random text, which no answer fits.
    return same(digest(request, subscriber.password()), request.response) ? nullptr : "the answer is wrong";
}

/// A client's request, answered with the password that it has.
Request from(const std::string& handle, const std::string& domain, const std::string& username,
             const std::string& password)
{
    Request request{handle, domain, username, "7ypf/xlj9XXwfDPEoM4URrv/xwf94BcCAzFZH4GiTo0v", "f2/wE4q74E6zIJEt", ""};
    request.response = digest(request, password);
    return request;
}

bool judge(oryx::LocationService& service, const std::string& who, const Request& request)
{
    bool asked = true;
    const char* const why = refusal(service, request, asked);
    std::printf("%-52s %s\n", who.c_str(), why == nullptr ? "accepted" : why);
    return asked;
}

} // namespace

int main(int argc, char** argv)
{
    oryx::LocationService service;
    if (sodium_init() < 0 || !connectFromEnvironment(service, argc > 1 ? argv[1] : "oryx")) {
        return EXIT_FAILURE;
    }
    const bool done =
        judge(service, "alice", from("alice", "oryx.example", "alice", "wonderland")) &&
        judge(service, "alice, as Alice@ORYX.example.", from("Alice", "ORYX.example.", "alice", "wonderland")) &&
        judge(service, "alice. with a dot, another handle", from("alice.", "oryx.example", "alice", "wonderland")) &&
        judge(service, "alice by her alias", from("1001", "oryx.example", "alice", "wonderland")) &&
        judge(service, "alice with a wrong password", from("alice", "oryx.example", "alice", "looking-glass")) &&
        judge(service, "alice without a password", from("alice", "oryx.example", "alice", "")) &&
        judge(service, "bob", from("bob", "oryx.example", "bob", "builder")) &&
        judge(service, "bob without a password", from("bob", "oryx.example", "bob", "")) &&
        judge(service, "bob's contacts, by alice", from("bob", "oryx.example", "alice", "wonderland")) &&
        judge(service, "carol, who is inactive", from("carol", "oryx.example", "carol", "christmas")) &&
        judge(service, "sales, who has no password", from("sales", "oryx.example", "sales", "")) &&
        judge(service, "nobody", from("nobody", "oryx.example", "nobody", "")) &&
        judge(service, "o'neill", from("o'neill", "oryx.example", "o'neill", ""));
    return done ? EXIT_SUCCESS : EXIT_FAILURE;
}
