#include "support/DatabaseTest.h"
#include "support/MigrationTest.h"

#include <gtest/gtest.h>

#include <future>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace keysTest {

namespace {

class Keys : public ExecutorTest {
protected:
    /// The first line of what goes wrong with statements, "okay" when nothing does.
    std::string done(const std::string& statements)
    {
        try {
            sql(statements);
        } catch (const std::runtime_error& failure) {
            const std::string what = failure.what();
            return what.substr(0, what.find('\n'));
        }
        return "okay";
    }

    /// Contacts from that number to the other, as a copy brings them: the sequence has not moved, and no trigger looks
    /// for the contact set of each.
    void copyContacts(int first, int last)
    {
        sql("INSERT INTO contact_set (csid) VALUES (12) ON CONFLICT DO NOTHING;"
            " SET session_replication_role = replica;"
            " INSERT INTO contact (contact_id, csid, address) SELECT n, 12, 'copied' || n FROM generate_series(" +
            std::to_string(first) + ", " + std::to_string(last) + ") n; RESET session_replication_role");
    }

    std::string addContact(const std::string& address)
    {
        return m_session.value("INSERT INTO contact (csid, address) VALUES (12, '" + address +
                               "') RETURNING contact_id");
    }
};

/// A database as the first release left it.
class ReleasedDatabase : public MigrationTest {
protected:
    ReleasedDatabase() : MigrationTest("150") {}
};

TEST_F(Keys, TellLogicalReplicationEveryRow)
{
    sql("SET client_min_messages = error; CREATE PUBLICATION everything FOR ALL TABLES");
    std::istringstream tables(rows(
        "SELECT format('%I SET %2$I = %2$I', relname, attname), quote_ident(relname) FROM pg_class, pg_attribute"
        " WHERE relnamespace = 'public'::regnamespace AND relkind = 'r' AND attrelid = pg_class.oid AND attnum = 1"));
    int count = 0;
    for (std::string line; std::getline(tables, line); ++count) {
        const std::size_t bar = line.find('|');
        EXPECT_EQ(done("BEGIN; UPDATE " + line.substr(0, bar) + "; DELETE FROM " + line.substr(bar + 1) + "; ROLLBACK"),
                  "okay")
            << line;
    }
    EXPECT_GT(count, 25);
}

// Numbers of new rows ----------------------------------------------------------------------------------------------

TEST_F(Keys, AreSoonFoundBehindManyCopiedRows)
{
    copyContacts(1, 200000);
    sql("SET statement_timeout = '1500ms'");

    EXPECT_EQ(addContact("new"), "200001");
    EXPECT_EQ(addContact("newer"), "200002");
}

TEST_F(Keys, AreSoonFoundByTheServersToo)
{
    sql("SET session_replication_role = replica;"
        " INSERT INTO subscriber (sid) SELECT generate_series(1, 200000);"
        " INSERT INTO contact_set (csid, sid) SELECT n, n FROM generate_series(1, 200000) n;"
        " RESET session_replication_role");
    sql("SET statement_timeout = '1500ms'; SET ROLE oryx_server");

    EXPECT_EQ(rows("INSERT INTO subscriber (user_id) VALUES ('new') RETURNING sid"), "200001\n");
    EXPECT_EQ(rows("INSERT INTO contact_set (sid) VALUES (200001) RETURNING csid"), "200001\n");
    sql("RESET ROLE");
}

TEST_F(Keys, AreTakenFromAGapThatIsNear)
{
    copyContacts(1, 20000);
    sql("DELETE FROM contact WHERE contact_id = 7");

    EXPECT_EQ(addContact("first"), "7");
    EXPECT_EQ(addContact("second"), "20001");
}

TEST_F(Keys, StartOverBehindAUsedBlock)
{
    copyContacts(1, 20000);
    sql("SELECT setval('contact_contact_id_seq', 2147483646)");

    EXPECT_EQ(addContact("last"), "2147483647");
    EXPECT_EQ(addContact("first again"), "20001");
}

TEST_F(Keys, AreGivenOnceWhileManySkipABlock)
{
    copyContacts(1, 30000);
    std::vector<std::future<std::vector<std::string>>> sessions;
    for (int session = 0; session < 8; ++session) {
        sessions.push_back(std::async(std::launch::async, [&, session] {
            server::Session own(m_database.name());
            std::vector<std::string> given;
            for (int n = 0; n < 20; ++n) {
                given.push_back(own.value("INSERT INTO contact (csid, address) VALUES (12, '" +
                                          std::to_string(session) + "." + std::to_string(n) +
                                          "') RETURNING contact_id"));
            }
            return given;
        }));
    }
    std::set<std::string> all;
    for (auto& session : sessions) {
        for (const std::string& number : session.get()) {
            EXPECT_GT(std::stoi(number), 30000);
            all.insert(number);
        }
    }
    EXPECT_EQ(all.size(), 160U);
}

TEST_F(Keys, AreGivenWhileAnotherTransactionIsOpen)
{
    copyContacts(1, 30000);
    sql("BEGIN");
    EXPECT_EQ(addContact("in a long transaction"), "30001");

    server::Session other(m_database.name());
    other.run("SET statement_timeout = '5s'; SELECT setval('contact_contact_id_seq', 1)");
    EXPECT_EQ(other.value("SELECT next_contact_id()"), "30001") << "not locked out";
    sql("ROLLBACK");
}

TEST_F(Keys, AreSetRightAfterACopy)
{
    copyContacts(1, 50);
    sql("INSERT INTO public_address (public_address_id, handle, sip_domain) VALUES (9, 'a', 'x');"
        " INSERT INTO address_map (map_id) VALUES (1); SELECT setval('contact_set_csid_seq', 100)");
    EXPECT_EQ(rows("SELECT * FROM set_key_sequences()"),
              "public.address_map_map_id_seq|1|1\npublic.contact_contact_id_seq|1|50\n"
              "public.public_address_public_address_id_seq|1|9\n");
    EXPECT_EQ(rows("SELECT * FROM set_key_sequences()"), "");
    EXPECT_EQ(addContact("new"), "51");
    EXPECT_EQ(rows("INSERT INTO public_address (handle, sip_domain) VALUES ('b', 'x') RETURNING id"), "10\n");
    EXPECT_EQ(rows("INSERT INTO address_map DEFAULT VALUES RETURNING map_id"), "2\n");
    EXPECT_EQ(rows("INSERT INTO contact_set DEFAULT VALUES RETURNING csid"), "101\n");
}

TEST_F(Keys, ThatWereGivenNearTheEndUseUpNoOthers)
{
    sql("INSERT INTO subscriber (sid) VALUES (7), (2147483647)");
    EXPECT_EQ(rows("SELECT * FROM set_key_sequences()"), "public.subscriber_sid_seq|1|7\n");
    EXPECT_EQ(rows("INSERT INTO subscriber DEFAULT VALUES RETURNING sid"), "8\n");
}

TEST_F(Keys, AreSetByTheOwnerAlone)
{
    for (const std::string role : {"oryx_server", "oryx_reader"}) {
        sql("SET ROLE " + role);
        EXPECT_EQ(done("SELECT * FROM set_key_sequences()"),
                  "ERROR:  permission denied for function set_key_sequences");
        sql("RESET ROLE");
    }
    EXPECT_EQ(done("SET ROLE oryx_reader; SELECT * FROM key_sequence"), "okay");
    EXPECT_EQ(done("SELECT skip_used_keys('contact_contact_id_seq')"),
              "ERROR:  permission denied for function skip_used_keys");
    sql("RESET ROLE");
    // Nothing else is done with it than what new rows have done.
    sql("SET ROLE oryx_server");
    EXPECT_EQ(done("SELECT skip_used_keys('contact_contact_id_seq')"), "okay");
    EXPECT_EQ(done("SELECT skip_used_keys('event_notify_stamp')"), "ERROR:  query returned no rows");
    sql("RESET ROLE");
}

// Names ------------------------------------------------------------------------------------------------------------

TEST_F(Keys, OfAddressesAreInLowerCase)
{
    provisionAlice();
    const std::string refused =
        R"(ERROR:  new row for relation "public_address" violates check constraint "public_address_in_lower_case")";
    EXPECT_EQ(done("INSERT INTO public_address (handle, sip_domain) VALUES ('Bob', 'oryx.example')"), refused);
    EXPECT_EQ(done("INSERT INTO public_address (handle, sip_domain) VALUES ('bob', 'oryx.Example')"), refused);
    EXPECT_EQ(done("UPDATE public_address SET handle = 'Alice'"), refused);
    // Folded are ASCII letters alone.
    EXPECT_EQ(done("INSERT INTO public_address (handle, sip_domain) VALUES ('Öryx', 'bücher.example')"), "okay");

    EXPECT_EQ(m_executor.addPublicAddress({"Bob", "oryx.example", 12, ""}), -1);
    EXPECT_EQ(reason().substr(0, 7), "[23514]");
    EXPECT_EQ(m_executor.createPublicAddress(7, "Bob", "oryx.example"), -1);
    EXPECT_EQ(m_executor.addPublicAddress({"bob", "oryx.example", 12, ""}), 0);
}

TEST_F(ReleasedDatabase, KeepsAddressesThatAreNotInLowerCase)
{
    m_session->run("INSERT INTO public_address (public_address_id, handle, sip_domain) VALUES"
                   " (1, 'alice', 'oryx.example'), (2, 'Alice', 'oryx.example'), (3, 'bob', 'ORYX.example'),"
                   " (4, 'Öryx', 'oryx.example')");

    EXPECT_EQ(apply(), 0) << told();

    EXPECT_EQ(warnings(),
              "WARNING:  address of record 2 ('Alice' at 'oryx.example') is not in lower case, and the event"
              " server does not find it; address 1 has its name\n"
              "WARNING:  address of record 3 ('bob' at 'ORYX.example') is not in lower case, and the event"
              " server does not find it\n"
              "WARNING:  public_address_not_in_lower_case shows all 2 of them\n");
    EXPECT_EQ(m_session->rows("SELECT * FROM public_address_not_in_lower_case ORDER BY 1"),
              "2|Alice|oryx.example|1\n3|bob|ORYX.example|NULL\n");
    EXPECT_EQ(apply("--check"), 1);
    EXPECT_EQ(told(), "-- constraint public_address_in_lower_case ON public.public_address: changed\n"
                      "ALTER TABLE public.public_address VALIDATE CONSTRAINT public_address_in_lower_case;\n");

    // Mended, as docs/schema.md says.
    m_session->run(
        "DELETE FROM public_address WHERE public_address_id = 2;"
        "UPDATE public_address SET handle = lower(handle COLLATE \"C\"), sip_domain = lower(sip_domain COLLATE \"C\")"
        "    WHERE public_address_id IN"
        "          (SELECT public_address_id FROM public_address_not_in_lower_case WHERE namesake IS NULL);"
        "ALTER TABLE public_address VALIDATE CONSTRAINT public_address_in_lower_case;");
    EXPECT_EQ(apply("--check"), 0) << told();
}

// Repetitions ------------------------------------------------------------------------------------------------------

TEST_F(Keys, LetNoRuleStandTwice)
{
    const std::string rule =
        "INSERT INTO access_control_list (object, requester, access_action, application) VALUES ('a', 'b', 'allow', ";
    EXPECT_EQ(done(rule + "'presence')"), "okay");
    EXPECT_EQ(done(rule + "'presence')"),
              R"(ERROR:  duplicate key value violates unique constraint "access_control_list_once")");
    EXPECT_EQ(done(rule + "'dialog')"), "okay");
    // What differs in anything is no repetition.
    EXPECT_EQ(done("INSERT INTO access_control_list (object, requester, access_action, state, application) VALUES"
                   " ('a', 'b', 'block', 'ACTIVE', 'presence'), ('a', 'b', 'allow', 'INACTIVE', 'presence'),"
                   " ('a', 'c', 'allow', 'ACTIVE', 'presence'), ('d', 'b', 'allow', 'ACTIVE', 'presence'),"
                   " ('a', NULL, 'allow', 'ACTIVE', 'presence')"),
              "okay");
    EXPECT_NE(
        done("INSERT INTO access_control_list (object, access_action, application) VALUES ('a', 'allow', 'presence')"),
        "okay");
}

TEST_F(Keys, LetNoPropertyStandTwice)
{
    const std::string property =
        "INSERT INTO proxy_configuration (proxy_name, scope, property_name, property_value) VALUES ('p', 's', 'n', ";
    EXPECT_EQ(done(property + "'v')"), "okay");
    EXPECT_EQ(done(property + "'v')"),
              R"(ERROR:  duplicate key value violates unique constraint "proxy_configuration_once")");
    EXPECT_EQ(done(property + "'another')"), "okay") << "a property may have several values";
    EXPECT_EQ(done(property + "repeat('v', 10000))"), "okay");
    EXPECT_EQ(done(property + "NULL)"), "okay");
    EXPECT_NE(done(property + "NULL)"), "okay");
}

TEST_F(ReleasedDatabase, KeepsTheFirstOfRepeatedRows)
{
    m_session->run(
        "INSERT INTO access_control_list (acl_id, object, requester, access_action, state, application) VALUES"
        " (1, 'a', 'b', 'allow', 'ACTIVE', 'presence'), (2, 'a', 'b', 'allow', 'ACTIVE', 'presence'),"
        " (3, 'a', 'b', 'block', 'ACTIVE', 'presence'), (4, 'a', 'b', 'allow', 'ACTIVE', 'presence'),"
        " (5, 'x', NULL, NULL, 'ACTIVE', 'presence'), (6, 'x', NULL, NULL, 'ACTIVE', 'presence');"
        "INSERT INTO proxy_configuration VALUES (7, 'p', 's', 'n', 'v'), (8, 'p', 's', 'n', 'w'),"
        " (9, 'p', 's', 'n', 'v')");

    EXPECT_EQ(apply(), 0) << told();

    EXPECT_EQ(
        warnings(),
        "WARNING:  access rule 2 (object 'a', requester 'b', application 'presence', action 'allow', state 'ACTIVE')"
        " repeats 1 and is removed\n"
        "WARNING:  access rule 4 (object 'a', requester 'b', application 'presence', action 'allow', state 'ACTIVE')"
        " repeats 1 and is removed\n"
        "WARNING:  access rule 6 (object 'x', requester NULL, application 'presence', action NULL, state 'ACTIVE')"
        " repeats 5 and is removed\n"
        "WARNING:  proxy property 9 (proxy 'p', scope 's', name 'n') repeats 7 and is removed\n");
    EXPECT_EQ(m_session->rows("SELECT acl_id FROM access_control_list ORDER BY 1"), "1\n3\n5\n");
    EXPECT_EQ(m_session->rows("SELECT property_id FROM proxy_configuration ORDER BY 1"), "7\n8\n");
}

} // namespace

} // namespace keysTest
