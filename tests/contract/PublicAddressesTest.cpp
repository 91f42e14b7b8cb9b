#include "contract/ExecutorFixture.h"

namespace publicAddressesTest {

namespace {

using fake::Cell;
using fake::command;
using fake::noRows;
using fake::refused;
using fake::rows;
using oryx::DatabaseCommandExecutor;
using oryx::PublicAddressRecord;

const std::string kLookup =
    "SELECT handle, sip_domain, csid, scope, public_address_id FROM public_address WHERE  handle='alice' AND sip_domain='oryx.example';";

const std::vector<Cell> kRow = {"alice", "oryx.example", "12", "public", "34"};

/// A record no column of which comes from kRow.
PublicAddressRecord bob()
{
    PublicAddressRecord rec("bob", "example.com", 5, "private");
    rec.setAdminDomain("north");
    rec.setPublicAddressId(6);
    return rec;
}

const std::string kBob = "address 6 'bob'@'example.com' csid=5 scope='private' admin='north'\n";

std::string looksUp(DatabaseCommandExecutor& executor, const char* handle, const char* domain)
{
    PublicAddressRecord rec = bob();
    const std::string answer = show(executor.lookupPublicAddress(handle, domain, rec));
    return answer + "\n" + show(rec);
}

std::string adds(DatabaseCommandExecutor& executor, const char* handle, const char* domain, int csid)
{
    return std::to_string(executor.addPublicAddress(PublicAddressRecord(handle, domain, csid, "public")));
}

const PerEnding kZeroOrMinusOne = {"0", "-1", "-1", "-1"};

Operation createPublicAddress()
{
    const std::string statement = "SELECT create_public_address('7','al%ice','oryx.example')";
    return {
        .name = "createPublicAddress",
        .call =
            [](DatabaseCommandExecutor& executor) {
                return std::to_string(executor.createPublicAddress(7, "al%ice", "oryx.example"));
            },
        .statement = statement,
        .reply = rows({{"34"}}),
        .answers = kZeroOrMinusOne,
        .traces = tracedOnceConnected({statement}),
        .rollsBack = true,
    };
}

Operation aliasPublicAddress()
{
    const std::string statement = "SELECT create_public_address_alias('alice','oryx.example','al%ias')";
    return {
        .name = "aliasPublicAddress",
        .call =
            [](DatabaseCommandExecutor& executor) {
                return std::to_string(executor.aliasPublicAddress("alice", "oryx.example", "al%ias"));
            },
        .statement = statement,
        .reply = rows({{"35"}}),
        .answers = kZeroOrMinusOne,
        .traces = tracedOnceConnected({statement}),
        .rollsBack = true,
    };
}

Operation importPublicAddress()
{
    const std::string statement = "SELECT import_public_address('7','alice','oryx.example','sip:al%20ice@192.0.2.7')";
    return {
        .name = "importPublicAddress",
        .call =
            [](DatabaseCommandExecutor& executor) {
                return std::to_string(
                    executor.importPublicAddress(7, "alice", "oryx.example", "sip:al%20ice@192.0.2.7"));
            },
        .statement = statement,
        .reply = noRows(1),
        .answers = kZeroOrMinusOne,
        .traces = tracedOnceConnected({statement}),
        .rollsBack = true,
    };
}

Operation addPublicAddress()
{
    return {
        .name = "addPublicAddress",
        .call = [](DatabaseCommandExecutor& executor) { return adds(executor, "alice", "oryx.example", 1); },
        .statement = "INSERT INTO public_address(handle,sip_domain,csid) VALUES('alice','oryx.example','1');",
        .reply = command("1"),
        .answers = kZeroOrMinusOne,
    };
}

Operation lookupPublicAddress()
{
    return {
        .name = "lookupPublicAddress",
        .call = [](DatabaseCommandExecutor& executor) { return looksUp(executor, "alice", "oryx.example"); },
        .statement = kLookup,
        .reply = rows({kRow}),
        .answers = statusThen("address 34 'alice'@'oryx.example' csid=12 scope='public' admin='north'\n", kBob),
    };
}

Operation lookupOfAnUnknownAddress()
{
    PerEnding answers = statusThen("", kBob);
    answers.done = "not found\n" + kBob;
    return {
        .name = "lookupOfAnUnknownAddress",
        .call = [](DatabaseCommandExecutor& executor) { return looksUp(executor, "alice", "oryx.example"); },
        .statement = kLookup,
        .reply = noRows(5),
        .answers = answers,
    };
}

class PublicAddressStatement : public StatementTest {};

TEST_P(PublicAddressStatement, AnswersForItsEndingAndLeavesTheReason)
{
    endsAsTheCourseDoes();
}

INSTANTIATE_TEST_SUITE_P(OnCourse, PublicAddressStatement,
                         testing::ValuesIn(onEveryCourse({createPublicAddress(), aliasPublicAddress(),
                                                          importPublicAddress(), addPublicAddress(),
                                                          lookupPublicAddress(), lookupOfAnUnknownAddress()})),
                         kRowName);

class PublicAddressArguments : public RefusalTest {};

TEST_P(PublicAddressArguments, AreRefusedWithoutAStatementOnceTheConnectionIsThere)
{
    sendsNothing();
}

std::vector<Refusal> refusals()
{
    const std::string missing = "addPublicAddress: missing one or more parameters\n";
    const std::string lookup = "query error: invalid parameters\n" + kBob;
    return {
        {"AddWithoutHandle", [](auto& executor) { return adds(executor, "", "oryx.example", 12); }, "-1", missing},
        {"AddWithoutDomain", [](auto& executor) { return adds(executor, "alice", "", 12); }, "-1", missing},
        {"AddToContactSetZero", [](auto& executor) { return adds(executor, "alice", "oryx.example", 0); }, "-1",
         missing},
        {"AddToNoContactSet", [](auto& executor) { return adds(executor, "alice", "oryx.example", -1); }, "-1",
         missing},
        {"LookupWithoutHandle", [](auto& executor) { return looksUp(executor, nullptr, "oryx.example"); }, lookup,
         "invalid parameters"},
        {"LookupWithoutDomain", [](auto& executor) { return looksUp(executor, "alice", nullptr); }, lookup,
         "invalid parameters"},
    };
}

INSTANTIATE_TEST_SUITE_P(That, PublicAddressArguments, testing::ValuesIn(refusals()), kRowName);

class PublicAddressesTest : public ExecutorTest {};

TEST_F(PublicAddressesTest, ANullTextIsANullArgumentOfTheStoredFunction)
{
    libpq.replies({noRows(), noRows(), noRows()});
    EXPECT_EQ(executor.createPublicAddress(3, nullptr, "d"), 0);
    EXPECT_EQ(executor.aliasPublicAddress(nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(executor.importPublicAddress(-1, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(libpq.take(), "exec SELECT create_public_address('3',NULL,'d')\n"
                            "exec SELECT create_public_address_alias(NULL,NULL,NULL)\n"
                            "exec SELECT import_public_address('-1',NULL,NULL,NULL)\n");
}

TEST_F(PublicAddressesTest, AnEmptyTextIsAnEmptyArgumentOfTheStoredFunction)
{
    libpq.replies({noRows(), noRows(), noRows()});
    EXPECT_EQ(executor.createPublicAddress(0, "", ""), 0);
    EXPECT_EQ(executor.aliasPublicAddress("", "", ""), 0);
    EXPECT_EQ(executor.importPublicAddress(0, "", "", ""), 0);
    EXPECT_EQ(libpq.take(), "exec SELECT create_public_address('0','','')\n"
                            "exec SELECT create_public_address_alias('','','')\n"
                            "exec SELECT import_public_address('0','','','')\n");
}

TEST_F(PublicAddressesTest, AQuoteGoesIntoTheStatementAsItIs)
{
    libpq.replies({noRows(), command("1"), noRows(5)});
    EXPECT_EQ(executor.createPublicAddress(3, "o'brien", "oryx.example"), 0);
    EXPECT_EQ(adds(executor, "o'brien", "oryx.example", 4), "0");
    EXPECT_EQ(looksUp(executor, "o'brien", "it's"), "not found\n" + kBob);
    EXPECT_EQ(
        libpq.take(),
        "exec SELECT create_public_address('3','o'brien','oryx.example')\n"
        "exec INSERT INTO public_address(handle,sip_domain,csid) VALUES('o'brien','oryx.example','4');\n"
        "exec SELECT handle, sip_domain, csid, scope, public_address_id FROM public_address WHERE  handle='o'brien' AND sip_domain='it's';\n");
}

TEST_F(PublicAddressesTest, AStoredFunctionIsTracedBeforeItsStatementIsSent)
{
    libpq.replies({rows({{"34"}})});
    EXPECT_EQ(executor.aliasPublicAddress("alice", "oryx.example", "liz"), 0);
    const std::string statement = "SELECT create_public_address_alias('alice','oryx.example','liz')";
    EXPECT_EQ(trace.take(), executorTrace({statement}) + answeredTrace(statement));
}

TEST_F(PublicAddressesTest, AFailedStoredFunctionIsTracedThroughItsRollback)
{
    libpq.replies({fake::status(PGRES_EMPTY_QUERY), command()});
    EXPECT_EQ(executor.createPublicAddress(3, "bob", "d"), -1);
    const std::string statement = "SELECT create_public_address('3','bob','d')";
    EXPECT_EQ(trace.take(), executorTrace({statement}) + answeredTrace(statement, PGRES_EMPTY_QUERY) + kRollbackTrace);
}

TEST_F(PublicAddressesTest, ALookupIsTracedByTheConnectionAlone)
{
    libpq.replies({refused("42601"), refused("42601")});
    looksUp(executor, "alice", "oryx.example");
    EXPECT_EQ(trace.take(), refusedTwiceTrace(kLookup));
}

TEST_F(PublicAddressesTest, AnUnknownAddressIsNotFoundAndLeavesAFreshRecordFresh)
{
    libpq.replies({noRows(5)});
    PublicAddressRecord rec;
    EXPECT_EQ(show(executor.lookupPublicAddress("alice", "oryx.example", rec)), "not found");
    EXPECT_EQ(show(rec), "address -1 ''@'' csid=-1 scope='' admin=''\n");
}

TEST_F(PublicAddressesTest, OnlyTheFirstRowIsRead)
{
    libpq.replies({rows({kRow, {"carol", "example.com", "13", "private", "35"}})});
    EXPECT_EQ(looksUp(executor, "alice", "oryx.example"),
              "okay\naddress 34 'alice'@'oryx.example' csid=12 scope='public' admin='north'\n");
}

TEST_F(PublicAddressesTest, ANullColumnLeavesItsFieldAsItWas)
{
    const std::vector<std::string> expected = {
        "okay\naddress 34 'bob'@'oryx.example' csid=12 scope='public' admin='north'\n",
        "okay\naddress 34 'alice'@'example.com' csid=12 scope='public' admin='north'\n",
        "okay\naddress 34 'alice'@'oryx.example' csid=5 scope='public' admin='north'\n",
        "okay\naddress 34 'alice'@'oryx.example' csid=12 scope='private' admin='north'\n",
        "okay\naddress 6 'alice'@'oryx.example' csid=12 scope='public' admin='north'\n",
    };
    for (std::size_t column = 0; column < kRow.size(); ++column) {
        libpq.replies({rows({withNull(kRow, column)})});
        EXPECT_EQ(looksUp(executor, "alice", "oryx.example"), expected[column]) << "column " << column;
    }
}

TEST_F(PublicAddressesTest, EmptyColumnsAreNotNull)
{
    libpq.replies({rows({{"", "", "", "", ""}})});
    EXPECT_EQ(looksUp(executor, "alice", "oryx.example"), "okay\naddress 0 ''@'' csid=0 scope='' admin='north'\n");
}

TEST_F(PublicAddressesTest, KeysBeyondAnIntBecomeTheLargest)
{
    libpq.replies({rows({{"alice", "oryx.example", "2147483648", "public", "-2147483649"}})});
    EXPECT_EQ(looksUp(executor, "alice", "oryx.example"),
              "okay\naddress -2147483648 'alice'@'oryx.example' csid=2147483647 scope='public' admin='north'\n");
}

} // namespace

} // namespace publicAddressesTest
