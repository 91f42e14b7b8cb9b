// Sources of a presentity's state, and who watches its watchers: tables event_sources and watcherinfo.

#include <dal/PresenceDatabaseCommandExecutor.h>

#include <dal/internal/Frame.h>

namespace oryx {

namespace {

Statement addition(const SourcesRecord& record)
{
    ValueString columns;
    columns.add("presentitykey", record.presentitykey());
    columns.add("sourceopaque", record.sourceopaque());
    columns.add("contact", record.contact());
    columns.addExplicit("expirytime", record.expirytime());
    columns.add("event", record.event());
    columns.add("presentity", record.presentity());
    return insertion("INSERT INTO event_sources {} VALUES{};", std::move(columns));
}

Statement addition(const WatcherInfoRecord& record)
{
    ValueString columns;
    columns.add("winfokey", record.winfokey());
    columns.add("presurlscheme", record.presurlscheme());
    columns.add("subscriberkey", record.subscribekey());
    columns.addExplicit("startingdocversion", record.startingdocversion());
    columns.addExplicit("expirytime", record.expirytime());
    return insertion("INSERT INTO watcherinfo {} VALUES{};", std::move(columns));
}

} // namespace

DatabaseResult PresenceDatabaseCommandExecutor::getAllEventSources(const char* event,
                                                                   std::vector<SourcesRecord>& records)
{
    return m_frame->list(
        "getAllPresenceSources()", {{!event, "getAllEventSources: missing one or more parameters\n"}},
        Listing::mayBeEmpty, records,
        [&] {
            return sql(
                "SELECT sourceopaque, contact, expirytime, presentitykey, event FROM event_sources WHERE event='{}';",
                event);
        },
        [&](const Row& row) {
            records.emplace_back(row.text(3), row.text(0), row.text(1), row.number(2, 0), row.text(4));
        },
        "retrieved %d rows");
}

DatabaseResult PresenceDatabaseCommandExecutor::getSourceOpaque(const char* presentityKey,
                                                                std::vector<SourcesRecord>& records)
{
    std::string key;
    return m_frame->list(
        "getSourceOpaque()", {}, Listing::mayBeEmpty, records,
        [&] {
            key = copied(presentityKey);
            return sql(
                "SELECT sourceopaque, contact, expirytime, event, presentity  FROM event_sources WHERE presentitykey ='{}';",
                presentityKey);
        },
        [&](const Row& row) {
            records.emplace_back(key.c_str(), row.text(0), row.text(1), row.number(2, 0), row.text(3), row.text(4));
        },
        "retrieved %d rows");
}

DatabaseResult PresenceDatabaseCommandExecutor::getSources(std::vector<SourcesRecord>& records, const char* presentity,
                                                           const char* event)
{
    return m_frame->list(
        "getSources()", {}, Listing::notFoundWhenEmpty, records,
        [&] {
            return sql(
                "SELECT sourceopaque, contact, expirytime,presentitykey,event FROM event_sources  WHERE presentity like '%%{}%%' and  event like '%%{}%%';",
                presentity, event);
        },
        [&](const Row& row) {
            records.emplace_back(row.text(3), row.text(0), row.text(1), row.number(2, 0), row.text(4));
        },
        "retrieved %d rows");
}

DatabaseResult PresenceDatabaseCommandExecutor::addSourceOpaque(SourcesRecord record)
{
    // What asks for its texts makes copies, before the verb's own guard.
    return m_frame->guarded([&] {
        return m_frame->insertOrDelete("addSourceOpaque()",
                                       {{record.presentitykey().empty() || record.sourceopaque().empty(),
                                         "addSourceOpaque: missing one or more parameters\n"}},
                                       [&] { return addition(record); });
    });
}

DatabaseResult PresenceDatabaseCommandExecutor::updateSourceExpiry(const char* presentityKey, const char* sourceOpaque,
                                                                   int expiry)
{
    return m_frame->update(
        "updateSourceExpiry()", {{!presentityKey || !sourceOpaque, "invalid parameters passed to updateSourceExpiry"}},
        [&] { return sql("UPDATE event_sources SET expirytime={} WHERE sourceopaque='{}';", expiry, sourceOpaque); });
}

DatabaseResult PresenceDatabaseCommandExecutor::deleteSourceOpaque(const char* /*presentityKey*/,
                                                                   const char* sourceOpaque)
{
    return m_frame->insertOrDelete("deleteSourceOpaque()", {}, [&] {
        return sql("DELETE FROM event_sources WHERE sourceopaque = '{}';", sourceOpaque);
    });
}

DatabaseResult PresenceDatabaseCommandExecutor::getWinfoForPresentity(const char* winfoKey,
                                                                      std::vector<WatcherInfoRecord>& records)
{
    std::string key;
    return m_frame->list(
        "getWinfoForPresentity()", {{!winfoKey, "invalid parameters passed to getWinfoForPresentity"}},
        Listing::notFoundWhenEmpty, records,
        [&] {
            key = copied(winfoKey);
            return sql(
                "SELECT subscriberkey, startingdocversion,expirytime,presurlscheme  FROM watcherinfo WHERE winfokey='{}';",
                winfoKey);
        },
        [&](const Row& row) {
            records.emplace_back(key.c_str(), row.text(0), row.text(3), row.integer(1, 0), row.number(2, 0));
        },
        "Retrieved %d rows");
}

DatabaseResult PresenceDatabaseCommandExecutor::addWinfoForPresentity(WatcherInfoRecord record)
{
    return m_frame->insertOrDelete(
        "addWinfoForPresentity()",
        {{record.subscribekey().empty() || record.presurlscheme().empty() || record.winfokey().empty(),
          "addWinfoForPresentity: missing one or more parameters\n"}},
        [&] { return addition(record); });
}

DatabaseResult PresenceDatabaseCommandExecutor::updateWinfoForPresentity(WatcherInfoRecord record)
{
    constexpr const char* kIncomplete = "updateWinfoForPresentity: missing one or more parameters\n";
    const bool incomplete = record.subscribekey().empty() || record.presurlscheme().empty();
    DatabaseResult outcome = m_frame->update("updateWinfoForPresentity()", {{incomplete, kIncomplete}}, [&] {
        return sql(
            "UPDATE watcherinfo SET presurlscheme='{}', startingdocversion = {},expirytime = {} WHERE subscriberkey='{}';",
            record.presurlscheme(), record.startingdocversion(), record.expirytime(), record.subscribekey());
    });
    if (incomplete && outcome.queryError()) {
        m_frame->trace.prn("%s", kIncomplete);
    }
    return outcome;
}

DatabaseResult PresenceDatabaseCommandExecutor::deleteWinfoForPresentity(const char* subscriberKey)
{
    return m_frame->insertOrDelete("deleteWinfoForPresentity()", {}, [&] {
        return sql("DELETE FROM watcherinfo WHERE subscriberkey = '{}';", subscriberKey);
    });
}

} // namespace oryx
