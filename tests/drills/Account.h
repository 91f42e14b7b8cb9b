#pragma once

#include <dal/LocationService.h>
#include <dal/PresenceService.h>

#include <cstdlib>
#include <string>

namespace drill {

/// Whom the drills connect as: the roles of deploy/roles.sql.
struct Account {
    std::string uri = "postgresql://" + variable("ORYX_DRILL_HOSTS") + "/oryx";
    std::string password = variable("ORYX_DRILL_PASSWORD");

    static std::string variable(const char* name)
    {
        const char* const value = std::getenv(name);
        return value != nullptr ? value : "";
    }

    void connect(oryx::LocationService& service) const { service.connect(uri.c_str(), "registrar", password.c_str()); }
    void connect(oryx::PresenceService& service) const { service.connect(uri.c_str(), "events", password.c_str()); }
};

} // namespace drill
