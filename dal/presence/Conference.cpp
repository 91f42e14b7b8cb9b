// Conference extensions and their state: table conf_state, and what the schema keeps about it.

#include <dal/PresenceDatabaseCommandExecutor.h>

#include <dal/UtilityConvert.h>
#include <dal/internal/Traced.h>
#include <dal/presence/SqlCommand.h>

namespace oryx {

namespace {

enum State : unsigned int { kIdle = 0, kInUse = 1, kInvalid = 2 };

/// A change writes a signed number, an addition an unsigned one: either reads back as what was written.
unsigned int readTime(const Row& row, int column)
{
    const char* const value = row.text(column);
    return value != nullptr ? leadingUnsigned(value) : 0;
}

Statement conferenceQuery(const std::string& pattern, bool negate)
{
    Statement query = sql("SELECT * FROM conf_state ");
    if (!pattern.empty()) {
        query.append("WHERE ");
        if (negate) {
            query.append("NOT ");
        }
        query.append("(conf_status ~* '{}')", pattern);
    }
    return query.append(";");
}

template <typename Command>
DatabaseResult selectRecords(Frame& frame, Command&& command, std::vector<ConfExtRecord>& out)
{
    return frame.guarded([&] {
        frame.trace.prn("PresenceDatabaseCommandExecutor::selectMultipleConfExtRecords(): ");
        QueryResult result;
        DatabaseResult outcome = executeSqlCommand(frame, std::forward<Command>(command), result);
        const int rows = result.rows();
        if (rows == 0) {
            frame.trace.prn("PresenceDatabaseCommandExecutor::selectMultipleConfExtRecords: Empty results!");
            return outcome;
        }
        frame.trace.prn("PresenceDatabaseCommandExecutor::selectMultipleConfExtRecords: retrieved %d rows", rows);
        replaceByRows(result, out, [](auto& read, const Row& row) {
            read.emplace_back(row.string(0), row.string(1), readTime(row, 2));
        });
        return outcome;
    });
}

} // namespace

const std::string PresenceDatabaseCommandExecutor::STR_CONF_IN_USE = "IN USE";
const std::string PresenceDatabaseCommandExecutor::STR_CONF_IDLE = "IDLE";
const std::string PresenceDatabaseCommandExecutor::STR_CONF_INVALID = "INVALID";

const std::string& PresenceDatabaseCommandExecutor::confStateEnumToString(unsigned int state)
{
    switch (state) {
    case kIdle:
        return STR_CONF_IDLE;
    case kInUse:
        return STR_CONF_IN_USE;
    default:
        return STR_CONF_INVALID;
    }
}

unsigned int PresenceDatabaseCommandExecutor::confStateStringToEnum(const std::string& text)
{
    if (text.size() > STR_CONF_INVALID.size()) {
        return kInvalid; // longer than any state
    }
    std::string upper = text;
    UtilityConvert::toUpperCase(upper);
    if (upper.empty() || upper == STR_CONF_IDLE) {
        return kIdle;
    }
    return upper == STR_CONF_IN_USE ? kInUse : kInvalid;
}

DatabaseResult PresenceDatabaseCommandExecutor::getConfExtState(const std::string& extension, std::string& status,
                                                                unsigned int& start_time)
{
    m_frame->trace.prn("getConfExtState()");
    if (extension.empty()) {
        return m_frame->guarded([&] { return m_frame->refuse("getConfExtState: missing one or more parameters\n"); });
    }
    bool read = false;
    DatabaseResult outcome = m_frame->guarded([&] {
        // Before the answer is written: the extension may be the very text that gets the status.
        Statement statement = sql("SELECT conf_status, start_time FROM conf_state WHERE extension = '{}';", extension);
        QueryResult result;
        DatabaseResult answer = executeSqlCommand(*m_frame, std::move(statement), result);
        if (answer.okay() && result.rows() > 0) {
            const Row row(result, 0);
            status = row.string(0);
            start_time = readTime(row, 1);
            read = true;
        }
        return answer;
    });
    if (!read) {
        status.clear();
        start_time = 0;
        outcome.setNotFound(); // to the caller, what cannot be read is not there
    }
    return outcome;
}

DatabaseResult PresenceDatabaseCommandExecutor::setConfExtState(const std::string& extension, const std::string& status,
                                                                unsigned int start_time)
{
    return m_frame->guarded([&] {
        traceProgress(m_frame->trace, "setConfExtState()");
        if (extension.empty()) {
            return m_frame->refuse("setConfExtState: missing one or more parameters\n");
        }
        QueryResult result;
        return executeSqlCommand(
            *m_frame,
            sql("UPDATE conf_state SET conf_status ='{}', start_time ='{}' WHERE extension = '{}';", status,
                static_cast<int>(start_time), extension)
                .once(),
            result);
    });
}

DatabaseResult PresenceDatabaseCommandExecutor::addConfExtState(const ConfExtRecord& record)
{
    return m_frame->guarded([&] {
        m_frame->trace.prn("PresenceDatabaseCommandExecutor::addConfExtState()");
        if (record.extension().empty()) {
            return m_frame->refuse("addConfExtState: missing one or more parameters\n");
        }
        ValueString columns;
        columns.add("extension", record.extension());
        columns.add("conf_status", record.conf_status());
        columns.addExplicit("start_time", record.start_time());
        QueryResult result;
        return executeSqlCommand(*m_frame, insertion("INSERT INTO conf_state {} VALUES{};", std::move(columns)).once(),
                                 result);
    });
}

DatabaseResult PresenceDatabaseCommandExecutor::deleteConfExtState(const std::string& extension)
{
    return m_frame->guarded([&] {
        m_frame->trace.prn("PresenceDatabaseCommandExecutor::deleteConfExtState()");
        if (extension.empty()) {
            return m_frame->refuse("deleteConfExtState(): missing one or more parameters\n");
        }
        QueryResult result;
        return executeSqlCommand(*m_frame, sql("DELETE FROM conf_state WHERE extension = '{}';", extension), result);
    });
}

DatabaseResult PresenceDatabaseCommandExecutor::getAllConfExtRecord(std::vector<ConfExtRecord>& out,
                                                                    const std::string& pattern, bool negate)
{
    return m_frame->guarded([&] {
        m_frame->trace.prn("PresenceDatabaseCommandExecutor::getAllConfExtRecord(): ");
        Statement statement = conferenceQuery(pattern, negate);
        m_frame->traceText(statement, "PresenceDatabaseCommandExecutor::getAllConfExtRecord: ");
        return selectRecords(*m_frame, std::move(statement), out);
    });
}

DatabaseResult PresenceDatabaseCommandExecutor::selectMultipleConfExtRecords(const std::string& sqlText,
                                                                             std::vector<ConfExtRecord>& out)
{
    return selectRecords(*m_frame, sqlText, out);
}

DatabaseResult PresenceDatabaseCommandExecutor::getAllValidConfExts(std::vector<ConfExtRecord>& out)
{
    m_frame->trace.prn("PresenceDatabaseCommandExecutor::getAllValidConfExts(): ");
    return selectRecords(*m_frame, sql("select * from select_all_valid_conf_ext;"), out);
}

DatabaseResult PresenceDatabaseCommandExecutor::getAllObsoleteConfExtNotInUse(std::vector<ConfExtRecord>& out)
{
    m_frame->trace.prn("PresenceDatabaseCommandExecutor::getAllObsoleteConfExtNotInUse(): ");
    return selectRecords(*m_frame, sql("select extension, conf_status from select_all_obsolete_conf_ext_not_in_use;"),
                         out);
}

DatabaseResult PresenceDatabaseCommandExecutor::deleteAllObsoleteConfExtNotInUse()
{
    return m_frame->guarded([&] {
        m_frame->trace.prn("PresenceDatabaseCommandExecutor::deleteAllObsoleteConfExtNotInUse(): ");
        QueryResult result;
        DatabaseResult outcome = executeSqlCommand(
            *m_frame,
            sql("delete from conf_state where conf_status != 'IN USE' and extension not in (select extension from extension where ext_type='c');"),
            result);
        if (outcome.okay() && result.rows() > 0) {
            m_frame->trace.prn(
                "PresenceDatabaseCommandExecutor::deleteAllObsoleteConfExtNotInUse(): --- Deleted obsolete rows= %s",
                result.getValue(0, 0));
        }
        return outcome;
    });
}

DatabaseResult PresenceDatabaseCommandExecutor::reserveRandomlyIdleConfExtAsInUse(std::string& extension)
{
    return m_frame->guarded([&] {
        traceProgress(m_frame->trace, "PresenceDatabaseCommandExecutor::reserveRandomlyIdleConfExtAsInUse(): ");
        extension.clear();
        QueryResult result;
        DatabaseResult outcome = executeSqlCommand(
            *m_frame,
            sql("select * FROM reserve_one_available_conf_ext_randomly() where reserve_one_available_conf_ext_randomly IS NOT NULL;")
                .onceAnswered(),
            result);
        if (outcome.okay()) {
            if (result.rows() > 0) {
                extension = result.getValue(0, 0);
            }
            m_frame->traceRows("PresenceDatabaseCommandExecutor::reserveRandomlyIdleConfExtAsInUse: retrieved %d rows",
                               result.rows());
        }
        return outcome;
    });
}

} // namespace oryx
