#include "Library.h"

#include <stdexcept>
#include <utility>

namespace peers {

namespace {

void require(const oryx::DatabaseResult& result)
{
    if (!result.okay()) {
        throw std::runtime_error("the library: " + result.getErrorMessage());
    }
}

/// A socket's folder as a URI holds it.
std::string escaped(const std::string& host)
{
    std::string text;
    for (const char c : host) {
        text += c == '/' ? std::string("%2F") : std::string(1, c);
    }
    return text;
}

} // namespace

void Library::connect(const Database& database)
{
    const std::string uri = "postgresql://" + escaped(database.host) + "/" + database.name;
    require(m_location.connect(uri.c_str(), database.user.c_str(), "none"));
    require(m_presence.connect(uri.c_str(), database.user.c_str(), "none"));
}

int Library::key(const std::string& handle, const std::string& domain)
{
    int key = -1;
    require(m_location.getPublicAddressKey(handle.c_str(), domain.c_str(), key));
    return key;
}

Contacts Library::contactsByAddress(const std::string& handle, const std::string& domain)
{
    Contacts found;
    require(
        m_location.lookupContacts(handle.c_str(), domain.c_str(), found.ordering, found.replaceUri, found.contacts));
    return found;
}

Contacts Library::contactsByKey(int key)
{
    Contacts found;
    require(m_location.lookupContacts(key, found.ordering, found.replaceUri, found.contacts));
    return found;
}

Contacts Library::contactsBySet(int csid)
{
    Contacts found;
    require(m_presence.lookupContacts(csid, found.ordering, found.replaceUri, found.contacts));
    return found;
}

bool Library::registerContact(int key, std::vector<oryx::ContactRecord>& contact)
{
    return m_location.registerContacts(key, contact).okay();
}

void Library::refreshContact(int key, std::vector<oryx::ContactRecord>& contact)
{
    require(m_location.updateContacts(key, contact));
}

void Library::unregisterContact(int key, std::vector<oryx::ContactRecord>& contact)
{
    require(m_location.unregisterContacts(key, contact));
}

void Library::storeDialog(oryx::PresenceRecord dialog)
{
    require(m_presence.addWatcher(std::move(dialog)));
}

oryx::PresenceRecord Library::findDialog(const std::string& id)
{
    oryx::PresenceRecord dialog;
    require(m_presence.getWatcher(id.c_str(), dialog));
    return dialog;
}

void Library::removeDialog(const std::string& id)
{
    require(m_presence.deleteWatcher(id.c_str()));
}

std::vector<oryx::WatchersRecord> Library::watchers(const std::string& presentityKey)
{
    std::vector<oryx::WatchersRecord> records;
    require(m_presence.getWatcherState(presentityKey.c_str(), records));
    return records;
}

std::vector<oryx::AccessControlEntry> Library::accessRules(const std::string& handle, const std::string& domain,
                                                           const std::string& application)
{
    std::vector<oryx::AccessControlEntry> rules;
    require(m_presence.getAccessControlList(handle.c_str(), domain.c_str(), application.c_str(), rules));
    return rules;
}

std::string Library::reserveExtension()
{
    std::string extension;
    require(m_presence.reserveRandomlyIdleConfExtAsInUse(extension));
    return extension;
}

void Library::releaseExtension(const std::string& extension)
{
    require(m_presence.setConfExtState(extension, "IDLE", 0));
}

std::unique_ptr<Contender> makePlain(const Database& database)
{
    auto library = std::make_unique<Library>();
    library->connect(database);
    return library;
}

} // namespace peers
