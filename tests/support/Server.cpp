#include "support/Server.h"

#include "support/TemporaryDirectory.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>

namespace server {

namespace {

void requireThrowAwayServer()
{
    if (std::getenv("ORYX_TEST_SERVER") == nullptr) {
        throw std::runtime_error("no throw-away server: run the tests through scripts/with-server");
    }
}

/// The migrations below that number, or all.
std::set<std::filesystem::path> migrations(const std::string& before)
{
    std::set<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(ORYX_SCHEMA)) {
        if (entry.path().extension() == ".sql" && (before.empty() || entry.path().filename() < before)) {
            files.insert(entry.path());
        }
    }
    return files;
}

void makeLogin(Session& session, const std::string& login, const std::string& group)
{
    session.run("DO $$ BEGIN IF NOT EXISTS (SELECT FROM pg_roles WHERE rolname = '" + login + "') THEN CREATE ROLE " +
                login + " LOGIN PASSWORD '" + kPasswordKept + "' IN ROLE " + group + "; END IF; END $$");
}

void applyMigrations(const std::set<std::filesystem::path>& files, const std::string& database)
{
    const TemporaryDirectory folder;
    std::filesystem::copy_file(ORYX_SCHEMA "/apply", folder.file("apply"));
    for (const auto& file : files) {
        std::filesystem::copy_file(file, folder.file(file.filename()));
    }
    // An earlier test of the process may have turned the environment to another server.
    const std::string here = "env -u PGSERVICE PGPORT=" + port();
    if (std::system((here + " '" + folder.file("apply") + "' " + database + " >&2").c_str()) != 0) {
        throw std::runtime_error("the schema cannot be applied");
    }
}

void makeTemplate(Session& session, const std::string& name, const std::string& before)
{
    session.run("DROP DATABASE IF EXISTS " + name);
    session.run("CREATE DATABASE " + name);
    applyMigrations(migrations(before), name);
    if (before.empty()) {
        makeLogin(session, kUser, "oryx_server");
        for (const char* const group : kGroups) {
            makeLogin(session, loginOf(group), group);
        }
    }
    session.run("ALTER DATABASE " + name + " IS_TEMPLATE true");
}

/// Its name tells the migrations it was made of, so that a server that outlives a change of them gets another one, and
/// whether it has logins.
std::string templateName(const std::string& before)
{
    std::ostringstream text;
    for (const auto& file : migrations(before)) {
        text << std::ifstream(file).rdbuf();
    }
    return (before.empty() ? "oryx_template_" : "oryx_older_template_") +
           std::to_string(std::hash<std::string>{}(text.str()));
}

/// The database that others are copied from, made at the first demand.
const std::string& templateDatabase(Session& session, const std::string& before)
{
    static std::map<std::string, std::string> known; // to this process
    if (const auto entry = known.find(before); entry != known.end()) {
        return entry->second;
    }
    const std::string name = templateName(before);
    // Tests run at once: one makes it, the others wait here.
    session.run("SELECT pg_advisory_lock(7)");
    try {
        if (session.rows("SELECT 1 FROM pg_database WHERE datistemplate AND datname = '" + name + "'").empty()) {
            makeTemplate(session, name, before);
        }
    } catch (...) {
        session.run("SELECT pg_advisory_unlock(7)");
        throw;
    }
    session.run("SELECT pg_advisory_unlock(7)");
    return known[before] = name;
}

/// By which all databases of this process are made and dropped: to connect would take as long as either. Another one
/// where the server has been stopped meanwhile.
Session& maintenance()
{
    static std::optional<Session> session;
    try {
        if (session) {
            session->run("SELECT");
        }
    } catch (const std::runtime_error&) {
        session.reset();
    }
    return session ? *session : session.emplace("postgres");
}

} // namespace

const std::string& port()
{
    static const std::string kPort = [] {
        const char* const value = std::getenv("PGPORT");
        return std::string(value != nullptr ? value : "");
    }();
    return kPort;
}

std::string loginOf(const std::string& group)
{
    return group + "_login";
}

Session::Session(const std::string& database, const std::string& user)
{
    requireThrowAwayServer();
    // The socket asks for no password and encrypts nothing, which would be a third of a short test's work.
    const char* const socket = std::getenv("ORYX_SERVER_SOCKET");
    const std::string host = socket != nullptr ? std::string(" host=") + socket : std::string();
    // A test may have set a service that wants a server that takes writes.
    const std::string whatever = " target_session_attrs=any";
    const std::string role = user.empty() ? std::string() : " user=" + user;
    m_connection.reset(PQconnectdb(("dbname=" + database + " port=" + port() + host + whatever + role).c_str()));
    if (PQstatus(m_connection.get()) != CONNECTION_OK) {
        throw std::runtime_error(PQerrorMessage(m_connection.get()));
    }
    // What a statement has to say beside its outcome is for the library's own tests.
    run("SET client_min_messages = error");
}

void Session::run(const std::string& statements)
{
    execute(statements);
}

std::string Session::rows(const std::string& query)
{
    return show(execute(query).get());
}

std::string Session::show(const PGresult* result)
{
    std::string text;
    for (int row = 0; row < PQntuples(result); ++row) {
        for (int column = 0; column < PQnfields(result); ++column) {
            text += column == 0 ? "" : "|";
            text += PQgetisnull(result, row, column) != 0 ? "NULL" : PQgetvalue(result, row, column);
        }
        text += '\n';
    }
    return text;
}

std::string Session::value(const std::string& query)
{
    std::string text = rows(query);
    text.resize(text.empty() ? 0 : text.size() - 1);
    return text;
}

Session::Answer Session::ask(const std::string& statement, const std::string& text)
{
    constexpr Oid kText = 25; // pg_type.oid: the server need not guess what $1 is
    const char* const value = text.c_str();
    const std::unique_ptr<PGresult, Release> result(
        PQexecParams(m_connection.get(), statement.c_str(), 1, &kText, &value, nullptr, nullptr, 0));
    const char* const state = PQresultErrorField(result.get(), PG_DIAG_SQLSTATE);
    return {state != nullptr ? state : "", show(result.get())};
}

std::unique_ptr<PGresult, Session::Release> Session::execute(const std::string& statements)
{
    std::unique_ptr<PGresult, Release> result(PQexec(m_connection.get(), statements.c_str()));
    const ExecStatusType status = PQresultStatus(result.get());
    if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) {
        throw std::runtime_error(PQerrorMessage(m_connection.get()) + statements);
    }
    return result;
}

Database::Database(const std::string& before)
    : m_name((before.empty() ? "oryx_test_" : "oryx_older_") + std::to_string(getpid()))
{
    Session& session = maintenance();
    const std::string& source = templateDatabase(session, before);
    session.run("DROP DATABASE IF EXISTS " + m_name + " WITH (FORCE)");
    // Copied file by file: writing the whole template to the log takes the server seven times as long.
    session.run("CREATE DATABASE " + m_name + " TEMPLATE " + source + " STRATEGY file_copy");
    // A copy lacks what the server keeps beside a database: its settings and the rights to it.
    session.run("INSERT INTO pg_db_role_setting SELECT made.oid, setrole, setconfig FROM pg_database made, "
                "pg_database source JOIN pg_db_role_setting ON setdatabase = source.oid WHERE made.datname = '" +
                m_name + "' AND source.datname = '" + source + "'");
    session.run("UPDATE pg_database SET datacl = source.datacl FROM pg_database source WHERE pg_database.datname = '" +
                m_name + "' AND source.datname = '" + source + "'");
}

std::string Database::socketUri() const
{
    const char* const socket = std::getenv("ORYX_SERVER_SOCKET");
    if (socket == nullptr) {
        return uri();
    }
    std::string host;
    for (const char* at = socket; *at != '\0'; ++at) {
        host += *at == '/' ? "%2F" : std::string(1, *at);
    }
    return "postgresql://" + host + "/" + m_name;
}

Database::~Database()
{
    try {
        maintenance().run("DROP DATABASE " + m_name + " WITH (FORCE)");
    } catch (const std::exception& failure) {
        ADD_FAILURE() << "the test's database was not dropped: " << failure.what();
    }
}

} // namespace server
