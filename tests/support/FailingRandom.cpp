#include "support/FailingRandom.h"

#include <atomic>
#include <cerrno>
#include <sys/random.h>
#include <sys/types.h>
#include <unistd.h>

namespace {

std::atomic<bool> missing = false;

} // namespace

NoRandomNumbers::NoRandomNumbers()
{
    missing = true;
}

NoRandomNumbers::~NoRandomNumbers()
{
    missing = false;
}

extern "C" int getentropy(void* buffer, size_t length)
{
    if (missing) {
        errno = ENOSYS;
        return -1;
    }
    return getrandom(buffer, length, 0) == static_cast<ssize_t>(length) ? 0 : -1;
}
