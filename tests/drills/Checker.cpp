#include "drills/Checker.h"

#include <algorithm>
#include <fstream>
#include <set>
#include <utility>

namespace drill {

namespace {

/// What a key may hold.
using States = std::set<std::string>;

std::string after(const Entry& change, const std::string& state)
{
    if (change.kind == Kind::remove) {
        return kAbsent;
    }
    const bool takesEffect = (change.kind == Kind::enter) == (state == kAbsent);
    return takesEffect ? std::to_string(change.value) : state;
}

/// Follows one key through its requests.
class Course {
public:
    Course(std::string key, Verdict& verdict) : m_key(std::move(key)), m_verdict(&verdict) {}

    void follow(const Entry& entry)
    {
        const bool acknowledged = entry.answer && entry.answer->outcome != Outcome::error;
        if (entry.kind == Kind::look) {
            if (acknowledged) {
                compare(entry.answer->seen, "read");
            }
        } else if (!acknowledged) {
            m_unknown.push_back(entry);
        } else if (entry.kind == Kind::enter) {
            compareEntered();
            settle({std::to_string(entry.value)});
        } else {
            States states;
            for (const std::string& state : possible()) {
                states.insert(after(entry, state));
            }
            settle(states);
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
        settle({seen}); // one fault counts once
    }

private:
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

    void settle(const States& states)
    {
        m_settled = states;
        m_unknown.clear();
    }

    std::string m_key;
    Verdict* m_verdict;
    States m_settled{kAbsent};
    std::vector<Entry> m_unknown;
};

/// An extension, from the answer that gave it to the request that releases it: surely held by somebody.
struct Hold {
    Time asked;
    Time from;
    Time to;
};

class Extensions {
public:
    void follow(std::size_t worker, const Entry& entry)
    {
        const bool okay = entry.answer && entry.answer->outcome == Outcome::okay;
        if (entry.kind == Kind::reserve && okay) {
            const std::string extension = "extension/" + entry.answer->seen;
            m_holds[extension].push_back({entry.asked, entry.answer->at, Time::max()});
            m_workers.insert({worker, extension});
        } else if (entry.kind == Kind::release) {
            m_releases[entry.key].push_back(entry.asked);
            const bool held = m_workers.erase({worker, entry.key}) > 0;
            if (held && entry.answer && entry.answer->outcome == Outcome::none) {
                m_vain.push_back(entry);
            }
        }
        const bool known = entry.answer && entry.answer->outcome != Outcome::error;
        m_unknown += known ? 0U : 1U;
    }

    void judge(const Stored& stored, Verdict& verdict)
    {
        std::set<std::string> held;
        for (auto& [extension, holds] : m_holds) {
            end(holds, m_releases[extension]);
            for (std::size_t i = 1; i < holds.size(); ++i) {
                if (holds[i].from < holds[i - 1].to) {
                    ++verdict.doubled;
                    verdict.findings.push_back(extension + ": given to two at once");
                }
            }
            if (holds.back().to == Time::max()) {
                held.insert(extension);
            }
        }
        compare(stored, held, verdict);
        judgeVain(verdict);
    }

private:
    /// A hold ends with the first release behind its beginning: nobody releases what he does not hold.
    static void end(std::vector<Hold>& holds, std::vector<Time>& releases)
    {
        std::sort(holds.begin(), holds.end(), [](const Hold& a, const Hold& b) { return a.from < b.from; });
        std::sort(releases.begin(), releases.end());
        auto release = releases.begin();
        for (Hold& hold : holds) {
            release = std::lower_bound(release, releases.end(), hold.from);
            if (release == releases.end()) {
                break;
            }
            hold.to = *release++;
        }
    }

    void compare(const Stored& stored, const std::set<std::string>& held, Verdict& verdict) const
    {
        std::size_t nobodys = 0;
        for (const auto& [key, state] : stored) {
            if (!key.starts_with("extension/")) {
                continue;
            }
            const bool inUse = state != "IDLE";
            nobodys += inUse && !held.contains(key) ? 1U : 0U;
            if (!inUse && held.contains(key)) {
                ++verdict.lost;
                verdict.findings.push_back(key + ": idle, but it was given to somebody");
            }
        }
        verdict.orphaned = nobodys - std::min(nobodys, m_unknown);
    }

    /// A release that found nothing. It took effect and was sent again if somebody else was given the extension
    /// meanwhile; otherwise the reservation had been lost before.
    void judgeVain(Verdict& verdict)
    {
        for (const Entry& release : m_vain) {
            const std::vector<Hold>& holds = m_holds[release.key];
            const bool sentAgain = std::any_of(holds.begin(), holds.end(), [&](const Hold& hold) {
                return hold.from > release.asked && hold.asked < release.answer->at;
            });
            ++(sentAgain ? verdict.vain : verdict.lost);
            verdict.findings.push_back(release.key + ": its release found nothing" +
                                       (sentAgain ? ", after it was given to another" : ", but it had been given"));
        }
    }

    std::map<std::string, std::vector<Hold>> m_holds;
    std::map<std::string, std::vector<Time>> m_releases;
    std::set<std::pair<std::size_t, std::string>> m_workers; // and what each of them holds
    std::vector<Entry> m_vain;                               // releases of what was held that found nothing
    std::size_t m_unknown = 0;
};

void count(const Entry& entry, Verdict& verdict)
{
    const bool acknowledged = entry.answer && entry.answer->outcome != Outcome::error;
    ++verdict.operations;
    ++(acknowledged ? verdict.acknowledged : verdict.errors);
    if (entry.answer) {
        verdict.longest = std::max(verdict.longest, entry.answer->at - entry.asked);
    }
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
    for (std::size_t worker = 0; worker < journals.size(); ++worker) {
        std::map<std::string, Course> courses;
        for (const Entry& entry : journals[worker]) {
            count(entry, verdict);
            if (entry.kind == Kind::reserve || entry.kind == Kind::release) {
                extensions.follow(worker, entry);
            } else {
                courses.try_emplace(entry.key, entry.key, verdict).first->second.follow(entry);
            }
        }
        for (auto& [key, course] : courses) {
            const auto found = end.stored.find(key);
            course.compare(found == end.stored.end() ? kAbsent : found->second, "in the end");
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
        Time first = Time::max();
        for (const std::vector<Entry>& journal : journals) {
            for (const Entry& entry : journal) {
                if (entry.answer && entry.answer->outcome == Outcome::okay && entry.answer->at >= back) {
                    first = std::min(first, entry.answer->at - back);
                }
            }
        }
        if (first == Time::max()) {
            return std::chrono::seconds(-1);
        }
        longest = std::max(longest.value_or(first), first);
    }
    return longest;
}

} // namespace drill
