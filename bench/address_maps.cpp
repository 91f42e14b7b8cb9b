// A request URI looked up among the address maps: the time per map must not grow with their number, or a deployment
// that maps ten thousand numbers would wait for each call. The rows fetched by libpq alone show how much of it is the
// database's.

#include <dal/LocationService.h>
#include <support/Server.h>
#include <zel/Trace.h>

#include <benchmark/benchmark.h>

#include <libpq-fe.h>

#include <memory>
#include <string>
#include <vector>

namespace {

// A dial plan's usual pattern, and one whose beginning tells nothing.
constexpr const char* kNumber = "'^sip:' || 1000000 + n || '@oryx\\.example'";
constexpr const char* kNumberInGroup = "'^sips?:(' || 1000000 + n || ')@oryx\\.example'";

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

void lookup(benchmark::State& state, const char* pattern)
{
    const int maps = static_cast<int>(state.range(0));
    zel::setTraceSink({});
    const server::Database database;
    makeMaps(database, maps, pattern);
    oryx::LocationService service;
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

void rowsByLibpq(benchmark::State& state)
{
    const server::Database database;
    makeMaps(database, static_cast<int>(state.range(0)), kNumber);
    const std::unique_ptr<PGconn, void (*)(PGconn*)> connection(
        PQconnectdb(
            ("host=127.0.0.1 dbname=" + database.name() + " user=" + server::kUser + " password=" + server::kPassword)
                .c_str()),
        PQfinish);
    for (auto _ : state) {
        PGresult* const result = PQexec(
            connection.get(),
            "SELECT contact_set.ordering,  contact_set.replace_uri, address_map.handle, address_map.csid,  address_map.pattern, address_map.modification_time, address_map.priority  FROM contact_set, address_map  WHERE address_map.csid = contact_set.csid  ORDER BY address_map.priority ASC; ");
        if (PQntuples(result) != state.range(0)) {
            state.SkipWithError(PQresultErrorMessage(result));
        }
        PQclear(result);
    }
    countPerMap(state);
}

void sizes(benchmark::internal::Benchmark* benchmark)
{
    benchmark->RangeMultiplier(10)->Range(10, 10000)->Unit(benchmark::kMicrosecond)->UseRealTime();
}

BENCHMARK_CAPTURE(lookup, number, kNumber)->Name("address_map_lookup")->Apply(sizes);
BENCHMARK_CAPTURE(lookup, number_in_group, kNumberInGroup)->Name("address_map_lookup_in_groups")->Apply(sizes);
BENCHMARK(rowsByLibpq)->Name("address_map_rows_by_libpq")->Apply(sizes);

} // namespace
