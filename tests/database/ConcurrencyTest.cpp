#include "support/DatabaseTest.h"
#include "support/Show.h"

#include <gtest/gtest.h>
#include <zel/Trace.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <latch>
#include <string>
#include <vector>

namespace concurrencyTest {

namespace {

class Concurrency : public DatabaseTest {
protected:
    void SetUp() override
    {
        provisionAlice();
        sql("INSERT INTO system_parameters VALUES ('oryxproxy', 'ServerInfo', 'ServerNames', 'oryx.example')");
    }

    /// Runs the work on two threads that begin at once, each with a server of its own; both outcomes, in order.
    template <typename Server, typename Work>
    std::vector<std::string> both(const Work& work)
    {
        std::latch start(2);
        const auto run = [&](int number) {
            Server server;
            server.connect(m_database.uri().c_str(), server::kUser, server::kPassword);
            start.arrive_and_wait();
            return work(server, number);
        };
        auto other = std::async(std::launch::async, run, 1);
        std::vector<std::string> outcomes{run(0)};
        outcomes.push_back(other.get());
        std::sort(outcomes.begin(), outcomes.end());
        return outcomes;
    }
};

/// What a registrar does for one address of record, many times over; what it saw at the end.
std::string serve(oryx::LocationService& service, int number)
{
    const std::string address = "sip:device" + std::to_string(number) + "@192.0.2.1";
    auto bindings = contacts({address + ":1", address + ":2"});
    std::string seen;
    for (int round = 0; round < 20; ++round) {
        int key = 0;
        seen = std::to_string(number) + " " + outcome(service.getPublicAddressKey("alice", "oryx.example", key));
        seen += " " + std::to_string(key);
        seen += " " + outcome(service.registerContacts(key, bindings));
        seen += " " + outcome(service.updateContacts(key, bindings));
        std::string ordering;
        bool replaceUri = false;
        std::vector<oryx::ContactRecord> found;
        seen += " " + outcome(service.lookupContacts(key, ordering, replaceUri, found));
        seen += " " + ordering;
        std::erase_if(found, [&](const auto& contact) { return !contact.address().starts_with(address); });
        seen += found.size() == bindings.size() ? " both" : " " + show(found);
        seen += " " + outcome(service.removeExpiredContacts());
        seen += " " + outcome(service.unregisterContacts(key, bindings));
        std::string domain;
        seen += " " + service.getDomainName(domain);
    }
    return seen;
}

const std::string kAllWell = " okay 42 okay okay okay sequential both okay okay oryx.example";

TEST_F(Concurrency, OfTwoServicesLeavesEachItsOwn)
{
    std::atomic<int> lines = 0;
    zel::TraceSink former = zel::setTraceSink([&](auto, auto, auto) { ++lines; });
    EXPECT_EQ(both<oryx::LocationService>(serve), (std::vector<std::string>{"0" + kAllWell, "1" + kAllWell}));
    zel::setTraceSink(std::move(former));
    EXPECT_GT(lines, 0);
    EXPECT_EQ(storedContacts(), "");
}

TEST_F(Concurrency, RegistersAContactForOneOfTwo)
{
    for (int round = 0; round < 10; ++round) {
        auto outcomes = both<oryx::LocationService>([](oryx::LocationService& service, int /*number*/) {
            auto bindings = contacts({"sip:a@192.0.2.1", "sip:b@192.0.2.2"});
            return outcome(service.registerContacts(42, bindings));
        });
        EXPECT_EQ(outcomes,
                  (std::vector<std::string>{"okay", "query error: [23505] ERROR:  duplicate key value violates unique "
                                                    "constraint \"contact_csid_address_key\""}));
        EXPECT_EQ(rows("SELECT address FROM contact ORDER BY address"), "sip:a@192.0.2.1\nsip:b@192.0.2.2\n");
        sql("DELETE FROM contact");
    }
}

TEST_F(Concurrency, StoresOrRefreshesAContactForBoth)
{
    for (int round = 0; round < 10; ++round) {
        const auto outcomes =
            both<oryx::DatabaseCommandExecutor>([](oryx::DatabaseCommandExecutor& executor, int /*number*/) {
                oryx::ContactRecord binding = contact("sip:a@192.0.2.1");
                return std::to_string(executor.addContact("alice", "oryx.example", binding));
            });
        EXPECT_EQ(outcomes, (std::vector<std::string>{"0", "0"}));
        EXPECT_EQ(rows("SELECT address FROM contact"), "sip:a@192.0.2.1\n");
        sql("DELETE FROM contact");
    }
}

TEST_F(Concurrency, CreatesAnAddressOfRecordForOneOfTwo)
{
    for (int round = 0; round < 10; ++round) {
        const auto outcomes =
            both<oryx::DatabaseCommandExecutor>([](oryx::DatabaseCommandExecutor& executor, int /*number*/) {
                return std::to_string(executor.createPublicAddress(7, "lis", "oryx.example"));
            });
        EXPECT_EQ(outcomes, (std::vector<std::string>{"-1", "0"}));
        EXPECT_EQ(rows("SELECT handle FROM contact_set FULL JOIN public_address USING (csid) ORDER BY handle"),
                  "alice\nlis\n");
        sql("DELETE FROM contact_set WHERE csid <> 12");
    }
}

} // namespace

} // namespace concurrencyTest
