// A REGISTER as one request, beside the three that do the same: the key, the bindings to judge it by, the change. What
// counts is the processor time of the server, which many registrars share, and how long the registrar waits.

#include <dal/LocationService.h>
#include <dal/Registration.h>
#include <support/Server.h>
#include <zel/Trace.h>

#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <vector>

namespace registrations {

namespace {

using oryx::LocationService;
using oryx::SessionOptions;

constexpr int kUsers = 1000;

/// One phone's request.
struct Phone {
    std::string user;
    std::string address;
    std::string callId;
    std::uint32_t cseq = 0;
    bool isNew = false; // its address has no binding yet
};

const std::string kDomain = "oryx.example";
const std::string kCapabilities = "INVITE, ACK, BYE, CANCEL, OPTIONS";

std::string headerOf(const Phone& phone)
{
    return "<" + phone.address + ">;q=0.5;expires=3600";
}

bool registerInThree(LocationService& service, const Phone& phone)
{
    int key = 0;
    std::string ordering;
    bool replaceUri = true;
    std::vector<oryx::ContactRecord> found;
    oryx::ContactRecord contact;
    contact.setAddress(phone.address.c_str());
    contact.setExpires(2000000000);
    contact.setQvalue("0.5");
    contact.setCapabilities(kCapabilities.c_str());
    contact.setContactHeader(headerOf(phone).c_str());
    contact.setCallId(phone.callId.c_str());
    contact.setCseq(static_cast<long>(phone.cseq));
    std::vector<oryx::ContactRecord> contacts{contact};
    return service.getPublicAddressKey(phone.user.c_str(), kDomain.c_str(), key).okay() &&
           service.lookupContacts(key, ordering, replaceUri, found).okay() &&
           (phone.isNew ? service.registerContacts(key, contacts) : service.updateContacts(key, contacts)).okay();
}

bool registerInOne(LocationService& service, const Phone& phone)
{
    oryx::RegisterContact contact;
    contact.address = phone.address;
    contact.qvalue = "0.5";
    contact.capabilities = kCapabilities;
    contact.contactHeader = headerOf(phone);
    oryx::RegisterRequest request;
    request.callId = phone.callId;
    request.cseq = phone.cseq;
    request.contacts = {contact};
    request.maxBindings = 10;
    oryx::RegisterAnswer answer;
    return applyRegistration(service, phone.user.c_str(), kDomain.c_str(), request, answer).okay();
}

void makeUsers(server::Session& session)
{
    const std::string users = "generate_series(0, " + std::to_string(kUsers - 1) + ") AS n;";
    session.run("INSERT INTO subscriber (sid, user_id) SELECT n, 'user' || n FROM " + users +
                "INSERT INTO contact_set (csid, sid) SELECT n, n FROM " + users +
                "INSERT INTO public_address (handle, sip_domain, csid) SELECT 'user' || n, 'oryx.example', n FROM " +
                users +
                "INSERT INTO contact (csid, address, expires, call_id, cseq) SELECT n, 'sip:user' || n || "
                "'@192.0.2.1:5060', 2000000000, 'call' || n, 1 FROM " +
                users + "ANALYZE;");
}

/// Processor time that the server has spent for the library's session, in microseconds.
double serverTime(server::Session& session)
{
    return std::stod(
        session.value("SELECT split_part(pg_read_file('/proc/' || pid || '/schedstat'), ' ', 1)::numeric / "
                      "1000 FROM pg_stat_activity WHERE datname = current_database() AND usename = '" +
                      std::string(server::kUser) + "'"));
}

void registration(benchmark::State& state, bool (*apply)(LocationService&, const Phone&),
                  SessionOptions::Statements statements, bool isNew)
{
    zel::setTraceSink({});
    const server::Database database;
    server::Session session(database.name());
    makeUsers(session);
    LocationService service;
    SessionOptions options;
    options.statements = statements;
    service.setSessionOptions(options);
    service.connect(database.uri().c_str(), server::kUser, server::kPassword);
    std::uint32_t count = 0;
    const auto next = [&](bool ofNew) {
        const std::string number = std::to_string(count % kUsers);
        const std::string host = ofNew ? "@192.0.2.2:" + std::to_string(count) : "@192.0.2.1:5060";
        ++count;
        return apply(service, {"user" + number, "sip:user" + number + host, "call" + number, count + 1, ofNew});
    };
    for (int i = 0; i < 50; ++i) { // until plans are kept
        next(isNew);
    }
    const double before = serverTime(session);
    for (auto _ : state) {
        if (!next(isNew)) {
            state.SkipWithError("a registration failed");
        }
    }
    state.counters["server_us"] = (serverTime(session) - before) / static_cast<double>(state.iterations());
}

constexpr auto kPlain = SessionOptions::Statements::plain;
constexpr auto kBound = SessionOptions::Statements::bound;

BENCHMARK_CAPTURE(registration, refresh_plain_three, registerInThree, kPlain, false)->Iterations(kUsers)->UseRealTime();
BENCHMARK_CAPTURE(registration, refresh_plain_one, registerInOne, kPlain, false)->Iterations(kUsers)->UseRealTime();
BENCHMARK_CAPTURE(registration, refresh_bound_three, registerInThree, kBound, false)->Iterations(kUsers)->UseRealTime();
BENCHMARK_CAPTURE(registration, refresh_bound_one, registerInOne, kBound, false)->Iterations(kUsers)->UseRealTime();
BENCHMARK_CAPTURE(registration, new_plain_three, registerInThree, kPlain, true)->Iterations(kUsers)->UseRealTime();
BENCHMARK_CAPTURE(registration, new_plain_one, registerInOne, kPlain, true)->Iterations(kUsers)->UseRealTime();
BENCHMARK_CAPTURE(registration, new_bound_three, registerInThree, kBound, true)->Iterations(kUsers)->UseRealTime();
BENCHMARK_CAPTURE(registration, new_bound_one, registerInOne, kBound, true)->Iterations(kUsers)->UseRealTime();

} // namespace

} // namespace registrations
