// Text arguments about conference extensions.

#include "hostile/Entry.h"

namespace {

using oryx::ConfExtRecord;

const Row kState("conf_state", {{"extension", "'709'"}, {"conf_status", "'IDLE'"}, {"start_time", "9"}});

template <typename Target>
void addConferenceChanges(Entries& table)
{
    table.push_back({
        .argument = argumentOf<Target>("addConfExtState(record) record.extension"),
        .place = Place::key,
        .change = {kState.with("extension").insert()},
        .call =
            [](Library& library, const std::string& text) {
                return told(library.get<Target>().addConfExtState(ConfExtRecord(text, "IDLE", 9)));
            },
        .refused = "query error 54000\n",
    });
    table.push_back({
        .argument = argumentOf<Target>("addConfExtState(record) record.conf_status"),
        .change = {kState.with("conf_status").insert()},
        .call =
            [](Library& library, const std::string& text) {
                return told(library.get<Target>().addConfExtState(ConfExtRecord("709", text, 9)));
            },
    });
    table.push_back({
        .argument = argumentOf<Target>("setConfExtState(extension, status, start_time) extension"),
        .place = Place::key,
        .before = {kState.with("extension").insert()},
        .change = {"UPDATE conf_state SET conf_status = 'IN USE', start_time = 10 WHERE extension = $1"},
        .call = [](Library& library,
                   const std::string& text) { return told(library.get<Target>().setConfExtState(text, "IN USE", 10)); },
        .refused = "not found\n",
    });
    table.push_back({
        .argument = argumentOf<Target>("setConfExtState(extension, status, start_time) status"),
        .before = {kState.insert()},
        .change = {"UPDATE conf_state SET conf_status = $1, start_time = 10 WHERE extension = '709'"},
        .call = [](Library& library,
                   const std::string& text) { return told(library.get<Target>().setConfExtState("709", text, 10)); },
    });
    table.push_back({
        .argument = argumentOf<Target>("deleteConfExtState(extension) extension"),
        .place = Place::key,
        .before = {kState.with("extension").insert()},
        .change = {"DELETE FROM conf_state WHERE extension = $1"},
        .call = [](Library& library,
                   const std::string& text) { return told(library.get<Target>().deleteConfExtState(text)); },
        .refused = "not found\n",
    });
}

template <typename Target>
void addConferenceLookups(Entries& table)
{
    table.push_back({
        .argument = argumentOf<Target>("getConfExtState(extension, status, start_time) extension"),
        .place = Place::key,
        .before = {kState.with("extension").insert()},
        .call =
            [](Library& library, const std::string& text) {
                std::string status = "none";
                unsigned int since = 1;
                const oryx::DatabaseResult result = library.get<Target>().getConfExtState(text, status, since);
                return told(result) + status + " since " + std::to_string(since) + "\n";
            },
        .answer = "okay\nIDLE since 9\n",
        .refused = "not found\n since 0\n",
    });
    for (const bool negate : {false, true}) {
        table.push_back({
            .argument = argumentOf<Target>("getAllConfExtRecord(out, pattern, negate) pattern"),
            .variant = negate ? "negated" : "",
            .before = {kState.with("conf_status").insert()},
            .call =
                [=](Library& library, const std::string& text) {
                    return listedKeys<ConfExtRecord>(
                        [&](auto& records) { return library.get<Target>().getAllConfExtRecord(records, text, negate); },
                        [](const ConfExtRecord& record) { return record.extension(); });
                },
            .answer = "not found\n",
            .found = std::string("SELECT extension FROM conf_state WHERE ") + (negate ? "NOT " : "") +
                     "conf_status ~* $1 ORDER BY extension COLLATE \"C\"",
        });
    }
}

} // namespace

template <typename Target>
Entries conferenceEntries()
{
    Entries table;
    addConferenceChanges<Target>(table);
    addConferenceLookups<Target>(table);
    return table;
}

template Entries conferenceEntries<oryx::PresenceService>();
template Entries conferenceEntries<oryx::PresenceDatabaseCommandExecutor>();
