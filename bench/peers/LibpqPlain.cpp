// libpq by hand, values in the text. The texts are the library's own, so that only the way of sending differs.

#include "Libpq.h"

#include <stdexcept>

namespace peers {

namespace {

class LibpqPlain : public Contender {
public:
    explicit LibpqPlain(const Database& database) : m_connection(connect(database)) {}

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

protected:
    Result run(const std::string& text) { return succeeded(Result(PQexec(m_connection.get(), text.c_str()))); }

private:
    Connection m_connection;
};

int LibpqPlain::key(const std::string& handle, const std::string& domain)
{
    return readKey(run("SELECT handle, sip_domain, csid, scope, public_address_id FROM public_address WHERE  handle='" +
                       handle + "' AND sip_domain='" + domain + "';"));
}

Contacts LibpqPlain::contactsByAddress(const std::string& handle, const std::string& domain)
{
    return readContacts(run(
        "SELECT contact_set.ordering,contact_set.replace_uri,subscriber.active, contact.address,contact.qvalue,contact.expires,contact.capabilities,contact.contact_header, contact.call_id,contact.cseq,contact.c_type   FROM public_address, contact_set, contact, subscriber WHERE  (public_address.handle = '" +
        handle + "' AND public_address.sip_domain = '" + domain +
        "' AND public_address.csid = contact_set.csid AND  contact.csid = contact_set.csid AND subscriber.sid = contact_set.sid);"));
}

Contacts LibpqPlain::contactsByKey(int key)
{
    return readContacts(run(
        "SELECT contact_set.ordering, contact_set.replace_uri,subscriber.active, contact.address, contact.qvalue,  contact.expires, contact.capabilities, contact.contact_header,contact.call_id,contact.cseq,contact.c_type  FROM public_address, contact_set, contact, subscriber WHERE (public_address.id = " +
        std::to_string(key) +
        " AND contact_set.csid = public_address.csid AND  contact.csid = contact_set.csid AND contact_set.sid = subscriber.sid);"));
}

Contacts LibpqPlain::contactsBySet(int csid)
{
    return readWholeContacts(run(
        "SELECT contact_set.ordering, contact_set.replace_uri, contact.address, contact.qvalue,  contact.expires, contact.capabilities, contact.contact_header,contact.call_id,contact.cseq,contact.c_type,contact.permanent,contact.contact_id,contact.csid,contact.path_vector  FROM contact_set, contact WHERE (contact_set.csid = '" +
        std::to_string(csid) + "' AND contact.csid = contact_set.csid);"));
}

bool LibpqPlain::registerContact(int key, std::vector<oryx::ContactRecord>& contact)
{
    const oryx::ContactRecord& added = contact.front();
    const std::string text =
        "BEGIN TRANSACTION; INSERT INTO contact(address,csid,qvalue,expires,permanent,capabilities,contact_header,call_id,cseq,id)  VALUES('" +
        added.address() + "',(SELECT csid FROM public_address where public_address_id = " + std::to_string(key) +
        "), '" + added.qvalue() + "'," + std::to_string(added.expires()) + ",'" + added.permanent() + "','" +
        added.capabilities() + "','" + added.contactHeader() + "','" + added.callId() + "','" +
        std::to_string(added.cseq()) + "', 1); COMMIT TRANSACTION;";
    Result result(PQexec(m_connection.get(), text.c_str()));
    if (alreadyThere(result.get())) {
        run("ROLLBACK");
        return false;
    }
    succeeded(std::move(result));
    return true;
}

void LibpqPlain::refreshContact(int key, std::vector<oryx::ContactRecord>& contact)
{
    const oryx::ContactRecord& changed = contact.front();
    run("BEGIN TRANSACTION; UPDATE contact SET contact_header = '" + changed.contactHeader() +
        "', expires = " + std::to_string(changed.expires()) + ", call_id = '" + changed.callId() + "', cseq = '" +
        std::to_string(changed.cseq()) + "', qvalue = '" + changed.qvalue() + "', capabilities = '" +
        changed.capabilities() + "' WHERE csid = (SELECT csid FROM public_address where id = " + std::to_string(key) +
        ") AND address = '" + changed.address() + "' ;COMMIT TRANSACTION;");
}

void LibpqPlain::unregisterContact(int key, std::vector<oryx::ContactRecord>& contact)
{
    run("BEGIN TRANSACTION; DELETE FROM contact WHERE address = '" + contact.front().address() +
        "' AND csid = (SELECT csid FROM public_address where id = " + std::to_string(key) + "); COMMIT TRANSACTION;");
}

void LibpqPlain::storeDialog(oryx::PresenceRecord dialog)
{
    const auto quotedOrNull = [](const std::string& text) { return text.empty() ? "NULL" : "'" + text + "'"; };
    run("INSERT INTO subscription_states (subscriptionid,fromhdr,tohdr,callid,subcseq,eventhdr,remotecontacthdr,routeset,notcseq,requesturi,packageid) VALUES('" +
        dialog.subscriptionid() + "','" + dialog.fromhdr() + "','" + dialog.tohdr() + "'," +
        quotedOrNull(dialog.callId()) + "," + std::to_string(dialog.subcseq()) + ",'" + dialog.eventhdr() + "','" +
        dialog.remotecontacthdr() + "'," + quotedOrNull(dialog.routeset()) + "," + std::to_string(dialog.notcseq()) +
        ",'" + dialog.requestUri() + "','" + dialog.packageid() + "');");
}

oryx::PresenceRecord LibpqPlain::findDialog(const std::string& id)
{
    return readDialog(run(
        "SELECT subscriptionid, fromhdr, tohdr, callid, subcseq, eventhdr, remotecontacthdr, routeset, notcseq, requesturi,packageid  FROM subscription_states WHERE subscriptionid = '" +
        id + "';"));
}

void LibpqPlain::removeDialog(const std::string& id)
{
    run("DELETE FROM subscription_states WHERE subscriptionid = '" + id + "';");
}

std::vector<oryx::WatchersRecord> LibpqPlain::watchers(const std::string& presentityKey)
{
    return readWatchers(
        run("SELECT watcheropaque,doctype,watchertype,watcherstate,expirytime,watcheridentity,presentity,docversion,remotecontacthdr FROM event_watchers,subscription_states WHERE presentitykey ='" +
            presentityKey + "' and watcheropaque=subscriptionid;"),
        presentityKey);
}

std::vector<oryx::AccessControlEntry> LibpqPlain::accessRules(const std::string& handle, const std::string& domain,
                                                              const std::string& application)
{
    std::vector<oryx::AccessControlEntry> rules =
        readRules(run("SELECT requester,access_action FROM access_control_list WHERE object='" + handle + "@" + domain +
                      "' and state ='ACTIVE' and application='" + application + "';"));
    if (rules.empty()) {
        rules = readRules(run("SELECT requester,access_action FROM access_control_list WHERE object='" + handle +
                              "' and state='ACTIVE' and application='" + application + "';"));
    }
    if (rules.empty()) {
        rules = readRules(run(
            "SELECT requester, access_action FROM access_control_list,node WHERE object = node_id and state='ACTIVE' and application='" +
            application + "';"));
    }
    return rules;
}

std::string LibpqPlain::reserveExtension()
{
    const Result result = run(
        "select * FROM reserve_one_available_conf_ext_randomly() where reserve_one_available_conf_ext_randomly IS NOT NULL;");
    if (PQntuples(result.get()) == 0) {
        throw std::runtime_error("no idle extension");
    }
    return PQgetvalue(result.get(), 0, 0);
}

void LibpqPlain::releaseExtension(const std::string& extension)
{
    requireChange(
        run("UPDATE conf_state SET conf_status ='IDLE', start_time ='0' WHERE extension = '" + extension + "';"));
}

class LibpqStock : public LibpqPlain {
public:
    explicit LibpqStock(const Database& database) : LibpqPlain(database)
    {
        run("SELECT set_config(name, boot_val, false) FROM pg_settings WHERE source = 'database'");
    }
};

} // namespace

std::unique_ptr<Contender> makeLibpqPlain(const Database& database)
{
    return std::make_unique<LibpqPlain>(database);
}

std::unique_ptr<Contender> makeLibpqStock(const Database& database)
{
    return std::make_unique<LibpqStock>(database);
}

} // namespace peers
