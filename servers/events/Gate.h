#pragma once

#include <common/Digest.h>
#include <common/Endpoint.h>
#include <common/Subscribers.h>

#include <cstdint>
#include <optional>

namespace oryx::sip {

/// What PUBLISH and SUBSCRIBE have in common: for how long they ask, and who proves to be their sender.
class Gate {
public:
    Gate(const Options& options, const Provisioning& provisioning, const Nonces& nonces)
        : m_options(options), m_provisioning(provisioning), m_nonces(nonces)
    {
    }
    /// Once the sockets are there: whose URIs are this server's.
    void setEndpoint(const Endpoint& endpoint) { m_endpoint = &endpoint; }

    bool serves(const Address& address) const { return m_provisioning.serves(address.domain); }
    /// Whether a sender has to prove who he is.
    bool asksForProof() const { return m_options.digest; }
    /// The seconds asked for, within bounds; an end at a date, which no telephone asks for, counts as not said. False
    /// when the request has been answered, here and below.
    bool readExpiry(Incoming& request, std::uint32_t& seconds) const;
    /// The sender's proof, if it is asked for; the worker finds out whether it is one.
    bool readProof(Incoming& request, const Address& sender, std::optional<Credentials>& credentials) const;
    /// Whether the worker has found the sender to be who he says he is.
    bool passes(Incoming& request, const Address& sender, Verdict verdict) const;

private:
    void challenge(Incoming& request, const Address& sender, bool stale) const;

    const Options& m_options;
    const Provisioning& m_provisioning;
    const Nonces& m_nonces;
    const Endpoint* m_endpoint = nullptr;
};

} // namespace oryx::sip
