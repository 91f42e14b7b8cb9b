// Text arguments of LocationService: registrations, and who may call whom.

#include "hostile/Registrar.h"

namespace {

using oryx::ContactRecord;
using oryx::DatabaseResult;
using oryx::LocationService;

constexpr const char* kFirst = "sip:first@192.0.2.9";
const std::string kFirstQuoted = "'sip:first@192.0.2.9'";
const std::string kOfCarolsFirst = "csid = 14 AND address = 'sip:first@192.0.2.9'";
const std::string kOfCarols = "csid = 14 AND address = 'sip:carol@192.0.2.9'";
const std::string kWithText = "csid = 14 AND address = $1";

using OnContacts = DatabaseResult (LocationService::*)(int, std::vector<ContactRecord>&);

/// One request with two contacts, the second with the text in that field.
auto twoContacts(OnContacts operation, const Field<ContactRecord>& field)
{
    return [operation, set = field.set](Library& library, const std::string& text) {
        std::vector<ContactRecord> contacts{carolsContact(kFirst), carolsContact()};
        set(contacts.back(), text.c_str());
        return told((library.location.*operation)(44, contacts));
    };
}

bool isAddress(const Field<ContactRecord>& field)
{
    return field.place == Place::key;
}

void addRegistrations(Entries& table)
{
    for (const Field<ContactRecord>& field : contactFields()) {
        const Place change = isAddress(field) ? Place::key : Place::column; // what only a registration stores
        const std::string with = std::string("contacts.") + field.name;
        table.push_back({
            .argument = argumentOf<LocationService>("registerContacts(key, contacts) ") + with,
            .place = field.place,
            .before = {kAddress.insert()},
            .change = {kContact.with("address", kFirstQuoted).insert(),
                       kContact.with(field.column, valueOf(field)).insert()},
            .call = twoContacts(&LocationService::registerContacts, field),
            .refused = field.place == Place::flag ? "query error 22P02\n" : "query error 54000\n",
        });
        const std::string found = isAddress(field) ? kWithText : kOfCarols;
        const Row there = isAddress(field) ? kStaleContact.with("address") : kStaleContact;
        const bool refreshed = !isAddress(field) && change == field.place;
        table.push_back({
            .argument = argumentOf<LocationService>("updateContacts(key, contacts) ") + with,
            .place = change,
            .before = {kAddress.insert(), kStaleContact.with("address", kFirstQuoted).insert(), there.insert()},
            .change = {kRefreshed.update(kOfCarolsFirst),
                       kRefreshed.with(refreshed ? field.column : nullptr).update(found)},
            .call = twoContacts(&LocationService::updateContacts, field),
        });
        table.push_back({
            .argument = argumentOf<LocationService>("unregisterContacts(key, contacts) ") + with,
            .place = change,
            .before = {kAddress.insert(), kContact.with("address", kFirstQuoted).insert(), there.insert()},
            .change = {"DELETE FROM contact WHERE " + kOfCarolsFirst, "DELETE FROM contact WHERE " + found},
            .call = twoContacts(&LocationService::unregisterContacts, field),
        });
    }
}

void addRegistrationLookups(Entries& table)
{
    const std::string carols = "okay\n" + show(carolsContact()) + "sequential replace\n";
    for (const AddressPart& part : kAddressParts) {
        table.push_back({
            .argument = argumentOf<LocationService>("getPublicAddressKey(handle, domain, key) ") + part.name,
            .place = Place::key,
            .before = {kAddress.with(part.column).insert()},
            .call =
                [=](Library& library, const std::string& text) {
                    int key = 0;
                    const DatabaseResult result =
                        library.location.getPublicAddressKey(part.handle(text), part.domain(text), key);
                    return told(result) + std::to_string(key) + "\n";
                },
            .answer = "okay\n44\n",
            .refused = "not found\n-1\n",
        });
        table.push_back(subscriberLookup<LocationService>(part));
        table.push_back({
            .argument = argumentOf<LocationService>("lookupContacts(handle, domain, ordering, replaceUri, contacts) ") +
                        part.name,
            .place = Place::key,
            .before = {kAddress.with(part.column).insert(), kContact.insert()},
            .call =
                [=](Library& library, const std::string& text) {
                    return contactsFound([&](auto& ordering, bool& replaceUri, auto& contacts) {
                        return library.location.lookupContacts(part.handle(text), part.domain(text), ordering,
                                                               replaceUri, contacts);
                    });
                },
            .answer = carols,
            .refused = "okay\nnone replace\n",
        });
    }
}

void addAccess(Entries& table)
{
    table.push_back({
        .argument = argumentOf<LocationService>("getOutboundRoute(uri, internal, proxy, allowed) uri"),
        .call =
            [](Library& library, const std::string& text) {
                std::string proxy = "none";
                bool allowed = true;
                return told(library.location.getOutboundRoute(text.c_str(), true, proxy, allowed)) + proxy + "\n";
            },
        .answer = "query error\nnone\n", // none of the texts is a SIP URI
    });
    table.push_back({
        .argument = argumentOf<LocationService>("checkInboundDomainAccess(domain, allowed) domain"),
        .before = {"INSERT INTO domain_access (direction, sip_domain, domain_action) VALUES ('i', $1, 'd')"},
        .call =
            [](Library& library, const std::string& text) {
                bool allowed = true;
                bool othersAllowed = false;
                const DatabaseResult result = library.location.checkInboundDomainAccess(text.c_str(), allowed);
                library.location.checkInboundDomainAccess("oryx.example", othersAllowed);
                return told(result) + (allowed ? "allowed" : "denied") + (othersAllowed ? "" : ", others too") + "\n";
            },
        .answer = "okay\ndenied\n",
    });
}

} // namespace

Entries registrationEntries()
{
    Entries table;
    addRegistrations(table);
    addRegistrationLookups(table);
    addAccess(table);
    return table;
}
