#pragma once

#include "contract/Course.h"
#include "support/FakeLibpq.h"
#include "support/Show.h"
#include "support/TraceLog.h"

#include <dal/LocationService.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <vector>

/// \file
/// What the tests of the services share: a service on the scripted libpq, and what a contact lookup fills. The names
/// without "Of" are the registrar's.

inline const std::string kNeverConnected = "connection error: lookup attempted without a database connection\n";

inline std::string serviceTrace(const std::vector<std::string>& texts)
{
    return traceLines("LocationService", texts);
}

/// The text with a number behind `front` made fixed, wherever that stands.
inline std::string timeless(std::string text, const std::string& front)
{
    for (std::size_t at = text.find(front); at != std::string::npos; at = text.find(front, at + 1)) {
        const std::size_t number = at + front.size();
        text.replace(number, text.find_first_not_of("0123456789", number) - number, "NOW");
    }
    return text;
}

/// The statements as they are taken from libpq.
inline std::string sent(const std::vector<std::string>& statements)
{
    std::string calls;
    for (const std::string& statement : statements) {
        calls += "exec " + statement + "\n";
    }
    return calls;
}

/// The keys of the service's compiled address maps, behind those of `list`.
template <typename Service>
std::string mapKeys(Service& service, std::vector<std::string> list = {})
{
    service.getMapKeys(list);
    std::string text;
    for (const std::string& key : list) {
        text += "[" + key + "]";
    }
    return text;
}

/// The service's compiled address map with that key.
template <typename Service>
std::string mapEntry(Service& service, std::string key)
{
    const oryx::AddressMap* const found = service.lookupMapEntry(key);
    return found == nullptr ? "none"
                            : std::string(found->key()) + " csid=" + std::to_string(found->csid()) + " pattern='" +
                                  found->pattern() + "'";
}

/// What a contact lookup fills, with something in each before the call.
struct Found {
    std::string ordering = "before";
    bool replaceUri = false;
    std::vector<oryx::ContactRecord> contacts = {};

    std::string after(const oryx::DatabaseResult& result) const
    {
        return show(result) + "\nordering='" + ordering + "' replace=" + (replaceUri ? "true" : "false") + "\n" +
               show(contacts);
    }
};

/// A service that is connected once the test asks for it.
template <typename Service>
class ConnectedServiceOf {
protected:
    void connect()
    {
        ASSERT_EQ(show(service.connect("pgsql://db.oryx.example/registrar", "registrar", "secret")), "okay");
        libpq.take();
        trace.take();
    }

    /// The service loses its connection and does not get it back.
    void loseForGood()
    {
        libpq.loseConnection();
        libpq.errorMessage(kServerGone);
        libpq.resetsTo({CONNECTION_BAD});
    }

    fake::Libpq libpq;
    TraceLog trace;
    Service service;
};

using ConnectedService = ConnectedServiceOf<oryx::LocationService>;

template <typename Service>
class ConnectedServiceTestOf : public testing::Test, protected ConnectedServiceOf<Service> {
protected:
    void SetUp() override { this->connect(); }
};

using ConnectedServiceTest = ConnectedServiceTestOf<oryx::LocationService>;

/// The statement that reads the address maps, for either service.
inline const std::string kMaps =
    "SELECT contact_set.ordering,  contact_set.replace_uri, address_map.handle, address_map.csid,  address_map.pattern, address_map.modification_time, address_map.priority  FROM contact_set, address_map  WHERE address_map.csid = contact_set.csid  ORDER BY address_map.priority ASC; ";

/// The statement that reads the contacts of a contact set, "{}" for its key.
inline const std::string kContactsOfSet =
    "SELECT contact_set.ordering, contact_set.replace_uri, contact.address, contact.qvalue,  contact.expires, contact.capabilities, contact.contact_header,contact.call_id,contact.cseq,contact.c_type  FROM contact_set, contact WHERE (contact_set.csid = '{}' AND contact.csid = contact_set.csid);";

/// A row that it gives, and the contact read from it.
inline std::vector<fake::Cell> contactOfSet(const std::string& address)
{
    return {"parallel", "f", address, "0.7", "1800000000", "caps", "header", "call", "17", "mobile"};
}

inline std::string shownContactOfSet(const std::string& address)
{
    return "contact -1 '" + address +
           "' csid=-1 q='0.7' expires=1800000000 permanent='f' capabilities='caps' header='header' call='call' cseq=17 type='mobile' path=''\n";
}

/// The trace of its reading where one row came back.
inline std::string contactOfSetTrace(const std::string& csid)
{
    const std::string statement = spliced(kContactsOfSet, csid);
    return traceLines("DatabaseCommandExecutor", {statement}) + answeredTrace(statement) +
           traceLines("DatabaseCommandExecutor", {"retrieved 1 rows", "ordering is 'parallel'", "replaceUri is false"});
}
