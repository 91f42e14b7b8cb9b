#include <events/Documents.h>

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xmlsave.h>
#include <utf8.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <iterator>
#include <limits>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <utility>

namespace oryx::sip {

namespace {

constexpr const char* kPidf = "urn:ietf:params:xml:ns:pidf";
constexpr const char* kDataModel = "urn:ietf:params:xml:ns:pidf:data-model"; // RFC 4479
constexpr const char* kNewLine = "\r\n";
/// Of one publication: a device has a few, and each costs time in every document that is composed.
constexpr std::size_t kMostElements = 64;
/// Bytes of a body; a datagram has some thousand more, for the header.
constexpr std::size_t kLongestComposition = 49152;

template <auto Free>
struct FreeBy {
    template <typename Object>
    void operator()(Object* object) const
    {
        Free(object);
    }
};
using Document = std::unique_ptr<xmlDoc, FreeBy<&xmlFreeDoc>>;
using Parser = std::unique_ptr<xmlParserCtxt, FreeBy<&xmlFreeParserCtxt>>;
using Buffer = std::unique_ptr<xmlBuffer, FreeBy<&xmlBufferFree>>;

const xmlChar* xmlText(const char* text)
{
    return reinterpret_cast<const xmlChar*>(text);
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
    std::string valid;
    utf8::replace_invalid(text.begin(), text.end(), std::back_inserter(valid));
    std::string allowed;
    for (auto at = valid.begin(); at != valid.end();) {
        const std::uint32_t c = utf8::next(at, valid.end());
        if ((c >= ' ' && c != 0xFFFE && c != 0xFFFF) || c == '\t' || c == '\n' || c == '\r') {
            utf8::append(c, std::back_inserter(allowed));
        }
    }
    return allowed;
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
    return whole && xmlDocGetRootElement(document.get()) != nullptr ? std::move(document) : nullptr;
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
const xmlNode* presenceIn(const Document& document)
{
    const xmlNode* const root = document ? xmlDocGetRootElement(document.get()) : nullptr;
    if (root == nullptr || !is(*root, kPidf, "presence")) {
        return nullptr;
    }
    std::size_t elements = 0;
    for (const xmlNode* child = root->children; child != nullptr; child = child->next) {
        elements += child->type == XML_ELEMENT_NODE ? 1 : 0;
        if (elements > kMostElements) {
            return nullptr;
        }
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
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n" + written(xmlDocGetRootElement(document.get()), "UTF-8");
}

void setAttribute(xmlNode* node, const char* name, const std::string& value)
{
    xmlNewProp(node, xmlText(name), xmlText(allowedText(value).c_str()));
}

/// A new child in its parent's namespace.
xmlNode* addChild(xmlNode* parent, const char* name)
{
    return xmlNewTextChild(parent, nullptr, xmlText(name), nullptr);
}

void addChild(xmlNode* parent, const char* name, const std::string& text)
{
    xmlNewTextChild(parent, nullptr, xmlText(name), xmlText(allowedText(text).c_str()));
}

/// A document with a root of that name and namespace.
Document newDocument(const char* name, const char* space)
{
    Document document(xmlNewDoc(xmlText("1.0")));
    xmlNode* const root = xmlNewDocNode(document.get(), nullptr, xmlText(name), nullptr);
    xmlSetNs(root, xmlNewNs(root, xmlText(space), nullptr));
    xmlDocSetRootElement(document.get(), root);
    return document;
}

// Presence

/// A document composed of others' elements, which stand in the order of RFC 3863's schema.
class Composition {
public:
    explicit Composition(const std::string& entity) : m_document(newDocument("presence", kPidf))
    {
        setAttribute(root(), "entity", entity);
    }

    /// The latest that are added stay, as many as a datagram has room for.
    void add(const xmlNode& presence)
    {
        for (xmlNode* child = presence.children; child != nullptr; child = child->next) {
            if (child->type == XML_ELEMENT_NODE) {
                take(*child);
            }
        }
    }
    std::string text()
    {
        std::stable_sort(m_parts.begin(), m_parts.end(),
                         [](const Part& one, const Part& other) { return one.place < other.place; });
        for (Part& part : m_parts) {
            if (part.node) {
                xmlAddChild(root(), part.node.release());
            }
        }
        m_parts.clear();
        xmlDOMWrapReconcileNamespaces(nullptr, root(), kRemoveRedundant);
        if (root()->children == nullptr) {
            xmlNode* const tuple = addChild(root(), "tuple");
            setAttribute(tuple, "id", "none");
            addChild(addChild(tuple, "status"), "basic", "closed");
        }
        return written(m_document);
    }

private:
    static constexpr int kRemoveRedundant = 1; // XML_DOM_RECONNS_REMOVEREDUND, which no header declares

    enum class Place { tuple, note, other };
    struct Part {
        Place place;
        std::string name;   // of the element
        std::string id;     // as published; empty: it has none
        std::string source; // what tells it from another with that id
        std::unique_ptr<xmlNode, FreeBy<&xmlFreeNode>> node;
        std::string taken; // the id that it has here
        std::size_t size = 0;
    };

    xmlNode* root() const { return xmlDocGetRootElement(m_document.get()); }

    void take(xmlNode& element)
    {
        Part part{Place::other, reinterpret_cast<const char*>(element.name), attributeOf(element, "id"), "", {}, "", 0};
        part.node.reset(xmlDocCopyNode(&element, m_document.get(), 1));
        if (is(element, kPidf, "tuple")) {
            part.place = Place::tuple;
            part.source = childText(element, kPidf, "contact");
        } else if (is(element, kPidf, "note")) {
            part.place = Place::note;
        } else {
            part.source = childText(element, kDataModel, "deviceID");
        }
        put(std::move(part));
    }
    void put(Part part)
    {
        if (!part.id.empty()) {
            const auto [earlier, added] = m_newest.try_emplace({part.id, part.name, part.source}, m_parts.size());
            if (!added) {
                drop(m_parts[std::exchange(earlier->second, m_parts.size())]);
            }
            part.taken = freeId(part.id);
            xmlSetProp(part.node.get(), xmlText("id"), xmlText(part.taken.c_str()));
        }
        part.size = written(part.node.get(), "UTF-8").size();
        m_size += part.size;
        m_parts.push_back(std::move(part));
        while (m_size > kLongestComposition) { // the oldest are the least of interest
            drop(m_parts[m_oldest++]);
        }
    }
    void drop(Part& part)
    {
        m_size -= std::exchange(part.size, 0);
        m_taken.erase(std::exchange(part.taken, ""));
        part.node.reset();
    }
    std::string freeId(const std::string& wanted)
    {
        std::string id = wanted;
        for (unsigned& number = m_numbers[wanted]; !m_taken.insert(id).second;) {
            id = wanted + "-" + std::to_string(number = std::max(number + 1, 2U));
        }
        return id;
    }

    Document m_document;
    std::vector<Part> m_parts; // those that were dropped among them, without their nodes
    std::size_t m_oldest = 0;
    std::size_t m_size = 0;
    std::map<std::array<std::string, 3>, std::size_t> m_newest; // id, name and source to where in m_parts
    std::set<std::string> m_taken;
    std::map<std::string, unsigned> m_numbers; // the last that was put behind an id
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
    text.append("--").append(boundary).append(kNewLine);
    text.append("Content-Transfer-Encoding: binary").append(kNewLine);
    text.append("Content-ID: <").append(id).append(">").append(kNewLine);
    text.append("Content-Type: ").append(type).append(kNewLine).append(kNewLine);
    text.append(document).append(kNewLine);
}

void addResource(xmlNode* list, const ListMember& member, const std::string& contentId)
{
    xmlNode* const resource = addChild(list, "resource");
    setAttribute(resource, "uri", member.uri);
    if (!member.name.empty()) {
        addChild(resource, "name", member.name);
    }
    if (member.instance.empty()) {
        return;
    }
    xmlNode* const instance = addChild(resource, "instance");
    setAttribute(instance, "id", member.instance);
    setAttribute(instance, "state", member.state);
    if (!member.reason.empty()) {
        setAttribute(instance, "reason", member.reason);
    }
    if (!contentId.empty()) {
        setAttribute(instance, "cid", contentId);
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
    for (const char c : written(xmlDocGetRootElement(document.get()), "US-ASCII")) {
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
        if (const xmlNode* const presence = presenceIn(document); presence != nullptr) {
            composition.add(*presence);
        }
    }
    return composition.text();
}

std::string watcherDocument(const std::string& resource, const std::string& package, unsigned version,
                            const std::vector<WatcherEntry>& watchers)
{
    const Document document = newDocument("watcherinfo", "urn:ietf:params:xml:ns:watcherinfo");
    xmlNode* const root = xmlDocGetRootElement(document.get());
    setAttribute(root, "version", std::to_string(version));
    setAttribute(root, "state", "full");
    xmlNode* const list = addChild(root, "watcher-list");
    setAttribute(list, "resource", resource);
    setAttribute(list, "package", package);
    for (const WatcherEntry& entry : watchers) {
        addChild(list, "watcher", entry.uri);
        xmlNode* const watcher = xmlGetLastChild(list);
        setAttribute(watcher, "id", entry.id);
        setAttribute(watcher, "status", entry.status);
        setAttribute(watcher, "event", entry.event);
        if (entry.expires >= 0) {
            setAttribute(watcher, "expiration", std::to_string(entry.expires));
        }
    }
    return written(document);
}

Body listBody(const std::string& list, unsigned version, const std::vector<ListMember>& members)
{
    const std::string boundary = boundaryBetween(members);
    const std::string idEnd = "." + std::to_string(version) + "@" + hostIn(list);
    const Document document = newDocument("list", "urn:ietf:params:xml:ns:rlmi");
    xmlNode* const root = xmlDocGetRootElement(document.get());
    setAttribute(root, "uri", list);
    setAttribute(root, "version", std::to_string(version));
    setAttribute(root, "fullState", "true");
    std::string parts;
    for (std::size_t n = 0; n < members.size(); ++n) {
        const std::string id = std::to_string(n + 1) + idEnd;
        const bool shown = !members[n].instance.empty() && !members[n].document.empty() &&
                           parts.size() + members[n].document.size() <= kLongestComposition;
        addResource(root, members[n], shown ? id : "");
        if (shown) {
            addPart(parts, boundary, id, "application/pidf+xml;charset=\"UTF-8\"", members[n].document);
        }
    }
    const std::string rootId = "0" + idEnd;
    Body body;
    body.type =
        R"(multipart/related;type="application/rlmi+xml";start="<)" + rootId + R"(>";boundary=")" + boundary + '"';
    addPart(body.text, boundary, rootId, "application/rlmi+xml;charset=\"UTF-8\"", written(document));
    body.text += parts + "--" + boundary + "--" + kNewLine;
    return body;
}

} // namespace oryx::sip
