// REGISTER requests as a whole, live bindings, and a request's target: what is sent for each, and what its rows mean.

#include "contract/ServiceFixture.h"
#include "support/FailingNew.h"
#include "support/ShowBindings.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace registrationTest {

namespace {

using fake::Cell;
using fake::noRows;
using fake::nothing;
using fake::refused;
using fake::rows;
using oryx::BindingSet;
using oryx::DatabaseResult;
using oryx::RegisterAnswer;
using oryx::RegisterContact;
using oryx::RegisterOutcome;
using oryx::RegisterRequest;
using oryx::RequestTarget;
using oryx::TargetQuestion;

RegisterRequest wholeRequest()
{
    RegisterRequest request;
    request.callId = "a84b4c76e66710@192.0.2.7";
    request.cseq = 4711;
    request.path = "<sip:edge.oryx.example;lr>";
    request.maxBindings = 10;
    RegisterContact contact;
    contact.address = "sip:al%20ice@192.0.2.7:5060";
    contact.expires = 1800;
    contact.qvalue = "0.5";
    contact.contactHeader = R"("Al \ {}" <sip:al%20ice@192.0.2.7:5060>;q=0.5)";
    contact.capabilities = R"(methods="INVITE, NULL")";
    contact.type = "mobile";
    request.contacts = {contact, {}};
    request.contacts.back().address = "sip:b";
    return request;
}

const std::string kWhole =
    R"('a84b4c76e66710@192.0.2.7', 4711, '<sip:edge.oryx.example;lr>', 10, 'f', '{{"sip:al%20ice@192.0.2.7:5060","1800","0.5","\"Al \\ {}\" <sip:al%20ice@192.0.2.7:5060>;q=0.5","methods=\"INVITE, NULL\"","mobile"},{"sip:b","3600","","","",""}}'))";
const std::string kByKey = "SELECT * FROM register_bindings(34, NULL, NULL, " + kWhole;
const std::string kLookupByKey = "SELECT * FROM register_bindings(34, NULL, NULL, NULL, NULL, NULL, NULL, 'f', NULL)";
const std::string kLookupByAddress =
    "SELECT * FROM register_bindings(NULL, 'alice', 'oryx.example', NULL, NULL, NULL, NULL, 'f', NULL)";
const std::string kLookupBySet =
    "SELECT 'done', contact_set.ordering, contact_set.replace_uri, contact.contact_id, contact.address, contact.expires - current_second(), contact.qvalue, contact.path_vector, contact.contact_header, contact.capabilities, contact.c_type, contact.call_id, contact.cseq, contact.permanent FROM contact_set LEFT JOIN contact ON contact.csid = contact_set.csid AND is_live(contact.permanent, contact.expires, current_second()) WHERE contact_set.csid = {}";
const std::string kHost = "SELECT * FROM host_info";
const std::string kRules = "SELECT direction,sip_domain,domain_action FROM domain_access ORDER BY qvalue";

/// A row of an answer with a binding.
std::vector<Cell> bindingRow(const std::string& address, const std::string& key = "5", const Cell& expires = "1800")
{
    return {"done", "sequential", "f",    key,      address, expires, "0.5",
            "path", "header",     "caps", "mobile", "call",  "4711",  "f"};
}

std::string shownBinding(const std::string& address)
{
    return "'" + address +
           "' 1800 s q='0.5' (500) path='path' header='header' capabilities='caps' type='mobile' call='call' cseq=4711\n";
}

/// A row of an answer without one.
std::vector<Cell> outcomeRow(const std::string& word)
{
    std::vector<Cell> row(14);
    row.front() = word;
    return row;
}

class RegistrationTest : public ConnectedServiceTest {
protected:
    /// What a request by key answers that gets this reply.
    std::string answer(const fake::Reply& reply)
    {
        libpq.replies({reply});
        return apply();
    }
    std::string apply()
    {
        RegisterAnswer answer{RegisterOutcome::done, std::vector<oryx::LiveBinding>(1)}; // of an earlier request
        const DatabaseResult result = applyRegistration(service, 34, wholeRequest(), answer);
        return show(result) + "\n" + show(answer);
    }
    std::string find(const TargetQuestion& question)
    {
        RequestTarget target;
        const DatabaseResult result = findTarget(service, question, target);
        return show(result) + "\n" + show(target);
    }
};

TEST_F(RegistrationTest, IsOneStatement)
{
    EXPECT_EQ(answer(rows({bindingRow("sip:a"), bindingRow("sip:b", "4")})),
              "okay\ndone\n" + shownBinding("sip:b") + shownBinding("sip:a"));
    EXPECT_EQ(libpq.take(), "exec " + kByKey + "\n");
    EXPECT_EQ(trace.take(), "oryx prn: " + kByKey + "\n" + answeredTrace(kByKey));
}

TEST_F(RegistrationTest, IsOneStatementByAddressToo)
{
    libpq.replies({rows({outcomeRow("done")})});
    RegisterAnswer answer;
    EXPECT_EQ(show(applyRegistration(service, "alice", "oryx.example", wholeRequest(), answer)), "okay");
    EXPECT_EQ(show(answer), "done\n");
    EXPECT_EQ(libpq.take(), "exec SELECT * FROM register_bindings(NULL, 'alice', 'oryx.example', " + kWhole + "\n");
}

TEST_F(RegistrationTest, RemovesAllOrNamesEachAddressOnce)
{
    RegisterRequest request;
    request.callId = "call";
    RegisterAnswer answer;
    libpq.replies({rows({outcomeRow("done")}), rows({outcomeRow("done")})});
    request.removesAll = true;
    applyRegistration(service, -1, request, answer);
    request.removesAll = false;
    request.contacts.resize(3);
    request.contacts[0].address = request.contacts[2].address = "sip:a";
    request.contacts[1].address = "sip:b";
    request.contacts[2].expires = 0;
    applyRegistration(service, 34, request, answer);
    EXPECT_EQ(
        libpq.take(),
        R"(exec SELECT * FROM register_bindings(-1, NULL, NULL, 'call', 0, '', 0, 't', '{}'))"
        "\n"
        R"(exec SELECT * FROM register_bindings(34, NULL, NULL, 'call', 0, '', 0, 'f', '{{"sip:b","3600","","","",""},{"sip:a","0","","","",""}}'))"
        "\n");
}

TEST_F(RegistrationTest, AnswersForTheSchemasWord)
{
    EXPECT_EQ(answer(rows({outcomeRow("done")})), "okay\ndone\n");
    EXPECT_EQ(answer(rows({outcomeRow("unknown")})), "not found\nunknown address\n");
    EXPECT_EQ(answer(rows({outcomeRow("inactive")})), "not found\ninactive\n");
    EXPECT_EQ(answer(rows({outcomeRow("older")})),
              "constraint error: a newer request of the call came before\nolder request\n");
    EXPECT_EQ(answer(rows({outcomeRow("many")})),
              "constraint error: there would be too many bindings\ntoo many bindings\n");
    EXPECT_EQ(answer(rows({outcomeRow("Done")})),
              "query error: an answer to a registration that nobody knows: 'Done'\nfailed\n");
    EXPECT_EQ(answer(noRows(14)), "query error: an answer to a registration that nobody knows: ''\nfailed\n");
}

TEST_F(RegistrationTest, IsSentAgainAfterALostConnectionAndFailsLikeEveryStatement)
{
    libpq.replies({nothing(), rows({outcomeRow("done")})});
    EXPECT_EQ(apply(), "okay\ndone\n");
    EXPECT_EQ(libpq.take(), "exec " + kByKey + "\nreset\nexec " + kByKey + "\n");
    libpq.replies({refused("42601"), refused("42601")});
    EXPECT_EQ(apply(), "query error: " + spliced(kRefused, kByKey) + "\nfailed\n");
    libpq.take();
    loseForGood();
    EXPECT_EQ(apply(), "connection error: " + kServerGone + "\nfailed\n");
    EXPECT_EQ(libpq.take(), "reset\n");
}

TEST_F(RegistrationTest, SendsNothingForWhatIsNoRequest)
{
    RegisterAnswer answer{RegisterOutcome::done, {}};
    RegisterRequest request = wholeRequest();
    request.removesAll = true;
    EXPECT_EQ(show(applyRegistration(service, 34, request, answer)), "query error: contacts beside the removal of all");
    EXPECT_EQ(show(answer), "failed\n");
    request = wholeRequest();
    request.contacts.front().address.clear();
    EXPECT_EQ(show(applyRegistration(service, "alice", "oryx.example", request, answer)),
              "query error: a contact without an address");
    EXPECT_EQ(show(applyRegistration(service, nullptr, "oryx.example", wholeRequest(), answer)),
              "query error: invalid parameters");
    EXPECT_EQ(show(applyRegistration(service, "alice", nullptr, wholeRequest(), answer)),
              "query error: invalid parameters");
    EXPECT_EQ(libpq.take(), "");
}

/// A request for an address of record at oryx.example, and the statement for it.
oryx::Registration plainRequest(const std::string& handle, std::uint32_t cseq = 1)
{
    oryx::Registration made;
    made.handle = handle;
    made.domain = "oryx.example";
    made.request.callId = "call";
    made.request.cseq = cseq;
    made.answer.outcome = RegisterOutcome::done; // of an earlier call
    made.answer.bindings.resize(1);
    return made;
}

std::string plainStatement(const std::string& handle, const std::string& domain, int cseq = 1)
{
    return "SELECT * FROM register_bindings(NULL, '" + handle + "', '" + domain + "', 'call', " + std::to_string(cseq) +
           ", '', 0, 'f', '{}')";
}

TEST_F(RegistrationTest, SeveralGoOneByOneInTheOrderOfTheirAddresses)
{
    std::vector<oryx::Registration> all{plainRequest("bob", 2), plainRequest("carol"), plainRequest("bob", 1),
                                        plainRequest("alice")};
    all[1].domain = "abc.example";
    all[3].domain = "other.example";
    libpq.replies({rows({outcomeRow("many")}), rows({bindingRow("sip:b")}), rows({outcomeRow("older")}),
                   rows({outcomeRow("unknown")})});
    EXPECT_EQ(show(applyRegistrations(service, all)), "okay");
    EXPECT_EQ(show(all[0].answer), "done\n" + shownBinding("sip:b"));
    EXPECT_EQ(show(all[1].answer), "too many bindings\n");
    EXPECT_EQ(show(all[2].answer), "unknown address\n");
    EXPECT_EQ(show(all[3].answer), "older request\n");
    const std::vector<std::string> statements{
        plainStatement("carol", "abc.example"), plainStatement("bob", "oryx.example", 2),
        plainStatement("alice", "other.example"), plainStatement("bob", "oryx.example", 1)};
    EXPECT_EQ(libpq.take(), sent(statements));
}

TEST_F(RegistrationTest, OneOfSeveralFailsAlone)
{
    std::vector<oryx::Registration> all{plainRequest("alice"), plainRequest("bob"), plainRequest("carol")};
    libpq.replies({rows({outcomeRow("done")}), refused("54000"), refused("54000"), rows({outcomeRow("done")})});
    EXPECT_EQ(show(applyRegistrations(service, all)),
              "query error: ERROR:  refused\n, sqlState=54000, sqlcommand=" + plainStatement("bob", "oryx.example"));
    EXPECT_EQ(show(all[0].answer) + show(all[1].answer) + show(all[2].answer), "done\nfailed\ndone\n");
    libpq.take();
    loseForGood();
    libpq.resetsTo({CONNECTION_BAD, CONNECTION_BAD, CONNECTION_BAD});
    EXPECT_EQ(show(applyRegistrations(service, all)), "connection error: " + kServerGone);
    EXPECT_EQ(show(all[0].answer) + show(all[1].answer) + show(all[2].answer), "failed\nfailed\nfailed\n");
    EXPECT_EQ(libpq.take(), "reset\nreset\nreset\n");
    all.clear();
    EXPECT_EQ(show(applyRegistrations(service, all)), "okay");
}

TEST_F(RegistrationTest, OfSeveralWhoseMemoryRunsOutThoseThatAreDoneAreToldSo)
{
    const zel::TraceSink sink = zel::setTraceSink({}); // tracing has allocations of its own
    bool ranOut = true;
    for (std::size_t news = 0; ranOut; ++news) {
        SCOPED_TRACE("memory runs out after " + std::to_string(news));
        libpq.replies({rows({outcomeRow("done")}), rows({outcomeRow("done")})});
        std::vector<oryx::Registration> all{plainRequest("alice"), plainRequest("bob")};
        DatabaseResult result;
        countNewsOnly([] { return !fake::answering(); });
        failNewAfter(news);
        result = applyRegistrations(service, all);
        ranOut = newHasFailed();
        failNoNew();
        countNewsOnly(nullptr);
        libpq.dropReplies();
        EXPECT_EQ(show(result), ranOut ? "query error: out of memory" : "okay");
        const std::string answers = show(all[0].answer) + show(all[1].answer);
        EXPECT_TRUE(answers == "done\ndone\n" ||
                    (ranOut && (answers == "failed\nfailed\n" || answers == "done\nfailed\n")))
            << answers;
    }
    libpq.take();
    zel::setTraceSink(sink);
}

TEST_F(RegistrationTest, ReadsNumbersBeyondItsRangeAsTheNearest)
{
    std::vector<Cell> far = bindingRow("sip:a", "5", "4294967296");
    far[12] = "-1";
    libpq.replies({rows({far, bindingRow("sip:b", "6", std::nullopt)})});
    RegisterAnswer answer;
    applyRegistration(service, 34, wholeRequest(), answer);
    ASSERT_EQ(answer.bindings.size(), 2U);
    EXPECT_EQ(answer.bindings[0].expires, 4294967295U);
    EXPECT_EQ(answer.bindings[0].cseq, 0U);
    EXPECT_EQ(answer.bindings[0].contactId, 5);
    EXPECT_EQ(answer.bindings[1].expires, std::nullopt);
}

TEST_F(RegistrationTest, LiveBindingsAreOneStatementByKeyAndByAddress)
{
    BindingSet found;
    libpq.replies({rows({bindingRow("sip:a")}), rows({bindingRow("sip:b")}), rows({outcomeRow("inactive")})});
    EXPECT_EQ(show(lookupBindings(service, 34, found)), "okay");
    EXPECT_EQ(show(found), "sequential, kept\n" + shownBinding("sip:a"));
    EXPECT_EQ(show(lookupBindings(service, "alice", "oryx.example", found)), "okay");
    EXPECT_EQ(show(found), "sequential, kept\n" + shownBinding("sip:b"));
    EXPECT_EQ(show(lookupBindings(service, 34, found)), "not found");
    EXPECT_EQ(show(found), "sequential, kept\n" + shownBinding("sip:b"));
    EXPECT_EQ(libpq.take(), sent({kLookupByKey, kLookupByAddress, kLookupByKey}));
}

TEST_F(RegistrationTest, ATargetThatIsRegisteredTakesOneStatement)
{
    libpq.replies({rows({bindingRow("sip:a")})});
    EXPECT_EQ(find({"sip:alice@oryx.example", "alice", "oryx.example", true, true}),
              "okay\nregistered (alice@oryx.example is registered, with 1 live bindings)\nsequential, kept\n" +
                  shownBinding("sip:a"));
    EXPECT_EQ(libpq.take(), sent({kLookupByAddress}));
    EXPECT_EQ(trace.take("oryx"),
              traceLines("oryx", {kLookupByAddress, "alice@oryx.example is registered, with 1 live bindings"}));
}

TEST_F(RegistrationTest, ATargetIsAskedForStepByStep)
{
    const std::vector<Cell> map{"sequential", "f", "handle", "12", "^sip:5", "Wed Dec 17 07:37:16 1997", "1"};
    const TargetQuestion number{"sip:555@oryx.example", "555", "oryx.example", true, true};
    libpq.replies({rows({outcomeRow("unknown")}), rows({map}), rows({bindingRow("sip:$user@gateway")})});
    EXPECT_EQ(find(number), "okay\naddress map (an address map leads 555@oryx.example to contact set 12, with 1 live "
                            "bindings)\nsequential, kept\n" +
                                shownBinding("sip:555@gateway"));
    EXPECT_EQ(libpq.take(),
              sent({"SELECT * FROM register_bindings(NULL, '555', 'oryx.example', NULL, NULL, NULL, NULL, 'f', NULL)",
                    kMaps, spliced(kLookupBySet, "12")}));

    const std::vector<Cell> host{"leaf", "parent", "30", "", "", "t", "t", "sip:proxy", ""};
    libpq.replies({rows({outcomeRow("unknown")}), rows({map}), rows({host}), rows({bindingRow("sip:parent")})});
    EXPECT_EQ(find({"sip:alice@oryx.example", "alice", "oryx.example", true, true}),
              "okay\ndefault route (the default route leads alice@oryx.example to contact set 30, with 1 live "
              "bindings)\nsequential, kept\n" +
                  shownBinding("sip:parent"));
    EXPECT_EQ(libpq.take(), sent({kLookupByAddress, kMaps, kHost, spliced(kLookupBySet, "30")}));

    libpq.replies({rows({map}), rows({host}), noRows(3)});
    EXPECT_EQ(find({"sip:dave@elsewhere.example", "dave", "elsewhere.example", false, false}),
              "okay\noutbound (dave@elsewhere.example is elsewhere, and goes out through sip:proxy) through "
              "sip:proxy\nparallel, replaced\n");
    EXPECT_EQ(libpq.take(), sent({kMaps, kHost, kRules}));
}

TEST_F(RegistrationTest, ATargetIsNotLookedForByHalfAText)
{
    const std::string cut("alice\0s", 7);
    const std::string refused = "query error: a text of the question holds a NUL\nfailed ()\nparallel, replaced\n";
    EXPECT_EQ(find({cut, "alice", "oryx.example", true, true}), refused);
    EXPECT_EQ(find({"sip:alice@oryx.example", cut, "oryx.example", true, true}), refused);
    EXPECT_EQ(find({"sip:alice@oryx.example", "alice", cut, true, true}), refused);
    EXPECT_EQ(libpq.take(), "");
}

TEST_F(RegistrationTest, MemoryThatRunsOutLeavesNothingHalfSaid)
{
    const zel::TraceSink sink = zel::setTraceSink({}); // tracing has allocations of its own
    const std::string one = "okay\ndone\n" + shownBinding("sip:a-binding-of-some-length@192.0.2.1");
    bool ranOut = true;
    for (std::size_t news = 0; ranOut; ++news) {
        SCOPED_TRACE("memory runs out after " + std::to_string(news));
        libpq.replies({rows({bindingRow("sip:a-binding-of-some-length@192.0.2.1")})});
        const RegisterRequest request = wholeRequest();
        RegisterAnswer answer;
        DatabaseResult result;
        countNewsOnly([] { return !fake::answering(); });
        failNewAfter(news);
        result = applyRegistration(service, 34, request, answer);
        ranOut = newHasFailed();
        failNoNew();
        countNewsOnly(nullptr);
        libpq.dropReplies();
        EXPECT_EQ(show(result) + "\n" + show(answer), ranOut ? "query error: out of memory\nfailed\n" : one);
    }
    libpq.take();
    zel::setTraceSink(sink);
}

} // namespace

} // namespace registrationTest
