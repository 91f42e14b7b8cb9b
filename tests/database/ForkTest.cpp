// A service that a child process inherits: the parent keeps its connection, and the child makes one of its own.

#include "support/Child.h"
#include "support/DatabaseTest.h"
#include "support/Proxy.h"

#include <dal/PresenceService.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>

namespace forkTest {

namespace {

class Fork : public ServiceTest {
protected:
    std::string lookUp(const std::string& handle)
    {
        int key = 0;
        const oryx::DatabaseResult result = m_service.getPublicAddressKey(handle.c_str(), "oryx.example", key);
        return result.okay() ? std::to_string(key) : outcome(result);
    }
};

TEST_F(Fork, LeavesTheParentItsConnection)
{
    EXPECT_EQ(lookUp("alice"), "42");
    const std::string before = backend();
    EXPECT_EQ(saidInChild([this] { return lookUp("alice"); }), "42");
    EXPECT_EQ(lookUp("alice"), "42");
    EXPECT_EQ(rows("SELECT pid FROM pg_stat_activity WHERE pid = " + before), before + "\n");
}

TEST_F(Fork, LeavesTheParentItsConnectionWhereTheChildOnlyEndsIt)
{
    const std::string before = backend();
    EXPECT_EQ(saidInChild([this] {
                  m_service.~LocationService();
                  new (&m_service) oryx::LocationService;
                  return "ended";
              }),
              "ended");
    EXPECT_EQ(lookUp("alice"), "42");
    EXPECT_EQ(rows("SELECT pid FROM pg_stat_activity WHERE pid = " + before), before + "\n");
}

TEST_F(Fork, LetsEachProcessMakeItsOwnChanges)
{
    EXPECT_EQ(registerAll({"sip:before@192.0.2.1"}), "okay");
    EXPECT_EQ(saidInChild([this] { return registerAll({"sip:child@192.0.2.1"}); }), "okay");
    EXPECT_EQ(registerAll({"sip:parent@192.0.2.1"}), "okay");
    EXPECT_EQ(saidInChild([this] { return registerAll({"sip:second@192.0.2.1"}); }), "okay");
    EXPECT_EQ(rows("SELECT address FROM contact ORDER BY contact_id"),
              "sip:before@192.0.2.1\nsip:child@192.0.2.1\nsip:parent@192.0.2.1\nsip:second@192.0.2.1\n");
    EXPECT_EQ(rows("SELECT count(DISTINCT session) FROM sending"), plainOrBound("0\n", "3\n")); // each by its own name
}

TEST_F(Fork, LeavesTheChildsChangesApartFromTheParentsRepetitions)
{
    server::Proxy proxy;
    setenv("PGPORT", proxy.port().c_str(), 1);
    ASSERT_TRUE(m_service.connect(m_database.uri().c_str(), server::kUser, server::kPassword).okay());
    EXPECT_EQ(registerAll({"sip:before@192.0.2.1"}), "okay");
    EXPECT_EQ(saidInChild([this] { return registerAll({"sip:child@192.0.2.1"}); }), "okay");
    proxy.lose({server::Proxy::Loss::request}); // of the parent's change that has the number of the child's
    EXPECT_EQ(registerAll({"sip:parent@192.0.2.1"}), "okay");
    EXPECT_EQ(rows("SELECT address FROM contact ORDER BY contact_id"),
              "sip:before@192.0.2.1\nsip:child@192.0.2.1\nsip:parent@192.0.2.1\n");
}

TEST_F(Fork, GivesEachProcessItsOwnAnswers)
{
    sql("INSERT INTO public_address (public_address_id, handle, sip_domain, csid) VALUES (43, 'bob', 'oryx.example', 12)");
    const auto lookUpOften = [this](const std::string& handle, const std::string& key) {
        int wrong = 0;
        for (int i = 0; i < 500; ++i) {
            wrong += lookUp(handle) == key ? 0 : 1;
        }
        return wrong;
    };
    Child child([&] { return std::to_string(lookUpOften("bob", "43")); });
    EXPECT_EQ(lookUpOften("alice", "42"), 0);
    EXPECT_EQ(child.said(), "0");
}

TEST_F(Fork, LetsAnEventServerAndItsChildrenRunEachOnItsOwn)
{
    oryx::PresenceService service;
    ASSERT_TRUE(service.connect(m_database.uri().c_str(), server::kUser, server::kPassword).okay());
    const auto find = [&] {
        int id = 0;
        return outcome(service.getListId("friends", &id));
    };
    EXPECT_EQ(saidInChild([&] { return find() + ", " + saidInChild(find) + ", " + find(); }),
              "not found, not found, not found");
    EXPECT_EQ(find(), "not found");
}

TEST_F(Fork, IsNotHungByAThreadThatReadsTheDomainList)
{
    std::atomic<bool> done = false;
    std::thread reader([&] {
        std::string name;
        while (!done) {
            m_service.getDomainName(name);
        }
    });
    oryx::LocationService other;
    ASSERT_TRUE(other.connect(m_database.uri().c_str(), server::kUser, server::kPassword).okay());
    sql("INSERT INTO system_parameters (application, scope, name, value)"
        " VALUES ('oryxproxy', 'ServerInfo', 'ServerNames', 'oryx.example')");
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(saidInChild([&] {
                      std::string name;
                      return other.getDomainName(name);
                  }),
                  "oryx.example");
    }
    done = true;
    reader.join();
}

} // namespace

} // namespace forkTest
