#include "support/Child.h"

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <exception>
#include <system_error>
#include <utility>

namespace {

/// No child takes longer, however busy the machine.
constexpr unsigned kPatienceSeconds = 60;

/// What a system call gives, unless it fails.
int require(int outcome)
{
    if (outcome < 0) {
        throw std::system_error(errno, std::generic_category(), "child");
    }
    return outcome;
}

std::string textOf(const std::function<std::string()>& say)
{
    try {
        return say();
    } catch (const std::exception& thrown) {
        return std::string("thrown: ") + thrown.what();
    }
}

} // namespace

Child::Child(const std::function<std::string()>& say)
{
    std::array<int, 2> pipe{};
    require(::pipe(pipe.data()));
    m_pipe = pipe[0];
    m_child = ::fork();
    if (m_child == 0) {
        ::alarm(kPatienceSeconds); // ends it when it hangs
        const std::string text = textOf(say);
        _exit(::write(pipe[1], text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0 : 1);
    }
    const int failure = errno;
    ::close(pipe[1]);
    if (m_child < 0) {
        ::close(m_pipe);
        throw std::system_error(failure, std::generic_category(), "fork");
    }
}

Child::~Child()
{
    ::close(m_pipe);
    if (m_child > 0) {
        ::kill(m_child, SIGKILL); // nobody asks it any more
        ::waitpid(m_child, nullptr, 0);
    }
}

std::string Child::said()
{
    std::string text(4096, '\0');
    const ssize_t size = ::read(m_pipe, text.data(), text.size());
    text.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
    int status = 0;
    require(::waitpid(std::exchange(m_child, 0), &status, 0));
    return WIFEXITED(status) ? text : "ended by signal " + std::to_string(WTERMSIG(status));
}
