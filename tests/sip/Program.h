#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

/// A program that a test runs. It ends with the test, whatever ends that.
class Program {
public:
    /// Starts it with these arguments and, beside this process' own environment, these variables ("NAME=value"); in
    /// that folder, unless it is empty.
    Program(const std::string& path, const std::vector<std::string>& arguments,
            const std::vector<std::string>& environment = {}, const std::string& folder = "");
    ~Program();
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    /// The next line that it writes, to standard output or standard error; throws when there is none in time.
    std::string line(int seconds = 20);
    /// All that it has written so far.
    std::string soFar();
    /// All that it writes until it ends.
    std::string rest();
    pid_t process() const { return m_process; }
    void signal(int number) const;
    /// How much memory it has resident, in kB.
    long memory() const;
    /// How long it has kept a processor busy, in seconds.
    double processorTime() const;
    /// Its exit status, or minus the signal that ended it; throws when it has not ended in time.
    int wait(int seconds = 20);

private:
    bool readable(int milliseconds) const;
    bool read(int milliseconds);

    pid_t m_process = -1;
    int m_output = -1;
    std::string m_said;
    std::string m_unread;
    bool m_ended = false;
};
