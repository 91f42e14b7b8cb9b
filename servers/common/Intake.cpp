// What is looked at before the stack reads a message. It keeps all header fields in one list, which it walks along for
// each field that it adds: 64 KiB of short ones would hold up everybody for a second, and that is what a single
// datagram can carry. It asks `msg_extract` for each piece that comes in, which therefore is this server's own, before
// the stack's.

#include <common/Intake.h>
#include <common/Sofia.h>

#include <sofia-sip/msg_buffer.h>

#include <dlfcn.h>

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

/// Whether a body is still to come that is too large, so that nobody waits for it.
bool expectsTooMuch(const msg_t* message)
{
    const sip_t* const sip = sip_object(message);
    return sip != nullptr && sip->sip_content_length != nullptr && sip->sip_content_length->l_length > kLargestMessage;
}

/// Has the answer go to where the request came from (RFC 3261 section 18.2.1, RFC 3581), whatever its Via says. A maddr
/// parameter, which is for multicast, would have it sent to anybody at all, and the stack wait for a name server to
/// find out where that is. Two of the stack's refusals do not look for the source.
void settleSource(msg_t* message)
{
    const sip_t* const sip = sip_object(message);
    sip_via_t* const via = sip != nullptr && sip->sip_request != nullptr ? sip->sip_via : nullptr;
    if (via == nullptr) {
        return;
    }
    if (via->v_maddr != nullptr) {
        msg_header_remove_param(via->v_common, "maddr");
        msg_fragment_clear_chain(static_cast<msg_header_t*>(static_cast<void*>(via)));
    }
    const bool refused = msg_get_flags(message, MSG_FLG_TOOLARGE) != 0 ||
                         su_casematch(sip->sip_request->rq_version, sip_version_2_0) == 0;
    if (refused && msg_addrinfo(message)->ai_socktype == SOCK_DGRAM) {
        std::array<char, TPORT_HOSTPORTSIZE> host{};
        tport_hostport(host.data(), host.size(), msg_addr(message), 0);
        std::string received = std::string("received=") + host.data();
        std::erase_if(received, [](char c) { return c == '[' || c == ']'; });
        su_home_t* const home = msg_home(message);
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
    const bool isCut = cut(msg);
    int read = stacks(msg);
    if (isCut || (read == 0 && expectsTooMuch(msg))) {
        s_refused.fetch_add(1, std::memory_order_relaxed);
        msg_mark_as_complete(msg, MSG_FLG_TOOLARGE | MSG_FLG_ERROR); // 413, and the end of a stream
        read = -1;
    }
    if (read != 0) {
        settleSource(msg);
    }
    return read;
}
