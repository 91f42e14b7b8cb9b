#pragma once

#include <cstddef>
#include <mutex>
#include <string>

#include <spdlog/sinks/base_sink.h>

namespace zel {

/// A file of traces, which hold what passes between a server and its database: readable by its owner alone. At
/// `maxBytes` it becomes the newest of `olderFiles` that are kept beside it, named as spdlog's own rotating files are.
///
/// The file is never reached through a symbolic link, and must be a regular one of the process's own user, with one
/// name: whoever may write in its folder cannot have the traces, nor have another file of that user written. (spdlog's
/// own sink opens its files by name only, and readable by all.) A file that is there already keeps its permissions.
class RotatingFile : public spdlog::sinks::base_sink<std::mutex> {
public:
    /// Throws spdlog::spdlog_ex if there is no such file to be written.
    RotatingFile(std::string path, std::size_t maxBytes, std::size_t olderFiles);
    ~RotatingFile() override;
    RotatingFile(const RotatingFile&) = delete;
    RotatingFile& operator=(const RotatingFile&) = delete;

protected:
    void sink_it_(const spdlog::details::log_msg& message) override;
    void flush_() override {}

private:
    void open();
    void close();
    void rotate();
    [[noreturn]] void refuse(const char* reason);

    std::string m_path;
    std::size_t m_maxBytes;
    std::size_t m_olderFiles;
    int m_file = -1;
    std::size_t m_size = 0;
};

} // namespace zel
