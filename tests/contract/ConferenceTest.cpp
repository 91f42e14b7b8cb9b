#include "contract/PresenceFixture.h"

namespace conferenceTest {

namespace {

using fake::command;
using fake::noRows;
using fake::refused;
using fake::rows;
using oryx::ConfExtRecord;
using oryx::PresenceDatabaseCommandExecutor;

const std::string kRunner = "PresenceDatabaseCommandExecutor::executeSqlCmd";
const std::string kNoRows = kRunner + ": 0 rows selected (Query) or affected (Update, Insert, or Delete)!";
const std::string kListing = "PresenceDatabaseCommandExecutor::selectMultipleConfExtRecords";
const std::string kNothingListed = kListing + ": Empty results!";

const std::string kState = "SELECT conf_status, start_time FROM conf_state WHERE extension = '7001';";
const std::string kReservation =
    "select * FROM reserve_one_available_conf_ext_randomly() where reserve_one_available_conf_ext_randomly IS NOT NULL;";
const std::string kRemovalOfTheObsolete =
    "delete from conf_state where conf_status != 'IN USE' and extension not in (select extension from extension where ext_type='c');";

/// A call whose statement the general runner runs.
struct Run {
    std::string name;
    std::vector<std::string> begun; // what it traces in front of the runner
    std::function<std::string(PresenceDatabaseCommandExecutor&)> call;
    std::string text;
    fake::Reply reply;
    std::vector<std::string> counted;           // by the runner
    std::vector<std::string> ended = {};        // traced behind the runner, which found the reply
    std::vector<std::string> endedWithout = {}; // which failed
};

PresenceOperation running(const Run& run, const PerEnding& answers)
{
    const std::string begun = presenceTrace(run.begun) + presenceTrace({kRunner + "(): "});
    const std::string sent = begun + presenceTrace({kRunner + "(): '" + run.text + "'"});
    const std::string ended = presenceTrace(run.counted) + presenceTrace(run.ended);
    const auto failed = [&](const std::string& where) {
        return presenceTrace({kRunner + ": '" + run.text + "': " + where}) + presenceTrace(run.endedWithout);
    };
    return {
        .name = run.name,
        .call = run.call,
        .statement = run.text,
        .reply = run.reply,
        .answers = answers,
        .traces = {sent + ended, begun + failed("checkConnect() failed!"), sent + failed("errorConnection() failed!"),
                   sent + failed("queryResult.failed()!")},
        .answeredTrace = sent + answeredTrace(run.text, run.reply.status) + ended,
    };
}

std::string stateOf(PresenceDatabaseCommandExecutor& executor, const std::string& extension)
{
    std::string status = "before";
    unsigned int start = 4711;
    const std::string answer = show(executor.getConfExtState(extension, status, start));
    return answer + "\n'" + status + "' since " + std::to_string(start);
}

std::string state(PresenceDatabaseCommandExecutor& executor)
{
    return stateOf(executor, "7001");
}

/// What a listing answers, and its vector behind it, which held a record before.
template <typename Call>
std::string listing(const Call& call)
{
    return appending(std::vector{ConfExtRecord("before", "before", 1)}, call);
}

std::string reserve(PresenceDatabaseCommandExecutor& executor)
{
    std::string extension = "before";
    const std::string answer = show(executor.reserveRandomlyIdleConfExtAsInUse(extension));
    return answer + "\n'" + extension + "'";
}

const std::string kBefore = "conference 'before' 'before' since 1\n";
const std::string kListed = "conference '7001' 'IN USE' since 1700000000\n";

/// A listing of one extension, in the words of an operation.
PresenceOperation
lists(const std::string& name, const std::vector<std::string>& begun, const std::string& text,
      const std::function<oryx::DatabaseResult(PresenceDatabaseCommandExecutor&, std::vector<ConfExtRecord>&)>& call)
{
    std::vector<std::string> traced = begun;
    traced.push_back(kListing + "(): ");
    return running(
        {
            .name = name,
            .begun = traced,
            .call = [call](auto& executor) { return listing([&](auto& out) { return call(executor, out); }); },
            .text = text,
            .reply = rows({{"7001", "IN USE", "1700000000"}}),
            .counted = {kRunner + ": retrieved 1 rows.", kRunner + ": 1 rows affected!"},
            .ended = {kListing + ": retrieved 1 rows"},
            .endedWithout = {kNothingListed},
        },
        statusThen(kListed, kBefore));
}

/// A change of one row.
PresenceOperation changes(const std::string& name, const std::string& begun, const std::string& text,
                          const std::function<std::string(PresenceDatabaseCommandExecutor&)>& call)
{
    return running({.name = name,
                    .begun = {begun},
                    .call = call,
                    .text = text,
                    .reply = command("1"),
                    .counted = {kRunner + ": 1 rows affected!"}},
                   statusThen("", ""));
}

PresenceOperation getConfExtState()
{
    const std::string lost = "not found: {}\n'' since 0";
    return running({.name = "getConfExtState",
                    .begun = {"getConfExtState()"},
                    .call = state,
                    .text = kState,
                    .reply = rows({{"IN USE", "1700000000"}}),
                    .counted = {kRunner + ": retrieved 1 rows.", kRunner + ": 1 rows affected!"}},
                   {"okay\n'IN USE' since 1700000000", lost, lost, lost});
}

PresenceOperation deleteAllObsoleteConfExtNotInUse()
{
    return changes("deleteAllObsoleteConfExtNotInUse",
                   "PresenceDatabaseCommandExecutor::deleteAllObsoleteConfExtNotInUse(): ", kRemovalOfTheObsolete,
                   [](auto& executor) { return show(executor.deleteAllObsoleteConfExtNotInUse()) + "\n"; });
}

PresenceOperation reserveRandomlyIdleConfExtAsInUse()
{
    return running({.name = "reserveRandomlyIdleConfExtAsInUse",
                    .begun = {"PresenceDatabaseCommandExecutor::reserveRandomlyIdleConfExtAsInUse(): "},
                    .call = reserve,
                    .text = kReservation,
                    .reply = rows({{"7001"}}),
                    .counted = {kRunner + ": retrieved 1 rows.", kRunner + ": 1 rows affected!"},
                    .ended = {"PresenceDatabaseCommandExecutor::reserveRandomlyIdleConfExtAsInUse: retrieved 1 rows"}},
                   statusThen("'7001'", "''"));
}

class ConferenceStatement : public PresenceStatementTest {};

TEST_P(ConferenceStatement, AnswersForItsEndingAndLeavesTheReason)
{
    endsAsTheCourseDoes();
}

INSTANTIATE_TEST_SUITE_P(
    OnCourse, ConferenceStatement,
    testing::ValuesIn(onEveryCourse({
        getConfExtState(),
        changes("setConfExtState", "setConfExtState()",
                "UPDATE conf_state SET conf_status ='IN USE', start_time ='1700000000' WHERE extension = '7001';",
                [](auto& executor) { return show(executor.setConfExtState("7001", "IN USE", 1700000000)) + "\n"; }),
        changes("addConfExtState", "PresenceDatabaseCommandExecutor::addConfExtState()",
                "INSERT INTO conf_state (extension,conf_status,start_time) VALUES('7001','IN USE',1700000000);",
                [](auto& executor) {
                    return show(executor.addConfExtState(ConfExtRecord("7001", "IN USE", 1700000000))) + "\n";
                }),
        changes("deleteConfExtState", "PresenceDatabaseCommandExecutor::deleteConfExtState()",
                "DELETE FROM conf_state WHERE extension = '7001';",
                [](auto& executor) { return show(executor.deleteConfExtState("7001")) + "\n"; }),
        lists(
            "getAllConfExtRecord",
            {"PresenceDatabaseCommandExecutor::getAllConfExtRecord(): ",
             "PresenceDatabaseCommandExecutor::getAllConfExtRecord: SELECT * FROM conf_state WHERE NOT (conf_status ~* 'use');"},
            "SELECT * FROM conf_state WHERE NOT (conf_status ~* 'use');",
            [](auto& executor, auto& out) { return executor.getAllConfExtRecord(out, "use", true); }),
        lists("selectMultipleConfExtRecords", {}, "SELECT 1 WHERE 'a' LIKE '%s';",
              [](auto& executor, auto& out) {
                  return executor.selectMultipleConfExtRecords("SELECT 1 WHERE 'a' LIKE '%s';", out);
              }),
        lists("getAllValidConfExts", {"PresenceDatabaseCommandExecutor::getAllValidConfExts(): "},
              "select * from select_all_valid_conf_ext;",
              [](auto& executor, auto& out) { return executor.getAllValidConfExts(out); }),
        lists("getAllObsoleteConfExtNotInUse", {"PresenceDatabaseCommandExecutor::getAllObsoleteConfExtNotInUse(): "},
              "select extension, conf_status from select_all_obsolete_conf_ext_not_in_use;",
              [](auto& executor, auto& out) { return executor.getAllObsoleteConfExtNotInUse(out); }),
        deleteAllObsoleteConfExtNotInUse(),
        reserveRandomlyIdleConfExtAsInUse(),
    })),
    kRowName);

/// A call without an extension.
struct Nameless {
    std::string name;
    std::string begun;
    std::string message;
    std::function<std::string(PresenceDatabaseCommandExecutor&)> call;
    std::string untouched = "";
};

void PrintTo(const Nameless& nameless, std::ostream* out)
{
    *out << nameless.name;
}

class ConferenceWithoutAnExtension : public testing::TestWithParam<Nameless>,
                                     protected UnconnectedExecutorOf<PresenceDatabaseCommandExecutor> {
protected:
    void isRefused()
    {
        executor.error(kEarlierFailure.c_str());
        EXPECT_EQ(GetParam().call(executor), "query error: " + GetParam().message + GetParam().untouched);
        EXPECT_EQ(executor.getErrorMessage(), GetParam().message);
        EXPECT_EQ(libpq.take(), "");
        EXPECT_EQ(trace.take(), presenceTrace({GetParam().begun}));
    }
};

TEST_P(ConferenceWithoutAnExtension, IsRefusedWhateverTheConnection)
{
    isRefused();
    connect();
    isRefused();
    libpq.loseConnection();
    isRefused();
}

INSTANTIATE_TEST_SUITE_P(
    That, ConferenceWithoutAnExtension,
    testing::Values(Nameless{"IsAskedFor", "getConfExtState()", "getConfExtState: missing one or more parameters\n",
                             [](auto& executor) { return stateOf(executor, ""); }, "\n'before' since 4711"},
                    Nameless{"IsSet", "setConfExtState()", "setConfExtState: missing one or more parameters\n",
                             [](auto& executor) { return show(executor.setConfExtState("", "IDLE", 1)); }},
                    Nameless{
                        "IsAdded", "PresenceDatabaseCommandExecutor::addConfExtState()",
                        "addConfExtState: missing one or more parameters\n",
                        [](auto& executor) { return show(executor.addConfExtState(ConfExtRecord("", "IDLE", 1))); }},
                    Nameless{"IsDeleted", "PresenceDatabaseCommandExecutor::deleteConfExtState()",
                             "deleteConfExtState(): missing one or more parameters\n",
                             [](auto& executor) { return show(executor.deleteConfExtState("")); }}),
    kRowName);

TEST(ConferenceStates, AreNumberedAndNamed)
{
    EXPECT_EQ(PresenceDatabaseCommandExecutor::STR_CONF_IN_USE, "IN USE");
    EXPECT_EQ(PresenceDatabaseCommandExecutor::STR_CONF_IDLE, "IDLE");
    EXPECT_EQ(PresenceDatabaseCommandExecutor::STR_CONF_INVALID, "INVALID");
    EXPECT_EQ(PresenceDatabaseCommandExecutor::confStateEnumToString(0), "IDLE");
    EXPECT_EQ(PresenceDatabaseCommandExecutor::confStateEnumToString(1), "IN USE");
    EXPECT_EQ(PresenceDatabaseCommandExecutor::confStateEnumToString(2), "INVALID");
    EXPECT_EQ(PresenceDatabaseCommandExecutor::confStateEnumToString(7), "INVALID");
    EXPECT_EQ(PresenceDatabaseCommandExecutor::confStateEnumToString(4294967295U), "INVALID");
}

TEST(ConferenceStates, AreReadInEitherCase)
{
    const auto number = PresenceDatabaseCommandExecutor::confStateStringToEnum;
    for (const char* const idle : {"", "IDLE", "idle", "Idle"}) {
        EXPECT_EQ(number(idle), 0U) << idle;
    }
    for (const char* const inUse : {"IN USE", "in use", "In Use"}) {
        EXPECT_EQ(number(inUse), 1U) << inUse;
    }
    for (const char* const invalid : {"INVALID", "IN_USE", "INUSE", "inuse", " idle", "IDLE ", "IN  USE", " "}) {
        EXPECT_EQ(number(invalid), 2U) << invalid;
    }
}

class ConferenceTest : public PresenceTest {
protected:
    std::string answers(const fake::Reply& reply)
    {
        libpq.replies({reply});
        return state(executor);
    }

    std::string lists(const fake::Reply& reply, const std::string& pattern, bool negate)
    {
        libpq.replies({reply});
        return listing([&](auto& out) { return executor.getAllConfExtRecord(out, pattern, negate); });
    }
};

TEST_F(ConferenceTest, AnUnknownExtensionIsNotFoundWithAnEmptyStatus)
{
    executor.error(kEarlierFailure.c_str());
    EXPECT_EQ(answers(noRows(2)), "not found\n'' since 0");
    EXPECT_EQ(executor.getErrorMessage(), kEarlierFailure);
    EXPECT_EQ(traced(),
              presenceTrace({"getConfExtState()", kRunner + "(): ", kRunner + "(): '" + kState + "'", kNoRows}));
}

TEST_F(ConferenceTest, AnAnswerWithoutRowsIsNotFoundToo)
{
    EXPECT_EQ(answers(command("1")), "not found\n'' since 0");
}

TEST_F(ConferenceTest, OnlyTheFirstStateIsRead)
{
    EXPECT_EQ(answers(rows({{"IDLE", "12abc"}, {"IN USE", "1700000000"}})), "okay\n'IDLE' since 12");
}

TEST_F(ConferenceTest, AStateThatIsNullReadsAsEmpty)
{
    EXPECT_EQ(answers(rows({{std::nullopt, "1700000000"}})), "okay\n'' since 1700000000");
}

TEST_F(ConferenceTest, AStateWithoutAStartTimeBeganAtZero)
{
    EXPECT_EQ(answers(rows({{"IDLE", std::nullopt}})), "okay\n'IDLE' since 0");
    EXPECT_EQ(answers(rows({{"IDLE", ""}})), "okay\n'IDLE' since 0");
}

TEST_F(ConferenceTest, ALateStartTimeIsWrittenNegativeByAChangeAndWholeByAnAddition)
{
    libpq.replies({command("1"), command("1"), command("1"), command("1")});
    EXPECT_EQ(show(executor.setConfExtState("7001", "IN USE", 2147483648U)), "okay");
    EXPECT_EQ(show(executor.setConfExtState("7001", "IN USE", 4294967295U)), "okay");
    EXPECT_EQ(show(executor.addConfExtState(ConfExtRecord("7001", "IN USE", 2147483648U))), "okay");
    EXPECT_EQ(show(executor.addConfExtState(ConfExtRecord("7001", "IN USE", 4294967295U))), "okay");
    EXPECT_EQ(libpq.take(),
              "exec UPDATE conf_state SET conf_status ='IN USE', start_time ='-2147483648' WHERE extension = '7001';\n"
              "exec UPDATE conf_state SET conf_status ='IN USE', start_time ='-1' WHERE extension = '7001';\n"
              "exec INSERT INTO conf_state (extension,conf_status,start_time) VALUES('7001','IN USE',2147483648);\n"
              "exec INSERT INTO conf_state (extension,conf_status,start_time) VALUES('7001','IN USE',4294967295);\n");
}

TEST_F(ConferenceTest, AStartTimeReadsBackAsTheSameNumberHoweverItWasWritten)
{
    const std::vector<std::pair<std::string, std::string>> written = {
        {"2147483647", "2147483647"},  {"2147483648", "2147483648"},
        {"-2147483648", "2147483648"}, {"4294967295", "4294967295"},
        {"-1", "4294967295"},          {"4294967296", "4294967295"},
        {"-2147483649", "2147483648"}, {"99999999999999999999", "4294967295"},
    };
    for (const auto& [column, read] : written) {
        EXPECT_EQ(answers(rows({{"IN USE", column}})), "okay\n'IN USE' since " + read) << column;
        EXPECT_EQ(lists(rows({{"7001", "IN USE", column}}), "", false),
                  "okay\nconference '7001' 'IN USE' since " + read + "\n")
            << column;
    }
}

TEST_F(ConferenceTest, AnEmptyStatusIsWrittenEmptyByAChangeAndNullByAnAddition)
{
    libpq.replies({command("1"), command("1")});
    EXPECT_EQ(show(executor.setConfExtState("7001", "", 0)), "okay");
    EXPECT_EQ(show(executor.addConfExtState(ConfExtRecord("7001", "", 0))), "okay");
    EXPECT_EQ(libpq.take(), "exec UPDATE conf_state SET conf_status ='', start_time ='0' WHERE extension = '7001';\n"
                            "exec INSERT INTO conf_state (extension,conf_status,start_time) VALUES('7001',NULL,0);\n");
}

TEST_F(ConferenceTest, AChangeOfAnUnknownExtensionIsNotFound)
{
    executor.error(kEarlierFailure.c_str());
    libpq.replies({command("0"), command("0"), command("0")});
    EXPECT_EQ(show(executor.setConfExtState("7001", "IDLE", 1)), "not found");
    EXPECT_EQ(traced(), presenceTrace({"setConfExtState()", kRunner + "(): ",
                                       kRunner + "(): 'UPDATE conf_state SET conf_status ='IDLE', start_time ='1' "
                                                 "WHERE extension = '7001';'",
                                       kNoRows}));
    EXPECT_EQ(show(executor.deleteConfExtState("7001")), "not found");
    EXPECT_EQ(show(executor.deleteAllObsoleteConfExtNotInUse()), "not found");
    EXPECT_EQ(executor.getErrorMessage(), kEarlierFailure);
}

TEST_F(ConferenceTest, ARefusedStatementIsToldAsItWasSentWhereNothingIsTraced)
{
    const auto syntax = refused("42601");
    zel::setTraceSink({});
    libpq.replies({command("1"), syntax, syntax, command("1"), syntax, syntax});
    EXPECT_EQ(show(executor.deleteConfExtState("7001")), "okay");
    EXPECT_EQ(
        show(executor.deleteConfExtState(std::string("70\0 OR true", 11))),
        "query error: ERROR:  refused\n, sqlState=42601, sqlcommand=DELETE FROM conf_state WHERE extension = '70");
    EXPECT_EQ(show(executor.deleteConfExtState("a longer extension than before")), "okay");
    EXPECT_EQ(
        show(executor.deleteConfExtState("7'")),
        "query error: ERROR:  refused\n, sqlState=42601, sqlcommand=DELETE FROM conf_state WHERE extension = '7'';");
}

TEST_F(ConferenceTest, AQuoteBreaksTheStatement)
{
    const std::string broken =
        "UPDATE conf_state SET conf_status ='it's', start_time ='1' WHERE extension = 'o'brien';";
    libpq.replies({refused("42601"), refused("42601")});
    EXPECT_EQ(show(executor.setConfExtState("o'brien", "it's", 1)), "query error: " + spliced(kRefused, broken));
    EXPECT_EQ(libpq.take(), "exec " + broken + "\nreset\nexec " + broken + "\n");

    const std::string pattern = "SELECT * FROM conf_state WHERE (conf_status ~* 'it's');";
    libpq.replies({refused("42601")});
    EXPECT_EQ(lists(refused("42601"), "it's", false), "query error: " + spliced(kRefused, pattern) + "\n" + kBefore);
    EXPECT_EQ(libpq.take(), "exec " + pattern + "\nreset\nexec " + pattern + "\n");

    libpq.replies({noRows(2), command("1"), command("1")});
    stateOf(executor, "100%s'");
    executor.addConfExtState(ConfExtRecord("100%s'", "it's", 1));
    executor.deleteConfExtState("100%s'");
    EXPECT_EQ(libpq.take(),
              "exec SELECT conf_status, start_time FROM conf_state WHERE extension = '100%s'';\n"
              "exec INSERT INTO conf_state (extension,conf_status,start_time) VALUES('100%s'','it's',1);\n"
              "exec DELETE FROM conf_state WHERE extension = '100%s'';\n");
}

TEST_F(ConferenceTest, ExtensionsAreListedByAPatternOrItsNegationAndAllWithoutOne)
{
    lists(noRows(3), "^in", false);
    lists(noRows(3), "use", true);
    lists(noRows(3), "", false);
    lists(noRows(3), "", true);
    EXPECT_EQ(libpq.take(), "exec SELECT * FROM conf_state WHERE (conf_status ~* '^in');\n"
                            "exec SELECT * FROM conf_state WHERE NOT (conf_status ~* 'use');\n"
                            "exec SELECT * FROM conf_state ;\n"
                            "exec SELECT * FROM conf_state ;\n");
}

TEST_F(ConferenceTest, AListReplacesWhatTheVectorHeldOnlyWhereThereAreRows)
{
    EXPECT_EQ(lists(noRows(3), "", false), "not found\n" + kBefore);
    const std::string sent = "SELECT * FROM conf_state ;";
    EXPECT_EQ(traced(), presenceTrace({"PresenceDatabaseCommandExecutor::getAllConfExtRecord(): ",
                                       "PresenceDatabaseCommandExecutor::getAllConfExtRecord: " + sent,
                                       kListing + "(): ", kRunner + "(): ", kRunner + "(): '" + sent + "'", kNoRows,
                                       kNothingListed}));
    EXPECT_EQ(lists(command("2"), "", false), "okay\n" + kBefore);
    EXPECT_EQ(lists(rows({{"7003", "IDLE", "3"}, {"7001", "IN USE", "12abc"}, {"7002", "INVALID", ""}}), "", false),
              "okay\n"
              "conference '7003' 'IDLE' since 3\n"
              "conference '7001' 'IN USE' since 12\n"
              "conference '7002' 'INVALID' since 0\n");
}

TEST_F(ConferenceTest, AListedExtensionIsWithoutWhatIsNull)
{
    EXPECT_EQ(lists(rows({{std::nullopt, "IDLE", "3"}, {"7001", std::nullopt, "3"}, {"7002", "IDLE", std::nullopt}}),
                    "", false),
              "okay\n"
              "conference '' 'IDLE' since 3\n"
              "conference '7001' '' since 3\n"
              "conference '7002' 'IDLE' since 0\n");
}

TEST_F(ConferenceTest, AnObsoleteExtensionHasNoStartTime)
{
    libpq.replies({rows({{"7001", "IDLE"}, {"7002", "INVALID"}})});
    EXPECT_EQ(listing([&](auto& out) { return executor.getAllObsoleteConfExtNotInUse(out); }),
              "okay\n"
              "conference '7001' 'IDLE' since 0\n"
              "conference '7002' 'INVALID' since 0\n");
}

TEST_F(ConferenceTest, AnEmptyListingIsRefused)
{
    executor.error(kEarlierFailure.c_str());
    EXPECT_EQ(listing([&](auto& out) { return executor.selectMultipleConfExtRecords("", out); }),
              "query error: " + kRunner + ": --- Empty query command! ---\n" + kBefore);
    EXPECT_EQ(executor.getErrorMessage(), kEarlierFailure);
    EXPECT_EQ(libpq.take(), "");
    EXPECT_EQ(trace.take(), presenceTrace({kListing + "(): ", kRunner + "(): ", kNothingListed}));
}

TEST_F(ConferenceTest, ThePurgeTellsWhatItsRowsSay)
{
    libpq.replies({rows({{"12%"}})});
    EXPECT_EQ(show(executor.deleteAllObsoleteConfExtNotInUse()), "okay");
    EXPECT_EQ(
        traced(),
        presenceTrace(
            {"PresenceDatabaseCommandExecutor::deleteAllObsoleteConfExtNotInUse(): ", kRunner + "(): ",
             kRunner + "(): '" + kRemovalOfTheObsolete + "'", kRunner + ": retrieved 1 rows.",
             kRunner + ": 1 rows affected!",
             "PresenceDatabaseCommandExecutor::deleteAllObsoleteConfExtNotInUse(): --- Deleted obsolete rows= 12%"}));
}

TEST_F(ConferenceTest, NothingIsReservedWhereNoExtensionIsIdle)
{
    executor.error(kEarlierFailure.c_str());
    libpq.replies({noRows()});
    EXPECT_EQ(reserve(executor), "not found\n''");
    EXPECT_EQ(executor.getErrorMessage(), kEarlierFailure);
    EXPECT_EQ(traced(), presenceTrace({"PresenceDatabaseCommandExecutor::reserveRandomlyIdleConfExtAsInUse(): ",
                                       kRunner + "(): ", kRunner + "(): '" + kReservation + "'", kNoRows}));
}

TEST_F(ConferenceTest, AReservationWithoutRowsGivesNoExtension)
{
    libpq.replies({command("1")});
    EXPECT_EQ(reserve(executor), "okay\n''");
    EXPECT_EQ(traced(),
              presenceTrace({"PresenceDatabaseCommandExecutor::reserveRandomlyIdleConfExtAsInUse(): ", kRunner + "(): ",
                             kRunner + "(): '" + kReservation + "'", kRunner + ": 1 rows affected!",
                             "PresenceDatabaseCommandExecutor::reserveRandomlyIdleConfExtAsInUse: retrieved 0 rows"}));
}

TEST_F(ConferenceTest, AFailedReservationIsNotFollowedByARollback)
{
    libpq.replies({refused("42883"), refused("42883")});
    EXPECT_EQ(reserve(executor), "query error: ERROR:  refused\n, sqlState=42883, sqlcommand=" + kReservation + "\n''");
    EXPECT_EQ(libpq.take(), "exec " + kReservation + "\nreset\nexec " + kReservation + "\n");
}

} // namespace

} // namespace conferenceTest
