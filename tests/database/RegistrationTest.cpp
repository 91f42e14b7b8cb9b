// REGISTER requests as a whole, and the live bindings that they leave.

#include "support/DatabaseTest.h"
#include "support/Proxy.h"
#include "support/ShowBindings.h"

#include <dal/LocationService.h>
#include <dal/Registration.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <future>
#include <string>
#include <thread>
#include <vector>

namespace registrationTest {

namespace {

using oryx::RegisterAnswer;
using oryx::RegisterContact;
using oryx::RegisterRequest;
using server::Proxy;

const std::string kA = "sip:a@192.0.2.1";
const std::string kB = "sip:b@192.0.2.2";
const std::string kC = "sip:c@192.0.2.3";

RegisterContact binding(const std::string& address, std::uint32_t expires = 3600, const std::string& qvalue = "")
{
    RegisterContact contact;
    contact.address = address;
    contact.expires = expires;
    contact.qvalue = qvalue;
    return contact;
}

RegisterRequest request(std::uint32_t cseq, std::vector<RegisterContact> contacts, const std::string& callId = "call")
{
    RegisterRequest made;
    made.callId = callId;
    made.cseq = cseq;
    made.contacts = std::move(contacts);
    return made;
}

RegisterRequest removal(std::uint32_t cseq, const std::string& callId = "call")
{
    RegisterRequest made = request(cseq, {}, callId);
    made.removesAll = true;
    return made;
}

/// A registrar with an answer as a test reads it: the outcome, and of each binding what matters most.
struct Registrar {
    oryx::LocationService service;

    void connect(const std::string& uri)
    {
        ASSERT_TRUE(service.connect(uri.c_str(), server::kUser, server::kPassword).okay());
    }

    std::string apply(const RegisterRequest& request, int key = 42)
    {
        RegisterAnswer answer;
        const oryx::DatabaseResult result = applyRegistration(service, key, request, answer);
        return told(result, answer);
    }
    std::string apply(const char* handle, const char* domain, const RegisterRequest& request)
    {
        RegisterAnswer answer;
        const oryx::DatabaseResult result = applyRegistration(service, handle, domain, request, answer);
        return told(result, answer);
    }

    static std::string told(const oryx::DatabaseResult& result, const RegisterAnswer& answer)
    {
        std::string text = outcome(result) + ", " + show(answer.outcome);
        for (const oryx::LiveBinding& one : answer.bindings) {
            text += "; " + one.address.substr(0, one.address.find('@')) + " " +
                    (one.expires ? std::to_string(*one.expires) : "for good") + " " + std::to_string(one.cseq);
        }
        return text;
    }
};

const std::string kDone = "okay, done";
const std::string kOlder = "constraint error: a newer request of the call came before, older request";
const std::string kMany = "constraint error: there would be too many bindings, too many bindings";

class Registration : public DatabaseTest {
protected:
    void SetUp() override
    {
        provisionAlice();
        setSecond(1000000);
        m_registrar.connect(m_database.uri());
    }

    /// The database's clock stands still at that second.
    void setSecond(long second)
    {
        sql("CREATE OR REPLACE FUNCTION current_second() RETURNS bigint LANGUAGE sql STABLE RETURN " +
            std::to_string(second) + "::bigint");
    }

    std::string apply(const RegisterRequest& request) { return m_registrar.apply(request); }
    std::string stored() { return rows("SELECT address, expires, call_id, cseq FROM contact ORDER BY contact_id"); }

    Registrar m_registrar;
};

TEST_F(Registration, StoresEverythingOfABindingAndGivesItBack)
{
    RegisterRequest whole = request(4711, {binding(kA, 3600, "0.25")}, "843817637684230@998sdasdh09");
    whole.path = "<sip:edge1.oryx.example;lr>, <sip:edge2.oryx.example;lr>";
    whole.contacts.front().contactHeader = "<sip:a@192.0.2.1>;q=0.25;expires=3600";
    whole.contacts.front().capabilities = "audio";
    whole.contacts.front().type = "mobile";
    RegisterAnswer answer;
    EXPECT_EQ(outcome(applyRegistration(m_registrar.service, 42, whole, answer)), "okay");
    EXPECT_EQ(show(answer),
              "done\n'sip:a@192.0.2.1' 3600 s q='0.25' (250) path='<sip:edge1.oryx.example;lr>, "
              "<sip:edge2.oryx.example;lr>' header='<sip:a@192.0.2.1>;q=0.25;expires=3600' capabilities='audio' "
              "type='mobile' call='843817637684230@998sdasdh09' cseq=4711\n");
    EXPECT_EQ(storedContacts(), "12|sip:a@192.0.2.1|0.25|1003600|f|audio|<sip:a@192.0.2.1>;q=0.25;expires=3600|"
                                "843817637684230@998sdasdh09|4711|1\n");
    EXPECT_EQ(rows("SELECT path_vector, c_type FROM contact"),
              "<sip:edge1.oryx.example;lr>, <sip:edge2.oryx.example;lr>|mobile\n");
}

TEST_F(Registration, RefreshesTheWholeBindingInItsPlace)
{
    RegisterRequest first = request(1, {binding(kA, 3600, "0.25")});
    first.path = "<sip:edge1.oryx.example;lr>";
    first.contacts.front().type = "mobile";
    EXPECT_EQ(apply(first), kDone + "; sip:a 3600 1");
    const std::string key = rows("SELECT contact_id FROM contact");
    setSecond(1000600);
    RegisterRequest second = request(2, {binding(kA, 1800, "0.5")});
    second.contacts.front().contactHeader = "new";
    EXPECT_EQ(apply(second), kDone + "; sip:a 1800 2");
    EXPECT_EQ(rows("SELECT contact_id FROM contact"), key);
    EXPECT_EQ(rows("SELECT expires, qvalue, contact_header, path_vector, c_type FROM contact"), "1002400|0.5|new||\n");
}

TEST_F(Registration, GoesByIndexThoughNothingWasThereWhenItsPlansWereMade)
{
    sql("VACUUM ANALYZE contact");
    sql("SELECT pg_stat_reset_single_table_counters('contact'::regclass)");
    std::string ended; // tells then what it has read
    {
        Registrar registrar;
        registrar.connect(m_database.uri());
        for (std::uint32_t number = 1; number <= 20; ++number) {
            registrar.apply(request(number, {binding("sip:a@192.0.2." + std::to_string(number))}));
        }
        ended = backend();
    }
    EXPECT_EQ(remaining(ended), "");
    EXPECT_EQ(rows("SELECT n_tup_ins, seq_scan FROM pg_stat_user_tables WHERE relname = 'contact'"), "20|0\n");
}

TEST_F(Registration, UsesUpAContactNumberForANewBindingAlone)
{
    apply(request(1, {binding(kA)}));
    for (std::uint32_t cseq = 2; cseq < 5; ++cseq) {
        apply(request(cseq, {binding(kA)}));
        apply(request(cseq, {binding(kA)}));               // again
        apply(request(1, {binding(kA)}));                  // older
        apply(request(cseq + 100, {binding(kA, 0)}, "b")); // and gone
        apply(request(cseq, {binding(kA)}));
    }
    EXPECT_EQ(rows("SELECT last_value FROM contact_contact_id_seq"), "4\n");
}

TEST_F(Registration, AddsRefreshesAndRemovesInOneRequest)
{
    EXPECT_EQ(apply(request(1, {binding(kA), binding(kB)})), kDone + "; sip:a 3600 1; sip:b 3600 1");
    EXPECT_EQ(apply(request(2, {binding(kA, 0), binding(kB, 60), binding(kC, 90)})),
              kDone + "; sip:b 60 2; sip:c 90 2");
    EXPECT_EQ(apply(request(3, {binding(kC, 0)})), kDone + "; sip:b 60 2");
    EXPECT_EQ(apply(request(4, {binding(kC, 0)})), kDone + "; sip:b 60 2"); // gone already
    EXPECT_EQ(stored(), "sip:b@192.0.2.2|1000060|call|2\n");
}

TEST_F(Registration, TakesTheLastOfContactsWithTheSameAddress)
{
    EXPECT_EQ(apply(request(1, {binding(kA, 60), binding(kB, 70), binding(kA, 80)})),
              kDone + "; sip:b 70 1; sip:a 80 1");
    EXPECT_EQ(apply(request(2, {binding(kA, 60), binding(kA, 0)})), kDone + "; sip:b 70 1");
}

TEST_F(Registration, WithoutContactsAsksForTheBindings)
{
    EXPECT_EQ(apply(request(1, {})), kDone);
    apply(request(1, {binding(kA), binding(kB, 60)}));
    EXPECT_EQ(apply(request(1, {})), kDone + "; sip:a 3600 1; sip:b 60 1");
    setSecond(1000060);
    EXPECT_EQ(apply(request(0, {})), kDone + "; sip:a 3540 1");
}

TEST_F(Registration, RemovesAll)
{
    apply(request(1, {binding(kA), binding(kB)}));
    apply(request(9, {binding(kC)}, "another"));
    EXPECT_EQ(apply(removal(2)), kDone);
    EXPECT_EQ(stored(), "");
    EXPECT_EQ(apply(removal(2)), kDone); // it comes again
}

TEST_F(Registration, IsRefusedWholeWhenItIsOlder)
{
    apply(request(5, {binding(kA), binding(kB)}));
    const std::string before = stored();
    EXPECT_EQ(apply(request(4, {binding(kA)})), kOlder);
    EXPECT_EQ(apply(request(4, {binding(kC), binding(kB)})), kOlder);
    EXPECT_EQ(apply(request(4, {binding(kA, 0)})), kOlder);
    EXPECT_EQ(apply(request(5, {binding(kA, 0)})), kOlder);
    EXPECT_EQ(apply(removal(4)), kOlder);
    EXPECT_EQ(apply(removal(5)), kOlder);
    EXPECT_EQ(stored(), before);
    EXPECT_EQ(apply(request(4, {binding(kC)})), kDone + "; sip:a 3600 5; sip:b 3600 5; sip:c 3600 4");
}

TEST_F(Registration, OfAnotherCallIsNeverOlder)
{
    apply(request(5, {binding(kA), binding(kB)}));
    EXPECT_EQ(apply(request(1, {binding(kA, 60)}, "another")), kDone + "; sip:a 60 1; sip:b 3600 5");
    EXPECT_EQ(apply(request(1, {binding(kB, 0)}, "third")), kDone + "; sip:a 60 1");
    EXPECT_EQ(apply(removal(1, "third")), kDone);
}

TEST_F(Registration, WithoutACallIdIsNeverOlder)
{
    apply(request(5, {binding(kA)}, ""));
    EXPECT_EQ(apply(request(4, {binding(kA, 60)}, "")), kDone + "; sip:a 60 4");
    EXPECT_EQ(apply(removal(1, "")), kDone);
}

TEST_F(Registration, IsNotOlderThanWhatHasExpired)
{
    apply(request(5, {binding(kA, 60), binding(kB, 60)}));
    setSecond(1000059);
    EXPECT_EQ(apply(request(4, {binding(kA)})), kOlder);
    setSecond(1000060);
    EXPECT_EQ(apply(request(4, {binding(kA)})), kDone + "; sip:a 3600 4");
    EXPECT_EQ(apply(removal(5)), kDone);
    EXPECT_EQ(stored(), "");
}

TEST_F(Registration, ThatComesAgainIsAnsweredAsTheFirstTimeAndChangesNothing)
{
    const std::string answer = kDone + "; sip:a 3600 5; sip:b 3600 5";
    EXPECT_EQ(apply(request(5, {binding(kA), binding(kB), binding(kC, 0)})), answer);
    const std::string before = stored();
    EXPECT_EQ(apply(request(5, {binding(kA), binding(kB), binding(kC, 0)})), answer);
    EXPECT_EQ(stored(), before);
    apply(request(1, {binding(kB, 0)}, "another"));
    setSecond(1000100);
    EXPECT_EQ(apply(request(5, {binding(kA), binding(kB), binding(kC, 0)})), kDone + "; sip:a 3500 5");
    EXPECT_EQ(apply(request(5, {binding(kA)})), kDone + "; sip:a 3500 5");
}

TEST_F(Registration, IsRefusedWholeWhereThereWouldBeTooManyBindings)
{
    const auto limited = [&](std::uint32_t cseq, std::vector<RegisterContact> contacts) {
        RegisterRequest made = request(cseq, std::move(contacts), "call" + std::to_string(cseq));
        made.maxBindings = 2;
        return apply(made);
    };
    EXPECT_EQ(limited(1, {binding(kA), binding(kB), binding(kC)}), kMany);
    EXPECT_EQ(stored(), "");
    EXPECT_EQ(limited(2, {binding(kA), binding(kB, 60)}), kDone + "; sip:a 3600 2; sip:b 60 2");
    EXPECT_EQ(limited(3, {binding(kC)}), kMany);
    EXPECT_EQ(limited(4, {binding(kA)}), kDone + "; sip:a 3600 4; sip:b 60 2");
    EXPECT_EQ(limited(5, {binding(kA, 0), binding(kC, 60)}), kDone + "; sip:b 60 2; sip:c 60 5");
    setSecond(1000060); // both are stored, and no longer bindings
    EXPECT_EQ(limited(6, {binding(kA), binding(kC)}), kDone + "; sip:c 3600 6; sip:a 3600 6");
    EXPECT_EQ(limited(7, {binding(kB)}), kMany);
    EXPECT_EQ(apply(request(8, {binding(kB)})), kDone + "; sip:b 3600 8; sip:c 3600 6; sip:a 3600 6");
    EXPECT_EQ(limited(9, {binding(kA)}), kDone + "; sip:b 3600 8; sip:c 3600 6; sip:a 3600 9");
}

TEST_F(Registration, LeavesPermanentBindingsToProvisioning)
{
    sql("INSERT INTO contact (csid, address, permanent) VALUES (12, '" + kA + "', true)");
    RegisterRequest one = request(1, {binding(kA, 60, "0.1"), binding(kB, 60)});
    one.maxBindings = 1;
    EXPECT_EQ(apply(one), kDone + "; sip:a for good 0; sip:b 60 1");
    EXPECT_EQ(apply(request(2, {binding(kA, 60)})), kDone + "; sip:a for good 0; sip:b 60 1");
    EXPECT_EQ(apply(request(3, {binding(kA, 0)})), kDone + "; sip:a for good 0; sip:b 60 1");
    EXPECT_EQ(apply(removal(4)), kDone + "; sip:a for good 0");
    EXPECT_EQ(rows("SELECT address, permanent, qvalue, expires, call_id FROM contact"), kA + "|t|NULL|NULL|NULL\n");
    EXPECT_EQ(rows("SELECT last_value FROM contact_contact_id_seq"), "2\n");
}

TEST_F(Registration, TakesABindingWithoutAnExpiryForALiveOne)
{
    sql("INSERT INTO contact (csid, address, call_id, cseq) VALUES (12, '" + kA + "', 'call', 5)");
    EXPECT_EQ(apply(request(4, {binding(kA)})), kOlder);
    EXPECT_EQ(apply(request(4, {})), kDone + "; sip:a for good 5");
    EXPECT_EQ(apply(request(6, {binding(kA)})), kDone + "; sip:a 3600 6");
}

TEST_F(Registration, TellsAnUnknownAddressAndAnInactiveSubscriberApart)
{
    const std::string unknown = "not found, unknown address";
    EXPECT_EQ(m_registrar.apply(request(1, {binding(kA)}), 43), unknown);
    EXPECT_EQ(m_registrar.apply("alice", "elsewhere.example", request(1, {binding(kA)})), unknown);
    EXPECT_EQ(m_registrar.apply("Alice", "oryx.example", removal(1)), unknown);
    EXPECT_EQ(m_registrar.apply("alice", "oryx.example", request(1, {binding(kA)})), kDone + "; sip:a 3600 1");
    sql("UPDATE subscriber SET active = false");
    EXPECT_EQ(m_registrar.apply("alice", "oryx.example", request(2, {binding(kA)})), "not found, inactive");
    EXPECT_EQ(apply(removal(2)), "not found, inactive");
    EXPECT_EQ(stored(), kA + "|1003600|call|1\n");
    sql("UPDATE subscriber SET active = NULL");
    EXPECT_EQ(apply(removal(2)), kDone);
}

TEST_F(Registration, IsAQueryErrorWhereItIsNoRequest)
{
    RegisterRequest both = removal(1);
    both.contacts = {binding(kA)};
    EXPECT_EQ(apply(both), "query error: contacts beside the removal of all, failed");
    EXPECT_EQ(apply(request(1, {binding(kA), binding("")})), "query error: a contact without an address, failed");
    EXPECT_EQ(m_registrar.apply(nullptr, "oryx.example", removal(1)), "query error: invalid parameters, failed");
    EXPECT_EQ(m_registrar.apply("alice", nullptr, removal(1)), "query error: invalid parameters, failed");
    Registrar unconnected;
    EXPECT_EQ(unconnected.apply(removal(1)),
              "connection error: lookup attempted without a database connection, failed");
    EXPECT_EQ(stored(), "");
}

TEST_F(Registration, TakesEveryTextForWhatItIs)
{
    const std::string hostile = R"(sip:"a\b{c},%s%_NULL;$1--@192.0.2.1)";
    RegisterRequest one = request(1, {binding(hostile), binding("NULL")}, hostile);
    one.path = hostile;
    one.contacts.front().contactHeader = hostile;
    EXPECT_EQ(apply(one), kDone + "; " + hostile.substr(0, hostile.find('@')) + " 3600 1; NULL 3600 1");
    EXPECT_EQ(rows("SELECT call_id, path_vector, contact_header FROM contact WHERE address = '" + hostile + "'"),
              hostile + "|" + hostile + "|" + hostile + "\n");
    sql("DELETE FROM contact");
    EXPECT_EQ(apply(request(2, {binding(kQuoted)})),
              plainOrBound("query error: " + kBroken + ", failed", kDone + "; " + kQuoted + " 3600 2"));
}

TEST_F(Registration, HoldsTheWholeRangeOfItsNumbers)
{
    EXPECT_EQ(apply(request(4294967295U, {binding(kA, 4294967295U)})), kDone + "; sip:a 4294967295 4294967295");
    EXPECT_EQ(stored(), kA + "|4295967295|call|4294967295\n");
    EXPECT_EQ(apply(request(4294967294U, {binding(kA, 1)})), kOlder);
}

TEST_F(Registration, GoesByTheDatabasesClock)
{
    sql("CREATE OR REPLACE FUNCTION current_second() RETURNS bigint LANGUAGE sql STABLE RETURN "
        "ceil(date_part('epoch', now())) - 1");
    apply(request(1, {binding(kA, 3600)}));
    EXPECT_EQ(rows("SELECT abs(expires - 3600 - extract(epoch FROM now())) < 10 FROM contact"), "t\n");
}

// Several servers --------------------------------------------------------------------------------------------------

TEST_F(Registration, OfTwoServersAtOnceSucceedsOnBoth)
{
    const auto both = [this](const RegisterRequest& request) {
        server::Session holder(m_database.name());
        holder.run("BEGIN; SELECT FROM contact WHERE csid = 12 FOR UPDATE; SELECT take_registration_turn(12)");
        Registrar other;
        other.connect(m_database.uri());
        auto first = std::async(std::launch::async, [&] { return m_registrar.apply(request); });
        auto second = std::async(std::launch::async, [&] { return other.apply(request); });
        const std::string waiting = "SELECT count(*) FROM pg_stat_activity WHERE wait_event_type = 'Lock'"
                                    " AND datname = current_database()";
        for (int look = 0; look < 3000 && m_session.value(waiting) != "2"; ++look) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        EXPECT_EQ(m_session.value(waiting), "2");
        holder.run("COMMIT");
        const std::string answer = first.get();
        EXPECT_EQ(answer, second.get());
        return answer;
    };
    RegisterRequest stored = request(1, {binding(kA), binding(kB)});
    stored.maxBindings = 2;
    EXPECT_EQ(both(stored), kDone + "; sip:a 3600 1; sip:b 3600 1");
    EXPECT_EQ(both(request(2, {binding(kA, 60)})), kDone + "; sip:a 60 2; sip:b 3600 1");
    EXPECT_EQ(both(request(3, {binding(kB, 0), binding(kA)})), kDone + "; sip:a 3600 3");
    EXPECT_EQ(both(removal(4)), kDone);
    EXPECT_EQ(rows("SELECT last_value FROM contact_contact_id_seq"), "2\n");
}

TEST_F(Registration, MeetsWithOtherWritersOfTheSameBinding)
{
    server::Session other(m_database.name());
    other.run("BEGIN; INSERT INTO contact (csid, address, call_id, cseq) VALUES (12, '" + kA + "', 'other', 1)");
    auto answer = std::async(std::launch::async, [&] { return apply(request(1, {binding(kA)})); });
    EXPECT_NE(waitingBackend(), "");
    other.run("COMMIT");
    EXPECT_EQ(answer.get(), kDone + "; sip:a 3600 1");
    EXPECT_EQ(stored(), kA + "|1003600|call|1\n");
    EXPECT_EQ(m_registrar.service.getStatistics().refusals, 0U);
}

class RegistrationThroughProxy : public Registration {
protected:
    void SetUp() override
    {
        setenv("PGPORT", m_proxy.port().c_str(), 1);
        Registration::SetUp();
        setenv("PGPORT", server::port().c_str(), 1);
        m_other.connect(m_database.uri());
        setenv("PGPORT", m_proxy.port().c_str(), 1);
    }

    Proxy m_proxy;
    Registrar m_other;
};

TEST_F(RegistrationThroughProxy, IsAnsweredAsTheFirstTimeWhereItsAnswerWasLost)
{
    m_proxy.lose({Proxy::Loss::answer});
    EXPECT_EQ(apply(request(1, {binding(kA), binding(kB)})), kDone + "; sip:a 3600 1; sip:b 3600 1");
    m_proxy.lose({Proxy::Loss::answer});
    EXPECT_EQ(apply(request(2, {binding(kA, 60)})), kDone + "; sip:a 60 2; sip:b 3600 1");
    m_proxy.lose({Proxy::Loss::answer});
    EXPECT_EQ(apply(request(3, {binding(kA, 0)})), kDone + "; sip:b 3600 1");
    m_proxy.lose({Proxy::Loss::answer});
    EXPECT_EQ(apply(removal(4)), kDone);
    EXPECT_EQ(rows("SELECT last_value FROM contact_contact_id_seq"), "2\n");
}

TEST_F(RegistrationThroughProxy, DoesNotUndoANewerOneWhenItIsSentAgain)
{
    m_proxy.lose({Proxy::Loss::answer});
    m_proxy.meanwhile([this] { EXPECT_EQ(m_other.apply(request(3, {binding(kA, 90)})), kDone + "; sip:a 90 3"); });
    EXPECT_EQ(apply(request(2, {binding(kA, 60)})), kOlder);
    EXPECT_EQ(stored(), kA + "|1000090|call|3\n");
    m_proxy.lose({Proxy::Loss::answer});
    m_proxy.meanwhile([this] { EXPECT_EQ(m_other.apply(request(5, {binding(kA, 30)})), kDone + "; sip:a 30 5"); });
    EXPECT_EQ(apply(removal(4)), kOlder);
    EXPECT_EQ(stored(), kA + "|1000030|call|5\n");
}

} // namespace

} // namespace registrationTest
