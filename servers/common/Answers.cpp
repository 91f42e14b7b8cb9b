#include <common/Answers.h>

#include <sodium.h>

#include <stdexcept>

namespace oryx::sip {

namespace {

void appendPart(std::string& text, const char* part)
{
    text.append(part != nullptr ? part : "").push_back('\n');
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
                  tagi_t* tags)
{
    forgetOld();
    Kept& kept = m_kept[mark];
    kept = {status, phrase, std::unique_ptr<tagi_t, TagsDeleter>(tags)};
    if (!send(mark, request, socket, kept)) { // a text among the tags is none that can be sent
        kept = {SIP_500_INTERNAL_SERVER_ERROR, nullptr};
        send(mark, request, socket, kept);
    }
    m_order.emplace_back(std::chrono::steady_clock::now(), mark);
}

/// The stack adds what each answer has from its request (section 8.2.6), and a tag of its own where there is none.
bool Answers::send(const Mark& mark, const Message& request, tport_t* socket, const Kept& kept) const
{
    su_home_t* const home = msg_home(request.get());
    sip_to_t* const to = sip_to_dup(home, sip_object(request.get())->sip_to);
    if (to == nullptr || (to->a_tag == nullptr && sip_to_tag(home, to, tagOf(mark).c_str()) < 0)) {
        return false;
    }
    return nta_msg_treply(m_agent, msg_ref_create(request.get()), kept.status, kept.phrase, NTATAG_TPORT(socket),
                          SIPTAG_TO(to), TAG_NEXT(kept.tags.get())) >= 0;
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
