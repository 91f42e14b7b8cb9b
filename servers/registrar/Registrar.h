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

    /// What is wrong with a request by what it says itself. Its sender is told when he has proved who he is.
    enum class Fault { none, notHere, unreadable, tooBrief };

    bool readSender(Incoming& request, Order& order) const;
    Fault readAddress(const sip_t& sip, const Order& order) const;
    Fault readContacts(const sip_t& sip, RegisterRequest& order) const;
    Fault readContact(const sip_t& sip, const sip_contact_t& contact, RegisterRequest& order) const;
    bool readExpiry(const sip_t& sip, const sip_contact_t& contact, std::uint32_t& expires) const;
    void apply(const std::shared_ptr<Incoming>& request, Order order, Fault fault);
    void refuse(Incoming& request, Fault fault) const;
    void conclude(Incoming& request, const RegisterAnswer& answer) const;
    void listBindings(Incoming& request, const RegisterAnswer& answer) const;

    const Options& m_options;
    const Gate& m_gate;
    Workers<Session>& m_workers;
};

} // namespace oryx::sip
