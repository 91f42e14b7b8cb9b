// What the servers remember of those who have proved who they are.

#include "sip/SipTest.h"

#include <common/Database.h>
#include <common/Subscribers.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <set>
#include <thread>

namespace proofTest {

namespace {

using namespace oryx::sip;

class KeptSecrets : public SipTest {
protected:
    KeptSecrets()
        : m_options(optionsFor(m_database)), m_provisioning(m_options, [this](const oryx::ChangeSet& changes) {
              const std::lock_guard lock(m_mutex);
              for (const oryx::ChangedTable& table : changes.tables) {
                  m_heard.insert(table.name);
              }
              m_news.notify_all();
          })
    {
        hear("subscriber"); // all tables are named at first
        while (!m_provisioning.listening()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    static Options optionsFor(const server::Database& database)
    {
        Options options;
        options.database = database.uri();
        options.user = server::kUser;
        options.password = server::kPassword;
        return options;
    }
    /// Waits until that table's change has been heard of and taken in.
    void hear(const std::string& table)
    {
        std::unique_lock lock(m_mutex);
        EXPECT_TRUE(m_news.wait_for(lock, std::chrono::seconds(20), [&] { return m_heard.count(table) != 0; }))
            << table;
        m_heard.clear();
    }
    /// Has alice prove who she is, with a nonce of her own.
    Verdict prove(const std::string& realm)
    {
        const Address alice{"alice", "oryx.example"};
        Credentials credentials;
        credentials.user = "alice";
        credentials.realm = realm;
        credentials.nonce = m_nonces.make(alice.key());
        credentials.uri = "sip:oryx.example";
        // All of these are hashes of three words with colons between them.
        const std::string request = secretOf(Algorithm::md5, "REGISTER", "sip", "oryx.example");
        const std::string secret = secretOf(Algorithm::md5, "alice", realm, "alice's");
        credentials.response = secretOf(Algorithm::md5, secret, credentials.nonce, request);
        const auto lookup = [this](const Address& /*address*/, oryx::SubscriberRecord& subscriber) {
            ++m_read;
            subscriber.setUserId("alice");
            subscriber.setPassword("alice's");
            subscriber.setActive('t');
            return oryx::DatabaseResult();
        };
        return m_subscribers.authenticate(alice, credentials, "REGISTER", lookup);
    }

    std::mutex m_mutex;
    std::condition_variable m_news;
    std::set<std::string> m_heard;
    Options m_options;
    Provisioning m_provisioning;
    Nonces m_nonces;
    Subscribers m_subscribers{m_provisioning, m_nonces};
    int m_read = 0;
};

/// A request that was challenged with the old realm may come to a worker after the news of the new one.
TEST_F(KeptSecrets, AreOfOneRealm)
{
    for (const char* const realm : {"old.example", "new.example", "old.example"}) {
        EXPECT_EQ(prove(realm), Verdict::accepted) << realm;
    }
    EXPECT_EQ(m_read, 3);
    EXPECT_EQ(prove("old.example"), Verdict::accepted);
    EXPECT_EQ(m_read, 3);
}

/// Conferences come and go by the minute; all subscribers would be read again each time.
TEST_F(KeptSecrets, OutliveChangesOfWhatIsNoSubscribers)
{
    EXPECT_EQ(prove("oryx.example"), Verdict::accepted);
    for (const char* const table : {"conf_state", "conf_state_reset", "extension", "acp", "access_control_list"}) {
        sql(std::string("DELETE FROM ") + table + " WHERE false");
        hear(table);
        EXPECT_EQ(prove("oryx.example"), Verdict::accepted);
        EXPECT_EQ(m_read, 1) << table;
    }
    for (const char* const table : {"subscriber", "public_address", "contact_set"}) {
        const int before = m_read;
        sql(std::string("DELETE FROM ") + table + " WHERE false");
        hear(table);
        EXPECT_EQ(prove("oryx.example"), Verdict::accepted);
        EXPECT_EQ(m_read, before + 1) << table;
    }
}

/// As where the session that reads the list cannot connect.
TEST_F(KeptSecrets, DoNotOutliveThoseOfASubscriberWhileTheDomainsCannotBeRead)
{
    sql("REVOKE SELECT ON system_parameters FROM oryx_server, oryx_registrar, oryx_proxy, oryx_presence;"
        "UPDATE system_parameters SET value = 'new.example'");
    hear("system_parameters");
    EXPECT_FALSE(m_provisioning.listening());
    EXPECT_EQ(prove("oryx.example"), Verdict::accepted);
    sql("DELETE FROM subscriber WHERE false");
    hear("subscriber");
    EXPECT_EQ(prove("oryx.example"), Verdict::accepted);
    EXPECT_EQ(m_read, 2);
    EXPECT_FALSE(m_provisioning.serves("new.example"));
    sql("GRANT SELECT ON system_parameters TO oryx_server");
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!m_provisioning.listening() && std::chrono::steady_clock::now() < until) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_TRUE(m_provisioning.listening());
    EXPECT_TRUE(m_provisioning.serves("new.example"));
}

/// They come from anybody, whatever they say.
TEST(Nonces, AreNotFreshBecauseTheySaySo)
{
    const Nonces nonces;
    const std::string made = nonces.make(1);
    EXPECT_TRUE(nonces.fresh(made, 1));
    EXPECT_FALSE(nonces.fresh(made, 2));
    for (const char* const time : {"9999999999", "-999999999", "0000000000", "         9", "nonce     "}) {
        EXPECT_FALSE(nonces.fresh(time + made.substr(10), 1)) << time;
    }
    EXPECT_FALSE(nonces.fresh(made.substr(0, 42), 1));
}

/// As `Nonces` makes it: the second that it was made in, and what no other has.
std::string nonce(int secondsAgo, std::size_t number)
{
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    const auto made = std::chrono::duration_cast<std::chrono::seconds>(now).count() - secondsAgo;
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%010lld%016zx", static_cast<long long>(made), number);
    return text.data();
}

/// RFC 7616 section 5.5; of a nonce of which nobody can know, none may be used.
TEST(NonceCounts, AreKeptForSoManyNonces)
{
    constexpr const char* kFirst = "00000001";
    constexpr const char* kSecond = "00000002";
    NonceCounts counts;
    std::size_t number = 10;
    const auto fill = [&] {
        for (std::size_t i = 0; i < NonceCounts::kMost; ++i) {
            ASSERT_TRUE(counts.use(nonce(-60, ++number), kFirst)); // younger than any time at which some are forgotten
        }
    };
    const std::string remembered = nonce(60, 1);
    const std::string forgotten = nonce(60, 2);
    const std::string unused = nonce(60, 3);
    EXPECT_TRUE(counts.use(remembered, kFirst));
    EXPECT_TRUE(counts.use(forgotten, kFirst));
    fill();
    EXPECT_FALSE(counts.use(remembered, kFirst));
    EXPECT_TRUE(counts.use(remembered, kSecond));
    fill();
    EXPECT_FALSE(counts.use(remembered, kSecond));
    EXPECT_TRUE(counts.use(remembered, "00000003"));
    for (const std::string& old : {forgotten, unused}) {
        EXPECT_FALSE(counts.use(old, kFirst));
        EXPECT_FALSE(counts.use(old, kSecond));
    }
    EXPECT_TRUE(counts.use(nonce(-60, 4), kFirst));
}

} // namespace

} // namespace proofTest
