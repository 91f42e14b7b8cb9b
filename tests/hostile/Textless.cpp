// The operations that take no text: keys, or nothing at all.

#include "hostile/Registrar.h"
#include "support/ShowPublications.h"

#include <dal/ExpiredBindings.h>

namespace {

using oryx::DatabaseCommandExecutor;
using oryx::LocationService;
using oryx::PresenceDatabaseCommandExecutor;
using oryx::PresenceService;

/// An operation, with a call that is given the object it is called on.
template <typename Target, typename Call>
Entry operation(const char* signature, Call call)
{
    return {
        .argument = argumentOf<Target>(signature),
        .call = [call](Library& library, const std::string& /*text*/) { return call(library.get<Target>()); },
    };
}

template <typename Lookup>
std::string keyFound(const Lookup& lookup)
{
    int key = 0;
    const oryx::DatabaseResult result = lookup(key);
    return told(result) + std::to_string(key) + "\n";
}

template <typename Target>
std::string domainName(Target& target)
{
    std::string name;
    return target.getDomainName(name) + "\n";
}

void appendLocation(Entries& table)
{
    using Service = LocationService;
    using Executor = DatabaseCommandExecutor;
    table.push_back(operation<Service>("lookupContacts(key, ordering, replaceUri, contacts)", [](Service& service) {
        return contactsFound([&](auto&... out) { return service.lookupContacts(42, out...); });
    }));
    table.push_back(operation<Service>("removeExpiredContacts()",
                                       [](Service& service) { return told(service.removeExpiredContacts()); }));
    // The entry of this one's text calls it twice.
    table.push_back(operation<Service>("checkInboundDomainAccess(domain, allowed)", [](Service& service) {
        bool allowed = false;
        return told(service.checkInboundDomainAccess("oryx.example", allowed));
    }));
    table.push_back(operation<Service>("getNodeType(nodeType)", [](Service& service) {
        std::string type;
        const oryx::DatabaseResult result = service.getNodeType(type);
        return told(result) + type + "\n";
    }));
    table.push_back(operation<Service>("getDomainName(out)", [](Service& service) { return domainName(service); }));
    table.push_back(operation<Service>("getDefaultRoute(ordering, replaceUri, contacts)", [](Service& service) {
        return contactsFound([&](auto&... out) { return service.getDefaultRoute(out...); });
    }));
    table.push_back(operation<Executor>(
        "removeSubscriber(sid)", [](Executor& executor) { return told(executor.removeSubscriber(7), executor); }));
    // Where the numbers that come next are used.
    table.push_back(operation<Executor>("addContact(rec)", [](Executor& executor) {
        oryx::ContactRecord rec = carolsContact();
        rec.setCsid(14);
        return told(executor.addContact(rec), executor);
    }));
    table.back().before = {
        "INSERT INTO contact (contact_id, csid, address) SELECT n, 13, n FROM generate_series(1001, 1020) n"};
    table.push_back(operation<Executor>("addSubscriber(rec)", [](Executor& executor) {
        return told(executor.addSubscriber(oryx::SubscriberRecord()), executor);
    }));
    table.back().before = {"INSERT INTO subscriber (sid) SELECT generate_series(1001, 1020)"};
    // Asks the server only where the connection has been given up before.
    table.push_back(operation<Executor>("checkConnect()", [](Executor& executor) {
        return std::string(executor.checkConnect() ? "connected\n" : "not connected\n");
    }));
    table.push_back(operation<Executor>("getHostInfo(info)", [](Executor& executor) {
        oryx::HostInfo info;
        const oryx::DatabaseResult result = executor.getHostInfo(info);
        return told(result) + show(info);
    }));
    table.push_back(operation<Executor>("getDomainAccessList(rules)", [](Executor& executor) {
        return listed<oryx::DomainAccess>([&](auto& rules) { return executor.getDomainAccessList(rules); });
    }));
}

/// What both executors have.
template <typename Executor>
void appendExecutors(Entries& table)
{
    table.push_back(operation<Executor>("getDomainName(domainName)", domainName<Executor>));
    table.push_back(operation<Executor>("getDomainNameList(domainNameList)", [](Executor& executor) {
        std::vector<std::string> names;
        const int count = executor.getDomainNameList(names);
        return told(count, executor) + oryx::show(names);
    }));
    table.push_back(operation<Executor>("getNthElementOfDomainList(domainName, index)", [](Executor& executor) {
        std::string name;
        return executor.getNthElementOfDomainList(name, 0) + "\n";
    }));
    table.push_back(
        operation<Executor>("lookupContacts(publicAddressId, ordering, replaceUri, contacts)", [](Executor& executor) {
            return contactsFound([&](auto&... out) { return executor.lookupContacts(42, out...); });
        }));
    table.push_back(operation<Executor>("lookupContacts(ordering, csid, replaceUri, contacts)", [](Executor& executor) {
        return contactsFound([&](auto& ordering, bool& replaceUri, auto& contacts) {
            return executor.lookupContacts(ordering, 12, replaceUri, contacts);
        });
    }));
    table.push_back(operation<Executor>("getAddressMaps(maps)", [](Executor& executor) {
        return listed<oryx::AddressMapRecord>([&](auto& maps) { return executor.getAddressMaps(maps); });
    }));
}

/// What the event server's service and executor have.
template <typename Target>
void appendTextless(Entries& table)
{
    table.push_back(operation<Target>("getIncomingMatchingSubscriptions(records)", [](Target& target) {
        return listed<oryx::PresenceRecord>(
            [&](auto& records) { return target.getIncomingMatchingSubscriptions(records); });
    }));
    table.push_back(operation<Target>("getListEntries(listId, uris)", [](Target& target) {
        return listed<std::string>([&](auto& uris) { return target.getListEntries(1, uris); });
    }));
    table.push_back(operation<Target>("isWatcherAllowedToAccessList(watcher, listId)",
                                      [](Target& target) { return told(target.isWatcherAllowedToAccessList(1, 2)); }));
    table.push_back(operation<Target>("getAllValidConfExts(out)", [](Target& target) {
        return listed<oryx::ConfExtRecord>([&](auto& out) { return target.getAllValidConfExts(out); });
    }));
    table.push_back(operation<Target>("getAllObsoleteConfExtNotInUse(out)", [](Target& target) {
        return listed<oryx::ConfExtRecord>([&](auto& out) { return target.getAllObsoleteConfExtNotInUse(out); });
    }));
    table.push_back(operation<Target>("deleteAllObsoleteConfExtNotInUse()",
                                      [](Target& target) { return told(target.deleteAllObsoleteConfExtNotInUse()); }));
    table.push_back(operation<Target>("reserveRandomlyIdleConfExtAsInUse(extension)", [](Target& target) {
        std::string extension;
        const oryx::DatabaseResult result = target.reserveRandomlyIdleConfExtAsInUse(extension);
        return told(result) + extension + "\n";
    }));
    table.push_back(operation<Target>("getProxyConfig(items)", [](Target& target) {
        return listed<oryx::ProxyConfig>([&](auto& items) { return target.getProxyConfig(items); });
    }));
    table.push_back(operation<Target>("getAllPublicAddresses(addresses, primaryOnly)", [](Target& target) {
        return listed<oryx::PublicAddressRecord>(
            [&](auto& addresses) { return target.getAllPublicAddresses(addresses, true); });
    }));
    table.push_back(operation<Target>("getCsidFromContactId(contactId, csid)", [](Target& target) {
        return keyFound([&](int& key) { return target.getCsidFromContactId(1, key); });
    }));
    table.push_back(operation<Target>("getCsid(publicAddressId, csid)", [](Target& target) {
        return keyFound([&](int& key) { return target.getCsid(42, key); });
    }));
    table.push_back(operation<Target>("flushExpiredContacts(expired)", [](Target& target) {
        return listed<oryx::ExtendedContactRecord>([&](auto& expired) { return target.flushExpiredContacts(expired); });
    }));
    table.back().before = {kStaleContact.with("csid", "12").insert()}; // without one it only looks
}

void appendEventServer(Entries& table)
{
    using Service = PresenceService;
    using Executor = PresenceDatabaseCommandExecutor;
    appendTextless<Service>(table);
    appendTextless<Executor>(table);
    table.push_back(operation<Service>("getDomainName(out)", domainName<Service>));
    table.push_back(operation<Service>("lookupContacts(csid, ordering, replaceUri, contacts)", [](Service& service) {
        return contactsFound([&](auto&... out) { return service.lookupContacts(12, out...); });
    }));
    table.push_back(operation<Executor>("getIncomingSubscriptions(records)", [](Executor& executor) {
        return listed<oryx::PresenceRecord>([&](auto& records) { return executor.getIncomingSubscriptions(records); });
    }));
    table.push_back({
        .argument = "oryx::removeExpiredPublications(service, expired)",
        .before = {"INSERT INTO publication (public_address_id, event, first_tag, entity_tag, presentity, expires, "
                   "content_type, body) VALUES (42, 'presence', 'a', 'a', 'alice@oryx.example', 5, 'type', 'body')"},
        .call =
            [](Library& library, const std::string& /*text*/) {
                return listed<oryx::ExpiredPublication>(
                    [&](auto& expired) { return removeExpiredPublications(library.presence, expired); });
            },
    });
    table.push_back({
        .argument = "oryx::removeExpiredBindings(service, removed)",
        .before = {kStaleContact.with("csid", "12").insert()},
        .call =
            [](Library& library, const std::string& /*text*/) {
                return listed<oryx::ExtendedContactRecord>(
                    [&](auto& removed) { return removeExpiredBindings(library.presence, removed); });
            },
    });
    const std::pair<const char*, oryx::DatabaseResult (Executor::*)()> resets[]{
        {"removeSubscriptionStates()", &Executor::removeSubscriptionStates},
        {"removeEventWatchers()", &Executor::removeEventWatchers},
        {"removeEventSources()", &Executor::removeEventSources},
        {"removeListWatchers()", &Executor::removeListWatchers},
        {"removeWinfoWatchers()", &Executor::removeWinfoWatchers},
        {"removeEventServerState()", &Executor::removeEventServerState},
    };
    for (const auto& [signature, reset] : resets) {
        table.push_back(
            operation<Executor>(signature, [reset = reset](Executor& executor) { return told((executor.*reset)()); }));
    }
}

} // namespace

Entries textlessOperations()
{
    Entries table;
    appendLocation(table);
    appendExecutors<DatabaseCommandExecutor>(table);
    appendExecutors<PresenceDatabaseCommandExecutor>(table);
    appendEventServer(table);
    return table;
}
