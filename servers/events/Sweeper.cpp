#include <events/Sweeper.h>

#include <common/Address.h>

#include <dal/PresenceDatabaseCommandExecutor.h>
#include <dal/Publications.h>

#include <algorithm>
#include <string>
#include <utility>

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
bool isThereAgain(PresenceService& service, const ExtendedContactRecord& gone)
{
    std::string ordering;
    bool replaces = false;
    std::vector<ContactRecord> contacts;
    const DatabaseResult found =
        service.getPresenceDatabaseCommandExecutor()->lookupContacts(gone.sid(), ordering, replaces, contacts);
    const auto same = [&](const ContactRecord& one) { return contactUri(one.contactHeader()) == gone.address(); };
    return found.fatalError() || std::any_of(contacts.begin(), contacts.end(), same);
}

/// In the worker. What cannot be done now can be the next time.
Swept sweptFrom(EventSession& session)
{
    Swept swept;
    removeExpiredPublications(session.service(), swept.publications);
    session.service().flushExpiredContacts(swept.contacts);
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

Sweeper::Sweeper(Loop& loop, Workers<EventSession>& worker, Notifier& notifier)
    : m_worker(worker), m_notifier(notifier), m_timer(loop, [this] { sweep(); })
{
}

void Sweeper::sweep()
{
    const auto then = [this](Swept swept) {
        for (const ExpiredPublication& publication : swept.publications) {
            m_notifier.publicationChanged(publication.presentity);
        }
        std::erase_if(swept.contacts, [this](const ExtendedContactRecord& gone) {
            return !m_notifier.comesFrom(watcherAt(gone), gone.address());
        });
        end(std::move(swept.contacts));
    };
    m_worker.give(0, &sweptFrom, then); // which has nothing else to do
}

/// Ends what was subscribed to from contacts that are not there any more.
void Sweeper::end(std::vector<ExtendedContactRecord> gone)
{
    auto work = [gone = std::move(gone)](EventSession& session) mutable {
        std::erase_if(gone, [&](const ExtendedContactRecord& one) { return isThereAgain(session.service(), one); });
        return std::move(gone);
    };
    const auto then = [this](const std::vector<ExtendedContactRecord>& ended) {
        for (const ExtendedContactRecord& one : ended) {
            m_notifier.contactExpired(watcherAt(one), one.address());
        }
        start();
    };
    m_worker.give(0, std::move(work), then);
}

} // namespace oryx::sip
