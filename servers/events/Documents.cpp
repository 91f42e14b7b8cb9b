#include <events/Documents.h>

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xmlsave.h>
#include <utf8.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <map>
#include <memory>
#include <random>
#include <utility>

namespace oryx::sip {

namespace {

constexpr const char* kPidf = "urn:ietf:params:xml:ns:pidf";
constexpr const char* kDataModel = "urn:ietf:params:xml:ns:pidf:data-model"; // RFC 4479
/// Of one publication: a device has a few, and each costs time in every document that is composed.
constexpr std::size_t kMostElements = 64;
/// Bytes of a body; a datagram has some thousand more, for the header.
constexpr std::size_t kLongestComposition = 49152;
/// Of a list's members without their documents, for which there is room beside those; and of one, without its URI.
constexpr std::size_t kShortList = 8192;
constexpr std::size_t kResource = 160;

template <auto Free>
struct FreeBy {
    template <typename Object>
    void operator()(Object* object) const
    {
        Free(object);
    }
};
using Document = std::unique_ptr<xmlDoc, FreeBy<&xmlFreeDoc>>;
using Node = std::unique_ptr<xmlNode, FreeBy<&xmlFreeNode>>;
using Parser = std::unique_ptr<xmlParserCtxt, FreeBy<&xmlFreeParserCtxt>>;
using Buffer = std::unique_ptr<xmlBuffer, FreeBy<&xmlBufferFree>>;

const xmlChar* xmlText(const char* text)
{
    return reinterpret_cast<const xmlChar*>(text);
}

xmlNode* rootOf(const Document& document)
{
    return xmlDocGetRootElement(document.get());
}

std::string ownText(xmlChar* text)
{
    std::string own = text != nullptr ? reinterpret_cast<const char*>(text) : "";
    xmlFree(text);
    return own;
}

/// A text without what cannot stand in XML (XML 1.0 section 2.2).
std::string allowedText(const std::string& text)
{
    std::u32string characters = utf8::utf8to32(utf8::replace_invalid(text));
    std::erase_if(characters, [](char32_t c) {
        return (c < ' ' && c != '\t' && c != '\n' && c != '\r') || c == 0xFFFE || c == 0xFFFF;
    });
    return utf8::utf32to8(characters);
}

// Reading

void refuseDocumentType(void* parser, const xmlChar* /*name*/, const xmlChar* /*id*/, const xmlChar* /*system*/)
{
    xmlStopParser(static_cast<xmlParserCtxt*>(parser));
}

/// Null where it is not well-formed, in UTF-8 whatever it says of itself: conversions have failures of their own, of
/// which the parser writes to standard error. What the parser limits of itself (depth, lengths) stays limited.
Document parsed(std::string_view text)
{
    static const bool ready = (xmlInitParser(), true);
    constexpr int kOptions =
        XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING | XML_PARSE_NOCDATA | XML_PARSE_NOBLANKS;
    const Parser parser(ready ? xmlNewParserCtxt() : nullptr);
    if (!parser || text.size() > static_cast<std::size_t>(std::numeric_limits<int>::max())) {
        return nullptr;
    }
    parser->sax->internalSubset = &refuseDocumentType; // before anything in it is read
    parser->sax->comment = nullptr;
    parser->sax->processingInstruction = nullptr;
    Document document(
        xmlCtxtReadMemory(parser.get(), text.data(), static_cast<int>(text.size()), nullptr, "UTF-8", kOptions));
    const bool whole = parser->wellFormed != 0 && parser->nsWellFormed != 0 && parser->errNo != XML_ERR_USER_STOP;
    return whole && rootOf(document) != nullptr ? std::move(document) : nullptr;
}

bool is(const xmlNode& node, const char* space, const char* name)
{
    return node.type == XML_ELEMENT_NODE && node.ns != nullptr && xmlStrEqual(node.ns->href, xmlText(space)) != 0 &&
           xmlStrEqual(node.name, xmlText(name)) != 0;
}

std::string attributeOf(const xmlNode& node, const char* name)
{
    return ownText(xmlGetNoNsProp(&node, xmlText(name)));
}

/// The text of its first child of that name; empty where there is none.
std::string childText(const xmlNode& node, const char* space, const char* name)
{
    for (const xmlNode* child = node.children; child != nullptr; child = child->next) {
        if (is(*child, space, name)) {
            return ownText(xmlNodeGetContent(child));
        }
    }
    return "";
}

/// A document's presence element; null where it is another, has too much, or a tuple has no id (RFC 3863 section 4.1).
xmlNode* presenceIn(const Document& document)
{
    xmlNode* const root = document ? rootOf(document) : nullptr;
    if (root == nullptr || !is(*root, kPidf, "presence")) {
        return nullptr;
    }
    if (xmlChildElementCount(root) > kMostElements) {
        return nullptr;
    }
    for (xmlNode* child = xmlFirstElementChild(root); child != nullptr; child = xmlNextElementSibling(child)) {
        if (is(*child, kPidf, "tuple") && attributeOf(*child, "id").empty()) {
            return nullptr;
        }
    }
    return root;
}

// Writing

std::string written(xmlNode* root, const char* encoding)
{
    const Buffer buffer(xmlBufferCreate());
    xmlSaveCtxt* const saving = xmlSaveToBuffer(buffer.get(), encoding, XML_SAVE_NO_DECL);
    xmlSaveTree(saving, root);
    xmlSaveClose(saving);
    return {reinterpret_cast<const char*>(xmlBufferContent(buffer.get())),
            static_cast<std::size_t>(xmlBufferLength(buffer.get()))};
}

std::string written(const Document& document)
{
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n" + written(rootOf(document), "UTF-8");
}

/// Names and values; an empty value is left out.
using Attributes = std::initializer_list<std::pair<const char*, std::string>>;

void setAttributes(xmlNode* node, const Attributes& attributes)
{
    for (const auto& [name, value] : attributes) {
        if (!value.empty()) {
            xmlSetProp(node, xmlText(name), xmlText(allowedText(value).c_str()));
        }
    }
}

/// A new child in its parent's namespace.
xmlNode* addChild(xmlNode* parent, const char* name, const Attributes& attributes, const std::string& text = "")
{
    const std::string allowed = allowedText(text);
    xmlNode* const child =
        xmlNewTextChild(parent, nullptr, xmlText(name), allowed.empty() ? nullptr : xmlText(allowed.c_str()));
    setAttributes(child, attributes);
    return child;
}

/// A document with a root of that name and namespace.
Document newDocument(const char* name, const char* space, const Attributes& attributes)
{
    Document document(xmlNewDoc(xmlText("1.0")));
    xmlNode* const root = xmlNewDocNode(document.get(), nullptr, xmlText(name), nullptr);
    xmlSetNs(root, xmlNewNs(root, xmlText(space), nullptr));
    xmlDocSetRootElement(document.get(), root);
    setAttributes(root, attributes);
    return document;
}

// Presence

/// A document composed of others' elements, which stand in the order of RFC 3863's schema.
class Composition {
public:
    explicit Composition(const std::string& entity) : m_document(newDocument("presence", kPidf, {{"entity", entity}}))
    {
    }

    /// The latest that are added stay, as many as a datagram has room for.
    void add(xmlNode& presence)
    {
        for (xmlNode* child = xmlFirstElementChild(&presence); child != nullptr; child = xmlNextElementSibling(child)) {
            add(Node(xmlDocCopyNode(child, m_document.get(), 1)));
        }
    }
    std::string text()
    {
        keepTheLatest();
        std::stable_sort(m_elements.begin(), m_elements.end(),
                         [](const Node& one, const Node& other) { return placeOf(*one) < placeOf(*other); });
        xmlNode* const root = rootOf(m_document);
        for (Node& element : m_elements) {
            xmlAddChild(root, element.release());
        }
        m_elements.clear();
        xmlDOMWrapReconcileNamespaces(nullptr, root, kRemoveRedundant);
        if (root->children == nullptr) {
            xmlNode* const tuple = addChild(root, "tuple", {{"id", "none"}});
            addChild(addChild(tuple, "status", {}), "basic", {}, "closed");
        }
        return written(m_document);
    }

private:
    static constexpr int kRemoveRedundant = 1; // XML_DOM_RECONNS_REMOVEREDUND, which no header declares

    /// Of elements that take one another's place.
    struct Source {
        std::string id;         // which it has here
        std::size_t latest = 0; // of the elements
    };

    static int placeOf(const xmlNode& element)
    {
        return is(element, kPidf, "tuple") ? 0 : is(element, kPidf, "note") ? 1 : 2;
    }
    void add(Node element)
    {
        const std::string id = attributeOf(*element, "id");
        if (!id.empty()) {
            const std::string name = reinterpret_cast<const char*>(element->name);
            const std::string device = placeOf(*element) == 0 ? childText(*element, kPidf, "contact")
                                                              : childText(*element, kDataModel, "deviceID");
            const auto [known, added] = m_sources.try_emplace({id, name, device});
            Source& source = known->second;
            if (added) {
                source.id = freeId(id);
            } else {
                m_elements[source.latest].reset();
            }
            source.latest = m_elements.size();
            setAttributes(element.get(), {{"id", source.id}});
        }
        m_elements.push_back(std::move(element));
    }
    void keepTheLatest()
    {
        std::size_t size = 0;
        std::for_each(m_elements.rbegin(), m_elements.rend(), [&](Node& element) {
            size += element ? written(element.get(), "UTF-8").size() : 0;
            if (size > kLongestComposition) { // the oldest are the least of interest
                element.reset();
            }
        });
        std::erase(m_elements, nullptr);
    }
    std::string freeId(const std::string& wanted)
    {
        std::string id = wanted;
        while (!m_ids.try_emplace(id, 1).second) {
            id = wanted + "-" + std::to_string(++m_ids[wanted]);
        }
        return id;
    }

    Document m_document;
    std::vector<Node> m_elements; // null where a later one has taken its place
    std::map<std::array<std::string, 3>, Source> m_sources;
    std::map<std::string, unsigned> m_ids; // with the last number that was put behind each
};

// Lists

/// The host of a list's URI, as far as it can stand in a Content-ID.
std::string hostIn(const std::string& uri)
{
    std::string host = uri.substr(uri.find_last_of("@:") + 1);
    std::erase_if(host, [](char c) {
        return (c < '0' || c > '9') && (c < 'a' || c > 'z') && (c < 'A' || c > 'Z') && c != '.' && c != '-';
    });
    return host.empty() ? "localhost" : host;
}

/// Something that stands in none of the members' documents. Whoever writes one cannot know what is tried.
std::string boundaryBetween(const std::vector<ListMember>& members)
{
    std::random_device random;
    std::string boundary = "oryx";
    const auto stands = [&](const ListMember& member) { return member.document.find(boundary) != std::string::npos; };
    while (std::any_of(members.begin(), members.end(), stands)) {
        boundary = "oryx-" + std::to_string(random()) + "-" + std::to_string(random());
    }
    return boundary;
}

void addPart(std::string& text, const std::string& boundary, const std::string& id, const char* type,
             const std::string& document)
{
    text += "--" + boundary + "\r\nContent-Transfer-Encoding: binary\r\nContent-ID: <" + id +
            ">\r\nContent-Type: " + type + "\r\n\r\n" + document + "\r\n";
}

void addResource(xmlNode* list, const ListMember& member, const std::string& contentId)
{
    xmlNode* const resource = addChild(list, "resource", {{"uri", member.uri}});
    if (!member.instance.empty()) {
        addChild(resource, "instance",
                 {{"id", member.instance}, {"state", member.state}, {"reason", member.reason}, {"cid", contentId}});
    }
}

} // namespace

std::optional<std::string> publishedDocument(std::string_view body)
{
    const Document document = parsed(body);
    if (presenceIn(document) == nullptr) {
        return std::nullopt;
    }
    std::string clean;
    for (const char c : written(rootOf(document), "US-ASCII")) {
        // Quotes are quotation marks where they mean anything, and lines are broken in texts alone.
        const bool plain = c >= ' ' && c != '\'' && c != '\\' && c != '\x7f';
        clean += plain ? std::string(1, c) : "&#" + std::to_string(static_cast<unsigned char>(c)) + ";";
    }
    // Names outside of ASCII, and namespaces with quotation marks, cannot be written so.
    return presenceIn(parsed(clean)) != nullptr ? std::optional(std::move(clean)) : std::nullopt;
}

std::string presenceDocument(const std::string& entity, const std::vector<std::string>& published)
{
    Composition composition(entity);
    for (const std::string& text : published) {
        const Document document = parsed(text);
        if (xmlNode* const presence = presenceIn(document); presence != nullptr) {
            composition.add(*presence);
        }
    }
    return composition.text();
}

std::string watcherDocument(const std::string& resource, const std::string& package, unsigned version,
                            const std::vector<WatcherEntry>& watchers)
{
    const Document document = newDocument("watcherinfo", "urn:ietf:params:xml:ns:watcherinfo",
                                          {{"version", std::to_string(version)}, {"state", "full"}});
    xmlNode* const list = addChild(rootOf(document), "watcher-list", {{"resource", resource}, {"package", package}});
    for (const WatcherEntry& entry : watchers) {
        addChild(list, "watcher",
                 {{"id", entry.id},
                  {"status", entry.status},
                  {"event", entry.event},
                  {"expiration", entry.expires >= 0 ? std::to_string(entry.expires) : ""}},
                 entry.uri);
    }
    return written(document);
}

Body listBody(const std::string& list, unsigned version, const std::vector<ListMember>& members)
{
    const std::string boundary = boundaryBetween(members);
    const std::string idEnd = "." + std::to_string(version) + "@" + hostIn(list);
    const Document document = newDocument("list", "urn:ietf:params:xml:ns:rlmi",
                                          {{"uri", list}, {"version", std::to_string(version)}, {"fullState", "true"}});
    std::size_t listed = 0;
    std::size_t count = 0;
    while (count < members.size() && (listed += kResource + members[count].uri.size()) <= kLongestComposition) {
        ++count;
    }
    const std::size_t taken = std::max(listed, kShortList) - kShortList;
    std::string parts;
    for (std::size_t n = 0; n < count; ++n) {
        const std::string id = std::to_string(n + 1) + idEnd;
        const bool shown = !members[n].instance.empty() && !members[n].document.empty() &&
                           taken + parts.size() + members[n].document.size() <= kLongestComposition;
        addResource(rootOf(document), members[n], shown ? id : "");
        if (shown) {
            addPart(parts, boundary, id, "application/pidf+xml;charset=\"UTF-8\"", members[n].document);
        }
    }
    const std::string rootId = "0" + idEnd;
    Body body;
    body.type =
        R"(multipart/related;type="application/rlmi+xml";start="<)" + rootId + R"(>";boundary=")" + boundary + '"';
    addPart(body.text, boundary, rootId, "application/rlmi+xml;charset=\"UTF-8\"", written(document));
    body.text += parts + "--" + boundary + "--\r\n";
    return body;
}

} // namespace oryx::sip
