#include <common/Options.h>

#include <getopt.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <string_view>

namespace oryx::sip {

namespace {

constexpr const char* kHelp = R"(usage: %s --listen udp:HOST:PORT --database URI --user NAME [option...]

  --listen udp:HOST:PORT  a socket to answer on, or tcp:HOST:PORT; as often as wanted, IPv6 addresses in brackets
  --database URI          where the state is: scheme://host/database, or a database's name
  --user NAME             who the server is there
  --password-file FILE    whose first line is the password; without it, PGPASSWORD
  --workers N             sessions with the database, each with a thread of its own (2)
  --auth digest|none      whether subscribers must prove who they are (digest)
  --realm NAME            the realm of their credentials (the first domain served)
  --min-expires SECONDS   the shortest expiry granted (60)
  --max-expires SECONDS   the longest (86400)
  --default-expires SECONDS   where none is asked for (3600)
  --record-route          stay on the way of the dialogs that begin here
  --event-server URI      who gets what subscribes to presence, or publishes it, in the domains served
  --metrics HOST:PORT     counters for Prometheus, by HTTP
  --help, --version       say so and end
)";

enum Option : int {
    listenOn = 256,
    database,
    user,
    passwordFile,
    workers,
    auth,
    realm,
    minExpires,
    maxExpires,
    defaultExpires,
    recordRoute,
    eventServer,
    metrics,
    help,
    version
};

constexpr std::array kOptions{
    option{"listen", required_argument, nullptr, listenOn},
    option{"database", required_argument, nullptr, database},
    option{"user", required_argument, nullptr, user},
    option{"password-file", required_argument, nullptr, passwordFile},
    option{"workers", required_argument, nullptr, workers},
    option{"auth", required_argument, nullptr, auth},
    option{"realm", required_argument, nullptr, realm},
    option{"min-expires", required_argument, nullptr, minExpires},
    option{"max-expires", required_argument, nullptr, maxExpires},
    option{"default-expires", required_argument, nullptr, defaultExpires},
    option{"record-route", no_argument, nullptr, recordRoute},
    option{"event-server", required_argument, nullptr, eventServer},
    option{"metrics", required_argument, nullptr, metrics},
    option{"help", no_argument, nullptr, help},
    option{"version", no_argument, nullptr, version},
    option{nullptr, 0, nullptr, 0},
};

/// A whole number from `least` on; nothing for any other text.
std::optional<unsigned> numberOf(std::string_view text, unsigned least, unsigned most)
{
    unsigned value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || value < least || value > most) {
        return std::nullopt;
    }
    return value;
}

/// HOST:PORT, behind the transport.
std::optional<Listen> listenOf(const std::string& transport, std::string_view address)
{
    const std::size_t colon = address.rfind(':');
    if (colon == std::string_view::npos || colon == 0 || !numberOf(address.substr(colon + 1), 0, 65535)) {
        return std::nullopt;
    }
    const std::string_view host = address.substr(0, colon);
    const bool bracketed = host.front() == '[' && host.back() == ']';
    if (!bracketed && host.find_first_of(":[]") != std::string_view::npos) {
        return std::nullopt;
    }
    return Listen{transport, std::string(host), std::string(address.substr(colon + 1))};
}

std::optional<Listen> listenOf(std::string_view text)
{
    const std::string_view transport = text.substr(0, 4);
    if (transport != "udp:" && transport != "tcp:") {
        return std::nullopt;
    }
    return listenOf(std::string(transport.substr(0, 3)), text.substr(4));
}

bool readPassword(const char* file, std::string& password)
{
    std::ifstream in(file);
    return static_cast<bool>(std::getline(in, password));
}

/// Reads the options one by one; what is wrong with them, or empty.
class Reader {
public:
    std::string take(int option, const char* name, const char* value)
    {
        bool right = true;
        switch (option) {
        case listenOn:
            right = add(listenOf(value));
            break;
        case database:
            options.database = value;
            break;
        case user:
            options.user = value;
            break;
        case passwordFile:
            right = readPassword(value, options.password);
            break;
        case workers:
            right = set(options.workers, numberOf(value, 1, 64));
            break;
        case auth:
            right = std::strcmp(value, "digest") == 0 || std::strcmp(value, "none") == 0;
            options.digest = std::strcmp(value, "digest") == 0;
            break;
        case realm:
            options.realm = value; // stands in quotes wherever it is sent
            right = options.realm.find_first_of("\"\\") == std::string::npos;
            break;
        case minExpires:
            right = set(options.minExpires, numberOf(value, 1, kMostSeconds));
            break;
        case maxExpires:
            right = set(options.maxExpires, numberOf(value, 1, kMostSeconds));
            break;
        case defaultExpires:
            right = set(options.defaultExpires, numberOf(value, 1, kMostSeconds));
            m_defaultSaid = true;
            break;
        case recordRoute:
            options.recordRoute = true;
            break;
        case eventServer:
            options.eventServer = value;
            right = options.eventServer.starts_with("sip:");
            break;
        default:
            options.metrics = listenOf("tcp", value);
            right = options.metrics.has_value();
            break;
        }
        return right ? "" : std::string("--") + name + ": not " + wanted(option) + ": " + value;
    }

    /// What is wrong with all of them together.
    std::string check() const
    {
        if (options.listen.empty() || options.database.empty() || options.user.empty()) {
            return "--listen, --database and --user are needed; --help tells of them all";
        }
        if (options.minExpires > options.maxExpires ||
            (m_defaultSaid &&
             (options.minExpires > options.defaultExpires || options.defaultExpires > options.maxExpires))) {
            return "--min-expires, --default-expires and --max-expires must be in this order";
        }
        return "";
    }

    /// What nobody has said fits what somebody has.
    void settle()
    {
        options.defaultExpires = std::clamp(options.defaultExpires, options.minExpires, options.maxExpires);
    }

    Options options;

private:
    static constexpr unsigned kMostSeconds = 0x7fffffff;
    bool m_defaultSaid = false;

    static const char* wanted(int option)
    {
        switch (option) {
        case listenOn:
            return "udp:HOST:PORT or tcp:HOST:PORT";
        case realm:
            return "a text without quotes and backslashes";
        case eventServer:
            return "a SIP URI";
        case passwordFile:
            return "a readable file";
        case workers:
            return "a number from 1 to 64";
        case auth:
            return "digest or none";
        case metrics:
            return "HOST:PORT";
        default:
            return "a number of seconds";
        }
    }
    static bool set(unsigned& field, std::optional<unsigned> value)
    {
        field = value.value_or(field);
        return value.has_value();
    }
    bool add(std::optional<Listen> socket)
    {
        if (socket) {
            options.listen.push_back(std::move(*socket));
        }
        return socket.has_value();
    }
};

Parsed refused(const char* program, const std::string& why)
{
    std::fprintf(stderr, "%s: %s\n", program, why.c_str());
    return {std::nullopt, 2};
}

} // namespace

Parsed parseOptions(int argc, char** argv)
{
    const char* const slash = std::strrchr(argv[0], '/');
    const char* const program = slash != nullptr ? slash + 1 : argv[0];
    Reader reader;
    if (const char* const password = std::getenv("PGPASSWORD")) {
        reader.options.password = password;
    }
    opterr = 0;
    int index = 0;
    for (int option = 0; (option = getopt_long(argc, argv, "", kOptions.data(), &index)) != -1;) {
        if (option == help) {
            std::printf(kHelp, program);
            return {};
        }
        if (option == version) {
            std::printf("%s " ORYX_VERSION "\n", program);
            return {};
        }
        if (option == '?') {
            return refused(program, std::string(argv[optind - 1]) + ": no such option, or without its value");
        }
        const std::string wrong = reader.take(option, kOptions.at(static_cast<std::size_t>(index)).name, optarg);
        if (!wrong.empty()) {
            return refused(program, wrong);
        }
    }
    if (optind < argc) {
        return refused(program, std::string(argv[optind]) + ": no option");
    }
    const std::string wrong = reader.check();
    if (wrong.empty()) {
        reader.settle();
    }
    return wrong.empty() ? Parsed{std::move(reader.options)} : refused(program, wrong);
}

} // namespace oryx::sip
