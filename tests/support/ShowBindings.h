#pragma once

#include "support/Show.h"

#include <dal/LiveBindings.h>
#include <dal/Registration.h>
#include <dal/RequestTarget.h>

#include <sstream>
#include <string>
#include <vector>

/// \file
/// Bindings, answers to registrations and targets as text, every field but the contact's key.

namespace oryx {

inline std::string show(const LiveBinding& binding)
{
    std::ostringstream out;
    out << "'" << binding.address << "' " << (binding.expires ? std::to_string(*binding.expires) + " s" : "for good")
        << (binding.permanent ? ", permanent" : "") << " q='" << binding.qvalue << "' (" << binding.preference
        << ") path='" << binding.path << "' header='" << binding.contactHeader << "' capabilities='"
        << binding.capabilities << "' type='" << binding.type << "' call='" << binding.callId
        << "' cseq=" << binding.cseq << "\n";
    return out.str();
}

inline std::string show(const BindingSet& set)
{
    return std::string(set.order == ContactOrder::sequential ? "sequential" : "parallel") +
           (set.replaceUri ? ", replaced\n" : ", kept\n") + show(set.bindings);
}

inline std::string show(RegisterOutcome outcome)
{
    static const std::vector<std::string> kNames{"failed",   "done",          "unknown address",
                                                 "inactive", "older request", "too many bindings"};
    return kNames.at(static_cast<std::size_t>(outcome));
}

inline std::string show(const RegisterAnswer& answer)
{
    return show(answer.outcome) + "\n" + show(answer.bindings);
}

inline std::string show(const RequestTarget& target)
{
    static const std::vector<std::string> kNames{"failed",        "registered",  "address map",
                                                 "default route", "outbound",    "not registered",
                                                 "inactive",      "not allowed", "unknown"};
    return kNames.at(static_cast<std::size_t>(target.reason)) + " (" + target.why + ")" +
           (target.proxy.empty() ? "" : " through " + target.proxy) + "\n" + show(target.set);
}

} // namespace oryx
