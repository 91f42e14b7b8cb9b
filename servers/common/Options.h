#pragma once

#include <optional>
#include <string>
#include <vector>

namespace oryx::sip {

/// A socket to listen on.
struct Listen {
    std::string transport; ///< "udp" or "tcp".
    std::string host;      ///< A name or an address; an IPv6 address in brackets.
    std::string port;      ///< "0": any free one.
};

/// What the command line says; the same for both servers.
struct Options {
    std::vector<Listen> listen;
    std::vector<std::string> names; ///< By which telephones reach the server, too, at its sockets' ports.
    std::string database;           ///< As `DatabaseConnection::connect` takes it.
    std::string user;
    std::string password;
    unsigned workers = 2;
    bool digest = true;
    std::string realm;        ///< Empty: the first served domain.
    unsigned minExpires = 60; ///< Seconds, as the two below.
    unsigned maxExpires = 86400;
    unsigned defaultExpires = 3600;
    bool recordRoute = false;
    std::string eventServer; ///< A URI; empty: none.
    std::optional<Listen> metrics;
};

/// The options, or the status that the program ends with at once: 0 after what was asked for was printed, 2 after a
/// line that says what is wrong.
struct Parsed {
    std::optional<Options> options;
    int status = 0;
};

/// Reads the command line; the password comes from its file, or from PGPASSWORD.
Parsed parseOptions(int argc, char** argv);

} // namespace oryx::sip
