#include "support/FakeLibpq.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <stdexcept>
#include <utility>

struct pg_result {
    fake::Reply reply;
};

struct pg_conn {
    ConnStatusType status;
    PQnoticeProcessor noticeProcessor;
    void* noticeArgument;
    bool starting;    // nothing was sent on it yet
    PGresult* answer; // to what was sent
};

namespace fake {

namespace {

Libpq* current = nullptr;
thread_local bool answersNow = false;

/// Lives while a statement is answered.
class Answering {
public:
    Answering() { answersNow = true; }
    ~Answering() { answersNow = false; }
    Answering(const Answering&) = delete;
    Answering& operator=(const Answering&) = delete;
};

template <typename Owned, typename Base>
auto find(std::vector<std::unique_ptr<Owned>>& owners, const Base* owned)
{
    return std::find_if(owners.begin(), owners.end(), [&](const auto& owner) { return owner.get() == owned; });
}

} // namespace

Reply nothing()
{
    Reply reply;
    reply.null = true;
    return reply;
}

Reply command(const std::string& touched)
{
    Reply reply;
    reply.cmdTuples = touched;
    return reply;
}

Reply rows(Rows rows)
{
    Reply reply = noRows(rows.empty() ? 0 : static_cast<int>(rows.front().size()));
    reply.cmdTuples = std::to_string(rows.size());
    reply.rows = std::move(rows);
    return reply;
}

Reply noRows(int columns)
{
    Reply reply = status(PGRES_TUPLES_OK);
    reply.cmdTuples = "0";
    for (int i = 0; i < columns; ++i) {
        reply.columnNames.push_back("column" + std::to_string(i));
    }
    return reply;
}

Reply refused(const std::string& sqlState, const std::string& message)
{
    Reply reply = status(PGRES_FATAL_ERROR);
    reply.sqlState = sqlState;
    reply.message = message;
    return reply;
}

Reply status(ExecStatusType status)
{
    Reply reply;
    reply.status = status;
    return reply;
}

bool answering()
{
    return answersNow;
}

Libpq::Libpq()
{
    EXPECT_EQ(current, nullptr);
    current = this;
}

Libpq::~Libpq()
{
    EXPECT_TRUE(m_replies.empty()) << m_replies.size() << " replies were never asked for";
    EXPECT_TRUE(m_held.empty()) << m_held.size() << " results were never cleared";
    EXPECT_TRUE(m_notifications.empty()) << m_notifications.size() << " notifications were never asked for";
    EXPECT_TRUE(m_handedOut.empty()) << m_handedOut.size() << " notifications were never freed";
    EXPECT_EQ(m_open.size(), m_leftOpen) << "connections were never finished";
    current = nullptr;
}

void Libpq::replies(std::vector<Reply> replies)
{
    m_replies.insert(m_replies.end(), std::make_move_iterator(replies.begin()), std::make_move_iterator(replies.end()));
}

void Libpq::connectsWith(ConnStatusType status, const std::string& message)
{
    m_connectStatus = status;
    m_error = message;
}

void Libpq::connectsToNothing()
{
    m_connectsToNothing = true;
}

void Libpq::resetsTo(std::vector<ConnStatusType> statuses)
{
    m_resets.insert(m_resets.end(), statuses.begin(), statuses.end());
}

void Libpq::loseConnection()
{
    for (const auto& connection : m_open) {
        connection->status = CONNECTION_BAD;
    }
}

void Libpq::leavesOpen(std::size_t connections)
{
    m_leftOpen = connections;
}

void Libpq::errorMessage(std::optional<std::string> message)
{
    m_error = std::move(message);
}

Libpq::Notification::Notification(const std::optional<std::string>& channel, std::string text)
    : PGnotify(), name(channel.value_or("")), payload(std::move(text))
{
    relname = channel ? name.data() : nullptr;
    extra = payload.data();
}

void Libpq::notifies(const std::vector<std::optional<std::string>>& channels)
{
    const std::lock_guard lock(m_mutex);
    for (const auto& channel : channels) {
        m_notifications.push_back(std::make_unique<Notification>(channel));
    }
}

void Libpq::socket(int number)
{
    m_socket = number;
}

void Libpq::echoes()
{
    m_echoes = true;
}

void Libpq::notice(const char* message)
{
    ASSERT_FALSE(m_open.empty()) << "no connection is open";
    const PGconn& connection = *m_open.back();
    ASSERT_NE(connection.noticeProcessor, nullptr) << "no notice processor was installed";
    connection.noticeProcessor(connection.noticeArgument, message);
}

PGresult* Libpq::result(Reply reply)
{
    return m_held.emplace_back(std::make_unique<PGresult>(PGresult{std::move(reply)})).get();
}

std::vector<Libpq::Call> Libpq::takeCalls()
{
    const std::lock_guard lock(m_mutex);
    return std::exchange(m_calls, {});
}

std::string Libpq::take()
{
    std::string calls;
    for (const Call& call : takeCalls()) {
        calls.append(call.what).append(call.text.empty() ? "" : " ").append(call.text).append("\n");
    }
    return calls;
}

std::vector<std::string> Libpq::takeStatements()
{
    std::vector<std::string> statements;
    for (const Call& call : takeCalls()) {
        if (call.what == "exec") {
            statements.push_back(call.text);
        }
    }
    return statements;
}

void Libpq::record(const char* call, const char* text)
{
    m_calls.push_back({call, text});
}

/// Nothing sensible can go on with a connection that is not open: thrown, which ends the test.
PGconn& Libpq::open(const PGconn* conn)
{
    const auto found = find(m_open, conn);
    if (found == m_open.end()) {
        throw std::logic_error("libpq was called with a connection that is not open");
    }
    return **found;
}

PGconn* Libpq::connect(const char* conninfo)
{
    const std::lock_guard lock(m_mutex);
    record("connect", conninfo);
    if (m_connectsToNothing) {
        return nullptr;
    }
    return m_open.emplace_back(std::make_unique<PGconn>(PGconn{m_connectStatus, nullptr, nullptr, false, nullptr}))
        .get();
}

PGconn* Libpq::start(const char* conninfo)
{
    const std::lock_guard lock(m_mutex);
    record("start", conninfo);
    return m_open.emplace_back(std::make_unique<PGconn>(PGconn{m_connectStatus, nullptr, nullptr, true, nullptr}))
        .get();
}

PostgresPollingStatusType Libpq::poll(const PGconn* conn)
{
    const std::lock_guard lock(m_mutex);
    return open(conn).status == CONNECTION_OK ? PGRES_POLLING_OK : PGRES_POLLING_FAILED;
}

ConnStatusType Libpq::statusOf(const PGconn* conn)
{
    const std::lock_guard lock(m_mutex);
    const PGconn& connection = open(conn);
    EXPECT_TRUE(connection.starting || connection.noticeProcessor != nullptr)
        << "until it is installed, notices go to standard error";
    return connection.status;
}

void Libpq::reset(const PGconn* conn)
{
    const Answering answering;
    const std::lock_guard lock(m_mutex);
    record("reset");
    PGconn& connection = open(conn);
    connection.status = CONNECTION_OK;
    if (!m_resets.empty()) {
        connection.status = m_resets.front();
        m_resets.pop_front();
    }
}

void Libpq::finish(const PGconn* conn)
{
    const std::lock_guard lock(m_mutex);
    record("finish");
    open(conn);
    m_open.erase(find(m_open, conn));
}

void Libpq::setNoticeProcessor(const PGconn* conn, PQnoticeProcessor processor, void* arg)
{
    const std::lock_guard lock(m_mutex);
    record("notices");
    PGconn& connection = open(conn);
    connection.noticeProcessor = processor;
    connection.noticeArgument = arg;
}

PGresult* Libpq::exec(const PGconn* conn, const char* statement, const char* call)
{
    const Answering answering;
    const std::lock_guard lock(m_mutex);
    record(call, statement);
    open(conn);
    if (echoed(statement)) {
        return result(rows({{""}}));
    }
    if (m_replies.empty()) {
        ADD_FAILURE() << "no reply is scripted for: " << statement;
        return nullptr;
    }
    Reply reply = std::move(m_replies.front());
    m_replies.pop_front();
    return reply.null ? nullptr : result(std::move(reply));
}

void Libpq::send(const PGconn* conn, const char* statement)
{
    PGresult* const answer = exec(conn, statement, "send");
    const std::lock_guard lock(m_mutex);
    PGconn& connection = open(conn);
    EXPECT_NE(connection.noticeProcessor, nullptr) << "until it is installed, notices go to standard error";
    connection.starting = false;
    connection.answer = answer;
    connection.status = answer != nullptr ? connection.status : CONNECTION_BAD;
}

PGresult* Libpq::nextResult(const PGconn* conn)
{
    const std::lock_guard lock(m_mutex);
    return std::exchange(open(conn).answer, nullptr);
}

bool Libpq::echoed(const std::string& statement)
{
    static const std::regex kNotify("SELECT pg_notify\\('([^']*)', '([^']*)'\\);");
    std::smatch match;
    if (!m_echoes || !std::regex_match(statement, match, kNotify)) {
        return false;
    }
    m_notifications.push_back(std::make_unique<Notification>(match[1].str(), match[2].str()));
    return true;
}

void Libpq::clear(PGresult* result)
{
    const std::lock_guard lock(m_mutex);
    if (result == nullptr) {
        ++m_nullsCleared;
        return;
    }
    const auto held = find(m_held, result);
    if (held == m_held.end()) {
        ADD_FAILURE() << "a result was cleared that is not held";
        return;
    }
    m_held.erase(held);
}

int Libpq::socketOf(const PGconn* conn)
{
    const std::lock_guard lock(m_mutex);
    open(conn);
    static const int kAlwaysReadable = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    return m_socket.value_or(kAlwaysReadable);
}

void Libpq::consumeInput(const PGconn* conn)
{
    const std::lock_guard lock(m_mutex);
    record("consume");
    open(conn);
}

PGnotify* Libpq::nextNotification(const PGconn* conn)
{
    const std::lock_guard lock(m_mutex);
    record("notifies");
    open(conn);
    if (m_notifications.empty()) {
        return nullptr;
    }
    m_handedOut.push_back(std::move(m_notifications.front()));
    m_notifications.pop_front();
    return m_handedOut.back().get();
}

void Libpq::freeNotification(const void* notification)
{
    const std::lock_guard lock(m_mutex);
    const auto handedOut = find(m_handedOut, static_cast<const PGnotify*>(notification));
    if (handedOut == m_handedOut.end()) {
        ADD_FAILURE() << "memory was freed that is no notification handed out";
        return;
    }
    m_handedOut.erase(handedOut);
}

} // namespace fake

// What follows stands in for libpq itself, for the functions that the library calls.

extern "C" {

PGconn* PQconnectdb(const char* conninfo)
{
    return fake::current->connect(conninfo);
}

PGconn* PQconnectStart(const char* conninfo)
{
    return fake::current->start(conninfo);
}

PostgresPollingStatusType PQconnectPoll(PGconn* conn)
{
    return fake::current->poll(conn);
}

int PQsetnonblocking(PGconn* /*conn*/, int /*arg*/)
{
    return 0;
}

int PQsendQuery(PGconn* conn, const char* query)
{
    fake::current->send(conn, query);
    return 1;
}

int PQflush(PGconn* /*conn*/)
{
    return 0;
}

int PQisBusy(PGconn* /*conn*/)
{
    return 0;
}

PGresult* PQgetResult(PGconn* conn)
{
    return fake::current->nextResult(conn);
}

PGpipelineStatus PQpipelineStatus(const PGconn* /*conn*/)
{
    return PQ_PIPELINE_OFF;
}

PGTransactionStatusType PQtransactionStatus(const PGconn* /*conn*/)
{
    return PQTRANS_IDLE;
}

ConnStatusType PQstatus(const PGconn* conn)
{
    return fake::current->statusOf(conn);
}

void PQreset(PGconn* conn)
{
    fake::current->reset(conn);
}

void PQfinish(PGconn* conn)
{
    fake::current->finish(conn);
}

char* PQerrorMessage(const PGconn* /*conn*/)
{
    return const_cast<char*>(fake::current->lastError());
}

PQnoticeProcessor PQsetNoticeProcessor(PGconn* conn, PQnoticeProcessor proc, void* arg)
{
    fake::current->setNoticeProcessor(conn, proc, arg);
    return nullptr;
}

PGresult* PQexec(PGconn* conn, const char* query)
{
    return fake::current->exec(conn, query);
}

void PQclear(PGresult* res)
{
    fake::current->clear(res);
}

int PQsocket(const PGconn* conn)
{
    return fake::current->socketOf(conn);
}

int PQconsumeInput(PGconn* conn)
{
    fake::current->consumeInput(conn);
    return 1;
}

PGnotify* PQnotifies(PGconn* conn)
{
    return fake::current->nextNotification(conn);
}

void PQfreemem(void* ptr)
{
    if (ptr != nullptr) {
        fake::current->freeNotification(ptr);
    }
}

ExecStatusType PQresultStatus(const PGresult* res)
{
    return res->reply.status;
}

char* PQresultErrorMessage(const PGresult* res)
{
    return res->reply.messageIsNull ? nullptr : const_cast<char*>(res->reply.message.c_str());
}

char* PQresultErrorField(const PGresult* res, int fieldcode)
{
    const bool known = fieldcode == PG_DIAG_SQLSTATE && !res->reply.sqlState.empty();
    return known ? const_cast<char*>(res->reply.sqlState.c_str()) : nullptr;
}

int PQntuples(const PGresult* res)
{
    return static_cast<int>(res->reply.rows.size());
}

int PQnfields(const PGresult* res)
{
    return static_cast<int>(res->reply.columnNames.size());
}

char* PQfname(const PGresult* res, int field_num)
{
    return const_cast<char*>(res->reply.columnNames.at(static_cast<std::size_t>(field_num)).c_str());
}

char* PQgetvalue(const PGresult* res, int tup_num, int field_num)
{
    const auto& cell = res->reply.rows.at(static_cast<std::size_t>(tup_num)).at(static_cast<std::size_t>(field_num));
    return const_cast<char*>(cell ? cell->c_str() : "");
}

int PQgetisnull(const PGresult* res, int tup_num, int field_num)
{
    return res->reply.rows.at(static_cast<std::size_t>(tup_num)).at(static_cast<std::size_t>(field_num)) ? 0 : 1;
}

char* PQcmdTuples(PGresult* res)
{
    return res->reply.cmdTuplesIsNull ? nullptr : const_cast<char*>(res->reply.cmdTuples.c_str());
}

} // extern "C"
