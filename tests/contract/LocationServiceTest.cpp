#include "contract/DeskContact.h"
#include "contract/ServiceFixture.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

namespace locationServiceTest {

namespace {

using fake::Cell;
using fake::command;
using fake::noRows;
using fake::nothing;
using fake::refused;
using fake::rows;
using oryx::ContactRecord;
using oryx::DatabaseResult;
using oryx::LocationService;
using oryx::ProxyConfig;
using oryx::SubscriberRecord;

std::string key(LocationService& service, const char* handle, const char* domain)
{
    int key = 99;
    const std::string answer = show(service.getPublicAddressKey(handle, domain, key));
    return answer + "\nkey=" + std::to_string(key) + "\n";
}

std::string subscriber(LocationService& service, const char* handle, const char* domain)
{
    SubscriberRecord rec;
    rec.setUserId("before");
    const std::string answer = show(service.lookupSubscriber(handle, domain, rec));
    return answer + "\n" + show(rec);
}

const std::string kSubscriberBefore = "subscriber -1 user='before' type='' auth='' password='' oid=-1 active='t'\n";

std::string contactsByKey(LocationService& service, int key)
{
    Found found;
    return found.after(service.lookupContacts(key, found.ordering, found.replaceUri, found.contacts));
}

std::string contactsByAddress(LocationService& service, const char* handle, const char* domain)
{
    Found found;
    return found.after(service.lookupContacts(handle, domain, found.ordering, found.replaceUri, found.contacts));
}

std::string nodeType(LocationService& service)
{
    std::string type = "before";
    const std::string answer = show(service.getNodeType(type));
    return answer + "\ntype='" + type + "'\n";
}

std::string proxyConfig(LocationService& service, const char* proxyName)
{
    std::vector<ProxyConfig> items = {ProxyConfig("before", "before", "before")};
    const std::string answer = show(service.getProxyConfig(proxyName, items));
    return answer + "\n" + show(items);
}

const std::string kItemBefore = "item scope='before' name='before' value='before'\n";

std::vector<ContactRecord> deskAndEmpty()
{
    return {desk(), ContactRecord()};
}

/// An operation that changes a vector of contacts in one transaction.
struct Writer {
    std::string name;
    DatabaseResult (LocationService::*call)(int key, std::vector<ContactRecord>& contacts);
    std::string emptyTrace; // of an empty vector
    std::string text;       // for deskAndEmpty() under key 34
    std::string okayTrace;
    std::string failedTrace;

    std::string operator()(LocationService& service, int key, std::vector<ContactRecord> contacts) const
    {
        const std::string before = show(contacts);
        std::string answer = show((service.*call)(key, contacts));
        EXPECT_EQ(show(contacts), before);
        return answer;
    }
};

Writer registers()
{
    const std::string text =
        "BEGIN TRANSACTION; "
        "INSERT INTO contact(address,csid,qvalue,expires,permanent,capabilities,contact_header,call_id,cseq,id)  VALUES('sip:al%20ice@192.0.2.7:5060',(SELECT csid FROM public_address where public_address_id = 34), '0.5',1700000000,'t','methods=\"INVITE\"','<sip:al%20ice@192.0.2.7:5060>;q=0.5','a84b4c76e66710@192.0.2.7','4711', 1); "
        "INSERT INTO contact(address,csid,qvalue,expires,permanent,capabilities,contact_header,call_id,cseq,id)  VALUES('',(SELECT csid FROM public_address where public_address_id = 34), '',0,'f','','','','0', 1); "
        "COMMIT TRANSACTION;";
    const std::string start = "registering contacts for key=34";
    const std::string trace = serviceTrace({start, text});
    return {"registerContacts", &LocationService::registerContacts, serviceTrace({start}), text, trace, trace};
}

Writer unregisters()
{
    const std::string text =
        "BEGIN TRANSACTION; "
        "DELETE FROM contact WHERE address = 'sip:al%20ice@192.0.2.7:5060' AND csid = (SELECT csid FROM public_address where id = 34); "
        "DELETE FROM contact WHERE address = '' AND csid = (SELECT csid FROM public_address where id = 34); "
        "COMMIT TRANSACTION;";
    const std::string start = "unregistering contacts for key=34";
    return {"unregisterContacts",
            &LocationService::unregisterContacts,
            serviceTrace({start}),
            text,
            serviceTrace({start, "executing: " + text, "execute okay"}),
            serviceTrace({start, "executing: " + text, "execute failed"})};
}

Writer updates()
{
    const std::string first =
        "BEGIN TRANSACTION; "
        "UPDATE contact SET contact_header = '<sip:al%20ice@192.0.2.7:5060>;q=0.5', expires = 1700000000, call_id = 'a84b4c76e66710@192.0.2.7', cseq = '4711', qvalue = '0.5', capabilities = 'methods=\"INVITE\"' WHERE csid = (SELECT csid FROM public_address where id = 34) AND address = 'sip:al%20ice@192.0.2.7:5060' ;";
    const std::string second =
        first +
        "UPDATE contact SET contact_header = '', expires = 0, call_id = '', cseq = '0', qvalue = '', capabilities = '' WHERE csid = (SELECT csid FROM public_address where id = 34) AND address = '' ;";
    const std::string text = second + "COMMIT TRANSACTION;";
    const std::string trace = serviceTrace({"updateContacts invoked for key=34", first, second, text});
    return {"updateContacts", &LocationService::updateContacts, "", text, trace, trace};
}

/// A course of a statement that the executor runs for the service, and what the rollback behind it calls: it checks
/// the connection again.
struct TransactionCourse : Course {
    std::string rollback;
};

std::vector<TransactionCourse> transactionCourses()
{
    const std::vector<ConnStatusType> bad = {CONNECTION_BAD};
    const auto empty = fake::status(PGRES_EMPTY_QUERY);
    const auto syntax = refused("42601");
    const std::string lost = "fatal error, query failed";
    const std::string lostAgain = "fatal query error after reset";
    const std::string retried = "exec {}\nreset\nexec {}\n";
    const std::string retriedTwice = "exec {}\nreset\nexec {}\nreset\nexec {}\n";
    const std::string rollback = "exec ROLLBACK\n";
    const std::string resetFirst = "reset\nexec ROLLBACK\n";
    constexpr auto open = Connection::open;
    constexpr auto gone = Connection::lost;
    return {
        {{"Answered", open, {}, {}, "exec {}\n", Ending::done, ""}, ""},
        {{"ResetBeforehand", gone, {}, {}, "reset\nexec {}\n", Ending::done, ""}, ""},
        {{"NotResetBeforehand", gone, bad, {}, "reset\n", Ending::notConnected, kServerGone}, resetFirst},
        {{"LostAndSentAgain", open, {}, {nothing()}, retried, Ending::done, ""}, ""},
        {{"LostAndNotReset", open, bad, {nothing()}, "exec {}\nreset\n", Ending::connectionFailed, lost}, resetFirst},
        {{"LostTwice", open, {}, {nothing(), nothing()}, retried, Ending::connectionFailed, lostAgain}, rollback},
        {{"RefusedOnce", open, {}, {syntax}, retried, Ending::done, ""}, ""},
        {{"RefusedTwice", open, {}, {syntax, syntax}, retried, Ending::queryFailed, kRefused}, rollback},
        {{"RefusedAndNotReset", open, bad, {syntax}, "exec {}\nreset\n", Ending::queryFailed, kRefused}, resetFirst},
        {{"RefusedThenLost", open, {}, {syntax, nothing()}, retried, Ending::queryFailed, kRefused}, rollback},
        {{"LostThenRefusedTwice", open, {}, {nothing(), syntax, syntax}, retriedTwice, Ending::queryFailed, kRefused},
         rollback},
        {{"FailedWithoutRetry", open, {}, {empty}, "exec {}\n", Ending::queryFailed, kEmptyQuery}, rollback},
    };
}

std::string answerTo(const Course& course, const std::string& statement)
{
    const std::string reason = ": " + spliced(course.reason, statement);
    switch (course.ending) {
    case Ending::done:
        break;
    case Ending::notConnected:
    case Ending::connectionFailed:
        return "connection error" + reason;
    case Ending::queryFailed:
        return "query error" + reason;
    }
    return "okay";
}

class LocationServiceTest : public ConnectedServiceTest {};

struct WriterOnCourse {
    std::string name;
    Writer writer;
    TransactionCourse course;
};

void PrintTo(const WriterOnCourse& row, std::ostream* out)
{
    *out << row.name;
}

std::vector<WriterOnCourse> writersOnEveryCourse()
{
    std::vector<WriterOnCourse> all;
    for (const Writer& writer : {registers(), unregisters(), updates()}) {
        for (const TransactionCourse& course : transactionCourses()) {
            all.push_back({writer.name + "_" + course.name, writer, course});
        }
    }
    return all;
}

class ContactTransaction : public testing::TestWithParam<WriterOnCourse>, protected ConnectedService {
protected:
    void SetUp() override { connect(); }
};

INSTANTIATE_TEST_SUITE_P(OnCourse, ContactTransaction, testing::ValuesIn(writersOnEveryCourse()), kRowName);

TEST_P(ContactTransaction, AnswersForItsEndingAndIsRolledBackUnlessOkay)
{
    const auto& [name, writer, course] = GetParam();
    follow(course, command(), libpq);
    if (!course.rollback.empty()) {
        libpq.replies({command()});
    }
    EXPECT_EQ(writer(service, 34, deskAndEmpty()), answerTo(course, writer.text));
    EXPECT_EQ(libpq.take(), spliced(course.calls, writer.text) + course.rollback);
    EXPECT_EQ(trace.take("LocationService"), course.ending == Ending::done ? writer.okayTrace : writer.failedTrace);
}

class ContactWriter : public testing::TestWithParam<Writer>, protected ConnectedService {
protected:
    void SetUp() override { connect(); }
};

void PrintTo(const Writer& writer, std::ostream* out)
{
    *out << writer.name;
}

INSTANTIATE_TEST_SUITE_P(Of, ContactWriter, testing::Values(registers(), unregisters(), updates()), kRowName);

TEST_P(ContactWriter, IsOkayAboutNoContactsAndSendsNothing)
{
    libpq.loseConnection(); // not even looked at
    EXPECT_EQ(GetParam()(service, 34, {}), "okay");
    EXPECT_EQ(libpq.take(), "");
    EXPECT_EQ(trace.take(), GetParam().emptyTrace);
}

TEST_P(ContactWriter, AnswersForTheFirstFailureWhenTheRollbackIsRefusedToo)
{
    libpq.replies({refused("42601"), refused("42601"), refused("25P01"), refused("25P01")});
    EXPECT_EQ(GetParam()(service, 34, deskAndEmpty()), "query error: " + spliced(kRefused, GetParam().text));
    EXPECT_EQ(libpq.take(), "exec " + GetParam().text + "\nreset\nexec " + GetParam().text +
                                "\nexec ROLLBACK\nreset\nexec ROLLBACK\n");
}

TEST_P(ContactWriter, AnswersForTheFirstFailureWhenTheRollbackLosesTheConnection)
{
    libpq.replies({fake::status(PGRES_EMPTY_QUERY), nothing()});
    libpq.resetsTo({CONNECTION_BAD});
    EXPECT_EQ(GetParam()(service, 34, deskAndEmpty()), "query error: " + spliced(kEmptyQuery, GetParam().text));
    EXPECT_EQ(libpq.take(), "exec " + GetParam().text + "\nexec ROLLBACK\nreset\n");
}

TEST_P(ContactWriter, SendsNoRollbackOverAConnectionThatStaysLost)
{
    libpq.loseConnection();
    libpq.errorMessage(kServerGone);
    libpq.resetsTo({CONNECTION_BAD, CONNECTION_BAD});
    EXPECT_EQ(GetParam()(service, 34, deskAndEmpty()), "connection error: " + kServerGone);
    EXPECT_EQ(libpq.take(), "reset\nreset\n");
}

TEST_P(ContactWriter, IsTracedFromTheServiceThroughTheExecutorToTheConnection)
{
    libpq.replies({fake::status(PGRES_EMPTY_QUERY), command()});
    GetParam()(service, 34, deskAndEmpty());
    const std::string& text = GetParam().text;
    const std::string failed = "LocationService prn: execute failed\n";
    const bool saysSo = GetParam().failedTrace.ends_with(failed);
    const std::string start =
        GetParam().failedTrace.substr(0, GetParam().failedTrace.size() - (saysSo ? failed.size() : 0));
    EXPECT_EQ(trace.take(), start + "DatabaseCommandExecutor prn: execute: '" + text + "'\n" +
                                answeredTrace(text, PGRES_EMPTY_QUERY) + (saysSo ? failed : "") +
                                "DatabaseCommandExecutor prn: execute: 'ROLLBACK'\n" +
                                answeredTrace("ROLLBACK", PGRES_COMMAND_OK));
}

TEST_F(LocationServiceTest, ARegistrationTakesTheContactSetFromTheKeyAlone)
{
    libpq.replies({command()});
    ContactRecord rec;
    rec.setAddress("sip:o'brien@h");
    rec.setCsid(12);
    rec.setExpires(-1);
    rec.setCseq(2147483647);
    rec.setType("home");
    EXPECT_EQ(registers()(service, -1, {rec}), "okay");
    EXPECT_EQ(
        libpq.take(),
        "exec BEGIN TRANSACTION; INSERT INTO contact(address,csid,qvalue,expires,permanent,capabilities,contact_header,call_id,cseq,id)  VALUES('sip:o'brien@h',(SELECT csid FROM public_address where public_address_id = -1), '',-1,'f','','','','2147483647', 1); COMMIT TRANSACTION;\n");
}

TEST_F(LocationServiceTest, ARemovalOfOneContactIsOneDelete)
{
    libpq.replies({command()});
    ContactRecord rec;
    rec.setAddress("sip:o'brien@h");
    EXPECT_EQ(unregisters()(service, 0, {rec}), "okay");
    EXPECT_EQ(
        libpq.take(),
        "exec BEGIN TRANSACTION; DELETE FROM contact WHERE address = 'sip:o'brien@h' AND csid = (SELECT csid FROM public_address where id = 0); COMMIT TRANSACTION;\n");
}

TEST_F(LocationServiceTest, ARefreshOfOneContactIsDirectlyFollowedByItsCommit)
{
    libpq.replies({command()});
    ContactRecord rec;
    rec.setAddress("sip:alice@h");
    rec.setExpires(1700000000);
    rec.setPermanent('t');
    EXPECT_EQ(updates()(service, 7, {rec}), "okay");
    EXPECT_EQ(
        libpq.take(),
        "exec BEGIN TRANSACTION; UPDATE contact SET contact_header = '', expires = 1700000000, call_id = '', cseq = '0', qvalue = '', capabilities = '' WHERE csid = (SELECT csid FROM public_address where id = 7) AND address = 'sip:alice@h' ;COMMIT TRANSACTION;\n");
}

long nowInSeconds()
{
    using namespace std::chrono;
    return static_cast<long>(duration_cast<seconds>(system_clock::now().time_since_epoch()).count());
}

TEST_F(LocationServiceTest, TheSweepRemovesWhatExpiredBeforeTheCurrentSecond)
{
    libpq.replies({command("2")});
    const long before = nowInSeconds();
    EXPECT_EQ(show(service.removeExpiredContacts()), "okay");
    const long after = nowInSeconds();

    const std::string calls = libpq.take();
    const long limit = std::strtol(calls.c_str() + calls.find_first_of("0123456789"), nullptr, 10);
    EXPECT_LE(before, limit);
    EXPECT_LE(limit, after);
    const std::string statement =
        "DELETE FROM contact WHERE expires < " + std::to_string(limit) + " AND permanent = 'f';";
    EXPECT_EQ(calls, "exec " + statement + "\n");
    EXPECT_EQ(trace.take(), "DatabaseCommandExecutor prn: execute: '" + statement + "'\n" +
                                answeredTrace(statement, PGRES_COMMAND_OK));
}

/// The time of a sweep stands behind this.
const std::string kTime = "expires < ";

class ExpirySweep : public testing::TestWithParam<TransactionCourse>, protected ConnectedService {
protected:
    void SetUp() override { connect(); }
};

void PrintTo(const TransactionCourse& course, std::ostream* out)
{
    *out << course.name;
}

INSTANTIATE_TEST_SUITE_P(OnCourse, ExpirySweep, testing::ValuesIn(transactionCourses()), kRowName);

TEST_P(ExpirySweep, AnswersForItsEndingWithoutARollback)
{
    const Course& course = GetParam();
    const std::string statement = "DELETE FROM contact WHERE expires < NOW AND permanent = 'f';";
    follow(course, command("2"), libpq);
    EXPECT_EQ(timeless(show(service.removeExpiredContacts()), kTime), answerTo(course, statement));
    EXPECT_EQ(timeless(libpq.take(), kTime), spliced(course.calls, statement));
    EXPECT_EQ(trace.take("LocationService"), "");
}

/// An operation of a service that was never connected.
struct Guarded {
    std::string name;
    std::function<std::string(LocationService&)> call;
    std::string outArguments = {};
    std::string trace = {};
};

void PrintTo(const Guarded& guarded, std::ostream* out)
{
    *out << guarded.name;
}

class NeverConnected : public testing::TestWithParam<Guarded>, protected ConnectedService {};

TEST_P(NeverConnected, IsAConnectionErrorThatLeavesTheOutArguments)
{
    EXPECT_EQ(GetParam().call(service), kNeverConnected + GetParam().outArguments);
    EXPECT_EQ(libpq.take(), "");
    EXPECT_EQ(trace.take(), GetParam().trace);
}

std::vector<Guarded> guarded()
{
    const std::string found = "ordering='before' replace=false\n";
    const auto writes = [](const Writer& writer) {
        return [writer](LocationService& service) { return writer(service, 34, deskAndEmpty()) + "\n"; };
    };
    return {
        {"getPublicAddressKey", [](auto& service) { return key(service, "alice", "oryx.example"); }, "key=99\n",
         serviceTrace({"looking up public address alice@oryx.example", "connection error"})},
        {"getPublicAddressKeyOfNothing", [](auto& service) { return key(service, nullptr, nullptr); }, "key=99\n",
         serviceTrace({"connection error"})},
        {"lookupSubscriber", [](auto& service) { return subscriber(service, "alice", "oryx.example"); },
         kSubscriberBefore},
        {"lookupContactsByKey", [](auto& service) { return contactsByKey(service, 34); }, found},
        {"lookupContactsByAddress", [](auto& service) { return contactsByAddress(service, "alice", "oryx.example"); },
         found},
        {"registerContacts", writes(registers())},
        {"unregisterContacts", writes(unregisters())},
        {"updateContacts", writes(updates())},
        {"registerNoContacts", [](auto& service) { return registers()(service, 34, {}) + "\n"; }},
        {"removeExpiredContacts", [](auto& service) { return show(service.removeExpiredContacts()) + "\n"; }},
        {"getNodeType", nodeType, "type='before'\n"},
        {"getProxyConfig", [](auto& service) { return proxyConfig(service, "edge"); }, kItemBefore},
    };
}

INSTANTIATE_TEST_SUITE_P(Service, NeverConnected, testing::ValuesIn(guarded()), kRowName);

// Lookups

const std::string kKeyLookup =
    "SELECT handle, sip_domain, csid, scope, public_address_id FROM public_address WHERE  handle='alice' AND sip_domain='oryx.example';";

TEST_F(LocationServiceTest, TheKeyOfAnAddressIsFound)
{
    libpq.replies({rows({{"alice", "oryx.example", "12", "public", "34"}})});
    EXPECT_EQ(key(service, "alice", "oryx.example"), "okay\nkey=34\n");
    EXPECT_EQ(libpq.take(), "exec " + kKeyLookup + "\n");
    EXPECT_EQ(trace.take(), "LocationService prn: looking up public address alice@oryx.example\n" +
                                answeredTrace(kKeyLookup) + "LocationService prn: public address found, key=34\n");
}

TEST_F(LocationServiceTest, AnAddressWithANullKeyIsFoundWithoutOne)
{
    libpq.replies({rows({{"alice", "oryx.example", "12", "public", std::nullopt}})});
    EXPECT_EQ(key(service, "alice", "oryx.example"), "okay\nkey=-1\n");
    EXPECT_EQ(trace.take("LocationService"),
              serviceTrace({"looking up public address alice@oryx.example", "public address found, key=-1"}));
}

TEST_F(LocationServiceTest, AnUnknownAddressIsNotFoundAndHasNoKey)
{
    libpq.replies({noRows(5)});
    EXPECT_EQ(key(service, "alice", "oryx.example"), "not found\nkey=-1\n");
    EXPECT_EQ(trace.take("LocationService"),
              serviceTrace({"looking up public address alice@oryx.example", "lookup failed"}));
}

TEST_F(LocationServiceTest, AFailedKeyLookupIsPassedOnWithoutAKey)
{
    libpq.replies({refused("42601"), refused("42601")});
    EXPECT_EQ(key(service, "alice", "oryx.example"), "query error: " + spliced(kRefused, kKeyLookup) + "\nkey=-1\n");
    loseForGood();
    EXPECT_EQ(key(service, "alice", "oryx.example"), "connection error: " + kServerGone + "\nkey=-1\n");
    EXPECT_EQ(trace.take("LocationService"),
              serviceTrace({"looking up public address alice@oryx.example", "lookup failed",
                            "looking up public address alice@oryx.example", "lookup failed"}));
}

TEST_F(LocationServiceTest, ANullHandleOrDomainHasNoKeyAndIsTracedAsNull)
{
    EXPECT_EQ(key(service, nullptr, "oryx.example"), "query error: invalid parameters\nkey=-1\n");
    EXPECT_EQ(key(service, "alice", nullptr), "query error: invalid parameters\nkey=-1\n");
    EXPECT_EQ(key(service, nullptr, nullptr), "query error: invalid parameters\nkey=-1\n");
    EXPECT_EQ(libpq.take(), "");
    EXPECT_EQ(trace.take(), serviceTrace({"looking up public address null@oryx.example", "lookup failed",
                                          "looking up public address alice@null", "lookup failed", "lookup failed"}));
}

const std::string kSubscriberLookup =
    "SELECT subscriber.sid, subscriber.auth_user_id, subscriber.oid, subscriber.s_type, subscriber.auth_type,  subscriber.s_password, subscriber.active  FROM public_address,contact_set,subscriber WHERE  subscriber.sid = contact_set.sid AND contact_set.csid = public_address.csid  AND public_address.handle = 'alice' AND public_address.sip_domain = 'oryx.example';";

TEST_F(LocationServiceTest, ASubscriberIsLocated)
{
    libpq.replies({rows({{"7", "alice", "3", "home", "digest", "secret", "t"}})});
    EXPECT_EQ(subscriber(service, "alice", "oryx.example"),
              "okay\nsubscriber 7 user='alice' type='home' auth='digest' password='secret' oid=3 active='t'\n");
    EXPECT_EQ(libpq.take(), "exec " + kSubscriberLookup + "\n");
    EXPECT_EQ(trace.take(), "LocationService prn: looking up subscriber alice@oryx.example\n"
                            "DatabaseCommandExecutor prn: " +
                                kSubscriberLookup + "\n" + answeredTrace(kSubscriberLookup) +
                                "DatabaseCommandExecutor prn: active = t\n\n"
                                "LocationService prn: subscriber located\n");
}

TEST_F(LocationServiceTest, AnUnknownSubscriberIsNotFound)
{
    libpq.replies({noRows(7)});
    EXPECT_EQ(subscriber(service, "alice", "oryx.example"), "not found\n" + kSubscriberBefore);
    EXPECT_EQ(trace.take("LocationService"), serviceTrace({"looking up subscriber alice@oryx.example", "not found"}));
}

TEST_F(LocationServiceTest, EveryFailureOfASubscriberLookupIsAConnectionError)
{
    libpq.replies({refused("42601"), refused("42601")});
    EXPECT_EQ(subscriber(service, "alice", "oryx.example"),
              "connection error: " + spliced(kRefused, kSubscriberLookup) + "\n" + kSubscriberBefore);
    EXPECT_EQ(libpq.take(), "exec " + kSubscriberLookup + "\nreset\nexec " + kSubscriberLookup + "\n");
    EXPECT_EQ(subscriber(service, nullptr, nullptr),
              "connection error: invalid parameters passed to lookupSubscriber\n" + kSubscriberBefore);
    loseForGood();
    EXPECT_EQ(subscriber(service, "alice", nullptr), "connection error: " + kServerGone + "\n" + kSubscriberBefore);
    EXPECT_EQ(libpq.take(), "reset\n");
    EXPECT_EQ(
        trace.take("LocationService"),
        serviceTrace({"looking up subscriber alice@oryx.example", "connection error", "looking up subscriber null@null",
                      "connection error", "looking up subscriber alice@null", "connection error"}));
}

const std::string kContactsByKey =
    "SELECT contact_set.ordering, contact_set.replace_uri,subscriber.active, contact.address, contact.qvalue,  contact.expires, contact.capabilities, contact.contact_header,contact.call_id,contact.cseq,contact.c_type  FROM public_address, contact_set, contact, subscriber WHERE (public_address.id = 34 AND contact_set.csid = public_address.csid AND  contact.csid = contact_set.csid AND contact_set.sid = subscriber.sid);";
const std::string kContactsByAddress =
    "SELECT contact_set.ordering,contact_set.replace_uri,subscriber.active, contact.address,contact.qvalue,contact.expires,contact.capabilities,contact.contact_header, contact.call_id,contact.cseq,contact.c_type   FROM public_address, contact_set, contact, subscriber WHERE  (public_address.handle = 'alice' AND public_address.sip_domain = 'oryx.example' AND public_address.csid = contact_set.csid AND  contact.csid = contact_set.csid AND subscriber.sid = contact_set.sid);";

std::vector<Cell> contactRow(const Cell& active)
{
    return {"parallel", "f",  active,  "sip:alice@192.0.2.7", "0.7", "1800000000", "caps", "header",
            "call",     "17", "mobile"};
}

const std::string kContactFound =
    "okay\nordering='parallel' replace=false\n"
    "contact -1 'sip:alice@192.0.2.7' csid=-1 q='0.7' expires=1800000000 permanent='f' capabilities='caps' header='header' call='call' cseq=17 type='mobile' path=''\n";

TEST_F(LocationServiceTest, ContactsOfAKeyComeAsTheExecutorFindsThem)
{
    libpq.replies({rows({contactRow("t")}), noRows(11), rows({contactRow("f")}), refused("42601"), refused("42601")});
    EXPECT_EQ(contactsByKey(service, 34), kContactFound);
    EXPECT_EQ(contactsByKey(service, 34), "okay\nordering='before' replace=true\n");
    EXPECT_EQ(contactsByKey(service, 34), "not found\nordering='parallel' replace=false\n");
    EXPECT_EQ(contactsByKey(service, 34),
              "query error: " + spliced(kRefused, kContactsByKey) + "\nordering='before' replace=true\n");
    const std::string exec = "exec " + kContactsByKey + "\n";
    EXPECT_EQ(libpq.take(), exec + exec + exec + exec + "reset\n" + exec);
    EXPECT_EQ(trace.take("LocationService"), "");
}

TEST_F(LocationServiceTest, ContactsOfAnAddressComeAsTheExecutorFindsThem)
{
    libpq.replies({rows({contactRow("t")}), noRows(11), rows({contactRow("f")}), refused("42601"), refused("42601")});
    EXPECT_EQ(contactsByAddress(service, "alice", "oryx.example"), kContactFound);
    EXPECT_EQ(contactsByAddress(service, "alice", "oryx.example"), "okay\nordering='before' replace=true\n");
    EXPECT_EQ(contactsByAddress(service, "alice", "oryx.example"), "not found\nordering='parallel' replace=false\n");
    EXPECT_EQ(contactsByAddress(service, "alice", "oryx.example"),
              "query error: " + spliced(kRefused, kContactsByAddress) + "\nordering='before' replace=true\n");
    EXPECT_EQ(contactsByAddress(service, "alice", nullptr),
              "query error: invalid parameters\nordering='before' replace=true\n");
    const std::string exec = "exec " + kContactsByAddress + "\n";
    EXPECT_EQ(libpq.take(), exec + exec + exec + exec + "reset\n" + exec);
    const std::string line = "looking up contacts by handle,domain";
    EXPECT_EQ(trace.take("LocationService"), serviceTrace({line, line, line, line, line}));
}

TEST_F(LocationServiceTest, AContactLookupOverALostConnectionIsAConnectionError)
{
    loseForGood();
    EXPECT_EQ(contactsByKey(service, 34), "connection error: " + kServerGone + "\nordering='before' replace=true\n");
    loseForGood();
    EXPECT_EQ(contactsByAddress(service, "alice", "oryx.example"),
              "connection error: " + kServerGone + "\nordering='before' replace=true\n");
    EXPECT_EQ(libpq.take(), "reset\nreset\n");
}

// Host settings

TEST_F(LocationServiceTest, TheNodeTypeComesFromTheHostSettings)
{
    libpq.replies({rows({{"leaf", "", "", "", "", "t", "t", "", ""}})});
    EXPECT_EQ(nodeType(service), "okay\ntype='leaf'\n");
    EXPECT_EQ(libpq.take(), "exec SELECT * FROM host_info\n");
    EXPECT_EQ(trace.take(), "DatabaseCommandExecutor prn: looking up host info\n" +
                                answeredTrace("SELECT * FROM host_info") +
                                "DatabaseCommandExecutor prn: host_info returned 1 rows\n");
}

TEST_F(LocationServiceTest, AnEmptyNodeTypeIsNotFound)
{
    libpq.replies({rows({{"", "", "", "", "", "t", "t", "", ""}}),
                   rows({{std::nullopt, "", "", "", "", "t", "t", "", ""}}), noRows(9)});
    EXPECT_EQ(nodeType(service), "not found\ntype=''\n");
    EXPECT_EQ(nodeType(service), "not found\ntype=''\n");
    EXPECT_EQ(nodeType(service), "not found\ntype=''\n");
}

TEST_F(LocationServiceTest, AFailedNodeTypeIsEmpty)
{
    libpq.replies({refused("42601"), refused("42601")});
    EXPECT_EQ(nodeType(service), "query error: " + spliced(kRefused, "SELECT * FROM host_info") + "\ntype=''\n");
    loseForGood();
    EXPECT_EQ(nodeType(service), "connection error: " + kServerGone + "\ntype=''\n");
}

TEST_F(LocationServiceTest, TheProxyConfigurationComesAsTheExecutorFindsIt)
{
    const std::string statement =
        "SELECT scope, property_name, property_value  FROM proxy_configuration   WHERE proxy_name = 'edge';";
    libpq.replies({rows({{"sip", "timer.b", "32"}}), noRows(3), refused("42601"), refused("42601")});
    EXPECT_EQ(proxyConfig(service, "edge"), "okay\nitem scope='sip' name='timer.b' value='32'\n");
    EXPECT_EQ(proxyConfig(service, "edge"), "okay\n");
    EXPECT_EQ(proxyConfig(service, "edge"), "query error: " + spliced(kRefused, statement) + "\n" + kItemBefore);
    EXPECT_EQ(proxyConfig(service, nullptr), "query error: null proxy name\n" + kItemBefore);
    const std::string exec = "exec " + statement + "\n";
    EXPECT_EQ(libpq.take(), exec + exec + exec + "reset\n" + exec);
    EXPECT_EQ(trace.take("LocationService"), "");
}

// The domain name, which the process keeps once it is read

TEST_F(LocationServiceTest, TheDomainNameIsTheFirstThisServerAnswersFor)
{
    libpq.replies({rows({{"oryx.example, example.com"}})});
    std::string name = "before";
    EXPECT_EQ(&service.getDomainName(name), &name);
    EXPECT_EQ(name, "oryx.example");
    const std::string statement =
        "SELECT system_parameters.value FROM system_parameters WHERE (((system_parameters.application = 'oryxproxy') AND (system_parameters.scope = 'ServerInfo')) AND (system_parameters.name = 'ServerNames'));";
    EXPECT_EQ(libpq.take(), "exec " + statement + "\n");
    EXPECT_EQ(
        trace.take(),
        "DatabaseCommandExecutor prn: getNthElementOfDomainList(): *** INFO ***: try to query Table 'system_parameters' directly!\n"
        "DatabaseCommandExecutor prn: ******** transactionExecute(): cmd=\n" +
            statement + "\n" + answeredTrace(statement) +
            "DatabaseCommandExecutor prn: getDomainNameList(): read 2 domains, first is oryx.example\n");
}

TEST_F(LocationServiceTest, TheDomainNameIsEmptyWhenTheConnectionIsLost)
{
    loseForGood();
    std::string name = "before";
    EXPECT_EQ(service.getDomainName(name), "");
    EXPECT_EQ(libpq.take(), "reset\n");
    EXPECT_EQ(
        trace.take(),
        "DatabaseCommandExecutor prn: getNthElementOfDomainList(): *** ERROR ***: No database connection opened!\n");
}

} // namespace

} // namespace locationServiceTest
