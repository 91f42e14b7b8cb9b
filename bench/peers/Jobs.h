#pragma once

#include "Contender.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace peers {

/// As data.sql has it.
inline constexpr const char* kApplication = "presence";

/// What one run of a job is about: an address of record, and what a server has at hand with it.
class Input {
public:
    /// Address `n` of `size`; what is added is another's in each `series`, of which every connection has one.
    Input(int n, int size, int series);

    int n;
    std::string handle;
    std::string domain = "oryx.example";
    std::string presentityKey;
    std::vector<oryx::ContactRecord> stored; ///< A contact that is there.
    std::vector<oryx::ContactRecord> added;  ///< One that is not.
    oryx::PresenceRecord dialog;             ///< Likewise.
    std::string storedDialog;                ///< The identifier of one that is.
};

/// One kind of request, and what it leaves behind taken back: the second step of a change, measured by itself.
struct Job {
    struct Step {
        const char* name;
        std::function<void(Contender&, Input&)> run;
    };
    Step step;
    std::optional<Step> undo;
};

const std::vector<Job>& allJobs();

/// The database of that name, on the server that PGHOST names, as the role that PGUSER names.
Database databaseNamed(const std::string& name);

/// What a contender answers to every kind of request, and what its changes leave in the database, as text.
std::string answers(Contender& contender, int size);

} // namespace peers
