// RFC 3903 section 6, its items in their order.

#include <events/Publisher.h>

#include <common/Headers.h>
#include <events/Documents.h>

#include <algorithm>
#include <cstring>
#include <string_view>
#include <utility>

namespace oryx::sip {

namespace {

/// Of one presentity; a person has a few telephones, and what one of them has forgotten stays until it expires.
constexpr std::uint32_t kMostPublications = 32;
constexpr std::size_t kLongestBody = 16384; // bytes; a document has some hundred for each device
constexpr const char* kPackage = "presence";
constexpr const char* kDocumentType = "application/pidf+xml";

} // namespace

Publisher::Publisher(const Options& options, const Provisioning& provisioning, const Nonces& nonces,
                     Workers<EventSession>& workers, OnChange onChange)
    : m_options(options),
      m_provisioning(provisioning),
      m_nonces(nonces),
      m_workers(workers),
      m_onChange(std::move(onChange))
{
}

void Publisher::take(const std::shared_ptr<Incoming>& request)
{
    Order order;
    if (readPresentity(*request, order) && readEvent(*request, order) && readSender(*request, order) &&
        readEntityTag(*request, order) && readExpiry(*request, order) && readBody(*request, order)) {
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
    if (!m_provisioning.serves(address->domain)) {
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
    if (sip.sip_require != nullptr && sip.sip_require->k_items != nullptr) {
        request.answer(SIP_420_BAD_EXTENSION, SIPTAG_UNSUPPORTED_STR(sip.sip_require->k_items[0]));
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
    if (!m_options.digest) {
        return true;
    }
    order.credentials.emplace();
    if (readCredentials(request.sip().sip_authorization, m_provisioning.realm(), *order.credentials)) {
        return true;
    }
    challenge(request, false);
    return false;
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

/// Item 4: for how long. An end at a date, which no telephone asks for, counts as not said.
bool Publisher::readExpiry(Incoming& request, Order& order) const
{
    const sip_expires_t* const asked = request.sip().sip_expires;
    const unsigned long seconds = asked != nullptr && asked->ex_date == 0 ? asked->ex_delta : m_options.defaultExpires;
    if (seconds > 0 && seconds < m_options.minExpires) {
        const std::string least = std::to_string(m_options.minExpires);
        request.answer(SIP_423_INTERVAL_TOO_BRIEF, SIPTAG_MIN_EXPIRES_STR(least.c_str()));
        return false;
    }
    order.request.expires = static_cast<std::uint32_t>(std::min<unsigned long>(seconds, m_options.maxExpires));
    return true;
}

/// Item 5: the body, which must be there at first and may be later. With a removal, which there is nothing for at
/// first, it is not looked at.
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
    std::optional<std::string> document =
        publishedDocument(std::string_view(sip.sip_payload->pl_data, sip.sip_payload->pl_len));
    if (!document) {
        request.answer(SIP_400_BAD_REQUEST);
        return false;
    }
    if (document->size() > kLongestPublication) {
        request.answer(SIP_413_REQUEST_TOO_LARGE);
        return false;
    }
    order.request.contentType = kDocumentType;
    order.request.body = std::move(*document);
    return true;
}

/// Items 3 to 6 in a worker, where the subscriber and his publications are known.
void Publisher::apply(const std::shared_ptr<Incoming>& request, Order order)
{
    const std::size_t key = order.presentity.key();
    order.request.maxPublications = kMostPublications;
    auto then = [this, request, presentity = order.presentity.text()](const Outcome& outcome) {
        conclude(*request, outcome);
        if (outcome.changed) {
            m_onChange(presentity);
        }
    };
    auto work = [order = std::move(order)](EventSession& session) {
        Outcome outcome;
        if (order.credentials) {
            outcome.verdict = session.authenticate(order.presentity, *order.credentials, "PUBLISH");
        }
        if (outcome.verdict == Verdict::accepted) {
            applyPublication(session.service(), order.presentity.handle.c_str(), order.presentity.domain.c_str(),
                             order.request, outcome.answer);
        }
        outcome.changed = outcome.answer.outcome == PublishOutcome::done &&
                          (!order.request.body.empty() || order.request.expires == 0);
        return outcome;
    };
    if (!m_workers.give(key, std::move(work), std::move(then))) {
        request->answerUnavailable();
    }
}

void Publisher::challenge(Incoming& request, bool stale) const
{
    const std::optional<Address> sender = addressOf(*request.sip().sip_request->rq_url);
    sip::challenge(request, 401, m_provisioning.realm(), m_nonces.make(sender ? sender->key() : 0), stale);
}

void Publisher::conclude(Incoming& request, const Outcome& outcome) const
{
    switch (outcome.verdict) {
    case Verdict::accepted:
        tell(request, outcome.answer);
        return;
    case Verdict::wrong:
    case Verdict::stale:
        challenge(request, outcome.verdict == Verdict::stale);
        return;
    case Verdict::unknown:
        request.answer(SIP_404_NOT_FOUND);
        return;
    case Verdict::barred:
        request.answer(SIP_403_FORBIDDEN);
        return;
    case Verdict::failed:
        request.answerUnavailable();
        return;
    }
}

/// Item 6, and what it was refused for.
void Publisher::tell(Incoming& request, const PublishAnswer& answer)
{
    const std::string expires = std::to_string(answer.expires);
    switch (answer.outcome) {
    case PublishOutcome::done:
        request.answer(SIP_200_OK, SIPTAG_ETAG_STR(answer.entityTag.c_str()), SIPTAG_EXPIRES_STR(expires.c_str()));
        return;
    case PublishOutcome::unknownPresentity:
        request.answer(SIP_404_NOT_FOUND);
        return;
    case PublishOutcome::inactiveSubscriber:
    case PublishOutcome::tooManyPublications:
        request.answer(SIP_403_FORBIDDEN);
        return;
    case PublishOutcome::conditionFailed:
        request.answer(412, "Conditional Request Failed");
        return;
    case PublishOutcome::failed:
        request.answerUnavailable();
        return;
    }
}

} // namespace oryx::sip
