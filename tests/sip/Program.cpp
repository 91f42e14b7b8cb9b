#include "sip/Program.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <fstream>
#include <stdexcept>
#include <thread>

namespace {

std::vector<char*> pointersTo(std::vector<std::string>& texts)
{
    std::vector<char*> pointers;
    for (std::string& text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

} // namespace

Program::Program(const std::string& path, const std::vector<std::string>& arguments,
                 const std::vector<std::string>& environment, const std::string& folder)
{
    std::vector<std::string> texts{path};
    texts.insert(texts.end(), arguments.begin(), arguments.end());
    const std::vector<char*> argv = pointersTo(texts);
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw std::runtime_error("no pipe");
    }
    m_process = fork();
    if (m_process == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(ends[1], STDOUT_FILENO);
        dup2(ends[1], STDERR_FILENO);
        for (const std::string& variable : environment) {
            const std::size_t equals = variable.find('=');
            setenv(variable.substr(0, equals).c_str(), variable.substr(equals + 1).c_str(), 1);
        }
        if (folder.empty() || chdir(folder.c_str()) == 0) {
            execv(path.c_str(), argv.data());
        }
        _exit(127);
    }
    close(ends[1]);
    m_output = ends[0];
    if (m_process < 0) {
        throw std::runtime_error("no process");
    }
}

Program::~Program()
{
    if (!m_ended) {
        kill(m_process, SIGKILL);
        waitpid(m_process, nullptr, 0);
    }
    close(m_output);
}

bool Program::readable(int milliseconds) const
{
    pollfd output{m_output, POLLIN, 0};
    return poll(&output, 1, milliseconds) > 0;
}

bool Program::read(int milliseconds)
{
    if (!readable(milliseconds)) {
        throw std::runtime_error("nothing was written in time; so far: " + m_unread);
    }
    std::array<char, 4096> text{};
    const ssize_t size = ::read(m_output, text.data(), text.size());
    m_unread.append(text.data(), size > 0 ? static_cast<std::size_t>(size) : 0);
    return size > 0;
}

std::string Program::line(int seconds)
{
    std::size_t end = 0;
    while ((end = m_unread.find('\n')) == std::string::npos) {
        if (!read(seconds * 1000)) {
            throw std::runtime_error("it ended: " + m_said + m_unread);
        }
    }
    std::string text = m_unread.substr(0, end);
    m_said += text + "\n";
    m_unread.erase(0, end + 1);
    return text;
}

std::string Program::soFar()
{
    while (readable(0) && read(0)) {
    }
    return m_said + m_unread;
}

std::string Program::rest()
{
    while (read(20000)) {
    }
    return m_unread;
}

long Program::memory() const
{
    std::ifstream status("/proc/" + std::to_string(m_process) + "/status");
    for (std::string name; status >> name;) {
        if (name == "VmRSS:") {
            long size = 0;
            status >> size;
            return size;
        }
    }
    return 0;
}

double Program::processorTime() const
{
    std::ifstream file("/proc/" + std::to_string(m_process) + "/stat");
    std::string text;
    std::getline(file, text, ')'); // behind its name
    for (int field = 0; field < 11; ++field) {
        file >> text;
    }
    double user = 0;
    double system = 0;
    file >> user >> system;
    return (user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

void Program::signal(int number) const
{
    kill(m_process, number);
}

int Program::wait(int seconds)
{
    for (int look = 0; look < seconds * 100; ++look) {
        int status = 0;
        if (waitpid(m_process, &status, WNOHANG) == m_process) {
            m_ended = true;
            return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    throw std::runtime_error("it has not ended");
}
