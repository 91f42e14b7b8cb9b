#include <dal/DatabaseConnection.h>

#include <dal/QueryResult.h>
#include <dal/internal/BoundSession.h>
#include <dal/internal/ConnectionAdvice.h>
#include <dal/internal/Memory.h>
#include <dal/internal/Meter.h>
#include <dal/internal/Process.h>
#include <dal/internal/Statement.h>
#include <dal/internal/Traced.h>

#include <wex/URL.h>

#include <libpq-fe.h>

#include <fcntl.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <new>
#include <string_view>
#include <utility>

namespace oryx {

namespace {

std::string connectionString(const char* uri, const char* user, const char* password)
{
    std::string host;
    std::string dbname = uri;
    const wex::URL url(uri);
    if (url.isValid()) {
        url.getHost(host);
        url.getPath(dbname);
    }
    const std::string database = spliced("dbname={} user={} password={}", dbname, user, password);
    return host.empty() ? database : spliced("host={} {}", host, database);
}

} // namespace

void DbcNoticeProcessor(void* arg, const char* message)
{
    if (arg != nullptr) {
        static_cast<DatabaseConnection*>(arg)->handleNoticeMessage(message);
    }
}

DatabaseConnection::DatabaseConnection()
    : DatabaseConnection(SessionOptions::fromEnvironment(), std::make_shared<Meter>())
{
}

DatabaseConnection::DatabaseConnection(const SessionOptions& options, std::shared_ptr<Meter> meter, int interruption)
    : m_options(options), m_interruption(interruption), m_meter(std::move(meter))
{
}

DatabaseConnection::~DatabaseConnection()
{
    close();
}

bool DatabaseConnection::connect(const char* uri, const char* user, const char* password)
{
    return unlessOutOfMemory([&] { return connectPlainOrBound(uri, user, password); },
                             [this] { return error(kOutOfMemory); });
}

bool DatabaseConnection::connectPlainOrBound(const char* uri, const char* user, const char* password)
{
    if (uri == nullptr || user == nullptr || password == nullptr) {
        return error("missing connection parameters");
    }
    const std::string cs = connectionString(uri, user, password);
    m_trace.prn(cs);
    if (zel::Trace::enabled(zel::TraceKind::log) && !listens()) { // a listener tells once, and connects often
        tellWhatIsIgnored(uri, user);
    }
    if (m_options.statements == SessionOptions::Statements::bound || listens()) {
        m_bound = std::make_unique<BoundSession>(m_options.deadline, m_interruption);
        m_connectionString = cs;
        beginOperation();
        return connectBound();
    }
    m_conn = PQconnectdb(cs.c_str());
    return connected();
}

bool DatabaseConnection::connected()
{
    if (m_conn == nullptr) {
        return error();
    }
    m_generation = generation();
    // Before the status is looked at: a held connection that failed may be reset later and must not write its notices
    // to the server process's standard error.
    PQsetNoticeProcessor(m_conn, DbcNoticeProcessor, this);
    const ConnStatusType status = PQstatus(m_conn);
    if (status != CONNECTION_OK) {
        m_trace.prn("connection failed, status=%d\n", static_cast<int>(status));
        error();
        if (!m_bound || !m_bound->interrupted()) {
            m_meter->failed(m_errorMsg);
        }
        return false;
    }
    m_meter->connected();
    return okay();
}

bool DatabaseConnection::inherited() const
{
    return m_conn != nullptr && m_generation != generation();
}

/// Both processes hold one socket. This one lets go of it, so that what libpq says to the server as it ends the
/// connection is not said in the parent's name.
void DatabaseConnection::leaveToParent()
{
    if (!inherited()) {
        return;
    }
    m_generation = generation();
    const int socket = PQsocket(m_conn);
    int nowhere = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (nowhere >= 0 && socket >= 0) {
        dup3(nowhere, socket, O_CLOEXEC);
    } else if (socket >= 0) { // no descriptor is left but the socket's own, which libpq will close
        ::close(socket);
        nowhere = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    }
    if (nowhere >= 0 && nowhere != socket) {
        ::close(nowhere);
    }
}

void DatabaseConnection::close()
{
    m_connectionString.clear();
    if (m_conn != nullptr) {
        leaveToParent();
        m_unsettled = false;
        PQfinish(m_conn);
        m_trace.prn("connection closed");
        m_conn = nullptr;
    }
}

bool DatabaseConnection::active()
{
    if (m_conn == nullptr) {
        return error("no connection");
    }
    return PQstatus(m_conn) == CONNECTION_OK && !inherited();
}

bool DatabaseConnection::reset()
{
    return unlessOutOfMemory([this] { return resetPlainOrBound(); }, [this] { return error(kOutOfMemory); });
}

bool DatabaseConnection::resetPlainOrBound()
{
    if (m_bound) {
        if (!m_inOperation) {
            beginOperation();
        }
        return resetBound();
    }
    if (m_conn == nullptr) {
        return error("no connection to reset");
    }
    leaveToParent();
    m_unsettled = false;
    PQreset(m_conn);
    if (PQstatus(m_conn) != CONNECTION_OK) {
        error();
        m_meter->failed(m_errorMsg);
        return false;
    }
    m_meter->connected();
    return okay();
}

bool DatabaseConnection::execute(const char* cmd, QueryResult& result)
{
    return unlessOutOfMemory([&] { return execute(std::string(cmd != nullptr ? cmd : ""), result); },
                             [this] { return error(kOutOfMemory); });
}

bool DatabaseConnection::execute(const std::string& cmd, QueryResult& result)
{
    return unlessOutOfMemory([&] { return send(cmd, result); }, [this] { return failForMemory(); });
}

bool DatabaseConnection::send(const std::string& cmd, QueryResult& result)
{
    if (!m_bound) {
        return run(std::string(cmd, 0, cmd.find('\0')), result); // what is sent ends there
    }
    if (!m_inOperation) {
        beginOperation();
    }
    return executeBound(cmd, result);
}

bool DatabaseConnection::send(const Statement& statement, QueryResult& result)
{
    return m_bound ? executeBound(statement, result) : runOwn(statement, result);
}

bool DatabaseConnection::send(const Transaction& transaction, QueryResult& result)
{
    return m_bound ? executeBound(transaction.statements, result) : runOwn(transaction, result);
}

/// Sends one of the library's own. Nobody but a trace asks a result that is okay for its text, so that goes back.
template <typename Command>
bool DatabaseConnection::runOwn(const Command& command, QueryResult& result)
{
    command.writeTo(m_text);
    const bool delivered = run(std::move(m_text), result);
    std::string& text = result.m_sqlCommand;
    if (m_unsettled || zel::Trace::enabled(zel::TraceKind::prn)) {
        text.resize(std::min(text.size(), text.find('\0'))); // what was sent ends there
    } else {
        m_text = std::move(text);
    }
    return delivered;
}

std::string DatabaseConnection::textOf(const Statement& statement)
{
    return bound() ? m_bound->textOf(statement) : statement.text();
}

std::string DatabaseConnection::textOf(const Transaction& transaction)
{
    if (!m_bound) {
        return transaction.text();
    }
    std::string text;
    for (const Statement& statement : transaction.statements) {
        text += m_bound->textOf(statement);
    }
    return text;
}

/// Plain sending. The result keeps the text that is sent.
bool DatabaseConnection::run(std::string&& cmd, QueryResult& result)
{
    if (m_conn == nullptr) {
        return error("no connection");
    }
    if (inherited() && !reset()) {
        return false;
    }
    const Measured measured(*m_meter);
    traceProgress(m_trace, "executing query");
    result.setSqlCommand(std::move(cmd));
    const char* const statement = result.getSqlCommand().c_str();
    m_unsettled = true;
    PGresult* received = PQexec(m_conn, statement);
    if (received == nullptr) {
        received = repeatAfterLoss(statement);
        if (received == nullptr) {
            return false;
        }
    }
    traceProgress(m_trace, "query returned, setting result");
    result.setResult(received);
    const bool failed = result.failed();
    m_unsettled = failed;
    if (failed && result.fatal()) {
        m_trace.prn("fatal error, retrying after: %s", "PGRES_FATAL_ERROR");
        return repeatAfterFatalResult(statement, result);
    }
    return okay();
}

void DatabaseConnection::settle() noexcept
{
    if (m_bound) {
        settleBound();
    } else if (m_unsettled) {
        reset(); // as after every failed statement
    }
}

bool DatabaseConnection::failForMemory() noexcept
{
    settle();
    return error(kOutOfMemory);
}

PGresult* DatabaseConnection::repeatAfterLoss(const char* cmd)
{
    m_trace.prn("fatal query error: retrying connection");
    m_meter->lost(reason());
    if (!reset()) {
        error("fatal error, query failed");
        return nullptr;
    }
    m_meter->repeated();
    m_trace.prn("connection reset, retrying query");
    m_unsettled = true;
    PGresult* const received = PQexec(m_conn, cmd);
    if (received == nullptr) {
        failAfterReset();
    }
    return received;
}

/// A statement that brought back nothing on a new connection either. Where that is for want of libpq's own memory, it
/// is told as such, since no connection was lost. libpq says it in its messages alone: where the program has those
/// translated, it counts as a loss.
bool DatabaseConnection::failAfterReset()
{
    const std::string why = reason();
    m_meter->lost(why);
    const bool unsent = why.find("cannot allocate memory") != std::string::npos;
    if (unsent || why.find(kOutOfMemory) != std::string::npos) {
        m_unsettled = m_unsettled && !unsent; // it may have left a transaction, and its result found no memory
        throw std::bad_alloc();
    }
    return error("fatal query error after reset");
}

bool DatabaseConnection::repeatAfterFatalResult(const char* cmd, QueryResult& result)
{
    const bool refused = countFailure(result);
    if (!reset()) {
        return error("fatal query error, connection reset failed");
    }
    m_meter->repeated();
    m_unsettled = true;
    PGresult* const received = PQexec(m_conn, cmd);
    if (received == nullptr) {
        return failAfterReset();
    }
    result.setResult(received);
    m_unsettled = result.m_failed;
    if (!refused) {
        countFailure(result);
    }
    return okay();
}

/// Counts a fatal result, which tells of a refused statement or of the connection; whether it was a refusal.
bool DatabaseConnection::countFailure(const QueryResult& result)
{
    static constexpr std::array<std::string_view, 4> kOfTheConnection{"00000", "08", "57P", "25P03"};
    const std::string state = result.getSqlState();
    const bool lost = std::any_of(kOfTheConnection.begin(), kOfTheConnection.end(),
                                  [&](std::string_view beginning) { return state.starts_with(beginning); });
    if (!lost) {
        return countRefusal(result);
    }
    if (result.fatal()) {
        m_meter->lost(reason());
    }
    return false;
}

/// Counts a statement that the server refused; whether it did.
bool DatabaseConnection::countRefusal(const QueryResult& result)
{
    const bool refused = result.fatal();
    if (refused) {
        m_meter->refused(result.getSqlState());
    }
    return refused;
}

SessionStatistics DatabaseConnection::getStatistics() const
{
    return m_meter->read();
}

void DatabaseConnection::handleNoticeMessage(const char* msg)
{
    if (msg != nullptr) {
        m_trace.prn("libpq MESSAGE: %s", msg);
    }
}

const char* DatabaseConnection::reason() const
{
    const char* const message = PQerrorMessage(m_conn);
    return message != nullptr ? message : "unspecified error";
}

bool DatabaseConnection::okay()
{
    m_errorMsg.clear();
    return true;
}

bool DatabaseConnection::error()
{
    return error(reason());
}

bool DatabaseConnection::error(const char* msg)
{
    keepReason(msg != nullptr ? msg : "", [this](const char* why) { m_errorMsg = why; });
    return false;
}

} // namespace oryx
