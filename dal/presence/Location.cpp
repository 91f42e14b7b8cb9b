// The registrar's data as the event server needs it.

#include <dal/PresenceDatabaseCommandExecutor.h>

#include <dal/ExpiredBindings.h>
#include <dal/internal/Frame.h>
#include <dal/internal/PresenceAccess.h>
#include <dal/location/LocationRows.h>

#include <sys/time.h>

#include <algorithm>
#include <iterator>
#include <sstream>
#include <utility>

namespace oryx {

namespace {

PublicAddressRecord readPublicAddress(const Row& row)
{
    PublicAddressRecord address(row.text(0), row.text(1), row.integer(2, 0), row.text(3));
    address.setPublicAddressId(row.integer(4, address.public_address_id()));
    return address;
}

void readProvisionedAddress(const Row& row, PublicAddressRecord& address)
{
    address.setPublicAddressId(row.integer(0, address.public_address_id()));
    address.setDomain(row.text(1));
    address.setHandle(row.text(2));
    address.setScope(row.text(3));
    address.setAdminDomain(row.text(4));
    address.setCsid(row.integer(5, address.csid()));
}

void setActive(SubscriberRecord& subscriber, const char* active)
{
    if (active != nullptr) {
        subscriber.setActive(*active);
    }
}

void readStoredSubscriber(const Row& row, SubscriberRecord& subscriber)
{
    subscriber.setId(row.integer(0, subscriber.sid()));
    subscriber.setType(row.text(1));
    subscriber.setAuthType(row.text(2));
    subscriber.setPassword(row.text(3));
    setActive(subscriber, row.text(4));
    subscriber.setUserId(row.text(5));
}

void readExpiredContact(const Row& row, ExtendedContactRecord& contact)
{
    contact.setSid(row.integer(0, contact.sid()));
    contact.setContactHeader(row.text(1));
    contact.setExpires(row.number(2, contact.expires()));
    contact.setCallId(row.text(3));
    contact.setCseq(row.number(4, contact.cseq()));
    contact.setHandle(row.text(5));
    contact.setDomain(row.text(6));
}

/// A column that holds no number tells no more than one that is not there.
DatabaseResult findNumber(Frame& frame, Refusals refusals, Statement statement, int& number)
{
    bool readable = true;
    DatabaseResult outcome = frame.find(
        nullptr, refusals, [&] { return std::move(statement); },
        [&](const Row& row) {
            int read = 0;
            if (const char* const text = row.text(0); text != nullptr) {
                readable = static_cast<bool>(std::istringstream(text) >> read);
                number = readable ? read : number;
            }
        });
    if (!readable) {
        outcome.setNotFound();
    }
    return outcome;
}

} // namespace

DatabaseResult PresenceDatabaseCommandExecutor::lookupContacts(int publicAddressId, std::string& ordering,
                                                               bool& replaceUri, std::vector<ContactRecord>& contacts)
{
    return m_frame->guarded([&] {
        replaceUri = true;
        DatabaseResult outcome;
        QueryResult result;
        if (!m_frame->begin(nullptr, {}, outcome) ||
            !m_frame->fetch(
                sql("SELECT contact_set.ordering, contact_set.replace_uri,subscriber.active, contact.address, contact.qvalue,  contact.expires, contact.capabilities, contact.contact_header,contact.call_id,contact.cseq,contact.c_type,contact.permanent,contact.contact_id,contact.csid, contact.path_vector  FROM public_address, contact_set, contact, subscriber WHERE (public_address.public_address_id = {} AND contact_set.csid = public_address.csid AND  contact.csid = contact_set.csid AND contact_set.sid = subscriber.sid);",
                    publicAddressId),
                result, outcome)) {
            return outcome;
        }
        return readContacts(result, {"replace", 2, 3, true}, m_frame->trace, ordering, replaceUri, contacts);
    });
}

DatabaseResult PresenceDatabaseCommandExecutor::lookupContacts(std::string& ordering, int csid, bool& replaceUri,
                                                               std::vector<ContactRecord>& contacts)
{
    return m_frame->guarded([&] {
        replaceUri = true;
        DatabaseResult outcome;
        if (!m_frame->begin(nullptr, {}, outcome)) {
            return outcome;
        }
        if (csid < 1) {
            outcome.setQueryError();
            outcome.setErrorMessage("NULL csid");
            return outcome;
        }
        QueryResult result;
        if (!m_frame->fetch(
                sql("SELECT contact_set.ordering, contact_set.replace_uri, contact.address, contact.qvalue,  contact.expires, contact.capabilities, contact.contact_header,contact.call_id,contact.cseq,contact.c_type,contact.permanent,contact.contact_id,contact.csid,contact.path_vector  FROM contact_set, contact WHERE (contact_set.csid = '{}' AND contact.csid = contact_set.csid);",
                    csid),
                result, outcome)) {
            return outcome;
        }
        return readContacts(result, {"replaceUri", -1, 2, true}, m_frame->trace, ordering, replaceUri, contacts);
    });
}

DatabaseResult PresenceDatabaseCommandExecutor::lookupPublicAddress(const char* handle, const char* domain,
                                                                    PublicAddressRecord& rec)
{
    return m_frame->fill(rec,
                         [&](PublicAddressRecord& found) { return findPublicAddress(*this, handle, domain, found); });
}

DatabaseResult findPublicAddress(PresenceDatabaseCommandExecutor& executor, const char* handle, const char* domain,
                                 PublicAddressRecord& rec)
{
    return frameOf(executor).find(
        nullptr, {{!handle || !domain, "invalid parameters"}},
        [&] {
            return sql(
                "SELECT handle, sip_domain, csid, scope, public_address_id FROM public_address WHERE  handle='{}' AND sip_domain='{}';",
                handle, domain);
        },
        [&](const Row& row) { readPublicAddress(row, rec); });
}

DatabaseResult PresenceDatabaseCommandExecutor::getCsid(int publicAddressId, int& csid)
{
    return m_frame->find(
        nullptr, {{publicAddressId == 0, "invalid parameters"}},
        [&] { return sql("SELECT csid FROM public_address WHERE public_address_id='{}';", publicAddressId); },
        [&](const Row& row) { csid = row.integer(0, csid); });
}

DatabaseResult PresenceDatabaseCommandExecutor::getPaidFromExtension(const std::string& extension, int& paid)
{
    return findNumber(*m_frame, {{extension.empty(), "invalid parameters"}},
                      sql("SELECT paid FROM extension WHERE extension='{}';", extension), paid);
}

DatabaseResult PresenceDatabaseCommandExecutor::getCsidFromContactId(int contactId, int& csid)
{
    return findNumber(*m_frame, {{contactId == 0, "invalid parameters"}},
                      sql("SELECT csid FROM contact WHERE contact_id='{}';", contactId), csid);
}

DatabaseResult fetchAddressMaps(PresenceDatabaseCommandExecutor& executor, QueryResult& result)
{
    Frame& frame = frameOf(executor);
    DatabaseResult outcome;
    if (!frame.begin(nullptr, {}, outcome)) {
        return outcome;
    }
    frame.trace.prn("looking up address_maps");
    if (frame.fetch(addressMapQuery(), result, outcome)) {
        traceAddressMaps(result, frame.trace);
    }
    return outcome;
}

DatabaseResult PresenceDatabaseCommandExecutor::getAddressMaps(std::vector<AddressMapRecord>& maps)
{
    return m_frame->guarded([&] {
        QueryResult result;
        DatabaseResult outcome = fetchAddressMaps(*this, result);
        if (outcome.okay()) {
            readAddressMaps(result, maps);
        }
        return outcome;
    });
}

DatabaseResult PresenceDatabaseCommandExecutor::getAliases(const char* handle, const char* domain,
                                                           std::vector<PublicAddressRecord>& aliases)
{
    return m_frame->list(
        nullptr, {{!handle || !domain, "invalid parameters"}}, Listing::notFoundWhenEmpty, aliases,
        [&] {
            return sql(
                "SELECT other_address.handle, other_address.sip_domain, other_address.csid, other_address.scope, other_address.public_address_id FROM public_address, contact_set, subscriber, public_address as other_address WHERE public_address.handle='{}' AND public_address.sip_domain='{}' AND subscriber.active='t' AND public_address.csid = contact_set.csid AND subscriber.sid = contact_set.sid AND public_address.csid = other_address.csid;",
                handle, domain);
        },
        [&](const Row& row) { aliases.push_back(readPublicAddress(row)); }, "retrieved %d rows");
}

DatabaseResult PresenceDatabaseCommandExecutor::areAliases(const char* handle1, const char* domain1,
                                                           const char* handle2, const char* domain2, bool& aliases)
{
    return m_frame->guarded([&] {
        aliases = false;
        DatabaseResult outcome;
        QueryResult result;
        if (!m_frame->begin(nullptr, {{!handle1 || !domain1 || !handle2 || !domain2, "invalid parameters"}}, outcome) ||
            !m_frame->fetch(
                sql("SELECT csid FROM public_address WHERE (handle='{}' AND sip_domain='{}') OR (handle='{}' AND sip_domain='{}');",
                    handle1, domain1, handle2, domain2),
                result, outcome)) {
            return outcome;
        }
        const int rows = result.rows();
        m_frame->trace.prn("retrieved %d rows", rows);
        if (rows < 2) {
            outcome.setNotFound();
        } else {
            aliases = Row(result, 0).string(0) == Row(result, 1).string(0);
        }
        return outcome;
    });
}

DatabaseResult PresenceDatabaseCommandExecutor::getProxyConfig(std::vector<ProxyConfig>& items)
{
    return m_frame->guarded([&] {
        DatabaseResult outcome;
        if (!m_frame->begin(nullptr, {}, outcome)) {
            return outcome;
        }
        m_frame->trace.prn("looking up proxy configuration");
        QueryResult result;
        if (!m_frame->fetch(sql("SELECT scope, name, value FROM system_parameters   WHERE application = 'oryxproxy';"),
                            result, outcome)) {
            return outcome;
        }
        m_frame->trace.prn("retrieved %d proxy config items", result.rows());
        forEachRow(result, items, [&](const Row& row) { items.emplace_back(row.text(0), row.text(1), row.text(2)); });
        return outcome;
    });
}

DatabaseResult PresenceDatabaseCommandExecutor::getSubscribers(std::vector<SubscriberRecord>& subscribers,
                                                               const char* type)
{
    return m_frame->list(
        "getSubscribers()", {}, Listing::notFoundWhenEmpty, subscribers,
        [&] {
            Statement query = sql("SELECT sid,s_type,auth_type,s_password,active,auth_user_id FROM subscriber");
            if (type != nullptr) {
                query.append(" WHERE s_type='{}'", type);
            }
            return query.append(";");
        },
        [&](const Row& row) { readStoredSubscriber(row, subscribers.emplace_back()); }, "retrieved %d rows");
}

DatabaseResult PresenceDatabaseCommandExecutor::lookupSubscriber(const std::string& handle, const std::string& domain,
                                                                 SubscriberRecord& rec)
{
    bool filled = true;
    DatabaseResult outcome = m_frame->find(
        "lookupSubscriber()", {{handle.empty() || domain.empty(), "invalid parameters passed to lookupSubscriber"}},
        [&] { return subscriberQuery(handle.c_str(), domain.c_str()); },
        [&](const Row& row) {
            filled = m_frame->require(readSubscriber(row, m_frame->trace, rec), kNoRandomNumbers);
            if (filled) {
                setActive(rec, row.text(6));
            }
        },
        "retrieved %d rows");
    return filled ? std::move(outcome) : m_frame->guarded([&] { return m_frame->queryError(); });
}

DatabaseResult PresenceDatabaseCommandExecutor::getAllPublicAddresses(std::vector<PublicAddressRecord>& addresses,
                                                                      bool primaryOnly)
{
    return m_frame->list(
        "getAllPublicAddresses", {}, Listing::notFoundWhenEmpty, addresses,
        [&] {
            Statement query =
                sql("SELECT public_address_id,sip_domain,handle,scope,admin_domain,csid from public_address ");
            if (primaryOnly) {
                query.append(" where primary_handle='t'");
            }
            return query.append(";");
        },
        [&](const Row& row) { readProvisionedAddress(row, addresses.emplace_back()); }, "retrieved %d rows");
}

DatabaseResult PresenceDatabaseCommandExecutor::flushExpiredContacts(std::vector<ExtendedContactRecord>& expired)
{
    return m_frame->guarded([&] {
        DatabaseResult outcome;
        if (!m_frame->begin("flushExpiredContacts()", {}, outcome)) {
            return outcome;
        }
        timeval now{};
        gettimeofday(&now, nullptr);
        QueryResult contacts;
        if (!m_frame->fetch(
                sql("SELECT public_address_id,contact_header,expires,call_id,cseq,handle,sip_domain FROM contact, contact_set, public_address  WHERE expires < {} AND contact_set.csid = contact.csid  AND public_address.csid = contact.csid FOR UPDATE ",
                    now.tv_sec),
                contacts, outcome)) {
            return outcome;
        }
        const int rows = contacts.rows();
        m_frame->trace.prn("flushExpiredContacts retrieved %d rows", rows);
        if (rows == 0) {
            outcome.setNotFound();
            return outcome;
        }
        // Before they are removed: whom memory runs out on finds them again with the next call.
        std::vector<ExtendedContactRecord> flushed;
        forEachRow(contacts, flushed, [&](const Row& row) { readExpiredContact(row, flushed.emplace_back()); });
        makeRoom(expired, rows);
        QueryResult removal;
        if (!m_frame->fetch(sql("DELETE FROM contact WHERE expires < {}", now.tv_sec), removal, outcome)) {
            outcome.setConnectionError(); // whatever kept the contacts from being removed
            return outcome;
        }
        m_frame->trace.prn("flushExpiredContacts retrieved %d rows", rows);
        std::move(flushed.begin(), flushed.end(), std::back_inserter(expired));
        return outcome;
    });
}

DatabaseResult removeExpiredBindings(PresenceService& service, std::vector<ExtendedContactRecord>& removed)
{
    return PresenceAccess::guarded(service, [&](Frame& frame) {
        return frame.list(
            "removeExpiredBindings()", {}, Listing::mayBeEmpty, removed,
            [] {
                return sql(
                    "WITH gone AS (DELETE FROM contact WHERE contact_id = ANY (ARRAY(SELECT contact_id FROM contact WHERE NOT permanent AND expires < (SELECT current_second()) LIMIT {} FOR UPDATE SKIP LOCKED)) RETURNING csid, contact_header, expires, call_id, cseq) SELECT public_address_id, contact_header, expires, call_id, cseq, handle, sip_domain FROM gone, public_address WHERE public_address.csid = gone.csid",
                    kMostExpiredBindings);
            },
            [&](const Row& row) { readExpiredContact(row, removed.emplace_back()); }, "retrieved %d rows");
    });
}

} // namespace oryx
