#pragma once

#include <common/Endpoint.h>
#include <common/Workers.h>
#include <registrar/Fork.h>
#include <registrar/Route.h>
#include <registrar/Session.h>

#include <dal/RequestTarget.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace oryx::sip {

/// Sends requests on (RFC 3261 section 16).
class Proxy {
public:
    Proxy(const Loop& loop, const Options& options, const Provisioning& provisioning, const Nonces& nonces,
          Workers<Session>& workers);

    /// Once the sockets are there: whose names this proxy goes by.
    void setEndpoint(const Endpoint& endpoint) { m_endpoint = &endpoint; }

    void take(const std::shared_ptr<Incoming>& request);
    /// An ACK for a 2xx: sent on without a transaction.
    void takeStray(const Message& message, const sip_t& sip) const;
    /// The server ends: ends what rings, and has nobody ring any more. Of any other request its telephone cannot be
    /// told that it is not wanted any more, so who has sent it is not told that it has failed while there is time; but
    /// it goes to nobody else.
    void abandon();
    /// Whether nobody rings any more, and all else is answered.
    bool idle() const;
    /// Gives up whatever is under way.
    void stop() { m_forks.clear(); }

private:
    /// What decides where a request goes.
    struct Question {
        TargetQuestion target;
        std::string from; ///< The domain that it comes from.
        std::optional<Address> sender;
        std::optional<Credentials> credentials;
        bool forEventServer = false;
        bool routed = false; ///< The target is not who is called, but the first of a route.
    };
    struct Answer {
        bool denied = false; ///< Requests from that domain are not accepted.
        bool failed = false;
        Verdict sender = Verdict::accepted;
        RequestTarget target;
    };

    bool valid(Incoming& request) const;
    bool loops(const sip_t& sip) const;
    bool leadsHere(const url_t& route) const;
    void takeOwnMaddr(msg_t* outgoing, msg_t* received) const;
    Message prepared(const sip_t& sip, msg_t* message, std::vector<std::string>& cookies) const;
    void find(const std::shared_ptr<Incoming>& request, Message outgoing, const RouteMark& mark);
    Answer answer(Session& session, const Question& question, const std::string& method) const;
    void conclude(const std::shared_ptr<Incoming>& request, Message outgoing, const RouteMark& mark,
                  const Answer& answer);
    void challenge(Incoming& request, bool stale) const;
    void send(const std::shared_ptr<Incoming>& request, Message outgoing, const RouteMark& mark, std::vector<Hop> hops,
              bool sequential);

    const Loop& m_loop;
    const Options& m_options;
    const Provisioning& m_provisioning;
    const Nonces& m_nonces;
    Seal m_seal;
    Workers<Session>& m_workers;
    const Endpoint* m_endpoint = nullptr;
    Forks m_forks;
    bool m_abandoned = false;
};

} // namespace oryx::sip
