// The contenders beside each other, in turns:
//
//     peers DATABASE SIZE [--connections=1] [--jobs=REGEX] [--rounds=3] [--milliseconds=40]
//
// on the server that PGHOST names, as the role that PGUSER names. Prints a line for each contender in each round of
// each step of a job: addresses of record, connections, step, contender, and the microseconds of the clock for each
// operation of all connections together; tabs between them.

#include "Jobs.h"

#include <zel/Trace.h>

#include <algorithm>
#include <array>
#include <barrier>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <limits>
#include <regex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace {

using namespace peers;
using Clock = std::chrono::steady_clock;

struct Entrant {
    const char* name;
    std::unique_ptr<Contender> (*make)(const Database&);
};
constexpr std::array kEntrants{
    Entrant{"libpq stock", makeLibpqStock},
    Entrant{"libpq plain", makeLibpqPlain},
    Entrant{"oryx plain", makePlain},
    Entrant{"libpqxx", makeLibpqxx},
    Entrant{"SOCI", makeSoci},
    Entrant{"libpq prepared", makeLibpqPrepared},
    Entrant{"oryx bound", makeBound},
};

constexpr int kAddresses = 300;
constexpr std::chrono::seconds kWarmUp{1};

struct Options {
    Database database;
    int size = 0;
    int connections = 1;
    std::regex jobs{"."};
    int rounds = 3;
    std::chrono::milliseconds slot{40};
};

Options read(int argc, char** argv)
{
    if (argc < 3) {
        throw std::runtime_error(
            "usage: peers DATABASE SIZE [--connections=1] [--jobs=REGEX] [--rounds=3] [--milliseconds=40]");
    }
    Options options;
    options.database = databaseNamed(argv[1]);
    options.size = std::stoi(argv[2]);
    for (int i = 3; i < argc; ++i) {
        const std::string argument = argv[i];
        const std::size_t equals = std::min(argument.find('='), argument.size() - 1);
        const std::string name = argument.substr(0, equals);
        const std::string value = argument.substr(equals + 1);
        if (name == "--connections") {
            options.connections = std::stoi(value);
        } else if (name == "--jobs") {
            options.jobs = value;
        } else if (name == "--rounds") {
            options.rounds = std::stoi(value);
        } else if (name == "--milliseconds") {
            options.slot = std::chrono::milliseconds(std::stoi(value));
        } else {
            throw std::runtime_error("no such option: " + argument);
        }
    }
    return options;
}

/// Runs of one step: how many, and how long they took.
struct Measured {
    int runs = 0;
    std::chrono::duration<double, std::micro> time{0};

    double rate() const { return runs / time.count(); }
};

/// One connection of each contender, worked by a thread of its own.
class Worker {
public:
    Worker(const Options& options, int series) : m_options(options), m_series(series)
    {
        for (const Entrant& entrant : kEntrants) {
            m_contenders.push_back(entrant.make(options.database));
        }
    }

    Contender& contender(std::size_t index) { return *m_contenders.at(index); }

    /// Runs a step on one address after the other until the time is up, or so many are done.
    Measured forward(std::size_t contender, const Job::Step& step, int first, Clock::duration slot, int most)
    {
        m_inputs.clear();
        Measured measured;
        while (measured.runs < most && measured.time < slot) {
            m_inputs.emplace_back(address(first + measured.runs), m_options.size, m_series); // a server has it at hand
            const Clock::time_point begin = Clock::now();
            step.run(*m_contenders[contender], m_inputs.back());
            measured.time += Clock::now() - begin;
            ++measured.runs;
        }
        return measured;
    }

    /// Runs a step on the same addresses again.
    Measured again(std::size_t contender, const Job::Step& step)
    {
        Measured measured;
        const Clock::time_point begin = Clock::now();
        for (Input& input : m_inputs) {
            step.run(*m_contenders[contender], input);
            ++measured.runs;
        }
        measured.time = Clock::now() - begin;
        return measured;
    }

private:
    /// Some of all, from one end to the other: as many whatever the size, so that every connection has met all of them
    /// before it is measured, as one has that lives for days.
    int address(int i) const
    {
        constexpr long long kStride = 618033; // has no factor in common with a size, which is a power of ten
        return static_cast<int>(i % kAddresses * kStride % m_options.size) + 1;
    }

    const Options& m_options;
    int m_series;
    std::vector<std::unique_ptr<Contender>> m_contenders;
    std::vector<Input> m_inputs;
};

void print(const Options& options, std::size_t connections, const char* step, std::size_t contender, double rate)
{
    std::printf("%d\t%zu\t%s\t%s\t%.2f\n", options.size, connections, step, kEntrants.at(contender).name, 1 / rate);
}

/// All connections at once; the rates of what they did.
struct Turn {
    double step = 0;
    double undo = 0;
};
Turn takeTurn(std::vector<Worker>& workers, std::size_t contender, const Job& job, Clock::duration slot, int most)
{
    std::vector<Turn> turns(workers.size());
    std::barrier together(static_cast<std::ptrdiff_t>(workers.size()));
    const auto work = [&](std::size_t w) {
        const int first = static_cast<int>(w * kAddresses / workers.size());
        together.arrive_and_wait();
        turns[w].step = workers[w].forward(contender, job.step, first, slot, most).rate();
        together.arrive_and_wait();
        if (job.undo) {
            turns[w].undo = workers[w].again(contender, *job.undo).rate();
        }
    };
    {
        std::vector<std::jthread> threads;
        for (std::size_t w = 0; w < workers.size(); ++w) {
            threads.emplace_back(work, w);
        }
    }
    Turn all;
    for (const Turn& turn : turns) {
        all.step += turn.step;
        all.undo += turn.undo;
    }
    return all;
}

void measure(const Options& options, std::vector<Worker>& workers, const Job& job)
{
    for (std::size_t contender = 0; contender < kEntrants.size(); ++contender) {
        takeTurn(workers, contender, job, kWarmUp, kAddresses);
    }
    // What is taken back was not there twice.
    const int most = job.undo ? kAddresses : std::numeric_limits<int>::max();
    for (int round = 0; round < options.rounds; ++round) {
        for (std::size_t turn = 0; turn < kEntrants.size(); ++turn) {
            const std::size_t contender = (turn + static_cast<std::size_t>(round)) % kEntrants.size();
            const Turn took = takeTurn(workers, contender, job, options.slot, most);
            print(options, workers.size(), job.step.name, contender, took.step);
            if (job.undo) {
                print(options, workers.size(), job.undo->name, contender, took.undo);
            }
        }
    }
}

void requireSameAnswers(const Options& options, Worker& worker)
{
    const std::string expected = answers(worker.contender(0), options.size);
    for (std::size_t c = 1; c < kEntrants.size(); ++c) {
        const std::string given = answers(worker.contender(c), options.size);
        if (given != expected) {
            std::string message = kEntrants.at(c).name;
            message.append(" answers otherwise than ").append(kEntrants.front().name).append(":\n");
            throw std::runtime_error(message.append(given).append("instead of\n").append(expected));
        }
    }
}

void run(const Options& options)
{
    std::vector<Worker> workers;
    workers.reserve(static_cast<std::size_t>(options.connections));
    for (int series = 0; series < options.connections; ++series) {
        workers.emplace_back(options, series);
    }
    requireSameAnswers(options, workers.front());
    for (const Job& job : allJobs()) {
        if (std::regex_search(job.step.name, options.jobs)) {
            measure(options, workers, job);
        }
    }
}

} // namespace

int main(int argc, char** argv)
{
    zel::setTraceSink({});
    try {
        run(read(argc, argv));
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "peers: %s\n", failure.what());
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
