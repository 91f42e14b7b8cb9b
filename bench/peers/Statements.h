#pragma once

#include <array>

/// \file
/// The library's statements with numbered parameters, for what prepares them.

namespace peers {

struct Prepared {
    const char* name;
    const char* text;
};

constexpr Prepared kKey{
    "key",
    "SELECT handle, sip_domain, csid, scope, public_address_id FROM public_address WHERE handle = $1 AND sip_domain = $2"};
constexpr Prepared kContactsByAddress{
    "contacts_by_address",
    "SELECT contact_set.ordering, contact_set.replace_uri, subscriber.active, contact.address, contact.qvalue, contact.expires, contact.capabilities, contact.contact_header, contact.call_id, contact.cseq, contact.c_type FROM public_address, contact_set, contact, subscriber WHERE public_address.handle = $1 AND public_address.sip_domain = $2 AND public_address.csid = contact_set.csid AND contact.csid = contact_set.csid AND subscriber.sid = contact_set.sid"};
constexpr Prepared kContactsByKey{
    "contacts_by_key",
    "SELECT contact_set.ordering, contact_set.replace_uri, subscriber.active, contact.address, contact.qvalue, contact.expires, contact.capabilities, contact.contact_header, contact.call_id, contact.cseq, contact.c_type FROM public_address, contact_set, contact, subscriber WHERE public_address.id = $1 AND contact_set.csid = public_address.csid AND contact.csid = contact_set.csid AND contact_set.sid = subscriber.sid"};
constexpr Prepared kContactsBySet{
    "contacts_by_set",
    "SELECT contact_set.ordering, contact_set.replace_uri, contact.address, contact.qvalue, contact.expires, contact.capabilities, contact.contact_header, contact.call_id, contact.cseq, contact.c_type, contact.permanent, contact.contact_id, contact.csid, contact.path_vector FROM contact_set, contact WHERE contact_set.csid = $1 AND contact.csid = contact_set.csid"};
constexpr Prepared kRegister{
    "register",
    "INSERT INTO contact (address, csid, qvalue, expires, permanent, capabilities, contact_header, call_id, cseq, id) VALUES ($1, (SELECT csid FROM public_address WHERE public_address_id = $2), $3, $4, $5, $6, $7, $8, $9, 1)"};
constexpr Prepared kRefresh{
    "refresh",
    "UPDATE contact SET contact_header = $1, expires = $2, call_id = $3, cseq = $4, qvalue = $5, capabilities = $6 WHERE csid = (SELECT csid FROM public_address WHERE id = $7) AND address = $8"};
constexpr Prepared kUnregister{
    "unregister", "DELETE FROM contact WHERE address = $1 AND csid = (SELECT csid FROM public_address WHERE id = $2)"};
constexpr Prepared kStoreDialog{
    "store_dialog",
    "INSERT INTO subscription_states (subscriptionid, fromhdr, tohdr, callid, subcseq, eventhdr, remotecontacthdr, routeset, notcseq, requesturi, packageid) VALUES ($1, $2, $3, $4, $5, $6, $7, nullif($8, ''), $9, $10, $11)"};
constexpr Prepared kFindDialog{
    "find_dialog",
    "SELECT subscriptionid, fromhdr, tohdr, callid, subcseq, eventhdr, remotecontacthdr, routeset, notcseq, requesturi, packageid FROM subscription_states WHERE subscriptionid = $1"};
constexpr Prepared kRemoveDialog{"remove_dialog", "DELETE FROM subscription_states WHERE subscriptionid = $1"};
constexpr Prepared kWatchers{
    "watchers",
    "SELECT watcheropaque, doctype, watchertype, watcherstate, expirytime, watcheridentity, presentity, docversion, remotecontacthdr FROM event_watchers, subscription_states WHERE presentitykey = $1 AND watcheropaque = subscriptionid"};
constexpr Prepared kRules{
    "rules",
    "SELECT requester, access_action FROM access_control_list WHERE object = $1 AND state = 'ACTIVE' AND application = $2"};
constexpr Prepared kDefaultRules{
    "default_rules",
    "SELECT requester, access_action FROM access_control_list, node WHERE object = node_id AND state = 'ACTIVE' AND application = $1"};
constexpr Prepared kReserve{
    "reserve",
    "SELECT * FROM reserve_one_available_conf_ext_randomly() WHERE reserve_one_available_conf_ext_randomly IS NOT NULL"};
constexpr Prepared kRelease{"release",
                            "UPDATE conf_state SET conf_status = 'IDLE', start_time = 0 WHERE extension = $1"};

constexpr std::array kAllPrepared{
    kKey,        kContactsByAddress, kContactsByKey, kContactsBySet, kRegister,     kRefresh, kUnregister, kStoreDialog,
    kFindDialog, kRemoveDialog,      kWatchers,      kRules,         kDefaultRules, kReserve, kRelease};

} // namespace peers
