#pragma once

#include <algorithm>
#include <array>
#include <cstddef>

namespace oryx {

/// Every table whose changes the servers follow, in the order in which they are subscribed and told. A channel has its
/// table's name.
inline constexpr std::array kNotifierTables{
    "acp",        "extension",   "conf_state",          "conf_state_reset", "public_address",
    "subscriber", "contact_set", "sip_event_aggregator"};

/// The same, and what else is announced to those who ask for it: publications, which the change log has too, who may
/// watch whom, and the domains served.
inline constexpr std::size_t kPublications = kNotifierTables.size();
inline constexpr std::size_t kAccessRules = kPublications + 1;
inline constexpr std::size_t kParameters = kAccessRules + 1;
inline constexpr auto kAnnouncedTables = [] {
    std::array<const char*, kParameters + 1> tables{};
    std::copy(kNotifierTables.begin(), kNotifierTables.end(), tables.begin());
    tables[kPublications] = "publication";
    tables[kAccessRules] = "access_control_list";
    tables[kParameters] = "system_parameters";
    return tables;
}();

} // namespace oryx
