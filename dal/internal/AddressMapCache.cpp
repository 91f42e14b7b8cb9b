#include <dal/internal/AddressMapCache.h>

#include <dal/location/LocationRows.h>

#include <VariableSubstitution.h>
#include <wex/Uri.h>

#include <algorithm>
#include <cstring>
#include <unordered_map>
#include <utility>

namespace oryx {

namespace {

/// The parts of a request URI, by the names that a contact's address refers to them with.
Hashtable<std::string> partsOf(const wex::Uri& uri)
{
    Hashtable<std::string> parts;
    if (uri.getPort() > 0) {
        parts.put("port", std::to_string(uri.getPort()));
    }
    parts.put("protocol", uri.getProtocol());
    parts.put("user", uri.getUser());
    parts.put("password", uri.getPassword());
    parts.put("host", uri.getHost());
    parts.put("parameters", uri.getParameters());
    parts.put("headers", uri.getHeaders());
    return parts;
}

/// The first second of a month in the zone of the process.
time_t beginning(int month)
{
    constexpr int kYear = 104; // 2004
    std::tm local{};
    local.tm_year = kYear;
    local.tm_mon = month;
    local.tm_mday = 1;
    local.tm_isdst = -1;
    return std::mktime(&local);
}

// The columns that an entry is made of: handle, csid, pattern, modification time. The others are but traced.
constexpr std::array kMapColumns{2, 3, 4, 5};

/// A pattern that always needs more memory than there is must not keep lookups busy.
constexpr std::chrono::seconds kLongestPauseOfMaps = std::chrono::hours(1);

/// NULL and empty come to the same in these: a contact set's key, that the maps are joined by, is neither.
const char* columnText(const Row& row, int column)
{
    const char* const text = row.text(column);
    return text != nullptr ? text : "";
}

} // namespace

DatabaseResult AddressMapCache::lookup(DatabaseResult connected, const char* uri, const Queries& queries,
                                       std::vector<ContactRecord>& contacts)
{
    DatabaseResult result = std::move(connected);
    if (!result.okay()) {
        m_trace.prn(result.getErrorMessage());
        return result;
    }
    if (uri == nullptr) {
        result.setErrorMessage("null uri");
        result.setQueryError();
        return result;
    }
    const std::string request = uri; // what follows may change whose text it is: a contact's, the ordering, a map's
    result = readTable(queries);
    if (!result.okay()) {
        m_trace.prn(result.getErrorMessage());
        return result;
    }
    const AddressMap* const match = firstMatch(request.c_str());
    if (match == nullptr || match->csid() <= 0) {
        result.setNotFound();
        return result;
    }
    m_trace.prn("looking up contacts for csid %d", match->csid());
    result = queries.contacts(match->csid());
    if (result.okay()) {
        substitute(request, *match, contacts);
    } else {
        m_trace.prn("lookup failed: %s", result.getErrorMessage().c_str());
    }
    return result;
}

DatabaseResult AddressMapCache::readTable(const Queries& queries)
{
    QueryResult rows;
    DatabaseResult result = queries.addressMaps(rows);
    if (result.okay()) {
        m_trace.prn("result contains %d maps", rows.rows());
        if (!seenBefore(rows)) {
            bringIntoLine(rows);
        }
    }
    return result;
}

/// Whether the cache is in line with these rows, and there is nothing to trace of them.
bool AddressMapCache::seenBefore(const QueryResult& rows)
{
    constexpr int kJuly = 6;
    const Zone former = std::exchange(m_zone, {beginning(0), beginning(kJuly)});
    if (m_zone != former) {
        m_seen = SeenRows(); // their times would be read as others now
    }
    return !zel::Trace::enabled(zel::TraceKind::prn) && !attemptIsDue() && m_seen.areJust(rows);
}

bool AddressMapCache::attemptIsDue() const
{
    return m_pause.count() != 0 && std::chrono::steady_clock::now() >= m_attempt;
}

/// After the cache was brought into line, when it may be that memory did not suffice for a map.
void AddressMapCache::planAttempt(bool failed)
{
    if (!failed) {
        m_pause = std::chrono::seconds(0);
    } else if (m_pause.count() == 0 || attemptIsDue()) {
        m_pause = std::clamp(2 * m_pause, std::chrono::seconds(1), kLongestPauseOfMaps);
        m_attempt = std::chrono::steady_clock::now() + m_pause;
    }
}

AddressMapCache::SeenRows::SeenRows(std::size_t rows, const SeenRows& other) : m_unshared(true)
{
    m_rows.reserve(rows);
    m_texts.reserve(other.m_texts.size());
}

void AddressMapCache::SeenRows::add(const Row& row, Entry& entry)
{
    const std::size_t begin = m_texts.size();
    for (const int column : kMapColumns) {
        m_texts.append(columnText(row, column)).push_back('\0');
    }
    m_rows.push_back({&entry, begin});
    m_unshared = m_unshared && !entry.shared;
}

void AddressMapCache::SeenRows::share(Entry& entry)
{
    entry.shared = true;
    m_unshared = false;
}

bool AddressMapCache::SeenRows::areJust(const QueryResult& rows) const
{
    const int count = rows.rows();
    if (!m_unshared || m_rows.size() != static_cast<std::size_t>(count)) {
        return false;
    }
    int same = 0;
    while (same < count && sameTexts(static_cast<std::size_t>(same), Row(rows, same))) {
        ++same;
    }
    return same == count;
}

bool AddressMapCache::SeenRows::unchanged(std::size_t place, const Row& row) const
{
    const Entry* const seen = entry(place);
    // One that is current already has got another row in this lookup.
    return seen != nullptr && !seen->shared && !seen->current && sameTexts(place, row);
}

bool AddressMapCache::SeenRows::sameTexts(std::size_t place, const Row& row) const
{
    const char* seen = m_texts.c_str() + m_rows[place].texts;
    for (const int column : kMapColumns) {
        if (std::strcmp(columnText(row, column), seen) != 0) {
            return false;
        }
        seen += std::strlen(seen) + 1;
    }
    return true;
}

/// Finds the entry of a row without walking the cache for each.
class AddressMapCache::Finder {
public:
    explicit Finder(const Entries& entries) : m_entries(entries) {}

    /// The entry expected, if it has that key.
    Entry* find(std::string_view key, Entry* expected)
    {
        if (expected != nullptr && key == expected->map.key()) {
            return expected;
        }
        for (; m_indexed < m_entries.size(); ++m_indexed) { // those added since the last time, too
            Entry* const entry = m_entries[m_indexed].get();
            m_index.emplace(entry->map.key(), entry);
        }
        const auto found = m_index.find(key);
        return found != m_index.end() ? found->second : nullptr;
    }

private:
    const Entries& m_entries;
    std::unordered_map<std::string_view, Entry*> m_index;
    std::size_t m_indexed = 0;
};

void AddressMapCache::bringIntoLine(const QueryResult& rows)
{
    const bool traced = zel::Trace::enabled(zel::TraceKind::prn); // each row has lines of its own then
    const bool again = attemptIsDue();
    bool failed = false;
    const SeenRows before = std::exchange(m_seen, SeenRows()); // nothing is seen if this ends early
    SeenRows now(static_cast<std::size_t>(rows.rows()), before);
    const std::size_t oldEntries = m_entries.size();
    mark();
    Finder finder(m_entries);
    std::size_t next = 0; // where the row was before, as far as the rows are the same
    for (int i = 0; i < rows.rows(); ++i) {
        const Row row(rows, i);
        Entry* entry = before.entry(next);
        if (traced || !before.unchanged(next, row) || (again && entry->map.lacksMemory())) {
            entry = &refresh(readAddressMap(row), finder, entry);
        }
        next = entry->place ? *entry->place + 1 : next;
        entry->place = static_cast<std::size_t>(i);
        entry->current = true;
        failed = failed || entry->map.lacksMemory();
        now.add(row, *entry);
    }
    sweep(oldEntries);
    planAttempt(failed);
    m_seen = std::move(now);
}

void AddressMapCache::mark()
{
    for (const auto& entry : m_entries) {
        m_trace.prn("marking entry for %s", entry->map.key());
        entry->current = false;
    }
}

AddressMapCache::Entry& AddressMapCache::refresh(const AddressMapRecord& record, Finder& finder, Entry* expected)
{
    const std::string key = std::string(record.handle()).append("-").append(std::to_string(record.csid()));
    if (zel::Trace::enabled(zel::TraceKind::prn)) {
        m_trace.prn("tnow is %ld", static_cast<long>(std::time(nullptr)));
        m_trace.prn("key=%s, pat=%s, time=%ld, priority=%d, ordering=%s", key.c_str(), record.pattern().c_str(),
                    record.wholeModTime(), record.priority(), record.ordering().c_str());
    }
    std::unique_ptr<Entry> added;
    Entry* entry = finder.find(key, expected);
    if (entry != nullptr) {
        m_trace.prn("updating existing map entry for %s", key.c_str());
        entry->shared = entry->shared || entry->current;
    } else {
        m_trace.prn("adding new map for %s", key.c_str());
        added = std::make_unique<Entry>();
        entry = added.get();
        entry->map.setKey(key.c_str());
    }
    entry->map.compile(record.pattern().c_str(), record.wholeModTime());
    entry->map.setCsid(record.csid());
    if (added) {
        m_entries.push_back(std::move(added));
    }
    return *entry;
}

void AddressMapCache::sweep(std::size_t oldEntries)
{
    for (std::size_t i = 0; i < oldEntries; ++i) {
        const char* const key = m_entries[i]->map.key();
        if (m_entries[i]->current) {
            m_trace.prn("map for %s still exists", key);
        } else {
            m_trace.prn("removing map entry for %s", key);
            m_entries[i].reset();
        }
    }
    std::erase(m_entries, nullptr);
}

AddressMap* AddressMapCache::firstMatch(const char* uri)
{
    for (const auto& entry : m_entries) {
        m_trace.prn("checking %s for match on %s", uri, entry->map.key());
        if (entry->map.matches(uri)) {
            m_trace.prn("MATCH found for %s", entry->map.key());
            return &entry->map;
        }
    }
    return nullptr;
}

void AddressMapCache::substitute(const std::string& uri, const AddressMap& match, std::vector<ContactRecord>& contacts)
{
    m_trace.prn("found %d contacts, performing substitution...", static_cast<int>(contacts.size()));
    const wex::Uri request(uri);
    if (!request.isValid()) {
        // Without the URI itself: what cannot be taken apart may hold a password anywhere.
        zel::Trace("oryx").prn(
            "the request URI that address map %s matches is not a SIP URI: its parts are empty in the contacts",
            match.key());
    }
    const Hashtable<std::string> parts = partsOf(request);
    std::string address;
    for (ContactRecord& contact : contacts) {
        m_trace.prn("address is %s", contact.address().c_str());
        VariableSubstitution::subst(contact.address(), address, parts, "$");
        contact.setAddress(address.c_str());
        m_trace.prn("replaced contact address with %s", address.c_str());
    }
}

void AddressMapCache::getKeys(std::vector<std::string>& keys) const
{
    for (const auto& entry : m_entries) {
        keys.emplace_back(entry->map.key());
    }
}

AddressMap* AddressMapCache::find(std::string_view key)
{
    const auto found = position(key);
    if (found == m_entries.end()) {
        return nullptr;
    }
    m_seen.share(**found);
    return &(*found)->map;
}

void AddressMapCache::remove(std::string_view key)
{
    const auto found = position(key);
    if (found != m_entries.end()) {
        m_seen = SeenRows();
        m_entries.erase(found);
    }
}

AddressMapCache::Entries::iterator AddressMapCache::position(std::string_view key)
{
    return std::find_if(m_entries.begin(), m_entries.end(), [&](const auto& entry) { return key == entry->map.key(); });
}

void AddressMapCache::clear()
{
    m_seen = SeenRows();
    m_entries.clear();
}

} // namespace oryx
