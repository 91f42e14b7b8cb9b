#pragma once

#include <common/Options.h>

#include <array>
#include <string>

namespace oryx::sip {

/// Tells texts of this server's own from those that others have made up.
///
/// Its key comes of the password for the database: so it is the same after a restart, and for all servers that have the
/// same login, and what one of them has sealed the others know. It is stretched (Argon2id), for whoever has a seal can
/// try passwords on it. A server without a password makes up a key of its own each time.
class Seal {
public:
    explicit Seal(const Options& options);

    std::string of(const std::string& text) const;

private:
    std::array<unsigned char, 32> m_key{};
};

} // namespace oryx::sip
