// oryx-events: presence, who watches it, and lists of it (RFC 6665, 3856, 3857, 4662), whose state is the database's.

#include <common/Ending.h>
#include <common/Endpoint.h>
#include <common/Server.h>
#include <common/Workers.h>
#include <events/Changes.h>
#include <events/Notifier.h>
#include <events/Requests.h>
#include <events/Sweeper.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>

namespace {

using namespace oryx::sip;

constexpr const char* kAllow = "SUBSCRIBE, PUBLISH, OPTIONS";

constexpr std::chrono::seconds kPatience{30}; // of what goes through whole tables

void run(Loop& loop, const Options& options, int signals)
{
    Metrics metrics;
    const Nonces nonces;
    std::optional<Notifier> notifier;
    Changes changes(loop, notifier);
    const Provisioning provisioning(options, [&](const oryx::ChangeSet& heard) { changes.hear(heard); });
    const auto newSession = [&] { return std::make_unique<EventSession>(options, provisioning, nonces); };
    const auto newPatient = [&] { return std::make_unique<EventSession>(options, provisioning, nonces, kPatience); };
    std::optional<Sweeper> sweeper;
    std::optional<Workers<EventSession>> workers;
    std::optional<Workers<EventSession>> patientOne; // for what no request waits for
    int unconnected = 2;
    bool resumed = false; // until then nobody knows what there is
    const auto connected = [&] {
        if (--unconnected == 0) {
            notifier->resume();
        }
    };
    workers.emplace(loop, metrics, options.workers, newSession, connected);
    patientOne.emplace(loop, metrics, 1, newPatient, connected);
    notifier.emplace(loop, *workers, *patientOne, [&] {
        sweeper->start(); // of what it takes away nobody hears again
        resumed = true;
        tellReady();
    });
    sweeper.emplace(loop, *patientOne, *notifier);
    Desk desk{Gate(options, provisioning, nonces), *workers, *notifier};
    const auto take = [&](const std::shared_ptr<Incoming>& request) {
        const sip_method_t method = request->sip().sip_request->rq_method;
        if (method == sip_method_options) {
            Gate::describe(*request, kAllow, "application/pidf+xml", "eventlist",
                           SIPTAG_ALLOW_EVENTS_STR(kAllowEvents));
        } else if (method != sip_method_subscribe && method != sip_method_publish) {
            request->answer(SIP_405_METHOD_NOT_ALLOWED, SIPTAG_ALLOW_STR(kAllow));
        } else if (!resumed) {
            request->answerUnavailable();
        } else if (method == sip_method_publish) {
            publish(desk, request);
        } else {
            subscribe(desk, request);
        }
    };
    Endpoint endpoint(loop, metrics, options, take, nullptr, nullptr, Endpoint::Merged::refused);
    notifier->setEndpoint(endpoint);
    desk.gate.setEndpoint(endpoint);
    std::optional<MetricsPage> page;
    if (options.metrics) {
        page.emplace(metrics, *options.metrics);
    }
    const auto idle = [&] { return workers->idle() && patientOne->idle(); };
    const Ending ending(loop, endpoint, signals, idle, [&] { sweeper->end(); });
    loop.run();
    // What the workers hold are requests, which the sockets' end must not find gone.
    workers.reset();
    patientOne.reset();
    notifier.reset();
}

} // namespace

int main(int argc, char** argv)
{
    return serve(argc, argv, run);
}
