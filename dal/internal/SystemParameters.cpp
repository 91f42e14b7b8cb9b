#include <dal/internal/SystemParameters.h>

namespace oryx {

bool systemParameterNamed(zel::Trace& trace, const std::string& application, const std::string& scope,
                          const std::string& name)
{
    const bool named = !application.empty() && !scope.empty() && !name.empty();
    if (!named) {
        trace.prn("getSystemParameterValue(): *** ERROR ***: parameters can't be empty string!");
    }
    return named;
}

Statement systemParameterQuery(const std::string& application, const std::string& scope, const std::string& name)
{
    return sql(
        "SELECT system_parameters.value FROM system_parameters WHERE (((system_parameters.application = '{}') AND (system_parameters.scope = '{}')) AND (system_parameters.name = '{}'));",
        application, scope, name);
}

std::string& pickDomain(zel::Trace& trace, const std::vector<std::string>& domains, unsigned int index,
                        std::string& domainName)
{
    domainName.clear();
    if (index < domains.size()) {
        domainName = domains[index];
    } else {
        trace.prn("getNthElementOfDomainList(): *** ERROR ***: index out of bounds!");
    }
    return domainName;
}

} // namespace oryx
