#pragma once

#include <libpq-fe.h>

#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

/// \file
/// A libpq that answers by script, interposed: a test program that holds these functions calls them instead of the
/// shared library's. For exact texts and for what a real server cannot be brought to do; the real one has tests of its
/// own.

namespace fake {

/// One value of a row; none is SQL NULL.
using Cell = std::optional<std::string>;
using Rows = std::vector<std::vector<Cell>>;

/// What one PQexec gives back.
struct Reply {
    bool null = false; // no result at all: the connection is lost
    ExecStatusType status = PGRES_COMMAND_OK;
    std::string message;
    std::string sqlState; // empty: the result carries none
    std::vector<std::string> columnNames;
    Rows rows;
    std::string cmdTuples;
    bool messageIsNull = false;   // PQresultErrorMessage gives a null pointer
    bool cmdTuplesIsNull = false; // PQcmdTuples gives a null pointer
};

/// No result.
Reply nothing();
/// A completed command that touched `touched` rows.
Reply command(const std::string& touched = "");
/// Rows, all of one width.
Reply rows(Rows rows);
/// No rows, of `columns` columns.
Reply noRows(int columns = 1);
/// A statement that the server refused.
Reply refused(const std::string& sqlState, const std::string& message = "ERROR:  refused\n");
/// A result of that status and nothing else.
Reply status(ExecStatusType status);

/// Whether this thread is inside a statement's sending: what that allocates is not the library's.
bool answering();

/// The script and the record of one test; at most one lives at a time.
///
/// At its end the test fails when a reply or a notification was left over, one that was handed out was not freed or was
/// freed twice, or a connection was not finished. A connection used after its end, or asked for its status before its
/// notices go anywhere, is a failure too. Several threads may use the connections of one script.
class Libpq {
public:
    Libpq();
    ~Libpq();
    Libpq(const Libpq&) = delete;
    Libpq& operator=(const Libpq&) = delete;

    /// The next PQexec without a reply queued fails the test and gives no result.
    void replies(std::vector<Reply> replies);
    /// Those queued are not handed out any more.
    void dropReplies() { m_replies.clear(); }
    /// Every connection attempt from now on ends with this status; a bad one also sets the message.
    void connectsWith(ConnStatusType status, const std::string& message = "");
    /// PQconnectdb gives a null pointer.
    void connectsToNothing();
    /// The status after each PQreset, in this order; CONNECTION_OK when none is left.
    void resetsTo(std::vector<ConnStatusType> statuses);
    /// The open connections are lost, as PQstatus tells.
    void loseConnection();
    /// So many connections are left unfinished at the end.
    void leavesOpen(std::size_t connections);
    /// What PQerrorMessage gives; none is a null pointer.
    void errorMessage(std::optional<std::string> message);
    /// The channels that PQnotifies tells of, one per call; none is a notification without a name.
    void notifies(const std::vector<std::optional<std::string>>& channels);
    /// What PQsocket gives from now on; without it, a descriptor that always has input.
    void socket(int number);
    /// Every pg_notify that is sent is answered, and told of by PQnotifies, from whichever connection.
    void echoes();
    /// Has the server send a notice through the processor installed on the connection opened last.
    void notice(const char* message);
    /// A result as PQexec gives it.
    PGresult* result(Reply reply);

    /// What was called since the last take, a line each: "connect STRING", "notices", "exec STATEMENT", "reset",
    /// "consume", "notifies", "finish", and of a connection that nobody waits for, "start STRING" and "send STATEMENT".
    /// PQstatus, PQsocket and the reading of results are not recorded.
    std::string take();
    /// The statements sent since the last take, without the other calls.
    std::vector<std::string> takeStatements();
    /// How often PQclear got a null pointer.
    int nullsCleared() const { return m_nullsCleared; }

    // Called by the functions that stand in for libpq's.
    PGconn* connect(const char* conninfo);
    ConnStatusType statusOf(const PGconn* conn);
    void reset(const PGconn* conn);
    void finish(const PGconn* conn);
    const char* lastError() const { return m_error ? m_error->c_str() : nullptr; }
    void setNoticeProcessor(const PGconn* conn, PQnoticeProcessor processor, void* arg);
    PGresult* exec(const PGconn* conn, const char* statement, const char* call = "exec");
    PGconn* start(const char* conninfo);
    PostgresPollingStatusType poll(const PGconn* conn);
    void send(const PGconn* conn, const char* statement);
    PGresult* nextResult(const PGconn* conn);
    void clear(PGresult* result);
    int socketOf(const PGconn* conn);
    void consumeInput(const PGconn* conn);
    PGnotify* nextNotification(const PGconn* conn);
    void freeNotification(const void* notification);

private:
    struct Call {
        std::string what;
        std::string text;
    };

    struct Notification : PGnotify {
        explicit Notification(const std::optional<std::string>& channel, std::string payload = "");

        std::string name;
        std::string payload;
    };

    std::vector<Call> takeCalls();
    void record(const char* call, const char* text = "");
    bool echoed(const std::string& statement);
    PGconn& open(const PGconn* conn);

    std::mutex m_mutex;
    std::deque<Reply> m_replies;
    std::deque<ConnStatusType> m_resets;
    std::vector<Call> m_calls;
    std::vector<std::unique_ptr<PGresult>> m_held;
    std::deque<std::unique_ptr<Notification>> m_notifications;
    std::vector<std::unique_ptr<Notification>> m_handedOut;
    std::optional<int> m_socket;
    bool m_echoes = false;
    std::vector<std::unique_ptr<PGconn>> m_open;
    std::size_t m_leftOpen = 0;
    int m_nullsCleared = 0;
    ConnStatusType m_connectStatus = CONNECTION_OK;
    bool m_connectsToNothing = false;
    std::optional<std::string> m_error = "";
};

} // namespace fake
