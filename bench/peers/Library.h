#pragma once

#include "Contender.h"

#include <dal/LocationService.h>
#include <dal/PresenceService.h>

namespace peers {

/// The library as a server uses it: one service for the registrar's data, one for the event server's.
class Library : public Contender {
public:
    /// Connects; until then the services can be told how.
    void connect(const Database& database);

    int key(const std::string& handle, const std::string& domain) override;
    Contacts contactsByAddress(const std::string& handle, const std::string& domain) override;
    Contacts contactsByKey(int key) override;
    Contacts contactsBySet(int csid) override;
    bool registerContact(int key, std::vector<oryx::ContactRecord>& contact) override;
    void refreshContact(int key, std::vector<oryx::ContactRecord>& contact) override;
    void unregisterContact(int key, std::vector<oryx::ContactRecord>& contact) override;
    void storeDialog(oryx::PresenceRecord dialog) override;
    oryx::PresenceRecord findDialog(const std::string& id) override;
    void removeDialog(const std::string& id) override;
    std::vector<oryx::WatchersRecord> watchers(const std::string& presentityKey) override;
    std::vector<oryx::AccessControlEntry> accessRules(const std::string& handle, const std::string& domain,
                                                      const std::string& application) override;
    std::string reserveExtension() override;
    void releaseExtension(const std::string& extension) override;

    oryx::LocationService& location() { return m_location; }
    oryx::PresenceService& presence() { return m_presence; }

private:
    oryx::LocationService m_location;
    oryx::PresenceService m_presence;
};

} // namespace peers
