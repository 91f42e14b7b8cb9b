// The text arguments of DatabaseCommandExecutor.

#include "hostile/Registrar.h"

namespace {

using oryx::ContactRecord;
using oryx::DatabaseCommandExecutor;
using oryx::DatabaseResult;
using oryx::PublicAddressRecord;
using oryx::SubscriberRecord;

// The keys are those that the database gives next.
const Row kNewSet("contact_set", {{"sid", "9"}});
const Row kNewAddress("public_address", {{"handle", "'carol'"},
                                         {"sip_domain", "'oryx.example'"},
                                         {"csid", "(SELECT max(csid) FROM contact_set)"},
                                         {"primary_handle", "true"}});
const Row kAddedAddress("public_address", {{"handle", "'carol'"}, {"sip_domain", "'oryx.example'"}, {"csid", "14"}});
const Row kAlias("public_address", {{"handle", "'alias'"}, {"sip_domain", "'oryx.example'"}, {"csid", "14"}});
const Row kImportedContact("contact", {{"csid", "(SELECT max(csid) FROM contact_set)"},
                                       {"address", "'sip:carol@192.0.2.9'"},
                                       {"permanent", "true"}});
const std::string kNoSuchAddress = "-1 23503\n";
const std::string kTooLong = "-1 54000\n";

void addSubscriber(Entries& table)
{
    static const std::vector<Field<SubscriberRecord>> kFields{
        {"userId", "user_id", Place::column, &SubscriberRecord::setUserId},
        {"type", "s_type", Place::key, &SubscriberRecord::setType},
        {"authType", "auth_type", Place::column, &SubscriberRecord::setAuthType},
        {"password", "s_password", Place::column, &SubscriberRecord::setPassword},
        {"active", "active", Place::flag, [](auto& subscriber, auto* text) { subscriber.setActive(*text); }},
    };
    const Row added("subscriber", {{"sid", "10"},
                                   {"user_id", "'dave'"},
                                   {"s_type", "'home'"},
                                   {"auth_type", "'digest'"},
                                   {"s_password", "'secret'"},
                                   {"active", "'t'"}});
    for (const Field<SubscriberRecord>& field : kFields) {
        table.push_back({
            .argument = argumentOf<DatabaseCommandExecutor>("addSubscriber(rec) rec.") + field.name,
            .place = field.place,
            .change = {added.with(field.column, valueOf(field)).insert()},
            .call =
                [set = field.set](Library& library, const std::string& text) {
                    SubscriberRecord rec;
                    rec.setId(10);
                    rec.setUserId("dave");
                    rec.setType("home");
                    rec.setAuthType("digest");
                    rec.setPassword("secret");
                    set(rec, text.c_str());
                    return told(library.registrar.addSubscriber(rec), library.registrar);
                },
            .answer = "1\n",
            .refused = field.place == Place::flag ? "0 22P02\n" : "0 54000\n",
        });
    }
    table.push_back({
        .argument = argumentOf<DatabaseCommandExecutor>("changeSubscriberPassword(sid, password) password"),
        .change = {"UPDATE subscriber SET s_password = $1 WHERE sid = 9"},
        .call =
            [](Library& library, const std::string& text) {
                return told(library.registrar.changeSubscriberPassword(9, text.c_str()), library.registrar);
            },
        .answer = "1\n",
    });
    table.push_back({
        .argument = argumentOf<DatabaseCommandExecutor>("addContactSet(rec) rec.ordering"),
        .change = {"INSERT INTO contact_set (csid, sid, ordering) VALUES (15, 9, $1)"},
        .call =
            [](Library& library, const std::string& text) {
                oryx::ContactSetRecord rec;
                rec.setCsid(15);
                rec.setSid(9);
                rec.setOrdering(text.c_str());
                return told(library.registrar.addContactSet(rec));
            },
    });
}

void addProvisioning(Entries& table, const AddressPart& part)
{
    table.push_back({
        .argument = argumentOf<DatabaseCommandExecutor>("createPublicAddress(sid, handle, domain) ") + part.name,
        .place = Place::key,
        .change = {kNewSet.insert(), kNewAddress.with(part.column).insert()},
        .call =
            [=](Library& library, const std::string& text) {
                return told(library.registrar.createPublicAddress(9, part.handle(text), part.domain(text)),
                            library.registrar);
            },
        .answer = "0\n",
        .refused = kTooLong,
    });
    table.push_back({
        .argument =
            argumentOf<DatabaseCommandExecutor>("importPublicAddress(sid, handle, domain, contact) ") + part.name,
        .place = Place::key,
        .change = {kNewSet.insert(), kNewAddress.with(part.column).insert(), kImportedContact.insert()},
        .call =
            [=](Library& library, const std::string& text) {
                return told(library.registrar.importPublicAddress(9, part.handle(text), part.domain(text),
                                                                  "sip:carol@192.0.2.9"),
                            library.registrar);
            },
        .answer = "0\n",
        .refused = kTooLong,
    });
    table.push_back({
        .argument = argumentOf<DatabaseCommandExecutor>("aliasPublicAddress(handle, domain, alias) ") + part.name,
        .place = Place::key,
        .before = {kAddress.with(part.column).insert()},
        // Without its address of record there is nothing to make an alias of.
        .change = {"INSERT INTO public_address (handle, sip_domain, csid) SELECT 'alias', sip_domain, csid FROM "
                   "public_address WHERE public_address_id = 44"},
        .call =
            [=](Library& library, const std::string& text) {
                return told(library.registrar.aliasPublicAddress(part.handle(text), part.domain(text), "alias"),
                            library.registrar);
            },
        .answer = "0\n",
        .refused = kNoSuchAddress,
    });
}

void addAddresses(Entries& table)
{
    for (const AddressPart& part : kAddressParts) {
        addProvisioning(table, part);
        table.push_back(addressLookup<DatabaseCommandExecutor>(part));
        table.push_back({
            .argument = argumentOf<DatabaseCommandExecutor>("lookupSubscriber(handle, domain, rec) ") + part.name,
            .place = Place::key,
            .before = {kAddress.with(part.column).insert()},
            .call =
                [=](Library& library, const std::string& text) {
                    SubscriberRecord rec;
                    const int found = library.registrar.lookupSubscriber(part.handle(text), part.domain(text), rec);
                    return told(found, library.registrar) + rec.userId() + "\n";
                },
            .answer = "1\ncarol\n",
            .refused = "0\n\n",
        });
    }
    table.push_back({
        .argument = argumentOf<DatabaseCommandExecutor>("aliasPublicAddress(handle, domain, alias) alias"),
        .place = Place::key,
        .before = {kAddress.insert()},
        .change = {kAlias.with("handle").insert()},
        .call =
            [](Library& library, const std::string& text) {
                return told(library.registrar.aliasPublicAddress("carol", "oryx.example", text.c_str()),
                            library.registrar);
            },
        .answer = "0\n",
        .refused = kTooLong,
    });
    table.push_back({
        .argument = argumentOf<DatabaseCommandExecutor>("importPublicAddress(sid, handle, domain, contact) contact"),
        .place = Place::key,
        .change = {kNewSet.insert(), kNewAddress.insert(), kImportedContact.with("address").insert()},
        .call =
            [](Library& library, const std::string& text) {
                return told(library.registrar.importPublicAddress(9, "carol", "oryx.example", text.c_str()),
                            library.registrar);
            },
        .answer = "0\n",
        .refused = kTooLong,
    });
    static const std::vector<Field<PublicAddressRecord>> kFields{
        {"handle", "handle", Place::key, &PublicAddressRecord::setHandle},
        {"domain", "sip_domain", Place::key, &PublicAddressRecord::setDomain},
        {"scope", nullptr, Place::column, &PublicAddressRecord::setScope},
        {"adminDomain", nullptr, Place::column, &PublicAddressRecord::setAdminDomain},
    };
    for (const Field<PublicAddressRecord>& field : kFields) {
        table.push_back({
            .argument = argumentOf<DatabaseCommandExecutor>("addPublicAddress(rec) rec.") + field.name,
            .place = field.place,
            .change = {kAddedAddress.with(field.column).insert()},
            .call =
                [set = field.set](Library& library, const std::string& text) {
                    PublicAddressRecord rec("carol", "oryx.example", 14, "public");
                    set(rec, text.c_str());
                    return told(library.registrar.addPublicAddress(rec), library.registrar);
                },
            .answer = "0\n",
            .refused = kTooLong,
        });
    }
}

void addContacts(Entries& table)
{
    for (const AddressPart& part : kAddressParts) {
        table.push_back({
            .argument = argumentOf<DatabaseCommandExecutor>("addContact(handle, domain, rec) ") + part.name,
            .place = Place::key,
            .before = {kAddress.with(part.column).insert()},
            .change = {"INSERT INTO contact (csid, address, qvalue, expires, permanent, capabilities, contact_header, "
                       "call_id, cseq) SELECT csid, 'sip:carol@192.0.2.9', '0.7', 2000000000, false, 'audio', "
                       "'<sip:carol@192.0.2.9>', 'call-9', 1826 FROM public_address WHERE public_address_id = 44"},
            .call =
                [=](Library& library, const std::string& text) {
                    ContactRecord rec = carolsContact();
                    return told(library.registrar.addContact(part.handle(text), part.domain(text), rec),
                                library.registrar);
                },
            .answer = "0\n",
            .refused = kNoSuchAddress,
        });
        table.push_back({
            .argument = argumentOf<DatabaseCommandExecutor>("removeContact(handle, domain, address) ") + part.name,
            .place = Place::key,
            .before = {kAddress.with(part.column).insert(), kContact.insert()},
            .change = {"DELETE FROM contact USING public_address WHERE public_address_id = 44 AND contact.csid = 14"},
            .call =
                [=](Library& library, const std::string& text) {
                    return told(library.registrar.removeContact(part.handle(text), part.domain(text), kCarolsContact),
                                library.registrar);
                },
            .answer = "0\n",
        });
        table.push_back({
            .argument =
                argumentOf<DatabaseCommandExecutor>("lookupContacts(handle, domain, ordering, replaceUri, contacts) ") +
                part.name,
            .place = Place::key,
            .before = {kAddress.with(part.column).insert(), kContact.insert()},
            .call =
                [=](Library& library, const std::string& text) {
                    std::string ordering = "none";
                    bool replaceUri = false;
                    return listed<ContactRecord>([&](auto& contacts) {
                               return library.registrar.lookupContacts(part.handle(text), part.domain(text), ordering,
                                                                       replaceUri, contacts);
                           }) +
                           ordering + "\n";
                },
            .answer = "okay\n" + show(carolsContact()) + "sequential\n",
            .refused = "okay\nnone\n",
        });
    }
    table.push_back({
        .argument = argumentOf<DatabaseCommandExecutor>("removeContact(handle, domain, address) address"),
        .place = Place::key,
        .before = {kAddress.insert(), kContact.insert(), kContact.with("address").insert()},
        .change = {"DELETE FROM contact WHERE csid = 14 AND address = $1"},
        .call =
            [](Library& library, const std::string& text) {
                return told(library.registrar.removeContact("carol", "oryx.example", text.c_str()), library.registrar);
            },
        .answer = "0\n",
    });
}

void addContactRecords(Entries& table)
{
    for (const Field<ContactRecord>& field : contactFields()) {
        const std::string refused = field.place == Place::flag ? "-1 22P02\n" : kTooLong;
        const std::string added = kContact.with(field.column, valueOf(field)).insert();
        table.push_back({
            .argument = argumentOf<DatabaseCommandExecutor>("addContact(handle, domain, rec) rec.") + field.name,
            .place = field.place,
            .before = {kAddress.insert()},
            .change = {added},
            .call =
                [set = field.set](Library& library, const std::string& text) {
                    ContactRecord rec = carolsContact();
                    set(rec, text.c_str());
                    return told(library.registrar.addContact("carol", "oryx.example", rec), library.registrar);
                },
            .answer = "0\n",
            .refused = refused,
        });
        table.push_back({
            .argument = argumentOf<DatabaseCommandExecutor>("addContact(rec) rec.") + field.name,
            .place = field.place,
            .change = {added},
            .call =
                [set = field.set](Library& library, const std::string& text) {
                    ContactRecord rec = carolsContact();
                    rec.setCsid(14);
                    set(rec, text.c_str());
                    return told(library.registrar.addContact(rec), library.registrar);
                },
            .answer = "0\n",
            .refused = refused,
        });
    }
    // A refresh goes another way in the stored function than a new contact.
    table.push_back({
        .argument = argumentOf<DatabaseCommandExecutor>("addContact(handle, domain, rec) rec.address"),
        .variant = "refreshed",
        .place = Place::key,
        .before = {kAddress.insert(), kStaleContact.with("address").insert()},
        .change = {kRefreshed.update("csid = 14 AND address = $1")},
        .call =
            [](Library& library, const std::string& text) {
                ContactRecord rec = carolsContact(text.c_str());
                return told(library.registrar.addContact("carol", "oryx.example", rec), library.registrar);
            },
        .answer = "0\n",
        .refused = kTooLong,
    });
}

} // namespace

Entries registrarEntries()
{
    Entries table;
    addSubscriber(table);
    addAddresses(table);
    addContacts(table);
    addContactRecords(table);
    return table;
}
