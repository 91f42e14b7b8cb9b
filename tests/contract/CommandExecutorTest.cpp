#include "contract/ExecutorFixture.h"
#include "support/FailingNew.h"

#include <dal/DatabaseCommandExecutor.h>
#include <dal/PresenceDatabaseCommandExecutor.h>
#include <dal/QueryResult.h>
#include <dal/ValueString.h>

#include <gtest/gtest.h>

#include <barrier>
#include <limits>
#include <string>
#include <string_view>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace commandExecutorTest {

namespace {

using fake::command;
using fake::noRows;
using fake::nothing;
using fake::refused;
using fake::rows;
using fake::status;
using oryx::DatabaseCommandExecutor;
using oryx::DatabaseResult;
using oryx::PresenceDatabaseCommandExecutor;
using oryx::QueryResult;
using oryx::ValueString;

static_assert(!std::is_copy_constructible_v<DatabaseCommandExecutor>);
static_assert(!std::is_copy_assignable_v<DatabaseCommandExecutor>);
static_assert(!std::is_copy_constructible_v<PresenceDatabaseCommandExecutor>);
static_assert(!std::is_copy_assignable_v<PresenceDatabaseCommandExecutor>);

template <typename Executor>
using ErrorText = decltype(std::declval<Executor&>().getErrorMessage());
static_assert(std::is_same_v<ErrorText<DatabaseCommandExecutor>, std::string&>);
static_assert(std::is_same_v<ErrorText<PresenceDatabaseCommandExecutor>, const std::string&>);

const std::string kConnectionString = "host=db.oryx.example dbname=registrar user=registrar password=secret";

// Its "%" must survive being traced.
const std::string kStatement = "DELETE FROM contact WHERE address LIKE '%s';";

std::string connectionTrace(const std::vector<std::string>& texts)
{
    return traceLines("DatabaseConnection", texts);
}

/// What is traced each time a statement's result is asked whether it failed; without a message of the server.
std::string judged(ExecStatusType status, const std::string& statement)
{
    return connectionTrace(
        {"query result status is " + std::to_string(status) + " (', sqlState=00000, sqlcommand=" + statement + "')\n"});
}

/// What the connection traces of a statement that returned, its judgement and the executor's included.
std::string returned(ExecStatusType status, const std::string& statement)
{
    return connectionTrace({"executing query", "query returned, setting result"}) + judged(status, statement) +
           judged(status, statement);
}

/// What the connection traces of a statement that was lost with it.
const std::string kLost = connectionTrace({"executing query", "fatal query error: retrying connection"});

template <typename Executor>
const char* const kChannel = "DatabaseCommandExecutor";
template <>
const char* const kChannel<PresenceDatabaseCommandExecutor> = "PresenceDatabaseCommandExecutor";

/// An executor of either kind on the scripted libpq.
template <typename Executor>
class ExecutorOf : public testing::Test {
protected:
    void connect()
    {
        ASSERT_TRUE(executor.connect("pgsql://db.oryx.example/registrar", "registrar", "secret"));
        libpq.errorMessage(kServerGone);
        libpq.take();
        trace.take();
    }

    /// What an operation returned, the error text it left, and what it asked of libpq.
    std::string told(bool answer) { return (answer ? "true" : "false") + left(); }
    std::string told(const DatabaseResult& answer) { return oryx::show(answer) + left(); }

    fake::Libpq libpq;
    TraceLog trace;
    Executor executor;

private:
    std::string left() { return " ['" + executor.getErrorMessage() + "']\n" + libpq.take(); }
};

using Executors = testing::Types<DatabaseCommandExecutor, PresenceDatabaseCommandExecutor>;

template <typename Executor>
class CommandExecutorTest : public ExecutorOf<Executor> {
};
TYPED_TEST_SUITE(CommandExecutorTest, Executors);

TYPED_TEST(CommandExecutorTest, NamesTheRowOfTheDomainList)
{
    EXPECT_EQ(TypeParam::SYSTEM_PARAMETERS_ORYX_PROXY, "oryxproxy");
    EXPECT_EQ(TypeParam::SYSTEM_PARAMETERS_SERVER_INFO, "ServerInfo");
    EXPECT_EQ(TypeParam::SYSTEM_PARAMETERS_SERVER_NAMES, "ServerNames");
}

TYPED_TEST(CommandExecutorTest, StartsUnconnectedAndWithoutAnError)
{
    EXPECT_EQ(this->executor.getErrorMessage(), "");
    EXPECT_EQ(this->libpq.take(), "");
    EXPECT_EQ(this->trace.take(), "");
}

TYPED_TEST(CommandExecutorTest, ConnectsWithTheArgumentsOfTheConnection)
{
    this->executor.error("an earlier failure");
    EXPECT_EQ(this->told(this->executor.connect("pgsql://db.oryx.example/registrar", "registrar", "secret")),
              "true ['']\nconnect " + kConnectionString + "\nnotices\n");
    EXPECT_EQ(this->trace.take(), connectionTrace({kConnectionString}));
}

TYPED_TEST(CommandExecutorTest, ReportsWhyItCouldNotConnect)
{
    this->libpq.connectsWith(CONNECTION_BAD, "refused\n");
    EXPECT_EQ(this->told(this->executor.connect("registrar", "alice", "wrong")),
              "false ['refused\n']\nconnect dbname=registrar user=alice password=wrong\nnotices\n");
    EXPECT_EQ(this->told(this->executor.connect(nullptr, "alice", "wrong")),
              "false ['missing connection parameters']\nfinish\n");
}

TYPED_TEST(CommandExecutorTest, StartsEachConnectWithANewConnection)
{
    this->connect();
    EXPECT_EQ(this->told(this->executor.connect("standby", "alice", "secret")),
              "true ['']\nfinish\nconnect dbname=standby user=alice password=secret\nnotices\n");
    EXPECT_EQ(this->trace.take(), connectionTrace({"connection closed", "dbname=standby user=alice password=secret"}));
}

TYPED_TEST(CommandExecutorTest, HoldsNoConnectionWhenNoneCanBeAllocated)
{
    this->connect();
    failNextNothrowNew();
    EXPECT_EQ(this->told(this->executor.connect("standby", "alice", "secret")),
              "false ['failed to allocate connection object']\nfinish\n");
    EXPECT_EQ(this->told(this->executor.checkConnect()),
              "false ['attempt to execute a command with no database connection']\n");
}

TYPED_TEST(CommandExecutorTest, ClosesItsConnectionAtItsEnd)
{
    {
        TypeParam shortLived;
        EXPECT_TRUE(shortLived.connect("registrar", "alice", "secret"));
        this->libpq.take();
        this->trace.take();
    }
    EXPECT_EQ(this->libpq.take(), "finish\n");
    EXPECT_EQ(this->trace.take(), connectionTrace({"connection closed"}));
}

TYPED_TEST(CommandExecutorTest, ChecksAGoodConnectionWithoutTouchingTheErrorText)
{
    this->connect();
    this->executor.error("an earlier failure");
    EXPECT_EQ(this->told(this->executor.checkConnect()), "true ['an earlier failure']\n");
    EXPECT_EQ(this->trace.take(), "");
}

TYPED_TEST(CommandExecutorTest, ResetsADroppedConnectionWhenItChecks)
{
    this->connect();
    this->executor.error("an earlier failure");
    this->libpq.loseConnection();
    EXPECT_EQ(this->told(this->executor.checkConnect()), "true ['an earlier failure']\nreset\n");
    EXPECT_EQ(this->told(this->executor.checkConnect()), "true ['an earlier failure']\n");
}

TYPED_TEST(CommandExecutorTest, ResetsARefusedConnectionWhenItChecks)
{
    this->libpq.connectsWith(CONNECTION_BAD, "refused\n");
    EXPECT_FALSE(this->executor.connect("registrar", "alice", "secret"));
    this->libpq.take();
    EXPECT_EQ(this->told(this->executor.checkConnect()), "true ['refused\n']\nreset\n");
}

TYPED_TEST(CommandExecutorTest, FailsTheCheckOfAConnectionThatCannotBeReset)
{
    this->connect();
    this->libpq.loseConnection();
    this->libpq.resetsTo({CONNECTION_BAD});
    EXPECT_EQ(this->told(this->executor.checkConnect()), "false ['" + kServerGone + "']\nreset\n");
}

TYPED_TEST(CommandExecutorTest, FailsTheCheckWithoutAConnection)
{
    EXPECT_EQ(this->told(this->executor.checkConnect()),
              "false ['attempt to execute a command with no database connection']\n");
    EXPECT_EQ(this->trace.take(), "");
}

TYPED_TEST(CommandExecutorTest, KeepsTheReasonOfTheLastFailureUntilASuccess)
{
    this->connect();
    EXPECT_EQ(this->told(this->executor.error("no contact")), "false ['no contact']\n");
    EXPECT_EQ(this->told(this->executor.error(this->executor.getErrorMessage().c_str() + 3)), "false ['contact']\n");
    EXPECT_EQ(this->told(this->executor.error(nullptr)), "false ['']\n");
    EXPECT_EQ(this->told(this->executor.error(QueryResult())), "false ['not executed']\n");
    EXPECT_EQ(this->told(this->executor.okay()), "true ['']\n");
    this->libpq.loseConnection();
    this->libpq.resetsTo({CONNECTION_BAD});
    EXPECT_FALSE(this->executor.checkConnect());
    this->executor.error("a later failure");
    this->libpq.take();
    EXPECT_EQ(this->told(this->executor.errorConnection()), "false ['" + kServerGone + "']\n");
}

/// The courses of an operation that does not check the connection first.
std::vector<Course> uncheckedCourses()
{
    std::vector<Course> unchecked = courses();
    std::erase_if(unchecked, [](const Course& course) { return course.connection == Connection::lost; });
    return unchecked;
}

/// The courses of the operation that reports what it knows of the statement, also where the connection failed after
/// that.
std::vector<Course> coursesOfExecute()
{
    std::vector<Course> all = courses();
    for (Course& course : all) {
        if (course.name == "RefusedAndNotReset" || course.name == "RefusedThenLost") {
            course.ending = Ending::queryFailed;
            course.reason = kRefused;
        }
    }
    return all;
}

/// Runs a statement on each course, on a new executor each; where it ends well, it completes with two rows touched.
///
/// `answers` holds what `run` returns as text, the executor's error text behind it; "{}" stands for the reason.
template <typename Executor, typename Run>
void onEach(const std::vector<Course>& courses, const PerEnding& answers, const Run& run)
{
    for (const Course& course : courses) {
        SCOPED_TRACE(course.name);
        fake::Libpq libpq;
        Executor executor;
        if (course.connection != Connection::never) {
            EXPECT_TRUE(executor.connect("registrar", "alice", "secret"));
        }
        follow(course, command("2"), libpq);
        executor.error("an earlier failure");
        const std::string answer = run(executor);
        EXPECT_EQ(answer + " ['" + executor.getErrorMessage() + "']\n" + libpq.take(),
                  spliced(spliced(answers.at(course.ending), course.reason) + "\n" + course.calls, kStatement));
    }
}

/// The answers of an operation that leaves the error text as it was where the statement ends well.
const PerEnding kStatusPerEnding = {"okay ['an earlier failure']", "connection error: {} ['{}']",
                                    "connection error: {} ['{}']", "query error: {} ['{}']"};

template <typename Executor>
class StatementEndings : public testing::Test {
};
TYPED_TEST_SUITE(StatementEndings, Executors);

TYPED_TEST(StatementEndings, OfAStatementWhoseRowsNobodyReads)
{
    onEach<TypeParam>(coursesOfExecute(), kStatusPerEnding,
                      [](TypeParam& executor) { return oryx::show(executor.execute(kStatement)); });
}

TYPED_TEST(StatementEndings, OfAnUpdateWhichLeavesTheCountOnFailure)
{
    onEach<TypeParam>(uncheckedCourses(), {"true 2 ['']", "false 99 ['{}']", "false 99 ['{}']", "false 99 ['{}']"},
                      [](TypeParam& executor) {
                          int count = 99;
                          const bool done = executor.executeUpdate(kStatement, count);
                          return (done ? "true " : "false ") + std::to_string(count);
                      });
}

TYPED_TEST(CommandExecutorTest, UpdatesWithoutCheckingTheConnectionFirst)
{
    this->connect();
    this->libpq.loseConnection();
    this->libpq.replies({command("0")});
    int count = 99;
    EXPECT_EQ(this->told(this->executor.executeUpdate(kStatement, count)), "true ['']\nexec " + kStatement + "\n");
    EXPECT_EQ(count, 0);
}

TYPED_TEST(CommandExecutorTest, TracesAnUpdateByTheConnectionAlone)
{
    this->connect();
    this->libpq.replies({command("1")});
    int count = 0;
    this->executor.executeUpdate(kStatement, count);
    EXPECT_EQ(this->trace.take(), returned(PGRES_COMMAND_OK, kStatement));
}

TYPED_TEST(CommandExecutorTest, TracesAStatementAsTextBeforeItIsSent)
{
    this->connect();
    this->libpq.replies({command("1")});
    this->executor.execute(kStatement);
    EXPECT_EQ(this->trace.take(), traceLines(kChannel<TypeParam>, {"execute: '" + kStatement + "'"}) +
                                      returned(PGRES_COMMAND_OK, kStatement));
}

TYPED_TEST(CommandExecutorTest, TracesNoMoreOfALostStatementThanTheConnectionDoes)
{
    this->connect();
    this->libpq.replies({nothing()});
    this->libpq.resetsTo({CONNECTION_BAD});
    this->executor.execute(kStatement);
    EXPECT_EQ(this->trace.take(), traceLines(kChannel<TypeParam>, {"execute: '" + kStatement + "'"}) + kLost);
}

TYPED_TEST(CommandExecutorTest, TracesNoStatementThatItCannotSend)
{
    this->executor.execute(kStatement);
    EXPECT_EQ(this->trace.take(), "");
}

/// The courses with a rollback behind each failure, of the statement or of the connection.
std::vector<Course> coursesOfATransaction()
{
    std::vector<Course> all = uncheckedCourses();
    for (Course& course : all) {
        if (course.ending == Ending::connectionFailed || course.ending == Ending::queryFailed) {
            course.replies.push_back(command());
            course.calls += "exec ROLLBACK;\n";
        }
    }
    return all;
}

/// What became of a result that came in with an earlier outcome.
std::string afterTransactionExecute(DatabaseCommandExecutor& executor, bool isTransaction)
{
    DatabaseResult result;
    result.setNotFound();
    result.setErrorMessage("earlier");
    QueryResult qres;
    const DatabaseResult& answer = executor.transactionExecute(kStatement, result, qres, isTransaction);
    return oryx::show(result) + (&answer == &result ? "" : ", and another result was returned");
}

// The message stays where the statement ends well.
const PerEnding kTransactionEndings = {"okay: earlier ['an earlier failure']", "connection error: {} ['{}']",
                                       "connection error: {} ['{}']", "query error: {} ['{}']"};

TEST(TransactionExecuteEndings, WithoutATransaction)
{
    onEach<DatabaseCommandExecutor>(uncheckedCourses(), kTransactionEndings, [](DatabaseCommandExecutor& executor) {
        return afterTransactionExecute(executor, false);
    });
}

TEST(TransactionExecuteEndings, OfATransactionAreFollowedByARollbackOnFailure)
{
    onEach<DatabaseCommandExecutor>(
        coursesOfATransaction(), kTransactionEndings,
        [](DatabaseCommandExecutor& executor) { return afterTransactionExecute(executor, true); });
}

const std::string kPlain = "DELETE FROM contact;";
const std::string kTracedPlain = "******** transactionExecute(): cmd=\nDELETE FROM contact;";

class TransactionExecuteTest : public ExecutorOf<DatabaseCommandExecutor> {
protected:
    void SetUp() override { connect(); }

    std::string run(const std::string& statement, bool isTransaction)
    {
        DatabaseResult result;
        return told(executor.transactionExecute(statement, result, qres, isTransaction));
    }

    QueryResult qres;
};

TEST_F(TransactionExecuteTest, DoesNotCheckTheConnectionFirst)
{
    libpq.loseConnection();
    libpq.replies({command("1")});
    EXPECT_EQ(run(kPlain, true), "okay ['']\nexec DELETE FROM contact;\n");
    EXPECT_EQ(qres.updateCount(), 1);
}

TEST_F(TransactionExecuteTest, TracesTheStatementBeforeItIsSent)
{
    libpq.replies({command("1")});
    run(kPlain, true);
    EXPECT_EQ(trace.take(), executorTrace({kTracedPlain}) + returned(PGRES_COMMAND_OK, kPlain));
}

TEST_F(TransactionExecuteTest, TracesTheStatementAsAFormat)
{
    libpq.replies({command()});
    EXPECT_EQ(run("SELECT '100%%';", false), "okay ['']\nexec SELECT '100%%';\n");
    EXPECT_EQ(trace.take("DatabaseCommandExecutor"),
              executorTrace({"******** transactionExecute(): cmd=\nSELECT '100%';"}));
}

/// A statement, and how a format without arguments shows it.
class FormatTexts : public TransactionExecuteTest,
                    public testing::WithParamInterface<std::pair<std::string, std::string>> {
protected:
    static std::string traced(const std::string& shown)
    {
        return executorTrace({"******** transactionExecute(): cmd=\n" + shown});
    }
};

TEST_P(FormatTexts, AreTracedWithoutArgumentsAndSentAsTheyStand)
{
    const auto& [statement, shown] = GetParam();
    libpq.replies({command()});
    EXPECT_EQ(run(statement, false), "okay ['']\nexec " + statement + "\n");
    EXPECT_EQ(trace.take("DatabaseCommandExecutor"), traced(shown));
}

TEST_P(FormatTexts, AreTracedAlikeAsTheNameOfASystemParameter)
{
    const auto& [name, shown] = GetParam();
    const auto query = [](const std::string& text) {
        return "SELECT system_parameters.value FROM system_parameters WHERE (((system_parameters.application = 'a') AND (system_parameters.scope = 's')) AND (system_parameters.name = '" +
               text + "'));";
    };
    libpq.replies({rows({{"value"}})});
    EXPECT_EQ(executor.getSystemParameterValue("a", "s", name), "value");
    EXPECT_EQ(libpq.take(), "exec " + query(name) + "\n");
    EXPECT_EQ(trace.take("DatabaseCommandExecutor"), traced(query(shown)));
}

using Texts = std::pair<std::string, std::string>;
INSTANTIATE_TEST_SUITE_P(Of, FormatTexts,
                         testing::Values(Texts{"%n", "%n"}, Texts{"%d of %s", "%d of %s"}, Texts{"%p%p%p", "%p%p%p"},
                                         Texts{"%%", "%"}, Texts{"%%%", "%%"}, Texts{"%%%%", "%%"}, Texts{"%%n", "%n"},
                                         Texts{"100%", "100%"}, Texts{"%", "%"}, Texts{"% %", "% %"},
                                         Texts{"%1$s %*d %.99999999f", "%1$s %*d %.99999999f"},
                                         Texts{"LIKE '%%incoming#%%' OR '%x%'", "LIKE '%incoming#%' OR '%x%'"}));

TEST_F(TransactionExecuteTest, TakesItsStatementFromWhatItChanges)
{
    executor.error(kPlain.c_str());
    DatabaseResult result;
    libpq.replies({status(PGRES_EMPTY_QUERY), command(), command()});
    executor.transactionExecute(executor.getErrorMessage(), result, qres, true);
    EXPECT_EQ(libpq.take(), "exec DELETE FROM contact;\nexec ROLLBACK;\n");
    EXPECT_EQ(trace.take("DatabaseCommandExecutor"), executorTrace({kTracedPlain, "query error"}));
    executor.transactionExecute(qres.getSqlCommand(), result, qres, true);
    EXPECT_EQ(libpq.take(), "exec ROLLBACK;\n");
}

TEST_F(TransactionExecuteTest, TracesALostStatementAndItsRollback)
{
    libpq.replies({nothing(), command()});
    libpq.resetsTo({CONNECTION_BAD});
    run(kPlain, true);
    EXPECT_EQ(trace.take(), executorTrace({kTracedPlain}) + kLost + executorTrace({"execute update failed"}) +
                                connectionTrace({"executing query", "query returned, setting result"}) +
                                judged(PGRES_COMMAND_OK, "ROLLBACK;"));
}

TEST_F(TransactionExecuteTest, TracesAFailedStatementAndALostRollback)
{
    libpq.replies({status(PGRES_EMPTY_QUERY), nothing()});
    libpq.resetsTo({CONNECTION_BAD});
    EXPECT_EQ(run(kPlain, true), "query error: , sqlState=00000, sqlcommand=DELETE FROM contact; "
                                 "[', sqlState=00000, sqlcommand=DELETE FROM contact;']\n"
                                 "exec DELETE FROM contact;\nexec ROLLBACK;\nreset\n");
    EXPECT_EQ(trace.take(), executorTrace({kTracedPlain}) + returned(PGRES_EMPTY_QUERY, kPlain) +
                                executorTrace({"query error"}) + kLost +
                                executorTrace({"rollback execution failed\n"}));
}

TEST_F(TransactionExecuteTest, TracesNothingOfARollbackThatTheServerRefuses)
{
    libpq.replies({status(PGRES_EMPTY_QUERY), status(PGRES_EMPTY_QUERY)});
    run(kPlain, true);
    EXPECT_EQ(trace.take("DatabaseCommandExecutor"), executorTrace({kTracedPlain, "query error"}));
}

TEST_F(TransactionExecuteTest, TracesNoRollbackOutsideATransaction)
{
    libpq.replies({status(PGRES_EMPTY_QUERY)});
    run(kPlain, false);
    EXPECT_EQ(trace.take(),
              executorTrace({kTracedPlain}) + returned(PGRES_EMPTY_QUERY, kPlain) + executorTrace({"query error"}));
}

TEST_F(TransactionExecuteTest, LeavesTheRollbackInTheQueryResult)
{
    libpq.replies({status(PGRES_EMPTY_QUERY), command("5")});
    run(kPlain, true);
    EXPECT_EQ(qres.getSqlCommand(), "ROLLBACK;");
    EXPECT_EQ(qres.updateCount(), 5);
    EXPECT_FALSE(qres.failed());
}

TEST_F(TransactionExecuteTest, LeavesTheFailureInTheQueryResultOutsideATransaction)
{
    libpq.replies({refused("23505"), refused("23505")});
    run(kPlain, false);
    EXPECT_EQ(qres.getSqlCommand(), kPlain);
    EXPECT_TRUE(qres.integrityConstraintViolation());
}

std::string presenceTrace(const std::vector<std::string>& texts)
{
    return traceLines("PresenceDatabaseCommandExecutor", texts);
}

const std::string kRunner = "PresenceDatabaseCommandExecutor::executeSqlCmd";
const std::string kNoRows = kRunner + ": 0 rows selected (Query) or affected (Update, Insert, or Delete)!";

/// What the general runner traces of itself before it sends a statement.
std::string announced(const std::string& statement)
{
    return presenceTrace({kRunner + "(): ", kRunner + "(): '" + statement + "'"});
}

TEST(ExecuteSqlCmdEndings, OfAnyStatement)
{
    onEach<PresenceDatabaseCommandExecutor>(courses(), kStatusPerEnding, [](PresenceDatabaseCommandExecutor& executor) {
        QueryResult qres;
        return oryx::show(executor.executeSqlCmd(kStatement, qres));
    });
}

class ExecuteSqlCmdTest : public ExecutorOf<PresenceDatabaseCommandExecutor> {
protected:
    std::string run(const std::string& statement) { return told(executor.executeSqlCmd(statement, qres)); }

    QueryResult qres;
};

TEST_F(ExecuteSqlCmdTest, RefusesAnEmptyStatementWithOrWithoutAConnection)
{
    const std::string refusal = "query error: " + kRunner + ": --- Empty query command! --- ['']\n";
    EXPECT_EQ(run(""), refusal);
    EXPECT_EQ(trace.take(), presenceTrace({kRunner + "(): "}));
    connect();
    EXPECT_EQ(run(""), refusal);
    EXPECT_EQ(trace.take(), presenceTrace({kRunner + "(): "}));
}

TEST_F(ExecuteSqlCmdTest, TracesAStatementThatItCannotSend)
{
    run(kStatement);
    EXPECT_EQ(trace.take(),
              presenceTrace({kRunner + "(): ", kRunner + ": '" + kStatement + "': checkConnect() failed!"}));
}

TEST_F(ExecuteSqlCmdTest, TracesALostStatement)
{
    connect();
    libpq.replies({nothing()});
    libpq.resetsTo({CONNECTION_BAD});
    run(kStatement);
    EXPECT_EQ(trace.take(), announced(kStatement) + kLost +
                                presenceTrace({kRunner + ": '" + kStatement + "': errorConnection() failed!"}));
}

TEST_F(ExecuteSqlCmdTest, TracesAFailedStatement)
{
    connect();
    libpq.replies({status(PGRES_EMPTY_QUERY)});
    run(kStatement);
    EXPECT_EQ(trace.take(), announced(kStatement) + returned(PGRES_EMPTY_QUERY, kStatement) +
                                presenceTrace({kRunner + ": '" + kStatement + "': queryResult.failed()!"}));
}

TEST_F(ExecuteSqlCmdTest, TracesAStatementThatIsItsOwnErrorText)
{
    const auto traceOfErrorText = [&](const std::string& earlier) {
        executor.error(earlier.c_str());
        executor.executeSqlCmd(executor.getErrorMessage(), qres);
        return trace.take("PresenceDatabaseCommandExecutor");
    };
    const std::string failed = presenceTrace({kRunner + ": '" + kStatement + "': queryResult.failed()!"});
    const std::string lost = presenceTrace({kRunner + ": '" + kStatement + "': errorConnection() failed!"});
    const std::string unchecked =
        presenceTrace({kRunner + "(): ", kRunner + ": '" + kStatement + "': checkConnect() failed!"});
    EXPECT_EQ(traceOfErrorText(kStatement), unchecked);
    connect();
    libpq.replies({status(PGRES_EMPTY_QUERY), nothing()});
    libpq.resetsTo({CONNECTION_BAD, CONNECTION_BAD});
    EXPECT_EQ(traceOfErrorText(kStatement), announced(kStatement) + failed);
    EXPECT_EQ(executor.getErrorMessage(), spliced(kEmptyQuery, kStatement));
    EXPECT_EQ(traceOfErrorText(kStatement), announced(kStatement) + lost);
    EXPECT_EQ(traceOfErrorText(kStatement), unchecked);
    EXPECT_EQ(executor.getErrorMessage(), kServerGone);
}

TEST_F(ExecuteSqlCmdTest, TracesAFailureBeforeItsTextIsSet)
{
    connect();
    std::string texts;
    zel::setTraceSink([&](std::string_view /*channel*/, zel::TraceKind /*kind*/, std::string_view text) {
        if (text.ends_with("failed()!") || text.ends_with("failed!")) {
            texts += executor.getErrorMessage() + "|";
        }
    });
    executor.error("earlier");
    libpq.replies({status(PGRES_EMPTY_QUERY), nothing()});
    libpq.resetsTo({CONNECTION_BAD});
    run(kStatement);
    executor.error("earlier");
    run(kStatement);
    zel::setTraceSink({});
    EXPECT_EQ(texts, "earlier|earlier|");
}

TEST_F(ExecuteSqlCmdTest, FindsNothingWhereNoRowIsSelected)
{
    connect();
    libpq.replies({noRows()});
    EXPECT_EQ(run(kStatement), "not found ['']\nexec " + kStatement + "\n");
    EXPECT_EQ(trace.take(), announced(kStatement) + returned(PGRES_TUPLES_OK, kStatement) + presenceTrace({kNoRows}));
}

TEST_F(ExecuteSqlCmdTest, FindsNothingWhereNoRowIsTouched)
{
    connect();
    libpq.replies({command("0")});
    EXPECT_EQ(run(kStatement), "not found ['']\nexec " + kStatement + "\n");
    EXPECT_EQ(trace.take(), announced(kStatement) + returned(PGRES_COMMAND_OK, kStatement) + presenceTrace({kNoRows}));
}

TEST_F(ExecuteSqlCmdTest, CountsTheRowsTouched)
{
    connect();
    libpq.replies({command("2")});
    EXPECT_EQ(run(kStatement), "okay ['']\nexec " + kStatement + "\n");
    EXPECT_EQ(qres.updateCount(), 2);
    EXPECT_EQ(trace.take(), announced(kStatement) + returned(PGRES_COMMAND_OK, kStatement) +
                                presenceTrace({kRunner + ": 2 rows affected!"}));
}

TEST_F(ExecuteSqlCmdTest, CountsTheRowsSelectedAndThenWhatTheCommandReports)
{
    connect();
    libpq.replies({rows({{"alice"}, {"bob"}, {"carol"}})});
    EXPECT_EQ(run(kStatement), "okay ['']\nexec " + kStatement + "\n");
    EXPECT_STREQ(qres.getValue(2, 0), "carol");
    EXPECT_EQ(trace.take(), announced(kStatement) + returned(PGRES_TUPLES_OK, kStatement) +
                                presenceTrace({kRunner + ": retrieved 3 rows.", kRunner + ": 3 rows affected!"}));
}

TEST_F(ExecuteSqlCmdTest, CountsOnlyTheRowsSelectedWhereTheCommandReportsNone)
{
    connect();
    fake::Reply reply = rows({{"alice"}});
    reply.cmdTuples = "";
    libpq.replies({reply});
    EXPECT_EQ(run(kStatement), "okay ['']\nexec " + kStatement + "\n");
    EXPECT_EQ(trace.take("PresenceDatabaseCommandExecutor"),
              announced(kStatement) + presenceTrace({kRunner + ": retrieved 1 rows."}));
}

const std::string kDomainQuery =
    "SELECT system_parameters.value FROM system_parameters WHERE (((system_parameters.application = 'oryxproxy') AND (system_parameters.scope = 'ServerInfo')) AND (system_parameters.name = 'ServerNames'));";
const std::string kTracedDomainQuery = "******** transactionExecute(): cmd=\n" + kDomainQuery;

TYPED_TEST(CommandExecutorTest, ReadsASystemParameterFromTheFirstRow)
{
    this->connect();
    this->libpq.replies({rows({{"first", "second"}, {"third", "fourth"}})});
    EXPECT_EQ(this->executor.getSystemParameterValue("o'ryx", "Server Info", "x"), "first");
    EXPECT_EQ(
        this->libpq.take(),
        "exec SELECT system_parameters.value FROM system_parameters WHERE (((system_parameters.application = 'o'ryx') AND (system_parameters.scope = 'Server Info')) AND (system_parameters.name = 'x'));\n");
}

TYPED_TEST(CommandExecutorTest, ReadsANullSystemParameterAsEmpty)
{
    this->connect();
    this->libpq.replies({rows({{std::nullopt}})});
    EXPECT_EQ(this->executor.getSystemParameterValue("a", "b", "c"), "");
}

TYPED_TEST(CommandExecutorTest, ReadsNoSystemParameterWithoutItsWholeName)
{
    this->connect();
    EXPECT_EQ(this->executor.getSystemParameterValue("", "ServerInfo", "ServerNames"), "");
    EXPECT_EQ(this->executor.getSystemParameterValue("oryxproxy", "", "ServerNames"), "");
    EXPECT_EQ(this->executor.getSystemParameterValue("oryxproxy", "ServerInfo", ""), "");
    EXPECT_EQ(this->libpq.take(), "");
    const std::string line = "getSystemParameterValue(): *** ERROR ***: parameters can't be empty string!";
    EXPECT_EQ(this->trace.take(), traceLines(kChannel<TypeParam>, {line, line, line}));
}

TYPED_TEST(CommandExecutorTest, ReadsNoSystemParameterWithoutAConnection)
{
    EXPECT_EQ(this->executor.getSystemParameterValue("oryxproxy", "ServerInfo", "ServerNames"), "");
}

TYPED_TEST(CommandExecutorTest, ReadsNoSystemParameterWhereTheStatementFails)
{
    this->connect();
    this->libpq.replies({refused("42P01", "ERROR:  no table\n"), refused("42P01", "ERROR:  no table\n")});
    EXPECT_EQ(this->executor.getSystemParameterValue("oryxproxy", "ServerInfo", "ServerNames"), "");
    EXPECT_EQ(this->libpq.take(), "exec " + kDomainQuery + "\nreset\nexec " + kDomainQuery + "\n");
    EXPECT_EQ(this->executor.getErrorMessage(), "ERROR:  no table\n, sqlState=42P01, sqlcommand=" + kDomainQuery);
}

TYPED_TEST(CommandExecutorTest, ListsTheDomainsOfAnySeparatorsInTheirOrder)
{
    this->connect();
    this->libpq.replies({rows({{":a.example, oryx.example;c.example : ,d.example "}})});
    std::vector<std::string> domains = {"an", "earlier", "list"};
    EXPECT_EQ(this->executor.getDomainNameList(domains), 4);
    EXPECT_EQ(domains, (std::vector<std::string>{"a.example", "oryx.example", "c.example", "d.example"}));
    EXPECT_EQ(this->libpq.take(), "exec " + kDomainQuery + "\n");
}

TYPED_TEST(CommandExecutorTest, ListsNoDomainsWhereThereIsNoRow)
{
    this->connect();
    this->libpq.replies({noRows()});
    std::vector<std::string> domains = {"an earlier list"};
    EXPECT_EQ(this->executor.getDomainNameList(domains), 0);
    EXPECT_EQ(domains, std::vector<std::string>());
}

TYPED_TEST(CommandExecutorTest, ListsNoDomainsOfSeparatorsAlone)
{
    this->connect();
    this->libpq.replies({rows({{" ,;:"}})});
    std::vector<std::string> domains = {"an earlier list"};
    EXPECT_EQ(this->executor.getDomainNameList(domains), 0);
    EXPECT_EQ(domains, std::vector<std::string>());
    EXPECT_TRUE(this->trace.take().ends_with(
        traceLines(kChannel<TypeParam>, {"getDomainNameList(): read 0 domains, first is "})));
}

const std::string kNoDomains = "getSystemParameterValue(): Query returned 0 rows, No available domains found!";
const std::string kTwoDomains = "getDomainNameList(): read 2 domains, first is oryx.example";
const std::string kCommandFailed = "getSystemParameterValue(): *** execution of SQL command failed! ***";
const std::string kEmptyValue = "getDomainNameList(): *** WARNING ***: Empty value for domains found!";
const std::string kOutOfBounds = "getNthElementOfDomainList(): *** ERROR ***: index out of bounds!";

/// An executor of either kind, and all that is traced when it lists the domains.
template <typename Executor>
class DomainsOf : public ExecutorOf<Executor> {
protected:
    std::string list()
    {
        std::vector<std::string> domains;
        this->executor.getDomainNameList(domains);
        return this->trace.take();
    }
};

class LocationDomains : public DomainsOf<DatabaseCommandExecutor> {};

TEST_F(LocationDomains, AreTracedFromStatementToCount)
{
    connect();
    libpq.replies({rows({{"oryx.example, example.com"}})});
    EXPECT_EQ(list(), executorTrace({kTracedDomainQuery}) + returned(PGRES_TUPLES_OK, kDomainQuery) +
                          executorTrace({kTwoDomains}));
}

TEST_F(LocationDomains, AreTracedAsMissingWithoutARow)
{
    connect();
    libpq.replies({noRows()});
    EXPECT_EQ(list(), executorTrace({kTracedDomainQuery}) + returned(PGRES_TUPLES_OK, kDomainQuery) +
                          executorTrace({kNoDomains, kEmptyValue}));
}

TEST_F(LocationDomains, AreTracedAsMissingWhereTheStatementFails)
{
    connect();
    libpq.replies({status(PGRES_EMPTY_QUERY)});
    EXPECT_EQ(list(), executorTrace({kTracedDomainQuery}) + returned(PGRES_EMPTY_QUERY, kDomainQuery) +
                          executorTrace({"query error", kEmptyValue}));
}

class PresenceDomains : public DomainsOf<PresenceDatabaseCommandExecutor> {};

TEST_F(PresenceDomains, AreTracedFromStatementToCount)
{
    connect();
    libpq.replies({rows({{"oryx.example, example.com"}})});
    EXPECT_EQ(list(),
              announced(kDomainQuery) + returned(PGRES_TUPLES_OK, kDomainQuery) +
                  presenceTrace({kRunner + ": retrieved 1 rows.", kRunner + ": 1 rows affected!", kTwoDomains}));
}

TEST_F(PresenceDomains, AreTracedAsAFailureWithoutARow)
{
    connect();
    libpq.replies({noRows()});
    EXPECT_EQ(list(), announced(kDomainQuery) + returned(PGRES_TUPLES_OK, kDomainQuery) +
                          presenceTrace({kNoRows, kCommandFailed, kEmptyValue}));
}

TEST_F(PresenceDomains, AreTracedAsMissingWhereTheStatementTouchedRowsAndSelectedNone)
{
    connect();
    libpq.replies({command("1")});
    EXPECT_EQ(list(), announced(kDomainQuery) + returned(PGRES_COMMAND_OK, kDomainQuery) +
                          presenceTrace(
                              {kRunner + ": 1 rows affected!",
                               "getSystemParameterValue(): *** Query returned 0 rows, No available records found! ***",
                               kEmptyValue}));
}

TEST_F(PresenceDomains, AreReadAfreshForEveryName)
{
    connect();
    libpq.replies({rows({{"oryx.example, example.com"}}), rows({{"example.com"}})});
    std::string name = "an earlier name";
    EXPECT_EQ(&executor.getNthElementOfDomainList(name, 1), &name);
    EXPECT_EQ(name, "example.com");
    EXPECT_EQ(&executor.getDomainName(name), &name);
    EXPECT_EQ(name, "example.com");
    EXPECT_EQ(libpq.takeStatements(), (std::vector<std::string>{kDomainQuery, kDomainQuery}));
}

TEST_F(PresenceDomains, EndBeforeAnIndexBeyondThem)
{
    connect();
    libpq.replies({rows({{"oryx.example, example.com"}})});
    std::string name = "an earlier name";
    EXPECT_EQ(&executor.getNthElementOfDomainList(name, 3), &name);
    EXPECT_EQ(name, "");
    EXPECT_TRUE(trace.take().ends_with(presenceTrace({kTwoDomains, kOutOfBounds})));
}

TEST_F(PresenceDomains, HaveNoFirstNameWithoutAConnection)
{
    std::string name = "an earlier name";
    EXPECT_EQ(&executor.getDomainName(name), &name);
    EXPECT_EQ(name, "");
    EXPECT_EQ(trace.take(),
              presenceTrace({kRunner + "(): ", kRunner + ": '" + kDomainQuery + "': checkConnect() failed!",
                             kCommandFailed, kEmptyValue, kOutOfBounds}));
}

// The location executors' cache lives as long as the process: these tests need one of their own each.
class LocationDomainCache : public ExecutorOf<DatabaseCommandExecutor> {};

const std::string kQueryDirectly =
    "getNthElementOfDomainList(): *** INFO ***: try to query Table 'system_parameters' directly!";

TEST_F(LocationDomainCache, IsFilledOnceForAllExecutors)
{
    connect();
    libpq.replies({rows({{"oryx.example, example.com"}})});
    std::string name = "an earlier name";
    EXPECT_EQ(&executor.getNthElementOfDomainList(name, 1), &name);
    EXPECT_EQ(name, "example.com");
    EXPECT_EQ(libpq.take(), "exec " + kDomainQuery + "\n");
    EXPECT_EQ(trace.take("DatabaseCommandExecutor"), executorTrace({kQueryDirectly, kTracedDomainQuery, kTwoDomains}));

    DatabaseCommandExecutor neverConnected;
    EXPECT_EQ(&neverConnected.getDomainName(name), &name);
    EXPECT_EQ(name, "oryx.example");
    libpq.loseConnection();
    EXPECT_EQ(executor.getDomainName(name), "oryx.example");
    EXPECT_EQ(libpq.take(), "");
    EXPECT_EQ(trace.take(), "");
}

TEST_F(LocationDomainCache, DoesNotServeTheListItself)
{
    connect();
    libpq.replies({rows({{"oryx.example"}}), rows({{"example.com"}}), rows({{"oryx.example"}})});
    std::vector<std::string> domains;
    executor.getDomainNameList(domains);
    std::string name;
    EXPECT_EQ(executor.getDomainName(name), "example.com");
    executor.getDomainNameList(domains);
    EXPECT_EQ(domains, std::vector<std::string>{"oryx.example"});
    EXPECT_EQ(executor.getDomainName(name), "example.com");
    EXPECT_EQ(libpq.takeStatements().size(), 3U);
}

TEST_F(LocationDomainCache, EndsBeforeAnIndexBeyondIt)
{
    connect();
    libpq.replies({rows({{"oryx.example, example.com"}})});
    std::string name = "an earlier name";
    EXPECT_EQ(&executor.getNthElementOfDomainList(name, 3), &name);
    EXPECT_EQ(name, "");
    EXPECT_EQ(trace.take("DatabaseCommandExecutor"),
              executorTrace({kQueryDirectly, kTracedDomainQuery, kTwoDomains, kOutOfBounds}));
}

TEST_F(LocationDomainCache, IsNotFilledWithoutAConnection)
{
    std::string name = "an earlier name";
    EXPECT_EQ(&executor.getDomainName(name), &name);
    EXPECT_EQ(name, "");
    EXPECT_EQ(trace.take(),
              executorTrace({"getNthElementOfDomainList(): *** ERROR ***: No database connection opened!"}));
    EXPECT_EQ(executor.getErrorMessage(), "attempt to execute a command with no database connection");
}

TEST_F(LocationDomainCache, ResetsALostConnectionToFillItself)
{
    connect();
    libpq.loseConnection();
    libpq.replies({rows({{"oryx.example"}})});
    std::string name;
    EXPECT_EQ(executor.getDomainName(name), "oryx.example");
    EXPECT_EQ(libpq.take(), "reset\nexec " + kDomainQuery + "\n");
}

TEST_F(LocationDomainCache, IsAskedForAgainAsLongAsItIsEmpty)
{
    connect();
    libpq.replies({noRows(), rows({{"oryx.example"}})});
    std::string name = "an earlier name";
    EXPECT_EQ(&executor.getDomainName(name), &name);
    EXPECT_EQ(name, "");
    EXPECT_EQ(
        trace.take("DatabaseCommandExecutor"),
        executorTrace(
            {kQueryDirectly, kTracedDomainQuery, kNoDomains, kEmptyValue,
             "getNthElementOfDomainList(): *** ERROR ***: Empty Domain Name retrieved from Table 'system_parameters'!"}));
    EXPECT_EQ(executor.getDomainName(name), "oryx.example");
    EXPECT_EQ(libpq.takeStatements(), (std::vector<std::string>{kDomainQuery, kDomainQuery}));
}

TEST_F(LocationDomainCache, IsReadByTwoThreadsAtOnce)
{
    connect();
    DatabaseCommandExecutor second;
    ASSERT_TRUE(second.connect("registrar", "alice", "secret"));
    const auto domains = rows({{"oryx.example, example.com"}});
    libpq.replies({domains, domains});
    std::barrier start(2);
    std::string firstName;
    std::string secondName;
    std::thread other([&] {
        start.arrive_and_wait();
        second.getNthElementOfDomainList(secondName, 1);
    });
    start.arrive_and_wait();
    executor.getNthElementOfDomainList(firstName, 0);
    other.join();
    EXPECT_EQ(firstName, "oryx.example");
    EXPECT_EQ(secondName, "example.com");
    // Neither waits for the other: the list is read by one of them, or by both.
    if (libpq.takeStatements().size() == 1) {
        std::vector<std::string> unused;
        executor.getDomainNameList(unused);
    }
}

TEST_F(LocationDomainCache, KeepsTheListThatWasReadFirst)
{
    connect();
    DatabaseCommandExecutor second;
    ASSERT_TRUE(second.connect("registrar", "alice", "secret"));
    libpq.replies({rows({{"first.example"}}), rows({{"second.example"}})});
    std::string ofOther;
    bool asked = false;
    // While one thread is about to read the list, another reads it from beginning to end.
    zel::setTraceSink([&](std::string_view /*channel*/, zel::TraceKind /*kind*/, std::string_view /*text*/) {
        if (!std::exchange(asked, true)) {
            std::thread([&] { second.getDomainName(ofOther); }).join();
        }
    });
    std::string name;
    EXPECT_EQ(executor.getDomainName(name), "first.example");
    zel::setTraceSink({});
    EXPECT_EQ(ofOther, "first.example");
    EXPECT_EQ(libpq.takeStatements(), (std::vector<std::string>{kDomainQuery, kDomainQuery}));
}

/// A sink that shows the domain name with every line, as `executor` tells it.
std::string namesAsked(DatabaseCommandExecutor& executor, DatabaseCommandExecutor& asked, std::string& name)
{
    std::string names;
    auto previous =
        zel::setTraceSink([&](std::string_view /*channel*/, zel::TraceKind /*kind*/, std::string_view /*text*/) {
            std::string shown;
            names += "[" + asked.getDomainName(shown) + "]";
        });
    executor.getDomainName(name);
    executor.execute("SELECT 1;");
    zel::setTraceSink(std::move(previous));
    return names;
}

TEST_F(LocationDomainCache, IsStillEmptyToATraceSinkThatAsksWhileItIsRead)
{
    connect();
    libpq.replies({rows({{"oryx.example"}}), rows({{"1"}})});
    std::string name;
    const std::string names = namesAsked(executor, executor, name);
    EXPECT_EQ(name, "oryx.example");
    EXPECT_TRUE(names.starts_with("[][]")) << names;
    EXPECT_TRUE(names.ends_with("[oryx.example][oryx.example]")) << names;
    EXPECT_EQ(libpq.takeStatements(), (std::vector<std::string>{kDomainQuery, "SELECT 1;"}));
}

TEST_F(LocationDomainCache, IsStillEmptyToATraceSinkWithAnExecutorOfItsOwn)
{
    connect();
    DatabaseCommandExecutor other;
    ASSERT_TRUE(other.connect("registrar", "alice", "secret"));
    libpq.replies({noRows(), rows({{"oryx.example"}}), rows({{"1"}})});
    std::string name;
    const std::string nothingYet = namesAsked(executor, other, name);
    EXPECT_EQ(name, "");
    EXPECT_TRUE(nothingYet.starts_with("[][]")) << nothingYet;
    // Outside the reading its sink's executor reads the list by itself.
    EXPECT_TRUE(nothingYet.ends_with("[oryx.example][oryx.example]")) << nothingYet;
    EXPECT_EQ(libpq.takeStatements(), (std::vector<std::string>{kDomainQuery, kDomainQuery, "SELECT 1;"}));
}

/// The names and the values, each list asked for once.
std::string lists(ValueString& list)
{
    const std::string names = list.names();
    return names + " " + list.values();
}

TEST(ValueStringTest, IsEmptyListsWithoutAdditions)
{
    ValueString list;
    EXPECT_EQ(lists(list), "() ()");
}

TEST(ValueStringTest, QuotesAText)
{
    ValueString list;
    list.add("a", "x");
    EXPECT_EQ(lists(list), "(a) ('x')");
}

TEST(ValueStringTest, SeparatesItsPartsWithCommas)
{
    ValueString list;
    list.add("handle", "bob");
    list.add("domain", std::string());
    list.addExplicit("csid", 7);
    EXPECT_EQ(lists(list), "(handle,domain,csid) ('bob',NULL,7)");
}

TEST(ValueStringTest, WritesAnEmptyStringAsNullAndAnEmptyTextAsEmpty)
{
    ValueString list;
    list.add("a", std::string());
    list.add("b", "");
    list.add("c", static_cast<const char*>(nullptr));
    list.add("d", std::string("x"));
    EXPECT_EQ(lists(list), "(a,b,c,d) (NULL,'',NULL,'x')");
}

TEST(ValueStringTest, TakesNamesAndValuesApart)
{
    ValueString list;
    list.addName("a");
    list.addValue("x");
    list.addValue(nullptr);
    list.addName("b");
    list.addValue("");
    EXPECT_EQ(lists(list), "(a,b) ('x',NULL,'')");
}

TEST(ValueStringTest, SetsNumbersWithoutQuotes)
{
    ValueString list;
    list.addExplicit("a", -2147483647L - 1);
    list.addExplicit("b", 2147483647L);
    list.addExplicit("c", 0);
    EXPECT_EQ(lists(list), "(a,b,c) (-2147483648,2147483647,0)");
}

TEST(ValueStringTest, SetsEveryNumberOfItsType)
{
    using Long = std::numeric_limits<long>;
    ValueString list;
    list.addExplicit("a", Long::min());
    list.addExplicit("b", Long::max());
    list.addExplicit("c", std::numeric_limits<unsigned long>::max());
    list.addExplicit("d", 4294967295UL);
    list.addExplicit("e", 4294967295U);
    list.addExplicit("f", std::numeric_limits<int>::min());
    EXPECT_EQ(lists(list), "(a,b,c,d,e,f) (" + std::to_string(Long::min()) + "," + std::to_string(Long::max()) + "," +
                               std::to_string(std::numeric_limits<unsigned long>::max()) +
                               ",4294967295,4294967295,-2147483648)");
}

TEST(ValueStringTest, TakesANullNameForAnEmptyOne)
{
    ValueString list;
    list.addName("a");
    list.add(nullptr, "x");
    EXPECT_EQ(lists(list), "(a,) ('x')");
}

TEST(ValueStringTest, LeavesQuotesInAValueAsTheyAre)
{
    ValueString list;
    list.add("a", "o'hara \\ 100%s");
    EXPECT_EQ(lists(list), "(a) ('o'hara \\ 100%s')");
}

TEST(ValueStringTest, ClosesItsListsAgainOnEveryCall)
{
    ValueString list;
    list.add("a", "x");
    list.names();
    list.values();
    EXPECT_EQ(lists(list), "(a)) ('x'))");
}

TEST(ValueStringTest, SeparatesWhatIsAddedAfterALongerOpening)
{
    ValueString list;
    list.addName("");
    list.addName("a");
    EXPECT_STREQ(list.names(), "(a)");
}

} // namespace

} // namespace commandExecutorTest
