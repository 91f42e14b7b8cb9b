#pragma once

#include <dal/internal/BoundText.h>
#include <dal/internal/Statement.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

struct pg_conn;
using PGconn = pg_conn;
struct pg_result;
using PGresult = pg_result;
struct pollfd;

namespace oryx {

struct ResultDeleter {
    void operator()(PGresult* result) const;
};
using Result = std::unique_ptr<PGresult, ResultDeleter>;

struct ConnectionDeleter {
    void operator()(PGconn* connection) const;
};
using Connection = std::unique_ptr<PGconn, ConnectionDeleter>;

/// A point in time that an operation must not pass, or none.
class Deadline {
public:
    Deadline() = default;
    /// So far from now; zero for none.
    explicit Deadline(std::chrono::milliseconds duration);

    bool passed() const;
    /// What is left, as poll(2) takes it: rounded up, -1 without a deadline.
    int pollTimeout() const;
    /// The point half way from now, or so far from now if that comes first.
    Deadline halfWay(std::chrono::milliseconds most) const;

private:
    std::optional<std::chrono::steady_clock::time_point> m_until;
};

/// How a statement's sending ended.
struct Sent {
    enum class Outcome { answered, lost, late };

    Outcome outcome = Outcome::answered;
    Result result = {};              // of an answered one: the first that failed, else the last that nobody else has
    const BoundText* text = nullptr; // of the prepared statement that the result belongs to
};

/// What bound statements need of a libpq connection: its prepared statements, and waiting no longer than the deadline.
///
/// The connection is the owner's, and is in non-blocking mode. Several statements travel in one round trip and take
/// effect together or not at all.
class BoundSession {
public:
    /// The deadline is held to what poll(2) can wait for; one below zero is none. With a descriptor for interruption,
    /// whatever is waited for counts as late when that has input, and the deadline is for silence: it counts anew
    /// whenever the server is heard of.
    explicit BoundSession(std::chrono::milliseconds deadline, int interruption = -1)
        : m_interruption(interruption),
          m_duration(std::clamp(deadline, std::chrono::milliseconds(0),
                                std::chrono::milliseconds(std::numeric_limits<int>::max())))
    {
    }

    std::chrono::milliseconds duration() const { return m_duration; }
    /// An operation begins: its deadline counts from now.
    void begin() { m_deadline = Deadline(m_duration); }
    /// Whether the operation has run out of time.
    bool late() const { return m_deadline.passed(); }
    /// Whether the descriptor that interrupts has input.
    bool interrupted() const;

    /// Connects; not usable, or null, when that fails. Nothing is prepared on it yet. Where the deadline passes
    /// first, `refusals` gets what libpq has said of the hosts that refused.
    Connection connect(const std::string& connectionString, std::string& refusals);
    /// The text that the server gets for a statement.
    const std::string& textOf(const Statement& statement) { return bound(statement).text(); }
    /// Statements are about to be sent for the first time: a change that must not take effect again gets the next
    /// number.
    void number(std::span<const Statement> statements);
    /// Sends statements; those that the connection does not know yet are prepared on the way. Ones that were numbered
    /// say that number, for the schema to know them again. Sent once more after they were lost, they change nothing if
    /// they have taken effect: the result is then one row, of what the function gave whose answer the schema keeps
    /// (without such an answer, no row), or of nothing. With `each`, that gets the result of every statement that
    /// succeeded, in their order.
    Sent send(PGconn* connection, std::span<const Statement> statements, std::vector<Result>* each = nullptr);
    /// Sends a text of one or more statements as it stands.
    Sent send(PGconn* connection, const std::string& text);
    /// Ends a failed transaction; false when the connection brings back no answer.
    bool rollback(PGconn* connection);
    /// Whether the server answers, within a deadline of its own.
    bool answers(PGconn* connection);
    /// Whether something was begun on the connection whose answer has not been taken.
    static bool underWay(const PGconn* connection);
    /// Waits for input; false when the deadline passes first, with an interruption, or where the system cannot wait.
    bool awaitInput(PGconn* connection, const Deadline& deadline) const;

    /// Asks the server, beside the connection, to stop what it is doing for it, and closes it then; waits for nothing.
    /// One that the server does nothing for is only closed.
    static void giveUp(Connection connection);

private:
    /// A command under way: one statement's preparation, or its execution.
    struct Command {
        const BoundText* text;
        bool prepares;
    };

    const BoundText& bound(const Statement& statement);
    bool saysNumber(const PGconn* connection, std::span<const Statement> statements) const;
    void nameAnew();
    void nextNumber();
    Sent sendNumbered(PGconn* connection, std::span<const Statement> statements);
    Sent passOver(PGconn* connection, std::span<const Statement> statements, const Sent& refused);
    Sent readNumber(PGconn* connection);
    Sent sendUnsaid(PGconn* connection, std::span<const Statement> statements, const Sent& refused);
    Sent sendPrepared(PGconn* connection, std::span<const Statement> statements);
    Sent sendOnce(PGconn* connection, std::span<const Statement> statements);
    bool queue(PGconn* connection, std::span<const Statement> statements);
    bool queueNumber(PGconn* connection, std::span<const Statement> statements);
    bool queue(PGconn* connection, const Statement& statement);
    Sent collect(PGconn* connection);
    void keep(Result&& result, const Command& command, Sent& sent);
    Sent forget(PGconn* connection, const char* text);
    bool flush(PGconn* connection);
    bool next(PGconn* connection, Result& result);
    bool await(PGconn* connection, short events);
    bool await(PGconn* connection, short events, const Deadline& deadline) const;
    bool await(std::span<pollfd> sockets, const Deadline& deadline) const;
    bool hear();
    bool tooLateToSend() const;

    int m_interruption;
    std::chrono::milliseconds m_duration;
    Deadline m_deadline;
    std::unordered_map<std::string, BoundText> m_texts; // by key; as many as the library has statements
    std::unordered_set<std::string_view> m_prepared;    // names that the present connection knows, or soon will
    bool m_outdated = false;                            // what is prepared must be forgotten
    std::string m_name;                                 // which no other session has; empty without random numbers
    unsigned m_generation = 0;                          // of the process that it was given in
    std::int64_t m_number = 0;                          // of the latest change
    bool m_says = true;                                 // which change it is: the present database keeps that
    bool m_saysNow = false;                             // what is under way does
    const BoundText* m_saying = nullptr;                // that statement
    bool m_lost = false;                                // what is under way was sent before, and may have taken effect
    // Kept from statement to statement, so that they allocate nothing.
    std::string m_key;
    std::vector<Command> m_commands;
    std::vector<Result>* m_each = nullptr; // of what is under way: whoever wants every result
    Parameters m_parameters;
};

} // namespace oryx
