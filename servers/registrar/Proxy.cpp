// RFC 3261 section 16, in its order: what a request must be (16.3), its route (16.4), where it goes (16.5), and its
// sending (16.6). The answers are Fork's.

#include <common/Headers.h>
#include <registrar/Proxy.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <functional>
#include <random>
#include <string_view>
#include <system_error>
#include <utility>

namespace oryx::sip {

namespace {

constexpr unsigned long kMaxForwards = 70;
constexpr isize_t kLongestTarget = 2048;
constexpr unsigned kMaxBreadth = 60; // RFC 5393 section 5.3.3; who asks for more gets no more
constexpr const char* kBreadth = "Max-Breadth";
constexpr std::size_t kLongestStored = 512; // no provisioned pattern is tried on a longer one

std::string hexOf(std::size_t value)
{
    std::string text(2 * sizeof value, '0');
    for (std::size_t at = text.size(); at > 0; value >>= 4U) {
        text[--at] = "0123456789abcdef"[value & 0xfU];
    }
    return text;
}

std::string textOf(const url_t& url)
{
    std::string text(static_cast<std::size_t>(url_len(&url)) + 1, '\0');
    url_e(text.data(), static_cast<isize_t>(text.size()), &url);
    text.pop_back();
    return text;
}

/// A URI with the host that it leads to, as rules have it: what they say of that host is said of the URI, however it is
/// written, and no part of it leads elsewhere.
std::string judgedText(const url_t& url)
{
    url_t judged = url;
    const std::string host = nextHostOf(url);
    const std::string parameters = parametersWithout(url, {"maddr"});
    judged.url_host = host.c_str();
    judged.url_params = parameters.empty() ? nullptr : parameters.c_str();
    return textOf(judged);
}

const char* orEmpty(const char* text)
{
    return text != nullptr ? text : "";
}

/// What makes a request come back here the same, not another one on its way through (section 16.6, item 8).
std::string loopMark(const sip_t& sip)
{
    const std::string request = textOf(*sip.sip_request->rq_url) + "\n" + orEmpty(sip.sip_from->a_tag) + "\n" +
                                orEmpty(sip.sip_to->a_tag) + "\n" + sip.sip_call_id->i_id + "\n" +
                                std::to_string(sip.sip_cseq->cs_seq) + "\n" +
                                (sip.sip_route != nullptr ? textOf(*sip.sip_route->r_url) : "");
    return hexOf(std::hash<std::string>()(request));
}

/// What a branch parameter begins with that no other has.
std::string newBranch()
{
    static const std::string process = hexOf(std::random_device()()) + hexOf(std::random_device()());
    static std::size_t last = 0; // all of SIP is on one thread
    return "z9hG4bK" + process + hexOf(++last);
}

/// A proxy as provisioning names it, with or without its scheme.
std::string sipUri(const std::string& proxy)
{
    return proxy.empty() || proxy.starts_with("sip:") || proxy.starts_with("sips:") ? proxy : "sip:" + proxy;
}

/// To a binding. Where the request URI is not to be replaced by its address, that is only where the request goes:
/// behind the proxies of its path, as the last of them.
Hop hopOf(const LiveBinding& binding, bool replaces)
{
    if (replaces) {
        return {binding.address, binding.path, "", binding.preference};
    }
    if (binding.path.empty()) {
        return {"", "", binding.address, binding.preference};
    }
    return {"", binding.path + ", <" + binding.address + ";lr>", "", binding.preference};
}

/// How many branches a request and all that comes of it may have at once (RFC 5393 section 5.3).
unsigned breadthOf(const sip_t& sip)
{
    for (const sip_unknown_t* field = sip.sip_unknown; field != nullptr; field = field->un_next) {
        const std::string_view value = orEmpty(field->un_value);
        unsigned breadth = 0;
        const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), breadth);
        if (su_casematch(field->un_name, kBreadth) != 0 && error == std::errc() && end == value.data() + value.size()) {
            return std::min(breadth, kMaxBreadth);
        }
    }
    return kMaxBreadth;
}

/// Takes that off, for each branch has its own.
void removeBreadth(msg_t* message)
{
    sip_t* const sip = sip_object(message);
    for (sip_unknown_t* field = sip->sip_unknown; field != nullptr;) {
        sip_unknown_t* const next = field->un_next;
        if (su_casematch(field->un_name, kBreadth) != 0) {
            sip_header_remove(message, sip, anyHeader(field));
        }
        field = next;
    }
}

/// Where a request goes that its route leads on: there, or nowhere. Addresses of record and address maps are for whom
/// it calls, and what they say of the route's URI would let it go past the rules.
void findWayOut(LocationService& service, const TargetQuestion& question, RequestTarget& target)
{
    bool allowed = false;
    const DatabaseResult result =
        service.getOutboundRoute(question.uri.c_str(), question.internal, target.proxy, allowed);
    if (result.okay() || result.notFound()) {
        target.reason = result.okay() && allowed ? TargetReason::outbound : TargetReason::notAllowed;
    }
}

/// Whether a request may go on to that URI (section 16.3, items 1 and 2); false when it has been answered.
bool mayGoTo(const url_t& target, Incoming& request)
{
    if (url_len(&target) > kLongestTarget) {
        return request.refuse(SIP_414_REQUEST_URI_TOO_LONG);
    }
    if (target.url_headers != nullptr) { // section 19.1.1: not in a request URI
        return request.refuse(SIP_400_BAD_REQUEST);
    }
    // sips, too: nothing may go on in the clear that asks for TLS
    return target.url_type == url_sip || request.refuse(SIP_416_UNSUPPORTED_URI);
}

bool inDialog(const sip_t& sip)
{
    return sip.sip_to->a_tag != nullptr;
}

/// Whether an event server has what this subscribes to or publishes (RFC 3856, 3857, 3903). What begins a subscription;
/// what belongs to one has its route.
bool isOfPresence(const sip_t& sip)
{
    const sip_method_t method = sip.sip_request->rq_method;
    const std::string_view package = sip.sip_event != nullptr ? orEmpty(sip.sip_event->o_type) : "";
    return (method == sip_method_subscribe || method == sip_method_publish) &&
           (package == "presence" || package == "presence.winfo");
}

} // namespace

Proxy::Proxy(const Loop& loop, const Options& options, const Provisioning& provisioning, const Nonces& nonces,
             Workers<Session>& workers)
    : m_loop(loop),
      m_options(options),
      m_provisioning(provisioning),
      m_nonces(nonces),
      m_seal(options),
      m_workers(workers)
{
}

void Proxy::take(const std::shared_ptr<Incoming>& request)
{
    if (!valid(*request)) {
        return;
    }
    std::vector<std::string> cookies;
    Message outgoing = prepared(request->sip(), request->message(), cookies);
    if (!mayGoTo(*sip_object(outgoing.get())->sip_request->rq_url, *request)) { // what a strict router has moved
        return;
    }
    if (request->sip().sip_request->rq_method == sip_method_invite) {
        request->answer(SIP_100_TRYING); // section 17.2.1: before the database is asked, which may take its time
    }
    RouteMark mark;
    // A telephone that has this proxy in its route sends what belongs to the dialog here too, recorded or not.
    if ((m_options.recordRoute || !cookies.empty()) && !inDialog(request->sip())) {
        mark = markOf(m_seal, request->sip(), request->socket());
    }
    if (isSettled(m_seal, *sip_object(outgoing.get()), cookies)) { // a dialog that began here
        send(request, std::move(outgoing), mark, {Hop{}}, false);
    } else {
        find(request, std::move(outgoing), mark);
    }
}

/// Section 16.3. False when the request has been answered.
bool Proxy::valid(Incoming& request) const
{
    const sip_t& sip = request.sip();
    const std::string unknown = unknownTags(sip.sip_proxy_require);
    if (!mayGoTo(*sip.sip_request->rq_url, request)) {
        return false;
    }
    if (sip.sip_max_forwards != nullptr && sip.sip_max_forwards->mf_count == 0) {
        request.answer(SIP_483_TOO_MANY_HOPS);
    } else if (loops(sip)) {
        request.answer(SIP_482_LOOP_DETECTED);
    } else if (!unknown.empty()) {
        request.answer(SIP_420_BAD_EXTENSION, SIPTAG_UNSUPPORTED_STR(unknown.c_str()));
    } else {
        return true;
    }
    return false;
}

bool Proxy::loops(const sip_t& sip) const
{
    const std::string mark = "." + loopMark(sip) + ".";
    for (const sip_via_t* via = sip.sip_via; via != nullptr; via = via->v_next) {
        if (m_endpoint->isSocket(via->v_host, via->v_port) && via->v_branch != nullptr &&
            std::strstr(via->v_branch, mark.c_str()) != nullptr) {
            return true;
        }
    }
    return false;
}

/// Whether a route leads through this proxy: by the address of a socket, or by the name of what it serves.
bool Proxy::leadsHere(const url_t& route) const
{
    return m_endpoint->isOurs(route) || (route.url_user == nullptr && m_provisioning.serves(nextHostOf(route)));
}

/// Of a request URI whose maddr names this proxy, and which has been obeyed, what led here: its host is left.
void Proxy::takeOwnMaddr(msg_t* outgoing, msg_t* received) const
{
    url_t target = *sip_object(outgoing)->sip_request->rq_url;
    const std::string next = nextHostOf(target);
    if (!parameterOf(target, "maddr") || !m_endpoint->hasComeBy(received, target) ||
        !(m_endpoint->isOurs(target) || m_provisioning.serves(next))) {
        return;
    }
    const std::string parameters = parametersWithout(target, {"maddr", "transport"});
    target.url_params = parameters.empty() ? nullptr : parameters.c_str();
    target.url_port = nullptr;
    setRequestUri(outgoing, urlText(target));
}

/// Section 16.4, and what is the same of all copies of the request (16.6, items 1 and 3).
Message Proxy::prepared(const sip_t& sip, msg_t* message, std::vector<std::string>& cookies) const
{
    Message outgoing(msg_dup(message));
    sip_t* const copy = sip_object(outgoing.get());
    cookies = takeOwnRoutes(outgoing.get(), [this](const url_t& route) { return leadsHere(route); });
    takeOwnMaddr(outgoing.get(), message);
    const unsigned long left = sip.sip_max_forwards != nullptr ? sip.sip_max_forwards->mf_count - 1 : kMaxForwards;
    const std::string forwards = std::to_string(left);
    sip_add_tl(outgoing.get(), copy, SIPTAG_MAX_FORWARDS_STR(forwards.c_str()), TAG_END());
    // Who the sender is was proved to this proxy, and is nobody else's business.
    const std::string realm = m_provisioning.realm();
    for (msg_auth_t* header = copy->sip_proxy_authorization; header != nullptr;) {
        msg_auth_t* const next = header->au_next;
        if (isOfRealm(*header, realm)) {
            sip_header_remove(outgoing.get(), copy, anyHeader(header));
        }
        header = next;
    }
    return outgoing;
}

/// Section 16.5, in a worker.
void Proxy::find(const std::shared_ptr<Incoming>& request, Message outgoing, const RouteMark& mark)
{
    const sip_t& sip = request->sip();
    const url_t& to = nextHop(*sip_object(outgoing.get()));
    const std::optional<Address> address = addressOf(to);
    Question question;
    question.from = hostOf(*sip.sip_from->a_url);
    question.target.uri = judgedText(to);
    if (!address || !canBeStored(question.from.c_str()) || !canBeStored(question.target.uri.c_str())) {
        request->answer(SIP_400_BAD_REQUEST);
        return;
    }
    if (question.target.uri.size() > kLongestStored) {
        request->answer(SIP_414_REQUEST_URI_TOO_LONG);
        return;
    }
    question.target.handle = address->handle;
    question.target.domain = nextHostOf(to);
    // A maddr that is left is the only target (section 16.5). That a route is, too, is this server's choice: section
    // 16.5 has the user of a served request URI looked for all the same, but the route alone decides where he is looked
    // for next, and whoever put it there wants the request to come there as it is.
    question.routed = sip_object(outgoing.get())->sip_route != nullptr;
    question.target.served =
        !question.routed && question.target.domain == address->domain && m_provisioning.serves(address->domain);
    question.target.internal = m_provisioning.serves(question.from);
    question.forEventServer = !m_options.eventServer.empty() && question.target.served && isOfPresence(sip);
    question.sender = addressOf(*sip.sip_from->a_url);
    if (question.target.internal && m_options.digest && !question.sender) { // who could never prove who he is
        request->answer(SIP_400_BAD_REQUEST);
        return;
    }
    Credentials credentials;
    if (readCredentials(sip.sip_proxy_authorization, m_provisioning.realm(), credentials)) {
        const auto isHere = [this](const url_t& url) { return leadsHere(url); };
        if (!credentials.areFor(*sip.sip_request->rq_url, isHere)) { // RFC 7616 section 3.4.6
            request->answer(SIP_400_BAD_REQUEST);
            return;
        }
        question.credentials = std::move(credentials);
    }
    // All that one caller sends comes to one worker, which knows his credentials.
    const std::size_t key = question.sender ? question.sender->key() : 0;
    const std::string method = sip.sip_request->rq_method_name;
    auto work = [this, question = std::move(question), method](Session& session) {
        return answer(session, question, method);
    };
    auto then = [this, request, mark, shared = std::make_shared<Message>(std::move(outgoing))](const Answer& answer) {
        conclude(request, std::move(*shared), mark, answer);
    };
    if (!m_workers.give(key, std::move(work), std::move(then))) {
        request->answerUnavailable();
    }
}

/// In a worker: whether the sender's domain is accepted, where the request goes, and, before it leaves for elsewhere in
/// the name of a subscriber, whether it is he.
Proxy::Answer Proxy::answer(Session& session, const Question& question, const std::string& method) const
{
    Answer answer;
    if (!question.target.internal) {
        bool allowed = true;
        answer.failed = !session.service().checkInboundDomainAccess(question.from.c_str(), allowed).okay();
        answer.denied = !allowed;
        if (answer.failed || answer.denied) {
            return answer;
        }
    }
    if (question.forEventServer) { // which asks for proof itself
        answer.target.reason = TargetReason::outbound;
        answer.target.proxy = m_options.eventServer;
        return answer;
    }
    if (question.routed) {
        findWayOut(session.service(), question.target, answer.target);
    } else {
        findTarget(session.service(), question.target, answer.target);
    }
    const TargetReason reason = answer.target.reason;
    const bool leaves =
        reason == TargetReason::outbound || reason == TargetReason::addressMap || reason == TargetReason::defaultRoute;
    if (leaves && question.target.internal && m_options.digest) {
        answer.sender = question.sender && question.credentials
                            ? session.authenticate(*question.sender, *question.credentials, method)
                            : Verdict::wrong;
    }
    return answer;
}

void Proxy::conclude(const std::shared_ptr<Incoming>& request, Message outgoing, const RouteMark& mark,
                     const Answer& answer)
{
    if (request->answered()) { // it was cancelled meanwhile
        return;
    }
    if (m_abandoned) { // nobody has it yet
        request->answerUnavailable();
        return;
    }
    if (answer.denied) {
        request->answer(SIP_403_FORBIDDEN);
        return;
    }
    if (answer.sender == Verdict::wrong || answer.sender == Verdict::stale) {
        challenge(*request, answer.sender == Verdict::stale);
        return;
    }
    if (answer.sender == Verdict::barred) {
        request->answer(SIP_403_FORBIDDEN);
        return;
    }
    const TargetReason reason =
        answer.failed || answer.sender == Verdict::failed ? TargetReason::failed : answer.target.reason;
    std::vector<Hop> hops;
    switch (reason) {
    case TargetReason::registered:
    case TargetReason::addressMap:
    case TargetReason::defaultRoute:
        for (const LiveBinding& binding : answer.target.set.bindings) {
            hops.push_back(hopOf(binding, answer.target.set.replaceUri));
        }
        break;
    case TargetReason::outbound:
        hops.push_back({"", "", sipUri(answer.target.proxy), 0});
        break;
    case TargetReason::notRegistered:
        request->answer(SIP_480_TEMPORARILY_UNAVAILABLE);
        return;
    case TargetReason::inactiveSubscriber:
    case TargetReason::unknown:
        request->answer(SIP_404_NOT_FOUND);
        return;
    case TargetReason::notAllowed:
        request->answer(SIP_403_FORBIDDEN);
        return;
    case TargetReason::failed:
        request->answerUnavailable();
        return;
    }
    send(request, std::move(outgoing), mark, std::move(hops), answer.target.set.order == ContactOrder::sequential);
}

void Proxy::challenge(Incoming& request, bool stale) const
{
    const std::optional<Address> sender = addressOf(*request.sip().sip_from->a_url);
    const std::string nonce = m_nonces.make(sender ? sender->key() : 0);
    sip::challenge(request, 407, m_provisioning.realm(), nonce, stale);
}

/// Section 16.6.
void Proxy::send(const std::shared_ptr<Incoming>& request, Message outgoing, const RouteMark& mark,
                 std::vector<Hop> hops, bool sequential)
{
    const unsigned breadth = breadthOf(request->sip());
    if (hops.size() > breadth) {
        request->answer(440, "Max-Breadth Exceeded");
        return;
    }
    removeBreadth(outgoing.get());
    const std::string branch = newBranch() + "." + loopMark(request->sip());
    std::make_shared<Fork>(m_loop, *m_endpoint, m_seal, m_forks, request,
                           Fork::Outgoing{std::move(outgoing), mark, branch, breadth}, std::move(hops))
        ->start(sequential);
}

void Proxy::abandon()
{
    m_abandoned = true;
    for (const std::shared_ptr<Fork>& fork : m_forks) {
        fork->abandon();
    }
}

bool Proxy::idle() const
{
    return std::none_of(m_forks.begin(), m_forks.end(),
                        [](const std::shared_ptr<Fork>& fork) { return fork->ending(); });
}

void Proxy::takeStray(const Message& message, const sip_t& sip) const
{
    // A response without a transaction is nobody's (RFC 6026 section 7.3), and nothing answers an ACK.
    if (sip.sip_request == nullptr || (sip.sip_max_forwards != nullptr && sip.sip_max_forwards->mf_count == 0)) {
        return;
    }
    std::vector<std::string> cookies;
    Message outgoing = prepared(sip, message.get(), cookies);
    const sip_t& sent = *sip_object(outgoing.get());
    if (sent.sip_request->rq_url->url_type == url_sip && isSettled(m_seal, sent, cookies)) {
        const std::string branch = newBranch() + "." + loopMark(sip) + ".0";
        const url_t next = nextHop(sent); // its texts stay with the message
        fitStrictRouter(outgoing.get());
        keeping(outgoing, nta_outgoing_mcreate(m_endpoint->agent(), nullptr, nullptr, urlText(next), outgoing.get(),
                                               NTATAG_STATELESS(1), NTATAG_BRANCH_KEY(branch.c_str()),
                                               TPTAG_IDENT(Endpoint::familyOf(next)), TAG_END()));
    }
}

} // namespace oryx::sip
