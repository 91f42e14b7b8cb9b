#pragma once

#include <algorithm>
#include <array>

namespace oryx {

/// Every table whose changes the servers follow, in the order in which they are subscribed and told. A channel has its
/// table's name.
inline constexpr std::array kNotifierTables{
    "acp",        "extension",   "conf_state",          "conf_state_reset", "public_address",
    "subscriber", "contact_set", "sip_event_aggregator"};

/// The same, and what else is announced to those who ask for it.
inline constexpr auto kAnnouncedTables = [] {
    std::array<const char*, kNotifierTables.size() + 1> tables{};
    std::copy(kNotifierTables.begin(), kNotifierTables.end(), tables.begin());
    tables.back() = "publication";
    return tables;
}();

} // namespace oryx
