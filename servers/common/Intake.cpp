// What is looked at before the stack reads a message. It keeps all header fields in one list, which it walks along for
// each field that it adds: 64 KiB of short ones would hold up everybody for a second, and that is what a single
// datagram can carry. It asks `msg_extract` for each piece that comes in, which therefore is this server's own, before
// the stack's. So is `su_getmsgsize`, by which it learns how much there is to be read.

#include <common/Intake.h>
#include <common/Sofia.h>

#include <sofia-sip/msg_buffer.h>

#include <dlfcn.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <string>
#include <string_view>

namespace oryx::sip {

namespace {

/// More than any telephone or proxy has use for: with 70 of each of Via, Route and Record-Route there are 40 left.
constexpr std::size_t kMostFields = 250;

/// Those of a message that comes in as many bytes, as nearly all do, are not counted: they are read in no time.
constexpr std::size_t kSmall = 1024;

std::atomic<std::uint64_t> s_refused{0};

/// What the stack has read last; it parses that before it reads anything else.
thread_local su_socket_t t_socket = INVALID_SOCKET;

bool endsField(char c)
{
    return c == '\n' || c == '\r' || c == ',';
}

/// Where the header fields of a piece end that may still be read: at an empty line, or where `most` of them, in lines
/// of their own or after a comma, have come. True in the latter case.
bool exceeds(std::string_view piece, std::size_t most, std::size_t& end)
{
    for (end = 0; end < piece.size(); ++end) {
        if (!endsField(piece[end])) {
            continue;
        }
        if (most-- == 0) {
            return true;
        }
        if (piece[end] != ',') {
            end += piece.substr(end, 2) == "\r\n" ? 1U : 0U;
            if (end + 1 < piece.size() && (piece[end + 1] == '\r' || piece[end + 1] == '\n')) {
                return false;
            }
        }
    }
    return false;
}

/// Ends the header where it has had as many fields as are read; false where it has not. The stack reads what is left,
/// for the refusal.
bool cut(msg_t* message)
{
    const std::size_t size = msg_buf_committed(message);
    if (size == 0 || msg_get_flags(message, MSG_FLG_BODY | MSG_FLG_COMPLETE) != 0) {
        return false;
    }
    auto* const text = static_cast<char*>(msg_buf_committed_data(message));
    const std::string_view piece(text, size);
    const msg_header_t* const first = *msg_chain_head(message);
    if (first == nullptr && size <= kSmall) {
        return false;
    }
    const std::size_t begin = first == nullptr ? piece.find_first_not_of(" \t\r\n") : 0; // signs of life come before
    if (begin == std::string_view::npos || piece[begin] == '\r' || piece[begin] == '\n') {
        return false;
    }
    std::size_t left = kMostFields;
    for (const msg_header_t* field = first; field != nullptr && left > 0; field = field->sh_succ) {
        --left; // which earlier pieces have brought
    }
    std::size_t length = 0;
    if (!exceeds(piece.substr(begin), left, length)) {
        return false;
    }
    std::fill(text + begin + length, text + std::min(begin + length + 2, size), '\n');
    return true;
}

/// Whether a message is too large, or will be with a body that is still to come, so that nobody waits for it. What is
/// behind a whole one is the next one's.
bool isTooLarge(const msg_t* message, bool whole)
{
    const sip_t* const sip = sip_object(message);
    return msg_size(message) + (whole ? 0 : msg_buf_committed(message)) > kLargestMessage ||
           (sip != nullptr && sip->sip_content_length != nullptr &&
            sip->sip_content_length->l_length > kLargestMessage);
}

/// 413, after which the stack ends a stream.
void refuse(msg_t* message)
{
    s_refused.fetch_add(1, std::memory_order_relaxed);
    msg_mark_as_complete(message, MSG_FLG_TOOLARGE | MSG_FLG_ERROR);
}

/// Whether the socket that was read last is the message's.
bool isFromLastRead(msg_t* message)
{
    su_sockaddr_t peer{};
    socklen_t size = sizeof peer;
    if (msg_addrinfo(message)->ai_socktype != SOCK_STREAM || getpeername(t_socket, &peer.su_sa, &size) != 0) {
        return false;
    }
    SU_CANONIZE_SOCKADDR(&peer);
    return su_cmp_sockaddr(&peer, msg_addr(message)) == 0;
}

/// Ends a stream of which nobody knows where its next message begins. The stack does so once it has answered; where
/// nobody can be given an answer it would only read no more, and keep a telephone that waits to be called.
void endUnreadable(msg_t* message)
{
    const sip_t* const sip = sip_object(message);
    const bool answerable = sip != nullptr && sip->sip_request != nullptr && sip->sip_via != nullptr;
    if (!answerable && isFromLastRead(message)) {
        shutdown(t_socket, SHUT_RDWR);
    }
}

/// Takes away all parameters of that name, of which the stack takes one at a time; false where there was none.
bool take(sip_via_t& via, const char* name)
{
    bool had = false;
    while (msg_header_remove_param(via.v_common, name) > 0) {
        had = true;
    }
    return had;
}

/// Has the answer go to where the request came from (RFC 3261 section 18.2.1, RFC 3581), whatever its Via says. A maddr
/// parameter, which is for multicast, would have it sent to anybody at all, and the stack wait for a name server to
/// find out where that is. Nothing may be there twice: the stack puts the source into the first of a name, and reads
/// the last where it answers without a transaction. Two of its refusals do not look for the source.
void settleSource(msg_t* message)
{
    const sip_t* const sip = sip_object(message);
    sip_via_t* const via = sip != nullptr && sip->sip_request != nullptr ? sip->sip_via : nullptr;
    if (via == nullptr) {
        return;
    }
    su_home_t* const home = msg_home(message);
    take(*via, "maddr");
    take(*via, "received");
    if (take(*via, "rport")) {
        msg_header_replace_param(home, via->v_common, "rport");
    }
    const bool refused = msg_get_flags(message, MSG_FLG_TOOLARGE) != 0 ||
                         su_casematch(sip->sip_request->rq_version, sip_version_2_0) == 0;
    if (refused && msg_addrinfo(message)->ai_socktype == SOCK_DGRAM) {
        std::array<char, TPORT_HOSTPORTSIZE> host{};
        tport_hostport(host.data(), host.size(), msg_addr(message), 0);
        std::string received = std::string("received=") + host.data();
        std::erase_if(received, [](char c) { return c == '[' || c == ']'; });
        msg_header_replace_param(home, via->v_common, su_strdup(home, received.c_str()));
        if (via->v_rport != nullptr) {
            const std::string rport = "rport=" + std::to_string(ntohs(msg_addr(message)->su_port));
            msg_header_replace_param(home, via->v_common, su_strdup(home, rport.c_str()));
        }
    }
}

} // namespace

std::uint64_t refusedMessages()
{
    return s_refused;
}

} // namespace oryx::sip

extern "C" __attribute__((visibility("default"))) int msg_extract(msg_t* msg)
{
    using namespace oryx::sip;
    static auto* const stacks = reinterpret_cast<decltype(&msg_extract)>(dlsym(RTLD_NEXT, "msg_extract"));
    msg_maxsize(msg, kMostHeld); // which the stack says only of the first of a stream
    const bool isCut = cut(msg);
    int read = stacks(msg);
    if (isCut || (read >= 0 && isTooLarge(msg, read > 0))) {
        refuse(msg);
        read = -1;
    }
    if (read < 0) {
        endUnreadable(msg);
    }
    if (read != 0) {
        settleSource(msg);
    }
    return read;
}

/// Of a stream no more is read at once than a message may have: the stack ends it where there is more than it may hold,
/// however many messages that may be. Datagrams are no larger.
extern "C" __attribute__((visibility("default"))) issize_t su_getmsgsize(su_socket_t socket)
{
    static auto* const stacks = reinterpret_cast<decltype(&su_getmsgsize)>(dlsym(RTLD_NEXT, "su_getmsgsize"));
    oryx::sip::t_socket = socket;
    return std::min<issize_t>(stacks(socket), oryx::sip::kLargestMessage);
}
