#pragma once

#include <libpq-fe.h>

#include <memory>
#include <string>

/// \file
/// The throw-away server that the tests run against, and a database of the test's own on it. Whatever goes wrong here
/// is thrown, and the test fails with the server's words.

namespace server {

/// The role that the library connects as: a member of the servers' role and nothing more.
constexpr const char* kUser = "oryx_test_server";
constexpr const char* kPassword = "only-for-the-tests";

/// The server's port, also after a test has set another one for the library.
const std::string& port();

/// A superuser's session beside the library's own, to set up rows and to look at them.
class Session {
public:
    explicit Session(const std::string& database);

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
    Database();
    ~Database();
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    const std::string& name() const { return m_name; }
    /// As the servers name it.
    std::string uri() const { return "postgresql://127.0.0.1/" + m_name; }

private:
    std::string m_name;
};

} // namespace server
