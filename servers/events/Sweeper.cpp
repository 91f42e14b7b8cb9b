#include <events/Sweeper.h>

#include <common/Address.h>

#include <dal/Publications.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

namespace oryx::sip {

struct Sweeper::Swept {
    std::vector<ExpiredPublication> publications;
    std::vector<std::pair<std::string, std::string>> contacts; // "user@domain", and the URI that he was registered with
};

namespace {

/// The URI in a stored Contact header field; empty where it cannot be read.
std::string contactUri(const std::string& header)
{
    su_home_t home[1] = {SU_HOME_INIT(home)};
    const sip_contact_t* const contact = sip_contact_make(home, header.c_str());
    std::string uri = contact != nullptr ? normalized(*contact->m_url) : "";
    su_home_deinit(home);
    return uri;
}

/// Whether what had expired has been registered again before it could be taken away.
bool isThereAgain(PresenceService& service, const ExtendedContactRecord& expired)
{
    int key = 0;
    int csid = 0;
    std::string ordering;
    bool replaces = false;
    std::vector<ContactRecord> contacts;
    const bool found =
        service.getPublicAddressKey(expired.handle().c_str(), expired.domain().c_str(), key, csid).okay() &&
        service.lookupContacts(csid, ordering, replaces, contacts).okay();
    const std::string uri = contactUri(expired.contactHeader());
    return found && std::any_of(contacts.begin(), contacts.end(), [&](const ContactRecord& contact) {
               return contactUri(contact.contactHeader()) == uri;
           });
}

} // namespace

Sweeper::Sweeper(Loop& loop, Workers<EventSession>& workers, Notifier& notifier)
    : m_workers(workers), m_notifier(notifier), m_timer(loop, [this] { begin(); })
{
}

void Sweeper::begin()
{
    const auto work = [](EventSession& session) { return sweep(session.service()); };
    const auto then = [this](const Swept& swept) {
        tell(swept);
        start();
    };
    if (!m_workers.give(0, work, then)) {
        start();
    }
}

/// In a worker. What cannot be done now can be the next time.
Sweeper::Swept Sweeper::sweep(PresenceService& service)
{
    Swept swept;
    removeExpiredPublications(service, swept.publications);
    std::vector<ExtendedContactRecord> expired;
    service.flushExpiredContacts(expired);
    for (const ExtendedContactRecord& contact : expired) {
        if (!isThereAgain(service, contact)) {
            swept.contacts.emplace_back(contact.handle() + "@" + contact.domain(), contactUri(contact.contactHeader()));
        }
    }
    return swept;
}

void Sweeper::tell(const Swept& swept)
{
    for (const ExpiredPublication& publication : swept.publications) {
        m_notifier.publicationChanged(publication.presentity);
    }
    for (const auto& [watcher, contact] : swept.contacts) {
        m_notifier.contactExpired(watcher, contact);
    }
}

} // namespace oryx::sip
