#include <dal/CommandExecutor.h>

#include <dal/internal/Call.h>
#include <dal/internal/Frame.h>

#include <StringTokenizer.h>

namespace oryx {

namespace {

/// Has a reason kept; where there is no memory for it, that is the reason. Always false.
template <typename Keep>
bool keptReason(Frame& frame, Keep keep)
{
    return unlessOutOfMemory(keep, [&] {
        frame.errorText = kOutOfMemory;
        return false;
    });
}

} // namespace

const std::string CommandExecutor::SYSTEM_PARAMETERS_ORYX_PROXY = "oryxproxy";
const std::string CommandExecutor::SYSTEM_PARAMETERS_SERVER_INFO = "ServerInfo";
const std::string CommandExecutor::SYSTEM_PARAMETERS_SERVER_NAMES = "ServerNames";

CommandExecutor::CommandExecutor(const char* channel) : m_frame(std::make_unique<Frame>(channel)) {}

CommandExecutor::~CommandExecutor() = default;

bool CommandExecutor::connect(const char* uri, const char* user, const char* password)
{
    return m_frame->connect(uri, user, password);
}

bool CommandExecutor::checkConnect()
{
    return m_frame->guarded(false, [this] { return m_frame->checkConnect(); });
}

DatabaseResult CommandExecutor::execute(const std::string& query)
{
    return m_frame->execute(query);
}

void CommandExecutor::setSessionOptions(const SessionOptions& options)
{
    m_frame->options = options;
}

bool CommandExecutor::executeUpdate(const std::string& cmd, int& count)
{
    const Call call(*m_frame);
    return m_frame->guarded(false, [&] { return m_frame->executeUpdate(cmd, count); });
}

const std::string& CommandExecutor::getSqlState() const
{
    return m_frame->sqlState;
}

SessionStatistics CommandExecutor::getStatistics() const
{
    return m_frame->meter->read();
}

bool CommandExecutor::okay()
{
    return m_frame->okay();
}

bool CommandExecutor::error(const char* msg)
{
    return keptReason(*m_frame, [&] { return m_frame->error(msg); });
}

bool CommandExecutor::error(const QueryResult& r)
{
    return keptReason(*m_frame, [&] { return m_frame->error(r); });
}

bool CommandExecutor::errorConnection()
{
    return keptReason(*m_frame, [this] { return m_frame->errorConnection(); });
}

int CommandExecutor::getDomainNameList(std::vector<std::string>& domainNameList)
{
    domainNameList.clear();
    const std::string value = getSystemParameterValue(SYSTEM_PARAMETERS_ORYX_PROXY, SYSTEM_PARAMETERS_SERVER_INFO,
                                                      SYSTEM_PARAMETERS_SERVER_NAMES);
    if (value.empty()) {
        m_frame->trace.prn("getDomainNameList(): *** WARNING ***: Empty value for domains found!");
        return 0;
    }
    m_frame->attempt([&] {
        addAllOrNone(domainNameList, [&] {
            StringTokenizer domains(value, " ,;:");
            while (domains.hasMoreTokens()) {
                domainNameList.push_back(domains.nextToken());
            }
        });
    });
    const int count = static_cast<int>(domainNameList.size());
    m_frame->trace.prn("getDomainNameList(): read %d domains, first is %s", count,
                       domainNameList.empty() ? "" : domainNameList.front().c_str());
    return count;
}

std::string& CommandExecutor::getDomainName(std::string& domainName)
{
    return getNthElementOfDomainList(domainName, 0);
}

Frame& frameOf(CommandExecutor& executor)
{
    return *executor.m_frame;
}

} // namespace oryx
