#include <common/Ending.h>

#include <sys/signalfd.h>
#include <unistd.h>

#include <chrono>
#include <utility>

namespace oryx::sip {

Ending::Ending(Loop& loop, Endpoint& endpoint, int signals, std::function<bool()> idle)
    : m_loop(loop), m_endpoint(endpoint), m_signals(signals), m_idle(std::move(idle)), m_timer(loop, [this] { look(); })
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
    if (read(m_signals, &taken, sizeof taken) == sizeof taken) {
        m_endpoint.refuseRequests();
        look();
    }
}

void Ending::look()
{
    constexpr std::chrono::milliseconds kPause{20};
    constexpr int kMostLooks = 50;
    if (m_idle() || ++m_looks > kMostLooks) {
        m_loop.stop();
    } else {
        m_timer.set(kPause);
    }
}

} // namespace oryx::sip
