#include "Libpq.h"

#include <cstdlib>
#include <stdexcept>
#include <string_view>

namespace peers {

namespace {

void readContact(const Result& result, int row, int first, oryx::ContactRecord& contact)
{
    const auto value = [&](int column) { return PQgetvalue(result.get(), row, first + column); };
    contact.setAddress(value(0));
    contact.setQvalue(value(1));
    contact.setExpires(std::strtol(value(2), nullptr, 10));
    contact.setCapabilities(value(3));
    contact.setContactHeader(value(4));
    contact.setCallId(value(5));
    contact.setCseq(std::strtol(value(6), nullptr, 10));
    contact.setType(value(7));
}

void readSet(const Result& result, Contacts& found)
{
    found.ordering = PQgetvalue(result.get(), 0, 0);
    found.replaceUri = PQgetisnull(result.get(), 0, 1) != 0 || *PQgetvalue(result.get(), 0, 1) == 't';
}

} // namespace

Connection connect(const Database& database)
{
    Connection connection(
        PQconnectdb(("host=" + database.host + " dbname=" + database.name + " user=" + database.user).c_str()));
    if (PQstatus(connection.get()) != CONNECTION_OK) {
        throw std::runtime_error(PQerrorMessage(connection.get()));
    }
    PQsetNoticeProcessor(
        connection.get(), [](void*, const char*) {}, nullptr);
    return connection;
}

Result succeeded(Result result)
{
    const ExecStatusType status = PQresultStatus(result.get());
    if (status != PGRES_TUPLES_OK && status != PGRES_COMMAND_OK) {
        throw std::runtime_error(PQresultErrorMessage(result.get()));
    }
    return result;
}

bool alreadyThere(const PGresult* result)
{
    const char* const state = PQresultErrorField(result, PG_DIAG_SQLSTATE);
    return state != nullptr && std::string_view(state) == "23505";
}

void requireChange(const Result& result)
{
    if (std::atoi(PQcmdTuples(result.get())) == 0) {
        throw std::runtime_error("no such row");
    }
}

int readKey(const Result& result)
{
    if (PQntuples(result.get()) == 0) {
        throw std::runtime_error("no such address of record");
    }
    oryx::PublicAddressRecord address;
    address.setHandle(PQgetvalue(result.get(), 0, 0));
    address.setDomain(PQgetvalue(result.get(), 0, 1));
    address.setCsid(std::atoi(PQgetvalue(result.get(), 0, 2)));
    address.setScope(PQgetvalue(result.get(), 0, 3));
    address.setPublicAddressId(std::atoi(PQgetvalue(result.get(), 0, 4)));
    return address.public_address_id();
}

Contacts readContacts(const Result& result)
{
    Contacts found;
    const int rows = PQntuples(result.get());
    if (rows == 0) {
        return found;
    }
    readSet(result, found);
    if (*PQgetvalue(result.get(), 0, 2) == 'f') {
        return found;
    }
    found.contacts.reserve(static_cast<std::size_t>(rows));
    for (int row = 0; row < rows; ++row) {
        readContact(result, row, 3, found.contacts.emplace_back());
    }
    return found;
}

Contacts readWholeContacts(const Result& result)
{
    Contacts found;
    const int rows = PQntuples(result.get());
    if (rows == 0) {
        return found;
    }
    readSet(result, found);
    found.contacts.reserve(static_cast<std::size_t>(rows));
    for (int row = 0; row < rows; ++row) {
        oryx::ContactRecord& contact = found.contacts.emplace_back();
        readContact(result, row, 2, contact);
        contact.setPermanent(*PQgetvalue(result.get(), row, 10));
        contact.setContactid(std::atoi(PQgetvalue(result.get(), row, 11)));
        contact.setCsid(std::atoi(PQgetvalue(result.get(), row, 12)));
        contact.setPathVector(PQgetvalue(result.get(), row, 13));
    }
    return found;
}

oryx::PresenceRecord readDialog(const Result& result)
{
    if (PQntuples(result.get()) == 0) {
        throw std::runtime_error("no such dialog");
    }
    const auto value = [&](int column) { return PQgetvalue(result.get(), 0, column); };
    oryx::PresenceRecord dialog;
    dialog.SetSubscriptionid(value(0));
    dialog.SetFromhdr(value(1));
    dialog.SetTohdr(value(2));
    dialog.SetCallId(value(3));
    dialog.SetSubcseq(std::atoi(value(4)));
    dialog.SetEventhdr(value(5));
    dialog.SetRemotecontacthdr(value(6));
    dialog.SetRouteset(value(7));
    dialog.SetNotcseq(std::atoi(value(8)));
    dialog.SetRequestUri(value(9));
    dialog.SetPackageid(value(10));
    return dialog;
}

std::vector<oryx::WatchersRecord> readWatchers(const Result& result, const std::string& presentityKey)
{
    std::vector<oryx::WatchersRecord> records;
    const int rows = PQntuples(result.get());
    records.reserve(static_cast<std::size_t>(rows));
    for (int row = 0; row < rows; ++row) {
        const auto value = [&](int column) { return PQgetvalue(result.get(), row, column); };
        records.emplace_back(presentityKey, value(0), std::atoi(value(1)), std::atoi(value(2)), std::atoi(value(3)),
                             std::atol(value(4)), value(5), value(6), std::strtoul(value(7), nullptr, 10), "",
                             value(8));
    }
    return records;
}

std::vector<oryx::AccessControlEntry> readRules(const Result& result)
{
    std::vector<oryx::AccessControlEntry> rules;
    const int rows = PQntuples(result.get());
    rules.reserve(static_cast<std::size_t>(rows));
    for (int row = 0; row < rows; ++row) {
        rules.emplace_back(PQgetvalue(result.get(), row, 0), PQgetvalue(result.get(), row, 1));
    }
    return rules;
}

} // namespace peers
