// oryx-registrar: a registrar and proxy (RFC 3261 sections 10 and 16) whose state is the database's.

#include <common/Endpoint.h>
#include <common/Server.h>
#include <common/Workers.h>
#include <registrar/Proxy.h>
#include <registrar/Registrar.h>

#include <sys/signalfd.h>
#include <unistd.h>

#include <chrono>
#include <optional>

namespace {

using namespace oryx::sip;

/// Whether a request is for the server itself: registrations, and those by which a peer looks if it is there.
bool isForServer(const sip_t& sip, const Endpoint& endpoint, const Provisioning& provisioning)
{
    const url_t& url = *sip.sip_request->rq_url;
    const bool wanted = sip.sip_request->rq_method == sip_method_register || url.url_user == nullptr;
    return wanted && (endpoint.isOurs(url) || provisioning.serves(hostOf(url)));
}

/// Ends the loop when nothing is under way any more, or after so long that all ends in time.
class Ending {
public:
    Ending(Loop& loop, Endpoint& endpoint, const Workers<Session>& workers)
        : m_loop(loop), m_endpoint(endpoint), m_workers(workers), m_timer(loop, [this] { look(); })
    {
    }
    void begin()
    {
        m_endpoint.refuseRequests();
        look();
    }

private:
    void look()
    {
        constexpr std::chrono::milliseconds kPause{20};
        constexpr int kMostLooks = 50;
        if (m_workers.idle() || ++m_looks > kMostLooks) {
            m_loop.stop();
        } else {
            m_timer.set(kPause);
        }
    }

    Loop& m_loop;
    Endpoint& m_endpoint;
    const Workers<Session>& m_workers;
    Timer m_timer;
    int m_looks = 0;
};

void run(Loop& loop, const Options& options, int signals)
{
    Metrics metrics;
    const Nonces nonces;
    const Provisioning provisioning(options);
    std::optional<Workers<Session>> workers;
    workers.emplace(
        loop, metrics, options.workers, [&] { return std::make_unique<Session>(options, provisioning, nonces); },
        &tellReady);
    Registrar registrar(options, provisioning, nonces, *workers);
    Proxy proxy(loop, options, provisioning, nonces, *workers);
    std::optional<Endpoint> endpoint;
    const auto take = [&](const std::shared_ptr<Incoming>& request) {
        const sip_t& sip = request->sip();
        const bool here = isForServer(sip, *endpoint, provisioning);
        if (sip.sip_request->rq_method == sip_method_options && here) {
            request->answer(SIP_200_OK, SIPTAG_ALLOW_STR("REGISTER, OPTIONS"), SIPTAG_SUPPORTED_STR("path"));
        } else if (!provisioning.known()) {
            request->answerUnavailable();
        } else if (sip.sip_request->rq_method == sip_method_register && here) {
            registrar.take(request);
        } else {
            proxy.take(request);
        }
    };
    endpoint.emplace(loop, metrics, options.listen, take,
                     [&](const Message& message, const sip_t& sip) { proxy.takeStray(message, sip); });
    proxy.setEndpoint(*endpoint);
    std::optional<MetricsPage> page;
    if (options.metrics) {
        page.emplace(metrics, *options.metrics);
    }
    Ending ending(loop, *endpoint, *workers);
    loop.watch(signals, [&] {
        signalfd_siginfo taken{};
        if (read(signals, &taken, sizeof taken) == sizeof taken) {
            ending.begin();
        }
    });
    loop.run();
    loop.unwatch(signals);
    // What the workers hold are requests, which the sockets' end must not find gone.
    workers.reset();
    proxy.stop();
}

} // namespace

int main(int argc, char** argv)
{
    return serve(argc, argv, run);
}
