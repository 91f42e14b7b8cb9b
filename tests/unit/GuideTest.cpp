#include <dal/Dal.h>

#include <gtest/gtest.h>

#include <ctime>
#include <limits>
#include <string>
#include <vector>

// What can be run of the guide's code: servers are written after it.

namespace guide {

void leaveOutExpired(std::vector<oryx::ContactRecord>& contacts);

} // namespace guide

namespace guideTest {

namespace {

oryx::ContactRecord contact(const char* address, long expires, char permanent)
{
    oryx::ContactRecord contact;
    contact.setAddress(address);
    contact.setExpires(expires);
    contact.setPermanent(permanent);
    return contact;
}

TEST(Guide, leavesOutWhatHasExpiredAndNothingElse)
{
    const auto now = static_cast<long>(std::time(nullptr));
    // The registrar's lookups do not fill the flag: a contact without an expiry comes as "f".
    std::vector<oryx::ContactRecord> contacts = {
        contact("no expiry", 0, 'f'),
        contact("no expiry, permanent", 0, 't'),
        contact("long gone", 1, 'f'),
        contact("a second ago", now - 1, 'f'),
        contact("gone, permanent", 1, 't'),
        contact("in an hour", now + 3600, 'f'),
        contact("last", std::numeric_limits<long>::max(), 'f'),
    };
    guide::leaveOutExpired(contacts);
    std::string kept;
    for (const oryx::ContactRecord& each : contacts) {
        kept += each.address() + "\n";
    }
    EXPECT_EQ(kept, "no expiry\nno expiry, permanent\ngone, permanent\nin an hour\nlast\n");
}

} // namespace

} // namespace guideTest
