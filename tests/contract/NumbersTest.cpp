#include "contract/PresenceFixture.h"
#include "contract/ServiceFixture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <functional>
#include <limits>
#include <ostream>
#include <string>
#include <vector>

// Every number that travels between a record and its column: one of type long whole, as far as a long reaches here, one
// of type int held to an int's limits.

namespace numbersTest {

namespace {

using fake::Cell;
using fake::command;
using fake::rows;
using oryx::DatabaseCommandExecutor;
using oryx::PresenceDatabaseCommandExecutor;

using Int = std::numeric_limits<int>;
using Long = std::numeric_limits<long>;
using UnsignedLong = std::numeric_limits<unsigned long>;

/// A number beyond an int, held to a long.
std::string asLong(long long number)
{
    return std::to_string(std::clamp<long long>(number, Long::min(), Long::max()));
}

/// A column's text and the number it reads as.
struct Text {
    std::string column;
    std::string number;
};

const std::string kEndless = "99999999999999999999999";

std::vector<Text> textsOfLong()
{
    return {
        {"2147483647", "2147483647"},
        {"-2147483648", "-2147483648"},
        {"2147483648", asLong(2147483648)},
        {"-2147483649", asLong(-2147483649)},
        {"4294967295", asLong(4294967295)},
        {"4294967296", asLong(4294967296)},
        {"9223372036854775807", std::to_string(Long::max())},
        {"-9223372036854775808", std::to_string(Long::min())},
        {kEndless, std::to_string(Long::max())},
        {"-" + kEndless, std::to_string(Long::min())},
    };
}

std::vector<Text> textsOfInt()
{
    return {
        {"2147483647", "2147483647"}, {"-2147483648", "-2147483648"},  {"2147483648", "2147483647"},
        {"4294967295", "2147483647"}, {"4294967296", "2147483647"},    {"-2147483649", "-2147483648"},
        {kEndless, "2147483647"},     {"-" + kEndless, "-2147483648"},
    };
}

std::vector<Text> textsOfUnsignedLong()
{
    const auto held = [](unsigned long long number) {
        return std::to_string(std::min<unsigned long long>(number, UnsignedLong::max()));
    };
    return {
        {"2147483648", "2147483648"},
        {"4294967295", "4294967295"},
        {"4294967296", held(4294967296)},
        {"9223372036854775807", held(9223372036854775807)},
        {kEndless, std::to_string(UnsignedLong::max())},
        {"-1", std::to_string(UnsignedLong::max())},
    };
}

/// A field that an operation reads from the first column of its one row that holds "#".
template <typename Executor>
struct Field {
    std::string name;
    std::vector<Cell> row;
    std::vector<Text> texts;
    std::function<std::string(Executor&)> read; // the field, as text
};

template <typename Executor>
void PrintTo(const Field<Executor>& field, std::ostream* out)
{
    *out << field.name;
}

template <typename Executor>
class ReadNumber : public testing::TestWithParam<Field<Executor>>, protected UnconnectedExecutorOf<Executor> {
protected:
    void SetUp() override { this->connect(); }

    void readsEveryText()
    {
        const Field<Executor>& field = this->GetParam();
        for (const Text& text : field.texts) {
            std::vector<Cell> row = field.row;
            *std::find(row.begin(), row.end(), Cell("#")) = text.column;
            this->libpq.replies({rows({row})});
            EXPECT_EQ(field.read(this->executor), text.number) << text.column;
        }
    }
};

/// The field of the one record that a listing appends.
template <typename Record, typename List, typename Get>
std::string only(List list, Get get)
{
    std::vector<Record> records;
    list(records);
    return records.size() == 1 ? std::to_string(get(records.front())) : "no record";
}

// The registrar's

using Location = Field<DatabaseCommandExecutor>;
class LocationNumber : public ReadNumber<DatabaseCommandExecutor> {};

TEST_P(LocationNumber, IsReadAsItsTypeHoldsIt)
{
    readsEveryText();
}

template <typename Get>
auto contactOf(Get get)
{
    return [get](DatabaseCommandExecutor& executor) {
        return only<oryx::ContactRecord>(
            [&](auto& contacts) {
                std::string ordering;
                bool replaceUri = false;
                executor.lookupContacts("h", "d", ordering, replaceUri, contacts);
            },
            get);
    };
}

template <typename Get>
auto subscriberOf(Get get)
{
    return [get](DatabaseCommandExecutor& executor) {
        oryx::SubscriberRecord rec;
        executor.lookupSubscriber("h", "d", rec);
        return std::to_string(get(rec));
    };
}

template <typename Get>
auto addressOf(Get get)
{
    return [get](DatabaseCommandExecutor& executor) {
        oryx::PublicAddressRecord rec;
        executor.lookupPublicAddress("h", "d", rec);
        return std::to_string(get(rec));
    };
}

template <typename Get>
auto mapOf(Get get)
{
    return [get](DatabaseCommandExecutor& executor) {
        return only<oryx::AddressMapRecord>([&](auto& maps) { executor.getAddressMaps(maps); }, get);
    };
}

INSTANTIATE_TEST_SUITE_P(
    Of, LocationNumber,
    testing::Values(
        Location{"ContactExpires",
                 {"o", "t", "t", "a", "q", "#", "c", "h", "i", "1", "t"},
                 textsOfLong(),
                 contactOf([](const auto& contact) { return contact.expires(); })},
        Location{"ContactCseq",
                 {"o", "t", "t", "a", "q", "1", "c", "h", "i", "#", "t"},
                 textsOfLong(),
                 contactOf([](const auto& contact) { return contact.cseq(); })},
        Location{"SubscriberSid", {"#", "u", "1", "t", "a", "p", "t"}, textsOfInt(), subscriberOf([](const auto& rec) {
                     return rec.sid();
                 })},
        Location{"SubscriberOid", {"1", "u", "#", "t", "a", "p", "t"}, textsOfInt(), subscriberOf([](const auto& rec) {
                     return rec.oid();
                 })},
        Location{"AddressCsid", {"h", "d", "#", "s", "1"}, textsOfInt(), addressOf([](const auto& rec) {
                     return rec.csid();
                 })},
        Location{"AddressKey", {"h", "d", "1", "s", "#"}, textsOfInt(), addressOf([](const auto& rec) {
                     return rec.public_address_id();
                 })},
        Location{"MapCsid", {"o", "t", "h", "#", "p", "", "1"}, textsOfInt(), mapOf([](const auto& map) {
                     return map.csid();
                 })},
        Location{"MapPriority", {"o", "t", "h", "1", "p", "", "#"}, textsOfInt(), mapOf([](const auto& map) {
                     return map.priority();
                 })}),
    kRowName);

// The event server's

using Presence = Field<PresenceDatabaseCommandExecutor>;
class PresenceNumber : public ReadNumber<PresenceDatabaseCommandExecutor> {};

TEST_P(PresenceNumber, IsReadAsItsTypeHoldsIt)
{
    readsEveryText();
}

const std::vector<Cell> kDialog = {"s", "f", "t", "c", "1", "e", "r", "o", "2", "u", "p"};

std::vector<Cell> dialogWith(std::size_t column)
{
    std::vector<Cell> row = kDialog;
    row.at(column) = "#";
    return row;
}

/// A dialog with its watcher's identity, expiry time and document type.
std::vector<Cell> watchedDialog(const std::string& expires, const std::string& docType)
{
    std::vector<Cell> row = kDialog;
    row.insert(row.end(), {"w", expires, docType});
    return row;
}

template <typename Get>
auto dialogOf(Get get)
{
    return [get](PresenceDatabaseCommandExecutor& executor) {
        oryx::PresenceRecord rec;
        executor.getWatcher("s", rec);
        return std::to_string(get(rec));
    };
}

template <typename Get>
auto watchedDialogOf(Get get)
{
    return [get](PresenceDatabaseCommandExecutor& executor) {
        return only<oryx::PresenceRecord>([&](auto& out) { executor.getIncomingMatchingSubscriptions(out); }, get);
    };
}

template <typename Get>
auto watcherOf(Get get)
{
    return [get](PresenceDatabaseCommandExecutor& executor) {
        return only<oryx::WatchersRecord>([&](auto& out) { executor.getWatchers(out, "f", "s"); }, get);
    };
}

template <typename Get>
auto winfoOf(Get get)
{
    return [get](PresenceDatabaseCommandExecutor& executor) {
        return only<oryx::WatcherInfoRecord>([&](auto& out) { executor.getWinfoForPresentity("k", out); }, get);
    };
}

template <typename Get>
auto expiredOf(Get get)
{
    return [get](PresenceDatabaseCommandExecutor& executor) {
        return only<oryx::ExtendedContactRecord>([&](auto& out) { executor.flushExpiredContacts(out); }, get);
    };
}

template <typename Get>
auto wholeContactOf(Get get)
{
    return [get](PresenceDatabaseCommandExecutor& executor) {
        return only<oryx::ContactRecord>(
            [&](auto& contacts) {
                std::string ordering;
                bool replaceUri = false;
                executor.lookupContacts(1, ordering, replaceUri, contacts);
            },
            get);
    };
}

const auto kExpiry = [](const auto& rec) { return rec.expirytime(); };

INSTANTIATE_TEST_SUITE_P(
    Of, PresenceNumber,
    testing::Values(
        Presence{"DialogSubcseq", dialogWith(4), textsOfInt(),
                 dialogOf([](const auto& rec) { return rec.subcseq(); })},
        Presence{"DialogNotcseq", dialogWith(8), textsOfInt(),
                 dialogOf([](const auto& rec) { return rec.notcseq(); })},
        Presence{"DialogExpiryTime", watchedDialog("#", "1"), textsOfLong(),
                 watchedDialogOf([](const auto& rec) { return rec.expiryTime(); })},
        Presence{"DialogDocType", watchedDialog("1", "#"), textsOfInt(),
                 watchedDialogOf([](const auto& rec) { return rec.docType(); })},
        Presence{"WatcherDoctype",
                 {"o", "#", "1", "1", "1", "i", "p", "1"},
                 textsOfInt(),
                 watcherOf([](const auto& rec) { return rec.doctype(); })},
        Presence{"WatcherType",
                 {"o", "1", "#", "1", "1", "i", "p", "1"},
                 textsOfInt(),
                 watcherOf([](const auto& rec) { return rec.watchertype(); })},
        Presence{"WatcherState",
                 {"o", "1", "1", "#", "1", "i", "p", "1"},
                 textsOfInt(),
                 watcherOf([](const auto& rec) { return rec.watcherstate(); })},
        Presence{"WatcherExpirytime", {"o", "1", "1", "1", "#", "i", "p", "1"}, textsOfLong(), watcherOf(kExpiry)},
        Presence{"WatcherDocversion",
                 {"o", "1", "1", "1", "1", "i", "p", "#"},
                 textsOfUnsignedLong(),
                 watcherOf([](const auto& rec) { return rec.docversion(); })},
        Presence{"SourceExpirytime",
                 {"o", "c", "#", "k", "e"},
                 textsOfLong(),
                 [](auto& executor) {
                     return only<oryx::SourcesRecord>([&](auto& out) { executor.getAllEventSources("e", out); },
                                                      kExpiry);
                 }},
        Presence{"SourceOfAPresentityExpirytime",
                 {"o", "c", "#", "e", "p"},
                 textsOfLong(),
                 [](auto& executor) {
                     return only<oryx::SourcesRecord>([&](auto& out) { executor.getSourceOpaque("k", out); }, kExpiry);
                 }},
        Presence{"MatchingSourceExpirytime",
                 {"o", "c", "#", "k", "e"},
                 textsOfLong(),
                 [](auto& executor) {
                     return only<oryx::SourcesRecord>([&](auto& out) { executor.getSources(out, "p", "e"); }, kExpiry);
                 }},
        Presence{"WinfoStartingdocversion",
                 {"s", "#", "1", "sip"},
                 textsOfInt(),
                 winfoOf([](const auto& rec) { return rec.startingdocversion(); })},
        Presence{"WinfoExpirytime", {"s", "1", "#", "sip"}, textsOfLong(), winfoOf(kExpiry)},
        Presence{"ListMappingExpirytime",
                 {"s", "#"},
                 textsOfLong(),
                 [](auto& executor) {
                     return only<oryx::ListSubscriptionRecord>(
                         [&](auto& out) { executor.getAllMappingsForList("l", out); }, kExpiry);
                 }},
        Presence{"ListId",
                 {"#"},
                 textsOfInt(),
                 [](auto& executor) {
                     int id = 0;
                     executor.getListId("l", &id);
                     return std::to_string(id);
                 }},
        Presence{"ChangedKey",
                 {"#", "c", "1"},
                 textsOfInt(),
                 [](auto& executor) {
                     return only<oryx::DatabaseUpdate>([&](auto& out) { executor.getUpdatedPrimaryKeys("t", "", out); },
                                                       [](const auto& update) { return update.intpkey(); });
                 }},
        Presence{"CsidOfAnAddress",
                 {"#"},
                 textsOfInt(),
                 [](auto& executor) {
                     int csid = 0;
                     executor.getCsid(1, csid);
                     return std::to_string(csid);
                 }},
        Presence{"ContactExpires",
                 {"o", "t", "t", "a", "q", "#", "c", "h", "i", "1", "t", "t", "1", "1", "v"},
                 textsOfLong(),
                 wholeContactOf([](const auto& contact) { return contact.expires(); })},
        Presence{"ContactCseq",
                 {"o", "t", "t", "a", "q", "1", "c", "h", "i", "#", "t", "t", "1", "1", "v"},
                 textsOfLong(),
                 wholeContactOf([](const auto& contact) { return contact.cseq(); })},
        Presence{"ContactKey",
                 {"o", "t", "t", "a", "q", "1", "c", "h", "i", "1", "t", "t", "#", "1", "v"},
                 textsOfInt(),
                 wholeContactOf([](const auto& contact) { return contact.contactid(); })},
        Presence{"ContactCsid",
                 {"o", "t", "t", "a", "q", "1", "c", "h", "i", "1", "t", "t", "1", "#", "v"},
                 textsOfInt(),
                 wholeContactOf([](const auto& contact) { return contact.csid(); })},
        Presence{"AliasCsid",
                 {"h", "d", "#", "s", "1"},
                 textsOfInt(),
                 [](auto& executor) {
                     return only<oryx::PublicAddressRecord>([&](auto& out) { executor.getAliases("h", "d", out); },
                                                            [](const auto& rec) { return rec.csid(); });
                 }},
        Presence{"SubscriberSid",
                 {"#", "t", "a", "p", "t", "u"},
                 textsOfInt(),
                 [](auto& executor) {
                     return only<oryx::SubscriberRecord>([&](auto& out) { executor.getSubscribers(out, nullptr); },
                                                         [](const auto& rec) { return rec.sid(); });
                 }}),
    kRowName);

/// The removal that follows the reading has a reply of its own.
TEST_F(PresenceTest, NumbersOfAnExpiredContactAreReadWhole)
{
    for (const Text& text : textsOfLong()) {
        const auto row = [](const std::string& expires, const std::string& cseq) {
            return rows({{"7", "h", expires, "i", cseq, "h", "d"}});
        };
        libpq.replies({row(text.column, "1"), command("1"), row("1", text.column), command("1")});
        EXPECT_EQ(expiredOf([](const auto& rec) { return rec.expires(); })(executor), text.number) << text.column;
        EXPECT_EQ(expiredOf([](const auto& rec) { return rec.cseq(); })(executor), text.number) << text.column;
    }
    for (const Text& text : textsOfInt()) {
        libpq.replies({rows({{text.column, "h", "1", "i", "1", "h", "d"}}), command("1")});
        EXPECT_EQ(expiredOf([](const auto& rec) { return rec.sid(); })(executor), text.number) << text.column;
    }
}

// What is written

const std::string kMax = std::to_string(Long::max());
const std::string kMin = std::to_string(Long::min());
const std::string kUnsignedMax = std::to_string(UnsignedLong::max());

oryx::ContactRecord extremeContact()
{
    oryx::ContactRecord contact;
    contact.setAddress("a");
    contact.setCsid(Int::min());
    contact.setExpires(Long::max());
    contact.setCseq(Long::min());
    return contact;
}

TEST_F(ExecutorTest, NumbersOfAContactAreStoredWhole)
{
    libpq.replies({command(), command()});
    oryx::ContactRecord contact = extremeContact();
    executor.addContact("h", "d", contact);
    executor.addContact(contact);
    EXPECT_EQ(
        libpq.take(),
        "exec SELECT add_contact('h','d','a'," + kMax + ",'f','','','',''," + kMin + ")\n" +
            "exec INSERT INTO contact(csid,address,expires,permanent,qvalue,capabilities,contact_header,call_id,cseq) VALUES('-2147483648','a'," +
            kMax + ",'f','','','',''," + kMin + ");\n");
}

TEST_F(ConnectedServiceTest, NumbersOfAContactAreRegisteredAndRefreshedWhole)
{
    libpq.replies({command(), command()});
    std::vector<oryx::ContactRecord> contacts = {extremeContact()};
    service.registerContacts(Int::max(), contacts);
    service.updateContacts(Int::min(), contacts);
    EXPECT_EQ(
        libpq.take(),
        "exec BEGIN TRANSACTION; INSERT INTO contact(address,csid,qvalue,expires,permanent,capabilities,contact_header,call_id,cseq,id)  VALUES('a',(SELECT csid FROM public_address where public_address_id = 2147483647), ''," +
            kMax + ",'f','','','','" + kMin +
            "', 1); COMMIT TRANSACTION;\n"
            "exec BEGIN TRANSACTION; UPDATE contact SET contact_header = '', expires = " +
            kMax + ", call_id = '', cseq = '" + kMin +
            "', qvalue = '', capabilities = '' WHERE csid = (SELECT csid FROM public_address where id = -2147483648) AND address = 'a' ;COMMIT TRANSACTION;\n");
}

TEST_F(PresenceTest, NumbersOfAWatcherAreStoredWhole)
{
    libpq.replies(std::vector<fake::Reply>(4, command("1")));
    executor.addWatcherState(oryx::WatchersRecord("k", "o", Int::min(), Int::max(), Int::min(), Long::max(), "i", "p",
                                                  UnsignedLong::max(), "e", ""));
    executor.addWatcherState(oryx::WatchersRecord("k", "o", 0, 0, 0, Long::min(), "i", "p", 4294967295UL, "e", ""));
    executor.updateWatcherDocVersion("k", "o", UnsignedLong::max());
    executor.updateWatcherExpiry("k", "o", Int::min());
    const std::string columns =
        "exec INSERT INTO event_watchers (presentitykey,watcheropaque,doctype,docversion,watchertype,watcherstate,expirytime,watcheridentity,event,presentity) VALUES('k','o',";
    EXPECT_EQ(
        libpq.take(),
        columns + "-2147483648," + kUnsignedMax + ",2147483647,-2147483648," + kMax + ",'i','e','p');\n" + columns +
            "0,4294967295,0,0," + kMin + ",'i','e','p');\n" +
            "exec UPDATE event_watchers SET docversion=" + kUnsignedMax +
            " WHERE watcheropaque = 'o' AND presentitykey='k';\n"
            "exec UPDATE event_watchers SET expirytime=-2147483648 WHERE watcheropaque='o' AND presentitykey='k';\n");
}

TEST_F(PresenceTest, NumbersOfSourcesWatcherInformationAndListsAreStoredWhole)
{
    libpq.replies(std::vector<fake::Reply>(5, command("1")));
    const oryx::WatcherInfoRecord winfo("k", "s", "sip", Int::max(), Long::min());
    executor.addSourceOpaque(oryx::SourcesRecord("k", "o", "c", Long::max(), "e", "p"));
    executor.addWinfoForPresentity(winfo);
    executor.updateWinfoForPresentity(winfo);
    executor.createListMapping("l", "s", Long::max());
    executor.updateStateForListMapping("l", "s", "n", Long::min());
    EXPECT_EQ(
        libpq.take(),
        "exec INSERT INTO event_sources (presentitykey,sourceopaque,contact,expirytime,event,presentity) VALUES('k','o','c'," +
            kMax +
            ",'e','p');\n"
            "exec INSERT INTO watcherinfo (winfokey,presurlscheme,subscriberkey,startingdocversion,expirytime) VALUES('k','sip','s',2147483647," +
            kMin +
            ");\n"
            "exec UPDATE watcherinfo SET presurlscheme='sip', startingdocversion = 2147483647,expirytime = " +
            kMin +
            " WHERE subscriberkey='s';\n"
            "exec INSERT INTO listsubscriptions (listfsmidentifier,subscriptionidentifier,expirytime) VALUES('l','s'," +
            kMax +
            ");\n"
            "exec UPDATE listsubscriptions SET subscriptionidentifier='n', expirytime = " +
            kMin + " WHERE listfsmidentifier='l' AND subscriptionidentifier = 's';\n");
}

} // namespace

} // namespace numbersTest
