#pragma once

#include "drills/Account.h"

#include <filesystem>
#include <string>

namespace drill {

/// How many workers there are, and what each owns; the database is provisioned for them (provision.sql).
constexpr int kWorkers = 8;
constexpr int kAddresses = 20;

/// A drill is over as soon as its folder holds a file "stop".
class Stop {
public:
    explicit Stop(const std::string& folder) : m_file(folder + "/stop") {}
    bool isThere() const { return std::filesystem::exists(m_file); }

private:
    std::filesystem::path m_file;
};

/// Registrar and event server at work: each worker calls its own services about its own addresses of record, dialogs
/// and extensions, one request after another, and keeps a journal of its own in `folder`/journal.
///
/// `processes`: each worker is a child process that goes on with the services that its parent has connected.
void runLoad(const Account& account, const std::string& folder, bool processes);

} // namespace drill
