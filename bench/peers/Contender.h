#pragma once

#include <dal/Dal.h>
#include <dal/PresenceDal.h>

#include <memory>
#include <string>
#include <vector>

/// \file
/// The jobs of a registrar and an event server, as each of the libraries beside each other here does them.

namespace peers {

/// What a lookup of contacts brings back.
struct Contacts {
    std::string ordering;
    bool replaceUri = true;
    std::vector<oryx::ContactRecord> contacts;
};

/// One library, or one way to use it, with connections of its own; for one thread. Every job answers with the records
/// that a server works with; what goes wrong is thrown.
class Contender {
public:
    Contender() = default;
    virtual ~Contender() = default;
    Contender(const Contender&) = delete;
    Contender& operator=(const Contender&) = delete;

    /// The key of an address of record.
    virtual int key(const std::string& handle, const std::string& domain) = 0;
    virtual Contacts contactsByAddress(const std::string& handle, const std::string& domain) = 0;
    /// By public address key.
    virtual Contacts contactsByKey(int key) = 0;
    /// By contact set key, with every column of the contacts.
    virtual Contacts contactsBySet(int csid) = 0;

    // Of one contact each; for one, a statement by itself is as good as a transaction.

    /// False when the contact is already there.
    virtual bool registerContact(int key, std::vector<oryx::ContactRecord>& contact) = 0;
    virtual void refreshContact(int key, std::vector<oryx::ContactRecord>& contact) = 0;
    virtual void unregisterContact(int key, std::vector<oryx::ContactRecord>& contact) = 0;

    /// The record is made for the call, as a server makes one for each dialog.
    virtual void storeDialog(oryx::PresenceRecord dialog) = 0;
    virtual oryx::PresenceRecord findDialog(const std::string& id) = 0;
    virtual void removeDialog(const std::string& id) = 0;
    virtual std::vector<oryx::WatchersRecord> watchers(const std::string& presentityKey) = 0;
    /// The rules of the address; if there are none, of its handle; if there are none, of the nodes.
    virtual std::vector<oryx::AccessControlEntry> accessRules(const std::string& handle, const std::string& domain,
                                                              const std::string& application) = 0;
    /// Marks an idle conference extension as in use, and gives it.
    virtual std::string reserveExtension() = 0;
    /// One that is not there is a failure, so the rows that were changed are counted.
    virtual void releaseExtension(const std::string& extension) = 0;
};

/// The throw-away database that all work on, by the Unix socket beside it.
struct Database {
    std::string host; ///< The socket's folder.
    std::string name;
    std::string user;
};

/// The library, with values in the statements' text.
std::unique_ptr<Contender> makePlain(const Database& database);
/// The library, with values beside it.
std::unique_ptr<Contender> makeBound(const Database& database);
/// libpq by hand, values in the text (`PQexec`).
std::unique_ptr<Contender> makeLibpqPlain(const Database& database);
/// The same on a server as it comes, without what the schema sets for the database.
std::unique_ptr<Contender> makeLibpqStock(const Database& database);
/// libpq by hand, with prepared statements (`PQexecPrepared`).
std::unique_ptr<Contender> makeLibpqPrepared(const Database& database);
/// libpqxx, with prepared statements.
std::unique_ptr<Contender> makeLibpqxx(const Database& database);
/// SOCI, with prepared statements.
std::unique_ptr<Contender> makeSoci(const Database& database);

} // namespace peers
