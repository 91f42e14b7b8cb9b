// Text arguments about what provisioning writes and the event server reads: its changes, call managers, addresses.

#include "hostile/Registrar.h"

namespace {

using oryx::CMRecord;
using oryx::DatabaseResult;
using oryx::PublicAddressRecord;

const Row kManager("acp", {{"handle", "'manager-9'"},
                           {"link_type", "'sctp'"},
                           {"sip_trunk_ipaddress", "'192.0.2.9'"},
                           {"sip_port", "'5090'"}});

struct ManagerField {
    const char* name;
    const char* column;
    Place place;
    void (CMRecord::*set)(const char*);
};
constexpr ManagerField kManagerFields[]{
    {"GetHandle", "handle", Place::key, &CMRecord::SetHandle},
    {"GetLinkType", "link_type", Place::column, &CMRecord::SetLinkType},
    {"GetIPAddress", "sip_trunk_ipaddress", Place::column, &CMRecord::SetIPAddress},
    {"GetPort", "sip_port", Place::column, &CMRecord::SetPort},
};

/// The call managers like one with the text in that field.
template <typename Target>
std::string managersLike(Library& library, const ManagerField& field, const std::string& text, bool regexMatch)
{
    std::vector<CMRecord> records(1);
    (records.front().*field.set)(text.c_str());
    const DatabaseResult result = library.get<Target>().getCMforBulkSub(records, regexMatch);
    return told(result) + oryx::show(records);
}

template <typename Target>
void addManagers(Entries& table)
{
    for (const ManagerField& field : kManagerFields) {
        CMRecord manager;
        manager.SetHandle("manager-9");
        manager.SetPort("5090");
        manager.SetLinkType("sctp");
        manager.SetIPAddress("192.0.2.9");
        (manager.*field.set)("$1");
        table.push_back({
            .argument = argumentOf<Target>("getCMforBulkSub(records, regexMatch) records.") + field.name,
            .place = field.place,
            .before = {kManager.with(field.column).insert()},
            .call = [=](Library& library,
                        const std::string& text) { return managersLike<Target>(library, field, text, false); },
            .answer = "okay\n" + show(manager),
            .refused = "okay\n",
        });
        table.push_back({
            .argument = argumentOf<Target>("getCMforBulkSub(records, regexMatch) records.") + field.name,
            .variant = "matched",
            .place = field.place,
            .before = {kManager.with(field.column).insert()},
            .call =
                [=](Library& library, const std::string& text) {
                    std::vector<CMRecord> records(1);
                    (records.front().*field.set)(text.c_str());
                    return listedKeys<CMRecord>(
                        [&](auto& found) {
                            const DatabaseResult result = library.get<Target>().getCMforBulkSub(records, true);
                            found = records;
                            return result;
                        },
                        [](const CMRecord& record) { return record.GetHandle(); });
                },
            .answer = "okay\n",
            .found =
                std::string("SELECT handle FROM acp WHERE ") + field.column + " ~* $1 ORDER BY handle COLLATE \"C\"",
            .refused = "okay\n", // those that cannot be read are none
        });
    }
}

template <typename Target>
void addChangeLog(Entries& table)
{
    table.push_back({
        .argument = argumentOf<Target>("getUpdatedPrimaryKeys(tableName, since, updates) tableName"),
        .place = Place::key,
        .before = {"INSERT INTO event_notify_earlier (table_name, pk_int, evt_timestamp) VALUES ($1, 9, 99)"},
        .call =
            [](Library& library, const std::string& text) {
                return listed<oryx::DatabaseUpdate>(
                    [&](auto& updates) { return library.get<Target>().getUpdatedPrimaryKeys(text, "7", updates); });
            },
        .answer = "okay\n" + show(oryx::DatabaseUpdate("$1", 9, "", "", "99")),
        .refused = "not found\n",
    });
    table.push_back({
        .argument = argumentOf<Target>("getUpdatedPrimaryKeys(tableName, since, updates) since"),
        .call =
            [](Library& library, const std::string& text) {
                return listed<oryx::DatabaseUpdate>([&](auto& updates) {
                    return library.get<Target>().getUpdatedPrimaryKeys("subscriber", text, updates);
                });
            },
        .found = "SELECT pk_int FROM event_notify WHERE table_name = 'subscriber' AND evt_timestamp > $1::bigint",
    });
}

template <typename Target>
void addAddresses(Entries& table, const AddressPart& part)
{
    table.push_back({
        .argument = argumentOf<Target>("getAliases(handle, domain, aliases) ") + part.name,
        .place = Place::key,
        .before = {kAddress.with(part.column).insert()},
        .call =
            [=](Library& library, const std::string& text) {
                return listed<PublicAddressRecord>([&](auto& aliases) {
                    return library.get<Target>().getAliases(part.handle(text), part.domain(text), aliases);
                });
            },
        .answer =
            [&] {
                PublicAddressRecord address(part.isHandle ? "$1" : "carol", part.isHandle ? "oryx.example" : "$1", 14,
                                            "public");
                address.setPublicAddressId(44);
                return "okay\n" + show(address);
            }(),
        .refused = "not found\n",
    });
    // Of two addresses either may be the one with the text.
    for (const bool first : {true, false}) {
        table.push_back({
            .argument = argumentOf<Target>("areAliases(handle1, domain1, handle2, domain2, aliases) ") + part.name +
                        (first ? "1" : "2"),
            .place = Place::key,
            .before = {kAddress.with(part.column).insert(),
                       "INSERT INTO public_address (handle, sip_domain, csid) VALUES ('alias', 'oryx.example', 14)"},
            .call =
                [=](Library& library, const std::string& text) {
                    bool aliases = false;
                    Target& target = library.get<Target>();
                    const DatabaseResult result =
                        first
                            ? target.areAliases(part.handle(text), part.domain(text), "alias", "oryx.example", aliases)
                            : target.areAliases("alias", "oryx.example", part.handle(text), part.domain(text), aliases);
                    return told(result) + (aliases ? "aliases\n" : "");
                },
            .answer = "okay\naliases\n",
            .refused = "not found\n",
        });
    }
    table.push_back(subscriberLookup<Target>(part));
}

/// The service finds an address of record however it is written.
void addServiceLookups(Entries& table, const AddressPart& part)
{
    table.push_back({
        .argument = argumentOf<oryx::PresenceService>("getPublicAddressKey(handle, domain, key, csid) ") + part.name,
        .place = Place::key,
        .before = {kAddress.with(part.column, "lower($1 COLLATE \"C\")").insert()},
        .call =
            [=](Library& library, const std::string& text) {
                int key = 0;
                int csid = 0;
                const DatabaseResult result =
                    library.presence.getPublicAddressKey(part.handle(text), part.domain(text), key, csid);
                return told(result) + std::to_string(key) + " " + std::to_string(csid) + "\n";
            },
        .answer = "okay\n44 14\n",
        .refused = "not found\n-1 0\n",
    });
}

void addSubscribers(Entries& table)
{
    table.push_back({
        .argument = argumentOf<oryx::PresenceDatabaseCommandExecutor>("getSubscribers(subscribers, type) type"),
        .place = Place::key,
        .before = {"INSERT INTO subscriber (sid, auth_user_id, s_type) VALUES (10, 'dave', $1)"},
        .call =
            [](Library& library, const std::string& text) {
                return listedKeys<oryx::SubscriberRecord>(
                    [&](auto& subscribers) { return library.events.getSubscribers(subscribers, text.c_str()); },
                    [](const oryx::SubscriberRecord& rec) { return rec.userId() + " " + rec.type(); });
            },
        .answer = "okay\ndave $1\n",
        .refused = "not found\n",
    });
}

} // namespace

template <typename Target>
Entries provisioningEntries()
{
    Entries table;
    addManagers<Target>(table);
    addChangeLog<Target>(table);
    for (const AddressPart& part : kAddressParts) {
        addAddresses<Target>(table, part);
        if constexpr (std::is_same_v<Target, oryx::PresenceService>) {
            addServiceLookups(table, part);
        } else {
            table.push_back(addressLookup<Target>(part));
        }
    }
    if constexpr (std::is_same_v<Target, oryx::PresenceDatabaseCommandExecutor>) {
        addSubscribers(table);
    }
    table.push_back({
        .argument = argumentOf<Target>("getPaidFromExtension(extension, paid) extension"),
        .place = Place::key,
        .before = {"INSERT INTO extension VALUES ($1, 'c', '44')"},
        .call =
            [](Library& library, const std::string& text) {
                int paid = -1;
                const DatabaseResult result = library.get<Target>().getPaidFromExtension(text, paid);
                return told(result) + std::to_string(paid) + "\n";
            },
        .answer = "okay\n44\n",
        .refused = "not found\n-1\n",
    });
    return table;
}

template Entries provisioningEntries<oryx::PresenceService>();
template Entries provisioningEntries<oryx::PresenceDatabaseCommandExecutor>();
