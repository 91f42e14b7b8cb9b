#include "support/DatabaseTest.h"
#include "support/Show.h"
#include "support/TraceLog.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <string>
#include <vector>

namespace locationServiceTest {

namespace {

class Service : public ServiceTest {
protected:
    std::string unregister(const std::vector<std::string>& addresses, int key = 42)
    {
        auto bindings = contacts(addresses);
        return outcome(m_service.unregisterContacts(key, bindings));
    }

    std::string update(std::vector<oryx::ContactRecord> bindings, int key = 42)
    {
        return outcome(m_service.updateContacts(key, bindings));
    }

    std::string key(const char* handle, const char* domain)
    {
        int key = -7;
        const oryx::DatabaseResult result = m_service.getPublicAddressKey(handle, domain, key);
        return outcome(result) + " " + std::to_string(key);
    }

    std::string addresses() { return rows("SELECT csid, address, expires FROM contact ORDER BY csid, contact_id"); }
};

// The clock that the sweep reads; std::time may lag behind it.
std::time_t now()
{
    return std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
}

const std::string kDuplicate =
    "query error: [23505] ERROR:  duplicate key value violates unique constraint \"contact_csid_address_key\"";
const std::string kBrokenByQuote = "query error: " + kBroken;

oryx::ContactRecord refreshed(const std::string& address)
{
    oryx::ContactRecord binding = contact(address);
    binding.setQvalue("1.0");
    binding.setExpires(2100000000);
    binding.setCapabilities("video");
    binding.setContactHeader("<sip:new>");
    binding.setCallId("another");
    binding.setCseq(1827);
    return binding;
}

TEST_F(Service, ReportsAConnectionErrorBeforeItIsConnected)
{
    oryx::LocationService unconnected;
    const std::string refused = "connection error: lookup attempted without a database connection";
    int key = 7;
    std::string text = "as before";
    bool flag = false;
    oryx::SubscriberRecord subscriber;
    std::vector<oryx::ContactRecord> bindings;
    std::vector<oryx::ProxyConfig> items;
    EXPECT_EQ(show(unconnected.getPublicAddressKey("alice", "oryx.example", key)), refused);
    EXPECT_EQ(show(unconnected.lookupSubscriber("alice", "oryx.example", subscriber)), refused);
    EXPECT_EQ(show(unconnected.lookupContacts(42, text, flag, bindings)), refused);
    EXPECT_EQ(show(unconnected.lookupContacts("alice", "oryx.example", text, flag, bindings)), refused);
    EXPECT_EQ(show(unconnected.registerContacts(42, bindings)), refused);
    EXPECT_EQ(show(unconnected.unregisterContacts(42, bindings)), refused);
    EXPECT_EQ(show(unconnected.updateContacts(42, bindings)), refused);
    EXPECT_EQ(show(unconnected.removeExpiredContacts()), refused);
    EXPECT_EQ(show(unconnected.getNodeType(text)), refused);
    EXPECT_EQ(show(unconnected.getProxyConfig("edge", items)), refused);
    EXPECT_EQ(key, 7);
    EXPECT_EQ(text, "as before");
}

TEST_F(Service, FailsInTheExecutorsCheckAfterARefusedConnect)
{
    const std::string refused = "connection error: connection to server at \"127.0.0.1\", port " + server::port() +
                                " failed: FATAL:  database \"oryx_nowhere\" does not exist\n";
    EXPECT_EQ(show(m_service.connect("postgresql://127.0.0.1/oryx_nowhere", server::kUser, server::kPassword)),
              refused);
    int key = 7;
    EXPECT_EQ(show(m_service.getPublicAddressKey("alice", "oryx.example", key)), refused);
    EXPECT_EQ(key, -1);
    EXPECT_EQ(show(m_service.connect(m_database.uri().c_str(), server::kUser, server::kPassword)), "okay");
    EXPECT_EQ(show(m_service.getPublicAddressKey("alice", "oryx.example", key)), "okay");
    EXPECT_EQ(key, 42);
    EXPECT_EQ(show(m_service.connect(nullptr, server::kUser, server::kPassword)),
              "connection error: missing connection parameters");
}

TEST_F(Service, FindsTheKeyOfAnAddressOfRecord)
{
    EXPECT_EQ(key("alice", "oryx.example"), "okay 42");
    EXPECT_EQ(key("bob", "oryx.example"), "not found -1");
    EXPECT_EQ(key(nullptr, "oryx.example"), "query error: invalid parameters -1");
    EXPECT_EQ(key("o'neill", "oryx.example"), plainOrBound(kBrokenByQuote, "not found") + " -1");
    EXPECT_EQ(key("alice", "oryx.example"), "okay 42");
}

TEST_F(Service, FindsTheSubscriberOfAnAddressOfRecord)
{
    oryx::SubscriberRecord expected;
    expected.setId(7);
    expected.setUserId("alice");
    expected.setType("home");
    expected.setAuthType("digest");
    expected.setPassword("wonderland");
    expected.setOid(3);
    oryx::SubscriberRecord found;
    EXPECT_EQ(show(m_service.lookupSubscriber("alice", "oryx.example", found)), "okay");
    EXPECT_EQ(show(found), show(expected));
    EXPECT_EQ(show(m_service.lookupSubscriber("bob", "oryx.example", found)), "not found");
    EXPECT_EQ(outcome(m_service.lookupSubscriber(nullptr, "oryx.example", found)),
              "connection error: invalid parameters passed to lookupSubscriber");
    // What goes wrong here is the statement; this lookup tells every failure as the connection's.
    EXPECT_EQ(outcome(m_service.lookupSubscriber("o'neill", "oryx.example", found)),
              plainOrBound("connection error: " + kBroken, "not found"));
    sql("REVOKE SELECT ON subscriber FROM oryx_server");
    EXPECT_EQ(outcome(m_service.lookupSubscriber("alice", "oryx.example", found)),
              "connection error: [42501] ERROR:  permission denied for table subscriber");
    EXPECT_EQ(show(found), show(expected));
}

TEST_F(Service, RegistersFindsRefreshesAndRemovesContacts)
{
    const std::vector<std::string> both{"sip:a@192.0.2.1", "sip:b@192.0.2.2"};
    EXPECT_EQ(registerAll(both), "okay");
    EXPECT_EQ(storedContacts(), "12|sip:a@192.0.2.1|0.7|2000000000|f|audio|<sip:a@192.0.2.1>;q=0.7|"
                                "843817637684230@998sdasdh09|1826|1\n"
                                "12|sip:b@192.0.2.2|0.7|2000000000|f|audio|<sip:b@192.0.2.2>;q=0.7|"
                                "843817637684230@998sdasdh09|1826|1\n");
    EXPECT_EQ(alicesContacts(), "okay\n" + show(contacts(both)));

    EXPECT_EQ(update({refreshed("sip:b@192.0.2.2")}), "okay");
    EXPECT_EQ(storedContacts(), "12|sip:a@192.0.2.1|0.7|2000000000|f|audio|<sip:a@192.0.2.1>;q=0.7|"
                                "843817637684230@998sdasdh09|1826|1\n"
                                "12|sip:b@192.0.2.2|1.0|2100000000|f|video|<sip:new>|another|1827|1\n");

    EXPECT_EQ(unregister(both), "okay");
    EXPECT_EQ(alicesContacts(), "okay\n");
    EXPECT_EQ(storedContacts(), "");
}

TEST_F(Service, FindsContactsByHandleAndDomainToo)
{
    EXPECT_EQ(registerAll({"sip:a@192.0.2.1"}), "okay");
    std::string ordering;
    bool replaceUri = false;
    std::vector<oryx::ContactRecord> found;
    EXPECT_EQ(show(m_service.lookupContacts("alice", "oryx.example", ordering, replaceUri, found)), "okay");
    EXPECT_EQ(show(found), show(contact("sip:a@192.0.2.1")));
    EXPECT_EQ(ordering, "sequential");
    EXPECT_TRUE(replaceUri);
    sql("UPDATE subscriber SET active = false");
    EXPECT_EQ(show(m_service.lookupContacts("alice", "oryx.example", ordering, replaceUri, found)), "not found");
    EXPECT_EQ(alicesContacts(), "not found\n");
}

TEST_F(Service, SendsNothingForNoContacts)
{
    const std::string last = "SELECT query FROM pg_stat_activity WHERE pid = " + backend();
    const std::string before = rows(last);
    EXPECT_EQ(registerAll({}), "okay");
    EXPECT_EQ(unregister({}), "okay");
    EXPECT_EQ(update({}), "okay");
    EXPECT_EQ(rows(last), before);
}

TEST_F(Service, RegistersAllContactsOrNone)
{
    EXPECT_EQ(registerAll({"sip:b@192.0.2.2"}), "okay");
    const std::string before = storedContacts();
    EXPECT_EQ(registerAll({"sip:a@192.0.2.1", "sip:b@192.0.2.2", "sip:c@192.0.2.3"}), kDuplicate);
    EXPECT_EQ(storedContacts(), before);
    EXPECT_EQ(sessionState(), "idle");
    EXPECT_EQ(registerAll({"sip:a@192.0.2.1", "sip:c@192.0.2.3"}), "okay");
    EXPECT_EQ(addresses(), "12|sip:b@192.0.2.2|2000000000\n"
                           "12|sip:a@192.0.2.1|2000000000\n"
                           "12|sip:c@192.0.2.3|2000000000\n");
}

TEST_F(Service, RegistersNoContactTwiceInOneRequest)
{
    EXPECT_EQ(registerAll({"sip:a@192.0.2.1", "sip:a@192.0.2.1"}), kDuplicate);
    EXPECT_EQ(storedContacts(), "");
}

TEST_F(Service, RegistersNothingUnderAKeyThatNobodyHas)
{
    auto bindings = contacts({"sip:a@192.0.2.1"});
    EXPECT_EQ(outcome(m_service.registerContacts(43, bindings)),
              "query error: [23502] ERROR:  null value in column \"csid\" of relation \"contact\" violates not-null "
              "constraint");
    EXPECT_EQ(storedContacts(), "");
    EXPECT_EQ(sessionState(), "idle");
    EXPECT_EQ(registerAll({"sip:a@192.0.2.1"}), "okay");
    EXPECT_EQ(unregister({"sip:a@192.0.2.1"}, 43), "okay");
    EXPECT_EQ(update({refreshed("sip:a@192.0.2.1")}, 43), "okay");
    EXPECT_EQ(addresses(), "12|sip:a@192.0.2.1|2000000000\n");
}

TEST_F(Service, StoresARequestWithAQuoteInAValueWholeOrNotAtAll)
{
    EXPECT_EQ(registerAll({"sip:b@192.0.2.2"}), "okay");
    const std::string b = "12|sip:b@192.0.2.2|2000000000\n";
    const std::string answer = plainOrBound(kBrokenByQuote, "okay");
    EXPECT_EQ(registerAll({"sip:a@192.0.2.1", "sip:o'neill@192.0.2.9"}), answer);
    EXPECT_EQ(addresses(), plainOrBound(b, b + "12|sip:a@192.0.2.1|2000000000\n12|sip:o'neill@192.0.2.9|2000000000\n"));
    EXPECT_EQ(update({refreshed("sip:b@192.0.2.2"), refreshed("sip:o'neill@192.0.2.9")}), answer);
    EXPECT_EQ(addresses(), plainOrBound(b, "12|sip:b@192.0.2.2|2100000000\n12|sip:a@192.0.2.1|2000000000\n"
                                           "12|sip:o'neill@192.0.2.9|2100000000\n"));
    EXPECT_EQ(unregister({"sip:b@192.0.2.2", "sip:o'neill@192.0.2.9"}), answer);
    EXPECT_EQ(addresses(), plainOrBound(b, "12|sip:a@192.0.2.1|2000000000\n"));
    EXPECT_EQ(sessionState(), "idle");
    EXPECT_EQ(registerAll({"sip:c@192.0.2.3"}), "okay");
}

TEST_F(Service, TracesTheNoticeThatARollbackFoundNoTransaction)
{
    TraceLog trace;
    // Refused in both ways of sending: for its quotes, and before it begins; or for its repetition.
    EXPECT_EQ(registerAll({"sip:o'neill@192.0.2.9", "sip:o'neill@192.0.2.9"}),
              plainOrBound(kBrokenByQuote, kDuplicate));
    const bool noticed =
        trace.take().find("DatabaseConnection prn: libpq MESSAGE: WARNING:  there is no transaction in progress\n") !=
        std::string::npos;
    EXPECT_EQ(noticed, !bound());
}

TEST_F(Service, LeavesAContactsPermanenceAndTypeToItsFirstRegistration)
{
    oryx::ContactRecord binding = contact("sip:a@192.0.2.1");
    binding.setPermanent('t');
    std::vector<oryx::ContactRecord> bindings{binding};
    EXPECT_EQ(show(m_service.registerContacts(42, bindings)), "okay");
    sql("UPDATE contact SET c_type = 'phone'");
    EXPECT_EQ(update({refreshed("sip:a@192.0.2.1")}), "okay");
    EXPECT_EQ(rows("SELECT permanent, c_type, expires FROM contact"), "t|phone|2100000000\n");
}

TEST_F(Service, RefreshesAndRemovesWhatIsNotThereWithoutFailing)
{
    EXPECT_EQ(registerAll({"sip:a@192.0.2.1"}), "okay");
    EXPECT_EQ(update({refreshed("sip:b@192.0.2.2"), refreshed("sip:a@192.0.2.1")}), "okay");
    EXPECT_EQ(addresses(), "12|sip:a@192.0.2.1|2100000000\n");
    EXPECT_EQ(unregister({"sip:b@192.0.2.2", "sip:a@192.0.2.1"}), "okay");
    EXPECT_EQ(addresses(), "");
}

TEST_F(Service, TouchesNoOtherContactSet)
{
    sql("INSERT INTO contact_set (csid, sid) VALUES (13, 7);"
        "INSERT INTO public_address (public_address_id, handle, sip_domain, csid) VALUES (43, 'lis', 'oryx.example', 13)");
    auto bindings = contacts({"sip:a@192.0.2.1"});
    bindings.front().setCsid(12);
    EXPECT_EQ(show(m_service.registerContacts(43, bindings)), "okay");
    EXPECT_EQ(registerAll({"sip:a@192.0.2.1"}), "okay");
    EXPECT_EQ(update({refreshed("sip:a@192.0.2.1")}, 43), "okay");
    EXPECT_EQ(addresses(), "12|sip:a@192.0.2.1|2000000000\n13|sip:a@192.0.2.1|2100000000\n");
    EXPECT_EQ(unregister({"sip:a@192.0.2.1"}), "okay");
    EXPECT_EQ(addresses(), "13|sip:a@192.0.2.1|2100000000\n");
}

TEST_F(Service, RegistersAThousandContactsInOneRequest)
{
    std::vector<oryx::ContactRecord> bindings;
    for (int i = 0; i < 1000; ++i) {
        bindings.push_back(contact("sip:a@192.0.2.1:" + std::to_string(10000 + i)));
    }
    EXPECT_EQ(show(m_service.registerContacts(42, bindings)), "okay");
    EXPECT_EQ(alicesContacts(), "okay\n" + show(bindings));
    bindings.push_back(contact("sip:last@192.0.2.2"));
    bindings.push_back(bindings.front());
    EXPECT_EQ(outcome(m_service.registerContacts(42, bindings)), kDuplicate);
    EXPECT_EQ(rows("SELECT count(*) FROM contact"), "1000\n");
    EXPECT_EQ(show(m_service.updateContacts(42, bindings)), "okay");
    EXPECT_EQ(show(m_service.unregisterContacts(42, bindings)), "okay");
    EXPECT_EQ(rows("SELECT count(*) FROM contact"), "0\n");
}

TEST_F(Service, KeepsTextsOfAnyLanguageAndLength)
{
    oryx::ContactRecord binding = contact("sip:\u00e5sa@b\u00fccher.example;x=%s%n");
    binding.setCapabilities("\u65e5\u672c\u8a9e \U0001f4de \\n {}$1");
    binding.setContactHeader(std::string(1024UL * 1024UL, 'x').c_str());
    std::vector<oryx::ContactRecord> bindings{binding};
    EXPECT_EQ(show(m_service.registerContacts(42, bindings)), "okay");
    EXPECT_EQ(alicesContacts(), "okay\n" + show(binding));
    EXPECT_EQ(show(m_service.updateContacts(42, bindings)), "okay");
    EXPECT_EQ(alicesContacts(), "okay\n" + show(binding));
}

TEST_F(Service, RefusesBytesThatAreNoText)
{
    auto bindings = contacts({"sip:\xff@192.0.2.1"});
    EXPECT_EQ(outcome(m_service.registerContacts(42, bindings)),
              "query error: [22021] ERROR:  invalid byte sequence for encoding \"UTF8\": 0xff");
    EXPECT_EQ(storedContacts(), "");
    EXPECT_EQ(registerAll({"sip:a@192.0.2.1"}), "okay");
}

TEST_F(Service, FindsExpiredContactsUntilTheyAreSweptAndShowsNoneAsPermanent)
{
    sql("INSERT INTO contact (csid, address, expires, permanent, path_vector) VALUES (12, 'gone', 1000000000, false, 'p'),"
        " (12, 'permanent', 1000000000, true, 'p'), (12, 'never', NULL, true, 'p')");
    const auto found = [&](const char* address, long expires) {
        oryx::ContactRecord binding;
        binding.setAddress(address);
        binding.setExpires(expires);
        return oryx::show(binding);
    };
    const auto lookup = [&] {
        std::string ordering;
        bool replaceUri = true;
        std::vector<oryx::ContactRecord> bindings;
        const auto result = m_service.lookupContacts(42, ordering, replaceUri, bindings);
        std::sort(bindings.begin(), bindings.end(),
                  [](const auto& a, const auto& b) { return a.address() < b.address(); });
        return outcome(result) + "\n" + oryx::show(bindings);
    };
    EXPECT_EQ(lookup(), "okay\n" + found("gone", 1000000000) + found("never", 0) + found("permanent", 1000000000));
    EXPECT_EQ(show(m_service.removeExpiredContacts()), "okay");
    EXPECT_EQ(lookup(), "okay\n" + found("never", 0) + found("permanent", 1000000000));
}

TEST_F(Service, SweepsExpiredContactsThatAreNotPermanent)
{
    // The boundary is the sweep's own second: what lies a minute off is on one side of it for sure.
    sql("INSERT INTO contact (csid, address, expires, permanent) SELECT 12, name, extract(epoch FROM now())::bigint + off,"
        " permanent FROM (VALUES ('gone', -60, false), ('long gone', -1000000000, false), ('here', 60, false),"
        " ('permanent', -60, true), ('later', 1000000000, false)) AS c (name, off, permanent);"
        "INSERT INTO contact (csid, address, expires, permanent) VALUES (12, 'never', NULL, false),"
        " (12, 'after 2038', 2147483648, false), (12, 'unknown', 1, NULL)");
    EXPECT_EQ(show(m_service.removeExpiredContacts()), "okay");
    EXPECT_EQ(rows("SELECT address FROM contact ORDER BY address"), "after 2038\nhere\nlater\nnever\npermanent\n");
    EXPECT_EQ(show(m_service.removeExpiredContacts()), "okay");
    EXPECT_EQ(rows("SELECT count(*) FROM contact"), "5\n");
}

TEST_F(Service, SparesContactsThatExpireInTheSecondOfTheSweep)
{
    // The clock may tick between the setting and the sweep: then the attempt says nothing, and the next one begins.
    std::string left;
    for (bool ticked = true; ticked;) {
        const std::time_t second = now();
        sql("DELETE FROM contact; INSERT INTO contact (csid, address, expires) VALUES (12, 'now', " +
            std::to_string(second) + "), (12, 'the second before', " + std::to_string(second - 1) + ")");
        EXPECT_EQ(show(m_service.removeExpiredContacts()), "okay");
        ticked = now() != second;
        left = rows("SELECT address FROM contact");
    }
    EXPECT_EQ(left, "now\n");
}

TEST_F(Service, SparesImportedContacts)
{
    sql("SELECT import_public_address(7, 'gateway', 'oryx.example', 'sip:gw@192.0.2.9')");
    EXPECT_EQ(show(m_service.removeExpiredContacts()), "okay");
    EXPECT_EQ(rows("SELECT address FROM contact"), "sip:gw@192.0.2.9\n");
}

TEST_F(Service, KnowsTheHostsNodeType)
{
    std::string nodeType = "as before";
    EXPECT_EQ(show(m_service.getNodeType(nodeType)), "not found");
    EXPECT_EQ(nodeType, "");
    sql("INSERT INTO host_info (node_type) VALUES ('branch')");
    EXPECT_EQ(show(m_service.getNodeType(nodeType)), "okay");
    EXPECT_EQ(nodeType, "branch");
    sql("UPDATE host_info SET node_type = ''");
    EXPECT_EQ(show(m_service.getNodeType(nodeType)), "not found");
    EXPECT_EQ(nodeType, "");
    nodeType = "as before";
    sql("UPDATE host_info SET node_type = NULL");
    EXPECT_EQ(show(m_service.getNodeType(nodeType)), "not found");
    EXPECT_EQ(nodeType, "");
}

TEST_F(Service, HandsOutAProxysConfiguration)
{
    sql("INSERT INTO proxy_configuration (proxy_name, scope, property_name, property_value)"
        " VALUES ('edge', 'sip', 'port', '5060')");
    std::vector<oryx::ProxyConfig> items(3);
    EXPECT_EQ(show(m_service.getProxyConfig("edge", items)), "okay");
    EXPECT_EQ(show(items), show(oryx::ProxyConfig("sip", "port", "5060")));
    EXPECT_EQ(show(m_service.getProxyConfig(nullptr, items)), "query error: null proxy name");
    EXPECT_EQ(show(m_service.getProxyConfig("core", items)), "okay");
    EXPECT_EQ(show(items), "");
}

TEST_F(Service, NamesTheFirstDomain)
{
    sql("INSERT INTO system_parameters VALUES ('oryxproxy', 'ServerInfo', 'ServerNames', 'oryx.example, example.com')");
    std::string domain;
    EXPECT_EQ(m_service.getDomainName(domain), "oryx.example");
}

} // namespace

} // namespace locationServiceTest
