// A listing of a hundred thousand rows, beside a loop over libpq that fills the same records by hand. What counts is
// the client's own time (CPU): the server's work is the same for both.

#include <dal/PresenceDatabaseCommandExecutor.h>
#include <support/Server.h>
#include <zel/Trace.h>

#include <benchmark/benchmark.h>

#include <libpq-fe.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

namespace listings {

namespace {

constexpr int kRows = 100000;

void makeRows(const server::Database& database)
{
    const std::string rows = std::to_string(kRows);
    server::Session(database.name())
        .run(
            "INSERT INTO subscription_states SELECT 'incoming#' || n, '<sip:watcher' || n || '@oryx.example>;tag=' || n,"
            "    '<sip:alice@oryx.example>', 'call-' || n || '@192.0.2.1', n, 'presence', '<sip:watcher' || n || '@192.0.2.1:5060>', NULL, n,"
            "    'sip:alice@oryx.example', 'presence#' FROM generate_series(1, " +
            rows +
            ") n;"
            "INSERT INTO event_watchers SELECT 'sip:alice@oryx.example#presence', 'incoming#' || n, 1, n, 1, 2, 2000000000,"
            "    'sip:watcher' || n || '@oryx.example', 'presence', 'sip:alice@oryx.example' FROM generate_series(1, " +
            rows +
            ") n;"
            "ANALYZE;");
}

/// Made by the first benchmark that asks, for all of them.
const server::Database& database()
{
    static const std::unique_ptr<server::Database> filled = [] {
        auto made = std::make_unique<server::Database>();
        makeRows(*made);
        return made;
    }();
    return *filled;
}

void dialogs(benchmark::State& state)
{
    zel::setTraceSink({});
    oryx::PresenceDatabaseCommandExecutor executor;
    executor.connect(database().uri().c_str(), server::kUser, server::kPassword);
    for (auto _ : state) {
        std::vector<oryx::PresenceRecord> records;
        executor.getIncomingSubscriptions(records, "presence");
        if (records.size() != kRows) {
            state.SkipWithError("not every dialog was listed");
        }
    }
}

void watchers(benchmark::State& state)
{
    zel::setTraceSink({});
    oryx::PresenceDatabaseCommandExecutor executor;
    executor.connect(database().uri().c_str(), server::kUser, server::kPassword);
    for (auto _ : state) {
        std::vector<oryx::WatchersRecord> records;
        executor.getWatcherState("sip:alice@oryx.example#presence", records);
        if (records.size() != kRows) {
            state.SkipWithError("not every watcher was listed");
        }
    }
}

using Connection = std::unique_ptr<PGconn, void (*)(PGconn*)>;
using Result = std::unique_ptr<PGresult, void (*)(PGresult*)>;

Connection connectByHand()
{
    const std::string text =
        "host=127.0.0.1 dbname=" + database().name() + " user=" + server::kUser + " password=" + server::kPassword;
    return {PQconnectdb(text.c_str()), PQfinish};
}

void dialogsByLibpq(benchmark::State& state)
{
    const Connection connection = connectByHand();
    for (auto _ : state) {
        std::vector<oryx::PresenceRecord> records;
        const Result result(
            PQexec(
                connection.get(),
                "SELECT subscriptionid, fromhdr, tohdr, callid, subcseq, eventhdr, remotecontacthdr, routeset, notcseq, requesturi,packageid  FROM subscription_states  WHERE subscriptionid like '%%incoming#%%' AND packageid like '%%presence%%';"),
            PQclear);
        const int rows = PQntuples(result.get());
        records.reserve(static_cast<std::size_t>(rows));
        for (int i = 0; i < rows; ++i) {
            oryx::PresenceRecord& record = records.emplace_back();
            record.SetSubscriptionid(PQgetvalue(result.get(), i, 0));
            record.SetFromhdr(PQgetvalue(result.get(), i, 1));
            record.SetTohdr(PQgetvalue(result.get(), i, 2));
            record.SetCallId(PQgetvalue(result.get(), i, 3));
            record.SetSubcseq(std::atoi(PQgetvalue(result.get(), i, 4)));
            record.SetEventhdr(PQgetvalue(result.get(), i, 5));
            record.SetRemotecontacthdr(PQgetvalue(result.get(), i, 6));
            if (PQgetisnull(result.get(), i, 7) == 0) {
                record.SetRouteset(PQgetvalue(result.get(), i, 7));
            }
            record.SetNotcseq(std::atoi(PQgetvalue(result.get(), i, 8)));
            record.SetRequestUri(PQgetvalue(result.get(), i, 9));
            record.SetPackageid(PQgetvalue(result.get(), i, 10));
        }
        benchmark::DoNotOptimize(records.data());
    }
}

void watchersByLibpq(benchmark::State& state)
{
    const Connection connection = connectByHand();
    for (auto _ : state) {
        std::vector<oryx::WatchersRecord> records;
        const Result result(
            PQexec(
                connection.get(),
                "SELECT watcheropaque,doctype,watchertype,watcherstate,expirytime,watcheridentity,presentity,docversion,remotecontacthdr FROM event_watchers,subscription_states WHERE presentitykey ='sip:alice@oryx.example#presence' and watcheropaque=subscriptionid;"),
            PQclear);
        const int rows = PQntuples(result.get());
        records.reserve(static_cast<std::size_t>(rows));
        for (int i = 0; i < rows; ++i) {
            const auto value = [&](int column) { return PQgetvalue(result.get(), i, column); };
            records.emplace_back("sip:alice@oryx.example#presence", value(0), std::atoi(value(1)), std::atoi(value(2)),
                                 std::atoi(value(3)), std::atol(value(4)), value(5), value(6),
                                 std::strtoul(value(7), nullptr, 10), "", value(8));
        }
        benchmark::DoNotOptimize(records.data());
    }
}

BENCHMARK(dialogs)->Name("dialog_listing")->Unit(benchmark::kMillisecond);
BENCHMARK(dialogsByLibpq)->Name("dialog_listing_by_libpq")->Unit(benchmark::kMillisecond);
BENCHMARK(watchers)->Name("watcher_listing")->Unit(benchmark::kMillisecond);
BENCHMARK(watchersByLibpq)->Name("watcher_listing_by_libpq")->Unit(benchmark::kMillisecond);

} // namespace

} // namespace listings
