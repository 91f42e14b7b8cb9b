#pragma once

// The SIP stack, whose callbacks get their objects as plain pointers.
#define SU_ROOT_MAGIC_T void
#define SU_WAKEUP_ARG_T void
#define SU_TIMER_ARG_T void
#define NTA_AGENT_MAGIC_T void
#define NTA_INCOMING_MAGIC_T void
#define NTA_OUTGOING_MAGIC_T void
#define TP_MAGIC_T sip_via_t // what the stack itself keeps of a socket

#include <sofia-sip/msg_addr.h>
#include <sofia-sip/msg_header.h>
#include <sofia-sip/nta.h>
#include <sofia-sip/nta_stateless.h>
#include <sofia-sip/nta_tport.h>
#include <sofia-sip/sip.h>
#include <sofia-sip/sip_header.h>
#include <sofia-sip/sip_status.h>
#include <sofia-sip/sip_tag.h>
#include <sofia-sip/sip_util.h>
#include <sofia-sip/su.h>
#include <sofia-sip/su_log.h>
#include <sofia-sip/su_wait.h>
#include <sofia-sip/tport.h>
#include <sofia-sip/tport_tag.h>

#include <sofia-sip/hostdomain.h>
#include <sofia-sip/url.h>

namespace oryx::sip {

/// Memory of the stack's for what is read from it once.
class Scratch {
public:
    Scratch() { su_home_init(&m_home); }
    ~Scratch() { su_home_deinit(&m_home); }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;

    su_home_t* home() { return &m_home; }

private:
    su_home_t m_home{};
};

/// A URI, or its text, where the stack takes either; null stays null.
inline const url_string_t* urlText(const char* text)
{
    return static_cast<const url_string_t*>(static_cast<const void*>(text));
}

inline const url_string_t* urlText(const url_t& url)
{
    return static_cast<const url_string_t*>(static_cast<const void*>(&url));
}

/// A header field of any kind, as those operations of the stack take it that are for all kinds.
template <typename Header>
sip_header_t* anyHeader(Header* header)
{
    return static_cast<sip_header_t*>(static_cast<void*>(header));
}

/// A message's content, as those operations of the stack take it that are for all protocols.
inline msg_pub_t* anyMessage(sip_t* sip)
{
    return static_cast<msg_pub_t*>(static_cast<void*>(sip));
}

} // namespace oryx::sip
