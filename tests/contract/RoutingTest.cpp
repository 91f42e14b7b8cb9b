#include "contract/DeskContact.h"
#include "contract/ServiceFixture.h"

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace routingTest {

namespace {

using fake::Cell;
using fake::noRows;
using fake::nothing;
using fake::refused;
using fake::rows;
using oryx::DomainAccess;
using oryx::LocationService;

const std::string kHost = "SELECT * FROM host_info";
const std::string kRules = "SELECT direction,sip_domain,domain_action FROM domain_access ORDER BY qvalue";

/// The row of the host's settings that routing reads.
fake::Reply host(const Cell& allowInternal, const Cell& allowExternal, const Cell& proxy = "", const Cell& direct = "")
{
    return rows({{"leaf", "top", "17", "", "", allowInternal, allowExternal, proxy, direct}});
}

fake::Reply hostWithParent(const Cell& contact)
{
    return rows({{"leaf", "top", contact, "", "", "t", "t", "", ""}});
}

fake::Reply rulesReply(const fake::Rows& rules)
{
    return rules.empty() ? noRows(3) : rows(rules);
}

/// What the executor and the connection trace of the reading of the host's settings, and of the rules.
const std::string kHostTrace = traceLines("DatabaseCommandExecutor", {"looking up host info"}) + answeredTrace(kHost) +
                               traceLines("DatabaseCommandExecutor", {"host_info returned 1 rows"});
const std::string kRulesTrace =
    traceLines("DatabaseCommandExecutor", {"getting domain access list"}) + answeredTrace(kRules);

const std::string kBothSent = "exec " + kHost + "\nexec " + kRules + "\n";

/// What an outbound route fills, with something in each before the call.
struct Route {
    std::string proxy = "before";
    bool allowed = false;

    std::string after(const oryx::DatabaseResult& result) const
    {
        return show(result) + "\nproxy='" + proxy + "' allowed=" + (allowed ? "true" : "false") + "\n";
    }
};

std::string route(LocationService& service, const char* uri, bool internal, bool allowedBefore = false)
{
    Route route;
    route.allowed = allowedBefore;
    return route.after(service.getOutboundRoute(uri, internal, route.proxy, route.allowed));
}

/// The out arguments of a route that leaves them, with either verdict before the call.
const std::string kUntouched = "proxy='before' allowed=false\n";
const std::string kUntouchedToo = "proxy='before' allowed=true\n";

std::string inbound(LocationService& service, const char* domain, bool allowed)
{
    const std::string answer = show(service.checkInboundDomainAccess(domain, allowed));
    return answer + "\nallowed=" + (allowed ? "true" : "false") + "\n";
}

std::string defaultRoute(LocationService& service, Found found = {})
{
    return found.after(service.getDefaultRoute(found.ordering, found.replaceUri, found.contacts));
}

class Routing : public ConnectedServiceTest {};

// Whether a request may leave

/// A row of the decision table, for a request to example.com.
struct Verdict {
    std::string name;
    bool internal;
    Cell allowInternal;
    Cell allowExternal;
    fake::Rows rules;
    bool allowed;
    std::vector<std::string> trace; // of the decision
};

void PrintTo(const Verdict& row, std::ostream* out)
{
    *out << row.name;
}

class OutboundVerdict : public ConnectedServiceTest, public testing::WithParamInterface<Verdict> {
protected:
    static std::vector<std::string> rulesShown(const fake::Rows& rules)
    {
        if (rules.empty()) {
            return {"no domain access lists are set"};
        }
        std::vector<std::string> lines = {"domain access list:"};
        for (const std::vector<Cell>& rule : rules) {
            lines.push_back("domain=" + rule.at(1).value_or("") + " dir=" + rule.at(0).value_or("") +
                            " action=" + rule.at(2).value_or(""));
        }
        return lines;
    }
};

TEST_P(OutboundVerdict, FollowsFromTheHostsSettingAndTheRules)
{
    const Verdict& row = GetParam();
    libpq.replies({host(row.allowInternal, row.allowExternal), rulesReply(row.rules)});
    const bool before = !row.allowed;
    EXPECT_EQ(route(service, "sip:bob@example.com", row.internal, before),
              row.allowed ? "okay\nproxy='' allowed=true\n" : "okay\nproxy='before' allowed=false\n");
    EXPECT_EQ(libpq.take(), kBothSent);
    std::vector<std::string> lines = rulesShown(row.rules);
    lines.insert(lines.end(), row.trace.begin(), row.trace.end());
    if (row.allowed) {
        lines.emplace_back("no outbound proxy set");
    }
    EXPECT_EQ(trace.take("LocationService"), serviceTrace(lines));
}

std::vector<Verdict> verdicts()
{
    const std::string checking = "internal request not allowed, checking allowed list";
    const std::string checkingDenied = "internal request is allowed, checking deny list";
    const std::vector<std::string> granted = {"checking internal request", checking,
                                              "internal request granted by access list"};
    const std::vector<std::string> notGranted = {"checking internal request", checking,
                                                 "internal request not granted by access list"};
    const std::vector<std::string> denied = {"checking internal request", checkingDenied,
                                             "request denied by access list"};
    const std::vector<std::string> allowed = {"checking internal request", checkingDenied, "request is allowed"};
    const std::vector<std::string> external = {"checking external request", "external request is allowed"};
    const std::vector<std::string> notExternal = {"checking external request", "external request not allowed"};
    const std::vector<Cell> other = {"*", "example.org", "a"};
    const std::vector<Cell> allowOut = {"o", "example.com", "a"};
    const std::vector<Cell> allowBoth = {"*", "example.com", "a"};
    const std::vector<Cell> denyIn = {"i", "example.com", "d"};
    const std::vector<Cell> denyOut = {"o", "example.com", "d"};
    const std::vector<Cell> denyBoth = {"*", "example.com", "d"};
    return {
        {"GrantedOutbound", true, "f", "f", {other, allowOut}, true, granted},
        {"GrantedBothWays", true, "f", "f", {allowBoth}, true, granted},
        {"GrantedBehindADenial", true, "f", "f", {denyBoth, allowOut}, true, granted},
        {"GrantedBeforeADenial", true, "f", "f", {allowOut, denyBoth}, true, granted},
        {"NotGrantedWithoutRules", true, "f", "t", {}, false, notGranted},
        {"NotGrantedInbound", true, "f", "t", {{"i", "example.com", "a"}}, false, notGranted},
        {"NotGrantedByADenial", true, "f", "t", {denyOut}, false, notGranted},
        {"NotGrantedByAnotherDomain", true, "f", "t", {other, {"o", "a.example.com", "a"}}, false, notGranted},
        {"NotGrantedInAnotherCase",
         true,
         "f",
         "t",
         {{"o", "Example.com", "a"}, {"O", "example.com", "a"}, {"o", "example.com", "A"}},
         false,
         notGranted},
        {"NotGrantedByWildcardOrLongerWord",
         true,
         "f",
         "t",
         {{"*", "*", "a"}, {"out", "example.com", "a"}, {"o", "example.com", "allow"}},
         false,
         notGranted},
        {"NotGrantedByNulls",
         true,
         "f",
         "t",
         {{std::nullopt, "example.com", "a"}, {"o", std::nullopt, "a"}, {"o", "example.com", std::nullopt}},
         false,
         notGranted},
        {"DeniedOutbound", true, "t", "t", {other, denyOut}, false, denied},
        {"DeniedBothWays", true, "t", "t", {denyBoth}, false, denied},
        {"DeniedBehindAGrant", true, "t", "t", {allowOut, denyOut}, false, denied},
        {"DeniedBeforeAGrant", true, "t", "t", {denyOut, allowOut}, false, denied},
        {"AllowedWithoutRules", true, "t", "f", {}, true, allowed},
        {"AllowedWhenUnknown", true, std::nullopt, "f", {}, true, allowed},
        {"AllowedWithAnInboundDenial", true, "t", "f", {denyIn}, true, allowed},
        {"AllowedWithAGrant", true, "t", "f", {allowOut}, true, allowed},
        {"AllowedWithAnotherDenied",
         true,
         "t",
         "f",
         {{"o", "example.co", "d"}, {"o", "sub.example.com", "d"}, {"o", "EXAMPLE.com", "d"}},
         true,
         allowed},
        {"ExternalNotAllowed", false, "t", "f", {allowOut}, false, notExternal},
        {"ExternalNotAllowedWhenUnknown", false, "t", std::nullopt, {}, false, notExternal},
        {"ExternalAllowed", false, "f", "t", {}, true, external},
        {"ExternalAllowedInSpiteOfADenial", false, "f", "t", {denyOut, denyBoth}, true, external},
    };
}

INSTANTIATE_TEST_SUITE_P(Of, OutboundVerdict, testing::ValuesIn(verdicts()), kRowName);

TEST_F(Routing, IsTracedFromTheHostsSettingsToTheProxy)
{
    libpq.replies({host("t", "f", "sip:out%s.oryx.example", "a%n,example.com"),
                   rows({{"i", "100%s.example", "d"}, {"*", std::nullopt, "a"}})});
    EXPECT_EQ(route(service, "sip:bob@example.com:5070", true), "okay\nproxy='' allowed=true\n");
    EXPECT_EQ(libpq.take(), kBothSent);
    EXPECT_EQ(trace.take(), kHostTrace + kRulesTrace +
                                serviceTrace({"domain access list:", "domain=100%s.example dir=i action=d",
                                              "domain= dir=* action=a", "checking internal request",
                                              "internal request is allowed, checking deny list", "request is allowed",
                                              "setting outbound proxy", "checking host example.com for proxy bypass",
                                              "checking a%n", "checking example.com", "proxy bypass is being used"}));
}

TEST_F(Routing, SendsTheSameWithTracingOff)
{
    zel::setTraceSink({});
    libpq.replies({host("t", "t"), rows({{"o", "example.com", "d"}})});
    EXPECT_EQ(route(service, "sip:bob@example.com", true), "okay\nproxy='before' allowed=false\n");
    EXPECT_EQ(libpq.take(), kBothSent);
}

// Through which proxy

struct ProxyChoice {
    std::string name;
    Cell direct; // the bypass list
    std::string uri;
    bool bypassed;
    std::vector<std::string> trace; // of the search
};

void PrintTo(const ProxyChoice& row, std::ostream* out)
{
    *out << row.name;
}

class OutboundProxy : public ConnectedServiceTest, public testing::WithParamInterface<ProxyChoice> {};

TEST_P(OutboundProxy, IsUsedUnlessTheHostIsReachedDirectly)
{
    const ProxyChoice& row = GetParam();
    const std::string answer =
        row.bypassed ? "okay\nproxy='' allowed=true\n" : "okay\nproxy='sip:out.oryx.example' allowed=true\n";
    for (const bool internal : {true, false}) {
        libpq.replies({host("t", "t", "sip:out.oryx.example", row.direct), noRows(3)});
        EXPECT_EQ(route(service, row.uri.c_str(), internal), answer);
        std::vector<std::string> lines = {"no domain access lists are set"};
        if (internal) {
            lines.insert(lines.end(), {"checking internal request", "internal request is allowed, checking deny list",
                                       "request is allowed"});
        } else {
            lines.insert(lines.end(), {"checking external request", "external request is allowed"});
        }
        lines.emplace_back("setting outbound proxy");
        lines.insert(lines.end(), row.trace.begin(), row.trace.end());
        EXPECT_EQ(trace.take("LocationService"), serviceTrace(lines));
    }
}

std::vector<ProxyChoice> proxyChoices()
{
    const std::string bob = "sip:bob@example.com";
    const std::string start = "checking host example.com for proxy bypass";
    const std::string bypass = "proxy bypass is being used";
    return {
        {"NoList", "", bob, false, {start}},
        {"NullList", std::nullopt, bob, false, {start}},
        {"OnlyDelimiters", " ,;: :;", bob, false, {start}},
        {"OneHost", "example.com", bob, true, {start, "checking example.com", bypass}},
        {"ThirdHost",
         "a.example b.example;example.com",
         bob,
         true,
         {start, "checking a.example", "checking b.example", "checking example.com", bypass}},
        {"EveryDelimiter",
         "a b,c;d:example.com",
         bob,
         true,
         {start, "checking a", "checking b", "checking c", "checking d", "checking example.com", bypass}},
        {"RunsOfDelimiters",
         " ,a.example,; :example.com:",
         bob,
         true,
         {start, "checking a.example", "checking example.com", bypass}},
        {"NoFurtherThanTheFirst",
         "example.com example.com,a.example",
         bob,
         true,
         {start, "checking example.com", bypass}},
        {"HostWithAPortInTheList", "example.com:5060", bob, true, {start, "checking example.com", bypass}},
        {"UriWithEveryPart",
         "example.com",
         "sips:bob:secret@example.com:5061;transport=tcp?Subject=a.example",
         true,
         {start, "checking example.com", bypass}},
        {"OtherHosts", "a.example,b.example", bob, false, {start, "checking a.example", "checking b.example"}},
        {"SuffixOfAListedHost", "www.example.com", bob, false, {start, "checking www.example.com"}},
        {"ListedHostIsASuffix", "com", bob, false, {start, "checking com"}},
        {"AnotherCase", "Example.com", bob, false, {start, "checking Example.com"}},
        {"AnotherDelimiter",
         "a.example/example.com|example.com\texample.com",
         bob,
         false,
         {start, "checking a.example/example.com|example.com\texample.com"}},
        {"AddressAsHost",
         "192.0.2.1 192.0.2.10",
         "sip:192.0.2.10",
         true,
         {"checking host 192.0.2.10 for proxy bypass", "checking 192.0.2.1", "checking 192.0.2.10", bypass}},
    };
}

INSTANTIATE_TEST_SUITE_P(Of, OutboundProxy, testing::ValuesIn(proxyChoices()), kRowName);

TEST_F(Routing, NeedsNoProxyWhereNoneIsSet)
{
    libpq.replies({host("t", "t", std::nullopt, "example.com"), noRows(3)});
    EXPECT_EQ(route(service, "sip:bob@example.com", false), "okay\nproxy='' allowed=true\n");
    EXPECT_EQ(trace.take("LocationService"),
              serviceTrace({"no domain access lists are set", "checking external request",
                            "external request is allowed", "no outbound proxy set"}));
}

TEST_F(Routing, LeavesTheProxyOfARequestThatMayNotLeave)
{
    libpq.replies({host("f", "f", "sip:out.oryx.example", "example.com"), noRows(3)});
    EXPECT_EQ(route(service, "sip:bob@example.com", true, true), "okay\n" + kUntouched);
    libpq.replies({host("f", "f", "sip:out.oryx.example", "example.com"), noRows(3)});
    EXPECT_EQ(route(service, "sip:bob@example.com", false, true), "okay\n" + kUntouched);
}

TEST_F(Routing, ReadsTheDatabaseOnEveryCall)
{
    libpq.replies({host("t", "t", "sip:a"), noRows(3), host("t", "t", "sip:b"), rows({{"o", "example.com", "d"}}),
                   host("t", "t", "sip:c"), noRows(3)});
    EXPECT_EQ(route(service, "sip:bob@example.com", true), "okay\nproxy='sip:a' allowed=true\n");
    EXPECT_EQ(route(service, "sip:bob@example.com", true), "okay\n" + kUntouched);
    EXPECT_EQ(route(service, "sip:bob@example.com", true), "okay\nproxy='sip:c' allowed=true\n");
    EXPECT_EQ(libpq.take(), kBothSent + kBothSent + kBothSent);
}

// Where no route, or not the whole of it, can be given

TEST_F(Routing, RefusesANullUriBeforeAnythingIsSent)
{
    libpq.loseConnection(); // not even looked at
    const std::string refused = "query error: getOutboundRoute: null outbound uri\n";
    EXPECT_EQ(route(service, nullptr, true), refused + kUntouched);
    EXPECT_EQ(route(service, nullptr, false, true), refused + kUntouchedToo);
    EXPECT_EQ(libpq.take(), "");
    EXPECT_EQ(trace.take(), "");
}

TEST_F(Routing, RefusesAnInvalidUriOnceTheTablesAreRead)
{
    const std::string refused = "query error: getOutboundRoute: invalid outbound uri\n";
    for (const char* const uri : {"", "example.com", "tel:+12125551212", "sip:bob@", "sip:bob@example.com:0"}) {
        for (const bool internal : {true, false}) {
            libpq.replies({host("t", "t", "sip:out.oryx.example"), noRows(3)});
            EXPECT_EQ(route(service, uri, internal, internal), refused + (internal ? kUntouchedToo : kUntouched))
                << uri;
            EXPECT_EQ(libpq.take(), kBothSent);
            EXPECT_EQ(trace.take("LocationService"), serviceTrace({"no domain access lists are set"}));
        }
    }
}

TEST_F(Routing, AnswersForTheHostsSettingsWhenTheyCannotBeRead)
{
    libpq.replies({noRows(9), refused("42601"), refused("42601")});
    EXPECT_EQ(route(service, "sip:bob@example.com", true), "not found\n" + kUntouched);
    EXPECT_EQ(libpq.take(), "exec " + kHost + "\n");
    EXPECT_EQ(route(service, "sip:bob@example.com", false, true),
              "query error: " + spliced(kRefused, kHost) + "\n" + kUntouchedToo);
    EXPECT_EQ(libpq.take(), "exec " + kHost + "\nreset\nexec " + kHost + "\n");
    loseForGood();
    EXPECT_EQ(route(service, "not a uri", true), "connection error: " + kServerGone + "\n" + kUntouched);
    EXPECT_EQ(libpq.take(), "reset\n");
    EXPECT_EQ(trace.take("LocationService"),
              serviceTrace({"getHostInfo failed", "getHostInfo failed", "getHostInfo failed"}));
}

/// Rules that cannot be read: what libpq does, and the result that the caller keeps.
struct UnreadRules {
    std::string name;
    std::vector<fake::Reply> replies;
    std::vector<ConnStatusType> resets;
    std::string result;
};

void PrintTo(const UnreadRules& row, std::ostream* out)
{
    *out << row.name;
}

class WithoutRules : public ConnectedServiceTest, public testing::WithParamInterface<UnreadRules> {
protected:
    void script(const fake::Reply& host)
    {
        libpq.replies({host});
        libpq.replies(GetParam().replies);
        libpq.resetsTo(GetParam().resets);
    }
};

TEST_P(WithoutRules, ARequestIsRoutedAsIfThereWereNone)
{
    script(host("t", "f", "sip:out.oryx.example", "a.example"));
    EXPECT_EQ(route(service, "sip:bob@example.com", true),
              GetParam().result + "\nproxy='sip:out.oryx.example' allowed=true\n");
    EXPECT_EQ(trace.take("LocationService"),
              serviceTrace({"checking internal request", "internal request is allowed, checking deny list",
                            "request is allowed", "setting outbound proxy",
                            "checking host example.com for proxy bypass", "checking a.example"}));
}

TEST_P(WithoutRules, NoInternalRequestIsGranted)
{
    script(host("f", "f"));
    EXPECT_EQ(route(service, "sip:bob@example.com", true, true), GetParam().result + "\n" + kUntouched);
    EXPECT_EQ(trace.take("LocationService"),
              serviceTrace({"checking internal request", "internal request not allowed, checking allowed list",
                            "internal request not granted by access list"}));
}

TEST_P(WithoutRules, AnExternalRequestFollowsTheHostsSetting)
{
    script(host("f", "t"));
    EXPECT_EQ(route(service, "sip:bob@example.com", false), GetParam().result + "\nproxy='' allowed=true\n");
}

TEST_P(WithoutRules, AnInvalidUriIsWhatTheCallerHearsOf)
{
    script(host("t", "t"));
    EXPECT_EQ(route(service, "sip:", true), "query error: getOutboundRoute: invalid outbound uri\n" + kUntouched);
    EXPECT_EQ(trace.take("LocationService"), "");
}

TEST_P(WithoutRules, AnInboundRequestHasNoVerdict)
{
    libpq.replies(GetParam().replies);
    libpq.resetsTo(GetParam().resets);
    EXPECT_EQ(inbound(service, "example.com", false), GetParam().result + "\nallowed=false\n");
    EXPECT_EQ(trace.take("LocationService"), serviceTrace({"checking inbound domain access list", "database error"}));
    libpq.replies(GetParam().replies);
    libpq.resetsTo(GetParam().resets.empty() ? std::vector<ConnStatusType>{}
                                             : std::vector<ConnStatusType>{CONNECTION_OK, CONNECTION_BAD});
    EXPECT_EQ(inbound(service, "example.com", true), GetParam().result + "\nallowed=true\n");
}

INSTANTIATE_TEST_SUITE_P(That, WithoutRules,
                         testing::Values(UnreadRules{"WereRefused",
                                                     {refused("42601"), refused("42601")},
                                                     {},
                                                     "query error: " + spliced(kRefused, kRules)},
                                         UnreadRules{"WentWithTheConnection",
                                                     {nothing()},
                                                     {CONNECTION_BAD},
                                                     "connection error: fatal error, query failed"}),
                         kRowName);

// Rules for outbound requests, by themselves

TEST(OutboundRules, DenyOrAllowWhereverTheyStand)
{
    const auto verdict = [](const std::vector<std::vector<const char*>>& rules) {
        std::vector<DomainAccess> list;
        for (const std::vector<const char*>& rule : rules) {
            DomainAccess& access = list.emplace_back();
            access.setDirection(rule.at(0));
            access.setDomain(rule.at(1));
            access.setAction(rule.at(2));
        }
        std::string host = "example.com";
        return std::string(oryx::checkOutboundDenied(list, host) ? "denied " : "") +
               (oryx::checkOutboundAllowed(list, host) ? "allowed" : "");
    };
    EXPECT_EQ(verdict({}), "");
    EXPECT_EQ(verdict({{"o", "example.com", "d"}}), "denied ");
    EXPECT_EQ(verdict({{"*", "example.com", "d"}}), "denied ");
    EXPECT_EQ(verdict({{"o", "example.com", "a"}}), "allowed");
    EXPECT_EQ(verdict({{"*", "example.com", "a"}}), "allowed");
    EXPECT_EQ(verdict({{"o", "example.com", "a"}, {"o", "example.com", "d"}}), "denied allowed");
    EXPECT_EQ(verdict({{"*", "example.com", "d"}, {"i", "example.com", "x"}, {"*", "example.com", "a"}}),
              "denied allowed");
    EXPECT_EQ(verdict({{"i", "example.com", "d"}, {"i", "example.com", "a"}, {"", "example.com", "a"}}), "");
    EXPECT_EQ(verdict({{"o", "example.org", "d"}, {"o", "a.example.com", "a"}, {"o", "", "d"}, {"o", "*", "a"}}), "");
    EXPECT_EQ(verdict({{"O", "example.com", "a"}, {"o", "EXAMPLE.com", "d"}, {"o", "example.com", "D"}}), "");
    EXPECT_EQ(verdict({{"o*", "example.com", "a"}, {"o", "example.com", "deny"}, {"o", "example.com", ""}}), "");
}

// Requests from other domains

/// A request from example.com.
struct Inbound {
    std::string name;
    fake::Rows rules;
    bool allowed;
};

void PrintTo(const Inbound& row, std::ostream* out)
{
    *out << row.name;
}

class InboundVerdict : public ConnectedServiceTest, public testing::WithParamInterface<Inbound> {};

TEST_P(InboundVerdict, IsToAllowUnlessARuleDenies)
{
    const Inbound& row = GetParam();
    libpq.replies({rulesReply(row.rules)});
    EXPECT_EQ(inbound(service, "example.com", !row.allowed),
              std::string("okay\nallowed=") + (row.allowed ? "true\n" : "false\n"));
    EXPECT_EQ(libpq.take(), "exec " + kRules + "\n");
    EXPECT_EQ(trace.take("LocationService"), serviceTrace({"checking inbound domain access list"}));
}

std::vector<Inbound> inboundRequests()
{
    const std::vector<Cell> allowIn = {"i", "example.com", "a"};
    const std::vector<Cell> denyIn = {"i", "example.com", "d"};
    const std::vector<Cell> denyBoth = {"*", "example.com", "d"};
    return {
        {"NoRules", {}, true},
        {"Allowed", {allowIn, {"*", "example.com", "a"}}, true},
        {"Denied", {{"i", "example.org", "a"}, denyIn}, false},
        {"DeniedBothWays", {denyBoth}, false},
        {"DeniedBehindAnAllowance", {allowIn, denyIn}, false},
        {"DeniedBeforeAnAllowance", {denyBoth, allowIn}, false},
        {"DeniedOutbound", {{"o", "example.com", "d"}}, true},
        {"AnotherDomainDenied", {{"i", "a.example.com", "d"}, {"i", "com", "d"}, {"i", "*", "d"}}, true},
        {"AnotherCase", {{"i", "Example.com", "d"}, {"I", "example.com", "d"}, {"i", "example.com", "D"}}, true},
        {"Nulls",
         {{std::nullopt, "example.com", "d"}, {"i", std::nullopt, "d"}, {"i", "example.com", std::nullopt}},
         true},
    };
}

INSTANTIATE_TEST_SUITE_P(Of, InboundVerdict, testing::ValuesIn(inboundRequests()), kRowName);

TEST_F(Routing, AnInboundRequestIsTracedThroughTheReadingOfTheRules)
{
    libpq.replies({rows({{"i", "example.com", "d"}})});
    EXPECT_EQ(inbound(service, "example.com", true), "okay\nallowed=false\n");
    EXPECT_EQ(trace.take(), serviceTrace({"checking inbound domain access list"}) + kRulesTrace);
}

TEST_F(Routing, ANullInboundDomainIsAllowedAsOneThatNoRuleNames)
{
    libpq.replies({rows({{"i", std::nullopt, "d"}, {"*", "", "d"}, {"i", "null", "d"}})});
    EXPECT_EQ(inbound(service, nullptr, false), "okay\nallowed=true\n");
    EXPECT_EQ(libpq.take(), "exec " + kRules + "\n");
}

// Where a request goes when nothing else is known

TEST_F(Routing, TheDefaultRouteIsTheParentsContactSet)
{
    Found held;
    held.contacts = {desk()};
    libpq.replies({hostWithParent("17"), rows({contactOfSet("sip:$user@hub"), contactOfSet("sip:hub2")})});
    EXPECT_EQ(defaultRoute(service, held), "okay\nordering='parallel' replace=false\n" + kDesk +
                                               shownContactOfSet("sip:$user@hub") + shownContactOfSet("sip:hub2"));
    EXPECT_EQ(libpq.take(), "exec " + kHost + "\nexec " + spliced(kContactsOfSet, "17") + "\n");
}

TEST_F(Routing, TheDefaultRouteIsTracedFromTheHostsSettingsToTheContacts)
{
    libpq.replies({hostWithParent("17"), rows({contactOfSet("sip:hub")})});
    defaultRoute(service);
    EXPECT_EQ(trace.take(), serviceTrace({"getting host info"}) + kHostTrace +
                                serviceTrace({"fetching contacts for csid=17"}) + contactOfSetTrace("17"));
}

TEST_F(Routing, TheDefaultRouteIsOkayWithoutContacts)
{
    libpq.replies({hostWithParent("17"), noRows(10)});
    EXPECT_EQ(defaultRoute(service), "okay\nordering='before' replace=true\n");
}

TEST_F(Routing, TheParentsContactIsReadAsANumber)
{
    const auto lookedUp = [this](const char* contact) {
        libpq.replies({hostWithParent(contact), noRows(10)});
        EXPECT_EQ(defaultRoute(service), "okay\nordering='before' replace=true\n");
        EXPECT_EQ(trace.take("LocationService"),
                  serviceTrace({"getting host info", std::string("fetching contacts for csid=") + contact}));
        return libpq.take();
    };
    const auto statement = [](const char* csid) {
        return "exec " + kHost + "\nexec " + spliced(kContactsOfSet, csid) + "\n";
    };
    EXPECT_EQ(lookedUp("+0018"), statement("18"));
    EXPECT_EQ(lookedUp(" 18 sip:hub%s"), statement("18"));
    EXPECT_EQ(lookedUp("2147483647"), statement("2147483647"));
    EXPECT_EQ(lookedUp("2147483648"), statement("2147483647"));
    EXPECT_EQ(lookedUp("99999999999999999999"), statement("2147483647"));
}

TEST_F(Routing, AParentsContactThatIsNoContactSetIsRefusedByTheContactLookup)
{
    for (const char* const contact : {"", "sip:hub.oryx.example", "x17", "0", "-1", "-99999999999999999999"}) {
        libpq.replies({hostWithParent(contact)});
        EXPECT_EQ(defaultRoute(service), "query error: NULL csid\nordering='before' replace=true\n") << contact;
        EXPECT_EQ(libpq.take(), "exec " + kHost + "\n");
        EXPECT_EQ(trace.take("LocationService"),
                  serviceTrace({"getting host info", std::string("fetching contacts for csid=") + contact}));
    }
    libpq.replies({hostWithParent(std::nullopt)});
    EXPECT_EQ(defaultRoute(service), "query error: NULL csid\nordering='before' replace=true\n");
}

TEST_F(Routing, TheDefaultRouteAnswersForTheHostsSettingsWhenTheyCannotBeRead)
{
    const std::string untouched = "\nordering='before' replace=false\n";
    libpq.replies({noRows(9), refused("42601"), refused("42601")});
    EXPECT_EQ(defaultRoute(service), "not found" + untouched);
    EXPECT_EQ(defaultRoute(service), "query error: " + spliced(kRefused, kHost) + untouched);
    EXPECT_EQ(libpq.take(), "exec " + kHost + "\nexec " + kHost + "\nreset\nexec " + kHost + "\n");
    loseForGood();
    EXPECT_EQ(defaultRoute(service), "connection error: " + kServerGone + untouched);
    EXPECT_EQ(libpq.take(), "reset\n");
    const std::vector<std::string> failed = {"getting host info", "getHostInfo failed"};
    EXPECT_EQ(trace.take("LocationService"), serviceTrace(failed) + serviceTrace(failed) + serviceTrace(failed));
}

TEST_F(Routing, TheDefaultRouteAnswersAsTheContactLookupDoes)
{
    libpq.replies({hostWithParent("17"), refused("42601"), refused("42601"), hostWithParent("17"), nothing()});
    EXPECT_EQ(defaultRoute(service), "query error: " + spliced(kRefused, spliced(kContactsOfSet, "17")) +
                                         "\nordering='before' replace=true\n");
    libpq.resetsTo({CONNECTION_BAD});
    EXPECT_EQ(defaultRoute(service), "connection error: fatal error, query failed\nordering='before' replace=true\n");
    const std::vector<std::string> lines = {"getting host info", "fetching contacts for csid=17"};
    EXPECT_EQ(trace.take("LocationService"), serviceTrace(lines) + serviceTrace(lines));
}

// Without a connection

/// A question to a service that was never connected.
struct Question {
    std::string name;
    std::function<std::string(LocationService&)> ask;
    std::string outArguments;
};

void PrintTo(const Question& question, std::ostream* out)
{
    *out << question.name;
}

class NeverConnectedRouting : public testing::TestWithParam<Question>, protected ConnectedService {};

TEST_P(NeverConnectedRouting, IsAConnectionErrorThatLeavesTheOutArguments)
{
    EXPECT_EQ(GetParam().ask(service), kNeverConnected + GetParam().outArguments);
    EXPECT_EQ(libpq.take(), "");
    EXPECT_EQ(trace.take(), "");
}

std::vector<Question> questions()
{
    const auto routes = [](const char* uri, bool before) {
        return [uri, before](LocationService& service) { return route(service, uri, true, before); };
    };
    const auto asksInbound = [](const char* domain, bool before) {
        return [domain, before](LocationService& service) { return inbound(service, domain, before); };
    };
    return {
        {"getDefaultRoute", [](auto& service) { return defaultRoute(service); }, "ordering='before' replace=false\n"},
        {"getOutboundRoute", routes("sip:bob@example.com", false), kUntouched},
        {"getOutboundRouteAllowedBefore", routes("sip:bob@example.com", true), kUntouchedToo},
        {"getOutboundRouteOfANullUri", routes(nullptr, false), kUntouched},
        {"checkInboundDomainAccess", asksInbound("example.com", false), "allowed=false\n"},
        {"checkInboundDomainAccessAllowedBefore", asksInbound(nullptr, true), "allowed=true\n"},
    };
}

INSTANTIATE_TEST_SUITE_P(Service, NeverConnectedRouting, testing::ValuesIn(questions()), kRowName);

} // namespace

} // namespace routingTest
