#include "failures/Operations.h"

#include <atomic>
#include <regex>

namespace failures {

namespace {

using oryx::DatabaseResult;

/// Nothing is added twice.
std::string unique(const std::string& prefix)
{
    static std::atomic<int> count = 0;
    return prefix + std::to_string(++count);
}

const char* statusOf(const DatabaseResult& result)
{
    switch (result.getStatus()) {
    case DatabaseResult::OKAY:
        return "okay";
    case DatabaseResult::CONNECTION_ERROR:
        return "connection error";
    case DatabaseResult::QUERY_ERROR:
        return "query error";
    case DatabaseResult::NOTFOUND:
        return "not found";
    case DatabaseResult::CONSTRAINT_ERROR:
        return "constraint error";
    }
    return "";
}

/// Ports and lengths differ from run to run, and so does how the network tells that the other end is gone.
std::string everywhere(const std::string& line)
{
    static const std::regex kBytes(R"(requires \d+ bytes)");
    static const std::regex kServer(R"(connection to server at "[^"]*", port \d+ failed: )");
    static const std::regex kGone("could not (receive data from|send data to) server: .*");
    const std::string server = std::regex_replace(line, kServer, "connection to server at ... failed: ");
    const std::string gone = std::regex_replace(server, kGone, "server closed the connection unexpectedly");
    return std::regex_replace(gone, kBytes, "requires ... bytes");
}

std::string words(const std::string& message)
{
    const std::string line = everywhere(message.substr(0, message.find('\n')));
    return line.empty() ? "no text" : "\"" + line.substr(0, line.find(", sqlState=")) + "\"";
}

std::string stateIn(const std::string& message)
{
    const std::string mark = ", sqlState=";
    const std::size_t at = message.find(mark);
    return at == std::string::npos ? "" : " " + message.substr(at + mark.size(), 5);
}

std::string count(const char* what, std::size_t number)
{
    return "; " + std::string(what) + ": " + std::to_string(number);
}

/// What an operation answers that has no result, and what its executor says of it.
std::string answered(int answer, oryx::DatabaseCommandExecutor& executor)
{
    const std::string& message = executor.getErrorMessage();
    return std::to_string(answer) + (message.empty() ? "" : "," + stateIn(message) + " " + words(message));
}

DatabaseResult lookUp(Library& library, const std::string& text)
{
    int key = 0;
    return library.registrar.getPublicAddressKey(("alice" + text).c_str(), "oryx.example", key);
}

DatabaseResult registerContacts(Library& library, const std::string& text)
{
    std::vector<oryx::ContactRecord> contacts(2);
    for (oryx::ContactRecord& contact : contacts) {
        contact.setAddress((unique("sip:alice@192.0.2.1;line=") + text).c_str());
    }
    return library.registrar.registerContacts(42, contacts);
}

DatabaseResult addWatcher(Library& library, const std::string& text)
{
    const std::string id = unique("incoming#") + text;
    return library.events.addWatcher(oryx::PresenceRecord(id.c_str(), "", "from", "to", id.c_str(), 1, "presence",
                                                          "contact", "", 0, "sip:alice@oryx.example", "presence#1"));
}

/// One row for each way, so that they do not wait for each other.
DatabaseResult updateWatcherState(Library& library, const std::string& text)
{
    const std::string opaque = (library.way.bound() ? "incoming#2" : "incoming#1") + text;
    return library.events.updateWatcherState("alice@oryx.example#presence", opaque.c_str(), 1);
}

DatabaseResult reserve(Library& library)
{
    std::string extension;
    return library.events.reserveRandomlyIdleConfExtAsInUse(extension);
}

DatabaseResult readExtension(Library& library, const std::string& text)
{
    std::string status;
    unsigned int time = 0;
    return library.events.getConfExtState("8000" + text, status, time);
}

Operation asked(const std::string& name, Part part, const std::function<DatabaseResult(Library&)>& call)
{
    return {name, part, [call](Library& library) { return told(call(library)); }};
}

std::string outboundRoute(Library& library)
{
    std::string proxy;
    bool allowed = false;
    const DatabaseResult result = library.registrar.getOutboundRoute("sip:bob@192.0.2.9", true, proxy, allowed);
    return told(result) + (allowed ? "; allowed" : "; not allowed");
}

std::string inboundAccess(Library& library)
{
    bool allowed = true;
    const DatabaseResult result = library.registrar.checkInboundDomainAccess("oryx.example", allowed);
    return told(result) + (allowed ? "; allowed as before" : "; not allowed");
}

std::string accessControl(Library& library)
{
    std::vector<oryx::AccessControlEntry> rules;
    const DatabaseResult result = library.events.getAccessControlList("alice", "oryx.example", "presence", rules);
    return told(result) + count("rules", rules.size());
}

std::string callManagers(Library& library)
{
    std::vector<oryx::CMRecord> managers;
    const DatabaseResult result = library.events.getCMforBulkSub(managers, false);
    return told(result) + count("call managers", managers.size());
}

std::string subscriber(Library& library)
{
    oryx::SubscriberRecord record;
    return told(library.registrar.lookupSubscriber("alice", "oryx.example", record));
}

std::string addSubscriber(Library& library)
{
    oryx::SubscriberRecord record;
    record.setId(8);
    return answered(library.provisioning.addSubscriber(record), library.provisioning);
}

std::string addListMapping(Library& library)
{
    return told(library.events.createListMapping("list", unique("subscription").c_str(), 5));
}

std::string flush(Library& library)
{
    std::vector<oryx::ExtendedContactRecord> expired;
    return told(library.events.flushExpiredContacts(expired)) + count("contacts", expired.size());
}

std::string quoted(const std::string& text)
{
    return "\"" + text + "\"";
}

} // namespace

std::string told(const DatabaseResult& result)
{
    const std::string& message = result.getErrorMessage();
    const bool silent = message.empty() && !result.fatalError();
    const std::string state = result.getSqlState().empty() ? stateIn(message) : " " + result.getSqlState();
    return statusOf(result) + state + (silent ? "" : ", " + words(message));
}

Library::Library(const Way& wayTaken, Part part) : way(wayTaken)
{
    const auto connect = [&](auto& target, const char* user) {
        target.setSessionOptions({way.statements, way.deadline});
        target.connect(way.uri.c_str(), user, way.password.c_str());
    };
    switch (part) {
    case Part::registrar:
        connect(registrar, "registrar");
        break;
    case Part::events:
        connect(events, "events");
        break;
    case Part::provisioning:
        connect(provisioning, "registrar");
        break;
    }
}

std::vector<Operation> withText(const std::string& text)
{
    return {
        asked("`getPublicAddressKey`", Part::registrar, [text](Library& library) { return lookUp(library, text); }),
        asked("`registerContacts`", Part::registrar,
              [text](Library& library) { return registerContacts(library, text); }),
        asked("`addWatcher`", Part::events, [text](Library& library) { return addWatcher(library, text); }),
        asked("`updateWatcherState`", Part::events,
              [text](Library& library) { return updateWatcherState(library, text); }),
        asked("`getConfExtState`", Part::events, [text](Library& library) { return readExtension(library, text); }),
    };
}

std::vector<Operation> oneOfEachKind()
{
    std::vector<Operation> operations = withText("");
    operations.insert(operations.begin(), asked("`connect`", Part::registrar, [](Library& library) {
                          return library.registrar.connect(library.way.uri.c_str(), "registrar",
                                                           library.way.password.c_str());
                      }));
    operations.insert(operations.end() - 1, asked("`reserveRandomlyIdleConfExtAsInUse`", Part::events, reserve));
    return operations;
}

std::vector<Operation> misleading()
{
    return {
        {"`LocationService::lookupSubscriber`", Part::registrar, subscriber},
        {"`getDomainName`", Part::registrar,
         [](Library& library) {
             std::string name;
             return quoted(library.registrar.getDomainName(name));
         }},
        {"`getDomainNameList`", Part::provisioning,
         [](Library& library) {
             std::vector<std::string> names;
             return answered(library.provisioning.getDomainNameList(names), library.provisioning);
         }},
        {"`getSystemParameterValue`", Part::provisioning,
         [](Library& library) {
             return quoted(library.provisioning.getSystemParameterValue("oryxproxy", "ServerInfo", "ServerNames"));
         }},
        {"`getOutboundRoute`", Part::registrar, outboundRoute},
        {"`checkInboundDomainAccess`", Part::registrar, inboundAccess},
        {"`getAccessControlList`", Part::events, accessControl},
        asked("`getConfExtState`", Part::events, [](Library& library) { return readExtension(library, ""); }),
        {"`getCMforBulkSub`", Part::events, callManagers},
        {"`removeContact`", Part::provisioning,
         [](Library& library) {
             return answered(library.provisioning.removeContact("alice", "oryx.example", "sip:alice@192.0.2.9"),
                             library.provisioning);
         }},
        {"`addSubscriber`", Part::provisioning, addSubscriber},
        asked("`updateWatcherState`", Part::events, [](Library& library) { return updateWatcherState(library, ""); }),
        {"`createListMapping`", Part::events, addListMapping},
        {"`flushExpiredContacts`", Part::events, flush},
    };
}

DatabaseResult refresh(Library& library, const std::vector<int>& numbers)
{
    std::vector<oryx::ContactRecord> contacts(numbers.size());
    for (std::size_t i = 0; i < numbers.size(); ++i) {
        contacts[i].setAddress(("sip:alice@192.0.2." + std::to_string(numbers[i])).c_str());
        contacts[i].setCallId("call");
        contacts[i].setCseq(1);
    }
    return library.registrar.updateContacts(42, contacts);
}

} // namespace failures
