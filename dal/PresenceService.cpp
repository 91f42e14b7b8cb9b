#include <dal/PresenceService.h>

#include <dal/PresenceDatabaseCommandExecutor.h>
#include <dal/UtilityConvert.h>
#include <dal/internal/Call.h>
#include <dal/internal/ServiceFrame.h>
#include <dal/internal/Shown.h>
#include <dal/internal/Traced.h>

namespace oryx {

PresenceService::PresenceService()
    : m_meter(std::make_shared<Meter>()), m_addrMap(std::make_unique<AddressMapCache>(m_trace))
{
}

PresenceService::~PresenceService() = default;

void PresenceService::setSessionOptions(const SessionOptions& options)
{
    m_options = options;
}

SessionStatistics PresenceService::getStatistics() const
{
    return m_meter->read();
}

DatabaseResult PresenceService::connect(const char* uri, const char* user, const char* password)
{
    return reconnect(m_exec, m_options, m_meter, uri, user, password);
}

void PresenceService::checkConnect(DatabaseResult& result)
{
    checkConnected(m_exec, result);
}

PresenceDatabaseCommandExecutor* PresenceService::getPresenceDatabaseCommandExecutor()
{
    if (m_exec) {
        return m_exec.get();
    }
    m_trace.prn(
        "*** ERROR ***: PresenceService::getPresenceDatabaseCommandExecutor(): DB connection not initialized yet!");
    static PresenceDatabaseCommandExecutor neverConnected;
    return &neverConnected;
}

template <typename Operation>
DatabaseResult PresenceService::guarded(Operation operation, const char* refusal)
{
    if (m_exec) {
        const Call call(frameOf(*m_exec));
        return operation();
    }
    if (refusal != nullptr) {
        m_trace.prn("%s", refusal);
    }
    DatabaseResult result;
    checkConnect(result);
    return result;
}

DatabaseResult PresenceService::getWatcher(const char* subscriptionId, PresenceRecord& out)
{
    return guarded([&] { return m_exec->getWatcher(subscriptionId, out); });
}

DatabaseResult PresenceService::addWatcher(PresenceRecord record)
{
    return guarded([&] { return m_exec->addWatcher(record); });
}

DatabaseResult PresenceService::deleteWatcher(const char* subscriptionId)
{
    return guarded([&] { return m_exec->deleteWatcher(subscriptionId); });
}

DatabaseResult PresenceService::updateWatcherContact(const char* subscriptionId, const char* contact, int subcseq)
{
    return guarded([&] { return m_exec->updateWatcherContact(subscriptionId, contact, subcseq); });
}

DatabaseResult PresenceService::updatePresentityContact(const char* subscriptionId, const char* contact, int notcseq)
{
    return guarded([&] { return m_exec->updatePresentityContact(subscriptionId, contact, notcseq); });
}

DatabaseResult PresenceService::getIncomingMatchingSubscriptions(std::vector<PresenceRecord>& records)
{
    return guarded([&] { return m_exec->getIncomingMatchingSubscriptions(records); });
}

DatabaseResult PresenceService::getIncomingSubscriptions(std::vector<PresenceRecord>& records, const char* package)
{
    return guarded([&] { return m_exec->getIncomingSubscriptions(records, package); });
}

DatabaseResult PresenceService::getWatcherState(const char* presentityKey, std::vector<WatchersRecord>& records)
{
    return guarded([&] { return m_exec->getWatcherState(presentityKey, records); });
}

DatabaseResult PresenceService::getWatcherState(const char* presentityKey, const char* watcherOpaque)
{
    return guarded([&] { return m_exec->getWatcherState(presentityKey, watcherOpaque); });
}

DatabaseResult PresenceService::addWatcherState(WatchersRecord record)
{
    return guarded([&] { return m_exec->addWatcherState(record); });
}

DatabaseResult PresenceService::updateWatcherState(const char* presentityKey, const char* watcherOpaque, int state)
{
    return guarded([&] { return m_exec->updateWatcherState(presentityKey, watcherOpaque, state); });
}

DatabaseResult PresenceService::updateWatcherExpiry(const char* presentityKey, const char* watcherOpaque, int expiry)
{
    return guarded([&] { return m_exec->updateWatcherExpiry(presentityKey, watcherOpaque, expiry); });
}

DatabaseResult PresenceService::updateWatcherDocVersion(const char* presentityKey, const char* watcherOpaque,
                                                        unsigned long version)
{
    return guarded([&] { return m_exec->updateWatcherDocVersion(presentityKey, watcherOpaque, version); });
}

DatabaseResult PresenceService::deleteWatcherState(const char* presentityKey, const char* watcherOpaque)
{
    return guarded([&] { return m_exec->deleteWatcherState(presentityKey, watcherOpaque); });
}

DatabaseResult PresenceService::getAllEventSources(const char* event, std::vector<SourcesRecord>& records)
{
    return guarded([&] { return m_exec->getAllEventSources(event, records); });
}

DatabaseResult PresenceService::getSourceOpaque(const char* presentityKey, std::vector<SourcesRecord>& records)
{
    return guarded([&] { return m_exec->getSourceOpaque(presentityKey, records); });
}

DatabaseResult PresenceService::addSourceOpaque(SourcesRecord record)
{
    return guarded([&] { return m_exec->addSourceOpaque(std::move(record)); });
}

DatabaseResult PresenceService::updateSourceExpiry(const char* presentityKey, const char* sourceOpaque, int expiry)
{
    return guarded([&] { return m_exec->updateSourceExpiry(presentityKey, sourceOpaque, expiry); });
}

DatabaseResult PresenceService::deleteSourceOpaque(const char* presentityKey, const char* sourceOpaque)
{
    return guarded([&] { return m_exec->deleteSourceOpaque(presentityKey, sourceOpaque); });
}

DatabaseResult PresenceService::getWinfoForPresentity(const char* winfoKey, std::vector<WatcherInfoRecord>& records)
{
    return guarded([&] { return m_exec->getWinfoForPresentity(winfoKey, records); });
}

DatabaseResult PresenceService::addWinfoForPresentity(WatcherInfoRecord record)
{
    return guarded([&] { return m_exec->addWinfoForPresentity(std::move(record)); });
}

DatabaseResult PresenceService::updateWinfoForPresentity(WatcherInfoRecord record)
{
    return guarded([&] { return m_exec->updateWinfoForPresentity(std::move(record)); });
}

DatabaseResult PresenceService::deleteWinfoForPresentity(const char* subscriberKey)
{
    return guarded([&] { return m_exec->deleteWinfoForPresentity(subscriberKey); });
}

DatabaseResult PresenceService::getAccessControlList(const char* handle, const char* domain, const char* application,
                                                     std::vector<AccessControlEntry>& entries)
{
    return guarded([&] { return m_exec->getAccessControlList(handle, domain, application, entries); });
}

DatabaseResult PresenceService::getListId(const char* listName, int* id)
{
    return guarded([&] { return m_exec->getListId(listName, id); });
}

DatabaseResult PresenceService::getListEntries(int listId, std::vector<std::string>& uris)
{
    return guarded([&] { return m_exec->getListEntries(listId, uris); });
}

DatabaseResult PresenceService::isWatcherAllowedToAccessList(int watcher, int listId)
{
    return guarded([&] { return m_exec->isWatcherAllowedToAccessList(watcher, listId); });
}

DatabaseResult PresenceService::isWatcherAllowedToSubscribeToList(int listId, const char* handle, const char* domain)
{
    return guarded([&] { return m_exec->isWatcherAllowedToSubscribeToList(listId, handle, domain); });
}

DatabaseResult PresenceService::createListMapping(const char* listFsmId, const char* subscriptionId, long expiry)
{
    return guarded([&] { return m_exec->createListMapping(listFsmId, subscriptionId, expiry); });
}

DatabaseResult PresenceService::removeListMapping(const char* listFsmId, const char* subscriptionId)
{
    return guarded([&] { return m_exec->removeListMapping(listFsmId, subscriptionId); });
}

DatabaseResult PresenceService::getAllMappingsForList(const char* listFsmId,
                                                      std::vector<ListSubscriptionRecord>& records)
{
    return guarded([&] { return m_exec->getAllMappingsForList(listFsmId, records); });
}

DatabaseResult PresenceService::updateStateForListMapping(const char* listFsmId, const char* oldSubscriptionId,
                                                          const char* newSubscriptionId, long expiry)
{
    return guarded(
        [&] { return m_exec->updateStateForListMapping(listFsmId, oldSubscriptionId, newSubscriptionId, expiry); });
}

DatabaseResult PresenceService::getConfExtState(const std::string& extension, std::string& status,
                                                unsigned int& start_time)
{
    return guarded([&] { return m_exec->getConfExtState(extension, status, start_time); });
}

DatabaseResult PresenceService::setConfExtState(const std::string& extension, const std::string& status,
                                                unsigned int start_time)
{
    return guarded([&] { return m_exec->setConfExtState(extension, status, start_time); });
}

DatabaseResult PresenceService::addConfExtState(const ConfExtRecord& record)
{
    return guarded([&] { return m_exec->addConfExtState(record); });
}

DatabaseResult PresenceService::deleteConfExtState(const std::string& extension)
{
    return guarded([&] { return m_exec->deleteConfExtState(extension); });
}

DatabaseResult PresenceService::getAllConfExtRecord(std::vector<ConfExtRecord>& out, const std::string& pattern,
                                                    bool negate)
{
    return guarded([&] { return m_exec->getAllConfExtRecord(out, pattern, negate); });
}

DatabaseResult PresenceService::flushExpiredContacts(std::vector<ExtendedContactRecord>& expired)
{
    return guarded([&] { return m_exec->flushExpiredContacts(expired); });
}

DatabaseResult PresenceService::getAliases(const char* handle, const char* domain,
                                           std::vector<PublicAddressRecord>& aliases)
{
    return guarded([&] { return m_exec->getAliases(handle, domain, aliases); });
}

DatabaseResult PresenceService::areAliases(const char* handle1, const char* domain1, const char* handle2,
                                           const char* domain2, bool& aliases)
{
    return guarded([&] { return m_exec->areAliases(handle1, domain1, handle2, domain2, aliases); });
}

DatabaseResult PresenceService::getProxyConfig(std::vector<ProxyConfig>& items)
{
    return guarded([&] { return m_exec->getProxyConfig(items); });
}

DatabaseResult PresenceService::lookupSubscriber(const std::string& handle, const std::string& domain,
                                                 SubscriberRecord& rec)
{
    return guarded([&] { return m_exec->lookupSubscriber(handle, domain, rec); });
}

DatabaseResult PresenceService::getAllPublicAddresses(std::vector<PublicAddressRecord>& addresses, bool primaryOnly)
{
    return guarded([&] { return m_exec->getAllPublicAddresses(addresses, primaryOnly); });
}

DatabaseResult PresenceService::getAllValidConfExts(std::vector<ConfExtRecord>& out)
{
    m_trace.prn("PresenceService::getAllValidConfExts(): ");
    return guarded([&] { return m_exec->getAllValidConfExts(out); });
}

DatabaseResult PresenceService::getAllObsoleteConfExtNotInUse(std::vector<ConfExtRecord>& out)
{
    m_trace.prn("PresenceService::getAllObsoleteConfExtNotInUse(): ");
    return guarded([&] { return m_exec->getAllObsoleteConfExtNotInUse(out); });
}

DatabaseResult PresenceService::deleteAllObsoleteConfExtNotInUse()
{
    m_trace.prn("PresenceService::deleteAllObsoleteConfExtNotInUse(): ");
    return guarded([&] { return m_exec->deleteAllObsoleteConfExtNotInUse(); });
}

DatabaseResult PresenceService::reserveRandomlyIdleConfExtAsInUse(std::string& extension)
{
    traceProgress(m_trace, "PresenceService::reserveRandomlyIdleConfExtAsInUse(): ");
    return guarded([&] { return m_exec->reserveRandomlyIdleConfExtAsInUse(extension); });
}

DatabaseResult PresenceService::waitForNotify(bool (*callback)(bool, const std::string&))
{
    return guarded([&] { return m_exec->waitForNotify(callback); },
                   "PresenceService::waitForNotify(): PresenceService:result not okay");
}

DatabaseResult PresenceService::getUpdatedPrimaryKeys(const std::string& tableName, const std::string& since,
                                                      std::vector<DatabaseUpdate>& updates)
{
    return guarded([&] { return m_exec->getUpdatedPrimaryKeys(tableName, since, updates); },
                   "PresenceService::getUpdatedPrimaryKeys(): PresenceService:result not okay");
}

DatabaseResult PresenceService::getCMforBulkSub(std::vector<CMRecord>& records, bool regexMatch)
{
    return guarded([&] { return m_exec->getCMforBulkSub(records, regexMatch); },
                   "PresenceService:getCMforBulkSub(): PresenceService:result not okay");
}

DatabaseResult PresenceService::lookupContacts(int csid, std::string& ordering, bool& replaceUri,
                                               std::vector<ContactRecord>& contacts)
{
    return guarded([&] { return m_exec->lookupContacts(ordering, csid, replaceUri, contacts); });
}

template <typename Operation, typename Found>
DatabaseResult PresenceService::lookedUp(int& key, Operation operation, Found traceFound)
{
    DatabaseResult result;
    checkConnect(result);
    if (!result.okay()) {
        m_trace.prn("connection error");
        return result;
    }
    key = -1;
    result = frameOf(*m_exec).guarded(operation);
    if (result.okay()) {
        traceFound();
    } else {
        m_trace.prn("lookup failed");
    }
    return result;
}

DatabaseResult PresenceService::getPublicAddressKey(const char* handle, const char* domain, int& key, int& csid)
{
    if (handle != nullptr || domain != nullptr) {
        m_trace.prn("looking up public address %s@%s", shown(handle), shown(domain));
    }
    return lookedUp(
        key,
        [&] {
            std::string lowerHandle;
            std::string lowerDomain;
            stringLower(handle, lowerHandle);
            stringLower(domain, lowerDomain);
            PublicAddressRecord address;
            DatabaseResult result = findPublicAddress(*m_exec, lowerHandle.c_str(), lowerDomain.c_str(), address);
            if (result.okay()) {
                key = address.public_address_id();
                csid = address.csid();
            }
            return result;
        },
        [&] { m_trace.prn("public address found, key=%d csid=%d", key, csid); });
}

DatabaseResult PresenceService::getCsid(int userId, int& csid)
{
    m_trace.prn("looking up csid %d", userId);
    return lookedUp(
        csid, [&] { return m_exec->getCsid(userId, csid); },
        [&] { m_trace.prn("csid found, userId=%d csid=%d", userId, csid); });
}

DatabaseResult PresenceService::getCsidFromContactId(int contact_id, int& csid)
{
    m_trace.prn("getCsidFromContactId %d", contact_id);
    return lookedUp(
        csid, [&] { return m_exec->getCsidFromContactId(contact_id, csid); },
        [&] { m_trace.prn("csid found, contact_id=%d csid=%d", contact_id, csid); });
}

DatabaseResult PresenceService::getPaidFromExtension(const std::string& extension, int& paid)
{
    m_trace.prn("getPaidFromExtension %s", extension.c_str());
    return lookedUp(
        paid, [&] { return m_exec->getPaidFromExtension(extension, paid); },
        [&] { m_trace.prn("paid found, extension=%s paid=%d", extension.c_str(), paid); });
}

std::string& PresenceService::getDomainName(std::string& out)
{
    return domainName(m_exec, out);
}

DatabaseResult PresenceService::lookupAddressMap(const char* uri, std::string& ordering, bool& replaceUri,
                                                 std::vector<ContactRecord>& contacts)
{
    return lookupMapped(m_exec, *m_addrMap, uri, ordering, replaceUri, contacts);
}

void PresenceService::getMapKeys(std::vector<std::string>& keys)
{
    appendKeys(*m_addrMap, keys);
}

AddressMap* PresenceService::lookupMapEntry(std::string& key)
{
    return m_addrMap->find(key);
}

void PresenceService::removeMapEntry(std::string& key)
{
    m_addrMap->remove(key);
}

void PresenceService::clearMapEntries()
{
    m_addrMap->clear();
}

} // namespace oryx
