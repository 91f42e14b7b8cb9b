#pragma once

#include <string>
#include <string_view>

namespace oryx {

/// The longest run of plain text that every text holds which a POSIX extended regular expression, heeding case,
/// matches; empty where the expression leaves that open (alternatives, repeated groups) or needs no plain text. A text
/// without it need not be shown to the expression. Never more than the expression needs, but maybe less: this reads
/// patterns just well enough for a dial plan's.
std::string requiredText(std::string_view pattern);

} // namespace oryx
