// A request URI looked up among the address maps: the time per map must not grow with their number, or a deployment
// that maps ten thousand numbers would wait for each call. The rows fetched by libpq alone show how much of it is the
// database's.

#include <dal/LocationService.h>
#include <support/Server.h>
#include <util/RegExp.h>
#include <zel/Trace.h>

#include <benchmark/benchmark.h>

#include <libpq-fe.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <ctime>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace addressMaps {

namespace {

// A dial plan's usual pattern, and one whose beginning tells nothing.
constexpr const char* kNumber = "'^sip:' || 1000000 + n || '@oryx\\.example'";
constexpr const char* kNumberInGroup = "'^sips?:(' || 1000000 + n || ')@oryx\\.example'";

constexpr auto kPlain = oryx::SessionOptions::Statements::plain;
constexpr auto kBound = oryx::SessionOptions::Statements::bound;

/// Maps of seven-digit numbers, each with its own contact set.
void makeMaps(const server::Database& database, int maps, const char* pattern)
{
    server::Session session(database.name());
    const std::string count = std::to_string(maps);
    session.run("INSERT INTO contact_set (csid) SELECT generate_series(1, " + count +
                ");"
                "INSERT INTO contact (csid, address) SELECT csid, 'sip:$user@gateway.oryx.example' FROM contact_set;"
                "INSERT INTO address_map (handle, csid, pattern, priority)"
                "    SELECT 'map' || n, n, " +
                pattern + ", n FROM generate_series(1, " + count +
                ") n;"
                "ANALYZE;");
}

std::string lastUri(int maps)
{
    return "sip:" + std::to_string(1000000 + maps) + "@oryx.example";
}

void countPerMap(benchmark::State& state)
{
    state.counters["per_map"] =
        benchmark::Counter(static_cast<double>(state.range(0)),
                           benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

bool servesItsNumber(oryx::LocationService& service, const std::string& uri)
{
    std::string ordering;
    bool replaceUri = false;
    std::vector<oryx::ContactRecord> contacts;
    return service.lookupAddressMap(uri.c_str(), ordering, replaceUri, contacts).okay() &&
           contacts.front().address() == "sip:" + uri.substr(4, 7) + "@gateway.oryx.example";
}

void lookup(benchmark::State& state, const char* pattern, oryx::SessionOptions::Statements statements)
{
    const int maps = static_cast<int>(state.range(0));
    zel::setTraceSink({});
    const server::Database database;
    makeMaps(database, maps, pattern);
    oryx::LocationService service;
    service.setSessionOptions({.statements = statements});
    service.connect(database.uri().c_str(), server::kUser, server::kPassword);
    const std::string uri = lastUri(maps);
    bool served = servesItsNumber(service, uri); // the first lookup compiles the maps
    for (auto _ : state) {
        served = servesItsNumber(service, uri) && served;
    }
    if (!served) {
        state.SkipWithError("the last map does not serve its number");
    }
    countPerMap(state);
}

constexpr const char* kRows =
    "SELECT contact_set.ordering,  contact_set.replace_uri, address_map.handle, address_map.csid,  address_map.pattern, address_map.modification_time, address_map.priority  FROM contact_set, address_map  WHERE address_map.csid = contact_set.csid  ORDER BY address_map.priority ASC; ";

/// The rows by hand.
class Rows {
public:
    Rows(const server::Database& database, bool prepared)
        : m_connection(PQconnectdb(("host=127.0.0.1 dbname=" + database.name() + " user=" + server::kUser +
                                    " password=" + server::kPassword)
                                       .c_str()),
                       PQfinish),
          m_prepared(prepared)
    {
        PQclear(PQprepare(m_connection.get(), "maps", kRows, 0, nullptr));
    }

    int fetch()
    {
        PGresult* const result = m_prepared
                                     ? PQexecPrepared(m_connection.get(), "maps", 0, nullptr, nullptr, nullptr, 0)
                                     : PQexec(m_connection.get(), kRows);
        const int rows = PQntuples(result);
        PQclear(result);
        return rows;
    }

private:
    std::unique_ptr<PGconn, void (*)(PGconn*)> m_connection;
    bool m_prepared;
};

void rowsByLibpq(benchmark::State& state, bool prepared)
{
    const server::Database database;
    makeMaps(database, static_cast<int>(state.range(0)), kNumber);
    Rows rows(database, prepared);
    for (auto _ : state) {
        if (rows.fetch() != state.range(0)) {
            state.SkipWithError("not every map has a row");
        }
    }
    countPerMap(state);
}

double seconds(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

/// What work took each time, by two clocks.
class Durations {
public:
    template <typename Work>
    void time(Work work)
    {
        const double cpu = seconds(CLOCK_THREAD_CPUTIME_ID);
        const double real = seconds(CLOCK_MONOTONIC);
        work();
        m_real.push_back(seconds(CLOCK_MONOTONIC) - real);
        m_cpu.push_back(seconds(CLOCK_THREAD_CPUTIME_ID) - cpu);
    }
    double real() { return median(m_real); }
    double cpu() { return median(m_cpu); }

private:
    static double median(std::vector<double>& values)
    {
        const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
        std::nth_element(values.begin(), middle, values.end());
        return *middle;
    }

    std::vector<double> m_real;
    std::vector<double> m_cpu;
};

/// What the library adds to fetching the rows: lookups and fetches take turns, so that other work on the machine meets
/// both alike, and the difference of their medians counts.
void clientShare(benchmark::State& state, oryx::SessionOptions::Statements statements)
{
    const int maps = static_cast<int>(state.range(0));
    zel::setTraceSink({});
    const server::Database database;
    makeMaps(database, maps, kNumber);
    oryx::LocationService service;
    service.setSessionOptions({.statements = statements});
    service.connect(database.uri().c_str(), server::kUser, server::kPassword);
    Rows rows(database, statements == kBound);
    const std::string uri = lastUri(maps);
    bool served = servesItsNumber(service, uri) && rows.fetch() == maps;
    Durations lookups;
    Durations fetches;
    for (auto _ : state) {
        lookups.time([&] { served = servesItsNumber(service, uri) && served; });
        fetches.time([&] { served = rows.fetch() == maps && served; });
    }
    if (!served) {
        state.SkipWithError("the last map does not serve its number, or a row is missing");
    }
    const auto perMap = [&](double of) { return benchmark::Counter(of / maps); };
    state.counters["real_per_map"] = perMap(lookups.real() - fetches.real());
    state.counters["cpu_per_map"] = perMap(lookups.cpu() - fetches.cpu());
}

void sizes(benchmark::internal::Benchmark* benchmark)
{
    benchmark->RangeMultiplier(10)->Range(10, 10000)->Unit(benchmark::kMicrosecond)->UseRealTime();
}

// The longest request URI that a server should hand over, and patterns that take long with it, among all that the
// schema accepts. The plain text that each needs is in the URI, so that the expression is run.
constexpr std::size_t kUriBytes = 512;

struct Worst {
    const char* pattern;
    std::string_view letters;
};
constexpr std::array kWorst{
    Worst{"a.*b@", "a"},                               // looks on to the end from each place
    Worst{"[ac]*[ac]{1,15}$", "ac"},                   // ... and in each for what might end there
    Worst{"()a+^\\b", "a"},                            // ... and at what stands before and behind
    Worst{"(.{2})*y|(.{3})*y|(.{5})*y|(.{7})*y", "a"}, // ... and is hardly ever in the same state
    Worst{"[ac]*a[ac]{7}b@", "ac"},                    // the states of a mixture
    Worst{"[ac]{3,90}bb", "ac"},                       // states that hold much
};

std::string worstUri(const Worst& worst)
{
    std::minstd_rand random(1);
    std::string uri = "b@bb";
    std::generate_n(std::back_inserter(uri), kUriBytes - uri.size() - 1,
                    [&] { return worst.letters[random() % worst.letters.size()]; });
    return uri + "@";
}

/// The expression by itself: as the first request finds it (`first`), or as all later ones do.
void worstPattern(benchmark::State& state, bool first)
{
    const Worst& worst = kWorst[static_cast<std::size_t>(state.range(0))];
    zel::setTraceSink({});
    const server::Database database;
    server::Session(database.name())
        .run("INSERT INTO address_map (pattern) VALUES ('" + std::string(worst.pattern) + "')"); // refuses it, or not
    const std::string uri = worstUri(worst);
    oryx::RegExp kept;
    kept.compile(worst.pattern, false);
    bool matched = kept.match(uri.c_str());
    for (auto _ : state) {
        oryx::RegExp fresh;
        if (first) {
            fresh.compile(worst.pattern, false);
        }
        matched = (first ? fresh : kept).match(uri.c_str()) || matched;
    }
    if (matched) {
        state.SkipWithError("a pattern that matches has not looked everywhere");
    }
    state.SetLabel(worst.pattern);
}

BENCHMARK_CAPTURE(lookup, number, kNumber, kPlain)->Name("address_map_lookup")->Apply(sizes);
BENCHMARK_CAPTURE(lookup, number_in_group, kNumberInGroup, kPlain)->Name("address_map_lookup_in_groups")->Apply(sizes);
BENCHMARK_CAPTURE(lookup, number_bound, kNumber, kBound)->Name("address_map_lookup_bound")->Apply(sizes);
BENCHMARK_CAPTURE(rowsByLibpq, text, false)->Name("address_map_rows_by_libpq")->Apply(sizes);
BENCHMARK_CAPTURE(rowsByLibpq, prepared, true)->Name("address_map_rows_by_libpq_prepared")->Apply(sizes);
BENCHMARK_CAPTURE(clientShare, plain, kPlain)->Name("address_map_client_share")->Apply(sizes)->Iterations(100);
BENCHMARK_CAPTURE(clientShare, bound, kBound)->Name("address_map_client_share_bound")->Apply(sizes)->Iterations(100);
BENCHMARK_CAPTURE(worstPattern, first, true)
    ->Name("address_map_worst_first")
    ->DenseRange(0, kWorst.size() - 1)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(worstPattern, again, false)
    ->Name("address_map_worst_again")
    ->DenseRange(0, kWorst.size() - 1)
    ->Unit(benchmark::kMicrosecond);

} // namespace

} // namespace addressMaps
