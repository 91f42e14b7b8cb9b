#pragma once

#include <common/Answers.h>
#include <common/Connections.h>
#include <common/Loop.h>
#include <common/Metrics.h>
#include <common/Options.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace oryx::sip {

class Endpoint;

/// A request with its server transaction (RFC 3261 section 17.2), which answers what is sent again; or with what stands
/// in the place of one. A request that is given up without a final answer is answered 500, or 503 where the server
/// ends.
class Incoming {
public:
    Incoming(const Endpoint& endpoint, Metrics& metrics, nta_incoming_t* transaction, bool brief);
    /// One without a transaction: to be answered once, by this server.
    Incoming(const Endpoint& endpoint, Metrics& metrics, Message request, tport_t* socket, Answers& answers,
             const Answers::Mark& mark);
    ~Incoming();
    Incoming(const Incoming&) = delete;
    Incoming& operator=(const Incoming&) = delete;

    const sip_t& sip() const { return *m_sip; }
    msg_t* message() const { return m_request.get(); }
    /// The socket that it came by, as a URI such as "sip:192.0.2.1:5060;transport=udp".
    std::string socket() const;
    bool answered() const { return m_answered; }
    /// What `Endpoint::IsBrief` has said of it, which may not say the same again.
    bool isBrief() const { return m_brief; }
    /// The tag in To of this server's own answers.
    std::string tag() const
    {
        return m_transaction != nullptr ? nta_incoming_tag(m_transaction, nullptr) : Answers::tagOf(m_mark);
    }

    /// An answer of this server's own, with the header fields that the tags say.
    template <typename... Tags>
    void answer(int status, const char* phrase, Tags... tags)
    {
        count(status); // before anybody can have it
        if (m_transaction == nullptr) {
            m_answers->end(m_mark, m_request, m_socket, status, phrase,
                           TagList(tl_list(SIPTAG_SERVER_STR(kServer), tags..., TAG_END())));
            return;
        }
        nta_incoming_tag(m_transaction, nullptr);
        if (nta_incoming_treply(m_transaction, status, phrase, SIPTAG_SERVER_STR(kServer), tags..., TAG_END()) < 0) {
            // A text among the tags is none that can be sent.
            nta_incoming_treply(m_transaction, SIP_500_INTERNAL_SERVER_ERROR, TAG_END());
        }
    }
    /// The same, as the step by which the request comes to its end: false.
    template <typename... Tags>
    bool refuse(int status, const char* phrase, Tags... tags)
    {
        answer(status, phrase, tags...);
        return false;
    }
    /// 503: the database is away, or too much is waiting for it.
    void answerUnavailable() { answer(SIP_503_SERVICE_UNAVAILABLE, SIPTAG_RETRY_AFTER_STR("2")); }
    /// Somebody else's answer, where there is a transaction; its Via is this transaction's.
    void forward(Message response);
    /// Called when the client cancels the request; until this is called, it is answered 487 then.
    void onCancel(std::function<void()> cancel) { m_cancel = std::move(cancel); }

    static constexpr const char* kServer = "oryx/" ORYX_VERSION;

private:
    static int acknowledgedOrCancelled(void* self, nta_incoming_t* transaction, const sip_t* sip);
    void count(int status);

    const Endpoint& m_endpoint;
    Metrics& m_metrics;
    nta_incoming_t* m_transaction = nullptr;
    Answers* m_answers = nullptr; // where there is no transaction
    tport_t* m_socket = nullptr;
    Answers::Mark m_mark{};
    Message m_request;
    const sip_t* m_sip;
    std::function<void()> m_cancel;
    bool m_answered = false;
    bool m_brief;
};

struct TransactionDeleter {
    void operator()(nta_outgoing_t* transaction) const { nta_outgoing_destroy(transaction); }
};
/// A request of this server's that is under way; nobody hears of its answers when it has been destroyed.
using Transaction = std::unique_ptr<nta_outgoing_t, TransactionDeleter>;
/// The transaction that a message was given to, which keeps it from now on. Where the stack makes none, for a URI of no
/// use to it say, it has not taken the message.
inline nta_outgoing_t* keeping(Message& message, nta_outgoing_t* transaction)
{
    if (transaction != nullptr) {
        static_cast<void>(message.release());
    }
    return transaction;
}

/// The sockets, and what comes in on them.
class Endpoint {
public:
    /// Gets each new request but ACK and CANCEL.
    using OnRequest = std::function<void(std::shared_ptr<Incoming> request)>;
    /// Gets what no transaction is for: an ACK for a 2xx; a response, whose transaction has ended or never was. Without
    /// one it is dropped.
    using OnStray = std::function<void(const Message& message, const sip_t& sip)>;
    /// Whether a request needs no transaction: it is answered once, by this server, and cannot be cancelled.
    using IsBrief = std::function<bool(const sip_t& sip)>;

    /// What becomes of a request that comes again by another way, as a proxy before this server has forked it.
    enum class Merged {
        taken,   ///< It goes on: to a proxy they are two.
        refused, ///< 482, where requests end (RFC 3261 section 8.2.2.2); of those with a transaction.
    };

    /// Throws `std::runtime_error` when one of the sockets cannot be had.
    Endpoint(Loop& loop, Metrics& metrics, const Options& options, OnRequest onRequest, OnStray onStray,
             IsBrief isBrief = nullptr, Merged merged = Merged::taken);
    ~Endpoint();
    Endpoint(const Endpoint&) = delete;
    Endpoint& operator=(const Endpoint&) = delete;

    nta_agent_t* agent() const { return m_agent; }
    /// Whether host and port are those of one of the sockets.
    bool isSocket(const char* host, const char* port) const;
    /// The same with the other names that the server goes by; of a URI those that it leads to.
    bool isOurs(const char* host, const char* port) const;
    bool isOurs(const url_t& url) const;
    /// Whether a message has come by the port that the URI names, and the transport if it names one; while it is being
    /// handed over.
    bool hasComeBy(msg_t* message, const url_t& url) const;
    /// The socket that a request to there is sent by, as a URI.
    std::string socketTowards(const url_t& next) const;
    /// What the stack is to be told of the way to there, TPTAG_IDENT: it does not see that an IPv6 address is one.
    static const char* familyOf(const url_t& next);
    /// From now on every request is answered 503.
    void refuseRequests() { m_refusing = true; }
    bool refuses() const { return m_refusing; }

private:
    static int received(void* self, nta_agent_t* agent, msg_t* message, sip_t* sip);
    void take(Message message, sip_t* sip);
    void keepConnection(msg_t* message);
    bool hasRoom();
    bool listen(const Listen& socket) const;

    Metrics& m_metrics;
    OnRequest m_onRequest;
    OnStray m_onStray;
    IsBrief m_isBrief;
    const Options& m_options;
    nta_agent_t* m_agent;
    Answers m_answers;
    std::optional<Connections> m_connections;
    bool m_refusing = false;
    bool m_full = false;
    unsigned m_uncounted = 0; // transactions since it was found out whether there are too many
};

} // namespace oryx::sip
