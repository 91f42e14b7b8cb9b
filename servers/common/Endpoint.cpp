#include <common/Endpoint.h>

#include <common/Address.h>
#include <common/Headers.h>
#include <common/Intake.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <utility>

namespace oryx::sip {

namespace {

/// Has the agent made without a socket; the stack takes this pointer for it.
const url_string_t* const kNoSocket = reinterpret_cast<const url_string_t*>(static_cast<std::intptr_t>(-1)); // NOLINT
/// As many datagrams as come in a moment in which this server does not run; the system may allow less.
constexpr unsigned kSocketRoom = 4 * 1024 * 1024;
constexpr unsigned kKeepAlive = 120 * 1000;  // ms between the signs of life by which dead streams are found
constexpr unsigned kMessageTime = 32 * 1000; // ms that a message may take to come in whole, and the first to begin
constexpr unsigned kStacksTimerC = 24 * 3600 * 1000; // ms; a fork has one for each branch, which knows whom to cancel
/// Connections that have not been accepted yet; the stack takes the size of its queues for that.
constexpr unsigned kMostWaiting = 1000;
constexpr unsigned kMostUnsent = 64;         // messages to whoever does not read them
constexpr usize_t kMostTransactions = 50000; // that others begin, with some 10 kB each; a call has one to each side
/// The fields without which a request is not understood: 400 where one cannot be read.
constexpr unsigned kNeeded = ~static_cast<unsigned>(sip_mask_response | sip_mask_pref | sip_mask_privacy);

std::string sofiaUri(const Listen& socket)
{
    return "sip:" + socket.host + ":" + (socket.port == "0" ? "*" : socket.port) + ";transport=" + socket.transport;
}

/// A socket, or a connection that it has accepted, as the stack writes it into Via.
const sip_via_t* viaOf(const tport_t* socket)
{
    const sip_via_t* via = tport_magic(socket);
    while (via->v_next != nullptr) {
        via = via->v_next;
    }
    return via;
}

std::string uriOf(const tport_t* socket)
{
    const sip_via_t* const via = viaOf(socket);
    const bool tcp = su_casematch(via->v_protocol, sip_transport_tcp) != 0;
    const std::string port = via->v_port != nullptr ? via->v_port : "5060";
    return std::string("sip:") + via->v_host + ":" + port + ";transport=" + (tcp ? "tcp" : "udp");
}

bool samePort(const char* left, const char* right)
{
    const auto port = [](const char* text) { return text != nullptr && *text != '\0' ? text : "5060"; };
    return std::strcmp(port(left), port(right)) == 0;
}

} // namespace

Incoming::Incoming(const Endpoint& endpoint, Metrics& metrics, nta_incoming_t* transaction, bool brief)
    : m_endpoint(endpoint),
      m_metrics(metrics),
      m_transaction(transaction),
      m_request(nta_incoming_getrequest(transaction)),
      m_sip(sip_object(m_request.get())),
      m_brief(brief)
{
    nta_incoming_bind(transaction, &Incoming::acknowledgedOrCancelled, this);
}

Incoming::Incoming(const Endpoint& endpoint, Metrics& metrics, Message request, tport_t* socket, Answers& answers,
                   const Answers::Mark& mark)
    : m_endpoint(endpoint),
      m_metrics(metrics),
      m_answers(&answers),
      m_socket(socket),
      m_mark(mark),
      m_request(std::move(request)),
      m_sip(sip_object(m_request.get())),
      m_brief(true)
{
    answers.begin(mark);
}

Incoming::~Incoming()
{
    if (!m_answered) {
        m_endpoint.refuses() ? answerUnavailable() : answer(SIP_500_INTERNAL_SERVER_ERROR);
    }
    if (m_transaction != nullptr) {
        nta_incoming_destroy(m_transaction);
    }
}

std::string Incoming::socket() const
{
    tport_t* const socket = nta_incoming_transport(m_endpoint.agent(), m_transaction, nullptr);
    std::string uri = uriOf(tport_parent(socket));
    tport_unref(socket);
    return uri;
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

Endpoint::Endpoint(Loop& loop, Metrics& metrics, const Options& options, OnRequest onRequest, OnStray onStray,
                   IsBrief isBrief, Merged merged)
    : m_metrics(metrics),
      m_onRequest(std::move(onRequest)),
      m_onStray(onStray ? std::move(onStray) : OnStray([](const Message&, const sip_t&) {})),
      m_isBrief(std::move(isBrief)),
      m_options(options),
      // A proxy's ways: no answer of its own to CANCEL, no CANCEL of its own, and each 2xx of a fork is passed on.
      m_agent(nta_agent_create(loop.root(), kNoSocket, &Endpoint::received, this, NTATAG_UA(0),
                               NTATAG_MERGE_482(merged == Merged::refused), NTATAG_CANCEL_487(0),
                               NTATAG_SERVER_RPORT(1), NTATAG_CLIENT_RPORT(1), NTATAG_TIMER_C(kStacksTimerC),
                               NTATAG_BAD_REQ_MASK(kNeeded), NTATAG_MAXSIZE(kMostHeld), TAG_END())),
      m_answers(m_agent)
{
    if (m_agent == nullptr) {
        throw std::runtime_error("the SIP stack cannot be started");
    }
    // The stack takes the first socket for whoever names no transport, which means UDP (RFC 3263 section 4.1).
    for (const char* const transport : {"udp", "tcp"}) {
        for (const Listen& socket : options.listen) {
            if (socket.transport == transport && !listen(socket)) {
                nta_agent_destroy(m_agent);
                throw std::runtime_error("--listen: cannot listen on " + socket.transport + ":" + socket.host + ":" +
                                         socket.port);
            }
        }
    }
    for (tport_t* socket = tport_primaries(nta_agent_tports(m_agent)); socket != nullptr; socket = tport_next(socket)) {
        for (sip_via_t* via = tport_magic(socket); via != nullptr; via = via->v_next) {
            via->v_comment = nullptr; // where the stack shows the sockets' families to all
        }
        tport_set_params(socket, TPTAG_QUEUESIZE(kMostUnsent), TAG_END());
    }
    m_connections.emplace(loop, metrics, tport_primaries(nta_agent_tports(m_agent)));
}

bool Endpoint::listen(const Listen& socket) const
{
    const std::string uri = sofiaUri(socket);
    const char* const family = socket.host.starts_with('[') ? "ip6" : "ip4"; // all need one where any has
    return nta_agent_add_tport(m_agent, urlText(uri.c_str()), TPTAG_IDENT(family), TPTAG_UDP_RMEM(kSocketRoom),
                               TPTAG_UDP_WMEM(kSocketRoom), TPTAG_KEEPALIVE(kKeepAlive), TPTAG_PONG2PING(1),
                               TPTAG_TIMEOUT(kMessageTime), TPTAG_IDLE(kMessageTime), TPTAG_QUEUESIZE(kMostWaiting),
                               TAG_END()) == 0;
}

Endpoint::~Endpoint()
{
    nta_agent_destroy(m_agent);
}

bool Endpoint::isOurs(const url_t& url) const
{
    return isOurs(nextHostOf(url).c_str(), url.url_port);
}

bool Endpoint::isOurs(const char* host, const char* port) const
{
    const std::vector<std::string>& names = m_options.names;
    const auto isIt = [&](const std::string& name) { return host_cmp(name.c_str(), host) == 0; };
    const auto isThere = [&](const Listen& socket) { return samePort(socket.port.c_str(), port); };
    return isSocket(host, port) || (std::any_of(names.begin(), names.end(), isIt) &&
                                    std::any_of(m_options.listen.begin(), m_options.listen.end(), isThere));
}

/// By the address of a socket, however it is written, or by its name on the command line.
bool Endpoint::isSocket(const char* host, const char* port) const
{
    for (const sip_via_t* own = nta_agent_via(m_agent); own != nullptr; own = own->v_next) {
        if (host_cmp(own->v_host, host) == 0 && samePort(own->v_port, port)) {
            return true;
        }
    }
    return std::any_of(m_options.listen.begin(), m_options.listen.end(), [&](const Listen& socket) {
        return su_casematch(socket.host.c_str(), host) != 0 && samePort(socket.port.c_str(), port);
    });
}

bool Endpoint::hasComeBy(msg_t* message, const url_t& url) const
{
    const tport_t* const connection = tport_delivered_by(nta_agent_tports(m_agent), message);
    if (connection == nullptr) {
        return false;
    }
    const sip_via_t* const via = viaOf(tport_parent(connection));
    // Where none is named that is UDP, and TCP for what is too long for it (RFC 3261 section 18.1.1).
    const std::optional<std::string_view> transport = parameterOf(url, "transport");
    const char* const used = su_casematch(via->v_protocol, sip_transport_tcp) != 0 ? "tcp" : "udp";
    return samePort(via->v_port, url.url_port) &&
           (!transport || su_casematch(std::string(*transport).c_str(), used) != 0);
}

const char* Endpoint::familyOf(const url_t& next)
{
    return nextHostOf(next).starts_with('[') ? "ip6" : nullptr;
}

std::string Endpoint::socketTowards(const url_t& next) const
{
    su_home_t home[1] = {SU_HOME_INIT(home)};
    tp_name_t name{};
    const tport_t* socket = nullptr;
    if (tport_name_by_url(home, &name, urlText(next)) == 0) {
        name.tpn_ident = familyOf(next);
        socket = tport_primary_by_name(nta_agent_tports(m_agent), &name);
    }
    std::string uri = uriOf(socket != nullptr ? socket : tport_primaries(nta_agent_tports(m_agent)));
    su_home_deinit(home);
    return uri;
}

int Endpoint::received(void* self, nta_agent_t* /*agent*/, msg_t* message, sip_t* sip)
{
    static_cast<Endpoint*>(self)->take(Message(message), sip);
    return 0;
}

/// Whoever has sent one request may be silent from now on; whoever has not is nobody's telephone.
void Endpoint::keepConnection(msg_t* message)
{
    tport_t* const connection = tport_delivered_by(nta_agent_tports(m_agent), message);
    if (tport_is_secondary(connection) != 0) {
        tport_set_params(connection, TPTAG_IDLE(UINT_MAX), TAG_END());
        m_connections->heard(connection);
    }
}

/// Whether one more transaction can be had. They are counted every now and then, which takes as long as a short
/// request.
bool Endpoint::hasRoom()
{
    constexpr unsigned kTogether = 64;
    if (m_full || ++m_uncounted == kTogether) {
        usize_t open = 0;
        usize_t own = 0;
        nta_agent_get_stats(m_agent, NTATAG_S_IRQ_HASH_USED_REF(open), NTATAG_S_ORQ_HASH_USED_REF(own), TAG_END());
        m_full = open >= kMostTransactions || open + own >= 2 * kMostTransactions;
        m_uncounted = 0;
    }
    return !m_full;
}

void Endpoint::take(Message message, sip_t* sip)
{
    if (sip->sip_request == nullptr) {
        m_onStray(message, *sip);
        return;
    }
    // The stack tells which socket brought a request only while it hands it over: an answer without a transaction would
    // leave by the first one later. A stream brings each request once, and the transaction of one that is answered here
    // ends with its answer.
    tport_t* const socket = tport_delivered_by(nta_agent_tports(m_agent), message.get());
    std::optional<Answers::Mark> mark;
    const bool brief = m_isBrief && m_isBrief(*sip);
    if (brief && tport_is_udp(socket) != 0) {
        mark = m_answers.markOf(*sip);
        if (m_answers.repeats(*mark, message, socket)) {
            return;
        }
    }
    const sip_method_t method = sip->sip_request->rq_method;
    m_metrics.request();
    keepConnection(message.get());
    if (method == sip_method_ack) {
        m_onStray(message, *sip);
    } else if (method == sip_method_cancel) {
        // Of nothing that is known. A proxy would send it on without a transaction (RFC 3261 section 16.10): for an
        // INVITE that went on without one, which no INVITE does here, nor could it be told to where.
        m_metrics.answer(481);
        nta_msg_treply(m_agent, message.release(), SIP_481_NO_TRANSACTION, TAG_END());
    } else if (m_refusing || (!mark && !hasRoom())) {
        m_metrics.answer(503);
        nta_msg_treply(m_agent, message.release(), SIP_503_SERVICE_UNAVAILABLE, SIPTAG_RETRY_AFTER_STR("1"), TAG_END());
    } else if (mark) {
        m_onRequest(std::make_shared<Incoming>(*this, m_metrics, std::move(message), socket, m_answers, *mark));
    } else if (nta_incoming_t* const transaction =
                   nta_incoming_create(m_agent, nullptr, message.release(), sip, TAG_END())) {
        m_onRequest(std::make_shared<Incoming>(*this, m_metrics, transaction, brief));
    }
}

} // namespace oryx::sip
