// Where a request goes: the address of record's bindings, an address map, the default route, or out.

#include <dal/RequestTarget.h>

#include <dal/internal/LocationAccess.h>
#include <dal/internal/Number.h>
#include <dal/location/Bindings.h>
#include <dal/location/LocationRows.h>

namespace oryx {

namespace {

std::string counted(const BindingSet& set)
{
    return std::to_string(set.bindings.size()) + " live bindings";
}

/// Whether a text would be cut where it goes to C.
bool isCut(const std::string& text)
{
    return text.find('\0') != std::string::npos;
}

/// A search for one request's target. Each step either decides or leaves it to the next.
class TargetSearch {
public:
    TargetSearch(LocationService& service, const TargetQuestion& question, RequestTarget& target)
        : m_service(service),
          m_executor(LocationAccess::executor(service)),
          m_question(question),
          m_target(target),
          m_whom(question.handle + "@" + question.domain)
    {
    }

    DatabaseResult run()
    {
        for (const auto step : {&TargetSearch::tryAddressOfRecord, &TargetSearch::tryAddressMaps}) {
            DatabaseResult result = (this->*step)();
            if (!result.okay() || m_target.reason != TargetReason::failed) {
                return result;
            }
        }
        if (m_known) {
            return decide(TargetReason::notRegistered, m_whom + " is not registered");
        }
        return m_question.served ? takeDefaultRoute() : goOut();
    }

private:
    DatabaseResult tryAddressOfRecord()
    {
        if (!m_question.served || m_question.handle.empty()) {
            return {};
        }
        BindingsFound found;
        DatabaseResult result =
            fetchBindings(frameOf(m_executor), {0, m_question.handle.c_str(), m_question.domain.c_str()}, found);
        if (!result.okay()) {
            return result;
        }
        if (found.outcome == "inactive") {
            return decide(TargetReason::inactiveSubscriber, "the subscriber of " + m_whom + " is inactive");
        }
        m_known = found.outcome == "done";
        if (found.set.bindings.empty()) {
            return {};
        }
        m_target.set = std::move(found.set);
        return decide(TargetReason::registered, m_whom + " is registered, with " + counted(m_target.set));
    }

    DatabaseResult tryAddressMaps()
    {
        int csid = 0;
        BindingSet set;
        std::vector<ContactRecord> addresses; // to be filled from the parts of the URI
        DatabaseResult result = LocationAccess::addressMaps(m_service).lookup(
            DatabaseResult(), m_question.uri.c_str(),
            {[&](QueryResult& maps) { return fetchAddressMaps(m_executor, maps); },
             [&](int mapped) {
                 csid = mapped;
                 return fetchSet(mapped, set, addresses);
             }},
            addresses);
        if (result.notFound()) {
            return {}; // no map matches
        }
        for (std::size_t i = 0; i < addresses.size(); ++i) {
            set.bindings[i].address = addresses[i].address();
        }
        return result.okay() ? decide(TargetReason::addressMap, "an address map leads " + m_whom, csid, std::move(set))
                             : result;
    }

    DatabaseResult takeDefaultRoute()
    {
        HostInfo info;
        DatabaseResult result = m_executor.getHostInfo(info);
        const int csid = leadingInt(info.parentContact().c_str());
        if (result.notFound() || (result.okay() && csid < 1)) {
            return decide(TargetReason::unknown, "nobody has " + m_whom + ", and there is no default route");
        }
        BindingSet set;
        std::vector<ContactRecord> ignored;
        result = result.okay() ? fetchSet(csid, set, ignored) : result;
        return result.okay()
                   ? decide(TargetReason::defaultRoute, "the default route leads " + m_whom, csid, std::move(set))
                   : result;
    }

    DatabaseResult goOut()
    {
        bool allowed = false;
        std::string proxy;
        DatabaseResult result = m_service.getOutboundRoute(m_question.uri.c_str(), m_question.internal, proxy, allowed);
        if (result.notFound() || (result.okay() && !allowed)) {
            return decide(TargetReason::notAllowed, "nothing may be sent to " + m_question.domain);
        }
        if (!result.okay()) {
            return result;
        }
        m_target.proxy = std::move(proxy);
        return decide(TargetReason::outbound, m_whom + " is elsewhere, and goes out " +
                                                  (m_target.proxy.empty() ? "directly" : "through " + m_target.proxy));
    }

    DatabaseResult fetchSet(int csid, BindingSet& set, std::vector<ContactRecord>& addresses)
    {
        BindingsFound found;
        DatabaseResult result = fetchBindings(frameOf(m_executor), csid, found);
        set = std::move(found.set);
        addresses.resize(set.bindings.size());
        for (std::size_t i = 0; i < addresses.size(); ++i) {
            addresses[i].setAddress(set.bindings[i].address.c_str());
        }
        return result;
    }

    /// A contact set has been led to.
    DatabaseResult decide(TargetReason reason, std::string why, int csid, BindingSet&& set)
    {
        why += " to contact set " + std::to_string(csid) + ", with " + counted(set);
        m_target.set = std::move(set);
        return decide(m_target.set.bindings.empty() ? TargetReason::notRegistered : reason, std::move(why));
    }

    DatabaseResult decide(TargetReason reason, std::string why)
    {
        m_target.reason = reason;
        m_target.why = std::move(why);
        zel::Trace("oryx").prn(m_target.why);
        DatabaseResult result;
        if (reason >= TargetReason::notRegistered) {
            result.setNotFound();
        }
        return result;
    }

    LocationService& m_service;
    DatabaseCommandExecutor& m_executor;
    const TargetQuestion& m_question;
    RequestTarget& m_target;
    std::string m_whom;
    bool m_known = false; // the address of record is there
};

} // namespace

DatabaseResult findTarget(LocationService& service, const TargetQuestion& question, RequestTarget& target)
{
    target = RequestTarget();
    return LocationAccess::guarded(service, [&] {
        if (isCut(question.uri) || isCut(question.handle) || isCut(question.domain)) {
            return frameOf(LocationAccess::executor(service)).refuse("a text of the question holds a NUL");
        }
        RequestTarget found;
        DatabaseResult result = TargetSearch(service, question, found).run();
        target = std::move(found);
        return result;
    });
}

} // namespace oryx
