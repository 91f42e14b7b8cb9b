#pragma once

#include <common/Options.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>

namespace oryx::sip {

/// What a server has done so far; counted by any thread.
class Metrics {
public:
    /// How long a worker's task takes, or several that are done together, with their statement or statements.
    class Timing {
    public:
        explicit Timing(Metrics& metrics) : m_metrics(metrics) {}
        ~Timing() { m_metrics.statement(std::chrono::steady_clock::now() - m_begun); }
        Timing(const Timing&) = delete;
        Timing& operator=(const Timing&) = delete;

    private:
        Metrics& m_metrics;
        std::chrono::steady_clock::time_point m_begun = std::chrono::steady_clock::now();
    };

    void request() { m_requests.fetch_add(1, std::memory_order_relaxed); }
    /// A final answer.
    void answer(int status);
    void statement(std::chrono::nanoseconds time);
    /// All of it in Prometheus' text format.
    std::string page() const;

private:
    static constexpr std::array<std::uint64_t, 9> kBounds{100,  250,   500,    1000,   2500,
                                                          5000, 10000, 100000, 1000000}; // us

    std::atomic<std::uint64_t> m_requests{0};
    std::array<std::atomic<std::uint64_t>, 7> m_answers{};
    std::array<std::atomic<std::uint64_t>, kBounds.size() + 1> m_times{};
    std::atomic<std::uint64_t> m_microseconds{0};
};

/// Serves the page by HTTP, on a thread of its own, one reader at a time.
class MetricsPage {
public:
    /// Throws `std::runtime_error` when the socket cannot be had.
    MetricsPage(const Metrics& metrics, const Listen& address);
    ~MetricsPage();
    MetricsPage(const MetricsPage&) = delete;
    MetricsPage& operator=(const MetricsPage&) = delete;

private:
    void run() const;
    void answer(int client) const;

    const Metrics& m_metrics;
    int m_socket;
    int m_stop;
    std::thread m_thread;
};

} // namespace oryx::sip
