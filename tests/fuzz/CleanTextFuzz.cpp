// Every text that isCleanText accepts goes to a server in every quoted position of the library's statements: what is
// stored comes back unchanged, what is searched by finds what it should, and all of it can be removed again.

#include "support/Server.h"
#include "support/Show.h"

#include <dal/DatabaseCommandExecutor.h>
#include <dal/LocationService.h>
#include <dal/PresenceDatabaseCommandExecutor.h>
#include <util/CleanText.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

using namespace oryx;

constexpr int kSid = 7;
constexpr int kCsid = 12;
constexpr const char* kOther = "sip:bob@oryx.example";

/// The fuzzer takes the end of the process for a text found.
void expect(const char* what, const std::string& found, const std::string& expected)
{
    if (found != expected) {
        std::fprintf(stderr, "%s gave\n%s\ninstead of\n%s\n", what, found.c_str(), expected.c_str());
        std::abort();
    }
}

void expect(const char* what, int found, int expected)
{
    expect(what, std::to_string(found), std::to_string(expected));
}

void okay(const char* what, const DatabaseResult& result)
{
    expect(what, show(result), "okay");
}

void notFound(const char* what, const DatabaseResult& result)
{
    expect(what, show(result), "not found");
}

template <typename Record>
void holds(const char* what, const std::vector<Record>& found, const Record& expected)
{
    expect(what, show(found), show(expected));
}

PresenceRecord dialog(const std::string& id, const std::string& text, const std::string& package)
{
    const char* const all = text.c_str();
    return {id.c_str(), nullptr, all, all, all, 1, all, all, all, 2, all, package.c_str()};
}

ContactRecord contactOf(const std::string& address, const std::string& text)
{
    ContactRecord contact;
    contact.setAddress(address.c_str());
    contact.setQvalue(text.c_str());
    contact.setExpires(2000000000);
    contact.setCapabilities(text.c_str());
    contact.setContactHeader(text.c_str());
    contact.setCallId(text.c_str());
    contact.setCseq(1826);
    return contact;
}

/// A password is stored as it is given; only the lookup by address takes it for an encrypted one.
SubscriberRecord withoutPassword(SubscriberRecord subscriber)
{
    subscriber.setPassword("");
    return subscriber;
}

/// A database and the library's connections to it, one of each kind, for as long as the fuzzer runs.
class Suite {
public:
    Suite()
    {
        setenv("PGSSLMODE", "disable", 1);
        // Capitals are texts like others here.
        m_session.run("ALTER TABLE public_address DROP CONSTRAINT public_address_in_lower_case");
        const std::string uri = m_database.socketUri();
        okay("connect", m_registrar.connect(uri.c_str(), server::kUser, server::kPassword));
        expect("connect", m_location.connect(uri.c_str(), server::kUser, server::kPassword), true);
        expect("connect", m_presence.connect(uri.c_str(), server::kUser, server::kPassword), true);
    }

    void send(const std::string& text)
    {
        dialogs(text);
        watchers(text);
        sources(text);
        watcherInformation(text);
        lists(text);
        conferences(text);
        provisioning(text);
        lookups(text);
        if (isCleanText(text, TextUse::pattern)) {
            searches(text);
        }
        nothingIsLeft();
    }

private:
    void dialogIs(const char* what, const PresenceRecord& expected)
    {
        PresenceRecord found;
        okay(what, m_presence.getWatcher(expected.subscriptionid().c_str(), found));
        expect(what, show(found), show(expected));
    }

    void dialogs(const std::string& text)
    {
        const char* const id = text.c_str();
        PresenceRecord expected = dialog(text, text, text);
        okay("addWatcher", m_presence.addWatcher(expected));
        dialogIs("addWatcher", expected);
        okay("updateWatcherContact", m_presence.updateWatcherContact(id, kOther, 3));
        okay("updatePresentityContact", m_presence.updatePresentityContact(id, id, 4));
        expected.SetSubcseq(3);
        expected.SetNotcseq(4);
        dialogIs("updatePresentityContact", expected);
        okay("updatePresentityContact", m_presence.updatePresentityContact(id, kOther, 5));
        okay("updateWatcherContact", m_presence.updateWatcherContact(id, id, 6));
        okay("updatePresentityContact", m_presence.updatePresentityContact(id, nullptr, 7));
        expected.SetSubcseq(6);
        expected.SetNotcseq(7);
        dialogIs("updateWatcherContact", expected);
        okay("deleteWatcher", m_presence.deleteWatcher(id));
        PresenceRecord none;
        notFound("deleteWatcher", m_presence.getWatcher(id, none));
    }

    void watcherIs(const char* what, const WatchersRecord& expected)
    {
        std::vector<WatchersRecord> found;
        okay(what, m_presence.getWatcherState(expected.presentitykey().c_str(), found));
        holds(what, found, expected);
    }

    void watchers(const std::string& text)
    {
        const char* const key = text.c_str();
        PresenceRecord dialogOfIt = dialog(text, text, text);
        okay("addWatcher", m_presence.addWatcher(dialogOfIt));
        WatchersRecord expected(text, text, 1, 2, 3, 4, text, text, 5, text, text);
        okay("addWatcherState", m_presence.addWatcherState(expected));
        // No operation reads it.
        expect("addWatcherState", m_session.value("SELECT event FROM event_watchers"), text);
        expected.event("");
        watcherIs("addWatcherState", expected);
        std::vector<PresenceRecord> found;
        okay("getIncomingMatchingSubscriptions", m_presence.getIncomingMatchingSubscriptions(found));
        dialogOfIt.SetWatcherIdentity(key);
        dialogOfIt.SetExpiryTime(4);
        dialogOfIt.SetDocType(1);
        holds("getIncomingMatchingSubscriptions", found, dialogOfIt);
        okay("updateWatcherState", m_presence.updateWatcherState(key, key, 6));
        okay("updateWatcherExpiry", m_presence.updateWatcherExpiry(key, key, 7));
        okay("updateWatcherDocVersion", m_presence.updateWatcherDocVersion(key, key, 8));
        expected.watcherstate(6);
        expected.expirytime(7);
        expected.docversion(8);
        watcherIs("updateWatcherState", expected);
        okay("getWatcherState", m_presence.getWatcherState(key, key));
        okay("deleteWatcherState", m_presence.deleteWatcherState(key, key));
        notFound("deleteWatcherState", m_presence.getWatcherState(key, key));
        okay("deleteWatcher", m_presence.deleteWatcher(key));
    }

    void sources(const std::string& text)
    {
        const char* const all = text.c_str();
        okay("addSourceOpaque", m_presence.addSourceOpaque(SourcesRecord(all, all, all, 1, all, all)));
        okay("updateSourceExpiry", m_presence.updateSourceExpiry(all, all, 2));
        std::vector<SourcesRecord> ofPresentity;
        okay("getSourceOpaque", m_presence.getSourceOpaque(all, ofPresentity));
        holds("getSourceOpaque", ofPresentity, SourcesRecord(all, all, all, 2, all, all));
        std::vector<SourcesRecord> ofPackage;
        okay("getAllEventSources", m_presence.getAllEventSources(all, ofPackage));
        holds("getAllEventSources", ofPackage, SourcesRecord(all, all, all, 2, all));
        okay("deleteSourceOpaque", m_presence.deleteSourceOpaque(all, all));
    }

    void watcherInformationIs(const char* what, const WatcherInfoRecord& expected)
    {
        std::vector<WatcherInfoRecord> found;
        okay(what, m_presence.getWinfoForPresentity(expected.winfokey().c_str(), found));
        holds(what, found, expected);
    }

    void watcherInformation(const std::string& text)
    {
        const char* const all = text.c_str();
        const WatcherInfoRecord expected(all, all, all, 1, 2);
        okay("addWinfoForPresentity", m_presence.addWinfoForPresentity(expected));
        watcherInformationIs("addWinfoForPresentity", expected);
        okay("updateWinfoForPresentity",
             m_presence.updateWinfoForPresentity(WatcherInfoRecord(all, all, kOther, 3, 4)));
        okay("updateWinfoForPresentity", m_presence.updateWinfoForPresentity(expected));
        watcherInformationIs("updateWinfoForPresentity", expected);
        okay("deleteWinfoForPresentity", m_presence.deleteWinfoForPresentity(all));
    }

    void lists(const std::string& text)
    {
        const char* const all = text.c_str();
        okay("createListMapping", m_presence.createListMapping(all, all, 1));
        okay("updateStateForListMapping", m_presence.updateStateForListMapping(all, all, kOther, 2));
        okay("updateStateForListMapping", m_presence.updateStateForListMapping(all, kOther, all, 3));
        std::vector<ListSubscriptionRecord> found;
        okay("getAllMappingsForList", m_presence.getAllMappingsForList(all, found));
        holds("getAllMappingsForList", found, ListSubscriptionRecord(all, all, 3));
        okay("removeListMapping", m_presence.removeListMapping(all, all));
    }

    void conferenceIs(const char* what, const ConfExtRecord& expected)
    {
        std::string status;
        unsigned int startTime = 0;
        okay(what, m_presence.getConfExtState(expected.extension(), status, startTime));
        expect(what, show(ConfExtRecord(expected.extension(), status, startTime)), show(expected));
    }

    void conferences(const std::string& text)
    {
        okay("addConfExtState", m_presence.addConfExtState(ConfExtRecord(text, text, 1)));
        conferenceIs("addConfExtState", ConfExtRecord(text, text, 1));
        okay("setConfExtState", m_presence.setConfExtState(text, kOther, 2));
        okay("setConfExtState", m_presence.setConfExtState(text, text, 3));
        conferenceIs("setConfExtState", ConfExtRecord(text, text, 3));
        okay("deleteConfExtState", m_presence.deleteConfExtState(text));
        notFound("deleteConfExtState", m_presence.deleteConfExtState(text));
    }

    void provisioning(const std::string& text)
    {
        const std::string twice = text + text;
        SubscriberRecord subscriber;
        subscriber.setId(kSid);
        subscriber.setUserId(text.c_str());
        subscriber.setType(text.c_str());
        subscriber.setAuthType(text.c_str());
        subscriber.setPassword(text.c_str());
        expect("addSubscriber", m_location.addSubscriber(subscriber), 1);
        subscriberIs("addSubscriber", subscriber);
        expect("changeSubscriberPassword", m_location.changeSubscriberPassword(kSid, kOther), 1);
        expect("changeSubscriberPassword", m_location.changeSubscriberPassword(kSid, text.c_str()), 1);
        subscriberIs("changeSubscriberPassword", subscriber);
        ContactSetRecord contactSet;
        contactSet.setSid(kSid);
        contactSet.setCsid(kCsid);
        contactSet.setOrdering(text.c_str());
        okay("addContactSet", m_location.addContactSet(contactSet));

        expect("addPublicAddress",
               m_location.addPublicAddress(PublicAddressRecord(text.c_str(), twice.c_str(), kCsid, nullptr)), 0);
        expect("createPublicAddress", m_location.createPublicAddress(kSid, twice.c_str(), text.c_str()), 0);
        expect("aliasPublicAddress", m_location.aliasPublicAddress(twice.c_str(), text.c_str(), text.c_str()), 0);
        expect("importPublicAddress", m_location.importPublicAddress(kSid, twice.c_str(), twice.c_str(), text.c_str()),
               0);
        ContactRecord imported;
        imported.setAddress(text.c_str());
        contactsAre("importPublicAddress", twice, twice, {imported});

        addresses(text, twice);
        subscriberLookups(text, subscriber);
        contacts(text);
        registrations(text);
        expect("removeSubscriber", m_location.removeSubscriber(kSid), 1);
    }

    void subscriberIs(const char* what, const SubscriberRecord& expected)
    {
        std::vector<SubscriberRecord> found;
        okay(what, m_presence.getSubscribers(found, expected.type().c_str()));
        holds(what, found, expected);
    }

    void addressIs(const char* what, const std::string& handle, const std::string& domain)
    {
        PublicAddressRecord found;
        okay(what, m_location.lookupPublicAddress(handle.c_str(), domain.c_str(), found));
        PublicAddressRecord expected = found;
        expected.setHandle(handle.c_str());
        expected.setDomain(domain.c_str());
        expect(what, show(found), show(expected));
        PublicAddressRecord same;
        okay(what, m_presence.lookupPublicAddress(handle.c_str(), domain.c_str(), same));
        expect(what, show(same), show(expected));
    }

    void addresses(const std::string& text, const std::string& twice)
    {
        addressIs("addPublicAddress", text, twice);
        addressIs("createPublicAddress", twice, text);
        addressIs("aliasPublicAddress", text, text);
        addressIs("importPublicAddress", twice, twice);
        std::vector<PublicAddressRecord> aliases;
        okay("getAliases", m_presence.getAliases(text.c_str(), text.c_str(), aliases));
        expect("getAliases", static_cast<int>(aliases.size()), 2);
        bool same = false;
        okay("areAliases", m_presence.areAliases(text.c_str(), text.c_str(), twice.c_str(), text.c_str(), same));
        expect("areAliases", same, true);
    }

    void subscriberLookups(const std::string& text, const SubscriberRecord& expected)
    {
        const std::string shown = show(withoutPassword(expected));
        SubscriberRecord found;
        expect("lookupSubscriber", m_location.lookupSubscriber(text.c_str(), text.c_str(), found), 1);
        expect("lookupSubscriber", show(withoutPassword(found)), shown);
        SubscriberRecord ofPresence;
        okay("lookupSubscriber", m_presence.lookupSubscriber(text, text, ofPresence));
        expect("lookupSubscriber", show(withoutPassword(ofPresence)), shown);
    }

    void contactsAre(const char* what, const std::string& handle, const std::string& domain,
                     const std::vector<ContactRecord>& expected)
    {
        std::string ordering;
        bool replaceUri = false;
        std::vector<ContactRecord> found;
        okay(what, m_location.lookupContacts(handle.c_str(), domain.c_str(), ordering, replaceUri, found));
        expect(what, show(found), show(expected));
    }

    void contacts(const std::string& text)
    {
        const char* const all = text.c_str();
        const ContactRecord expected = contactOf(text, text);
        ContactRecord bare;
        bare.setAddress(all);
        expect("addContact", m_location.addContact(all, all, bare), 0);
        ContactRecord refreshed = expected;
        expect("addContact", m_location.addContact(all, all, refreshed), 0);
        contactsAre("addContact", text, text, {expected});
        expect("removeContact", m_location.removeContact(all, all, all), 0);
        contactsAre("removeContact", text, text, {});

        ContactRecord ofSet = expected;
        ofSet.setCsid(kCsid);
        expect("addContact", m_location.addContact(ofSet), 0);
        std::string ordering;
        bool replaceUri = false;
        std::vector<ContactRecord> found;
        okay("lookupContacts", m_location.lookupContacts(ordering, kCsid, replaceUri, found));
        holds("lookupContacts", found, expected);
        expect("addContactSet", ordering, text);
    }

    void registrations(const std::string& text)
    {
        int key = -1;
        okay("getPublicAddressKey", m_registrar.getPublicAddressKey(text.c_str(), text.c_str(), key));
        std::vector<ContactRecord> bindings{contactOf(text, text)};
        std::vector<ContactRecord> others{contactOf(text, kOther)};
        okay("registerContacts", m_registrar.registerContacts(key, bindings));
        contactsAre("registerContacts", text, text, bindings);
        okay("updateContacts", m_registrar.updateContacts(key, others));
        contactsAre("updateContacts", text, text, others);
        okay("updateContacts", m_registrar.updateContacts(key, bindings));
        contactsAre("updateContacts", text, text, bindings);
        okay("unregisterContacts", m_registrar.unregisterContacts(key, bindings));
        contactsAre("unregisterContacts", text, text, {});
    }

    /// Tables that the servers only read: nothing is there.
    void lookups(const std::string& text)
    {
        const char* const all = text.c_str();
        std::vector<AccessControlEntry> entries;
        notFound("getAccessControlList", m_presence.getAccessControlList(all, all, all, entries));
        notFound("getAccessControlList", m_presence.getAccessControlList(all, all, entries));
        int number = 0;
        notFound("getListId", m_presence.getListId(all, &number));
        notFound("isWatcherAllowedToSubscribeToList", m_presence.isWatcherAllowedToSubscribeToList(1, all, all));
        notFound("getPaidFromExtension", m_presence.getPaidFromExtension(text, number));
        std::vector<ProxyConfig> items;
        okay("getProxyConfig", m_location.getProxyConfig(all, items));

        // Their outcome does not tell a failure, the reason does.
        m_location.okay();
        m_location.getSystemParameterValue(text, text, text);
        expect("getSystemParameterValue", m_location.getErrorMessage(), "");
        m_presence.okay();
        m_presence.getSystemParameterValue(text, text, text);
        CMRecord wanted;
        wanted.SetHandle(all);
        wanted.SetPort(all);
        wanted.SetLinkType(all);
        wanted.SetIPAddress(all);
        std::vector<CMRecord> callManagers{wanted};
        okay("getCMforBulkSub", m_presence.getCMforBulkSub(callManagers, false));
        expect("getCMforBulkSub", m_presence.getErrorMessage(), "");

        // The change log has what the provisioning above left, which the text may name.
        std::vector<DatabaseUpdate> updates;
        const DatabaseResult changes = m_presence.getUpdatedPrimaryKeys(text, "0", updates);
        expect("getUpdatedPrimaryKeys", changes.notFound() ? "okay" : show(changes), "okay");
    }

    /// A pattern without a backslash is found in the text itself, whatever else it matches.
    void searches(const std::string& text)
    {
        const char* const pattern = text.c_str();
        const PresenceRecord incoming = dialog("incoming#" + text, text, text + "#");
        okay("addWatcher", m_presence.addWatcher(incoming));
        std::vector<PresenceRecord> ofPackage;
        okay("getIncomingSubscriptions", m_presence.getIncomingSubscriptions(ofPackage, pattern));
        holds("getIncomingSubscriptions", ofPackage, incoming);
        std::vector<PresenceRecord> ofWatcher;
        okay("getIncomingSubscriptions", m_presence.getIncomingSubscriptions(ofWatcher, pattern, pattern, pattern));
        holds("getIncomingSubscriptions", ofWatcher, incoming);
        okay("deleteWatcher", m_presence.deleteWatcher(incoming.subscriptionid().c_str()));

        const PresenceRecord outgoing = dialog("outgoing#" + text, text, text + "#");
        okay("addWatcher", m_presence.addWatcher(outgoing));
        std::vector<PresenceRecord> ofPresentity;
        okay("getOutgoingSubscribes", m_presence.getOutgoingSubscribes(ofPresentity, pattern, pattern));
        holds("getOutgoingSubscribes", ofPresentity, outgoing);
        okay("deleteWatcher", m_presence.deleteWatcher(outgoing.subscriptionid().c_str()));

        okay("addSourceOpaque",
             m_presence.addSourceOpaque(SourcesRecord(pattern, pattern, pattern, 1, pattern, pattern)));
        std::vector<SourcesRecord> sources;
        okay("getSources", m_presence.getSources(sources, pattern, pattern));
        holds("getSources", sources, SourcesRecord(pattern, pattern, pattern, 1, pattern));
        okay("deleteSourceOpaque", m_presence.deleteSourceOpaque(pattern, pattern));

        const std::string key = text + "#" + text;
        okay("addWatcherState",
             m_presence.addWatcherState(WatchersRecord(key, text, 1, 2, 3, 4, text, text, 5, text, "")));
        std::vector<WatchersRecord> watchers;
        okay("getWatchers", m_presence.getWatchers(watchers, pattern, pattern));
        holds("getWatchers", watchers, WatchersRecord(text, text, 1, 2, 3, 4, text, text, 5, "", ""));
        okay("deleteWatcherState", m_presence.deleteWatcherState(key.c_str(), pattern));
    }

    /// Each removal by a text found its row. The change log, which only grows, is emptied here.
    void nothingIsLeft()
    {
        for (const char* const table :
             {"subscription_states", "event_watchers", "event_sources", "watcherinfo", "listsubscriptions",
              "conf_state", "subscriber", "contact_set", "public_address", "contact"}) {
            expect(table, m_session.rows(std::string("SELECT * FROM ") + table), "");
        }
        m_session.run("SELECT trim_event_notify('0')");
    }

    server::Database m_database;
    server::Session m_session{m_database.name()};
    PresenceDatabaseCommandExecutor m_presence;
    DatabaseCommandExecutor m_location;
    LocationService m_registrar;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static Suite suite;
    const std::string text(data, data + size);
    // An empty text is no text to most operations, and changes no statement.
    if (!text.empty() && isCleanText(text)) {
        suite.send(text);
    }
    return 0;
}
