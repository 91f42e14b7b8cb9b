#include "support/DatabaseTest.h"
#include "support/Proxy.h"
#include "support/Show.h"
#include "support/TraceLog.h"

#include <dal/QueryResult.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <future>
#include <string>
#include <vector>

namespace lostConnectionTest {

namespace {

using server::Proxy;

/// A fixture whose library is connected through a proxy.
template <typename Base>
class Proxied : public Base {
protected:
    Proxied() { setenv("PGPORT", m_proxy.port().c_str(), 1); }

    /// The connection is lost, unknown to the library, and cannot be had again.
    void loseServer()
    {
        m_proxy.refuse(true);
        m_proxy.hangUp();
    }

    /// What a connection attempt is answered while nobody listens.
    std::string refusal() const
    {
        return "connection to server at \"127.0.0.1\", port " + m_proxy.port() +
               " failed: Connection refused\n"
               "\tIs the server running on that host and accepting TCP/IP connections?\n";
    }

    /// What the call is answered that finds the connection lost, where nobody listens.
    std::string notReset() const { return plainOrBound("fatal query error, connection reset failed", refusal()); }

    Proxy m_proxy;
};

class LostService : public Proxied<ServiceTest> {
protected:
    std::string unregister(const std::vector<std::string>& addresses)
    {
        auto bindings = contacts(addresses);
        return outcome(m_service.unregisterContacts(42, bindings));
    }

    std::string update(const std::string& address)
    {
        auto bindings = contacts({address});
        bindings.front().setExpires(2100000000);
        return outcome(m_service.updateContacts(42, bindings));
    }

    std::string addresses() { return rows("SELECT address, expires FROM contact ORDER BY contact_id"); }
};

class LostExecutor : public Proxied<ExecutorTest> {
protected:
    void SetUp() override
    {
        ExecutorTest::SetUp();
        provisionAlice();
    }

    void loseAnswer() { m_proxy.lose({Proxy::Loss::answer}); }
};

const std::string kA = "sip:a@192.0.2.1";
const std::string kB = "sip:b@192.0.2.2";
const std::string kC = "sip:c@192.0.2.3";
const std::string kRowOfA = kA + "|2000000000\n";
const std::string kRefreshedA = kA + "|2100000000\n";

const std::string kDuplicate =
    "query error: [23505] ERROR:  duplicate key value violates unique constraint \"contact_csid_address_key\"";
const std::string kClosed = "[00000] server closed the connection unexpectedly";
/// Plain statements tell what libpq said of the statement; bound ones have nothing but the connection's failure.
const std::string kLostTwice =
    plainOrBound("query error: " + kClosed, "connection error: fatal query error after reset");

TEST_F(LostService, IsReplacedUnnoticedBetweenTwoRequests)
{
    EXPECT_EQ(registerAll({kA}), "okay");
    const std::string former = backend();
    m_proxy.hangUp();
    EXPECT_EQ(alicesContacts(), "okay\n" + show(contact(kA)));
    m_proxy.hangUp();
    EXPECT_EQ(update(kA), "okay");
    m_proxy.hangUp();
    EXPECT_EQ(registerAll({kB}), "okay");
    EXPECT_EQ(addresses(), kRefreshedA + kB + "|2000000000\n");
    EXPECT_NE(backend(), former);
}

TEST_F(LostService, IsReplacedAfterItsBackendWasTerminated)
{
    const std::string former = backend();
    terminate(former);
    TraceLog trace;
    EXPECT_EQ(registerAll({kA}), "okay");
    const std::string retried = plainOrBound("DatabaseConnection prn: fatal error, retrying after: PGRES_FATAL_ERROR\n",
                                             "DatabaseConnection prn: connection reset, retrying query\n");
    EXPECT_NE(trace.take().find(retried), std::string::npos);
    EXPECT_EQ(addresses(), kRowOfA);
    EXPECT_NE(backend(), former);
}

TEST_F(LostService, SendsALostRequestAgain)
{
    m_proxy.lose({Proxy::Loss::request});
    EXPECT_EQ(registerAll({kA}), "okay");
    EXPECT_EQ(addresses(), kRowOfA);
    m_proxy.lose({Proxy::Loss::request});
    EXPECT_EQ(update(kA), "okay");
    EXPECT_EQ(addresses(), kRefreshedA);
    m_proxy.lose({Proxy::Loss::request});
    EXPECT_EQ(unregister({kA}), "okay");
    EXPECT_EQ(addresses(), "");
}

TEST_F(LostService, ShowsARegistrationThatTookEffectAndWasSentAgain)
{
    m_proxy.lose({Proxy::Loss::answer});
    EXPECT_EQ(registerAll({kA, kB}), plainOrBound(kDuplicate, "okay"));
    EXPECT_EQ(addresses(), kRowOfA + kB + "|2000000000\n");
    EXPECT_EQ(sessionState(), "idle");
    EXPECT_EQ(registerAll({kC}), "okay");
}

TEST_F(LostService, RefreshesAndRemovesTheSameTwiceOver)
{
    EXPECT_EQ(registerAll({kA, kB}), "okay");
    m_proxy.lose({Proxy::Loss::answer});
    EXPECT_EQ(update(kA), "okay");
    EXPECT_EQ(addresses(), kRefreshedA + kB + "|2000000000\n");
    m_proxy.lose({Proxy::Loss::answer});
    EXPECT_EQ(unregister({kB}), "okay");
    EXPECT_EQ(addresses(), kRefreshedA);
}

TEST_F(LostService, GivesUpWhenTheConnectionIsLostTwice)
{
    m_proxy.lose({Proxy::Loss::request, Proxy::Loss::request});
    EXPECT_EQ(registerAll({kA}), kLostTwice);
    EXPECT_EQ(addresses(), "");
    EXPECT_EQ(registerAll({kA}), "okay");
    EXPECT_EQ(addresses(), kRowOfA);
}

TEST_F(LostService, TellsThatTheServerIsGoneAndServesOnWhenItIsBack)
{
    EXPECT_EQ(registerAll({kA}), "okay");
    loseServer();
    EXPECT_EQ(alicesContacts(), "connection error: " + notReset() + "\n");
    EXPECT_EQ(alicesContacts(), "connection error: " + refusal() + "\n");
    EXPECT_EQ(registerAll({kB}), "connection error: " + refusal());
    EXPECT_EQ(update(kA), "connection error: " + refusal());
    EXPECT_EQ(unregister({kA}), "connection error: " + refusal());
    m_proxy.refuse(false);
    EXPECT_EQ(alicesContacts(), "okay\n" + show(contact(kA)));
    EXPECT_EQ(update(kA), "okay");
    EXPECT_EQ(addresses(), kRefreshedA);
}

TEST_F(LostService, TellsTheStatementsFailureWhenAWriterFindsTheServerGone)
{
    loseServer();
    EXPECT_EQ(registerAll({kA}), plainOrBound("query error: " + kClosed, "connection error: " + refusal()));
    m_proxy.refuse(false);
    EXPECT_EQ(addresses(), "");
    EXPECT_EQ(registerAll({kA}), "okay");
}

TEST_F(LostService, KeepsWhatTookEffectBeforeTheServerWasGone)
{
    m_proxy.refuse(true);
    m_proxy.lose({Proxy::Loss::answer});
    EXPECT_EQ(registerAll({kA}), plainOrBound("query error: " + kClosed, "connection error: " + refusal()));
    EXPECT_EQ(addresses(), kRowOfA);
    m_proxy.refuse(false);
    EXPECT_EQ(registerAll({kA}), kDuplicate);
    EXPECT_EQ(addresses(), kRowOfA);
    EXPECT_EQ(unregister({kA}), "okay");
}

TEST_F(LostService, TellsTheFirstFailureAlsoWhenTheRollbackIsLost)
{
    EXPECT_EQ(registerAll({kA}), "okay");
    // The statement and its repetition come first.
    m_proxy.lose({Proxy::Loss::nothing, Proxy::Loss::nothing, Proxy::Loss::request});
    EXPECT_EQ(registerAll({kB, kA}), kDuplicate);
    EXPECT_EQ(addresses(), kRowOfA);
    EXPECT_EQ(registerAll({kB}), "okay");
}

TEST_F(LostService, RepeatsARefreshThatWasCutOffWaiting)
{
    EXPECT_EQ(registerAll({kA}), "okay");
    std::future<std::string> refresh; // waited for after the lock has gone, whatever happens
    server::Session other(m_database.name());
    other.run("BEGIN; UPDATE contact SET cseq = 1");
    refresh = std::async(std::launch::async, [this] { return update(kA); });
    const std::string first = waitingBackend();
    terminate(first);
    EXPECT_NE(waitingBackend(first), first);
    other.run("COMMIT");
    EXPECT_EQ(refresh.get(), "okay");
    EXPECT_EQ(rows("SELECT address, expires, cseq FROM contact"), kA + "|2100000000|1826\n");
}

TEST_F(LostService, StoresNothingOfARegistrationThatWasCutOffTwice)
{
    std::future<std::string> registration;
    server::Session other(m_database.name());
    other.run("BEGIN; INSERT INTO contact (csid, address) VALUES (12, '" + kB + "')");
    registration = std::async(std::launch::async, [this] { return registerAll({kA, kB, kC}); });
    const std::string first = waitingBackend();
    terminate(first);
    const std::string second = waitingBackend(first);
    EXPECT_NE(second, first);
    terminate(second);
    EXPECT_EQ(registration.get(), kLostTwice);
    other.run("ROLLBACK");
    EXPECT_EQ(addresses(), "");
    EXPECT_EQ(registerAll({kA, kB, kC}), "okay");
    EXPECT_EQ(rows("SELECT count(*) FROM contact"), "3\n");
}

TEST_F(LostService, StoresNothingOfARegistrationThatAnotherOneForestalled)
{
    std::future<std::string> registration;
    server::Session other(m_database.name());
    other.run("BEGIN; INSERT INTO contact (csid, address, expires) VALUES (12, '" + kB + "', 1)");
    registration = std::async(std::launch::async, [this] { return registerAll({kA, kB, kC}); });
    EXPECT_NE(waitingBackend(), "");
    other.run("COMMIT");
    EXPECT_EQ(registration.get(), kDuplicate);
    EXPECT_EQ(addresses(), kB + "|1\n");
}

TEST_F(LostExecutor, IsResetByTheCheckOnceTheServerIsBack)
{
    loseServer();
    oryx::HostInfo info;
    EXPECT_EQ(show(m_executor.getHostInfo(info)), "connection error: " + notReset());
    EXPECT_FALSE(m_executor.checkConnect());
    EXPECT_EQ(reason(), refusal());
    m_proxy.refuse(false);
    EXPECT_TRUE(m_executor.checkConnect());
    EXPECT_EQ(sessionState(), "idle");
    EXPECT_EQ(show(m_executor.getHostInfo(info)), "not found");
}

TEST_F(LostExecutor, StopsAtTheConnectionErrorWhereItReadsTheOutcomeItself)
{
    loseServer();
    int count = -7;
    EXPECT_FALSE(m_executor.executeUpdate("UPDATE subscriber SET oid = 9", count));
    EXPECT_EQ(reason(), notReset());
    EXPECT_EQ(count, -7);
    m_proxy.refuse(false);
    ASSERT_TRUE(m_executor.checkConnect());

    loseServer();
    TraceLog trace;
    oryx::DatabaseResult result;
    oryx::QueryResult rolledBack;
    m_executor.transactionExecute("UPDATE subscriber SET oid = 9", result, rolledBack, true);
    EXPECT_EQ(show(result), "connection error: " + notReset());
    EXPECT_EQ(rolledBack.getSqlCommand(), "ROLLBACK;");
    EXPECT_EQ(trace.take("DatabaseCommandExecutor"),
              "DatabaseCommandExecutor prn: ******** transactionExecute(): cmd=\nUPDATE subscriber SET oid = 9\n"
              "DatabaseCommandExecutor prn: execute update failed\n"
              "DatabaseCommandExecutor prn: rollback execution failed\n\n");
    EXPECT_EQ(rows("SELECT oid FROM subscriber"), "3\n");
}

TEST_F(LostExecutor, TellsEachOperationThatTheServerIsGone)
{
    loseServer();
    EXPECT_EQ(m_executor.changeSubscriberPassword(7, "looking glass"), -1);
    EXPECT_EQ(reason(), notReset());

    oryx::SubscriberRecord subscriber;
    subscriber.setId(8);
    oryx::ContactSetRecord set;
    oryx::PublicAddressRecord address("bob", "oryx.example", 12, nullptr);
    oryx::ContactRecord binding = contact(kA);
    EXPECT_EQ(m_executor.addSubscriber(subscriber), -1);
    EXPECT_EQ(m_executor.lookupSubscriber("alice", "oryx.example", subscriber), -1);
    EXPECT_EQ(m_executor.removeSubscriber(7), -1);
    EXPECT_EQ(m_executor.changeSubscriberPassword(7, "looking glass"), -1);
    EXPECT_EQ(m_executor.createPublicAddress(7, "bob", "oryx.example"), -1);
    EXPECT_EQ(m_executor.aliasPublicAddress("alice", "oryx.example", "lis"), -1);
    EXPECT_EQ(m_executor.addPublicAddress(address), -1);
    EXPECT_EQ(m_executor.importPublicAddress(7, "bob", "oryx.example", "sip:b"), -1);
    EXPECT_EQ(m_executor.addContact("alice", "oryx.example", binding), -1);
    EXPECT_EQ(m_executor.addContact(binding), -1);
    EXPECT_EQ(m_executor.removeContact("alice", "oryx.example", kA.c_str()), 0);
    EXPECT_EQ(reason(), refusal());

    const std::string refused = "connection error: " + refusal();
    std::string ordering = "as before";
    bool replaceUri = false;
    std::vector<oryx::ContactRecord> found(1);
    std::vector<oryx::AddressMapRecord> maps(1);
    std::vector<oryx::ProxyConfig> items(1);
    std::vector<oryx::DomainAccess> rules(1);
    EXPECT_EQ(show(m_executor.addContactSet(set)), refused);
    EXPECT_EQ(show(m_executor.lookupPublicAddress("alice", "oryx.example", address)), refused);
    EXPECT_EQ(show(m_executor.lookupContacts("alice", "oryx.example", ordering, replaceUri, found)), refused);
    EXPECT_EQ(show(m_executor.lookupContacts(42, ordering, replaceUri, found)), refused);
    EXPECT_EQ(show(m_executor.lookupContacts(ordering, 12, replaceUri, found)), refused);
    EXPECT_EQ(show(m_executor.getAddressMaps(maps)), refused);
    EXPECT_EQ(show(m_executor.getProxyConfig("edge", items)), refused);
    EXPECT_EQ(show(m_executor.getDomainAccessList(rules)), refused);
    EXPECT_EQ(found.size() + maps.size() + items.size() + rules.size(), 4U);
    EXPECT_EQ(ordering, "as before");
    EXPECT_TRUE(replaceUri);
    EXPECT_EQ(rows("SELECT sid, s_password FROM subscriber"), "7|wonderland\n");
}

TEST_F(LostExecutor, ShowsACreationThatTookEffectAndWasSentAgain)
{
    const std::string taken =
        "[23505] ERROR:  duplicate key value violates unique constraint \"public_address_handle_sip_domain_key\"";
    loseAnswer();
    EXPECT_EQ(m_executor.createPublicAddress(7, "bob", "oryx.example"), -1);
    EXPECT_EQ(reason(), taken);
    loseAnswer();
    EXPECT_EQ(m_executor.importPublicAddress(7, "gateway", "oryx.example", kA.c_str()), -1);
    EXPECT_EQ(reason(), taken);
    loseAnswer();
    EXPECT_EQ(m_executor.aliasPublicAddress("bob", "oryx.example", "robert"), -1);
    EXPECT_EQ(reason(), taken);
    // Each once, and no contact set without its address.
    EXPECT_EQ(rows("SELECT handle, contact.address FROM contact_set FULL JOIN public_address USING (csid)"
                   " LEFT JOIN contact USING (csid) ORDER BY handle"),
              "alice|NULL\nbob|NULL\ngateway|" + kA + "\nrobert|NULL\n");
}

TEST_F(LostExecutor, ShowsAnInsertionThatTookEffectAndWasSentAgain)
{
    oryx::SubscriberRecord bob;
    bob.setId(8);
    loseAnswer();
    EXPECT_EQ(m_executor.addSubscriber(bob), 0);
    EXPECT_EQ(reason(), "[23505] ERROR:  duplicate key value violates unique constraint \"subscriber_pkey\"");
    EXPECT_EQ(rows("SELECT count(*) FROM subscriber"), "2\n");

    oryx::ContactSetRecord set;
    set.setSid(8);
    set.setCsid(13);
    loseAnswer();
    EXPECT_EQ(outcome(m_executor.addContactSet(set)),
              "query error: [23505] ERROR:  duplicate key value violates unique constraint \"contact_set_pkey\"");

    oryx::ContactRecord binding = contact(kA);
    binding.setCsid(13);
    loseAnswer();
    EXPECT_EQ(m_executor.addContact(binding), plainOrBound(-1, 0));
    if (!bound()) {
        EXPECT_EQ(reason(),
                  "[23505] ERROR:  duplicate key value violates unique constraint \"contact_csid_address_key\"");
    }
    EXPECT_EQ(rows("SELECT csid, address FROM contact_set LEFT JOIN contact USING (csid) ORDER BY csid"),
              "12|NULL\n13|" + kA + "\n");
}

TEST_F(LostExecutor, RepeatsUnnoticedWhatMayHappenTwice)
{
    oryx::ContactRecord binding = contact(kA);
    loseAnswer();
    EXPECT_EQ(m_executor.addContact("alice", "oryx.example", binding), 0);
    EXPECT_EQ(rows("SELECT address FROM contact"), kA + "\n");
    loseAnswer();
    EXPECT_EQ(m_executor.removeContact("alice", "oryx.example", kA.c_str()), 0);
    EXPECT_EQ(rows("SELECT count(*) FROM contact"), "0\n");
    loseAnswer();
    EXPECT_EQ(m_executor.changeSubscriberPassword(7, "looking glass"), 1);
    loseAnswer();
    EXPECT_EQ(m_executor.removeSubscriber(7), 1);
    EXPECT_EQ(rows("SELECT count(*) FROM subscriber"), "0\n");
}

} // namespace

} // namespace lostConnectionTest
