// The proxy's questions to the location service: where a request goes, and whether it may.

#include <dal/LocationService.h>

#include <dal/internal/LocationGuard.h>
#include <dal/internal/Number.h>

#include <StringTokenizer.h>
#include <wex/Uri.h>

#include <algorithm>
#include <string_view>

namespace oryx {

namespace {

/// Whether a rule for that domain, in that direction or in both, has that action; other rules do not stop the search.
bool anyRule(const std::vector<DomainAccess>& list, std::string_view domain, const char* direction, const char* action)
{
    return std::any_of(list.begin(), list.end(), [&](const DomainAccess& rule) {
        return rule.domain() == domain && (rule.direction() == direction || rule.direction() == "*") &&
               rule.action() == action;
    });
}

} // namespace

bool checkOutboundDenied(std::vector<DomainAccess>& list, std::string& host)
{
    return anyRule(list, host, "o", "d");
}

bool checkOutboundAllowed(std::vector<DomainAccess>& list, std::string& host)
{
    return anyRule(list, host, "o", "a");
}

DatabaseResult LocationService::getDefaultRoute(std::string& ordering, bool& replaceUri,
                                                std::vector<ContactRecord>& contacts)
{
    return guarded([&] {
        m_trace.prn("getting host info");
        HostInfo info;
        DatabaseResult result = m_exec->getHostInfo(info);
        if (!result.okay()) {
            m_trace.prn("getHostInfo failed");
            return result;
        }
        m_trace.prn("fetching contacts for csid=%s", info.parentContact().c_str());
        return m_exec->lookupContacts(ordering, leadingInt(info.parentContact().c_str()), replaceUri, contacts);
    });
}

DatabaseResult LocationService::getOutboundRoute(const char* uri, bool internal, std::string& proxy, bool& allowed)
{
    return guarded([&] {
        DatabaseResult result;
        if (uri == nullptr) {
            result.setQueryError();
            result.setErrorMessage("getOutboundRoute: null outbound uri");
            return result;
        }
        HostInfo info;
        result = m_exec->getHostInfo(info);
        if (!result.okay()) {
            m_trace.prn("getHostInfo failed");
            return result;
        }
        // A failed reading of the rules is reported, and the request is still routed, as if there were none.
        std::vector<DomainAccess> rules;
        result = m_exec->getDomainAccessList(rules);
        if (result.okay()) {
            traceRules(rules);
        }
        const wex::Uri request(uri);
        if (!request.isValid()) {
            result.setQueryError();
            result.setErrorMessage("getOutboundRoute: invalid outbound uri");
            return result;
        }
        std::string host = request.getHost();
        const bool granted = internal ? internalAllowed(info, rules, host) : externalAllowed(info);
        if (granted) {
            chooseProxy(info, host, proxy);
        }
        allowed = granted; // only now: where memory runs out, it is what it was
        return result;
    });
}

void LocationService::traceRules(const std::vector<DomainAccess>& rules)
{
    if (!zel::Trace::enabled(zel::TraceKind::prn)) {
        return;
    }
    m_trace.prn(rules.empty() ? "no domain access lists are set" : "domain access list:");
    for (const DomainAccess& rule : rules) {
        std::string text;
        rule.toString(text);
        m_trace.prn(text);
    }
}

bool LocationService::internalAllowed(const HostInfo& info, std::vector<DomainAccess>& rules, std::string& host)
{
    m_trace.prn("checking internal request");
    if (!info.outboundAllowInternal()) {
        m_trace.prn("internal request not allowed, checking allowed list");
        const bool granted = checkOutboundAllowed(rules, host);
        m_trace.prn(granted ? "internal request granted by access list"
                            : "internal request not granted by access list");
        return granted;
    }
    m_trace.prn("internal request is allowed, checking deny list");
    const bool denied = checkOutboundDenied(rules, host);
    m_trace.prn(denied ? "request denied by access list" : "request is allowed");
    return !denied;
}

bool LocationService::externalAllowed(const HostInfo& info)
{
    m_trace.prn("checking external request");
    m_trace.prn(info.outboundAllowExternal() ? "external request is allowed" : "external request not allowed");
    return info.outboundAllowExternal();
}

void LocationService::chooseProxy(const HostInfo& info, const std::string& host, std::string& proxy)
{
    if (info.outboundProxy().empty()) {
        m_trace.prn("no outbound proxy set");
        proxy.clear();
        return;
    }
    m_trace.prn("setting outbound proxy");
    proxy = bypassesProxy(info, host) ? std::string() : info.outboundProxy();
}

bool LocationService::bypassesProxy(const HostInfo& info, const std::string& host)
{
    m_trace.prn("checking host %s for proxy bypass", host.c_str());
    StringTokenizer direct(info.outboundDirect(), " ,;:");
    while (direct.hasMoreTokens()) {
        const std::string token = direct.nextToken();
        m_trace.prn("checking %s", token.c_str());
        if (token == host) {
            m_trace.prn("proxy bypass is being used");
            return true;
        }
    }
    return false;
}

DatabaseResult LocationService::checkInboundDomainAccess(const char* domain, bool& allowed)
{
    return guarded([&] {
        m_trace.prn("checking inbound domain access list");
        std::vector<DomainAccess> rules;
        DatabaseResult result = m_exec->getDomainAccessList(rules);
        if (!result.okay()) {
            m_trace.prn("database error");
            return result;
        }
        allowed = domain == nullptr || !anyRule(rules, domain, "i", "d");
        return result;
    });
}

} // namespace oryx
