// RFC 6665 section 4.2.1, in its order: what a request must be, whether its subscription is known, for how long, and
// who wants it; then, in a worker, whether he may.

#include <events/Requests.h>

#include <common/Headers.h>
#include <events/Rules.h>
#include <events/Store.h>

#include <algorithm>
#include <ctime>
#include <initializer_list>
#include <string>
#include <utility>

namespace oryx::sip {

namespace {

constexpr const char* kEventList = "eventlist";
constexpr const char* kIdStart = "incoming#";   // and the server's tag in the dialog
constexpr std::uint32_t kLastCseq = 0x7fffffff; // RFC 3261 section 8.1.1.5

/// A request as a worker gets it.
struct SubscribeOrder {
    Sender sender; ///< With the watcher.
    Subscription subscription;
    std::uint32_t expires = 0;
    bool lists = false; ///< Whether the subscriber knows what a list is.
    std::string list;   ///< Which, if it is one.
    Permission permission = Permission::unknown;
};

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

/// Whether a request is of the subscription's dialog, by tag and Call-ID, and of its event (RFC 6665 section 8.2.1).
bool isOf(const PresenceRecord& dialog, const sip_t& request)
{
    Scratch scratch;
    const sip_from_t* const from = sip_from_make(scratch.home(), dialog.fromhdr().c_str());
    const sip_event_t* const event = sip_event_make(scratch.home(), dialog.eventhdr().c_str());
    return from != nullptr && from->a_tag != nullptr && su_strmatch(from->a_tag, request.sip_from->a_tag) != 0 &&
           dialog.callId() == request.sip_call_id->i_id && event != nullptr && request.sip_event != nullptr &&
           su_strmatch(event->o_type, request.sip_event->o_type) != 0 &&
           su_strmatch(event->o_id, request.sip_event->o_id) != 0;
}

/// The event package, and what its documents are sent in. There are no filters, which would be a body (RFC 3261 section
/// 8.2.3). False when the request has been answered, here and below.
bool readPackage(Incoming& request, SubscribeOrder& order)
{
    const sip_t& sip = request.sip();
    if (sip.sip_payload != nullptr && sip.sip_payload->pl_len > 0) {
        return request.refuse(SIP_415_UNSUPPORTED_MEDIA, SIPTAG_ACCEPT_STR(""));
    }
    sip_event_t* const event = sip.sip_event;
    const std::string name = event != nullptr && event->o_type != nullptr ? event->o_type : "";
    const bool winfo = name == "presence.winfo";
    if (event == nullptr || (!winfo && name != "presence")) {
        return request.refuse(SIP_489_BAD_EVENT, SIPTAG_ALLOW_EVENTS_STR(kAllowEvents));
    }
    order.subscription.package = winfo ? Package::watchers : Package::presence;
    order.subscription.dialog.SetEventhdr(headerText(*event).c_str());
    order.lists =
        (sip_has_feature(sip.sip_supported, kEventList) != 0 || sip_has_feature(sip.sip_require, kEventList) != 0) &&
        accepts(sip, "application/rlmi+xml") && accepts(sip, "multipart/related");
    return accepts(sip, winfo ? "application/watcherinfo+xml" : "application/pidf+xml") ||
           request.refuse(SIP_406_NOT_ACCEPTABLE);
}

/// Who wants to know about whom.
bool readParties(const Gate& gate, Incoming& request, SubscribeOrder& order)
{
    const sip_t& sip = request.sip();
    Subscription& subscription = order.subscription;
    if (!Gate::readAddress(request, *sip.sip_request->rq_url, subscription.presentity) ||
        !Gate::readAddress(request, *sip.sip_from->a_url, subscription.watcher)) {
        return false;
    }
    if (subscription.watcher.handle.empty()) {
        return request.refuse(SIP_400_BAD_REQUEST);
    }
    order.list = userOf(*sip.sip_request->rq_url);
    return gate.serves(subscription.presentity) || request.refuse(SIP_403_FORBIDDEN);
}

/// What each request says of its dialog anew (RFC 3261 section 12.2.2): its number, and the one place that NOTIFY goes
/// to; where it says none, that is where it was.
bool readTarget(Incoming& request, PresenceRecord& dialog)
{
    const sip_contact_t* const contact = request.sip().sip_contact;
    const std::uint32_t cseq = request.sip().sip_cseq->cs_seq;
    if (contact != nullptr) {
        dialog.SetRemotecontacthdr(normalized(*contact->m_url).c_str());
    }
    dialog.SetSubcseq(static_cast<int>(std::min(cseq, kLastCseq)));
    const bool reachable = contact == nullptr || (contact->m_next == nullptr && contact->m_url->url_type == url_sip);
    const std::string& target = dialog.remotecontacthdr();
    return (reachable && !target.empty() && fits(target) && cseq <= kLastCseq) || request.refuse(SIP_400_BAD_REQUEST);
}

/// What the dialog will be (RFC 3261 section 12.1.1).
bool readDialog(Incoming& request, SubscribeOrder& order)
{
    const sip_t& sip = request.sip();
    PresenceRecord& dialog = order.subscription.dialog;
    if (!readTarget(request, dialog)) {
        return false;
    }
    const std::string tag = request.tag();
    dialog.SetSubscriptionid((kIdStart + tag).c_str());
    dialog.SetFromhdr(headerText(*sip.sip_from).c_str());
    dialog.SetTohdr((headerText(*sip.sip_to) + ";tag=" + tag).c_str());
    dialog.SetCallId(sip.sip_call_id->i_id);
    dialog.SetRouteset(routeText(sip.sip_record_route).c_str());
    dialog.SetRequestUri(normalized(*sip.sip_request->rq_url).c_str());
    const auto texts = {dialog.fromhdr(),  dialog.tohdr(),      dialog.callId(),
                        dialog.routeset(), dialog.requestUri(), dialog.eventhdr()};
    const bool allFit = std::all_of(texts.begin(), texts.end(), [](const std::string& text) { return fits(text); });
    return (allFit && sip.sip_from->a_tag != nullptr) || request.refuse(SIP_400_BAD_REQUEST);
}

/// A subscription that there is, with what the request changes.
bool readKnown(const Notifier& notifier, Incoming& request, SubscribeOrder& order)
{
    const sip_t& sip = request.sip();
    const Subscription* const known = notifier.find(kIdStart + std::string(sip.sip_to->a_tag));
    if (known == nullptr || !isOf(known->dialog, sip)) {
        return request.refuse(SIP_481_NO_TRANSACTION);
    }
    order.lists = true; // as its first request has said, if it is to one
    order.subscription = *known;
    return readTarget(request, order.subscription.dialog);
}

/// Who sends it must prove it, if proof is asked for; who is of elsewhere has none.
bool readWatcher(const Gate& gate, Incoming& request, SubscribeOrder& order)
{
    order.sender.address = order.subscription.watcher;
    // What is given up is over whatever becomes of the clock.
    order.subscription.expires = order.expires == 0 ? 0 : std::time(nullptr) + static_cast<std::time_t>(order.expires);
    if (gate.asksForProof() && !gate.serves(order.sender.address)) {
        return request.refuse(SIP_403_FORBIDDEN);
    }
    return gate.readProof(request, order.sender);
}

/// Nobody fills this server's memory, nor has it send as much as he likes.
bool findsRoom(const Notifier& notifier, Incoming& request, const SubscribeOrder& order)
{
    if (notifier.full()) {
        request.answerUnavailable();
        return false;
    }
    return !notifier.hasEnough(order.subscription) || request.refuse(SIP_403_FORBIDDEN);
}

/// In a worker: whether the watcher may know of the presentity. What goes on is stored before he hears of it.
SubscribeOrder admit(EventSession& session, SubscribeOrder& order)
{
    PresenceService& service = session.service();
    Subscription& subscription = order.subscription;
    order.permission = permissionFor(service, subscription);
    if (order.permission == Permission::absent && subscription.package == Package::presence) {
        subscription.package = Package::presenceList; // RFC 4662 section 4: its name in place of a person's
        subscription.presentity.handle = order.list;
        order.permission = permissionFor(service, subscription);
    }
    subscription.state = stateWith(order.permission);
    const bool told = order.lists || subscription.package != Package::presenceList;
    const bool goesOn = told && order.expires > 0 && subscription.state != SubscriptionState::terminated;
    if (goesOn && !store(service, subscription)) {
        order.permission = Permission::unknown;
    }
    return std::move(order);
}

/// In a worker: a subscription that goes on, or is given up (section 4.2.1.4).
SubscribeOrder prolong(EventSession& session, SubscribeOrder& order)
{
    const bool stored = order.expires == 0 || storeRefresh(session.service(), order.subscription);
    order.permission = stored ? Permission::allowed : Permission::unknown;
    return std::move(order);
}

/// Whether the watcher is granted what he asks for.
bool isGranted(Incoming& request, const SubscribeOrder& order)
{
    if (order.permission == Permission::unknown) {
        request.answerUnavailable();
        return false;
    }
    if (order.permission == Permission::absent) {
        return request.refuse(SIP_404_NOT_FOUND);
    }
    if (order.permission == Permission::blocked) {
        return request.refuse(SIP_403_FORBIDDEN);
    }
    return order.lists || order.subscription.package != Package::presenceList ||
           request.refuse(SIP_421_EXTENSION_REQUIRED, SIPTAG_REQUIRE_STR(kEventList));
}

/// 200, also where nobody has decided yet: 202 is not used any more (section 8.3.1).
void conclude(Incoming& request, const SubscribeOrder& order)
{
    const std::string granted = std::to_string(order.expires);
    const std::string contact = "<" + request.socket() + ">";
    request.answer(SIP_200_OK, SIPTAG_EXPIRES_STR(granted.c_str()), SIPTAG_CONTACT_STR(contact.c_str()),
                   TAG_IF(order.subscription.package == Package::presenceList, SIPTAG_REQUIRE_STR(kEventList)));
}

/// Of a request within a dialog.
void refresh(const Desk& desk, const std::shared_ptr<Incoming>& request)
{
    SubscribeOrder order;
    if (!Gate::understands(*request, kEventList) || !readPackage(*request, order) ||
        !readKnown(desk.notifier, *request, order) || !desk.gate.readExpiry(*request, order.expires) ||
        !readWatcher(desk.gate, *request, order)) {
        return;
    }
    const std::function<void()> forget = desk.notifier.takeCseq(order.subscription);
    if (!forget) { // RFC 3261 section 12.2.2
        return request->answer(500, "Request Is Out of Order");
    }
    const auto then = [&notifier = desk.notifier, request](const SubscribeOrder& stored) {
        if (!isGranted(*request, stored)) {
            return;
        }
        if (notifier.find(stored.subscription.id()) == nullptr) { // it has ended meanwhile
            return request->answer(SIP_481_NO_TRANSACTION);
        }
        conclude(*request, stored);
        notifier.refresh(stored.subscription);
    };
    desk.gate.apply(desk.workers, request, std::move(order), &prolong, then,
                    forget); // who proves nothing has sent nothing
}

} // namespace

void subscribe(const Desk& desk, const std::shared_ptr<Incoming>& request)
{
    if (request->sip().sip_to->a_tag != nullptr) { // of a dialog
        return refresh(desk, request);
    }
    SubscribeOrder order;
    if (!Gate::understands(*request, kEventList) || !readPackage(*request, order) ||
        !desk.gate.readExpiry(*request, order.expires) || !readParties(desk.gate, *request, order) ||
        !readDialog(*request, order) || !readWatcher(desk.gate, *request, order) ||
        !findsRoom(desk.notifier, *request, order)) {
        return;
    }
    const auto then = [&notifier = desk.notifier, request](SubscribeOrder accepted) {
        if (!isGranted(*request, accepted)) {
            return;
        }
        if (!findsRoom(notifier, *request, accepted)) { // others were faster, or it is a list by its own name
            return notifier.discard(std::move(accepted.subscription), accepted.expires > 0);
        }
        conclude(*request, accepted);
        notifier.add(std::move(accepted.subscription), accepted.expires > 0);
    };
    desk.gate.apply(desk.workers, request, std::move(order), &admit, then);
}

} // namespace oryx::sip
