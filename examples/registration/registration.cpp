// A registrar's day with one address of record: find its key, register contacts, look them up, refresh, unregister,
// sweep what expired, and see what a failure looks like.
//
//     registration [DATABASE-URI [ADDRESS-OF-RECORD [CONTACT...]]]
//
// Who connects comes from PGUSER and PGPASSWORD, as with every PostgreSQL client.

#include "../common/Account.h"

#include <dal/LocationService.h>

#include <wex/Uri.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

namespace {

constexpr long kHour = 3600;

struct Arguments {
    std::string database = "oryx";
    std::string addressOfRecord = "sip:alice@oryx.example";
    std::vector<std::string> contacts{"sip:alice@192.0.2.17:5060", "sip:alice@mobile.oryx.example;transport=tcp"};
};

Arguments parse(int argc, char** argv)
{
    Arguments arguments;
    const std::vector<std::string> given(argv + 1, argv + argc);
    if (!given.empty()) {
        arguments.database = given[0];
    }
    if (given.size() > 1) {
        arguments.addressOfRecord = given[1];
    }
    if (given.size() > 2) {
        arguments.contacts.assign(given.begin() + 2, given.end());
    }
    return arguments;
}

oryx::ContactRecord binding(const std::string& address, const std::string& qvalue, long expires)
{
    oryx::ContactRecord contact;
    contact.setAddress(address.c_str());
    contact.setContactHeader(("<" + address + ">;q=" + qvalue).c_str());
    contact.setQvalue(qvalue.c_str());
    contact.setExpires(expires);
    contact.setCallId("a84b4c76e66710");
    contact.setCseq(1);
    return contact;
}

bool show(oryx::LocationService& service, int key)
{
    std::string ordering;
    bool replaceUri = false;
    std::vector<oryx::ContactRecord> contacts;
    if (!report("look the contacts up", service.lookupContacts(key, ordering, replaceUri, contacts))) {
        return false;
    }
    const auto now = static_cast<long>(std::time(nullptr));
    for (const oryx::ContactRecord& contact : contacts) {
        std::printf("    %-44s q=%-4s cseq=%ld, expires in %ld s\n", contact.address().c_str(),
                    contact.qvalue().c_str(), contact.cseq(), contact.expires() - now);
    }
    return true;
}

/// What the caller of a registrar never wants to see, seen on purpose.
void showFailures(oryx::LocationService& service, int key, const oryx::ContactRecord& contact)
{
    std::vector<oryx::ContactRecord> twice{contact, contact};
    report("register a contact twice in one request", service.registerContacts(key, twice));

    int nobody = 0;
    report("look up an unknown address of record", service.getPublicAddressKey("nobody", "oryx.example", nobody));

    oryx::LocationService unconnected;
    report("ask a service that was never connected", unconnected.removeExpiredContacts());
}

bool run(const Arguments& arguments)
{
    const wex::Uri aor(arguments.addressOfRecord.c_str());
    if (!aor.isValid()) {
        std::fprintf(stderr, "not a SIP URI: %s\n", arguments.addressOfRecord.c_str());
        return false;
    }
    oryx::LocationService service;
    if (!connectFromEnvironment(service, arguments.database)) {
        return false;
    }
    int key = 0;
    if (!report("find the key of " + arguments.addressOfRecord,
                service.getPublicAddressKey(aor.getUser().c_str(), aor.getHost().c_str(), key))) {
        return false;
    }

    const auto now = static_cast<long>(std::time(nullptr));
    std::vector<oryx::ContactRecord> contacts;
    for (const std::string& address : arguments.contacts) {
        contacts.push_back(binding(address, contacts.empty() ? "1.0" : "0.5", now + kHour));
    }
    bool done = report("register the contacts", service.registerContacts(key, contacts)) && show(service, key);

    std::vector<oryx::ContactRecord> refreshed{contacts.front()};
    refreshed.front().setExpires(now + 2 * kHour);
    refreshed.front().setCseq(2);
    done = done && report("refresh the first", service.updateContacts(key, refreshed)) && show(service, key);

    std::vector<oryx::ContactRecord> last{contacts.back()};
    done = done && report("unregister the last", service.unregisterContacts(key, last)) && show(service, key);

    last.front().setExpires(now - 1);
    done = done && report("register it again, expired a second ago", service.registerContacts(key, last)) &&
           report("sweep expired contacts", service.removeExpiredContacts()) && show(service, key);

    if (done) {
        showFailures(service, key, contacts.front());
    }
    return done;
}

} // namespace

int main(int argc, char** argv)
{
    return run(parse(argc, argv)) ? EXIT_SUCCESS : EXIT_FAILURE;
}
