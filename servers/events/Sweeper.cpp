#include <events/Sweeper.h>

#include <common/Address.h>

#include <dal/ExpiredBindings.h>
#include <dal/PresenceDatabaseCommandExecutor.h>
#include <dal/Publications.h>

#include <algorithm>
#include <string>
#include <utility>
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

/// Whether what had expired has been registered again before it could be taken away; or perhaps has, where the database
/// cannot be asked: what has been subscribed to from there ends by itself.
bool isThereAgain(EventSession& session, const ExtendedContactRecord& gone)
{
    std::string ordering;
    bool replaces = false;
    std::vector<ContactRecord> contacts;
    const DatabaseResult found = session.service().getPresenceDatabaseCommandExecutor()->lookupContacts(
        gone.sid(), ordering, replaces, contacts);
    const auto same = [&](const ContactRecord& one) { return contactUri(one.contactHeader()) == gone.address(); };
    return found.fatalError() || std::any_of(contacts.begin(), contacts.end(), same);
}

/// In the worker. What cannot be done now can be the next time.
Swept sweptFrom(EventSession& session)
{
    Swept swept;
    removeExpiredPublications(session.service(), swept.publications);
    removeExpiredBindings(session.service(), swept.contacts);
    for (ExtendedContactRecord& gone : swept.contacts) {
        gone.setAddress(contactUri(gone.contactHeader()).c_str());
    }
    return swept;
}

std::string watcherAt(const ExtendedContactRecord& contact)
{
    return contact.handle() + "@" + contact.domain();
}

} // namespace

void Sweeper::sweep()
{
    const auto follow = [this](Swept swept) {
        const auto end = [this, more = swept.contacts.size() >= kMostExpiredBindings](const auto& gone) {
            for (const ExtendedContactRecord& contact : gone) {
                m_notifier.contactExpired(watcherAt(contact), contact.address());
            }
            more ? sweep() : start();
        };
        for (const ExpiredPublication& publication : swept.publications) {
            m_notifier.publicationChanged(publication.presentity);
        }
        const auto idle = [this](const auto& one) { return !m_notifier.comesFrom(watcherAt(one), one.address()); };
        std::erase_if(swept.contacts, idle);
        auto look = [gone = std::move(swept.contacts)](EventSession& session) mutable {
            std::erase_if(gone, [&](const ExtendedContactRecord& contact) { return isThereAgain(session, contact); });
            return std::move(gone);
        };
        m_worker.give(0, std::move(look), end);
    };
    if (!m_ended) {
        m_worker.give(0, sweptFrom, follow); // which has nothing else to do
    }
}

} // namespace oryx::sip
