#pragma once

#include <common/Digest.h>
#include <common/Endpoint.h>
#include <common/Subscribers.h>
#include <common/Workers.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>
#include <type_traits>
#include <utility>

namespace oryx::sip {

/// Who a request is from, as far as it says.
struct Sender {
    Address address;
    std::optional<Credentials> credentials; ///< None where no proof is asked for.
};

/// What all requests have in common that are answered here: for how long they ask, and who proves to be their sender.
class Gate {
public:
    Gate(const Options& options, const Provisioning& provisioning, const Nonces& nonces)
        : m_options(options), m_provisioning(provisioning), m_nonces(nonces)
    {
    }
    /// Once the sockets are there: whose URIs are this server's.
    void setEndpoint(const Endpoint& endpoint) { m_endpoint = &endpoint; }

    bool serves(const Address& address) const { return m_provisioning.serves(address.domain); }
    /// The same of one at the domain that a URI for this server names; at any that is served, if it names a socket.
    bool servesAt(const url_t& url, const Address& address) const;
    /// Whether a sender has to prove who he is.
    bool asksForProof() const { return m_options.digest; }
    /// Whether the request's URI is one that can be served, which sips is not without TLS, and all extensions that it
    /// requires are understood, of which one may be known (RFC 3261 sections 8.2.2.1 and 8.2.2.3). False when the
    /// request has been answered, here and below.
    static bool understands(Incoming& request, std::string_view known = "");
    /// Answers OPTIONS (RFC 3261 section 11.2): with the methods, the bodies and the one extension that are understood,
    /// and what else the tags say.
    template <typename... Tags>
    static void describe(Incoming& request, const char* methods, const char* bodies, const char* extension,
                         Tags... tags)
    {
        if (understands(request, extension)) {
            request.answer(SIP_200_OK, SIPTAG_ALLOW_STR(methods), SIPTAG_ACCEPT_STR(bodies),
                           SIPTAG_SUPPORTED_STR(extension), tags...);
        }
    }
    /// The address in one of its URIs.
    static bool readAddress(Incoming& request, const url_t& url, Address& address);
    /// The seconds that Expires asks for, within bounds; an end at a date, which no telephone asks for, counts as not
    /// said.
    bool readExpiry(Incoming& request, std::uint32_t& seconds) const;
    /// The seconds that Expires asks for, and those that are given for so many, within bounds: false where these are
    /// too few. Both for who has an answer of his own.
    unsigned long askedBy(const sip_t& sip) const;
    bool grants(unsigned long asked, std::uint32_t& seconds) const;
    void refuseBrief(Incoming& request) const;
    /// The sender's proof, if it is asked for; the worker finds out whether it is one.
    bool readProof(Incoming& request, Sender& sender) const;
    /// Has `work(session, order)` done by a worker, if `order.sender` is found to be who he says he is, and
    /// `then(answer)` with what it has answered; otherwise the request is answered, and `refused()`. All that one
    /// sender sends comes to one worker, which knows his credentials.
    template <typename Session, typename Order, typename Work, typename Then, typename Refused = void (*)()>
    void apply(
        Workers<Session>& workers, const std::shared_ptr<Incoming>& request, Order order, Work work, Then then,
        Refused refused = [] {}, Doing doing = Doing::alone) const
    {
        struct Judged {
            Verdict verdict = Verdict::accepted;
            std::optional<std::invoke_result_t<Work&, Session&, Order&>> answer;
        };
        const std::size_t key = order.sender.address.key();
        const char* const method = request->sip().sip_request->rq_method_name; // which `conclude` keeps
        auto judge = [order = std::move(order), work = std::move(work), method,
                      asked = asksForProof()](Session& session) mutable {
            Judged judged;
            const Sender& sender = order.sender;
            if (asked) {
                judged.verdict = sender.credentials ? session.authenticate(sender.address, *sender.credentials, method)
                                                    : Verdict::wrong;
            }
            if (judged.verdict == Verdict::accepted) {
                judged.answer.emplace(work(session, order));
            }
            return judged;
        };
        auto conclude = [this, request, key, then = std::move(then), refused](Judged judged) {
            if (judged.answer) {
                then(std::move(*judged.answer));
            } else {
                refused();
                refuse(*request, key, judged.verdict);
            }
        };
        if (!workers.give(key, std::move(judge), std::move(conclude), doing)) {
            refused();
            request->answerUnavailable();
        }
    }

private:
    void refuse(Incoming& request, std::size_t sender, Verdict verdict) const;
    void challenge(Incoming& request, std::size_t sender, bool stale) const;

    const Options& m_options;
    const Provisioning& m_provisioning;
    const Nonces& m_nonces;
    const Endpoint* m_endpoint = nullptr;
};

} // namespace oryx::sip
