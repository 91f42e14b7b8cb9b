// What the drills' checker finds in journals that are written by hand.

#include "drills/Checker.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

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

    std::vector<Entry> m_entries;
    int m_clock = 0;
};

const std::string kKey = "contact/c0.0";

} // namespace

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

TEST_F(Checker, LetsTheReleaseOfWhatNobodyHoldsFindNothing)
{
    add(Kind::reserve, "extension/any", 0, Outcome::okay, "8001");
    add(Kind::release, "extension/8001", 0, Outcome::okay);
    add(Kind::release, "extension/8001", 0, Outcome::none);
    EXPECT_EQ(found({{"extension/8001", "IDLE"}}), "0 0 0");
}

TEST_F(Checker, CountsExtensionsThatNobodyHoldsBeyondTheUnknownOnes)
{
    add(Kind::reserve, "extension/any", 0, Outcome::okay, "8001");
    add(Kind::reserve, "extension/any", 0, Outcome::error);
    const Stored stored{{"extension/8001", "IN_USE"}, {"extension/8002", "IN_USE"}, {"extension/8003", "IN_USE"}};
    EXPECT_EQ(judge({m_entries}, {stored, 0}).orphaned, 1U);
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

TEST_F(Checker, MeasuresTheTimeFromAReturnToTheFirstSuccess)
{
    add(Kind::look, kKey, 0, Outcome::okay);  // answered at 2
    add(Kind::look, kKey, 0, Outcome::error); // at 4
    add(Kind::look, kKey, 0, Outcome::okay);  // at 6
    EXPECT_EQ(recovery({m_entries}, {Time(3)}), Time(3));
    EXPECT_EQ(recovery({m_entries}, {Time(1), Time(3)}), Time(3));
    EXPECT_EQ(recovery({m_entries}, {Time(6)}), Time(0));
    EXPECT_EQ(recovery({m_entries}, {Time(7)}), Time(std::chrono::seconds(-1)));
    EXPECT_EQ(recovery({m_entries}, {}), std::nullopt);
}
