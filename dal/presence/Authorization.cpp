// Who may watch whom, and presence lists: tables access_control_list, node, buddy_list, buddy_list_detail,
// presence_list_authorization and listsubscriptions.

#include <dal/PresenceDatabaseCommandExecutor.h>

#include <dal/internal/Call.h>
#include <dal/internal/Frame.h>
#include <dal/internal/Shown.h>

namespace oryx {

namespace {

Statement addition(const char* listFsmId, const char* subscriptionId, long expiry)
{
    ValueString columns;
    columns.add("listfsmidentifier", listFsmId);
    columns.add("subscriptionidentifier", subscriptionId);
    columns.addExplicit("expirytime", expiry);
    return insertion("INSERT INTO listsubscriptions {} VALUES{};", std::move(columns));
}

/// A policy that cannot be read is none.
DatabaseResult defaultPolicy(Frame& frame, const char* application, std::vector<AccessControlEntry>& entries)
{
    Statement statement = sql(
        "SELECT requester, access_action FROM access_control_list,node WHERE object = node_id and state='ACTIVE' and application='{}';",
        application);
    frame.traceText(statement);
    QueryResult result;
    if (!frame.exchange(statement, result)) {
        frame.errorConnection();
        return frame.connectionError();
    }
    frame.trace.prn("retrieved %d rows", result.rows());
    forEachRow(result, entries, [&](const Row& row) { entries.emplace_back(row.text(0), row.text(1)); });
    DatabaseResult outcome;
    if (result.rows() == 0) {
        outcome.setNotFound();
    }
    return outcome;
}

} // namespace

DatabaseResult PresenceDatabaseCommandExecutor::getAccessControlList(const char* handle, const char* domain,
                                                                     const char* application,
                                                                     std::vector<AccessControlEntry>& entries)
{
    const Call call(*m_frame);
    m_frame->trace.prn("getAccessControlList for handle: %s domain : %s, application: %s", shown(handle), shown(domain),
                       shown(application));
    DatabaseResult outcome = m_frame->list(
        nullptr, {}, Listing::notFoundWhenEmpty, entries,
        [&] {
            return sql(
                "SELECT requester,access_action FROM access_control_list WHERE object='{}@{}' and state ='ACTIVE' and application='{}';",
                handle, domain, application);
        },
        [&](const Row& row) { entries.emplace_back(row.text(0), row.text(1)); }, "retrieved %d rows");
    return outcome.notFound() ? getAccessControlList(handle, application, entries) : outcome;
}

DatabaseResult PresenceDatabaseCommandExecutor::getAccessControlList(const char* handle, const char* application,
                                                                     std::vector<AccessControlEntry>& entries)
{
    m_frame->trace.prn("getAccessControlList for handle: %s application: %s", shown(handle), shown(application));
    DatabaseResult outcome = m_frame->list(
        nullptr, {}, Listing::notFoundWhenEmpty, entries,
        [&] {
            return sql(
                "SELECT requester,access_action FROM access_control_list WHERE object='{}' and state='ACTIVE' and application='{}';",
                handle, application);
        },
        [&](const Row& row) { entries.emplace_back(row.text(0), row.text(1)); }, "retrieved %d rows");
    if (!outcome.notFound()) {
        return outcome;
    }
    m_frame->trace.prn("No ACL entries found for %s, getting the system default policy", shown(handle));
    return m_frame->guarded([&] { return defaultPolicy(*m_frame, application, entries); });
}

DatabaseResult PresenceDatabaseCommandExecutor::getListId(const char* listName, int* id)
{
    m_frame->trace.prn("getListId() for %s", shown(listName));
    return m_frame->find(
        nullptr, {}, [&] { return sql("SELECT buddy_list_id FROM buddy_list WHERE buddy_list_name ='{}';", listName); },
        [&](const Row& row) { *id = row.integer(0, *id); }, "getListId retrieved %d rows");
}

DatabaseResult PresenceDatabaseCommandExecutor::getListEntries(int listId, std::vector<std::string>& uris)
{
    return m_frame->list(
        "getListEntries()", {}, Listing::mayBeEmpty, uris,
        [&] {
            return sql(
                "SELECT buddy_uri FROM buddy_list_detail,buddy_list WHERE buddy_list_id ={} and buddy_list.buddy_list_name=buddy_list_detail.buddy_list_name and isbuddy='t';",
                listId);
        },
        [&](const Row& row) {
            uris.push_back(row.string(0));
            m_frame->trace.prn("List entry %d : %s", row.index(), uris.back().c_str());
        },
        "retrieved %d rows");
}

DatabaseResult PresenceDatabaseCommandExecutor::isWatcherAllowedToAccessList(int /*watcher*/, int /*listId*/)
{
    return m_frame->guarded([&] {
        DatabaseResult outcome;
        m_frame->begin("isWatcherAllowedToAccessList()", {}, outcome);
        return outcome;
    });
}

DatabaseResult PresenceDatabaseCommandExecutor::isWatcherAllowedToSubscribeToList(int listId, const char* handle,
                                                                                  const char* domain)
{
    return m_frame->find(
        "isWatcherAllowedToAccessList()", {},
        [&] {
            return sql(
                "SELECT listid FROM presence_list_authorization  WHERE listid={} AND access_action='A' AND ( (handle ='{}' AND sip_domain = '{}') OR ( handle ='*' AND sip_domain = '{}') OR ( handle ='{}' AND sip_domain = '*') OR (handle = '*' AND sip_domain = '*'));",
                listId, handle, domain, domain, handle);
        },
        [](const Row& /*row*/) {}, "isWatcherAllowedToSubscribeToList retrieved %d rows");
}

DatabaseResult PresenceDatabaseCommandExecutor::createListMapping(const char* listFsmId, const char* subscriptionId,
                                                                  long expiry)
{
    return m_frame->insertOrDelete(
        "createListMapping()", {{!listFsmId || !subscriptionId, "createListMapping: missing one or more parameters\n"}},
        [&] { return addition(listFsmId, subscriptionId, expiry); });
}

DatabaseResult PresenceDatabaseCommandExecutor::removeListMapping(const char* listFsmId, const char* subscriptionId)
{
    return m_frame->insertOrDelete("removeListMapping()", {}, [&] {
        return sql("DELETE FROM listsubscriptions WHERE listfsmidentifier = '{}' AND subscriptionidentifier = '{}';",
                   listFsmId, subscriptionId);
    });
}

DatabaseResult PresenceDatabaseCommandExecutor::getAllMappingsForList(const char* listFsmId,
                                                                      std::vector<ListSubscriptionRecord>& records)
{
    std::string key;
    return m_frame->list(
        "getAllMappingsForList()", {}, Listing::notFoundWhenEmpty, records,
        [&] {
            key = copied(listFsmId);
            return sql(
                "SELECT subscriptionidentifier, expirytime FROM listsubscriptions WHERE  listfsmidentifier='{}';",
                listFsmId);
        },
        [&](const Row& row) { records.emplace_back(key.c_str(), row.text(0), row.number(1, 0)); }, "retrieved %d rows");
}

DatabaseResult PresenceDatabaseCommandExecutor::updateStateForListMapping(const char* listFsmId,
                                                                          const char* oldSubscriptionId,
                                                                          const char* newSubscriptionId, long expiry)
{
    return m_frame->update(
        "updateStateForListMapping()",
        {{!listFsmId || !oldSubscriptionId, "updateStateForListMapping: missing one or more parameters\n"}}, [&] {
            return sql(
                "UPDATE listsubscriptions SET subscriptionidentifier='{}', expirytime = {} WHERE listfsmidentifier='{}' AND subscriptionidentifier = '{}';",
                newSubscriptionId, expiry, listFsmId, oldSubscriptionId);
        });
}

} // namespace oryx
