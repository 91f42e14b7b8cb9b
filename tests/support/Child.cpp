#include "support/Child.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <exception>

namespace {

/// No child takes longer, however busy the machine.
constexpr unsigned kPatienceSeconds = 60;

std::string said(const std::function<std::string()>& say)
{
    try {
        return say();
    } catch (const std::exception& thrown) {
        return std::string("thrown: ") + thrown.what();
    }
}

} // namespace

std::string saidInChild(const std::function<std::string()>& say)
{
    std::array<int, 2> pipe{};
    EXPECT_EQ(::pipe(pipe.data()), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        ::alarm(kPatienceSeconds); // ends it when it hangs
        const std::string text = said(say);
        _exit(::write(pipe[1], text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0 : 1);
    }
    ::close(pipe[1]);
    std::string text(4096, '\0');
    const ssize_t size = ::read(pipe[0], text.data(), text.size());
    text.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
    ::close(pipe[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? text : "ended by signal " + std::to_string(WTERMSIG(status));
}
