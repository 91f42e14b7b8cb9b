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
    void request() { m_requests.fetch_add(1, std::memory_order_relaxed); }
    /// A final answer.
    void answer(int status);
    /// How long a worker's task took, or several that were done together, with their statement or statements.
    void statement(std::chrono::nanoseconds time);
    /// A telephone's connection, which this server has ended.
    void connectionClosed() { m_closed.fetch_add(1, std::memory_order_relaxed); }
    /// All of it in Prometheus' text format.
    std::string page() const;

private:
    static constexpr std::array<std::uint64_t, 9> kBounds{100,  250,   500,    1000,   2500,
                                                          5000, 10000, 100000, 1000000}; // us

    std::atomic<std::uint64_t> m_requests{0};
    std::array<std::atomic<std::uint64_t>, 7> m_answers{};
    std::array<std::atomic<std::uint64_t>, kBounds.size() + 1> m_times{};
    std::atomic<std::uint64_t> m_microseconds{0};
    std::atomic<std::uint64_t> m_closed{0};
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
