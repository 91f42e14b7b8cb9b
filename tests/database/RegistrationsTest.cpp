// Several REGISTER requests at once: each as if it had come alone.

#include "support/DatabaseTest.h"
#include "support/Proxy.h"
#include "support/ShowBindings.h"

#include <dal/LocationService.h>
#include <dal/Registration.h>
#include <gtest/gtest.h>
#include <zel/Trace.h>

#include <cstdlib>
#include <future>
#include <string>
#include <vector>

namespace registrationsTest {

namespace {

using oryx::RegisterContact;
using oryx::RegisterRequest;
using oryx::Registration;
using server::Proxy;

/// A request of that user's that binds a contact of that name.
Registration binds(const std::string& handle, const std::string& contact, std::uint32_t cseq = 1,
                   std::uint32_t expires = 3600)
{
    Registration made;
    made.handle = handle;
    made.domain = "oryx.example";
    made.request.callId = "call";
    made.request.cseq = cseq;
    made.request.contacts.resize(1);
    made.request.contacts.front().address = contact;
    made.request.contacts.front().expires = expires;
    return made;
}

class Registrations : public DatabaseTest {
protected:
    void SetUp() override
    {
        sql("INSERT INTO subscriber (sid, user_id, active) VALUES (1, 'alice', true), (2, 'bob', true),"
            " (3, 'carol', false), (4, 'dave', true)");
        sql("INSERT INTO contact_set (csid, sid) VALUES (11, 1), (12, 2), (13, 3), (14, 4)");
        sql("INSERT INTO public_address (handle, sip_domain, csid) VALUES ('alice', 'oryx.example', 11),"
            " ('bob', 'oryx.example', 12), ('carol', 'oryx.example', 13), ('dave', 'oryx.example', 14)");
        connect(m_service);
    }
    void connect(oryx::LocationService& service)
    {
        ASSERT_TRUE(service.connect(m_database.uri().c_str(), server::kUser, server::kPassword).okay());
    }

    /// The result, and behind it what each was answered.
    std::string apply(std::vector<Registration> all) { return apply(m_service, std::move(all)); }
    static std::string apply(oryx::LocationService& service, std::vector<Registration> all)
    {
        for (Registration& one : all) { // as of an earlier call
            one.answer.outcome = oryx::RegisterOutcome::tooManyBindings;
            one.answer.bindings.resize(2);
        }
        const oryx::DatabaseResult result = applyRegistrations(service, all);
        std::string text = outcome(result);
        for (const Registration& one : all) {
            text += "; " + show(one.answer.outcome);
            for (const oryx::LiveBinding& binding : one.answer.bindings) {
                text += " " + binding.address + "(" + std::to_string(binding.cseq) + ")";
            }
        }
        return text;
    }
    std::string stored() { return rows("SELECT csid, address, cseq FROM contact ORDER BY csid, address"); }

    oryx::LocationService m_service;
};

TEST_F(Registrations, AreEachAnsweredAsAlone)
{
    EXPECT_EQ(apply({}), "okay");
    EXPECT_EQ(apply({binds("alice", "a", 5)}), "okay; done a(5)");
    Registration many = binds("bob", "b");
    many.request.contacts.push_back(binds("bob", "c").request.contacts.front());
    many.request.maxBindings = 1;
    Registration all = binds("dave", "d");
    all.request.contacts.clear();
    all.request.removesAll = true;
    sql("INSERT INTO contact (csid, address) VALUES (14, 'gone')");
    EXPECT_EQ(apply({binds("nobody", "n"), binds("alice", "a", 4), many, all, binds("carol", "c"),
                     binds("alice", "a2", 4), binds("bob", "b2")}),
              "okay; unknown address; older request; too many bindings; done; inactive; done a(5) a2(4); done b2(1)");
    EXPECT_EQ(stored(), "11|a|5\n11|a2|4\n12|b2|1\n");
}

TEST_F(Registrations, OfOneAddressAreAppliedInTheirOrder)
{
    EXPECT_EQ(apply({binds("bob", "b", 1), binds("alice", "a", 1), binds("bob", "b", 2, 0), binds("bob", "b", 1, 60),
                     binds("bob", "b", 3)}),
              "okay; done b(1); done a(1); done; done b(1); done b(3)");
    EXPECT_EQ(stored(), "11|a|1\n12|b|3\n");
}

TEST_F(Registrations, AreOneTransactionWhereTheyAreBound)
{
    EXPECT_EQ(apply({binds("bob", "b"), binds("dave", "d"), binds("alice", "a")}),
              "okay; done b(1); done d(1); done a(1)");
    EXPECT_EQ(rows("SELECT count(DISTINCT xmin::text) FROM contact"), plainOrBound("3\n", "1\n"));
    // In the order of their addresses of record, whoever comes first.
    EXPECT_EQ(rows("SELECT csid FROM contact ORDER BY contact_id"), "11\n12\n14\n");
}

TEST_F(Registrations, AreTracedAsTheyAreSent)
{
    std::string traced;
    const zel::TraceSink before =
        zel::setTraceSink([&](std::string_view channel, zel::TraceKind /*kind*/, std::string_view text) {
            if (channel == "oryx") {
                traced.append(text).append("\n");
            }
        });
    apply({binds("bob", "b"), binds("alice", "a")});
    zel::setTraceSink(before);
    const std::string bound = "SELECT * FROM register_bindings(NULL, $1, $2, $3, $4, $5, $6, $7, $8)\n";
    EXPECT_EQ(
        traced,
        plainOrBound(
            "SELECT * FROM register_bindings(NULL, 'alice', 'oryx.example', 'call', 1, '', 0, 'f', '{{\"a\",\"3600\",\"\",\"\",\"\",\"\"}}')\n"
            "SELECT * FROM register_bindings(NULL, 'bob', 'oryx.example', 'call', 1, '', 0, 'f', '{{\"b\",\"3600\",\"\",\"\",\"\",\"\"}}')\n",
            "SELECT set_config('lock_timeout', $1, true)\n" + bound + bound));
}

TEST_F(Registrations, FailAloneWhereTheServerRefusesOne)
{
    Registration unreadable = binds("bob", "b");
    unreadable.request.path = "\xff";
    const std::string refused = apply({binds("dave", "d"), unreadable, binds("alice", "a")});
    EXPECT_EQ(refused, "query error: [22021] ERROR:  invalid byte sequence for encoding \"UTF8\": 0xff; done d(1); "
                       "failed; done a(1)");
    EXPECT_EQ(stored(), "11|a|1\n14|d|1\n");
}

TEST_F(Registrations, FailAloneWhereOneIsNoRequest)
{
    Registration both = binds("bob", "b");
    both.request.removesAll = true;
    EXPECT_EQ(apply({binds("dave", "d"), both, binds("alice", "a")}),
              "query error: contacts beside the removal of all; done d(1); failed; done a(1)");
    EXPECT_EQ(apply({binds("dave", ""), binds("alice", "a", 2)}),
              "query error: a contact without an address; failed; done a(2)");
    Registration cut = binds("alice", "cut");
    cut.handle.append(1, '\0').append("x");
    EXPECT_EQ(apply({cut, binds("dave", "d", 2)}),
              "query error: an address of record that holds a NUL; failed; done d(2)");
    cut = binds("alice", "cut");
    cut.domain.append(1, '\0').append("x");
    EXPECT_EQ(apply({cut}), "query error: an address of record that holds a NUL; failed");
    EXPECT_EQ(stored(), "11|a|2\n14|d|2\n");
}

TEST_F(Registrations, FailAllWithoutAConnection)
{
    oryx::LocationService never;
    EXPECT_EQ(apply(never, {binds("bob", "b"), binds("alice", "a")}),
              "connection error: lookup attempted without a database connection; failed; failed");
}

/// Whoever has locked the bindings of one.
TEST_F(Registrations, WaitForNobodyElsesBindings)
{
    apply({binds("alice", "a"), binds("bob", "b"), binds("dave", "d")});
    server::Session holder(m_database.name());
    holder.run("BEGIN; SELECT FROM contact WHERE csid = 11 FOR UPDATE");
    auto answer = std::async(std::launch::async, [&] {
        return apply({binds("alice", "a", 2), binds("bob", "b", 2), binds("dave", "d", 2), binds("bob", "b", 3),
                      binds("alice", "a", 3)});
    });
    const std::string others = "SELECT string_agg(csid || '.' || cseq, ' ' ORDER BY csid) FROM contact WHERE cseq > 1";
    const std::string applied = plainOrBound("NULL", "12.3 14.2");
    for (int look = 0; look < 3000 && m_session.value(others) != applied; ++look) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_EQ(m_session.value(others), applied);
    holder.run("COMMIT");
    EXPECT_EQ(answer.get(), "okay; done a(2); done b(2); done d(2); done b(3); done a(3)");
}

/// Two that wait for each other let go, long before the server would look for that.
TEST_F(Registrations, LetGoWhereSomebodyWaitsForThem)
{
    apply({binds("alice", "a"), binds("bob", "b")});
    sql("ALTER DATABASE " + m_database.name() + " SET deadlock_timeout = '1min'");
    server::Session sweep(m_database.name());
    connect(m_service);
    sweep.run("BEGIN; SELECT FROM contact WHERE csid = 12 FOR UPDATE");
    auto answer = std::async(std::launch::async, [&] { return apply({binds("alice", "a", 2), binds("bob", "b", 2)}); });
    EXPECT_NE(waitingBackend(), "");
    sweep.run("UPDATE contact SET qvalue = '0.5' WHERE csid = 11; COMMIT");
    EXPECT_EQ(answer.get(), "okay; done a(2); done b(2)");
    EXPECT_EQ(stored(), "11|a|2\n12|b|2\n");
}

/// Two servers with the same requests, each in another order.
TEST_F(Registrations, OfTwoServersDoNotWaitForEachOther)
{
    oryx::LocationService other;
    connect(other);
    for (std::uint32_t cseq = 1; cseq < 50; ++cseq) {
        std::vector<Registration> some{binds("alice", "a", cseq), binds("bob", "b", cseq), binds("dave", "d", cseq)};
        std::vector<Registration> others{some[2], some[1], some[0]};
        auto answer = std::async(std::launch::async, [&] { return apply(other, others); });
        const std::string number = "(" + std::to_string(cseq) + ")";
        EXPECT_EQ(apply(some), "okay; done a" + number + "; done b" + number + "; done d" + number);
        EXPECT_EQ(answer.get(), "okay; done d" + number + "; done b" + number + "; done a" + number);
    }
}

/// Requests of two transactions with some of each seldom wait for each other where they have nothing in common.
TEST_F(Registrations, OfManyContactSetsHaveManyTurns)
{
    server::Session holder(m_database.name());
    holder.run("BEGIN; SELECT take_registration_turn(11)");
    sql("SET lock_timeout = '100ms'");
    for (int distance = 1024; distance < 16384; distance *= 2) {
        EXPECT_NO_THROW(sql("SELECT take_registration_turn(11 + " + std::to_string(distance) + ")"));
    }
    EXPECT_ANY_THROW(sql("SELECT take_registration_turn(11 + 16384)"));
}

/// A later statement may wait for as long as ever.
TEST_F(Registrations, LeaveTheSessionAsItWas)
{
    apply({binds("alice", "a"), binds("bob", "b")});
    server::Session holder(m_database.name());
    holder.run("BEGIN; SELECT FROM contact WHERE csid = 11 FOR UPDATE");
    auto answer = std::async(std::launch::async, [&] { return apply({binds("alice", "a", 2)}); });
    EXPECT_NE(waitingBackend(), "");
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    holder.run("COMMIT");
    EXPECT_EQ(answer.get(), "okay; done a(2)");
    EXPECT_EQ(m_service.getStatistics().refusals, 0U);
}

class RegistrationsThroughProxy : public Registrations {
protected:
    void SetUp() override
    {
        setenv("PGPORT", m_proxy.port().c_str(), 1);
        Registrations::SetUp();
    }
    void TearDown() override
    {
        setenv("PGPORT", server::port().c_str(), 1);
        Registrations::TearDown();
    }

    Proxy m_proxy;
};

TEST_F(RegistrationsThroughProxy, AreAnsweredAsTheFirstTimeWhereTheirAnswerWasLost)
{
    m_proxy.lose({Proxy::Loss::answer});
    EXPECT_EQ(apply({binds("bob", "b"), binds("alice", "a"), binds("bob", "b2", 2), binds("nobody", "n")}),
              "okay; done b(1); done a(1); done b(1) b2(2); unknown address");
    EXPECT_EQ(stored(), "11|a|1\n12|b|1\n12|b2|2\n");
    m_proxy.lose({Proxy::Loss::answer});
    EXPECT_EQ(apply({binds("bob", "b", 3, 0), binds("alice", "a", 2), binds("bob", "b", 4)}),
              "okay; done b2(2); done a(2); done b2(2) b(4)");
    EXPECT_EQ(m_proxy.losses(), 2U);
}

TEST_F(RegistrationsThroughProxy, AllFailWhereTheConnectionIsLostForGood)
{
    m_proxy.lose({Proxy::Loss::request, Proxy::Loss::request, Proxy::Loss::request, Proxy::Loss::request});
    const std::string answer = apply({binds("bob", "b"), binds("alice", "a")});
    EXPECT_EQ(answer.substr(answer.find(';')), "; failed; failed");
    EXPECT_EQ(stored(), "");
}

} // namespace

} // namespace registrationsTest
