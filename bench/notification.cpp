// From NOTIFY on one connection to the callback on another: through the library's listener, through its wait loop, and
// through a loop of poll and PQnotifies written by hand; and what becomes of 100,000 of them.

#include <dal/ChangeListener.h>
#include <dal/DatabaseConnection.h>
#include <support/Server.h>

#include <benchmark/benchmark.h>

#include <libpq-fe.h>
#include <poll.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <semaphore>
#include <string>
#include <thread>
#include <vector>

namespace notification {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kNotifications = 1000;
constexpr int kBurstTransactions = 10; // of 10,000
constexpr std::chrono::seconds kBurstPatience(60);
constexpr const char* kChannel = "sip_event_aggregator";

// The callback carries no data of its caller's.
std::counting_semaphore<> heard(0);
std::atomic<Clock::time_point> heardAt;
std::atomic<bool> finished;

bool hear(bool changed, const std::string& table)
{
    if (changed && table == kChannel) {
        heardAt = Clock::now();
        heard.release();
    }
    return finished;
}

void listenByLibrary(const server::Database& database)
{
    oryx::DatabaseConnection connection;
    if (connection.connect(database.uri().c_str(), server::kUser, server::kPassword)) {
        connection.waitOnListen(hear);
    }
}

void listenByListener(const server::Database& database)
{
    oryx::ChangeListener listener(database.uri(), server::kUser, server::kPassword);
    listener.run([&](const oryx::ChangeSet& changes) {
        for (const oryx::ChangedTable& table : changes.tables) {
            if (!changes.everything) {
                hear(true, table.name);
            }
        }
        if (finished) {
            listener.stop();
        }
    });
}

void listenByHand(const server::Database& database)
{
    const std::unique_ptr<PGconn, void (*)(PGconn*)> connection(
        PQconnectdb(
            ("host=127.0.0.1 dbname=" + database.name() + " user=" + server::kUser + " password=" + server::kPassword)
                .c_str()),
        PQfinish);
    PQclear(PQexec(connection.get(), ("LISTEN " + std::string(kChannel)).c_str()));
    while (!finished) {
        pollfd socket{PQsocket(connection.get()), POLLIN, 0};
        poll(&socket, 1, 1000);
        PQconsumeInput(connection.get());
        while (PGnotify* const notification = PQnotifies(connection.get())) {
            hear(true, notification->relname);
            PQfreemem(notification);
        }
    }
}

/// Seconds from the sending of one notification to its arrival; negative when it does not arrive.
double oneLatency(server::Session& sender)
{
    const Clock::time_point sent = Clock::now();
    sender.run("NOTIFY " + std::string(kChannel));
    return heard.try_acquire_for(std::chrono::seconds(1)) ? std::chrono::duration<double>(heardAt.load() - sent).count()
                                                          : -1;
}

void latency(benchmark::State& state, void (*listen)(const server::Database&))
{
    const server::Database database;
    server::Session sender(database.name());
    finished = false;
    std::thread listener([&] { listen(database); });
    for (int attempt = 0; attempt < 10 && oneLatency(sender) < 0; ++attempt) { // until it listens
    }
    std::vector<double> seconds;
    for (auto _ : state) {
        seconds.push_back(oneLatency(sender));
        state.SetIterationTime(seconds.back());
    }
    finished = true;
    sender.run("NOTIFY " + std::string(kChannel)); // so that it is looked at
    listener.join();
    std::sort(seconds.begin(), seconds.end());
    if (seconds.front() < 0) {
        state.SkipWithError("a notification did not arrive within a second");
    }
    state.counters["median_us"] = seconds[seconds.size() / 2] * 1e6;
    state.counters["max_us"] = seconds.back() * 1e6;
}

/// 100,000 notifications of the other seven tables, each with its own payload so that the server folds none, and one
/// behind them: from its sending, when the others are committed, to its arrival.
void burst(benchmark::State& state, void (*listen)(const server::Database&))
{
    const server::Database database;
    server::Session sender(database.name());
    finished = false;
    std::thread listener([&] { listen(database); });
    for (int attempt = 0; attempt < 10 && oneLatency(sender) < 0; ++attempt) { // until it listens
    }
    bool arrived = true;
    for (auto _ : state) {
        for (int transaction = 0; transaction < kBurstTransactions; ++transaction) {
            sender.run("SELECT pg_notify((ARRAY['acp', 'extension', 'conf_state', 'conf_state_reset', 'public_address',"
                       " 'subscriber', 'contact_set'])[1 + n % 7], '" +
                       std::to_string(transaction) + " ' || n) FROM generate_series(1, 10000) AS n");
        }
        const Clock::time_point sent = Clock::now();
        sender.run("NOTIFY " + std::string(kChannel));
        arrived = heard.try_acquire_for(kBurstPatience) && arrived;
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - sent).count());
    }
    finished = true;
    sender.run("NOTIFY " + std::string(kChannel)); // so that it is looked at
    listener.join();
    if (!arrived) {
        state.SkipWithError("the last notification did not arrive in time");
    }
}

BENCHMARK_CAPTURE(latency, listener, listenByListener)
    ->Name("notification_latency_by_listener")
    ->Iterations(kNotifications)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(burst, listener, listenByListener)
    ->Name("notification_burst_by_listener")
    ->Iterations(5)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(latency, library, listenByLibrary)
    ->Name("notification_latency")
    ->Iterations(kNotifications)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(latency, libpq, listenByHand)
    ->Name("notification_latency_by_libpq")
    ->Iterations(kNotifications)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

} // namespace

} // namespace notification
