#pragma once

#include <dal/AddressMap.h>
#include <dal/Dal.h>
#include <dal/DatabaseResult.h>
#include <zel/Trace.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace oryx {

/// The address maps of one service, compiled, in the order in which their keys first came.
///
/// A key keeps its place while it stays in the table, whatever becomes of its priority. Used by one thread at a time.
class AddressMapCache {
public:
    /// What a lookup asks of the service's executor.
    struct Queries {
        std::function<DatabaseResult(std::vector<AddressMapRecord>& maps)> addressMaps;
        std::function<DatabaseResult(int csid)> contacts; // appends to the vector that the lookup is given
    };

    /// Traces on the channel of the service that owns the cache.
    explicit AddressMapCache(const zel::Trace& trace) : m_trace(trace) {}

    /// The contacts that serve a request URI: brings the cache into line with the table, takes the first map that
    /// matches, appends its contacts, and fills their addresses from the parts of the URI. Where `connected` is not
    /// okay, that is the answer.
    DatabaseResult lookup(const DatabaseResult& connected, const char* uri, const Queries& queries,
                          std::vector<ContactRecord>& contacts);

    /// Appends the keys in the cache's order.
    void getKeys(std::vector<std::string>& keys) const;
    /// The first map with that key, null if there is none. Belongs to the cache.
    AddressMap* find(std::string_view key) const;
    void remove(std::string_view key);
    void clear();

private:
    struct Entry {
        AddressMap map;
        bool current = true; // stood in the table when it was last read
    };

    using Entries = std::vector<std::unique_ptr<Entry>>;
    class Finder;

    void bringIntoLine(const std::vector<AddressMapRecord>& records);
    void mark();
    void refresh(const AddressMapRecord& record, const std::string& key, Finder& finder);
    void sweep(std::size_t oldEntries);
    AddressMap* firstMatch(const char* uri);
    void substitute(const std::string& uri, const AddressMap& match, std::vector<ContactRecord>& contacts);

    Entries::const_iterator position(std::string_view key) const;

    Entries m_entries;
    zel::Trace m_trace;
};

} // namespace oryx
