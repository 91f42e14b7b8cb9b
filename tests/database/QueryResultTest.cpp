#include "support/DatabaseTest.h"
#include "support/TraceLog.h"

#include <dal/DatabaseConnection.h>
#include <dal/QueryResult.h>
#include <gtest/gtest.h>

#include <string>

namespace queryResultTest {

namespace {

class QueryResults : public DatabaseTest {
protected:
    void SetUp() override
    {
        provisionAlice();
        ASSERT_TRUE(m_connection.connect(m_database.uri().c_str(), server::kUser, server::kPassword))
            << m_connection.getErrorMessage();
    }

    void execute(const std::string& statement)
    {
        EXPECT_TRUE(m_connection.execute(statement, m_result)) << m_connection.getErrorMessage();
    }

    /// Executes the statement; the status and its name.
    std::string status(const std::string& statement)
    {
        execute(statement);
        std::string name;
        const int code = m_result.getErrorCode(name);
        return std::to_string(code) + " " + name + (m_result.failed() ? ", failed" : "");
    }

    /// Executes the statement; its SQLSTATE and whether a constraint refused it.
    std::string refusal(const std::string& statement)
    {
        execute(statement);
        return m_result.getSqlState() + (m_result.integrityConstraintViolation() ? " constraint" : " other");
    }

    oryx::DatabaseConnection m_connection;
    oryx::QueryResult m_result;
};

TEST_F(QueryResults, AnswersNeutrallyBeforeAnyStatement)
{
    std::string name;
    EXPECT_FALSE(m_result.failed());
    EXPECT_EQ(m_result.rows(), 0);
    EXPECT_EQ(m_result.columns(), 0);
    EXPECT_EQ(m_result.updateCount(), 0);
    EXPECT_EQ(m_result.getValue(0, 0), nullptr);
    EXPECT_TRUE(m_result.isNull(0, 0));
    EXPECT_EQ(m_result.getColumnName(0), nullptr);
    EXPECT_EQ(m_result.getSqlState(), "00000");
    EXPECT_FALSE(m_result.integrityConstraintViolation());
    EXPECT_EQ(m_result.getErrorMessage(), "not executed");
    EXPECT_EQ(m_result.getErrorCode(name), -1);
    EXPECT_EQ(name, "NO QUERY EXECUTED");
}

TEST_F(QueryResults, TellWhatStandsAtARowAndColumn)
{
    execute("SELECT handle, scope, sip_domain, NULL AS nothing, '' AS empty FROM public_address");
    EXPECT_EQ(m_result.rows(), 1);
    EXPECT_EQ(m_result.columns(), 5);
    EXPECT_STREQ(m_result.getColumnName(2), "sip_domain");
    EXPECT_STREQ(m_result.getValue(0, 2), "oryx.example");
    EXPECT_STREQ(m_result.getValue(0, 3), "");
    EXPECT_TRUE(m_result.isNull(0, 3));
    EXPECT_STREQ(m_result.getValue(0, 4), "");
    EXPECT_FALSE(m_result.isNull(0, 4));
}

TEST_F(QueryResults, HaveNothingOutsideTheirRowsAndColumns)
{
    execute("SELECT handle FROM public_address");
    EXPECT_EQ(m_result.getValue(m_result.rows(), 0), nullptr);
    EXPECT_EQ(m_result.getValue(-1, 0), nullptr);
    EXPECT_EQ(m_result.getValue(0, -1), nullptr);
    EXPECT_EQ(m_result.getValue(0, 1), nullptr);
    EXPECT_TRUE(m_result.isNull(1, 0));
    EXPECT_TRUE(m_result.isNull(0, -1));
    EXPECT_EQ(m_result.getColumnName(-1), nullptr);
    EXPECT_EQ(m_result.getColumnName(1), nullptr);
}

TEST_F(QueryResults, CountWhatACommandTouched)
{
    const auto touched = [this](const std::string& statement) {
        execute(statement);
        return m_result.updateCount();
    };
    EXPECT_EQ(touched("INSERT INTO contact (csid, address) VALUES (12, 'sip:a@b'), (12, 'sip:c@d')"), 2);
    EXPECT_EQ(touched("SELECT address FROM contact"), 2);
    EXPECT_EQ(touched("UPDATE contact SET cseq = 1"), 2);
    EXPECT_EQ(touched("DELETE FROM contact WHERE address = 'sip:a@b'"), 1);
    EXPECT_EQ(touched("DELETE FROM contact WHERE address = 'sip:a@b'"), 0);
    EXPECT_EQ(touched("SET search_path = public"), 0);
}

TEST_F(QueryResults, KnowAConstraintViolationByItsClass)
{
    EXPECT_EQ(refusal("INSERT INTO subscriber (sid) VALUES (7)"), "23505 constraint");
    EXPECT_EQ(refusal("INSERT INTO contact (csid, address) VALUES (99, 'sip:a@b')"), "23503 constraint");
    EXPECT_EQ(refusal("INSERT INTO contact (csid) VALUES (12)"), "23502 constraint");
    EXPECT_EQ(refusal("INSERT INTO subscriber (sid) VALUES (-7)"), "23514 constraint");
    EXPECT_EQ(refusal("INSERT INTO subscriber sid"), "42601 other");
    EXPECT_EQ(refusal("SELECT * FROM nowhere"), "42P01 other");
    EXPECT_EQ(refusal("SELECT 1/0"), "22012 other");
    EXPECT_EQ(refusal("SELECT 1"), "00000 other");
}

TEST_F(QueryResults, NameTheirStatus)
{
    EXPECT_EQ(status("--"), "0 PGRES_EMPTY_QUERY, failed");
    EXPECT_EQ(status("SET search_path = public"), "1 PGRES_COMMAND_OK");
    EXPECT_EQ(status("SELECT 1"), "2 PGRES_TUPLES_OK");
    EXPECT_EQ(status("COPY contact TO STDOUT"), "3 PGRES_COPY_OUT, failed");
    EXPECT_EQ(status("COPY contact FROM STDIN"), "4 PGRES_COPY_IN, failed");
    EXPECT_EQ(status("SELECT 1/0"), "7 PGRES_FATAL_ERROR, failed");
    EXPECT_EQ(status("SELECT 1"), "2 PGRES_TUPLES_OK");
}

TEST_F(QueryResults, TellMessageStateAndStatement)
{
    execute("SELECT 1");
    EXPECT_EQ(m_result.getErrorMessage(), ", sqlState=00000, sqlcommand=SELECT 1");
    execute("INSERT INTO subscriber (sid) VALUES (7)");
    EXPECT_EQ(m_result.getErrorMessage(), "ERROR:  duplicate key value violates unique constraint \"subscriber_pkey\"\n"
                                          "DETAIL:  Key (sid)=(7) already exists.\n"
                                          ", sqlState=23505, sqlcommand=INSERT INTO subscriber (sid) VALUES (7)");
}

TEST_F(QueryResults, TraceTheirStatusWithEachQuestion)
{
    execute("SELECT 1");
    TraceLog trace;
    EXPECT_FALSE(m_result.failed());
    EXPECT_FALSE(m_result.failed());
    const std::string line =
        "DatabaseConnection prn: query result status is 2 (', sqlState=00000, sqlcommand=SELECT 1')\n\n";
    EXPECT_EQ(trace.take(), line + line);
}

TEST_F(QueryResults, HoldTheLastStatementsResultUntilItIsTaken)
{
    execute("SELECT 1");
    execute("SELECT 2");
    EXPECT_STREQ(m_result.getValue(0, 0), "2");
    m_result.setResult(nullptr);
    EXPECT_EQ(m_result.getValue(0, 0), nullptr);
    EXPECT_EQ(m_result.getErrorMessage(), "not executed");
}

TEST_F(QueryResults, HoldALargeResult)
{
    sql("INSERT INTO contact (csid, address) SELECT 12, 'sip:' || n FROM generate_series(1, 10000) AS n");
    execute("SELECT address FROM contact ORDER BY contact_id");
    EXPECT_EQ(m_result.rows(), 10000);
    EXPECT_STREQ(m_result.getValue(9999, 0), "sip:10000");
}

} // namespace

} // namespace queryResultTest
