#include "contract/ServiceFixture.h"

#include <dal/PresenceDatabaseCommandExecutor.h>
#include <dal/PresenceService.h>

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

// What the services have in common: how they are connected, and what they are without a connection.

namespace serviceConnectionTest {

namespace {

using oryx::DatabaseResult;
using oryx::LocationService;
using oryx::PresenceService;

const char* const kUri = "pgsql://db.oryx.example/registrar";
const std::string kConnectCalls =
    "connect host=db.oryx.example dbname=registrar user=registrar password=secret\nnotices\n";

struct ServiceName {
    template <typename Service>
    static std::string GetName(int /*index*/)
    {
        return std::is_same_v<Service, LocationService> ? "LocationService" : "PresenceService";
    }
};

/// A service that the test connects itself.
template <typename Service>
class ServiceConnection : public testing::Test, protected ConnectedServiceOf<Service> {
protected:
    /// What an operation answers that sends one statement, and gets no rows.
    std::string answer()
    {
        Found found;
        return show(this->service.lookupAddressMap("sip:1@h", found.ordering, found.replaceUri, found.contacts));
    }

    /// What the guard makes of a result that was not okay.
    std::string guarded()
    {
        DatabaseResult result;
        result.setNotFound();
        result.setErrorMessage("as before");
        this->service.checkConnect(result);
        return show(result);
    }
};

using Services = testing::Types<LocationService, PresenceService>;
TYPED_TEST_SUITE(ServiceConnection, Services, ServiceName);

TYPED_TEST(ServiceConnection, IsMadeWithTheThreeArguments)
{
    EXPECT_EQ(show(this->service.connect(kUri, "registrar", "secret")), "okay");
    EXPECT_EQ(this->libpq.take(), kConnectCalls);
    EXPECT_EQ(this->trace.take(),
              "DatabaseConnection prn: host=db.oryx.example dbname=registrar user=registrar password=secret\n");
}

TYPED_TEST(ServiceConnection, IsAnsweredWithTheServersReasonWhenItIsRefusedAndResetLater)
{
    this->libpq.connectsWith(CONNECTION_BAD, "FATAL:  the database system is starting up\n");
    EXPECT_EQ(show(this->service.connect(kUri, "registrar", "secret")),
              "connection error: FATAL:  the database system is starting up\n");
    EXPECT_EQ(this->libpq.take(), kConnectCalls);

    this->libpq.resetsTo({CONNECTION_BAD, CONNECTION_OK});
    this->libpq.replies({fake::noRows(7)});
    EXPECT_EQ(this->answer(), "connection error: FATAL:  the database system is starting up\n");
    EXPECT_EQ(this->answer(), "not found");
    EXPECT_EQ(this->libpq.take(), "reset\nreset\n" + sent({kMaps}));
}

TYPED_TEST(ServiceConnection, IsNotThereLaterWhenArgumentsWereMissing)
{
    const std::string missing = "connection error: missing connection parameters";
    EXPECT_EQ(show(this->service.connect(nullptr, "registrar", "secret")), missing);
    EXPECT_EQ(show(this->service.connect(kUri, nullptr, "secret")), missing);
    EXPECT_EQ(show(this->service.connect(kUri, "registrar", nullptr)), missing);
    EXPECT_EQ(this->answer(), "connection error: no connection to reset");
    EXPECT_EQ(this->libpq.take(), "");
}

TYPED_TEST(ServiceConnection, EndsWhenTheServiceIsConnectedAgain)
{
    this->connect();
    EXPECT_EQ(show(this->service.connect("pgsql://standby.oryx.example/registrar", "other", "word")), "okay");
    EXPECT_EQ(this->libpq.take(),
              "finish\nconnect host=standby.oryx.example dbname=registrar user=other password=word\nnotices\n");
    EXPECT_EQ(this->trace.take(),
              "DatabaseConnection prn: connection closed\n"
              "DatabaseConnection prn: host=standby.oryx.example dbname=registrar user=other password=word\n");
}

/// The text belongs to the executor that goes.
TEST(PresenceServiceConnection, IsMadeAgainWithTheErrorTextOfTheOneBefore)
{
    fake::Libpq libpq;
    PresenceService service;
    service.connect(kUri, "registrar", "secret");
    auto* const executor = service.getPresenceDatabaseCommandExecutor();
    executor->error("a text too long to lie within a string object");
    const char* const text = executor->getErrorMessage().c_str();
    libpq.take();
    EXPECT_EQ(show(service.connect(text, text, text)), "okay");
    const std::string given = "a text too long to lie within a string object";
    EXPECT_EQ(libpq.take(),
              "finish\nconnect dbname=" + given + " user=" + given + " password=" + given + "\nnotices\n");
}

TYPED_TEST(ServiceConnection, IsNotThereLaterWhenTheServiceWasConnectedAgainInVain)
{
    this->connect();
    EXPECT_EQ(show(this->service.connect(nullptr, nullptr, nullptr)),
              "connection error: missing connection parameters");
    EXPECT_EQ(this->answer(), "connection error: no connection to reset");
    EXPECT_EQ(this->libpq.take(), "finish\n");
}

TYPED_TEST(ServiceConnection, EndsWithTheService)
{
    {
        TypeParam another;
        another.connect(kUri, "registrar", "secret");
        this->libpq.take();
    }
    EXPECT_EQ(this->libpq.take(), "finish\n");
}

TEST(LocationServiceConnection, EndsBeforeTheAddressMapsAreForgotten)
{
    fake::Libpq libpq;
    std::string keys;
    auto service = std::make_unique<LocationService>();
    service->connect(kUri, "registrar", "secret");
    libpq.replies({fake::rows({{"sequential", "t", "a", "1", "^sip:1", std::nullopt, "3"}})});
    Found found;
    service->lookupAddressMap("sip:2@h", found.ordering, found.replaceUri, found.contacts);
    auto previous = zel::setTraceSink(
        [&, raw = service.get()](std::string_view /*channel*/, zel::TraceKind /*kind*/, std::string_view text) {
            keys += text == "connection closed" ? mapKeys(*raw) : "";
        });
    service.reset();
    zel::setTraceSink(std::move(previous));
    EXPECT_EQ(keys, "[a-1]");
}

TYPED_TEST(ServiceConnection, NeverMadeIsNeverEnded)
{
    {
        const TypeParam another;
    }
    EXPECT_EQ(this->libpq.take(), "");
    EXPECT_EQ(this->trace.take(), "");
}

TYPED_TEST(ServiceConnection, OnceMadeHasTheGuardLeaveAResultAsItIs)
{
    this->connect();
    EXPECT_EQ(this->guarded(), "not found: as before");
    this->libpq.loseConnection();
    EXPECT_EQ(this->guarded(), "not found: as before");
    EXPECT_EQ(this->libpq.take(), "");
}

TYPED_TEST(ServiceConnection, NeverMadeHasTheGuardReplaceAResult)
{
    EXPECT_EQ(this->guarded() + "\n", kNeverConnected);
}

TYPED_TEST(ServiceConnection, NeverMadeMeansAnEmptyDomainName)
{
    std::string name = "before";
    EXPECT_EQ(&this->service.getDomainName(name), &name);
    EXPECT_EQ(name, "");
    EXPECT_EQ(this->libpq.take(), "");
    EXPECT_EQ(this->trace.take(), "");
}

} // namespace

} // namespace serviceConnectionTest
