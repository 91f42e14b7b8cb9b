// The watchers of a presentity: table event_watchers.

#include <dal/PresenceDatabaseCommandExecutor.h>

#include <dal/internal/Frame.h>

namespace oryx {

namespace {

/// Reads a watcher from its opaque key, types, state, expiry, identity, presentity and document version, in this order.
WatchersRecord readWatcher(const Row& row, std::string presentityKey, std::string remoteContact)
{
    return {std::move(presentityKey), row.string(0),    row.integer(1, 0),       row.integer(2, 0),
            row.integer(3, 0),        row.number(4, 0), row.string(5),           row.string(6),
            row.unsignedNumber(7, 0), std::string(),    std::move(remoteContact)};
}

Statement addition(const WatchersRecord& record)
{
    ValueString columns;
    columns.add("presentitykey", record.presentitykey());
    columns.add("watcheropaque", record.watcheropaque());
    columns.addExplicit("doctype", record.doctype());
    columns.addExplicit("docversion", record.docversion());
    columns.addExplicit("watchertype", record.watchertype());
    columns.addExplicit("watcherstate", record.watcherstate());
    columns.addExplicit("expirytime", record.expirytime());
    columns.add("watcheridentity", record.watcheridentity());
    columns.add("event", record.event());
    columns.add("presentity", record.presentity());
    return insertion("INSERT INTO event_watchers {} VALUES{};", std::move(columns));
}

} // namespace

DatabaseResult PresenceDatabaseCommandExecutor::getWatcherState(const char* presentityKey,
                                                                std::vector<WatchersRecord>& records)
{
    std::string key;
    return m_frame->list(
        "getWatcherState()", {}, Listing::mayBeEmpty, records,
        [&] {
            key = copied(presentityKey);
            return sql(
                "SELECT watcheropaque,doctype,watchertype,watcherstate,expirytime,watcheridentity,presentity,docversion,remotecontacthdr FROM event_watchers,subscription_states WHERE presentitykey ='{}' and watcheropaque=subscriptionid;",
                presentityKey);
        },
        [&](const Row& row) { records.push_back(readWatcher(row, key, row.string(8))); }, "retrieved %d rows");
}

DatabaseResult PresenceDatabaseCommandExecutor::getWatcherState(const char* presentityKey, const char* watcherOpaque)
{
    return m_frame->find(
        "getWatcherState()", {},
        [&] {
            return sql(
                "SELECT watcheropaque,doctype,watchertype,watcherstate,expirytime,watcheridentity,presentity,docversion FROM event_watchers WHERE presentitykey ='{}' and watcheropaque='{}';",
                presentityKey, watcherOpaque);
        },
        [](const Row& /*row*/) {}, "retrieved %d rows");
}

DatabaseResult PresenceDatabaseCommandExecutor::addWatcherState(const WatchersRecord& record)
{
    return m_frame->insertOrDelete("addWatcherState()",
                                   {{record.presentitykey().empty() || record.watcheropaque().empty(),
                                     "addWatcherState: missing one or more parameters\n"}},
                                   [&] { return addition(record); });
}

DatabaseResult PresenceDatabaseCommandExecutor::updateWatcherState(const char* presentityKey, const char* watcherOpaque,
                                                                   int state)
{
    return m_frame->update(
        "updateWatcherState()",
        {{!presentityKey || !watcherOpaque, "updateWatcherState: missing one or more parameters\n"}}, [&] {
            return sql("UPDATE event_watchers SET watcherstate={} WHERE watcheropaque = '{}' AND presentitykey='{}';",
                       state, watcherOpaque, presentityKey);
        });
}

DatabaseResult PresenceDatabaseCommandExecutor::updateWatcherExpiry(const char* presentityKey,
                                                                    const char* watcherOpaque, int expiry)
{
    return m_frame->update(
        "updateWatcherExpiry()",
        {{!presentityKey || !watcherOpaque, "invalid parameters passed to updateWatcherExpiry"}}, [&] {
            return sql("UPDATE event_watchers SET expirytime={} WHERE watcheropaque='{}' AND presentitykey='{}';",
                       expiry, watcherOpaque, presentityKey);
        });
}

DatabaseResult PresenceDatabaseCommandExecutor::updateWatcherDocVersion(const char* presentityKey,
                                                                        const char* watcherOpaque,
                                                                        unsigned long version)
{
    return m_frame->update(
        "updateWatcherDocVersion()",
        {{!presentityKey || !watcherOpaque, "updateWatcherDocVersion: missing one or more parameters\n"}}, [&] {
            return sql("UPDATE event_watchers SET docversion={} WHERE watcheropaque = '{}' AND presentitykey='{}';",
                       version, watcherOpaque, presentityKey);
        });
}

DatabaseResult PresenceDatabaseCommandExecutor::deleteWatcherState(const char* presentityKey, const char* watcherOpaque)
{
    return m_frame->insertOrDelete("deleteWatcherState()", {}, [&] {
        return sql("DELETE FROM event_watchers WHERE watcheropaque = '{}' AND presentitykey='{}';", watcherOpaque,
                   presentityKey);
    });
}

DatabaseResult PresenceDatabaseCommandExecutor::getWatchers(std::vector<WatchersRecord>& records, const char* first,
                                                            const char* second)
{
    return m_frame->list(
        "getWatchers", {}, Listing::notFoundWhenEmpty, records,
        [&] {
            return sql(
                "SELECT watcheropaque,doctype,watchertype,watcherstate,expirytime,watcheridentity,presentity,docversion  FROM event_watchers WHERE presentitykey like '%%{}#{}%%';",
                second, first);
        },
        // The pattern searched for is nobody's key; the presentity itself is what the caller can go on with.
        [&](const Row& row) { records.push_back(readWatcher(row, row.string(6), std::string())); },
        "retrieved %d rows");
}

} // namespace oryx
