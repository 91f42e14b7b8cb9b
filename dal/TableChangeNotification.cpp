// Waiting until a provisioning table changes: the server notifies, the caller's callback decides.

#include <dal/DatabaseConnection.h>

#include <dal/internal/BoundSession.h>
#include <dal/internal/Memory.h>
#include <dal/internal/Meter.h>
#include <dal/internal/NotifierTables.h>
#include <dal/internal/Statement.h>

#include <libpq-fe.h>

#include <sys/select.h>

#include <array>
#include <chrono>
#include <climits>
#include <memory>

namespace oryx {

namespace {

constexpr time_t kIdleSeconds = 5;

/// While notifications keep arriving, those so far are handed on after so long.
constexpr std::chrono::milliseconds kLongestTaking(50);

using Notification = std::unique_ptr<PGnotify, void (*)(void*)>;

/// A server with many calls open has descriptors beyond the 1,024 that an fd_set ends at; the system itself reads as
/// many bits as it is told.
constexpr int kDescriptors = 65536;

/// A read set that holds one socket.
class ReadSet {
public:
    explicit ReadSet(int socket)
    {
        const auto bit = static_cast<unsigned>(socket);
        m_words.at(bit / kBitsPerWord) = 1UL << (bit % kBitsPerWord);
    }

    fd_set* get() { return reinterpret_cast<fd_set*>(m_words.data()); }

private:
    static constexpr unsigned kBitsPerWord = sizeof(unsigned long) * CHAR_BIT;
    std::array<unsigned long, kDescriptors / kBitsPerWord> m_words{};
};

/// Waits for input: how many sockets have some, 0 after a while without; negative when the wait itself fails.
int wait(int socket)
{
    if (socket >= kDescriptors) {
        return -1;
    }
    ReadSet sockets(socket);
    timeval timeout{kIdleSeconds, 0};
    return select(socket + 1, sockets.get(), nullptr, nullptr, &timeout);
}

} // namespace

bool DatabaseConnection::listenForDbTableChangeNotification(const std::string& table)
{
    return unlessOutOfMemory(
        [&] {
            beginOperation();
            return (!inherited() || reset()) && subscribe(table);
        },
        [this] { return failForMemory(); });
}

bool DatabaseConnection::subscribe(const std::string& table)
{
    const std::string statement = spliced("LISTEN {}", table);
    m_trace.prn("DatabaseConnection::listenForDbTableChangeNotification(): Attempting to LISTEN on %s", table.c_str());
    PGresult* result = listen(statement);
    bool listening = result != nullptr && PQresultStatus(result) == PGRES_COMMAND_OK;
    if (listening) {
        m_trace.prn("DatabaseConnection::listenForDbTableChangeNotification(): --- SUCCESS ---: LISTEN on %s",
                    table.c_str());
    } else if (result != nullptr) {
        m_trace.log(
            "DatabaseConnection::listenForDbTableChangeNotification(): *** ERROR ***: Failed to exec LISTEN on on %s",
            table.c_str());
    } else {
        result = listenAfterReset(statement);
        listening = result != nullptr; // whatever the status
    }
    PQclear(result);
    return listening;
}

PGresult* DatabaseConnection::listen(const std::string& statement)
{
    if (!m_bound) {
        return PQexec(m_conn, statement.c_str());
    }
    if (m_conn == nullptr) {
        return nullptr;
    }
    Sent sent = m_bound->send(m_conn, statement);
    if (sent.outcome == Sent::Outcome::late) {
        tooLate();
    }
    return sent.result.release();
}

PGresult* DatabaseConnection::listenAfterReset(const std::string& statement)
{
    m_trace.prn("listenForDbTableChangeNotification: resetting the connection");
    if (m_conn != nullptr) {
        m_meter->lost(reason());
    }
    if (!(m_bound ? resetBound() : reset())) {
        m_trace.log("listenForDbTableChangeNotification: reset failed");
        return nullptr;
    }
    m_meter->repeated();
    m_trace.log("listenForDbTableChangeNotification: connection reset, retrying query");
    PGresult* const result = listen(statement);
    if (result == nullptr) {
        m_trace.log("listenForDbTableChangeNotification: query listen failed even after reset");
    }
    return result;
}

bool DatabaseConnection::waitOnListen(TableChangeCallback handleAdminChangeGlobal)
{
    return unlessOutOfMemory([&] { return listenAndWait(handleAdminChangeGlobal); },
                             [this] { return failForMemory(); });
}

bool DatabaseConnection::listenAndWait(TableChangeCallback callback)
{
    beginOperation();
    if (inherited() && !reset()) {
        return false;
    }
    for (const char* const table : kNotifierTables) {
        if (!subscribe(table)) {
            return false;
        }
    }
    bool stop = false;
    while (!stop && PQstatus(m_conn) == CONNECTION_OK && !inherited()) {
        if (!waitForInput()) {
            return false;
        }
        stop = handOn(callback);
    }
    if (m_conn != nullptr && PQstatus(m_conn) != CONNECTION_OK) {
        m_meter->lost(reason());
    }
    return true;
}

bool DatabaseConnection::waitForInput()
{
    const int socket = PQsocket(m_conn);
    if (socket < 0) {
        m_trace.log("waitOnListen::Failed to create socket descriptor");
        return false;
    }
    const int ready = wait(socket);
    if (ready < 0) {
        m_trace.log("waitOnListen::select failed");
        return false;
    }
    // A server that is gone without a word is only found out by asking it.
    if (ready == 0 && m_bound && m_bound->duration().count() > 0 && !m_bound->answers(m_conn)) {
        m_meter->lost("no answer to a listener");
        drop();
    }
    return true;
}

/// At most one notification: the next one is taken after a further wait.
bool DatabaseConnection::handOn(TableChangeCallback callback)
{
    PQconsumeInput(m_conn);
    const Notification notification(PQnotifies(m_conn), PQfreemem);
    if (!notification) {
        return callback(false, "");
    }
    if (notification->relname != nullptr) {
        m_trace.prn("%s table updated", notification->relname);
        callback(true, notification->relname);
    } else {
        m_trace.log("notifier table has no name!");
    }
    return false;
}

// What a listener's connection does instead (ListeningConnection)

bool DatabaseConnection::awaitInput(const Deadline& deadline)
{
    return m_bound->awaitInput(m_conn, deadline);
}

/// Takes everything that has arrived, and what arrives meanwhile; but comes to an end where it does not end.
bool DatabaseConnection::takeNotifications(const NotificationTaker& take)
{
    const Deadline end(kLongestTaking);
    bool more = true;
    while (more && !end.passed() && PQconsumeInput(m_conn) != 0) {
        more = false;
        while (const Notification notification{PQnotifies(m_conn), PQfreemem}) {
            if (notification->relname != nullptr) {
                take(notification->relname, notification->extra);
            }
            more = true;
        }
    }
    return PQstatus(m_conn) == CONNECTION_OK || error();
}

} // namespace oryx
