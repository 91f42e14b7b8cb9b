// What the library's own work comes to beside libpq called by hand, with the same texts and the same records: the
// instructions of each, by valgrind's callgrind, so that a busy machine changes nothing. Run by bench/instructions.
//
//     instructions DATABASE SIZE RUNS
//
// on the server that PGHOST names, as the role of the name that PGUSER names. The instructions of each step of each
// job are dumped under the contender's name and the step's.

#include "Jobs.h"

#include <zel/Trace.h>

#include <valgrind/callgrind.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

namespace {

using namespace peers;

void count(Contender& contender, const std::string& name, const Job::Step& step, std::vector<Input>& inputs)
{
    const std::string title = name + "\t" + step.name;
    CALLGRIND_ZERO_STATS;
    CALLGRIND_TOGGLE_COLLECT;
    for (Input& input : inputs) {
        step.run(contender, input);
    }
    CALLGRIND_TOGGLE_COLLECT;
    CALLGRIND_DUMP_STATS_AT(title.c_str());
}

/// Once uncounted, for what a first time costs; then counted.
void run(Contender& contender, const std::string& name, int size, int runs)
{
    std::vector<Input> inputs;
    inputs.reserve(static_cast<std::size_t>(runs));
    for (int n = 1; n <= runs; ++n) {
        inputs.emplace_back(n, size, 0);
    }
    for (const Job& job : allJobs()) {
        for (const bool counted : {false, true}) {
            const auto step = [&](const Job::Step& taken) {
                if (counted) {
                    count(contender, name, taken, inputs);
                    return;
                }
                for (Input& input : inputs) {
                    taken.run(contender, input);
                }
            };
            step(job.step);
            if (job.undo) {
                step(*job.undo);
            }
        }
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 4) {
        std::fprintf(stderr, "usage: instructions DATABASE SIZE RUNS\n");
        return EXIT_FAILURE;
    }
    zel::setTraceSink({});
    try {
        const Database database = databaseNamed(argv[1]);
        run(*makePlain(database), "oryx", std::atoi(argv[2]), std::atoi(argv[3]));
        run(*makeLibpqPlain(database), "libpq", std::atoi(argv[2]), std::atoi(argv[3]));
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "instructions: %s\n", failure.what());
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
