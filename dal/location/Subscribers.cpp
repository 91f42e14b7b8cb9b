// Subscribers and their contact sets: tables subscriber and contact_set.

#include <dal/DatabaseCommandExecutor.h>

#include <dal/internal/Row.h>
#include <dal/internal/Sql.h>

#include <Crypt.h>

namespace oryx {

namespace {

void addUnlessEmpty(ValueString& columns, const char* name, const std::string& value)
{
    if (!value.empty()) {
        columns.add(name, value);
    }
}

/// The password comes decrypted. Only an active subscriber changes the flag: the caller's record says what holds for
/// the others.
void readSubscriber(const Row& row, SubscriberRecord& rec)
{
    if (row.flag(6, false)) {
        rec.setActive('t');
    }
    rec.setId(row.integer(0, rec.sid()));
    rec.setUserId(row.text(1));
    rec.setOid(row.integer(2, rec.oid()));
    rec.setType(row.text(3));
    rec.setAuthType(row.text(4));
    if (const char* const stored = row.text(5); stored != nullptr) {
        std::string clear;
        Crypt::decrypt(stored, clear);
        rec.setPassword(clear.c_str());
    }
}

} // namespace

int DatabaseCommandExecutor::addSubscriber(const SubscriberRecord& rec)
{
    if (!checkConnect()) {
        return -1;
    }
    const std::string sid = std::to_string(rec.sid());
    ValueString columns;
    if (rec.sid() >= 0) {
        columns.add("sid", sid);
    }
    columns.add("user_id", rec.userId().empty() ? sid : rec.userId());
    addUnlessEmpty(columns, "s_type", rec.type());
    addUnlessEmpty(columns, "auth_type", rec.authType());
    addUnlessEmpty(columns, "s_password", rec.password());
    columns.add("active", rec.active());

    QueryResult result;
    switch (run(sql("INSERT INTO subscriber {} VALUES{}", columns.names(), columns.values()), result)) {
    case Run::connectionFailed:
        return -1;
    case Run::queryFailed:
        return 0;
    case Run::okay:
        break;
    }
    return result.updateCount();
}

int DatabaseCommandExecutor::lookupSubscriber(const char* handle, const char* domain, SubscriberRecord& rec)
{
    if (!checkConnect() ||
        !require(handle != nullptr && domain != nullptr, "invalid parameters passed to lookupSubscriber")) {
        return -1;
    }
    const std::string statement = sql(
        "SELECT subscriber.sid, subscriber.auth_user_id, subscriber.oid, subscriber.s_type, subscriber.auth_type,  subscriber.s_password, subscriber.active  FROM public_address,contact_set,subscriber WHERE  subscriber.sid = contact_set.sid AND contact_set.csid = public_address.csid  AND public_address.handle = '{}' AND public_address.sip_domain = '{}';",
        handle, domain);
    m_trace.prn(statement);
    QueryResult result;
    if (run(statement, result) != Run::okay) {
        return -1;
    }
    if (result.rows() == 0) {
        return 0;
    }
    const Row row(result, 0);
    const char* const active = row.text(6);
    m_trace.prn("active = %s\n", active != nullptr ? active : "not set");
    readSubscriber(row, rec);
    return 1;
}

int DatabaseCommandExecutor::removeSubscriber(int sid)
{
    if (!checkConnect() || !require(sid != 0, "missing parameters")) {
        return -1;
    }
    ValueString arguments;
    arguments.add("id", std::to_string(sid));
    return callFunction(sql("SELECT remove_subscriber{}", arguments.values())) ? 1 : -1;
}

int DatabaseCommandExecutor::changeSubscriberPassword(int sid, const char* password)
{
    if (!checkConnect() || !require(sid != 0 && password != nullptr, "missing parameters")) {
        return -1;
    }
    int count = 0;
    const bool changed =
        executeUpdate(sql("UPDATE subscriber SET s_password='{}' WHERE sid='{}';", password, sid), count);
    return changed ? count : -1;
}

DatabaseResult DatabaseCommandExecutor::addContactSet(const ContactSetRecord& rec)
{
    if (!checkConnect()) {
        return connectionError();
    }
    ValueString columns;
    columns.add("sid", std::to_string(rec.sid()));
    columns.add("csid", std::to_string(rec.csid()));
    columns.add("ordering", rec.ordering());
    QueryResult result;
    return runForResult(sql("INSERT INTO contact_set{} VALUES{};", columns.names(), columns.values()), result);
}

} // namespace oryx
