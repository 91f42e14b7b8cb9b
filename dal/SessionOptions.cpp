#include <dal/SessionOptions.h>

#include <zel/Trace.h>

#include <charconv>
#include <cstdlib>
#include <limits>
#include <optional>

namespace oryx {

namespace {

constexpr int kMillisecondsPerSecond = 1000;

/// The text of a setting; empty when it is not set. A program that runs with another's rights takes none.
std::string_view setting(const char* name)
{
    const char* const value = secure_getenv(name);
    return value != nullptr ? value : "";
}

SessionOptions::Statements statementsNamed(std::string_view word)
{
    if (word == "bound") {
        return SessionOptions::Statements::bound;
    }
    if (!word.empty() && word != "plain") {
        zel::Trace("oryx").log("ORYX_STATEMENTS is \"%.*s\", not one of plain, bound: statements are plain",
                               static_cast<int>(word.size()), word.data());
    }
    return SessionOptions::Statements::plain;
}

/// A whole number followed by "ms" or "s"; nothing for any other text.
std::optional<std::chrono::milliseconds> duration(std::string_view text)
{
    int number = 0;
    const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), number);
    const std::string_view unit(end, static_cast<std::size_t>(text.data() + text.size() - end));
    const bool seconds = unit == "s";
    if (failure != std::errc() || number <= 0 || (!seconds && unit != "ms") ||
        (seconds && number > std::numeric_limits<int>::max() / kMillisecondsPerSecond)) {
        return std::nullopt;
    }
    return std::chrono::milliseconds(seconds ? number * kMillisecondsPerSecond : number);
}

std::chrono::milliseconds deadlineNamed(std::string_view text)
{
    if (text.empty()) {
        return std::chrono::milliseconds(0);
    }
    const auto deadline = duration(text);
    if (!deadline) {
        zel::Trace("oryx").log("ORYX_DEADLINE is \"%.*s\", not a time like 2s or 500ms: there is no deadline",
                               static_cast<int>(text.size()), text.data());
    }
    return deadline.value_or(std::chrono::milliseconds(0));
}

} // namespace

SessionOptions SessionOptions::fromEnvironment()
{
    SessionOptions options;
    options.statements = statementsNamed(setting("ORYX_STATEMENTS"));
    options.deadline = deadlineNamed(setting("ORYX_DEADLINE"));
    if (options.statements == Statements::plain && options.deadline.count() > 0) {
        zel::Trace("oryx").log("ORYX_DEADLINE counts for bound statements only: set ORYX_STATEMENTS=bound");
    }
    return options;
}

} // namespace oryx
