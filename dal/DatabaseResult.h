#pragma once

#include <util/OryxExport.h>

#include <string>

namespace oryx {

/// The outcome of every operation of the services and executors: a status and, for failures, a message.
///
/// Setting a status never touches the message; "not found" normally carries none.
/// \ingroup core
class ORYX_EXPORT DatabaseResult {
public:
    /// The numbers are stored and compared by the servers; there is no 4.
    enum status { OKAY = 0, CONNECTION_ERROR = 1, QUERY_ERROR = 2, NOTFOUND = 3, CONSTRAINT_ERROR = 5 };

    /// The status; okay in a fresh result.
    status getStatus() const { return m_status; }

    /// The operation did what it says; its out arguments hold the answer.
    bool okay() const { return m_status == OKAY; }
    /// There was no usable connection to the server. Where an operation says so, the server refused the statement: the
    /// event server's changes and `LocationService::lookupSubscriber` do not tell the two apart.
    bool connectionError() const { return m_status == CONNECTION_ERROR; }
    /// The statement failed, an argument was refused before anything was sent, or memory ran out ("out of memory").
    bool queryError() const { return m_status == QUERY_ERROR; }
    /// A connection or a query error: nothing is known about the rows asked for.
    bool fatalError() const { return connectionError() || queryError(); }
    /// The statement ran, and there is no such row.
    bool notFound() const { return m_status == NOTFOUND; }
    /// A unique, foreign-key, not-null or check constraint refused the change; `addWatcher` alone tells so.
    bool constraintError() const { return m_status == CONSTRAINT_ERROR; }

    ///@{
    /// Sets the status; the message stays.
    void setOkay() { m_status = OKAY; }
    void setNotFound() { m_status = NOTFOUND; }
    void setConnectionError() { m_status = CONNECTION_ERROR; }
    void setQueryError() { m_status = QUERY_ERROR; }
    void setConstraintError() { m_status = CONSTRAINT_ERROR; }
    ///@}

    ///@{
    /// Sets the message; a null text leaves it as it is. The status stays.
    void setErrorMessage(const char* msg);
    void setErrorMessage(const std::string& msg) { m_message = msg; }
    ///@}
    /// The message; empty until it is set.
    const std::string& getErrorMessage() const { return m_message; }

    /// The five-character SQLSTATE that the server gave with a failed statement: "23505" for a row that is already
    /// there, "57014" for one that ran out of time. Empty where the server said nothing.
    const std::string& getSqlState() const { return m_sqlState; }
    /// Sets the SQLSTATE; status and message stay.
    void setSqlState(const std::string& sqlState) { m_sqlState = sqlState; }

private:
    status m_status = OKAY;
    std::string m_message;
    std::string m_sqlState;
};

} // namespace oryx
