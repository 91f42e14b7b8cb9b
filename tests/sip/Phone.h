#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

/// \file
/// Telephones of the tests' own, which send just what a test says.

namespace phone {

/// A SIP message, in its parts.
struct Message {
    std::string first; ///< Request line or status line.
    /// Name and value of each header field, as written.
    std::vector<std::pair<std::string, std::string>> fields;
    std::string body;

    static Message parse(const std::string& text);
    std::string text() const;

    /// The status of a response, 0 of a request.
    int status() const;
    std::string method() const;
    /// The values of the fields of that name, with ", " between them; empty where there is none.
    std::string field(const std::string& name) const;
    /// The value of a parameter, in quotes or not, of the nth field of that name.
    std::string parameter(const std::string& name, const std::string& parameter, std::size_t nth = 0) const;
    /// Puts a field into the place of those of that name; an empty value only takes those away.
    Message& set(const std::string& name, const std::string& value);
    /// Puts one more field behind the others.
    Message& add(const std::string& name, const std::string& value);
};

enum class Transport { udp, tcp };

/// A socket on loopback: of UDP, or of one TCP connection, made when something is sent first.
class Socket {
public:
    explicit Socket(const std::string& host = "127.0.0.1", Transport transport = Transport::udp);
    ~Socket();
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    const std::string& host() const { return m_host; }
    Transport transport() const { return m_transport; }
    int port() const { return m_port; }
    std::string hostPort() const;
    void send(int port, const std::string& text);
    /// Sends the text by a stream again and again until the peer takes no more of it for a while; reads nothing.
    void fill(int port, const std::string& text);
    /// What comes next: a datagram, or a message of the stream; throws when nothing does in time.
    std::string receive(int milliseconds = 5000);
    /// Whether nothing comes for so long.
    bool silent(int milliseconds = 300) const;
    /// Whether the peer closes the connection within that time; what comes before is thrown away.
    bool closed(int milliseconds = 5000) const;

private:
    std::string take();

    std::string m_host;
    Transport m_transport;
    int m_socket;
    int m_port;
    bool m_connected = false;
    std::string m_unread; // of a stream, behind the last whole message
};

/// A free port, of both UDP and TCP.
int freePort(const std::string& host = "127.0.0.1");

/// Somebody's telephone: what it sends, it sends to the server at that port.
class Phone {
public:
    Phone(std::string user, std::string domain, int server, const std::string& host = "127.0.0.1",
          Transport transport = Transport::udp);

    /// A request to that URI from this telephone's user, with all that it must have.
    Message request(const std::string& method, const std::string& uri, const std::string& to = "");
    /// A REGISTER request for itself.
    Message registration(const std::string& contact, int expires = 3600);
    /// A request that asks for what its dialog's first request and response have settled.
    void send(const Message& message) { m_socket.send(m_server, message.text()); }
    /// Sends it and gives the final answer; what comes before that is left out.
    Message ask(const Message& request);
    /// The same; a challenge is answered with the password.
    Message ask(Message request, const std::string& password, const std::string& algorithm = "MD5");
    /// What comes next.
    Message receive(int milliseconds = 5000) { return Message::parse(m_socket.receive(milliseconds)); }
    /// A response to a request that has come in.
    Message response(const Message& request, int status, const std::string& phrase) const;

    std::string contact() const;
    /// A Via of its own, with a branch that no other has.
    std::string via() const;
    std::string address() const { return "sip:" + m_user + "@" + m_domain; }
    Socket& socket() { return m_socket; }
    /// The Call-ID of all its REGISTER requests, and the CSeq of the last request.
    std::string callId;
    unsigned cseq = 0;

    /// The credentials that answer a challenge.
    std::string credentials(const Message& request, const Message& challenge, const std::string& password,
                            const std::string& algorithm) const;
    /// The same as telephones make them that do not know qop, in MD5 (RFC 2069).
    std::string oldCredentials(const Message& request, const Message& challenge, const std::string& password) const;

private:
    std::string m_user;
    std::string m_domain;
    int m_server;
    Socket m_socket;
};

} // namespace phone
