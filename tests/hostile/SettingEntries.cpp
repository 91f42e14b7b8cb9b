// Text arguments that name a setting.

#include "hostile/Entry.h"

template <typename Executor>
Entries settingEntries()
{
    Entries table;
    const Row parameter("system_parameters",
                        {{"application", "'hara'"}, {"scope", "'scope'"}, {"name", "'name'"}, {"value", "'value'"}});
    for (const char* const argument : {"application", "scope", "name"}) {
        table.push_back({
            .argument = argumentOf<Executor>("getSystemParameterValue(application, scope, name) ") + argument,
            .place = Place::key,
            .before = {parameter.with(argument).insert()},
            .call =
                [which = std::string(argument)](Library& library, const std::string& text) {
                    const auto of = [&](const char* name, const char* value) {
                        return which == name ? text : std::string(value);
                    };
                    return library.get<Executor>().getSystemParameterValue(of("application", "hara"),
                                                                           of("scope", "scope"), of("name", "name")) +
                           "\n";
                },
            .answer = "value\n",
            .refused = "\n",
        });
    }
    return table;
}

template Entries settingEntries<oryx::DatabaseCommandExecutor>();
template Entries settingEntries<oryx::PresenceDatabaseCommandExecutor>();

template <typename Target>
Entries proxyEntries()
{
    const Row item(
        "proxy_configuration",
        {{"proxy_name", "'proxy'"}, {"scope", "'scope'"}, {"property_name", "'name'"}, {"property_value", "'value'"}});
    return {{
        .argument = argumentOf<Target>("getProxyConfig(proxyName, items) proxyName"),
        .place = Place::key,
        .before = {item.with("proxy_name").insert()},
        .call =
            [](Library& library, const std::string& text) {
                return listed<oryx::ProxyConfig>(
                    [&](auto& items) { return library.get<Target>().getProxyConfig(text.c_str(), items); });
            },
        .answer = "okay\n" + show(oryx::ProxyConfig("scope", "name", "value")),
        .refused = "okay\n",
    }};
}

template Entries proxyEntries<oryx::LocationService>();
template Entries proxyEntries<oryx::DatabaseCommandExecutor>();
