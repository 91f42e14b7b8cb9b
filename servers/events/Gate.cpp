#include <events/Gate.h>

#include <algorithm>
#include <string>

namespace oryx::sip {

bool Gate::readExpiry(Incoming& request, std::uint32_t& seconds) const
{
    constexpr std::uint32_t kAlwaysEnough = 3600; // RFC 6665 section 4.2.1.1, RFC 3903 section 6
    const sip_expires_t* const said = request.sip().sip_expires;
    const unsigned long asked = said != nullptr && said->ex_date == 0 ? said->ex_delta : m_options.defaultExpires;
    if (asked > 0 && asked < std::min(m_options.minExpires, kAlwaysEnough)) {
        const std::string least = std::to_string(m_options.minExpires);
        request.answer(SIP_423_INTERVAL_TOO_BRIEF, SIPTAG_MIN_EXPIRES_STR(least.c_str()));
        return false;
    }
    seconds = static_cast<std::uint32_t>(std::min<unsigned long>(asked, m_options.maxExpires));
    return true;
}

bool Gate::readProof(Incoming& request, const Address& sender, std::optional<Credentials>& credentials) const
{
    if (!m_options.digest) {
        return true;
    }
    const sip_t& sip = request.sip();
    credentials.emplace();
    if (!readCredentials(sip.sip_authorization, m_provisioning.realm(), *credentials)) {
        challenge(request, sender, false);
        return false;
    }
    const auto isHere = [this](const url_t& url) {
        return m_endpoint->isOurs(url) || m_provisioning.serves(hostOf(url));
    };
    if (!credentials->areFor(*sip.sip_request->rq_url, isHere)) { // RFC 7616 section 3.4.6
        request.answer(SIP_400_BAD_REQUEST);
        return false;
    }
    return true;
}

bool Gate::passes(Incoming& request, const Address& sender, Verdict verdict) const
{
    switch (verdict) {
    case Verdict::accepted:
        return true;
    case Verdict::wrong:
    case Verdict::stale:
        challenge(request, sender, verdict == Verdict::stale);
        break;
    case Verdict::unknown: // of a PUBLISH the sender is the resource
        request.sip().sip_request->rq_method == sip_method_publish ? request.answer(SIP_404_NOT_FOUND)
                                                                   : request.answer(SIP_403_FORBIDDEN);
        break;
    case Verdict::barred:
        request.answer(SIP_403_FORBIDDEN);
        break;
    case Verdict::failed:
        request.answerUnavailable();
        break;
    }
    return false;
}

void Gate::challenge(Incoming& request, const Address& sender, bool stale) const
{
    sip::challenge(request, 401, m_provisioning.realm(), m_nonces.make(sender.key()), stale);
}

} // namespace oryx::sip
