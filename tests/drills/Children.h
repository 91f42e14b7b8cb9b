#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>
#include <vector>

namespace drill {

/// Runs a function in so many child processes, each with its number, and waits for them all.
template <typename Function>
void runChildren(int count, Function function)
{
    std::vector<pid_t> children;
    for (int number = 0; number < count; ++number) {
        const pid_t child = ::fork();
        if (child == 0) {
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
