#pragma once

#include <common/Sofia.h>

#include <functional>
#include <optional>
#include <string>

namespace oryx::sip {

/// An address of record as the database has it: in lower case, its escapes read, the host without DNS' final dot.
struct Address {
    std::string handle;
    std::string domain;

    std::string text() const { return handle + "@" + domain; }
    /// What all that is about the address goes to the same worker by.
    std::size_t key() const { return std::hash<std::string>()(text()); }
};

/// The address in a SIP URI; none where it is no SIP URI, or holds what no text in the database can: control characters
/// or broken UTF-8.
std::optional<Address> addressOf(const url_t& url);
std::optional<Address> addressOf(const char* uri);
/// A URI's user, its escapes read; empty where there is none.
std::string userOf(const url_t& url);
/// A URI's host in lower case, without the final dot; empty where there is none.
std::string hostOf(const url_t& url);
/// The host that the stack sends what goes to a URI to: its maddr, if it has one (RFC 3261 section 19.1.1), else its
/// own; in the form of `hostOf`. Whoever judges where a request goes judges by this.
std::string nextHostOf(const url_t& url);
/// Whether a text can stand in the database.
bool canBeStored(const char* text);
/// A URI as text in the form by which bindings are told apart (RFC 3261 section 19.1.4): scheme, host and parameters'
/// names in lower case, the parameters in one order, no headers. It is stored and is what requests go to as well, so
/// nothing in it is changed that a telephone may not find changed. A parameter that only one of two URIs has tells them
/// apart, also where that section would ignore it: by it two may equal a third, and not each other.
std::string normalized(const url_t& url);

} // namespace oryx::sip
