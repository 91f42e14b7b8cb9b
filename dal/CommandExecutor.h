#pragma once

#include <dal/QueryResult.h>
#include <dal/SessionOptions.h>
#include <dal/SessionStatistics.h>
#include <dal/ValueString.h>
#include <util/OryxExport.h>

#include <memory>
#include <string>
#include <vector>

namespace oryx {

class Frame;

/// What both command executors stand on: the connection they own, the running of statements, the error text, and the
/// server's domain list.
///
/// Nothing is thrown by an operation: where memory runs out it fails for that reason, "out of memory", and what it was
/// to fill is as it was, or as it is set before the server is asked (a key of -1, say). Operations that return `bool`
/// leave the reason of a failure in `getErrorMessage()`. An executor is used by one thread at a time.
/// \ingroup core
class ORYX_EXPORT CommandExecutor {
public:
    // The row of `system_parameters` that lists the SIP domains this server answers for.
    static const std::string SYSTEM_PARAMETERS_ORYX_PROXY;   ///< The application of the domain list's row.
    static const std::string SYSTEM_PARAMETERS_SERVER_INFO;  ///< The scope of the domain list's row.
    static const std::string SYSTEM_PARAMETERS_SERVER_NAMES; ///< The name of the domain list's row.

    virtual ~CommandExecutor();
    CommandExecutor(const CommandExecutor&) = delete;
    CommandExecutor& operator=(const CommandExecutor&) = delete;

    /// How the next connection sends its statements; until this is called, as the environment says.
    void setSessionOptions(const SessionOptions& options);
    /// Replaces the connection by a new one, connected with the arguments of `DatabaseConnection::connect`.
    bool connect(const char* uri, const char* user, const char* password);
    /// Whether there is a usable connection; one that was lost is reset first.
    bool checkConnect();

    /// Runs a statement whose rows nobody reads. Okay, connection error, or query error.
    DatabaseResult execute(const std::string& query);
    /// Runs a change; `count` gets the number of rows it touched, and is left as it was on a failure. The caller has
    /// called `checkConnect()`.
    bool executeUpdate(const std::string& cmd, int& count);

    /// The SQLSTATE of the last failure, empty where the server said nothing: for operations that answer with a number.
    const std::string& getSqlState() const;
    /// What has become of the executor's connections and statements so far; for any thread.
    SessionStatistics getStatistics() const;

    /// Success: empties the error text. Always true.
    bool okay();
    /// Failure with the given reason, null for an empty one. Always false.
    bool error(const char* msg);
    /// Failure with the statement's reason. Always false.
    bool error(const QueryResult& r);
    /// Failure with the connection's reason. Always false.
    bool errorConnection();

    /// The value of a row of `system_parameters`; empty when there is none, when an argument is empty, and on every
    /// failure.
    virtual std::string getSystemParameterValue(const std::string& application, const std::string& scope,
                                                const std::string& name) = 0;
    /// Replaces `domainNameList` by the SIP domains this server answers for, and returns their number.
    int getDomainNameList(std::vector<std::string>& domainNameList);
    /// Sets `domainName` to the domain at `index`, to empty when there is none, and returns it.
    virtual std::string& getNthElementOfDomainList(std::string& domainName, unsigned int index) = 0;
    /// The first domain of the list.
    std::string& getDomainName(std::string& domainName);

protected:
    friend Frame& frameOf(CommandExecutor& executor); ///< For the services.

    /// Without a connection; traces on the channel of that name.
    explicit CommandExecutor(const char* channel);

    std::unique_ptr<Frame> m_frame; ///< Connection, error text and trace, and what the operations do with them.
};

} // namespace oryx
