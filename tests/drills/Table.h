#pragma once

#include "drills/Checker.h"

#include <cstddef>
#include <string>

namespace drill {

/// A line of the table that the drills print.
struct Line {
    std::string name;
    std::size_t faults = 0;
    Verdict verdict;
    Time recovery{0};   ///< The longest from a return of the server to the next success; 0 where it never went.
    std::string remark; ///< A documented limit that the wrong ones come from, say.
};

std::string heading();
std::string show(const Line& line);

} // namespace drill
