#pragma once

#include <util/OryxExport.h>

#include <chrono>
#include <string_view>

namespace oryx {

/// How a service or executor sends its statements, and how long an operation may take. Set before `connect`.
struct ORYX_EXPORT SessionOptions {
    /// The two ways of sending. What the operations answer is the same.
    enum class Statements {
        plain, ///< Values are spliced into the text, which the server parses and plans every time.
        bound, ///< Values travel beside the text, which is prepared once per connection.
    };

    /// How statements are sent.
    Statements statements = Statements::plain;
    /// How long an operation may take in all, connecting again and repeating included; zero for as long as it takes.
    /// Counts for bound statements only. A name that must be looked up in DNS may take longer.
    std::chrono::milliseconds deadline{0};

    /// What a service starts with: `ORYX_STATEMENTS` ("plain" or "bound") and `ORYX_DEADLINE` ("2s", "500ms"), read at
    /// each call. What is neither is told by a `log` line on the channel "oryx" and counts as not set.
    static SessionOptions fromEnvironment();
};

} // namespace oryx
