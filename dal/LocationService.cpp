#include <dal/LocationService.h>

#include <dal/internal/LocationGuard.h>
#include <dal/internal/ServiceFrame.h>
#include <dal/internal/Shown.h>
#include <dal/internal/Statement.h>
#include <dal/internal/Traced.h>

#include <sys/time.h>

#include <utility>

namespace oryx {

namespace {

/// A transaction that is still open: more statements will follow.
Transaction opened(std::size_t statements)
{
    Transaction transaction{"BEGIN TRANSACTION; ", {}, ""};
    transaction.statements.reserve(statements);
    return transaction;
}

DatabaseResult findKey(DatabaseCommandExecutor& executor, zel::Trace& trace, const char* handle, const char* domain,
                       int& key)
{
    key = -1;
    PublicAddressRecord address;
    DatabaseResult result = findPublicAddress(executor, handle, domain, address);
    if (result.okay()) {
        key = address.public_address_id();
        trace.prn("public address found, key=%d", key);
    } else {
        trace.prn("lookup failed");
    }
    return result;
}

} // namespace

LocationService::LocationService()
    : m_meter(std::make_shared<Meter>()), m_addrMap(std::make_unique<AddressMapCache>(m_trace))
{
}

LocationService::~LocationService()
{
    m_exec.reset(); // the connection ends before the address maps are forgotten
}

void LocationService::setSessionOptions(const SessionOptions& options)
{
    m_options = options;
}

SessionStatistics LocationService::getStatistics() const
{
    return m_meter->read();
}

DatabaseResult LocationService::connect(const char* uri, const char* user, const char* password)
{
    return reconnect(m_exec, m_options, m_meter, uri, user, password);
}

void LocationService::checkConnect(DatabaseResult& result)
{
    checkConnected(m_exec, result);
}

DatabaseResult LocationService::getPublicAddressKey(const char* handle, const char* domain, int& key)
{
    if (handle != nullptr || domain != nullptr) {
        m_trace.prn("looking up public address %s@%s", shown(handle), shown(domain));
    }
    DatabaseResult result;
    checkConnect(result);
    if (!result.okay()) {
        m_trace.prn("connection error");
        return result;
    }
    return frameOf(*m_exec).guarded([&] { return findKey(*m_exec, m_trace, handle, domain, key); });
}

DatabaseResult LocationService::lookupSubscriber(const char* handle, const char* domain, SubscriberRecord& rec)
{
    return guarded([&] {
        m_trace.prn("looking up subscriber %s@%s", shown(handle), shown(domain));
        const int found = m_exec->lookupSubscriber(handle, domain, rec);
        DatabaseResult result;
        if (found < 0) {
            m_trace.prn("connection error");
            result.setConnectionError();
            result.setErrorMessage(m_exec->getErrorMessage());
        } else if (found > 0) {
            m_trace.prn("subscriber located");
        } else {
            m_trace.prn("not found");
            result.setNotFound();
        }
        return result;
    });
}

DatabaseResult LocationService::lookupContacts(int key, std::string& ordering, bool& replaceUri,
                                               std::vector<ContactRecord>& contacts)
{
    return guarded([&] { return m_exec->lookupContacts(key, ordering, replaceUri, contacts); });
}

DatabaseResult LocationService::lookupContacts(const char* handle, const char* domain, std::string& ordering,
                                               bool& replaceUri, std::vector<ContactRecord>& contacts)
{
    return guarded([&] {
        m_trace.prn("looking up contacts by handle,domain");
        return m_exec->lookupContacts(handle, domain, ordering, replaceUri, contacts);
    });
}

DatabaseResult LocationService::registerContacts(int key, std::vector<ContactRecord>& contacts)
{
    return guarded([&] {
        m_trace.prn("registering contacts for key=%d", key);
        if (contacts.empty()) {
            return DatabaseResult();
        }
        Transaction transaction = opened(contacts.size());
        for (const ContactRecord& contact : contacts) {
            transaction.addOnce(
                "INSERT INTO contact(address,csid,qvalue,expires,permanent,capabilities,contact_header,call_id,cseq,id)  VALUES('{}',(SELECT csid FROM public_address where public_address_id = {}), '{}',{},'{}','{}','{}','{}','{}', 1); ",
                contact.address(), key, contact.qvalue(), contact.expires(), contact.permanent(),
                contact.capabilities(), contact.contactHeader(), contact.callId(), contact.cseq());
        }
        return commit(transaction);
    });
}

DatabaseResult LocationService::unregisterContacts(int key, std::vector<ContactRecord>& contacts)
{
    return guarded([&] {
        m_trace.prn("unregistering contacts for key=%d", key);
        if (contacts.empty()) {
            return DatabaseResult();
        }
        Transaction transaction = opened(contacts.size());
        for (const ContactRecord& contact : contacts) {
            transaction.addOnce(
                "DELETE FROM contact WHERE address = '{}' AND csid = (SELECT csid FROM public_address where id = {}); ",
                contact.address(), key);
        }
        return commit(transaction, Told::textAndOutcome);
    });
}

DatabaseResult LocationService::updateContacts(int key, std::vector<ContactRecord>& contacts)
{
    return guarded([&] {
        if (contacts.empty()) {
            return DatabaseResult();
        }
        m_trace.prn("updateContacts invoked for key=%d", key);
        Transaction transaction = opened(contacts.size());
        for (const ContactRecord& contact : contacts) {
            transaction.add(
                "UPDATE contact SET contact_header = '{}', expires = {}, call_id = '{}', cseq = '{}', qvalue = '{}', capabilities = '{}' WHERE csid = (SELECT csid FROM public_address where id = {}) AND address = '{}' ;",
                contact.contactHeader(), contact.expires(), contact.callId(), contact.cseq(), contact.qvalue(),
                contact.capabilities(), key, contact.address());
            traceText(transaction);
        }
        return commit(transaction);
    });
}

void LocationService::traceText(const Transaction& transaction, const char* prefix)
{
    if (zel::Trace::enabled(zel::TraceKind::prn)) {
        m_trace.prn(prefix + frameOf(*m_exec).textOf(transaction));
    }
}

DatabaseResult LocationService::commit(Transaction& transaction, Told told)
{
    transaction.commit = "COMMIT TRANSACTION;";
    traceText(transaction, told == Told::textAndOutcome ? "executing: " : "");
    DatabaseResult result = frameOf(*m_exec).execute(transaction);
    if (told == Told::textAndOutcome) {
        traceProgress(m_trace, result.okay() ? "execute okay" : "execute failed");
    }
    if (!result.okay() && !frameOf(*m_exec).bound()) {
        m_exec->execute("ROLLBACK");
    }
    return result;
}

DatabaseResult LocationService::removeExpiredContacts()
{
    return guarded([&] {
        timeval now{};
        gettimeofday(&now, nullptr);
        return frameOf(*m_exec).execute(sql("DELETE FROM contact WHERE expires < {} AND permanent = 'f';", now.tv_sec));
    });
}

DatabaseResult LocationService::getNodeType(std::string& nodeType)
{
    return guarded([&] {
        HostInfo info;
        DatabaseResult result = m_exec->getHostInfo(info);
        nodeType = info.nodeType();
        if (result.okay() && nodeType.empty()) {
            result.setNotFound();
        }
        return result;
    });
}

DatabaseResult LocationService::getProxyConfig(const char* proxyName, std::vector<ProxyConfig>& items)
{
    return guarded([&] { return m_exec->getProxyConfig(proxyName, items); });
}

std::string& LocationService::getDomainName(std::string& out)
{
    return domainName(m_exec, out);
}

DatabaseResult LocationService::lookupAddressMap(const char* uri, std::string& ordering, bool& replaceUri,
                                                 std::vector<ContactRecord>& contacts)
{
    return lookupMapped(m_exec, *m_addrMap, uri, ordering, replaceUri, contacts);
}

void LocationService::getMapKeys(std::vector<std::string>& keys)
{
    appendKeys(*m_addrMap, keys);
}

AddressMap* LocationService::lookupMapEntry(std::string& key)
{
    return m_addrMap->find(key);
}

void LocationService::removeMapEntry(std::string& key)
{
    m_addrMap->remove(key);
}

void LocationService::clearMapEntries()
{
    m_addrMap->clear();
}

} // namespace oryx
