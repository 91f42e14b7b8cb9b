#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

/// Records what a wait for table changes hands to its callback, which is a plain function: one recorder lives at a
/// time.
class TableChanges {
public:
    /// What the callback does and answers.
    using Answer = std::function<bool(bool changed, const std::string& table)>;

    explicit TableChanges(Answer answer) : m_answer(std::move(answer)) { s_current = this; }
    ~TableChanges() { s_current = nullptr; }
    TableChanges(const TableChanges&) = delete;
    TableChanges& operator=(const TableChanges&) = delete;

    /// The callback.
    static bool record(bool changed, const std::string& table) { return s_current->add(changed, table); }

    /// The calls so far, a line each: "true 'TABLE'" for a change, "false ''" for an idle call.
    std::string calls()
    {
        const std::lock_guard lock(m_mutex);
        return shown(m_calls);
    }

    /// The calls for changes alone, as soon as there are so many, or after a time within which they would have come.
    std::string awaitChanges(std::size_t count)
    {
        constexpr std::chrono::seconds kPatience(15);
        std::unique_lock lock(m_mutex);
        m_added.wait_for(lock, kPatience, [&] { return changes().size() >= count; });
        return shown(changes());
    }

private:
    struct Call {
        bool changed;
        std::string table;
    };

    bool add(bool changed, const std::string& table)
    {
        {
            const std::lock_guard lock(m_mutex);
            m_calls.push_back({changed, table});
        }
        m_added.notify_all();
        return m_answer(changed, table);
    }

    std::vector<Call> changes() const
    {
        std::vector<Call> found = m_calls;
        std::erase_if(found, [](const Call& call) { return !call.changed; });
        return found;
    }

    static std::string shown(const std::vector<Call>& calls)
    {
        std::string text;
        for (const Call& call : calls) {
            text.append(call.changed ? "true '" : "false '").append(call.table).append("'\n");
        }
        return text;
    }

    inline static TableChanges* s_current = nullptr;

    Answer m_answer;
    std::mutex m_mutex; // calls come from the thread that waits
    std::condition_variable m_added;
    std::vector<Call> m_calls;
};
