#include <dal/presence/SqlCommand.h>

#include <dal/internal/Traced.h>

namespace oryx {

namespace {

void traceRows(const QueryResult& qres, zel::Trace& trace)
{
    const int rows = qres.rows();
    const int affected = qres.updateCount();
    if (rows == 0 && affected == 0) {
        trace.prn(
            "PresenceDatabaseCommandExecutor::executeSqlCmd: 0 rows selected (Query) or affected (Update, Insert, or Delete)!");
    }
    if (rows > 0) {
        trace.prn("PresenceDatabaseCommandExecutor::executeSqlCmd: retrieved %d rows.", rows);
    }
    if (affected > 0) {
        trace.prn("PresenceDatabaseCommandExecutor::executeSqlCmd: %d rows affected!", affected);
    }
}

/// A statement that neither selected nor touched a row found nothing.
inline DatabaseResult judgeRows(const QueryResult& qres, zel::Trace& trace)
{
    DatabaseResult result;
    if (qres.rows() == 0 && qres.updateCount() == 0) {
        result.setNotFound();
    }
    if (zel::Trace::enabled(zel::TraceKind::prn)) {
        traceRows(qres, trace);
    }
    return result;
}

template <typename Command>
DatabaseResult runTraced(Frame& frame, Command& command, const std::string& shown, QueryResult& qres)
{
    if (!frame.checkConnect()) {
        frame.trace.prn("PresenceDatabaseCommandExecutor::executeSqlCmd: '%s': checkConnect() failed!", shown.c_str());
        return frame.connectionError();
    }
    if (zel::Trace::enabled(zel::TraceKind::prn)) {
        frame.trace.prn("PresenceDatabaseCommandExecutor::executeSqlCmd(): '%s'", shown.c_str());
    }
    const Run outcome = frame.send(command, qres);
    if (outcome == Run::okay) {
        return judgeRows(qres, frame.trace);
    }
    frame.trace.prn("PresenceDatabaseCommandExecutor::executeSqlCmd: '%s': %s", shown.c_str(),
                    outcome == Run::connectionFailed ? "errorConnection() failed!" : "queryResult.failed()!");
    frame.keepReason(outcome, qres);
    return outcome == Run::connectionFailed ? frame.connectionError() : frame.queryError();
}

} // namespace

DatabaseResult executeSqlCommand(Frame& frame, Statement&& statement, QueryResult& result)
{
    std::string shown;
    if (zel::Trace::enabled(zel::TraceKind::prn)) {
        frame.trace.prn("PresenceDatabaseCommandExecutor::executeSqlCmd(): ");
        shown = frame.textOf(statement);
    }
    return runTraced(frame, statement, shown, result);
}

DatabaseResult executeSqlCommand(Frame& frame, const std::string& text, QueryResult& result)
{
    if (&text == &frame.errorText) {
        return executeSqlCommand(frame, std::string(text), result); // a failure changes it before it is traced
    }
    traceProgress(frame.trace, "PresenceDatabaseCommandExecutor::executeSqlCmd(): ");
    if (text.empty()) {
        DatabaseResult refusal;
        refusal.setQueryError();
        refusal.setErrorMessage("PresenceDatabaseCommandExecutor::executeSqlCmd: --- Empty query command! ---");
        return refusal;
    }
    return runTraced(frame, text, text, result);
}

} // namespace oryx
