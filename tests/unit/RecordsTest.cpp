#include "support/Show.h"

#include <dal/Dal.h>

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace oryx {

namespace {

// Texts are handed out as references to what the record holds, except those of a proxy's configuration.
static_assert(std::is_same_v<decltype(std::declval<const SubscriberRecord&>().userId()), const std::string&>);
static_assert(std::is_same_v<decltype(std::declval<const PublicAddressRecord&>().handle()), const std::string&>);
static_assert(std::is_same_v<decltype(std::declval<const ContactSetRecord&>().ordering()), const std::string&>);
static_assert(std::is_same_v<decltype(std::declval<const ContactRecord&>().address()), const std::string&>);
static_assert(std::is_same_v<decltype(std::declval<const HostInfo&>().parent()), const std::string&>);
static_assert(std::is_same_v<decltype(std::declval<const AddressMapRecord&>().pattern()), const std::string&>);
static_assert(std::is_same_v<decltype(std::declval<const DomainAccess&>().domain()), const std::string&>);
static_assert(std::is_same_v<decltype(std::declval<const ProxyConfig&>().scope()), const char*>);
static_assert(std::is_same_v<decltype(std::declval<const ProxyConfig&>().name()), const char*>);
static_assert(std::is_same_v<decltype(std::declval<const ProxyConfig&>().value()), const char*>);

static_assert(std::is_same_v<decltype(std::declval<const ContactRecord&>().expires()), long>);
static_assert(std::is_same_v<decltype(std::declval<const ContactRecord&>().cseq()), long>);
static_assert(std::is_same_v<decltype(std::declval<const AddressMapRecord&>().modTime()), int>);

std::string show(const ContactSetRecord& rec)
{
    return "contact set " + std::to_string(rec.csid()) + " sid=" + std::to_string(rec.sid()) + " ordering='" +
           rec.ordering() + "'\n";
}

/// A record of each kind as text, once `fill` has set all its fields.
template <typename Record>
const char* const kFilled = nullptr;

void fill(SubscriberRecord& rec)
{
    rec.setId(11);
    rec.setUserId("alice");
    rec.setType("home");
    rec.setAuthType("digest");
    rec.setPassword("secret");
    rec.setOid(12);
    rec.setActive('f');
}

void setNulls(SubscriberRecord& rec)
{
    rec.setUserId(nullptr);
    rec.setType(nullptr);
    rec.setAuthType(nullptr);
    rec.setPassword(nullptr);
}

template <>
const char* const kFilled<SubscriberRecord> =
    "subscriber 11 user='alice' type='home' auth='digest' password='secret' oid=12 active='f'\n";

void fill(PublicAddressRecord& rec)
{
    rec.setHandle("alice");
    rec.setDomain("oryx.example");
    rec.setCsid(7);
    rec.setScope("public");
    rec.setAdminDomain("example.com");
    rec.setPublicAddressId(21);
}

void setNulls(PublicAddressRecord& rec)
{
    rec.setHandle(nullptr);
    rec.setDomain(nullptr);
    rec.setScope(nullptr);
    rec.setAdminDomain(nullptr);
}

template <>
const char* const kFilled<PublicAddressRecord> =
    "address 21 'alice'@'oryx.example' csid=7 scope='public' admin='example.com'\n";

void fill(ContactSetRecord& rec)
{
    rec.setCsid(7);
    rec.setSid(11);
    rec.setOrdering("parallel");
}

void setNulls(ContactSetRecord& rec)
{
    rec.setOrdering(nullptr);
}

template <>
const char* const kFilled<ContactSetRecord> = "contact set 7 sid=11 ordering='parallel'\n";

void fill(ContactRecord& rec)
{
    rec.setContactid(31);
    rec.setAddress("sip:alice@192.0.2.1");
    rec.setCsid(7);
    rec.setQvalue("0.5");
    rec.setExpires(1700000000);
    rec.setPermanent('t');
    rec.setCapabilities("INVITE");
    rec.setContactHeader("<sip:alice@192.0.2.1>;q=0.5");
    rec.setCallId("1@192.0.2.1");
    rec.setType("sip");
    rec.setCseq(2147483647);
    rec.setPathVector("<sip:edge.oryx.example;lr>");
}

void setNulls(ContactRecord& rec)
{
    rec.setAddress(nullptr);
    rec.setQvalue(nullptr);
    rec.setCapabilities(nullptr);
    rec.setContactHeader(nullptr);
    rec.setCallId(nullptr);
    rec.setType(nullptr);
    rec.setPathVector(nullptr);
}

template <>
const char* const kFilled<ContactRecord> =
    "contact 31 'sip:alice@192.0.2.1' csid=7 q='0.5' expires=1700000000 permanent='t' capabilities='INVITE' "
    "header='<sip:alice@192.0.2.1>;q=0.5' call='1@192.0.2.1' cseq=2147483647 type='sip' "
    "path='<sip:edge.oryx.example;lr>'\n";

void fill(HostInfo& info)
{
    info.setNodeType("edge");
    info.setParent("core");
    info.setParentContact("sip:core.oryx.example");
    info.setTopUrl("sip:top.oryx.example");
    info.setServerName("edge.oryx.example");
    info.setOutboundProxy("sip:proxy.oryx.example");
    info.setOutboundDirect("a.example,b.example");
    info.setOutboundAllowInternal(false);
    info.setOutboundAllowExternal(true);
}

void setNulls(HostInfo& info)
{
    info.setNodeType(nullptr);
    info.setParent(nullptr);
    info.setParentContact(nullptr);
    info.setTopUrl(nullptr);
    info.setServerName(nullptr);
    info.setOutboundProxy(nullptr);
    info.setOutboundDirect(nullptr);
}

template <>
const char* const kFilled<HostInfo> =
    "host 'edge.oryx.example' type='edge' parent='core' contact='sip:core.oryx.example' "
    "top='sip:top.oryx.example' proxy='sip:proxy.oryx.example' direct='a.example,b.example' "
    "internal=false external=true\n";

void fill(AddressMapRecord& map)
{
    map.setMapid(41);
    map.setHandle("conferences");
    map.setPattern("^sip:conf-.*");
    map.setCsid(7);
    map.setModTime(1700000000);
    map.setPriority(2);
    map.setReplaceUri(false);
    map.setOrdering("sequential");
}

void setNulls(AddressMapRecord& map)
{
    map.setHandle(nullptr);
    map.setPattern(nullptr);
    map.setOrdering(nullptr);
}

template <>
const char* const kFilled<AddressMapRecord> = "map 41 'conferences' pattern='^sip:conf-.*' csid=7 modified=1700000000 "
                                              "priority=2 replace=false ordering='sequential'\n";

void fill(ProxyConfig& item)
{
    item.setScope("edge");
    item.setName("port");
    item.setValue("5060");
}

void setNulls(ProxyConfig& item)
{
    item.setScope(nullptr);
    item.setName(nullptr);
    item.setValue(nullptr);
}

template <>
const char* const kFilled<ProxyConfig> = "item scope='edge' name='port' value='5060'\n";

void fill(DomainAccess& rule)
{
    rule.setDomainid(51);
    rule.setDomain("example.com");
    rule.setAction("d");
    rule.setDirection("o");
}

void setNulls(DomainAccess& rule)
{
    rule.setDomain(nullptr);
    rule.setAction(nullptr);
    rule.setDirection(nullptr);
}

template <>
const char* const kFilled<DomainAccess> = "rule 51 'example.com' direction='o' action='d'\n";

template <typename Record>
class RecordTest : public testing::Test {
protected:
    static Record filled()
    {
        Record record;
        fill(record);
        return record;
    }
};

using Records = testing::Types<SubscriberRecord, PublicAddressRecord, ContactSetRecord, ContactRecord, HostInfo,
                               AddressMapRecord, ProxyConfig, DomainAccess>;
TYPED_TEST_SUITE(RecordTest, Records);

TYPED_TEST(RecordTest, HoldsWhatIsSet)
{
    EXPECT_EQ(show(this->filled()), kFilled<TypeParam>);
}

TYPED_TEST(RecordTest, KeepsItsTextsForNull)
{
    TypeParam record = this->filled();
    setNulls(record);
    EXPECT_EQ(show(record), kFilled<TypeParam>);
    TypeParam fresh;
    setNulls(fresh);
    EXPECT_EQ(show(fresh), show(TypeParam()));
}

TYPED_TEST(RecordTest, CopiesEveryField)
{
    TypeParam original = this->filled();
    const TypeParam copied(original);
    TypeParam assigned;
    assigned = original;
    const std::vector<TypeParam> listed{original};
    original = TypeParam();
    EXPECT_EQ(show(copied), kFilled<TypeParam>);
    EXPECT_EQ(show(assigned), kFilled<TypeParam>);
    EXPECT_EQ(show(listed.front()), kFilled<TypeParam>);
}

TEST(SubscriberRecordTest, StartsActiveAndWithoutKeys)
{
    EXPECT_EQ(show(SubscriberRecord()), "subscriber -1 user='' type='' auth='' password='' oid=-1 active='t'\n");
}

TEST(SubscriberRecordTest, TakesAnEmptyTextForWhatItIs)
{
    SubscriberRecord rec;
    rec.setUserId("alice");
    rec.setUserId("");
    EXPECT_EQ(rec.userId(), "");
}

TEST(SubscriberRecordTest, HoldsTextsOfItsOwn)
{
    std::string text = "alice";
    SubscriberRecord rec;
    rec.setUserId(text.c_str());
    text[0] = 'A';
    EXPECT_EQ(rec.userId(), "alice");
}

TEST(SubscriberRecordTest, KeepsItsActiveFlagForNul)
{
    SubscriberRecord rec;
    rec.setActive('\0');
    EXPECT_EQ(rec.active(), "t");
    rec.setActive('f');
    EXPECT_EQ(rec.active(), "f");
    rec.setActive('\0');
    EXPECT_EQ(rec.active(), "f");
    rec.setActive('x');
    EXPECT_EQ(rec.active(), "x");
}

TEST(PublicAddressRecordTest, StartsWithoutKeys)
{
    EXPECT_EQ(show(PublicAddressRecord()), "address -1 ''@'' csid=-1 scope='' admin=''\n");
}

TEST(PublicAddressRecordTest, MayBeMadeOfItsParts)
{
    EXPECT_EQ(show(PublicAddressRecord("alice", "oryx.example", 7, "public")),
              "address -1 'alice'@'oryx.example' csid=7 scope='public' admin=''\n");
    EXPECT_EQ(show(PublicAddressRecord(nullptr, nullptr, 7, nullptr)), "address -1 ''@'' csid=7 scope='' admin=''\n");
}

TEST(ContactSetRecordTest, StartsWithoutKeys)
{
    EXPECT_EQ(show(ContactSetRecord()), "contact set -1 sid=-1 ordering=''\n");
}

TEST(ContactRecordTest, StartsWithoutKeysAndNotPermanent)
{
    EXPECT_EQ(show(ContactRecord()), "contact -1 '' csid=-1 q='' expires=0 permanent='f' capabilities='' header='' "
                                     "call='' cseq=0 type='' path=''\n");
}

TEST(ContactRecordTest, TakesEveryCharacterForItsPermanentFlag)
{
    ContactRecord rec;
    rec.setPermanent('t');
    EXPECT_EQ(rec.permanent(), "t");
    rec.setPermanent('\0');
    EXPECT_EQ(rec.permanent(), std::string(1, '\0'));
}

TEST(HostInfoTest, StartsWithInternalRequestsAllowedAndExternalOnesRefused)
{
    EXPECT_EQ(show(HostInfo()),
              "host '' type='' parent='' contact='' top='' proxy='' direct='' internal=true external=false\n");
}

TEST(AddressMapRecordTest, StartsWithoutKeysAndReplacing)
{
    EXPECT_EQ(show(AddressMapRecord()),
              "map -1 '' pattern='' csid=-1 modified=0 priority=0 replace=true ordering=''\n");
}

TEST(AddressMapRecordTest, GivesItsTimeWholeAndHeldToAnInt)
{
    AddressMapRecord map;
    const auto given = [&](long time) {
        map.setModTime(time);
        return std::pair(map.modTime(), map.wholeModTime());
    };
    using Int = std::numeric_limits<int>;
    using Long = std::numeric_limits<long>;
    EXPECT_EQ(given(1700000000), std::pair(1700000000, 1700000000L));
    EXPECT_EQ(given(Int::max()), std::pair(Int::max(), long{Int::max()}));
    EXPECT_EQ(given(Long::max()), std::pair(Int::max(), Long::max()));
    EXPECT_EQ(given(Long::min()), std::pair(Int::min(), Long::min()));
}

TEST(ProxyConfigTest, StartsEmpty)
{
    EXPECT_EQ(show(ProxyConfig()), "item scope='' name='' value=''\n");
}

TEST(ProxyConfigTest, MayBeMadeOfItsParts)
{
    EXPECT_EQ(show(ProxyConfig("edge", "port", "5060")), kFilled<ProxyConfig>);
    EXPECT_EQ(show(ProxyConfig(nullptr, nullptr, nullptr)), "item scope='' name='' value=''\n");
}

TEST(DomainAccessTest, StartsWithoutKeys)
{
    EXPECT_EQ(show(DomainAccess()), "rule -1 '' direction='' action=''\n");
}

TEST(DomainAccessTest, ReplacesATextByItsOwn)
{
    std::string text = "an earlier text";
    DomainAccess rule;
    fill(rule);
    rule.toString(text);
    EXPECT_EQ(text, "domain=example.com dir=o action=d");
}

TEST(DomainAccessTest, LeavesNothingBehindTheLabelsOfEmptyTexts)
{
    std::string text = "an earlier text";
    DomainAccess().toString(text);
    EXPECT_EQ(text, "domain= dir= action=");
}

} // namespace

} // namespace oryx
