#pragma once

#include "hostile/Entry.h"

#include <string>

/// \file
/// Carol, whose rows hold the texts: subscriber 9 with contact set 14, which are always there. Her address of record
/// and her contacts are not.

inline const Row kAddress("public_address", {{"public_address_id", "44"},
                                             {"handle", "'carol'"},
                                             {"sip_domain", "'oryx.example'"},
                                             {"csid", "14"},
                                             {"scope", "'public'"}});
inline const Row kContact("contact", {{"csid", "14"},
                                      {"address", "'sip:carol@192.0.2.9'"},
                                      {"qvalue", "'0.7'"},
                                      {"expires", "2000000000"},
                                      {"permanent", "'f'"},
                                      {"capabilities", "'audio'"},
                                      {"contact_header", "'<sip:carol@192.0.2.9>'"},
                                      {"call_id", "'call-9'"},
                                      {"cseq", "1826"}});
/// The same, as it was before it is refreshed.
inline const Row kStaleContact("contact", {{"csid", "14"},
                                           {"address", "'sip:carol@192.0.2.9'"},
                                           {"qvalue", "'0.1'"},
                                           {"expires", "5"},
                                           {"permanent", "'f'"},
                                           {"capabilities", "'old'"},
                                           {"contact_header", "'old'"},
                                           {"call_id", "'old'"},
                                           {"cseq", "1"}});
/// What a refresh writes.
inline const Row kRefreshed("contact", {{"qvalue", "'0.7'"},
                                        {"expires", "2000000000"},
                                        {"capabilities", "'audio'"},
                                        {"contact_header", "'<sip:carol@192.0.2.9>'"},
                                        {"call_id", "'call-9'"},
                                        {"cseq", "1826"}});

inline const char* const kCarolsContact = "sip:carol@192.0.2.9";

/// kContact as the library has it.
inline oryx::ContactRecord carolsContact(const char* address = kCarolsContact)
{
    oryx::ContactRecord contact;
    contact.setAddress(address);
    contact.setQvalue("0.7");
    contact.setExpires(2000000000);
    contact.setCapabilities("audio");
    contact.setContactHeader("<sip:carol@192.0.2.9>");
    contact.setCallId("call-9");
    contact.setCseq(1826);
    return contact;
}

inline const std::vector<Field<oryx::ContactRecord>>& contactFields()
{
    using oryx::ContactRecord;
    static const std::vector<Field<ContactRecord>> kFields{
        {"address", "address", Place::key, &ContactRecord::setAddress},
        {"qvalue", "qvalue", Place::column, &ContactRecord::setQvalue},
        {"permanent", "permanent", Place::flag, [](auto& contact, auto* text) { contact.setPermanent(*text); }},
        {"capabilities", "capabilities", Place::column, &ContactRecord::setCapabilities},
        {"contactHeader", "contact_header", Place::column, &ContactRecord::setContactHeader},
        {"callId", "call_id", Place::column, &ContactRecord::setCallId},
        {"type", nullptr, Place::column, &ContactRecord::setType},
        {"pathVector", nullptr, Place::column, &ContactRecord::setPathVector},
    };
    return kFields;
}

/// The two texts of an address of record, their column, and Carol's address with a text for one of them.
struct AddressPart {
    const char* name;
    const char* column;
    bool isHandle;

    const char* handle(const std::string& text) const { return isHandle ? text.c_str() : "carol"; }
    const char* domain(const std::string& text) const { return isHandle ? "oryx.example" : text.c_str(); }
    const char* address() const { return isHandle ? "$1@oryx.example" : "carol@$1"; }
};
inline constexpr AddressPart kAddressParts[]{{"handle", "handle", true}, {"domain", "sip_domain", false}};

/// An executor's lookup of an address of record.
template <typename Target>
Entry addressLookup(const AddressPart& part)
{
    return {
        .argument = argumentOf<Target>("lookupPublicAddress(handle, domain, rec) ") + part.name,
        .place = Place::key,
        .before = {kAddress.with(part.column).insert()},
        .call =
            [=](Library& library, const std::string& text) {
                oryx::PublicAddressRecord rec;
                const oryx::DatabaseResult result =
                    library.get<Target>().lookupPublicAddress(part.handle(text), part.domain(text), rec);
                return told(result) + rec.handle() + "@" + rec.domain() + "\n";
            },
        .answer = std::string("okay\n") + part.address() + "\n",
        .refused = "not found\n@\n",
    };
}

/// The lookup of an address's subscriber, where it answers with a result.
template <typename Target>
Entry subscriberLookup(const AddressPart& part)
{
    return {
        .argument = argumentOf<Target>("lookupSubscriber(handle, domain, rec) ") + part.name,
        .place = Place::key,
        .before = {kAddress.with(part.column).insert()},
        .call =
            [=](Library& library, const std::string& text) {
                oryx::SubscriberRecord rec;
                const oryx::DatabaseResult result =
                    library.get<Target>().lookupSubscriber(part.handle(text), part.domain(text), rec);
                return told(result) + rec.userId() + "\n";
            },
        .answer = "okay\ncarol\n",
        .refused = "not found\n\n",
    };
}

/// What a lookup of contacts answers and gives.
template <typename Lookup>
std::string contactsFound(const Lookup& lookup)
{
    std::string ordering = "none";
    bool replaceUri = false;
    const std::string contacts =
        listed<oryx::ContactRecord>([&](auto& records) { return lookup(ordering, replaceUri, records); });
    return contacts + ordering + (replaceUri ? " replace" : "") + "\n";
}
