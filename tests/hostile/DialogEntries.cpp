// Text arguments about subscription dialogs.

#include "hostile/Entry.h"

namespace {

using oryx::PresenceRecord;

const Row kDialog("subscription_states", {{"subscriptionid", "'incoming#9'"},
                                          {"fromhdr", "'from'"},
                                          {"tohdr", "'to'"},
                                          {"callid", "'call-9'"},
                                          {"subcseq", "91"},
                                          {"eventhdr", "'event'"},
                                          {"remotecontacthdr", "'contact'"},
                                          {"routeset", "'route'"},
                                          {"notcseq", "92"},
                                          {"requesturi", "'uri'"},
                                          {"packageid", "'package#'"}});

/// kDialog as the library has it, under that identifier.
PresenceRecord dialog(const char* id = "incoming#9")
{
    return {id, "", "from", "to", "call-9", 91, "event", "contact", "route", 92, "uri", "package#"};
}

const std::vector<Field<PresenceRecord>> kFields{
    {"subscriptionid", "subscriptionid", Place::key, &PresenceRecord::SetSubscriptionid},
    {"sid", nullptr, Place::column, &PresenceRecord::SetSid},
    {"fromhdr", "fromhdr", Place::column, &PresenceRecord::SetFromhdr},
    {"tohdr", "tohdr", Place::column, &PresenceRecord::SetTohdr},
    {"callId", "callid", Place::column, &PresenceRecord::SetCallId},
    {"eventhdr", "eventhdr", Place::column, &PresenceRecord::SetEventhdr},
    {"remotecontacthdr", "remotecontacthdr", Place::column, &PresenceRecord::SetRemotecontacthdr},
    {"routeset", "routeset", Place::column, &PresenceRecord::SetRouteset},
    {"requestUri", "requesturi", Place::column, &PresenceRecord::SetRequestUri},
    {"packageid", "packageid", Place::column, &PresenceRecord::SetPackageid},
    {"watcherIdentity", nullptr, Place::column, &PresenceRecord::SetWatcherIdentity},
};

/// What begins as most of the texts do, and is none of them.
constexpr const char* kDecoy = "'o#'";

std::string idOf(const PresenceRecord& record)
{
    return record.subscriptionid();
}

/// How many records a listing gives that repeats one of them.
template <typename List>
std::string listedNumber(const List& list)
{
    std::vector<PresenceRecord> records;
    const oryx::DatabaseResult result = list(records);
    return told(result) + (records.empty() ? "" : std::to_string(records.size()) + "\n");
}

template <typename Target>
void addDialogChanges(Entries& table)
{
    for (const Field<PresenceRecord>& field : kFields) {
        table.push_back({
            .argument = argumentOf<Target>("addWatcher(record) record.") + field.name,
            .place = field.place,
            .change = {kDialog.with(field.column).insert()},
            .call =
                [set = field.set](Library& library, const std::string& text) {
                    PresenceRecord record = dialog();
                    set(record, text.c_str());
                    return told(library.get<Target>().addWatcher(record));
                },
            .refused = "connection error 54000\n",
        });
    }
    table.push_back({
        .argument = argumentOf<Target>("deleteWatcher(subscriptionId) subscriptionId"),
        .place = Place::key,
        .before = {kDialog.with("subscriptionid").insert()},
        .change = {"DELETE FROM subscription_states WHERE subscriptionid = $1"},
        .call = [](Library& library,
                   const std::string& text) { return told(library.get<Target>().deleteWatcher(text.c_str())); },
    });
}

template <typename Target>
void addRefreshes(Entries& table)
{
    const Row received("subscription_states", {{"remotecontacthdr", "'moved'"}, {"subcseq", "93"}});
    const Row sent("subscription_states", {{"remotecontacthdr", "'moved'"}, {"notcseq", "94"}});
    const std::string ours = "subscriptionid = 'incoming#9'";
    const std::string texts = "subscriptionid = $1";
    table.push_back({
        .argument = argumentOf<Target>("updateWatcherContact(subscriptionId, contact, subcseq) subscriptionId"),
        .place = Place::key,
        .before = {kDialog.with("subscriptionid").insert()},
        .change = {received.update(texts)},
        .call =
            [](Library& library, const std::string& text) {
                return told(library.get<Target>().updateWatcherContact(text.c_str(), "moved", 93));
            },
    });
    table.push_back({
        .argument = argumentOf<Target>("updateWatcherContact(subscriptionId, contact, subcseq) contact"),
        .before = {kDialog.insert()},
        .change = {received.with("remotecontacthdr").update(ours)},
        .call =
            [](Library& library, const std::string& text) {
                return told(library.get<Target>().updateWatcherContact("incoming#9", text.c_str(), 93));
            },
    });
    table.push_back({
        .argument = argumentOf<Target>("updatePresentityContact(subscriptionId, contact, notcseq) subscriptionId"),
        .place = Place::key,
        .before = {kDialog.with("subscriptionid").insert()},
        .change = {sent.update(texts)},
        .call =
            [](Library& library, const std::string& text) {
                return told(library.get<Target>().updatePresentityContact(text.c_str(), "moved", 94));
            },
    });
    table.push_back({
        .argument = argumentOf<Target>("updatePresentityContact(subscriptionId, contact, notcseq) subscriptionId"),
        .variant = "withoutContact",
        .place = Place::key,
        .before = {kDialog.with("subscriptionid").insert()},
        .change = {"UPDATE subscription_states SET notcseq = 94 WHERE subscriptionid = $1"},
        .call =
            [](Library& library, const std::string& text) {
                return told(library.get<Target>().updatePresentityContact(text.c_str(), nullptr, 94));
            },
    });
    table.push_back({
        .argument = argumentOf<Target>("updatePresentityContact(subscriptionId, contact, notcseq) contact"),
        .before = {kDialog.insert()},
        .change = {sent.with("remotecontacthdr").update(ours)},
        .call =
            [](Library& library, const std::string& text) {
                return told(library.get<Target>().updatePresentityContact("incoming#9", text.c_str(), 94));
            },
    });
}

template <typename Target>
void addDialogLookups(Entries& table)
{
    table.push_back({
        .argument = argumentOf<Target>("getWatcher(subscriptionId, out) subscriptionId"),
        .place = Place::key,
        .before = {kDialog.with("subscriptionid").insert()},
        .call =
            [](Library& library, const std::string& text) {
                PresenceRecord out;
                const oryx::DatabaseResult result = library.get<Target>().getWatcher(text.c_str(), out);
                return told(result) + show(out);
            },
        .answer = "okay\n" + show(dialog("$1")),
        .refused = "not found\n" + show(PresenceRecord()),
    });
    table.push_back({
        .argument = argumentOf<Target>("getIncomingSubscriptions(records, package) package"),
        .before = {kDialog.with("packageid").insert()},
        .call =
            [](Library& library, const std::string& text) {
                return listedKeys<PresenceRecord>(
                    [&](auto& records) {
                        return library.get<Target>().getIncomingSubscriptions(records, text.c_str());
                    },
                    idOf);
            },
        .answer = "not found\n",
        .found = "SELECT subscriptionid FROM subscription_states WHERE subscriptionid LIKE '%incoming#%' AND "
                 "packageid LIKE '%' || $1 || '%' ORDER BY subscriptionid COLLATE \"C\"",
    });
}

void addSearches(Entries& table)
{
    using Executor = oryx::PresenceDatabaseCommandExecutor;
    struct Search {
        const char* argument;
        const char* column;
        const char* stored;
        const char* condition;
    };
    const Search incoming[]{
        {"from", "fromhdr", "$1",
         "fromhdr LIKE '%' || $1 || '%' AND requesturi LIKE '%uri%' AND packageid LIKE '%package#%'"},
        {"requestUri", "requesturi", "$1",
         "fromhdr LIKE '%from%' AND requesturi LIKE '%' || $1 || '%' AND packageid LIKE '%package#%'"},
        {"package", "packageid", "$1 || '#'",
         "fromhdr LIKE '%from%' AND requesturi LIKE '%uri%' AND packageid LIKE '%' || $1 || '#%'"},
    };
    for (const Search& search : incoming) {
        table.push_back({
            .argument =
                argumentOf<Executor>("getIncomingSubscriptions(records, from, requestUri, package) ") + search.argument,
            .before = {kDialog.with(search.column, search.stored).insert(),
                       kDialog.with("subscriptionid", "'incoming#8'").with(search.column, kDecoy).insert()},
            .call =
                [which = std::string(search.argument)](Library& library, const std::string& text) {
                    const auto of = [&](const char* name, const char* value) {
                        return which == name ? text.c_str() : value;
                    };
                    return listedKeys<PresenceRecord>(
                        [&](auto& records) {
                            return library.events.getIncomingSubscriptions(
                                records, of("from", "from"), of("requestUri", "uri"), of("package", "package"));
                        },
                        idOf);
                },
            .answer = "not found\n",
            .found = std::string("SELECT subscriptionid FROM subscription_states WHERE subscriptionid LIKE "
                                 "'%incoming#%' AND ") +
                     search.condition + " ORDER BY subscriptionid COLLATE \"C\"",
        });
    }
    const Search outgoing[]{
        {"to", "tohdr", "$1", "tohdr LIKE '%' || $1 || '%' AND packageid LIKE '%package#%'"},
        {"package", "packageid", "$1 || '#'", "tohdr LIKE '%to%' AND packageid LIKE '%' || $1 || '#%'"},
    };
    for (const Search& search : outgoing) {
        table.push_back({
            .argument = argumentOf<Executor>("getOutgoingSubscribes(records, to, package) ") + search.argument,
            .before = {kDialog.with("subscriptionid", "'outgoing#9'").with(search.column, search.stored).insert(),
                       kDialog.with("subscriptionid", "'outgoing#8'").with(search.column, kDecoy).insert()},
            .call =
                [isTo = search.argument == std::string("to")](Library& library, const std::string& text) {
                    return listedNumber([&](auto& records) {
                        return library.events.getOutgoingSubscribes(records, isTo ? text.c_str() : "to",
                                                                    isTo ? "package" : text.c_str());
                    });
                },
            .answer = "not found\n",
            .found = std::string("SELECT count(*) FROM subscription_states WHERE subscriptionid LIKE "
                                 "'%outgoing#%' AND ") +
                     search.condition + " HAVING count(*) > 0",
        });
    }
}

} // namespace

template <typename Target>
Entries dialogEntries()
{
    Entries table;
    addDialogChanges<Target>(table);
    addRefreshes<Target>(table);
    addDialogLookups<Target>(table);
    if constexpr (std::is_same_v<Target, oryx::PresenceDatabaseCommandExecutor>) {
        addSearches(table);
    }
    return table;
}

template Entries dialogEntries<oryx::PresenceService>();
template Entries dialogEntries<oryx::PresenceDatabaseCommandExecutor>();
