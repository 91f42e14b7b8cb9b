// The table of all text arguments, put together.

#include "hostile/Entry.h"

#include <iterator>
#include <set>
#include <string>
#include <utility>

namespace {

void append(Entries& table, Entries entries)
{
    std::move(entries.begin(), entries.end(), std::back_inserter(table));
}

template <typename Target>
void appendPresence(Entries& table)
{
    append(table, dialogEntries<Target>());
    append(table, watcherEntries<Target>());
    append(table, sourceEntries<Target>());
    append(table, authorizationEntries<Target>());
    append(table, conferenceEntries<Target>());
    append(table, provisioningEntries<Target>());
}

} // namespace

Entries allEntries()
{
    Entries table = registrationEntries();
    append(table, registrarEntries());
    append(table, requestEntries());
    append(table, publicationEntries());
    append(table, addressMapEntries<oryx::LocationService>());
    append(table, addressMapEntries<oryx::PresenceService>());
    append(table, settingEntries<oryx::DatabaseCommandExecutor>());
    append(table, settingEntries<oryx::PresenceDatabaseCommandExecutor>());
    append(table, proxyEntries<oryx::LocationService>());
    append(table, proxyEntries<oryx::DatabaseCommandExecutor>());
    appendPresence<oryx::PresenceService>(table);
    appendPresence<oryx::PresenceDatabaseCommandExecutor>(table);
    return table;
}

Entries oneOfEachOperation()
{
    static const std::set<std::string> kSeveralCalls{"lookupMapEntry", "removeMapEntry", "checkInboundDomainAccess"};
    Entries table;
    std::set<std::string> operations;
    for (Entry& entry : allEntries()) {
        const std::size_t begin = entry.argument.find("::") + 2;
        const std::string operation = entry.argument.substr(begin, entry.argument.find(')') - begin);
        const std::string server = entry.argument.starts_with("Presence") ? "events " : "registrar ";
        if (!kSeveralCalls.contains(operation.substr(0, operation.find('('))) &&
            operations.insert(server + operation).second) {
            table.push_back(std::move(entry));
        }
    }
    return table;
}
