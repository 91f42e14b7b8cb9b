#include "drills/Stale.h"

#include <dal/Dal.h>

#include <algorithm>
#include <cstdio>
#include <stdexcept>
#include <vector>

namespace drill {

namespace {

using std::chrono::microseconds;
using std::chrono::steady_clock;

/// The address of record that tests/drills/cluster provisions for this, and its contact set.
constexpr const char* kHandle = "reader";
constexpr int kKey = 1000;

std::vector<oryx::ContactRecord> binding(long cseq)
{
    std::vector<oryx::ContactRecord> contacts(1);
    contacts.front().setAddress("sip:reader@192.0.2.1");
    contacts.front().setCallId("reader@192.0.2.1");
    contacts.front().setCseq(cseq);
    return contacts;
}

void require(const oryx::DatabaseResult& result)
{
    if (!result.okay()) {
        throw std::runtime_error(result.getErrorMessage());
    }
}

bool shows(oryx::LocationService& lookups, long cseq)
{
    std::string ordering;
    bool replaceUri = false;
    std::vector<oryx::ContactRecord> contacts;
    require(lookups.lookupContacts(kHandle, "oryx.example", ordering, replaceUri, contacts));
    return contacts.size() == 1 && contacts.front().cseq() == cseq;
}

/// No standby is so far behind.
constexpr std::chrono::seconds kPatience(60);

/// From the acknowledgement to the lookup that showed the change; none if that was the first.
microseconds untilShown(oryx::LocationService& lookups, long cseq)
{
    const auto acknowledged = steady_clock::now();
    if (shows(lookups, cseq)) {
        return microseconds(0);
    }
    while (!shows(lookups, cseq)) {
        if (steady_clock::now() > acknowledged + kPatience) {
            throw std::runtime_error("a standby does not show what was acknowledged");
        }
    }
    return std::chrono::duration_cast<microseconds>(steady_clock::now() - acknowledged);
}

double inMilliseconds(microseconds time)
{
    return static_cast<double>(time.count()) / 1000;
}

std::string line(std::size_t lookups, std::vector<microseconds>& late, microseconds changing)
{
    std::sort(late.begin(), late.end());
    const auto quantile = [&](std::size_t percent) {
        return late.empty() ? 0.0 : inMilliseconds(late.at((late.size() - 1) * percent / 100));
    };
    char text[160];
    std::snprintf(text, sizeof text, "%10zu %10zu %10.2f %10.2f %10.2f %14.2f", lookups, late.size(), quantile(50),
                  quantile(99), quantile(100), inMilliseconds(changing) / static_cast<double>(lookups));
    return text;
}

} // namespace

std::string measureStaleReads(const Account& changes, const Account& lookups, std::chrono::seconds time)
{
    oryx::LocationService changing;
    oryx::LocationService reading;
    changes.connect(changing);
    lookups.connect(reading);
    std::vector<oryx::ContactRecord> contacts = binding(0);
    require(changing.registerContacts(kKey, contacts));
    std::vector<microseconds> late;
    long cseq = 0;
    microseconds spent(0);
    for (const auto end = steady_clock::now() + time; steady_clock::now() < end;) {
        contacts = binding(++cseq);
        const auto begin = steady_clock::now();
        require(changing.updateContacts(kKey, contacts));
        spent += std::chrono::duration_cast<microseconds>(steady_clock::now() - begin);
        const microseconds shown = untilShown(reading, cseq);
        if (shown.count() > 0) {
            late.push_back(shown);
        }
    }
    require(changing.unregisterContacts(kKey, contacts));
    return line(static_cast<std::size_t>(cseq), late, spent);
}

} // namespace drill
