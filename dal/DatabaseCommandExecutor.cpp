#include <dal/DatabaseCommandExecutor.h>

#include <dal/internal/Call.h>
#include <dal/internal/Frame.h>
#include <dal/internal/SystemParameters.h>

#include <atomic>
#include <memory>
#include <string_view>
#include <utility>

namespace oryx {

namespace {

using Domains = std::vector<std::string>;

/// The domains that this process answers for, null while unknown: read once, shared by all location executors, never
/// freed. There is no lock that a child process could inherit held.
std::atomic<const Domains*> knownDomains = nullptr;

/// Keeps the domains, if there are any, unless another thread has read them meanwhile.
void keepDomains(Domains&& domains)
{
    if (domains.empty()) {
        return;
    }
    auto read = std::make_unique<const Domains>(std::move(domains));
    const Domains* known = nullptr;
    if (knownDomains.compare_exchange_strong(known, read.get(), std::memory_order_acq_rel)) {
        static_cast<void>(read.release());
    }
}

/// What printf makes of a format without arguments. What would need one stands as it is: it came with a value.
std::string formatted(std::string_view format)
{
    std::string text;
    text.reserve(format.size());
    while (!format.empty()) {
        text += format.front();
        format.remove_prefix(format.starts_with("%%") ? 2 : 1);
    }
    return text;
}

/// Lives while this thread reads the domain list: a trace sink that asks for it meanwhile would have it read again, and
/// with every line of that reading once more.
class DomainReading {
public:
    DomainReading() { underWay = true; }
    ~DomainReading() { underWay = false; }
    DomainReading(const DomainReading&) = delete;
    DomainReading& operator=(const DomainReading&) = delete;

    static thread_local bool underWay;
};

thread_local bool DomainReading::underWay = false;

/// Runs a command without checking the connection first, and answers with `result`.
template <typename Command>
void executeTraced(Frame& frame, Command&& command, DatabaseResult& result, QueryResult& qres)
{
    const Call call(frame);
    if (zel::Trace::enabled(zel::TraceKind::prn)) {
        frame.trace.prn("******** transactionExecute(): cmd=\n" + formatted(frame.textOf(command)));
    }
    const Run outcome = frame.send(command, qres);
    if (outcome == Run::okay) {
        result.setOkay();
        result.setSqlState({});
        return;
    }
    frame.trace.prn(outcome == Run::connectionFailed ? "execute update failed" : "query error");
    frame.keepReason(outcome, qres);
    result = outcome == Run::connectionFailed ? frame.connectionError() : frame.queryError();
}

} // namespace

DatabaseCommandExecutor::DatabaseCommandExecutor() : CommandExecutor("DatabaseCommandExecutor") {}

std::string& DatabaseCommandExecutor::getErrorMessage()
{
    return m_frame->errorText;
}

DatabaseResult& DatabaseCommandExecutor::transactionExecute(const std::string& cmd, DatabaseResult& result,
                                                            QueryResult& qres, bool isTransaction)
{
    if (!m_frame->attempt([&] { executeTraced(*m_frame, cmd, result, qres); })) {
        result = m_frame->queryError();
    }
    if (!result.okay() && isTransaction && (!m_frame->connection || !m_frame->connection->execute("ROLLBACK;", qres))) {
        m_frame->trace.prn("rollback execution failed\n");
    }
    return result;
}

std::string DatabaseCommandExecutor::getSystemParameterValue(const std::string& application, const std::string& scope,
                                                             const std::string& name)
{
    return m_frame->guarded(std::string(), [&] {
        if (!systemParameterNamed(m_frame->trace, application, scope, name)) {
            return std::string();
        }
        DatabaseResult outcome;
        QueryResult result;
        executeTraced(*m_frame, systemParameterQuery(application, scope, name), outcome, result);
        if (!outcome.okay()) {
            return std::string();
        }
        if (result.rows() == 0) {
            m_frame->trace.prn("getSystemParameterValue(): Query returned 0 rows, No available domains found!");
            return std::string();
        }
        const char* const value = result.getValue(0, 0);
        return std::string(value != nullptr ? value : "");
    });
}

std::string& DatabaseCommandExecutor::getNthElementOfDomainList(std::string& domainName, unsigned int index)
{
    domainName.clear();
    m_frame->attempt([&] { takeDomain(index, domainName); });
    return domainName;
}

bool DatabaseCommandExecutor::takeDomain(unsigned int index, std::string& domainName)
{
    if (knownDomains.load(std::memory_order_acquire) == nullptr && !DomainReading::underWay) {
        readDomains();
    }
    const Domains* const known = knownDomains.load(std::memory_order_acquire);
    if (known != nullptr) {
        pickDomain(m_frame->trace, *known, index, domainName);
    }
    return known != nullptr;
}

void DatabaseCommandExecutor::readDomains()
{
    const DomainReading reading;
    const Call call(*m_frame);
    if (!m_frame->checkConnect()) {
        m_frame->trace.prn("getNthElementOfDomainList(): *** ERROR ***: No database connection opened!");
        return;
    }
    m_frame->trace.prn("getNthElementOfDomainList(): *** INFO ***: try to query Table 'system_parameters' directly!");
    Domains domains;
    getDomainNameList(domains);
    if (domains.empty()) {
        m_frame->trace.prn(
            "getNthElementOfDomainList(): *** ERROR ***: Empty Domain Name retrieved from Table 'system_parameters'!");
    }
    keepDomains(std::move(domains));
}

} // namespace oryx
