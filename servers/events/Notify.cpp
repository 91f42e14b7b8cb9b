#include <common/Headers.h>
#include <events/Notify.h>

#include <algorithm>
#include <ctime>
#include <utility>

namespace oryx::sip {

namespace {

/// Subscription-State (RFC 6665 section 8.2.3).
std::string stateOf(const Subscription& subscription, const Notice& notice)
{
    const std::string state = textOf(notice.state);
    if (notice.state == SubscriptionState::terminated) {
        return state + ";reason=" + notice.reason;
    }
    return state + ";expires=" + std::to_string(std::max<std::time_t>(subscription.expires - std::time(nullptr), 0));
}

/// Request URI and Route. A first hop that does not know loose routing gets the request URI, and is gone to; it is
/// given back then.
const url_string_t* route(msg_t* message, sip_t* sip, const Subscription& subscription)
{
    su_home_t* const home = msg_home(message);
    sip_route_t* const hops = subscription.routes.empty() ? nullptr : sip_route_make(home, subscription.routes.c_str());
    const bool strict = hops != nullptr && url_has_param(hops->r_url, "lr") == 0;
    const std::string last = "<" + subscription.contact + ">";
    const url_string_t* const target = strict ? static_cast<const url_string_t*>(static_cast<const void*>(hops->r_url))
                                              : urlText(subscription.contact.c_str());
    sip_add_tl(message, sip, TAG_IF(hops != nullptr, SIPTAG_ROUTE(strict ? hops->r_next : hops)),
               TAG_IF(strict, SIPTAG_ROUTE_STR(last.c_str())), TAG_END());
    sip_header_insert(message, sip, anyHeader(sip_request_create(home, SIP_METHOD_NOTIFY, target, nullptr)));
    return strict ? target : nullptr;
}

} // namespace

NotifyRequest notifyRequest(const Endpoint& endpoint, const Subscription& subscription, const Notice& notice)
{
    Message message(nta_msg_create(endpoint.agent(), 0));
    sip_t* const sip = sip_object(message.get());
    const url_string_t* const aside = route(message.get(), sip, subscription);
    const url_t& next = aside != nullptr ? *sip->sip_request->rq_url : nextHop(*sip);
    const std::string contact = "<" + endpoint.socketTowards(next) + ">";
    const std::string cseq = std::to_string(subscription.notifyCseq) + " NOTIFY";
    const std::string state = stateOf(subscription, notice);
    const bool body = !notice.body.text.empty();
    sip_add_tl(message.get(), sip, SIPTAG_FROM_STR(subscription.to.c_str()), SIPTAG_TO_STR(subscription.from.c_str()),
               SIPTAG_CALL_ID_STR(subscription.callId.c_str()), SIPTAG_CSEQ_STR(cseq.c_str()),
               SIPTAG_MAX_FORWARDS_STR("70"), SIPTAG_CONTACT_STR(contact.c_str()),
               SIPTAG_EVENT_STR(subscription.event.c_str()), SIPTAG_SUBSCRIPTION_STATE_STR(state.c_str()),
               SIPTAG_USER_AGENT_STR(Incoming::kServer),
               TAG_IF(subscription.package == Package::presenceList, SIPTAG_REQUIRE_STR("eventlist")),
               TAG_IF(body, SIPTAG_CONTENT_TYPE_STR(notice.body.type.c_str())),
               TAG_IF(body, SIPTAG_PAYLOAD_STR(notice.body.text.c_str())), TAG_END());
    return {std::move(message), aside, Endpoint::familyOf(next)};
}

} // namespace oryx::sip
