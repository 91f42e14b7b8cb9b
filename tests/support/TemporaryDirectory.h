#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>

/// A directory of the test's own, gone with it.
class TemporaryDirectory {
public:
    TemporaryDirectory() : m_path((std::filesystem::temp_directory_path() / "oryx-unit-XXXXXX").string())
    {
        if (!mkdtemp(m_path.data())) {
            throw std::runtime_error("no temporary directory");
        }
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
    ~TemporaryDirectory()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }

    std::string file(const std::string& name) const { return m_path + "/" + name; }

    /// Readable by its owner alone.
    std::string write(const std::string& name, const std::string& content) const
    {
        std::ofstream(file(name), std::ios::binary) << content;
        std::filesystem::permissions(file(name),
                                     std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
        return file(name);
    }

    std::string read(const std::string& name) const
    {
        std::ostringstream content;
        content << std::ifstream(file(name), std::ios::binary).rdbuf();
        return content.str();
    }

private:
    std::string m_path;
};
