#include <common/Gate.h>

#include <common/Headers.h>

#include <algorithm>
#include <string>

namespace oryx::sip {

bool Gate::understands(Incoming& request, std::string_view known)
{
    if (request.sip().sip_request->rq_url->url_type != url_sip) {
        return request.refuse(SIP_416_UNSUPPORTED_URI);
    }
    const std::string unknown = unknownTags(request.sip().sip_require, known);
    return unknown.empty() || request.refuse(SIP_420_BAD_EXTENSION, SIPTAG_UNSUPPORTED_STR(unknown.c_str()));
}

bool Gate::servesAt(const url_t& url, const Address& address) const
{
    return serves(address) && (hostOf(url) == address.domain || m_endpoint->isOurs(hostOf(url).c_str(), url.url_port));
}

bool Gate::readAddress(Incoming& request, const url_t& url, Address& address)
{
    std::optional<Address> read = addressOf(url);
    if (!read) {
        return request.refuse(SIP_400_BAD_REQUEST);
    }
    address = std::move(*read);
    return true;
}

bool Gate::readExpiry(Incoming& request, std::uint32_t& seconds) const
{
    const bool granted = grants(askedBy(request.sip()), seconds);
    if (!granted) {
        refuseBrief(request);
    }
    return granted;
}

unsigned long Gate::askedBy(const sip_t& sip) const
{
    const sip_expires_t* const said = sip.sip_expires;
    return said != nullptr && said->ex_date == 0 ? said->ex_delta : m_options.defaultExpires;
}

bool Gate::grants(unsigned long asked, std::uint32_t& seconds) const
{
    constexpr std::uint32_t kAlwaysEnough = 3600; // RFC 3261 section 10.3, RFC 6665 section 4.2.1.1, RFC 3903 section 6
    seconds = static_cast<std::uint32_t>(std::min<unsigned long>(asked, m_options.maxExpires));
    return asked == 0 || asked >= std::min(m_options.minExpires, kAlwaysEnough);
}

void Gate::refuseBrief(Incoming& request) const
{
    const std::string least = std::to_string(m_options.minExpires);
    request.answer(SIP_423_INTERVAL_TOO_BRIEF, SIPTAG_MIN_EXPIRES_STR(least.c_str()));
}

bool Gate::readProof(Incoming& request, Sender& sender) const
{
    if (!m_options.digest) {
        return true;
    }
    const sip_t& sip = request.sip();
    sender.credentials.emplace();
    if (!readCredentials(sip.sip_authorization, m_provisioning.realm(), *sender.credentials)) {
        challenge(request, sender.address.key(), false);
        return false;
    }
    const auto isHere = [this](const url_t& url) {
        return m_endpoint->isOurs(url) || m_provisioning.serves(nextHostOf(url));
    };
    return sender.credentials->areFor(*sip.sip_request->rq_url, isHere) || // RFC 7616 section 3.4.6
           request.refuse(SIP_400_BAD_REQUEST);
}

void Gate::refuse(Incoming& request, std::size_t sender, Verdict verdict) const
{
    switch (verdict) {
    case Verdict::accepted:
        return;
    case Verdict::wrong:
    case Verdict::stale:
        return challenge(request, sender, verdict == Verdict::stale);
    case Verdict::barred:
        return request.answer(SIP_403_FORBIDDEN);
    case Verdict::failed:
        return request.answerUnavailable();
    }
}

void Gate::challenge(Incoming& request, std::size_t sender, bool stale) const
{
    sip::challenge(request, 401, m_provisioning.realm(), m_nonces.make(sender), stale);
}

} // namespace oryx::sip
