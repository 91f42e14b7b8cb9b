// An event server that starts afresh empties what its last run left: dialogs, watchers, sources, lists' subscriptions
// and watcher information.

#include <dal/PresenceDatabaseCommandExecutor.h>

#include <dal/internal/Frame.h>

namespace oryx {

DatabaseResult PresenceDatabaseCommandExecutor::removeSubscriptionStates()
{
    return m_frame->insertOrDelete("removeSubscriptionStates()", {},
                                   [] { return sql("DELETE FROM subscription_states;"); });
}

DatabaseResult PresenceDatabaseCommandExecutor::removeEventWatchers()
{
    return m_frame->insertOrDelete("removeEventWatchers()", {}, [] { return sql("DELETE FROM event_watchers;"); });
}

DatabaseResult PresenceDatabaseCommandExecutor::removeEventSources()
{
    return m_frame->insertOrDelete("removeEventSources()", {}, [] { return sql("DELETE FROM event_sources;"); });
}

DatabaseResult PresenceDatabaseCommandExecutor::removeListWatchers()
{
    return m_frame->insertOrDelete("removeListWatchers()", {}, [] { return sql("DELETE FROM listsubscriptions;"); });
}

DatabaseResult PresenceDatabaseCommandExecutor::removeWinfoWatchers()
{
    return m_frame->insertOrDelete("removeWinfoWatchers()", {}, [] { return sql("DELETE FROM watcherinfo;"); });
}

DatabaseResult PresenceDatabaseCommandExecutor::removeEventServerState()
{
    return m_frame->guarded([&] {
        DatabaseResult outcome;
        if (!m_frame->begin("removeEventServerState()", {}, outcome)) {
            return outcome;
        }
        const Transaction transaction{"BEGIN TRANSACTION;",
                                      {sql("DELETE FROM SUBSCRIPTION_STATES;"), sql("DELETE FROM EVENT_WATCHERS;"),
                                       sql("DELETE FROM EVENT_SOURCES;"), sql("DELETE FROM LISTSUBSCRIPTIONS;"),
                                       sql("DELETE FROM WATCHERINFO;")},
                                      "COMMIT TRANSACTION;"};
        if (zel::Trace::enabled(zel::TraceKind::prn)) {
            m_frame->trace.prn(m_frame->textOf(transaction));
        }
        QueryResult result;
        if (!m_frame->exchange(transaction, result)) {
            outcome = m_frame->unanswered();
            m_frame->trace.prn("transaction failed because of connection error, rolling back");
            m_frame->rollback();
        } else if (result.failed()) {
            error(result);
            outcome = m_frame->connectionError();
            m_frame->trace.prn("transaction failed, rolling back");
            m_frame->rollback();
        }
        return outcome;
    });
}

} // namespace oryx
