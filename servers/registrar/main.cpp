// oryx-registrar: a registrar and proxy (RFC 3261 sections 10 and 16) whose state is the database's.

#include <common/Ending.h>
#include <common/Endpoint.h>
#include <common/Server.h>
#include <common/Workers.h>
#include <registrar/Proxy.h>
#include <registrar/Registrar.h>

#include <memory>
#include <optional>

namespace {

using namespace oryx::sip;

/// Whether a request is for the server itself: registrations, and those by which a peer looks if it is there. Of the
/// latter not what belongs to a dialog, which is with somebody behind it.
bool isForServer(const sip_t& sip, const Endpoint& endpoint, const Provisioning& provisioning)
{
    const url_t& url = *sip.sip_request->rq_url;
    const bool registers = sip.sip_request->rq_method == sip_method_register;
    const bool wanted = registers || (url.url_user == nullptr && sip.sip_to->a_tag == nullptr);
    const auto isHere = [&](const std::string& host) {
        return endpoint.isOurs(host.c_str(), url.url_port) || provisioning.serves(host);
    };
    return wanted && isHere(hostOf(url)) && isHere(nextHostOf(url)); // a maddr leads away, or has led here
}

void run(Loop& loop, const Options& options, int signals)
{
    Metrics metrics;
    const Nonces nonces;
    const Provisioning provisioning(options);
    std::optional<Workers<Session>> workers;
    workers.emplace(
        loop, metrics, options.workers, [&] { return std::make_unique<Session>(options, provisioning, nonces); },
        &tellReady);
    Gate gate(options, provisioning, nonces);
    Registrar registrar(options, gate, *workers);
    Proxy proxy(loop, options, provisioning, nonces, *workers);
    std::optional<Endpoint> endpoint;
    const auto take = [&](const std::shared_ptr<Incoming>& request) {
        if (request->isBrief() && request->sip().sip_request->rq_method == sip_method_options) {
            Gate::describe(*request, "REGISTER, OPTIONS", "", "path");
        } else if (!provisioning.known()) {
            request->answerUnavailable();
        } else if (request->isBrief()) {
            registrar.take(request);
        } else {
            proxy.take(request);
        }
    };
    const auto isBrief = [&](const sip_t& sip) {
        const sip_method_t method = sip.sip_request->rq_method;
        return (method == sip_method_register || method == sip_method_options) &&
               isForServer(sip, *endpoint, provisioning);
    };
    endpoint.emplace(
        loop, metrics, options, take, [&](const Message& message, const sip_t& sip) { proxy.takeStray(message, sip); },
        isBrief);
    gate.setEndpoint(*endpoint);
    proxy.setEndpoint(*endpoint);
    std::optional<MetricsPage> page;
    if (options.metrics) {
        page.emplace(metrics, *options.metrics);
    }
    const auto idle = [&] { return workers->idle() && proxy.idle(); };
    const Ending ending(loop, *endpoint, signals, idle, [&] { proxy.abandon(); });
    loop.run();
    proxy.stop();
    // What the workers hold are requests, which the sockets' end must not find gone.
    workers.reset();
}

} // namespace

int main(int argc, char** argv)
{
    return serve(argc, argv, run);
}
