#include "support/MigrationTest.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <vector>

namespace {

constexpr const char* kReleased = ORYX_SCHEMA;

} // namespace

MigrationTest::MigrationTest(const std::string& before) : m_database(before)
{
    std::filesystem::copy(kReleased, m_folder.file("schema"), std::filesystem::copy_options::recursive);
    m_session = std::make_unique<server::Session>(m_name);
}

MigrationTest::~MigrationTest()
{
    m_session.reset();
    server::Session("postgres").run("DROP DATABASE IF EXISTS " + m_name + "_further WITH (FORCE)");
}

int MigrationTest::run(const std::string& command) const
{
    const int status =
        std::system(("{ " + command + "; } >'" + m_folder.file("out") + "' 2>'" + m_folder.file("err") + "'").c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string MigrationTest::applyCommand(const std::string& options) const
{
    return "'" + m_folder.file("schema") + "/apply' " + options + " " + m_name;
}

int MigrationTest::apply(const std::string& options) const
{
    return run(applyCommand(options));
}

std::string MigrationTest::warnings() const
{
    std::istringstream lines(m_folder.read("err"));
    std::string text;
    for (std::string line; std::getline(lines, line);) {
        text += line.substr(std::min(line.find("WARNING:"), line.size())) + "\n";
    }
    return text;
}

void MigrationTest::addMigration(const std::string& name, const std::string& text) const
{
    m_folder.write("schema/" + name + ".sql", text);
}

void MigrationTest::leaveOut(const std::string& from) const
{
    std::vector<std::filesystem::path> later;
    for (const auto& entry : std::filesystem::directory_iterator(m_folder.file("schema"))) {
        if (entry.path().extension() == ".sql" && entry.path().filename().string() >= from) {
            later.push_back(entry.path());
        }
    }
    for (const auto& path : later) {
        std::filesystem::remove(path);
    }
}

std::string MigrationTest::applied(const std::string& from) const
{
    return m_session->rows("SELECT name FROM schema_migration WHERE number >= " + from + " ORDER BY number");
}

std::string MigrationTest::makeEmpty() const
{
    std::string further = m_name + "_further";
    server::Session("postgres").run("CREATE DATABASE " + further);
    return further;
}

std::string MigrationTest::restore() const
{
    std::string restored = makeEmpty();
    const std::string dump = m_folder.file("dump");
    EXPECT_EQ(
        run("pg_dump -f " + dump + " " + m_name + " && psql -X -q -v ON_ERROR_STOP=1 -f " + dump + " " + restored), 0)
        << told();
    return restored;
}
