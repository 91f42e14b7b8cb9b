// libpq by hand, each statement prepared when the connection is made.

#include "Libpq.h"
#include "Statements.h"

#include <array>
#include <stdexcept>

namespace peers {

namespace {

class LibpqPrepared : public Contender {
public:
    explicit LibpqPrepared(const Database& database) : m_connection(connect(database))
    {
        for (const Prepared& statement : kAllPrepared) {
            succeeded(Result(PQprepare(m_connection.get(), statement.name, statement.text, 0, nullptr)));
        }
    }

    int key(const std::string& handle, const std::string& domain) override
    {
        return readKey(run(kKey, handle.c_str(), domain.c_str()));
    }

    Contacts contactsByAddress(const std::string& handle, const std::string& domain) override
    {
        return readContacts(run(kContactsByAddress, handle.c_str(), domain.c_str()));
    }

    Contacts contactsByKey(int key) override { return readContacts(run(kContactsByKey, std::to_string(key).c_str())); }

    Contacts contactsBySet(int csid) override
    {
        return readWholeContacts(run(kContactsBySet, std::to_string(csid).c_str()));
    }

    bool registerContact(int key, std::vector<oryx::ContactRecord>& contact) override
    {
        const oryx::ContactRecord& added = contact.front();
        Result result =
            send(kRegister, added.address().c_str(), std::to_string(key).c_str(), added.qvalue().c_str(),
                 std::to_string(added.expires()).c_str(), added.permanent().c_str(), added.capabilities().c_str(),
                 added.contactHeader().c_str(), added.callId().c_str(), std::to_string(added.cseq()).c_str());
        if (alreadyThere(result.get())) {
            return false;
        }
        succeeded(std::move(result));
        return true;
    }

    void refreshContact(int key, std::vector<oryx::ContactRecord>& contact) override
    {
        const oryx::ContactRecord& changed = contact.front();
        run(kRefresh, changed.contactHeader().c_str(), std::to_string(changed.expires()).c_str(),
            changed.callId().c_str(), std::to_string(changed.cseq()).c_str(), changed.qvalue().c_str(),
            changed.capabilities().c_str(), std::to_string(key).c_str(), changed.address().c_str());
    }

    void unregisterContact(int key, std::vector<oryx::ContactRecord>& contact) override
    {
        run(kUnregister, contact.front().address().c_str(), std::to_string(key).c_str());
    }

    void storeDialog(oryx::PresenceRecord dialog) override
    {
        run(kStoreDialog, dialog.subscriptionid().c_str(), dialog.fromhdr().c_str(), dialog.tohdr().c_str(),
            dialog.callId().c_str(), std::to_string(dialog.subcseq()).c_str(), dialog.eventhdr().c_str(),
            dialog.remotecontacthdr().c_str(), dialog.routeset().c_str(), std::to_string(dialog.notcseq()).c_str(),
            dialog.requestUri().c_str(), dialog.packageid().c_str());
    }

    oryx::PresenceRecord findDialog(const std::string& id) override { return readDialog(run(kFindDialog, id.c_str())); }

    void removeDialog(const std::string& id) override { run(kRemoveDialog, id.c_str()); }

    std::vector<oryx::WatchersRecord> watchers(const std::string& presentityKey) override
    {
        return readWatchers(run(kWatchers, presentityKey.c_str()), presentityKey);
    }

    std::vector<oryx::AccessControlEntry> accessRules(const std::string& handle, const std::string& domain,
                                                      const std::string& application) override
    {
        const std::string address = handle + "@" + domain;
        std::vector<oryx::AccessControlEntry> rules = readRules(run(kRules, address.c_str(), application.c_str()));
        if (rules.empty()) {
            rules = readRules(run(kRules, handle.c_str(), application.c_str()));
        }
        if (rules.empty()) {
            rules = readRules(run(kDefaultRules, application.c_str()));
        }
        return rules;
    }

    std::string reserveExtension() override
    {
        const Result result = run(kReserve);
        if (PQntuples(result.get()) == 0) {
            throw std::runtime_error("no idle extension");
        }
        return PQgetvalue(result.get(), 0, 0);
    }

    void releaseExtension(const std::string& extension) override { requireChange(run(kRelease, extension.c_str())); }

private:
    template <typename... Values>
    Result send(const Prepared& statement, Values... values)
    {
        const std::array<const char*, sizeof...(Values)> parameters{values...};
        return Result(PQexecPrepared(m_connection.get(), statement.name, static_cast<int>(parameters.size()),
                                     parameters.data(), nullptr, nullptr, 0));
    }

    template <typename... Values>
    Result run(const Prepared& statement, Values... values)
    {
        return succeeded(send(statement, values...));
    }

    Connection m_connection;
};

} // namespace

std::unique_ptr<Contender> makeLibpqPrepared(const Database& database)
{
    return std::make_unique<LibpqPrepared>(database);
}

} // namespace peers
