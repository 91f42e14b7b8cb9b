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

namespace deadlineTest {

namespace {

using oryx::SessionOptions;
using std::chrono::milliseconds;

// Long enough to connect on a busy machine: that has to succeed within it, too.
const Measure kMeasure = Measure::drillOr(1, milliseconds(300));

Entries allOperations()
{
    Entries operations = textlessOperations();
    const Entries others = oneOfEachOperation();
    operations.insert(operations.end(), others.begin(), others.end());
    return operations;
}

class EveryOperation : public testing::Test {
protected:
    EveryOperation() { setenv("PGPORT", m_proxy.port().c_str(), 1); }
    ~EveryOperation() override { setenv("PGPORT", server::port().c_str(), 1); }

    void SetUp() override
    {
        setenv("PGSSLMODE", "disable", 1); // the relay reads along
        // Each by itself: together they would have to be in time at the same attempt.
        ASSERT_TRUE(kMeasure.eventually([this] { return connect(m_library.location); }));
        ASSERT_TRUE(kMeasure.eventually([this] { return connect(m_library.presence); }));
        ASSERT_TRUE(kMeasure.eventually([this] { return connect(m_library.registrar); }));
        ASSERT_TRUE(kMeasure.eventually([this] { return connect(m_library.events); }));
    }

    /// The operations that took longer than they may, or did not wait for the server.
    std::vector<std::string> untimely(std::size_t calls)
    {
        std::vector<std::string> names;
        milliseconds slowest(0);
        const Entries operations = allOperations();
        for (std::size_t i = 0; i < std::max(calls, operations.size()); ++i) {
            const Entry& operation = operations[i % operations.size()];
            const milliseconds took = timed([&] { operation.call(m_library, kPlainText); });
            slowest = std::max(slowest, took);
            if (kMeasure.isLate(took)) {
                names.push_back(operation.argument + ": late");
            } else if (took < kMeasure.deadline) {
                names.push_back(operation.argument + ": early");
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

} // namespace deadlineTest
