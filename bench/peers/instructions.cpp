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

#include <array>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace peers;

/// One of the two, with addresses of record to work on.
struct Side {
    const char* name;
    std::unique_ptr<Contender> contender;
    std::vector<Input> inputs;
};

Side side(const char* name, std::unique_ptr<Contender> contender, int size, int runs, int series)
{
    Side made{name, std::move(contender), {}};
    made.inputs.reserve(static_cast<std::size_t>(runs));
    for (int n = 1; n <= runs; ++n) {
        made.inputs.emplace_back(n, size, series);
    }
    return made;
}

using Sides = std::array<Side, 2>;

/// Both run the step in turns, so that both meet the allocator in the same state, and one of them, if any, is counted.
void run(Sides& sides, const Job::Step& step, const Side* counted)
{
    for (std::size_t i = 0; i < sides.front().inputs.size(); ++i) {
        for (Side& each : sides) {
            if (&each == counted) {
                CALLGRIND_TOGGLE_COLLECT;
            }
            step.run(*each.contender, each.inputs[i]);
            if (&each == counted) {
                CALLGRIND_TOGGLE_COLLECT;
            }
        }
    }
}

void count(Sides& sides, const Job::Step& step, const Side* counted)
{
    CALLGRIND_ZERO_STATS;
    run(sides, step, counted);
    if (counted != nullptr) {
        const std::string title = std::string(counted->name) + "\t" + step.name;
        CALLGRIND_DUMP_STATS_AT(title.c_str());
    }
}

/// Each step is taken uncounted first, for what a first time costs.
void count(Sides& sides)
{
    for (const Job& job : allJobs()) {
        for (const Side* const counted : std::array<const Side*, 3>{nullptr, &sides.front(), &sides.back()}) {
            count(sides, job.step, counted);
            if (job.undo) {
                count(sides, *job.undo, counted);
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
        const int size = std::atoi(argv[2]);
        const int runs = std::atoi(argv[3]);
        Sides sides{side("oryx", makePlain(database), size, runs, 0),
                    side("libpq", makeLibpqPlain(database), size, runs, 1)};
        count(sides);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "instructions: %s\n", failure.what());
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
