#include <util/CleanText.h>

#include <utf8.h>

namespace oryx {

bool isCleanText(std::string_view text, TextUse use)
{
    return textFlaw(text, use) == nullptr;
}

const char* textFlaw(std::string_view text, TextUse use)
{
    const auto holds = [&](char c) { return text.find(c) != std::string_view::npos; };
    if (holds('\'')) {
        return "a single quote, which ends the value";
    }
    if (holds('\0')) {
        return "a NUL, which ends the statement";
    }
    if (use == TextUse::pattern && holds('\\')) {
        return "a backslash, which changes the search pattern";
    }
    return utf8::is_valid(text.begin(), text.end()) ? nullptr : "invalid UTF-8, which the database refuses";
}

} // namespace oryx
