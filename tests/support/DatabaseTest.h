#pragma once

#include "support/Server.h"

#include <dal/Dal.h>
#include <dal/DatabaseCommandExecutor.h>
#include <dal/LocationService.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

/// \file
/// Fixtures of the tests that need a server: a database of the test's own, and the library connected to it as a server
/// is. After each test the library must have left no transaction open.
///
/// Tests run in both ways of sending, plain and bound (tests/CMakeLists.txt); what they expect of each stands in them.

/// The gist of a failed statement's message: its SQLSTATE and first line. Any other message as it is.
std::string gist(const std::string& message);

/// Whether ORYX_STATEMENTS asks for bound statements.
bool bound();
///@{
/// What is expected, where it depends on how statements are sent.
inline std::string plainOrBound(const std::string& plain, const std::string& inBound)
{
    return bound() ? inBound : plain;
}
inline int plainOrBound(int plain, int inBound)
{
    return bound() ? inBound : plain;
}
///@}

/// A value with a quote, which is a character in a bound statement, and what the server says to a plain one with it.
constexpr const char* kQuoted = "o'neill";
inline const std::string kBroken = "[42601] ERROR:  syntax error at or near \"neill\"";

/// A result with the gist of its message.
std::string outcome(const oryx::DatabaseResult& result);

/// For tests that store rows by the ten thousand: to enter them in the indexes one by one takes longer than all else,
/// in those of what is searched for and in those of texts above all. No row enters any after the first, and the second,
/// outside a transaction, builds them of the rows that are there. What is stored in between must not be looked up.
constexpr const char* kSetIndexesAside = "UPDATE pg_index SET indisready = false, indisvalid = false FROM pg_class"
                                         " WHERE pg_class.oid = indrelid AND relnamespace = 'public'::regnamespace";
constexpr const char* kBuildIndexes = "REINDEX SCHEMA public";

/// A contact with a value in every field that a registration brings.
oryx::ContactRecord contact(const std::string& address);
std::vector<oryx::ContactRecord> contacts(const std::vector<std::string>& addresses);

class DatabaseTest : public testing::Test {
protected:
    DatabaseTest();
    void TearDown() override;

    void sql(const std::string& statements) { m_session.run(statements); }
    std::string rows(const std::string& query) { return m_session.rows(query); }

    /// Alice, subscriber 7, with contact set 12 and the address of record alice@oryx.example, key 42.
    void provisionAlice();
    /// Every contact in the database, every column that a registration writes.
    std::string storedContacts();

    /// The server process behind the library's latest connection, and its state. (Those of former connections may take
    /// a moment to go.)
    std::string backend();
    std::string sessionState();
    /// The process behind a statement of the library's that waits for a lock or sleeps, as soon as there is one other
    /// than `former`.
    std::string waitingBackend(const std::string& former = "");
    /// Empty as soon as the process has gone.
    std::string remaining(const std::string& backend);
    void terminate(const std::string& backend);

    server::Database m_database;
    server::Session m_session;

private:
    /// Asks until the answer is the one wanted, or for so long that it never will be; the last answer.
    std::string eventually(const std::string& query, const std::function<bool(const std::string&)>& wanted);
};

class ExecutorTest : public DatabaseTest {
protected:
    void SetUp() override;

    /// The gist of the executor's error text.
    std::string reason() { return gist(m_executor.getErrorMessage()); }

    oryx::DatabaseCommandExecutor m_executor;
};

class ServiceTest : public DatabaseTest {
protected:
    void SetUp() override;

    /// Registers contacts with these addresses for Alice.
    std::string registerAll(const std::vector<std::string>& addresses);
    /// What a lookup of Alice's contacts gives.
    std::string alicesContacts();

    oryx::LocationService m_service;
};
