#pragma once

#include <dal/DatabaseResult.h>
#include <util/OryxExport.h>
#include <zel/Trace.h>

#include <string>
#include <utility>

struct pg_result;
using PGresult = pg_result;

namespace oryx {

/// The result of one executed statement, with the statement's text.
///
/// Owns its libpq result. A fresh object is "not executed": every question gets its neutral answer. Used by one thread
/// at a time.
/// \ingroup core
class ORYX_EXPORT QueryResult {
public:
    /// SQLSTATE of a statement that succeeded.
    static const std::string SQL_SUCCESSFUL_COMPLETION;
    /// SQLSTATE whose class, its first two characters, all constraint violations share.
    static const std::string SQL_INTEGRITY_CONSTRAINT_VIOLATION;

    QueryResult() = default;
    ~QueryResult();
    QueryResult(const QueryResult&) = delete;
    QueryResult& operator=(const QueryResult&) = delete;

    /// Takes ownership of `pres`, which may be null, and frees the result held before.
    void setResult(PGresult* pres);
    /// Makes this the result of a statement that was refused before it was sent.
    void setRefusal(const char* message, const char* sqlState);
    ///@{
    /// Sets the text that counts as the statement's.
    void setSqlCommand(const std::string& sqlCommand_) { m_sqlCommand = sqlCommand_; }
    void setSqlCommand(std::string&& sqlCommand_) { m_sqlCommand = std::move(sqlCommand_); }
    ///@}
    /// The statement's text; empty until it is set.
    const std::string& getSqlCommand() const { return m_sqlCommand; }

    /// True for a held result that is neither a completed command nor a set of rows. Traces the result's status.
    bool failed() const
    {
        if (m_result != nullptr && zel::Trace::enabled(zel::TraceKind::prn)) {
            traceStatus();
        }
        return m_failed;
    }

    /// Rows of the result; 0 without one.
    int rows() const { return m_rows; }
    /// Columns of the result; 0 without one.
    int columns() const { return m_columns; }
    /// Rows that the command changed (or selected); 0 without a result.
    int updateCount() const;

    /// The name of a column, null when there is no such column.
    const char* getColumnName(int col) const;
    /// The text at a row and column, null outside the result; SQL NULL reads as an empty text. Valid as long as the
    /// result is held.
    const char* getValue(int row, int col) const;
    /// Whether SQL NULL stands at a row and column; true outside the result too.
    bool isNull(int row, int column) const;

    /// The five-character SQLSTATE, `SQL_SUCCESSFUL_COMPLETION` when there is none.
    std::string getSqlState() const;
    /// Whether a constraint (SQLSTATE class 23) refused the statement.
    bool integrityConstraintViolation() const;
    /// The server's message, the SQLSTATE and the statement in one text.
    std::string getErrorMessage() const;
    /// The libpq status number, its name in `s`; -1 without a result.
    int getErrorCode(std::string& s) const;

private:
    friend class DatabaseConnection;

    /// Whether the server refused the statement, or libpq lost it.
    bool fatal() const;
    void traceStatus() const;
    bool contains(int row, int col) const { return row >= 0 && row < m_rows && col >= 0 && col < m_columns; }

    PGresult* m_result = nullptr;
    bool m_failed = false;
    int m_rows = 0;
    int m_columns = 0;
    std::string m_refusal; // why the statement was not sent, if it was not
    std::string m_refusalState;
    // The connection's own channel: an operator follows a statement and its result as one story. Mutable, because a
    // suite's own traces need not be const.
    mutable zel::Trace m_trace{"DatabaseConnection"};
    std::string m_sqlCommand;
};

} // namespace oryx
