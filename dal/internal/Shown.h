#pragma once

namespace oryx {

/// What a trace shows of a text that may be null.
inline const char* shown(const char* text)
{
    return text != nullptr ? text : "null";
}

} // namespace oryx
