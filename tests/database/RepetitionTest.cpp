// A change that is sent again after its answer was lost comes after others' newer ones: what it does then, and what its
// caller is told. Bound statements are known again; of plain ones only what the rows themselves tell.

#include "support/DatabaseTest.h"
#include "support/Proxy.h"
#include "support/TraceLog.h"

#include <dal/PresenceDatabaseCommandExecutor.h>
#include <dal/SessionOptions.h>
#include <dal/SessionStatistics.h>
#include <gtest/gtest.h>
#include <libpq-fe.h>

#include <dlfcn.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <vector>

namespace repetitionTest {

namespace {

/// Whether libpq finds no memory for a result that the library makes.
bool makesNoResults = false;

/// Stands before libpq's own, which does not call it.
extern "C" [[gnu::visibility("default")]] int PQsetResultAttrs(PGresult* result, int count, PGresAttDesc* columns)
{
    static auto* const real = reinterpret_cast<decltype(&PQsetResultAttrs)>(dlsym(RTLD_NEXT, "PQsetResultAttrs"));
    return makesNoResults ? 0 : real(result, count, columns);
}

using oryx::ContactRecord;
using server::Proxy;

const std::string kA = "sip:a@192.0.2.1";
const std::string kB = "sip:b@192.0.2.2";

/// Later than any test: the schema takes an expired binding for none.
const long kExpires = static_cast<long>(std::time(nullptr)) + 3600;

/// A REGISTER request's contact: the same phone, its requests told apart by the CSeq.
std::vector<ContactRecord> bindings(long cseq, const std::vector<std::string>& addresses = {kA})
{
    std::vector<ContactRecord> made = contacts(addresses);
    for (ContactRecord& binding : made) {
        binding.setCseq(cseq);
        binding.setExpires(kExpires + cseq);
    }
    return made;
}

/// What a registrar and an event server do. One stands behind a proxy that loses connections, the other does not.
struct Servers {
    oryx::LocationService registrar;
    oryx::DatabaseCommandExecutor registry;
    oryx::PresenceDatabaseCommandExecutor events;

    void connect(const std::string& uri)
    {
        EXPECT_TRUE(registrar.connect(uri.c_str(), server::kUser, server::kPassword).okay());
        EXPECT_TRUE(registry.connect(uri.c_str(), server::kUser, server::kPassword));
        EXPECT_TRUE(events.connect(uri.c_str(), server::kUser, server::kPassword));
    }

    std::string add(long cseq, const std::vector<std::string>& addresses = {kA})
    {
        auto request = bindings(cseq, addresses);
        return outcome(registrar.registerContacts(42, request));
    }
    std::string refresh(long cseq, const std::string& callId = "")
    {
        auto request = bindings(cseq);
        if (!callId.empty()) {
            request.front().setCallId(callId.c_str());
        }
        return outcome(registrar.updateContacts(42, request));
    }
    std::string remove(const std::vector<std::string>& addresses = {kA})
    {
        auto request = bindings(0, addresses);
        return outcome(registrar.unregisterContacts(42, request));
    }
    /// Through the stored functions, and as a row of its own.
    std::string addOne(long cseq)
    {
        auto request = bindings(cseq);
        return std::to_string(registry.addContact("alice", "oryx.example", request.front()));
    }
    std::string removeOne() { return std::to_string(registry.removeContact("alice", "oryx.example", kA.c_str())); }
    std::string insertOne(long cseq)
    {
        auto request = bindings(cseq);
        request.front().setCsid(12);
        return std::to_string(registry.addContact(request.front()));
    }
    std::string addExtension(const std::string& extension)
    {
        return outcome(events.addConfExtState({extension, "IDLE", 5}));
    }
    std::string reserve()
    {
        std::string extension;
        const oryx::DatabaseResult result = events.reserveRandomlyIdleConfExtAsInUse(extension);
        return outcome(result) + " " + extension;
    }
    /// At a time relative to now.
    std::string release(const std::string& extension, int seconds)
    {
        return outcome(events.setConfExtState(extension, "IDLE", static_cast<unsigned>(std::time(nullptr) + seconds)));
    }
};

class Repetition : public DatabaseTest {
protected:
    void SetUp() override
    {
        provisionAlice();
        m_other.connect(m_database.uri());
        setenv("PGPORT", m_proxy.port().c_str(), 1);
        m_server.connect(m_database.uri());
    }

    /// The answer to the next change gets lost when the change has taken effect; then something else happens, and then
    /// it is sent again.
    void overtake(const std::function<void()>& happens)
    {
        m_proxy.lose({Proxy::Loss::answer});
        m_proxy.meanwhile(happens);
    }
    void loseAnswer() { m_proxy.lose({Proxy::Loss::answer}); }

    /// A change is held up in the server, by this lock, until its connection is lost and it waits there once more; its
    /// answer, when both have ended.
    std::string sentTwiceBehind(const std::string& lock, const std::function<std::string()>& change)
    {
        std::future<std::string> answer; // waited for after the lock has gone, whatever happens
        server::Session holder(m_database.name());
        holder.run("BEGIN; " + lock);
        answer = std::async(std::launch::async, change);
        const std::string first = waitingBackend();
        m_proxy.hangUp();
        const std::string waiting = "SELECT count(*) FROM pg_stat_activity WHERE wait_event_type = 'Lock'"
                                    " AND datname = current_database()";
        for (int look = 0; look < 6000 && m_session.value(waiting) != "2"; ++look) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        EXPECT_EQ(m_session.value(waiting), "2");
        holder.run("COMMIT");
        const std::string answered = answer.get();
        EXPECT_EQ(remaining(first), "");
        return answered;
    }

    /// As the original of a copied machine does, which goes by the same name.
    void anotherSaysALaterOne() { sql("UPDATE sending SET number = number + 1000000000000, answer = '700'"); }

    std::string bindingsStored() { return rows("SELECT address, cseq, expires FROM contact ORDER BY address"); }
    std::string states() { return rows("SELECT extension, conf_status FROM conf_state ORDER BY extension"); }

    Proxy m_proxy;
    Servers m_server;
    Servers m_other;
};

const std::string kAgain = "query error: [23505] ERROR:  duplicate key value violates unique constraint ";

/// Such a contact as it is stored.
std::string row(long cseq, const std::string& address = kA)
{
    return address + "|" + std::to_string(cseq) + "|" + std::to_string(kExpires + cseq) + "\n";
}

// Refreshes --------------------------------------------------------------------------------------------------------

TEST_F(Repetition, OfARefreshDoesNotUndoANewerOne)
{
    ASSERT_EQ(m_server.add(1), "okay");
    overtake([this] { EXPECT_EQ(m_other.refresh(3), "okay"); });
    EXPECT_EQ(m_server.refresh(2), "okay");
    EXPECT_EQ(bindingsStored(), row(3));
}

TEST_F(Repetition, OfAnAdditionDoesNotUndoANewerRefresh)
{
    overtake([this] { EXPECT_EQ(m_other.refresh(3), "okay"); });
    EXPECT_EQ(m_server.addOne(2), "0");
    EXPECT_EQ(bindingsStored(), row(3));
}

TEST_F(Repetition, OfAnOlderRefreshLeavesTheWholeContactAsItIs)
{
    ASSERT_EQ(m_server.add(3), "okay");
    sql("UPDATE contact SET c_type = 'sip', path_vector = 'p', permanent = true");
    const std::string before = rows("SELECT * FROM contact");
    auto older = bindings(2);
    older.front().setQvalue("0.1");
    older.front().setCapabilities("video");
    older.front().setContactHeader("<sip:older@192.0.2.1>");
    EXPECT_EQ(outcome(m_server.registrar.updateContacts(42, older)), "okay");
    EXPECT_EQ(m_server.registry.addContact("alice", "oryx.example", older.front()), 0);
    EXPECT_EQ(rows("SELECT * FROM contact"), before);
}

TEST_F(Repetition, OfTheLatestRefreshAndRefreshesOfAnotherCallAreWritten)
{
    ASSERT_EQ(m_server.add(3), "okay");
    sql("UPDATE contact SET expires = 5");
    EXPECT_EQ(m_server.refresh(3), "okay");
    EXPECT_EQ(bindingsStored(), row(3));
    EXPECT_EQ(m_server.refresh(2, "another"), "okay"); // a phone that was started anew
    EXPECT_EQ(bindingsStored(), row(2));
}

TEST_F(Repetition, OfAnOlderRefreshIsWrittenWhereNothingNewerIsThere)
{
    ASSERT_EQ(m_server.add(3), "okay");
    sql("UPDATE contact SET expires = 5");
    EXPECT_EQ(m_server.refresh(2), "okay"); // a phone that has lost its state, after its binding has expired
    EXPECT_EQ(bindingsStored(), row(2));
    sql("UPDATE contact SET cseq = 3, call_id = ''");
    auto unrelated = bindings(1);
    unrelated.front().setCallId("");
    EXPECT_EQ(outcome(m_server.registrar.updateContacts(42, unrelated)), "okay");
    EXPECT_EQ(bindingsStored(), row(1));
}

TEST_F(Repetition, OfARefreshOfADialogIsOlderByEitherSidesCount)
{
    sql("INSERT INTO subscription_states (subscriptionid, subcseq, notcseq) VALUES ('incoming#1', 5, 5)");
    sql("UPDATE subscription_states SET subcseq = 3, notcseq = 7");
    EXPECT_EQ(rows("SELECT subcseq, notcseq FROM subscription_states"), "5|5\n");
}

TEST_F(Repetition, OfARefreshOfADialogDoesNotUndoANewerOne)
{
    const auto refresh = [](Servers& servers, const char* contact, int cseq) {
        return outcome(servers.events.updateWatcherContact("incoming#1", contact, cseq));
    };
    const auto notify = [](Servers& servers, const char* contact, int cseq) {
        return outcome(servers.events.updatePresentityContact("incoming#1", contact, cseq));
    };
    const auto dialog = [this] { return rows("SELECT subcseq, notcseq, remotecontacthdr FROM subscription_states"); };
    sql("INSERT INTO subscription_states (subscriptionid, subcseq, notcseq) VALUES ('incoming#1', 1, 1)");
    overtake([&] { EXPECT_EQ(refresh(m_other, "newer", 3), "okay"); });
    EXPECT_EQ(refresh(m_server, "older", 2), "okay");
    EXPECT_EQ(dialog(), "3|1|newer\n");
    overtake([&] { EXPECT_EQ(notify(m_other, "newest", 3), "okay"); });
    EXPECT_EQ(notify(m_server, "older", 2), "okay");
    EXPECT_EQ(dialog(), "3|3|newest\n");
    EXPECT_EQ(refresh(m_server, "as new", 3), "okay");
    EXPECT_EQ(dialog(), "3|3|as new\n");
}

// Removals ---------------------------------------------------------------------------------------------------------

TEST_F(Repetition, OfARemovalLeavesANewerRegistrationWhereItIsKnownAgain)
{
    ASSERT_EQ(m_server.add(1), "okay");
    overtake([this] { EXPECT_EQ(m_other.add(3), "okay"); });
    EXPECT_EQ(m_server.remove(), "okay");
    EXPECT_EQ(bindingsStored(), plainOrBound("", row(3)));

    overtake([this] { EXPECT_EQ(m_other.addOne(4), "0"); });
    EXPECT_EQ(m_server.removeOne(), "0");
    EXPECT_EQ(bindingsStored(), plainOrBound("", row(4)));
}

TEST_F(Repetition, OfARemovalOfSeveralLeavesThemAll)
{
    ASSERT_EQ(m_server.add(1, {kA, kB}), "okay");
    overtake([this] { EXPECT_EQ(m_other.add(3, {kA, kB}), "okay"); });
    EXPECT_EQ(m_server.remove({kB, kA}), "okay");
    EXPECT_EQ(bindingsStored(), plainOrBound("", row(3) + row(3, kB)));
}

TEST_F(Repetition, OfARemovalThatFoundNothingLeavesANewerRegistrationToo)
{
    overtake([this] { EXPECT_EQ(m_other.add(3), "okay"); });
    EXPECT_EQ(m_server.remove(), "okay");
    EXPECT_EQ(bindingsStored(), plainOrBound("", row(3)));
}

TEST_F(Repetition, OfARemovalThatDidNotArriveRemoves)
{
    ASSERT_EQ(m_server.add(1), "okay");
    m_proxy.lose({Proxy::Loss::request});
    EXPECT_EQ(m_server.remove(), "okay");
    EXPECT_EQ(m_server.registrar.getStatistics().repetitions, 1U);
    EXPECT_EQ(bindingsStored(), "");
}

// Additions --------------------------------------------------------------------------------------------------------

TEST_F(Repetition, OfARegistrationIsAnsweredAsTheFirstSending)
{
    const std::string already = plainOrBound(kAgain + "\"contact_csid_address_key\"", "okay");
    loseAnswer();
    EXPECT_EQ(m_server.add(1, {kA, kB}), already);
    EXPECT_EQ(bindingsStored(), row(1) + row(1, kB));
    EXPECT_EQ(m_server.remove({kA, kB}), "okay");
    loseAnswer();
    EXPECT_EQ(m_server.insertOne(2), plainOrBound("-1", "0"));
    EXPECT_EQ(bindingsStored(), row(2));
}

TEST_F(Repetition, OfARegistrationDoesNotBringBackWhatWasRemovedSince)
{
    overtake([this] { EXPECT_EQ(m_other.remove(), "okay"); });
    EXPECT_EQ(m_server.add(1), "okay");
    EXPECT_EQ(bindingsStored(), plainOrBound(row(1), ""));
    m_other.remove();
    overtake([this] { EXPECT_EQ(m_other.remove(), "okay"); });
    EXPECT_EQ(m_server.addOne(2), "0");
    EXPECT_EQ(bindingsStored(), plainOrBound(row(2), ""));
}

TEST_F(Repetition, OfARegistrationWaitsForAFirstSendingThatIsUnderWay)
{
    const std::string answer = sentTwiceBehind("LOCK TABLE contact IN SHARE MODE", [this] { return m_server.add(1); });
    if (bound()) { // the two are let go at once: a plain one is refused unless it is the quicker
        EXPECT_EQ(answer, "okay");
    }
    EXPECT_EQ(bindingsStored(), row(1));
}

TEST_F(Repetition, OfAnAddedExtensionLeavesItToWhoHasReservedIt)
{
    overtake([this] { EXPECT_EQ(m_other.reserve(), "okay 700"); });
    EXPECT_EQ(m_server.addExtension("700"), plainOrBound(kAgain + "\"conf_state_pkey\"", "okay"));
    EXPECT_EQ(states(), "700|IN USE\n");
    EXPECT_EQ(m_server.addExtension("700"), kAgain + "\"conf_state_pkey\"");
}

// Conference extensions --------------------------------------------------------------------------------------------

TEST_F(Repetition, OfAReleaseDoesNotTakeAnExtensionFromItsNextConference)
{
    sql("INSERT INTO conf_state VALUES ('700', 'IN USE', 1700000000)");
    overtake([this] { EXPECT_EQ(m_other.reserve(), "okay 700"); });
    EXPECT_EQ(m_server.release("700", -1), plainOrBound("not found", "okay"));
    EXPECT_EQ(m_other.reserve(), "not found ");
    EXPECT_EQ(states(), "700|IN USE\n");
}

TEST_F(Repetition, OfAReleaseIsKnownAgainWhateverItsTime)
{
    sql("INSERT INTO conf_state VALUES ('700', 'IN USE', 1700000000)");
    overtake([this] { EXPECT_EQ(m_other.reserve(), "okay 700"); });
    EXPECT_EQ(m_server.release("700", 3600), "okay");
    EXPECT_EQ(states(), plainOrBound("700|IDLE\n", "700|IN USE\n"));
}

TEST_F(Repetition, OfAReleaseIsToldByTheTimesOfTheExtensionsStates)
{
    const auto released = [this](const std::string& since, unsigned int time) {
        sql("DELETE FROM conf_state; INSERT INTO conf_state VALUES ('700', 'IN USE', " + since + ")");
        return outcome(m_server.events.setConfExtState("700", "IDLE", time));
    };
    EXPECT_EQ(released("1700000000", 1699999999), "not found");
    EXPECT_EQ(released("1700000000", 1700000000), "okay");
    EXPECT_EQ(released("1700000000", 0), "okay"); // it has no time
    EXPECT_EQ(released("NULL", 1), "okay");
    EXPECT_EQ(released("2147483648", 2147483649U), "okay"); // which is written as -2147483647
    EXPECT_EQ(released("-2147483647", 2147483648U), "not found");
    EXPECT_EQ(released("-1", 4294967295U), "okay");
    EXPECT_EQ(outcome(m_server.events.setConfExtState("700", "IDLE", 1)), "okay"); // nobody holds it
    EXPECT_EQ(released("1700000000", 1699999999), "not found");
    EXPECT_EQ(outcome(m_server.events.setConfExtState("700", "in use", 1)), "okay"); // it is no release
}

TEST_F(Repetition, OfAReservationGivesTheSameExtension)
{
    sql("INSERT INTO conf_state SELECT n, 'IDLE', 0 FROM generate_series(700, 709) n");
    loseAnswer();
    const std::string answer = m_server.reserve();
    const std::string inUse = rows("SELECT 'okay ' || extension FROM conf_state WHERE conf_status = 'IN USE'");
    EXPECT_NE(inUse.find(answer + "\n"), std::string::npos);
    EXPECT_EQ(rows("SELECT count(*) FROM conf_state WHERE conf_status = 'IN USE'"), plainOrBound("2\n", "1\n"));
}

TEST_F(Repetition, OfAReservationGivesTheLastExtension)
{
    sql("INSERT INTO conf_state VALUES ('700', 'IDLE', 0)");
    loseAnswer();
    EXPECT_EQ(m_server.reserve(), plainOrBound("not found ", "okay 700"));
    EXPECT_EQ(m_server.reserve(), "not found ");
    overtake([this] { sql("UPDATE conf_state SET conf_status = 'IDLE'"); });
    EXPECT_EQ(m_server.reserve(), plainOrBound("okay 700", "not found "));
    EXPECT_EQ(states(), plainOrBound("700|IN USE\n", "700|IDLE\n"));
}

TEST_F(Repetition, OfAReservationWaitsForAFirstSendingThatIsUnderWay)
{
    sql("INSERT INTO conf_state SELECT n, 'IDLE', 0 FROM generate_series(700, 709) n");
    const std::string answer =
        sentTwiceBehind("LOCK TABLE conf_state IN EXCLUSIVE MODE", [this] { return m_server.reserve(); });
    const std::string inUse = rows("SELECT 'okay ' || extension FROM conf_state WHERE conf_status = 'IN USE'");
    EXPECT_NE(inUse.find(answer + "\n"), std::string::npos);
    EXPECT_EQ(rows("SELECT count(*) FROM conf_state WHERE conf_status = 'IN USE'"), plainOrBound("2\n", "1\n"));
}

// What is kept of changes ------------------------------------------------------------------------------------------

TEST_F(Repetition, IsFollowedByChangesThatTakeEffect)
{
    loseAnswer();
    m_server.add(1);
    EXPECT_EQ(m_server.add(1), kAgain + "\"contact_csid_address_key\""); // refused, and nothing kept of it
    EXPECT_EQ(m_server.remove(), "okay");
    EXPECT_EQ(m_server.add(2), "okay");
    EXPECT_EQ(m_server.refresh(3), "okay"); // which does not say which change it is
    EXPECT_EQ(bindingsStored(), row(3));
    EXPECT_EQ(rows("SELECT count(*) FROM sending"), plainOrBound("0\n", "1\n"));
}

TEST_F(Repetition, IsKnownAgainByANewNameWhereTheOldOneIsUsed)
{
    EXPECT_EQ(m_server.add(1), "okay");
    anotherSaysALaterOne();
    EXPECT_EQ(m_server.remove(), "okay");
    EXPECT_EQ(bindingsStored(), "");
    overtake([this] { EXPECT_EQ(m_other.add(3), "okay"); });
    EXPECT_EQ(m_server.remove(), "okay");
    EXPECT_EQ(bindingsStored(), plainOrBound("", row(3)));
}

TEST_F(Repetition, IsNotSuspectedOfAReservationWhoseNameIsUsed)
{
    sql("INSERT INTO conf_state VALUES ('700', 'IDLE', 0)");
    EXPECT_EQ(m_server.reserve(), "okay 700");
    sql("INSERT INTO conf_state VALUES ('701', 'IDLE', 0)");
    anotherSaysALaterOne();
    EXPECT_EQ(m_server.reserve(), "okay 701");
}

TEST_F(Repetition, ThatIsRefusedSaysSo)
{
    ASSERT_EQ(m_other.add(3), "okay");
    m_proxy.lose({Proxy::Loss::request});
    EXPECT_EQ(m_server.add(1), kAgain + "\"contact_csid_address_key\"");
    EXPECT_EQ(bindingsStored(), row(3));
}

TEST_F(Repetition, ThatIsLostTooLeavesTheChangeInDoubtAndTheNextOneTakesEffect)
{
    const std::string inDoubt = plainOrBound("query error: [00000] server closed the connection unexpectedly",
                                             "connection error: fatal query error after reset");
    m_proxy.lose({Proxy::Loss::answer, Proxy::Loss::answer});
    EXPECT_EQ(m_server.add(1), inDoubt);
    EXPECT_EQ(bindingsStored(), row(1));
    EXPECT_EQ(m_server.remove(), "okay");
    EXPECT_EQ(bindingsStored(), "");
    // The refusal arrives, and the look at whose number is kept does not.
    m_proxy.lose({Proxy::Loss::answer, Proxy::Loss::nothing, Proxy::Loss::answer});
    EXPECT_EQ(m_server.add(2), plainOrBound(kAgain + "\"contact_csid_address_key\"", inDoubt));
    EXPECT_EQ(bindingsStored(), row(2));
}

TEST_F(Repetition, ThatFindsNoMemoryForItsAnswerIsToldSo)
{
    loseAnswer();
    makesNoResults = true;
    EXPECT_EQ(m_server.add(1), plainOrBound(kAgain + "\"contact_csid_address_key\"", "query error: out of memory"));
    makesNoResults = false;
    EXPECT_EQ(bindingsStored(), row(1));
    EXPECT_EQ(m_server.remove(), "okay");
    EXPECT_EQ(bindingsStored(), "");
}

TEST_F(Repetition, IsKnownAgainAfterAChangeWhoseOwnTableWasMissing)
{
    sql("ALTER TABLE contact RENAME TO away");
    EXPECT_EQ(m_server.remove(), "query error: [42P01] ERROR:  relation \"contact\" does not exist");
    sql("ALTER TABLE away RENAME TO contact");
    overtake([this] { EXPECT_EQ(m_other.add(3), "okay"); });
    EXPECT_EQ(m_server.remove(), "okay");
    EXPECT_EQ(bindingsStored(), plainOrBound("", row(3)));
}

TEST_F(Repetition, IsKnownAgainWhereItsStatementsWereForgotten)
{
    ASSERT_EQ(m_server.addOne(1), "0");
    ASSERT_EQ(m_server.removeOne(), "0");
    EXPECT_EQ(outcome(m_server.registry.execute("DEALLOCATE ALL")), "okay");
    EXPECT_EQ(m_server.addOne(2), "0");
    EXPECT_EQ(bindingsStored(), row(2));
    EXPECT_EQ(outcome(m_server.registry.execute("DEALLOCATE ALL")), "okay");
    // What is lost is the word that they are forgotten, or the plain answer.
    overtake([this] { EXPECT_EQ(m_other.addOne(3), "0"); });
    EXPECT_EQ(m_server.removeOne(), "0");
    EXPECT_EQ(bindingsStored(), "");
}

TEST_F(Repetition, IsNotTakenForDoneWhereAnotherOfItsNameSaidALaterOne)
{
    ASSERT_EQ(m_server.add(1), "okay");
    anotherSaysALaterOne();
    m_proxy.lose({Proxy::Loss::request});
    EXPECT_EQ(m_server.remove(), "okay");
    EXPECT_EQ(bindingsStored(), "");
    overtake([this] { EXPECT_EQ(m_other.add(3), "okay"); }); // and is known again by its new name
    EXPECT_EQ(m_server.remove(), "okay");
    EXPECT_EQ(bindingsStored(), plainOrBound("", row(3)));
}

TEST_F(Repetition, OfAReservationIsNotGivenWhatAnotherOfItsNameHasReserved)
{
    sql("INSERT INTO conf_state VALUES ('700', 'IDLE', 0)");
    ASSERT_EQ(m_server.reserve(), "okay 700");
    sql("INSERT INTO conf_state VALUES ('701', 'IDLE', 0)");
    anotherSaysALaterOne();
    m_proxy.lose({Proxy::Loss::request});
    EXPECT_EQ(m_server.reserve(), "okay 701");
}

TEST_F(Repetition, IsDoneAgainWhereAnotherOfItsNameSaidALaterOneSince)
{
    overtake([this] { anotherSaysALaterOne(); });
    EXPECT_EQ(m_server.add(1), kAgain + "\"contact_csid_address_key\"");
    sql("INSERT INTO conf_state VALUES ('700', 'IDLE', 0)");
    overtake([this] {
        anotherSaysALaterOne();
        sql("INSERT INTO conf_state VALUES ('701', 'IDLE', 0)");
    });
    EXPECT_EQ(m_server.reserve(), "okay 701");
}

TEST_F(Repetition, HasANumberOfTheClockWhichNoCopyOfItsServerSays)
{
    EXPECT_EQ(m_server.add(1), "okay");
    const std::string distance = "SELECT abs(number / 1e6 - extract(epoch FROM now())) < 60 FROM sending";
    EXPECT_EQ(rows(distance), plainOrBound("", "t\n"));
}

TEST_F(Repetition, IsKnownAgainUnderAStricterIsolation)
{
    sql("ALTER DATABASE " + m_database.name() + " SET default_transaction_isolation = 'repeatable read'");
    m_proxy.hangUp();
    ASSERT_EQ(m_server.remove(), "okay"); // on a new connection
    const std::string added = sentTwiceBehind("LOCK TABLE contact IN SHARE MODE", [this] { return m_server.add(1); });
    EXPECT_EQ(bindingsStored(), row(1));
    ASSERT_EQ(m_server.reserve(), "not found "); // on a new connection
    sql("INSERT INTO conf_state SELECT n, 'IDLE', 0 FROM generate_series(700, 709) n");
    const std::string reserved =
        sentTwiceBehind("LOCK TABLE conf_state IN EXCLUSIVE MODE", [this] { return m_server.reserve(); });
    const std::string inUse = rows("SELECT 'okay ' || extension FROM conf_state WHERE conf_status = 'IN USE'");
    if (bound()) { // of two plain ones either is the quicker
        EXPECT_EQ(added, "okay");
        EXPECT_EQ(inUse, reserved + "\n");
    }
}

TEST_F(Repetition, IsKnownAgainOnConnectionsAfterTheSchemasUpgrade)
{
    sql("ALTER TABLE sending RENAME TO away");
    EXPECT_EQ(m_server.add(1), "okay");
    sql("ALTER TABLE away RENAME TO sending");
    m_proxy.hangUp();
    EXPECT_EQ(m_server.remove(), "okay");
    overtake([this] { EXPECT_EQ(m_other.add(3), "okay"); });
    EXPECT_EQ(m_server.remove(), "okay");
    EXPECT_EQ(bindingsStored(), plainOrBound("", row(3)));
}

TEST_F(Repetition, IsCountedOnce)
{
    loseAnswer();
    m_server.addOne(1);
    const oryx::SessionStatistics statistics = m_server.registry.getStatistics();
    EXPECT_EQ(statistics.connects, 2U);
    EXPECT_EQ(statistics.losses, 1U);
    EXPECT_EQ(statistics.repetitions, 1U);
    EXPECT_EQ(statistics.refusals, 0U);
}

TEST_F(Repetition, IsRememberedForADayAtLeast)
{
    const std::string session = "00000000-0000-0000-0000-00000000000";
    sql("INSERT INTO sending VALUES ('" + session + "1', 1), ('" + session + "2', 1)");
    sql("UPDATE sending SET sent_at = now() - CASE WHEN right(session::text, 1) = '1' THEN interval '25 hours'"
        " ELSE interval '23 hours' END");
    EXPECT_EQ(m_server.add(1), "okay");
    EXPECT_EQ(rows("SELECT right(session::text, 1) FROM sending WHERE session::text LIKE '00000000-0000-%' ORDER BY 1"),
              plainOrBound("1\n2\n", "2\n"));
}

/// What the schema does with the numbers that a server sends, whatever its way.
class Sending : public ExecutorTest {
protected:
    void SetUp() override
    {
        ExecutorTest::SetUp();
        provisionAlice();
    }

    /// A statement as the servers run it, as that change of the session.
    std::string send(const std::string& session, int number, const std::string& statement)
    {
        return outcome(m_executor.execute(
            "INSERT INTO sending AS kept (session, number) VALUES ('" + session + "', " + std::to_string(number) +
            ") ON CONFLICT (session) DO UPDATE SET number = CASE WHEN kept.number < excluded.number"
            " THEN excluded.number ELSE sending_has_taken_effect(kept.answer) END, answer = NULL, sent_at = now()"
            ";" +
            statement));
    }
    std::string bindingsStored() { return rows("SELECT address FROM contact ORDER BY 1"); }

    const std::string m_one = "0123456789abcdef0123456789abcdef";
    const std::string m_two = "fedcba9876543210fedcba9876543210";
    const std::string m_add = "INSERT INTO contact (csid, address) VALUES (12, 'sip:a')";
    const std::string m_remove = "DELETE FROM contact WHERE address = 'sip:a'";
    const std::string m_refused = "query error: [OX001] ERROR:  this change has taken effect before";
};

TEST_F(Sending, ThatComesAgainOrAfterALaterOneOfItsSessionChangesNothing)
{
    EXPECT_EQ(send(m_one, 7, m_add), "okay");
    EXPECT_EQ(send(m_one, 7, m_remove), m_refused);
    EXPECT_EQ(send(m_one, 6, m_remove), m_refused); // its server has given it up
    EXPECT_EQ(bindingsStored(), "sip:a\n");
    EXPECT_EQ(send(m_one, 8, m_remove), "okay");
    EXPECT_EQ(bindingsStored(), "");
}

TEST_F(Sending, CountsForItsOwnSessionAlone)
{
    EXPECT_EQ(send(m_one, 7, m_add), "okay");
    EXPECT_EQ(send(m_two, 1, m_remove), "okay");
    EXPECT_EQ(bindingsStored(), "");
}

TEST_F(Sending, ThatIsRolledBackIsForgotten)
{
    EXPECT_EQ(outcome(m_executor.execute("BEGIN")), "okay");
    EXPECT_EQ(send(m_one, 1, m_add), "okay");
    EXPECT_EQ(outcome(m_executor.execute("ROLLBACK")), "okay");
    EXPECT_EQ(send(m_one, 1, m_add), "okay");
    EXPECT_EQ(bindingsStored(), "sip:a\n");
}

TEST_F(Sending, OfAReservationKeepsItsAnswerUntilTheNext)
{
    const auto reserve = [this](int number) {
        const std::string token = m_one + "." + std::to_string(number);
        return outcome(m_executor.execute("SELECT set_config('oryx.sending', '" + token +
                                          "', true); SELECT reserve_one_available_conf_ext_randomly()"));
    };
    const auto kept = [this] { return rows("SELECT number, answer FROM sending"); };
    sql("INSERT INTO conf_state VALUES ('700', 'IDLE', 0), ('701', 'DISABLED', 0)");
    EXPECT_EQ(reserve(1), "okay");
    EXPECT_EQ(kept(), "1|700\n");
    sql("UPDATE conf_state SET conf_status = 'IDLE'");
    EXPECT_EQ(reserve(1), m_refused);
    EXPECT_EQ(rows("SELECT DISTINCT conf_status FROM conf_state"), "IDLE\n");
    EXPECT_EQ(outcome(m_executor.execute("SELECT reserve_one_available_conf_ext_randomly()")), "okay"); // not said
    EXPECT_EQ(kept(), "1|700\n");
    EXPECT_EQ(send(m_one, 2, m_add), "okay");
    EXPECT_EQ(kept(), "2|NULL\n");
    EXPECT_EQ(reserve(2), m_refused);
    sql("UPDATE conf_state SET conf_status = 'IN USE'");
    EXPECT_EQ(reserve(3), "okay");
    EXPECT_EQ(kept(), "3|\n");
}

TEST_F(Sending, IsKeptFromEverybodyElse)
{
    const std::string denied = "query error: [42501] ERROR:  permission denied for table sending";
    EXPECT_EQ(send(m_one, 7, m_add), "okay");
    for (const std::string statement : {"SELECT sent_at FROM sending", "UPDATE sending SET session = gen_random_uuid()",
                                        "DELETE FROM sending", "TRUNCATE sending"}) {
        EXPECT_EQ(outcome(m_executor.execute(statement)), denied) << statement;
    }
    sql("SET ROLE oryx_reader");
    EXPECT_EQ(m_session.ask("SELECT $1::text", "").sqlState + m_session.ask("SELECT $1 FROM sending", "").sqlState,
              "42501");
    sql("RESET ROLE");
}

TEST_F(Sending, IsPassedOverByASchemaThatDoesNotKnowOfIt)
{
    sql("DROP TABLE sending; DROP FUNCTION sending_has_taken_effect, sending_forget_ended;"
        "CREATE OR REPLACE FUNCTION reserve_one_available_conf_ext_randomly() RETURNS text LANGUAGE sql AS"
        " $$ UPDATE conf_state SET conf_status = 'IN USE' RETURNING extension $$;"
        "INSERT INTO conf_state VALUES ('700', 'IDLE', 0)");
    Servers servers;
    servers.connect(m_database.uri());
    EXPECT_EQ(servers.add(1), "okay");
    EXPECT_EQ(servers.remove(), "okay");
    EXPECT_EQ(servers.insertOne(1), "0");
    EXPECT_EQ(servers.removeOne(), "0");
    EXPECT_EQ(servers.reserve(), "okay 700");
    EXPECT_EQ(servers.release("700", 0), "okay");
    EXPECT_EQ(servers.addExtension("701"), "okay");
    EXPECT_EQ(servers.registry.getStatistics().refusals, 0U);
}

TEST_F(Sending, IsPassedOverWhereTheRoleHasNoRightToIt)
{
    sql("REVOKE ALL ON sending FROM oryx_server; INSERT INTO conf_state VALUES ('700', 'IDLE', 0)");
    TraceLog log;
    Servers servers;
    servers.connect(m_database.uri());
    EXPECT_EQ(servers.reserve(), "okay 700");
    EXPECT_EQ(servers.release("700", 0), "okay");
    EXPECT_EQ(servers.add(1), "okay");
    EXPECT_EQ(servers.remove(), "okay");
    EXPECT_EQ(servers.insertOne(1), "0");
    EXPECT_EQ(servers.registry.getStatistics().refusals, 0U);
    EXPECT_EQ(log.take("oryx"),
              plainOrBound("", "oryx log: a role may not write the table sending: its changes are not known again when "
                               "they are sent again after a lost answer; oryx_server has the right\n"));
}

TEST_F(Sending, IsStillSaidWhereTheRoleHasNoRightToTheChangeItself)
{
    Servers servers;
    servers.connect(m_database.uri());
    sql("REVOKE ALL ON conf_state FROM oryx_server");
    EXPECT_EQ(servers.reserve(), "query error: [42501] ERROR:  permission denied for table conf_state ");
    sql("GRANT ALL ON conf_state TO oryx_server; INSERT INTO conf_state VALUES ('700', 'IDLE', 0)");
    EXPECT_EQ(servers.reserve(), "okay 700");
    EXPECT_EQ(rows("SELECT answer FROM sending"), plainOrBound("", "700\n"));
}

TEST_F(Sending, OfAReservationIsNotSaidInsideACallersTransaction)
{
    Servers servers;
    servers.connect(m_database.uri());
    sql("INSERT INTO conf_state VALUES ('700', 'IDLE', 0)");
    EXPECT_EQ(outcome(servers.events.execute("BEGIN")), "okay");
    EXPECT_EQ(servers.reserve(), "okay 700");
    EXPECT_EQ(outcome(servers.events.execute("COMMIT")), "okay");
    EXPECT_EQ(rows("SELECT count(*) FROM sending"), "0\n");
}

TEST_F(Sending, IsNotSaidInsideACallersTransaction)
{
    Servers servers;
    servers.connect(m_database.uri());
    sql("ALTER TABLE sending RENAME TO away"); // or one that does not know of it would end here
    EXPECT_EQ(outcome(servers.registry.execute("BEGIN")), "okay");
    EXPECT_EQ(servers.insertOne(1), "0");
    EXPECT_EQ(servers.removeOne(), "0");
    EXPECT_EQ(servers.addOne(2), "0");
    EXPECT_EQ(outcome(servers.registry.execute("COMMIT")), "okay");
    EXPECT_EQ(bindingsStored(), kA + "\n");
    EXPECT_EQ(rows("SELECT count(*) FROM away"), "0\n");
}

} // namespace

} // namespace repetitionTest
