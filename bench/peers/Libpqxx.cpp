// libpqxx, each statement prepared when the connection is made. A single statement needs no transaction of its own,
// which its `nontransaction` is for.

#include "Contender.h"
#include "Statements.h"

#include <pqxx/pqxx>

namespace peers {

namespace {

void readContact(const pqxx::row& row, int first, oryx::ContactRecord& contact)
{
    contact.setAddress(row[first].c_str());
    contact.setQvalue(row[first + 1].c_str());
    contact.setExpires(row[first + 2].as<long>(0));
    contact.setCapabilities(row[first + 3].c_str());
    contact.setContactHeader(row[first + 4].c_str());
    contact.setCallId(row[first + 5].c_str());
    contact.setCseq(row[first + 6].as<long>(0));
    contact.setType(row[first + 7].c_str());
}

void readSet(const pqxx::result& result, Contacts& found)
{
    found.ordering = result[0][0].c_str();
    found.replaceUri = result[0][1].as<bool>(true);
    found.contacts.reserve(result.size());
}

Contacts readContacts(const pqxx::result& result)
{
    Contacts found;
    if (result.empty()) {
        return found;
    }
    readSet(result, found);
    if (!result[0][2].as<bool>(true)) {
        return found;
    }
    for (const pqxx::row& row : result) {
        readContact(row, 3, found.contacts.emplace_back());
    }
    return found;
}

Contacts readWholeContacts(const pqxx::result& result)
{
    Contacts found;
    if (result.empty()) {
        return found;
    }
    readSet(result, found);
    for (const pqxx::row& row : result) {
        oryx::ContactRecord& contact = found.contacts.emplace_back();
        readContact(row, 2, contact);
        contact.setPermanent(*row[10].c_str());
        contact.setContactid(row[11].as<int>());
        contact.setCsid(row[12].as<int>());
        contact.setPathVector(row[13].c_str());
    }
    return found;
}

std::vector<oryx::AccessControlEntry> readRules(const pqxx::result& result)
{
    std::vector<oryx::AccessControlEntry> rules;
    rules.reserve(result.size());
    for (const pqxx::row& row : result) {
        rules.emplace_back(row[0].c_str(), row[1].c_str());
    }
    return rules;
}

class Libpqxx : public Contender {
public:
    explicit Libpqxx(const Database& database)
        : m_connection("host=" + database.host + " dbname=" + database.name + " user=" + database.user)
    {
        for (const Prepared& statement : kAllPrepared) {
            m_connection.prepare(statement.name, statement.text);
        }
    }

    int key(const std::string& handle, const std::string& domain) override
    {
        const pqxx::result result = run(kKey, handle, domain);
        const pqxx::row row = result.at(0);
        oryx::PublicAddressRecord address;
        address.setHandle(row[0].c_str());
        address.setDomain(row[1].c_str());
        address.setCsid(row[2].as<int>());
        address.setScope(row[3].c_str());
        address.setPublicAddressId(row[4].as<int>());
        return address.public_address_id();
    }

    Contacts contactsByAddress(const std::string& handle, const std::string& domain) override
    {
        return readContacts(run(kContactsByAddress, handle, domain));
    }

    Contacts contactsByKey(int key) override { return readContacts(run(kContactsByKey, key)); }

    Contacts contactsBySet(int csid) override { return readWholeContacts(run(kContactsBySet, csid)); }

    bool registerContact(int key, std::vector<oryx::ContactRecord>& contact) override
    {
        const oryx::ContactRecord& added = contact.front();
        try {
            run(kRegister, added.address(), key, added.qvalue(), added.expires(), added.permanent(),
                added.capabilities(), added.contactHeader(), added.callId(), added.cseq());
        } catch (const pqxx::unique_violation&) {
            return false;
        }
        return true;
    }

    void refreshContact(int key, std::vector<oryx::ContactRecord>& contact) override
    {
        const oryx::ContactRecord& changed = contact.front();
        run(kRefresh, changed.contactHeader(), changed.expires(), changed.callId(), changed.cseq(), changed.qvalue(),
            changed.capabilities(), key, changed.address());
    }

    void unregisterContact(int key, std::vector<oryx::ContactRecord>& contact) override
    {
        run(kUnregister, contact.front().address(), key);
    }

    void storeDialog(oryx::PresenceRecord dialog) override
    {
        run(kStoreDialog, dialog.subscriptionid(), dialog.fromhdr(), dialog.tohdr(), dialog.callId(), dialog.subcseq(),
            dialog.eventhdr(), dialog.remotecontacthdr(), dialog.routeset(), dialog.notcseq(), dialog.requestUri(),
            dialog.packageid());
    }

    oryx::PresenceRecord findDialog(const std::string& id) override
    {
        const pqxx::result result = run(kFindDialog, id);
        const pqxx::row row = result.at(0);
        oryx::PresenceRecord dialog;
        dialog.SetSubscriptionid(row[0].c_str());
        dialog.SetFromhdr(row[1].c_str());
        dialog.SetTohdr(row[2].c_str());
        dialog.SetCallId(row[3].c_str());
        dialog.SetSubcseq(row[4].as<int>(0));
        dialog.SetEventhdr(row[5].c_str());
        dialog.SetRemotecontacthdr(row[6].c_str());
        dialog.SetRouteset(row[7].c_str());
        dialog.SetNotcseq(row[8].as<int>(0));
        dialog.SetRequestUri(row[9].c_str());
        dialog.SetPackageid(row[10].c_str());
        return dialog;
    }

    void removeDialog(const std::string& id) override { run(kRemoveDialog, id); }

    std::vector<oryx::WatchersRecord> watchers(const std::string& presentityKey) override
    {
        const pqxx::result result = run(kWatchers, presentityKey);
        std::vector<oryx::WatchersRecord> records;
        records.reserve(result.size());
        for (const pqxx::row& row : result) {
            records.emplace_back(presentityKey, row[0].c_str(), row[1].as<int>(0), row[2].as<int>(0), row[3].as<int>(0),
                                 row[4].as<long>(0), row[5].c_str(), row[6].c_str(), row[7].as<unsigned long>(0), "",
                                 row[8].c_str());
        }
        return records;
    }

    std::vector<oryx::AccessControlEntry> accessRules(const std::string& handle, const std::string& domain,
                                                      const std::string& application) override
    {
        std::vector<oryx::AccessControlEntry> rules = readRules(run(kRules, handle + "@" + domain, application));
        if (rules.empty()) {
            rules = readRules(run(kRules, handle, application));
        }
        if (rules.empty()) {
            rules = readRules(run(kDefaultRules, application));
        }
        return rules;
    }

    std::string reserveExtension() override { return run(kReserve).at(0)[0].as<std::string>(); }

    void releaseExtension(const std::string& extension) override
    {
        if (run(kRelease, extension).affected_rows() == 0) {
            throw std::runtime_error("no such extension");
        }
    }

private:
    template <typename... Values>
    pqxx::result run(const Prepared& statement, const Values&... values)
    {
        pqxx::nontransaction work(m_connection);
        return work.exec_prepared(statement.name, values...);
    }

    pqxx::connection m_connection;
};

} // namespace

std::unique_ptr<Contender> makeLibpqxx(const Database& database)
{
    return std::make_unique<Libpqxx>(database);
}

} // namespace peers
