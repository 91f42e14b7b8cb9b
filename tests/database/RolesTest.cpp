#include "support/DatabaseTest.h"
#include "support/Show.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace {

class Roles : public ExecutorTest {
protected:
    void SetUp() override
    {
        ExecutorTest::SetUp();
        provisionAlice();
    }

    /// A statement as the servers run it.
    std::string asServer(const std::string& statement) { return outcome(m_executor.execute(statement)); }

    /// A statement as an operator with the reading role runs it.
    std::string asReader(const std::string& statement)
    {
        std::string outcome = "okay";
        try {
            sql("BEGIN; SET LOCAL ROLE oryx_reader; " + statement);
        } catch (const std::runtime_error& failure) {
            outcome = failure.what();
            outcome.resize(outcome.find('\n'));
        }
        sql("ROLLBACK");
        return outcome;
    }
};

std::string denied(const std::string& what)
{
    return "query error: [42501] ERROR:  " + what;
}

} // namespace

TEST_F(Roles, KeepServersFromChangingTheSchema)
{
    EXPECT_EQ(asServer("CREATE TABLE mine ()"), denied("permission denied for schema public"));
    EXPECT_EQ(asServer("CREATE TEMPORARY TABLE mine ()"),
              denied("permission denied to create temporary tables in database \"" + m_database.name() + "\""));
    EXPECT_EQ(asServer("CREATE SCHEMA mine"), denied("permission denied for database " + m_database.name()));
    EXPECT_EQ(asServer("ALTER TABLE contact ADD mine text"), denied("must be owner of table contact"));
    EXPECT_EQ(asServer("DROP TABLE contact"), denied("must be owner of table contact"));
    EXPECT_EQ(asServer("TRUNCATE contact"), denied("permission denied for table contact"));
    EXPECT_EQ(asServer("SET ROLE oryx_owner"), denied("permission denied to set role \"oryx_owner\""));
}

TEST_F(Roles, LetServersOnlyReadWhatOperatorsSet)
{
    for (const std::string table :
         {"host_info", "address_map", "proxy_configuration", "domain_access", "system_parameters"}) {
        EXPECT_EQ(asServer("SELECT * FROM " + table), "okay");
        EXPECT_EQ(asServer("DELETE FROM " + table), denied("permission denied for table " + table));
        EXPECT_EQ(asServer("INSERT INTO " + table + " DEFAULT VALUES"), denied("permission denied for table " + table));
    }
    EXPECT_EQ(asServer("SELECT * FROM schema_migration"), denied("permission denied for table schema_migration"));
    EXPECT_EQ(asServer("SELECT * FROM pg_authid"), denied("permission denied for table pg_authid"));
}

TEST_F(Roles, LetReadersSeeAllButPasswords)
{
    for (const std::string table : {"contact_set", "public_address", "contact", "host_info", "address_map",
                                    "proxy_configuration", "domain_access", "system_parameters", "schema_migration"}) {
        EXPECT_EQ(asReader("SELECT * FROM " + table), "okay");
        EXPECT_EQ(asReader("DELETE FROM " + table), "ERROR:  permission denied for table " + table);
    }
    EXPECT_EQ(asReader("SELECT sid, user_id, auth_user_id, oid, s_type, auth_type, active FROM subscriber"), "okay");
    EXPECT_EQ(asReader("SELECT s_password FROM subscriber"), "ERROR:  permission denied for table subscriber");
    EXPECT_EQ(asReader("UPDATE subscriber SET oid = 1"), "ERROR:  permission denied for table subscriber");
    EXPECT_EQ(asReader("SELECT remove_subscriber(7)"), "ERROR:  permission denied for function remove_subscriber");
}
