#include "drills/Checker.h"

#include <algorithm>
#include <fstream>
#include <set>
#include <utility>

namespace drill {

namespace {

/// What a key may hold.
using States = std::set<std::string>;

/// Keys that workers share begin so.
constexpr const char* kExtensions = "extension/";
constexpr const char* kIdle = "IDLE";

/// What a change that takes effect leaves.
std::string leftBy(const Entry& change)
{
    return change.kind == Kind::remove ? kAbsent : std::to_string(change.value);
}

std::string after(const Entry& change, const std::string& state)
{
    const bool takesEffect = change.kind == Kind::remove || (change.kind == Kind::enter) == (state == kAbsent);
    return takesEffect ? leftBy(change) : state;
}

bool isAcknowledged(const Entry& entry)
{
    return entry.answer && !hasFailed(entry.answer->outcome);
}

/// Whether a change may have taken effect, or not.
bool isUnknown(const Entry& entry)
{
    return !entry.answer || entry.answer->outcome == Outcome::error;
}

/// Follows one key through its requests.
class Course {
public:
    Course(std::string key, Verdict& verdict) : m_key(std::move(key)), m_verdict(&verdict) {}

    void follow(const Entry& entry)
    {
        if (entry.kind == Kind::look) {
            if (isAcknowledged(entry)) {
                compare(entry.answer->seen, "read");
                learn(entry.answer->seen);
            }
        } else if (isUnknown(entry)) {
            m_unknown.push_back(entry);
        } else if (isAcknowledged(entry)) {
            settle(entry);
        }
    }

    void compare(const std::string& seen, const std::string& how)
    {
        const States right = possible();
        if (right.contains(seen)) {
            return;
        }
        const bool allAbsent = right == States{kAbsent};
        const bool torn = seen.find_first_not_of("0123456789") != std::string::npos; // absent, or a part of it
        std::size_t& count = torn ? m_verdict->lost : allAbsent ? m_verdict->doubled : m_verdict->overtaken;
        ++count;
        m_verdict->findings.push_back(m_key + ": " + how + " " + seen + ", but it must be" + listed(right));
        m_settled = {seen}; // one fault counts once
        m_unknown.clear();
    }

private:
    /// Nothing that was unknown before takes effect any more.
    void settle(const Entry& change)
    {
        States states;
        if (change.kind == Kind::enter) {
            compareEntered();
            states = {leftBy(change)};
        } else {
            for (const std::string& state : possible()) {
                states.insert(after(change, state));
            }
        }
        m_settled = states;
        m_unknown.clear();
    }

    /// What was seen is there, and the unknown change that it comes from has taken effect, where it can be only that
    /// one. The others may still come.
    void learn(const std::string& seen)
    {
        const auto leavesIt = [&](const Entry& change) { return leftBy(change) == seen; };
        const auto sources = std::count_if(m_unknown.begin(), m_unknown.end(), leavesIt);
        if (sources == 1 && !m_settled.contains(seen)) {
            std::erase_if(m_unknown, leavesIt);
        }
        m_settled = {seen};
    }

    /// It would have been refused if anything had been there.
    void compareEntered()
    {
        const States right = possible();
        if (!right.contains(kAbsent)) {
            ++m_verdict->lost;
            m_verdict->findings.push_back(m_key + ": stored once more, but there must be" + listed(right));
        }
    }

    static std::string listed(const States& states)
    {
        std::string all;
        for (const std::string& state : states) {
            all += " " + state;
        }
        return all;
    }

    /// Unknown requests may take effect in any order, or not.
    States possible() const
    {
        States states = m_settled;
        for (std::size_t size = 0; size != states.size();) {
            size = states.size();
            for (const Entry& change : m_unknown) {
                for (const std::string& state : States(states)) {
                    states.insert(after(change, state));
                }
            }
        }
        return states;
    }

    std::string m_key;
    Verdict* m_verdict;
    States m_settled{kAbsent};
    std::vector<Entry> m_unknown;
};

Time answeredAt(const Entry& entry)
{
    return entry.answer ? entry.answer->at : Time::max();
}

std::chrono::seconds secondOf(Time time)
{
    return std::chrono::floor<std::chrono::seconds>(time);
}

/// An extension, from the answer that gave it to somebody to the request that releases it, or to a read in which he
/// sees that he has lost it.
struct Hold {
    const Entry* reservation;
    const Entry* end = nullptr; // none: until the end of the drill
    bool taken = false;         // by somebody else's release

    Time from() const { return reservation->answer->at; }
    Time to() const { return end != nullptr ? end->asked : Time::max(); }
};

/// Extensions, which any worker may be given. The entries that it follows must stay.
class Extensions {
public:
    void follow(std::size_t worker, const Entry& entry)
    {
        if (entry.kind == Kind::reserve) {
            followReservation(worker, entry);
        } else if (entry.kind == Kind::release) {
            followRelease(worker, entry);
        } else if (isAcknowledged(entry) && entry.answer->seen != kInUse) {
            endHold(worker, entry);
        }
    }

    void judge(const Stored& stored, Verdict& verdict)
    {
        for (auto& [extension, holds] : m_holds) {
            std::sort(holds.begin(), holds.end(), [](const Hold& a, const Hold& b) { return a.from() < b.from(); });
            findTaken(holds, m_repeated[extension]);
            judgeOverlaps(extension, holds, verdict);
            for (const Hold& hold : holds) {
                judgeEnd(extension, hold, stored, verdict);
            }
        }
        countOrphaned(stored, verdict);
    }

private:
    void followReservation(std::size_t worker, const Entry& entry)
    {
        if (isUnknown(entry)) {
            ++m_unknownReservations;
        } else if (entry.answer->outcome == Outcome::okay) {
            const std::string extension = kExtensions + entry.answer->seen;
            m_held[{worker, extension}] = m_holds[extension].size();
            m_holds[extension].push_back({&entry});
        }
    }

    void followRelease(std::size_t worker, const Entry& entry)
    {
        if (!isUnknown(entry) && !isAcknowledged(entry)) {
            return;
        }
        endHold(worker, entry);
        if (isUnknown(entry)) {
            Time& latest = m_unknownReleases[entry.key];
            latest = std::max(latest, entry.asked);
        }
        if (isUnknown(entry) || entry.answer->seen == kRepeated) {
            m_repeated[entry.key].push_back(&entry);
        }
    }

    void endHold(std::size_t worker, const Entry& entry)
    {
        const auto held = m_held.find({worker, entry.key});
        if (held != m_held.end()) {
            m_holds[entry.key][held->second].end = &entry;
            m_held.erase(held);
        }
    }

    /// A release that was sent again ends also what somebody was given meanwhile, unless he was given it in a later
    /// second: so far apart their times are known. Whoever lost it so may release it from the next one.
    static void findTaken(std::vector<Hold>& holds, const std::vector<const Entry*>& repeated)
    {
        for (std::size_t i = 0; i < holds.size(); ++i) {
            const Time asked = holds[i].reservation->asked;
            const bool late = std::any_of(repeated.begin(), repeated.end(), [&](const Entry* release) {
                return release->asked < holds[i].from() && answeredAt(*release) > asked &&
                       secondOf(release->asked) >= secondOf(asked);
            });
            holds[i].taken = late || (i > 0 && holds[i - 1].taken && holds[i].from() < holds[i - 1].to());
        }
    }

    static void judgeOverlaps(const std::string& extension, const std::vector<Hold>& holds, Verdict& verdict)
    {
        for (std::size_t i = 1; i < holds.size(); ++i) {
            if (holds[i].from() < holds[i - 1].to()) {
                ++(holds[i - 1].taken ? verdict.taken : verdict.doubled);
                verdict.findings.push_back(extension + ": given to two at once" + why(holds[i - 1]));
            }
        }
    }

    void judgeEnd(const std::string& extension, const Hold& hold, const Stored& stored, Verdict& verdict) const
    {
        std::string found;
        if (hold.end == nullptr) {
            const auto state = stored.find(extension);
            found = state != stored.end() && state->second == kIdle ? "idle" : "";
        } else if (hold.end->kind == Kind::look) {
            found = "read " + hold.end->answer->seen;
        } else if (hold.end->answer && hold.end->answer->outcome == Outcome::none) {
            found = "its release found nothing";
        }
        if (!found.empty()) {
            const bool vain = tookEffectBefore(hold, stored);
            ++(vain ? verdict.vain : hold.taken ? verdict.taken : verdict.lost);
            verdict.findings.push_back(extension + ": " + found + ", but it was given to somebody" +
                                       (vain ? ", and then to another" : why(hold)));
        }
    }

    static const char* why(const Hold& hold) { return hold.taken ? ", after a release that was sent again" : ""; }

    /// Whether a release that found nothing has taken effect before: somebody was given the extension before it was
    /// answered, or a reservation whose answer was lost has taken it for nobody.
    bool tookEffectBefore(const Hold& hold, const Stored& stored) const
    {
        if (hold.end == nullptr || hold.end->kind != Kind::release) {
            return false;
        }
        const Entry& release = *hold.end;
        const std::vector<Hold>& holds = m_holds.at(release.key);
        const auto state = stored.find(release.key);
        const bool isNobodys = &hold == &holds.back() && state != stored.end() && state->second != kIdle;
        return (isNobodys && release.answer->seen == kRepeated) ||
               std::any_of(holds.begin(), holds.end(), [&](const Hold& next) {
                   return next.from() > release.asked && next.reservation->asked < release.answer->at;
               });
    }

    void countOrphaned(const Stored& stored, Verdict& verdict) const
    {
        std::size_t nobodys = 0;
        for (const auto& [key, state] : stored) {
            const bool inUse = key.starts_with(kExtensions) && state != kIdle;
            nobodys += inUse && !isHeld(key) && !mayBeUnreleased(key) ? 1U : 0U;
        }
        verdict.orphaned = nobodys - std::min(nobodys, m_unknownReservations);
    }

    bool isHeld(const std::string& extension) const
    {
        const auto holds = m_holds.find(extension);
        return holds != m_holds.end() && holds->second.back().end == nullptr;
    }

    /// Whether a release of it is unknown; one behind which it was given out again has taken effect.
    bool mayBeUnreleased(const std::string& extension) const
    {
        const auto released = m_unknownReleases.find(extension);
        const auto holds = m_holds.find(extension);
        return released != m_unknownReleases.end() &&
               (holds == m_holds.end() || holds->second.back().from() < released->second);
    }

    std::map<std::string, std::vector<Hold>> m_holds;
    std::map<std::pair<std::size_t, std::string>, std::size_t> m_held; // of each worker, the number of his hold
    std::map<std::string, std::vector<const Entry*>> m_repeated; // releases that were sent again, or may have been
    std::map<std::string, Time> m_unknownReleases;               // when the last one was asked for
    std::size_t m_unknownReservations = 0;
};

void count(const Entry& entry, Verdict& verdict)
{
    ++verdict.operations;
    ++(isAcknowledged(entry) ? verdict.acknowledged : verdict.errors);
    if (entry.answer) {
        verdict.longest = std::max(verdict.longest, entry.answer->at - entry.asked);
    }
}

/// From a moment to a worker's next acknowledged change; none if there is none.
std::optional<Time> nextChange(const std::vector<Entry>& journal, Time moment)
{
    std::optional<Time> next;
    for (const Entry& entry : journal) {
        const bool changed = entry.kind != Kind::look && entry.answer && entry.answer->outcome == Outcome::okay;
        if (changed && entry.answer->at >= moment) {
            next = std::min(next.value_or(Time::max()), entry.answer->at - moment);
        }
    }
    return next;
}

} // namespace

std::size_t Verdict::wrongBeside(const std::set<std::string>& excused) const
{
    std::size_t wrong = 0;
    for (const auto& [column, count] : {std::pair{"lost", lost}, {"doubled", doubled}, {"overtaken", overtaken}}) {
        wrong += excused.contains(column) ? 0 : count;
    }
    return wrong;
}

Snapshot Snapshot::read(const std::string& file)
{
    Snapshot snapshot;
    std::ifstream lines(file);
    for (std::string key, value; lines >> key >> value;) {
        snapshot.twice += snapshot.stored.emplace(key, value).second ? 0U : 1U;
    }
    return snapshot;
}

Verdict judge(const std::vector<std::vector<Entry>>& journals, const Snapshot& end)
{
    Verdict verdict;
    Extensions extensions;
    Stored unheardOf = end.stored;
    for (std::size_t worker = 0; worker < journals.size(); ++worker) {
        std::map<std::string, Course> courses;
        for (const Entry& entry : journals[worker]) {
            count(entry, verdict);
            if (entry.key.starts_with(kExtensions)) {
                extensions.follow(worker, entry);
            } else {
                courses.try_emplace(entry.key, entry.key, verdict).first->second.follow(entry);
            }
        }
        for (auto& [key, course] : courses) {
            const auto found = end.stored.find(key);
            course.compare(found == end.stored.end() ? kAbsent : found->second, "in the end");
            unheardOf.erase(key);
        }
    }
    for (const auto& [key, value] : unheardOf) {
        if (!key.starts_with(kExtensions)) {
            ++verdict.doubled;
            verdict.findings.push_back(key + ": in the end " + value + ", but nobody has stored it");
        }
    }
    verdict.doubled += end.twice;
    extensions.judge(end.stored, verdict);
    return verdict;
}

std::optional<Time> recovery(const std::vector<std::vector<Entry>>& journals, const std::vector<Time>& returns)
{
    std::optional<Time> longest;
    for (const Time back : returns) {
        for (const std::vector<Entry>& journal : journals) {
            const std::optional<Time> next = nextChange(journal, back);
            if (!next) {
                return std::chrono::seconds(-1);
            }
            longest = std::max(longest.value_or(*next), *next);
        }
    }
    return longest;
}

} // namespace drill
