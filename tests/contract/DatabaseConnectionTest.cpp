#include "contract/Course.h"
#include "support/FakeLibpq.h"
#include "support/TraceLog.h"

#include <dal/DatabaseConnection.h>
#include <dal/QueryResult.h>

#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <type_traits>
#include <vector>

namespace databaseConnectionTest {

namespace {

using fake::command;
using fake::nothing;
using fake::refused;
using fake::status;

static_assert(!std::is_copy_constructible_v<oryx::DatabaseConnection>);
static_assert(!std::is_copy_assignable_v<oryx::DatabaseConnection>);

std::string traced(const std::vector<std::string>& texts)
{
    return traceLines("DatabaseConnection", texts);
}

class DatabaseConnectionTest : public testing::Test {
protected:
    /// What an operation returned and why, then what it asked of libpq.
    std::string told(bool returned)
    {
        return std::string(returned ? "true" : "false") + " '" + connection.getErrorMessage() + "'\n" + libpq.take();
    }

    fake::Libpq libpq;
    TraceLog trace;
    oryx::DatabaseConnection connection;
};

class ConnectedDatabaseConnectionTest : public DatabaseConnectionTest {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(connection.connect("registrar", "alice", "secret"));
        libpq.errorMessage(kServerGone);
        libpq.take();
        trace.take();
    }
};

using DatabaseConnect = DatabaseConnectionTest;

TEST_F(DatabaseConnect, FailsOnAMissingArgumentWithoutCallingLibpq)
{
    const std::string refusal = "false 'missing connection parameters'\n";
    EXPECT_EQ(told(connection.connect(nullptr, "alice", "secret")), refusal);
    EXPECT_EQ(told(connection.connect("registrar", nullptr, "secret")), refusal);
    EXPECT_EQ(told(connection.connect("registrar", "alice", nullptr)), refusal);
    EXPECT_EQ(trace.take(), "");
}

TEST_F(DatabaseConnect, InstallsTheNoticeProcessorAndTracesTheConnectionString)
{
    EXPECT_EQ(told(connection.connect("pgsql://db.oryx.example/registrar", "alice", "secret")),
              "true ''\n"
              "connect host=db.oryx.example dbname=registrar user=alice password=secret\n"
              "notices\n");
    EXPECT_EQ(trace.take(), traced({"host=db.oryx.example dbname=registrar user=alice password=secret"}));
    EXPECT_TRUE(connection.active());
}

struct ConnectionString {
    const char* name;
    const char* uri;
    const char* user;
    const char* password;
    std::string expected;
};

void PrintTo(const ConnectionString& given, std::ostream* out)
{
    *out << given.expected;
}

class ConnectionStrings : public DatabaseConnectionTest, public testing::WithParamInterface<ConnectionString> {};

TEST_P(ConnectionStrings, AreSentAndTracedAsTheyStand)
{
    const ConnectionString& given = GetParam();
    EXPECT_EQ(told(connection.connect(given.uri, given.user, given.password)),
              "true ''\nconnect " + given.expected + "\nnotices\n");
    EXPECT_EQ(trace.take("DatabaseConnection"), traced({given.expected}));
}

INSTANTIATE_TEST_SUITE_P(
    Of, ConnectionStrings,
    testing::Values(ConnectionString{"ABareDatabaseName", "registrar", "alice", "secret",
                                     "dbname=registrar user=alice password=secret"},
                    ConnectionString{"AUrlWithoutAHost", "pgsql:///registrar", "alice", "secret",
                                     "dbname=registrar user=alice password=secret"},
                    ConnectionString{"AUrlWithAPort", "pgsql://db.oryx.example:5433/registrar", "alice", "secret",
                                     "host=db.oryx.example dbname=registrar user=alice password=secret"},
                    ConnectionString{
                        "AHostList", "pgsql://db1.oryx.example,db2.oryx.example/registrar", "alice", "secret",
                        "host=db1.oryx.example,db2.oryx.example dbname=registrar user=alice password=secret"},
                    ConnectionString{"ASocketDirectory", "pgsql://%2Fvar%2Frun%2Fpostgresql/registrar", "alice",
                                     "secret", "host=/var/run/postgresql dbname=registrar user=alice password=secret"},
                    ConnectionString{"AUrlWithoutADatabase", "pgsql://db.oryx.example", "alice", "secret",
                                     "host=db.oryx.example dbname= user=alice password=secret"},
                    ConnectionString{"TextThatIsNoUrl", "registrar at db.oryx.example", "alice", "secret",
                                     "dbname=registrar at db.oryx.example user=alice password=secret"},
                    ConnectionString{"EmptyArguments", "", "", "", "dbname= user= password="},
                    ConnectionString{"ValuesWithQuotesBlanksAndPercents", "registrar", "al ice", "it's 100%s \\secret",
                                     "dbname=registrar user=al ice password=it's 100%s \\secret"}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_F(DatabaseConnect, TellsWhatOfAUriIsIgnoredAndWhatToSetInstead)
{
    const auto advice = [this](const char* uri, const char* user = "alice") {
        connection.connect(uri, user, "secret");
        connection.close();
        return trace.take("oryx");
    };
    const std::string user =
        "oryx log: the user in the database URI is ignored, and a password with it: give both to connect\n";
    const std::string port = "oryx log: the port in the database URI is ignored: set PGPORT, or port in the service "
                             "file (PGSERVICE)\n";
    const std::string query = "oryx log: the query of the database URI is ignored: set libpq's environment (PGSSLMODE, "
                              "PGCONNECT_TIMEOUT, ...), or the service file (PGSERVICE)\n";
    const std::string database =
        "oryx log: the database is empty, so libpq takes the next item for it: name it in the URI's path\n";
    for (const char* quiet :
         {"registrar", "registrar at db:5432", "pgsql:///registrar", "pgsql://h/registrar",
          "pgsql://h1,[2001:db8::1]/registrar", "pgsql://%2Fvar%2Frun/registrar", "pgsql://h/a:1@b"}) {
        EXPECT_EQ(advice(quiet), "") << quiet;
    }
    EXPECT_EQ(advice("pgsql://h:5433/registrar"), port);
    EXPECT_EQ(advice("pgsql://h1,h2:5433/registrar"), port);
    EXPECT_EQ(advice("pgsql://[2001:db8::1]:5433/registrar"), port);
    EXPECT_EQ(advice("pgsql://bob@h/registrar"), user);
    EXPECT_EQ(advice("pgsql://bob:hidden@h:5433/registrar?sslmode=require"), user + port + query);
    EXPECT_EQ(advice("pgsql://h/registrar#fragment"), query);
    EXPECT_EQ(advice("pgsql://h"), database);
    EXPECT_EQ(advice("pgsql://h/?dbname=registrar"), query + database);
    EXPECT_EQ(advice(""), database);
    EXPECT_EQ(advice("registrar", ""),
              "oryx log: the user is empty, so libpq takes the next item, the password, for it: give one to connect\n");
    EXPECT_EQ(advice("pgsql://bob:hid den@h/registrar"),
              "oryx log: the database URI is not valid, so all of it is taken for the database's name\n");
}

TEST_F(DatabaseConnect, ReportsARefusalWithLibpqsText)
{
    libpq.connectsWith(CONNECTION_BAD, "FATAL:  password authentication failed\n");
    EXPECT_EQ(told(connection.connect("registrar", "alice", "wrong")),
              "false 'FATAL:  password authentication failed\n'\n"
              "connect dbname=registrar user=alice password=wrong\n"
              "notices\n");
    EXPECT_EQ(trace.take(), traced({"dbname=registrar user=alice password=wrong", "connection failed, status=1\n"}));
    EXPECT_FALSE(connection.active());
    EXPECT_EQ(connection.getErrorMessage(), "FATAL:  password authentication failed\n");
}

TEST_F(DatabaseConnect, NamesTheStatusNumberOfAConnectionThatIsNotReady)
{
    libpq.connectsWith(CONNECTION_MADE);
    EXPECT_FALSE(connection.connect("registrar", "alice", "secret"));
    EXPECT_EQ(trace.take(), traced({"dbname=registrar user=alice password=secret", "connection failed, status=3\n"}));
}

TEST_F(DatabaseConnect, HoldsARefusedConnectionUntilItIsClosed)
{
    libpq.connectsWith(CONNECTION_BAD, "refused");
    EXPECT_FALSE(connection.connect("registrar", "alice", "secret"));
    libpq.take();
    trace.take();
    connection.close();
    EXPECT_EQ(libpq.take(), "finish\n");
    EXPECT_EQ(trace.take(), traced({"connection closed"}));
}

TEST_F(DatabaseConnect, TracesNoticesOfARefusedConnectionToo)
{
    libpq.connectsWith(CONNECTION_BAD, "refused");
    EXPECT_FALSE(connection.connect("registrar", "alice", "secret"));
    trace.take();
    libpq.notice("WARNING:  going down\n");
    EXPECT_EQ(trace.take(), traced({"libpq MESSAGE: WARNING:  going down\n"}));
}

TEST_F(DatabaseConnect, MayBeMadeGoodByAReset)
{
    libpq.connectsWith(CONNECTION_BAD, "refused");
    EXPECT_FALSE(connection.connect("registrar", "alice", "secret"));
    libpq.take();
    EXPECT_EQ(told(connection.reset()), "true ''\nreset\n");
    EXPECT_TRUE(connection.active());
}

TEST_F(DatabaseConnect, HoldsNothingWhenLibpqGivesNoConnection)
{
    libpq.connectsToNothing();
    libpq.errorMessage("out of memory\n");
    EXPECT_EQ(told(connection.connect("registrar", "alice", "secret")),
              "false 'out of memory\n'\nconnect dbname=registrar user=alice password=secret\n");
    EXPECT_EQ(trace.take(), traced({"dbname=registrar user=alice password=secret"}));
    EXPECT_EQ(told(connection.active()), "false 'no connection'\n");
}

TEST_F(DatabaseConnect, HasAReasonOfItsOwnWhenLibpqGivesNone)
{
    libpq.connectsToNothing();
    libpq.errorMessage(std::nullopt);
    EXPECT_FALSE(connection.connect("registrar", "alice", "secret"));
    EXPECT_EQ(connection.getErrorMessage(), "unspecified error");
}

TEST_F(DatabaseConnect, EmptiesTheReasonOfAnEarlierFailure)
{
    connection.error("an earlier failure");
    EXPECT_TRUE(connection.connect("registrar", "alice", "secret"));
    EXPECT_EQ(connection.getErrorMessage(), "");
}

TEST_F(DatabaseConnect, DoesNotFinishAConnectionThatWasNotClosed)
{
    libpq.leavesOpen(1);
    EXPECT_TRUE(connection.connect("registrar", "alice", "secret"));
    libpq.take();
    EXPECT_EQ(told(connection.connect("standby", "alice", "secret")),
              "true ''\nconnect dbname=standby user=alice password=secret\nnotices\n");
}

using DatabaseClose = ConnectedDatabaseConnectionTest;

TEST_F(DatabaseClose, TracesOnceHoweverOftenItIsAskedFor)
{
    connection.close();
    connection.close();
    EXPECT_EQ(libpq.take(), "finish\n");
    EXPECT_EQ(trace.take(), traced({"connection closed"}));
    EXPECT_EQ(told(connection.active()), "false 'no connection'\n");
}

TEST_F(DatabaseClose, LetsTheObjectConnectAgain)
{
    connection.close();
    libpq.take();
    EXPECT_EQ(told(connection.connect("standby", "alice", "secret")),
              "true ''\nconnect dbname=standby user=alice password=secret\nnotices\n");
    EXPECT_TRUE(connection.active());
}

TEST_F(DatabaseConnect, EndsWithTheObject)
{
    {
        oryx::DatabaseConnection shortLived;
        EXPECT_TRUE(shortLived.connect("registrar", "alice", "secret"));
        libpq.take();
        trace.take();
    }
    EXPECT_EQ(libpq.take(), "finish\n");
    EXPECT_EQ(trace.take(), traced({"connection closed"}));
}

TEST_F(DatabaseConnect, LeavesNothingToCloseWhenItNeverHappened)
{
    connection.close();
    {
        const oryx::DatabaseConnection neverConnected;
    }
    EXPECT_EQ(libpq.take(), "");
    EXPECT_EQ(trace.take(), "");
}

using DatabaseActive = ConnectedDatabaseConnectionTest;

TEST_F(DatabaseActive, LeavesTheErrorTextAsItIs)
{
    connection.error("an earlier failure");
    EXPECT_EQ(told(connection.active()), "true 'an earlier failure'\n");
    libpq.loseConnection();
    EXPECT_EQ(told(connection.active()), "false 'an earlier failure'\n");
    EXPECT_EQ(trace.take(), "");
}

TEST_F(DatabaseConnectionTest, IsNotActiveBeforeItIsConnected)
{
    EXPECT_EQ(told(connection.active()), "false 'no connection'\n");
    EXPECT_EQ(trace.take(), "");
}

using DatabaseReset = ConnectedDatabaseConnectionTest;

TEST_F(DatabaseReset, BringsALostConnectionBack)
{
    libpq.loseConnection();
    connection.error("an earlier failure");
    EXPECT_EQ(told(connection.reset()), "true ''\nreset\n");
    EXPECT_TRUE(connection.active());
    EXPECT_EQ(trace.take(), "");
}

TEST_F(DatabaseReset, ReportsWhatLibpqSaysOfItsFailure)
{
    libpq.resetsTo({CONNECTION_BAD});
    EXPECT_EQ(told(connection.reset()), "false '" + kServerGone + "'\nreset\n");
    EXPECT_FALSE(connection.active());
}

TEST_F(DatabaseReset, HasAReasonOfItsOwnWhenLibpqGivesNone)
{
    libpq.resetsTo({CONNECTION_BAD});
    libpq.errorMessage(std::nullopt);
    EXPECT_EQ(told(connection.reset()), "false 'unspecified error'\nreset\n");
}

TEST_F(DatabaseConnectionTest, HasNothingToResetBeforeItIsConnected)
{
    EXPECT_EQ(told(connection.reset()), "false 'no connection to reset'\n");
    EXPECT_EQ(trace.take(), "");
}

using DatabaseNotices = ConnectedDatabaseConnectionTest;

TEST_F(DatabaseNotices, AreTracedAsTheServerSendsThem)
{
    libpq.notice("NOTICE:  table \"contact\" is 100%s full\n");
    EXPECT_EQ(trace.take(), traced({"libpq MESSAGE: NOTICE:  table \"contact\" is 100%s full\n"}));
}

TEST_F(DatabaseNotices, AreDroppedWithoutATextOrAConnection)
{
    libpq.notice(nullptr);
    connection.handleNoticeMessage(nullptr);
    oryx::DbcNoticeProcessor(nullptr, "NOTICE:  to nobody\n");
    EXPECT_EQ(trace.take(), "");
}

TEST_F(DatabaseNotices, ReachTheConnectionGivenToTheProcessor)
{
    oryx::DbcNoticeProcessor(&connection, "NOTICE:  hello\n");
    connection.handleNoticeMessage("NOTICE:  again\n");
    EXPECT_EQ(trace.take(), traced({"libpq MESSAGE: NOTICE:  hello\n", "libpq MESSAGE: NOTICE:  again\n"}));
}

TEST_F(ConnectedDatabaseConnectionTest, KeepsTheReasonOfTheLastFailureUntilASuccess)
{
    EXPECT_EQ(told(connection.error("no contact")), "false 'no contact'\n");
    EXPECT_EQ(told(connection.error(connection.getErrorMessage().c_str() + 3)), "false 'contact'\n");
    EXPECT_EQ(told(connection.error(nullptr)), "false ''\n");
    EXPECT_EQ(told(connection.error()), "false '" + kServerGone + "'\n");
    EXPECT_EQ(told(connection.okay()), "true ''\n");
    libpq.errorMessage(std::nullopt);
    EXPECT_EQ(told(connection.error()), "false 'unspecified error'\n");
    EXPECT_EQ(trace.take(), "");
}

constexpr auto kStatement = "DELETE FROM contact WHERE csid=7 AND address LIKE '%s';";

// The trace of the steps of a statement.
const std::string kExecuting = "executing query";
const std::string kRetryingConnection = "fatal query error: retrying connection";
const std::string kRetryingQuery = "connection reset, retrying query";
const std::string kReturned = "query returned, setting result";
const std::string kRetryingAfterFatal = "fatal error, retrying after: PGRES_FATAL_ERROR";

std::string judged(int status, const std::string& message, const std::string& sqlState)
{
    return "query result status is " + std::to_string(status) + " ('" + message + ", sqlState=" + sqlState +
           ", sqlcommand=" + kStatement + "')\n";
}

const std::string kJudgedDone = judged(1, "", "00000");
const std::string kJudgedRefused = judged(7, "ERROR:  refused\n", "42601");

/// A result's statement, its status and the rows that the statement changed.
std::string held(const oryx::QueryResult& result)
{
    std::string name;
    result.getErrorCode(name);
    return result.getSqlCommand() + " " + name + " " + std::to_string(result.updateCount());
}

class DatabaseExecute : public ConnectedDatabaseConnectionTest {
protected:
    /// The outcome, the calls, and what the result object holds afterwards.
    std::string toldAndHeld(bool returned) { return told(returned) + held(result); }
    std::string executed() { return toldAndHeld(connection.execute(kStatement, result)); }

    oryx::QueryResult result;
};

std::string calls(const std::string& template_)
{
    return spliced(template_, kStatement);
}

TEST_F(DatabaseExecute, SendsTheStatementOnce)
{
    libpq.replies({command("2")});
    connection.error("an earlier failure");
    EXPECT_EQ(executed(), calls("true ''\nexec {}\n{} PGRES_COMMAND_OK 2"));
    EXPECT_EQ(trace.take(), traced({kExecuting, kReturned, kJudgedDone}));
}

TEST_F(DatabaseExecute, TakesTheStatementAsAStringToo)
{
    libpq.replies({command("2")});
    EXPECT_EQ(toldAndHeld(connection.execute(std::string(kStatement), result)),
              calls("true ''\nexec {}\n{} PGRES_COMMAND_OK 2"));
    EXPECT_EQ(trace.take(), traced({kExecuting, kReturned, kJudgedDone}));
}

TEST_F(DatabaseExecute, SendsTheStatementThatTheResultHoldsAlready)
{
    const std::string statement = "SELECT 'longer than a string holds without memory of its own'";
    libpq.replies({command(), nothing(), refused("42601"), command()});
    connection.execute(statement, result);
    libpq.take();
    connection.execute(result.getSqlCommand(), result);
    EXPECT_EQ(libpq.takeStatements(), std::vector<std::string>(3, statement));
    EXPECT_EQ(result.getSqlCommand(), statement);
}

TEST_F(DatabaseExecute, FreesTheResultOfAnEarlierStatement)
{
    libpq.replies({command("2"), command("3")});
    executed();
    EXPECT_EQ(executed(), calls("true ''\nexec {}\n{} PGRES_COMMAND_OK 3"));
}

TEST_F(DatabaseConnectionTest, ExecutesNothingBeforeItIsConnected)
{
    oryx::QueryResult result;
    result.setSqlCommand("an earlier statement");
    EXPECT_EQ(told(connection.execute(kStatement, result)), "false 'no connection'\n");
    EXPECT_EQ(held(result), "an earlier statement NO QUERY EXECUTED 0");
    EXPECT_EQ(told(connection.execute(std::string(kStatement), result)), "false 'no connection'\n");
    EXPECT_EQ(held(result), "an earlier statement NO QUERY EXECUTED 0");
    EXPECT_EQ(trace.take(), "");
}

TEST_F(DatabaseExecute, ResetsALostConnectionAndSendsTheStatementAgain)
{
    libpq.replies({nothing(), command("2")});
    EXPECT_EQ(executed(), calls("true ''\nexec {}\nreset\nexec {}\n{} PGRES_COMMAND_OK 2"));
    EXPECT_EQ(trace.take(), traced({kExecuting, kRetryingConnection, kRetryingQuery, kReturned, kJudgedDone}));
}

TEST_F(DatabaseExecute, GivesUpWhenALostConnectionCannotBeReset)
{
    libpq.replies({nothing()});
    libpq.resetsTo({CONNECTION_BAD});
    EXPECT_EQ(executed(), calls("false 'fatal error, query failed'\nexec {}\nreset\n{} NO QUERY EXECUTED 0"));
    EXPECT_EQ(trace.take(), traced({kExecuting, kRetryingConnection}));
}

TEST_F(DatabaseExecute, GivesUpWhenTheConnectionIsLostAgain)
{
    libpq.replies({nothing(), nothing()});
    EXPECT_EQ(executed(),
              calls("false 'fatal query error after reset'\nexec {}\nreset\nexec {}\n{} NO QUERY EXECUTED 0"));
    EXPECT_EQ(trace.take(), traced({kExecuting, kRetryingConnection, kRetryingQuery}));
}

TEST_F(DatabaseExecute, KeepsTheEarlierResultWhenTheConnectionIsLost)
{
    libpq.replies({command("2"), nothing()});
    libpq.resetsTo({CONNECTION_BAD});
    executed();
    EXPECT_EQ(executed(), calls("false 'fatal error, query failed'\nexec {}\nreset\n{} PGRES_COMMAND_OK 2"));
}

TEST_F(DatabaseExecute, TriesAgainWithTheNextStatementAfterAFailedReset)
{
    libpq.replies({nothing()});
    libpq.resetsTo({CONNECTION_BAD});
    executed();
    libpq.replies({nothing(), command("2")});
    EXPECT_EQ(executed(), calls("true ''\nexec {}\nreset\nexec {}\n{} PGRES_COMMAND_OK 2"));
    EXPECT_TRUE(connection.active());
}

TEST_F(DatabaseExecute, SendsARefusedStatementAgainAfterAReset)
{
    libpq.replies({refused("42601"), command("2")});
    EXPECT_EQ(executed(), calls("true ''\nexec {}\nreset\nexec {}\n{} PGRES_COMMAND_OK 2"));
    EXPECT_EQ(trace.take(), traced({kExecuting, kReturned, kJudgedRefused, kRetryingAfterFatal}));
}

TEST_F(DatabaseExecute, ReportsAUniqueViolationOfTheRepetitionInTheResult)
{
    libpq.replies({refused("23505", "ERROR:  duplicate key\n"), refused("23505", "ERROR:  duplicate key\n")});
    EXPECT_EQ(executed(), calls("true ''\nexec {}\nreset\nexec {}\n{} PGRES_FATAL_ERROR 0"));
    EXPECT_EQ(trace.take(),
              traced({kExecuting, kReturned, judged(7, "ERROR:  duplicate key\n", "23505"), kRetryingAfterFatal}));
    EXPECT_TRUE(result.failed());
    EXPECT_TRUE(result.integrityConstraintViolation());
}

TEST_F(DatabaseExecute, DoesNotJudgeTheRepetitionOfARefusedStatement)
{
    libpq.replies({refused("42601"), status(PGRES_BAD_RESPONSE)});
    EXPECT_EQ(executed(), calls("true ''\nexec {}\nreset\nexec {}\n{} PGRES_BAD_RESPONSE 0"));
    EXPECT_EQ(trace.take(), traced({kExecuting, kReturned, kJudgedRefused, kRetryingAfterFatal}));
}

TEST_F(DatabaseExecute, KeepsTheRefusalWhenTheResetFails)
{
    libpq.replies({refused("42601")});
    libpq.resetsTo({CONNECTION_BAD});
    EXPECT_EQ(executed(),
              calls("false 'fatal query error, connection reset failed'\nexec {}\nreset\n{} PGRES_FATAL_ERROR 0"));
    EXPECT_EQ(trace.take(), traced({kExecuting, kReturned, kJudgedRefused, kRetryingAfterFatal}));
}

TEST_F(DatabaseExecute, KeepsTheRefusalWhenTheRepetitionIsLost)
{
    libpq.replies({refused("42601"), nothing()});
    EXPECT_EQ(executed(),
              calls("false 'fatal query error after reset'\nexec {}\nreset\nexec {}\n{} PGRES_FATAL_ERROR 0"));
    EXPECT_EQ(trace.take(), traced({kExecuting, kReturned, kJudgedRefused, kRetryingAfterFatal}));
}

const std::string kThreeSends = "exec {}\nreset\nexec {}\nreset\nexec {}\n";
const std::vector<std::string> kTracedOfThreeSends = {kExecuting, kRetryingConnection, kRetryingQuery,
                                                      kReturned,  kJudgedRefused,      kRetryingAfterFatal};

TEST_F(DatabaseExecute, SendsAStatementThreeTimesAtTheMost)
{
    libpq.replies({nothing(), refused("42601"), refused("42601")});
    EXPECT_EQ(executed(), calls("true ''\n" + kThreeSends + "{} PGRES_FATAL_ERROR 0"));
    EXPECT_EQ(trace.take(), traced(kTracedOfThreeSends));
}

TEST_F(DatabaseExecute, MayEndWellWithTheThirdSend)
{
    libpq.replies({nothing(), refused("42601"), command("2")});
    EXPECT_EQ(executed(), calls("true ''\n" + kThreeSends + "{} PGRES_COMMAND_OK 2"));
    EXPECT_EQ(trace.take(), traced(kTracedOfThreeSends));
}

TEST_F(DatabaseExecute, GivesUpWhenTheThirdSendIsLost)
{
    libpq.replies({nothing(), refused("42601"), nothing()});
    EXPECT_EQ(executed(), calls("false 'fatal query error after reset'\n" + kThreeSends + "{} PGRES_FATAL_ERROR 0"));
    EXPECT_EQ(trace.take(), traced(kTracedOfThreeSends));
}

TEST_F(DatabaseExecute, GivesUpWhenTheSecondResetFails)
{
    libpq.replies({nothing(), refused("42601")});
    libpq.resetsTo({CONNECTION_OK, CONNECTION_BAD});
    EXPECT_EQ(executed(), calls("false 'fatal query error, connection reset failed'\n"
                                "exec {}\nreset\nexec {}\nreset\n{} PGRES_FATAL_ERROR 0"));
    EXPECT_EQ(trace.take(), traced(kTracedOfThreeSends));
}

TEST_F(DatabaseExecute, DeliversAnEmptyStatementAsAFailedResultWithoutAReset)
{
    libpq.replies({status(PGRES_EMPTY_QUERY)});
    EXPECT_EQ(toldAndHeld(connection.execute("", result)), "true ''\nexec\n PGRES_EMPTY_QUERY 0");
    EXPECT_TRUE(result.failed());
    const std::string line = "query result status is 0 (', sqlState=00000, sqlcommand=')\n";
    EXPECT_EQ(trace.take(), traced({kExecuting, kReturned, line, line}));
}

TEST_F(DatabaseExecute, TakesANullCommandForAnEmptyOne)
{
    libpq.replies({status(PGRES_EMPTY_QUERY)});
    const char* const none = nullptr;
    EXPECT_EQ(toldAndHeld(connection.execute(none, result)), "true ''\nexec\n PGRES_EMPTY_QUERY 0");
}

TEST_F(DatabaseExecute, SendsItsOwnErrorTextOrTheStatementHeldAsGiven)
{
    connection.error("SELECT 1;");
    libpq.replies({nothing(), command(), command()});
    connection.execute(connection.getErrorMessage(), result);
    EXPECT_EQ(libpq.take(), "exec SELECT 1;\nreset\nexec SELECT 1;\n");
    connection.execute(result.getSqlCommand().c_str() + 1, result);
    EXPECT_EQ(libpq.take(), "exec ELECT 1;\n");
}

class DatabaseExecuteFailures : public DatabaseExecute, public testing::WithParamInterface<ExecStatusType> {};

TEST_P(DatabaseExecuteFailures, AreDeliveredWithoutAReset)
{
    libpq.replies({status(GetParam())});
    EXPECT_EQ(told(connection.execute(kStatement, result)), calls("true ''\nexec {}\n"));
    EXPECT_EQ(trace.take(), traced({kExecuting, kReturned, judged(GetParam(), "", "00000")}));
    EXPECT_TRUE(result.failed());
}

INSTANTIATE_TEST_SUITE_P(Of, DatabaseExecuteFailures,
                         testing::Values(PGRES_EMPTY_QUERY, PGRES_COPY_OUT, PGRES_COPY_IN, PGRES_BAD_RESPONSE,
                                         PGRES_NONFATAL_ERROR, PGRES_COPY_BOTH),
                         [](const auto& row) { return "Status" + std::to_string(row.param); });

} // namespace

} // namespace databaseConnectionTest
