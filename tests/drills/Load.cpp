#include "drills/Load.h"

#include "drills/Children.h"
#include "drills/Jobs.h"

#include <array>
#include <chrono>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace drill {

namespace {

/// A server that gets an error has other requests to answer before it comes back to this one.
constexpr std::chrono::milliseconds kPause(20);
constexpr int kDialogs = 10;
constexpr std::size_t kMostHeld = 3;

/// What a worker believes of a key. After an error it does not know, and reads before it goes on.
struct Belief {
    bool known = true;
    bool present = false;
    long cseq = 0; // of the last request that carried one
};

class Worker {
public:
    Worker(const Account& account, int number, const std::string& journal)
        : m_number(number), m_journal(journal), m_jobs(account, m_journal), m_random(std::random_device{}())
    {
    }

    /// Whether there is a server does not matter: every request tries to connect.
    void connect() { m_jobs.connect(); }

    void work(const Stop& stop)
    {
        while (!stop.isThere()) {
            const int choice = chance(100);
            const Answer answer = choice < 70 ? contact() : choice < 90 ? dialog() : extension();
            if (hasFailed(answer.outcome)) {
                std::this_thread::sleep_for(kPause);
            }
        }
    }

private:
    int chance(int below) { return std::uniform_int_distribution<>(0, below - 1)(m_random); }

    static void learn(Belief& belief, const Answer& answer, bool present)
    {
        belief.known = !hasFailed(answer.outcome);
        belief.present = present;
    }

    Answer contact()
    {
        const int index = chance(kAddresses);
        const int address = m_number * kAddresses + index + 1;
        const std::string name = "c" + std::to_string(m_number) + "." + std::to_string(index);
        Belief& belief = m_contacts.at(static_cast<std::size_t>(index));
        const int choice = chance(100);
        Answer answer{};
        const bool remove = belief.present && choice >= 85;
        if (!belief.known || choice < 25 || remove) {
            answer = m_jobs.lookUpContacts(name);
            learn(belief, answer, answer.seen != kAbsent);
            if (remove && belief.known) { // nothing could be said of it behind its removal
                answer = m_jobs.removeContacts(address, name);
                learn(belief, answer, false);
            }
        } else if (!belief.present || choice < 26) { // one in a hundred is there already, and refused
            answer = m_jobs.registerContacts(address, name, ++belief.cseq);
            learn(belief, answer, true);
        } else {
            answer = m_jobs.refreshContacts(address, name, ++belief.cseq);
            learn(belief, answer, true);
        }
        return answer;
    }

    /// A dialog that has ended never comes again: the next one has another identifier.
    Answer dialog()
    {
        Dialog& dialog = m_dialogs.at(static_cast<std::size_t>(chance(kDialogs)));
        if (dialog.id.empty()) {
            dialog = {"incoming#d" + std::to_string(m_number) + "." + std::to_string(m_made++), {}};
            const Answer answer = m_jobs.storeDialog(dialog.id, ++dialog.belief.cseq);
            learn(dialog.belief, answer, true);
            return answer;
        }
        const int choice = chance(100);
        Answer answer{};
        const bool remove = !dialog.belief.present || choice >= 75;
        if (!dialog.belief.known || choice < 25 || remove) {
            answer = m_jobs.readDialog(dialog.id);
            learn(dialog.belief, answer, answer.seen != kAbsent);
            if (remove && dialog.belief.known) {
                answer = m_jobs.removeDialog(dialog.id);
                dialog.id.clear();
            }
        } else {
            answer = m_jobs.refreshDialog(dialog.id, ++dialog.belief.cseq);
            learn(dialog.belief, answer, true);
        }
        return answer;
    }

    Answer extension()
    {
        if (m_held.size() < kMostHeld && (m_held.empty() || chance(2) == 0)) {
            Answer answer = m_jobs.reserve();
            if (answer.outcome == Outcome::okay) {
                m_held.push_back(answer.seen);
            }
            return answer;
        }
        const std::string extension = m_held.front();
        Answer answer = m_jobs.readExtension(extension);
        if (hasFailed(answer.outcome)) {
            return answer;
        }
        m_held.erase(m_held.begin()); // never released twice: somebody else may have it by then
        return answer.seen == kInUse ? m_jobs.release(extension) : answer;
    }

    struct Dialog {
        std::string id; // empty: none yet
        Belief belief;
    };

    int m_number;
    Journal m_journal;
    Jobs m_jobs;
    std::mt19937 m_random;
    std::array<Belief, kAddresses> m_contacts{};
    std::array<Dialog, kDialogs> m_dialogs{};
    long m_made = 0;
    std::vector<std::string> m_held;
};

void workInThreads(std::vector<std::unique_ptr<Worker>>& workers, const Stop& stop)
{
    std::vector<std::thread> threads;
    for (const auto& worker : workers) {
        threads.emplace_back([&worker, &stop] { worker->work(stop); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

} // namespace

void runLoad(const Account& account, const std::string& folder, bool processes)
{
    std::vector<std::unique_ptr<Worker>> workers;
    for (int number = 0; number < kWorkers; ++number) {
        const std::string journal = folder + "/journal/" + std::to_string(number);
        workers.push_back(std::make_unique<Worker>(account, number, journal));
        workers.back()->connect();
    }
    const Stop stop(folder);
    if (processes) {
        runChildren(kWorkers, [&](int number) { workers.at(static_cast<std::size_t>(number))->work(stop); });
    } else {
        workInThreads(workers, stop);
    }
}

} // namespace drill
