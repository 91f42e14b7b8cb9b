// Bound statements: values beside the text, each statement prepared once, no operation later than its deadline.

#include <dal/DatabaseConnection.h>

#include <dal/QueryResult.h>
#include <dal/internal/BoundSession.h>
#include <dal/internal/Memory.h>
#include <dal/internal/Meter.h>

#include <libpq-fe.h>

#include <algorithm>
#include <utility>

namespace oryx {

void DatabaseConnection::beginBoundOperation()
{
    m_bound->begin();
}

/// Sends once, and once more on a new connection if this one is lost. What the server refuses is the answer.
template <typename Send>
bool DatabaseConnection::runBound(Send send, QueryResult& result)
{
    if (m_connectionString.empty()) {
        return error("no connection");
    }
    const Measured measured(*m_meter);
    if ((m_conn == nullptr || inherited()) && !resetBound()) {
        return false; // it was given up, or is the parent's, and cannot be made anew
    }
    m_trace.prn("executing query");
    Sent sent = send(m_conn);
    if (sent.outcome == Sent::Outcome::lost) {
        m_trace.prn("fatal query error: retrying connection");
        m_meter->lost(reason());
        if (!resetBound()) {
            return false;
        }
        m_meter->repeated();
        m_trace.prn("connection reset, retrying query");
        sent = send(m_conn);
    }
    switch (sent.outcome) {
    case Sent::Outcome::lost:
        return failAfterReset();
    case Sent::Outcome::late:
        return tooLate();
    case Sent::Outcome::answered:
        break;
    }
    m_trace.prn("query returned, setting result");
    return received(std::move(sent), result);
}

/// A listener's statements are whole texts in both ways of sending.
bool DatabaseConnection::executeBound(const Statement& statement, QueryResult& result)
{
    return bound() ? executeBound({&statement, 1}, result) : executeBound(statement.text(), result);
}

bool DatabaseConnection::executeBound(std::span<const Statement> statements, QueryResult& result, Results* each)
{
    if (statements.empty()) {
        return okay();
    }
    const auto refused = std::find_if_not(statements.begin(), statements.end(), BoundText::canBeSent);
    if (refused != statements.end()) {
        result.setSqlCommand(m_bound->textOf(*refused));
        result.setRefusal("a value holds a NUL", "22021");
        return okay();
    }
    m_bound->number(statements);
    return runBound([&](PGconn* connection) { return m_bound->send(connection, statements, each); }, result);
}

bool DatabaseConnection::sendForEach(std::span<const Statement> statements, QueryResult& result,
                                     const ResultTaker& take)
{
    Results each;
    each.reserve(statements.size());
    if (!executeBound(statements, result, &each)) {
        return false;
    }
    for (std::size_t number = 0; !result.m_failed && number < each.size(); ++number) {
        QueryResult one;
        one.setResult(each[number].release());
        take(number, one);
    }
    return true;
}

bool DatabaseConnection::executeBound(const std::string& text, QueryResult& result)
{
    const auto send = [&](PGconn* connection) {
        result.setSqlCommand(text);
        return m_bound->send(connection, text);
    };
    return runBound(send, result);
}

bool DatabaseConnection::received(Sent&& sent, QueryResult& result)
{
    if (PQtransactionStatus(m_conn) == PQTRANS_INERROR && !m_bound->rollback(m_conn)) {
        drop();
    }
    if (m_conn != nullptr && PQtransactionStatus(m_conn) == PQTRANS_ACTIVE) {
        drop(); // it copies data, which nobody here takes or gives
    }
    result.setResult(sent.result.release());
    if (sent.text != nullptr) {
        keepText(*sent.text, result);
    }
    countRefusal(result);
    return okay();
}

/// What the statement did counts, also where there is no memory for its words.
void DatabaseConnection::keepText(const BoundText& text, QueryResult& result)
{
    unlessOutOfMemory([&] { result.setSqlCommand(text.text()); }, [] {});
}

/// Half of a round trip must never be sent, and what nobody has read is no answer to the next statement.
void DatabaseConnection::settleBound() noexcept
{
    const bool busy =
        m_conn != nullptr && (BoundSession::underWay(m_conn) || PQtransactionStatus(m_conn) == PQTRANS_INERROR);
    if (busy) {
        drop();
    }
}

bool DatabaseConnection::resetBound()
{
    if (m_connectionString.empty()) {
        return error("no connection to reset");
    }
    if (listens()) {
        return error(); // why this one is lost
    }
    if (m_bound->late()) {
        return m_conn != nullptr ? givenUp() : error(lateness().c_str());
    }
    return connectBound();
}

bool DatabaseConnection::connectBound()
{
    if (m_conn != nullptr) {
        drop();
    }
    std::string refusals;
    m_conn = m_bound->connect(m_connectionString, refusals).release();
    if (m_bound->late() && PQstatus(m_conn) != CONNECTION_OK) {
        return givenUp(refusals);
    }
    return connected();
}

/// The server is told to stop, and the connection given up: what it may still answer is nobody's any more.
bool DatabaseConnection::tooLate()
{
    if (!listens()) { // what a listener asks for is short and changes nothing
        BoundSession::giveUp(Connection(std::exchange(m_conn, nullptr)));
    }
    return givenUp();
}

/// Of several hosts some may have refused while another was silent: that is said too.
bool DatabaseConnection::givenUp(const std::string& refusals)
{
    drop();
    const std::string why = lateness() + (refusals.empty() ? "" : "\n") + refusals;
    if (!m_bound->interrupted()) {
        m_meter->ranLate(why);
    }
    return error(why.c_str());
}

bool DatabaseConnection::ranLate() const
{
    return m_conn == nullptr && m_bound && m_bound->late();
}

std::string DatabaseConnection::lateness() const
{
    return "no answer within the deadline of " + std::to_string(m_bound->duration().count()) + " ms";
}

void DatabaseConnection::drop()
{
    leaveToParent();
    PQfinish(m_conn);
    m_conn = nullptr;
}

} // namespace oryx
