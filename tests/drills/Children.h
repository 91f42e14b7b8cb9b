#pragma once

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <stdexcept>
#include <vector>

namespace drill {

/// Runs a function in so many child processes, each with its number, and waits for them all. They end with this
/// process, whatever ends it; call it from the main thread, whose end the kernel takes for the process's.
template <typename Function>
void runChildren(int count, Function function)
{
    const pid_t parent = ::getpid();
    std::vector<pid_t> children;
    for (int number = 0; number < count; ++number) {
        const pid_t child = ::fork();
        if (child == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (::getppid() != parent) {
                ::_exit(1); // it ended before it was asked for
            }
            function(number);
            ::_exit(0);
        }
        children.push_back(child);
    }
    for (const pid_t child : children) {
        int status = 0;
        if (child < 0 || ::waitpid(child, &status, 0) != child || status != 0) {
            throw std::runtime_error("a worker did not end well");
        }
    }
}

} // namespace drill
