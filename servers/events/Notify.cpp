#include <common/Headers.h>
#include <events/Notify.h>

#include <algorithm>
#include <ctime>

namespace oryx::sip {

namespace {

/// Subscription-State (RFC 6665 section 8.2.3).
std::string stateOf(const Subscription& subscription, const Notice& notice)
{
    const std::string state = textOf(notice.state);
    if (notice.state == SubscriptionState::terminated) {
        return state + ";reason=" + notice.reason;
    }
    return state + ";expires=" + std::to_string(std::max<std::time_t>(subscription.expires - std::time(nullptr), 1));
}

/// Request URI and Route. A first hop that does not know loose routing gets the request URI, and is gone to in spite of
/// its Route; it is given back then.
const url_string_t* route(msg_t* message, sip_t* sip, const Subscription& subscription)
{
    su_home_t* const home = msg_home(message);
    const PresenceRecord& dialog = subscription.dialog;
    sip_route_t* const hops = dialog.routeset().empty() ? nullptr : sip_route_make(home, dialog.routeset().c_str());
    const bool strict = hops != nullptr && !parameterOf(*hops->r_url, "lr");
    const std::string last = "<" + dialog.remotecontacthdr() + ">";
    const url_string_t* const target = strict ? urlText(*hops->r_url) : urlText(dialog.remotecontacthdr().c_str());
    sip_add_tl(message, sip, TAG_IF(hops != nullptr, SIPTAG_ROUTE(strict ? hops->r_next : hops)),
               TAG_IF(strict, SIPTAG_ROUTE_STR(last.c_str())), TAG_END());
    sip_header_insert(message, sip, anyHeader(sip_request_create(home, SIP_METHOD_NOTIFY, target, nullptr)));
    return strict ? target : nullptr;
}

} // namespace

Transaction sendNotify(const Endpoint& endpoint, const Subscription& subscription, const Notice& notice,
                       nta_response_f* respond, void* magic)
{
    Message message(nta_msg_create(endpoint.agent(), 0));
    sip_t* const sip = sip_object(message.get());
    const url_string_t* const aside = route(message.get(), sip, subscription);
    const url_t& next = aside != nullptr ? *sip->sip_request->rq_url : nextHop(*sip);
    const std::string contact = "<" + endpoint.socketTowards(next) + ">";
    const PresenceRecord& dialog = subscription.dialog;
    const std::string cseq = std::to_string(dialog.notcseq()) + " NOTIFY";
    const std::string state = stateOf(subscription, notice);
    const bool body = !notice.body.text.empty();
    sip_add_tl(message.get(), sip, SIPTAG_FROM_STR(dialog.tohdr().c_str()), SIPTAG_TO_STR(dialog.fromhdr().c_str()),
               SIPTAG_CALL_ID_STR(dialog.callId().c_str()), SIPTAG_CSEQ_STR(cseq.c_str()),
               SIPTAG_MAX_FORWARDS_STR("70"), SIPTAG_CONTACT_STR(contact.c_str()),
               SIPTAG_EVENT_STR(dialog.eventhdr().c_str()), SIPTAG_SUBSCRIPTION_STATE_STR(state.c_str()),
               SIPTAG_USER_AGENT_STR(Incoming::kServer),
               TAG_IF(subscription.package == Package::presenceList, SIPTAG_REQUIRE_STR("eventlist")),
               TAG_IF(body, SIPTAG_CONTENT_TYPE_STR(notice.body.type.c_str())),
               TAG_IF(body, SIPTAG_PAYLOAD_STR(notice.body.text.c_str())), TAG_END());
    return Transaction(keeping(message, nta_outgoing_mcreate(endpoint.agent(), respond, magic, aside, message.get(),
                                                             TPTAG_IDENT(Endpoint::familyOf(next)), TAG_END())));
}

} // namespace oryx::sip
