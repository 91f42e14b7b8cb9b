// Live bindings: table contact, seen by the database's clock.

#include <dal/location/Bindings.h>

#include <dal/internal/LocationAccess.h>

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <string_view>
#include <tuple>

namespace oryx {

namespace {

/// A number of seconds, or a CSeq, as far as 32 bits hold it.
std::uint32_t unsigned32(const char* text)
{
    constexpr long long kMax = std::numeric_limits<std::uint32_t>::max();
    return static_cast<std::uint32_t>(std::clamp(std::strtoll(text, nullptr, 10), 0LL, kMax));
}

constexpr int kHighest = 1000;

/// A q-value in thousandths (RFC 3261 section 25.1: up to three decimals, at most 1).
int preferenceOf(std::string_view qvalue)
{
    const bool readable = !qvalue.empty() && qvalue.size() <= 5 && (qvalue[0] == '0' || qvalue[0] == '1') &&
                          (qvalue.size() == 1 || qvalue[1] == '.') &&
                          qvalue.find_first_not_of("0123456789", 2) == std::string_view::npos;
    if (!readable) {
        return kHighest;
    }
    int thousandths = qvalue[0] == '1' ? kHighest : 0;
    int step = kHighest;
    for (const char digit : qvalue.substr(std::min<std::size_t>(2, qvalue.size()))) {
        step /= 10;
        thousandths += (digit - '0') * step;
    }
    return std::min(thousandths, kHighest);
}

LiveBinding readBinding(const Row& row)
{
    LiveBinding binding;
    binding.contactId = row.integer(3, binding.contactId);
    binding.address = row.string(4);
    binding.permanent = row.flag(13, false);
    if (const char* const seconds = row.text(5); seconds != nullptr && !binding.permanent) {
        binding.expires = unsigned32(seconds);
    }
    binding.qvalue = row.string(6);
    binding.preference = preferenceOf(binding.qvalue);
    binding.path = row.string(7);
    binding.contactHeader = row.string(8);
    binding.capabilities = row.string(9);
    binding.type = row.string(10);
    binding.callId = row.string(11);
    binding.cseq = unsigned32(row.string(12).c_str());
    return binding;
}

bool isBefore(const LiveBinding& one, const LiveBinding& other)
{
    return std::tuple(-one.preference, one.contactId) < std::tuple(-other.preference, other.contactId);
}

DatabaseResult lookedUp(LocationService& service, const AddressOfRecord& address, BindingSet& found)
{
    return LocationAccess::guarded(service, [&] {
        BindingsFound bindings;
        DatabaseResult result = fetchBindings(frameOf(LocationAccess::executor(service)), address, bindings);
        if (result.okay() && bindings.outcome != "done") {
            result.setNotFound();
        }
        if (result.okay()) {
            found = std::move(bindings.set);
        }
        return result;
    });
}

} // namespace

/// Reads outcome, ordering and replace-URI flag from the first row, and a binding from each that has one.
void readBindings(const QueryResult& result, BindingsFound& found)
{
    if (result.rows() == 0) {
        return;
    }
    const Row first(result, 0);
    found.outcome = first.string(0);
    found.set.order = first.string(1) == "sequential" ? ContactOrder::sequential : ContactOrder::parallel;
    found.set.replaceUri = first.flag(2, true);
    forEachRow(result, found.set.bindings, [&](const Row& row) {
        if (row.text(4) != nullptr) {
            found.set.bindings.push_back(readBinding(row));
        }
    });
    std::sort(found.set.bindings.begin(), found.set.bindings.end(), isBefore);
}

void traceStatements(const Frame& frame, std::span<const Statement> statements)
{
    for (std::size_t i = 0; zel::Trace::enabled(zel::TraceKind::prn) && i < statements.size(); ++i) {
        zel::Trace("oryx").prn(frame.textOf(statements[i]));
    }
}

DatabaseResult fetchBindings(Frame& frame, const Statement& statement, BindingsFound& found)
{
    traceStatements(frame, {&statement, 1});
    QueryResult result;
    DatabaseResult outcome = frame.runForResult(statement, result);
    if (outcome.okay()) {
        readBindings(result, found);
    }
    return outcome;
}

DatabaseResult fetchBindings(Frame& frame, const AddressOfRecord& address, BindingsFound& found)
{
    if (!frame.checkConnect()) {
        return frame.connectionError();
    }
    return fetchBindings(
        frame,
        address.handle != nullptr
            ? sql("SELECT * FROM register_bindings(NULL, '{}', '{}', NULL, NULL, NULL, NULL, 'f', NULL)",
                  address.handle, address.domain)
            : sql("SELECT * FROM register_bindings({}, NULL, NULL, NULL, NULL, NULL, NULL, 'f', NULL)", address.key),
        found);
}

DatabaseResult fetchBindings(Frame& frame, int csid, BindingsFound& found)
{
    if (!frame.checkConnect()) {
        return frame.connectionError();
    }
    return fetchBindings(
        frame,
        sql("SELECT 'done', contact_set.ordering, contact_set.replace_uri, contact.contact_id, contact.address, contact.expires - current_second(), contact.qvalue, contact.path_vector, contact.contact_header, contact.capabilities, contact.c_type, contact.call_id, contact.cseq, contact.permanent FROM contact_set LEFT JOIN contact ON contact.csid = contact_set.csid AND is_live(contact.permanent, contact.expires, current_second()) WHERE contact_set.csid = {}",
            csid),
        found);
}

DatabaseResult lookupBindings(LocationService& service, int key, BindingSet& found)
{
    return lookedUp(service, {key}, found);
}

DatabaseResult lookupBindings(LocationService& service, const char* handle, const char* domain, BindingSet& found)
{
    if (handle == nullptr || domain == nullptr) {
        return LocationAccess::guarded(
            service, [&] { return frameOf(LocationAccess::executor(service)).refuse("invalid parameters"); });
    }
    return lookedUp(service, {0, handle, domain}, found);
}

} // namespace oryx
