// Whatever is published: what is taken for PIDF is stored as clean text that means the same again, and is well-formed
// when it is composed with others, alone or with itself in a list.

#include <events/Documents.h>
#include <libxml/parser.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

namespace {

using namespace oryx::sip;

const std::string kEntity = "sip:alice@oryx.example";
const std::string kOther = R"(<presence xmlns="urn:ietf:params:xml:ns:pidf" entity="sip:alice@oryx.example">)"
                           R"(<tuple id="a"><status><basic>open</basic></status></tuple><note>n</note></presence>)";

/// The fuzzer takes the end of the process for a text found.
void expect(bool kept, const char* what, const std::string& text)
{
    if (!kept) {
        std::fprintf(stderr, "%s:\n%s\n", what, text.c_str());
        std::abort();
    }
}

void isWellFormed(const std::string& text)
{
    xmlDoc* const document = xmlReadMemory(text.data(), static_cast<int>(text.size()), nullptr, nullptr,
                                           XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
    expect(document != nullptr, "not well-formed", text);
    xmlFreeDoc(document);
}

void isClean(const std::string& text)
{
    for (const char c : text) {
        expect(c >= ' ' && c < '\x7f' && c != '\'' && c != '\\', "not clean", text);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string body(data, data + size);
    const std::optional<std::string> stored = publishedDocument(body);
    if (stored) {
        isClean(*stored);
        expect(publishedDocument(*stored) == stored, "not the same again", *stored);
    }
    const std::string alone = presenceDocument(kEntity, {body});
    isWellFormed(alone);
    isWellFormed(presenceDocument(kEntity, {kOther, body, kOther, stored.value_or("")}));
    isWellFormed(watcherDocument(body, body, 1, {{body, body, body, body, 1}}));
    const Body list = listBody(body, 1, {{body, body, body, body, alone}});
    const std::size_t begin = list.text.find("<?xml");
    isWellFormed(list.text.substr(begin, list.text.find("\r\n--", begin) - begin));
    return 0;
}
