#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

/// Of a process that has traced what it should.
inline const testing::ExitedWithCode kSucceeds(0);

/// What the environment decides is decided once in a process: each of these tests runs in one of its own.
class TraceEnvironment : public testing::Test {
protected:
    TraceEnvironment()
    {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        unsetenv("ORYX_TRACE");
        unsetenv("ORYX_TRACE_FILE");
    }

    /// One line of a built-in sink, as a pattern, with what stands before channel and kind.
    static std::string line(const std::string& pattern)
    {
        return R"([0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9]{3} \[[0-9]+\] )" + pattern + "\n";
    }
};
