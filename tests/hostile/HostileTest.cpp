// Bound statements: a text in an argument is that text and nothing else, whatever it holds. Each entry of the table is
// called with each of the texts, and the whole database is compared with what the call shall have done. And in both
// ways of sending: what the calls of the table do when memory runs out.

#include "hostile/Entry.h"
#include "hostile/Texts.h"
#include "hostile/World.h"
#include "support/FailingNew.h"
#include "support/InsideOperation.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdlib>
#include <exception>
#include <functional>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

namespace hostileTest {

namespace {

using oryx::SessionOptions;

/// The SQLSTATE with which the schema refuses a text there, empty when it takes it.
std::string expectedRefusal(Place place, const std::string& text)
{
    switch (place) {
    case Place::column:
        return "";
    case Place::key:
        return isTooLongForAKey(text) ? "54000" : "";
    case Place::flag:
        return "22P02";
    }
    return "no such place";
}

class Hostile : public testing::TestWithParam<Entry> {
protected:
    /// In a short round an argument gets a quarter of the texts, another one than its neighbours.
    static bool getsText(const Entry& entry, std::size_t text)
    {
        constexpr std::size_t kShare = 4;
        return std::getenv("ORYX_DRILL") != nullptr || (std::hash<std::string>{}(entry.argument) + text) % kShare == 0;
    }
    static void SetUpTestSuite() { s_world.emplace(); }
    static void TearDownTestSuite() { s_world.reset(); }
    void TearDown() override { EXPECT_TRUE(s_world->sessionsKept()) << "a text cost a connection"; }

    static std::optional<World> s_world;
};

std::optional<World> Hostile::s_world;

TEST_P(Hostile, TextsAreThatTextAndNothingElse)
{
    const Entry& entry = GetParam();
    for (std::size_t i = 0; i < hostileTexts().size(); ++i) {
        if (!getsText(entry, i)) {
            continue;
        }
        const auto& [name, text] = hostileTexts()[i];
        SCOPED_TRACE(entry.argument + ": " + name);
        const std::string absent = s_world->arrange(entry, text);
        const World::Expected expected = s_world->expect(entry, text);
        EXPECT_EQ(absent.empty() ? expected.refusal : absent, expectedRefusal(entry.place, text));
        const std::string answer = s_world->answer(entry, expected, absent, text);
        s_world->library.registrar.okay(); // forgets the SQLSTATE of an earlier failure
        EXPECT_EQ(entry.call(s_world->library, text), answer);
        const Snapshot snapshot = s_world->snapshot();
        EXPECT_EQ(without(expected.snapshot, snapshot), Snapshot()) << "missing";
        EXPECT_EQ(without(snapshot, expected.snapshot), Snapshot()) << "too many";
        s_world->bringBack(snapshot);
    }
}

/// The argument as a test's name; tests/completeness/texts makes the same ones of the headers' arguments.
std::string testName(const testing::TestParamInfo<Entry>& entry)
{
    std::string name;
    for (const char c : entry.param.argument) {
        const bool word = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
        if (word) {
            name += c;
        } else if (!name.ends_with('_')) {
            name += '_';
        }
    }
    return entry.param.variant.empty() ? name : name + "__" + entry.param.variant;
}

class BoundTexts : public testing::Test {
protected:
    /// The keys of the sources whose presentity holds the text.
    std::string sources(const char* presentity)
    {
        return listedKeys<oryx::SourcesRecord>(
            [&](auto& records) { return m_world.library.events.getSources(records, presentity, "pattern"); },
            [](const oryx::SourcesRecord& record) { return record.sourceopaque(); });
    }

    World m_world;
};

TEST_F(BoundTexts, PatternCharactersKeepTheirMeaningInASearch)
{
    for (const char* const presentity : {"a_b'c", "axb'c", "100%", "100 in all", R"(a\b)", "ab"}) {
        m_world.add("INSERT INTO event_sources VALUES ('key', $1, '', 5, 'pattern', $1)", presentity);
    }
    EXPECT_EQ(sources("a_b'c"), "okay\na_b'c\naxb'c\n");
    EXPECT_EQ(sources("100%"), "okay\n100 in all\n100%\n");
    EXPECT_EQ(sources("%"), "okay\n100 in all\n100%\na\\b\na_b'c\nab\naxb'c\n");
    EXPECT_EQ(sources(R"(a\b)"), "okay\nab\n");
    EXPECT_EQ(sources(R"(a\\b)"), "okay\na\\b\n");
    EXPECT_EQ(sources(R"(100\%)"), "okay\n100%\n");
    // The library's own pattern behind a last backslash is a character then.
    EXPECT_EQ(sources(R"(100\)"), "okay\n100%\n");
}

TEST_F(BoundTexts, WhatIsNotUtf8IsRefusedAndCostsNoConnection)
{
    const Snapshot before = m_world.snapshot();
    EXPECT_EQ(told(m_world.library.events.createListMapping("fsm", "o\xff", 9)), "connection error 22021\n");
    int key = 0;
    EXPECT_EQ(told(m_world.library.location.getPublicAddressKey("o\xff", "oryx.example", key)), "query error 22021\n");
    EXPECT_EQ(m_world.snapshot(), before);
    EXPECT_TRUE(m_world.sessionsKept());
}

using WayAndEntry = std::tuple<SessionOptions::Statements, Entry>;

std::string wayAndName(const testing::TestParamInfo<WayAndEntry>& parameters)
{
    const auto& [statements, entry] = parameters.param;
    return testName({entry, 0}) + (statements == SessionOptions::Statements::bound ? "__bound" : "__plain");
}

/// Memory that runs out at each of an operation's allocations, one after the other.
class OutOfMemory : public testing::TestWithParam<WayAndEntry> {
protected:
    static void TearDownTestSuite() { s_world.reset(); }

    OutOfMemory() : m_world(worldOf(std::get<0>(GetParam()))) {}

    /// The answer of the call while the operation's allocation behind so many others fails.
    std::string answer(std::size_t news)
    {
        countNewsOnly(insideOperation);
        failNewAfter(news);
        std::string text;
        try {
            text = m_entry.call(m_world.library, kPlainText);
        } catch (const std::exception& thrown) {
            text = std::string("thrown: ") + thrown.what();
        }
        m_ranOut = newHasFailed();
        failNoNew();
        countNewsOnly(nullptr);
        return text;
    }
    const Entry m_entry = std::get<1>(GetParam());
    World& m_world;
    bool m_ranOut = true; // in the last call

private:
    static World& worldOf(SessionOptions::Statements statements)
    {
        if (!s_world || s_way != statements) {
            s_world.reset(); // databases are named alike
            s_world.emplace(statements);
            s_way = statements;
        }
        return *s_world;
    }

    static std::optional<World> s_world;
    static SessionOptions::Statements s_way;
};

std::optional<World> OutOfMemory::s_world;
SessionOptions::Statements OutOfMemory::s_way;

TEST_P(OutOfMemory, IsAnAnswerAndLeavesNothingHalfDone)
{
    const std::string absent = m_world.arrange(m_entry, kPlainText);
    const World::Expected expected = m_world.expect(m_entry, kPlainText);
    const std::string right = m_world.answer(m_entry, expected, absent, kPlainText);
    const Snapshot before = m_world.snapshot();
    std::string untouched; // what the call answers when it has got no memory at all
    for (std::size_t news = 0; m_ranOut; ++news) {
        SCOPED_TRACE("memory runs out after " + std::to_string(news));
        m_world.library.registrar.okay(); // forgets the SQLSTATE of an earlier failure
        const std::string given = answer(news);
        if (news == 0 && m_ranOut) { // some need none
            untouched = given;
        }
        if (!m_ranOut || given != untouched) {
            EXPECT_EQ(given, right);
        }
        EXPECT_EQ(given.find("thrown"), std::string::npos) << given;
        if (!m_entry.change.empty()) {
            const Snapshot after = m_world.snapshot();
            // What took effect before memory ran out has taken effect whole.
            EXPECT_TRUE(after == expected.snapshot || (given != right && after == before));
            EXPECT_EQ(m_world.openTransactions(), "0");
            m_world.bringBack(after);
            m_world.arrange(m_entry, kPlainText);
        }
    }
    EXPECT_NE(untouched, "okay\n");
    const Snapshot after = m_world.snapshot();
    EXPECT_EQ(after, before);
    m_world.bringBack(after);
}

INSTANTIATE_TEST_SUITE_P(BothWays, OutOfMemory,
                         testing::Combine(testing::Values(SessionOptions::Statements::plain,
                                                          SessionOptions::Statements::bound),
                                          testing::ValuesIn(oneOfEachOperation())),
                         wayAndName);

INSTANTIATE_TEST_SUITE_P(Bound, Hostile, testing::ValuesIn(allEntries()), testName);

} // namespace

} // namespace hostileTest
