#pragma once

#include "sip/Phone.h"
#include "sip/Program.h"
#include "support/Server.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

/// A server of the suite with a database of its own: alice (handle "alice", alias "1001"), bob and the inactive carol
/// at oryx.example, with their names as passwords.
class SipTest : public testing::Test {
protected:
    SipTest();

    /// Starts the registrar with these options beside its sockets and its database, and waits until it is ready. With
    /// --record-route it has a password, and so the same key for its routes each time; else it enters without one.
    void startRegistrar(const std::vector<std::string>& options = {"--auth", "none"});
    /// The same with the event server, as a member of its role and nothing more.
    void startEvents(const std::vector<std::string>& options = {"--auth", "none"});
    /// The same with any server.
    void start(const std::string& program, const std::vector<std::string>& options);
    /// Ends it as an operator does; its exit status.
    int stop();

    void sql(const std::string& statements) { m_session.run(statements); }
    std::string rows(const std::string& query) { return m_session.rows(query); }
    /// What is bound: address, and path where there is one.
    std::string bindings()
    {
        return rows("SELECT address || coalesce(' ' || nullif(path_vector, ''), '') FROM contact ORDER BY address");
    }

    server::Database m_database;
    server::Session m_session;
    int m_port;
    std::unique_ptr<Program> m_server;

private:
    void start(const std::string& program, const std::string& database, const std::string& user,
               const std::vector<std::string>& options);
};

/// What a server answers by HTTP there.
std::string pageAt(int port);

/// The status line of an answer.
inline std::string status(const phone::Message& answer)
{
    return answer.first.substr(answer.first.find(' ') + 1);
}
