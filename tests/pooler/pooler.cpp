// What works through a pooler: every group of operations, by services that are more than the pooler has sessions of the
// server, with both ways of sending. Prints the table that docs/scale.md has.
//
//     pooler DATABASE USER PASSWORD PORT
//
// Through the pooler at PORT the database is to be had as "session" and as "transaction", after how sessions are lent.

#include "support/Server.h"

#include <dal/ChangeListener.h>
#include <dal/DatabaseCommandExecutor.h>
#include <dal/LocationService.h>
#include <dal/PresenceDatabaseCommandExecutor.h>
#include <dal/PresenceService.h>
#include <dal/QueryResult.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <vector>

namespace {

using oryx::SessionOptions;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr int kWorkers = 6; // tests/pooler/run has fewer sessions to lend by the transaction
constexpr int kRounds = 40;
constexpr std::chrono::seconds kPatience(30);

/// How the library reaches the database: a column of the table.
struct Way {
    std::string lent;
    SessionOptions::Statements statements;
};

const std::array<Way, 4> kWays{{{"session", SessionOptions::Statements::plain},
                                {"session", SessionOptions::Statements::bound},
                                {"transaction", SessionOptions::Statements::plain},
                                {"transaction", SessionOptions::Statements::bound}}};

struct Account {
    std::string database;
    std::string user;
    std::string password;
};

/// What a server's thread holds.
struct Library {
    Library(const Account& account, const Way& way, milliseconds deadline = milliseconds(0))
    {
        const std::string uri = "postgresql://127.0.0.1/" + way.lent;
        const SessionOptions options{way.statements, deadline};
        const auto connect = [&](auto& target) {
            target.setSessionOptions(options);
            target.connect(uri.c_str(), account.user.c_str(), account.password.c_str());
        };
        connect(registrar);
        connect(events);
        connect(own);
    }

    oryx::LocationService registrar;
    oryx::PresenceService events;
    oryx::PresenceDatabaseCommandExecutor own;
};

/// A worker's round of a group of operations: whether all of it was answered as it should be.
using Round = std::function<bool(Library& library, int worker, int round)>;

int keyOf(int worker)
{
    return worker + 101;
}

std::string handleOf(int worker)
{
    return "w" + std::to_string(worker);
}

bool lookUp(Library& library, int worker, int /*round*/)
{
    std::string text;
    bool flag = false;
    int key = 0;
    std::vector<oryx::ContactRecord> contacts;
    oryx::LocationService& registrar = library.registrar;
    return registrar.getPublicAddressKey(handleOf(worker).c_str(), "oryx.example", key).okay() &&
           key == keyOf(worker) && registrar.lookupContacts(key, text, flag, contacts).okay() &&
           registrar.lookupAddressMap("sip:5551234@oryx.example", text, flag, contacts).okay() &&
           registrar.getOutboundRoute("sip:bob@oryx.example", true, text, flag).okay() &&
           registrar.checkInboundDomainAccess("oryx.example", flag).okay();
}

bool registerAndRemove(Library& library, int worker, int round)
{
    std::vector<oryx::ContactRecord> contacts(2);
    for (std::size_t i = 0; i < contacts.size(); ++i) {
        contacts[i].setAddress(("sip:" + handleOf(worker) + "@192.0.2." + std::to_string(i)).c_str());
        contacts[i].setCallId("call");
        contacts[i].setCseq(round);
    }
    oryx::LocationService& registrar = library.registrar;
    return registrar.registerContacts(keyOf(worker), contacts).okay() &&
           registrar.updateContacts(keyOf(worker), contacts).okay() &&
           registrar.unregisterContacts(keyOf(worker), contacts).okay();
}

bool subscribe(Library& library, int worker, int round)
{
    const std::string id = "incoming#" + handleOf(worker) + "." + std::to_string(round);
    const std::string key = handleOf(worker) + "#presence";
    oryx::PresenceService& events = library.events;
    oryx::PresenceRecord found;
    std::vector<oryx::SourcesRecord> sources;
    const oryx::PresenceRecord dialog(id.c_str(), "", "from", "to", id.c_str(), round, "presence", "contact", "", 0,
                                      "sip:alice@oryx.example", "presence#1");
    const oryx::WatchersRecord watcher(key, id, 0, 0, 1, 5, "identity", "presentity", 1, "presence", "contact");
    const oryx::SourcesRecord source(key.c_str(), id.c_str(), "contact", 5, "presence", "presentity");
    return events.addWatcher(dialog).okay() && events.addWatcherState(watcher).okay() &&
           events.addSourceOpaque(source).okay() && events.getWatcher(id.c_str(), found).okay() &&
           events.getSourceOpaque(key.c_str(), sources).okay() &&
           events.updateWatcherExpiry(key.c_str(), id.c_str(), 7).okay() &&
           events.deleteSourceOpaque(key.c_str(), id.c_str()).okay() &&
           events.deleteWatcherState(key.c_str(), id.c_str()).okay() && events.deleteWatcher(id.c_str()).okay();
}

bool judgeAccess(Library& library, int worker, int round)
{
    const std::string list = handleOf(worker) + "." + std::to_string(round);
    oryx::PresenceService& events = library.events;
    std::vector<oryx::AccessControlEntry> rules;
    std::vector<oryx::ListSubscriptionRecord> mappings;
    return events.getAccessControlList("alice", "oryx.example", "presence", rules).okay() &&
           events.createListMapping(list.c_str(), "subscription", 5).okay() &&
           events.getAllMappingsForList(list.c_str(), mappings).okay() && mappings.size() == 1 &&
           events.removeListMapping(list.c_str(), "subscription").okay();
}

bool reserveAndRelease(Library& library, int /*worker*/, int /*round*/)
{
    std::string extension;
    oryx::PresenceService& events = library.events;
    return events.reserveRandomlyIdleConfExtAsInUse(extension).okay() &&
           events.setConfExtState(extension, "IDLE", 0).okay();
}

bool readChangeLog(Library& library, int /*worker*/, int /*round*/)
{
    std::vector<oryx::DatabaseUpdate> updates;
    return library.events.getUpdatedPrimaryKeys("subscriber", "0", updates).okay() && !updates.empty();
}

bool ownTransaction(Library& library, int worker, int /*round*/)
{
    const std::string change =
        "UPDATE contact_set SET ordering = 'parallel' WHERE csid = " + std::to_string(keyOf(worker));
    return library.own.execute("BEGIN").okay() && library.own.execute(change).okay() &&
           library.own.execute("COMMIT").okay();
}

bool ownSetting(Library& library, int worker, int /*round*/)
{
    const std::string time = std::to_string(100 + worker) + "ms";
    oryx::QueryResult shown;
    return library.own.execute("SET lock_timeout = '" + time + "'").okay() &&
           library.own.executeSqlCmd("SHOW lock_timeout", shown).okay() && shown.getValue(0, 0) == time;
}

/// All workers at once, for some rounds each.
std::string together(const Account& account, const Way& way, const Round& round)
{
    std::atomic<int> wrong = 0;
    std::vector<std::thread> workers;
    for (int worker = 0; worker < kWorkers; ++worker) {
        workers.emplace_back([&, worker] {
            Library library(account, way);
            for (int i = 0; i < kRounds; ++i) {
                wrong += round(library, worker, i) ? 0 : 1;
            }
        });
    }
    for (std::thread& worker : workers) {
        worker.join();
    }
    return wrong == 0 ? "works" : "fails at times";
}

/// Waits for what comes to be within moments, and within this time on the busiest machine.
bool soon(const std::function<bool()>& condition)
{
    const auto end = steady_clock::now() + kPatience;
    while (!condition() && steady_clock::now() < end) {
        std::this_thread::sleep_for(milliseconds(10));
    }
    return condition();
}

/// A statement that its deadline ends, which the server must not go on with.
std::string deadline(const Account& account, const Way& way)
{
    if (way.statements == SessionOptions::Statements::plain) {
        return "none";
    }
    Library library(account, way, milliseconds(300));
    const auto begin = steady_clock::now();
    const bool refused = library.own.execute("SELECT pg_sleep(100)").connectionError();
    if (!refused || steady_clock::now() - begin > kPatience) {
        return "late";
    }
    server::Session session(account.database);
    const bool ended = soon([&] { // the request to cancel takes its own way
        return session.value("SELECT count(*) FROM pg_stat_activity WHERE query LIKE '%pg_sleep(100)%' AND "
                             "state = 'active' AND pid <> pg_backend_pid()") == "0";
    });
    // Connecting again may take longer than the deadline.
    return ended && soon([&] { return library.own.execute("SELECT 1").okay(); }) ? "works" : "not cancelled";
}

/// The next request after all sessions of the services were ended.
std::string lostSessions(const Account& account, const Way& way)
{
    Library library(account, way);
    const auto works = [&] { return lookUp(library, 0, 0) && readChangeLog(library, 0, 0); };
    const bool before = works();
    server::Session session(account.database);
    session.run("SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE usename = '" + account.user + "'");
    return before && works() ? "works" : "fails";
}

void changeAManager(const Account& account)
{
    server::Session(account.database).run("UPDATE acp SET handle = handle");
}

/// A listener at work, which counts its calls.
class Listening {
public:
    Listening(const Account& account, const Way& way)
        : m_listener("postgresql://127.0.0.1/" + way.lent, account.user, account.password, options(way)),
          m_run(std::async(std::launch::async,
                           [this] { m_listener.run([this](const oryx::ChangeSet& /*changes*/) { ++m_calls; }); }))
    {
    }
    ~Listening() { m_listener.stop(); }
    Listening(const Listening&) = delete;
    Listening& operator=(const Listening&) = delete;

    int calls() const { return m_calls; }

private:
    static oryx::ChangeListenerOptions options(const Way& way)
    {
        oryx::ChangeListenerOptions options;
        options.session.statements = way.statements;
        options.answerTime = milliseconds(3000); // where nothing is heard, the listener says so after this time
        return options;
    }

    std::atomic<int> m_calls = 0;
    oryx::ChangeListener m_listener;
    std::future<void> m_run;
};

/// Whether the listener has said so.
std::atomic<bool> saidThatNothingIsHeard = false;

void watchTheListenersWords()
{
    zel::setTraceSink([](std::string_view /*channel*/, zel::TraceKind /*kind*/, std::string_view text) {
        if (text.find("notifications are not heard") != std::string_view::npos) {
            saidThatNothingIsHeard = true;
        }
    });
}

std::string listener(const Account& account, const Way& way)
{
    saidThatNothingIsHeard = false;
    const Listening listening(account, way);
    if (!soon([&] { return listening.calls() > 0 || saidThatNothingIsHeard; })) {
        return "does not listen";
    }
    if (listening.calls() == 0) {
        return "hears nothing, and says so";
    }
    changeAManager(account);
    return soon([&] { return listening.calls() > 1; }) ? "works" : "hears nothing, and does not say so";
}

std::atomic<bool> waitHeard = false;

/// Ends with the first idle call, after five seconds.
bool onChange(bool changed, const std::string& table)
{
    waitHeard = waitHeard || (changed && table == "acp");
    return !changed;
}

std::string waitLoop(const Account& account, const Way& way)
{
    Library library(account, way);
    waitHeard = false;
    auto waiting = std::async(std::launch::async, [&] { library.events.waitForNotify(onChange); });
    // Nothing tells that it has begun.
    while (!waitHeard && waiting.wait_for(milliseconds(100)) != std::future_status::ready) {
        changeAManager(account);
    }
    waiting.wait();
    return waitHeard ? "works" : "hears nothing, and does not say so";
}

struct Row {
    const char* name;
    std::function<std::string(const Account&, const Way&)> cell;
};

Row group(const char* name, const Round& round)
{
    return {name, [round](const Account& account, const Way& way) { return together(account, way, round); }};
}

void printTable(const Account& account)
{
    const std::vector<Row> rows{
        group("a registrar's lookups, address maps and routes", lookUp),
        group("registrations, refreshes and removals", registerAndRemove),
        group("dialogs, watchers and sources", subscribe),
        group("access control and presence lists", judgeAccess),
        group("conference extensions", reserveAndRelease),
        group("the change log", readChangeLog),
        group("a transaction of the caller's own, in several calls", ownTransaction),
        group("a setting of the caller's own (`SET`)", ownSetting),
        {"a deadline, and the cancel that goes with it", deadline},
        {"the next request after a lost session", lostSessions},
        {"`ChangeListener`", listener},
        {"`waitForNotify`", waitLoop},
    };
    std::puts("| | session, plain | session, bound | transaction, plain | transaction, bound |");
    std::puts("| --- | --- | --- | --- | --- |");
    for (const Row& row : rows) {
        std::string line = std::string("| ") + row.name + " |";
        for (const Way& way : kWays) {
            line += " " + row.cell(account, way) + " |";
        }
        std::puts(line.c_str());
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 5) {
        std::fputs("usage: pooler DATABASE USER PASSWORD PORT\n", stderr);
        return EXIT_FAILURE;
    }
    try {
        const Account account{argv[1], argv[2], argv[3]};
        watchTheListenersWords();
        server::port(); // the server's, before the services get the pooler's
        setenv("PGPORT", argv[4], 1);
        setenv("PGSSLMODE", "disable", 1);
        printTable(account);
        return EXIT_SUCCESS;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "pooler: %s\n", failure.what());
        return EXIT_FAILURE;
    }
}
