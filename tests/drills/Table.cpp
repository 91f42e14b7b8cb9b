#include "drills/Table.h"

#include <cstdio>

namespace drill {

namespace {

std::string milliseconds(Time time)
{
    return time.count() < 0 ? "never" : std::to_string(std::chrono::ceil<std::chrono::milliseconds>(time).count());
}

} // namespace

std::string heading()
{
    return "drill                                   operations  faults  acknowledged  lost  doubled  overtaken  errors  "
           "longest ms  back ms\n";
}

std::string show(const Line& line)
{
    const Verdict& verdict = line.verdict;
    std::string text(160, '\0');
    const int size =
        std::snprintf(text.data(), text.size(), "%-38s %11zu %7zu %13zu %5zu %8zu %10zu %7zu %11s %8s",
                      line.name.c_str(), verdict.operations, line.faults, verdict.acknowledged, verdict.lost,
                      verdict.doubled, verdict.overtaken, verdict.errors, milliseconds(verdict.longest).c_str(),
                      line.recovery ? milliseconds(*line.recovery).c_str() : "-");
    text.resize(static_cast<std::size_t>(size));
    return text + (line.remark.empty() ? "" : "  " + line.remark) + "\n";
}

} // namespace drill
