#pragma once

#include <common/Bell.h>
#include <common/Loop.h>
#include <common/Metrics.h>
#include <common/Ring.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace oryx::sip {

/// How a task is done.
enum class Doing {
    alone,
    together, ///< its work leaves something with the session, and whatever was left so is done by `settle`
};

/// Threads that each hold a session with the database, and do what the SIP thread gives them: so that a slow statement
/// holds up only what is behind it. What has the same key is done in order, by the same thread.
///
/// `Session` is made and used on its thread alone. Its `connect()` is called until it answers true, its `settle()`
/// behind each task, or behind several that may be done together and are there already, one right behind another.
/// Nothing waits for others to come.
template <typename Session>
class Workers {
public:
    using MakeSession = std::function<std::unique_ptr<Session>()>;

    /// Starts `count` threads. All connect at once; `connected` is called on the loop's thread when all of them have.
    Workers(Loop& loop, Metrics& metrics, unsigned count, const MakeSession& makeSession,
            std::function<void()> connected)
        : m_loop(loop), m_metrics(metrics), m_connected(std::move(connected)), m_unconnected(count)
    {
        loop.watch(m_bell.descriptor(), [this] { finish(); });
        for (unsigned n = 0; n < count; ++n) {
            m_workers.push_back(std::make_unique<Worker>());
            Worker& worker = *m_workers.back();
            worker.thread = std::thread([this, &worker, makeSession] { run(worker, *makeSession()); });
        }
    }
    /// Waits for what is under way; what has not begun is not done, and nobody hears of what has ended by now.
    ~Workers()
    {
        m_stop = true;
        for (const auto& worker : m_workers) {
            worker->wake();
        }
        for (const auto& worker : m_workers) {
            worker->thread.join();
        }
        m_loop.unwatch(m_bell.descriptor());
    }
    Workers(const Workers&) = delete;
    Workers& operator=(const Workers&) = delete;

    std::size_t count() const { return m_workers.size(); }
    /// Whether nothing is under way.
    bool idle() const { return m_underWay == 0; }

    /// Has `work(session)` done by the thread of that key and `then(answer)` on the loop's. False, and neither is done,
    /// when that thread has no connection yet, or too much is waiting for it already.
    template <typename Work, typename Then>
    bool give(std::size_t key, Work work, Then then, Doing doing = Doing::alone)
    {
        Worker& worker = *m_workers[key % m_workers.size()];
        std::unique_ptr<Task> task = std::make_unique<TaskOf<Work, Then>>(std::move(work), std::move(then), doing);
        if (!worker.connected || !worker.tasks.push(task)) {
            return false;
        }
        ++m_underWay;
        worker.wake();
        return true;
    }

private:
    /// As many as are done before their clients send them again, half a second later.
    static constexpr std::size_t kMostWaiting = 1024;
    static constexpr std::size_t kMostTogether = 16;
    /// What takes longer is followed by half as many at once, what does not by twice as many: they are answered
    /// together, and a database that is slow has to be done with all of them within one deadline.
    static constexpr std::chrono::milliseconds kQuick{100};

    struct Task {
        explicit Task(Doing d) : doing(d) {}
        virtual ~Task() = default;
        virtual void work(Session& session) = 0;
        virtual void finish() = 0;

        const Doing doing;
    };
    using Tasks = std::vector<std::unique_ptr<Task>>;
    template <typename Work, typename Then>
    struct TaskOf : Task {
        TaskOf(Work w, Then t, Doing d) : Task(d), toDo(std::move(w)), then(std::move(t)) {}
        void work(Session& session) override { answer.emplace(toDo(session)); }
        void finish() override { then(std::move(*answer)); }

        Work toDo;
        Then then;
        std::optional<std::invoke_result_t<Work&, Session&>> answer;
    };
    struct Worker {
        Ring<Task, kMostWaiting> tasks;
        Ring<Task, 2 * kMostWaiting> done; // never full: the loop takes whatever is there
        std::atomic<int> woken{0};         // what the system can wait for by itself
        std::atomic<bool> connected{false};
        std::thread thread;

        /// Costs a thread that is at work nothing.
        void wake()
        {
            if (woken.exchange(1) == 0) {
                woken.notify_one();
            }
        }
        void sleep()
        {
            woken.wait(0);
            woken.exchange(0); // before what it was woken for is looked at
        }
    };

    void run(Worker& worker, Session& session)
    {
        while (!m_stop && !session.connect()) {
        }
        worker.connected = true;
        --m_unconnected;
        m_bell.ring();
        Tasks tasks;
        std::size_t most = 1; // at once
        while (!m_stop) {
            worker.sleep();
            while (!m_stop) {
                const auto took = doNext(worker, session, most, tasks);
                if (!took) {
                    break;
                }
                most = *took <= kQuick ? std::min(2 * most, kMostTogether) : std::max<std::size_t>(most / 2, 1);
                for (std::unique_ptr<Task>& task : tasks) {
                    while (!worker.done.push(task)) {
                        std::this_thread::yield();
                    }
                }
                m_bell.ring();
            }
        }
    }

    /// Does the oldest task, and those right behind it that may be done together with it, until that has taken long:
    /// some ask the database by themselves first. How long all of it took; nothing without a task.
    std::optional<std::chrono::nanoseconds> doNext(Worker& worker, Session& session, std::size_t most, Tasks& done)
    {
        const auto begun = std::chrono::steady_clock::now();
        const auto took = [&] { return std::chrono::steady_clock::now() - begun; };
        done.clear();
        do {
            std::unique_ptr<Task> task = worker.tasks.pop();
            if (!task) {
                return std::nullopt;
            }
            task->work(session);
            done.push_back(std::move(task));
        } while (done.size() < most && isTogether(done.back().get()) && isTogether(worker.tasks.next()) &&
                 took() <= kQuick);
        session.settle();
        const std::chrono::nanoseconds all = took();
        m_metrics.statement(all);
        return all;
    }
    static bool isTogether(const Task* task) { return task != nullptr && task->doing == Doing::together; }

    void finish()
    {
        m_bell.await();
        for (const auto& worker : m_workers) {
            for (std::unique_ptr<Task> task = worker->done.pop(); task; task = worker->done.pop()) {
                --m_underWay;
                task->finish();
            }
        }
        if (m_connected && m_unconnected == 0 && !m_stop) {
            std::exchange(m_connected, nullptr)();
        }
    }

    Loop& m_loop;
    Metrics& m_metrics;
    std::function<void()> m_connected;
    std::atomic<unsigned> m_unconnected;
    std::atomic<bool> m_stop{false};
    std::size_t m_underWay = 0; // the loop's thread counts
    Bell m_bell;                // wakes the loop
    std::vector<std::unique_ptr<Worker>> m_workers;
};

} // namespace oryx::sip
