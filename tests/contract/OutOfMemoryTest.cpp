// Memory that runs out: what operations answer, and what becomes of a transaction and of the arguments. That it holds
// at every allocation of every operation, tests/hostile shows with a server.

#include "contract/ServiceFixture.h"
#include "support/FailingNew.h"

#include <dal/ChangeListener.h>
#include <dal/DatabaseConnection.h>
#include <dal/PresenceService.h>
#include <dal/QueryResult.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <new>
#include <string>
#include <vector>

namespace outOfMemoryTest {

namespace {

using fake::command;
using fake::noRows;
using fake::nothing;
using fake::refused;
using fake::rows;
using oryx::ContactRecord;
using oryx::DatabaseResult;

const std::string kLong = "a text that no string holds without an allocation";
const std::string kRanOut = "query error: out of memory";
const std::string kOutOfMemory = "out of memory";

template <typename Service>
class ServiceOutOfMemory : public ConnectedServiceTestOf<Service> {
protected:
    void SetUp() override
    {
        ConnectedServiceTestOf<Service>::SetUp();
        m_sink = zel::setTraceSink({}); // tracing has allocations of its own
    }
    void TearDown() override { zel::setTraceSink(m_sink); }

    /// Makes a call with its first allocation failing, then with its second, and so on until none is left to fail.
    void withEachFailing(const std::vector<fake::Reply>& replies, const std::function<void()>& call,
                         const std::function<void(bool ranOut, const std::string& calls)>& check)
    {
        for (bool ranOut = true, first = true; ranOut; first = false) {
            m_news = first ? 0 : m_news + 1;
            SCOPED_TRACE("memory runs out after " + std::to_string(m_news));
            this->libpq.replies(replies);
            countNewsOnly([] { return !fake::answering(); });
            failNewAfter(m_news);
            call();
            ranOut = newHasFailed();
            failNoNew();
            countNewsOnly(nullptr);
            this->libpq.dropReplies();
            check(ranOut, this->libpq.take());
        }
    }

private:
    zel::TraceSink m_sink;
    std::size_t m_news = 0;
};

using RegistrarOutOfMemory = ServiceOutOfMemory<oryx::LocationService>;
using EventsOutOfMemory = ServiceOutOfMemory<oryx::PresenceService>;

TEST_F(RegistrarOutOfMemory, LeavesNoTransactionOpen)
{
    std::vector<ContactRecord> contacts(1);
    contacts.front().setAddress(kLong.c_str());
    DatabaseResult result;
    withEachFailing(
        {refused("42601"), refused("42601"), command()}, [&] { result = service.registerContacts(7, contacts); },
        [&](bool ranOut, const std::string& calls) {
            const std::size_t begun = calls.rfind("exec BEGIN");
            EXPECT_TRUE(begun == std::string::npos || calls.find("reset\n", begun) != std::string::npos ||
                        calls.find("exec ROLLBACK\n", begun) != std::string::npos)
                << calls;
            const bool told = result.getSqlState() == "42601";
            EXPECT_TRUE(told || (ranOut && show(result) == kRanOut)) << show(result);
        });
}

TEST_F(RegistrarOutOfMemory, LeavesWhatALookupFillsAsItWas)
{
    ContactRecord earlier;
    earlier.setAddress(("$user " + kLong).c_str());
    const std::vector<fake::Cell> map{"sequential", "f", "handle", "12", "^sip:", "Wed Dec 17 07:37:16 1997", "1"};
    const Found before{"before", false, {earlier}};
    Found found = before;
    DatabaseResult result;
    withEachFailing(
        {rows({map}), rows({contactOfSet("$user " + kLong)})},
        [&] {
            result = service.lookupAddressMap("sip:a-user-of-some-length@oryx.example", found.ordering,
                                              found.replaceUri, found.contacts);
        },
        [&](bool ranOut, const std::string& /*calls*/) {
            if (ranOut) {
                EXPECT_EQ(show(result), kRanOut);
                EXPECT_EQ(found.ordering, "before");
                EXPECT_EQ(show(found.contacts), show(std::vector<ContactRecord>{earlier}));
            } else {
                EXPECT_EQ(show(result), "okay");
                EXPECT_EQ(found.contacts.size(), 2U);
            }
            found = before;
        });
}

TEST_F(RegistrarOutOfMemory, IsAConnectionErrorOfConnect)
{
    failNextNew();
    const DatabaseResult result = service.connect(kLong.c_str(), "alice", "secret");
    failNoNew();
    EXPECT_EQ(show(result), "connection error: out of memory");
    libpq.replies({noRows()});
    std::string type;
    EXPECT_EQ(show(service.getNodeType(type)), "not found"); // with the connection that was there
}

TEST_F(RegistrarOutOfMemory, GivesNoDomain)
{
    std::string domain = "before";
    libpq.replies({rows({{kLong}})});
    failNextNew();
    EXPECT_EQ(service.getDomainName(domain), "");
    failNoNew();
    libpq.dropReplies();
}

TEST_F(RegistrarOutOfMemory, AppendsNoKeys)
{
    libpq.replies({rows({{"sequential", "f", kLong, "12", "^sip:", "Wed Dec 17 07:37:16 1997", "1"}}), noRows(10)});
    Found found;
    EXPECT_EQ(show(service.lookupAddressMap("sip:a@b", found.ordering, found.replaceUri, found.contacts)), "okay");
    std::vector<std::string> keys{"before"};
    failNextNew();
    service.getMapKeys(keys);
    failNoNew();
    EXPECT_EQ(keys, std::vector<std::string>{"before"});
}

TEST_F(EventsOutOfMemory, RemovesNoExpiredContactsThatItCannotTell)
{
    const std::vector<fake::Cell> expired{"42", kLong, "5", kLong, "1", kLong, kLong};
    std::vector<oryx::ExtendedContactRecord> contacts;
    DatabaseResult result;
    withEachFailing(
        {rows({expired, expired}), command("2")}, [&] { result = service.flushExpiredContacts(contacts); },
        [&](bool ranOut, const std::string& calls) {
            EXPECT_EQ(show(result), ranOut ? kRanOut : "okay");
            EXPECT_EQ(contacts.size(), ranOut ? 0U : 2U);
            EXPECT_TRUE(!ranOut || calls.find("exec DELETE") == std::string::npos) << calls;
        });
}

TEST_F(EventsOutOfMemory, LetsNoStateOfAnExtensionBeFound)
{
    std::string status;
    unsigned int since = 0;
    DatabaseResult result;
    withEachFailing(
        {rows({{kLong, "5"}})},
        [&] {
            status = "before";
            since = 1;
            result = service.getConfExtState(kLong, status, since);
        },
        [&](bool ranOut, const std::string& /*calls*/) {
            EXPECT_EQ(show(result), ranOut ? "not found: out of memory" : "okay");
            EXPECT_EQ(status, ranOut ? "" : kLong);
            EXPECT_EQ(since, ranOut ? 0U : 5U);
        });
}

/// What libpq says when its own memory runs out.
class LibpqOutOfMemory : public RegistrarOutOfMemory, public testing::WithParamInterface<const char*> {};

TEST_P(LibpqOutOfMemory, IsAQueryError)
{
    libpq.errorMessage(GetParam());
    libpq.replies({nothing(), nothing()});
    std::string type = "before";
    EXPECT_EQ(show(service.getNodeType(type)), kRanOut);
    EXPECT_EQ(type, "");
    libpq.replies({noRows()});
    EXPECT_EQ(show(service.getNodeType(type)), "not found");
}

TEST_P(LibpqOutOfMemory, CostsNoFurtherResetWhereNothingWasSent)
{
    const std::string message = GetParam();
    libpq.errorMessage(message);
    libpq.replies({nothing(), nothing()});
    std::string type;
    libpq.take();
    service.getNodeType(type);
    const std::string calls = libpq.take();
    EXPECT_EQ(calls.ends_with("reset\n"), message.starts_with("out of memory")) << calls;
}

INSTANTIATE_TEST_SUITE_P(Messages, LibpqOutOfMemory,
                         testing::Values("out of memory\n", "cannot allocate memory for output buffer\n"),
                         [](const auto& message) { return "Message" + std::to_string(message.index); });

TEST(ConnectionOutOfMemory, IsAFailureWithThatReason)
{
    fake::Libpq libpq;
    oryx::DatabaseConnection connection;
    failNextNew();
    EXPECT_FALSE(connection.connect(kLong.c_str(), "alice", "secret"));
    failNoNew();
    EXPECT_EQ(connection.getErrorMessage(), kOutOfMemory);
    EXPECT_TRUE(connection.connect("registrar", "alice", "secret"));
    oryx::QueryResult result;
    failNextNew();
    EXPECT_FALSE(connection.execute(kLong.c_str(), result));
    failNoNew();
    EXPECT_EQ(connection.getErrorMessage(), kOutOfMemory);
    failNextNew();
    EXPECT_FALSE(connection.error(kLong.c_str()));
    failNoNew();
    EXPECT_EQ(connection.getErrorMessage(), kOutOfMemory);
    libpq.replies({command()});
    EXPECT_TRUE(connection.execute(kLong.c_str(), result));
    failNextNew();
    EXPECT_FALSE(connection.listenForDbTableChangeNotification(kLong));
    failNoNew();
    EXPECT_EQ(connection.getErrorMessage(), kOutOfMemory);
    failNextNew();
    EXPECT_FALSE(connection.waitOnListen([](bool /*changed*/, const std::string& /*table*/) { return true; }));
    failNoNew();
    EXPECT_EQ(connection.getErrorMessage(), kOutOfMemory);
}

TEST(ServiceOutOfMemoryWithoutConnection, IsAConnectionErrorAllTheSame)
{
    oryx::LocationService service;
    int key = 0;
    failNextNew();
    const DatabaseResult result = service.getPublicAddressKey("alice", "oryx.example", key);
    failNoNew();
    EXPECT_EQ(show(result), "connection error: out of memory");
}

/// A listener that stops itself in its first call.
class ListenerOutOfMemory : public testing::Test {
protected:
    ListenerOutOfMemory()
    {
        m_options.session = {oryx::SessionOptions::Statements::plain, std::chrono::milliseconds(0)};
        m_libpq.echoes();
        m_libpq.errorMessage("");
    }

    fake::Libpq m_libpq;
    oryx::ChangeListenerOptions m_options;
};

TEST_F(ListenerOutOfMemory, ConnectsAnewAndTellsEverything)
{
    constexpr std::size_t kStep = 5; // after each failure the listener pauses, so not every allocation is tried
    bool ranOut = true;
    for (std::size_t news = 0; ranOut; news += kStep) {
        SCOPED_TRACE("memory runs out after " + std::to_string(news));
        m_libpq.replies({command(), command()});
        oryx::ChangeListener listener("postgresql://db/oryx", "events1", "secret", m_options);
        std::vector<std::size_t> tables;
        const oryx::ChangeListener::Callback callback = [&](const oryx::ChangeSet& changes) {
            ranOut = newHasFailed();
            failNoNew();
            EXPECT_TRUE(changes.everything);
            tables.push_back(changes.tables.size());
            listener.stop();
        };
        failNewAfter(news);
        const DatabaseResult result = listener.run(callback);
        EXPECT_EQ(show(result), "okay");
        EXPECT_EQ(tables, std::vector<std::size_t>{8});
        m_libpq.dropReplies();
    }
}

TEST_F(ListenerOutOfMemory, HandsOnWhatTheCallbackThrows)
{
    m_libpq.replies({command()});
    oryx::ChangeListener listener("postgresql://db/oryx", "events1", "secret", m_options);
    EXPECT_THROW(listener.run([](const oryx::ChangeSet& /*changes*/) { throw std::bad_alloc(); }), std::bad_alloc);
}

} // namespace

} // namespace outOfMemoryTest
