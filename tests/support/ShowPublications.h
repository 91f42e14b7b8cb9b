#pragma once

#include "support/Show.h"

#include <dal/Publications.h>

#include <string>
#include <vector>

/// \file
/// Answers to PUBLISH requests and publications as text; an entity tag is as long as it is, for it is made by chance.

namespace oryx {

inline std::string show(PublishOutcome outcome)
{
    static const std::vector<std::string> kNames{
        "failed", "done", "unknown presentity", "inactive", "condition failed", "too many publications"};
    return kNames.at(static_cast<std::size_t>(outcome));
}

inline std::string show(const PublishAnswer& answer)
{
    return show(answer.outcome) + ", " + std::to_string(answer.expires) + " s, tag of " +
           std::to_string(answer.entityTag.size());
}

inline std::string show(const LivePublication& publication)
{
    return publication.body + " (" + publication.contentType + ") " + std::to_string(publication.expires) + " s\n";
}

inline std::string show(const ExpiredPublication& expired)
{
    return expired.presentity + " " + expired.event + "\n";
}

} // namespace oryx
