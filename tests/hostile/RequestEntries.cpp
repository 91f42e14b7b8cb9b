// Text arguments of requests that are one call: a registration, a lookup of live bindings, a search for a target.

#include "hostile/Registrar.h"

#include <dal/LiveBindings.h>
#include <dal/Registration.h>
#include <dal/RequestTarget.h>

#include <string>
#include <utility>
#include <vector>

namespace {

using oryx::DatabaseResult;
using oryx::RegisterAnswer;
using oryx::RegisterContact;
using oryx::RegisterRequest;

/// What a registration stores.
const Row kRegistered("contact", {{"csid", "14"},
                                  {"address", "'sip:carol@192.0.2.9'"},
                                  {"qvalue", "'0.7'"},
                                  {"expires", "2000000000"},
                                  {"capabilities", "'audio'"},
                                  {"contact_header", "'<sip:carol@192.0.2.9>'"},
                                  {"call_id", "'call-9'"},
                                  {"cseq", "1826"},
                                  {"c_type", "'mobile'"},
                                  {"path_vector", "'<sip:edge.oryx.example;lr>'"}});

RegisterContact registered(const char* address)
{
    RegisterContact contact;
    contact.address = address;
    contact.expires = 3600; // the clock stands that much before
    contact.qvalue = "0.7";
    contact.capabilities = "audio";
    contact.contactHeader = "<sip:carol@192.0.2.9>";
    contact.type = "mobile";
    return contact;
}

RegisterRequest twoContacts()
{
    RegisterRequest request;
    request.callId = "call-9";
    request.cseq = 1826;
    request.path = "<sip:edge.oryx.example;lr>";
    request.contacts = {registered("sip:first@192.0.2.9"), registered(kCarolsContact)};
    return request;
}

/// A text of a request: of the whole, or of its second contact.
struct RequestText {
    const char* name;
    const char* column;
    Place place;
    std::string& (*of)(RegisterRequest&);
    bool ofBoth; // stored with the first contact too
};
constexpr RequestText kRequestTexts[]{
    {"callId", "call_id", Place::column, [](auto& request) -> auto& {return request.callId;
} // namespace
, true
}
, {"path", "path_vector", Place::column, [](auto& request) -> auto& {return request.path;
}
, true
}
, {"contacts.address", "address", Place::key, [](auto& request) -> auto& {return request.contacts[1].address;
}
, false
}
, {"contacts.qvalue", "qvalue", Place::column, [](auto& request) -> auto& {return request.contacts[1].qvalue;
}
, false
}
, {"contacts.contactHeader", "contact_header", Place::column,
   [](auto& request) -> auto& {return request.contacts[1].contactHeader;
}
, false
}
, {"contacts.capabilities", "capabilities", Place::column,
   [](auto& request) -> auto& {return request.contacts[1].capabilities;
}
, false
}
, {"contacts.type", "c_type", Place::column, [](auto& request) -> auto& {return request.contacts[1].type;
}
, false
}
,
}
;

/// A result, and how many bindings came with it.
std::string toldWith(const std::vector<oryx::LiveBinding>& bindings, const DatabaseResult& result)
{
    return told(result) + std::to_string(bindings.size()) + "\n";
}

constexpr const char* kTwo = "okay\n2\n";
constexpr const char* kTooLongAddress = "query error 54000\n0\n";
constexpr const char* kNoAddressOfRecord = "not found\n0\n";

/// A request, and one for an address of record that is not there.
std::vector<oryx::Registration> withAnother(const char* handle, const char* domain, const RegisterRequest& request)
{
    return {{handle, domain, request, {}}, {"nobody", "oryx.example", twoContacts(), {}}};
}

/// What the first of several is answered; where the other has failed, it may have been done.
std::string toldOfFirst(Library& library, std::vector<oryx::Registration> all)
{
    const DatabaseResult result = applyRegistrations(library.location, all);
    return toldWith(result.okay() ? all.front().answer.bindings : std::vector<oryx::LiveBinding>(), result);
}

void addRegistrations(Entries& table, const RequestText& text)
{
    const Row first = kRegistered.with("address", "'sip:first@192.0.2.9'").with(text.ofBoth ? text.column : nullptr);
    Entry entry{
        .argument = std::string("oryx::applyRegistration(service, key, request, answer) request.") + text.name,
        .place = text.place,
        .before = {kAddress.insert()},
        .change = {first.insert(), kRegistered.with(text.column).insert()},
        .call =
            [of = text.of](Library& library, const std::string& value) {
                RegisterRequest request = twoContacts();
                of(request) = value;
                RegisterAnswer answer;
                const DatabaseResult result = applyRegistration(library.location, 44, request, answer);
                return toldWith(answer.bindings, result);
            },
        .answer = kTwo,
        .refused = kTooLongAddress,
    };
    table.push_back(entry);
    entry.argument =
        std::string("oryx::applyRegistration(service, handle, domain, request, answer) request.") + text.name;
    entry.call = [of = text.of](Library& library, const std::string& value) {
        RegisterRequest request = twoContacts();
        of(request) = value;
        RegisterAnswer answer;
        const DatabaseResult result = applyRegistration(library.location, "carol", "oryx.example", request, answer);
        return toldWith(answer.bindings, result);
    };
    table.push_back(entry);
    entry.argument = std::string("oryx::applyRegistrations(service, registrations) registrations.request.") + text.name;
    entry.call = [of = text.of](Library& library, const std::string& value) {
        std::vector<oryx::Registration> all = withAnother("carol", "oryx.example", twoContacts());
        of(all.front().request) = value;
        return toldOfFirst(library, std::move(all));
    };
    table.push_back(std::move(entry));
}

void addByAddress(Entries& table, const AddressPart& part)
{
    Entry entry{
        .argument = std::string("oryx::applyRegistration(service, handle, domain, request, answer) ") + part.name,
        .place = Place::key,
        .before = {kAddress.with(part.column).insert(), kStaleContact.insert()},
        // Without its address of record nothing is removed.
        .change = {"DELETE FROM contact USING public_address WHERE contact.csid = 14 AND public_address_id = 44"},
        .call =
            [=](Library& library, const std::string& text) {
                RegisterRequest request;
                request.removesAll = true;
                RegisterAnswer answer;
                const DatabaseResult result =
                    applyRegistration(library.location, part.handle(text), part.domain(text), request, answer);
                return toldWith(answer.bindings, result);
            },
        .answer = "okay\n0\n",
        .refused = kNoAddressOfRecord,
    };
    table.push_back(entry);
    entry.argument = std::string("oryx::applyRegistrations(service, registrations) registrations.") + part.name;
    entry.call = [=](Library& library, const std::string& text) {
        RegisterRequest request;
        request.removesAll = true;
        return toldOfFirst(library, withAnother(part.handle(text), part.domain(text), request));
    };
    entry.refused.clear();
    table.push_back(std::move(entry));
    table.push_back({
        .argument = std::string("oryx::lookupBindings(service, handle, domain, found) ") + part.name,
        .place = Place::key,
        .before = {kAddress.with(part.column).insert(), kContact.insert()},
        .call =
            [=](Library& library, const std::string& text) {
                oryx::BindingSet found;
                const DatabaseResult result =
                    lookupBindings(library.location, part.handle(text), part.domain(text), found);
                return toldWith(found.bindings, result);
            },
        .answer = "okay\n1\n",
        .refused = kNoAddressOfRecord,
    });
    table.push_back({
        .argument = std::string("oryx::findTarget(service, question, target) question.") + part.name,
        .place = Place::key,
        .before = {kAddress.with(part.column).insert(), kContact.insert()},
        .call =
            [=](Library& library, const std::string& text) {
                oryx::RequestTarget target;
                const DatabaseResult result =
                    findTarget(library.location,
                               {"sip:carol@oryx.example", part.handle(text), part.domain(text), true, true}, target);
                return toldWith(target.set.bindings, result);
            },
        .answer = "okay\n1\n",
        .refused = kNoAddressOfRecord,
    });
}

} // namespace

Entries requestEntries()
{
    Entries table;
    for (const RequestText& text : kRequestTexts) {
        addRegistrations(table, text);
    }
    for (const AddressPart& part : kAddressParts) {
        addByAddress(table, part);
    }
    table.push_back({
        .argument = "oryx::findTarget(service, question, target) question.uri",
        .before = {"INSERT INTO address_map (handle, csid, pattern) VALUES ($1, 14, '^.')", kContact.insert()},
        .call =
            [](Library& library, const std::string& text) {
                library.location.clearMapEntries();
                oryx::RequestTarget target;
                const DatabaseResult result =
                    findTarget(library.location, {text, "carol", "elsewhere.example", false, true}, target);
                return toldWith(target.set.bindings, result);
            },
        .answer = "okay\n1\n",
    });
    return table;
}
