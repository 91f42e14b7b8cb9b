#include <dal/internal/StopSignal.h>

#include <dal/internal/BoundSession.h>
#include <dal/internal/Process.h>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <utility>

namespace oryx {

StopSignal::StopSignal() : m_descriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), m_generation(generation()) {}

StopSignal::~StopSignal()
{
    if (valid()) {
        close(m_descriptor);
    }
}

void StopSignal::adopt()
{
    if (m_generation != generation()) {
        const int inherited = std::exchange(m_descriptor, eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
        m_generation = generation();
        close(inherited);
    }
}

void StopSignal::request() const noexcept
{
    if (m_generation != generation()) {
        return;
    }
    const int before = errno;
    const std::uint64_t one = 1;
    // It fails only where so many requests are noted already that no more can be counted.
    [[maybe_unused]] const ssize_t written = write(m_descriptor, &one, sizeof one);
    errno = before;
}

bool StopSignal::await(std::chrono::milliseconds atMost) const
{
    const Deadline deadline(atMost);
    pollfd requests{m_descriptor, POLLIN, 0};
    int ready = poll(&requests, 1, static_cast<int>(atMost.count()));
    while (ready < 0 && errno == EINTR) {
        ready = poll(&requests, 1, atMost.count() > 0 ? deadline.pollTimeout() : 0);
    }
    return ready > 0;
}

void StopSignal::clear() const
{
    std::uint64_t requests = 0;
    [[maybe_unused]] const ssize_t taken = read(m_descriptor, &requests, sizeof requests);
}

} // namespace oryx
