// The service file and the roles that operators are given (deploy/): what they set, which setting wins, and that each
// does what it is there for.

#include "support/DatabaseTest.h"
#include "support/Measure.h"
#include "support/Proxy.h"
#include "support/Show.h"

#include <dal/PresenceDatabaseCommandExecutor.h>
#include <dal/QueryResult.h>
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace deployTest {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

/// What no call takes that a setting ends, however busy the machine; without the setting they would take minutes.
constexpr seconds kPatience(25);

const std::string kSettings =
    "'client_connection_check_interval', 'client_encoding', 'default_transaction_isolation', "
    "'idle_in_transaction_session_timeout', 'lock_timeout', 'standard_conforming_strings', 'statement_timeout'";

class Deployed : public DatabaseTest {
protected:
    Deployed()
    {
        for (const char* const login : {"REGISTRAR", "PROXY", "EVENTS", "PROVISIONING", "OPERATOR", "SUPPORT"}) {
            setenv(("ORYX_" + std::string(login) + "_PASSWORD").c_str(), server::kPassword, 1);
        }
        makeRoles();
        setenv("PGSERVICEFILE", ORYX_DEPLOY "/pg_service.conf", 1);
        setenv("PGSERVICE", "oryx", 1);
    }

    ~Deployed() override
    {
        unsetenv("PGSERVICE");
        setenv("PGPORT", server::port().c_str(), 1);
    }

    void makeRoles()
    {
        const std::string psql = "env -u PGSERVICE psql --no-psqlrc --quiet --dbname=" + m_database.name();
        if (std::system((psql + " --file='" ORYX_DEPLOY "/roles.sql'").c_str()) != 0) {
            throw std::runtime_error("the roles cannot be made");
        }
    }

    bool connect(const std::string& user)
    {
        return m_executor.connect(m_database.uri().c_str(), user.c_str(), server::kPassword);
    }

    /// The rows of a query, as the role sees them, "column|column" each; or the gist of the refusal.
    std::string ask(const std::string& query)
    {
        oryx::QueryResult result;
        const oryx::DatabaseResult outcomeOfIt = m_executor.executeSqlCmd(query, result);
        std::string text = outcomeOfIt.okay() ? "" : outcome(outcomeOfIt);
        for (int row = 0; row < result.rows(); ++row) {
            for (int column = 0; column < result.columns(); ++column) {
                text += std::string(column == 0 ? "" : "|") + result.getValue(row, column);
            }
            text += '\n';
        }
        return text;
    }

    /// Each setting, its value, and what it comes from.
    std::string settings(const std::string& names = kSettings)
    {
        return ask("SELECT name, setting, source FROM pg_settings WHERE name IN (" + names + ") ORDER BY name");
    }

    /// The session of a role, as soon as it waits within a statement.
    std::string waitingSession(const std::string& user)
    {
        std::string pid;
        for (int i = 0; i < 1000 && pid.empty(); ++i) {
            std::this_thread::sleep_for(milliseconds(10));
            pid =
                m_session.value("SELECT pid FROM pg_stat_activity WHERE usename = '" + user + "' AND state = 'active'");
        }
        return pid;
    }

    oryx::PresenceDatabaseCommandExecutor m_executor;
};

const std::string kStrings = "'client_encoding', 'standard_conforming_strings'";

TEST_F(Deployed, SetsForEachRoleWhatItNeeds)
{
    ASSERT_TRUE(connect("registrar")) << m_executor.getErrorMessage();
    const std::string registrars = "client_connection_check_interval|500|user\n"
                                   "client_encoding|UTF8|client\n"
                                   "default_transaction_isolation|read committed|user\n"
                                   "idle_in_transaction_session_timeout|5000|user\n"
                                   "lock_timeout|1500|user\n"
                                   "standard_conforming_strings|on|client\n"
                                   "statement_timeout|2000|user\n";
    EXPECT_EQ(settings(), registrars);
    makeRoles(); // as often as one likes
    EXPECT_EQ(settings(), registrars);
    ASSERT_TRUE(connect("events"));
    EXPECT_EQ(settings("'lock_timeout', 'statement_timeout'"),
              "lock_timeout|1500|user\nstatement_timeout|10000|user\n");
    ASSERT_TRUE(connect("support"));
    EXPECT_EQ(settings("'statement_timeout'"), "statement_timeout|300000|user\n");
    EXPECT_EQ(ask("DELETE FROM contact"), "query error: [42501] ERROR:  permission denied for table contact");
    ASSERT_TRUE(connect("proxy"));
    EXPECT_EQ(settings("'lock_timeout', 'statement_timeout'"), "lock_timeout|1500|user\nstatement_timeout|2000|user\n");
    ASSERT_TRUE(connect("provisioning"));
    EXPECT_EQ(settings("'idle_in_transaction_session_timeout', 'temp_file_limit'"),
              "idle_in_transaction_session_timeout|300000|user\ntemp_file_limit|1048576|user\n");
}

TEST_F(Deployed, MakesEachLoginAMemberOfTheRoleForItsJobAlone)
{
    sql("GRANT oryx_server TO registrar, events"); // as it was before there were roles by job
    makeRoles();
    EXPECT_EQ(
        rows(
            "SELECT member::regrole, roleid::regrole FROM pg_auth_members WHERE member IN (SELECT oid FROM"
            " pg_roles WHERE rolcanlogin AND rolname NOT LIKE 'oryx\\_%') ORDER BY member::regrole::text, roleid::regrole::text"),
        "events|oryx_presence\n"
        "operator|oryx_operator\n"
        "provisioning|oryx_provisioning\n"
        "proxy|oryx_proxy\n"
        "registrar|oryx_proxy\n"
        "registrar|oryx_registrar\n"
        "support|oryx_reader\n");
}

TEST_F(Deployed, ConnectsALoginThatHasSpoiltItsOwnSettings)
{
    const std::string self = "ALTER ROLE CURRENT_USER IN DATABASE " + m_database.name() + " SET ";
    ASSERT_TRUE(connect("registrar"));
    for (const std::string setting :
         {"search_path = nowhere", "DateStyle = 'ISO, DMY'", "local_preload_libraries = nowhere"}) {
        EXPECT_EQ(outcome(m_executor.execute(self + setting)), "okay");
    }
    ASSERT_TRUE(connect("registrar")) << m_executor.getErrorMessage();
    EXPECT_EQ(ask("SELECT count(*), timestamp '2027-02-03 04:05:06' FROM contact"), "0|Wed Feb 03 04:05:06 2027\n");

    unsetenv("PGSERVICE");
    EXPECT_FALSE(connect("registrar"));
}

TEST_F(Deployed, MendsALoginThatHasSpoiltItsOwnSettings)
{
    ASSERT_TRUE(connect("registrar"));
    const std::string sound = settings();
    for (const std::string& where : {std::string(" "), " IN DATABASE " + m_database.name() + " "}) {
        for (const std::string setting : {"statement_timeout = 1", "default_transaction_read_only = on"}) {
            sql("ALTER ROLE registrar" + where + "SET " + setting);
        }
    }
    EXPECT_FALSE(connect("registrar"));
    makeRoles();
    ASSERT_TRUE(connect("registrar")) << m_executor.getErrorMessage();
    EXPECT_EQ(settings(), sound);
}

TEST_F(Deployed, KeepsSessionsOfPeopleFromFillingTheServer)
{
    std::vector<std::unique_ptr<server::Session>> sessions;
    const std::string refusal = "too many connections for role \"support\"";
    std::string told;
    while (told.empty() && sessions.size() < 20) {
        try {
            sessions.push_back(std::make_unique<server::Session>(m_database.name(), "support"));
        } catch (const std::runtime_error& failure) {
            told = failure.what();
        }
    }
    EXPECT_NE(told.find(refusal), std::string::npos) << told;
    EXPECT_EQ(sessions.size(), 5U);
}

TEST_F(Deployed, HidesPasswordsUnderWayFromTheOperator)
{
    server::Session provisioning(m_database.name(), "provisioning");
    provisioning.run("UPDATE subscriber SET s_password = 'wonderland' WHERE sid = 7");
    server::Session overseer(m_database.name(), "operator");
    EXPECT_EQ(overseer.rows("SELECT query FROM pg_stat_activity WHERE datname = current_database() AND usename ="
                            " 'provisioning'"),
              "<insufficient privilege>\n");
    EXPECT_EQ(overseer.rows("SELECT * FROM oryx_alarms()").find("wonderland"), std::string::npos);
}

TEST_F(Deployed, LeavesARoleItsPasswordWhereNoneIsGiven)
{
    unsetenv("ORYX_REGISTRAR_PASSWORD");
    makeRoles();
    EXPECT_TRUE(connect("registrar")) << m_executor.getErrorMessage();
}

TEST_F(Deployed, LeavesARoleItsPasswordWhereAnEmptyOneIsGiven)
{
    setenv("ORYX_REGISTRAR_PASSWORD", "", 1);
    makeRoles();
    EXPECT_TRUE(connect("registrar")) << m_executor.getErrorMessage();
    setenv("ORYX_REGISTRAR_PASSWORD", "it's another", 1);
    makeRoles();
    EXPECT_FALSE(connect("registrar"));
}

TEST_F(Deployed, HasTheServiceFileWinOverTheRoleAndTheRoleOverTheDatabase)
{
    sql("ALTER DATABASE " + m_database.name() + " SET standard_conforming_strings = off");
    sql("ALTER DATABASE " + m_database.name() + " SET client_encoding = 'LATIN1'");
    sql("ALTER ROLE registrar SET standard_conforming_strings = off");
    sql("ALTER ROLE registrar SET client_encoding = 'LATIN2'");
    ASSERT_TRUE(connect("registrar"));
    EXPECT_EQ(settings(kStrings), "client_encoding|UTF8|client\nstandard_conforming_strings|on|client\n");
    EXPECT_EQ(ask("SELECT 'a\\b'"), "a\\b\n"); // a backslash is a character

    unsetenv("PGSERVICE");
    ASSERT_TRUE(connect("registrar"));
    EXPECT_EQ(settings(kStrings), "client_encoding|LATIN2|user\nstandard_conforming_strings|off|user\n");
    sql("ALTER ROLE registrar RESET ALL");
    ASSERT_TRUE(connect("registrar"));
    EXPECT_EQ(settings(kStrings), "client_encoding|LATIN1|database\nstandard_conforming_strings|off|database\n");
}

TEST_F(Deployed, KeepsItsIsolationWhateverTheDatabaseSays)
{
    sql("ALTER DATABASE " + m_database.name() + " SET default_transaction_isolation = 'serializable'");
    ASSERT_TRUE(connect("registrar"));
    EXPECT_EQ(ask("SHOW transaction_isolation"), "read committed\n");
}

TEST_F(Deployed, TakesNoServerThatTakesNoWrites)
{
    sql("ALTER DATABASE " + m_database.name() + " SET default_transaction_read_only = on");
    EXPECT_FALSE(connect("registrar"));
    EXPECT_NE(m_executor.getErrorMessage().find("session is read-only"), std::string::npos)
        << m_executor.getErrorMessage();
}

TEST_F(Deployed, EndsAStatementThatTakesTooLong)
{
    ASSERT_TRUE(connect("registrar"));
    std::string answer;
    const milliseconds took = timed([&] { answer = ask("SELECT pg_sleep(300)"); });
    EXPECT_EQ(answer, "query error: [57014] ERROR:  canceling statement due to statement timeout");
    EXPECT_GE(took, seconds(2));
    EXPECT_LT(took, kPatience);
}

TEST_F(Deployed, EndsTheWaitForALock)
{
    ASSERT_TRUE(connect("events"));
    server::Session holder(m_database.name());
    holder.run("BEGIN; LOCK TABLE conf_state");
    std::string answer;
    const milliseconds took = timed([&] { answer = ask("DELETE FROM conf_state"); });
    EXPECT_EQ(answer, "query error: [55P03] ERROR:  canceling statement due to lock timeout");
    EXPECT_GE(took, milliseconds(1500));
    EXPECT_LT(took, kPatience);
}

TEST_F(Deployed, EndsASessionThatLeavesATransactionOpen)
{
    ASSERT_TRUE(connect("registrar"));
    EXPECT_EQ(ask("BEGIN; DELETE FROM contact; SELECT pg_backend_pid() > 0"), "t\n");
    const std::string session = m_session.value("SELECT pid FROM pg_stat_activity WHERE usename = 'registrar'");
    EXPECT_NE(session, "");
    EXPECT_EQ(remaining(session), ""); // after five seconds
    EXPECT_EQ(ask("SELECT 1"), "1\n");
}

TEST_F(Deployed, EndsTheStatementOfAClientThatIsGone)
{
    const pid_t client = ::fork();
    if (client == 0) {
        connect("support"); // whose statements may take five minutes
        ask("SELECT pg_sleep(300)");
        ::_exit(0);
    }
    ASSERT_GT(client, 0); // or everything would be killed
    const std::string session = waitingSession("support");
    EXPECT_NE(session, "");
    ::kill(client, SIGKILL);
    ::waitpid(client, nullptr, 0);
    EXPECT_EQ(remaining(session), "");
}

TEST_F(Deployed, GivesUpAServerThatDoesNotLetItIn)
{
    server::Proxy proxy;
    setenv("PGPORT", proxy.port().c_str(), 1);
    proxy.swallow(true);
    const milliseconds took = timed([&] { EXPECT_FALSE(connect("registrar")); });
    EXPECT_NE(m_executor.getErrorMessage().find("timeout expired"), std::string::npos) << m_executor.getErrorMessage();
    EXPECT_LT(took, kPatience);
}

TEST_F(Deployed, GivesUpANetworkThatConfirmsNothing)
{
    server::Proxy proxy;
    setenv("PGPORT", proxy.port().c_str(), 1);
    ASSERT_TRUE(connect("registrar"));
    proxy.blackHole(true);
    std::string answer;
    const milliseconds took = timed([&] { answer = ask("SELECT 1"); });
    EXPECT_NE(answer, "1\n");
    EXPECT_LT(took, kPatience);
    proxy.blackHole(false);
    EXPECT_EQ(ask("SELECT 1"), "1\n");
}

TEST_F(Deployed, GivesUpANetworkThatFallsSilentBeforeTheAnswer)
{
    server::Proxy proxy;
    setenv("PGPORT", proxy.port().c_str(), 1);
    ASSERT_TRUE(connect("support"));
    auto asked = std::async(std::launch::async, [this] {
        std::string answer;
        const milliseconds took = timed([&] { answer = ask("SELECT pg_sleep(300)"); });
        EXPECT_LT(took, kPatience);
        return answer;
    });
    const std::string session = waitingSession("support"); // the statement has arrived, and nothing is on its way
    EXPECT_NE(session, "");
    proxy.blackHole(true);
    EXPECT_NE(asked.get(), "\n");
    proxy.blackHole(false);
}

} // namespace

} // namespace deployTest
