// An event server that starts afresh empties what its last run left: dialogs, watchers, sources, lists' subscriptions
// and watcher information.

#include <dal/DatabaseConnection.h>
#include <dal/presence/Verbs.h>

namespace oryx {

DatabaseResult PresenceDatabaseCommandExecutor::removeSubscriptionStates()
{
    return insertOrDelete("removeSubscriptionStates()", {},
                          [] { return std::string("DELETE FROM subscription_states;"); });
}

DatabaseResult PresenceDatabaseCommandExecutor::removeEventWatchers()
{
    return insertOrDelete("removeEventWatchers()", {}, [] { return std::string("DELETE FROM event_watchers;"); });
}

DatabaseResult PresenceDatabaseCommandExecutor::removeEventSources()
{
    return insertOrDelete("removeEventSources()", {}, [] { return std::string("DELETE FROM event_sources;"); });
}

DatabaseResult PresenceDatabaseCommandExecutor::removeListWatchers()
{
    return insertOrDelete("removeListWatchers()", {}, [] { return std::string("DELETE FROM listsubscriptions;"); });
}

DatabaseResult PresenceDatabaseCommandExecutor::removeWinfoWatchers()
{
    return insertOrDelete("removeWinfoWatchers()", {}, [] { return std::string("DELETE FROM watcherinfo;"); });
}

DatabaseResult PresenceDatabaseCommandExecutor::removeEventServerState()
{
    DatabaseResult outcome;
    if (!begin("removeEventServerState()", {}, outcome)) {
        return outcome;
    }
    const std::string transaction =
        "BEGIN TRANSACTION;DELETE FROM SUBSCRIPTION_STATES;DELETE FROM EVENT_WATCHERS;DELETE FROM EVENT_SOURCES;DELETE FROM LISTSUBSCRIPTIONS;DELETE FROM WATCHERINFO;COMMIT TRANSACTION;";
    m_trace.prn(transaction);
    QueryResult result;
    if (!m_conn->execute(transaction, result)) {
        outcome = connectionError(); // with the last failure that had words
        m_trace.prn("transaction failed because of connection error, rolling back");
        rollback();
    } else if (result.failed()) {
        error(result);
        outcome = connectionError();
        m_trace.prn("transaction failed, rolling back");
        rollback();
    }
    return outcome;
}

} // namespace oryx
