// Text arguments about event sources and watcher information.

#include "hostile/Entry.h"

namespace {

using oryx::SourcesRecord;
using oryx::WatcherInfoRecord;

const Row kSource("event_sources", {{"presentitykey", "'key'"},
                                    {"sourceopaque", "'opaque'"},
                                    {"contact", "'contact'"},
                                    {"expirytime", "5"},
                                    {"event", "'event'"},
                                    {"presentity", "'presentity'"}});
/// Another of the same presentity.
const std::string kOtherSource =
    kSource.with("sourceopaque", "'other'").with("event", "'other'").with("presentity", "'other'").insert();

const Row kInfo("watcherinfo", {{"winfokey", "'winfo'"},
                                {"subscriberkey", "'subscriber-9'"},
                                {"presurlscheme", "'sip'"},
                                {"startingdocversion", "6"},
                                {"expirytime", "7"}});

/// A value of a record, or the text in its place.
struct Value {
    std::string field;
    const std::string& text;

    const char* of(const char* name, const char* value) const { return field == name ? text.c_str() : value; }
};

struct StoredField {
    const char* name;
    const char* column;
    Place place;
};

constexpr StoredField kSourceFields[]{
    {"presentitykey", "presentitykey", Place::key}, {"sourceopaque", "sourceopaque", Place::key},
    {"contact", "contact", Place::column},          {"event", "event", Place::key},
    {"presentity", "presentity", Place::column},
};

template <typename Target>
void addSources(Entries& table)
{
    for (const StoredField& field : kSourceFields) {
        table.push_back({
            .argument = argumentOf<Target>("addSourceOpaque(record) record.") + field.name,
            .place = field.place,
            .change = {kSource.with(field.column).insert()},
            .call =
                [name = field.name](Library& library, const std::string& text) {
                    const Value value{name, text};
                    return told(library.get<Target>().addSourceOpaque(
                        SourcesRecord(value.of("presentitykey", "key"), value.of("sourceopaque", "opaque"),
                                      value.of("contact", "contact"), 5, value.of("event", "event"),
                                      value.of("presentity", "presentity"))));
                },
            .refused = "connection error 54000\n",
        });
    }
    // A source's presentity key is neither compared nor stored by a change.
    for (const bool byKey : {true, false}) {
        const char* const argument = byKey ? "presentityKey" : "sourceOpaque";
        const std::string where = byKey ? " WHERE sourceopaque = 'opaque'" : " WHERE sourceopaque = $1";
        const std::vector<std::string> before{kSource.with(byKey ? "presentitykey" : "sourceopaque").insert(),
                                              kOtherSource};
        table.push_back({
            .argument = argumentOf<Target>("updateSourceExpiry(presentityKey, sourceOpaque, expiry) ") + argument,
            .place = Place::key,
            .before = before,
            .change = {"UPDATE event_sources SET expirytime = 9" + where},
            .call =
                [=](Library& library, const std::string& text) {
                    return told(library.get<Target>().updateSourceExpiry(byKey ? text.c_str() : "key",
                                                                         byKey ? "opaque" : text.c_str(), 9));
                },
        });
        table.push_back({
            .argument = argumentOf<Target>("deleteSourceOpaque(presentityKey, sourceOpaque) ") + argument,
            .place = Place::key,
            .before = before,
            .change = {"DELETE FROM event_sources" + where},
            .call =
                [=](Library& library, const std::string& text) {
                    return told(library.get<Target>().deleteSourceOpaque(byKey ? text.c_str() : "key",
                                                                         byKey ? "opaque" : text.c_str()));
                },
        });
    }
}

template <typename Target>
void addSourceLookups(Entries& table)
{
    table.push_back({
        .argument = argumentOf<Target>("getAllEventSources(event, records) event"),
        .place = Place::key,
        .before = {kSource.with("event").insert(), kOtherSource},
        .call =
            [](Library& library, const std::string& text) {
                return listed<SourcesRecord>(
                    [&](auto& records) { return library.get<Target>().getAllEventSources(text.c_str(), records); });
            },
        .answer = "okay\n" + show(SourcesRecord("key", "opaque", "contact", 5, "$1")),
        .refused = "okay\n",
    });
    table.push_back({
        .argument = argumentOf<Target>("getSourceOpaque(presentityKey, records) presentityKey"),
        .place = Place::key,
        .before = {kSource.with("presentitykey").insert(), kOtherSource},
        .call =
            [](Library& library, const std::string& text) {
                return listed<SourcesRecord>(
                    [&](auto& records) { return library.get<Target>().getSourceOpaque(text.c_str(), records); });
            },
        .answer = "okay\n" + show(SourcesRecord("$1", "opaque", "contact", 5, "event", "presentity")),
        .refused = "okay\n",
    });
}

void addSourceSearches(Entries& table)
{
    for (const bool isPresentity : {true, false}) {
        const std::string column = isPresentity ? "presentity" : "event";
        const std::string other = isPresentity ? "event" : "presentity";
        table.push_back({
            .argument =
                argumentOf<oryx::PresenceDatabaseCommandExecutor>("getSources(records, presentity, event) ") + column,
            .place = isPresentity ? Place::column : Place::key,
            .before = {kSource.with(column.c_str()).insert(), kOtherSource,
                       // begins as most of the texts do, and is none of them
                       kSource.with("sourceopaque", "'decoy'").with(column.c_str(), "'o'").insert()},
            .call =
                [=](Library& library, const std::string& text) {
                    return listedKeys<SourcesRecord>(
                        [&](auto& records) {
                            return library.events.getSources(records, isPresentity ? text.c_str() : "presentity",
                                                             isPresentity ? "event" : text.c_str());
                        },
                        [](const SourcesRecord& record) { return record.sourceopaque(); });
                },
            .answer = "not found\n",
            .found = "SELECT sourceopaque FROM event_sources WHERE " + column + " LIKE '%' || $1 || '%' AND " + other +
                     " LIKE '%" + other + "%' ORDER BY sourceopaque COLLATE \"C\"",
        });
    }
}

constexpr StoredField kInfoFields[]{
    {"winfokey", "winfokey", Place::key},
    {"subscribekey", "subscriberkey", Place::key},
    {"presurlscheme", "presurlscheme", Place::column},
};

WatcherInfoRecord info(const Value& value)
{
    return {value.of("winfokey", "winfo"), value.of("subscribekey", "subscriber-9"), value.of("presurlscheme", "sip"),
            6, 7};
}

template <typename Target>
void addInfo(Entries& table)
{
    for (const StoredField& field : kInfoFields) {
        table.push_back({
            .argument = argumentOf<Target>("addWinfoForPresentity(record) record.") + field.name,
            .place = field.place,
            .change = {kInfo.with(field.column).insert()},
            .call =
                [name = field.name](Library& library, const std::string& text) {
                    return told(library.get<Target>().addWinfoForPresentity(info({name, text})));
                },
            .refused = "connection error 54000\n",
        });
        const bool isKey = field.name == std::string("subscribekey");
        const bool isStored = field.place == Place::column;
        const Row stale = kInfo.with("presurlscheme", "'old'").with("startingdocversion", "1").with("expirytime", "1");
        table.push_back({
            .argument = argumentOf<Target>("updateWinfoForPresentity(record) record.") + field.name,
            .place = isKey ? Place::key : Place::column,
            .before = {stale.with(isKey ? "subscriberkey" : nullptr).insert()},
            .change = {std::string("UPDATE watcherinfo SET startingdocversion = 6, expirytime = 7, presurlscheme = ") +
                       (isStored ? "$1" : "'sip'") + " WHERE subscriberkey = " + (isKey ? "$1" : "'subscriber-9'")},
            .call =
                [name = field.name](Library& library, const std::string& text) {
                    return told(library.get<Target>().updateWinfoForPresentity(info({name, text})));
                },
        });
    }
    table.push_back({
        .argument = argumentOf<Target>("getWinfoForPresentity(winfoKey, records) winfoKey"),
        .place = Place::key,
        .before = {kInfo.with("winfokey").insert()},
        .call =
            [](Library& library, const std::string& text) {
                return listed<WatcherInfoRecord>(
                    [&](auto& records) { return library.get<Target>().getWinfoForPresentity(text.c_str(), records); });
            },
        .answer = "okay\n" + show(WatcherInfoRecord("$1", "subscriber-9", "sip", 6, 7)),
        .refused = "not found\n",
    });
    table.push_back({
        .argument = argumentOf<Target>("deleteWinfoForPresentity(subscriberKey) subscriberKey"),
        .place = Place::key,
        .before = {kInfo.with("subscriberkey").insert()},
        .change = {"DELETE FROM watcherinfo WHERE subscriberkey = $1"},
        .call =
            [](Library& library, const std::string& text) {
                return told(library.get<Target>().deleteWinfoForPresentity(text.c_str()));
            },
    });
}

} // namespace

template <typename Target>
Entries sourceEntries()
{
    Entries table;
    addSources<Target>(table);
    addSourceLookups<Target>(table);
    addInfo<Target>(table);
    if constexpr (std::is_same_v<Target, oryx::PresenceDatabaseCommandExecutor>) {
        addSourceSearches(table);
    }
    return table;
}

template Entries sourceEntries<oryx::PresenceService>();
template Entries sourceEntries<oryx::PresenceDatabaseCommandExecutor>();
