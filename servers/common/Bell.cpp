#include <common/Bell.h>

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>
#include <stdexcept>

namespace oryx::sip {

Bell::Bell() : m_descriptor(eventfd(0, EFD_CLOEXEC))
{
    if (m_descriptor < 0) {
        throw std::runtime_error("no descriptor left");
    }
}

Bell::~Bell()
{
    close(m_descriptor);
}

void Bell::ring()
{
    if (m_rung.exchange(true)) {
        return;
    }
    const std::uint64_t once = 1;
    while (write(m_descriptor, &once, sizeof once) < 0) {
    }
}

void Bell::await()
{
    std::uint64_t times = 0;
    while (read(m_descriptor, &times, sizeof times) < 0) {
    }
    m_rung.exchange(false); // before what it was rung for is looked at, which this has seen by now
}

} // namespace oryx::sip
