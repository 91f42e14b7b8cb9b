#include "contract/DeskContact.h"
#include "contract/PresenceFixture.h"
#include "support/FailingRandom.h"
#include "support/TemporaryDirectory.h"

#include <Crypt.h>

#include <cstdlib>
#include <ctime>

namespace presenceLocationTest {

namespace {

using fake::Cell;
using fake::command;
using fake::noRows;
using fake::nothing;
using fake::refused;
using fake::rows;
using oryx::AddressMapRecord;
using oryx::ContactRecord;
using oryx::DatabaseResult;
using oryx::ExtendedContactRecord;
using oryx::PresenceDatabaseCommandExecutor;
using oryx::ProxyConfig;
using oryx::PublicAddressRecord;
using oryx::SubscriberRecord;

/// A query that does not trace itself before the connection is looked after; `begun` comes behind that.
PresenceOperation quietQuery(const Statement& statement, const std::string& done, const std::string& untouched,
                             const std::vector<std::string>& begun = {})
{
    PresenceOperation operation = query(statement, done, untouched);
    const std::string sent = presenceTrace(begun) + presenceTrace({statement.text});
    const std::string rowsTraced = presenceTrace(statement.rowsTraced);
    operation.traces = {sent + rowsTraced, "", sent, sent};
    operation.answeredTrace = sent + answeredTrace(statement.text) + rowsTraced;
    return operation;
}

// Contacts of an address of record or of a contact set.

const std::string kByKey =
    "SELECT contact_set.ordering, contact_set.replace_uri,subscriber.active, contact.address, contact.qvalue,  contact.expires, contact.capabilities, contact.contact_header,contact.call_id,contact.cseq,contact.c_type,contact.permanent,contact.contact_id,contact.csid, contact.path_vector  FROM public_address, contact_set, contact, subscriber WHERE (public_address.public_address_id = 34 AND contact_set.csid = public_address.csid AND  contact.csid = contact_set.csid AND contact_set.sid = subscriber.sid);";
const std::string kByContactSet =
    "SELECT contact_set.ordering, contact_set.replace_uri, contact.address, contact.qvalue,  contact.expires, contact.capabilities, contact.contact_header,contact.call_id,contact.cseq,contact.c_type,contact.permanent,contact.contact_id,contact.csid,contact.path_vector  FROM contact_set, contact WHERE (contact_set.csid = '12' AND contact.csid = contact_set.csid);";

/// What a lookup by public address key, or by contact set where that is given, answers and fills; there was something
/// in each before.
std::string contactsOf(PresenceDatabaseCommandExecutor& executor, int key, std::optional<int> csid = std::nullopt)
{
    std::string ordering = "before";
    bool replaceUri = false;
    const std::string answer = appending(std::vector{desk()}, [&](auto& contacts) {
        return csid ? executor.lookupContacts(ordering, *csid, replaceUri, contacts)
                    : executor.lookupContacts(key, ordering, replaceUri, contacts);
    });
    return answer + "ordering='" + ordering + "' replace=" + (replaceUri ? "true" : "false") + "\n";
}

const std::string kNoContacts = kDesk + "ordering='before' replace=true\n";

const std::vector<Cell> kContactRow = {"parallel",
                                       "f",
                                       "sip:alice@198.51.100.3",
                                       "0.7",
                                       "1800000000",
                                       "methods=\"MESSAGE\"",
                                       "<sip:alice@198.51.100.3>;q=0.7",
                                       "3848276298220188511@198.51.100.3",
                                       "17",
                                       "mobile",
                                       "t",
                                       "101",
                                       "12",
                                       "<sip:edge%1.oryx.example;lr>"};
const std::string kContact =
    "contact 101 'sip:alice@198.51.100.3' csid=12 q='0.7' expires=1800000000 permanent='t' capabilities='methods=\"MESSAGE\"' header='<sip:alice@198.51.100.3>;q=0.7' call='3848276298220188511@198.51.100.3' cseq=17 type='mobile' path='<sip:edge%1.oryx.example;lr>'\n";

/// One of the two forms of the lookup.
struct ContactLookup {
    std::string name;
    std::string (*call)(PresenceDatabaseCommandExecutor& executor);
    std::string text;
    std::string replaceText; // in front of the flag in the trace
    bool readsActive;        // column 2 is the subscriber's flag

    std::vector<Cell> row(std::vector<Cell> columns, const Cell& active = "t") const
    {
        if (readsActive) {
            columns.insert(columns.begin() + 2, active);
        }
        return columns;
    }

    std::vector<std::string> rowsTraced(const std::string& count, const std::string& ordering,
                                        const std::string& replace) const
    {
        std::vector<std::string> texts = {"retrieved " + count + " rows", "ordering is '" + ordering + "'",
                                          replaceText + replace};
        if (readsActive) {
            texts.emplace_back("active status = t");
        }
        return texts;
    }
};

void PrintTo(const ContactLookup& lookup, std::ostream* out)
{
    *out << lookup.name;
}

const ContactLookup kLookupByKey = {"ByKey", [](auto& executor) { return contactsOf(executor, 34); }, kByKey,
                                    "replace is ", true};
const ContactLookup kLookupByContactSet = {"ByContactSet", [](auto& executor) { return contactsOf(executor, 0, 12); },
                                           kByContactSet, "replaceUri is ", false};

PresenceOperation lookupContacts(const ContactLookup& lookup)
{
    return quietQuery({.name = "lookupContacts" + lookup.name,
                       .operation = "",
                       .call = lookup.call,
                       .text = lookup.text,
                       .reply = rows({lookup.row(kContactRow)}),
                       .rowsTraced = lookup.rowsTraced("1", "parallel", "false")},
                      "okay\n" + kDesk + kContact + "ordering='parallel' replace=false\n", kNoContacts);
}

class PresenceContactLookup : public testing::TestWithParam<ContactLookup>,
                              protected UnconnectedExecutorOf<PresenceDatabaseCommandExecutor> {
protected:
    void SetUp() override { connect(); }

    std::string looksUp(const fake::Reply& reply)
    {
        libpq.replies({reply});
        return GetParam().call(executor);
    }

    /// The executor's lines behind the statement.
    std::string rowsTraced()
    {
        const std::string lines = trace.take("PresenceDatabaseCommandExecutor");
        return lines.substr(lines.find('\n') + 1);
    }
};

INSTANTIATE_TEST_SUITE_P(Of, PresenceContactLookup, testing::Values(kLookupByKey, kLookupByContactSet), kRowName);

TEST_P(PresenceContactLookup, WithoutRowsIsOkayAndFindsNothing)
{
    EXPECT_EQ(looksUp(noRows(15)), "okay\n" + kNoContacts);
    EXPECT_EQ(rowsTraced(), presenceTrace({"retrieved 0 rows"}));
}

TEST_P(PresenceContactLookup, AppendsAContactForEachRowAndReadsTheSetFromTheFirst)
{
    const std::vector<Cell> second = {
        "sequential", "t", "sip:alice@203.0.113.9", "1.0", "1900000000", "", "", "cid", "18", "pstn", "f", "102",
        "13",         ""};
    EXPECT_EQ(
        looksUp(rows({GetParam().row(kContactRow), GetParam().row(second, "f")})),
        "okay\n" + kDesk + kContact +
            "contact 102 'sip:alice@203.0.113.9' csid=13 q='1.0' expires=1900000000 permanent='f' capabilities='' header='' call='cid' cseq=18 type='pstn' path=''\n"
            "ordering='parallel' replace=false\n");
    EXPECT_EQ(rowsTraced(), presenceTrace(GetParam().rowsTraced("2", "parallel", "false")));
}

TEST_P(PresenceContactLookup, LeavesTheDefaultOfAContactWhereItsColumnIsNull)
{
    const std::vector<std::string> expected = {
        "contact 101 '' csid=12 q='0.7' expires=1800000000 permanent='t' capabilities='methods=\"MESSAGE\"' header='<sip:alice@198.51.100.3>;q=0.7' call='3848276298220188511@198.51.100.3' cseq=17 type='mobile' path='<sip:edge%1.oryx.example;lr>'\n",
        "contact 101 'sip:alice@198.51.100.3' csid=12 q='' expires=1800000000 permanent='t' capabilities='methods=\"MESSAGE\"' header='<sip:alice@198.51.100.3>;q=0.7' call='3848276298220188511@198.51.100.3' cseq=17 type='mobile' path='<sip:edge%1.oryx.example;lr>'\n",
        "contact 101 'sip:alice@198.51.100.3' csid=12 q='0.7' expires=0 permanent='t' capabilities='methods=\"MESSAGE\"' header='<sip:alice@198.51.100.3>;q=0.7' call='3848276298220188511@198.51.100.3' cseq=17 type='mobile' path='<sip:edge%1.oryx.example;lr>'\n",
        "contact 101 'sip:alice@198.51.100.3' csid=12 q='0.7' expires=1800000000 permanent='t' capabilities='' header='<sip:alice@198.51.100.3>;q=0.7' call='3848276298220188511@198.51.100.3' cseq=17 type='mobile' path='<sip:edge%1.oryx.example;lr>'\n",
        "contact 101 'sip:alice@198.51.100.3' csid=12 q='0.7' expires=1800000000 permanent='t' capabilities='methods=\"MESSAGE\"' header='' call='3848276298220188511@198.51.100.3' cseq=17 type='mobile' path='<sip:edge%1.oryx.example;lr>'\n",
        "contact 101 'sip:alice@198.51.100.3' csid=12 q='0.7' expires=1800000000 permanent='t' capabilities='methods=\"MESSAGE\"' header='<sip:alice@198.51.100.3>;q=0.7' call='' cseq=17 type='mobile' path='<sip:edge%1.oryx.example;lr>'\n",
        "contact 101 'sip:alice@198.51.100.3' csid=12 q='0.7' expires=1800000000 permanent='t' capabilities='methods=\"MESSAGE\"' header='<sip:alice@198.51.100.3>;q=0.7' call='3848276298220188511@198.51.100.3' cseq=0 type='mobile' path='<sip:edge%1.oryx.example;lr>'\n",
        "contact 101 'sip:alice@198.51.100.3' csid=12 q='0.7' expires=1800000000 permanent='t' capabilities='methods=\"MESSAGE\"' header='<sip:alice@198.51.100.3>;q=0.7' call='3848276298220188511@198.51.100.3' cseq=17 type='' path='<sip:edge%1.oryx.example;lr>'\n",
        "contact 101 'sip:alice@198.51.100.3' csid=12 q='0.7' expires=1800000000 permanent='f' capabilities='methods=\"MESSAGE\"' header='<sip:alice@198.51.100.3>;q=0.7' call='3848276298220188511@198.51.100.3' cseq=17 type='mobile' path='<sip:edge%1.oryx.example;lr>'\n",
        "contact -1 'sip:alice@198.51.100.3' csid=12 q='0.7' expires=1800000000 permanent='t' capabilities='methods=\"MESSAGE\"' header='<sip:alice@198.51.100.3>;q=0.7' call='3848276298220188511@198.51.100.3' cseq=17 type='mobile' path='<sip:edge%1.oryx.example;lr>'\n",
        "contact 101 'sip:alice@198.51.100.3' csid=-1 q='0.7' expires=1800000000 permanent='t' capabilities='methods=\"MESSAGE\"' header='<sip:alice@198.51.100.3>;q=0.7' call='3848276298220188511@198.51.100.3' cseq=17 type='mobile' path='<sip:edge%1.oryx.example;lr>'\n",
        "contact 101 'sip:alice@198.51.100.3' csid=12 q='0.7' expires=1800000000 permanent='t' capabilities='methods=\"MESSAGE\"' header='<sip:alice@198.51.100.3>;q=0.7' call='3848276298220188511@198.51.100.3' cseq=17 type='mobile' path=''\n",
    };
    for (std::size_t column = 2; column < kContactRow.size(); ++column) {
        EXPECT_EQ(looksUp(rows({GetParam().row(withNull(kContactRow, column))})),
                  "okay\n" + kDesk + expected[column - 2] + "ordering='parallel' replace=false\n")
            << "column " << column;
    }
}

TEST_P(PresenceContactLookup, ReadsANullOrderingAsEmpty)
{
    EXPECT_EQ(looksUp(rows({GetParam().row(withNull(kContactRow, 0))})),
              "okay\n" + kDesk + kContact + "ordering='' replace=false\n");
    EXPECT_EQ(rowsTraced(), presenceTrace(GetParam().rowsTraced("1", "", "false")));
}

TEST_P(PresenceContactLookup, ReplacesTheUriUnlessTheContactSetSaysOtherwise)
{
    const std::vector<std::pair<Cell, std::string>> flags = {{std::nullopt, "true"}, {"t", "true"},  {"true", "true"},
                                                             {"f", "false"},         {"T", "false"}, {"", "false"}};
    for (const auto& [flag, replaces] : flags) {
        std::vector<Cell> row = kContactRow;
        row[1] = flag;
        EXPECT_EQ(looksUp(rows({GetParam().row(row)})),
                  "okay\n" + kDesk + kContact + "ordering='parallel' replace=" + replaces + "\n")
            << flag.value_or("NULL");
        EXPECT_EQ(rowsTraced(), presenceTrace(GetParam().rowsTraced("1", "parallel", replaces)));
    }
}

class PresenceLocationTest : public PresenceTest {};

TEST_F(PresenceLocationTest, AnInactiveSubscribersContactsAreNotFound)
{
    executor.error(kEarlierFailure.c_str());
    libpq.replies({rows({kLookupByKey.row(kContactRow, "f"), kLookupByKey.row(kContactRow, "t")})});
    EXPECT_EQ(contactsOf(executor, 34), "not found\n" + kDesk + "ordering='parallel' replace=false\n");
    EXPECT_EQ(traced(), presenceTrace({kByKey, "retrieved 2 rows", "ordering is 'parallel'", "replace is false",
                                       "active status = f"}));
    EXPECT_EQ(executor.getErrorMessage(), kEarlierFailure);
}

TEST_F(PresenceLocationTest, ASubscriberIsInactiveOnlyWhereTheFlagBeginsWithF)
{
    libpq.replies({rows({kLookupByKey.row(kContactRow, "false")})});
    EXPECT_EQ(contactsOf(executor, 34), "not found\n" + kDesk + "ordering='parallel' replace=false\n");
    const std::string found = "okay\n" + kDesk + kContact + "ordering='parallel' replace=false\n";
    for (const char* const active : {"F", "", "0", "t"}) {
        libpq.replies({rows({kLookupByKey.row(kContactRow, active)})});
        EXPECT_EQ(contactsOf(executor, 34), found) << active;
        EXPECT_TRUE(traced().ends_with(presenceTrace({"active status = " + std::string(active)})));
    }
    libpq.replies({rows({kLookupByKey.row(kContactRow, std::nullopt)})});
    EXPECT_EQ(contactsOf(executor, 34), found);
    EXPECT_EQ(traced(), presenceTrace({kByKey, "retrieved 1 rows", "ordering is 'parallel'", "replace is false"}));
}

TEST_F(PresenceLocationTest, AnyNumberIsLookedUpAsAPublicAddressKey)
{
    libpq.replies({noRows(15)});
    EXPECT_EQ(contactsOf(executor, -1), "okay\n" + kNoContacts);
    EXPECT_EQ(
        libpq.take(),
        "exec SELECT contact_set.ordering, contact_set.replace_uri,subscriber.active, contact.address, contact.qvalue,  contact.expires, contact.capabilities, contact.contact_header,contact.call_id,contact.cseq,contact.c_type,contact.permanent,contact.contact_id,contact.csid, contact.path_vector  FROM public_address, contact_set, contact, subscriber WHERE (public_address.public_address_id = -1 AND contact_set.csid = public_address.csid AND  contact.csid = contact_set.csid AND contact_set.sid = subscriber.sid);\n");
}

// Addresses of record.

const std::string kPublicAddress =
    "SELECT handle, sip_domain, csid, scope, public_address_id FROM public_address WHERE  handle='alice' AND sip_domain='oryx.example';";
const std::vector<Cell> kPublicAddressRow = {"alice", "oryx.example", "12", "public", "34"};

/// A record no column of which comes from the tests' rows.
PublicAddressRecord addressBefore()
{
    PublicAddressRecord rec("before", "before.example", 1, "before");
    rec.setAdminDomain("admin");
    rec.setPublicAddressId(2);
    return rec;
}

const std::string kAddressBefore = "address 2 'before'@'before.example' csid=1 scope='before' admin='admin'\n";

std::string addressOf(PresenceDatabaseCommandExecutor& executor, const char* handle, const char* domain)
{
    PublicAddressRecord rec = addressBefore();
    const std::string answer = show(executor.lookupPublicAddress(handle, domain, rec));
    return answer + "\n" + show(rec);
}

const Statement kLookupPublicAddress = {
    .name = "lookupPublicAddress",
    .operation = "",
    .call = [](auto& executor) { return addressOf(executor, "alice", "oryx.example"); },
    .text = kPublicAddress,
    .reply = rows({kPublicAddressRow, {"bob", "example.com", "13", "private", "35"}}),
};

const std::string kAliases =
    "SELECT other_address.handle, other_address.sip_domain, other_address.csid, other_address.scope, other_address.public_address_id FROM public_address, contact_set, subscriber, public_address as other_address WHERE public_address.handle='alice' AND public_address.sip_domain='oryx.example' AND subscriber.active='t' AND public_address.csid = contact_set.csid AND subscriber.sid = contact_set.sid AND public_address.csid = other_address.csid;";

std::string aliasesOf(PresenceDatabaseCommandExecutor& executor, const char* handle, const char* domain)
{
    return appending(std::vector{addressBefore()},
                     [&](auto& aliases) { return executor.getAliases(handle, domain, aliases); });
}

const Statement kGetAliases = {
    .name = "getAliases",
    .operation = "",
    .call = [](auto& executor) { return aliasesOf(executor, "alice", "oryx.example"); },
    .text = kAliases,
    .reply = rows({kPublicAddressRow, {"sales", "example.com", "12", "private", "35"}}),
    .rowsTraced = {"retrieved 2 rows"},
};

const std::string kAlice = "address 34 'alice'@'oryx.example' csid=12 scope='public' admin=''\n";
const std::string kSales = "address 35 'sales'@'example.com' csid=12 scope='private' admin=''\n";

std::string alias(PresenceDatabaseCommandExecutor& executor, const char* handle1, const char* domain1,
                  const char* handle2, const char* domain2)
{
    bool aliases = true;
    const std::string answer = show(executor.areAliases(handle1, domain1, handle2, domain2, aliases));
    return answer + "\n" + (aliases ? "true" : "false");
}

const Statement kAreAliases = {
    .name = "areAliases",
    .operation = "",
    .call = [](auto& executor) { return alias(executor, "alice", "oryx.example", "sales", "example.com"); },
    .text =
        "SELECT csid FROM public_address WHERE (handle='alice' AND sip_domain='oryx.example') OR (handle='sales' AND sip_domain='example.com');",
    .reply = rows({{"12"}, {"12"}}),
    .rowsTraced = {"retrieved 2 rows"},
};

std::string publicAddresses(PresenceDatabaseCommandExecutor& executor, bool primaryOnly)
{
    return appending(std::vector{addressBefore()},
                     [&](auto& addresses) { return executor.getAllPublicAddresses(addresses, primaryOnly); });
}

const std::vector<Cell> kProvisionedRow = {"34", "oryx.example", "alice", "public", "ops.example", "12"};
const std::string kProvisioned = "address 34 'alice'@'oryx.example' csid=12 scope='public' admin='ops.example'\n";

const Statement kGetAllPublicAddresses = {
    .name = "getAllPublicAddresses",
    .operation = "getAllPublicAddresses",
    .call = [](auto& executor) { return publicAddresses(executor, false); },
    .text = "SELECT public_address_id,sip_domain,handle,scope,admin_domain,csid from public_address ;",
    .reply = rows({kProvisionedRow}),
    .rowsTraced = {"retrieved 1 rows"},
};

const Statement kGetPrimaryPublicAddresses = {
    .name = "getPrimaryPublicAddresses",
    .operation = "getAllPublicAddresses",
    .call = [](auto& executor) { return publicAddresses(executor, true); },
    .text =
        "SELECT public_address_id,sip_domain,handle,scope,admin_domain,csid from public_address  where primary_handle='t';",
    .reply = rows({kProvisionedRow}),
    .rowsTraced = {"retrieved 1 rows"},
};

// Keys.

/// What a lookup of a key answers and fills, which held 4711 before.
template <typename Call>
std::string key(const Call& call)
{
    int found = 4711;
    const std::string answer = show(call(found));
    return answer + "\n" + std::to_string(found);
}

std::string csidOf(PresenceDatabaseCommandExecutor& executor, int publicAddressId)
{
    return key([&](int& csid) { return executor.getCsid(publicAddressId, csid); });
}

std::string paidOf(PresenceDatabaseCommandExecutor& executor, const std::string& extension)
{
    return key([&](int& paid) { return executor.getPaidFromExtension(extension, paid); });
}

std::string csidOfContact(PresenceDatabaseCommandExecutor& executor, int contactId)
{
    return key([&](int& csid) { return executor.getCsidFromContactId(contactId, csid); });
}

const Statement kGetCsid = {
    .name = "getCsid",
    .operation = "",
    .call = [](auto& executor) { return csidOf(executor, 34); },
    .text = "SELECT csid FROM public_address WHERE public_address_id='34';",
    .reply = rows({{"12"}, {"13"}}),
};

const Statement kGetPaidFromExtension = {
    .name = "getPaidFromExtension",
    .operation = "",
    .call = [](auto& executor) { return paidOf(executor, "7001"); },
    .text = "SELECT paid FROM extension WHERE extension='7001';",
    .reply = rows({{"12"}, {"13"}}),
};

const Statement kGetCsidFromContactId = {
    .name = "getCsidFromContactId",
    .operation = "",
    .call = [](auto& executor) { return csidOfContact(executor, 101); },
    .text = "SELECT csid FROM contact WHERE contact_id='101';",
    .reply = rows({{"12"}, {"13"}}),
};

// Address maps and the proxy's configuration.

const std::string kAddressMaps =
    "SELECT contact_set.ordering,  contact_set.replace_uri, address_map.handle, address_map.csid,  address_map.pattern, address_map.modification_time, address_map.priority  FROM contact_set, address_map  WHERE address_map.csid = contact_set.csid  ORDER BY address_map.priority ASC; ";
const std::vector<Cell> kMapRow = {"sequential", "f", "sales", "12", "^sip:1[0-9]+@", "Wed Dec 17 07:37:16 1997", "3"};

/// That time in seconds; it is local time.
std::string modified()
{
    std::tm time{};
    time.tm_year = 97;
    time.tm_mon = 11;
    time.tm_mday = 17;
    time.tm_hour = 7;
    time.tm_min = 37;
    time.tm_sec = 16;
    time.tm_isdst = -1;
    return std::to_string(std::mktime(&time));
}

const std::string kMap = "map -1 'sales' pattern='^sip:1[0-9]+@' csid=12 modified=" + modified() +
                         " priority=3 replace=false ordering='sequential'\n";
const std::string kMapBefore = "map -1 'before' pattern='' csid=-1 modified=0 priority=0 replace=true ordering=''\n";

std::string addressMaps(PresenceDatabaseCommandExecutor& executor)
{
    AddressMapRecord before;
    before.setHandle("before");
    return appending(std::vector{before}, [&](auto& maps) { return executor.getAddressMaps(maps); });
}

const Statement kGetAddressMaps = {
    .name = "getAddressMaps",
    .operation = "",
    .call = addressMaps,
    .text = kAddressMaps,
    .reply = rows({kMapRow}),
    .rowsTraced = {"found 1 address map records"},
};

const std::string kItemBefore = "item scope='before' name='before' value='before'\n";

std::string proxyConfig(PresenceDatabaseCommandExecutor& executor)
{
    return appending(std::vector{ProxyConfig("before", "before", "before")},
                     [&](auto& items) { return executor.getProxyConfig(items); });
}

const Statement kGetProxyConfig = {
    .name = "getProxyConfig",
    .operation = "",
    .call = proxyConfig,
    .text = "SELECT scope, name, value FROM system_parameters   WHERE application = 'oryxproxy';",
    .reply = rows({{"sip", "timer.b", "32"}}),
    .rowsTraced = {"retrieved 1 proxy config items"},
};

// Subscribers.

/// A record no column of which comes from the tests' rows.
SubscriberRecord subscriberBefore()
{
    SubscriberRecord rec;
    rec.setId(5);
    rec.setUserId("bob");
    rec.setType("office");
    rec.setAuthType("basic");
    rec.setPassword("hunter2");
    rec.setOid(9);
    rec.setActive('f');
    return rec;
}

const std::string kSubscriberBefore =
    "subscriber 5 user='bob' type='office' auth='basic' password='hunter2' oid=9 active='f'\n";

std::string subscribersOf(PresenceDatabaseCommandExecutor& executor, const char* type)
{
    return appending(std::vector{subscriberBefore()},
                     [&](auto& subscribers) { return executor.getSubscribers(subscribers, type); });
}

const std::vector<Cell> kStoredRow = {"7", "home", "digest", "{oryx1}damaged", "f", "alice"};
const std::string kStored =
    "subscriber 7 user='alice' type='home' auth='digest' password='{oryx1}damaged' oid=-1 active='f'\n";

const Statement kGetSubscribersOfAType = {
    .name = "getSubscribersOfAType",
    .operation = "getSubscribers()",
    .call = [](auto& executor) { return subscribersOf(executor, "home"); },
    .text = "SELECT sid,s_type,auth_type,s_password,active,auth_user_id FROM subscriber WHERE s_type='home';",
    .reply = rows({kStoredRow}),
    .rowsTraced = {"retrieved 1 rows"},
};

const Statement kGetAllSubscribers = {
    .name = "getAllSubscribers",
    .operation = "getSubscribers()",
    .call = [](auto& executor) { return subscribersOf(executor, nullptr); },
    .text = "SELECT sid,s_type,auth_type,s_password,active,auth_user_id FROM subscriber;",
    .reply = rows({kStoredRow}),
    .rowsTraced = {"retrieved 1 rows"},
};

const std::string kSubscriber =
    "SELECT subscriber.sid, subscriber.auth_user_id, subscriber.oid, subscriber.s_type, subscriber.auth_type,  subscriber.s_password, subscriber.active  FROM public_address,contact_set,subscriber WHERE  subscriber.sid = contact_set.sid AND contact_set.csid = public_address.csid  AND public_address.handle = 'alice' AND public_address.sip_domain = 'oryx.example';";
const std::vector<Cell> kSubscriberRow = {"7", "alice", "3", "home", "digest", "secret", "t"};

std::string subscriberOf(PresenceDatabaseCommandExecutor& executor, const std::string& handle,
                         const std::string& domain)
{
    SubscriberRecord rec = subscriberBefore();
    const std::string answer = show(executor.lookupSubscriber(handle, domain, rec));
    return answer + "\n" + show(rec);
}

const Statement kLookupSubscriber = {
    .name = "lookupSubscriber",
    .operation = "lookupSubscriber()",
    .call = [](auto& executor) { return subscriberOf(executor, "alice", "oryx.example"); },
    .text = kSubscriber,
    .reply = rows({kSubscriberRow, {"8", "carol", "4", "office", "none", "other", "f"}}),
    .rowsTraced = {"retrieved 2 rows", "active = t\n"},
};

class PresenceLocationStatement : public PresenceStatementTest {};

TEST_P(PresenceLocationStatement, AnswersForItsEndingAndLeavesTheReason)
{
    endsAsTheCourseDoes();
}

INSTANTIATE_TEST_SUITE_P(
    OnCourse, PresenceLocationStatement,
    testing::ValuesIn(onEveryCourse({
        lookupContacts(kLookupByKey),
        lookupContacts(kLookupByContactSet),
        quietQuery(kLookupPublicAddress,
                   "okay\naddress 34 'alice'@'oryx.example' csid=12 scope='public' admin='admin'\n", kAddressBefore),
        quietQuery(kGetCsid, "okay\n12", "4711"),
        quietQuery(kGetPaidFromExtension, "okay\n12", "4711"),
        quietQuery(kGetCsidFromContactId, "okay\n12", "4711"),
        quietQuery(kGetAddressMaps, "okay\n" + kMapBefore + kMap, kMapBefore, {"looking up address_maps"}),
        quietQuery(kGetAliases, "okay\n" + kAddressBefore + kAlice + kSales, kAddressBefore),
        quietQuery(kAreAliases, "okay\ntrue", "false"),
        quietQuery(kGetProxyConfig, "okay\n" + kItemBefore + "item scope='sip' name='timer.b' value='32'\n",
                   kItemBefore, {"looking up proxy configuration"}),
        query(kGetSubscribersOfAType, "okay\n" + kSubscriberBefore + kStored, kSubscriberBefore),
        query(kGetAllSubscribers, "okay\n" + kSubscriberBefore + kStored, kSubscriberBefore),
        query(kLookupSubscriber,
              "okay\nsubscriber 7 user='alice' type='home' auth='digest' password='secret' oid=3 active='t'\n",
              kSubscriberBefore),
        query(kGetAllPublicAddresses, "okay\n" + kAddressBefore + kProvisioned, kAddressBefore),
        query(kGetPrimaryPublicAddresses, "okay\n" + kAddressBefore + kProvisioned, kAddressBefore),
    })),
    kRowName);

class PresenceLocationArguments : public PresenceRefusalTest {};

TEST_P(PresenceLocationArguments, AreRefusedWithoutAStatementOnceTheConnectionIsThere)
{
    sendsNothing();
}

/// A call refused by an operation that does not trace itself.
PresenceRefusal quietRefusal(const std::string& name,
                             const std::function<std::string(PresenceDatabaseCommandExecutor&)>& call,
                             const std::string& untouched)
{
    return {name, call, "query error: invalid parameters\n" + untouched, "invalid parameters"};
}

PresenceRefusal refusedContactSet(const std::string& name, int csid)
{
    return {name, [=](auto& executor) { return contactsOf(executor, 0, csid); },
            "query error: NULL csid\n" + kNoContacts, kEarlierFailure};
}

PresenceRefusal refusedSubscriber(const std::string& name, const std::string& handle, const std::string& domain)
{
    return refusal(
        name, "lookupSubscriber()", "invalid parameters passed to lookupSubscriber",
        [=](auto& executor) { return subscriberOf(executor, handle, domain); }, "\n" + kSubscriberBefore);
}

PresenceRefusal refusedAliases(const std::string& name, const char* handle1, const char* domain1, const char* handle2,
                               const char* domain2)
{
    return quietRefusal(
        name, [=](auto& executor) { return alias(executor, handle1, domain1, handle2, domain2); }, "false");
}

INSTANTIATE_TEST_SUITE_P(
    That, PresenceLocationArguments,
    testing::Values(refusedContactSet("NameContactSetZero", 0), refusedContactSet("NameANegativeContactSet", -1),
                    quietRefusal(
                        "NameAnAddressWithoutHandle", [](auto& executor) { return addressOf(executor, nullptr, "d"); },
                        kAddressBefore),
                    quietRefusal(
                        "NameAnAddressWithoutDomain", [](auto& executor) { return addressOf(executor, "h", nullptr); },
                        kAddressBefore),
                    quietRefusal(
                        "NameAddressZero", [](auto& executor) { return csidOf(executor, 0); }, "4711"),
                    quietRefusal(
                        "NameNoExtension", [](auto& executor) { return paidOf(executor, ""); }, "4711"),
                    quietRefusal(
                        "NameContactZero", [](auto& executor) { return csidOfContact(executor, 0); }, "4711"),
                    quietRefusal(
                        "NameAliasesWithoutHandle", [](auto& executor) { return aliasesOf(executor, nullptr, "d"); },
                        kAddressBefore),
                    quietRefusal(
                        "NameAliasesWithoutDomain", [](auto& executor) { return aliasesOf(executor, "h", nullptr); },
                        kAddressBefore),
                    refusedAliases("CompareWithoutFirstHandle", nullptr, "d", "h", "d"),
                    refusedAliases("CompareWithoutFirstDomain", "h", nullptr, "h", "d"),
                    refusedAliases("CompareWithoutSecondHandle", "h", "d", nullptr, "d"),
                    refusedAliases("CompareWithoutSecondDomain", "h", "d", "h", nullptr),
                    refusedSubscriber("NameASubscriberWithoutHandle", "", "oryx.example"),
                    refusedSubscriber("NameASubscriberWithoutDomain", "alice", ""),
                    refusedSubscriber("NameASubscriberWithNeither", "", "")),
    kRowName);

TEST_F(PresenceLocationTest, WhatIsUnknownIsNotFoundAndFillsNothing)
{
    executor.error(kEarlierFailure.c_str());
    const auto unknown = [this](const Statement& statement) {
        libpq.replies({noRows(7)});
        const std::string answer = statement.call(executor);
        return answer + "\n" + traced();
    };
    const auto notFound = [](const std::string& untouched, const std::vector<std::string>& lines) {
        return "not found\n" + untouched + "\n" + presenceTrace(lines);
    };
    const std::string none = "retrieved 0 rows";
    EXPECT_EQ(unknown(kLookupPublicAddress), notFound(kAddressBefore, {kPublicAddress}));
    EXPECT_EQ(unknown(kGetCsid), notFound("4711", {kGetCsid.text}));
    EXPECT_EQ(unknown(kGetPaidFromExtension), notFound("4711", {kGetPaidFromExtension.text}));
    EXPECT_EQ(unknown(kGetCsidFromContactId), notFound("4711", {kGetCsidFromContactId.text}));
    EXPECT_EQ(unknown(kGetAliases), notFound(kAddressBefore, {kAliases, none}));
    EXPECT_EQ(unknown(kAreAliases), notFound("false", {kAreAliases.text, none}));
    EXPECT_EQ(unknown(kGetAllSubscribers),
              notFound(kSubscriberBefore, {"getSubscribers()", kGetAllSubscribers.text, none}));
    EXPECT_EQ(unknown(kLookupSubscriber), notFound(kSubscriberBefore, {"lookupSubscriber()", kSubscriber, none}));
    EXPECT_EQ(unknown(kGetAllPublicAddresses),
              notFound(kAddressBefore, {"getAllPublicAddresses", kGetAllPublicAddresses.text, none}));
    EXPECT_EQ(executor.getErrorMessage(), kEarlierFailure);
}

TEST_F(PresenceLocationTest, ThereMayBeNoAddressMapsAndNoConfiguration)
{
    libpq.replies({noRows(7), noRows(3)});
    EXPECT_EQ(addressMaps(executor), "okay\n" + kMapBefore);
    EXPECT_EQ(traced(), presenceTrace({"looking up address_maps", kAddressMaps, "no address maps found"}));
    EXPECT_EQ(proxyConfig(executor), "okay\n" + kItemBefore);
    EXPECT_EQ(traced(), presenceTrace({"looking up proxy configuration", kGetProxyConfig.text,
                                       "retrieved 0 proxy config items"}));
}

TEST_F(PresenceLocationTest, ANullColumnOfAnAddressLeavesItsFieldAsItWas)
{
    const std::vector<std::string> expected = {
        "okay\naddress 34 'before'@'oryx.example' csid=12 scope='public' admin='admin'\n",
        "okay\naddress 34 'alice'@'before.example' csid=12 scope='public' admin='admin'\n",
        "okay\naddress 34 'alice'@'oryx.example' csid=1 scope='public' admin='admin'\n",
        "okay\naddress 34 'alice'@'oryx.example' csid=12 scope='before' admin='admin'\n",
        "okay\naddress 2 'alice'@'oryx.example' csid=12 scope='public' admin='admin'\n",
    };
    for (std::size_t column = 0; column < kPublicAddressRow.size(); ++column) {
        libpq.replies({rows({withNull(kPublicAddressRow, column)})});
        EXPECT_EQ(addressOf(executor, "alice", "oryx.example"), expected[column]) << "column " << column;
    }
}

TEST_F(PresenceLocationTest, ANullColumnOfAnAliasIsEmptyOrZeroAndItsKeyKeepsTheDefault)
{
    libpq.replies({rows({withNull(kPublicAddressRow, 0), withNull(kPublicAddressRow, 1), withNull(kPublicAddressRow, 2),
                         withNull(kPublicAddressRow, 3), withNull(kPublicAddressRow, 4)})});
    EXPECT_EQ(aliasesOf(executor, "alice", "oryx.example"),
              "okay\n" + kAddressBefore +
                  "address 34 ''@'oryx.example' csid=12 scope='public' admin=''\n"
                  "address 34 'alice'@'' csid=12 scope='public' admin=''\n"
                  "address 34 'alice'@'oryx.example' csid=0 scope='public' admin=''\n"
                  "address 34 'alice'@'oryx.example' csid=12 scope='' admin=''\n"
                  "address -1 'alice'@'oryx.example' csid=12 scope='public' admin=''\n");
}

TEST_F(PresenceLocationTest, ANullColumnOfAProvisionedAddressLeavesTheDefault)
{
    libpq.replies({rows({withNull(kProvisionedRow, 0), withNull(kProvisionedRow, 1), withNull(kProvisionedRow, 2),
                         withNull(kProvisionedRow, 3), withNull(kProvisionedRow, 4), withNull(kProvisionedRow, 5)})});
    EXPECT_EQ(publicAddresses(executor, false),
              "okay\n" + kAddressBefore +
                  "address -1 'alice'@'oryx.example' csid=12 scope='public' admin='ops.example'\n"
                  "address 34 'alice'@'' csid=12 scope='public' admin='ops.example'\n"
                  "address 34 ''@'oryx.example' csid=12 scope='public' admin='ops.example'\n"
                  "address 34 'alice'@'oryx.example' csid=12 scope='' admin='ops.example'\n"
                  "address 34 'alice'@'oryx.example' csid=12 scope='public' admin=''\n"
                  "address 34 'alice'@'oryx.example' csid=-1 scope='public' admin='ops.example'\n");
}

TEST_F(PresenceLocationTest, TwoAddressesOfOneContactSetAreAliases)
{
    const auto compared = [this](const fake::Rows& found) {
        libpq.replies({rows(found)});
        return alias(executor, "alice", "oryx.example", "sales", "example.com");
    };
    EXPECT_EQ(compared({{"12"}, {"12"}}), "okay\ntrue");
    EXPECT_EQ(compared({{"12"}, {"13"}}), "okay\nfalse");
    EXPECT_EQ(compared({{"12"}, {"012"}}), "okay\nfalse"); // they are compared as texts
    EXPECT_EQ(compared({{"12"}, {std::nullopt}}), "okay\nfalse");
    EXPECT_EQ(compared({{"12"}, {"12"}, {"13"}}), "okay\ntrue");
    EXPECT_EQ(compared({{"12"}, {"13"}, {"12"}}), "okay\nfalse");
}

TEST_F(PresenceLocationTest, AnUnknownSecondAddressIsNoAliasAndNotFound)
{
    libpq.replies({rows({{"12"}})});
    EXPECT_EQ(alias(executor, "alice", "oryx.example", "sales", "example.com"), "not found\nfalse");
    EXPECT_EQ(traced(), presenceTrace({kAreAliases.text, "retrieved 1 rows"}));
}

TEST_F(PresenceLocationTest, AnAddressIsNotFoundAsItsOwnAlias)
{
    libpq.replies({rows({{"12"}})});
    EXPECT_EQ(alias(executor, "alice", "oryx.example", "alice", "oryx.example"), "not found\nfalse");
    EXPECT_EQ(
        libpq.take(),
        "exec SELECT csid FROM public_address WHERE (handle='alice' AND sip_domain='oryx.example') OR (handle='alice' AND sip_domain='oryx.example');\n");
}

TEST_F(PresenceLocationTest, ANullKeyIsOkayAndLeavesTheNumberAsItWas)
{
    libpq.replies({rows({{std::nullopt}}), rows({{std::nullopt}}), rows({{std::nullopt}})});
    EXPECT_EQ(csidOf(executor, 34), "okay\n4711");
    EXPECT_EQ(paidOf(executor, "7001"), "okay\n4711");
    EXPECT_EQ(csidOfContact(executor, 101), "okay\n4711");
}

TEST_F(PresenceLocationTest, AKeyIsReadAsAStreamReadsIt)
{
    executor.error(kEarlierFailure.c_str());
    const std::vector<std::pair<std::string, std::string>> readings = {
        {"12", "okay\n12"},         {"12abc", "okay\n12"},
        {" 12", "okay\n12"},        {"-3", "okay\n-3"},
        {"+3", "okay\n3"},          {"2147483647", "okay\n2147483647"},
        {"abc", "not found\n4711"}, {"", "not found\n4711"},
        {" ", "not found\n4711"},   {"2147483648", "not found\n4711"},
    };
    for (const auto& [text, expected] : readings) {
        libpq.replies({rows({{text}}), rows({{text}})});
        EXPECT_EQ(paidOf(executor, "7001"), expected) << text;
        EXPECT_EQ(csidOfContact(executor, 101), expected) << text;
    }
    EXPECT_EQ(executor.getErrorMessage(), kEarlierFailure);
}

TEST_F(PresenceLocationTest, TheContactSetOfAnAddressIsTheLeadingDigitsOfItsColumn)
{
    libpq.replies({rows({{"12abc"}}), rows({{"abc"}}), rows({{""}}), rows({{"4294967297"}})});
    EXPECT_EQ(csidOf(executor, 34), "okay\n12");
    EXPECT_EQ(csidOf(executor, 34), "okay\n0");
    EXPECT_EQ(csidOf(executor, 34), "okay\n0");
    EXPECT_EQ(csidOf(executor, 34), "okay\n2147483647");
}

TEST_F(PresenceLocationTest, NegativeKeysAreLookedUpLikeAnyOther)
{
    libpq.replies({noRows(), noRows()});
    EXPECT_EQ(csidOf(executor, -1), "not found\n4711");
    EXPECT_EQ(csidOfContact(executor, -2147483647 - 1), "not found\n4711");
    EXPECT_EQ(libpq.take(), "exec SELECT csid FROM public_address WHERE public_address_id='-1';\n"
                            "exec SELECT csid FROM contact WHERE contact_id='-2147483648';\n");
}

TEST_F(PresenceLocationTest, AddressMapsAreAppendedInTheOrderTheyCome)
{
    libpq.replies({rows({{"parallel", "true", "b", "2", "^b", "no time", "1"}, kMapRow})});
    EXPECT_EQ(addressMaps(executor),
              "okay\n" + kMapBefore +
                  "map -1 'b' pattern='^b' csid=2 modified=0 priority=1 replace=true ordering='parallel'\n" + kMap);
    EXPECT_EQ(traced(), presenceTrace({"looking up address_maps", kAddressMaps, "found 2 address map records"}));
}

TEST_F(PresenceLocationTest, ANullColumnOfAnAddressMapLeavesTheDefault)
{
    const std::string time = " modified=" + modified();
    const std::vector<std::string> expected = {
        "map -1 'sales' pattern='^sip:1[0-9]+@' csid=12" + time + " priority=3 replace=false ordering=''\n",
        "map -1 'sales' pattern='^sip:1[0-9]+@' csid=12" + time + " priority=3 replace=true ordering='sequential'\n",
        "map -1 '' pattern='^sip:1[0-9]+@' csid=12" + time + " priority=3 replace=false ordering='sequential'\n",
        "map -1 'sales' pattern='^sip:1[0-9]+@' csid=-1" + time + " priority=3 replace=false ordering='sequential'\n",
        "map -1 'sales' pattern='' csid=12" + time + " priority=3 replace=false ordering='sequential'\n",
        "map -1 'sales' pattern='^sip:1[0-9]+@' csid=12 modified=0 priority=3 replace=false ordering='sequential'\n",
        "map -1 'sales' pattern='^sip:1[0-9]+@' csid=12" + time + " priority=0 replace=false ordering='sequential'\n",
    };
    for (std::size_t column = 0; column < kMapRow.size(); ++column) {
        libpq.replies({rows({withNull(kMapRow, column)})});
        EXPECT_EQ(addressMaps(executor), "okay\n" + kMapBefore + expected[column]) << "column " << column;
    }
}

TEST_F(PresenceLocationTest, ConfigurationItemsAreAppendedWithoutWhatIsNull)
{
    libpq.replies({rows({{std::nullopt, "n", "v"}, {"s", std::nullopt, "v"}, {"s", "n", std::nullopt}})});
    EXPECT_EQ(proxyConfig(executor), "okay\n" + kItemBefore +
                                         "item scope='' name='n' value='v'\n"
                                         "item scope='s' name='' value='v'\n"
                                         "item scope='s' name='n' value=''\n");
    EXPECT_EQ(traced(), presenceTrace({"looking up proxy configuration", kGetProxyConfig.text,
                                       "retrieved 3 proxy config items"}));
}

TEST_F(PresenceLocationTest, AnEmptyTypeOfSubscribersIsATypeToo)
{
    libpq.replies({noRows(6), noRows(6)});
    EXPECT_EQ(subscribersOf(executor, ""), "not found\n" + kSubscriberBefore);
    EXPECT_EQ(subscribersOf(executor, "it's 100%s"), "not found\n" + kSubscriberBefore);
    EXPECT_EQ(
        libpq.take(),
        "exec SELECT sid,s_type,auth_type,s_password,active,auth_user_id FROM subscriber WHERE s_type='';\n"
        "exec SELECT sid,s_type,auth_type,s_password,active,auth_user_id FROM subscriber WHERE s_type='it's 100%s';\n");
}

TEST_F(PresenceLocationTest, SubscribersAreAppendedAsTheyAreStored)
{
    libpq.replies({rows({kStoredRow, {"8", "office", "basic", "secret", "true", "carol"}})});
    EXPECT_EQ(subscribersOf(executor, nullptr),
              "okay\n" + kSubscriberBefore + kStored +
                  "subscriber 8 user='carol' type='office' auth='basic' password='secret' oid=-1 active='t'\n");
}

TEST_F(PresenceLocationTest, ANullColumnOfAListedSubscriberLeavesTheDefault)
{
    libpq.replies({rows({withNull(kStoredRow, 0), withNull(kStoredRow, 1), withNull(kStoredRow, 2),
                         withNull(kStoredRow, 3), withNull(kStoredRow, 4), withNull(kStoredRow, 5)})});
    EXPECT_EQ(subscribersOf(executor, nullptr),
              "okay\n" + kSubscriberBefore +
                  "subscriber -1 user='alice' type='home' auth='digest' password='{oryx1}damaged' oid=-1 active='f'\n"
                  "subscriber 7 user='alice' type='' auth='digest' password='{oryx1}damaged' oid=-1 active='f'\n"
                  "subscriber 7 user='alice' type='home' auth='' password='{oryx1}damaged' oid=-1 active='f'\n"
                  "subscriber 7 user='alice' type='home' auth='digest' password='' oid=-1 active='f'\n"
                  "subscriber 7 user='alice' type='home' auth='digest' password='{oryx1}damaged' oid=-1 active='t'\n"
                  "subscriber 7 user='' type='home' auth='digest' password='{oryx1}damaged' oid=-1 active='f'\n");
}

TEST_F(PresenceLocationTest, ANullColumnOfASubscriberLeavesItsFieldAsItWas)
{
    const std::vector<std::string> expected = {
        "okay\nsubscriber 5 user='alice' type='home' auth='digest' password='secret' oid=3 active='t'\n",
        "okay\nsubscriber 7 user='bob' type='home' auth='digest' password='secret' oid=3 active='t'\n",
        "okay\nsubscriber 7 user='alice' type='home' auth='digest' password='secret' oid=9 active='t'\n",
        "okay\nsubscriber 7 user='alice' type='office' auth='digest' password='secret' oid=3 active='t'\n",
        "okay\nsubscriber 7 user='alice' type='home' auth='basic' password='secret' oid=3 active='t'\n",
        "okay\nsubscriber 7 user='alice' type='home' auth='digest' password='hunter2' oid=3 active='t'\n",
        "okay\nsubscriber 7 user='alice' type='home' auth='digest' password='secret' oid=3 active='f'\n",
    };
    for (std::size_t column = 0; column < kSubscriberRow.size(); ++column) {
        libpq.replies({rows({withNull(kSubscriberRow, column)})});
        EXPECT_EQ(subscriberOf(executor, "alice", "oryx.example"), expected[column]) << "column " << column;
    }
}

TEST_F(PresenceLocationTest, ASubscribersActiveFlagIsTheFirstCharacterOfItsColumn)
{
    const std::string found =
        "okay\nsubscriber 7 user='alice' type='home' auth='digest' password='secret' oid=3 active=";
    const auto active = [this](const Cell& flag) {
        std::vector<Cell> row = kSubscriberRow;
        row[6] = flag;
        libpq.replies({rows({row})});
        const std::string answer = subscriberOf(executor, "alice", "oryx.example");
        return answer + traced();
    };
    const auto traces = [](const std::string& shown) {
        return presenceTrace({"lookupSubscriber()", kSubscriber, "retrieved 1 rows", "active = " + shown + "\n"});
    };
    EXPECT_EQ(active("true"), found + "'t'\n" + traces("true"));
    EXPECT_EQ(active("false"), found + "'f'\n" + traces("false"));
    EXPECT_EQ(active("T"), found + "'T'\n" + traces("T"));
    EXPECT_EQ(active(std::nullopt), found + "'f'\n" + traces("not set"));
    EXPECT_EQ(active(""), found + "'f'\n" + traces(""));
}

TEST_F(PresenceLocationTest, AnEncryptedPasswordComesInClear)
{
    const TemporaryDirectory directory;
    setenv("ORYX_CRYPT_KEY_FILE", directory.write("key", std::string(64, '7')).c_str(), 1);
    std::string stored;
    ASSERT_TRUE(Crypt::encrypt("open sesame", stored));
    libpq.replies({rows({{"7", "alice", "3", "home", "digest", stored, "t"}}),
                   rows({{"7", "home", "digest", stored, "t", "alice"}})});
    EXPECT_EQ(subscriberOf(executor, "alice", "oryx.example"),
              "okay\nsubscriber 7 user='alice' type='home' auth='digest' password='open sesame' oid=3 active='t'\n");
    EXPECT_EQ(subscribersOf(executor, nullptr), "okay\n" + kSubscriberBefore +
                                                    "subscriber 7 user='alice' type='home' auth='digest' password='" +
                                                    stored + "' oid=-1 active='t'\n");
    unsetenv("ORYX_CRYPT_KEY_FILE");
}

TEST_F(PresenceLocationTest, APasswordThatCannotBeDecryptedComesAsARandomTextEachTime)
{
    const std::vector<Cell> damaged = {"7", "alice", "3", "home", "digest", "{oryx1}damaged", "t"};
    libpq.replies({rows({damaged}), rows({damaged})});
    SubscriberRecord first;
    SubscriberRecord second;
    EXPECT_EQ(show(executor.lookupSubscriber("alice", "oryx.example", first)), "okay");
    EXPECT_EQ(show(executor.lookupSubscriber("alice", "oryx.example", second)), "okay");
    EXPECT_EQ(first.password().size(), 64U);
    EXPECT_NE(first.password(), second.password());
}

TEST_F(PresenceLocationTest, APasswordThatCannotBeDecryptedIsAFailureWithoutRandomNumbers)
{
    const NoRandomNumbers none;
    libpq.replies({rows({{"7", "alice", "3", "home", "digest", "{oryx1}damaged", "f"}})});
    EXPECT_EQ(subscriberOf(executor, "alice", "oryx.example"),
              "query error: the stored password cannot be read, and there are no random numbers\n" + kSubscriberBefore);
}

TEST_F(PresenceLocationTest, EveryTextIsTakenAndTracedAsItStands)
{
    libpq.replies({noRows(5), noRows(), noRows(5), noRows(), noRows(7)});
    addressOf(executor, "o'brien", "100%s");
    paidOf(executor, "o'brien 100%s");
    aliasesOf(executor, "o'brien", "100%s");
    alias(executor, "o'brien", "100%s", "", "it's");
    subscriberOf(executor, "o'brien", "100%s");
    const std::vector<std::string> expected = {
        "SELECT handle, sip_domain, csid, scope, public_address_id FROM public_address WHERE  handle='o'brien' AND sip_domain='100%s';",
        "SELECT paid FROM extension WHERE extension='o'brien 100%s';",
        "SELECT other_address.handle, other_address.sip_domain, other_address.csid, other_address.scope, other_address.public_address_id FROM public_address, contact_set, subscriber, public_address as other_address WHERE public_address.handle='o'brien' AND public_address.sip_domain='100%s' AND subscriber.active='t' AND public_address.csid = contact_set.csid AND subscriber.sid = contact_set.sid AND public_address.csid = other_address.csid;",
        "SELECT csid FROM public_address WHERE (handle='o'brien' AND sip_domain='100%s') OR (handle='' AND sip_domain='it's');",
        "SELECT subscriber.sid, subscriber.auth_user_id, subscriber.oid, subscriber.s_type, subscriber.auth_type,  subscriber.s_password, subscriber.active  FROM public_address,contact_set,subscriber WHERE  subscriber.sid = contact_set.sid AND contact_set.csid = public_address.csid  AND public_address.handle = 'o'brien' AND public_address.sip_domain = '100%s';",
    };
    EXPECT_EQ(libpq.takeStatements(), expected);
    EXPECT_EQ(traced(), presenceTrace({expected[0], expected[1], expected[2], "retrieved 0 rows", expected[3],
                                       "retrieved 0 rows", "lookupSubscriber()", expected[4], "retrieved 0 rows"}));
}

// Expired contacts, whose two statements hold the time of the call.

const std::string kExpiredBefore =
    "of 'before'@'' sid=0 oid=0 contact -1 '' csid=-1 q='' expires=0 permanent='f' capabilities='' header='' call='' cseq=0 type='' path=''\n";
const std::vector<Cell> kExpiredRow = {
    "34", "<sip:alice@198.51.100.3>;q=0.7", "1600000000", "cid@198.51.100.3", "17", "alice", "oryx.example"};
const std::string kExpired =
    "of 'alice'@'oryx.example' sid=34 oid=0 contact -1 '' csid=-1 q='' expires=1600000000 permanent='f' capabilities='' header='<sip:alice@198.51.100.3>;q=0.7' call='cid@198.51.100.3' cseq=17 type='' path=''\n";

std::string selection(const std::string& time)
{
    return "SELECT public_address_id,contact_header,expires,call_id,cseq,handle,sip_domain FROM contact, contact_set, public_address  WHERE expires < " +
           time + " AND contact_set.csid = contact.csid  AND public_address.csid = contact.csid FOR UPDATE ";
}

std::string removal(const std::string& time)
{
    return "DELETE FROM contact WHERE expires < " + time;
}

class ExpiredContacts : public PresenceTest {
protected:
    void SetUp() override
    {
        PresenceTest::SetUp();
        libpq.errorMessage(kServerGone);
        executor.error(kEarlierFailure.c_str());
    }

    std::string flushed(const std::vector<fake::Reply>& replies)
    {
        libpq.replies(replies);
        ExtendedContactRecord before;
        before.setHandle("before");
        const std::time_t earliest = std::time(nullptr);
        std::string answer =
            appending(std::vector{before}, [&](auto& expired) { return executor.flushExpiredContacts(expired); });
        const std::time_t latest = std::time(nullptr);
        calls = libpq.take();
        time = timeIn(calls);
        EXPECT_TRUE(earliest <= std::atol(time.c_str()) && std::atol(time.c_str()) <= latest) << time;
        return answer;
    }

    std::string time; // that the statements hold
    std::string calls;

private:
    static std::string timeIn(const std::string& text)
    {
        const std::string front = "expires < ";
        const std::size_t at = text.find(front) + front.size();
        return text.substr(at, text.find_first_not_of("0123456789", at) - at);
    }
};

TEST_F(ExpiredContacts, AreRemovedAndGivenWithTheAddressesOfRecord)
{
    EXPECT_EQ(
        flushed({rows({kExpiredRow, {"35", "", "-1", "", "2147483647", "bob", "example.com"}}), command("2")}),
        "okay\n" + kExpiredBefore + kExpired +
            "of 'bob'@'example.com' sid=35 oid=0 contact -1 '' csid=-1 q='' expires=-1 permanent='f' capabilities='' header='' call='' cseq=2147483647 type='' path=''\n");
    EXPECT_EQ(calls, "exec " + selection(time) + "\nexec " + removal(time) + "\n");
    EXPECT_EQ(trace.take(), presenceTrace({"flushExpiredContacts()", selection(time)}) +
                                answeredTrace(selection(time)) +
                                presenceTrace({"flushExpiredContacts retrieved 2 rows", removal(time)}) +
                                answeredTrace(removal(time), PGRES_COMMAND_OK) +
                                presenceTrace({"flushExpiredContacts retrieved 2 rows"}));
    EXPECT_EQ(executor.getErrorMessage(), kEarlierFailure);
}

TEST_F(ExpiredContacts, ThatAreNoneAreNotFoundAndNothingIsRemoved)
{
    EXPECT_EQ(flushed({noRows(7)}), "not found\n" + kExpiredBefore);
    EXPECT_EQ(calls, "exec " + selection(time) + "\n");
    EXPECT_EQ(traced(),
              presenceTrace({"flushExpiredContacts()", selection(time), "flushExpiredContacts retrieved 0 rows"}));
    EXPECT_EQ(executor.getErrorMessage(), kEarlierFailure);
}

TEST_F(ExpiredContacts, AreGivenEvenIfOthersRemovedThemInBetween)
{
    EXPECT_EQ(flushed({rows({kExpiredRow}), command("0")}), "okay\n" + kExpiredBefore + kExpired);
}

TEST_F(ExpiredContacts, AreAQueryErrorWhereTheirSelectionIsRefused)
{
    const std::string answer = flushed({refused("42601"), refused("42601")});
    EXPECT_EQ(answer, "query error: " + spliced(kRefused, selection(time)) + "\n" + kExpiredBefore);
    EXPECT_EQ(calls, "exec " + selection(time) + "\nreset\nexec " + selection(time) + "\n");
    EXPECT_EQ(traced(), presenceTrace({"flushExpiredContacts()", selection(time)}));
    EXPECT_EQ(executor.getErrorMessage(), spliced(kRefused, selection(time)));
}

TEST_F(ExpiredContacts, AreAConnectionErrorWhereTheirSelectionIsLost)
{
    EXPECT_EQ(flushed({nothing(), nothing()}), "connection error: fatal query error after reset\n" + kExpiredBefore);
    EXPECT_EQ(calls, "exec " + selection(time) + "\nreset\nexec " + selection(time) + "\n");
    EXPECT_EQ(executor.getErrorMessage(), "fatal query error after reset");
}

TEST_F(ExpiredContacts, AreAConnectionErrorWhereTheirRemovalIsRefused)
{
    const std::string answer = flushed({rows({kExpiredRow}), refused("42601"), refused("42601")});
    const std::string reason = spliced(kRefused, removal(time));
    EXPECT_EQ(answer, "connection error: " + reason + "\n" + kExpiredBefore);
    EXPECT_EQ(calls, "exec " + selection(time) + "\nexec " + removal(time) + "\nreset\nexec " + removal(time) + "\n");
    EXPECT_EQ(traced(), presenceTrace({"flushExpiredContacts()", selection(time),
                                       "flushExpiredContacts retrieved 1 rows", removal(time)}));
    EXPECT_EQ(executor.getErrorMessage(), reason);
}

TEST_F(ExpiredContacts, AreAConnectionErrorWhereTheirRemovalIsLost)
{
    libpq.resetsTo({CONNECTION_BAD});
    EXPECT_EQ(flushed({rows({kExpiredRow}), nothing()}),
              "connection error: fatal error, query failed\n" + kExpiredBefore);
    EXPECT_EQ(calls, "exec " + selection(time) + "\nexec " + removal(time) + "\nreset\n");
    EXPECT_EQ(executor.getErrorMessage(), "fatal error, query failed");
}

TEST_F(ExpiredContacts, AreSoughtAfterAReset)
{
    libpq.loseConnection();
    EXPECT_EQ(flushed({noRows(7)}), "not found\n" + kExpiredBefore);
    EXPECT_EQ(calls, "reset\nexec " + selection(time) + "\n");
}

TEST_F(ExpiredContacts, AreNotSoughtOnAConnectionLostForGood)
{
    libpq.loseConnection();
    libpq.resetsTo({CONNECTION_BAD});
    std::vector<ExtendedContactRecord> expired;
    EXPECT_EQ(show(executor.flushExpiredContacts(expired)), "connection error: " + kServerGone);
    EXPECT_EQ(show(expired), "");
    EXPECT_EQ(libpq.take(), "reset\n");
    EXPECT_EQ(trace.take(), presenceTrace({"flushExpiredContacts()"}));
}

TEST(ExpiredContactsWithoutAConnection, AreAConnectionError)
{
    const fake::Libpq libpq;
    TraceLog trace;
    PresenceDatabaseCommandExecutor executor;
    std::vector<ExtendedContactRecord> expired;
    EXPECT_EQ(show(executor.flushExpiredContacts(expired)),
              "connection error: attempt to execute a command with no database connection");
    EXPECT_EQ(trace.take(), presenceTrace({"flushExpiredContacts()"}));
}

TEST_F(ExpiredContacts, LeaveTheDefaultWhereAColumnIsNull)
{
    const std::string front =
        "of 'alice'@'oryx.example' sid=34 oid=0 contact -1 '' csid=-1 q='' expires=1600000000 permanent='f' capabilities='' header=";
    const std::vector<std::string> expected = {
        "of 'alice'@'oryx.example' sid=0 oid=0 contact -1 '' csid=-1 q='' expires=1600000000 permanent='f' capabilities='' header='<sip:alice@198.51.100.3>;q=0.7' call='cid@198.51.100.3' cseq=17 type='' path=''\n",
        front + "'' call='cid@198.51.100.3' cseq=17 type='' path=''\n",
        "of 'alice'@'oryx.example' sid=34 oid=0 contact -1 '' csid=-1 q='' expires=0 permanent='f' capabilities='' header='<sip:alice@198.51.100.3>;q=0.7' call='cid@198.51.100.3' cseq=17 type='' path=''\n",
        front + "'<sip:alice@198.51.100.3>;q=0.7' call='' cseq=17 type='' path=''\n",
        front + "'<sip:alice@198.51.100.3>;q=0.7' call='cid@198.51.100.3' cseq=0 type='' path=''\n",
        "of ''@'oryx.example' sid=34 oid=0 contact -1 '' csid=-1 q='' expires=1600000000 permanent='f' capabilities='' header='<sip:alice@198.51.100.3>;q=0.7' call='cid@198.51.100.3' cseq=17 type='' path=''\n",
        "of 'alice'@'' sid=34 oid=0 contact -1 '' csid=-1 q='' expires=1600000000 permanent='f' capabilities='' header='<sip:alice@198.51.100.3>;q=0.7' call='cid@198.51.100.3' cseq=17 type='' path=''\n",
    };
    for (std::size_t column = 0; column < kExpiredRow.size(); ++column) {
        EXPECT_EQ(flushed({rows({withNull(kExpiredRow, column)}), command("1")}),
                  "okay\n" + kExpiredBefore + expected[column])
            << "column " << column;
    }
}

} // namespace

} // namespace presenceLocationTest
