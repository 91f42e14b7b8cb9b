#include "contract/ExecutorFixture.h"
#include "contract/PresenceFixture.h"

#include <gtest/gtest.h>

#include <functional>
#include <ostream>
#include <string>
#include <vector>

// Arguments that are texts of what the operation itself changes: of the caller's records, or the executor's error text.
// The operation must do as it does with a text of the caller's own.

namespace ownTextsTest {

namespace {

using fake::command;
using fake::noRows;
using fake::rows;
using oryx::DatabaseCommandExecutor;
using oryx::DatabaseResult;
using oryx::PresenceDatabaseCommandExecutor;
using oryx::PresenceRecord;
using oryx::ProxyConfig;
using oryx::PublicAddressRecord;
using oryx::SubscriberRecord;

/// Too long to lie within a string object: what frees it is seen.
const std::string kText = "a text that is too long to lie within a string object";

/// An operation given `kText`, first as a text of the caller's own, then as one that it changes.
template <typename Executor>
struct CallOf {
    std::string name;
    fake::Reply reply;
    std::function<std::string(Executor&, const std::string& text)> given;
    std::function<std::string(Executor&)> own;
};

template <typename Executor>
void PrintTo(const CallOf<Executor>& call, std::ostream* out)
{
    *out << call.name;
}

template <typename Executor>
class OwnTextOf : public testing::TestWithParam<CallOf<Executor>>, protected UnconnectedExecutorOf<Executor> {
protected:
    void SetUp() override { this->connect(); }

    void isTakenLikeAnyOther()
    {
        const auto& call = this->GetParam();
        // Until the first of these, the operation succeeds; then its statement is refused.
        for (const fake::Reply& reply : {call.reply, fake::status(PGRES_EMPTY_QUERY)}) {
            this->libpq.replies({reply, reply});
            this->executor.error(kText.c_str());
            const std::string expected = told(call.given(this->executor, kText));
            this->executor.error(kText.c_str());
            EXPECT_EQ(told(call.own(this->executor)), expected);
        }
    }

private:
    std::string told(const std::string& answer) { return answer + this->libpq.take() + this->trace.take(); }
};

// The registrar's

using LocationCall = CallOf<DatabaseCommandExecutor>;
class LocationOwnText : public OwnTextOf<DatabaseCommandExecutor> {};

TEST_P(LocationOwnText, IsTakenLikeAnyOther)
{
    isTakenLikeAnyOther();
}

std::string proxyConfig(DatabaseCommandExecutor& executor, std::vector<ProxyConfig>& items, const char* name)
{
    const DatabaseResult result = executor.getProxyConfig(name, items);
    return show(result) + "\n" + show(items);
}

std::string found(DatabaseCommandExecutor& executor, SubscriberRecord& rec, const char* handle, const char* domain)
{
    const int answer = executor.lookupSubscriber(handle, domain, rec);
    return std::to_string(answer) + show(rec);
}

template <typename Executor>
std::string address(Executor& executor, PublicAddressRecord& rec, const char* handle, const char* domain)
{
    const DatabaseResult result = executor.lookupPublicAddress(handle, domain, rec);
    return show(result) + "\n" + show(rec);
}

std::string contacts(DatabaseCommandExecutor& executor, std::string& ordering, const char* handle, const char* domain)
{
    bool replaceUri = false;
    std::vector<oryx::ContactRecord> out;
    const DatabaseResult result = executor.lookupContacts(handle, domain, ordering, replaceUri, out);
    return show(result) + "\n" + ordering + "\n" + show(out);
}

const auto kAddress = rows({{"another handle", "another domain", "1", "s", "2"}});

PublicAddressRecord addressOf(const std::string& text)
{
    return {text.c_str(), text.c_str(), 1, "s"};
}

SubscriberRecord subscriberOf(const std::string& text)
{
    SubscriberRecord rec;
    rec.setUserId(text.c_str());
    rec.setType(text.c_str());
    return rec;
}

INSTANTIATE_TEST_SUITE_P(
    Of, LocationOwnText,
    testing::Values(LocationCall{"ProxyName", rows({{"s", "n", "v"}, {"s", "n", "w"}}),
                                 [](auto& executor, const auto& text) {
                                     std::vector<ProxyConfig> items = {{"s", "n", text.c_str()}};
                                     return proxyConfig(executor, items, text.c_str());
                                 },
                                 [](auto& executor) {
                                     std::vector<ProxyConfig> items = {{"s", "n", kText.c_str()}};
                                     return proxyConfig(executor, items, items.front().value());
                                 }},
                    LocationCall{"Subscriber", rows({{"1", "another user", "2", "another type", "a", "p", "t"}}),
                                 [](auto& executor, const auto& text) {
                                     SubscriberRecord rec = subscriberOf(text);
                                     return found(executor, rec, text.c_str(), text.c_str());
                                 },
                                 [](auto& executor) {
                                     SubscriberRecord rec = subscriberOf(kText);
                                     return found(executor, rec, rec.userId().c_str(), rec.type().c_str());
                                 }},
                    LocationCall{"PublicAddress", kAddress,
                                 [](auto& executor, const auto& text) {
                                     PublicAddressRecord rec = addressOf(text);
                                     return address(executor, rec, text.c_str(), text.c_str());
                                 },
                                 [](auto& executor) {
                                     PublicAddressRecord rec = addressOf(kText);
                                     return address(executor, rec, rec.handle().c_str(), rec.domain().c_str());
                                 }},
                    LocationCall{"Ordering", rows({{"parallel", "t", "t", "a", "q", "1", "c", "h", "i", "1", "t"}}),
                                 [](auto& executor, const auto& text) {
                                     std::string ordering = text;
                                     return contacts(executor, ordering, text.c_str(), text.c_str());
                                 },
                                 [](auto& executor) {
                                     std::string ordering = kText;
                                     return contacts(executor, ordering, ordering.c_str(), ordering.c_str());
                                 }},
                    LocationCall{"ErrorTextAsStatement", command("1"),
                                 [](auto& executor, const auto& text) { return show(executor.execute(text)); },
                                 [](auto& executor) { return show(executor.execute(executor.getErrorMessage())); }},
                    LocationCall{"ErrorTextAsChange", command("1"),
                                 [](auto& executor, const auto& text) {
                                     int count = 0;
                                     return std::to_string(executor.executeUpdate(text, count)) + std::to_string(count);
                                 },
                                 [](auto& executor) {
                                     int count = 0;
                                     return std::to_string(executor.executeUpdate(executor.getErrorMessage(), count)) +
                                            std::to_string(count);
                                 }},
                    LocationCall{"ErrorTextAsPassword", command("1"),
                                 [](auto& executor, const auto& text) {
                                     return std::to_string(executor.changeSubscriberPassword(1, text.c_str()));
                                 },
                                 [](auto& executor) {
                                     return std::to_string(
                                         executor.changeSubscriberPassword(1, executor.getErrorMessage().c_str()));
                                 }},
                    LocationCall{"ErrorTextAsSystemParameter", rows({{"v"}}),
                                 [](auto& executor, const auto& text) {
                                     return executor.getSystemParameterValue(text, text, text);
                                 },
                                 [](auto& executor) {
                                     const std::string& text = executor.getErrorMessage();
                                     return executor.getSystemParameterValue(text, text, text);
                                 }}),
    kRowName);

// The event server's

using PresenceCall = CallOf<PresenceDatabaseCommandExecutor>;
class PresenceOwnText : public OwnTextOf<PresenceDatabaseCommandExecutor> {};

TEST_P(PresenceOwnText, IsTakenLikeAnyOther)
{
    isTakenLikeAnyOther();
}

PresenceRecord dialogOf(const std::string& text)
{
    PresenceRecord rec;
    rec.SetSubscriptionid(text.c_str());
    rec.SetPackageid(text.c_str());
    return rec;
}

oryx::WatchersRecord watcherOf(const std::string& text)
{
    return {text, "o", 1, 2, 3, 4, "i", "p", 5, "e", "c"};
}

oryx::WatcherInfoRecord winfoOf(const std::string& text)
{
    return {text.c_str(), "s", "sip", 1, 2};
}

oryx::DatabaseUpdate updateOf(const std::string& text)
{
    return {text, 1, "k", "", text};
}

/// A call that lists behind a record, given the text or that record's.
template <typename Record, typename List, typename Own>
PresenceCall listing(const std::string& name, const std::vector<fake::Cell>& row, Record (*make)(const std::string&),
                     List list, Own own)
{
    const auto listed = [list](auto& executor, std::vector<Record>& records, const std::string& text) {
        const DatabaseResult result = list(executor, records, text);
        return show(result) + "\n" + show(records);
    };
    return {name, rows({row, row, row}),
            [=](auto& executor, const std::string& text) {
                std::vector<Record> records = {make(text)};
                return listed(executor, records, text);
            },
            [=](auto& executor) {
                std::vector<Record> records = {make(kText)};
                return listed(executor, records, own(records.front()));
            }};
}

const std::vector<fake::Cell> kDialogRow = {"s", "f", "t", "c", "1", "e", "r", "o", "2", "u", "p"};

std::string read(PresenceDatabaseCommandExecutor& executor, PresenceRecord& rec, const char* id)
{
    const DatabaseResult result = executor.getWatcher(id, rec);
    return show(result) + "\n" + show(rec);
}

std::string state(PresenceDatabaseCommandExecutor& executor, const std::string& extension, std::string& status)
{
    unsigned int start = 7;
    const DatabaseResult result = executor.getConfExtState(extension, status, start);
    return show(result) + " " + status + " " + std::to_string(start);
}

std::string paid(PresenceDatabaseCommandExecutor& executor, const std::string& extension)
{
    int number = 7;
    const DatabaseResult result = executor.getPaidFromExtension(extension, number);
    return show(result) + " " + std::to_string(number);
}

INSTANTIATE_TEST_SUITE_P(
    Of, PresenceOwnText,
    testing::Values(
        PresenceCall{"Dialog", rows({kDialogRow}),
                     [](auto& executor, const auto& text) {
                         PresenceRecord rec = dialogOf(text);
                         return read(executor, rec, text.c_str());
                     },
                     [](auto& executor) {
                         PresenceRecord rec = dialogOf(kText);
                         return read(executor, rec, rec.subscriptionid().c_str());
                     }},
        PresenceCall{"PublicAddress", kAddress,
                     [](auto& executor, const auto& text) {
                         PublicAddressRecord rec = addressOf(text);
                         return address(executor, rec, text.c_str(), text.c_str());
                     },
                     [](auto& executor) {
                         PublicAddressRecord rec = addressOf(kText);
                         return address(executor, rec, rec.handle().c_str(), rec.domain().c_str());
                     }},
        PresenceCall{"ConferenceStatus", rows({{"IDLE", "17"}}),
                     [](auto& executor, const auto& text) {
                         std::string status = text;
                         return state(executor, text, status);
                     },
                     [](auto& executor) {
                         std::string status = kText;
                         return state(executor, status, status);
                     }},
        PresenceCall{"ErrorTextAsExtension", rows({{"17"}}),
                     [](auto& executor, const auto& text) { return paid(executor, text); },
                     [](auto& executor) { return paid(executor, executor.getErrorMessage()); }},
        PresenceCall{"ErrorTextAsStatement", command("1"),
                     [](auto& executor, const auto& text) {
                         oryx::QueryResult result;
                         return show(executor.executeSqlCmd(text, result));
                     },
                     [](auto& executor) {
                         oryx::QueryResult result;
                         return show(executor.executeSqlCmd(executor.getErrorMessage(), result));
                     }},
        PresenceCall{"ErrorTextAsRemovedDialog", command("1"),
                     [](auto& executor, const auto& text) { return show(executor.deleteWatcher(text.c_str())); },
                     [](auto& executor) { return show(executor.deleteWatcher(executor.getErrorMessage().c_str())); }},
        PresenceCall{"ErrorTextAsChangedContact", command("1"),
                     [](auto& executor, const auto& text) {
                         return show(executor.updateWatcherContact(text.c_str(), text.c_str(), 1));
                     },
                     [](auto& executor) {
                         const char* const text = executor.getErrorMessage().c_str();
                         return show(executor.updateWatcherContact(text, text, 1));
                     }},
        listing(
            "WatchersOfAPresentity", {"o", "1", "2", "3", "4", "i", "p", "5", "c"}, watcherOf,
            [](auto& executor, auto& records, const std::string& text) {
                return executor.getWatcherState(text.c_str(), records);
            },
            [](const auto& rec) -> const std::string& { return rec.presentitykey(); }),
        listing(
            "MatchingWatchers", {"o", "1", "2", "3", "4", "i", "p", "5"}, watcherOf,
            [](auto& executor, auto& records, const std::string& text) {
                return executor.getWatchers(records, text.c_str(), text.c_str());
            },
            [](const auto& rec) -> const std::string& { return rec.presentitykey(); }),
        listing(
            "IncomingOfAPackage", kDialogRow, dialogOf,
            [](auto& executor, auto& records, const std::string& text) {
                return executor.getIncomingSubscriptions(records, text.c_str());
            },
            [](const auto& rec) -> const std::string& { return rec.packageid(); }),
        listing(
            "IncomingFiltered", kDialogRow, dialogOf,
            [](auto& executor, auto& records, const std::string& text) {
                return executor.getIncomingSubscriptions(records, text.c_str(), text.c_str(), text.c_str());
            },
            [](const auto& rec) -> const std::string& { return rec.packageid(); }),
        listing(
            "Outgoing", kDialogRow, dialogOf,
            [](auto& executor, auto& records, const std::string& text) {
                return executor.getOutgoingSubscribes(records, text.c_str(), text.c_str());
            },
            [](const auto& rec) -> const std::string& { return rec.packageid(); }),
        listing(
            "WatcherInformation", {"s", "1", "2", "sip"}, winfoOf,
            [](auto& executor, auto& records, const std::string& text) {
                return executor.getWinfoForPresentity(text.c_str(), records);
            },
            [](const auto& rec) -> const std::string& { return rec.winfokey(); }),
        listing(
            "Changes", {"1", "k", "7"}, updateOf,
            [](auto& executor, auto& records, const std::string& text) {
                return executor.getUpdatedPrimaryKeys(text, text, records);
            },
            [](const auto& update) -> const std::string& { return update.relation_name(); }),
        listing(
            "Aliases", {"h", "d", "1", "s", "2"}, addressOf,
            [](auto& executor, auto& records, const std::string& text) {
                return executor.getAliases(text.c_str(), text.c_str(), records);
            },
            [](const auto& rec) -> const std::string& { return rec.handle(); }),
        listing(
            "SubscribersOfAType", {"1", "t", "a", "p", "t", "u"}, subscriberOf,
            [](auto& executor, auto& records, const std::string& text) {
                return executor.getSubscribers(records, text.c_str());
            },
            [](const auto& rec) -> const std::string& { return rec.type(); })),
    kRowName);

} // namespace

} // namespace ownTextsTest
