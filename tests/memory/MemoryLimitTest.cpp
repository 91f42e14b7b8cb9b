// Listings that do not fit into a process's memory. Each runs in a child process under a limit of its own.

#include "support/Child.h"
#include "support/DatabaseTest.h"
#include "support/LimitedMemory.h"
#include "support/Show.h"

#include <dal/PresenceService.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

namespace memoryLimitTest {

namespace {

using oryx::DatabaseResult;

/// So many rows take libpq some 70 MiB, and the library's records as much again.
constexpr const char* kManyRows = R"(
    ALTER TABLE public_address RENAME TO few_public_addresses;
    CREATE VIEW public_address AS SELECT i AS public_address_id, 'oryx.example' AS sip_domain, 'handle' || i AS handle,
        'public' AS scope, 'oryx.example' AS admin_domain, i AS csid FROM generate_series(1, 400000) i;
    ALTER TABLE proxy_configuration RENAME TO few_proxy_configurations;
    CREATE VIEW proxy_configuration AS SELECT 'proxy' AS proxy_name, 'scope of the property' AS scope,
        'name' || i AS property_name, 'value' || i AS property_value FROM generate_series(1, 400000) i;
    GRANT SELECT ON public_address, proxy_configuration TO oryx_server;
    INSERT INTO buddy_list (buddy_list_id, buddy_list_name) VALUES (1, 'friends');
    INSERT INTO host_info (node_type) VALUES ('leaf');
)";

constexpr rlim_t kMebibyte = 1024UL * 1024;
constexpr rlim_t kLeast = 24;

/// What a function says in a child process with so much memory beside its parent's.
std::string saidWithMemory(rlim_t mebibytes, const std::function<std::string()>& say)
{
    return saidInChild([&] {
        const LimitedMemory limited(mebibytes * kMebibyte);
        return say();
    });
}

/// The status, and the message's first line, as far as it is not the statement.
std::string gistOf(const DatabaseResult& result)
{
    DatabaseResult brief = result;
    const std::string& message = result.getErrorMessage();
    brief.setErrorMessage(message.substr(0, std::min(message.find('\n'), message.find(", sqlState="))));
    return oryx::show(brief) + "\n";
}

class MemoryLimit : public testing::TestWithParam<rlim_t> {
protected:
    MemoryLimit() { server::Session(m_database.name()).run(kManyRows); }

    template <typename Service>
    void connect(Service& service)
    {
        service.connect(m_database.uri().c_str(), server::kUser, server::kPassword);
    }

    /// Libpq's words with the least, and with more the library's.
    static std::string reason()
    {
        return std::string("query error: out of memory") + (GetParam() == kLeast ? " for query result" : "") + "\n";
    }

    server::Database m_database;
};

TEST_P(MemoryLimit, IsAQueryErrorOfTheEventServersListing)
{
    const std::string said = saidWithMemory(GetParam(), [this] {
        oryx::PresenceService service;
        connect(service);
        std::vector<oryx::PublicAddressRecord> addresses(1);
        std::string text = gistOf(service.getAllPublicAddresses(addresses, false));
        text += std::to_string(addresses.size()) + "\n";
        int id = 0;
        text += gistOf(service.getListId("friends", &id));
        return text + std::to_string(id);
    });
    EXPECT_EQ(said, reason() + "1\nokay\n1");
}

TEST_P(MemoryLimit, IsAQueryErrorOfTheRegistrarsListing)
{
    const std::string said = saidWithMemory(GetParam(), [this] {
        oryx::LocationService service;
        connect(service);
        std::vector<oryx::ProxyConfig> items(1, oryx::ProxyConfig("before", "before", "before"));
        std::string text = gistOf(service.getProxyConfig("proxy", items));
        text += oryx::show(items);
        std::string type;
        text += gistOf(service.getNodeType(type));
        return text + type;
    });
    std::vector<oryx::ProxyConfig> items(1, oryx::ProxyConfig("before", "before", "before"));
    EXPECT_EQ(said, reason() + oryx::show(items) + "okay\nleaf");
}

// With the least it is libpq whose memory runs out, with more the library.
INSTANTIATE_TEST_SUITE_P(Mebibytes, MemoryLimit, testing::Values(kLeast, 96), testing::PrintToStringParamName());

} // namespace

} // namespace memoryLimitTest
