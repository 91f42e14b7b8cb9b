// What other processes change: the wait for it, the change log event_notify, and the call managers, table acp.

#include <dal/PresenceDatabaseCommandExecutor.h>

#include <dal/internal/Frame.h>

namespace oryx {

namespace {

/// Keeps the text of the row before where a column is NULL.
void readText(const Row& row, int column, std::string& text)
{
    if (const char* const value = row.text(column); value != nullptr) {
        text = value;
    }
}

std::string changesQuery(const std::string& tableName, const std::string& since)
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
void addCondition(std::string& conditions, const char* column, const char* comparison, const std::string& value)
{
    if (!value.empty()) {
        appendSql(conditions, "{}{}{}'{}'", conditions.empty() ? "WHERE " : " AND ", column, comparison, value);
    }
}

std::string callManagerQuery(const std::vector<CMRecord>& wanted, bool regexMatch)
{
    std::string conditions;
    if (!wanted.empty()) {
        const char* const comparison = regexMatch ? " ~* " : " = ";
        addCondition(conditions, "handle", comparison, wanted.front().GetHandle());
        addCondition(conditions, "sip_trunk_ipaddress", comparison, wanted.front().GetIPAddress());
        addCondition(conditions, "link_type", comparison, wanted.front().GetLinkType());
        addCondition(conditions, "sip_port", comparison, wanted.front().GetPort());
    }
    return sql("SELECT handle,link_type,sip_trunk_ipaddress,sip_port FROM acp {};", conditions);
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
    DatabaseResult outcome;
    if (m_frame->begin("waitForNotify() ", {}, outcome) && !m_frame->connection->waitOnListen(callback)) {
        errorConnection();
        return m_frame->connectionError();
    }
    return outcome;
}

DatabaseResult PresenceDatabaseCommandExecutor::getUpdatedPrimaryKeys(const std::string& tableName,
                                                                      const std::string& since,
                                                                      std::vector<DatabaseUpdate>& updates)
{
    DatabaseResult outcome;
    if (!m_frame->begin("getUpdatedPrimaryKeys()", {{tableName.empty(), "invalid parameters"}}, outcome)) {
        return outcome;
    }
    const std::string table = copied(tableName.c_str()); // each update repeats it, and it may be an update's text
    const std::string statement = changesQuery(table, since);
    m_frame->trace.prn("sql: %s", statement.c_str());
    QueryResult result;
    outcome = m_frame->runForResult(statement, result);
    if (!outcome.okay()) {
        return outcome;
    }
    const int rows = result.rows();
    m_frame->trace.prn("retrieved %d rows", rows);
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
        m_frame->trace.prn("getUpdatedPrimaryKeys: DatabaseUpdate - [%s, %d, %s, %s, %s] ",
                           update.relation_name().c_str(), update.intpkey(), update.strpkey().c_str(),
                           update.cmd().c_str(), update.timestamp().c_str());
    });
    return outcome;
}

DatabaseResult PresenceDatabaseCommandExecutor::getCMforBulkSub(std::vector<CMRecord>& records, bool regexMatch)
{
    DatabaseResult outcome;
    if (!m_frame->begin("getCMforBulkSub(): getCMRecord ...", {}, outcome)) {
        return outcome;
    }
    const std::string statement = callManagerQuery(records, regexMatch);
    m_frame->trace.prn("PresenceDatabaseCommandExecutor::getCMforBulkSub(): %s", statement.c_str());
    QueryResult result;
    executeSqlCmd(statement, result); // call managers that cannot be read are none
    m_frame->trace.prn("cmRecordList size %d", result.rows());
    records.clear();
    forEachRow(result, records, [&](const Row& row) { readCallManager(row, records.emplace_back()); });
    m_frame->trace.prn("PresenceDatabaseCommandExecutor::getCMforBulkSub(): subscriptions size %d ",
                       static_cast<int>(records.size()));
    return outcome;
}

} // namespace oryx
