#pragma once

#include "support/Server.h"
#include "support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

/// \file
/// Fixture of tests that apply the schema themselves.

/// A database of the test's own, and a copy of the folder of migrations, to which the test may add some.
class MigrationTest : public testing::Test {
protected:
    /// With the migrations below that number applied, as some release has left it, or with all.
    explicit MigrationTest(const std::string& before = "");
    ~MigrationTest() override;

    /// The exit status of a command; what it says is kept.
    int run(const std::string& command) const;
    int apply(const std::string& options = "") const;
    /// The command that this runs.
    std::string applyCommand(const std::string& options = "") const;

    std::string told() const { return m_folder.read("out") + m_folder.read("err"); }
    /// The warnings of the last command, without the place in the file.
    std::string warnings() const;

    void addMigration(const std::string& name, const std::string& text) const;
    /// Leaves out the migrations of that number and above.
    void leaveOut(const std::string& from) const;
    /// Those applied of the migrations of that number and above.
    std::string applied(const std::string& from) const;

    /// A further database, empty, or restored from a plain dump of this one; its name.
    std::string makeEmpty() const;
    std::string restore() const;

    server::Database m_database;
    std::string m_name = m_database.name();
    TemporaryDirectory m_folder;
    std::unique_ptr<server::Session> m_session;
};
