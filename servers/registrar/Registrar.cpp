// RFC 3261 section 10.3, its items in their order. Of item 1 the beginning is the caller's, of item 2 the gate's
// (common/Gate.h), and a worker's session does items 3 and 4; whatever is wrong by 5 to 7 is answered behind these.

#include <registrar/Registrar.h>

#include <common/Headers.h>

#include <wex/Uri.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <utility>

namespace oryx::sip {

namespace {

/// Of one address of record; a person has a few telephones.
constexpr std::uint32_t kMostBindings = 32;
constexpr std::size_t kMostContacts = 32; // in one request

/// RFC 3261 section 25.1: from 0 to 1 with up to three digits; or none.
bool isPreference(const std::string& qvalue)
{
    if (qvalue.empty()) {
        return true;
    }
    const std::string_view digits = std::string_view(qvalue).substr(std::min<std::size_t>(qvalue.size(), 2));
    return (qvalue[0] == '0' || qvalue[0] == '1') && (qvalue.size() == 1 || qvalue[1] == '.') && digits.size() <= 3 &&
           digits.find_first_not_of(qvalue[0] == '0' ? "0123456789" : "0") == std::string_view::npos;
}

} // namespace

void Registrar::take(const std::shared_ptr<Incoming>& request)
{
    // 1. Whether the request is for this server is the caller's to know: it is a proxy too.
    // 2. Of extensions that must be understood Path is (RFC 3327).
    Order order;
    if (!Gate::understands(*request, "path") || !readSender(*request, order)) {
        return;
    }
    Fault fault = readAddress(request->sip(), order);
    fault = fault == Fault::none ? readContacts(request->sip(), order.request) : fault;
    // Nobody could prove that he is of a domain that is not served.
    if (fault == Fault::none || (m_gate.asksForProof() && m_gate.serves(order.sender.address))) {
        apply(request, std::move(order), fault);
    } else {
        refuse(*request, fault);
    }
}

/// Item 3: who sends it must prove it, if proof is asked for. Item 4: who he is decides whose bindings he may change:
/// the credentials must be those of the address of record's own subscriber, which the worker finds out. False when the
/// request has been answered.
bool Registrar::readSender(Incoming& request, Order& order) const
{
    return Gate::readAddress(request, *request.sip().sip_to->a_url, order.sender.address) &&
           m_gate.readProof(request, order.sender);
}

/// Item 5: the address of record. One that is not served here has no bindings here, and none at another domain.
Registrar::Fault Registrar::readAddress(const sip_t& sip, const Order& order) const
{
    return m_gate.servesAt(*sip.sip_request->rq_url, order.sender.address) ? Fault::none : Fault::notHere;
}

/// Items 6 and 7, up to where the bindings must be known.
Registrar::Fault Registrar::readContacts(const sip_t& sip, RegisterRequest& order) const
{
    order.callId = sip.sip_call_id->i_id;
    order.cseq = sip.sip_cseq->cs_seq;
    order.path = routeText(sip.sip_path);
    order.maxBindings = kMostBindings;
    if (!fits(order.callId) || !fits(order.path)) {
        return Fault::unreadable;
    }
    for (const sip_contact_t* contact = sip.sip_contact; contact != nullptr; contact = contact->m_next) {
        order.removesAll = order.removesAll || contact->m_url->url_type == url_any;
    }
    if (order.removesAll) { // item 6: "*" alone, and with an Expires of 0
        const bool alone = sip.sip_contact != nullptr && sip.sip_contact->m_next == nullptr;
        const sip_expires_t* const said = sip.sip_expires;
        return alone && said != nullptr && said->ex_delta == 0 && said->ex_date == 0 ? Fault::none : Fault::unreadable;
    }
    Fault fault = Fault::none;
    for (const sip_contact_t* contact = sip.sip_contact; contact != nullptr && fault == Fault::none;
         contact = contact->m_next) {
        fault = readContact(sip, *contact, order);
    }
    return fault;
}

Registrar::Fault Registrar::readContact(const sip_t& sip, const sip_contact_t& contact, RegisterRequest& order) const
{
    RegisterContact read;
    if (!readExpiry(sip, contact, read.expires)) {
        return Fault::tooBrief;
    }
    sip_contact_t one = contact;
    one.m_next = nullptr;
    read.address = normalized(*contact.m_url);
    read.contactHeader = headerText(one);
    read.qvalue = contact.m_q != nullptr ? contact.m_q : "";
    // A sips contact wants calls to come by TLS all the way (RFC 5630 section 5.4). Most telephones that have come by
    // TLS to a server before this one write sip and transport=tls, and want no more than their calls. One that has been
    // stored before may be removed.
    const bool wantsTls = contact.m_url->url_type == url_sips && read.expires > 0;
    if (wantsTls || !wex::Uri(read.address).isValid() || !isPreference(read.qvalue) || !fits(read.address) ||
        !fits(read.contactHeader) || !fits(read.qvalue) || order.contacts.size() == kMostContacts) {
        return Fault::unreadable;
    }
    order.contacts.push_back(std::move(read));
    return Fault::none;
}

/// Item 7: the contact's own parameter, else the request's header field, else what the server gives. What cannot be
/// read counts as not said (section 10.2.1.1). False where it is too brief.
bool Registrar::readExpiry(const sip_t& sip, const sip_contact_t& contact, std::uint32_t& expires) const
{
    if (contact.m_expires == nullptr) {
        return m_gate.grants(m_gate.askedBy(sip), expires);
    }
    const char* const end = contact.m_expires + std::strlen(contact.m_expires);
    std::uint32_t said = 0;
    const auto [behind, error] = std::from_chars(contact.m_expires, end, said);
    if (error == std::errc::result_out_of_range) {
        said = m_options.maxExpires;
    } else if (error != std::errc() || behind != end) {
        said = m_options.defaultExpires;
    }
    return m_gate.grants(said, expires);
}

/// Items 3 to 7 in a worker, where the subscriber and the bindings are known: what waits for it is applied together,
/// and the database writes its log to disk once for all of that.
void Registrar::apply(const std::shared_ptr<Incoming>& request, Order order, Fault fault)
{
    const auto work = [fault](Session& session, Order& asked) {
        return fault == Fault::none ? session.leave(asked.sender.address, std::move(asked.request)) : nullptr;
    };
    const auto then = [this, request, fault](const std::shared_ptr<const RegisterAnswer>& answer) {
        if (answer) {
            conclude(*request, *answer);
        } else {
            refuse(*request, fault);
        }
    };
    m_gate.apply(
        m_workers, request, std::move(order), work, then, [] {}, Doing::together);
}

/// Items 5 to 7, of what the request says itself.
void Registrar::refuse(Incoming& request, Fault fault) const
{
    switch (fault) {
    case Fault::none:
        return;
    case Fault::notHere:
        return request.answer(SIP_404_NOT_FOUND);
    case Fault::unreadable:
        return request.answer(SIP_400_BAD_REQUEST);
    case Fault::tooBrief:
        return m_gate.refuseBrief(request);
    }
}

void Registrar::conclude(Incoming& request, const RegisterAnswer& answer) const
{
    switch (answer.outcome) {
    case RegisterOutcome::done:
        listBindings(request, answer);
        return;
    case RegisterOutcome::unknownAddress:
        request.answer(SIP_404_NOT_FOUND);
        return;
    case RegisterOutcome::inactiveSubscriber:
    case RegisterOutcome::tooManyBindings:
        request.answer(SIP_403_FORBIDDEN);
        return;
    case RegisterOutcome::olderRequest: // item 7: the update is aborted
        request.answer(500, "Request Is Out of Order");
        return;
    case RegisterOutcome::failed:
        request.answerUnavailable();
        return;
    }
}

/// Item 8: all that is bound now, each with what is left of its time.
void Registrar::listBindings(Incoming& request, const RegisterAnswer& answer) const
{
    std::string contacts;
    for (const LiveBinding& binding : answer.bindings) {
        contacts.append(contacts.empty() ? "<" : ", <").append(binding.address).append(">");
        if (!binding.qvalue.empty()) {
            contacts.append(";q=").append(binding.qvalue);
        }
        contacts.append(";expires=").append(std::to_string(binding.expires.value_or(m_options.maxExpires)));
    }
    const std::string path = routeText(request.sip().sip_path);
    request.answer(SIP_200_OK, TAG_IF(!contacts.empty(), SIPTAG_CONTACT_STR(contacts.c_str())),
                   TAG_IF(!path.empty(), SIPTAG_PATH_STR(path.c_str())), SIPTAG_SUPPORTED_STR("path"),
                   SIPTAG_DATE_STR(dateText()));
}

} // namespace oryx::sip
