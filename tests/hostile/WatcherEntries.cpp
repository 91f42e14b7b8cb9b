// Text arguments about the watchers of a presentity.

#include "hostile/Entry.h"

namespace {

using oryx::DatabaseResult;
using oryx::WatchersRecord;

const Row kWatcher("event_watchers", {{"presentitykey", "'key'"},
                                      {"watcheropaque", "'opaque'"},
                                      {"doctype", "1"},
                                      {"docversion", "2"},
                                      {"watchertype", "3"},
                                      {"watcherstate", "4"},
                                      {"expirytime", "5"},
                                      {"watcheridentity", "'identity'"},
                                      {"event", "'event'"},
                                      {"presentity", "'presentity'"}});
/// One with the same presentity, and one with the same opaque key: neither is the watcher.
const std::string kSamePresentity = kWatcher.with("watcheropaque", "'other'").insert();
const std::string kSameOpaque = kWatcher.with("presentitykey", "'other'").insert();

WatchersRecord watcher(const char* key = "key", const char* opaque = "opaque")
{
    return {key, opaque, 1, 3, 4, 5, "identity", "presentity", 2, "event", "contact"};
}

struct WatcherField {
    const char* name;
    const char* column;
    Place place;
    void (WatchersRecord::*set)(const std::string&);
};
constexpr WatcherField kWatcherFields[]{
    {"presentitykey", "presentitykey", Place::key, &WatchersRecord::presentitykey},
    {"watcheropaque", "watcheropaque", Place::key, &WatchersRecord::watcheropaque},
    {"watcheridentity", "watcheridentity", Place::column, &WatchersRecord::watcheridentity},
    {"presentity", "presentity", Place::column, &WatchersRecord::presentity},
    {"event", "event", Place::column, &WatchersRecord::event},
    {"remoteContactHdr", nullptr, Place::column, &WatchersRecord::remoteContactHdr},
};

/// The two keys of a watcher, one of them the text.
struct Key {
    const char* name;
    const char* column;
    bool isPresentity;

    const char* presentity(const std::string& text) const { return isPresentity ? text.c_str() : "key"; }
    const char* opaque(const std::string& text) const { return isPresentity ? "opaque" : text.c_str(); }
    std::vector<std::string> before() const { return {kWatcher.with(column).insert(), kSamePresentity, kSameOpaque}; }
    std::string where() const
    {
        return isPresentity ? " WHERE presentitykey = $1 AND watcheropaque = 'opaque'"
                            : " WHERE presentitykey = 'key' AND watcheropaque = $1";
    }
};
constexpr Key kKeys[]{{"presentityKey", "presentitykey", true}, {"watcherOpaque", "watcheropaque", false}};

/// A change of the watcher with those keys.
template <typename Target, typename Change>
Entry change(const Key& key, const char* operation, const std::string& statement, const Change& change)
{
    return {
        .argument = argumentOf<Target>(operation) + key.name,
        .place = Place::key,
        .before = key.before(),
        .change = {statement + key.where()},
        .call =
            [=](Library& library, const std::string& text) {
                return told(change(library.get<Target>(), key.presentity(text), key.opaque(text)));
            },
    };
}

template <typename Target>
void addWatcherChanges(Entries& table, const Key& key)
{
    table.push_back(change<Target>(
        key, "updateWatcherState(presentityKey, watcherOpaque, state) ", "UPDATE event_watchers SET watcherstate = 9",
        [](Target& target, const char* of, const char* opaque) { return target.updateWatcherState(of, opaque, 9); }));
    table.push_back(change<Target>(
        key, "updateWatcherExpiry(presentityKey, watcherOpaque, expiry) ", "UPDATE event_watchers SET expirytime = 9",
        [](Target& target, const char* of, const char* opaque) { return target.updateWatcherExpiry(of, opaque, 9); }));
    table.push_back(change<Target>(key, "updateWatcherDocVersion(presentityKey, watcherOpaque, version) ",
                                   "UPDATE event_watchers SET docversion = 9",
                                   [](Target& target, const char* of, const char* opaque) {
                                       return target.updateWatcherDocVersion(of, opaque, 9);
                                   }));
    table.push_back(change<Target>(
        key, "deleteWatcherState(presentityKey, watcherOpaque) ", "DELETE FROM event_watchers",
        [](Target& target, const char* of, const char* opaque) { return target.deleteWatcherState(of, opaque); }));
    table.push_back({
        .argument = argumentOf<Target>("getWatcherState(presentityKey, watcherOpaque) ") + key.name,
        .place = Place::key,
        .before = key.before(),
        .call =
            [=](Library& library, const std::string& text) {
                return told(library.get<Target>().getWatcherState(key.presentity(text), key.opaque(text)));
            },
        .refused = "not found\n",
    });
}

void addWatcherSearches(Entries& table)
{
    using Executor = oryx::PresenceDatabaseCommandExecutor;
    for (const bool isFirst : {true, false}) {
        const std::string key = isFirst ? "'second#' || $1" : "$1 || '#first'";
        table.push_back({
            .argument = argumentOf<Executor>("getWatchers(records, first, second) ") + (isFirst ? "first" : "second"),
            .place = Place::key,
            .before = {kWatcher.with("presentitykey", key).insert(), kSamePresentity,
                       // begins as most of the texts do, and is none of them
                       kWatcher.with("presentitykey", isFirst ? "'second#o'" : "'o#first'")
                           .with("watcheropaque", "'decoy'")
                           .insert()},
            .call =
                [=](Library& library, const std::string& text) {
                    return listedKeys<WatchersRecord>(
                        [&](auto& records) {
                            return library.events.getWatchers(records, isFirst ? text.c_str() : "first",
                                                              isFirst ? "second" : text.c_str());
                        },
                        [](const WatchersRecord& record) { return record.watcheropaque(); });
                },
            .answer = "not found\n",
            .found = "SELECT watcheropaque FROM event_watchers WHERE presentitykey LIKE '%' || " + key +
                     " || '%' ORDER BY watcheropaque COLLATE \"C\"",
        });
    }
}

} // namespace

template <typename Target>
Entries watcherEntries()
{
    Entries table;
    for (const WatcherField& field : kWatcherFields) {
        table.push_back({
            .argument = argumentOf<Target>("addWatcherState(record) record.") + field.name,
            .place = field.place,
            .change = {kWatcher.with(field.column).insert()},
            .call =
                [set = field.set](Library& library, const std::string& text) {
                    WatchersRecord record = watcher();
                    (record.*set)(text);
                    return told(library.get<Target>().addWatcherState(record));
                },
            .refused = "connection error 54000\n",
        });
    }
    for (const Key& key : kKeys) {
        addWatcherChanges<Target>(table, key);
    }
    table.push_back({
        .argument = argumentOf<Target>("getWatcherState(presentityKey, records) presentityKey"),
        .place = Place::key,
        .before = {"INSERT INTO subscription_states (subscriptionid, remotecontacthdr) VALUES ('opaque', 'contact')",
                   kWatcher.with("presentitykey").insert(), kSameOpaque},
        .call =
            [](Library& library, const std::string& text) {
                return listed<WatchersRecord>(
                    [&](auto& records) { return library.get<Target>().getWatcherState(text.c_str(), records); });
            },
        .answer =
            "okay\n" + show(WatchersRecord("$1", "opaque", 1, 3, 4, 5, "identity", "presentity", 2, "", "contact")),
        .refused = "okay\n",
    });
    if constexpr (std::is_same_v<Target, oryx::PresenceDatabaseCommandExecutor>) {
        addWatcherSearches(table);
    }
    return table;
}

template Entries watcherEntries<oryx::PresenceService>();
template Entries watcherEntries<oryx::PresenceDatabaseCommandExecutor>();
