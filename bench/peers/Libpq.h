#pragma once

#include "Contender.h"

#include <libpq-fe.h>

#include <memory>
#include <string>

/// \file
/// What programs on libpq write by hand, whichever way they send: the connection, and the reading of rows.

namespace peers {

struct Release {
    void operator()(PGconn* connection) const { PQfinish(connection); }
    void operator()(PGresult* result) const { PQclear(result); }
};
using Connection = std::unique_ptr<PGconn, Release>;
using Result = std::unique_ptr<PGresult, Release>;

Connection connect(const Database& database);
/// The result, which must hold rows or be a completed command.
Result succeeded(Result result);
/// Whether a unique index refused the statement.
bool alreadyThere(const PGresult* result);
/// Throws unless the statement changed a row.
void requireChange(const Result& result);

/// The key in a row of `public_address`; there must be one.
int readKey(const Result& result);
/// Rows that begin with ordering, replace flag and the subscriber's active flag; none of an inactive subscriber.
Contacts readContacts(const Result& result);
/// Rows that begin with ordering and replace flag, and have every column of the contact.
Contacts readWholeContacts(const Result& result);
oryx::PresenceRecord readDialog(const Result& result);
std::vector<oryx::WatchersRecord> readWatchers(const Result& result, const std::string& presentityKey);
std::vector<oryx::AccessControlEntry> readRules(const Result& result);

} // namespace peers
