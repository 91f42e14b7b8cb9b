#include <dal/internal/ConnectionAdvice.h>

#include <dal/internal/Memory.h>

#include <wex/URL.h>
#include <zel/Trace.h>

#include <algorithm>
#include <string>
#include <string_view>

namespace oryx {

namespace {

/// What the library takes no notice of in a valid database URI. Looked for here because a suite's own wex::URL tells
/// host and path only.
struct Ignored {
    explicit Ignored(std::string_view uri);

    bool user = false;
    bool port = false;
    bool settings = false;
};

/// Whether a host of the list has a port: a colon behind its name, or behind the bracket of its IPv6 address.
bool hasPort(std::string_view hosts)
{
    for (auto colon = hosts.find(':'); colon != std::string_view::npos; colon = hosts.find(':', colon + 1)) {
        const auto open = hosts.substr(0, colon).rfind('[');
        if (open == std::string_view::npos || hosts.substr(open, colon - open).find(']') != std::string_view::npos) {
            return true;
        }
    }
    return false;
}

Ignored::Ignored(std::string_view uri)
{
    uri.remove_prefix(std::min(uri.find("://"), uri.size()));
    uri.remove_prefix(std::min<std::size_t>(3, uri.size()));
    const std::string_view authority = uri.substr(0, uri.find_first_of("/?#"));
    const auto at = authority.rfind('@');
    user = at != std::string_view::npos;
    port = hasPort(user ? authority.substr(at + 1) : authority);
    settings = uri.find_first_of("?#") != std::string_view::npos;
}

void tell(const char* uri, const char* user)
{
    zel::Trace oryx("oryx"); // not const: a suite's own traces need not be
    const wex::URL url(uri);
    std::string database = uri;
    if (url.isValid()) {
        url.getPath(database);
        const Ignored ignored(uri);
        if (ignored.user) {
            oryx.log("the user in the database URI is ignored, and a password with it: give both to connect");
        }
        if (ignored.port) {
            oryx.log("the port in the database URI is ignored: set PGPORT, or port in the service file (PGSERVICE)");
        }
        if (ignored.settings) {
            oryx.log("the query of the database URI is ignored: set libpq's environment (PGSSLMODE, PGCONNECT_TIMEOUT, "
                     "...), or the service file (PGSERVICE)");
        }
    } else if (database.find("://") != std::string::npos) {
        oryx.log("the database URI is not valid, so all of it is taken for the database's name");
    }
    if (database.empty()) {
        oryx.log("the database is empty, so libpq takes the next item for it: name it in the URI's path");
    }
    if (*user == '\0') {
        oryx.log("the user is empty, so libpq takes the next item, the password, for it: give one to connect");
    }
}

} // namespace

void tellWhatIsIgnored(const char* uri, const char* user)
{
    unlessOutOfMemory([&] { tell(uri, user); }, [] {}); // the connection matters more
}

} // namespace oryx
