// One round of the library's plain jobs: plain DATABASE SIZE RUNS, on the server that PGHOST names, as
// the role that PGUSER names. Prints a line for each step of a job, with the microseconds of each operation.
// bench/compare builds it against two versions of the library.

#include "Jobs.h"

#include <zel/Trace.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <vector>

namespace {

using namespace peers;
using Clock = std::chrono::steady_clock;

constexpr int kWarmUp = 20;

/// Runs a step on each of the inputs, and tells how long one took.
double microseconds(Contender& contender, const Job::Step& step, std::vector<Input>& inputs)
{
    const Clock::time_point begin = Clock::now();
    for (Input& input : inputs) {
        step.run(contender, input);
    }
    return std::chrono::duration<double, std::micro>(Clock::now() - begin).count() / static_cast<double>(inputs.size());
}

void measure(Contender& contender, const Job& job, std::vector<Input>& inputs, bool print)
{
    const double forward = microseconds(contender, job.step, inputs);
    const double back = job.undo ? microseconds(contender, *job.undo, inputs) : 0;
    if (print) {
        std::printf("%s\t%.3f\n", job.step.name, forward);
    }
    if (print && job.undo) {
        std::printf("%s\t%.3f\n", job.undo->name, back);
    }
}

std::vector<Input> inputs(int size, int count)
{
    std::vector<Input> made;
    made.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) {
        made.emplace_back(static_cast<int>(i * 7919LL % size) + 1, size, 0);
    }
    return made;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 4) {
        std::fprintf(stderr, "usage: plain DATABASE SIZE RUNS\n");
        return EXIT_FAILURE;
    }
    zel::setTraceSink({});
    try {
        const auto contender = makePlain(databaseNamed(argv[1]));
        const int size = std::atoi(argv[2]);
        std::vector<Input> few = inputs(size, kWarmUp);
        std::vector<Input> all = inputs(size, std::atoi(argv[3]));
        for (const Job& job : allJobs()) {
            measure(*contender, job, few, false);
            measure(*contender, job, all, true);
        }
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "plain: %s\n", failure.what());
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
