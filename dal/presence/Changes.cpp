// What other processes change: the wait for it, the change log event_notify, and the call managers, table acp.

#include <dal/PresenceDatabaseCommandExecutor.h>

#include <dal/internal/Call.h>
#include <dal/internal/Frame.h>
#include <dal/presence/ChangeLog.h>
#include <dal/presence/SqlCommand.h>

namespace oryx {

namespace {

/// Keeps the text of the row before where a column is NULL.
void readText(const Row& row, int column, std::string& text)
{
    if (const char* const value = row.text(column); value != nullptr) {
        text = value;
    }
}

Statement changesQuery(const std::string& tableName, const std::string& since)
{
    if (since.empty() || since == "0") {
        return sql(
            "SELECT pk_int, pk_char, evt_timestamp FROM event_notify WHERE table_name = '{}' AND evt_timestamp > 0;",
            tableName);
    }
    return sql(
        "SELECT pk_int, pk_char, evt_timestamp FROM event_notify WHERE table_name = '{}' AND evt_timestamp > '{}';",
        tableName, since);
}

/// A template's empty values ask for nothing.
void addCondition(Statement& query, SqlText<std::string> condition, const std::string& value)
{
    if (!value.empty()) {
        if (query.values().empty()) {
            query.append("WHERE ");
        } else {
            query.append(" AND ");
        }
        query.append(condition, value);
    }
}

Statement callManagerQuery(const std::vector<CMRecord>& wanted, bool regexMatch)
{
    Statement query = sql("SELECT handle,link_type,sip_trunk_ipaddress,sip_port FROM acp ");
    if (!wanted.empty()) {
        const CMRecord& like = wanted.front();
        if (regexMatch) {
            addCondition(query, "handle ~* '{}'", like.GetHandle());
            addCondition(query, "sip_trunk_ipaddress ~* '{}'", like.GetIPAddress());
            addCondition(query, "link_type ~* '{}'", like.GetLinkType());
            addCondition(query, "sip_port ~* '{}'", like.GetPort());
        } else {
            addCondition(query, "handle = '{}'", like.GetHandle());
            addCondition(query, "sip_trunk_ipaddress = '{}'", like.GetIPAddress());
            addCondition(query, "link_type = '{}'", like.GetLinkType());
            addCondition(query, "sip_port = '{}'", like.GetPort());
        }
    }
    return query.append(";");
}

/// The order matters: a port of its own counts unless the address has one, and a transport's default only without both.
void readCallManager(const Row& row, CMRecord& record)
{
    record.SetHandle(row.text(0));
    record.SetPort(row.text(3));
    record.SetLinkType(row.text(1));
    record.SetIPAddress(row.text(2));
}

} // namespace

DatabaseResult PresenceDatabaseCommandExecutor::waitForNotify(bool (*callback)(bool, const std::string&))
{
    return m_frame->guarded([&] {
        DatabaseResult outcome;
        if (m_frame->begin("waitForNotify() ", {}, outcome) && !m_frame->connection->waitOnListen(callback)) {
            errorConnection();
            return m_frame->connectionError();
        }
        return outcome;
    });
}

DatabaseResult PresenceDatabaseCommandExecutor::getUpdatedPrimaryKeys(const std::string& tableName,
                                                                      const std::string& since,
                                                                      std::vector<DatabaseUpdate>& updates)
{
    return readChangeLog(*m_frame, tableName, since, updates);
}

DatabaseResult readChangeLog(Frame& frame, const std::string& tableName, const std::string& since,
                             std::vector<DatabaseUpdate>& updates)
{
    return frame.guarded([&] {
        DatabaseResult outcome;
        if (!frame.begin("getUpdatedPrimaryKeys()", {{tableName.empty(), "invalid parameters"}}, outcome)) {
            return outcome;
        }
        const std::string table = copied(tableName.c_str()); // each update repeats it, and it may be an update's text
        Statement statement = changesQuery(table, since);
        frame.traceText(statement, "sql: ");
        QueryResult result;
        outcome = frame.runForResult(statement, result);
        if (!outcome.okay()) {
            return outcome;
        }
        const int rows = result.rows();
        frame.trace.prn("retrieved %d rows", rows);
        if (rows == 0) {
            outcome.setNotFound();
        }
        std::string number;
        std::string text;
        std::string timestamp;
        forEachRow(result, updates, [&](const Row& row) {
            readText(row, 0, number);
            readText(row, 1, text);
            readText(row, 2, timestamp);
            const DatabaseUpdate& update = updates.emplace_back(table, leadingInt(number.c_str()), text, "", timestamp);
            frame.trace.prn("getUpdatedPrimaryKeys: DatabaseUpdate - [%s, %d, %s, %s, %s] ",
                            update.relation_name().c_str(), update.intpkey(), update.strpkey().c_str(),
                            update.cmd().c_str(), update.timestamp().c_str());
        });
        return outcome;
    });
}

DatabaseResult PresenceDatabaseCommandExecutor::getCMforBulkSub(std::vector<CMRecord>& records, bool regexMatch)
{
    const Call call(*m_frame);
    return m_frame->guarded([&] {
        DatabaseResult outcome;
        if (!m_frame->begin("getCMforBulkSub(): getCMRecord ...", {}, outcome)) {
            return outcome;
        }
        Statement statement = callManagerQuery(records, regexMatch);
        m_frame->traceText(statement, "PresenceDatabaseCommandExecutor::getCMforBulkSub(): ");
        QueryResult result;
        executeSqlCommand(*m_frame, std::move(statement), result); // call managers that cannot be read are none
        m_frame->trace.prn("cmRecordList size %d", result.rows());
        replaceByRows(result, records, [](auto& read, const Row& row) { readCallManager(row, read.emplace_back()); });
        m_frame->trace.prn("PresenceDatabaseCommandExecutor::getCMforBulkSub(): subscriptions size %d ",
                           static_cast<int>(records.size()));
        return outcome;
    });
}

} // namespace oryx
