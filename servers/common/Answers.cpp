#include <common/Answers.h>

#include <common/Headers.h>

#include <sodium.h>

#include <algorithm>
#include <climits>
#include <initializer_list>
#include <stdexcept>
#include <string_view>

namespace oryx::sip {

namespace {

void appendPart(std::string& text, const char* part)
{
    text.append(part != nullptr ? part : "").push_back('\n');
}

const char* firstGiven(std::initializer_list<const char*> texts)
{
    return *std::find_if(texts.begin(), texts.end(), [](const char* text) { return text != nullptr && *text != '\0'; });
}

/// Appends a header field's line.
void appendField(std::string& text, std::string_view name, std::string_view value)
{
    text.append(name).append(": ").append(value).append("\r\n");
}

/// Appends the header fields that the tags give; false where one is not given as a text that a line can hold.
bool appendFields(std::string& text, const tagi_t* tags)
{
    const auto ends = [](unsigned char c) { return (c < ' ' && c != '\t') || c == 0x7f; };
    for (; tags != nullptr; tags = tl_next(tags)) {
        if (tags->t_tag == tag_skip || tags->t_tag == tag_null) {
            continue;
        }
        const std::string_view value =
            reinterpret_cast<const char*>(tags->t_value); // NOLINT(performance-no-int-to-ptr)
        if (tags->t_tag->tt_class != sipstrtag_class || std::any_of(value.begin(), value.end(), ends)) {
            return false;
        }
        const auto* const kind =
            reinterpret_cast<const msg_hclass_t*>(tags->t_tag->tt_magic); // NOLINT(performance-no-int-to-ptr)
        appendField(text, kind->hc_name, value);
    }
    return true;
}

} // namespace

Answers::Answers(nta_agent_t* agent) : m_agent(agent)
{
    static_assert(std::tuple_size_v<Mark> == crypto_shorthash_siphashx24_BYTES);
    static_assert(sizeof m_key == crypto_shorthash_siphashx24_KEYBYTES);
    if (sodium_init() < 0) {
        throw std::runtime_error("no random numbers");
    }
    randombytes_buf(m_key.data(), m_key.size()); // nobody else can make requests whose marks are alike
}

/// More than section 17.2.3 asks for: clients of RFC 2543 have no branch that says it all.
Answers::Mark Answers::markOf(const sip_t& sip) const
{
    std::string text;
    text.reserve(256);
    for (const char* const part :
         {sip.sip_via->v_branch, sip.sip_via->v_host, sip.sip_via->v_port, sip.sip_via->v_received,
          sip.sip_request->rq_method_name, sip.sip_call_id->i_id, sip.sip_from->a_tag, sip.sip_to->a_tag}) {
        appendPart(text, part);
    }
    text.append(std::to_string(sip.sip_cseq->cs_seq));
    Mark mark{};
    crypto_shorthash_siphashx24(mark.data(), reinterpret_cast<const unsigned char*>(text.data()), text.size(),
                                m_key.data());
    return mark;
}

std::string Answers::tagOf(const Mark& mark)
{
    std::array<char, sizeof(Mark) + 1> tag{};
    sodium_bin2hex(tag.data(), tag.size(), mark.data(), mark.size() / 2);
    return tag.data();
}

bool Answers::repeats(const Mark& mark, const Message& request, tport_t* socket)
{
    const auto found = m_kept.find(mark);
    if (found == m_kept.end()) {
        return false;
    }
    if (found->second.status != 0) {
        send(mark, request, socket, found->second);
    }
    return true;
}

void Answers::end(const Mark& mark, const Message& request, tport_t* socket, int status, const char* phrase,
                  const TagList& tags)
{
    forgetOld();
    Kept& kept = m_kept[mark];
    kept = {status, phrase, ""};
    if (!appendFields(kept.fields, tags.get())) {
        kept = {SIP_500_INTERNAL_SERVER_ERROR, ""};
    }
    send(mark, request, socket, kept);
    m_order.emplace_back(std::chrono::steady_clock::now(), mark);
}

/// With what each answer has from its request (RFC 3261 section 8.2.6).
std::string Answers::textOf(const Mark& mark, const sip_t& sip, const Kept& kept)
{
    std::string text;
    text.reserve(512 + kept.fields.size());
    text.append("SIP/2.0 ").append(std::to_string(kept.status)).append(" ").append(kept.phrase).append("\r\n");
    for (sip_via_t* via = sip.sip_via; via != nullptr; via = via->v_next) {
        appendField(text, "Via", headerText(*via));
    }
    appendField(text, "From", headerText(*sip.sip_from));
    appendField(text, "To", headerText(*sip.sip_to) + (sip.sip_to->a_tag == nullptr ? ";tag=" + tagOf(mark) : ""));
    appendField(text, "Call-ID", sip.sip_call_id->i_id);
    appendField(text, "CSeq", std::to_string(sip.sip_cseq->cs_seq) + " " + sip.sip_cseq->cs_method_name);
    return text.append(kept.fields).append("Content-Length: 0\r\n\r\n");
}

/// To where the request came from, as its Via has it by now (section 18.2.2, RFC 3581 section 4). For the stack the
/// text is that of a first line, and it asks for no more.
void Answers::send(const Mark& mark, const Message& request, tport_t* socket, const Kept& kept) const
{
    const sip_t& sip = *sip_object(request.get());
    const sip_via_t& via = *sip.sip_via;
    const std::string text = textOf(mark, sip, kept);
    const Message answer(nta_msg_create(m_agent, 0));
    sip_t* const answered = sip_object(answer.get());
    sip_status_t* const whole =
        sip_status_create(msg_home(answer.get()), static_cast<unsigned>(kept.status), "", nullptr);
    if (whole != nullptr) {
        whole->st_common->h_data = su_strdup(msg_home(answer.get()), text.c_str()); // it may wait for the socket
        whole->st_common->h_len = static_cast<usize_t>(text.size());
        sip_header_insert(answer.get(), answered, anyHeader(whole));
        msg_serialize(answer.get(), anyMessage(answered));
        tp_name_t client{};
        client.tpn_proto = "udp";
        client.tpn_host = client.tpn_canon = via.v_received != nullptr ? via.v_received : via.v_host;
        client.tpn_port = firstGiven({via.v_rport, via.v_port, "5060"});
        tport_tsend(socket, answer.get(), &client, TPTAG_MTU(INT_MAX), TAG_END());
    }
}

void Answers::forgetOld()
{
    const auto oldest = std::chrono::steady_clock::now() - kLife;
    while (!m_order.empty() && (m_order.front().first < oldest || m_order.size() >= kMost)) {
        m_kept.erase(m_order.front().second);
        m_order.pop_front();
    }
}

} // namespace oryx::sip
