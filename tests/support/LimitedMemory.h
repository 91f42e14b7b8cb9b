#pragma once

#include <sys/resource.h>
#include <unistd.h>

#include <fstream>

/// Bounds the process's memory to so many bytes beside what it has, for as long as it lives.
class LimitedMemory {
public:
    explicit LimitedMemory(rlim_t room)
    {
        ::getrlimit(RLIMIT_AS, &m_former);
        rlim_t pages = 0;
        std::ifstream("/proc/self/statm") >> pages;
        rlimit bounded = m_former;
        bounded.rlim_cur = pages * static_cast<rlim_t>(::sysconf(_SC_PAGESIZE)) + room;
        ::setrlimit(RLIMIT_AS, &bounded);
    }
    ~LimitedMemory() { ::setrlimit(RLIMIT_AS, &m_former); }
    LimitedMemory(const LimitedMemory&) = delete;
    LimitedMemory& operator=(const LimitedMemory&) = delete;

private:
    rlimit m_former{};
};
