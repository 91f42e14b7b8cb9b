#pragma once

#include <dal/DatabaseResult.h>
#include <dal/PresenceDal.h>
#include <dal/SessionOptions.h>
#include <util/OryxExport.h>
#include <zel/Trace.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace oryx {

class ListeningConnection;
class StopSignal;

/// Up to where the change log has been delivered: for each table's name the highest time stamp, what
/// `getUpdatedPrimaryKeys` calls "since".
/// \ingroup listening
using ChangePosition = std::map<std::string, std::string>;

/// A table that may have changed.
/// \ingroup listening
struct ChangedTable {
    /// Its name.
    std::string name;
    /// Whether it must be read again: `rows` does not tell all that has changed. Always, unless the change log is
    /// followed; with it, where there was no position yet or the server refused to show the log.
    bool readAgain = true;
    /// The logged changes since the position, one for each, in the order in which they could be seen. Empty unless the
    /// log is followed, and where they came with the call before.
    std::vector<DatabaseUpdate> rows;
};

/// All that has been heard since the call before.
/// \ingroup listening
struct ChangeSet {
    /// Whether nobody was listening before: the first call after every connection, in which all tables are named. Who
    /// reads tables reads all of them again. Who follows the change log has what happened meanwhile in the rows of each
    /// table, but for tables with `readAgain`; unless he was away for longer than the log is kept.
    bool everything = false;
    /// The tables, each once, in the order "acp", "extension", "conf_state", "conf_state_reset", "public_address",
    /// "subscriber", "contact_set", "sip_event_aggregator", and "publication", "access_control_list" and
    /// "system_parameters" where they are asked for.
    std::vector<ChangedTable> tables;
    /// The position behind these changes: what to start from after them.
    ChangePosition position;
};

/// How a `ChangeListener` listens.
/// \ingroup listening
struct ChangeListenerOptions {
    /// How statements are sent. The deadline does not count: a listener has times of its own.
    SessionOptions session = SessionOptions::fromEnvironment();
    /// After so long without a word from the server it is looked whether it still is there; at least a millisecond.
    std::chrono::milliseconds idleCheck{5000};
    /// A server that is asked and says nothing for so long is gone: while connecting, for an answer, and for the
    /// notification that the listener sends itself; at least a millisecond.
    std::chrono::milliseconds answerTime{5000};
    /// Whether the rows that have changed are read from the change log.
    bool followLog = false;
    /// Where to go on in it; a stamp of "0" is its beginning. A table that is missing here begins with what is logged
    /// after the first call.
    ChangePosition position = {};
    /// Whether the table "publication" is heard of too (`dal/Publications.h`): what is published through other servers.
    bool publications = false;
    /// Whether the table "access_control_list" is heard of too: that rules, nodes, or presence lists with their members
    /// and watchers have changed. It is not in the change log, and always to be read again.
    bool accessRules = false;
    /// Whether the table "system_parameters" is heard of too: the list of domains served is one of them. It is not in
    /// the change log, and always to be read again.
    bool parameters = false;
};

/// Hears of the changes of provisioning, on a connection of its own, and never falls behind: whatever is pending is
/// handed over at once, each table once.
///
/// A connection that is lost is noticed at once where the network tells, and within `idleCheck` and `answerTime`
/// together where it does not; so is a pooler that lends sessions by the transaction, through which nothing is heard.
/// It is then made anew, after pauses of 0.1 s to 3.2 s, for as long as it takes, while failure lines on the channel
/// "oryx" say why. To be sure that it hears others, the listener opens a second connection for a moment whenever it
/// connects.
///
/// One thread runs a listener, and it alone asks for the position meanwhile; `stop` may be called from anywhere. It
/// must live until `run` has returned and nobody calls `stop` any more.
/// \ingroup listening
class ORYX_EXPORT ChangeListener {
public:
    /// What gets the changes, on the thread that runs the listener. It may take its time, and may call `stop`.
    using Callback = std::function<void(const ChangeSet& changes)>;

    /// Touches no database. The arguments are those of `DatabaseConnection::connect`.
    ChangeListener(std::string uri, std::string user, std::string password,
                   ChangeListenerOptions options = ChangeListenerOptions());
    ~ChangeListener();
    ChangeListener(const ChangeListener&) = delete;
    ChangeListener& operator=(const ChangeListener&) = delete;

    /// Listens and calls back, until `stop`; may then be run again. Okay when it was stopped; at once a query error
    /// without a callback, and a connection error when the process has no descriptor left to be stopped by.
    ///
    /// Where memory runs out the listener connects anew, as after a lost connection. What the callback throws comes out
    /// of here: the connection is closed, and as the position counts only what the callback has returned from, the same
    /// rows come again with the next run.
    DatabaseResult run(const Callback& callback);
    /// Ends the run that is under way, or the next one as it begins; asked several times until then, it ends that one
    /// run. Safe in a signal handler and from any thread.
    ///
    /// It takes effect within 100 ms, whatever the run waits for: changes, a connection, an answer. Only a callback is
    /// waited for, and the look-up of a name in DNS.
    void stop() noexcept;
    /// Whether changes are heard of: after the first call on a connection has returned, and until it is known to be
    /// lost. What was read since and no call has named may be kept. From any thread.
    bool listening() const noexcept { return m_listening; }
    /// Up to where the change log has been handed over to calls that have returned.
    const ChangePosition& position() const { return m_position; }

private:
    void listen(const Callback& callback);
    bool hear(std::optional<ListeningConnection>& connection, ChangeSet& changes);
    bool open(ListeningConnection& connection);
    bool take(ListeningConnection& connection, bool everything, ChangeSet& changes);
    bool readLog(ListeningConnection& connection, ChangedTable& table, ChangePosition& position);
    void tellListening();
    void tellFailure(const std::string& reason);
    bool tellOutOfMemory();

    std::string m_uri;
    std::string m_user;
    std::string m_password;
    ChangeListenerOptions m_options;
    ChangePosition m_position;
    std::unique_ptr<StopSignal> m_stop;
    std::chrono::milliseconds m_pause{0};
    std::atomic<bool> m_listening{false};
    std::string m_toldFailure;              // empty while all is well
    std::set<std::string> m_unreadableLogs; // of these tables, as was told
    zel::Trace m_trace{"oryx"};
};

} // namespace oryx
