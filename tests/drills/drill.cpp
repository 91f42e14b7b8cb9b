// The programs of the drills, in one: what tests/drills/run calls against the servers that it runs and breaks.
//
//     drill load FOLDER [answers|hang-ups|silence|fork]   workers, over a network with that trouble or as processes
//     drill late FOLDER registration|refresh|removal|release   late repetitions of that change
//     drill check FOLDER NAME [LIMIT COLUMN...]           judges what they did, and prints a line of the table; the
//                                                         limit explains "lost", "doubled" or "overtaken" ones
//     drill burst NAME                                    100,000 notifications, and a line
//     drill memory NAME                                   a listing that does not fit into memory, and a line
//     drill pace refresh|lookup SERVICES SECONDS          how many a second
//     drill stale SECONDS                                 what standbys show, at the hosts of ORYX_DRILL_STANDBYS
//     drill heading                                       the table's first line
//
// A folder holds a drill's journals ("journal/"), the moments of its faults ("marks"), and what the database held in
// the end ("stored"); `check` adds what was wrong ("findings"). Workers work until it holds "stop". ORYX_DRILL_HOSTS
// and ORYX_DRILL_PASSWORD name the server and the services' password, PGPORT its port. Exit status: 1 where something
// is wrong that no limit explains, where no fault has befallen anything, or where a worker never got over one.

#include "drills/Burst.h"
#include "drills/Checker.h"
#include "drills/Late.h"
#include "drills/Load.h"
#include "drills/Memory.h"
#include "drills/Network.h"
#include "drills/Pace.h"
#include "drills/Stale.h"
#include "drills/Table.h"
#include "support/Server.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

namespace {

using namespace drill;

void load(const std::string& folder, const std::string& how)
{
    std::optional<Network> network;
    if (!how.empty() && how != "fork") {
        server::port(); // the relay's way to the server, before the services get another one
        network.emplace(how, Marks(folder + "/marks"));
        setenv("PGPORT", network->port().c_str(), 1);
    }
    runLoad(Account(), folder, how == "fork");
}

std::vector<std::vector<Entry>> journalsOf(const std::string& folder)
{
    std::vector<std::vector<Entry>> journals;
    for (const auto& file : std::filesystem::directory_iterator(folder + "/journal")) {
        journals.push_back(Journal::read(file.path()));
    }
    return journals;
}

bool check(const std::string& folder, const std::string& name, const std::string& limit,
           const std::set<std::string>& excused)
{
    const std::vector<std::vector<Entry>> journals = journalsOf(folder);
    Line line{name, 0, judge(journals, Snapshot::read(folder + "/stored")), std::nullopt, ""};
    std::vector<Time> returns;
    std::ifstream marks(folder + "/marks");
    std::string what;
    Time::rep at = 0;
    for (std::size_t count = 0; marks >> what >> at >> count;) {
        line.faults += what == "fault" ? count : 0;
        if (what == "back") {
            returns.emplace_back(at);
        }
    }
    line.recovery = recovery(journals, returns);
    // A repeated reservation must give the same extension again, and a repeated release be told that it was one, where
    // the schema can know them by their tokens.
    if (Account::variable("ORYX_STATEMENTS") == "bound") {
        line.verdict.doubled += line.verdict.orphaned;
        line.verdict.lost += line.verdict.vain + line.verdict.taken;
    }
    const bool wrong = line.verdict.wrongBeside(excused) > 0;
    const auto remark = [&](const std::string& text) { line.remark += (line.remark.empty() ? "" : "; ") + text; };
    if (line.verdict.orphaned > 0) {
        remark(std::to_string(line.verdict.orphaned) + " extensions reserved for nobody");
    }
    if (line.verdict.vain > 0) {
        remark(std::to_string(line.verdict.vain) + " releases were sent again and found nothing");
    }
    if (line.verdict.taken > 0) {
        remark(std::to_string(line.verdict.taken) + " extensions taken from the next by releases sent again");
    }
    if (!wrong && line.verdict.wrong() > 0) {
        remark(limit);
    }
    if (line.faults == 0) {
        remark("no fault has befallen anything");
    }
    std::ofstream findings(folder + "/findings");
    for (const std::string& finding : line.verdict.findings) {
        findings << finding << '\n';
    }
    std::fputs(show(line).c_str(), stdout);
    return !wrong && line.faults > 0 && line.recovery.value_or(Time(0)) >= Time(0) && line.verdict.acknowledged > 0;
}

bool run(const std::vector<std::string>& arguments)
{
    const auto argument = [&](std::size_t index) { return index < arguments.size() ? arguments[index] : ""; };
    const std::string what = argument(0);
    if (what == "load") {
        load(argument(1), argument(2));
    } else if (what == "late") {
        runLate(Account(), argument(1), argument(2));
    } else if (what == "check") {
        const auto columns = std::span(arguments).subspan(std::min<std::size_t>(arguments.size(), 4));
        return check(argument(1), argument(2), argument(3), {columns.begin(), columns.end()});
    } else if (what == "burst" || what == "memory") {
        Line line = (what == "burst" ? runBurst : runMemory)(Account());
        line.name = argument(1);
        std::fputs(show(line).c_str(), stdout);
        return line.verdict.wrong() == 0;
    } else if (what == "pace") {
        const std::chrono::seconds time(std::stoi(argument(3)));
        std::puts(measurePace(Account(), argument(1), std::stoi(argument(2)), time).c_str());
    } else if (what == "stale") {
        Account standbys;
        standbys.uri = "postgresql://" + Account::variable("ORYX_DRILL_STANDBYS") + "/oryx";
        std::puts(measureStaleReads(Account(), standbys, std::chrono::seconds(std::stoi(argument(1)))).c_str());
    } else if (what == "heading") {
        std::fputs(heading().c_str(), stdout);
    } else {
        throw std::runtime_error("no such drill program: " + what);
    }
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    try {
        return run(std::vector<std::string>(argv + 1, argv + argc)) ? EXIT_SUCCESS : EXIT_FAILURE;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "drill: %s\n", failure.what());
        return EXIT_FAILURE;
    }
}
