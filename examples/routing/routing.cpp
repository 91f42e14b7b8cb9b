// What a proxy asks before it sends a request on: where to when nothing else is known, whether it may leave and through
// which proxy, whether it may come in, and who serves a request URI that no subscriber has.
//
//     routing [DATABASE-URI]
//
// What a question is answered with is printed, failures too; only a refused connection makes the program fail.

#include "../common/Account.h"

#include <dal/LocationService.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

void show(const std::vector<oryx::ContactRecord>& contacts)
{
    for (const oryx::ContactRecord& contact : contacts) {
        std::printf("    %s\n", contact.address().c_str());
    }
}

void showDefaultRoute(oryx::LocationService& service)
{
    std::string ordering;
    bool replaceUri = false;
    std::vector<oryx::ContactRecord> contacts;
    if (report("the default route", service.getDefaultRoute(ordering, replaceUri, contacts))) {
        show(contacts);
    }
}

void showOutbound(oryx::LocationService& service, const std::string& uri, bool internal)
{
    std::string proxy;
    bool allowed = false;
    const std::string step = std::string(internal ? "internal" : "external") + " request to " + uri;
    if (report(step, service.getOutboundRoute(uri.c_str(), internal, proxy, allowed))) {
        const std::string way = proxy.empty() ? "directly" : "through " + proxy;
        std::printf("    %s\n", allowed ? way.c_str() : "denied");
    }
}

void showInbound(oryx::LocationService& service, const std::string& domain)
{
    bool allowed = false;
    if (report("a request from " + domain, service.checkInboundDomainAccess(domain.c_str(), allowed))) {
        std::printf("    %s\n", allowed ? "accepted" : "denied");
    }
}

void showMapped(oryx::LocationService& service, const std::string& uri)
{
    std::string ordering;
    bool replaceUri = false;
    std::vector<oryx::ContactRecord> contacts;
    if (report("who serves " + uri, service.lookupAddressMap(uri.c_str(), ordering, replaceUri, contacts))) {
        show(contacts);
    }
}

} // namespace

int main(int argc, char** argv)
{
    oryx::LocationService service;
    if (!connectFromEnvironment(service, argc > 1 ? argv[1] : "oryx")) {
        return EXIT_FAILURE;
    }
    showDefaultRoute(service);
    showOutbound(service, "sip:dave@elsewhere.example", false);
    showOutbound(service, "sip:dave@partner.example", false); // on the host's list of those reached directly
    showOutbound(service, "sip:dave@partner.sample.example", true);
    showOutbound(service, "sip:dave@blocked.sample.example", true);
    showInbound(service, "partner.sample.example");
    showInbound(service, "spam.sample.example");
    showMapped(service, "sip:5551234@oryx.example");
    showMapped(service, "sip:nobody@oryx.example");
    return EXIT_SUCCESS;
}
