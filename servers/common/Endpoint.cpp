#include <common/Endpoint.h>

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace oryx::sip {

namespace {

/// Has the agent made without a socket; the stack takes this pointer for it.
const url_string_t* const kNoSocket = reinterpret_cast<const url_string_t*>(static_cast<std::intptr_t>(-1)); // NOLINT
constexpr unsigned kTimerC = 185 * 1000; // ms; RFC 3261 section 16.6, item 11: more than three minutes
constexpr unsigned kLargestMessage = 64 * 1024;

std::string sofiaUri(const Listen& socket)
{
    return "sip:" + socket.host + ":" + (socket.port == "0" ? "*" : socket.port) + ";transport=" + socket.transport;
}

bool samePort(const char* left, const char* right)
{
    const auto port = [](const char* text) { return text != nullptr && *text != '\0' ? text : "5060"; };
    return std::strcmp(port(left), port(right)) == 0;
}

} // namespace

Incoming::Incoming(nta_agent_t* agent, Metrics& metrics, nta_incoming_t* transaction)
    : m_agent(agent),
      m_metrics(metrics),
      m_transaction(transaction),
      m_request(nta_incoming_getrequest(transaction)),
      m_sip(sip_object(m_request.get()))
{
    nta_incoming_bind(transaction, &Incoming::acknowledgedOrCancelled, this);
}

Incoming::~Incoming()
{
    if (!m_answered) {
        answer(SIP_500_INTERNAL_SERVER_ERROR);
    }
    nta_incoming_destroy(m_transaction);
}

void Incoming::forward(Message response)
{
    count(sip_object(response.get())->sip_status->st_status);
    nta_incoming_mreply(m_transaction, response.release());
}

void Incoming::count(int status)
{
    if (status >= 200 && !std::exchange(m_answered, true)) {
        m_metrics.answer(status);
    }
}

int Incoming::acknowledgedOrCancelled(void* self, nta_incoming_t* /*transaction*/, const sip_t* sip)
{
    auto* const incoming = static_cast<Incoming*>(self);
    if (sip == nullptr || sip->sip_request == nullptr || sip->sip_request->rq_method != sip_method_cancel) {
        return 0;
    }
    if (incoming->m_cancel) {
        const std::function<void()> cancel = incoming->m_cancel; // which may end the request
        cancel();
    } else if (!incoming->m_answered) {
        incoming->answer(SIP_487_REQUEST_TERMINATED);
    }
    return 0;
}

Endpoint::Endpoint(Loop& loop, Metrics& metrics, const std::vector<Listen>& sockets, OnRequest onRequest,
                   OnStray onStray)
    : m_metrics(metrics),
      m_onRequest(std::move(onRequest)),
      m_onStray(std::move(onStray)),
      // A proxy's ways: no answer of its own to CANCEL, and each 2xx of a fork is passed on.
      m_agent(nta_agent_create(loop.root(), kNoSocket, &Endpoint::received, this, NTATAG_UA(0), NTATAG_MERGE_482(0),
                               NTATAG_CANCEL_487(0), NTATAG_SERVER_RPORT(1), NTATAG_CLIENT_RPORT(1),
                               NTATAG_TIMER_C(kTimerC), NTATAG_MAXSIZE(kLargestMessage), TAG_END()))
{
    if (m_agent == nullptr) {
        throw std::runtime_error("the SIP stack cannot be started");
    }
    for (const Listen& socket : sockets) {
        const std::string uri = sofiaUri(socket);
        if (nta_agent_add_tport(m_agent, urlText(uri.c_str()), TAG_END()) != 0) {
            nta_agent_destroy(m_agent);
            throw std::runtime_error("--listen: cannot listen on " + socket.transport + ":" + socket.host + ":" +
                                     socket.port);
        }
    }
}

Endpoint::~Endpoint()
{
    nta_agent_destroy(m_agent);
}

bool Endpoint::isOurs(const url_t& url) const
{
    for (const sip_via_t* via = nta_agent_via(m_agent); via != nullptr; via = via->v_next) {
        if (url.url_host != nullptr && su_casematch(via->v_host, url.url_host) != 0 &&
            samePort(via->v_port, url.url_port)) {
            return true;
        }
    }
    return false;
}

bool Endpoint::isOurs(const sip_via_t& via) const
{
    for (const sip_via_t* own = nta_agent_via(m_agent); own != nullptr; own = own->v_next) {
        if (su_casematch(own->v_host, via.v_host) != 0 && samePort(own->v_port, via.v_port)) {
            return true;
        }
    }
    return false;
}

std::string Endpoint::uri(const char* protocol) const
{
    const sip_via_t* chosen = nullptr;
    for (const sip_via_t* via = nta_agent_via(m_agent); via != nullptr; via = via->v_next) {
        const bool fits = protocol != nullptr && su_casematch(via->v_protocol, protocol) != 0;
        chosen = chosen == nullptr || fits ? via : chosen;
        if (fits) {
            break;
        }
    }
    if (chosen == nullptr) {
        return ""; // a server has at least one socket
    }
    const char* const port = chosen->v_port != nullptr ? chosen->v_port : "5060";
    const bool tcp = su_casematch(chosen->v_protocol, sip_transport_tcp) != 0;
    return std::string("sip:") + chosen->v_host + ":" + port + ";transport=" + (tcp ? "tcp" : "udp");
}

int Endpoint::received(void* self, nta_agent_t* /*agent*/, msg_t* message, sip_t* sip)
{
    static_cast<Endpoint*>(self)->take(Message(message), sip);
    return 0;
}

void Endpoint::take(Message message, sip_t* sip)
{
    if (sip->sip_request == nullptr) {
        m_onStray(message, *sip);
        return;
    }
    const sip_method_t method = sip->sip_request->rq_method;
    m_metrics.request();
    if (method == sip_method_ack) {
        m_onStray(message, *sip);
    } else if (method == sip_method_cancel) { // of nothing that is known
        nta_msg_treply(m_agent, message.release(), SIP_481_NO_TRANSACTION, TAG_END());
    } else if (m_refusing) {
        nta_msg_treply(m_agent, message.release(), SIP_503_SERVICE_UNAVAILABLE, SIPTAG_RETRY_AFTER_STR("1"), TAG_END());
    } else if (nta_incoming_t* const transaction =
                   nta_incoming_create(m_agent, nullptr, message.release(), sip, TAG_END())) {
        m_onRequest(std::make_shared<Incoming>(m_agent, m_metrics, transaction));
    }
}

} // namespace oryx::sip
