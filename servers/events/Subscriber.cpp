// RFC 6665 section 4.2.1, in its order: what a request must be, whether its subscription is known, for how long, and
// who wants it; then, in a worker, whether he may.

#include <events/Subscriber.h>

#include <common/Headers.h>
#include <events/Rules.h>
#include <events/Store.h>

#include <algorithm>
#include <ctime>
#include <initializer_list>
#include <utility>

namespace oryx::sip {

namespace {

constexpr const char* kEventList = "eventlist";
constexpr std::uint32_t kLastCseq = 0x7fffffff; // RFC 3261 section 8.1.1.5

bool lists(const msg_list_t* header, const char* item)
{
    for (const msg_param_t* items = header != nullptr ? header->k_items : nullptr;
         items != nullptr && *items != nullptr; ++items) {
        if (su_casematch(*items, item) != 0) {
            return true;
        }
    }
    return false;
}

/// Whether a body of that type is accepted; any is where nothing is said.
bool accepts(const sip_t& sip, const char* type)
{
    const std::string range = std::string(type).substr(0, std::string(type).find('/')) + "/*";
    for (const sip_accept_t* accept = sip.sip_accept; accept != nullptr; accept = accept->ac_next) {
        for (const char* const wanted : {type, range.c_str(), "*/*"}) {
            if (accept->ac_type != nullptr && su_casematch(accept->ac_type, wanted) != 0) {
                return true;
            }
        }
    }
    return sip.sip_accept == nullptr;
}

/// The proxies that stay on the way, as a Route header field of this side (RFC 3261 section 12.1.1).
std::string routeSetOf(const sip_t& sip)
{
    std::string routes;
    for (const sip_record_route_t* hop = sip.sip_record_route; hop != nullptr; hop = hop->r_next) {
        sip_record_route_t one = *hop;
        one.r_next = nullptr;
        routes.append(routes.empty() ? "" : ", ").append(headerText(one));
    }
    return routes;
}

/// Whether there is one place that NOTIFY can go to.
bool reachable(const sip_contact_t* contact)
{
    return contact != nullptr && contact->m_next == nullptr &&
           (contact->m_url->url_type == url_sip || contact->m_url->url_type == url_sips);
}

std::string subscriptionId(const char* tag)
{
    return std::string("incoming#") + tag;
}

} // namespace

Subscriber::Subscriber(const Options& options, const Provisioning& provisioning, const Nonces& nonces,
                       Workers<EventSession>& workers, Notifier& notifier)
    : m_options(options), m_provisioning(provisioning), m_nonces(nonces), m_workers(workers), m_notifier(notifier)
{
}

void Subscriber::take(const std::shared_ptr<Incoming>& request)
{
    Order order;
    const bool known = request->sip().sip_to->a_tag != nullptr;
    if (!understands(*request) || !readPackage(*request, order)) {
        return;
    }
    if (known && readKnown(*request, order) && readExpiry(*request, order) && readSender(*request, order)) {
        refresh(request, std::move(order));
    } else if (!known && readExpiry(*request, order) && readParties(*request, order) && readDialog(*request, order) &&
               readSender(*request, order)) {
        begin(request, std::move(order));
    }
}

/// Extensions and bodies (RFC 3261 sections 8.2.2.3 and 8.2.3): lists are known, filters are not.
bool Subscriber::understands(Incoming& request)
{
    const sip_t& sip = request.sip();
    const msg_param_t* items = sip.sip_require != nullptr ? sip.sip_require->k_items : nullptr;
    for (; items != nullptr && *items != nullptr; ++items) {
        if (su_casematch(*items, kEventList) == 0) {
            request.answer(SIP_420_BAD_EXTENSION, SIPTAG_UNSUPPORTED_STR(*items));
            return false;
        }
    }
    if (sip.sip_payload != nullptr && sip.sip_payload->pl_len > 0) {
        request.answer(SIP_415_UNSUPPORTED_MEDIA, SIPTAG_ACCEPT_STR(""));
        return false;
    }
    return true;
}

/// The event package, and what its documents are sent in.
bool Subscriber::readPackage(Incoming& request, Order& order)
{
    const sip_t& sip = request.sip();
    sip_event_t* const event = sip.sip_event;
    const std::string name = event != nullptr && event->o_type != nullptr ? event->o_type : "";
    const bool winfo = name == "presence.winfo";
    if (event == nullptr || (!winfo && name != "presence")) {
        request.answer(SIP_489_BAD_EVENT, SIPTAG_ALLOW_EVENTS_STR(kAllowEvents));
        return false;
    }
    const char* const type = winfo ? "application/watcherinfo+xml" : "application/pidf+xml";
    if (!accepts(sip, type)) {
        request.answer(SIP_406_NOT_ACCEPTABLE);
        return false;
    }
    order.subscription.package = winfo ? Package::watchers : Package::presence;
    order.subscription.event = headerText(*event);
    order.lists = (lists(sip.sip_supported, kEventList) || lists(sip.sip_require, kEventList)) &&
                  accepts(sip, "application/rlmi+xml") && accepts(sip, "multipart/related");
    return true;
}

/// A brief expiry is refused, a long one shortened (section 4.2.1.1).
bool Subscriber::readExpiry(Incoming& request, Order& order) const
{
    const sip_expires_t* const said = request.sip().sip_expires;
    order.expires = m_options.defaultExpires;
    if (said != nullptr && said->ex_date == 0) {
        order.expires = static_cast<std::uint32_t>(std::min<unsigned long>(said->ex_delta, m_options.maxExpires));
    }
    if (order.expires > 0 && order.expires < m_options.minExpires) {
        const std::string least = std::to_string(m_options.minExpires);
        request.answer(SIP_423_INTERVAL_TOO_BRIEF, SIPTAG_MIN_EXPIRES_STR(least.c_str()));
        return false;
    }
    order.subscription.expires = std::time(nullptr) + static_cast<std::time_t>(order.expires);
    return true;
}

/// Who wants to know about whom.
bool Subscriber::readParties(Incoming& request, Order& order) const
{
    const sip_t& sip = request.sip();
    std::optional<Address> presentity = addressOf(*sip.sip_request->rq_url);
    std::optional<Address> watcher = addressOf(*sip.sip_from->a_url);
    if (!presentity || !watcher || watcher->handle.empty()) {
        request.answer(SIP_400_BAD_REQUEST);
        return false;
    }
    if (!m_provisioning.serves(presentity->domain)) {
        request.answer(SIP_403_FORBIDDEN);
        return false;
    }
    order.subscription.presentity = std::move(*presentity);
    order.subscription.watcher = std::move(*watcher);
    return true;
}

/// What the dialog will be (RFC 3261 section 12.1.1).
bool Subscriber::readDialog(Incoming& request, Order& order)
{
    const sip_t& sip = request.sip();
    Subscription& dialog = order.subscription;
    if (!reachable(sip.sip_contact) || sip.sip_from->a_tag == nullptr || sip.sip_cseq->cs_seq > kLastCseq) {
        request.answer(SIP_400_BAD_REQUEST);
        return false;
    }
    const std::string tag = request.tag();
    dialog.id = subscriptionId(tag.c_str());
    dialog.from = headerText(*sip.sip_from);
    dialog.to = headerText(*sip.sip_to) + ";tag=" + tag;
    dialog.callId = sip.sip_call_id->i_id;
    dialog.contact = normalized(*sip.sip_contact->m_url);
    dialog.routes = routeSetOf(sip);
    dialog.requestUri = normalized(*sip.sip_request->rq_url);
    dialog.subscribeCseq = static_cast<int>(sip.sip_cseq->cs_seq);
    for (const std::string& text :
         {dialog.from, dialog.to, dialog.callId, dialog.contact, dialog.routes, dialog.requestUri, dialog.event}) {
        if (!fits(text)) {
            request.answer(SIP_400_BAD_REQUEST);
            return false;
        }
    }
    return true;
}

/// A subscription that there is, with what the request changes.
bool Subscriber::readKnown(Incoming& request, Order& order) const
{
    const sip_t& sip = request.sip();
    const Subscription* const known = m_notifier.find(subscriptionId(sip.sip_to->a_tag));
    const std::string event = std::exchange(order.subscription.event, "");
    if (known == nullptr || !isOf(*known, sip) || known->event != event) {
        request.answer(SIP_481_NO_TRANSACTION);
        return false;
    }
    if (sip.sip_cseq->cs_seq <= static_cast<std::uint32_t>(known->subscribeCseq)) { // RFC 3261 section 12.2.2
        request.answer(500, "Request Is Out of Order");
        return false;
    }
    order.subscription = *known;
    order.subscription.subscribeCseq = static_cast<int>(sip.sip_cseq->cs_seq);
    if (sip.sip_contact != nullptr) { // else it is where it was
        order.subscription.contact = normalized(*sip.sip_contact->m_url);
    }
    const bool contactFits = sip.sip_contact == nullptr || reachable(sip.sip_contact);
    if (!contactFits || !fits(order.subscription.contact) || sip.sip_cseq->cs_seq > kLastCseq) {
        request.answer(SIP_400_BAD_REQUEST);
        return false;
    }
    return true;
}

/// Who sends it must prove it, if proof is asked for; who is of elsewhere has none.
bool Subscriber::readSender(Incoming& request, Order& order) const
{
    if (!m_options.digest) {
        return true;
    }
    if (!m_provisioning.serves(order.subscription.watcher.domain)) {
        request.answer(SIP_403_FORBIDDEN);
        return false;
    }
    order.credentials.emplace();
    if (readCredentials(request.sip().sip_authorization, m_provisioning.realm(), *order.credentials)) {
        return true;
    }
    challenge(request, 401, m_provisioning.realm(), m_nonces.make(order.subscription.watcher.key()), false);
    return false;
}

/// Has `work(service, order, subscription)` done for the sender if he is who he says he is, and `then(subscription)`
/// where it accepts. All that one sender sends comes to one worker, which knows his credentials.
template <typename Work, typename Then>
void Subscriber::give(const std::shared_ptr<Incoming>& request, Order order, Work work, Then then)
{
    const std::size_t key = order.subscription.watcher.key();
    auto judge = [order = std::move(order), work](EventSession& session) {
        Answer answer;
        answer.subscription = order.subscription;
        if (order.credentials) {
            answer.verdict = session.authenticate(order.subscription.watcher, *order.credentials, "SUBSCRIBE");
        }
        if (answer.verdict == Verdict::accepted) {
            answer.outcome = work(session.service(), order, answer.subscription);
        }
        return answer;
    };
    auto conclude = [this, request, then](Answer answer) {
        if (passed(*request, answer)) {
            then(std::move(answer.subscription));
        }
    };
    if (!m_workers.give(key, std::move(judge), std::move(conclude))) {
        request->answerUnavailable();
    }
}

void Subscriber::begin(const std::shared_ptr<Incoming>& request, Order order)
{
    const std::uint32_t expires = order.expires;
    give(request, std::move(order), &Subscriber::accept, [this, request, expires](Subscription subscription) {
        conclude(*request, subscription, expires);
        if (expires > 0) {
            m_notifier.add(std::move(subscription));
        } else {
            m_notifier.addFetch(std::move(subscription));
        }
    });
}

/// In a worker: whether the watcher may know of the presentity. What goes on is stored before he hears of it.
Subscriber::Outcome Subscriber::accept(PresenceService& service, const Order& order, Subscription& subscription)
{
    const Address& presentity = subscription.presentity;
    int key = 0;
    int csid = 0;
    const DatabaseResult found =
        service.getPublicAddressKey(presentity.handle.c_str(), presentity.domain.c_str(), key, csid);
    const bool absent = found.getStatus() == DatabaseResult::NOTFOUND;
    Outcome outcome = found.okay() ? Outcome::accepted : Outcome::failed;
    if (absent) {
        outcome = subscription.package == Package::presence ? acceptList(service, order, subscription)
                                                            : Outcome::unknownPresentity;
    } else if (found.okay() && subscription.package == Package::watchers) { // nobody else's business
        subscription.state = SubscriptionState::active;
        outcome = subscription.watcher.text() == presentity.text() ? Outcome::accepted : Outcome::refused;
    } else if (found.okay()) {
        outcome = acceptWatcher(service, subscription);
    }
    if (outcome == Outcome::accepted && order.expires > 0 && !store(service, subscription)) {
        outcome = Outcome::failed;
    }
    return outcome;
}

Subscriber::Outcome Subscriber::acceptWatcher(PresenceService& service, Subscription& subscription)
{
    switch (permissionOf(service, subscription.presentity, subscription.watcher)) {
    case Permission::unknown:
        return Outcome::failed;
    case Permission::blocked:
        return Outcome::refused;
    case Permission::unsettled:
        subscription.state = SubscriptionState::pending;
        return Outcome::accepted;
    case Permission::allowed:
    case Permission::deceived:
        break;
    }
    subscription.state = SubscriptionState::active;
    return Outcome::accepted;
}

/// RFC 4662 section 4: the name of a list in place of a person's.
Subscriber::Outcome Subscriber::acceptList(PresenceService& service, const Order& order, Subscription& subscription)
{
    int id = 0;
    const DatabaseResult found = service.getListId(subscription.presentity.handle.c_str(), &id);
    if (!found.okay()) {
        return found.getStatus() == DatabaseResult::NOTFOUND ? Outcome::unknownPresentity : Outcome::failed;
    }
    const DatabaseResult allowed = service.isWatcherAllowedToSubscribeToList(id, subscription.watcher.handle.c_str(),
                                                                             subscription.watcher.domain.c_str());
    if (!allowed.okay()) {
        return allowed.getStatus() == DatabaseResult::NOTFOUND ? Outcome::refused : Outcome::failed;
    }
    subscription.package = Package::presenceList;
    subscription.state = SubscriptionState::active;
    return order.lists ? Outcome::accepted : Outcome::needsLists;
}

/// A subscription that goes on, or is given up (section 4.2.1.4).
void Subscriber::refresh(const std::shared_ptr<Incoming>& request, Order order)
{
    const std::uint32_t expires = order.expires;
    const auto work = [](PresenceService& service, const Order& asked, Subscription& subscription) {
        return asked.expires == 0 || storeRefresh(service, subscription) ? Outcome::accepted : Outcome::failed;
    };
    give(request, std::move(order), work, [this, request, expires](const Subscription& subscription) {
        if (m_notifier.find(subscription.id) == nullptr) { // it has ended meanwhile
            request->answer(SIP_481_NO_TRANSACTION);
            return;
        }
        conclude(*request, subscription, expires);
        if (expires > 0) {
            m_notifier.refresh(subscription);
        } else {
            m_notifier.end(subscription.id, "timeout");
        }
    });
}

/// False when the request has been answered.
bool Subscriber::passed(Incoming& request, const Answer& answer) const
{
    if (answer.verdict == Verdict::wrong || answer.verdict == Verdict::stale) {
        const std::optional<Address> watcher = addressOf(*request.sip().sip_from->a_url);
        const std::string nonce = m_nonces.make(watcher ? watcher->key() : 0);
        challenge(request, 401, m_provisioning.realm(), nonce, answer.verdict == Verdict::stale);
        return false;
    }
    if (answer.verdict == Verdict::unknown || answer.verdict == Verdict::barred) {
        request.answer(SIP_403_FORBIDDEN);
        return false;
    }
    switch (answer.outcome) {
    case Outcome::accepted:
        return true;
    case Outcome::unknownPresentity:
        request.answer(SIP_404_NOT_FOUND);
        return false;
    case Outcome::refused:
        request.answer(SIP_403_FORBIDDEN);
        return false;
    case Outcome::needsLists:
        request.answer(SIP_421_EXTENSION_REQUIRED, SIPTAG_REQUIRE_STR(kEventList));
        return false;
    case Outcome::failed:
        request.answerUnavailable();
        return false;
    }
    return false;
}

/// 200, also where nobody has decided yet: 202 is not used any more (section 8.3.1).
void Subscriber::conclude(Incoming& request, const Subscription& subscription, std::uint32_t expires)
{
    const std::string granted = std::to_string(expires);
    const std::string contact = "<" + request.socket() + ">";
    request.answer(SIP_200_OK, SIPTAG_EXPIRES_STR(granted.c_str()), SIPTAG_CONTACT_STR(contact.c_str()),
                   TAG_IF(subscription.package == Package::presenceList, SIPTAG_REQUIRE_STR(kEventList)));
}

} // namespace oryx::sip
