// A child process that has no descriptor left, and lets go of what it inherited.

#include "support/Child.h"
#include "support/DatabaseTest.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <new>
#include <string>

namespace descriptorsTest {

namespace {

/// How often something was closed that was not open, which in a program with threads may be another's by then.
std::atomic<int> closedInVain = 0;

/// Stands before the C library's own.
extern "C" [[gnu::visibility("default")]] int close(int descriptor)
{
    const auto outcome = static_cast<int>(syscall(SYS_close, descriptor));
    closedInVain += outcome != 0 && errno == EBADF ? 1 : 0;
    return outcome;
}

using Descriptors = ServiceTest;

TEST_F(Descriptors, ThatAreAllInUseAreEachClosedOnceByAChild)
{
#ifdef ORYX_SANITIZED
    GTEST_SKIP() << "the sanitizer looks with descriptors of its own whether objects are what they seem";
#endif
    const std::string before = backend();
    const std::string said = saidInChild([this] {
        const rlimit few{64, 64};
        setrlimit(RLIMIT_NOFILE, &few);
        while (fcntl(0, F_DUPFD, 0) >= 0) {
        }
        closedInVain = 0;
        m_service.~LocationService();
        new (&m_service) oryx::LocationService;
        return std::to_string(closedInVain);
    });
    EXPECT_EQ(said, "0");
    EXPECT_EQ(rows("SELECT pid FROM pg_stat_activity WHERE pid = " + before), before + "\n");
}

} // namespace

} // namespace descriptorsTest
