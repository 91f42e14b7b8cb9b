// What the drills' checker finds in journals that are written by hand.

#include "drills/Checker.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace checkerTest {

namespace {

using namespace drill;

class Checker : public testing::Test {
protected:
    /// Requests follow one another, a microsecond for each step.
    void add(Kind kind, const std::string& key, long value, Outcome outcome, const std::string& seen = kAbsent)
    {
        const Time asked(++m_clock);
        m_entries.push_back({kind, key, value, asked, Answer{Time(++m_clock), outcome, seen}});
    }

    /// "lost doubled overtaken".
    std::string found(const Stored& stored)
    {
        const Verdict verdict = judge({m_entries}, {stored, 0});
        return std::to_string(verdict.lost) + " " + std::to_string(verdict.doubled) + " " +
               std::to_string(verdict.overtaken);
    }

    /// How many extensions nobody holds, and nothing excuses.
    std::size_t orphaned(const Stored& stored) { return judge({m_entries}, {stored, 0}).orphaned; }

    std::vector<Entry> m_entries;
    int m_clock = 0;
};

const std::string kKey = "contact/c0.0";

TEST_F(Checker, FindsNothingWrongWithWhatWasAcknowledged)
{
    add(Kind::enter, kKey, 1, Outcome::okay);
    add(Kind::refresh, kKey, 2, Outcome::okay);
    add(Kind::look, kKey, 0, Outcome::okay, "2");
    EXPECT_EQ(found({{kKey, "2"}}), "0 0 0");
    add(Kind::remove, kKey, 0, Outcome::okay);
    EXPECT_EQ(found({}), "0 0 0");
}

TEST_F(Checker, FindsWhatIsLost)
{
    add(Kind::enter, kKey, 1, Outcome::okay);
    EXPECT_EQ(found({}), "1 0 0");
    EXPECT_EQ(found({{kKey, "1!"}}), "1 0 0"); // one of two bindings
}

TEST_F(Checker, FindsThatSomethingIsLostWhereItIsStoredOnceMore)
{
    add(Kind::enter, kKey, 1, Outcome::okay);
    add(Kind::enter, kKey, 2, Outcome::okay); // refused, if the first were there
    EXPECT_EQ(found({{kKey, "2"}}), "1 0 0");
}

TEST_F(Checker, KnowsThatSomethingIsStoredOnceMoreWhereAnUnknownRemovalTookEffect)
{
    add(Kind::enter, kKey, 1, Outcome::okay);
    add(Kind::remove, kKey, 0, Outcome::error);
    add(Kind::enter, kKey, 2, Outcome::okay);
    EXPECT_EQ(found({{kKey, "2"}}), "0 0 0");
}

TEST_F(Checker, FindsWhatIsThereAgain)
{
    add(Kind::enter, kKey, 1, Outcome::okay);
    add(Kind::remove, kKey, 0, Outcome::okay);
    EXPECT_EQ(found({{kKey, "1"}}), "0 1 0");
}

TEST_F(Checker, FindsWhatNobodyHasStored)
{
    add(Kind::enter, kKey, 1, Outcome::okay);
    EXPECT_EQ(found({{kKey, "1"}, {"contact/c0.1", "1"}}), "0 1 0");
    EXPECT_EQ(found({{kKey, "1"}, {"dialog/incoming#d0.1", "1"}}), "0 1 0");
}

TEST_F(Checker, FindsAnOlderValueInThePlaceOfANewerOne)
{
    add(Kind::enter, kKey, 1, Outcome::okay);
    add(Kind::refresh, kKey, 2, Outcome::okay);
    add(Kind::refresh, kKey, 3, Outcome::okay);
    EXPECT_EQ(found({{kKey, "2"}}), "0 0 1");
}

TEST_F(Checker, FindsWhatWasReadWrongOnce)
{
    add(Kind::enter, kKey, 1, Outcome::okay);
    add(Kind::look, kKey, 0, Outcome::okay, "-");
    add(Kind::look, kKey, 0, Outcome::okay, "-");
    EXPECT_EQ(found({}), "1 0 0");
}

TEST_F(Checker, LeavesOpenWhatAnErrorLeftOpen)
{
    add(Kind::enter, kKey, 1, Outcome::okay);
    add(Kind::refresh, kKey, 2, Outcome::error);
    add(Kind::look, kKey, 0, Outcome::okay, "1");
    EXPECT_EQ(found({{kKey, "1"}}), "0 0 0");
    EXPECT_EQ(found({{kKey, "2"}}), "0 0 0");
    EXPECT_EQ(found({}), "1 0 0");
}

TEST_F(Checker, KnowsByAReadWhichUnknownChangeTookEffect)
{
    add(Kind::enter, kKey, 1, Outcome::okay);
    add(Kind::refresh, kKey, 2, Outcome::error);
    add(Kind::look, kKey, 0, Outcome::okay, "2");
    EXPECT_EQ(found({{kKey, "2"}}), "0 0 0");
    EXPECT_EQ(found({{kKey, "1"}}), "0 0 1");
    EXPECT_EQ(found({}), "1 0 0");
}

TEST_F(Checker, KnowsByAReadThatAnUnknownRemovalTookEffect)
{
    add(Kind::enter, kKey, 1, Outcome::okay);
    add(Kind::remove, kKey, 0, Outcome::error);
    add(Kind::look, kKey, 0, Outcome::okay, "-");
    EXPECT_EQ(found({}), "0 0 0");
    EXPECT_EQ(found({{kKey, "1"}}), "0 1 0");
}

TEST_F(Checker, LeavesOpenAfterAReadWhatItDidNotTell)
{
    add(Kind::enter, kKey, 1, Outcome::okay);
    add(Kind::refresh, kKey, 2, Outcome::error);
    add(Kind::remove, kKey, 0, Outcome::error);
    add(Kind::refresh, kKey, 3, Outcome::error);
    add(Kind::look, kKey, 0, Outcome::okay, "3");
    EXPECT_EQ(found({{kKey, "3"}}), "0 0 0");
    EXPECT_EQ(found({{kKey, "2"}}), "0 0 0"); // it may come late
    EXPECT_EQ(found({}), "0 0 0");
    EXPECT_EQ(found({{kKey, "1"}}), "0 0 1");
}

TEST_F(Checker, LeavesNothingOpenAfterTheNextAcknowledgedChange)
{
    add(Kind::enter, kKey, 1, Outcome::okay);
    add(Kind::refresh, kKey, 2, Outcome::error);
    add(Kind::refresh, kKey, 3, Outcome::okay);
    EXPECT_EQ(found({{kKey, "3"}}), "0 0 0");
    EXPECT_EQ(found({{kKey, "2"}}), "0 0 1");
    EXPECT_EQ(found({{kKey, "1"}}), "0 0 1");
}

TEST_F(Checker, KnowsThatARefreshFindsNothingWhereAnUnknownRemovalTookEffect)
{
    add(Kind::enter, kKey, 1, Outcome::okay);
    add(Kind::remove, kKey, 0, Outcome::error);
    add(Kind::refresh, kKey, 2, Outcome::okay);
    EXPECT_EQ(found({}), "0 0 0");
    EXPECT_EQ(found({{kKey, "2"}}), "0 0 0");
    EXPECT_EQ(found({{kKey, "1"}}), "0 0 1");
}

TEST_F(Checker, CountsWhatWasNeverAnsweredAsUnknown)
{
    m_entries.push_back({Kind::enter, kKey, 1, Time(1), std::nullopt});
    EXPECT_EQ(found({}), "0 0 0");
    EXPECT_EQ(found({{kKey, "1"}}), "0 0 0");
}

TEST_F(Checker, FindsAnExtensionThatWasGivenToTwo)
{
    add(Kind::reserve, "extension/any", 0, Outcome::okay, "8001");
    add(Kind::release, "extension/8001", 0, Outcome::okay);
    add(Kind::reserve, "extension/any", 0, Outcome::okay, "8001");
    EXPECT_EQ(found({{"extension/8001", "IN_USE"}}), "0 0 0");
    add(Kind::reserve, "extension/any", 0, Outcome::okay, "8001");
    EXPECT_EQ(found({{"extension/8001", "IN_USE"}}), "0 1 0");
}

TEST_F(Checker, FindsAReservationThatIsLost)
{
    add(Kind::reserve, "extension/any", 0, Outcome::okay, "8001");
    EXPECT_EQ(found({{"extension/8001", "IDLE"}}), "1 0 0");
}

TEST_F(Checker, FindsAReservationThatIsLostWhereItsReleaseFindsNothing)
{
    add(Kind::reserve, "extension/any", 0, Outcome::okay, "8001");
    add(Kind::release, "extension/8001", 0, Outcome::none);
    EXPECT_EQ(found({{"extension/8001", "IDLE"}}), "1 0 0");
}

TEST_F(Checker, TellsAReleaseThatWasSentAgainFromALostReservation)
{
    m_entries = {{Kind::reserve, "extension/any", 0, Time(1), Answer{Time(2), Outcome::okay, "8001"}},
                 {Kind::release, "extension/8001", 0, Time(3), Answer{Time(6), Outcome::none, kAbsent}},
                 {Kind::reserve, "extension/any", 0, Time(4), Answer{Time(5), Outcome::okay, "8001"}}};
    EXPECT_EQ(found({{"extension/8001", "IN_USE"}}), "0 0 0");
    EXPECT_EQ(judge({m_entries}, {{{"extension/8001", "IN_USE"}}, 0}).vain, 1U);
}

TEST_F(Checker, TellsAReleaseBehindWhichItWasReservedForNobodyFromALostReservation)
{
    add(Kind::reserve, "extension/any", 0, Outcome::okay, "8001");
    const std::vector<Entry> reserved = m_entries;
    add(Kind::release, "extension/8001", 0, Outcome::none, kRepeated);
    EXPECT_EQ(found({{"extension/8001", "IDLE"}}), "1 0 0");
    EXPECT_EQ(found({{"extension/8001", "IN_USE"}}), "0 0 0");
    EXPECT_EQ(judge({m_entries}, {{{"extension/8001", "IN_USE"}}, 0}).vain, 1U);
    m_entries = reserved;
    add(Kind::release, "extension/8001", 0, Outcome::none); // sent once
    EXPECT_EQ(found({{"extension/8001", "IN_USE"}}), "1 0 0");
}

TEST_F(Checker, TellsWhatAReleaseSentAgainTookFromALostReservation)
{
    const Entry given{Kind::reserve, "extension/any", 0, Time(1), Answer{Time(2), Outcome::okay, "8001"}};
    const Entry next{Kind::reserve, "extension/any", 0, Time(4), Answer{Time(5), Outcome::okay, "8001"}};
    const Entry seen{Kind::look, "extension/8001", 0, Time(8), Answer{Time(9), Outcome::okay, "IDLE"}};
    const auto judged = [&](Time released, const std::string& how, const std::vector<Entry>& others) {
        const Entry release{Kind::release, "extension/8001", 0, released, Answer{Time(6), Outcome::okay, how}};
        const Verdict verdict = judge({{given, release}, others}, {{{"extension/8001", "IDLE"}}, 0});
        return std::to_string(verdict.lost) + " " + std::to_string(verdict.doubled) + " " +
               std::to_string(verdict.taken);
    };
    EXPECT_EQ(judged(Time(3), kRepeated, {next, seen}), "0 0 1");
    EXPECT_EQ(judged(Time(3), kRepeated, {next}), "0 0 1");
    EXPECT_EQ(judged(Time(3), kAbsent, {next, seen}), "1 0 0");
    EXPECT_EQ(judged(Time(-2), kRepeated, {next, seen}), "1 0 0"); // a second before
}

TEST_F(Checker, TellsWhoIsGivenWhatAReleaseSentAgainTook)
{
    const auto reserved = [](int asked) {
        return Entry{Kind::reserve, "extension/any", 0, Time(asked), Answer{Time(asked + 1), Outcome::okay, "8001"}};
    };
    const auto released = [](int asked, int answered, const std::string& how) {
        return Entry{Kind::release, "extension/8001", 0, Time(asked), Answer{Time(answered), Outcome::okay, how}};
    };
    const Entry seen{Kind::look, "extension/8001", 0, Time(30), Answer{Time(31), Outcome::okay, "IDLE"}};
    const Stored idle{{"extension/8001", "IDLE"}};
    const auto judged = [&](const std::string& how) {
        const Verdict verdict = judge({{reserved(1), released(3, 7, how)},
                                       {reserved(4), released(20, 21, kAbsent)}, // it is the third one's by then
                                       {reserved(10), seen}},
                                      {idle, 0});
        return std::to_string(verdict.lost) + " " + std::to_string(verdict.doubled) + " " +
               std::to_string(verdict.taken);
    };
    EXPECT_EQ(judged(kRepeated), "0 0 2");
    EXPECT_EQ(judged(kAbsent), "1 1 0");
}

TEST_F(Checker, LetsTheReleaseOfWhatNobodyHoldsFindNothing)
{
    add(Kind::reserve, "extension/any", 0, Outcome::okay, "8001");
    add(Kind::release, "extension/8001", 0, Outcome::okay);
    add(Kind::release, "extension/8001", 0, Outcome::none);
    EXPECT_EQ(found({{"extension/8001", "IDLE"}}), "0 0 0");
}

TEST_F(Checker, FindsByAReadThatAReservationIsLost)
{
    add(Kind::reserve, "extension/any", 0, Outcome::okay, "8001");
    add(Kind::look, "extension/8001", 0, Outcome::okay, "IN_USE");
    EXPECT_EQ(found({{"extension/8001", "IN_USE"}}), "0 0 0");
    add(Kind::look, "extension/8001", 0, Outcome::error, "IDLE");
    EXPECT_EQ(found({{"extension/8001", "IN_USE"}}), "0 0 0");
    add(Kind::look, "extension/8001", 0, Outcome::okay, "IDLE");
    EXPECT_EQ(found({{"extension/8001", "IDLE"}}), "1 0 0");
    add(Kind::reserve, "extension/any", 0, Outcome::okay, "8001");
    EXPECT_EQ(found({{"extension/8001", "IN_USE"}}), "1 0 0"); // who lost it holds it no longer
}

TEST_F(Checker, FindsByAReadThatAReservedExtensionIsGone)
{
    add(Kind::reserve, "extension/any", 0, Outcome::okay, "8001");
    add(Kind::look, "extension/8001", 0, Outcome::none);
    EXPECT_EQ(found({}), "1 0 0");
}

TEST_F(Checker, CountsExtensionsThatNobodyHoldsBeyondTheUnknownReservations)
{
    add(Kind::reserve, "extension/any", 0, Outcome::okay, "8001");
    add(Kind::reserve, "extension/any", 0, Outcome::error);
    const Stored stored{{"extension/8001", "IN_USE"}, {"extension/8002", "IN_USE"}, {"extension/8003", "IN_USE"}};
    EXPECT_EQ(orphaned(stored), 1U);
    add(Kind::reserve, "extension/any", 0, Outcome::unsent);
    EXPECT_EQ(orphaned(stored), 1U);
}

TEST_F(Checker, HasAnUnknownReleaseExcuseItsOwnExtensionAlone)
{
    add(Kind::reserve, "extension/any", 0, Outcome::okay, "8001");
    add(Kind::release, "extension/8001", 0, Outcome::error);
    EXPECT_EQ(orphaned({{"extension/8001", "IN_USE"}}), 0U);
    EXPECT_EQ(orphaned({{"extension/8002", "IN_USE"}}), 1U);
    add(Kind::reserve, "extension/any", 0, Outcome::okay, "8001"); // so it took effect
    add(Kind::release, "extension/8001", 0, Outcome::okay);
    EXPECT_EQ(orphaned({{"extension/8001", "IN_USE"}}), 1U);
}

TEST_F(Checker, KnowsThatWhatWasNotSentChangesNothing)
{
    add(Kind::enter, kKey, 1, Outcome::okay);
    add(Kind::refresh, kKey, 2, Outcome::unsent);
    EXPECT_EQ(found({{kKey, "1"}}), "0 0 0");
    EXPECT_EQ(found({{kKey, "2"}}), "0 0 1");
    add(Kind::reserve, "extension/any", 0, Outcome::okay, "8001");
    add(Kind::release, "extension/8001", 0, Outcome::unsent);
    EXPECT_EQ(found({{kKey, "1"}, {"extension/8001", "IDLE"}}), "1 0 0");
}

TEST_F(Checker, ExcusesTheColumnsAloneThatALimitNames)
{
    Verdict verdict;
    verdict.lost = 1;
    verdict.doubled = 2;
    verdict.overtaken = 4;
    EXPECT_EQ(verdict.wrongBeside({}), 7U);
    EXPECT_EQ(verdict.wrongBeside({"doubled"}), 5U);
    EXPECT_EQ(verdict.wrongBeside({"lost", "doubled", "overtaken"}), 0U);
}

TEST_F(Checker, MeasuresTheTimeFromAReturnToTheNextAcknowledgedChange)
{
    add(Kind::refresh, kKey, 1, Outcome::okay);  // answered at 2
    add(Kind::refresh, kKey, 2, Outcome::error); // at 4
    add(Kind::look, kKey, 0, Outcome::okay);     // at 6
    add(Kind::refresh, kKey, 3, Outcome::okay);  // at 8
    EXPECT_EQ(recovery({m_entries}, {Time(3)}), Time(5));
    EXPECT_EQ(recovery({m_entries}, {Time(1), Time(3)}), Time(5));
    EXPECT_EQ(recovery({m_entries}, {Time(8)}), Time(0));
    EXPECT_EQ(recovery({m_entries}, {Time(9)}), Time(std::chrono::seconds(-1)));
    EXPECT_EQ(recovery({m_entries}, {}), std::nullopt);
}

TEST_F(Checker, MeasuresTheReturnOfTheWorkerThatTakesLongest)
{
    add(Kind::refresh, kKey, 1, Outcome::okay); // answered at 2
    const std::vector<Entry> first = m_entries;
    add(Kind::release, "extension/8001", 0, Outcome::okay); // at 4
    EXPECT_EQ(recovery({first, m_entries}, {Time(1)}), Time(1));
    EXPECT_EQ(recovery({{first.front()}, {m_entries.back()}}, {Time(1)}), Time(3));
    EXPECT_EQ(recovery({first, m_entries}, {Time(3)}), Time(std::chrono::seconds(-1)));
    EXPECT_EQ(recovery({m_entries, {}}, {Time(1)}), Time(std::chrono::seconds(-1)));
}

class JournalFile : public testing::Test {
protected:
    JournalFile() { m_file = ::testing::TempDir() + "journal." + std::to_string(::getpid()); }
    ~JournalFile() override { std::filesystem::remove(m_file); }

    /// A line for each request in a file of such lines.
    std::string read(const std::string& lines)
    {
        std::ofstream(m_file) << lines;
        std::string text;
        for (const Entry& entry : Journal::read(m_file)) {
            text += entry.key + " " + (entry.answer ? entry.answer->seen : "unanswered") + "\n";
        }
        return text;
    }

    std::string m_file;
};

const std::string kAsked = "ask 0 1 enter contact/c0.0 1\n";

TEST_F(JournalFile, IsReadAsItWasWritten)
{
    {
        Journal journal(m_file);
        journal.answer(journal.ask(Kind::enter, kKey, 7), Outcome::error, " no\tserver\n");
        journal.ask(Kind::remove, kKey);
    }
    const std::vector<Entry> entries = Journal::read(m_file);
    ASSERT_EQ(entries.size(), 2U);
    EXPECT_EQ(entries[0].value, 7);
    EXPECT_EQ(entries[0].answer->outcome, Outcome::error);
    EXPECT_EQ(entries[0].answer->seen, "_no_server_");
    EXPECT_EQ(entries[1].kind, Kind::remove);
    EXPECT_FALSE(entries[1].answer);
}

TEST_F(JournalFile, MayEndWithinALine)
{
    EXPECT_EQ(read(kAsked + "got 0 2 okay -\n"), "contact/c0.0 -\n");
    EXPECT_EQ(read(kAsked + "got 0 2 okay -"), "contact/c0.0 unanswered\n");
    EXPECT_EQ(read(kAsked + "got 0"), "contact/c0.0 unanswered\n");
}

TEST_F(JournalFile, IsRefusedWhereALineIsNoneOfAJournal)
{
    for (const std::string line : {"got 0 2 error no server\n", "got 0 2 error\n", "got 1 2 okay -\n",
                                   "got 0 2 perhaps -\n", "ask 5 2 enter contact/c0.0 1\n", "\n", "done\n"}) {
        EXPECT_THROW(read(kAsked + line + "ask 1 3 remove contact/c0.0 0\n"), std::exception) << line;
    }
}

} // namespace

} // namespace checkerTest
