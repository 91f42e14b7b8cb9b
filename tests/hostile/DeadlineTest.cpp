// Every operation comes back within its deadline from a server of which nothing is heard.

#include "hostile/Entry.h"
#include "support/Measure.h"
#include "support/Proxy.h"
#include "support/Server.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace {

using oryx::SessionOptions;
using std::chrono::milliseconds;

const Measure kMeasure = Measure::drillOr(1, milliseconds(30));

/// What operations fill, of every kind.
struct Filled {
    std::vector<oryx::AddressMapRecord> maps;
    std::vector<oryx::ConfExtRecord> extensions;
    std::vector<oryx::DomainAccess> rules;
    std::vector<oryx::ExtendedContactRecord> expired;
    std::vector<oryx::PresenceRecord> dialogs;
    std::vector<oryx::ProxyConfig> properties;
    std::vector<oryx::PublicAddressRecord> addresses;
    std::vector<std::string> texts;
    oryx::HostInfo host;
    int key = 0;
    bool allowed = false;
};

struct Operation {
    std::string name;
    std::function<void(Library& library, Filled& filled)> call;
};
using Operations = std::vector<Operation>;

/// Those of a registrar that take no text.
Operations registrars()
{
    return {
        {"removeExpiredContacts",
         [](Library& library, Filled& /*filled*/) { library.location.removeExpiredContacts(); }},
        {"checkInboundDomainAccess",
         [](Library& library, Filled& filled) {
             library.location.checkInboundDomainAccess("oryx.example", filled.allowed);
         }},
        {"getDomainNameList",
         [](Library& library, Filled& filled) { library.registrar.getDomainNameList(filled.texts); }},
        // Asks the server only where the connection has been given up before.
        {"checkConnect", [](Library& library, Filled& /*filled*/) { library.registrar.checkConnect(); }},
        {"getAddressMaps", [](Library& library, Filled& filled) { library.registrar.getAddressMaps(filled.maps); }},
        {"getDomainAccessList",
         [](Library& library, Filled& filled) { library.registrar.getDomainAccessList(filled.rules); }},
        {"getHostInfo", [](Library& library, Filled& filled) { library.registrar.getHostInfo(filled.host); }},
        {"removeSubscriber", [](Library& library, Filled& /*filled*/) { library.registrar.removeSubscriber(7); }},
    };
}

/// Those of an event server that take no text.
Operations eventServers()
{
    using Executor = oryx::PresenceDatabaseCommandExecutor;
    Operations operations{
        {"flushExpiredContacts",
         [](Library& library, Filled& filled) { library.events.flushExpiredContacts(filled.expired); }},
        {"deleteAllObsoleteConfExtNotInUse",
         [](Library& library, Filled& /*filled*/) { library.events.deleteAllObsoleteConfExtNotInUse(); }},
        {"getAllObsoleteConfExtNotInUse",
         [](Library& library, Filled& filled) { library.events.getAllObsoleteConfExtNotInUse(filled.extensions); }},
        {"getAllValidConfExts",
         [](Library& library, Filled& filled) { library.events.getAllValidConfExts(filled.extensions); }},
        {"getAllPublicAddresses",
         [](Library& library, Filled& filled) { library.events.getAllPublicAddresses(filled.addresses, true); }},
        {"getAddressMaps", [](Library& library, Filled& filled) { library.events.getAddressMaps(filled.maps); }},
        {"getCsid", [](Library& library, Filled& filled) { library.events.getCsid(42, filled.key); }},
        {"getCsidFromContactId",
         [](Library& library, Filled& filled) { library.events.getCsidFromContactId(1, filled.key); }},
        {"getIncomingMatchingSubscriptions",
         [](Library& library, Filled& filled) { library.events.getIncomingMatchingSubscriptions(filled.dialogs); }},
        {"getIncomingSubscriptions",
         [](Library& library, Filled& filled) { library.events.getIncomingSubscriptions(filled.dialogs); }},
        {"getListEntries", [](Library& library, Filled& filled) { library.events.getListEntries(1, filled.texts); }},
        {"getProxyConfig", [](Library& library, Filled& filled) { library.events.getProxyConfig(filled.properties); }},
        {"isWatcherAllowedToAccessList",
         [](Library& library, Filled& /*filled*/) { library.events.isWatcherAllowedToAccessList(1, 2); }},
    };
    const std::vector<std::pair<std::string, oryx::DatabaseResult (Executor::*)()>> resets{
        {"removeEventServerState", &Executor::removeEventServerState},
        {"removeEventSources", &Executor::removeEventSources},
        {"removeEventWatchers", &Executor::removeEventWatchers},
        {"removeListWatchers", &Executor::removeListWatchers},
        {"removeSubscriptionStates", &Executor::removeSubscriptionStates},
        {"removeWinfoWatchers", &Executor::removeWinfoWatchers}};
    for (const auto& [name, reset] : resets) {
        operations.push_back(
            {name, [reset = reset](Library& library, Filled& /*filled*/) { (library.events.*reset)(); }});
    }
    return operations;
}

Operations allOperations()
{
    Operations operations = registrars();
    const Operations events = eventServers();
    operations.insert(operations.end(), events.begin(), events.end());
    for (Entry& entry : oneOfEachOperation()) {
        operations.push_back({entry.argument, [call = std::move(entry.call)](Library& library, Filled& /*filled*/) {
                                  call(library, kPlainText);
                              }});
    }
    return operations;
}

class EveryOperation : public testing::Test {
protected:
    EveryOperation() { setenv("PGPORT", m_proxy.port().c_str(), 1); }
    ~EveryOperation() override { setenv("PGPORT", server::port().c_str(), 1); }

    void SetUp() override
    {
        setenv("PGSSLMODE", "disable", 1); // the relay reads along
        ASSERT_TRUE(kMeasure.eventually([this] {
            return connect(m_library.location) && connect(m_library.presence) && connect(m_library.registrar) &&
                   connect(m_library.events);
        }));
    }

    /// The operations that took longer than they may, or did not wait for the server.
    std::vector<std::string> untimely(std::size_t calls)
    {
        std::vector<std::string> names;
        milliseconds slowest(0);
        Filled filled;
        const Operations operations = allOperations();
        for (std::size_t i = 0; i < std::max(calls, operations.size()); ++i) {
            const Operation& operation = operations[i % operations.size()];
            const milliseconds took = timed([&] { operation.call(m_library, filled); });
            slowest = std::max(slowest, took);
            if (kMeasure.isLate(took)) {
                names.push_back(operation.name + ": late");
            } else if (took < kMeasure.deadline) {
                names.push_back(operation.name + ": early");
            }
        }
        RecordProperty("slowest", std::to_string(slowest.count()));
        return names;
    }

    server::Proxy m_proxy;
    Library m_library;

private:
    template <typename Part>
    bool connect(Part& part)
    {
        part.setSessionOptions({SessionOptions::Statements::bound, kMeasure.deadline});
        const auto connected = part.connect(m_database.uri().c_str(), server::kUser, server::kPassword);
        if constexpr (std::is_same_v<decltype(connected), const bool>) {
            return connected;
        } else {
            return connected.okay();
        }
    }

    server::Database m_database;
};

TEST_F(EveryOperation, ComesBackWithinItsDeadlineWhileEverythingSentIsSwallowed)
{
    m_proxy.swallow(true);
    EXPECT_EQ(untimely(kMeasure.calls), std::vector<std::string>());
    m_proxy.swallow(false);
    EXPECT_TRUE(kMeasure.eventually([this] {
        int key = 0;
        return m_library.location.getPublicAddressKey("alice", "oryx.example", key).notFound();
    }));
}

} // namespace
