#pragma once

#include <dal/AddressMap.h>
#include <dal/Dal.h>
#include <dal/QueryResult.h>
#include <dal/internal/Row.h>
#include <zel/Trace.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <ctime>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace oryx {

/// The address maps of one service, compiled, in the order in which their keys first came.
///
/// A key keeps its place while it stays in the table, whatever becomes of its priority. Each lookup reads the whole
/// table; rows that are as they were the last time are only compared. Used by one thread at a time.
class AddressMapCache {
public:
    /// What a lookup asks of the service's executor.
    struct Queries {
        std::function<DatabaseResult(QueryResult& maps)> addressMaps; // its rows as `readAddressMap` takes them
        std::function<DatabaseResult(int csid)> contacts;             // appends to the vector that the lookup is given
    };

    /// Traces on the channel of the service that owns the cache.
    explicit AddressMapCache(const zel::Trace& trace) : m_trace(trace) {}

    /// The contacts that serve a request URI: brings the cache into line with the table, takes the first map that
    /// matches, appends its contacts, and fills their addresses from the parts of the URI. Where `connected` is not
    /// okay, that is the answer.
    DatabaseResult lookup(DatabaseResult connected, const char* uri, const Queries& queries,
                          std::vector<ContactRecord>& contacts);

    /// Appends the keys in the cache's order.
    void getKeys(std::vector<std::string>& keys) const;
    /// The first map with that key, null if there is none. Belongs to the cache.
    AddressMap* find(std::string_view key);
    void remove(std::string_view key);
    void clear();

private:
    struct Entry {
        AddressMap map;
        bool current = false;             // stood in the table when it was last read
        bool shared = false;              // no longer what one row alone makes of it: it has several, or was handed out
        std::optional<std::size_t> place; // of its row among those seen; none as long as it is new
    };

    using Entries = std::vector<std::unique_ptr<Entry>>;

    /// The rows of the table as a lookup has read them, for the next one to tell which are still the same: those have
    /// nothing to change in the cache, and cost no more than to be compared.
    class SeenRows {
    public:
        /// What is not known to be seen.
        SeenRows() = default;
        /// Takes up as many rows as that, about as long as those of the other.
        SeenRows(std::size_t rows, const SeenRows& other);

        void add(const Row& row, Entry& entry);
        /// What the entry is made of changes outside the rows from now on.
        void share(Entry& entry);
        /// Whether just these rows were seen, and all entries are still what they make of them.
        bool areJust(const QueryResult& rows) const;
        /// Whether a row is the same as the one at a place, and its entry still what it makes of it.
        bool unchanged(std::size_t place, const Row& row) const;
        /// The entry of the row at a place, null behind the last.
        Entry* entry(std::size_t place) const { return place < m_rows.size() ? m_rows[place].entry : nullptr; }

    private:
        struct Seen {
            Entry* entry;
            std::size_t texts; // where they begin
        };

        bool sameTexts(std::size_t place, const Row& row) const;

        std::vector<Seen> m_rows;
        std::string m_texts;     // of all rows one behind the other, the columns that count, each with a NUL at its end
        bool m_unshared = false; // the entries are just what the rows make of them; unknown before there are any
    };

    /// A time zone, by the first seconds of a January and a July.
    using Zone = std::array<time_t, 2>;
    class Finder;

    DatabaseResult readTable(const Queries& queries);
    bool seenBefore(const QueryResult& rows);
    void bringIntoLine(const QueryResult& rows);
    bool attemptIsDue() const;
    void planAttempt(bool failed);
    void mark();
    Entry& refresh(const AddressMapRecord& record, Finder& finder, Entry* expected);
    void sweep(std::size_t oldEntries);
    AddressMap* firstMatch(const char* uri);
    void substitute(const std::string& uri, const AddressMap& match, std::vector<ContactRecord>& contacts);

    Entries::iterator position(std::string_view key);

    Entries m_entries;
    SeenRows m_seen; // by the last lookup, or none; their entries are the cache's, all of them
    Zone m_zone{};   // that their times were read in
    // When the maps that memory did not suffice for are compiled again, and how long after the attempt before; 0: none.
    std::chrono::steady_clock::time_point m_attempt;
    std::chrono::seconds m_pause{0};
    zel::Trace m_trace;
};

} // namespace oryx
