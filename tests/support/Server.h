#pragma once

#include <libpq-fe.h>

#include <array>
#include <memory>
#include <string>

/// \file
/// The throw-away server that the tests run against, and a database of the test's own on it. Whatever goes wrong here
/// is thrown, and the test fails with the server's words.

namespace server {

/// The role that the library connects as: a member of the servers' role and nothing more.
constexpr const char* kUser = "oryx_test_server";
constexpr const char* kPassword = "only-for-the-tests";
/// As a server keeps it, of one round in place of 4,096: those, under a sanitizer, would be most of what a test takes.
constexpr const char* kPasswordKept =
    "SCRAM-SHA-256$1:MDEyMzQ1Njc4OWFiY2RlZg==$kvkPujiQcrsj/y+ehHUWMEO2axIazJD9+m4s9KbzS6k=:"
    "4Gn//5ciBXW9/868EMY1BNq2UZw9VOXCkb+rnTGNq0s=";

/// The roles by job, each with a login role of the tests.
inline constexpr std::array kGroups{"oryx_reader",   "oryx_registrar",    "oryx_proxy",
                                    "oryx_presence", "oryx_provisioning", "oryx_operator"};
/// The login role that is a member of a group and nothing more; its password is the other's.
std::string loginOf(const std::string& group);

/// The server's port, also after a test has set another one for the library.
const std::string& port();

/// A superuser's session beside the library's own, to set up rows and to look at them; or another role's.
class Session {
public:
    explicit Session(const std::string& database, const std::string& user = "");

    void run(const std::string& statements);
    /// The rows of a query, a line each: columns parted by "|", SQL NULL as "NULL".
    std::string rows(const std::string& query);
    /// What a query of one value gives; empty where there is no row.
    std::string value(const std::string& query);

    /// What the server says to one statement: its SQLSTATE, empty for success, and the rows as above.
    struct Answer {
        std::string sqlState;
        std::string rows;
    };
    /// Runs one statement with a text for its $1, which travels beside it.
    Answer ask(const std::string& statement, const std::string& text);

private:
    struct Release {
        void operator()(PGconn* connection) const { PQfinish(connection); }
        void operator()(PGresult* result) const { PQclear(result); }
    };

    std::unique_ptr<PGresult, Release> execute(const std::string& statements);
    static std::string show(const PGresult* result);

    std::unique_ptr<PGconn, Release> m_connection;
};

/// A database with the schema and no rows, gone with the object.
class Database {
public:
    /// With the migrations below that number applied, as some release has left it, or with all.
    explicit Database(const std::string& before = "");
    ~Database();
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    const std::string& name() const { return m_name; }
    /// As the servers name it.
    std::string uri() const { return "postgresql://127.0.0.1/" + m_name; }
    /// The same by the server's socket, where there is one: connecting takes a tenth of the time.
    std::string socketUri() const;

private:
    std::string m_name;
};

} // namespace server
