#include <dal/PresenceDal.h>

#include <dal/internal/Statement.h>

namespace oryx {

std::string WatchersRecord::dumpToString(const std::string& prefix) const
{
    return spliced(
        "{}presentitykey={} watcheropaque={} doctype={} watchertype={} watcherstate={} expirytime={} watcheridentity={} presentity={} docversion={} event={} remoteContactHdr={}",
        prefix, _presentitykey, _watcheropaque, _doctype, _watchertype, _watcherstate, _expirytime, _watcheridentity,
        _presentity, _docversion, _event, _remoteContactHdr);
}

std::string ConfExtRecord::dumpToString(const std::string& prefix) const
{
    return spliced("{}extension={} conf_status={} start_time={}", prefix, _extension, _conf_status, _start_time);
}

void CMRecord::SetHandle(const char* handle)
{
    detail::setText(cmhandle, handle);
}

void CMRecord::SetIPAddress(const char* address)
{
    if (address == nullptr) {
        return;
    }
    const std::string text = address;
    const std::size_t colon = text.find(':');
    if (colon != std::string::npos) {
        port = text.substr(colon + 1);
        embedded_port = true;
    }
    ip_address = text.substr(0, colon);
}

void CMRecord::SetPort(const char* text)
{
    if (!embedded_port) {
        detail::setText(port, text);
    }
}

void CMRecord::SetLinkType(const char* type)
{
    if (type == nullptr) {
        return;
    }
    link_type = type;
    if (port.empty()) {
        SetDefaultPort();
    }
}

void CMRecord::SetDefaultPort()
{
    if (embedded_port) {
        return;
    }
    if (link_type == "tcp") {
        port = "5060";
    } else if (link_type == "tls") {
        port = "5061";
    }
}

std::string CMRecord::dumpToString(const std::string& prefix) const
{
    return spliced("{}handle={} link_type={} ip_address={} port={}", prefix, cmhandle, link_type, ip_address, port);
}

} // namespace oryx
