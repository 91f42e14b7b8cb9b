#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

/// A function at work in a child process.
class Child {
public:
    /// Throws where no child can be made.
    explicit Child(const std::function<std::string()>& say);
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    /// What the function says, which must be short, or what it throws, or the signal that ended it, when the child has
    /// ended. Asked once.
    std::string said();

private:
    int m_pipe = -1;
    pid_t m_child = 0; // until it is waited for
};

/// What a function says in a child process.
inline std::string saidInChild(const std::function<std::string()>& say)
{
    return Child(say).said();
}
