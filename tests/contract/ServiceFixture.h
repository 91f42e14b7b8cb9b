#pragma once

#include "contract/Course.h"
#include "support/FakeLibpq.h"
#include "support/Show.h"
#include "support/TraceLog.h"

#include <dal/LocationService.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

/// \file
/// What the tests of the location service share: a service on the scripted libpq, and what a contact lookup fills.

inline const std::string kNeverConnected = "connection error: lookup attempted without a database connection\n";

inline std::string serviceTrace(const std::vector<std::string>& texts)
{
    return traceLines("LocationService", texts);
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
class ConnectedService {
protected:
    void connect()
    {
        ASSERT_EQ(show(service.connect("pgsql://db.oryx.example/registrar", "registrar", "secret")), "okay");
        libpq.take();
        trace.take();
    }

    fake::Libpq libpq;
    TraceLog trace;
    oryx::LocationService service;
};

class ConnectedServiceTest : public testing::Test, protected ConnectedService {
protected:
    void SetUp() override { connect(); }

    /// The service loses its connection and does not get it back.
    void loseForGood()
    {
        libpq.loseConnection();
        libpq.errorMessage(kServerGone);
        libpq.resetsTo({CONNECTION_BAD});
    }
};

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
