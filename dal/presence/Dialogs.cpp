// Subscription dialogs: table subscription_states, alone and with the watchers they belong to.

#include <dal/PresenceDatabaseCommandExecutor.h>

#include <dal/internal/Frame.h>
#include <dal/internal/Shown.h>

namespace oryx {

namespace {

/// Reads the eleven columns that every query of dialogs begins with.
void readDialog(const Row& row, PresenceRecord& record)
{
    record.SetSubscriptionid(row.text(0));
    record.SetFromhdr(row.text(1));
    record.SetTohdr(row.text(2));
    record.SetCallId(row.text(3));
    record.SetSubcseq(row.integer(4, record.subcseq()));
    record.SetEventhdr(row.text(5));
    record.SetRemotecontacthdr(row.text(6));
    record.SetRouteset(row.text(7));
    record.SetNotcseq(row.integer(8, record.notcseq()));
    record.SetRequestUri(row.text(9));
    record.SetPackageid(row.text(10));
}

void readWatchedDialog(const Row& row, PresenceRecord& record)
{
    readDialog(row, record);
    record.SetWatcherIdentity(row.text(11));
    record.SetExpiryTime(row.number(12, record.expiryTime()));
    record.SetDocType(row.integer(13, record.docType()));
}

bool isComplete(const PresenceRecord& record)
{
    return !record.subscriptionid().empty() && !record.fromhdr().empty() && !record.tohdr().empty() &&
           !record.eventhdr().empty() && !record.remotecontacthdr().empty() && !record.requestUri().empty() &&
           !record.packageid().empty();
}

Statement addition(const PresenceRecord& record)
{
    return sql(
        "INSERT INTO subscription_states (subscriptionid,fromhdr,tohdr,callid,subcseq,eventhdr,remotecontacthdr,routeset,notcseq,requesturi,packageid) VALUES('{}','{}','{}',{},{},'{}','{}',{},{},'{}','{}');",
        record.subscriptionid(), record.fromhdr(), record.tohdr(), QuotedOrNull(record.callId()), record.subcseq(),
        record.eventhdr(), record.remotecontacthdr(), QuotedOrNull(record.routeset()), record.notcseq(),
        record.requestUri(), record.packageid());
}

} // namespace

DatabaseResult PresenceDatabaseCommandExecutor::getWatcher(const char* subscriptionId, PresenceRecord& out)
{
    return m_frame->find(
        "getWatcher()", {{!subscriptionId, "invalid parameters passed to getWatcher"}},
        [&] {
            return sql(
                "SELECT subscriptionid, fromhdr, tohdr, callid, subcseq, eventhdr, remotecontacthdr, routeset, notcseq, requesturi,packageid  FROM subscription_states WHERE subscriptionid = '{}';",
                subscriptionId);
        },
        [&](const Row& row) { fillAllOrNone(out, [&](PresenceRecord& filled) { readDialog(row, filled); }); });
}

DatabaseResult PresenceDatabaseCommandExecutor::addWatcher(const PresenceRecord& record)
{
    return m_frame->insertOrDelete(
        "addWatcher()", {{!isComplete(record), "addWatcher: missing one or more parameters\n"}},
        [&] { return addition(record); }, Violation::isConstraintError);
}

DatabaseResult PresenceDatabaseCommandExecutor::deleteWatcher(const char* subscriptionId)
{
    return m_frame->insertOrDelete("deleteWatcher()", {}, [&] {
        return sql("DELETE FROM subscription_states WHERE subscriptionid = '{}';", subscriptionId);
    });
}

DatabaseResult PresenceDatabaseCommandExecutor::updateWatcherContact(const char* subscriptionId, const char* contact,
                                                                     int subcseq)
{
    return m_frame->update(
        "updateWatcherContact()", {{!subscriptionId || !contact, "invalid parameters passed to updateWatcherContact"}},
        [&] {
            return sql("UPDATE subscription_states SET subcseq={},remotecontacthdr = '{}' WHERE subscriptionid='{}';",
                       subcseq, contact, subscriptionId);
        });
}

DatabaseResult PresenceDatabaseCommandExecutor::updatePresentityContact(const char* subscriptionId, const char* contact,
                                                                        int notcseq)
{
    return m_frame->update(
        "updatePresentityContact()", {{!subscriptionId, "invalid parameters passed to updatePresentityContact"}}, [&] {
            if (contact == nullptr) {
                return sql("UPDATE subscription_states SET notcseq={} WHERE subscriptionid='{}';", notcseq,
                           subscriptionId);
            }
            return sql(
                "UPDATE subscription_states SET notcseq={} , remotecontacthdr = '{}'  WHERE subscriptionid='{}';",
                notcseq, contact, subscriptionId);
        });
}

DatabaseResult PresenceDatabaseCommandExecutor::getIncomingMatchingSubscriptions(std::vector<PresenceRecord>& records)
{
    return m_frame->list(
        "getIncomingMatchingSubscriptions() ", {}, Listing::firstRowThroughout, records,
        [] {
            return sql(
                "SELECT subscriptionid, fromhdr, tohdr, callid, subcseq, eventhdr, remotecontacthdr, routeset, notcseq, requesturi,packageid,watcheridentity,expirytime,doctype FROM subscription_states, event_watchers where subscriptionid = watcheropaque;");
        },
        [&](const Row& row) {
            readWatchedDialog(row, records.emplace_back());
            m_frame->trace.prn("subscriptions size %d ", static_cast<int>(records.size()));
        },
        "subscription size %d");
}

DatabaseResult PresenceDatabaseCommandExecutor::getIncomingSubscriptions(std::vector<PresenceRecord>& records)
{
    return m_frame->list(
        "getIncomingSubscriptions", {}, Listing::firstRowThroughout, records,
        [] {
            return sql(
                "SELECT subscriptionid, fromhdr, tohdr, callid, subcseq, eventhdr, remotecontacthdr, routeset, notcseq, requesturi,packageid  FROM subscription_states  WHERE subscriptionid like '%%incoming#%%';");
        },
        [&](const Row& row) { readDialog(row, records.emplace_back()); });
}

DatabaseResult PresenceDatabaseCommandExecutor::getIncomingSubscriptions(std::vector<PresenceRecord>& records,
                                                                         const char* package)
{
    m_frame->trace.prn("getIncomingSubscribes package : %s", shown(package));
    return m_frame->list(
        nullptr, {}, Listing::notFoundWhenEmpty, records,
        [&] {
            return sql(
                "SELECT subscriptionid, fromhdr, tohdr, callid, subcseq, eventhdr, remotecontacthdr, routeset, notcseq, requesturi,packageid  FROM subscription_states  WHERE subscriptionid like '%%incoming#%%' AND packageid like '%%{}%%';",
                package);
        },
        [&](const Row& row) { readDialog(row, records.emplace_back()); });
}

DatabaseResult PresenceDatabaseCommandExecutor::getIncomingSubscriptions(std::vector<PresenceRecord>& records,
                                                                         const char* from, const char* requestUri,
                                                                         const char* package)
{
    return m_frame->list(
        "getIncomingSubscriptions", {}, Listing::notFoundWhenEmpty, records,
        [&] {
            return sql(
                "SELECT subscriptionid, fromhdr, tohdr, callid, subcseq, eventhdr, remotecontacthdr, routeset, notcseq, requesturi,packageid  FROM subscription_states  WHERE subscriptionid like '%%incoming#%%' and fromhdr like '%%{}%%' AND requesturi like '%%{}%%' AND packageid like '%%{}#%%';",
                from, requestUri, package);
        },
        [&](const Row& row) { readDialog(row, records.emplace_back()); });
}

DatabaseResult PresenceDatabaseCommandExecutor::getOutgoingSubscribes(std::vector<PresenceRecord>& records,
                                                                      const char* to, const char* package)
{
    return m_frame->list(
        "getOutgoingSubscribes", {}, Listing::firstRowThroughout, records,
        [&] {
            return sql(
                "SELECT subscriptionid, fromhdr, tohdr, callid, subcseq, eventhdr, remotecontacthdr, routeset, notcseq, requesturi,packageid  FROM subscription_states  WHERE subscriptionid like '%%outgoing#%%' and tohdr like '%%{}%%' AND packageid like '%%{}#%%';",
                to, package);
        },
        [&](const Row& row) { readDialog(row, records.emplace_back()); });
}

} // namespace oryx
