#include "support/ServerControl.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <utility>

namespace server {

ServerControl::ServerControl(Session& session)
    : m_folder(session.value("SHOW data_directory")),
      m_program(session.value("SELECT setting FROM pg_config WHERE name = 'BINDIR'") + "/pg_ctl"),
      m_settings(session.value("SHOW config_file"))
{
}

ServerControl::~ServerControl()
{
    try {
        if (m_stopped) {
            static_cast<void>(run("-w stop -m immediate")); // it may be on its way, or gone
            start();
        }
    } catch (const std::exception& failure) {
        ADD_FAILURE() << "the test's server was not started again: " << failure.what();
    }
}

void ServerControl::stop(const std::string& mode)
{
    m_stopped = true;
    control("-w stop -m " + mode);
}

void ServerControl::beginToStop(const std::string& mode)
{
    m_stopped = true;
    control("-W stop -m " + mode);
}

void ServerControl::start()
{
    control("-w " + starting());
    m_stopped = false;
}

void ServerControl::beginToStart()
{
    control("-W " + starting());
    m_stopped = false;
}

std::string ServerControl::starting() const
{
    return "start -l '" + m_folder + "/restart.log' -o '-c config_file=" + m_settings + "'";
}

void ServerControl::control(const std::string& what) const
{
    if (!run(what)) {
        throw std::runtime_error("failed: " + m_program + " " + what);
    }
}

bool ServerControl::run(const std::string& what) const
{
    // The server does not run as root: neither may what controls it.
    const std::string as = geteuid() == 0 ? "runuser -u postgres -- " : "";
    const std::string command = "cd / && " + as + m_program + " -s -D '" + m_folder + "' " + what;
    return std::system(command.c_str()) == 0;
}

namespace {

std::vector<pid_t> processesOf(const std::string& folder)
{
    std::string postmaster;
    std::ifstream(folder + "/postmaster.pid") >> postmaster;
    std::ifstream children("/proc/" + postmaster + "/task/" + postmaster + "/children");
    std::vector<pid_t> processes{std::stoi(postmaster)};
    for (pid_t child = 0; children >> child;) {
        processes.push_back(child);
    }
    return processes;
}

} // namespace

Stopped::Stopped(std::vector<pid_t> processes) : m_processes(std::move(processes))
{
    signal(SIGSTOP);
}

Stopped::Stopped(const std::string& folder) : Stopped(processesOf(folder)) {}

Stopped::~Stopped()
{
    signal(SIGCONT);
}

void Stopped::signal(int number) const
{
    std::for_each(m_processes.begin(), m_processes.end(), [&](pid_t process) { ::kill(process, number); });
}

} // namespace server
