#pragma once

#include <common/Gate.h>
#include <common/Workers.h>
#include <registrar/Session.h>

#include <dal/Registration.h>

#include <memory>

namespace oryx::sip {

/// Answers REGISTER requests (RFC 3261 section 10.3).
class Registrar {
public:
    Registrar(const Options& options, const Gate& gate, Workers<Session>& workers)
        : m_options(options), m_gate(gate), m_workers(workers)
    {
    }

    void take(const std::shared_ptr<Incoming>& request);

private:
    /// A request as the database gets it.
    struct Order {
        Sender sender; ///< With the address of record.
        RegisterRequest request;
    };

    bool readSender(Incoming& request, Order& order) const;
    bool readAddress(Incoming& request, const Order& order) const;
    bool readContacts(Incoming& request, RegisterRequest& order) const;
    bool readContact(Incoming& request, const sip_contact_t& contact, RegisterRequest& order) const;
    bool readExpiry(Incoming& request, const sip_contact_t& contact, std::uint32_t& expires) const;
    void apply(const std::shared_ptr<Incoming>& request, Order order);
    void conclude(Incoming& request, const RegisterAnswer& answer) const;
    void listBindings(Incoming& request, const RegisterAnswer& answer) const;

    const Options& m_options;
    const Gate& m_gate;
    Workers<Session>& m_workers;
};

} // namespace oryx::sip
