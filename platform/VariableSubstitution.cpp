#include <VariableSubstitution.h>

#include <algorithm>
#include <utility>

namespace {

constexpr auto kNone = std::string_view::npos;
constexpr std::string_view kLetters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";

struct Reference {
    std::string_view name;  ///< Empty: the marker stands for itself.
    std::size_t length = 0; ///< From behind the marker to the end of the reference.
};

/// The reference at the beginning of `text`, which is what follows a marker.
Reference referenceAt(std::string_view text, bool closingBraceAhead)
{
    if (!text.starts_with('{')) {
        const auto length = std::min(text.find_first_not_of(kLetters), text.size());
        return {text.substr(0, length), length};
    }
    if (!closingBraceAhead) {
        return {};
    }
    const auto close = text.find('}');
    return {text.substr(1, close - 1), close + 1};
}

} // namespace

void VariableSubstitution::subst(std::string_view text, std::string& result, const Hashtable<std::string>& variables,
                                 std::string_view marker)
{
    std::string filled;
    const auto lastBrace = text.rfind('}');
    std::size_t copied = 0;
    for (auto at = marker.empty() ? kNone : text.find(marker); at != kNone;) {
        const auto begin = at + marker.size();
        const auto [name, length] = referenceAt(text.substr(begin), lastBrace != kNone && lastBrace > begin);
        if (const std::string* value = name.empty() ? nullptr : variables.get(name)) {
            filled.append(text.substr(copied, at - copied)).append(*value);
            copied = begin + length;
        }
        at = text.find(marker, begin + length);
    }
    filled.append(text.substr(copied));
    result = std::move(filled);
}
