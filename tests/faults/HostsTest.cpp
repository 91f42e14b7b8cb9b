// Of several hosts, one that is silent holds nobody who has a deadline: the others are tried beside it.

#include "support/DatabaseTest.h"
#include "support/FailingNew.h"
#include "support/Measure.h"
#include "support/Proxy.h"
#include "support/TemporaryDirectory.h"

#include <dal/ChangeListener.h>
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <netdb.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <list>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace hostsTest {

namespace {

using oryx::DatabaseResult;
using oryx::SessionOptions;
using server::Proxy;
using std::chrono::milliseconds;

using Clock = std::chrono::steady_clock;

// On a busy machine half of the one is long enough to connect and be answered in, and a quarter of the other.
constexpr milliseconds kDeadline(2000);
constexpr milliseconds kLongDeadline(8000);

Measure measureOf(milliseconds deadline)
{
    return {1, deadline, Measure::drillOr(1, deadline).grace, milliseconds(60000)};
}

constexpr const char* kSlowName = "slow.oryx.example";
/// How long it takes to find out that nobody goes by that name.
std::atomic<milliseconds> slowness = milliseconds(0);

/// Stands before the system's, which libpq calls.
extern "C" [[gnu::visibility("default")]] int getaddrinfo(const char* name, const char* service, const addrinfo* hints,
                                                          addrinfo** found)
{
    static auto* const real = reinterpret_cast<decltype(&getaddrinfo)>(dlsym(RTLD_NEXT, "getaddrinfo"));
    if (name != nullptr && std::string_view(name) == kSlowName) {
        std::this_thread::sleep_for(slowness.load());
        return EAI_NONAME;
    }
    return real(name, service, hints, found);
}

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

/// A socket at that place which takes connections and never answers.
server::Socket silentSocket(const std::string& place)
{
    server::Socket silent(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    place.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(::bind(silent.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(::listen(silent.fd(), 1), 0);
    return silent;
}

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
    std::string timely(const Call& call)
    {
        std::string end;
        const milliseconds took = timed([&] { end = outcome(call()); });
        return m_measure.isLate(took) ? "late: " + end : end;
    }

    std::string connect(const std::string& uri, const char* password = server::kPassword)
    {
        m_service.setSessionOptions({SessionOptions::Statements::bound, m_measure.deadline});
        return timely([&] { return m_service.connect(uri.c_str(), server::kUser, password); });
    }

    std::string lookUp()
    {
        return timely([this] {
            int key = 0;
            return m_service.getPublicAddressKey("alice", "oryx.example", key);
        });
    }

    std::string tooLate() const
    {
        return "connection error: no answer within the deadline of " + std::to_string(m_measure.deadline.count()) +
               " ms";
    }

    const std::string m_okay = outcome(DatabaseResult());
    Measure m_measure = measureOf(kDeadline);

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
    EXPECT_EQ(lookUp(), tooLate());
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

/// Half of it would be half a minute.
TEST_F(SeveralHosts, AreGoneOnToSoonWhereTheDeadlineIsLong)
{
    m_measure.deadline = std::chrono::minutes(1);
    m_first.swallow(true);
    EXPECT_LT(timed([&] { EXPECT_EQ(connect(twoHosts()), m_okay); }), std::chrono::seconds(20));
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
    m_measure = measureOf(kLongDeadline);
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
    const Proxy second("127.0.0.2", m_first.port());
    set("PGPORT", m_first.port());
    set("PGHOST", "db.oryx.example,db.oryx.example");
    set("PGHOSTADDR", "127.0.0.1,127.0.0.2");
    m_first.swallow(true);
    EXPECT_EQ(connect(m_database.name()), m_okay);
}

TEST_F(SeveralHosts, AreToldApartByAddressesHoweverTheseAreWritten)
{
    Proxy second("127.0.0.2", m_first.port());
    set("PGPORT", m_first.port());
    set("PGHOST", "db.oryx.example,db.oryx.example");
    set("PGHOSTADDR", "127.0.0.1,127.2");
    set("PGTARGETSESSIONATTRS", "prefer-standby");
    second.swallow(true);
    EXPECT_EQ(connect(m_database.name()), m_okay) << "without the second, which is the silent one";
}

TEST_F(SeveralHosts, AreGoneOnToByASocket)
{
    set("PGPORT", m_first.port() + "," + server::port());
    set("PGHOST", std::string("127.0.0.1,") + std::getenv("ORYX_SERVER_SOCKET"));
    m_first.swallow(true);
    EXPECT_EQ(connect(m_database.name()), m_okay);
}

TEST_F(SeveralHosts, AreGoneOnToWithoutAName)
{
    twoHosts();
    set("PGHOST", "db.oryx.example,");
    set("PGHOSTADDR", "127.0.0.1,127.0.0.1");
    m_first.swallow(true);
    EXPECT_EQ(connect(m_database.name()), m_okay);
}

TEST_F(SeveralHosts, AreGoneOnToWithoutAnAddress)
{
    twoHosts();
    set("PGHOST", "db.oryx.example,127.0.0.1");
    set("PGHOSTADDR", "127.0.0.1,");
    m_first.swallow(true);
    EXPECT_EQ(connect(m_database.name()), m_okay);
}

TEST_F(SeveralHosts, AreGoneOnToAtTheDefaultPort)
{
    const TemporaryDirectory folder; // with the server's socket, as if its port were libpq's own
    std::filesystem::create_symlink(std::string(std::getenv("ORYX_SERVER_SOCKET")) + "/.s.PGSQL." + server::port(),
                                    folder.file(".s.PGSQL.5432"));
    set("PGPORT", m_first.port() + ",");
    set("PGHOST", "127.0.0.1," + folder.file(""));
    m_first.swallow(true);
    EXPECT_EQ(connect(m_database.name()), m_okay);
}

TEST_F(SeveralHosts, AreGoneOnToWhenTheOneAtTheDefaultPortIsSilent)
{
    const TemporaryDirectory folder;
    const server::Socket silent = silentSocket(folder.file(".s.PGSQL.5432"));
    set("PGPORT", "," + m_second.port());
    set("PGHOST", folder.file("") + ",127.0.0.1");
    EXPECT_EQ(connect(m_database.name()), m_okay);
}

TEST_F(SeveralHosts, AreGoneOnToAtTheDefaultSocket)
{
    set("PGPORT", m_first.port() + "," + m_second.port());
    m_first.swallow(true);
    const std::string end = connect("postgresql://127.0.0.1,/" + m_database.name());
    EXPECT_NE(end.find("/.s.PGSQL." + m_second.port() + "\" failed"), std::string::npos) << end;
}

TEST_F(SeveralHosts, AreGoneOnToAtTheDefaultSocketWhenAnotherSocketOfItsPortIsSilent)
{
    const TemporaryDirectory folder;
    const server::Socket silent = silentSocket(folder.file(".s.PGSQL." + m_first.port()));
    set("PGPORT", m_first.port());
    set("PGHOST", folder.file("") + ",");
    const std::string end = connect(m_database.name());
    EXPECT_NE(end.find("/.s.PGSQL." + m_first.port() + "\" failed"), std::string::npos) << end;
}

TEST_F(SeveralHosts, SayBesideTheDeadlineWhyTheyRefuse)
{
    m_first.swallow(true);
    EXPECT_EQ(connect(twoHosts(), "another"),
              tooLate() + "\nconnection to server at \"127.0.0.1\", port " + m_second.port() +
                  " failed: FATAL:  password authentication failed for user \"" + server::kUser + "\"\n");
}

TEST_F(SeveralHosts, SayBesideTheDeadlineWhyTheyRefusedBeforeTheSilentOne)
{
    m_first.refuse(true);
    m_second.swallow(true);
    const std::string end = connect(twoHosts());
    const std::string refused =
        tooLate() + "\nconnection to server at \"127.0.0.1\", port " + m_first.port() + " failed: Connection refused\n";
    EXPECT_EQ(end.substr(0, refused.size()), refused);
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
    m_measure = measureOf(kLongDeadline);
    m_first.delay(m_measure.deadline * 6 / 10);
    m_second.swallow(true);
    EXPECT_EQ(connect(twoHosts()), m_okay);
}

TEST_F(SeveralHosts, AreWaitedForWhereMemoryRunsOutForOthers)
{
    m_first.delay(m_measure.deadline * 6 / 10);
    m_second.swallow(true);
    const std::string uri = twoHosts();
    static thread_local Clock::time_point began;
    std::vector<std::string> ends(24);
    std::vector<char> ranOut(ends.size());
    std::vector<std::thread> threads;
    for (std::size_t news = 0; news < ends.size(); ++news) {
        threads.emplace_back([&, news] {
            oryx::LocationService service;
            service.setSessionOptions({SessionOptions::Statements::bound, m_measure.deadline});
            began = Clock::now();
            countNewsOnly([] { // of the attempt at the others, which begins at half of the deadline
                const auto gone = Clock::now() - began;
                return gone > kDeadline * 4 / 10 && gone < kDeadline * 58 / 100;
            });
            failNewAfter(news);
            ends[news] = outcome(service.connect(uri.c_str(), server::kUser, server::kPassword));
            ranOut[news] = newHasFailed() ? 1 : 0;
            failNoNew();
            countNewsOnly(nullptr);
        });
    }
    std::for_each(threads.begin(), threads.end(), [](std::thread& thread) { thread.join(); });
    EXPECT_EQ(ends, std::vector<std::string>(ends.size(), m_okay));
    EXPECT_NE(std::count(ranOut.begin(), ranOut.end(), 1), 0) << "nothing was allocated for the others when it failed";
}

TEST_F(SeveralHosts, AreLookedAtAgainBehindALookUpThatTookAllOfTheTime)
{
    m_first.lag(m_measure.deadline / 5); // it answers three times
    slowness = m_measure.deadline * 12 / 10;
    twoHosts();
    EXPECT_EQ(connect(std::string("postgresql://127.0.0.1,") + kSlowName + "/" + m_database.name()), m_okay);
}

TEST_F(SeveralHosts, AreTakenBehindTheDeadlineThoughMemoryRunsOut)
{
    m_first.lag(m_measure.deadline / 5);
    slowness = m_measure.deadline * 12 / 10;
    twoHosts();
    const std::string uri = std::string("postgresql://127.0.0.1,") + kSlowName + "/" + m_database.name();
    static Clock::time_point began;
    began = Clock::now();
    countNewsOnly([] { return Clock::now() - began > kDeadline; });
    failNewAfter(1); // the first is for the attempt at the other host
    const std::string end = connect(uri);
    failNoNew();
    countNewsOnly(nullptr);
    EXPECT_EQ(end, m_okay);
}

TEST_F(SeveralHosts, GetNoStatementBehindTheDeadline)
{
    twoHosts();
    const std::string uri = std::string("postgresql://127.0.0.1,") + kSlowName + "/" + m_database.name();
    ASSERT_EQ(connect(uri), m_okay);
    m_first.hangUp();
    m_first.lag(m_measure.deadline / 5);
    slowness = m_measure.deadline * 12 / 10;
    std::vector<oryx::ContactRecord> made = contacts({"sip:alice@192.0.2.1"});
    EXPECT_EQ(timely([&] { return m_service.registerContacts(42, made); }), tooLate());
    std::this_thread::sleep_for(m_measure.deadline / 5);
    EXPECT_EQ(storedContacts(), "");
}

TEST_F(SeveralHosts, AreGivenUpAtTheDeadlineTogether)
{
    m_first.swallow(true);
    m_second.swallow(true);
    EXPECT_EQ(connect(twoHosts()), tooLate());
    EXPECT_EQ(lookUp(), tooLate());
    m_second.swallow(false);
    EXPECT_EQ(lookUp(), m_okay);
}

TEST_F(SeveralHosts, AreGoneOnToByAListener)
{
    m_first.swallow(true);
    oryx::ChangeListenerOptions options;
    options.answerTime = m_measure.deadline;
    oryx::ChangeListener listener(twoHosts(), server::kUser, server::kPassword, options);
    std::thread limit([&] {
        m_measure.eventually([&] {
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

TEST_F(SeveralHosts, AreLeftAloneByAListenerWhoseOwnAnswers)
{
    oryx::ChangeListenerOptions options;
    options.answerTime = milliseconds(4000);
    m_first.lag(options.answerTime / 5); // it answers three times before it takes the connection
    oryx::ChangeListener listener(twoHosts(), server::kUser, server::kPassword, options);
    EXPECT_TRUE(listener.run([&](const oryx::ChangeSet&) { listener.stop(); }).okay());
    EXPECT_EQ(m_second.hangUp(), 0U);
}

} // namespace

} // namespace hostsTest
