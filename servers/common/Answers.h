#pragma once

#include <common/Sofia.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <deque>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>

namespace oryx::sip {

struct MessageDeleter {
    void operator()(msg_t* message) const { msg_destroy(message); }
};
/// A message of the stack's, or a reference to one.
using Message = std::unique_ptr<msg_t, MessageDeleter>;

struct TagsDeleter {
    void operator()(tagi_t* tags) const { tl_vfree(tags); }
};
/// A list of tags, made by `tl_list`.
using TagList = std::unique_ptr<tagi_t, TagsDeleter>;

/// What telephones are told that register by UDP: as such a request needs nothing of a transaction but its answer
/// again when it is sent again (RFC 3261 section 17.2.2), this is kept in the place of one, at a thirtieth of the
/// memory. Written as text, without the headers that the stack would make of it first. Used by one thread.
class Answers {
public:
    /// What a request has in common with what repeats it, and with nothing else (section 17.2.3).
    using Mark = std::array<unsigned char, 16>;

    explicit Answers(nta_agent_t* agent);

    Mark markOf(const sip_t& sip) const;
    /// The tag in To of all answers to what has that mark.
    static std::string tagOf(const Mark& mark);
    /// Whether the request repeats one: that has been answered, and this is now, too; or it will be, and that will do.
    bool repeats(const Mark& mark, const Message& request, tport_t* socket);
    void begin(const Mark& mark) { m_kept.try_emplace(mark); }
    /// Answers it, by the socket that it came by, with the header fields that the tags give as texts. The phrase is one
    /// that stays.
    void end(const Mark& mark, const Message& request, tport_t* socket, int status, const char* phrase,
             const TagList& tags);

    /// As long as a client may send the same again (Timer J).
    static constexpr std::chrono::seconds kLife{32};
    /// More than these would be too much memory: the oldest are forgotten, and who repeats them is taken for new.
    static constexpr std::size_t kMost = 250000;

private:
    struct Kept {
        int status = 0; // while it is under way
        const char* phrase = nullptr;
        std::string fields; // in whole lines
    };
    struct Hash { // a mark is one already
        std::size_t operator()(const Mark& mark) const
        {
            std::size_t hash = 0;
            std::memcpy(&hash, mark.data(), sizeof hash);
            return hash;
        }
    };

    static std::string textOf(const Mark& mark, const sip_t& sip, const Kept& kept);
    void send(const Mark& mark, const Message& request, tport_t* socket, const Kept& kept) const;
    void forgetOld();

    nta_agent_t* m_agent;
    std::array<unsigned char, 16> m_key{};
    std::unordered_map<Mark, Kept, Hash> m_kept;
    std::deque<std::pair<std::chrono::steady_clock::time_point, Mark>> m_order; // of those that have been answered
};

} // namespace oryx::sip
