#include "failures/Outages.h"

#include <signal.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <stdexcept>
#include <thread>

namespace failures {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

const std::string kServices = " FROM pg_stat_activity WHERE usename IN ('registrar', 'events') ";
const std::string kWaiting = "SELECT count(*)" + kServices + "AND wait_event_type = 'Lock'";
constexpr milliseconds kShort(1000); // a deadline that is to be run into

void setForRoles(Scene& scene, const std::string& settings)
{
    if (!settings.empty()) {
        for (const char* const role : {"registrar", "events"}) {
            scene.sql("ALTER ROLE " + std::string(role) + " SET " + settings);
        }
    }
}

/// The settings that the operator ships, again, and no others.
void resetRoles()
{
    if (std::system("env -u PGSERVICE psql --no-psqlrc --quiet --dbname=oryx --command='ALTER ROLE registrar RESET ALL'"
                    " --command='ALTER ROLE events RESET ALL' --file='" ORYX_DEPLOY "/roles.sql'") != 0) {
        throw std::runtime_error("the roles cannot be set");
    }
}

/// Waits until something is so; throws when it has not come to be for so long that it never will.
void awaitThat(const std::string& what, const std::function<bool()>& isSo)
{
    const auto end = steady_clock::now() + std::chrono::seconds(60);
    while (!isSo()) {
        if (steady_clock::now() > end) {
            throw std::runtime_error("never: " + what);
        }
        std::this_thread::sleep_for(milliseconds(20));
    }
}

/// What the services may do with which table.
std::string rightsOf(Scene& scene)
{
    return scene.session().value("SELECT string_agg(concat_ws(' ', grantee, table_name, column_name, privilege_type),"
                                 " ', ' ORDER BY grantee, table_name, column_name, privilege_type)"
                                 " FROM information_schema.column_privileges WHERE grantee LIKE 'oryx_%'");
}

/// The calls of one operation through one service.
class Calls {
public:
    Calls(const Outage& outage, const Operation& operation, const Way& way)
        : m_outage(outage), m_operation(operation), m_way(way)
    {
        if (!outage.connectsMeanwhile) {
            connect();
        }
        if (outage.prepares) {
            operation.call(*m_library);
        }
    }

    void connect() { m_library = std::make_unique<Library>(m_way, m_operation.part); }

    void run(const std::atomic<bool>& mended)
    {
        for (int i = 0; i < m_outage.calls && !mended; ++i) {
            if (m_outage.before) {
                m_outage.before();
            }
            m_answers.push_back(m_operation.call(*m_library));
        }
    }

    bool mayWait() const { return m_outage.plainWaits && !m_way.bound(); }

    std::string answers(bool waited) const
    {
        std::string text = (waited ? "waits, then " : "") + m_answers.front();
        const bool alike = std::all_of(m_answers.begin(), m_answers.end(),
                                       [&](const std::string& answer) { return answer == m_answers.front(); });
        for (std::size_t i = 1; i < m_answers.size() && !alike; ++i) {
            text += "; then " + m_answers[i];
        }
        return text;
    }

private:
    const Outage& m_outage;
    const Operation& m_operation;
    Way m_way;
    std::unique_ptr<Library> m_library;
    Answers m_answers;
};

/// All calls of an outage, and the threads that they are made in.
class Questions {
public:
    explicit Questions(const Outage& outage) : m_outage(outage)
    {
        for (const auto statements :
             {oryx::SessionOptions::Statements::plain, oryx::SessionOptions::Statements::bound}) {
            const bool isBound = statements == oryx::SessionOptions::Statements::bound;
            const Way way{statements, isBound ? outage.deadline : milliseconds(0), outage.password,
                          "postgresql://127.0.0.1/" + outage.database};
            for (const Operation& operation : outage.operations) {
                m_calls.emplace_back(outage, operation, way);
            }
        }
    }

    void ask()
    {
        for (Calls& calls : m_calls) {
            m_running.push_back(std::async(std::launch::async, [this, &calls] {
                if (m_outage.connectsMeanwhile) {
                    calls.connect();
                }
                calls.run(m_mended);
            }));
            if (m_outage.before) {
                m_running.back().wait();
            }
        }
        for (std::size_t i = 0; i < m_calls.size(); ++i) {
            if (!m_calls[i].mayWait()) {
                m_running[i].wait();
            }
        }
        for (const std::future<void>& running : m_running) {
            m_waiting.push_back(running.wait_for(milliseconds(0)) != std::future_status::ready);
        }
        m_mended = true;
    }

    Provoked answers()
    {
        Answers all;
        for (std::size_t i = 0; i < m_calls.size(); ++i) {
            m_running[i].get();
            all.push_back(m_calls[i].answers(m_waiting[i]));
        }
        const auto half = all.begin() + static_cast<std::ptrdiff_t>(m_outage.operations.size());
        return {{all.begin(), half}, {half, all.end()}};
    }

private:
    const Outage& m_outage;
    std::vector<Calls> m_calls;
    std::atomic<bool> m_mended = false;
    std::vector<std::future<void>> m_running;
    std::vector<bool> m_waiting;
};

Outage::Hook running(Scene& scene, const std::string& statements)
{
    return [&scene, statements] { scene.sql(statements); };
}

void terminateServices(Scene& scene)
{
    scene.sql("SELECT pg_terminate_backend(pid)" + kServices);
    scene.await("SELECT count(*)" + kServices, "0");
}

/// Sessions have seen a setting of the whole server change when one of them has.
void alterSystem(Scene& scene, const std::string& change, const std::string& name, const std::string& value)
{
    // The superuser's own session must be able to undo it.
    scene.sql("SET default_transaction_read_only = off");
    scene.sql("ALTER SYSTEM " + change);
    scene.sql("SELECT pg_reload_conf()");
    server::Session observer("oryx");
    awaitThat(change, [&] { return observer.value("SELECT current_setting('" + name + "')") == value; });
    std::this_thread::sleep_for(milliseconds(200));
}

Outage unreachable(Scene& scene)
{
    return {.name = "unreachable",
            .begin = [&scene] { scene.control.stop("fast"); },
            .end = [&scene] { scene.control.start(); }};
}

Outage absentAtStart(Scene& scene)
{
    Outage outage = unreachable(scene);
    outage.name = "absent at start";
    outage.connectsMeanwhile = true;
    outage.calls = 1;
    return outage;
}

Outage cut(Scene& scene)
{
    return {.name = "cut", .begin = [&scene] { scene.proxy.hangUp(); }, .proxied = true};
}

Outage terminated(Scene& scene)
{
    return {.name = "terminated", .begin = [&scene] { terminateServices(scene); }};
}

Outage cutTwice(Scene& scene)
{
    using Loss = server::Proxy::Loss;
    std::vector<Operation> operations = oneOfEachKind();
    operations.erase(operations.begin()); // `connect` sends no statement
    return {.name = "cut twice", .operations = operations, .calls = 1, .proxied = true, .before = [&scene] {
                scene.proxy.lose({Loss::request, Loss::request});
            }};
}

Outage answerLost(Scene& scene)
{
    Outage outage = cutTwice(scene);
    outage.name = "answer lost";
    outage.before = [&scene] { scene.proxy.lose({server::Proxy::Loss::answer}); };
    return outage;
}

/// A server that looks for its archive before it takes anybody in.
Outage startingUp(Scene& scene)
{
    const std::string folder = scene.control.folder();
    const std::string held = folder + "/held";
    return {.name = "starting up",
            .begin =
                [&scene, folder, held] {
                    scene.control.stop("fast");
                    std::ofstream(held).flush();
                    std::ofstream(folder + "/recovery.signal").flush();
                    std::ofstream(folder + "/postgresql.auto.conf", std::ios::app)
                        << "restore_command = 'while test -e " << held << "; do sleep 0.05; done; false'\n";
                    scene.control.beginToStart();
                    scene.awaitRefusal();
                },
            .end =
                [&scene, held] {
                    std::filesystem::remove(held);
                    scene.awaitReadiness();
                    scene.await("SELECT pg_is_in_recovery()", "f");
                }};
}

pid_t processOf(server::Session& session)
{
    return std::stoi(session.value("SELECT pg_backend_pid()"));
}

/// One session is killed, and the server has all others end before it recovers; one that does not run keeps it waiting.
Outage recovering(Scene& scene)
{
    return {.name = "recovering from a crash",
            .begin =
                [&scene] {
                    scene.holder = std::make_unique<server::Session>("oryx");
                    scene.stopped = std::make_unique<server::Stopped>(std::vector<pid_t>{processOf(*scene.holder)});
                    ::kill(processOf(scene.session()), SIGKILL);
                    scene.awaitRefusal();
                },
            .end =
                [&scene] {
                    scene.stopped.reset();
                    scene.holder.reset();
                    scene.awaitReadiness();
                }};
}

/// One session that does not run keeps the server from ending.
Outage shuttingDown(Scene& scene)
{
    return {.name = "shutting down",
            .begin =
                [&scene] {
                    scene.holder = std::make_unique<server::Session>("oryx");
                    scene.stopped = std::make_unique<server::Stopped>(std::vector<pid_t>{processOf(*scene.holder)});
                    scene.control.beginToStop("fast");
                    scene.awaitRefusal();
                },
            .end =
                [&scene] {
                    scene.stopped.reset();
                    scene.holder.reset();
                    awaitThat("the server has ended",
                              [&] { return !std::filesystem::exists(scene.control.folder() + "/postmaster.pid"); });
                    scene.control.start();
                }};
}

Outage stoppedServer(Scene& scene)
{
    return {.name = "stopped",
            .begin = [&scene] { scene.stopped = std::make_unique<server::Stopped>(scene.control.folder()); },
            .end = [&scene] { scene.stopped.reset(); },
            .calls = 1,
            .plainWaits = true,
            .deadline = kShort};
}

Outage blackHole(Scene& scene)
{
    return {.name = "black hole",
            .begin = [&scene] { scene.proxy.blackHole(true); },
            .end = [&scene] { scene.proxy.blackHole(false); },
            .calls = 1,
            .proxied = true,
            .deadline = kShort};
}

const std::string kLock = "BEGIN; LOCK TABLE public_address, contact, subscription_states, event_watchers, conf_state";

Outage locked(Scene& scene)
{
    return {.name = "locked",
            .begin =
                [&scene] {
                    scene.holder = std::make_unique<server::Session>("oryx");
                    scene.holder->run(kLock);
                },
            .end = [&scene] { scene.holder.reset(); },
            .calls = 1,
            .settings = "lock_timeout = '200ms'"};
}

Outage lockedPastDeadline(Scene& scene)
{
    Outage outage = locked(scene);
    outage.name = "locked past the deadline";
    outage.plainWaits = true;
    outage.deadline = kShort;
    outage.settings = "lock_timeout = 0";
    return outage;
}

Outage tooLong(Scene& scene)
{
    Outage outage = locked(scene);
    outage.name = "too long";
    outage.settings = "statement_timeout = '200ms'";
    return outage;
}

/// The service holds the one contact and waits for the other, which the holder has; then the holder goes on.
std::string refreshBeside(Scene& scene, Library& library, const std::vector<int>& numbers, const std::string& further)
{
    scene.holder->run("BEGIN; UPDATE contact SET c_type = c_type WHERE address = 'sip:alice@192.0.2.2'");
    auto refreshing = std::async(std::launch::async, [&] { return told(refresh(library, numbers)); });
    scene.await(kWaiting, "1");
    scene.holder->run(further);
    scene.holder->run("COMMIT");
    return refreshing.get();
}

Outage beside(Scene& scene, const std::string& name, const std::vector<int>& numbers, const std::string& further)
{
    return {.name = name,
            .begin = [&scene] { scene.holder = std::make_unique<server::Session>("oryx"); },
            .end = [&scene] { scene.holder.reset(); },
            .operations = {{"`updateContacts`", Part::registrar,
                            [&scene, numbers, further](Library& library) {
                                return refreshBeside(scene, library, numbers, further);
                            }}},
            .calls = 1,
            .before = [] {}}; // one after another
}

Outage deadlock(Scene& scene)
{
    Outage outage = beside(scene, "deadlock", {1, 2},
                           "SET LOCAL deadlock_timeout = '1min';"
                           "UPDATE contact SET c_type = c_type WHERE address = 'sip:alice@192.0.2.1'");
    outage.settings = "deadlock_timeout = '100ms'";
    return outage;
}

Outage serialization(Scene& scene)
{
    Outage outage = beside(scene, "serialization", {2}, "SELECT 1");
    outage.settings = "default_transaction_isolation = 'repeatable read'";
    return outage;
}

/// A transaction of the caller's own, in which so much time passes that the server ends the session.
std::string ownTransaction(Library& library)
{
    oryx::PresenceDatabaseCommandExecutor& own = *library.events.getPresenceDatabaseCommandExecutor();
    own.execute("BEGIN");
    server::Session session("oryx");
    awaitThat("the session is ended", [&] {
        return session.value("SELECT count(*)" + kServices + "AND state = 'idle in transaction'") == "0";
    });
    const std::string answer = told(own.execute("DELETE FROM conf_state WHERE extension = '8999'"));
    own.execute("ROLLBACK");
    const bool undone = session.value("SELECT count(*) FROM conf_state WHERE extension = '8999'") != "0";
    session.run("INSERT INTO conf_state VALUES ('8999', 'IDLE', 0) ON CONFLICT DO NOTHING");
    return answer + (undone ? "" : ", and `ROLLBACK` does not undo it");
}

Outage idleInTransaction()
{
    return {.name = "idle in transaction",
            .operations = {{"`execute` of a change, behind a `BEGIN`", Part::events, ownTransaction}},
            .calls = 1,
            .before = [] {},
            .settings = "idle_in_transaction_session_timeout = '100ms'"};
}

Outage connectionLimit(Scene& scene)
{
    return {.name = "at the role's connection limit",
            .begin =
                [&scene] {
                    scene.sql("ALTER ROLE registrar CONNECTION LIMIT 0; ALTER ROLE events CONNECTION LIMIT 0");
                    terminateServices(scene);
                },
            .end = running(scene, "ALTER ROLE registrar CONNECTION LIMIT -1; ALTER ROLE events CONNECTION LIMIT -1")};
}

Outage passwordChanged(Scene& scene)
{
    return {.name = "told another password",
            .begin =
                [&scene] {
                    scene.sql("ALTER ROLE registrar PASSWORD 'another'; ALTER ROLE events PASSWORD 'another'");
                    terminateServices(scene);
                },
            .end = resetRoles};
}

const std::string kTables = "public_address, contact, subscription_states, event_watchers, conf_state";
const std::string kGroups = "oryx_registrar, oryx_proxy, oryx_presence, oryx_provisioning";

/// The statements that give the services the rights on these tables which they have now.
std::string grantsOn(Scene& scene, const std::string& tables)
{
    const std::string of = " = ANY (string_to_array('" + tables +
                           "', ', ')::regclass[]) AND grantee::regrole = ANY"
                           " (string_to_array('" +
                           kGroups + "', ', ')::regrole[])";
    return scene.session().value(
        "SELECT string_agg(statement, '; ') FROM (SELECT format('GRANT %s ON %s TO %s', privilege_type, oid::regclass,"
        " grantee::regrole) FROM pg_class, aclexplode(relacl) WHERE oid" +
        of +
        " UNION ALL SELECT format('GRANT %s (%I) ON %s TO %s', privilege_type, attname, attrelid::regclass,"
        " grantee::regrole) FROM pg_attribute, aclexplode(attacl) WHERE attrelid" +
        of + ") AS given (statement)");
}

Outage permissionRevoked(Scene& scene)
{
    return {.name = "permission revoked",
            .begin = running(scene, "REVOKE ALL ON " + kTables + " FROM " + kGroups),
            .end = running(scene, grantsOn(scene, kTables)),
            .calls = 1};
}

Outage readOnly(Scene& scene)
{
    const std::string name = "default_transaction_read_only";
    return {.name = "read-only",
            .begin = [&scene, name] { alterSystem(scene, "SET " + name + " = on", name, "on"); },
            .end = [&scene, name] { alterSystem(scene, "RESET " + name, name, "off"); }};
}

Outage standbyLost(Scene& scene)
{
    const std::string name = "synchronous_standby_names";
    return {.name = "standby lost",
            .begin = [&scene, name] { alterSystem(scene, "SET " + name + " = 'nobody'", name, "nobody"); },
            .end = [&scene, name] { alterSystem(scene, "RESET " + name, name, ""); },
            .calls = 1,
            .plainWaits = true,
            .deadline = kShort,
            .settings = "statement_timeout = '500ms'"}; // which does not count for the wait
}

Outage migrated(Scene& scene)
{
    return {.name = "migrated",
            .begin = running(scene, "ALTER TABLE public_address ALTER scope TYPE varchar(200)"),
            .calls = 1,
            .prepares = true};
}

Outage schemaMissing()
{
    return {.name = "schema missing", .calls = 1, .database = "empty"};
}

/// Too long for a key also when the server has compressed it.
std::string longKey()
{
    std::string text;
    for (unsigned int number = 1; text.size() < 20000; number = number * 1103515245U + 12345U) {
        text += static_cast<char>('a' + (number >> 16U) % 26U);
    }
    return text;
}

Outage refusedValue(const std::string& name, const std::string& text)
{
    return {.name = name, .operations = withText(text), .calls = 1};
}

} // namespace

Scene::Scene() : control(session()) {}

server::Session& Scene::session()
{
    const auto usable = [&] {
        try {
            return m_session && m_session->value("SELECT 1") == "1";
        } catch (const std::exception&) {
            return false;
        }
    };
    if (!usable()) {
        m_session = std::make_unique<server::Session>("oryx");
    }
    return *m_session;
}

void Scene::awaitRefusal() const
{
    awaitThat("the server takes nobody in",
              [] { return std::system("pg_isready --quiet --dbname=oryx --timeout=1; test $? -eq 1") == 0; });
}

void Scene::awaitReadiness() const
{
    awaitThat("the server is ready", [] { return std::system("pg_isready --quiet --dbname=oryx --timeout=1") == 0; });
}

void Scene::await(const std::string& query, const std::string& value)
{
    awaitThat(value + ", " + query, [&] { return session().value(query) == value; });
}

std::vector<Outage> outages(Scene& scene)
{
    return {
        unreachable(scene),
        absentAtStart(scene),
        cut(scene),
        terminated(scene),
        cutTwice(scene),
        answerLost(scene),
        stoppedServer(scene),
        blackHole(scene),
        locked(scene),
        lockedPastDeadline(scene),
        tooLong(scene),
        deadlock(scene),
        serialization(scene),
        idleInTransaction(),
        permissionRevoked(scene),
        readOnly(scene),
        standbyLost(scene),
        migrated(scene),
        schemaMissing(),
        refusedValue("quote", "o'neill"),
        refusedValue("no UTF-8", "\xff"),
        refusedValue("long key", longKey()),
    };
}

std::vector<Outage> refusals(Scene& scene)
{
    return {startingUp(scene), recovering(scene), shuttingDown(scene), connectionLimit(scene), passwordChanged(scene)};
}

std::vector<Outage> misleadingOutages(Scene& scene)
{
    Outage gone = unreachable(scene);
    gone.operations = misleading();
    // What is read before the trap is readable.
    const std::string tables = "public_address, contact, subscriber, subscription_states, event_watchers, conf_state, "
                               "listsubscriptions, acp, node, domain_access, system_parameters";
    return {gone,
            {.name = "refused",
             .begin = running(scene, "REVOKE ALL ON " + tables + " FROM " + kGroups),
             .end = running(scene, grantsOn(scene, tables)),
             .operations = misleading(),
             .calls = 1}};
}

Provoked provoke(Scene& scene, const Outage& outage)
{
    const std::string rights = rightsOf(scene);
    setForRoles(scene, outage.settings);
    setenv("PGPORT", (outage.proxied ? scene.proxy.port() : server::port()).c_str(), 1);
    Questions questions(outage);
    outage.begin();
    questions.ask();
    outage.end();
    Provoked provoked = questions.answers();
    setenv("PGPORT", server::port().c_str(), 1);
    if (!outage.settings.empty()) {
        resetRoles();
    }
    if (rightsOf(scene) != rights) {
        throw std::runtime_error("the services may do other things after \"" + outage.name + "\"");
    }
    return provoked;
}

} // namespace failures
