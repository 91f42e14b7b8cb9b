// REGISTER requests, each as one statement: the schema's function judges and applies it.

#include <dal/Registration.h>

#include <dal/internal/LocationAccess.h>
#include <dal/location/Bindings.h>

#include <algorithm>
#include <iterator>
#include <string_view>

namespace oryx {

namespace {

/// Appends an element of an array's text, in which nothing but quotes and backslashes means anything then.
void appendElement(std::string& array, std::string_view text, char before)
{
    array.append(1, before).append(1, '"');
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            array += '\\';
        }
        array += c;
    }
    array += '"';
}

void appendContact(std::string& array, const RegisterContact& contact)
{
    appendElement(array, contact.address, '{');
    appendElement(array, std::to_string(contact.expires), ',');
    appendElement(array, contact.qvalue, ',');
    appendElement(array, contact.contactHeader, ',');
    appendElement(array, contact.capabilities, ',');
    appendElement(array, contact.type, ',');
    array += '}';
}

/// The contacts as the text of an array; of those with the same address, the last.
std::string arrayOf(const std::vector<RegisterContact>& contacts)
{
    std::string array = "{";
    for (auto contact = contacts.begin(); contact != contacts.end(); ++contact) {
        const bool comesAgain = std::any_of(std::next(contact), contacts.end(), [&](const RegisterContact& later) {
            return later.address == contact->address;
        });
        if (!comesAgain) {
            array += array.size() > 1 ? "," : "";
            appendContact(array, *contact);
        }
    }
    array += '}';
    return array;
}

Statement registration(const AddressOfRecord& address, const RegisterRequest& request, const std::string& contacts)
{
    const char* const removesAll = request.removesAll ? "t" : "f";
    return address.handle != nullptr
               ? sql("SELECT * FROM register_bindings(NULL, '{}', '{}', '{}', {}, '{}', {}, '{}', '{}')",
                     address.handle, address.domain, request.callId, request.cseq, request.path, request.maxBindings,
                     removesAll, contacts)
               : sql("SELECT * FROM register_bindings({}, NULL, NULL, '{}', {}, '{}', {}, '{}', '{}')", address.key,
                     request.callId, request.cseq, request.path, request.maxBindings, removesAll, contacts);
}

/// What the schema's word for the outcome means to the caller.
struct RegistrationMeaning {
    std::string_view word;
    RegisterOutcome outcome;
    void (DatabaseResult::*status)();
    const char* message;
};
constexpr RegistrationMeaning kMeanings[] = {
    {"done", RegisterOutcome::done, &DatabaseResult::setOkay, nullptr},
    {"unknown", RegisterOutcome::unknownAddress, &DatabaseResult::setNotFound, nullptr},
    {"inactive", RegisterOutcome::inactiveSubscriber, &DatabaseResult::setNotFound, nullptr},
    {"older", RegisterOutcome::olderRequest, &DatabaseResult::setConstraintError,
     "a newer request of the call came before"},
    {"many", RegisterOutcome::tooManyBindings, &DatabaseResult::setConstraintError, "there would be too many bindings"},
};

DatabaseResult conclude(BindingsFound& found, RegisterAnswer& answer)
{
    DatabaseResult result;
    const auto* const meaning = std::find_if(std::begin(kMeanings), std::end(kMeanings),
                                             [&](const auto& known) { return known.word == found.outcome; });
    if (meaning == std::end(kMeanings)) {
        result.setQueryError();
        result.setErrorMessage("an answer to a registration that nobody knows: '" + found.outcome + "'");
        return result;
    }
    (result.*meaning->status)();
    result.setErrorMessage(meaning->message);
    answer = {meaning->outcome, std::move(found.set.bindings)};
    return result;
}

/// Why a request is no request; null when it is one.
const char* flawOf(const RegisterRequest& request)
{
    if (request.removesAll && !request.contacts.empty()) {
        return "contacts beside the removal of all";
    }
    const bool nameless = std::any_of(request.contacts.begin(), request.contacts.end(),
                                      [](const RegisterContact& contact) { return contact.address.empty(); });
    return nameless ? "a contact without an address" : nullptr;
}

DatabaseResult applied(Frame& frame, const AddressOfRecord& address, const RegisterRequest& request,
                       RegisterAnswer& answer)
{
    if (!frame.checkConnect()) {
        return frame.connectionError();
    }
    if (const char* const flaw = flawOf(request); flaw != nullptr) {
        return frame.refuse(flaw);
    }
    const std::string contacts = arrayOf(request.contacts);
    BindingsFound found;
    DatabaseResult result = fetchBindings(frame, registration(address, request, contacts), found);
    return result.okay() ? conclude(found, answer) : result;
}

} // namespace

DatabaseResult applyRegistration(LocationService& service, int key, const RegisterRequest& request,
                                 RegisterAnswer& answer)
{
    answer = RegisterAnswer();
    return LocationAccess::guarded(
        service, [&] { return applied(frameOf(LocationAccess::executor(service)), {key}, request, answer); });
}

DatabaseResult applyRegistration(LocationService& service, const char* handle, const char* domain,
                                 const RegisterRequest& request, RegisterAnswer& answer)
{
    answer = RegisterAnswer();
    return LocationAccess::guarded(service, [&] {
        Frame& frame = frameOf(LocationAccess::executor(service));
        if (handle == nullptr || domain == nullptr) {
            return frame.refuse("invalid parameters");
        }
        return applied(frame, {0, handle, domain}, request, answer);
    });
}

} // namespace oryx
