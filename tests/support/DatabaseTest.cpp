#include "support/DatabaseTest.h"

#include "support/Show.h"

#include <chrono>
#include <cstdlib>
#include <thread>

namespace {

const std::string kLibrarysSessions =
    " FROM pg_stat_activity WHERE datname = current_database() AND usename = '" + std::string(server::kUser) + "' ";
const std::string kLatest = "ORDER BY backend_start DESC LIMIT 1";

bool isEmpty(const std::string& answer)
{
    return answer.empty();
}

} // namespace

std::string gist(const std::string& message)
{
    const std::string mark = ", sqlState=";
    const std::size_t state = message.find(mark);
    if (state == std::string::npos) {
        return message;
    }
    return "[" + message.substr(state + mark.size(), 5) + "] " + message.substr(0, message.find('\n'));
}

bool bound()
{
    const char* const statements = std::getenv("ORYX_STATEMENTS");
    return statements != nullptr && std::string(statements) == "bound";
}

std::string outcome(const oryx::DatabaseResult& result)
{
    oryx::DatabaseResult brief = result;
    brief.setErrorMessage(gist(result.getErrorMessage()));
    return show(brief);
}

oryx::ContactRecord contact(const std::string& address)
{
    oryx::ContactRecord made;
    made.setAddress(address.c_str());
    made.setQvalue("0.7");
    made.setExpires(2000000000);
    made.setCapabilities("audio");
    made.setContactHeader(("<" + address + ">;q=0.7").c_str());
    made.setCallId("843817637684230@998sdasdh09");
    made.setCseq(1826);
    return made;
}

std::vector<oryx::ContactRecord> contacts(const std::vector<std::string>& addresses)
{
    std::vector<oryx::ContactRecord> made;
    made.reserve(addresses.size());
    for (const std::string& address : addresses) {
        made.push_back(contact(address));
    }
    return made;
}

DatabaseTest::DatabaseTest() : m_session(m_database.name())
{
    // An encrypted connection would be attempted beside a plain one, and each tells its refusal.
    setenv("PGSSLMODE", "disable", 1);
    setenv("PGPORT", server::port().c_str(), 1); // an earlier test may have set another
}

void DatabaseTest::TearDown()
{
    // A session that is being cut off may take a moment to go; a transaction left open stays.
    EXPECT_EQ(eventually("SELECT state, query" + kLibrarysSessions + "AND state <> 'idle'", isEmpty), "");
}

void DatabaseTest::provisionAlice()
{
    sql("INSERT INTO subscriber (sid, user_id, oid, s_type, auth_type, s_password)"
        " VALUES (7, 'alice', 3, 'home', 'digest', 'wonderland')");
    sql("INSERT INTO contact_set (csid, sid, ordering) VALUES (12, 7, 'sequential')");
    sql("INSERT INTO public_address (public_address_id, handle, sip_domain, csid, scope)"
        " VALUES (42, 'alice', 'oryx.example', 12, 'public')");
}

std::string DatabaseTest::storedContacts()
{
    return rows("SELECT csid, address, qvalue, expires, permanent, capabilities, contact_header, call_id, cseq, id"
                " FROM contact ORDER BY csid, contact_id");
}

std::string DatabaseTest::backend()
{
    return m_session.value("SELECT pid" + kLibrarysSessions + kLatest);
}

std::string DatabaseTest::sessionState()
{
    return m_session.value("SELECT state" + kLibrarysSessions + kLatest);
}

std::string DatabaseTest::waitingBackend(const std::string& former)
{
    return eventually("SELECT pid" + kLibrarysSessions + "AND wait_event_type IN ('Lock', 'Timeout')",
                      [&](const std::string& pid) { return !pid.empty() && pid != former; });
}

std::string DatabaseTest::remaining(const std::string& backend)
{
    return eventually("SELECT query FROM pg_stat_activity WHERE pid = " + backend, isEmpty);
}

void DatabaseTest::terminate(const std::string& backend)
{
    EXPECT_EQ(m_session.value("SELECT pg_terminate_backend(" + backend + ", 5000)"), "t");
}

std::string DatabaseTest::eventually(const std::string& query, const std::function<bool(const std::string&)>& wanted)
{
    constexpr std::chrono::seconds kPatience(10);
    const auto end = std::chrono::steady_clock::now() + kPatience;
    std::string answer = m_session.value(query);
    while (!wanted(answer) && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        answer = m_session.value(query);
    }
    return answer;
}

void ExecutorTest::SetUp()
{
    ASSERT_TRUE(m_executor.connect(m_database.uri().c_str(), server::kUser, server::kPassword))
        << m_executor.getErrorMessage();
}

void ServiceTest::SetUp()
{
    ASSERT_EQ(show(m_service.connect(m_database.uri().c_str(), server::kUser, server::kPassword)), "okay");
    provisionAlice();
}

std::string ServiceTest::registerAll(const std::vector<std::string>& addresses)
{
    std::vector<oryx::ContactRecord> bindings = contacts(addresses);
    return outcome(m_service.registerContacts(42, bindings));
}

std::string ServiceTest::alicesContacts()
{
    std::string ordering;
    bool replaceUri = false;
    std::vector<oryx::ContactRecord> found;
    const oryx::DatabaseResult result = m_service.lookupContacts(42, ordering, replaceUri, found);
    return outcome(result) + "\n" + show(found);
}
