#include <registrar/Fork.h>

#include <algorithm>
#include <array>
#include <utility>

namespace oryx::sip {

namespace {

constexpr std::chrono::seconds kRinging{20};  // of one telephone, before the next is tried
constexpr std::chrono::seconds kAnswering{4}; // the same with what needs nobody's hand: its client waits for 32 s
constexpr std::chrono::seconds kTimerC{185};  // section 16.6, item 11: more than three minutes
/// 64 * T1: as long as a 2xx is sent again, and as a cancelled request is waited for (section 9.1).
constexpr std::chrono::seconds kLinger{32};

/// A response as the one before this proxy gets it: without this proxy's Via.
Message withoutOwnVia(msg_t* response)
{
    Message copy(msg_dup(response));
    if (copy) {
        sip_via_remove(copy.get(), sip_object(copy.get()));
    }
    return copy;
}

/// What ends an INVITE request that is under way (RFC 3261 section 9.1); its Via is the transaction's.
Message cancelOf(nta_agent_t* agent, msg_t* invite)
{
    const sip_t& sip = *sip_object(invite);
    Message message(nta_msg_create(agent, 0));
    su_home_t* const home = msg_home(message.get());
    sip_add_tl(message.get(), sip_object(message.get()),
               SIPTAG_REQUEST(sip_request_create(home, SIP_METHOD_CANCEL, urlText(*sip.sip_request->rq_url), nullptr)),
               SIPTAG_TO(sip.sip_to), SIPTAG_FROM(sip.sip_from), SIPTAG_CALL_ID(sip.sip_call_id),
               SIPTAG_CSEQ(sip_cseq_create(home, sip.sip_cseq->cs_seq, SIP_METHOD_CANCEL)), SIPTAG_ROUTE(sip.sip_route),
               SIPTAG_MAX_FORWARDS_STR("70"), TAG_END());
    return message;
}

/// Where a request has gone to. Its URI may be that of several places, of which another would be chosen the next time.
std::string placeOf(msg_t* sent)
{
    std::array<char, TPORT_HOSTPORTSIZE> place{};
    tport_hostport(place.data(), place.size(), msg_addr(sent), 1);
    const bool tcp = msg_addrinfo(sent)->ai_socktype == SOCK_STREAM;
    return std::string("sip:") + place.data() + ";transport=" + (tcp ? "tcp" : "udp");
}

/// What a caller can do something about comes before what he cannot (RFC 3261 section 16.7, item 6).
int rank(int status)
{
    if (status >= 600) {
        return 0;
    }
    constexpr std::array useful{401, 407, 415, 420, 484};
    const bool is = std::find(useful.begin(), useful.end(), status) != useful.end();
    const bool last = status == 408 || status == 487 || status == 503; // nobody was there, or this proxy cancelled it
    return 10 * (status / 100) + (is ? 0 : last ? 9 : 5);
}

} // namespace

struct Fork::Branch {
    Branch(Fork& of, std::string via)
        : fork(of), key(std::move(via)), timerC(of.m_loop, [this] { fork.timeOut(*this); })
    {
    }

    void drop()
    {
        timerC.cancel();
        transaction.reset();
        ended = true;
    }

    Fork& fork;
    std::string key; // of its Via
    Timer timerC;
    Transaction transaction;
    Message response; // its final one
    bool heard = false;
    bool cancelled = false;
    bool ended = false;
};

Fork::Fork(const Loop& loop, const Endpoint& endpoint, const Seal& seal, Forks& forks,
           std::shared_ptr<Incoming> request, Outgoing outgoing, std::vector<Hop> hops)
    : m_loop(loop),
      m_endpoint(endpoint),
      m_seal(seal),
      m_forks(forks),
      m_request(std::move(request)),
      m_outgoing(std::move(outgoing)),
      m_hops(std::move(hops)),
      m_patience(loop, [this] { tryOthers(); }),
      m_giveUp(loop, [this] { endCancelled(); }),
      m_linger(loop, [this] { m_forks.erase(shared_from_this()); })
{
}

Fork::~Fork()
{
    if (m_decided && !m_request->answered()) {
        answerTimeout(); // the client has given up by now: the stack keeps it to itself
    }
}

void Fork::start(bool sequential)
{
    m_forks.insert(shared_from_this());
    m_sequential = sequential;
    // The request outlives the fork only where it is still to be answered.
    m_request->onCancel([fork = weak_from_this()] {
        if (const std::shared_ptr<Fork> alive = fork.lock()) {
            alive->cancel();
        }
    });
    tryNext();
}

void Fork::cancel()
{
    m_tried = m_hops.size();
    m_unwanted = true;
    cancelPending();
}

void Fork::abandon()
{
    m_tried = m_hops.size();
    if (isInvite() && !m_decided) {
        m_decided = true;
        m_request->answerUnavailable();
        cancelPending();
    }
}

bool Fork::ending() const
{
    if (!isInvite()) {
        return !m_decided;
    }
    return std::any_of(m_branches.begin(), m_branches.end(),
                       [](const std::unique_ptr<Branch>& branch) { return branch->cancelled && !branch->ended; });
}

/// Those whose turn it is, when nobody is waited for any more; the answer, when nobody is left.
void Fork::tryNext()
{
    while (m_tried < m_hops.size() && !waiting()) {
        tryThose();
    }
    if (pending()) {
        return;
    }
    if (!m_decided) {
        answerBest();
    }
    // A 2xx of an INVITE may come again. Where nothing was answered, the request may: its transaction is silent then.
    // Any other answer stays with the stack, for as long as somebody may ask for it again.
    m_linger.set(isInvite() || !m_request->answered() ? kLinger : std::chrono::seconds::zero());
}

/// The next hops, all or those of the same preference.
void Fork::tryThose()
{
    const int preference = m_hops[m_tried].preference;
    while (m_tried < m_hops.size() && (!m_sequential || m_hops[m_tried].preference == preference)) {
        send(m_hops[m_tried++]);
    }
    if (m_tried < m_hops.size()) {
        m_patience.set(isInvite() ? kRinging : kAnswering);
    } else {
        m_patience.cancel(); // what those before have left of theirs, where they could not be sent to
    }
}

/// Beside those that have not answered in time, who may take long to say that they have stopped.
void Fork::tryOthers()
{
    cancelPending();
    if (m_tried < m_hops.size()) {
        tryThose();
    }
    tryNext();
}

/// The request with that request URI and route (section 16.6, items 2 and 6); none where those cannot be read, or ask
/// for TLS on the whole way (section 26.2.2).
Message Fork::addressed(const Hop& hop) const
{
    Message message(msg_dup(m_outgoing.message.get()));
    const bool addressed = (hop.uri.empty() || setRequestUri(message.get(), urlText(hop.uri.c_str()))) &&
                           (hop.route.empty() || sip_add_tl(message.get(), sip_object(message.get()),
                                                            SIPTAG_ROUTE_STR(hop.route.c_str()), TAG_END()) >= 0) &&
                           sip_object(message.get())->sip_request->rq_url->url_type != url_sips;
    const std::string breadthText = "Max-Breadth: " + std::to_string(breadth());
    sip_add_tl(message.get(), sip_object(message.get()), SIPTAG_HEADER_STR(breadthText.c_str()), TAG_END());
    return addressed ? std::move(message) : nullptr;
}

/// The next branch's share (RFC 5393 section 5.3.3). The next ones by q have theirs too, as those before them may not
/// have ended when it is their turn.
unsigned Fork::breadth() const
{
    const auto branches = static_cast<unsigned>(m_hops.size());
    return m_outgoing.breadth / branches + (m_branches.size() <= m_outgoing.breadth % branches ? 1 : 0);
}

void Fork::send(const Hop& hop)
{
    const std::string key = m_outgoing.branch + "." + std::to_string(m_branches.size() + 1);
    m_branches.push_back(std::make_unique<Branch>(*this, key));
    Branch& branch = *m_branches.back();
    Message message = addressed(hop);
    if (!message) {
        branch.ended = true;
        return;
    }
    su_home_t* const home = msg_home(message.get());
    const url_t* const next =
        hop.next.empty() ? &nextHop(*sip_object(message.get())) : url_hdup(home, urlText(hop.next.c_str())->us_url);
    if (next != nullptr && next->url_type != url_sips) {
        const url_t to = *next; // its texts stay with the message
        if (!m_outgoing.mark.socket.empty()) {
            recordRoute(message.get(), m_outgoing.mark, m_endpoint.socketTowards(to));
        }
        fitStrictRouter(message.get());
        branch.transaction.reset(
            keeping(message, nta_outgoing_mcreate(m_endpoint.agent(), &Fork::responded, &branch, urlText(to),
                                                  message.get(), NTATAG_BRANCH_KEY(key.c_str()),
                                                  TPTAG_IDENT(Endpoint::familyOf(to)), NTATAG_PASS_100(1), TAG_END())));
    }
    branch.ended = branch.transaction == nullptr; // the stack knows no such way
    m_sent = m_sent || !branch.ended;
    if (!branch.ended && isInvite()) {
        branch.timerC.set(kTimerC);
    }
}

int Fork::responded(void* branch, nta_outgoing_t* /*transaction*/, const sip_t* sip)
{
    auto* const of = static_cast<Branch*>(branch);
    const std::shared_ptr<Fork> alive = of->fork.shared_from_this();
    of->fork.take(*of, sip);
    return 0;
}

void Fork::take(Branch& branch, const sip_t* sip)
{
    const int status = sip != nullptr ? sip->sip_status->st_status : nta_outgoing_status(branch.transaction.get());
    const Message response(sip != nullptr ? nta_outgoing_getresponse(branch.transaction.get()) : nullptr);
    if (status < 200) {
        if (!std::exchange(branch.heard, true) && branch.cancelled) {
            sendCancel(branch);
        }
        if (status > 100 && response && !m_decided && isInvite()) { // nobody else waits for it (RFC 4320 section 4.1)
            if (!branch.cancelled) {        // who was told to stop is waited for by m_giveUp alone
                branch.timerC.set(kTimerC); // section 16.7, item 2
            }
            forward(response.get());
        }
        return;
    }
    if (status < 300) {
        // Each 2xx of an INVITE is passed on: of several telephones that were answered at once, the caller chooses.
        if (!m_decided || nta_outgoing_method(branch.transaction.get()) == sip_method_invite) {
            forward(response.get());
        }
        m_decided = true;
        m_tried = m_hops.size();
        if (!isInvite()) {
            dropOthers(branch);
        }
        end(branch);
        cancelPending();
        return;
    }
    if (response && status < 700) {
        branch.response.reset(msg_ref(response.get()));
    }
    if (status >= 600) { // nobody else shall be asked (section 16.7, item 5)
        m_tried = m_hops.size();
        cancelPending();
    }
    end(branch);
}

void Fork::end(Branch& branch)
{
    branch.ended = true;
    branch.timerC.cancel();
    if (!waiting()) {
        m_patience.cancel();
    }
    tryNext();
}

/// Section 16.8.
void Fork::timeOut(Branch& branch)
{
    if (!branch.ended) { // else its transaction may be gone
        cancel(branch);
        tryNext();
    }
}

void Fork::cancel(Branch& branch)
{
    branch.cancelled = true;
    branch.timerC.cancel();
    if (branch.heard) { // otherwise not before something is heard (section 9.1)
        sendCancel(branch);
    }
    m_giveUp.set(kLinger);
}

void Fork::cancelPending()
{
    for (const std::unique_ptr<Branch>& branch : m_branches) {
        if (!branch->ended && !branch->cancelled && isInvite()) {
            cancel(*branch);
        }
    }
}

/// To the place that the request went to (section 9.1). Not as the stack does it, which ends the request's own
/// transaction with that where it came by a stream.
void Fork::sendCancel(const Branch& branch)
{
    const Message request(nta_outgoing_getrequest(branch.transaction.get()));
    Message message = cancelOf(m_endpoint.agent(), request.get());
    const char* const family = msg_addr(request.get())->su_family == AF_INET6 ? "ip6" : nullptr;
    keeping(message,
            nta_outgoing_mcreate(m_endpoint.agent(), nullptr, nullptr, urlText(placeOf(request.get()).c_str()),
                                 message.get(), NTATAG_BRANCH_KEY(branch.key.c_str()), TPTAG_IDENT(family), TAG_END()));
}

/// Those that have been cancelled and say nothing of it.
void Fork::endCancelled()
{
    drop([](const Branch& branch) { return branch.cancelled; });
    tryNext();
}

/// Those that cannot be cancelled, and whose answers nobody is sent any more: the stack takes them.
void Fork::dropOthers(const Branch& answered)
{
    drop([&](const Branch& branch) { return &branch != &answered; });
}

void Fork::drop(const std::function<bool(const Branch&)>& which)
{
    for (const std::unique_ptr<Branch>& branch : m_branches) {
        if (!branch->ended && which(*branch)) {
            branch->drop();
        }
    }
}

bool Fork::pending() const
{
    return std::any_of(m_branches.begin(), m_branches.end(),
                       [](const std::unique_ptr<Branch>& branch) { return !branch->ended; });
}

/// Whether anybody may still answer who has not been told to stop.
bool Fork::waiting() const
{
    return std::any_of(m_branches.begin(), m_branches.end(),
                       [](const std::unique_ptr<Branch>& branch) { return !branch->ended && !branch->cancelled; });
}

bool Fork::isInvite() const
{
    return m_request->sip().sip_request->rq_method == sip_method_invite;
}

void Fork::answerBest()
{
    m_decided = true;
    const Message chosen = best();
    const int otherwise = m_unwanted ? 487 : m_sent ? 408 : 503; // as if it had come: sections 16.8 and 16.9
    const int status = chosen ? sip_object(chosen.get())->sip_status->st_status : otherwise;
    if (status == 408 || (status == 487 && !m_unwanted)) { // who rang was told to stop, not by the caller
        if (isInvite()) { // else nothing is said, not even when it is sent again (RFC 4320 section 4.2)
            answerTimeout();
        }
    } else if (status == 503) { // that one is overloaded, this one is not
        m_request->answer(SIP_500_INTERNAL_SERVER_ERROR);
    } else if (!chosen) {
        m_request->answer(SIP_487_REQUEST_TERMINATED);
    } else {
        forward(chosen.get());
    }
}

void Fork::answerTimeout()
{
    m_request->answer(SIP_408_REQUEST_TIMEOUT);
}

/// The best response, with everybody's challenges (section 16.7, items 6 and 7).
Message Fork::best()
{
    const Branch* chosen = nullptr;
    for (const std::unique_ptr<Branch>& branch : m_branches) {
        const auto rankOf = [](const Branch& of) { return rank(sip_object(of.response.get())->sip_status->st_status); };
        if (branch->response && (chosen == nullptr || rankOf(*branch) < rankOf(*chosen))) {
            chosen = branch.get();
        }
    }
    if (chosen == nullptr) {
        return nullptr;
    }
    Message best(msg_dup(chosen->response.get()));
    sip_t* const sip = sip_object(best.get());
    const int status = sip->sip_status->st_status;
    for (const std::unique_ptr<Branch>& branch : m_branches) {
        if (branch.get() == chosen || !branch->response || (status != 401 && status != 407)) {
            continue;
        }
        const sip_t* const other = sip_object(branch->response.get());
        sip_add_tl(best.get(), sip, SIPTAG_WWW_AUTHENTICATE(other->sip_www_authenticate),
                   SIPTAG_PROXY_AUTHENTICATE(other->sip_proxy_authenticate), TAG_END());
    }
    return best;
}

void Fork::forward(msg_t* response)
{
    if (Message upstream = withoutOwnVia(response)) {
        if (!m_outgoing.mark.socket.empty()) {
            markAnswer(m_seal, upstream.get(), m_outgoing.mark);
        }
        m_request->forward(std::move(upstream));
    }
}

} // namespace oryx::sip
