#include <common/Metrics.h>

#include <common/Intake.h>

#include <dal/SessionStatistics.h>

#include <netdb.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <stdexcept>

namespace oryx::sip {

namespace {

void family(std::string& page, const char* name, const char* type, const char* help)
{
    page.append("# HELP ").append(name).append(" ").append(help).append("\n# TYPE ").append(name).append(" ");
    page.append(type).append("\n");
}

void sample(std::string& page, const std::string& name, std::uint64_t value)
{
    page.append(name).append(" ").append(std::to_string(value)).append("\n");
}

std::string seconds(std::uint64_t microseconds)
{
    return std::to_string(static_cast<double>(microseconds) / 1e6);
}

/// A socket that listens there; -1 if that cannot be.
int boundTo(const Listen& address)
{
    const bool bracketed = address.host.front() == '[';
    const std::string host = bracketed ? address.host.substr(1, address.host.size() - 2) : address.host;
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE;
    addrinfo* found = nullptr;
    if (getaddrinfo(host.c_str(), address.port.c_str(), &hints, &found) != 0) {
        return -1;
    }
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owned(found, &freeaddrinfo);
    const int descriptor = socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    if (descriptor >= 0 && setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0 &&
        bind(descriptor, found->ai_addr, found->ai_addrlen) == 0 && listen(descriptor, 16) == 0) {
        return descriptor;
    }
    if (descriptor >= 0) {
        close(descriptor);
    }
    return -1;
}

/// Whether that can be read within a second; not when `stop` can be first.
bool readable(int descriptor, int stop, int milliseconds)
{
    std::array<pollfd, 2> both{{{descriptor, POLLIN, 0}, {stop, POLLIN, 0}}};
    return poll(both.data(), both.size(), milliseconds) > 0 && both[1].revents == 0;
}

} // namespace

void Metrics::answer(int status)
{
    m_answers.at(std::min<std::size_t>(static_cast<std::size_t>(status) / 100, m_answers.size() - 1))
        .fetch_add(1, std::memory_order_relaxed);
}

void Metrics::statement(std::chrono::nanoseconds time)
{
    const auto microseconds = static_cast<std::uint64_t>(time.count()) / 1000;
    std::size_t at = 0;
    while (at < kBounds.size() && kBounds.at(at) < microseconds) {
        ++at;
    }
    m_times.at(at).fetch_add(1, std::memory_order_relaxed);
    m_microseconds.fetch_add(microseconds, std::memory_order_relaxed);
}

std::string Metrics::page() const
{
    std::string page;
    family(page, "oryx_requests_total", "counter", "SIP requests received");
    sample(page, "oryx_requests_total", m_requests);
    family(page, "oryx_answers_total", "counter", "final answers given, by class");
    for (std::size_t answers = 2; answers < m_answers.size(); ++answers) {
        sample(page, "oryx_answers_total{class=\"" + std::to_string(answers) + "xx\"}", m_answers.at(answers));
    }
    family(page, "oryx_messages_refused_total", "counter", "messages too large, or with too many header fields");
    sample(page, "oryx_messages_refused_total", refusedMessages());
    family(page, "oryx_connections_closed_total", "counter",
           "connections by TCP that were too many, never used or not read");
    sample(page, "oryx_connections_closed_total", m_closed);
    family(page, "oryx_statement_seconds", "histogram", "time of what a request asks of the database");
    std::uint64_t sum = 0;
    for (std::size_t at = 0; at < m_times.size(); ++at) {
        sum += m_times.at(at);
        const std::string bound = at < kBounds.size() ? seconds(kBounds.at(at)) : "+Inf";
        sample(page, "oryx_statement_seconds_bucket{le=\"" + bound + "\"}", sum);
    }
    page.append("oryx_statement_seconds_sum ").append(seconds(m_microseconds)).append("\n");
    sample(page, "oryx_statement_seconds_count", sum);
    const SessionStatistics sessions = SessionStatistics::ofProcess();
    family(page, "oryx_database_connections_lost_total", "counter", "connections to the database found lost");
    sample(page, "oryx_database_connections_lost_total", sessions.losses);
    family(page, "oryx_database_refusals_total", "counter", "statements that the database refused");
    sample(page, "oryx_database_refusals_total", sessions.refusals);
    family(page, "oryx_database_late_total", "counter", "operations that ran into their deadline");
    sample(page, "oryx_database_late_total", sessions.late);
    return page;
}

MetricsPage::MetricsPage(const Metrics& metrics, const Listen& address)
    : m_metrics(metrics), m_socket(boundTo(address)), m_stop(eventfd(0, EFD_CLOEXEC))
{
    if (m_socket < 0 || m_stop < 0) {
        throw std::runtime_error("--metrics: cannot listen on " + address.host + ":" + address.port);
    }
    m_thread = std::thread([this] { run(); });
}

MetricsPage::~MetricsPage()
{
    const std::uint64_t once = 1;
    while (write(m_stop, &once, sizeof once) < 0) {
    }
    m_thread.join();
    close(m_socket);
    close(m_stop);
}

void MetricsPage::run() const
{
    constexpr std::chrono::milliseconds kNoDescriptorPause{100};
    while (readable(m_socket, m_stop, -1)) {
        const int client = accept4(m_socket, nullptr, nullptr, SOCK_CLOEXEC);
        if (client >= 0) {
            answer(client);
            close(client);
        } else {
            std::this_thread::sleep_for(kNoDescriptorPause);
        }
    }
}

/// Whatever is asked for, the answer is the page: there is no other.
void MetricsPage::answer(int client) const
{
    constexpr int kPatience = 1000;
    std::array<char, 4096> request{};
    if (!readable(client, m_stop, kPatience) || recv(client, request.data(), request.size(), 0) <= 0) {
        return;
    }
    const std::string page = m_metrics.page();
    const std::string text =
        "HTTP/1.1 200 OK\r\nContent-Type: text/plain; version=0.0.4\r\nContent-Length: " + std::to_string(page.size()) +
        "\r\nConnection: close\r\n\r\n" + page;
    for (std::size_t sent = 0; sent < text.size();) {
        const ssize_t now = send(client, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
        if (now <= 0) {
            return;
        }
        sent += static_cast<std::size_t>(now);
    }
}

} // namespace oryx::sip
