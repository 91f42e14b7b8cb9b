#include "contract/ExecutorFixture.h"
#include "support/FailingRandom.h"
#include "support/TemporaryDirectory.h"

#include <Crypt.h>

#include <cstdlib>

namespace subscribersTest {

namespace {

using fake::Cell;
using fake::command;
using fake::noRows;
using fake::refused;
using fake::rows;
using oryx::ContactSetRecord;
using oryx::DatabaseCommandExecutor;
using oryx::SubscriberRecord;

const std::string kLookup =
    "SELECT subscriber.sid, subscriber.auth_user_id, subscriber.oid, subscriber.s_type, subscriber.auth_type,  subscriber.s_password, subscriber.active  FROM public_address,contact_set,subscriber WHERE  subscriber.sid = contact_set.sid AND contact_set.csid = public_address.csid  AND public_address.handle = 'alice' AND public_address.sip_domain = 'oryx.example';";

const std::vector<Cell> kRow = {"7", "alice", "3", "home", "digest", "secret", "t"};

/// A record no column of which comes from kRow.
SubscriberRecord bob()
{
    SubscriberRecord rec;
    rec.setId(5);
    rec.setUserId("bob");
    rec.setType("office");
    rec.setAuthType("basic");
    rec.setPassword("hunter2");
    rec.setOid(9);
    rec.setActive('f');
    return rec;
}

const std::string kBob = "subscriber 5 user='bob' type='office' auth='basic' password='hunter2' oid=9 active='f'\n";

std::string looksUp(DatabaseCommandExecutor& executor, const char* handle, const char* domain)
{
    SubscriberRecord rec = bob();
    const int found = executor.lookupSubscriber(handle, domain, rec);
    return std::to_string(found) + "\n" + show(rec);
}

Operation addSubscriber()
{
    return {
        .name = "addSubscriber",
        .call = [](DatabaseCommandExecutor& executor) { return std::to_string(executor.addSubscriber(bob())); },
        .statement =
            "INSERT INTO subscriber (sid,user_id,s_type,auth_type,s_password,active) VALUES('5','bob','office','basic','hunter2','f')",
        .reply = command("1"),
        .answers = {"1", "-1", "-1", "0"},
    };
}

Operation lookupSubscriber()
{
    const std::string statement = executorTrace({kLookup});
    return {
        .name = "lookupSubscriber",
        .call = [](DatabaseCommandExecutor& executor) { return looksUp(executor, "alice", "oryx.example"); },
        .statement = kLookup,
        .reply = rows({kRow}),
        .answers = {"1\nsubscriber 7 user='alice' type='home' auth='digest' password='secret' oid=3 active='t'\n",
                    "-1\n" + kBob, "-1\n" + kBob, "-1\n" + kBob},
        .traces = {statement + executorTrace({"active = t\n"}), "", statement, statement},
    };
}

Operation lookupOfAnUnknownAddress()
{
    return {
        .name = "lookupOfAnUnknownAddress",
        .call = [](DatabaseCommandExecutor& executor) { return looksUp(executor, "alice", "oryx.example"); },
        .statement = kLookup,
        .reply = noRows(7),
        .answers = {"0\n" + kBob, "-1\n" + kBob, "-1\n" + kBob, "-1\n" + kBob},
        .traces = tracedOnceConnected({kLookup}),
    };
}

Operation removeSubscriber()
{
    return {
        .name = "removeSubscriber",
        .call = [](DatabaseCommandExecutor& executor) { return std::to_string(executor.removeSubscriber(42)); },
        .statement = "SELECT remove_subscriber('42')",
        .reply = rows({{"1"}}),
        .answers = {"1", "-1", "-1", "-1"},
        .rollsBack = true,
    };
}

Operation changeSubscriberPassword()
{
    return {
        .name = "changeSubscriberPassword",
        .call =
            [](DatabaseCommandExecutor& executor) {
                return std::to_string(executor.changeSubscriberPassword(42, "it's 100% secret"));
            },
        .statement = "UPDATE subscriber SET s_password='it's 100% secret' WHERE sid='42';",
        .reply = command("3"),
        .answers = {"3", "-1", "-1", "-1"},
        .errorTexts = {"", "{}", "{}", "{}"},
    };
}

Operation addContactSet()
{
    return {
        .name = "addContactSet",
        .call =
            [](DatabaseCommandExecutor& executor) {
                ContactSetRecord rec;
                rec.setSid(7);
                rec.setCsid(12);
                rec.setOrdering("sequential");
                return show(executor.addContactSet(rec));
            },
        .statement = "INSERT INTO contact_set(sid,csid,ordering) VALUES('7','12','sequential');",
        .reply = command("1"),
        .answers = {"okay", "connection error: {}", "connection error: {}", "query error: {}"},
    };
}

class SubscriberStatement : public StatementTest {};

TEST_P(SubscriberStatement, AnswersForItsEndingAndLeavesTheReason)
{
    endsAsTheCourseDoes();
}

INSTANTIATE_TEST_SUITE_P(OnCourse, SubscriberStatement,
                         testing::ValuesIn(onEveryCourse({addSubscriber(), lookupSubscriber(),
                                                          lookupOfAnUnknownAddress(), removeSubscriber(),
                                                          changeSubscriberPassword(), addContactSet()})),
                         kRowName);

class SubscriberArguments : public RefusalTest {};

TEST_P(SubscriberArguments, AreRefusedWithoutAStatementOnceTheConnectionIsThere)
{
    sendsNothing();
}

std::vector<Refusal> refusals()
{
    const std::string lookup = "invalid parameters passed to lookupSubscriber";
    return {
        {"LookupWithoutHandle", [](auto& executor) { return looksUp(executor, nullptr, "oryx.example"); },
         "-1\n" + kBob, lookup},
        {"LookupWithoutDomain", [](auto& executor) { return looksUp(executor, "alice", nullptr); }, "-1\n" + kBob,
         lookup},
        {"LookupWithNeither", [](auto& executor) { return looksUp(executor, nullptr, nullptr); }, "-1\n" + kBob,
         lookup},
        {"RemovalOfKeyZero", [](auto& executor) { return std::to_string(executor.removeSubscriber(0)); }, "-1",
         "missing parameters"},
        {"PasswordOfKeyZero",
         [](auto& executor) { return std::to_string(executor.changeSubscriberPassword(0, "secret")); }, "-1",
         "missing parameters"},
        {"NoPassword", [](auto& executor) { return std::to_string(executor.changeSubscriberPassword(42, nullptr)); },
         "-1", "missing parameters"},
    };
}

INSTANTIATE_TEST_SUITE_P(That, SubscriberArguments, testing::ValuesIn(refusals()), kRowName);

class SubscribersTest : public ExecutorTest {
protected:
    std::string inserts(const SubscriberRecord& rec)
    {
        libpq.replies({command("1")});
        EXPECT_EQ(executor.addSubscriber(rec), 1);
        return libpq.take();
    }

    /// What a lookup answers with the row, and the executor's trace of it behind its statement.
    std::string found(const std::vector<Cell>& row)
    {
        libpq.replies({rows({row})});
        const std::string answer = looksUp(executor, "alice", "oryx.example");
        std::string lines = trace.take("DatabaseCommandExecutor");
        return answer + lines.substr(lines.find('\n') + 1);
    }
};

TEST_F(SubscribersTest, AnEmptyRecordIsStoredUnderItsNegativeNumberWithoutAKey)
{
    EXPECT_EQ(inserts(SubscriberRecord()), "exec INSERT INTO subscriber (user_id,active) VALUES('-1','t')\n");
}

TEST_F(SubscribersTest, EmptyTextsOfARecordAreLeftOut)
{
    SubscriberRecord rec;
    rec.setId(5);
    rec.setUserId("alice");
    EXPECT_EQ(inserts(rec), "exec INSERT INTO subscriber (sid,user_id,active) VALUES('5','alice','t')\n");
}

TEST_F(SubscribersTest, KeyZeroIsStoredAndStandsInForTheUserId)
{
    SubscriberRecord rec;
    rec.setId(0);
    rec.setType("home");
    EXPECT_EQ(inserts(rec), "exec INSERT INTO subscriber (sid,user_id,s_type,active) VALUES('0','0','home','t')\n");
}

TEST_F(SubscribersTest, ANegativeKeyIsLeftOutBesideAUserId)
{
    SubscriberRecord rec;
    rec.setId(-2147483647 - 1);
    rec.setUserId("alice");
    rec.setAuthType("digest");
    EXPECT_EQ(inserts(rec), "exec INSERT INTO subscriber (user_id,auth_type,active) VALUES('alice','digest','t')\n");
}

TEST_F(SubscribersTest, AQuoteInARecordGoesIntoTheStatementAsItIs)
{
    SubscriberRecord rec;
    rec.setUserId("o'brien");
    rec.setPassword("50%d");
    EXPECT_EQ(inserts(rec), "exec INSERT INTO subscriber (user_id,s_password,active) VALUES('o'brien','50%d','t')\n");
}

TEST_F(SubscribersTest, AnInsertAnswersWithTheRowsItTouched)
{
    libpq.replies({command("0"), command("12"), command("")});
    EXPECT_EQ(executor.addSubscriber(bob()), 0);
    EXPECT_EQ(executor.addSubscriber(bob()), 12);
    EXPECT_EQ(executor.addSubscriber(bob()), 0);
}

TEST_F(SubscribersTest, AnInsertIsTracedByTheConnectionAlone)
{
    libpq.replies({command("1")});
    executor.addSubscriber(SubscriberRecord());
    EXPECT_EQ(
        trace.take(),
        "DatabaseConnection prn: executing query\n"
        "DatabaseConnection prn: query returned, setting result\n"
        "DatabaseConnection prn: query result status is 1 (', sqlState=00000, sqlcommand=INSERT INTO subscriber (user_id,active) VALUES('-1','t')')\n\n"
        "DatabaseConnection prn: query result status is 1 (', sqlState=00000, sqlcommand=INSERT INTO subscriber (user_id,active) VALUES('-1','t')')\n\n");
}

TEST_F(SubscribersTest, AFoundSubscriberIsTracedFromStatementToActiveFlag)
{
    libpq.replies({rows({kRow})});
    looksUp(executor, "alice", "oryx.example");
    EXPECT_EQ(trace.take(), executorTrace({kLookup}) + answeredTrace(kLookup) + executorTrace({"active = t\n"}));
}

TEST_F(SubscribersTest, APercentSignSurvivesInTheTracedStatement)
{
    libpq.replies({noRows(7)});
    SubscriberRecord rec;
    EXPECT_EQ(executor.lookupSubscriber("100%s%n", "it's", rec), 0);
    const std::string statement =
        "SELECT subscriber.sid, subscriber.auth_user_id, subscriber.oid, subscriber.s_type, subscriber.auth_type,  subscriber.s_password, subscriber.active  FROM public_address,contact_set,subscriber WHERE  subscriber.sid = contact_set.sid AND contact_set.csid = public_address.csid  AND public_address.handle = '100%s%n' AND public_address.sip_domain = 'it's';";
    EXPECT_EQ(libpq.take(), "exec " + statement + "\n");
    EXPECT_EQ(trace.take("DatabaseCommandExecutor"), executorTrace({statement}));
}

TEST_F(SubscribersTest, OnlyTheFirstRowIsRead)
{
    libpq.replies({rows({kRow, {"8", "carol", "4", "office", "none", "other", "f"}})});
    EXPECT_EQ(looksUp(executor, "alice", "oryx.example"),
              "1\nsubscriber 7 user='alice' type='home' auth='digest' password='secret' oid=3 active='t'\n");
}

TEST_F(SubscribersTest, ANullColumnLeavesItsFieldAsItWas)
{
    const std::vector<std::string> expected = {
        "1\nsubscriber 5 user='alice' type='home' auth='digest' password='secret' oid=3 active='t'\n",
        "1\nsubscriber 7 user='bob' type='home' auth='digest' password='secret' oid=3 active='t'\n",
        "1\nsubscriber 7 user='alice' type='home' auth='digest' password='secret' oid=9 active='t'\n",
        "1\nsubscriber 7 user='alice' type='office' auth='digest' password='secret' oid=3 active='t'\n",
        "1\nsubscriber 7 user='alice' type='home' auth='basic' password='secret' oid=3 active='t'\n",
        "1\nsubscriber 7 user='alice' type='home' auth='digest' password='hunter2' oid=3 active='t'\n",
        "1\nsubscriber 7 user='alice' type='home' auth='digest' password='secret' oid=3 active='f'\n",
    };
    for (std::size_t column = 0; column < kRow.size(); ++column) {
        libpq.replies({rows({withNull(kRow, column)})});
        EXPECT_EQ(looksUp(executor, "alice", "oryx.example"), expected[column]) << "column " << column;
    }
}

TEST_F(SubscribersTest, EmptyColumnsAreNotNull)
{
    EXPECT_EQ(found({"", "", "", "", "", "", ""}),
              "1\nsubscriber 0 user='' type='' auth='' password='' oid=0 active='f'\n" +
                  executorTrace({"active = \n"}));
}

TEST_F(SubscribersTest, AnInactiveSubscriberLeavesTheActiveFlagAsItWas)
{
    libpq.replies({rows({{"7", "alice", "3", "home", "digest", "secret", "f"}})});
    SubscriberRecord rec;
    EXPECT_EQ(executor.lookupSubscriber("alice", "oryx.example", rec), 1);
    EXPECT_EQ(show(rec), "subscriber 7 user='alice' type='home' auth='digest' password='secret' oid=3 active='t'\n");
    EXPECT_EQ(trace.take("DatabaseCommandExecutor"), executorTrace({kLookup, "active = f\n"}));
}

TEST_F(SubscribersTest, OnlyALowerCaseTAtTheFrontMakesASubscriberActive)
{
    const auto activeAfter = [this](const Cell& active) {
        return found({"7", "alice", "3", "home", "digest", "secret", active});
    };
    const std::string rec = "1\nsubscriber 7 user='alice' type='home' auth='digest' password='secret' oid=3 active=";
    EXPECT_EQ(activeAfter("true"), rec + "'t'\n" + executorTrace({"active = true\n"}));
    EXPECT_EQ(activeAfter("T"), rec + "'f'\n" + executorTrace({"active = T\n"}));
    EXPECT_EQ(activeAfter("1"), rec + "'f'\n" + executorTrace({"active = 1\n"}));
    EXPECT_EQ(activeAfter(std::nullopt), rec + "'f'\n" + executorTrace({"active = not set\n"}));
}

TEST_F(SubscribersTest, KeysAreTheLeadingDigitsOfTheirColumnHeldToAnInt)
{
    EXPECT_EQ(found({"12abc", "alice", "4294967297", "home", "digest", "secret", "t"}),
              "1\nsubscriber 12 user='alice' type='home' auth='digest' password='secret' oid=2147483647 active='t'\n" +
                  executorTrace({"active = t\n"}));
}

TEST_F(SubscribersTest, AnEncryptedPasswordComesInClear)
{
    const TemporaryDirectory directory;
    const std::string key(64, '7');
    setenv("ORYX_CRYPT_KEY_FILE", directory.write("key", key).c_str(), 1);
    std::string stored;
    ASSERT_TRUE(Crypt::encrypt("open sesame", stored));
    EXPECT_EQ(found({"7", "alice", "3", "home", "digest", stored, "t"}),
              "1\nsubscriber 7 user='alice' type='home' auth='digest' password='open sesame' oid=3 active='t'\n" +
                  executorTrace({"active = t\n"}));
    unsetenv("ORYX_CRYPT_KEY_FILE");
}

TEST_F(SubscribersTest, APasswordThatCannotBeDecryptedComesAsARandomTextEachTime)
{
    // Damaged, and encrypted with a key that is not there.
    for (const char* stored :
         {"{oryx1}damaged", "{oryx1}", "{oryx1}Y5DJNvRN6FkANiqceF8Jpd5z74UD5uLT22AQEwiVdZgWLiz84QsGWF1OyFQ7Yg=="}) {
        libpq.replies({rows({{"7", "alice", "3", "home", "digest", stored, "t"}}),
                       rows({{"7", "alice", "3", "home", "digest", stored, "t"}})});
        SubscriberRecord first;
        SubscriberRecord second;
        EXPECT_EQ(executor.lookupSubscriber("alice", "oryx.example", first), 1);
        EXPECT_NE(trace.take("Crypt").find(" log: cannot decrypt a password"), std::string::npos);
        EXPECT_EQ(executor.lookupSubscriber("alice", "oryx.example", second), 1);
        for (const SubscriberRecord& rec : {first, second}) {
            EXPECT_EQ(rec.password().size(), 64U);
            EXPECT_EQ(rec.password().find_first_not_of("0123456789abcdef"), std::string::npos) << rec.password();
        }
        EXPECT_NE(first.password(), second.password());
    }
}

TEST_F(SubscribersTest, AnEncryptedPasswordThatARecordCannotHoldComesAsARandomText)
{
    const TemporaryDirectory directory;
    setenv("ORYX_CRYPT_KEY_FILE", directory.write("key", std::string(64, '7')).c_str(), 1);
    for (const std::string& clear : {std::string(), std::string("\0secret", 7), std::string("a\0", 2)}) {
        std::string stored;
        ASSERT_TRUE(Crypt::encrypt(clear, stored));
        libpq.replies({rows({{"7", "alice", "3", "home", "digest", stored, "t"}})});
        SubscriberRecord rec;
        EXPECT_EQ(executor.lookupSubscriber("alice", "oryx.example", rec), 1);
        EXPECT_EQ(rec.password().size(), 64U);
    }
    unsetenv("ORYX_CRYPT_KEY_FILE");
}

TEST_F(SubscribersTest, APasswordThatCannotBeDecryptedIsAFailureWithoutRandomNumbers)
{
    const NoRandomNumbers none;
    EXPECT_EQ(found({"7", "alice", "3", "home", "digest", "{oryx1}damaged", "t"}),
              "-1\n" + kBob + executorTrace({"active = t\n"}));
    EXPECT_EQ(executor.getErrorMessage(), "the stored password cannot be read, and there are no random numbers");
}

TEST_F(SubscribersTest, ANegativeKeyIsRemovedLikeAnyOther)
{
    libpq.replies({rows({{"1"}})});
    EXPECT_EQ(executor.removeSubscriber(-5), 1);
    EXPECT_EQ(libpq.take(), "exec SELECT remove_subscriber('-5')\n");
}

TEST_F(SubscribersTest, AFailedRemovalIsTracedThroughItsRollback)
{
    libpq.replies({refused("42601"), refused("42601"), command()});
    EXPECT_EQ(executor.removeSubscriber(42), -1);
    EXPECT_EQ(trace.take(), refusedTwiceTrace("SELECT remove_subscriber('42')") + kRollbackTrace);
}

TEST_F(SubscribersTest, APasswordOfAnAbsentSubscriberTouchesNoRow)
{
    libpq.replies({command("0")});
    EXPECT_EQ(executor.changeSubscriberPassword(-1, ""), 0);
    EXPECT_EQ(libpq.take(), "exec UPDATE subscriber SET s_password='' WHERE sid='-1';\n");
}

TEST_F(SubscribersTest, AnEmptyContactSetIsStoredWithoutAnOrdering)
{
    libpq.replies({command("1")});
    EXPECT_EQ(show(executor.addContactSet(ContactSetRecord())), "okay");
    EXPECT_EQ(libpq.take(), "exec INSERT INTO contact_set(sid,csid,ordering) VALUES('-1','-1',NULL);\n");
}

} // namespace

} // namespace subscribersTest
