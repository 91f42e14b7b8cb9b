// A program outside the tree that registers a contact, and reads it as the event server:
//
//     consumer DATABASE-URI USER PASSWORD

#include <dal/LocationService.h>
#include <dal/PresenceService.h>
#include <dal/UtilityConvert.h>
#include <util/CleanText.h>
#include <zel/Trace.h>

#include <cstdio>

int main(int argc, char** argv)
{
    if (argc != 4) {
        return 2;
    }
    oryx::LocationService service;
    oryx::DatabaseResult result = service.connect(argv[1], argv[2], argv[3]);
    int key = 0;
    if (result.okay()) {
        result = service.getPublicAddressKey("alice", "oryx.example", key);
    }
    std::vector<oryx::ContactRecord> contacts(1);
    contacts.front().setAddress("sip:alice@192.0.2.99");
    if (result.okay() && oryx::isCleanText(contacts.front().address())) {
        result = service.registerContacts(key, contacts);
    }
    oryx::PresenceService presence;
    int csid = 0;
    if (result.okay()) {
        result = presence.connect(argv[1], argv[2], argv[3]);
    }
    if (result.okay()) {
        result = presence.getCsid(key, csid);
    }
    std::string ordering;
    bool replaceUri = false;
    if (result.okay()) {
        result = presence.lookupContacts(csid, ordering, replaceUri, contacts);
    }
    zel::Trace("consumer").prn("%s", oryx::UtilityConvert::boolToString(result.okay()).c_str());
    std::printf("%s\n", result.okay() ? "registered" : result.getErrorMessage().c_str());
    return result.okay() ? 0 : 1;
}
