// register_load PORT USERS SECONDS [--window N] [--rate N] [--expires SECONDS] [--once] [--process PID]: REGISTER
// requests of so many users (user0@oryx.example, ..., each with its name as its password), by UDP from one socket on
// loopback. Prints what the registrar made of them, and how much processor time that process used.
//
// Without a rate, N requests are under way at any time; with one, so many are offered a second, whatever has been
// answered. A request without an answer is sent again after half a second, as telephones do (RFC 3261 section 17.1.2).

#include <arpa/inet.h>
#include <poll.h>
#include <sodium.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <exception>
#include <fstream>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

struct Settings {
    int port = 5060;
    unsigned users = 1000;
    unsigned seconds = 10;
    unsigned window = 16;
    unsigned rate = 0;
    unsigned expires = 3600;
    int process = 0;
    bool once = false; ///< Each user once, and done.
};

std::string hexOf(const unsigned char* bytes, std::size_t size)
{
    std::string text(2 * size + 1, '\0');
    sodium_bin2hex(text.data(), text.size(), bytes, size);
    text.pop_back();
    return text;
}

std::string sha256(const std::string& text)
{
    std::array<unsigned char, crypto_hash_sha256_BYTES> hash{};
    crypto_hash_sha256(hash.data(), reinterpret_cast<const unsigned char*>(text.data()), text.size());
    return hexOf(hash.data(), hash.size());
}

/// The value in quotes behind a parameter's name; empty when it is not there.
std::string_view quoted(std::string_view text, std::string_view name)
{
    const std::size_t at = text.find(name);
    if (at == std::string_view::npos) {
        return "";
    }
    const std::size_t begin = at + name.size() + 1;
    return text.substr(begin, text.find('"', begin) - begin);
}

/// Whether a process has ended, though nobody may have taken notice yet; none has not.
bool hasEnded(int process)
{
    std::ifstream stat("/proc/" + std::to_string(process) + "/stat");
    std::string text;
    std::getline(stat, text);
    const std::size_t name = text.rfind(')');
    return process > 0 && (name == std::string::npos || text.compare(name, 4, ") Z ") == 0);
}

/// Processor time that a process has used, in seconds.
double processorTime(int process)
{
    std::ifstream stat("/proc/" + std::to_string(process) + "/stat");
    std::string text;
    std::getline(stat, text);
    const char* rest = std::strrchr(text.c_str(), ')');
    unsigned long user = 0;
    unsigned long system = 0;
    if (rest == nullptr ||
        std::sscanf(rest + 2, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &user, &system) != 2) {
        return 0;
    }
    return static_cast<double>(user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

/// One user's telephone.
struct User {
    /// Of the last request; higher than in any run before: one that has been stored already changes nothing.
    unsigned cseq = static_cast<unsigned>(std::time(nullptr));
    std::string nonce; ///< Of the last challenge; empty: none yet.
    unsigned count = 0;
    bool busy = false;
    bool acknowledged = false;
};

/// A request under way.
struct Waiting {
    unsigned user;
    Clock::time_point begun; ///< Of the registration, its challenge included.
    Clock::time_point sent;
    std::string text;
};

class Load {
public:
    explicit Load(const Settings& settings) : m_settings(settings), m_users(settings.users)
    {
        m_socket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(static_cast<std::uint16_t>(settings.port));
        to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const int room = 8 << 20;
        setsockopt(m_socket, SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
        if (connect(m_socket, reinterpret_cast<sockaddr*>(&to), sizeof to) != 0) {
            throw std::runtime_error("no socket");
        }
        sockaddr_in own{};
        socklen_t size = sizeof own;
        getsockname(m_socket, reinterpret_cast<sockaddr*>(&own), &size);
        m_port = ntohs(own.sin_port);
    }

    void run()
    {
        m_begun = Clock::now();
        const auto end = m_begun + std::chrono::seconds(m_settings.seconds);
        const double before = processorTime(m_settings.process);
        auto look = m_begun;
        while (Clock::now() < end && !(m_settings.once && m_next == m_users.size() && m_waiting.empty())) {
            offer();
            take(m_settings.rate > 0 ? 1 : 10);
            resend();
            if (Clock::now() >= look) {
                look += std::chrono::milliseconds(100);
                if (hasEnded(m_settings.process)) {
                    throw std::runtime_error("the registrar has ended");
                }
            }
        }
        const double seconds = std::chrono::duration<double>(Clock::now() - m_begun).count();
        const double used = processorTime(m_settings.process) - before;
        const auto lastly = Clock::now() + std::chrono::seconds(5);
        while (!m_waiting.empty() && Clock::now() < lastly) {
            take(10);
            resend();
        }
        report(seconds, used);
    }

private:
    void offer()
    {
        for (;;) {
            if (m_settings.once && m_next == m_users.size()) {
                return;
            }
            if (m_settings.rate == 0 && m_waiting.size() >= m_settings.window) {
                return;
            }
            const auto due = static_cast<std::uint64_t>(std::chrono::duration<double>(Clock::now() - m_begun).count() *
                                                        m_settings.rate);
            if (m_settings.rate > 0 && m_offered >= due) {
                return;
            }
            const unsigned user = static_cast<unsigned>(m_next++ % m_users.size());
            ++m_offered;
            if (!m_users[user].busy) {
                m_users[user].busy = true;
                send(user, Clock::now());
            }
        }
    }

    void send(unsigned number, Clock::time_point begun)
    {
        User& user = m_users[number];
        const std::string name = "user" + std::to_string(number);
        const std::string branch = std::to_string(number) + "-" + std::to_string(++user.cseq);
        std::string text = "REGISTER sip:oryx.example SIP/2.0\r\nVia: SIP/2.0/UDP 127.0.0.1:" + std::to_string(m_port) +
                           ";branch=z9hG4bK" + branch + "\r\nMax-Forwards: 70\r\nFrom: <sip:" + name +
                           "@oryx.example>;tag=" + std::to_string(number) + "\r\nTo: <sip:" + name +
                           "@oryx.example>\r\nCall-ID: load-" + std::to_string(number) +
                           "@127.0.0.1\r\nCSeq: " + std::to_string(user.cseq) + " REGISTER\r\nContact: <sip:" + name +
                           "@192.0.2.1:5060>\r\nExpires: " + std::to_string(m_settings.expires) + "\r\n";
        if (!user.nonce.empty()) {
            std::array<char, 9> count{};
            std::snprintf(count.data(), count.size(), "%08x", ++user.count);
            const std::string response = sha256(sha256(name + ":oryx.example:" + name) + ":" + user.nonce + ":" +
                                                count.data() + ":c:auth:" + sha256("REGISTER:sip:oryx.example"));
            text += "Authorization: Digest username=\"" + name + "\", realm=\"oryx.example\", nonce=\"" + user.nonce +
                    "\", uri=\"sip:oryx.example\", algorithm=SHA-256, qop=auth, nc=" + count.data() +
                    ", cnonce=\"c\", response=\"" + response + "\"\r\n";
        }
        text += "Content-Length: 0\r\n\r\n";
        ::send(m_socket, text.data(), text.size(), 0);
        const auto now = Clock::now();
        m_order.push_back({now, branch});
        m_waiting[branch] = {number, begun, now, std::move(text)};
    }

    void take(int milliseconds)
    {
        pollfd socket{m_socket, POLLIN, 0};
        if (poll(&socket, 1, milliseconds) <= 0) {
            return;
        }
        std::array<char, 65536> buffer{};
        for (ssize_t size = 0; (size = recv(m_socket, buffer.data(), buffer.size(), MSG_DONTWAIT)) > 0;) {
            answer({buffer.data(), static_cast<std::size_t>(size)});
        }
    }

    void answer(std::string_view text)
    {
        const int status = std::atoi(std::string(text.substr(8, 3)).c_str());
        const std::size_t at = text.find("branch=z9hG4bK");
        const std::size_t begin = at + std::strlen("branch=z9hG4bK");
        const std::string branch(text.substr(begin, text.find_first_of(";\r,", begin) - begin));
        const auto found = m_waiting.find(branch);
        if (status < 200 || at == std::string_view::npos || found == m_waiting.end()) {
            return;
        }
        const Waiting done = std::move(found->second);
        m_waiting.erase(found);
        User& user = m_users[done.user];
        if (status == 401) {
            user.nonce = quoted(text, "nonce=");
            user.count = 0;
            ++m_challenges;
            send(done.user, done.begun);
            return;
        }
        user.busy = false;
        user.acknowledged = user.acknowledged || status == 200;
        ++m_answers[status];
        m_times.push_back(std::chrono::duration<double, std::milli>(Clock::now() - done.begun).count());
    }

    void resend()
    {
        const auto late = Clock::now() - std::chrono::milliseconds(500);
        while (!m_order.empty() && m_order.front().first < late) {
            const std::string branch = std::move(m_order.front().second);
            m_order.pop_front();
            const auto found = m_waiting.find(branch);
            if (found != m_waiting.end()) {
                ++m_resent;
                ::send(m_socket, found->second.text.data(), found->second.text.size(), 0);
                m_order.push_back({Clock::now(), branch});
            }
        }
    }

    void report(double seconds, double used)
    {
        std::sort(m_times.begin(), m_times.end());
        const auto share = [this](double of) {
            return m_times.empty() ? 0.0
                                   : m_times[static_cast<std::size_t>(static_cast<double>(m_times.size() - 1) * of)];
        };
        const auto done = static_cast<double>(m_answers[200]);
        std::printf(
            "%.0f registrations/s, p50 %.2f ms, p99 %.2f ms, processor %.1f us each, offered %llu, sent again %llu, unanswered %zu, challenges %llu",
            done / seconds, share(0.5), share(0.99), done > 0 ? used * 1e6 / done : 0, m_offered, m_resent,
            m_waiting.size(), m_challenges);
        for (const auto& [status, times] : m_answers) {
            std::printf(", %d: %llu", status, times);
        }
        const auto acknowledged =
            std::count_if(m_users.begin(), m_users.end(), [](const User& user) { return user.acknowledged; });
        std::printf(", acknowledged users %td\n", acknowledged);
    }

    Settings m_settings;
    std::vector<User> m_users;
    int m_socket;
    int m_port = 0;
    Clock::time_point m_begun;
    std::size_t m_next = 0;
    unsigned long long m_offered = 0;
    unsigned long long m_resent = 0;
    unsigned long long m_challenges = 0;
    std::unordered_map<std::string, Waiting> m_waiting;
    std::deque<std::pair<Clock::time_point, std::string>> m_order;
    std::map<int, unsigned long long> m_answers;
    std::vector<double> m_times;
};

unsigned numberOf(const char* text)
{
    return static_cast<unsigned>(std::strtoul(text, nullptr, 10));
}

} // namespace

int main(int argc, char** argv)
{
    Settings settings;
    if (argc < 4 || sodium_init() < 0) {
        std::fprintf(
            stderr,
            "usage: register_load PORT USERS SECONDS [--window N] [--rate N] [--expires S] [--once] [--process PID]\n");
        return 2;
    }
    settings.port = static_cast<int>(numberOf(argv[1]));
    settings.users = numberOf(argv[2]);
    settings.seconds = numberOf(argv[3]);
    for (int at = 4; at < argc; ++at) {
        const std::string_view option = argv[at];
        if (option == "--once") {
            settings.once = true;
            continue;
        }
        const char* const value = at + 1 < argc ? argv[at + 1] : "0";
        ++at;
        if (option == "--process") {
            settings.process = static_cast<int>(numberOf(value));
            continue;
        }
        (option == "--window" ? settings.window
         : option == "--rate" ? settings.rate
                              : settings.expires) = numberOf(value);
    }
    try {
        Load(settings).run();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "register_load: %s\n", error.what());
        return 1;
    }
    return 0;
}
