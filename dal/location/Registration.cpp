// REGISTER requests, each as one statement: the schema's function judges and applies it. Several go in one transaction.

#include <dal/Registration.h>

#include <dal/internal/LocationAccess.h>
#include <dal/location/Bindings.h>

#include <algorithm>
#include <iterator>
#include <set>
#include <span>
#include <string_view>
#include <tuple>
#include <utility>

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

// Several -----------------------------------------------------------------------------------------------------------

/// Requests for different addresses of record, in the order in which their bindings are locked.
using Round = std::vector<Registration*>;

bool isAppliedBefore(const Registration* first, const Registration* second)
{
    return std::tie(first->domain, first->handle) < std::tie(second->domain, second->handle);
}

/// Why one of several is none; null when it is one.
const char* flawOf(const Registration& one)
{
    const bool cut = one.handle.find('\0') != std::string::npos || one.domain.find('\0') != std::string::npos;
    return cut ? "an address of record that holds a NUL" : flawOf(one.request);
}

AddressOfRecord addressOf(const Registration& one)
{
    return {0, one.handle.c_str(), one.domain.c_str()};
}

/// Keeps the result of one that has failed.
void note(const Registration& one, DatabaseResult&& ended, DatabaseResult& result)
{
    if (one.answer.outcome == RegisterOutcome::failed) {
        result = std::move(ended);
    }
}

/// Applies requests in one transaction and one round trip. It must not wait for long: it holds what others may wait
/// for, and whoever locks the bindings of one would hold up all of them.
DatabaseResult applyTogether(Frame& frame, std::span<Registration* const> round, const char* patience,
                             DatabaseResult& result)
{
    if (!frame.checkConnect()) {
        return frame.connectionError();
    }
    std::vector<std::string> contacts;
    contacts.reserve(round.size()); // the statements refer to them
    std::vector<Statement> statements;
    statements.reserve(round.size() + 1);
    statements.push_back(sql("SELECT set_config('lock_timeout', '{}', true)", patience));
    for (const Registration* const one : round) {
        contacts.push_back(arrayOf(one->request.contacts));
        statements.push_back(registration(addressOf(*one), one->request, contacts.back()));
    }
    traceStatements(frame, statements);
    return frame.runForEach(statements, [&](std::size_t number, const QueryResult& rows) {
        if (number > 0) {
            BindingsFound found;
            readBindings(rows, found);
            note(*round[number - 1], conclude(found, round[number - 1]->answer), result);
        }
    });
}

/// Those that are applied by themselves at last, in their order: what has to wait for what others have locked.
class Waiting {
public:
    void add(Registration& one)
    {
        m_addresses.insert(&one);
        m_order.push_back(&one);
    }
    /// Whether one for the same address of record is among them.
    bool has(const Registration& one) const { return m_addresses.contains(&one); }
    const Round& order() const { return m_order; }

private:
    std::set<const Registration*, decltype(&isAppliedBefore)> m_addresses{&isAppliedBefore};
    Round m_order;
};

/// Whether others were in the way (SQLSTATEs of a lock not given in time, a deadlock, a serialization failure).
bool hadToWait(const DatabaseResult& ended)
{
    const std::string& state = ended.getSqlState();
    return ended.queryError() && (state == "55P03" || state == "40P01" || state == "40001");
}

/// Each by itself, if it need not wait for anybody.
void applyEach(Frame& frame, const Round& round, Waiting& waiting, DatabaseResult& result)
{
    for (Registration* const one : round) {
        DatabaseResult ended = applyTogether(frame, {&one, 1}, "1ms", result);
        if (hadToWait(ended)) {
            waiting.add(*one);
        } else if (!ended.okay()) {
            note(*one, std::move(ended), result);
        }
    }
}

/// `result` is changed by a failure alone.
void applyRound(Frame& frame, Round round, Waiting& waiting, DatabaseResult& result)
{
    const auto ready = std::stable_partition(round.begin(), round.end(), [&](auto* one) { return waiting.has(*one); });
    std::for_each(round.begin(), ready, [&](auto* one) { waiting.add(*one); });
    round.erase(round.begin(), ready);
    if (round.empty()) {
        return;
    }
    DatabaseResult ended = applyTogether(frame, round, "50ms", result);
    if (ended.queryError()) {
        applyEach(frame, round, waiting, result);
    } else if (!ended.okay()) {
        result = std::move(ended);
    }
}

/// What can be asked for of them; what cannot is refused.
Round soundOf(Frame& frame, std::vector<Registration>& registrations, DatabaseResult& result)
{
    Round sound;
    sound.reserve(registrations.size());
    for (Registration& one : registrations) {
        if (const char* const flaw = flawOf(one); flaw != nullptr) {
            note(one, frame.refuse(flaw), result);
        } else {
            sound.push_back(&one);
        }
    }
    return sound;
}

/// The first requests for each address of record, then the second ones, and so on.
std::vector<Round> roundsOf(Round order)
{
    std::stable_sort(order.begin(), order.end(), isAppliedBefore);
    std::vector<Round> rounds;
    const Registration* before = nullptr;
    std::size_t round = 0;
    for (Registration* const one : order) {
        round = before != nullptr && !isAppliedBefore(before, one) ? round + 1 : 0;
        if (round == rounds.size()) {
            rounds.emplace_back();
        }
        rounds[round].push_back(one);
        before = one;
    }
    return rounds;
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

DatabaseResult applyRegistrations(LocationService& service, std::vector<Registration>& registrations)
{
    for (Registration& one : registrations) {
        one.answer = RegisterAnswer();
    }
    return LocationAccess::guarded(service, [&] {
        Frame& frame = frameOf(LocationAccess::executor(service));
        DatabaseResult result;
        Waiting waiting;
        for (const Round& round : roundsOf(soundOf(frame, registrations, result))) {
            if (frame.bound() && registrations.size() > 1) {
                applyRound(frame, round, waiting, result);
            } else {
                std::for_each(round.begin(), round.end(), [&](auto* one) { waiting.add(*one); });
            }
        }
        for (Registration* const one : waiting.order()) {
            note(*one, applied(frame, addressOf(*one), one->request, one->answer), result);
        }
        return result;
    });
}

} // namespace oryx
