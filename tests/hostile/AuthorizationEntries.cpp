// Text arguments about access control and presence lists.

#include "hostile/Entry.h"

namespace {

using oryx::AccessControlEntry;
using oryx::ListSubscriptionRecord;

const Row kRule("access_control_list", {{"object", "'carol@oryx.example'"},
                                        {"requester", "'*'"},
                                        {"access_action", "'allow'"},
                                        {"application", "'application'"}});
const std::string kAllowed = "okay\n" + show(AccessControlEntry("*", "allow"));
/// The default policy of one application: nobody else's rule is found in its place.
const Row kPolicy = kRule.with("object", "'node'").with("access_action", "'default'");

template <typename Target>
void addRules(Entries& table)
{
    struct Argument {
        const char* name;
        const char* column;
        const char* stored;
    };
    for (const Argument& argument :
         {Argument{"handle", "object", "$1 || '@oryx.example'"}, Argument{"domain", "object", "'carol@' || $1"},
          Argument{"application", "application", "$1"}}) {
        table.push_back({
            .argument =
                argumentOf<Target>("getAccessControlList(handle, domain, application, entries) ") + argument.name,
            .place = Place::key,
            .before = {kRule.with(argument.column, argument.stored).insert(), kPolicy.insert()},
            .call =
                [which = std::string(argument.name)](Library& library, const std::string& text) {
                    const auto of = [&](const char* name, const char* value) {
                        return which == name ? text.c_str() : value;
                    };
                    return listed<AccessControlEntry>([&](auto& entries) {
                        return library.get<Target>().getAccessControlList(of("handle", "carol"),
                                                                          of("domain", "oryx.example"),
                                                                          of("application", "application"), entries);
                    });
                },
            .answer = kAllowed,
            .refused = argument.name == std::string("application")
                           ? "not found\n"
                           : "okay\n" + show(AccessControlEntry("*", "default")),
        });
    }
}

void addHandleRules(Entries& table)
{
    using Executor = oryx::PresenceDatabaseCommandExecutor;
    for (const bool isHandle : {true, false}) {
        const Row rule = isHandle ? kRule.with("object") : kRule.with("object", "'carol'").with("application");
        table.push_back({
            .argument = argumentOf<Executor>("getAccessControlList(handle, application, entries) ") +
                        (isHandle ? "handle" : "application"),
            .place = Place::key,
            .before = {rule.insert(), kPolicy.insert()},
            .call =
                [=](Library& library, const std::string& text) {
                    return listed<AccessControlEntry>([&](auto& entries) {
                        return library.events.getAccessControlList(isHandle ? text.c_str() : "carol",
                                                                   isHandle ? "application" : text.c_str(), entries);
                    });
                },
            .answer = kAllowed,
            .refused = isHandle ? "okay\n" + show(AccessControlEntry("*", "default")) : "not found\n",
        });
    }
    table.push_back({
        .argument = argumentOf<Executor>("getAccessControlList(handle, application, entries) application"),
        .variant = "defaultPolicy",
        .place = Place::key,
        .before = {kPolicy.with("application").insert()},
        .call =
            [](Library& library, const std::string& text) {
                return listed<AccessControlEntry>([&](auto& entries) {
                    return library.events.getAccessControlList("nobody", text.c_str(), entries);
                });
            },
        .answer = "okay\n" + show(AccessControlEntry("*", "default")),
        .refused = "not found\n",
    });
}

template <typename Target>
void addLists(Entries& table)
{
    table.push_back({
        .argument = argumentOf<Target>("getListId(listName, id) listName"),
        .place = Place::key,
        .before = {"INSERT INTO buddy_list (buddy_list_id, buddy_list_name) VALUES (9, $1)"},
        .call =
            [](Library& library, const std::string& text) {
                int id = 0;
                const oryx::DatabaseResult result = library.get<Target>().getListId(text.c_str(), &id);
                return told(result) + std::to_string(id) + "\n";
            },
        .answer = "okay\n9\n",
        .refused = "not found\n0\n",
    });
    for (const bool isHandle : {true, false}) {
        table.push_back({
            .argument = argumentOf<Target>("isWatcherAllowedToSubscribeToList(listId, handle, domain) ") +
                        (isHandle ? "handle" : "domain"),
            .place = Place::key,
            .before = {std::string("INSERT INTO presence_list_authorization VALUES (1, ") +
                       (isHandle ? "$1, 'oryx.example'" : "'carol', $1") + ", 'A')"},
            .call =
                [=](Library& library, const std::string& text) {
                    return told(library.get<Target>().isWatcherAllowedToSubscribeToList(
                        1, isHandle ? text.c_str() : "carol", isHandle ? "oryx.example" : text.c_str()));
                },
            .refused = "not found\n",
        });
        table.push_back({
            .argument = argumentOf<Target>("isWatcherAllowedToSubscribeToList(listId, handle, domain) ") +
                        (isHandle ? "handle" : "domain"),
            .variant = "notAllowed",
            .before = {"INSERT INTO presence_list_authorization VALUES (1, 'hara', 'hara', 'A')"},
            .call =
                [=](Library& library, const std::string& text) {
                    return told(library.get<Target>().isWatcherAllowedToSubscribeToList(
                        1, isHandle ? text.c_str() : "hara", isHandle ? "hara" : text.c_str()));
                },
            .answer = "not found\n",
        });
    }
}

const Row kMapping("listsubscriptions", {{"listfsmidentifier", "'fsm'"},
                                         {"subscriptionidentifier", "'subscription-9'"},
                                         {"expirytime", "9"}});
/// Another subscription of the same list, and one of the same name of another.
const std::string kOtherMapping = kMapping.with("subscriptionidentifier", "'other'").insert();
const std::string kOtherList = kMapping.with("listfsmidentifier", "'other'").insert();

template <typename Target>
void addMappings(Entries& table)
{
    for (const bool isList : {true, false}) {
        const char* const argument = isList ? "listFsmId" : "subscriptionId";
        const Row row = kMapping.with(isList ? "listfsmidentifier" : "subscriptionidentifier");
        const std::string where = isList ? " WHERE listfsmidentifier = $1 AND subscriptionidentifier = 'subscription-9'"
                                         : " WHERE listfsmidentifier = 'fsm' AND subscriptionidentifier = $1";
        const auto list = [=](const std::string& text) { return isList ? text.c_str() : "fsm"; };
        const auto subscription = [=](const std::string& text) { return isList ? "subscription-9" : text.c_str(); };
        table.push_back({
            .argument = argumentOf<Target>("createListMapping(listFsmId, subscriptionId, expiry) ") + argument,
            .place = Place::key,
            .before = {kOtherMapping, kOtherList},
            .change = {row.insert()},
            .call =
                [=](Library& library, const std::string& text) {
                    return told(library.get<Target>().createListMapping(list(text), subscription(text), 9));
                },
            .refused = "connection error 54000\n",
        });
        table.push_back({
            .argument = argumentOf<Target>("removeListMapping(listFsmId, subscriptionId) ") + argument,
            .place = Place::key,
            .before = {row.insert(), kOtherMapping, kOtherList},
            .change = {"DELETE FROM listsubscriptions" + where},
            .call =
                [=](Library& library, const std::string& text) {
                    return told(library.get<Target>().removeListMapping(list(text), subscription(text)));
                },
        });
        table.push_back({
            .argument = argumentOf<Target>(
                            "updateStateForListMapping(listFsmId, oldSubscriptionId, newSubscriptionId, expiry) ") +
                        (isList ? "listFsmId" : "oldSubscriptionId"),
            .place = Place::key,
            .before = {row.insert(), kOtherMapping, kOtherList},
            .change = {"UPDATE listsubscriptions SET subscriptionidentifier = 'new', expirytime = 10" + where},
            .call =
                [=](Library& library, const std::string& text) {
                    return told(
                        library.get<Target>().updateStateForListMapping(list(text), subscription(text), "new", 10));
                },
        });
    }
    table.push_back({
        .argument = argumentOf<Target>(
            "updateStateForListMapping(listFsmId, oldSubscriptionId, newSubscriptionId, expiry) newSubscriptionId"),
        .place = Place::key,
        .before = {kMapping.insert(), kOtherMapping, kOtherList},
        .change = {"UPDATE listsubscriptions SET subscriptionidentifier = $1, expirytime = 10 WHERE "
                   "listfsmidentifier = 'fsm' AND subscriptionidentifier = 'subscription-9'"},
        .call =
            [](Library& library, const std::string& text) {
                return told(library.get<Target>().updateStateForListMapping("fsm", "subscription-9", text.c_str(), 10));
            },
        .refused = "connection error 54000\n",
    });
    table.push_back({
        .argument = argumentOf<Target>("getAllMappingsForList(listFsmId, records) listFsmId"),
        .place = Place::key,
        .before = {kMapping.with("listfsmidentifier").insert(), kOtherMapping, kOtherList},
        .call =
            [](Library& library, const std::string& text) {
                return listed<ListSubscriptionRecord>(
                    [&](auto& records) { return library.get<Target>().getAllMappingsForList(text.c_str(), records); });
            },
        .answer = "okay\n" + show(ListSubscriptionRecord("$1", "subscription-9", 9)),
        .refused = "not found\n",
    });
}

} // namespace

template <typename Target>
Entries authorizationEntries()
{
    Entries table;
    addRules<Target>(table);
    addLists<Target>(table);
    addMappings<Target>(table);
    if constexpr (std::is_same_v<Target, oryx::PresenceDatabaseCommandExecutor>) {
        addHandleRules(table);
    }
    return table;
}

template Entries authorizationEntries<oryx::PresenceService>();
template Entries authorizationEntries<oryx::PresenceDatabaseCommandExecutor>();
