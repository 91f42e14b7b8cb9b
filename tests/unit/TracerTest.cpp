#include <Tracer.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <unit/TraceCapture.h>

namespace tracerTest {

namespace {

TEST(Tracer, tracesRoutineProgressOnItsChannel)
{
    const TraceCapture trace;
    const Tracer tracer("RegEx");
    tracer.prn("compiling '%s' %d", "^sip:", 7);
    tracer.prn(std::string("100%s"));
    EXPECT_EQ(trace.lines(), (std::vector<std::string>{"RegEx prn compiling '^sip:' 7", "RegEx prn 100%s"}));
}

TEST(Tracer, sharesTheSinkOfTheProcess)
{
    const Tracer tracer("RegEx");
    const TraceCapture outer;
    {
        const TraceCapture inner;
        tracer.prn("one");
        EXPECT_EQ(inner.lines(), (std::vector<std::string>{"RegEx prn one"}));
    }
    tracer.prn("two");
    EXPECT_EQ(outer.lines(), (std::vector<std::string>{"RegEx prn two"}));
}

} // namespace

} // namespace tracerTest
