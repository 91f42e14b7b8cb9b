#pragma once

#include <common/Bell.h>
#include <common/Loop.h>
#include <common/Metrics.h>
#include <common/Ring.h>

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace oryx::sip {

/// Threads that each hold a session with the database, and do what the SIP thread gives them: so that a slow statement
/// holds up only what is behind it. What has the same key is done in order, by the same thread.
///
/// `Session` is made and used on its thread alone. Its `connect()` is called until it answers true.
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

    /// Whether nothing is under way.
    bool idle() const { return m_underWay == 0; }

    /// Has `work(session)` done by the thread of that key and `then(answer)` on the loop's. False, and neither is done,
    /// when that thread has no connection yet, or too much is waiting for it already.
    template <typename Work, typename Then>
    bool give(std::size_t key, Work work, Then then)
    {
        Worker& worker = *m_workers[key % m_workers.size()];
        std::unique_ptr<Task> task = std::make_unique<TaskOf<Work, Then>>(std::move(work), std::move(then));
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

    struct Task {
        virtual ~Task() = default;
        virtual void work(Session& session) = 0;
        virtual void finish() = 0;
    };
    template <typename Work, typename Then>
    struct TaskOf : Task {
        TaskOf(Work w, Then t) : toDo(std::move(w)), then(std::move(t)) {}
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
        while (!m_stop) {
            worker.sleep();
            while (!m_stop) {
                std::unique_ptr<Task> task = worker.tasks.pop();
                if (!task) {
                    break;
                }
                {
                    const Metrics::Timing timing(m_metrics);
                    task->work(session);
                }
                while (!worker.done.push(task)) {
                    std::this_thread::yield();
                }
                m_bell.ring();
            }
        }
    }

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
