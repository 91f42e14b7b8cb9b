// Text arguments about the address maps, which both services have.

#include "hostile/Registrar.h"

template <typename Service>
Entries addressMapEntries()
{
    Entries table;
    oryx::ContactRecord contact = carolsContact();
    if constexpr (std::is_same_v<Service, oryx::PresenceService>) { // whose lookups give more of it
        contact.setContactid(1001);
        contact.setCsid(14);
    }
    const std::string map = "INSERT INTO address_map (handle, csid, pattern) VALUES ($1, 14, '^.')";
    table.push_back({
        .argument = argumentOf<Service>("lookupAddressMap(uri, ordering, replaceUri, contacts) uri"),
        .before = {map, kContact.insert()},
        .call =
            [](Library& library, const std::string& text) {
                library.template get<Service>().clearMapEntries();
                return contactsFound([&](auto& ordering, bool& replaceUri, auto& contacts) {
                    return library.template get<Service>().lookupAddressMap(text.c_str(), ordering, replaceUri,
                                                                            contacts);
                });
            },
        .answer = "okay\n" + show(contact) + "sequential replace\n",
    });
    const auto lookUp = [](Library& library) {
        library.template get<Service>().clearMapEntries();
        contactsFound([&](auto& ordering, bool& replaceUri, auto& contacts) {
            return library.template get<Service>().lookupAddressMap("sip:erin@oryx.example", ordering, replaceUri,
                                                                    contacts);
        });
    };
    table.push_back({
        .argument = argumentOf<Service>("lookupMapEntry(key) key"),
        .before = {map},
        .call =
            [=](Library& library, const std::string& text) {
                lookUp(library);
                std::string key = text + "-14";
                const oryx::AddressMap* const entry = library.template get<Service>().lookupMapEntry(key);
                return entry != nullptr ? std::string(entry->key()) + "\n" : "none\n";
            },
        .answer = "$1-14\n",
    });
    table.push_back({
        .argument = argumentOf<Service>("removeMapEntry(key) key"),
        .before = {map, "INSERT INTO address_map (handle, csid, pattern) VALUES ('other', 14, '^x')"},
        .call =
            [=](Library& library, const std::string& text) {
                lookUp(library);
                std::string key = text + "-14";
                library.template get<Service>().removeMapEntry(key);
                std::vector<std::string> left;
                library.template get<Service>().getMapKeys(left);
                return oryx::show(left);
            },
        .answer = "'other-14'\n",
    });
    return table;
}

template Entries addressMapEntries<oryx::LocationService>();
template Entries addressMapEntries<oryx::PresenceService>();
