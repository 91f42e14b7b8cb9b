#include <zel/Trace.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <unit/TraceCapture.h>
#include <unit/TraceEnvironment.h>

namespace traceTest {

namespace {

using Lines = std::vector<std::string>;

/// Keeps tracing off while it lives.
class TraceOff {
public:
    TraceOff() : m_previous(zel::setTraceSink({})) {}
    TraceOff(const TraceOff&) = delete;
    TraceOff& operator=(const TraceOff&) = delete;
    ~TraceOff() { zel::setTraceSink(std::move(m_previous)); }

private:
    zel::TraceSink m_previous;
};

TEST(Trace, formatsPrnAndLogLikePrintf)
{
    const TraceCapture capture;
    const zel::Trace trace("DatabaseConnection");
    trace.prn("%d rows of %s", 3, "contact");
    trace.log("%s: %5.1f%%", "failed", 99.5);
    EXPECT_EQ(capture.lines(),
              (Lines{"DatabaseConnection prn 3 rows of contact", "DatabaseConnection log failed:  99.5%"}));
}

TEST(Trace, takesAStringAsItStands)
{
    const TraceCapture capture;
    const std::string text("100%s %n %d\0 {} \xFF\n", 18);
    zel::Trace("Channel").prn(text);
    EXPECT_EQ(capture.lines(), (Lines{"Channel prn " + text}));
}

TEST(Trace, keepsLinesOfEveryLengthWhole)
{
    const TraceCapture capture;
    const zel::Trace trace("Channel");
    Lines expected;
    for (const std::size_t size :
         {std::size_t{0}, std::size_t{1023}, std::size_t{1024}, std::size_t{1025}, std::size_t{1024} * 1024}) {
        std::string text(size, 'x');
        for (std::size_t i = 99; i < size; i += 100) {
            text[i] = '\n';
        }
        trace.prn("%s", text.c_str());
        trace.prn(text);
        trace.log("%s", text.c_str());
        expected.insert(expected.end(), {"Channel prn " + text, "Channel prn " + text, "Channel log " + text});
    }
    EXPECT_TRUE(capture.lines() == expected);
}

TEST(Trace, takesANullChannelForAnEmptyName)
{
    const TraceCapture capture;
    zel::Trace(nullptr).prn("text");
    EXPECT_EQ(capture.lines(), (Lines{" prn text"}));
}

TEST(Trace, isSilentWithAnEmptySink)
{
    const TraceCapture capture;
    const zel::Trace trace("Channel");
    {
        const TraceOff off;
        trace.prn("lost");
        trace.prn(std::string("lost"));
        trace.log("lost");
        EXPECT_FALSE(zel::Trace::enabled(zel::TraceKind::prn));
        EXPECT_FALSE(zel::Trace::enabled(zel::TraceKind::log));
    }
    EXPECT_TRUE(zel::Trace::enabled(zel::TraceKind::prn));
    EXPECT_TRUE(zel::Trace::enabled(zel::TraceKind::log));
    trace.prn("seen");
    EXPECT_EQ(capture.lines(), (Lines{"Channel prn seen"}));
}

TEST(Trace, givesThePreviousSinkBack)
{
    const TraceOff off;
    std::string reached;
    EXPECT_FALSE(
        zel::setTraceSink([&](auto, auto, std::string_view text) { reached += "first " + std::string(text); }));
    zel::TraceSink first = zel::setTraceSink([&](auto, auto, auto) { reached += "second "; });
    ASSERT_TRUE(first);
    zel::Trace("Channel").prn("a ");
    EXPECT_TRUE(zel::setTraceSink(std::move(first)));
    zel::Trace("Channel").prn("b");
    EXPECT_TRUE(zel::setTraceSink({}));
    EXPECT_FALSE(zel::setTraceSink({}));
    EXPECT_EQ(reached, "second first b");
}

TEST(Trace, dropsWhatASinkThrows)
{
    const TraceOff off;
    int calls = 0;
    zel::setTraceSink([&](auto, auto, auto) {
        ++calls;
        throw std::runtime_error("sink");
    });
    const zel::Trace trace("Channel");
    EXPECT_NO_THROW(trace.prn("a"));
    EXPECT_NO_THROW(trace.prn(std::string("a")));
    EXPECT_NO_THROW(trace.log("a"));
    EXPECT_NO_THROW(trace.log("%2000d", 1));
    EXPECT_EQ(calls, 4);
}

TEST(Trace, letsASinkTrace)
{
    const TraceOff off;
    Lines lines;
    zel::setTraceSink([&](std::string_view channel, auto, std::string_view text) {
        lines.push_back(std::string(channel) + " " + std::string(text));
        if (channel == "Outer") {
            zel::Trace("Inner").prn("about %s", lines.back().c_str());
        }
    });
    zel::Trace("Outer").prn("text");
    EXPECT_EQ(lines, (Lines{"Outer text", "Inner about Outer text"}));
}

TEST(Trace, letsASinkSetAnother)
{
    const TraceOff off;
    Lines lines;
    zel::setTraceSink([&](auto, auto, std::string_view text) {
        lines.push_back("first " + std::string(text));
        zel::setTraceSink([&](auto, auto, std::string_view next) { lines.push_back("second " + std::string(next)); });
    });
    zel::Trace("Channel").prn("a");
    zel::Trace("Channel").prn("b");
    EXPECT_EQ(lines, (Lines{"first a", "second b"}));
}

/// Traces when it goes.
struct Farewell {
    Farewell() = default;
    Farewell(const Farewell&) = delete;
    Farewell& operator=(const Farewell&) = delete;
    ~Farewell() { zel::Trace("Farewell").prn("gone"); }
};

TEST(Trace, letsASinkTraceFromItsDestructor)
{
    const TraceOff off;
    zel::setTraceSink([kept = std::make_shared<Farewell>()](auto, auto, auto) {});
    Lines lines;
    zel::setTraceSink([&](auto, auto, std::string_view text) { lines.emplace_back(text); });
    EXPECT_EQ(lines, (Lines{"gone"}));
    zel::setTraceSink({});
}

TEST(Trace, deliversEveryLineWhileSinksChange)
{
    const TraceOff off;
    constexpr int kThreads = 4;
    constexpr int kLinesPerThread = 5000;
    std::atomic<int> whole{0};
    std::atomic<int> torn{0};
    std::atomic<bool> done{false};
    const auto count = [&](std::string_view channel, zel::TraceKind, std::string_view text) {
        (channel == "Channel" && text == "one whole line" ? whole : torn).fetch_add(1);
    };
    zel::setTraceSink(count);
    const auto trace = [] {
        for (int i = 0; i < kLinesPerThread; ++i) {
            zel::Trace("Channel").prn("one %s line", "whole");
        }
    };
    const auto change = [&] {
        while (!done) {
            zel::setTraceSink(count);
        }
    };
    std::vector<std::thread> changing;
    std::vector<std::thread> tracing;
    tracing.reserve(kThreads);
    for (int i = 0; i < kThreads; ++i) {
        tracing.emplace_back(trace);
    }
    changing.emplace_back(change);
    changing.emplace_back(change);
    for (auto& thread : tracing) {
        thread.join();
    }
    done = true;
    for (auto& thread : changing) {
        thread.join();
    }
    zel::setTraceSink({});
    EXPECT_EQ(whole, kThreads * kLinesPerThread);
    EXPECT_EQ(torn, 0);
}

[[noreturn]] void traceAndExit(const char* selection)
{
    if (selection) {
        setenv("ORYX_TRACE", selection, 1);
    }
    const zel::Trace trace("Channel");
    trace.prn("routine %d", 1);
    trace.prn(std::string("{} 100%s"));
    trace.log("failure %d", 2);
    std::exit(0);
}

TEST_F(TraceEnvironment, tracesNothingWhenUnset)
{
    EXPECT_EXIT(traceAndExit(nullptr), kSucceeds, testing::Eq(""));
}

TEST_F(TraceEnvironment, tracesNothingWhenOff)
{
    EXPECT_EXIT(traceAndExit("off"), kSucceeds, testing::Eq(""));
}

TEST_F(TraceEnvironment, tracesFailuresOnlyWhenLog)
{
    EXPECT_EXIT(traceAndExit("log"), kSucceeds, testing::MatchesRegex(line("Channel log: failure 2")));
}

TEST_F(TraceEnvironment, tracesEverythingWhenAll)
{
    EXPECT_EXIT(traceAndExit("all"), kSucceeds,
                testing::MatchesRegex(line("Channel prn: routine 1") + line("Channel prn: \\{\\} 100%s") +
                                      line("Channel log: failure 2")));
}

TEST_F(TraceEnvironment, saysSoOnceWhenTheValueIsUnknown)
{
    EXPECT_EXIT(traceAndExit("ALL"), kSucceeds,
                testing::Eq("ORYX_TRACE is \"ALL\", not one of off, log, all: nothing is traced\n"));
}

TEST_F(TraceEnvironment, enablesTheKindsItTraces)
{
    const auto check = [] {
        setenv("ORYX_TRACE", "log", 1);
        std::fprintf(stderr, "%d%d", zel::Trace::enabled(zel::TraceKind::prn),
                     zel::Trace::enabled(zel::TraceKind::log));
        std::exit(0);
    };
    EXPECT_EXIT(check(), kSucceeds, testing::Eq("01"));
}

TEST_F(TraceEnvironment, masksEveryPassword)
{
    const auto trace = [] {
        setenv("ORYX_TRACE", "all", 1);
        zel::Trace("Channel").prn("host=h password=se%scret user=u password=other\tpassword=last", "\xFF");
        zel::Trace("Channel").prn(std::string("password="));
        zel::Trace("Channel").log("password= x password=a\nb passwords=c Password=d");
        std::exit(0);
    };
    EXPECT_EXIT(trace(), kSucceeds,
                testing::MatchesRegex(
                    line("Channel prn: host=h password=\\*\\*\\* user=u password=\\*\\*\\*\\\\tpassword=\\*\\*\\*") +
                    line("Channel prn: password=\\*\\*\\*") +
                    line("Channel log: password= \\*\\*\\* password=\\*\\*\\*\\\\nb passwords=c Password=\\*\\*\\*")));
}

TEST_F(TraceEnvironment, masksWhatBelongsToAPasswordWithBlanks)
{
    const auto trace = [] {
        setenv("ORYX_TRACE", "all", 1);
        zel::Trace("Channel").prn("host=h dbname=oryx user=u password=se cret of %s", "mine\nand yours");
        zel::Trace("Channel").log("UPDATE subscriber SET s_password='se cret' WHERE sid='7';");
        std::exit(0);
    };
    EXPECT_EXIT(
        trace(), kSucceeds,
        testing::MatchesRegex(line("Channel prn: host=h dbname=oryx user=u password=\\*\\*\\*") +
                              line("Channel log: UPDATE subscriber SET s_password='\\*\\*\\*' WHERE sid='7';")));
}

TEST_F(TraceEnvironment, endsALineOnceWhenTheTextEndsWithANewline)
{
    const auto trace = [] {
        setenv("ORYX_TRACE", "all", 1);
        zel::Trace("Channel").prn("missing parameters\n");
        zel::Trace("Channel").prn("\n\n");
        std::exit(0);
    };
    EXPECT_EXIT(trace(), kSucceeds,
                testing::MatchesRegex(line("Channel prn: missing parameters") + line("Channel prn: \\\\n")));
}

TEST_F(TraceEnvironment, givesEveryCallOneLineWithoutControlCharacters)
{
    const auto trace = [] {
        setenv("ORYX_TRACE", "all", 1);
        using namespace std::string_literals;
        zel::Trace("Channel").prn("a\r\n2025-01-01 b\x1b[2J\x7f\t\0c\u009b\u00a0\u00e4\n"s);
        std::exit(0);
    };
    EXPECT_EXIT(trace(), kSucceeds,
                testing::MatchesRegex(
                    line("Channel prn: a\\\\r\\\\n2025-01-01 b\\\\x1b\\[2J\\\\x7f\\\\t\\\\x00c\\\\u009b\u00a0\u00e4")));
}

TEST_F(TraceEnvironment, givesTheBuiltInSinkBackAsItWas)
{
    const auto trace = [] {
        setenv("ORYX_TRACE", "log", 1);
        zel::TraceSink builtIn = zel::setTraceSink([](auto, auto, auto) {});
        zel::Trace("Channel").log("lost");
        builtIn("Direct", zel::TraceKind::prn, "filtered");
        builtIn("Direct", zel::TraceKind::log, "seen");
        zel::setTraceSink(std::move(builtIn));
        std::fprintf(stderr, "%d\n", zel::Trace::enabled(zel::TraceKind::prn));
        zel::Trace("Channel").prn("filtered");
        zel::Trace("Channel").log("seen");
        std::exit(0);
    };
    EXPECT_EXIT(trace(), kSucceeds,
                testing::MatchesRegex(line("Direct log: seen") + "0\n" + line("Channel log: seen")));
}

TEST_F(TraceEnvironment, givesNothingBackWhenItIsOff)
{
    const auto check = [] { std::exit(zel::setTraceSink([](auto, auto, auto) {}) ? 1 : 0); };
    EXPECT_EXIT(check(), kSucceeds, testing::Eq(""));
}

TEST_F(TraceEnvironment, isDecidedAtTheFirstTraceOnly)
{
    const auto trace = [] {
        zel::Trace("Channel").log("lost");
        setenv("ORYX_TRACE", "all", 1);
        zel::Trace("Channel").log("lost");
        std::exit(0);
    };
    EXPECT_EXIT(trace(), kSucceeds, testing::Eq(""));
}

TEST_F(TraceEnvironment, isDecidedOnceWhenThreadsTraceFirst)
{
    const auto trace = [] {
        setenv("ORYX_TRACE", "nothing", 1);
        std::vector<std::thread> threads;
        threads.reserve(8);
        for (int i = 0; i < 8; ++i) {
            threads.emplace_back([] { zel::Trace("Channel").log("lost"); });
        }
        for (auto& thread : threads) {
            thread.join();
        }
        std::exit(0);
    };
    EXPECT_EXIT(trace(), kSucceeds,
                testing::Eq("ORYX_TRACE is \"nothing\", not one of off, log, all: nothing is traced\n"));
}

TEST_F(TraceEnvironment, tracesFromDestructorsThatRunAtExit)
{
    const auto trace = [] {
        static const Farewell farewell;
        setenv("ORYX_TRACE", "all", 1);
        zel::Trace("Channel").prn("working");
        std::exit(0);
    };
    EXPECT_EXIT(trace(), kSucceeds, testing::MatchesRegex(line("Channel prn: working") + line("Farewell prn: gone")));
}

} // namespace

} // namespace traceTest
