#include <util/internal/RequiredText.h>

namespace oryx {

namespace {

bool isOneOf(char c, std::string_view set)
{
    return set.find(c) != std::string_view::npos;
}

/// What follows the first ending of a bracket expression or an interval.
std::string_view behind(std::string_view pattern, std::string_view end)
{
    const std::size_t at = pattern.find(end);
    return at != std::string_view::npos ? pattern.substr(at + end.size()) : std::string_view();
}

/// What follows a bracket expression, whose opening bracket is already taken.
std::string_view behindBrackets(std::string_view pattern)
{
    pattern.remove_prefix(pattern.starts_with('^') ? 1 : 0);
    pattern.remove_prefix(pattern.starts_with(']') ? 1 : 0); // in the first place it stands for itself
    while (!pattern.empty() && pattern[0] != ']') {
        const bool named = pattern.size() > 1 && pattern[0] == '[' && isOneOf(pattern[1], ":.=");
        pattern = named ? behind(pattern.substr(2), std::string{pattern[1], ']'}) : pattern.substr(1);
    }
    return pattern.substr(pattern.empty() ? 0 : 1);
}

} // namespace

std::string requiredText(std::string_view pattern)
{
    constexpr std::string_view kRepetitions = "*+?{";
    std::string longest;
    std::string run;
    int depth = 0;
    while (!pattern.empty()) {
        const bool escaped = pattern.size() > 1 && pattern[0] == '\\';
        const char c = pattern[escaped ? 1 : 0];
        pattern.remove_prefix(escaped ? 2 : 1);
        const bool repeated = !pattern.empty() && isOneOf(pattern[0], kRepetitions);
        const bool special = isOneOf(c, ".[]()*+?{}|^$\\");
        if (special && !escaped) {
            if (c == '|' || (c == ')' && repeated)) {
                return {};
            }
            if (c == '(' || (c == ')' && depth > 0)) { // one that closes nothing stands for itself
                depth += c == '(' ? 1 : -1;
                continue;
            }
            pattern = c == '[' ? behindBrackets(pattern) : c == '{' ? behind(pattern, "}") : pattern;
        }
        // A backslash before a letter or digit is a class, an anchor or a reference; a byte beyond ASCII is but part of
        // a character, which a repetition takes whole.
        const bool plain = escaped ? special : !special && c > ' ' && c <= '~';
        if (plain && !repeated) {
            run += c;
        } else {
            run.clear();
        }
        if (run.size() > longest.size()) {
            longest = run;
        }
    }
    return longest;
}

} // namespace oryx
