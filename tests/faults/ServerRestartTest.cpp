#include "support/DatabaseTest.h"
#include "support/ServerControl.h"
#include "support/Show.h"

#include <dal/ChangeListener.h>

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <semaphore>
#include <string>
#include <vector>

namespace serverRestartTest {

namespace {

class ServerRestart : public ServiceTest {
protected:
    /// The test's own session, which the server's end has ended too, is connected again.
    void lookAgain() { m_session = server::Session(m_database.name()); }

    std::string addresses() { return rows("SELECT address, expires FROM contact ORDER BY contact_id"); }

    server::ServerControl m_server{m_session};
};

const std::string kA = "sip:a@192.0.2.1";
const std::string kB = "sip:b@192.0.2.2";

std::string notConnected()
{
    return "connection to server at \"127.0.0.1\", port " + server::port() + " failed: ";
}

std::string refusal()
{
    return "connection error: " + notConnected() +
           "Connection refused\n\tIs the server running on that host and accepting TCP/IP connections?\n";
}

TEST_F(ServerRestart, GoesUnnoticedBetweenTwoRequests)
{
    EXPECT_EQ(registerAll({kA}), "okay");
    m_server.restart("fast");
    EXPECT_EQ(alicesContacts(), "okay\n" + show(contact(kA)));
    m_server.restart("immediate");
    EXPECT_EQ(registerAll({kB}), "okay");
    lookAgain();
    EXPECT_EQ(addresses(), kA + "|2000000000\n" + kB + "|2000000000\n");
}

TEST_F(ServerRestart, LeavesNothingOfARegistrationThatItInterrupted)
{
    // The second contact takes longer than the server lives.
    sql("CREATE FUNCTION dawdle() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN PERFORM pg_sleep(30); RETURN NEW; END $$;"
        "CREATE TRIGGER dawdle BEFORE INSERT ON contact FOR EACH ROW WHEN (NEW.address = '" +
        kB + "') EXECUTE FUNCTION dawdle()");
    auto registration = std::async(std::launch::async, [this] { return registerAll({kA, kB}); });
    EXPECT_NE(waitingBackend(), "");
    m_server.stop("fast");
    // Bound statements have no answer but the connection's; the server may still say why it takes none, or listen no
    // more.
    const std::string expected = plainOrBound("query error: [00000] server closed the connection unexpectedly",
                                              "connection error: " + notConnected());
    EXPECT_EQ(registration.get().substr(0, expected.size()), expected);
    m_server.start();
    lookAgain();
    sql("DROP FUNCTION dawdle CASCADE");
    EXPECT_EQ(addresses(), "");
    EXPECT_EQ(registerAll({kA, kB}), "okay");
    EXPECT_EQ(addresses(), kA + "|2000000000\n" + kB + "|2000000000\n");
}

TEST_F(ServerRestart, IsToldAsAConnectionErrorUntilTheServerIsBack)
{
    EXPECT_EQ(registerAll({kA}), "okay");
    m_server.stop("fast");
    EXPECT_EQ(alicesContacts(),
              plainOrBound("connection error: fatal query error, connection reset failed", refusal()) + "\n");
    EXPECT_EQ(alicesContacts(), refusal() + "\n");
    EXPECT_EQ(registerAll({kB}), refusal());
    EXPECT_EQ(show(m_service.removeExpiredContacts()), refusal());
    EXPECT_EQ(show(m_service.connect(m_database.uri().c_str(), server::kUser, server::kPassword)), refusal());
    EXPECT_EQ(alicesContacts(), refusal() + "\n");
    m_server.start();
    EXPECT_EQ(alicesContacts(), "okay\n" + show(contact(kA)));
    EXPECT_EQ(registerAll({kB}), "okay");
    lookAgain();
    EXPECT_EQ(addresses(), kA + "|2000000000\n" + kB + "|2000000000\n");
}

TEST_F(ServerRestart, IsSurvivedByAListenerWhichTellsToReadEverything)
{
    using Signal = std::counting_semaphore<>;
    constexpr std::chrono::seconds kPatience(60);
    Signal everything(0);
    Signal changed(0);
    oryx::ChangeListener listener(m_database.uri(), server::kUser, server::kPassword);
    auto running = std::async(std::launch::async, [&] {
        return show(listener.run(
            [&](const oryx::ChangeSet& changes) { (changes.everything ? everything : changed).release(); }));
    });
    EXPECT_TRUE(everything.try_acquire_for(kPatience));
    for (const char* const mode : {"fast", "immediate"}) {
        m_server.restart(mode);
        EXPECT_TRUE(everything.try_acquire_for(kPatience)) << mode;
        lookAgain();
        sql("NOTIFY acp");
        EXPECT_TRUE(changed.try_acquire_for(kPatience)) << mode;
    }
    m_server.stop("fast");
    listener.stop();
    EXPECT_EQ(running.get(), "okay");
    m_server.start();
    lookAgain();
}

} // namespace

} // namespace serverRestartTest
