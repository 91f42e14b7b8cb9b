#pragma once

#include "drills/Checker.h"

#include <cstddef>
#include <optional>
#include <string>

namespace drill {

/// A line of the table that the drills print.
struct Line {
    std::string name;
    std::size_t faults = 0;
    Verdict verdict;
    std::optional<Time> recovery; ///< The longest from a return to the next success; none where no return was marked.
    std::string remark;           ///< A documented limit that the wrong ones come from, say.
};

std::string heading();
std::string show(const Line& line);

} // namespace drill
