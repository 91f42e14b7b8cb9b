#include <common/Options.h>

#include <getopt.h>
#include <sofia-sip/hostdomain.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string_view>

namespace oryx::sip {

namespace {

constexpr const char* kHelp = R"(usage: %s --listen udp:HOST:PORT --database URI --user NAME [option...]

  --listen udp:HOST:PORT  a socket to answer on, or tcp:HOST:PORT; as often as wanted, IPv6 addresses in brackets
  --name HOST             one more name or address that telephones have of it, at its sockets' ports; as often as wanted
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

/// What the options say, as they are read.
struct Reading {
    Options options;
    bool defaultSaid = false;

    /// What is wrong with all of them together, or empty.
    std::string check() const
    {
        if (options.listen.empty() || options.database.empty() || options.user.empty()) {
            return "--listen, --database and --user are needed; --help tells of them all";
        }
        if (options.minExpires > options.maxExpires || (defaultSaid && (options.minExpires > options.defaultExpires ||
                                                                        options.defaultExpires > options.maxExpires))) {
            return "--min-expires, --default-expires and --max-expires must be in this order";
        }
        return "";
    }
};

/// An option: what its value is, if it has one, and what takes that; false when it is something else.
struct Known {
    const char* name;
    const char* value;
    bool (*take)(Reading& reading, const char* value);
};

bool setNumber(unsigned& field, std::optional<unsigned> value)
{
    field = value.value_or(field);
    return value.has_value();
}

bool setSeconds(unsigned& field, const char* value)
{
    return setNumber(field, numberOf(value, 1, 0x7fffffff));
}

bool setText(std::string& field, const char* value)
{
    field = value;
    return true;
}

bool addSocket(std::vector<Listen>& sockets, std::optional<Listen> socket)
{
    if (socket) {
        sockets.push_back(std::move(*socket));
    }
    return socket.has_value();
}

constexpr const char* kSeconds = "a number of seconds";
constexpr std::array kKnown{
    Known{"listen", "udp:HOST:PORT or tcp:HOST:PORT",
          [](Reading& to, const char* value) { return addSocket(to.options.listen, listenOf(value)); }},
    Known{"name", "a host",
          [](Reading& to, const char* value) {
              to.options.names.emplace_back(value);
              return host_is_valid(value) != 0;
          }},
    Known{"database", "", [](Reading& to, const char* value) { return setText(to.options.database, value); }},
    Known{"user", "", [](Reading& to, const char* value) { return setText(to.options.user, value); }},
    Known{"password-file", "a readable file",
          [](Reading& to, const char* value) {
              std::ifstream file(value);
              return static_cast<bool>(std::getline(file, to.options.password));
          }},
    Known{"workers", "a number from 1 to 64",
          [](Reading& to, const char* value) { return setNumber(to.options.workers, numberOf(value, 1, 64)); }},
    Known{"auth", "digest or none",
          [](Reading& to, const char* value) {
              to.options.digest = std::strcmp(value, "digest") == 0;
              return to.options.digest || std::strcmp(value, "none") == 0;
          }},
    Known{"realm", "a text without quotes and backslashes", // it stands in quotes wherever it is sent
          [](Reading& to, const char* value) {
              return setText(to.options.realm, value) && std::strpbrk(value, "\"\\") == nullptr;
          }},
    Known{"min-expires", kSeconds,
          [](Reading& to, const char* value) { return setSeconds(to.options.minExpires, value); }},
    Known{"max-expires", kSeconds,
          [](Reading& to, const char* value) { return setSeconds(to.options.maxExpires, value); }},
    Known{"default-expires", kSeconds,
          [](Reading& to, const char* value) {
              to.defaultSaid = true;
              return setSeconds(to.options.defaultExpires, value);
          }},
    Known{"record-route", nullptr, [](Reading& to, const char* /*value*/) { return to.options.recordRoute = true; }},
    Known{"event-server", "a SIP URI",
          [](Reading& to, const char* value) {
              return setText(to.options.eventServer, value) && to.options.eventServer.starts_with("sip:");
          }},
    Known{"metrics", "HOST:PORT",
          [](Reading& to, const char* value) {
              to.options.metrics = listenOf("tcp", value);
              return to.options.metrics.has_value();
          }},
    Known{"help", nullptr, nullptr},
    Known{"version", nullptr, nullptr},
};

/// The same for getopt, which answers the place of each; an abbreviation is none if it may be several.
std::array<option, kKnown.size() + 1> forGetopt()
{
    std::array<option, kKnown.size() + 1> options{};
    for (std::size_t at = 0; at < kKnown.size(); ++at) {
        const Known& known = kKnown.at(at);
        const int value = known.value != nullptr ? required_argument : no_argument;
        options.at(at) = {known.name, value, nullptr, static_cast<int>(at)};
    }
    return options;
}

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
    const auto options = forGetopt();
    Reading reading;
    if (const char* const password = std::getenv("PGPASSWORD")) {
        reading.options.password = password;
    }
    opterr = 0;
    for (int found = 0; (found = getopt_long(argc, argv, "", options.data(), nullptr)) != -1;) {
        if (found == '?') {
            return refused(program, std::string(argv[optind - 1]) + ": no such option, or without its value");
        }
        const Known& known = kKnown.at(static_cast<std::size_t>(found));
        if (known.take == nullptr) {
            known.name == std::string_view("help") ? std::printf(kHelp, program)
                                                   : std::printf("%s " ORYX_VERSION "\n", program);
            return {};
        }
        if (!known.take(reading, optarg)) {
            return refused(program, std::string("--") + known.name + ": not " + known.value + ": " + optarg);
        }
    }
    if (optind < argc) {
        return refused(program, std::string(argv[optind]) + ": no option");
    }
    const std::string wrong = reading.check();
    if (!wrong.empty()) {
        return refused(program, wrong);
    }
    // What nobody has said fits what somebody has.
    Options& said = reading.options;
    said.defaultExpires = std::clamp(said.defaultExpires, said.minExpires, said.maxExpires);
    return Parsed{std::move(said)};
}

} // namespace oryx::sip
