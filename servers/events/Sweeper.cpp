#include <events/Sweeper.h>

#include <common/Address.h>

#include <dal/PresenceDatabaseCommandExecutor.h>
#include <dal/Publications.h>

#include <algorithm>
#include <string>
#include <vector>

namespace oryx::sip {

namespace {

struct Swept {
    std::vector<ExpiredPublication> publications;
    std::vector<ExtendedContactRecord> contacts;
};

/// The URI in a stored Contact header field; empty where it cannot be read.
std::string contactUri(const std::string& header)
{
    Scratch scratch;
    const sip_contact_t* const contact = sip_contact_make(scratch.home(), header.c_str());
    return contact != nullptr ? normalized(*contact->m_url) : "";
}

/// Whether what had expired has been registered again before it could be taken away.
bool isThereAgain(PresenceService& service, const ExtendedContactRecord& expired)
{
    const std::string uri = contactUri(expired.contactHeader());
    std::string ordering;
    bool replaces = false;
    std::vector<ContactRecord> contacts;
    service.getPresenceDatabaseCommandExecutor()->lookupContacts(expired.sid(), ordering, replaces, contacts);
    return std::any_of(contacts.begin(), contacts.end(),
                       [&](const ContactRecord& contact) { return contactUri(contact.contactHeader()) == uri; });
}

/// In a worker. What cannot be done now can be the next time.
Swept sweptFrom(PresenceService& service)
{
    Swept swept;
    removeExpiredPublications(service, swept.publications);
    service.flushExpiredContacts(swept.contacts);
    std::erase_if(swept.contacts, [&](const ExtendedContactRecord& expired) { return isThereAgain(service, expired); });
    return swept;
}

} // namespace

Sweeper::Sweeper(Loop& loop, Workers<EventSession>& workers, Notifier& notifier)
    : m_workers(workers), m_notifier(notifier), m_timer(loop, [this] { sweep(); })
{
}

void Sweeper::sweep()
{
    const auto work = [](EventSession& session) { return sweptFrom(session.service()); };
    const auto then = [this](const Swept& swept) {
        for (const ExpiredPublication& publication : swept.publications) {
            m_notifier.publicationChanged(publication.presentity);
        }
        for (const ExtendedContactRecord& expired : swept.contacts) {
            m_notifier.contactExpired(expired.handle() + "@" + expired.domain(), contactUri(expired.contactHeader()));
        }
        start();
    };
    if (!m_workers.give(0, work, then)) {
        start();
    }
}

} // namespace oryx::sip
