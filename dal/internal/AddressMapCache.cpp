#include <dal/internal/AddressMapCache.h>

#include <VariableSubstitution.h>
#include <wex/Uri.h>

#include <algorithm>
#include <ctime>
#include <unordered_map>

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

} // namespace

DatabaseResult AddressMapCache::lookup(const DatabaseResult& connected, const char* uri, const Queries& queries,
                                       std::vector<ContactRecord>& contacts)
{
    DatabaseResult result = connected;
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
    std::vector<AddressMapRecord> records;
    result = queries.addressMaps(records);
    if (!result.okay()) {
        m_trace.prn(result.getErrorMessage());
        return result;
    }
    m_trace.prn("result contains %d maps", static_cast<int>(records.size()));
    bringIntoLine(records);
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

/// Finds the entry of every row of the table without walking the cache for each: rows mostly come in the cache's own
/// order, so the entry behind the one found last is tried first, and an index serves the others.
class AddressMapCache::Finder {
public:
    explicit Finder(const Entries& entries) : m_entries(entries) {}

    Entry* find(std::string_view key)
    {
        if (m_next < m_entries.size() && key == m_entries[m_next]->map.key()) {
            return m_entries[m_next++].get();
        }
        for (; m_indexed < m_entries.size(); ++m_indexed) { // those added since the last time, too
            m_index.emplace(m_entries[m_indexed]->map.key(), m_indexed);
        }
        const auto found = m_index.find(key);
        if (found == m_index.end()) {
            return nullptr;
        }
        m_next = found->second + 1;
        return m_entries[found->second].get();
    }

private:
    const Entries& m_entries;
    std::size_t m_next = 0;
    std::unordered_map<std::string_view, std::size_t> m_index;
    std::size_t m_indexed = 0;
};

void AddressMapCache::bringIntoLine(const std::vector<AddressMapRecord>& records)
{
    const std::size_t oldEntries = m_entries.size();
    mark();
    Finder finder(m_entries);
    std::string key;
    for (const AddressMapRecord& record : records) {
        key.assign(record.handle()).append("-").append(std::to_string(record.csid()));
        refresh(record, key, finder);
    }
    sweep(oldEntries);
}

void AddressMapCache::mark()
{
    for (const auto& entry : m_entries) {
        m_trace.prn("marking entry for %s", entry->map.key());
        entry->current = false;
    }
}

void AddressMapCache::refresh(const AddressMapRecord& record, const std::string& key, Finder& finder)
{
    if (zel::Trace::enabled(zel::TraceKind::prn)) {
        m_trace.prn("tnow is %ld", static_cast<long>(std::time(nullptr)));
        m_trace.prn("key=%s, pat=%s, time=%ld, priority=%d, ordering=%s", key.c_str(), record.pattern().c_str(),
                    record.wholeModTime(), record.priority(), record.ordering().c_str());
    }
    Entry* entry = finder.find(key);
    if (entry != nullptr) {
        m_trace.prn("updating existing map entry for %s", key.c_str());
    } else {
        m_trace.prn("adding new map for %s", key.c_str());
        entry = m_entries.emplace_back(std::make_unique<Entry>()).get();
        entry->map.setKey(key.c_str());
    }
    entry->map.compile(record.pattern().c_str(), record.wholeModTime());
    entry->map.setCsid(record.csid());
    entry->current = true;
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

AddressMap* AddressMapCache::find(std::string_view key) const
{
    const auto found = position(key);
    return found != m_entries.end() ? &(*found)->map : nullptr;
}

void AddressMapCache::remove(std::string_view key)
{
    const auto found = position(key);
    if (found != m_entries.end()) {
        m_entries.erase(found);
    }
}

std::vector<std::unique_ptr<AddressMapCache::Entry>>::const_iterator
AddressMapCache::position(std::string_view key) const
{
    return std::find_if(m_entries.begin(), m_entries.end(), [&](const auto& entry) { return key == entry->map.key(); });
}

void AddressMapCache::clear()
{
    m_entries.clear();
}

} // namespace oryx
