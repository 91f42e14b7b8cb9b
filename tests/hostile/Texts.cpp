#include "hostile/Texts.h"

#include <array>
#include <random>

namespace {

constexpr std::size_t kLong = 10240;

/// Of the texts and of letters between them, without any repetition that the server could compress away.
std::string longText(const std::vector<HostileText>& texts)
{
    constexpr std::string_view kLetters =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789'\\$%_;-/*{}\"";
    std::minstd_rand random(5060); // the same text on every platform and in every run
    std::string text = "'";
    for (std::size_t piece = 0; text.size() < kLong; ++piece) {
        for (int letter = 0; letter < 40; ++letter) {
            text += kLetters[random() % kLetters.size()];
        }
        text += texts[piece % texts.size()].text;
    }
    return text;
}

std::vector<HostileText> makeTexts()
{
    std::vector<HostileText> texts{
        {"a quote", "o'hara"},
        {"doubled quotes", "o''hara''"},
        {"double quotes", R"("o"hara"")"},
        {"backslashes", R"(o\hara\\x\n\')"},
        {"a backslash last", R"(o\)"},
        {"parameters and dollar quotes", "$1$2 $$ $x$ $$"},
        {"pattern characters", "%o_%%s%d_"},
        {"semicolons and a comment", "o; SELECT 1; -- the rest"},
        {"comment marks", "/* o /* hara */ */ /*"},
        {"braces", "{}o{0}{{}}"},
        {"line breaks and controls", "o\r\n\thara\x01\x7f\n"},
        {"blanks around", "  o hara  "},
        {"a second statement", "o'; DELETE FROM contact; --"},
        {"a second row", "o'), ('o', 'hara'); DROP TABLE subscriber CASCADE; --"},
        {"a condition", "' OR '1'='1"},
        {"a call", "'||pg_terminate_backend(pg_backend_pid())||'"},
        {"not only ASCII", "o'Öryx ☎ \U0001D11E \u202E e\u0301 %"},
        {"a keyword", "DEFAULT"},
    };
    texts.push_back({"10 KB of all", longText(texts)});
    return texts;
}

} // namespace

const std::vector<HostileText>& hostileTexts()
{
    static const std::vector<HostileText> kTexts = makeTexts();
    return kTexts;
}

bool isTooLongForAKey(const std::string& text)
{
    return text.size() >= kLong;
}
