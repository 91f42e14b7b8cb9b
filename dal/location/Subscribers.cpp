// Subscribers and their contact sets: tables subscriber and contact_set.

#include <dal/DatabaseCommandExecutor.h>

#include <dal/internal/Frame.h>
#include <dal/location/LocationRows.h>

namespace oryx {

namespace {

void addUnlessEmpty(ValueString& columns, const char* name, const std::string& value)
{
    if (!value.empty()) {
        columns.add(name, value);
    }
}

} // namespace

int DatabaseCommandExecutor::addSubscriber(const SubscriberRecord& rec)
{
    return m_frame->guarded(-1, [&] {
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
        switch (m_frame->run(insertion("INSERT INTO subscriber {} VALUES{}", std::move(columns)), result)) {
        case Run::connectionFailed:
            return -1;
        case Run::queryFailed:
            return 0;
        case Run::okay:
            break;
        }
        return result.updateCount();
    });
}

int DatabaseCommandExecutor::lookupSubscriber(const char* handle, const char* domain, SubscriberRecord& rec)
{
    return m_frame->guarded(-1, [&] {
        if (!checkConnect() || !m_frame->require(handle != nullptr && domain != nullptr,
                                                 "invalid parameters passed to lookupSubscriber")) {
            return -1;
        }
        Statement statement = subscriberQuery(handle, domain);
        m_frame->traceText(statement);
        QueryResult result;
        if (m_frame->run(statement, result) != Run::okay) {
            return -1;
        }
        if (result.rows() == 0) {
            return 0;
        }
        const Row row(result, 0);
        if (!m_frame->require(readSubscriber(row, m_frame->trace, rec), kNoRandomNumbers)) {
            return -1;
        }
        // Only an active subscriber changes the flag: the caller's record says what holds for the others.
        if (row.flag(6, false)) {
            rec.setActive('t');
        }
        return 1;
    });
}

int DatabaseCommandExecutor::removeSubscriber(int sid)
{
    return m_frame->guarded(-1, [&] {
        if (!checkConnect() || !m_frame->require(sid != 0, "missing parameters")) {
            return -1;
        }
        ValueString arguments;
        arguments.add("id", std::to_string(sid));
        return m_frame->callFunction(call("SELECT remove_subscriber{}", std::move(arguments))) ? 1 : -1;
    });
}

int DatabaseCommandExecutor::changeSubscriberPassword(int sid, const char* password)
{
    return m_frame->guarded(-1, [&] {
        if (!checkConnect() || !m_frame->require(sid != 0 && password != nullptr, "missing parameters")) {
            return -1;
        }
        int count = 0;
        const bool changed =
            m_frame->executeUpdate(sql("UPDATE subscriber SET s_password='{}' WHERE sid='{}';", password, sid), count);
        return changed ? count : -1;
    });
}

DatabaseResult DatabaseCommandExecutor::addContactSet(const ContactSetRecord& rec)
{
    return m_frame->guarded([&] {
        if (!checkConnect()) {
            return m_frame->connectionError();
        }
        ValueString columns;
        columns.add("sid", std::to_string(rec.sid()));
        columns.add("csid", std::to_string(rec.csid()));
        columns.add("ordering", rec.ordering());
        QueryResult result;
        return m_frame->runForResult(insertion("INSERT INTO contact_set{} VALUES{};", std::move(columns)), result);
    });
}

} // namespace oryx
