#pragma once

#include <dal/SessionOptions.h>
#include <dal/SessionStatistics.h>
#include <util/OryxExport.h>
#include <zel/Trace.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

struct pg_conn;
using PGconn = pg_conn;
struct pg_result;
using PGresult = pg_result;

namespace oryx {

class BoundSession;
class BoundText;
class Deadline;
class Meter;
class QueryResult;
class Statement;
struct ResultDeleter;
struct Sent;
struct Transaction;

/// libpq's notice processor: hands the server's message to the `DatabaseConnection` at `arg`, if there is one.
/// \ingroup core
ORYX_EXPORT void DbcNoticeProcessor(void* arg, const char* message);

/// One connection to the PostgreSQL server, and the only place that opens, resets, closes or executes on one.
///
/// A lost connection is reset and its statement sent again (`execute` has the rule); every failure leaves its reason in
/// `getErrorMessage()`, every success empties it; where memory runs out it is "out of memory". Used by one thread at a
/// time. In a child process it is lost: the parent keeps it, and the child connects anew.
/// \ingroup core
class ORYX_EXPORT DatabaseConnection {
public:
    /// Not connected; sends as the environment says (`SessionOptions::fromEnvironment`).
    DatabaseConnection();
    ~DatabaseConnection();
    DatabaseConnection(const DatabaseConnection&) = delete;
    DatabaseConnection& operator=(const DatabaseConnection&) = delete;

    /// Connects to the database at `uri` ("scheme://host/database", or a bare database name).
    ///
    /// False when an argument is null or the server refuses; a refused connection is held until `close()`. A connection
    /// that is already held must be closed first. The values go into libpq's connection string as they are, so an empty
    /// database or user makes libpq read the next item in its place, a blank ends a value, a backslash vanishes, and a
    /// quote at a value's beginning must have its pair; port, TLS and time-outs are libpq's own settings (its
    /// environment and service file).
    bool connect(const char* uri, const char* user, const char* password);
    /// Ends the connection, if there is one.
    void close();
    /// Whether the connection is usable as far as libpq knows; sends nothing.
    bool active();
    /// Connects again with the same arguments; false when that fails.
    bool reset();

    ///@{
    /// Sends one command text and stores what came back in `result`.
    ///
    /// True when the connection delivered a result, be it a failed one: whether the statement succeeded is
    /// `result.failed()`. False when the connection is lost for good; without a connection `result` is left untouched.
    /// A null text is an empty one.
    ///
    /// A statement that brings back no result (the connection is lost) is sent again after a reset of the connection,
    /// and so is one whose result is fatal (the server refused it, or ended meanwhile). A refused statement so costs
    /// one reset and is sent twice; the most is two resets and three sendings, when a statement that was sent again for
    /// a lost connection is refused. A change may therefore take effect twice. That is plain sending; with bound
    /// statements nothing that the server refuses is reset for or repeated, and it ends the transaction it stands in.
    bool execute(const char* cmd, QueryResult& result);
    bool execute(const std::string& cmd, QueryResult& result);
    ///@}

    /// Subscribes to the changes of one table, whose name is its channel.
    ///
    /// False when the server refuses, or when the connection is lost and cannot be reset. The error text is only that
    /// of the reset.
    bool listenForDbTableChangeNotification(const std::string& table);
    /// What `waitOnListen` calls: with true and the table's name for a notification, where the answer is not read;
    /// with false and an empty name for a wake-up without one, where true ends the wait. Must not use the connection.
    using TableChangeCallback = bool (*)(bool changed, const std::string& table);
    /// Subscribes to the tables that the servers follow, and hands every change to the callback, which must not be
    /// null, one at a time, on this thread, until the callback ends the wait or the connection is lost.
    ///
    /// The callback also gets a call after every 5 seconds without a notification. Of several that arrive together, the
    /// later ones wait for that long each, or for further input. A connection that is lost while it subscribes is reset
    /// and has then lost the subscriptions before. True when the wait has ended; the caller looks at `active()` for the
    /// reason. False when a subscription fails (earlier ones stay), when a signal interrupts the wait, when memory runs
    /// out (the callback's too), or when the connection's socket is numbered 65,536 or above. A `ChangeListener` has
    /// none of these limits.
    bool waitOnListen(TableChangeCallback handleAdminChangeGlobal);

    /// The reason of the last failure; empty after a success.
    const std::string& getErrorMessage() const { return m_errorMsg; }
    /// Traces a notice of the server; null is ignored.
    void handleNoticeMessage(const char* msg);
    /// What has become of the connection and its statements so far.
    SessionStatistics getStatistics() const;

    /// Success: empties the error text. Always true.
    bool okay();
    /// Failure with libpq's reason. Always false.
    bool error();
    /// Failure with the given reason, null for an empty one. Always false.
    bool error(const char* msg);

private:
    friend class Frame;
    friend class ListeningConnection;

    // Not connected; sends as it is told, and counts there. With a descriptor it is a listener's: whatever it waits for
    // ends when the descriptor has input or the server has said nothing for the time of the deadline, in both ways of
    // sending, and it is never made anew, since a new one has no subscriptions.
    DatabaseConnection(const SessionOptions& options, std::shared_ptr<Meter> meter, int interruption = -1);
    // The library's own statements, sent as the options say: as one text, or bound. A bound one that the server
    // refuses costs no reset and is not sent again; it ends the transaction it stands in, as a reset would.
    bool send(const Statement& statement, QueryResult& result);
    bool send(const Transaction& transaction, QueryResult& result);
    // The same of bound statements that are read one by one: `take` is called with each one's number and result when
    // all of them have taken effect together. What is refused is in `result`.
    using ResultTaker = std::function<void(std::size_t number, const QueryResult& result)>;
    bool sendForEach(std::span<const Statement> statements, QueryResult& result, const ResultTaker& take);
    // `execute` for those who tell by themselves when memory runs out.
    bool send(const std::string& cmd, QueryResult& result);
    // The text that the server gets; without the values, where they travel apart from it.
    std::string textOf(const Statement& statement);
    std::string textOf(const Transaction& transaction);
    // Whether values travel apart from the text.
    bool bound() const { return m_bound != nullptr && m_options.statements == SessionOptions::Statements::bound; }
    bool listens() const { return m_interruption >= 0; }
    // Of a listener's: waits for input; false when there is none.
    bool awaitInput(const Deadline& deadline);
    // Of a listener's: hands over channel and payload of all notifications that have arrived; false when the
    // connection is lost.
    using NotificationTaker = std::function<void(const char* channel, const char* payload)>;
    bool takeNotifications(const NotificationTaker& take);
    // An operation begins: the deadline, if there is one, counts from now.
    void beginOperation()
    {
        if (m_bound) {
            beginBoundOperation();
        }
    }
    // Whether the latest operation was given up at its deadline.
    bool ranLate() const;
    bool m_inOperation = false; // the owner says when one begins

    // After memory ran out: whatever a statement may have left open ends, with the connection it is open on.
    void settle() noexcept;
    // The same, and says so. Always false.
    bool failForMemory() noexcept;

    const char* reason() const;
    bool connectPlainOrBound(const char* uri, const char* user, const char* password);
    bool resetPlainOrBound();
    bool connected();
    bool inherited() const;
    void leaveToParent();
    template <typename Command>
    bool runOwn(const Command& command, QueryResult& result);
    bool run(std::string&& cmd, QueryResult& result);
    PGresult* repeatAfterLoss(const char* cmd);
    bool repeatAfterFatalResult(const char* cmd, QueryResult& result);
    bool failAfterReset();
    bool countFailure(const QueryResult& result);
    bool countRefusal(const QueryResult& result);
    bool subscribe(const std::string& table);
    PGresult* listen(const std::string& statement);
    PGresult* listenAfterReset(const std::string& statement);
    bool listenAndWait(TableChangeCallback callback);
    bool waitForInput();
    bool handOn(TableChangeCallback callback);

    // Bound statements (BoundStatements.cpp)
    void beginBoundOperation();
    bool executeBound(const Statement& statement, QueryResult& result);
    using Results = std::vector<std::unique_ptr<PGresult, ResultDeleter>>;
    bool executeBound(std::span<const Statement> statements, QueryResult& result, Results* each = nullptr);
    bool executeBound(const std::string& text, QueryResult& result);
    template <typename Send>
    bool runBound(Send send, QueryResult& result);
    bool connectBound();
    bool received(Sent&& sent, QueryResult& result);
    static void keepText(const BoundText& text, QueryResult& result);
    bool resetBound();
    void settleBound() noexcept;
    bool tooLate();
    bool givenUp(const std::string& refusals = "");
    std::string lateness() const;
    void drop();

    PGconn* m_conn = nullptr;
    bool m_unsettled = false;  // a plain statement is under way, or the last one failed: it may have left a transaction
    unsigned m_generation = 0; // of the process that the connection was made in
    SessionOptions m_options;
    int m_interruption = -1;
    std::string m_connectionString;        // of a bound connection, which is made anew instead of being reset
    std::unique_ptr<BoundSession> m_bound; // null where statements are sent plain, but for a listener's
    std::shared_ptr<Meter> m_meter;
    std::string m_text; // of the last plain statement; kept for its room, so that the next one allocates nothing
    std::string m_errorMsg;
    zel::Trace m_trace{"DatabaseConnection"};
};

} // namespace oryx
