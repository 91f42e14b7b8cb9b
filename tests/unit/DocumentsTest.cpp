#include <events/Documents.h>

#include "support/ProcessorTime.h"

#include <gtest/gtest.h>
#include <libxml/parser.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace documentsTest {

namespace {

using namespace oryx::sip;

using Texts = std::vector<std::string>;

const std::string kDeclaration = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
const std::string kPresence = R"(<presence xmlns="urn:ietf:params:xml:ns:pidf" entity="sip:alice@oryx.example")";

/// A text that the parser, too, finds well-formed.
std::string wellFormed(const std::string& text)
{
    const std::unique_ptr<xmlDoc, void (*)(xmlDoc*)> document(
        xmlReadMemory(text.data(), static_cast<int>(text.size()), nullptr, nullptr, XML_PARSE_NONET), &xmlFreeDoc);
    EXPECT_NE(document, nullptr) << text;
    return text;
}

std::string presence(const Texts& published)
{
    return wellFormed(presenceDocument("sip:alice@oryx.example", published));
}

/// A composed document of those elements.
std::string composed(const std::string& elements)
{
    return kDeclaration + kPresence + ">" + elements + "</presence>";
}

std::string published(const std::string& elements)
{
    return kPresence + R"( xmlns:dm="urn:ietf:params:xml:ns:pidf:data-model")" + ">" + elements + "</presence>";
}

std::string tuple(const std::string& id, const std::string& basic, const std::string& contact)
{
    return "<tuple id=\"" + id + "\"><status><basic>" + basic + "</basic></status><contact>" + contact +
           "</contact></tuple>";
}

std::string stored(const std::string& body)
{
    return publishedDocument(body).value_or("none");
}

TEST(PublishedDocument, isStoredInAsciiOnOneLineWithoutQuotes)
{
    const std::string kept =
        stored("<?xml version='1.0'?>\r\n<!-- from a telephone -->\n"
               "<presence entity='sip:alice@oryx.example' xmlns='urn:ietf:params:xml:ns:pidf'>\r\n"
               "  <?skip this?><!-- and that --><tuple id='t1'>\n <status><basic>open</basic></status>\n"
               "<note>it's\n\xC3\xA9t\xC3\xA9 \\ <![CDATA[<b>]]></note></tuple>\r\n</presence>\n");
    EXPECT_EQ(wellFormed(kept), kPresence +
                                    R"(><tuple id="t1"><status><basic>open</basic></status>)"
                                    "<note>it&#39;s&#10;&#233;t&#233; &#92; &lt;b&gt;</note></tuple></presence>");
    EXPECT_EQ(stored(kept), kept);
}

TEST(PublishedDocument, isNoneUnlessItIsPidf)
{
    const std::string other = R"(<presence xmlns="urn:example:other"/>)";
    for (const std::string& body :
         Texts{"", "no document", "<presence/>", other, published("<tuple/>"), published(R"(<tuple id=""/>)"),
               kPresence, published("<unbound:element/>"), published("\x01"), published("\xC3"),
               kPresence + ">&undeclared;</presence>", R"(<tuple xmlns="urn:ietf:params:xml:ns:pidf" id="t1"/>)",
               // what could not be written in ASCII without quotes
               published("<\xC3\xA9t\xC3\xA9/>"), published(R"(<q:e xmlns:q='urn:a"b'/>)")}) {
        EXPECT_EQ(stored(body), "none") << body;
    }
}

TEST(PublishedDocument, mayHaveNoDocumentType)
{
    const std::string document = kPresence + "/>";
    EXPECT_EQ(stored(document), document);
    EXPECT_EQ(stored("<!DOCTYPE presence>" + document), "none");
    EXPECT_EQ(stored("<!DOCTYPE presence SYSTEM \"file:///etc/passwd\">" + document), "none");
    EXPECT_EQ(stored("<!DOCTYPE presence [<!ENTITY a \"b\">]>" + published("&a;")), "none");
}

TEST(PublishedDocument, isInUtf8WhateverItSays)
{
    const std::string document = kPresence + "><note>\xC3\xA9</note></presence>";
    const std::string kept = kPresence + "><note>&#233;</note></presence>";
    testing::internal::CaptureStderr();
    for (const std::string encoding : {"UTF-8", "ISO-8859-1", "UTF-16", "UCS-4"}) {
        EXPECT_EQ(stored("<?xml version=\"1.0\" encoding=\"" + encoding + "\"?>" + document), kept) << encoding;
    }
    EXPECT_EQ(stored(kPresence + "><note>\xE9</note></presence>"), "none");
    EXPECT_EQ(stored(std::string("\xFF\xFE<\0p\0\0\0\0\0", 10)), "none");
    EXPECT_EQ(stored(std::string("\0\0\0<\0\0\0\0", 8)), "none");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), ""); // which anybody could fill
}

TEST(PublishedDocument, isNoDeeperThanTheParserAllows)
{
    std::string deep;
    for (int n = 0; n < 10000; ++n) {
        deep += "<x>";
    }
    EXPECT_EQ(stored(published(deep)), "none");
}

TEST(PresenceDocument, isClosedWithNothingPublished)
{
    const std::string closed = composed(R"(<tuple id="none"><status><basic>closed</basic></status></tuple>)");
    EXPECT_EQ(presence({}), closed);
    EXPECT_EQ(presence({published("")}), closed);
    EXPECT_EQ(presence({"broken", "<!DOCTYPE presence>" + published("<note>n</note>")}), closed);
}

TEST(PresenceDocument, hasTheElementsOfAllSourcesInTheirOrder)
{
    const std::string person = R"(<dm:person id="p1"><dm:note>away</dm:note></dm:person>)";
    const std::string device = R"(<dm:device id="d1"><dm:deviceID>urn:device:1</dm:deviceID></dm:device>)";
    const std::string space = R"( xmlns:dm="urn:ietf:params:xml:ns:pidf:data-model")";
    EXPECT_EQ(presence({published(person + "<note xml:lang=\"en\">here</note>" + tuple("a", "open", "sip:a@h")),
                        published(tuple("b", "closed", "sip:b@h") + "<note>there</note>" + device)}),
              composed(tuple("a", "open", "sip:a@h") + tuple("b", "closed", "sip:b@h") +
                       R"(<note xml:lang="en">here</note><note>there</note>)" + "<dm:person" + space +
                       R"( id="p1"><dm:note>away</dm:note></dm:person><dm:device)" + space +
                       R"( id="d1"><dm:deviceID>urn:device:1</dm:deviceID></dm:device>)"));
}

TEST(PresenceDocument, takesElementsWhateverTheirPrefix)
{
    const std::string prefixed =
        R"(<p:presence xmlns:p="urn:ietf:params:xml:ns:pidf" entity="sip:alice@oryx.example">)"
        R"(<p:tuple id="a"><p:status><p:basic>open</p:basic></p:status></p:tuple></p:presence>)";
    EXPECT_EQ(presence({prefixed, published(tuple("b", "open", "sip:b@h"))}),
              composed(R"(<p:tuple xmlns:p="urn:ietf:params:xml:ns:pidf" id="a"><p:status><p:basic>open</p:basic>)"
                       R"(</p:status></p:tuple>)" +
                       tuple("b", "open", "sip:b@h")));
}

TEST(PresenceDocument, hasTheNewestOfOneSource)
{
    EXPECT_EQ(presence({published(tuple("t", "open", "sip:a@h")), published(tuple("t", "closed", "sip:a@h"))}),
              composed(tuple("t", "closed", "sip:a@h")));
    const std::string person = R"(<dm:person id="p"><dm:note>one</dm:note></dm:person>)";
    EXPECT_EQ(presence({published(person), published(person)}), presence({published(person)}));
}

TEST(PresenceDocument, tellsTheIdsOfSeveralSourcesApart)
{
    const Texts documents{published(tuple("t", "open", "sip:a@h")), published(tuple("t", "closed", "sip:b@h")),
                          published(tuple("t-2", "open", "sip:c@h")),
                          published(R"(<dm:device id="t"><dm:deviceID>urn:device:1</dm:deviceID></dm:device>)")};
    EXPECT_EQ(presence(documents), composed(tuple("t", "open", "sip:a@h") + tuple("t-2", "closed", "sip:b@h") +
                                            tuple("t-2-2", "open", "sip:c@h") +
                                            R"(<dm:device xmlns:dm="urn:ietf:params:xml:ns:pidf:data-model" id="t-3">)"
                                            R"(<dm:deviceID>urn:device:1</dm:deviceID></dm:device>)"));
}

TEST(PublishedDocument, hasAFewElements)
{
    std::string notes;
    for (int number = 0; number < 64; ++number) {
        notes += "<note/>";
    }
    EXPECT_NE(stored(published(notes)), "none");
    EXPECT_EQ(stored(published(notes + "<note/>")), "none");
}

/// Each is a new source with the same id.
TEST(PresenceDocument, isComposedAtOnceWhateverTheIds)
{
    Texts documents;
    for (int source = 0; source < 64; ++source) {
        std::string tuples;
        for (int number = 0; number < 64; ++number) {
            tuples += "<tuple id=\"t\"><contact>sip:" + std::to_string(source) + "-" + std::to_string(number) +
                      "</contact></tuple>";
        }
        documents.push_back(published(tuples));
    }
    const auto begin = processorTime();
    const std::string text = presence(documents);
    EXPECT_LT(processorTime() - begin, std::chrono::seconds(2));
    EXPECT_EQ(text.find("sip:0-0<"), std::string::npos);
    EXPECT_NE(text.find("sip:63-63<"), std::string::npos);
    EXPECT_LT(text.size(), 50000U);
}

TEST(PresenceDocument, escapesWhatItIsGiven)
{
    EXPECT_EQ(wellFormed(presenceDocument("sip:\"<&>'\x01\xEF\xBF\xBE\xEF\xBF\xBF\xFF@h",
                                          {published("<note>&lt;&amp;&#39;</note>")})),
              kDeclaration + "<presence xmlns=\"urn:ietf:params:xml:ns:pidf\" "
                             "entity=\"sip:&quot;&lt;&amp;&gt;'&#xFFFD;@h\"><note>&lt;&amp;'</note></presence>");
}

TEST(WatcherDocument, listsAllWatchers)
{
    const std::string begin = kDeclaration +
                              R"(<watcherinfo xmlns="urn:ietf:params:xml:ns:watcherinfo" version="7" state="full">)"
                              R"(<watcher-list resource="sip:alice@oryx.example" package="presence")";
    EXPECT_EQ(wellFormed(watcherDocument("sip:alice@oryx.example", "presence", 7, {})), begin + "/></watcherinfo>");
    EXPECT_EQ(wellFormed(watcherDocument("sip:alice@oryx.example", "presence", 7,
                                         {{"sip:bob@oryx.example", "w1", "active", "subscribe", 600},
                                          {"sip:<eve>&@oryx.example", "w\"2", "terminated", "rejected", -1}})),
              begin + R"(><watcher id="w1" status="active" event="subscribe" expiration="600">sip:bob@oryx.example)"
                      R"(</watcher><watcher id="w&quot;2" status="terminated" event="rejected">)"
                      R"(sip:&lt;eve&gt;&amp;@oryx.example</watcher></watcher-list></watcherinfo>)");
}

TEST(ListBody, bringsTheMembersDocuments)
{
    const Body body = listBody("sip:friends@oryx.example", 3,
                               {{"sip:a@h?x=A&y=\"B\"", "i1", "active", "", "<a/>"},
                                {"sip:b@h", "i2", "pending", "", ""},
                                {"sip:c@h", "i3", "terminated", "rejected", ""},
                                {"sip:d@h", "", "", "", "<unused/>"},
                                {"sip:e@h", "i5", "active", "", "<e/>"}});
    EXPECT_EQ(body.type,
              "multipart/related;type=\"application/rlmi+xml\";start=\"<0.3@oryx.example>\";boundary=\"oryx\"");
    const auto part = [](const std::string& id, const std::string& type, const std::string& text) {
        return "--oryx\r\nContent-Transfer-Encoding: binary\r\nContent-ID: <" + id +
               "@oryx.example>\r\nContent-Type: " + type + ";charset=\"UTF-8\"\r\n\r\n" + text + "\r\n";
    };
    const std::string list =
        kDeclaration +
        R"(<list xmlns="urn:ietf:params:xml:ns:rlmi" uri="sip:friends@oryx.example" version="3" fullState="true">)"
        R"(<resource uri="sip:a@h?x=A&amp;y=&quot;B&quot;"><instance id="i1" state="active" cid="1.3@oryx.example"/></resource>)"
        R"(<resource uri="sip:b@h"><instance id="i2" state="pending"/></resource>)"
        R"(<resource uri="sip:c@h"><instance id="i3" state="terminated" reason="rejected"/></resource>)"
        R"(<resource uri="sip:d@h"/>)"
        R"(<resource uri="sip:e@h"><instance id="i5" state="active" cid="5.3@oryx.example"/></resource></list>)";
    EXPECT_EQ(body.text, part("0.3", "application/rlmi+xml", wellFormed(list)) +
                             part("1.3", "application/pidf+xml", "<a/>") + part("5.3", "application/pidf+xml", "<e/>") +
                             "--oryx--\r\n");
}

TEST(ListBody, hasABoundaryThatIsInNoDocument)
{
    const Body body = listBody("sip:[::1]", 0, {{"sip:a@h", "i", "active", "", "<a>oryx oryx-1</a>"}});
    const std::string start = "multipart/related;type=\"application/rlmi+xml\";start=\"<0.0@1>\";boundary=\"";
    ASSERT_TRUE(body.type.starts_with(start + "oryx-")) << body.type;
    const std::string boundary = body.type.substr(start.size(), body.type.size() - start.size() - 1);
    EXPECT_EQ(std::string("<a>oryx oryx-1</a>").find(boundary), std::string::npos);
    EXPECT_NE(body.text.find("\r\n--" + boundary + "--\r\n"), std::string::npos);
}

/// Whoever publishes them all.
TEST(ListBody, hasABoundaryAtOnceWhateverTheDocumentsHave)
{
    std::string document;
    for (int number = 0; number < 200000; ++number) {
        document += "oryx-" + std::to_string(number) + " ";
    }
    const auto begin = processorTime();
    EXPECT_NE(listBody("sip:l@h", 0, {{"sip:a@h", "i", "active", "", document}}).type, "");
    EXPECT_LT(processorTime() - begin, std::chrono::seconds(2));
}

TEST(ListBody, fitsADatagramWhoeverIsOnTheList)
{
    const auto body = [](std::size_t members, std::size_t uri, std::size_t document) {
        std::vector<ListMember> list;
        for (std::size_t n = 0; n < members; ++n) {
            const std::string start = "sip:" + std::to_string(n);
            list.push_back({start + std::string(uri - start.size(), 'u'), "18446744073709551615", "active", "",
                            std::string(document, 'd')});
        }
        return listBody("sip:friends@oryx.example", 1, list).text;
    };
    const auto count = [](const std::string& text, const std::string& what) {
        std::size_t times = 0;
        for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
            ++times;
        }
        return times;
    };
    const std::string hundred = body(100, 30, 200);
    EXPECT_EQ(count(hundred, "<resource "), 100U);
    EXPECT_EQ(count(hundred, "application/pidf+xml"), 100U);
    const std::string many = body(250, 30, 200);
    EXPECT_EQ(count(many, "<resource "), 250U);
    EXPECT_LT(many.size(), 58000U);
    EXPECT_LT(body(1000, 1000, 1000).size(), 58000U);
    EXPECT_LT(body(100, 100, 3000).size(), 58000U);
}

TEST(ListBody, hasNoMoreDocumentsThanADatagramHasRoomFor)
{
    const std::string document(30000, 'd');
    const Body body =
        listBody("sip:l@h", 0, {{"sip:a@h", "i", "active", "", document}, {"sip:b@h", "j", "active", "", document}});
    EXPECT_NE(body.text.find(R"(<resource uri="sip:a@h"><instance id="i" state="active" cid="1.0@h"/></resource>)"),
              std::string::npos);
    EXPECT_NE(body.text.find(R"(<resource uri="sip:b@h"><instance id="j" state="active"/></resource>)"),
              std::string::npos);
    EXPECT_LT(body.text.size(), 40000U);
}

} // namespace

} // namespace documentsTest
