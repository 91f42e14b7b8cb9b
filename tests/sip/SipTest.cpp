#include "sip/SipTest.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>

SipTest::SipTest() : m_session(m_database.name()), m_port(phone::freePort())
{
    sql("INSERT INTO system_parameters VALUES ('oryxproxy', 'ServerInfo', 'ServerNames', 'oryx.example');"
        "INSERT INTO subscriber (sid, user_id, auth_user_id, s_password, active) VALUES (1, 'alice', 'alice', 'alice', true),"
        " (2, 'bob', 'bob', 'bob', true), (3, 'carol', 'carol', 'carol', false);"
        "INSERT INTO contact_set (csid, sid, ordering) VALUES (1, 1, 'parallel'), (2, 2, 'parallel'), (3, 3, 'parallel');"
        "INSERT INTO public_address (handle, sip_domain, csid) VALUES ('alice', 'oryx.example', 1),"
        " ('1001', 'oryx.example', 1), ('bob', 'oryx.example', 2), ('carol', 'oryx.example', 3)");
}

void SipTest::startRegistrar(const std::vector<std::string>& options)
{
    // Most of a start's time goes into the key for its routes, which it makes of a password if it has one.
    const bool keepsRoutes = std::find(options.begin(), options.end(), "--record-route") != options.end();
    start(ORYX_REGISTRAR, keepsRoutes ? m_database.uri() : m_database.socketUri(), server::kUser, options);
}

void SipTest::startEvents(const std::vector<std::string>& options)
{
    start(ORYX_EVENTS, m_database.uri(), server::loginOf("oryx_presence"), options);
}

void SipTest::start(const std::string& program, const std::vector<std::string>& options)
{
    start(program, m_database.uri(), server::kUser, options);
}

void SipTest::start(const std::string& program, const std::string& database, const std::string& user,
                    const std::vector<std::string>& options)
{
    std::vector<std::string> arguments{"--listen",   "udp:127.0.0.1:" + std::to_string(m_port),
                                       "--listen",   "tcp:127.0.0.1:" + std::to_string(m_port),
                                       "--database", database,
                                       "--user",     user};
    arguments.insert(arguments.end(), options.begin(), options.end());
    const std::string password = database == m_database.uri() ? server::kPassword : "";
    m_server = std::make_unique<Program>(program, arguments, std::vector<std::string>{"PGPASSWORD=" + password});
    ASSERT_EQ(m_server->line(), "ready");
}

int SipTest::stop()
{
    m_server->signal(SIGTERM);
    return m_server->wait(2);
}

std::string pageAt(int port)
{
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<std::uint16_t>(port));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const std::string request = "GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n";
    std::string page;
    if (connect(descriptor, reinterpret_cast<sockaddr*>(&to), sizeof to) == 0 &&
        send(descriptor, request.data(), request.size(), 0) > 0) {
        std::array<char, 4096> text{};
        for (ssize_t size = 0; (size = recv(descriptor, text.data(), text.size(), 0)) > 0;) {
            page.append(text.data(), static_cast<std::size_t>(size));
        }
    }
    close(descriptor);
    return page;
}
