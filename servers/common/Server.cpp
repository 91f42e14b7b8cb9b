#include <common/Server.h>
#include <common/Stun.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <exception>

namespace oryx::sip {

namespace {

/// The signals that end a server, as something that the loop can wait for. Held off in all threads that are started
/// later, too.
int endingSignals()
{
    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGTERM);
    sigaddset(&ending, SIGINT);
    pthread_sigmask(SIG_BLOCK, &ending, nullptr);
    return signalfd(-1, &ending, SFD_CLOEXEC);
}

/// What is written to them shall not come into a socket that has got the number of one that was closed.
void openStandardStreams()
{
    int descriptor = 0;
    do {
        descriptor = open("/dev/null", O_RDWR); // NOLINT(cppcoreguidelines-pro-type-vararg): and for its children
    } while (descriptor >= 0 && descriptor <= STDERR_FILENO);
    close(descriptor);
}

/// Each telephone by TCP has one. Not as many as some systems allow, where no telephone would be refused before the
/// memory is used up.
void allowManyConnections()
{
    constexpr rlim_t kMost = 65536;
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = std::min(limit.rlim_max, kMost);
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

} // namespace

int serve(int argc, char** argv, const std::function<void(Loop& loop, const Options& options, int signals)>& serve)
{
    const Parsed parsed = parseOptions(argc, argv);
    if (!parsed.options) {
        return parsed.status;
    }
    openStandardStreams();
    allowManyConnections();
    std::signal(SIGPIPE, SIG_IGN); // a telephone that hangs up
    std::signal(SIGHUP, SIG_IGN);  // there is nothing to be read anew: changes are heard of
    const int signals = endingSignals();
    int status = 0;
    try {
        answerStun();
        Loop loop;
        serve(loop, *parsed.options, signals);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
        status = 1;
    }
    close(signals);
    return status;
}

void tellReady()
{
    std::puts("ready");
    std::fflush(stdout);
}

} // namespace oryx::sip
