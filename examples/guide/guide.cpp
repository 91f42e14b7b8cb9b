// The code of docs/guide.md, compiled: each block of the guide stands here as it is there.

#include <Crypt.h>
#include <dal/ChangeListener.h>
#include <dal/DatabaseCommandExecutor.h>
#include <dal/LiveBindings.h>
#include <dal/LocationService.h>
#include <dal/PresenceService.h>
#include <dal/Publications.h>
#include <dal/Registration.h>
#include <dal/RequestTarget.h>
#include <util/CleanText.h>
#include <util/MaskSecrets.h>
#include <zel/Trace.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <ctime>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace guide {

// What the guide leaves to the server.
void readWhole(const std::string& /*table*/) {}
void readRow(const std::string& /*table*/, int /*number*/, const std::string& /*text*/) {}
void keep(const oryx::ChangePosition& /*position*/) {}

void bindStatements(oryx::LocationService& service)
{
    oryx::SessionOptions options;
    options.statements = oryx::SessionOptions::Statements::bound;
    options.deadline = std::chrono::milliseconds(500);
    service.setSessionOptions(options);
}

std::string health()
{
    const oryx::SessionStatistics all = oryx::SessionStatistics::ofProcess();
    return std::to_string(all.losses) + " connections lost, " + std::to_string(all.failures) +
           " could not be made, last: " + all.lastError;
}

bool ranOutOfMemory(const oryx::DatabaseResult& result)
{
    return !result.okay() && result.getErrorMessage().starts_with("out of memory");
}

int sipStatus(const oryx::DatabaseResult& result)
{
    switch (result.getStatus()) {
    case oryx::DatabaseResult::OKAY:
        return 200;
    case oryx::DatabaseResult::NOTFOUND:
        return 404;
    case oryx::DatabaseResult::CONNECTION_ERROR:
        return 503; // try another server; the next call reconnects
    case oryx::DatabaseResult::CONSTRAINT_ERROR:
    case oryx::DatabaseResult::QUERY_ERROR:
        return 500; // a value that broke the statement, or a schema that does not fit: look at the message
    }
    return 500;
}

bool connectRegistrar(oryx::LocationService& service)
{
    const oryx::DatabaseResult result = service.connect("postgresql://db.oryx.example/oryx", "registrar1", "secret");
    if (!result.okay()) {
        std::fprintf(stderr, "%s\n", oryx::maskSecrets(result.getErrorMessage()).c_str());
    }
    return result.okay();
}

void serve()
{
    oryx::LocationService service;
    if (!connectRegistrar(service)) {
        return;
    }
    // ... take requests from the queue, and answer them with this thread's own service
}

void startWorkers(std::vector<std::thread>& workers, int count)
{
    for (int i = 0; i < count; ++i) {
        workers.emplace_back(serve);
    }
}

std::string lowerCase(std::string text)
{
    for (char& c : text) {
        c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; // not tolower: it depends on the locale
    }
    return text;
}

std::string normalisedHost(const std::string& host)
{
    std::string normalised = lowerCase(host);
    if (normalised.ends_with('.')) {
        normalised.pop_back(); // "oryx.example." is the same host to DNS
    }
    return normalised;
}

bool isAcceptable(const std::string& text, std::size_t longest)
{
    return text.size() <= longest && oryx::isCleanText(text);
}

void leaveOutExpired(std::vector<oryx::ContactRecord>& contacts)
{
    const std::time_t now = std::time(nullptr);
    std::erase_if(contacts, [now](const oryx::ContactRecord& contact) {
        return contact.permanent() != "t" && contact.expires() != 0 && contact.expires() <= now; // 0: it never expires
    });
}

int route(oryx::LocationService& service, const std::string& user, const std::string& host)
{
    const std::string handle = lowerCase(user);
    const std::string domain = normalisedHost(host);
    if (!isAcceptable(handle, 255) || !isAcceptable(domain, 255)) {
        return 400;
    }
    int key = 0;
    oryx::DatabaseResult result = service.getPublicAddressKey(handle.c_str(), domain.c_str(), key);
    std::string ordering;
    bool replaceUri = true;
    std::vector<oryx::ContactRecord> contacts;
    if (result.okay()) {
        result = service.lookupContacts(key, ordering, replaceUri, contacts);
    }
    leaveOutExpired(contacts);
    if (result.okay() && contacts.empty()) {
        return 480; // known, and registered nowhere (RFC 3261 section 21.4.18)
    }
    // ... fork to the contacts
    return sipStatus(result);
}

/// Answers a REGISTER whose sender may register: the status, and what the Contact of a 200 says.
int registerContacts(oryx::LocationService& service, const std::string& user, const std::string& host,
                     oryx::RegisterRequest request, std::vector<std::string>& contacts)
{
    request.maxBindings = 10;
    oryx::RegisterAnswer answer;
    const oryx::DatabaseResult result =
        oryx::applyRegistration(service, lowerCase(user).c_str(), normalisedHost(host).c_str(), request, answer);
    switch (answer.outcome) {
    case oryx::RegisterOutcome::done:
        for (const oryx::LiveBinding& binding : answer.bindings) {
            const std::string qvalue = binding.qvalue.empty() ? "" : ";q=" + binding.qvalue;
            contacts.push_back("<" + binding.address + ">" + qvalue +
                               ";expires=" + std::to_string(binding.expires.value_or(3600)));
        }
        return 200;
    case oryx::RegisterOutcome::inactiveSubscriber:
    case oryx::RegisterOutcome::tooManyBindings:
        return 403;
    case oryx::RegisterOutcome::olderRequest: // RFC 3261 section 10.3: the request fails, nothing has changed
    case oryx::RegisterOutcome::unknownAddress:
    case oryx::RegisterOutcome::failed:
        break;
    }
    return sipStatus(result); // 500, 404, and 503 where there is no database
}

/// Answers a PUBLISH whose sender is the presentity: the status, and what the SIP-ETag and Expires of a 200 say.
int publishState(oryx::PresenceService& service, const std::string& user, const std::string& host,
                 oryx::PublishRequest request, oryx::PublishAnswer& answer)
{
    request.maxPublications = 10;
    const oryx::DatabaseResult result =
        oryx::applyPublication(service, lowerCase(user).c_str(), normalisedHost(host).c_str(), request, answer);
    switch (answer.outcome) {
    case oryx::PublishOutcome::conditionFailed: // RFC 3903 section 6: the telephone publishes the whole anew
        return 412;
    case oryx::PublishOutcome::inactiveSubscriber:
    case oryx::PublishOutcome::tooManyPublications:
        return 403;
    case oryx::PublishOutcome::done:
    case oryx::PublishOutcome::unknownPresentity:
    case oryx::PublishOutcome::failed:
        break;
    }
    return sipStatus(result); // 200; 404, 500, and 503 where there is no database
}

/// Where an INVITE goes: the status to answer it with at once, or 0 and the targets, those to be tried together in one.
int targetsOf(oryx::LocationService& service, const oryx::TargetQuestion& question,
              std::vector<std::vector<oryx::LiveBinding>>& targets)
{
    oryx::RequestTarget target;
    const oryx::DatabaseResult result = oryx::findTarget(service, question, target);
    if (result.notFound()) {
        return target.reason == oryx::TargetReason::notRegistered ? 480
               : target.reason == oryx::TargetReason::notAllowed  ? 403
                                                                  : 404;
    }
    for (const oryx::LiveBinding& binding : target.set.bindings) { // the highest preference first
        const bool together = !targets.empty() && (target.set.order == oryx::ContactOrder::parallel ||
                                                   targets.back().front().preference == binding.preference);
        if (!together) {
            targets.emplace_back();
        }
        targets.back().push_back(binding); // a binding's path becomes the Route
    }
    // ... with TargetReason::outbound there are none: it goes to its own URI, through target.proxy
    return result.okay() ? 0 : sipStatus(result);
}

bool mayComeIn(oryx::LocationService& service, const std::string& host)
{
    const std::string domain = normalisedHost(host);
    bool allowed = false;
    return oryx::isCleanText(domain) && service.checkInboundDomainAccess(domain.c_str(), allowed).okay() && allowed;
}

bool mayGoOut(oryx::LocationService& service, const std::string& user, const std::string& host, std::string& proxy)
{
    const std::string uri = "sip:" + user + "@" + normalisedHost(host);
    bool allowed = false;
    return oryx::isCleanText(uri) && service.getOutboundRoute(uri.c_str(), true, proxy, allowed).okay() && allowed;
}

std::atomic<bool> shuttingDown = false;
std::atomic<bool> subscribersChanged = false;

void watchTables(oryx::ChangeListener& listener)
{
    listener.run([](const oryx::ChangeSet& changes) {
        for (const oryx::ChangedTable& table : changes.tables) { // all of them after every connection
            if (table.name == "subscriber") {
                subscribersChanged = true; // the workers read what they keep of it again, with their own services
            }
        }
    });
}

std::atomic<oryx::ChangeListener*> listening = nullptr;

void onTerminate(int /*signal*/)
{
    if (oryx::ChangeListener* const listener = listening) {
        listener->stop(); // the run that is under way returns within 100 ms
    }
}

void followLog(const oryx::ChangePosition& position)
{
    oryx::ChangeListenerOptions options;
    options.followLog = true;
    options.position = position;
    oryx::ChangeListener listener("postgresql://db.oryx.example/oryx", "events1", "secret", options);
    listener.run([](const oryx::ChangeSet& changes) {
        for (const oryx::ChangedTable& table : changes.tables) {
            if (table.readAgain) {
                readWhole(table.name);
            }
            for (const oryx::DatabaseUpdate& row : table.rows) {
                readRow(table.name, row.intpkey(), row.strpkey());
            }
        }
        keep(changes.position); // what is not kept comes again after the next start
    });
}

bool onTableChange(bool changed, const std::string& table)
{
    if (!changed || table == "subscriber") {
        subscribersChanged = true; // the workers read the change log, with their own services
    }
    return shuttingDown; // looked at for idle calls only
}

void listen()
{
    oryx::PresenceService waiting;
    while (!shuttingDown) {
        if (waiting.connect("oryx", "presence1", "secret").okay()) {
            waiting.waitForNotify(onTableChange); // until the callback ends it or the connection is lost
        }
        std::this_thread::sleep_for(std::chrono::seconds(1));
    }
}

void readChanges(oryx::PresenceService& service, std::string& since)
{
    std::vector<oryx::DatabaseUpdate> updates;
    if (service.getUpdatedPrimaryKeys("subscriber", since, updates).okay()) {
        for (const oryx::DatabaseUpdate& update : updates) { // in no particular order
            std::printf("subscriber %d has changed\n", update.intpkey());
            if (std::stoll(update.timestamp()) > std::stoll(since)) {
                since = update.timestamp();
            }
        }
    }
}

void traceToConsole()
{
    zel::setTraceSink([](std::string_view channel, zel::TraceKind kind, std::string_view text) {
        const std::string masked = oryx::maskSecrets(text);
        std::fprintf(stderr, "%.*s%s: %s\n", static_cast<int>(channel.size()), channel.data(),
                     kind == zel::TraceKind::log ? " FAILURE" : "", masked.c_str());
    });
}

bool readSubscriber(oryx::LocationService& service, const std::string& handle, const std::string& domain,
                    oryx::SubscriberRecord& subscriber)
{
    subscriber = oryx::SubscriberRecord(); // NULL columns leave what a record holds: no other subscriber's
    subscriber.setActive('f');             // becomes "t" for an active subscriber
    return service.lookupSubscriber(handle.c_str(), domain.c_str(), subscriber).okay() && subscriber.active() == "t" &&
           !subscriber.password().empty();
}

bool storePassword(oryx::DatabaseCommandExecutor& provisioning, int sid, const std::string& clear)
{
    std::string stored;
    return Crypt::encrypt(clear, stored) && provisioning.changeSubscriberPassword(sid, stored.c_str()) == 1;
}

} // namespace guide
