#pragma once

#include <common/Endpoint.h>
#include <common/Workers.h>
#include <registrar/Session.h>

#include <dal/Registration.h>

#include <memory>

namespace oryx::sip {

/// Answers REGISTER requests (RFC 3261 section 10.3).
class Registrar {
public:
    Registrar(const Options& options, const Provisioning& provisioning, const Nonces& nonces,
              Workers<Session>& workers);

    /// Once the sockets are there: whose names this server goes by.
    void setEndpoint(const Endpoint& endpoint) { m_endpoint = &endpoint; }

    void take(const std::shared_ptr<Incoming>& request);

private:
    /// A request as the database gets it, with the answer of whoever is asked first.
    struct Order {
        Address address;
        std::optional<Credentials> credentials;
        RegisterRequest request;
    };
    struct Outcome {
        Verdict verdict = Verdict::accepted;
        RegisterAnswer answer;
    };

    static bool understands(Incoming& request);
    bool readSender(Incoming& request, Order& order) const;
    bool readAddress(Incoming& request, Order& order) const;
    bool readContacts(Incoming& request, RegisterRequest& order) const;
    bool readContact(Incoming& request, const sip_contact_t& contact, RegisterRequest& order) const;
    bool readExpiry(Incoming& request, const sip_contact_t& contact, std::uint32_t& expires) const;
    void apply(const std::shared_ptr<Incoming>& request, Order order);
    void challenge(Incoming& request, bool stale) const;
    void conclude(Incoming& request, const Outcome& outcome) const;
    void listBindings(Incoming& request, const RegisterAnswer& answer) const;

    const Options& m_options;
    const Provisioning& m_provisioning;
    const Nonces& m_nonces;
    Workers<Session>& m_workers;
    const Endpoint* m_endpoint = nullptr;
};

} // namespace oryx::sip
