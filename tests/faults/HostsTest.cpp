// Of several hosts, one that is silent holds nobody who has a deadline: the others are tried beside it.

#include "support/DatabaseTest.h"
#include "support/Measure.h"
#include "support/Proxy.h"
#include "support/TemporaryDirectory.h"

#include <dal/ChangeListener.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <list>
#include <optional>
#include <string>
#include <thread>
#include <utility>

namespace hostsTest {

namespace {

using oryx::DatabaseResult;
using oryx::SessionOptions;
using server::Proxy;
using std::chrono::milliseconds;

// A quarter of the deadline is long enough to connect and be answered in, on a busy machine.
constexpr milliseconds kDeadline(2000);
const Measure kMeasure{1, kDeadline, Measure::drillOr(1, kDeadline).grace, milliseconds(60000)};

/// A variable of the environment, until the end of the test.
class Setting {
public:
    Setting(const char* name, const std::string& value) : m_name(name)
    {
        if (const char* const before = std::getenv(name)) {
            m_before = before;
        }
        setenv(name, value.c_str(), 1);
    }
    ~Setting()
    {
        if (m_before) {
            setenv(m_name, m_before->c_str(), 1);
        } else {
            unsetenv(m_name);
        }
    }
    Setting(const Setting&) = delete;
    Setting& operator=(const Setting&) = delete;

private:
    const char* m_name;
    std::optional<std::string> m_before;
};

/// Relays to one server stand for the hosts, each at a port of its own.
class SeveralHosts : public DatabaseTest {
protected:
    void SetUp() override { provisionAlice(); }

    void set(const char* name, const std::string& value) { m_settings.emplace_back(name, value); }

    /// A database URI of the two hosts.
    std::string twoHosts()
    {
        set("PGPORT", m_first.port() + "," + m_second.port());
        return "postgresql://127.0.0.1,127.0.0.1/" + m_database.name();
    }

    std::string threeHosts()
    {
        set("PGPORT", m_first.port() + "," + m_second.port() + "," + m_third.port());
        return "postgresql://127.0.0.1,127.0.0.1,127.0.0.1/" + m_database.name();
    }

    /// How a call with a deadline ends, and whether it was in time.
    template <typename Call>
    static std::string timely(const Call& call)
    {
        std::string end;
        const milliseconds took = timed([&] { end = outcome(call()); });
        return kMeasure.isLate(took) ? "late: " + end : end;
    }

    std::string connect(const std::string& uri, const char* password = server::kPassword)
    {
        m_service.setSessionOptions({SessionOptions::Statements::bound, kMeasure.deadline});
        return timely([&] { return m_service.connect(uri.c_str(), server::kUser, password); });
    }

    std::string lookUp()
    {
        return timely([this] {
            int key = 0;
            return m_service.getPublicAddressKey("alice", "oryx.example", key);
        });
    }

    const std::string m_okay = outcome(DatabaseResult());
    const std::string m_tooLate = "connection error: no answer within the deadline of 2000 ms";

    Proxy m_first;
    Proxy m_second;
    Proxy m_third;
    oryx::LocationService m_service;

private:
    std::list<Setting> m_settings;
};

TEST_F(SeveralHosts, AreGoneOnToWhenTheOneInUseFallsSilent)
{
    ASSERT_EQ(connect(twoHosts()), m_okay);
    m_first.swallow(true);
    EXPECT_EQ(lookUp(), m_tooLate);
    EXPECT_EQ(lookUp(), m_okay);
    EXPECT_EQ(m_second.hangUp(), 1U);
    EXPECT_EQ(lookUp(), m_okay) << "a lost connection, while the first host is silent yet";
}

TEST_F(SeveralHosts, AreGoneOnToWhenTheFirstIsSilentFromTheBeginning)
{
    m_first.swallow(true);
    EXPECT_EQ(connect(twoHosts()), m_okay);
    EXPECT_EQ(lookUp(), m_okay);
}

TEST_F(SeveralHosts, AreGoneOnToWhenTheFirstCannotBeReached)
{
    m_first.blackHole(true);
    EXPECT_EQ(connect(twoHosts()), m_okay);
}

TEST_F(SeveralHosts, AreGoneOnToWhenTheOneInUseRefuses)
{
    ASSERT_EQ(connect(twoHosts()), m_okay);
    m_first.refuse(true);
    m_first.hangUp();
    EXPECT_EQ(lookUp(), m_okay);
}

TEST_F(SeveralHosts, AreGoneOnToBehindARefusalAndASilence)
{
    m_first.refuse(true);
    m_second.swallow(true);
    EXPECT_EQ(connect(threeHosts()), m_okay);
}

TEST_F(SeveralHosts, AreGoneOnToBehindTwoSilences)
{
    m_first.swallow(true);
    m_second.swallow(true);
    EXPECT_EQ(connect(threeHosts()), m_okay);
}

TEST_F(SeveralHosts, AreTriedAgainWithoutTheSilentOneWhenNoneIsPreferred)
{
    set("PGTARGETSESSIONATTRS", "prefer-standby");
    m_second.swallow(true);
    EXPECT_EQ(connect(twoHosts()), m_okay);
}

TEST_F(SeveralHosts, AreTakenFromTheEnvironment)
{
    twoHosts();
    set("PGHOST", "127.0.0.1,127.0.0.1");
    m_first.swallow(true);
    EXPECT_EQ(connect(m_database.name()), m_okay);
}

TEST_F(SeveralHosts, AreTakenFromTheServiceFile)
{
    const TemporaryDirectory folder;
    set("PGSERVICEFILE", folder.write("services", "[two]\nhost=127.0.0.1,127.0.0.1\nport=" + m_first.port() + "," +
                                                      m_second.port() + "\n"));
    set("PGSERVICE", "two");
    m_first.swallow(true);
    EXPECT_EQ(connect(m_database.name()), m_okay);
}

TEST_F(SeveralHosts, AreToldApartByAddressesOfOneName)
{
    twoHosts();
    set("PGHOST", "db.oryx.example,db.oryx.example");
    set("PGHOSTADDR", "127.0.0.1,127.0.0.1");
    m_first.swallow(true);
    EXPECT_EQ(connect(m_database.name()), m_okay);
}

TEST_F(SeveralHosts, HaveAPasswordEach)
{
    const TemporaryDirectory folder;
    const std::string uri = twoHosts();
    set("PGPASSWORD", "");
    set("PGPASSFILE", folder.write("passwords", "127.0.0.1:" + m_first.port() + ":*:*:another\n127.0.0.1:" +
                                                    m_second.port() + ":*:*:" + server::kPassword + "\n"));
    m_first.swallow(true);
    EXPECT_EQ(connect(uri, ""), m_okay);
}

TEST_F(SeveralHosts, AreWaitedForWhenSlow)
{
    m_first.delay(kMeasure.deadline * 6 / 10);
    m_second.swallow(true);
    EXPECT_EQ(connect(twoHosts()), m_okay);
}

TEST_F(SeveralHosts, AreGivenUpAtTheDeadlineTogether)
{
    m_first.swallow(true);
    m_second.swallow(true);
    EXPECT_EQ(connect(twoHosts()), m_tooLate);
    EXPECT_EQ(lookUp(), m_tooLate);
    m_second.swallow(false);
    EXPECT_EQ(lookUp(), m_okay);
}

TEST_F(SeveralHosts, AreGoneOnToByAListener)
{
    m_first.swallow(true);
    oryx::ChangeListenerOptions options;
    options.answerTime = kMeasure.deadline;
    oryx::ChangeListener listener(twoHosts(), server::kUser, server::kPassword, options);
    std::thread limit([&] {
        kMeasure.eventually([&] {
            std::this_thread::sleep_for(milliseconds(10));
            return listener.listening();
        });
        listener.stop();
    });
    bool heard = false;
    EXPECT_TRUE(listener.run([&](const oryx::ChangeSet&) { heard = true; }).okay());
    limit.join();
    EXPECT_TRUE(heard);
}

} // namespace

} // namespace hostsTest
