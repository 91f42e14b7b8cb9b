#pragma once

#include <common/Endpoint.h>
#include <registrar/Route.h>

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace oryx::sip {

/// Somewhere that a request is sent to.
struct Hop {
    std::string uri;       ///< Its request URI; empty: as it came.
    std::string route;     ///< The proxies on the way, a Route header field's value; empty: none.
    std::string next;      ///< Where it is sent in spite of all that; empty: as Route and request URI say.
    int preference = 1000; ///< Those of the same preference are tried together.
};

class Fork;
/// Those that are under way; what is taken out ends.
using Forks = std::set<std::shared_ptr<Fork>>;

/// One request sent on to several places, and the answer chosen among theirs (RFC 3261 sections 16.6 to 16.10). It
/// lives until the last of its transactions has ended.
class Fork : public std::enable_shared_from_this<Fork> {
public:
    /// What is the same of all copies.
    struct Outgoing {
        Message message; ///< The request as it is to be sent, but for its request URI and route.
        RouteMark mark;
        std::string branch; ///< What the branch parameters of its Via begin with.
        unsigned breadth; ///< How many branches they and all that come of them may be at once, not less than the hops.
    };

    /// The hops come by preference.
    Fork(const Loop& loop, const Endpoint& endpoint, const Seal& seal, Forks& forks, std::shared_ptr<Incoming> request,
         Outgoing outgoing, std::vector<Hop> hops);
    ~Fork();
    Fork(const Fork&) = delete;
    Fork& operator=(const Fork&) = delete;

    /// Sends the request to all at once, or to those of the highest preference first.
    void start(bool sequential);
    /// The client does not want an answer any more.
    void cancel();
    /// The server ends: nobody else is tried. Whoever rings is told, and his caller; what is no INVITE cannot be taken
    /// back.
    void abandon();
    /// Whether a server that ends waits for it: somebody is to ring no more, and has not said that he has stopped, or
    /// nothing yet, so that he could not be told; or what is no INVITE is not answered.
    bool ending() const;

private:
    bool isInvite() const;
    struct Branch;

    void tryNext();
    void tryThose();
    void tryOthers();
    void send(const Hop& hop);
    Message addressed(const Hop& hop) const;
    unsigned breadth() const;
    static int responded(void* branch, nta_outgoing_t* transaction, const sip_t* sip);
    void take(Branch& branch, const sip_t* sip);
    void end(Branch& branch);
    void timeOut(Branch& branch);
    void cancel(Branch& branch);
    void cancelPending();
    void sendCancel(const Branch& branch);
    void endCancelled();
    void dropOthers(const Branch& answered);
    void drop(const std::function<bool(const Branch&)>& which);
    bool pending() const;
    bool waiting() const;
    void answerBest();
    void answerTimeout();
    Message best();
    void forward(msg_t* response);

    const Loop& m_loop;
    const Endpoint& m_endpoint;
    const Seal& m_seal;
    Forks& m_forks;
    std::shared_ptr<Incoming> m_request;
    Outgoing m_outgoing;
    std::vector<Hop> m_hops;
    std::size_t m_tried = 0;
    bool m_sequential = false;
    bool m_sent = false;     // to one of the hops at least; others are none that anything can be sent to
    bool m_unwanted = false; // the client has cancelled it
    bool m_decided = false;  // a final answer has been given, or none is wanted
    std::vector<std::unique_ptr<Branch>> m_branches;
    Timer m_patience; // with those that are being tried, before the next ones
    Timer m_giveUp;   // those that were cancelled
    Timer m_linger;   // for what is sent again after the answer
};

} // namespace oryx::sip
