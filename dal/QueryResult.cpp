#include <dal/QueryResult.h>

#include <dal/internal/Number.h>

#include <libpq-fe.h>

#include <array>

namespace oryx {

namespace {

/// Whether a command was completed, or rows were selected.
bool holdsAnswer(const PGresult* result)
{
    const ExecStatusType status = PQresultStatus(result);
    return status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK;
}

} // namespace

const std::string QueryResult::SQL_SUCCESSFUL_COMPLETION = "00000";
const std::string QueryResult::SQL_INTEGRITY_CONSTRAINT_VIOLATION = "23000";

QueryResult::~QueryResult()
{
    if (m_result != nullptr) {
        PQclear(m_result);
    }
}

void QueryResult::setResult(PGresult* pres)
{
    if (m_result != nullptr) {
        PQclear(m_result);
    }
    m_result = pres;
    m_failed = pres != nullptr && !holdsAnswer(pres);
    m_rows = pres != nullptr ? PQntuples(pres) : 0;
    m_columns = pres != nullptr ? PQnfields(pres) : 0;
    m_refusal.clear();
}

void QueryResult::setRefusal(const char* message, const char* sqlState)
{
    setResult(nullptr);
    m_failed = true;
    m_refusal = message;
    m_refusalState = sqlState;
}

void QueryResult::traceStatus() const
{
    m_trace.prn("query result status is %d ('%s')\n", static_cast<int>(PQresultStatus(m_result)),
                getErrorMessage().c_str());
}

bool QueryResult::fatal() const
{
    return m_result != nullptr && PQresultStatus(m_result) == PGRES_FATAL_ERROR;
}

int QueryResult::updateCount() const
{
    const char* const count = m_result != nullptr ? PQcmdTuples(m_result) : nullptr;
    return count != nullptr ? leadingInt(count) : 0;
}

const char* QueryResult::getColumnName(int col) const
{
    return col >= 0 && col < columns() ? PQfname(m_result, col) : nullptr;
}

const char* QueryResult::getValue(int row, int col) const
{
    return contains(row, col) ? PQgetvalue(m_result, row, col) : nullptr;
}

bool QueryResult::isNull(int row, int column) const
{
    return !contains(row, column) || PQgetisnull(m_result, row, column) != 0;
}

std::string QueryResult::getSqlState() const
{
    if (!m_refusal.empty()) {
        return m_refusalState;
    }
    const char* const state = m_result != nullptr ? PQresultErrorField(m_result, PG_DIAG_SQLSTATE) : nullptr;
    return state != nullptr ? state : SQL_SUCCESSFUL_COMPLETION;
}

bool QueryResult::integrityConstraintViolation() const
{
    return getSqlState().compare(0, 2, SQL_INTEGRITY_CONSTRAINT_VIOLATION, 0, 2) == 0;
}

std::string QueryResult::getErrorMessage() const
{
    if (m_result == nullptr && m_refusal.empty()) {
        return "not executed";
    }
    const char* const message = m_result != nullptr ? PQresultErrorMessage(m_result) : m_refusal.c_str();
    if (message == nullptr) {
        return "unspecified result";
    }
    return std::string(message)
        .append(", sqlState=")
        .append(getSqlState())
        .append(", sqlcommand=")
        .append(m_sqlCommand);
}

int QueryResult::getErrorCode(std::string& s) const
{
    if (m_result == nullptr) {
        s = "NO QUERY EXECUTED";
        return -1;
    }
    static constexpr std::array kNames{"PGRES_EMPTY_QUERY",    "PGRES_COMMAND_OK", "PGRES_TUPLES_OK",
                                       "PGRES_COPY_OUT",       "PGRES_COPY_IN",    "PGRES_BAD_RESPONSE",
                                       "PGRES_NONFATAL_ERROR", "PGRES_FATAL_ERROR"};
    const auto code = static_cast<unsigned>(PQresultStatus(m_result));
    s = code < kNames.size() ? kNames.at(code) : "UNRECOGNIZED CODE";
    return static_cast<int>(code);
}

} // namespace oryx
