#pragma once

#include "hostile/Entry.h"
#include "support/Server.h"

#include <dal/SessionOptions.h>

#include <string>
#include <vector>

/// \file
/// The database that the entries of the table are tried on.

/// Lines in order.
using Snapshot = std::vector<std::string>;

/// What the one holds and the other does not.
Snapshot without(const Snapshot& snapshot, const Snapshot& other);

/// One database and one connected library for all entries.
class World {
public:
    using Statements = oryx::SessionOptions::Statements;

    explicit World(Statements statements = Statements::bound);

    /// Connects a library anew, as a login role.
    void connect(Library& connected, Statements statements, const std::string& user) const;

    /// Makes the tables that are not as they were so again.
    void bringBack(const Snapshot& now);
    /// Adds what is there before a call; the SQLSTATE if the schema refuses it.
    std::string arrange(const Entry& entry, const std::string& text);
    /// Adds rows, with a text for $1.
    void add(const std::string& statement, const std::string& text);
    /// What the superuser's session answers.
    std::string rows(const std::string& query) { return m_session.rows(query); }

    struct Expected {
        std::string refusal; ///< The SQLSTATE if the schema refuses the change.
        Snapshot snapshot;
    };
    /// What the change leads to; it is not made.
    Expected expect(const Entry& entry, const std::string& text);
    /// What the call shall answer after these, and where `arrange` met with that refusal.
    std::string answer(const Entry& entry, const Expected& expected, const std::string& absent,
                       const std::string& text);

    Snapshot snapshot();

    /// Whether the library still has the sessions that it began with.
    bool sessionsKept();
    /// How many of them are in a transaction.
    std::string openTransactions();

    Library library;

private:
    /// A search as the server answers it by itself.
    std::string search(const Entry& entry, const std::string& text);

    server::Database m_database;
    server::Session m_session;
    server::Session m_keeper; // adds and removes rows that are there before a call, without triggers and references
    Snapshot m_start;
    std::string m_sessions;
};
