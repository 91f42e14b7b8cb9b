#include "support/Show.h"

#include <dal/PresenceDal.h>

#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace oryx {

namespace {

// Texts are handed out as references to what the record holds, or as copies where an entry is shared out in parts.
static_assert(std::is_same_v<decltype(std::declval<const PresenceRecord&>().fromhdr()), const std::string&>);
static_assert(std::is_same_v<decltype(std::declval<const CMRecord&>().GetHandle()), const std::string&>);
static_assert(std::is_same_v<decltype(std::declval<const CMRecord&>().GetLinkType()), const std::string&>);
static_assert(std::is_same_v<decltype(std::declval<const CMRecord&>().GetIPAddress()), const std::string&>);
static_assert(std::is_same_v<decltype(std::declval<const CMRecord&>().GetPort()), const std::string&>);
static_assert(std::is_same_v<decltype(std::declval<const AccessControlEntry&>().requester()), std::string>);
static_assert(std::is_same_v<decltype(std::declval<const AccessControlEntry&>().action()), std::string>);
static_assert(std::is_same_v<decltype(std::declval<const SourcesRecord&>().presentitykey()), std::string>);
static_assert(std::is_same_v<decltype(std::declval<const SourcesRecord&>().sourceopaque()), std::string>);
static_assert(std::is_same_v<decltype(std::declval<const SourcesRecord&>().contact()), std::string>);
static_assert(std::is_same_v<decltype(std::declval<const SourcesRecord&>().event()), std::string>);
static_assert(std::is_same_v<decltype(std::declval<const SourcesRecord&>().presentity()), std::string>);
static_assert(std::is_same_v<decltype(std::declval<const ListSubscriptionRecord&>().listfsmidentifier()), std::string>);
static_assert(
    std::is_same_v<decltype(std::declval<const ListSubscriptionRecord&>().subscriptionidentifier()), std::string>);

static_assert(std::is_same_v<decltype(std::declval<const PresenceRecord&>().expiryTime()), long>);
static_assert(std::is_same_v<decltype(std::declval<const WatcherInfoRecord&>().expirytime()), long>);
static_assert(std::is_same_v<decltype(std::declval<const WatchersRecord&>().expirytime()), long>);
static_assert(std::is_same_v<decltype(std::declval<const WatchersRecord&>().docversion()), unsigned long>);
static_assert(std::is_same_v<decltype(std::declval<const SourcesRecord&>().expirytime()), long>);
static_assert(std::is_same_v<decltype(std::declval<const ListSubscriptionRecord&>().expirytime()), long>);
static_assert(std::is_same_v<decltype(std::declval<const ConfExtRecord&>().start_time()), unsigned int>);
static_assert(std::is_base_of_v<ContactRecord, ExtendedContactRecord>);

/// Whether a text begins with the prefix and holds each of the values behind it.
testing::AssertionResult tells(const std::string& text, const std::string& prefix,
                               const std::vector<std::string>& values)
{
    if (text.rfind(prefix, 0) != 0) {
        return testing::AssertionFailure() << "\"" << prefix << "\" does not begin \"" << text << "\"";
    }
    for (const std::string& value : values) {
        if (text.find(value, prefix.size()) == std::string::npos) {
            return testing::AssertionFailure() << "no \"" << value << "\" in \"" << text << "\"";
        }
    }
    return testing::AssertionSuccess();
}

/// What was moved, copied and assigned from the record, before it became another.
template <typename Record>
std::vector<Record> copiesOf(Record original, const Record& other)
{
    const Record copied(original);
    Record assigned(other);
    assigned = original;
    const Record moved(std::move(original));
    original = other;
    return {moved, copied, assigned};
}

PresenceRecord dialog()
{
    PresenceRecord rec;
    rec.SetSubscriptionid("incoming#1");
    rec.SetSid("sid-2");
    rec.SetFromhdr("<sip:alice@oryx.example>;tag=3");
    rec.SetTohdr("<sip:bob@oryx.example>;tag=4");
    rec.SetCallId("5@192.0.2.1");
    rec.SetSubcseq(6);
    rec.SetEventhdr("presence;id=7");
    rec.SetRemotecontacthdr("<sip:alice@192.0.2.8>");
    rec.SetRouteset("<sip:edge9.oryx.example;lr>");
    rec.SetNotcseq(10);
    rec.SetRequestUri("sip:bob@oryx.example;11");
    rec.SetPackageid("presence#12");
    rec.SetOid(13);
    rec.SetWatcherIdentity("alice#14");
    rec.SetDocType(15);
    rec.SetExpiryTime(LONG_MAX);
    return rec;
}

const std::string kDialog =
    "dialog 'incoming#1' sid='sid-2' from='<sip:alice@oryx.example>;tag=3' to='<sip:bob@oryx.example>;tag=4' call='5@192.0.2.1' subcseq=6 event='presence;id=7' contact='<sip:alice@192.0.2.8>' route='<sip:edge9.oryx.example;lr>' notcseq=10 uri='sip:bob@oryx.example;11' package='presence#12' oid=13 watcher='alice#14' doctype=15 expires=" +
    std::to_string(LONG_MAX) + "\n";

TEST(PresenceRecordTest, HoldsWhatIsSet)
{
    EXPECT_EQ(show(dialog()), kDialog);
}

TEST(PresenceRecordTest, StartsEmpty)
{
    EXPECT_EQ(
        show(PresenceRecord()),
        "dialog '' sid='' from='' to='' call='' subcseq=0 event='' contact='' route='' notcseq=0 uri='' package='' oid=0 watcher='' doctype=0 expires=0\n");
}

TEST(PresenceRecordTest, KeepsItsTextsForNull)
{
    PresenceRecord rec = dialog();
    rec.SetSubscriptionid(nullptr);
    rec.SetSid(nullptr);
    rec.SetFromhdr(nullptr);
    rec.SetTohdr(nullptr);
    rec.SetCallId(nullptr);
    rec.SetEventhdr(nullptr);
    rec.SetRemotecontacthdr(nullptr);
    rec.SetRouteset(nullptr);
    rec.SetRequestUri(nullptr);
    rec.SetPackageid(nullptr);
    rec.SetWatcherIdentity(nullptr);
    EXPECT_EQ(show(rec), kDialog);
}

TEST(PresenceRecordTest, TakesAnEmptyTextForWhatItIs)
{
    PresenceRecord rec = dialog();
    rec.SetRouteset("");
    EXPECT_EQ(rec.routeset(), "");
}

TEST(PresenceRecordTest, MayBeMadeOfItsParts)
{
    EXPECT_EQ(
        show(PresenceRecord("id", "sid", "from", "to", "call", 1, "event", "contact", "route", 2, "uri", "package")),
        "dialog 'id' sid='sid' from='from' to='to' call='call' subcseq=1 event='event' contact='contact' route='route' notcseq=2 uri='uri' package='package' oid=0 watcher='' doctype=0 expires=0\n");
}

TEST(PresenceRecordTest, MayBeMadeOfPartsThatAreMissing)
{
    EXPECT_EQ(
        show(PresenceRecord(nullptr, nullptr, nullptr, nullptr, nullptr, 1, nullptr, nullptr, nullptr, 2, nullptr,
                            nullptr)),
        "dialog '' sid='' from='' to='' call='' subcseq=1 event='' contact='' route='' notcseq=2 uri='' package='' oid=0 watcher='' doctype=0 expires=0\n");
}

TEST(PresenceRecordTest, CopiesEveryField)
{
    EXPECT_EQ(show(copiesOf(dialog(), PresenceRecord())), kDialog + kDialog + kDialog);
}

TEST(WatcherInfoRecordTest, TakesTheSubscriptionsKeyBeforeTheScheme)
{
    const WatcherInfoRecord rec("w", "s", "p", 1, 100);
    EXPECT_EQ(show(rec), "winfo 'w' for 's' scheme='p' from version=1 expires=100\n");
    EXPECT_EQ(rec.subscribekey(), "s");
    EXPECT_EQ(rec.presurlscheme(), "p");
}

TEST(WatcherInfoRecordTest, MayBeMadeWithoutAScheme)
{
    EXPECT_EQ(show(WatcherInfoRecord("w", "s", 1, 100)), "winfo 'w' for 's' scheme='' from version=1 expires=100\n");
}

TEST(WatcherInfoRecordTest, MayBeMadeOfPartsThatAreMissing)
{
    EXPECT_EQ(show(WatcherInfoRecord(nullptr, nullptr, nullptr, 1, 100)),
              "winfo '' for '' scheme='' from version=1 expires=100\n");
    EXPECT_EQ(show(WatcherInfoRecord(nullptr, nullptr, 1, 100)),
              "winfo '' for '' scheme='' from version=1 expires=100\n");
}

TEST(WatcherInfoRecordTest, HoldsWhatIsSetAndKeepsItsTextsForNull)
{
    WatcherInfoRecord rec("w", "s", "p", 1, 100);
    rec.SetWinfokey("bob.winfo");
    rec.SetPresUrlScheme("sips");
    rec.SetSubscribekey("incoming#1");
    rec.SetStartingdocversion(-2);
    rec.SetExpirytime(LONG_MAX);
    const std::string set =
        "winfo 'bob.winfo' for 'incoming#1' scheme='sips' from version=-2 expires=" + std::to_string(LONG_MAX) + "\n";
    EXPECT_EQ(show(rec), set);
    rec.SetWinfokey(nullptr);
    rec.SetPresUrlScheme(nullptr);
    rec.SetSubscribekey(nullptr);
    EXPECT_EQ(show(rec), set);
}

TEST(WatcherInfoRecordTest, CopiesEveryField)
{
    const std::string expected = "winfo 'w' for 's' scheme='p' from version=1 expires=100\n";
    EXPECT_EQ(show(copiesOf(WatcherInfoRecord("w", "s", "p", 1, 100), WatcherInfoRecord("", "", "", 0, 0))),
              expected + expected + expected);
}

TEST(AccessControlEntryTest, HoldsWhoAsksAndWhatTheyAreGranted)
{
    EXPECT_EQ(show(AccessControlEntry("sip:alice@oryx.example", "allow")),
              "entry requester='sip:alice@oryx.example' action='allow'\n");
    EXPECT_EQ(show(AccessControlEntry(nullptr, "allow")), "entry requester='' action='allow'\n");
    EXPECT_EQ(show(AccessControlEntry("sip:alice@oryx.example", nullptr)),
              "entry requester='sip:alice@oryx.example' action=''\n");
}

TEST(AccessControlEntryTest, HandsOutTextsOfTheirOwn)
{
    AccessControlEntry entry("alice", "allow");
    const auto& requester = entry.requester();
    entry = AccessControlEntry("bob", "deny");
    EXPECT_EQ(requester, "alice");
    EXPECT_EQ(show(entry), "entry requester='bob' action='deny'\n");
}

WatchersRecord watcher()
{
    return {"bob#presence", "incoming#1",           2, 3, 4, 1700000005, "alice", "sip:bob@oryx.example", 6,
            "presence",     "<sip:alice@192.0.2.7>"};
}

const std::string kWatcher =
    "watcher 'incoming#1' of 'bob#presence' doctype=2 type=3 state=4 expires=1700000005 identity='alice' presentity='sip:bob@oryx.example' version=6 event='presence' contact='<sip:alice@192.0.2.7>'\n";

TEST(WatchersRecordTest, IsMadeOfItsPartsInTheOrderOfItsFields)
{
    EXPECT_EQ(show(watcher()), kWatcher);
}

TEST(WatchersRecordTest, HoldsWhatIsSet)
{
    WatchersRecord rec = watcher();
    rec.presentitykey("carol#dialog");
    rec.watcheropaque("incoming#12");
    rec.doctype(13);
    rec.watchertype(14);
    rec.watcherstate(15);
    rec.expirytime(INT_MAX);
    rec.watcheridentity("dave");
    rec.presentity("sip:carol@oryx.example");
    rec.docversion(ULONG_MAX);
    rec.event("dialog");
    rec.remoteContactHdr("<sip:dave@192.0.2.17>");
    EXPECT_EQ(
        show(rec),
        "watcher 'incoming#12' of 'carol#dialog' doctype=13 type=14 state=15 expires=2147483647 identity='dave' presentity='sip:carol@oryx.example' version=" +
            std::to_string(ULONG_MAX) + " event='dialog' contact='<sip:dave@192.0.2.17>'\n");
}

TEST(WatchersRecordTest, CopiesEveryField)
{
    EXPECT_EQ(show(copiesOf(watcher(), WatchersRecord("", "", 0, 0, 0, 0, "", "", 0, "", ""))),
              kWatcher + kWatcher + kWatcher);
}

TEST(WatchersRecordTest, TellsEveryFieldBehindThePrefix)
{
    const WatchersRecord rec("key-a", "opaque-b", 1003, 1004, 1005, 1006, "identity-g", "presentity-h", 1009, "event-j",
                             "contact-k");
    EXPECT_TRUE(tells(rec.dumpToString("the watcher: "), "the watcher: ",
                      {"key-a", "opaque-b", "1003", "1004", "1005", "1006", "identity-g", "presentity-h", "1009",
                       "event-j", "contact-k"}));
    EXPECT_EQ("the watcher: " + rec.dumpToString(""), rec.dumpToString("the watcher: "));
}

TEST(SourcesRecordTest, IsMadeWithoutAPresentityTheTimeBeforeTheEvent)
{
    EXPECT_EQ(
        show(SourcesRecord("bob#presence", "publish#1", "<sip:bob@192.0.2.2>", LONG_MAX, "presence")),
        "source 'publish#1' of 'bob#presence' contact='<sip:bob@192.0.2.2>' event='presence' presentity='' expires=" +
            std::to_string(LONG_MAX) + "\n");
}

TEST(SourcesRecordTest, IsMadeOfAllItsParts)
{
    EXPECT_EQ(
        show(SourcesRecord("bob#presence", "publish#1", "<sip:bob@192.0.2.2>", 60, "presence", "sip:bob@oryx.example")),
        "source 'publish#1' of 'bob#presence' contact='<sip:bob@192.0.2.2>' event='presence' presentity='sip:bob@oryx.example' expires=60\n");
}

TEST(SourcesRecordTest, MayBeMadeOfPartsThatAreMissing)
{
    const std::string empty = "source '' of '' contact='' event='' presentity='' expires=60\n";
    EXPECT_EQ(show(SourcesRecord(nullptr, nullptr, nullptr, 60, nullptr)), empty);
    EXPECT_EQ(show(SourcesRecord(nullptr, nullptr, nullptr, 60, nullptr, nullptr)), empty);
}

TEST(SourcesRecordTest, CopiesEveryField)
{
    const std::string expected = "source 's' of 'k' contact='c' event='e' presentity='p' expires=60\n";
    EXPECT_EQ(show(copiesOf(SourcesRecord("k", "s", "c", 60, "e", "p"), SourcesRecord("", "", "", 0, ""))),
              expected + expected + expected);
}

TEST(ListSubscriptionRecordTest, IsMadeOfItsParts)
{
    EXPECT_EQ(show(ListSubscriptionRecord("list#1", "outgoing#2", 60)),
              "list 'list#1' subscription='outgoing#2' expires=60\n");
    EXPECT_EQ(show(ListSubscriptionRecord(nullptr, "outgoing#2", 60)),
              "list '' subscription='outgoing#2' expires=60\n");
    EXPECT_EQ(show(ListSubscriptionRecord("list#1", nullptr, 60)), "list 'list#1' subscription='' expires=60\n");
}

ExtendedContactRecord bobsPhone()
{
    ExtendedContactRecord rec;
    rec.setContactid(1);
    rec.setAddress("sip:bob@192.0.2.2");
    rec.setSid(3);
    rec.setDomain("oryx.example");
    rec.setHandle("bob");
    rec.setOid(4);
    return rec;
}

const std::string kBobsPhone =
    "of 'bob'@'oryx.example' sid=3 oid=4 contact 1 'sip:bob@192.0.2.2' csid=-1 q='' expires=0 permanent='f' capabilities='' header='' call='' cseq=0 type='' path=''\n";

TEST(ExtendedContactRecordTest, HoldsWhatIsSetBesideTheContact)
{
    EXPECT_EQ(show(bobsPhone()), kBobsPhone);
}

TEST(ExtendedContactRecordTest, StartsAsAContactWithoutAnAddressOfRecord)
{
    const ExtendedContactRecord rec;
    EXPECT_EQ(rec.handle(), "");
    EXPECT_EQ(rec.domain(), "");
    EXPECT_EQ(show(static_cast<const ContactRecord&>(rec)), show(ContactRecord()));
}

TEST(ExtendedContactRecordTest, KeepsItsTextsForNull)
{
    ExtendedContactRecord rec = bobsPhone();
    rec.setHandle(nullptr);
    rec.setDomain(nullptr);
    EXPECT_EQ(show(rec), kBobsPhone);
}

TEST(ExtendedContactRecordTest, CopiesEveryField)
{
    EXPECT_EQ(show(copiesOf(bobsPhone(), ExtendedContactRecord())), kBobsPhone + kBobsPhone + kBobsPhone);
}

TEST(ConfExtRecordTest, HoldsWhatItIsMadeOfAndWhatIsSet)
{
    ConfExtRecord rec("7001", "IN USE", 1700000000);
    EXPECT_EQ(show(rec), "conference '7001' 'IN USE' since 1700000000\n");
    rec.extension("7002");
    rec.conf_status("IDLE");
    rec.start_time(4294967295U);
    EXPECT_EQ(show(rec), "conference '7002' 'IDLE' since 4294967295\n");
}

TEST(ConfExtRecordTest, TellsEveryFieldBehindThePrefix)
{
    EXPECT_TRUE(tells(ConfExtRecord("7001", "IN USE", 4294967295U).dumpToString("the extension: "),
                      "the extension: ", {"7001", "IN USE", "4294967295"}));
}

TEST(DatabaseUpdateTest, IsMadeWithTheNumberedKeySecond)
{
    EXPECT_EQ(show(DatabaseUpdate("acp", 7, "north", "update", "12")),
              "update of 'acp' key=7 'north' command='update' at '12'\n");
}

TEST(DatabaseUpdateTest, HasANumberedKeyWhereTheOtherIsEmpty)
{
    const DatabaseUpdate update("acp", 7, "", "update", "12");
    EXPECT_EQ(update.strpkey(), "");
    EXPECT_EQ(update.intpkey(), 7);
    EXPECT_EQ(show(DatabaseUpdate("", 7, "", "", "")), "update of '' key=7 '' command='' at ''\n");
}

TEST(DatabaseUpdateTest, HoldsWhatIsSet)
{
    DatabaseUpdate update("acp", 7, "north", "update", "12");
    update.set_relation_name("extension");
    update.set_strpkey("7001");
    update.set_intpkey(-8);
    update.set_cmd("insert");
    update.set_timestamp("13");
    EXPECT_EQ(show(update), "update of 'extension' key=-8 '7001' command='insert' at '13'\n");
}

TEST(CMRecordTest, StartsEmpty)
{
    EXPECT_EQ(show(CMRecord()), "call manager '' type='' address='' port=''\n");
}

TEST(CMRecordTest, HoldsWhatIsSet)
{
    CMRecord rec;
    rec.SetHandle("north");
    rec.SetIPAddress("10.0.0.1");
    rec.SetPort("5070");
    rec.SetLinkType("tls");
    EXPECT_EQ(show(rec), "call manager 'north' type='tls' address='10.0.0.1' port='5070'\n");
}

TEST(CMRecordTest, IgnoresNull)
{
    CMRecord rec;
    rec.SetHandle("north");
    rec.SetIPAddress("10.0.0.1");
    rec.SetPort("5070");
    rec.SetLinkType("tls");
    rec.SetHandle(nullptr);
    rec.SetIPAddress(nullptr);
    rec.SetPort(nullptr);
    rec.SetLinkType(nullptr);
    EXPECT_EQ(show(rec), "call manager 'north' type='tls' address='10.0.0.1' port='5070'\n");
}

TEST(CMRecordTest, FillsNoPortForATransportThatIsNull)
{
    CMRecord rec;
    rec.SetLinkType("tcp");
    rec.SetPort("");
    rec.SetLinkType(nullptr);
    EXPECT_EQ(show(rec), "call manager '' type='tcp' address='' port=''\n");
}

TEST(CMRecordTest, TakesThePortOfTheAddressBeforeOneSetLater)
{
    CMRecord rec;
    rec.SetIPAddress("10.0.0.1:5070");
    rec.SetPort("5080");
    EXPECT_EQ(show(rec), "call manager '' type='' address='10.0.0.1' port='5070'\n");
}

TEST(CMRecordTest, TakesThePortOfTheAddressBeforeOneSetEarlier)
{
    CMRecord rec;
    rec.SetPort("5080");
    rec.SetIPAddress("10.0.0.1:5070");
    EXPECT_EQ(show(rec), "call manager '' type='' address='10.0.0.1' port='5070'\n");
}

TEST(CMRecordTest, TakesThePortOfALaterAddress)
{
    CMRecord rec;
    rec.SetIPAddress("10.0.0.1:5070");
    rec.SetIPAddress("10.0.0.2:5071");
    EXPECT_EQ(show(rec), "call manager '' type='' address='10.0.0.2' port='5071'\n");
}

TEST(CMRecordTest, KeepsThePortWhereAnAddressHasNone)
{
    CMRecord set;
    set.SetPort("5090");
    set.SetIPAddress("10.0.0.1");
    EXPECT_EQ(show(set), "call manager '' type='' address='10.0.0.1' port='5090'\n");
    CMRecord embedded;
    embedded.SetIPAddress("10.0.0.1:5070");
    embedded.SetIPAddress("10.0.0.2");
    embedded.SetPort("5080");
    EXPECT_EQ(show(embedded), "call manager '' type='' address='10.0.0.2' port='5070'\n");
}

TEST(CMRecordTest, SplitsAnAddressAtItsFirstColon)
{
    const auto split = [](const char* address) {
        CMRecord rec;
        rec.SetIPAddress(address);
        return show(rec);
    };
    EXPECT_EQ(split("10.0.0.1:5070:5071"), "call manager '' type='' address='10.0.0.1' port='5070:5071'\n");
    EXPECT_EQ(split("[2001:db8::1]:5070"), "call manager '' type='' address='[2001' port='db8::1]:5070'\n");
    EXPECT_EQ(split(":5070"), "call manager '' type='' address='' port='5070'\n");
    EXPECT_EQ(split("10.0.0.1:"), "call manager '' type='' address='10.0.0.1' port=''\n");
    EXPECT_EQ(split(""), "call manager '' type='' address='' port=''\n");
}

TEST(CMRecordTest, TakesAnEmptyPortOfTheAddressForOne)
{
    CMRecord rec;
    rec.SetIPAddress("10.0.0.1:");
    rec.SetPort("5080");
    rec.SetLinkType("tcp");
    EXPECT_EQ(show(rec), "call manager '' type='tcp' address='10.0.0.1' port=''\n");
}

TEST(CMRecordTest, FillsTheDefaultPortOfItsTransport)
{
    const auto over = [](const char* transport) {
        CMRecord rec;
        rec.SetLinkType(transport);
        return rec.GetPort();
    };
    EXPECT_EQ(over("tcp"), "5060");
    EXPECT_EQ(over("tls"), "5061");
    EXPECT_EQ(over("udp"), "");
    EXPECT_EQ(over("TCP"), "");
    EXPECT_EQ(over("TLS"), "");
    EXPECT_EQ(over("Tcp"), "");
    EXPECT_EQ(over("tcp "), "");
    EXPECT_EQ(over("tlsx"), "");
    EXPECT_EQ(over(""), "");
}

TEST(CMRecordTest, KeepsAPortBeforeTheDefaultOfItsTransport)
{
    CMRecord rec;
    rec.SetPort("5090");
    rec.SetLinkType("tcp");
    EXPECT_EQ(show(rec), "call manager '' type='tcp' address='' port='5090'\n");
}

TEST(CMRecordTest, KeepsTheFirstDefaultPortWhereTheTransportChanges)
{
    CMRecord rec;
    rec.SetLinkType("tcp");
    rec.SetLinkType("tls");
    EXPECT_EQ(show(rec), "call manager '' type='tls' address='' port='5060'\n");
}

TEST(CMRecordTest, ReplacesADefaultPort)
{
    CMRecord rec;
    rec.SetLinkType("tcp");
    rec.SetPort("5090");
    EXPECT_EQ(rec.GetPort(), "5090");
    rec.SetIPAddress("10.0.0.1:5070");
    EXPECT_EQ(rec.GetPort(), "5070");
}

TEST(CMRecordTest, SetsTheDefaultPortOfItsTransportWhenAsked)
{
    CMRecord rec;
    rec.SetDefaultPort();
    EXPECT_EQ(rec.GetPort(), "");
    rec.SetPort("5090");
    rec.SetDefaultPort();
    EXPECT_EQ(rec.GetPort(), "5090");
    rec.SetLinkType("tls");
    rec.SetDefaultPort();
    EXPECT_EQ(rec.GetPort(), "5061");
    rec.SetLinkType("udp");
    rec.SetDefaultPort();
    EXPECT_EQ(rec.GetPort(), "5061");
    rec.SetIPAddress("10.0.0.1:5070");
    rec.SetLinkType("tcp");
    rec.SetDefaultPort();
    EXPECT_EQ(rec.GetPort(), "5070");
}

TEST(CMRecordTest, CopiesEveryFieldAndWhereThePortCameFrom)
{
    CMRecord original;
    original.SetHandle("north");
    original.SetIPAddress("10.0.0.1:5070");
    original.SetLinkType("tls");
    for (CMRecord& copy : copiesOf(original, CMRecord())) {
        copy.SetPort("5080");
        EXPECT_EQ(show(copy), "call manager 'north' type='tls' address='10.0.0.1' port='5070'\n");
    }
}

TEST(CMRecordTest, TellsEveryFieldBehindThePrefix)
{
    CMRecord rec;
    rec.SetHandle("north");
    rec.SetIPAddress("10.0.0.1:5070");
    rec.SetLinkType("tls");
    EXPECT_TRUE(
        tells(rec.dumpToString("the call manager: "), "the call manager: ", {"north", "tls", "10.0.0.1", "5070"}));
}

} // namespace

} // namespace oryx
