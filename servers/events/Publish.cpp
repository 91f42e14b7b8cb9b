// RFC 3903 section 6, its items in their order, but for the answer to item 3: whether the condition holds is judged by
// the one statement that stores. What items 4 and 5 refuse (423, 415, 413, 400) is refused before that (412).

#include <events/Requests.h>

#include <common/Headers.h>
#include <events/Documents.h>

#include <dal/Publications.h>

#include <cstring>
#include <optional>

namespace oryx::sip {

namespace {

/// Of one presentity; a person has a few telephones, and what one of them has forgotten stays until it expires.
constexpr std::uint32_t kMostPublications = 32;
constexpr std::size_t kLongestBody = 16384; // bytes; a document has some hundred for each device
constexpr const char* kPackage = "presence";
constexpr const char* kDocumentType = "application/pidf+xml";

/// A request as the database gets it.
struct PublishOrder {
    Sender sender; ///< With the presentity.
    PublishRequest request;
};
struct Published {
    PublishAnswer answer;
    bool changed = false; ///< What watchers see.
    int refusal = 0;      ///< The status, where the body is none that can be published.
};

/// Item 1: the resource in the request URI, and whether it is one of this server's. (That it is not there, the worker
/// finds out.) False when the request has been answered, here and below.
bool readPresentity(const Gate& gate, Incoming& request, PublishOrder& order)
{
    return Gate::readAddress(request, *request.sip().sip_request->rq_url, order.sender.address) &&
           (gate.serves(order.sender.address) || request.refuse(SIP_404_NOT_FOUND));
}

/// Item 2: the event package.
bool readEvent(Incoming& request, PublishOrder& order)
{
    const sip_event_t* const event = request.sip().sip_event;
    order.request.event = kPackage;
    return (event != nullptr && std::strcmp(event->o_type, kPackage) == 0) ||
           request.refuse(SIP_489_BAD_EVENT, SIPTAG_ALLOW_EVENTS_STR(kPackage));
}

/// Section 14.1: nobody publishes for somebody else. What From says must be proven, if proof is asked for.
bool readPublishingSender(const Gate& gate, Incoming& request, PublishOrder& order)
{
    Address sender;
    return Gate::readAddress(request, *request.sip().sip_from->a_url, sender) &&
           (sender.text() == order.sender.address.text() || request.refuse(SIP_403_FORBIDDEN)) &&
           gate.readProof(request, order.sender);
}

/// Item 3: the condition. Whether it holds, the database says.
bool readEntityTag(Incoming& request, PublishOrder& order)
{
    const sip_if_match_t* const condition = request.sip().sip_if_match;
    if (condition == nullptr) {
        return true;
    }
    order.request.entityTag = condition->g_string != nullptr ? condition->g_string : "";
    const bool one = !order.request.entityTag.empty() && condition->g_next == nullptr;
    return (one && fits(order.request.entityTag)) || request.refuse(SIP_400_BAD_REQUEST);
}

/// Item 5: the body, which must be there at first and may be later. With a removal, which there is nothing for at
/// first, it is not looked at. What is in it, the worker reads.
bool readBody(Incoming& request, PublishOrder& order)
{
    const sip_t& sip = request.sip();
    const bool present = sip.sip_payload != nullptr && sip.sip_payload->pl_len > 0;
    if (!present || order.request.expires == 0) {
        return !order.request.entityTag.empty() || request.refuse(SIP_400_BAD_REQUEST);
    }
    if (sip.sip_content_encoding != nullptr || sip.sip_content_type == nullptr ||
        su_casematch(sip.sip_content_type->c_type, kDocumentType) == 0) {
        return request.refuse(SIP_415_UNSUPPORTED_MEDIA, SIPTAG_ACCEPT_STR(kDocumentType));
    }
    if (sip.sip_payload->pl_len > kLongestBody) {
        return request.refuse(SIP_413_REQUEST_TOO_LARGE);
    }
    order.request.contentType = kDocumentType;
    order.request.body.assign(sip.sip_payload->pl_data, sip.sip_payload->pl_len);
    return true;
}

/// Items 3 to 6 in a worker, where the presentity and his publications are known.
Published carryOut(EventSession& session, PublishOrder& order)
{
    Published published;
    PublishRequest& request = order.request;
    if (!request.body.empty()) {
        std::optional<std::string> document = publishedDocument(request.body);
        if (!document || document->size() > kLongestPublication) {
            published.refusal = document ? 413 : 400;
            return published;
        }
        request.body = std::move(*document);
    }
    const Address& presentity = order.sender.address;
    request.maxPublications = kMostPublications;
    applyPublication(session.service(), presentity.handle.c_str(), presentity.domain.c_str(), request,
                     published.answer);
    const bool done = published.answer.outcome == PublishOutcome::done;
    published.changed = done && (!request.body.empty() || request.expires == 0);
    return published;
}

/// Item 6, and what it was refused for.
void tell(Incoming& request, const Published& published)
{
    if (published.refusal != 0) {
        return request.answer(published.refusal, sip_status_phrase(published.refusal));
    }
    const PublishAnswer& answer = published.answer;
    const std::string expires = std::to_string(answer.expires);
    switch (answer.outcome) {
    case PublishOutcome::done:
        return request.answer(SIP_200_OK, SIPTAG_ETAG_STR(answer.entityTag.c_str()),
                              SIPTAG_EXPIRES_STR(expires.c_str()));
    case PublishOutcome::unknownPresentity:
        return request.answer(SIP_404_NOT_FOUND);
    case PublishOutcome::inactiveSubscriber:
    case PublishOutcome::tooManyPublications:
        return request.answer(SIP_403_FORBIDDEN);
    case PublishOutcome::conditionFailed:
        return request.answer(412, "Conditional Request Failed");
    case PublishOutcome::failed:
        return request.answerUnavailable();
    }
}

} // namespace

void publish(const Desk& desk, const std::shared_ptr<Incoming>& request)
{
    PublishOrder order;
    if (!Gate::understands(*request) || !readPresentity(desk.gate, *request, order) || !readEvent(*request, order) ||
        !readPublishingSender(desk.gate, *request, order) || !readEntityTag(*request, order) ||
        !desk.gate.readExpiry(*request, order.request.expires) || !readBody(*request, order)) {
        return;
    }
    const auto then = [&notifier = desk.notifier, request,
                       presentity = order.sender.address.text()](const Published& published) {
        tell(*request, published);
        if (published.changed) {
            notifier.publicationChanged(presentity);
        }
    };
    desk.gate.apply(desk.workers, request, std::move(order), &carryOut, then);
}

} // namespace oryx::sip
