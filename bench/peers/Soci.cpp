// SOCI, each statement prepared when the connection is made and bound to variables for good, as its documentation shows
// for statements that are executed again and again.

#include "Contender.h"

#include <soci/postgresql/soci-postgresql.h>
#include <soci/soci.h>

#include <stdexcept>

namespace peers {

namespace {

using soci::into;
using soci::use;

/// A column that may be NULL.
struct Text {
    std::string value;
    soci::indicator indicator = soci::i_ok;

    const char* get() const { return indicator == soci::i_ok ? value.c_str() : nullptr; }
};

auto text(Text& column)
{
    return into(column.value, column.indicator);
}

/// The columns of a contact that all lookups read.
struct ContactRow {
    Text ordering;
    Text replaceUri;
    Text active;
    std::string address;
    Text qvalue;
    long long expires = 0;
    soci::indicator expiresIndicator = soci::i_ok;
    Text capabilities;
    Text header;
    Text callId;
    long long cseq = 0;
    soci::indicator cseqIndicator = soci::i_ok;
    Text type;
    std::string permanent;
    int id = 0;
    int csid = 0;
    Text path;
};

void readSet(const ContactRow& row, Contacts& found)
{
    found.ordering = row.ordering.indicator == soci::i_ok ? row.ordering.value : "";
    found.replaceUri = row.replaceUri.indicator != soci::i_ok || row.replaceUri.value.starts_with('t');
}

oryx::ContactRecord& addContact(const ContactRow& row, Contacts& found)
{
    oryx::ContactRecord& contact = found.contacts.emplace_back();
    contact.setAddress(row.address.c_str());
    contact.setQvalue(row.qvalue.get());
    contact.setExpires(row.expiresIndicator == soci::i_ok ? static_cast<long>(row.expires) : 0);
    contact.setCapabilities(row.capabilities.get());
    contact.setContactHeader(row.header.get());
    contact.setCallId(row.callId.get());
    contact.setCseq(row.cseqIndicator == soci::i_ok ? static_cast<long>(row.cseq) : 0);
    contact.setType(row.type.get());
    return contact;
}

class Soci : public Contender {
public:
    explicit Soci(const Database& database)
        : m_session(soci::postgresql, "host=" + database.host + " dbname=" + database.name + " user=" + database.user)
    {
    }

    int key(const std::string& handle, const std::string& domain) override
    {
        m_handle = handle;
        m_domain = domain;
        requireRow(m_findKey.execute(true));
        oryx::PublicAddressRecord address;
        address.setHandle(m_foundHandle.c_str());
        address.setDomain(m_foundDomain.c_str());
        address.setCsid(m_csid);
        address.setScope(m_scope.get());
        address.setPublicAddressId(m_key);
        return address.public_address_id();
    }

    Contacts contactsByAddress(const std::string& handle, const std::string& domain) override
    {
        m_handle = handle;
        m_domain = domain;
        return contacts(m_byAddress);
    }

    Contacts contactsByKey(int key) override
    {
        m_key = key;
        return contacts(m_byKey);
    }

    Contacts contactsBySet(int csid) override
    {
        m_csid = csid;
        Contacts found;
        m_bySet.execute();
        while (m_bySet.fetch()) {
            if (found.contacts.empty()) {
                readSet(m_row, found);
            }
            oryx::ContactRecord& contact = addContact(m_row, found);
            contact.setPermanent(m_row.permanent.front());
            contact.setContactid(m_row.id);
            contact.setCsid(m_row.csid);
            contact.setPathVector(m_row.path.get());
        }
        return found;
    }

    bool registerContact(int key, std::vector<oryx::ContactRecord>& contact) override
    {
        take(key, contact.front());
        try {
            m_register.execute(true);
        } catch (const soci::postgresql_soci_error& failure) {
            if (failure.sqlstate() == "23505") {
                return false;
            }
            throw;
        }
        return true;
    }

    void refreshContact(int key, std::vector<oryx::ContactRecord>& contact) override
    {
        take(key, contact.front());
        m_refresh.execute(true);
    }

    void unregisterContact(int key, std::vector<oryx::ContactRecord>& contact) override
    {
        m_key = key;
        m_contact.address = contact.front().address();
        m_unregister.execute(true);
    }

    void storeDialog(oryx::PresenceRecord dialog) override
    {
        m_id = dialog.subscriptionid();
        m_from = dialog.fromhdr();
        m_to = dialog.tohdr();
        m_callId = dialog.callId();
        m_subcseq = dialog.subcseq();
        m_event = dialog.eventhdr();
        m_remoteContact = dialog.remotecontacthdr();
        m_route.value = dialog.routeset();
        m_route.indicator = dialog.routeset().empty() ? soci::i_null : soci::i_ok;
        m_notcseq = dialog.notcseq();
        m_requestUri = dialog.requestUri();
        m_package = dialog.packageid();
        m_storeDialog.execute(true);
    }

    oryx::PresenceRecord findDialog(const std::string& id) override
    {
        m_id = id;
        requireRow(m_findDialog.execute(true));
        oryx::PresenceRecord dialog;
        dialog.SetSubscriptionid(m_foundId.c_str());
        dialog.SetFromhdr(m_from.c_str());
        dialog.SetTohdr(m_to.c_str());
        dialog.SetCallId(m_callId.c_str());
        dialog.SetSubcseq(m_subcseq);
        dialog.SetEventhdr(m_event.c_str());
        dialog.SetRemotecontacthdr(m_remoteContact.c_str());
        dialog.SetRouteset(m_route.get());
        dialog.SetNotcseq(m_notcseq);
        dialog.SetRequestUri(m_requestUri.c_str());
        dialog.SetPackageid(m_package.c_str());
        return dialog;
    }

    void removeDialog(const std::string& id) override
    {
        m_id = id;
        m_removeDialog.execute(true);
    }

    std::vector<oryx::WatchersRecord> watchers(const std::string& presentityKey) override
    {
        m_id = presentityKey;
        std::vector<oryx::WatchersRecord> records;
        m_watchers.execute();
        while (m_watchers.fetch()) {
            records.emplace_back(presentityKey, m_opaque, m_docType, m_watcherType, m_state,
                                 static_cast<long>(m_expiry), m_identity, m_presentity,
                                 static_cast<unsigned long>(m_docVersion), "", m_remoteContact);
        }
        return records;
    }

    std::vector<oryx::AccessControlEntry> accessRules(const std::string& handle, const std::string& domain,
                                                      const std::string& application) override
    {
        m_application = application;
        m_object = handle + "@" + domain;
        std::vector<oryx::AccessControlEntry> found = rules(m_rules);
        if (found.empty()) {
            m_object = handle;
            found = rules(m_rules);
        }
        return found.empty() ? rules(m_defaultRules) : found;
    }

    std::string reserveExtension() override
    {
        requireRow(m_reserve.execute(true));
        return m_extension;
    }

    void releaseExtension(const std::string& extension) override
    {
        m_extension = extension;
        m_release.execute(true);
        requireRow(m_release.get_affected_rows() > 0);
    }

private:
    static void requireRow(bool found)
    {
        if (!found) {
            throw std::runtime_error("SOCI: no such row");
        }
    }

    Contacts contacts(soci::statement& statement)
    {
        Contacts found;
        statement.execute();
        while (statement.fetch()) {
            if (found.contacts.empty()) {
                readSet(m_row, found);
                if (m_row.active.indicator == soci::i_ok && m_row.active.value.starts_with('f')) {
                    return found;
                }
            }
            addContact(m_row, found);
        }
        return found;
    }

    std::vector<oryx::AccessControlEntry> rules(soci::statement& statement)
    {
        std::vector<oryx::AccessControlEntry> found;
        statement.execute();
        while (statement.fetch()) {
            found.emplace_back(m_requester.get(), m_action.get());
        }
        return found;
    }

    void take(int key, const oryx::ContactRecord& contact)
    {
        m_key = key;
        m_contact.address = contact.address();
        m_contact.qvalue.value = contact.qvalue();
        m_contact.expires = contact.expires();
        m_contact.permanent = contact.permanent();
        m_contact.capabilities.value = contact.capabilities();
        m_contact.header.value = contact.contactHeader();
        m_contact.callId.value = contact.callId();
        m_contact.cseq = contact.cseq();
    }

    soci::session m_session;

    // What the statements below are bound to.
    std::string m_handle;
    std::string m_domain;
    std::string m_foundHandle;
    std::string m_foundDomain;
    Text m_scope;
    int m_key = 0;
    int m_csid = 0;
    ContactRow m_row;
    ContactRow m_contact;
    std::string m_id;
    std::string m_foundId;
    std::string m_from;
    std::string m_to;
    std::string m_callId;
    int m_subcseq = 0;
    std::string m_event;
    std::string m_remoteContact;
    Text m_route;
    int m_notcseq = 0;
    std::string m_requestUri;
    std::string m_package;
    std::string m_opaque;
    int m_docType = 0;
    int m_watcherType = 0;
    int m_state = 0;
    long long m_expiry = 0;
    std::string m_identity;
    std::string m_presentity;
    long long m_docVersion = 0;
    std::string m_object;
    std::string m_application;
    Text m_requester;
    Text m_action;
    std::string m_extension;

    soci::statement m_findKey =
        (m_session.prepare
             << "SELECT handle, sip_domain, csid, scope, public_address_id FROM public_address WHERE handle = :handle AND sip_domain = :domain",
         into(m_foundHandle), into(m_foundDomain), into(m_csid), text(m_scope), into(m_key), use(m_handle),
         use(m_domain));
    soci::statement m_byAddress =
        (m_session.prepare
             << "SELECT contact_set.ordering, contact_set.replace_uri::text, subscriber.active::text, contact.address, contact.qvalue, contact.expires, contact.capabilities, contact.contact_header, contact.call_id, contact.cseq, contact.c_type FROM public_address, contact_set, contact, subscriber WHERE public_address.handle = :handle AND public_address.sip_domain = :domain AND public_address.csid = contact_set.csid AND contact.csid = contact_set.csid AND subscriber.sid = contact_set.sid",
         text(m_row.ordering), text(m_row.replaceUri), text(m_row.active), into(m_row.address), text(m_row.qvalue),
         into(m_row.expires, m_row.expiresIndicator), text(m_row.capabilities), text(m_row.header), text(m_row.callId),
         into(m_row.cseq, m_row.cseqIndicator), text(m_row.type), use(m_handle), use(m_domain));
    soci::statement m_byKey =
        (m_session.prepare
             << "SELECT contact_set.ordering, contact_set.replace_uri::text, subscriber.active::text, contact.address, contact.qvalue, contact.expires, contact.capabilities, contact.contact_header, contact.call_id, contact.cseq, contact.c_type FROM public_address, contact_set, contact, subscriber WHERE public_address.id = :key AND contact_set.csid = public_address.csid AND contact.csid = contact_set.csid AND contact_set.sid = subscriber.sid",
         text(m_row.ordering), text(m_row.replaceUri), text(m_row.active), into(m_row.address), text(m_row.qvalue),
         into(m_row.expires, m_row.expiresIndicator), text(m_row.capabilities), text(m_row.header), text(m_row.callId),
         into(m_row.cseq, m_row.cseqIndicator), text(m_row.type), use(m_key));
    soci::statement m_bySet =
        (m_session.prepare
             << "SELECT contact_set.ordering, contact_set.replace_uri::text, contact.address, contact.qvalue, contact.expires, contact.capabilities, contact.contact_header, contact.call_id, contact.cseq, contact.c_type, contact.permanent::text, contact.contact_id, contact.csid, contact.path_vector FROM contact_set, contact WHERE contact_set.csid = :csid AND contact.csid = contact_set.csid",
         text(m_row.ordering), text(m_row.replaceUri), into(m_row.address), text(m_row.qvalue),
         into(m_row.expires, m_row.expiresIndicator), text(m_row.capabilities), text(m_row.header), text(m_row.callId),
         into(m_row.cseq, m_row.cseqIndicator), text(m_row.type), into(m_row.permanent), into(m_row.id),
         into(m_row.csid), text(m_row.path), use(m_csid));
    soci::statement m_register =
        (m_session.prepare
             << "INSERT INTO contact (address, csid, qvalue, expires, permanent, capabilities, contact_header, call_id, cseq, id) VALUES (:address, (SELECT csid FROM public_address WHERE public_address_id = :key), :qvalue, :expires, :permanent, :capabilities, :header, :call_id, :cseq, 1)",
         use(m_contact.address), use(m_key), use(m_contact.qvalue.value), use(m_contact.expires),
         use(m_contact.permanent), use(m_contact.capabilities.value), use(m_contact.header.value),
         use(m_contact.callId.value), use(m_contact.cseq));
    soci::statement m_refresh =
        (m_session.prepare
             << "UPDATE contact SET contact_header = :header, expires = :expires, call_id = :call_id, cseq = :cseq, qvalue = :qvalue, capabilities = :capabilities WHERE csid = (SELECT csid FROM public_address WHERE id = :key) AND address = :address",
         use(m_contact.header.value), use(m_contact.expires), use(m_contact.callId.value), use(m_contact.cseq),
         use(m_contact.qvalue.value), use(m_contact.capabilities.value), use(m_key), use(m_contact.address));
    soci::statement m_unregister =
        (m_session.prepare
             << "DELETE FROM contact WHERE address = :address AND csid = (SELECT csid FROM public_address WHERE id = :key)",
         use(m_contact.address), use(m_key));
    soci::statement m_storeDialog =
        (m_session.prepare
             << "INSERT INTO subscription_states (subscriptionid, fromhdr, tohdr, callid, subcseq, eventhdr, remotecontacthdr, routeset, notcseq, requesturi, packageid) VALUES (:id, :from, :to, :call_id, :subcseq, :event, :contact, :route, :notcseq, :uri, :package)",
         use(m_id), use(m_from), use(m_to), use(m_callId), use(m_subcseq), use(m_event), use(m_remoteContact),
         use(m_route.value, m_route.indicator), use(m_notcseq), use(m_requestUri), use(m_package));
    soci::statement m_findDialog =
        (m_session.prepare
             << "SELECT subscriptionid, fromhdr, tohdr, callid, subcseq, eventhdr, remotecontacthdr, routeset, notcseq, requesturi, packageid FROM subscription_states WHERE subscriptionid = :id",
         into(m_foundId), into(m_from), into(m_to), into(m_callId), into(m_subcseq), into(m_event),
         into(m_remoteContact), text(m_route), into(m_notcseq), into(m_requestUri), into(m_package), use(m_id));
    soci::statement m_removeDialog =
        (m_session.prepare << "DELETE FROM subscription_states WHERE subscriptionid = :id", use(m_id));
    soci::statement m_watchers =
        (m_session.prepare
             << "SELECT watcheropaque, doctype, watchertype, watcherstate, expirytime, watcheridentity, presentity, docversion, remotecontacthdr FROM event_watchers, subscription_states WHERE presentitykey = :key AND watcheropaque = subscriptionid",
         into(m_opaque), into(m_docType), into(m_watcherType), into(m_state), into(m_expiry), into(m_identity),
         into(m_presentity), into(m_docVersion), into(m_remoteContact), use(m_id));
    soci::statement m_rules =
        (m_session.prepare
             << "SELECT requester, access_action FROM access_control_list WHERE object = :object AND state = 'ACTIVE' AND application = :application",
         text(m_requester), text(m_action), use(m_object), use(m_application));
    soci::statement m_defaultRules =
        (m_session.prepare
             << "SELECT requester, access_action FROM access_control_list, node WHERE object = node_id AND state = 'ACTIVE' AND application = :application",
         text(m_requester), text(m_action), use(m_application));
    soci::statement m_reserve =
        (m_session.prepare
             << "SELECT * FROM reserve_one_available_conf_ext_randomly() WHERE reserve_one_available_conf_ext_randomly IS NOT NULL",
         into(m_extension));
    soci::statement m_release =
        (m_session.prepare << "UPDATE conf_state SET conf_status = 'IDLE', start_time = 0 WHERE extension = :extension",
         use(m_extension));
};

} // namespace

std::unique_ptr<Contender> makeSoci(const Database& database)
{
    return std::make_unique<Soci>(database);
}

} // namespace peers
