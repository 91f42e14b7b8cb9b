// RFC 3903 section 6, its items in their order.

#include <events/Publisher.h>

#include <common/Headers.h>
#include <events/Documents.h>

#include <cstring>
#include <utility>

namespace oryx::sip {

namespace {

/// Of one presentity; a person has a few telephones, and what one of them has forgotten stays until it expires.
constexpr std::uint32_t kMostPublications = 32;
constexpr std::size_t kLongestBody = 16384; // bytes; a document has some hundred for each device
constexpr const char* kPackage = "presence";
constexpr const char* kDocumentType = "application/pidf+xml";

} // namespace

void Publisher::take(const std::shared_ptr<Incoming>& request)
{
    Order order;
    if (readPresentity(*request, order) && readEvent(*request, order) && readSender(*request, order) &&
        readEntityTag(*request, order) && m_gate.readExpiry(*request, order.request.expires) &&
        readBody(*request, order)) {
        apply(request, std::move(order));
    }
}

/// Item 1: the resource in the request URI, and whether it is one of this server's. (That it is not there, the worker
/// finds out.) False when the request has been answered, here and below.
bool Publisher::readPresentity(Incoming& request, Order& order) const
{
    std::optional<Address> address = addressOf(*request.sip().sip_request->rq_url);
    if (!address) {
        request.answer(SIP_400_BAD_REQUEST);
        return false;
    }
    if (!m_gate.serves(*address)) {
        request.answer(SIP_404_NOT_FOUND);
        return false;
    }
    order.presentity = std::move(*address);
    return true;
}

/// Item 2: the event package. Of a request that needs an extension none is known (RFC 3261 section 8.2.2.3).
bool Publisher::readEvent(Incoming& request, Order& order)
{
    const sip_t& sip = request.sip();
    const std::string unknown = unknownTags(sip.sip_require);
    if (!unknown.empty()) {
        request.answer(SIP_420_BAD_EXTENSION, SIPTAG_UNSUPPORTED_STR(unknown.c_str()));
        return false;
    }
    if (sip.sip_event == nullptr || std::strcmp(sip.sip_event->o_type, kPackage) != 0) {
        request.answer(SIP_489_BAD_EVENT, SIPTAG_ALLOW_EVENTS_STR(kPackage));
        return false;
    }
    order.request.event = kPackage;
    return true;
}

/// Section 14.1: nobody publishes for somebody else. What From says must be proven, if proof is asked for.
bool Publisher::readSender(Incoming& request, Order& order) const
{
    const std::optional<Address> sender = addressOf(*request.sip().sip_from->a_url);
    if (!sender || sender->text() != order.presentity.text()) {
        request.answer(SIP_403_FORBIDDEN);
        return false;
    }
    return m_gate.readProof(request, *sender, order.credentials);
}

/// Item 3: the condition. Whether it holds, the database says.
bool Publisher::readEntityTag(Incoming& request, Order& order)
{
    const sip_if_match_t* const condition = request.sip().sip_if_match;
    if (condition == nullptr) {
        return true;
    }
    const std::string tag = condition->g_string != nullptr ? condition->g_string : "";
    if (tag.empty() || condition->g_next != nullptr || !fits(tag)) {
        request.answer(SIP_400_BAD_REQUEST);
        return false;
    }
    order.request.entityTag = tag;
    return true;
}

/// Item 5: the body, which must be there at first and may be later. With a removal, which there is nothing for at
/// first, it is not looked at. What is in it, the worker reads.
bool Publisher::readBody(Incoming& request, Order& order)
{
    const sip_t& sip = request.sip();
    const bool initial = order.request.entityTag.empty();
    const bool present = sip.sip_payload != nullptr && sip.sip_payload->pl_len > 0;
    const bool removal = order.request.expires == 0;
    if (!present || removal) {
        if (initial) {
            request.answer(SIP_400_BAD_REQUEST);
        }
        return !initial;
    }
    if (sip.sip_content_encoding != nullptr || sip.sip_content_type == nullptr ||
        su_casematch(sip.sip_content_type->c_type, kDocumentType) == 0) {
        request.answer(SIP_415_UNSUPPORTED_MEDIA, SIPTAG_ACCEPT_STR(kDocumentType));
        return false;
    }
    if (sip.sip_payload->pl_len > kLongestBody) {
        request.answer(SIP_413_REQUEST_TOO_LARGE);
        return false;
    }
    order.request.contentType = kDocumentType;
    order.request.body.assign(sip.sip_payload->pl_data, sip.sip_payload->pl_len);
    return true;
}

/// Items 3 to 6 in a worker, where the subscriber and his publications are known.
void Publisher::apply(const std::shared_ptr<Incoming>& request, Order order)
{
    const std::size_t key = order.presentity.key();
    order.request.maxPublications = kMostPublications;
    auto then = [this, request, presentity = order.presentity](const Outcome& outcome) {
        if (m_gate.passes(*request, presentity, outcome.verdict)) {
            tell(*request, outcome);
        }
        if (outcome.changed) {
            m_onChange(presentity.text());
        }
    };
    auto work = [order = std::move(order)](EventSession& session) mutable {
        Outcome outcome;
        if (order.credentials) {
            outcome.verdict = session.authenticate(order.presentity, *order.credentials, "PUBLISH");
        }
        if (outcome.verdict == Verdict::accepted) {
            publish(session.service(), order, outcome);
        }
        return outcome;
    };
    if (!m_workers.give(key, std::move(work), std::move(then))) {
        request->answerUnavailable();
    }
}

void Publisher::publish(PresenceService& service, Order& order, Outcome& outcome)
{
    PublishRequest& request = order.request;
    if (!request.body.empty()) {
        std::optional<std::string> document = publishedDocument(request.body);
        if (!document || document->size() > kLongestPublication) {
            outcome.refusal = document ? 413 : 400;
            return;
        }
        request.body = std::move(*document);
    }
    applyPublication(service, order.presentity.handle.c_str(), order.presentity.domain.c_str(), request,
                     outcome.answer);
    outcome.changed = outcome.answer.outcome == PublishOutcome::done && (!request.body.empty() || request.expires == 0);
}

/// Item 6, and what it was refused for.
void Publisher::tell(Incoming& request, const Outcome& outcome)
{
    if (outcome.refusal != 0) {
        request.answer(outcome.refusal, sip_status_phrase(outcome.refusal));
        return;
    }
    const PublishAnswer& answer = outcome.answer;
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

} // namespace oryx::sip
