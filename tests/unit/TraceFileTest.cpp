// The file that the environment names for traces.

#include <zel/Trace.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <support/TemporaryDirectory.h>
#include <unit/TraceEnvironment.h>

namespace traceFileTest {

namespace {

class TraceFile : public TraceEnvironment {
protected:
    static void traceTo(const std::string& path)
    {
        setenv("ORYX_TRACE", "all", 1);
        setenv("ORYX_TRACE_FILE", path.c_str(), 1);
    }
};

// What a child wrote to its file it tells on standard error.

TEST_F(TraceFile, writesToTheFileNamed)
{
    const auto trace = [] {
        {
            const TemporaryDirectory directory;
            traceTo(directory.file("trace"));
            zel::Trace("Channel").prn("dbname=oryx password=secret connect_timeout=5");
            zel::Trace("Channel").log("failure");
            std::fputs(directory.read("trace").c_str(), stderr);
        }
        std::exit(0);
    };
    EXPECT_EXIT(trace(), kSucceeds,
                testing::MatchesRegex(line("Channel prn: dbname=oryx password=\\*\\*\\* connect_timeout=5") +
                                      line("Channel log: failure")));
}

TEST_F(TraceFile, createsFilesThatOnlyTheirOwnerReads)
{
    const auto trace = [] {
        {
            const TemporaryDirectory directory;
            umask(0);
            traceTo(directory.file("trace"));
            const std::string mebibyte(std::size_t{1024} * 1024, 'x');
            for (int i = 0; i < 12; ++i) {
                zel::Trace("Channel").prn(mebibyte);
            }
            for (const char* name : {"trace.1", "trace"}) {
                struct stat status {};
                stat(directory.file(name).c_str(), &status);
                std::fprintf(stderr, "%o ", static_cast<unsigned>(status.st_mode & 07777));
            }
        }
        std::exit(0);
    };
    EXPECT_EXIT(trace(), kSucceeds, testing::Eq("600 600 "));
}

TEST_F(TraceFile, writesThroughNoSymbolicLink)
{
    const auto trace = [] {
        {
            const TemporaryDirectory directory;
            const std::string target = directory.write("target", "");
            std::filesystem::create_symlink(target, directory.file("trace"));
            traceTo(directory.file("trace"));
            zel::Trace("Channel").log("failure");
            std::fprintf(stderr, "[%s]", directory.read("target").c_str());
        }
        std::exit(0);
    };
    EXPECT_EXIT(trace(), kSucceeds,
                testing::MatchesRegex("ORYX_TRACE_FILE: Failed opening file /[^ ]*/trace for writing: a symbolic link; "
                                      "traces go to standard error\n" +
                                      line("Channel log: failure") + "\\[\\]"));
}

TEST_F(TraceFile, writesToNoFileOfAnotherName)
{
    const auto trace = [] {
        {
            const TemporaryDirectory directory;
            std::filesystem::create_hard_link(directory.write("target", ""), directory.file("trace"));
            traceTo(directory.file("trace"));
            zel::Trace("Channel").log("failure");
            std::fprintf(stderr, "[%s]", directory.read("target").c_str());
        }
        std::exit(0);
    };
    EXPECT_EXIT(trace(), kSucceeds,
                testing::MatchesRegex("ORYX_TRACE_FILE: Failed opening file /[^ ]*/trace for writing: it has other "
                                      "names; traces go to standard error\n" +
                                      line("Channel log: failure") + "\\[\\]"));
}

TEST_F(TraceFile, writesToNoFifo)
{
    const auto trace = [] {
        {
            const TemporaryDirectory directory;
            mkfifo(directory.file("trace").c_str(), 0600);
            traceTo(directory.file("trace"));
            zel::Trace("Channel").log("failure");
        }
        std::exit(0);
    };
    EXPECT_EXIT(trace(), kSucceeds, testing::ContainsRegex("traces go to standard error\n"));
}

TEST_F(TraceFile, addsToAFileThatExists)
{
    const auto trace = [] {
        {
            const TemporaryDirectory directory;
            traceTo(directory.write("trace", "earlier\n"));
            zel::Trace("Channel").log("failure");
            std::fputs(directory.read("trace").c_str(), stderr);
        }
        std::exit(0);
    };
    EXPECT_EXIT(trace(), kSucceeds, testing::MatchesRegex("earlier\n" + line("Channel log: failure")));
}

TEST_F(TraceFile, rotatesTheFileBetweenLines)
{
    const auto trace = [] {
        {
            const TemporaryDirectory directory;
            traceTo(directory.file("trace"));
            const std::string mebibyte(std::size_t{1024} * 1024, 'x');
            for (int i = 0; i < 12; ++i) {
                zel::Trace("Channel").prn(mebibyte);
            }
            for (const char* name : {"trace.2", "trace.1", "trace"}) {
                const std::string text = directory.read(name);
                std::fprintf(stderr, "%s: %d lines\n", name,
                             static_cast<int>(std::count(text.begin(), text.end(), '\n')));
            }
        }
        std::exit(0);
    };
    EXPECT_EXIT(trace(), kSucceeds, testing::Eq("trace.2: 0 lines\ntrace.1: 9 lines\ntrace: 3 lines\n"));
}

TEST_F(TraceFile, fallsBackToStandardErrorWhenTheFileCannotBeWritten)
{
    const auto trace = [] {
        {
            const TemporaryDirectory directory;
            std::filesystem::create_directory(directory.file("trace"));
            traceTo(directory.file("trace"));
            zel::Trace("Channel").log("failure");
        }
        std::exit(0);
    };
    EXPECT_EXIT(trace(), kSucceeds,
                testing::MatchesRegex("ORYX_TRACE_FILE: Failed opening file /[^ ]*/trace for writing: Is a directory; "
                                      "traces go to standard error\n" +
                                      line("Channel log: failure")));
}

TEST_F(TraceFile, opensNoFileWhenOff)
{
    const auto trace = [] {
        {
            const TemporaryDirectory directory;
            setenv("ORYX_TRACE_FILE", directory.file("trace").c_str(), 1);
            zel::Trace("Channel").log("lost");
            std::fprintf(stderr, "%d", std::filesystem::exists(directory.file("trace")));
        }
        std::exit(0);
    };
    EXPECT_EXIT(trace(), kSucceeds, testing::Eq("0"));
}

} // namespace

} // namespace traceFileTest
