// The address-map cache without tracing, where rows that are the same as in the last lookup are not read again: it must
// be what it would be if they were.

#include "contract/ServiceFixture.h"
#include "support/FailingNew.h"

#include <dal/AddressMap.h>
#include <dal/UtilityConvert.h>

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <regex.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <ctime>
#include <iterator>
#include <new>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace addressMapCacheTest {

namespace {

std::atomic<bool> compilationsFail = false;
std::atomic<int> compilations = 0;

/// Stands before the C library's own.
extern "C" int regcomp(regex_t* regex, const char* pattern, int flags)
{
    static auto* const real = reinterpret_cast<decltype(&regcomp)>(dlsym(RTLD_NEXT, "regcomp"));
    ++compilations;
    return compilationsFail ? REG_ESPACE : real(regex, pattern, flags);
}

using fake::Cell;
using fake::noRows;
using fake::rows;
using oryx::AddressMap;

/// A row of the address maps, as far as the cache minds it.
struct MapRow {
    Cell handle;
    int csid = 0;
    Cell pattern;
    Cell modified;

    std::string key() const { return handle.value_or("") + "-" + std::to_string(csid); }
    std::vector<Cell> cells() const
    {
        return {"sequential", "t", handle, std::to_string(csid), pattern, modified, "3"};
    }
};

using Table = std::vector<MapRow>;

fake::Rows cellsOf(const Table& table)
{
    fake::Rows cells;
    for (const MapRow& row : table) {
        cells.push_back(row.cells());
    }
    return cells;
}

/// The cache as the rules give it, read through from the first row to the last in each lookup. Patterns are an anchor
/// and plain text, or never match.
class ModelCache {
public:
    struct Entry {
        std::string key;
        int csid = -1;
        std::string pattern;
        std::string expression;
        std::time_t time = 0;
        bool current = false;
        AddressMap* handedOut = nullptr;

        void compile(const std::string& text, std::time_t modified)
        {
            pattern = text;
            if (time == 0 || time < modified) {
                expression = text;
                time = modified;
            }
        }
        bool matches(const std::string& uri) const
        {
            return expression.starts_with('^') && uri.starts_with(expression.substr(1));
        }
    };

    /// The contact set that serves the URI; 0 or less where none does.
    int lookup(const Table& table, const std::string& uri)
    {
        for (Entry& entry : entries) {
            entry.current = false;
        }
        for (const MapRow& row : table) {
            Entry* entry = find(row.key());
            if (entry == nullptr) {
                entry = &entries.emplace_back();
                entry->key = row.key();
            }
            entry->compile(row.pattern.value_or(""), oryx::convertTime(row.modified.value_or("").c_str()));
            entry->csid = row.csid;
            entry->current = true;
        }
        std::erase_if(entries, [](const Entry& entry) { return !entry.current; });
        const auto match = std::find_if(entries.begin(), entries.end(), [&](const Entry& e) { return e.matches(uri); });
        return match != entries.end() ? match->csid : 0;
    }

    Entry* find(const std::string& key)
    {
        const auto found = std::find_if(entries.begin(), entries.end(), [&](const Entry& e) { return e.key == key; });
        return found != entries.end() ? &*found : nullptr;
    }

    std::string keys() const
    {
        std::string text;
        for (const Entry& entry : entries) {
            text += "[" + entry.key + "]";
        }
        return text;
    }

    std::vector<Entry> entries;
};

std::string shownEntry(const ModelCache::Entry& entry)
{
    return entry.key + " csid=" + std::to_string(entry.csid) + " pattern='" + entry.pattern + "'";
}

class UntracedLookup : public ConnectedServiceTest {
protected:
    void SetUp() override
    {
        ConnectedServiceTest::SetUp();
        m_traces = zel::setTraceSink({});
    }
    void TearDown() override { zel::setTraceSink(m_traces); }

    void setTraced(bool traced) { zel::setTraceSink(traced ? m_traces : zel::TraceSink()); }

    /// Looks a URI up while the table is such, and holds the outcome against the set that should serve it; 0: none.
    void expectServedBy(int csid, const Table& table, const std::string& uri)
    {
        libpq.replies({rows(cellsOf(table))});
        std::vector<std::string> statements = {kMaps};
        if (csid > 0) {
            libpq.replies({noRows(10)});
            statements.push_back(spliced(kContactsOfSet, std::to_string(csid)));
        }
        Found found;
        const oryx::DatabaseResult result =
            service.lookupAddressMap(uri.c_str(), found.ordering, found.replaceUri, found.contacts);
        EXPECT_EQ(show(result), csid > 0 ? "okay" : "not found");
        EXPECT_EQ(libpq.takeStatements(), statements);
    }

    zel::TraceSink m_traces;
};

constexpr const char* kOld = "Wed Dec 17 07:37:16 1997";
constexpr const char* kNew = "Wed Dec 17 07:37:17 1997";

/// A table that changes from lookup to lookup, and hands that change the cache from outside.
class Changes {
public:
    explicit Changes(unsigned seed) : m_random(seed) {}

    std::size_t upTo(std::size_t most) { return m_random() % (most + 1); }

    MapRow row()
    {
        MapRow made;
        made.handle = oneOf({"a", "b", "c", "d", "e", "f", "a-", std::nullopt});
        made.csid = static_cast<int>(upTo(3)) - 1;
        made.pattern = pattern();
        made.modified = time();
        return made;
    }

    void change(Table& table)
    {
        if (table.empty() || upTo(9) == 0) {
            table.insert(at(table, 0), row());
            return;
        }
        MapRow& some = table[upTo(table.size() - 1)];
        switch (upTo(12)) {
        case 0:
            table.erase(at(table, 1));
            break;
        case 1: // a priority
            std::iter_swap(at(table, 1), at(table, 1));
            break;
        case 2:
            some.pattern = pattern();
            break;
        case 3:
            some.modified = time();
            break;
        case 4:
            some.pattern = pattern();
            some.modified = time();
            break;
        case 5:
            some = row();
            break;
        case 6: // several gone at once, or nearly all come
            table.erase(at(table, 0), table.end());
            break;
        case 7:
            std::generate_n(std::inserter(table, at(table, 0)), upTo(5), [&] { return row(); });
            break;
        default: // as it was
            break;
        }
    }

    std::string uri() { return "sip:" + std::to_string(upTo(4)) + "@h"; }

private:
    Cell oneOf(std::vector<Cell> cells) { return cells[upTo(cells.size() - 1)]; }
    Cell pattern() { return oneOf({"^sip:0", "^sip:1", "^sip:2", "^sip:3", "^sip:", "(", "", std::nullopt}); }
    Cell time()
    {
        return oneOf(
            {kOld, kOld, kNew, "Wed Dec 17 07:37:18 1997", "Wed Dec 17 07:37:19 1997", "no time", std::nullopt});
    }
    Table::iterator at(Table& table, std::size_t behind)
    {
        return table.begin() + static_cast<std::ptrdiff_t>(upTo(table.size() - behind));
    }

    std::mt19937 m_random;
};

TEST_F(UntracedLookup, MakesOfTheRowsWhatReadingThemAllWouldMake)
{
    Changes changes(20261122); // the same changes in every run
    ModelCache model;
    Table table;
    int served = 0;
    for (int i = 0; i < 5000 && !HasFailure(); ++i) {
        changes.change(table);
        setTraced(changes.upTo(20) == 0);
        const std::string uri = changes.uri();
        const int csid = model.lookup(table, uri);
        served += csid > 0 ? 1 : 0;
        expectServedBy(csid, table, uri);
        EXPECT_EQ(mapKeys(service), model.keys()) << "lookup " << i;
    }
    EXPECT_GT(served, 1000);
    for (const ModelCache::Entry& entry : model.entries) {
        EXPECT_EQ(mapEntry(service, entry.key), shownEntry(entry));
    }
}

TEST_F(UntracedLookup, MindsWhatItsCallersDoToTheMaps)
{
    Changes changes(20261123);
    ModelCache model;
    Table table;
    for (int i = 0; i < 5000 && !HasFailure(); ++i) {
        changes.change(table);
        const std::string uri = changes.uri();
        expectServedBy(model.lookup(table, uri), table, uri);
        EXPECT_EQ(mapKeys(service), model.keys()) << "lookup " << i;
        if (model.entries.empty()) {
            continue;
        }
        ModelCache::Entry& some = model.entries[changes.upTo(model.entries.size() - 1)];
        std::string key = some.key;
        switch (changes.upTo(60)) {
        case 0:
            service.removeMapEntry(key);
            model.entries.erase(model.entries.begin() + (&some - model.entries.data()));
            break;
        case 1:
            service.clearMapEntries();
            model.entries.clear();
            break;
        case 2:
        case 3:
            some.handedOut = service.lookupMapEntry(key);
            EXPECT_EQ(mapEntry(service, key), shownEntry(some));
            break;
        default:
            break;
        }
        for (ModelCache::Entry& entry : model.entries) { // one handed out may be changed long after
            if (entry.handedOut == nullptr || changes.upTo(5) != 0) {
                continue;
            }
            const std::time_t modified = oryx::convertTime(kNew);
            entry.handedOut->compile("^sip:4", modified);
            entry.compile("^sip:4", modified);
            entry.handedOut->setCsid(4);
            entry.csid = 4;
            if (changes.upTo(9) == 0) {
                entry.key = "renamed" + std::to_string(i);
                entry.handedOut->setKey(entry.key.c_str());
            }
        }
    }
}

TEST_F(UntracedLookup, ReadsTheTimesAgainInAnotherZone)
{
    const char* const zone = std::getenv("TZ");
    const std::string former = zone != nullptr ? zone : "";
    setenv("TZ", "UTC0", 1);
    expectServedBy(1, {{"a", 1, "^sip:1", kOld}}, "sip:1@h");
    setenv("TZ", "EST5EDT,M3.2.0,M11.1.0", 1);
    expectServedBy(1, {{"a", 1, "^sip:1", kOld}}, "sip:1@h");
    expectServedBy(1, {{"a", 1, "^sip:2", kOld}}, "sip:1@h"); // the same time: not compiled again
    expectServedBy(1, {{"a", 1, "^sip:2", kNew}}, "sip:2@h");
    zone != nullptr ? setenv("TZ", former.c_str(), 1) : unsetenv("TZ");
    tzset();
}

Table numbered(int maps)
{
    Table table;
    for (int n = 0; n < maps; ++n) {
        const std::string number = std::to_string(1000 + n);
        table.push_back({"handle-of-some-length-" + number, 1, "^sip:" + number + "@", kOld});
    }
    return table;
}

TEST_F(UntracedLookup, TakesNoMemoryForARowThatIsAsItWas)
{
    const auto allocations = [&](int maps) {
        const Table table = numbered(maps);
        expectServedBy(1, table, "sip:1000@h");
        libpq.replies({rows(cellsOf(table)), noRows(10)});
        Found found;
        const std::size_t before = newsSoFar();
        service.lookupAddressMap("sip:1000@h", found.ordering, found.replaceUri, found.contacts);
        const std::size_t after = newsSoFar();
        libpq.take();
        return after - before;
    };
    EXPECT_EQ(allocations(1000), allocations(10));
}

TEST_F(UntracedLookup, TriesAgainToCompileWhatMemoryDidNotSufficeFor)
{
    const Table table = {{"a", 1, "^sip:1", kOld}, {"b", 2, "^sip:2", kOld}};
    compilations = 0;
    compilationsFail = true;
    expectServedBy(0, table, "sip:1@h");
    expectServedBy(0, table, "sip:1@h");
    EXPECT_EQ(compilations, 2); // it may never be enough: not at every lookup
    compilationsFail = false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    expectServedBy(1, table, "sip:1@h");
    expectServedBy(2, table, "sip:2@h");
    EXPECT_EQ(compilations, 4);
    expectServedBy(1, table, "sip:1@h");
    EXPECT_EQ(compilations, 4);
}

TEST(AddressMapOutOfMemory, IsCompiledAgainWhateverItsTime)
{
    AddressMap map;
    map.compile("^sip:1", 5);
    compilationsFail = true;
    map.compile("^sip:2", 6);
    compilationsFail = false;
    EXPECT_TRUE(map.lacksMemory());
    EXPECT_FALSE(map.matches("sip:1@h"));
    map.compile("^sip:1", 5);
    EXPECT_FALSE(map.lacksMemory());
    EXPECT_TRUE(map.matches("sip:1@h"));
}

TEST_F(UntracedLookup, IsRightAgainAfterMemoryRanOut)
{
    const Table before = {{"a", 1, "^sip:1", kOld}, {"b", 2, "^sip:2", kOld}, {"c", 3, "^sip:3", kOld}};
    const Table after = {{"b", 2, "^sip:1", kNew},
                         {"d-with-a-longer-handle", 4, "^sip:4.of.the.sales.department", kOld},
                         {"c", 3, "^sip:3", kOld}};
    bool finished = false;
    for (std::size_t news = 0; !finished; ++news) {
        service.clearMapEntries();
        expectServedBy(1, before, "sip:1@h");
        Found found;
        libpq.replies({rows(cellsOf(after)), noRows(10)});
        failNewAfter(news);
        const oryx::DatabaseResult result =
            service.lookupAddressMap("sip:1@h", found.ordering, found.replaceUri, found.contacts);
        finished = !newHasFailed();
        failNoNew();
        SCOPED_TRACE("out of memory after " + std::to_string(news));
        EXPECT_EQ(show(result), finished ? "okay" : "query error: out of memory");
        libpq.dropReplies();
        libpq.take();
        expectServedBy(4, after, "sip:4.of.the.sales.department@h");
        expectServedBy(2, after, "sip:1@h");
        EXPECT_EQ(mapKeys(service), "[b-2][c-3][d-with-a-longer-handle-4]");
    }
}

} // namespace

} // namespace addressMapCacheTest
