#pragma once

#include <dal/Dal.h>
#include <dal/DatabaseResult.h>
#include <dal/PresenceDal.h>

#include <sstream>
#include <string>
#include <vector>

/// \file
/// Records as text, every field of them: a test compares whole records, and a failure shows all that differs.

namespace oryx {

inline std::string show(const DatabaseResult& result)
{
    static const std::vector<std::string> kNames{"okay", "connection error", "query error", "not found",
                                                 "4",    "constraint error"};
    const std::string& name = kNames.at(result.getStatus());
    return result.getErrorMessage().empty() ? name : name + ": " + result.getErrorMessage();
}

inline std::string show(const SubscriberRecord& rec)
{
    std::ostringstream out;
    out << "subscriber " << rec.sid() << " user='" << rec.userId() << "' type='" << rec.type() << "' auth='"
        << rec.authType() << "' password='" << rec.password() << "' oid=" << rec.oid() << " active='" << rec.active()
        << "'\n";
    return out.str();
}

inline std::string show(const PublicAddressRecord& rec)
{
    std::ostringstream out;
    out << "address " << rec.public_address_id() << " '" << rec.handle() << "'@'" << rec.domain()
        << "' csid=" << rec.csid() << " scope='" << rec.scope() << "' admin='" << rec.adminDomain() << "'\n";
    return out.str();
}

inline std::string show(const ContactRecord& rec)
{
    std::ostringstream out;
    out << "contact " << rec.contactid() << " '" << rec.address() << "' csid=" << rec.csid() << " q='" << rec.qvalue()
        << "' expires=" << rec.expires() << " permanent='" << rec.permanent() << "' capabilities='"
        << rec.capabilities() << "' header='" << rec.contactHeader() << "' call='" << rec.callId()
        << "' cseq=" << rec.cseq() << " type='" << rec.type() << "' path='" << rec.pathVector() << "'\n";
    return out.str();
}

inline std::string show(const HostInfo& info)
{
    std::ostringstream out;
    out << std::boolalpha << "host '" << info.serverName() << "' type='" << info.nodeType() << "' parent='"
        << info.parent() << "' contact='" << info.parentContact() << "' top='" << info.topUrl() << "' proxy='"
        << info.outboundProxy() << "' direct='" << info.outboundDirect()
        << "' internal=" << info.outboundAllowInternal() << " external=" << info.outboundAllowExternal() << "\n";
    return out.str();
}

inline std::string show(const AddressMapRecord& map)
{
    std::ostringstream out;
    out << std::boolalpha << "map " << map.mapid() << " '" << map.handle() << "' pattern='" << map.pattern()
        << "' csid=" << map.csid() << " modified=" << map.modTime() << " priority=" << map.priority()
        << " replace=" << map.replaceUri() << " ordering='" << map.ordering() << "'\n";
    return out.str();
}

inline std::string show(const ProxyConfig& item)
{
    std::ostringstream out;
    out << "item scope='" << item.scope() << "' name='" << item.name() << "' value='" << item.value() << "'\n";
    return out.str();
}

inline std::string show(const DomainAccess& rule)
{
    std::ostringstream out;
    out << "rule " << rule.domainid() << " '" << rule.domain() << "' direction='" << rule.direction() << "' action='"
        << rule.action() << "'\n";
    return out.str();
}

inline std::string show(const AccessControlEntry& entry)
{
    return "entry requester='" + entry.requester() + "' action='" + entry.action() + "'\n";
}

inline std::string show(const ListSubscriptionRecord& rec)
{
    std::ostringstream out;
    out << "list '" << rec.listfsmidentifier() << "' subscription='" << rec.subscriptionidentifier()
        << "' expires=" << rec.expirytime() << "\n";
    return out.str();
}

inline std::string show(const ExtendedContactRecord& rec)
{
    std::ostringstream out;
    out << "of '" << rec.handle() << "'@'" << rec.domain() << "' sid=" << rec.sid() << " oid=" << rec.oid() << " "
        << show(static_cast<const ContactRecord&>(rec));
    return out.str();
}

inline std::string show(const ConfExtRecord& rec)
{
    std::ostringstream out;
    out << "conference '" << rec.extension() << "' '" << rec.conf_status() << "' since " << rec.start_time() << "\n";
    return out.str();
}

inline std::string show(const DatabaseUpdate& update)
{
    std::ostringstream out;
    out << "update of '" << update.relation_name() << "' key=" << update.intpkey() << " '" << update.strpkey()
        << "' command='" << update.cmd() << "' at '" << update.timestamp() << "'\n";
    return out.str();
}

inline std::string show(const CMRecord& rec)
{
    return "call manager '" + rec.GetHandle() + "' type='" + rec.GetLinkType() + "' address='" + rec.GetIPAddress() +
           "' port='" + rec.GetPort() + "'\n";
}

inline std::string show(const std::string& text)
{
    return "'" + text + "'\n";
}

inline std::string show(const PresenceRecord& rec)
{
    std::ostringstream out;
    out << "dialog '" << rec.subscriptionid() << "' sid='" << rec.sid() << "' from='" << rec.fromhdr() << "' to='"
        << rec.tohdr() << "' call='" << rec.callId() << "' subcseq=" << rec.subcseq() << " event='" << rec.eventhdr()
        << "' contact='" << rec.remotecontacthdr() << "' route='" << rec.routeset() << "' notcseq=" << rec.notcseq()
        << " uri='" << rec.requestUri() << "' package='" << rec.packageid() << "' oid=" << rec.oid() << " watcher='"
        << rec.watcherIdentity() << "' doctype=" << rec.docType() << " expires=" << rec.expiryTime() << "\n";
    return out.str();
}

inline std::string show(const WatchersRecord& rec)
{
    std::ostringstream out;
    out << "watcher '" << rec.watcheropaque() << "' of '" << rec.presentitykey() << "' doctype=" << rec.doctype()
        << " type=" << rec.watchertype() << " state=" << rec.watcherstate() << " expires=" << rec.expirytime()
        << " identity='" << rec.watcheridentity() << "' presentity='" << rec.presentity()
        << "' version=" << rec.docversion() << " event='" << rec.event() << "' contact='" << rec.remoteContactHdr()
        << "'\n";
    return out.str();
}

inline std::string show(const SourcesRecord& rec)
{
    std::ostringstream out;
    out << "source '" << rec.sourceopaque() << "' of '" << rec.presentitykey() << "' contact='" << rec.contact()
        << "' event='" << rec.event() << "' presentity='" << rec.presentity() << "' expires=" << rec.expirytime()
        << "\n";
    return out.str();
}

inline std::string show(const WatcherInfoRecord& rec)
{
    std::ostringstream out;
    out << "winfo '" << rec.winfokey() << "' for '" << rec.subscribekey() << "' scheme='" << rec.presurlscheme()
        << "' from version=" << rec.startingdocversion() << " expires=" << rec.expirytime() << "\n";
    return out.str();
}

template <typename Record>
std::string show(const std::vector<Record>& records)
{
    std::string text;
    for (const Record& record : records) {
        text += show(record);
    }
    return text;
}

} // namespace oryx
