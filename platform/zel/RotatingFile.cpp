#include <zel/internal/RotatingFile.h>

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

#include <spdlog/sinks/rotating_file_sink.h>

namespace zel {
namespace {

std::string systemReason()
{
    return std::error_code(errno, std::generic_category()).message();
}

} // namespace

RotatingFile::RotatingFile(std::string path, std::size_t maxBytes, std::size_t olderFiles)
    : m_path(std::move(path)), m_maxBytes(maxBytes), m_olderFiles(olderFiles)
{
    open();
}

RotatingFile::~RotatingFile()
{
    close();
}

void RotatingFile::close()
{
    if (m_file >= 0) {
        ::close(std::exchange(m_file, -1));
    }
}

void RotatingFile::refuse(const char* reason)
{
    close();
    throw spdlog::spdlog_ex("Failed opening file " + m_path + " for writing: " + reason);
}

void RotatingFile::open()
{
    // A FIFO must not keep the process waiting for a reader.
    m_file = ::open(m_path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
    if (m_file < 0) {
        refuse(errno == ELOOP ? "a symbolic link" : systemReason().c_str());
    }
    struct stat status {};
    if (fstat(m_file, &status) != 0 || !S_ISREG(status.st_mode)) {
        refuse("not a regular file");
    }
    if (status.st_uid != geteuid()) {
        refuse("it belongs to another user");
    }
    if (status.st_nlink != 1) {
        refuse("it has other names");
    }
    m_size = static_cast<std::size_t>(status.st_size);
}

/// Every file takes the next one's place; the oldest goes. A file that cannot be moved goes on growing.
void RotatingFile::rotate()
{
    using Names = spdlog::sinks::rotating_file_sink_mt;
    close();
    for (std::size_t i = m_olderFiles; i > 0; --i) {
        std::rename(Names::calc_filename(m_path, i - 1).c_str(), Names::calc_filename(m_path, i).c_str());
    }
    open();
}

void RotatingFile::sink_it_(const spdlog::details::log_msg& message)
{
    spdlog::memory_buf_t line;
    formatter_->format(message, line);
    if (m_file < 0) {
        open(); // it was refused when last rotated
    } else if (m_size > 0 && m_size + line.size() > m_maxBytes) {
        rotate();
    }
    for (std::string_view left(line.data(), line.size()); !left.empty();) {
        const ssize_t written = write(m_file, left.data(), left.size());
        if (written < 0 && errno != EINTR) {
            throw spdlog::spdlog_ex("Failed writing to file " + m_path, errno);
        }
        left.remove_prefix(written > 0 ? static_cast<std::size_t>(written) : 0);
        m_size += written > 0 ? static_cast<std::size_t>(written) : 0;
    }
}

} // namespace zel
