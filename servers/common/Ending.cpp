#include <common/Ending.h>

#include <sys/signalfd.h>
#include <sys/time.h>
#include <unistd.h>

#include <csignal>
#include <utility>

namespace oryx::sip {

namespace {

/// With what is under way; a worker may then still be in the middle of a question.
constexpr std::chrono::seconds kWaiting{1};

void endAtLast()
{
    constexpr itimerval kWhen{{0, 0}, {1, 700000}};
    std::signal(SIGALRM, [](int) { _exit(0); });
    setitimer(ITIMER_REAL, &kWhen, nullptr);
}

} // namespace

Ending::Ending(Loop& loop, Endpoint& endpoint, int signals, std::function<bool()> idle, std::function<void()> begun)
    : m_loop(loop),
      m_endpoint(endpoint),
      m_signals(signals),
      m_idle(std::move(idle)),
      m_begun(std::move(begun)),
      m_timer(loop, [this] { look(); })
{
    loop.watch(signals, [this] { begin(); });
}

Ending::~Ending()
{
    m_loop.unwatch(m_signals);
}

void Ending::begin()
{
    signalfd_siginfo taken{};
    if (read(m_signals, &taken, sizeof taken) == sizeof taken && !std::exchange(m_begins, true)) {
        endAtLast();
        m_last = std::chrono::steady_clock::now() + kWaiting;
        m_endpoint.refuseRequests();
        m_begun();
        look();
    }
}

void Ending::look()
{
    constexpr std::chrono::milliseconds kPause{20};
    if (m_idle() || std::chrono::steady_clock::now() >= m_last) {
        m_loop.stop();
    } else {
        m_timer.set(kPause);
    }
}

} // namespace oryx::sip
