#include "drills/Journal.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>

namespace drill {

namespace {

constexpr std::array<const char*, 6> kKinds{"enter", "refresh", "remove", "look", "reserve", "release"};
constexpr std::array<const char*, 4> kOutcomes{"okay", "none", "error", "unsent"};

template <typename Enum, std::size_t Size>
Enum named(const std::array<const char*, Size>& names, const std::string& name)
{
    for (std::size_t i = 0; i < Size; ++i) {
        if (names.at(i) == name) {
            return static_cast<Enum>(i);
        }
    }
    throw std::runtime_error("not in a journal: " + name);
}

template <typename Enum, std::size_t Size>
std::string nameOf(const std::array<const char*, Size>& names, Enum value)
{
    return names.at(static_cast<std::size_t>(value));
}

std::string inOneWord(std::string text)
{
    constexpr const char* kBlanks = " \t\n\v\f\r";
    for (std::size_t at = 0; (at = text.find_first_of(kBlanks, at)) != std::string::npos; ++at) {
        text[at] = '_';
    }
    return text.empty() ? kAbsent : text;
}

/// Takes a line of a journal in; false when it is none.
bool take(const std::string& line, std::vector<Entry>& entries)
{
    std::istringstream words(line);
    std::string word;
    std::size_t number = 0;
    Time::rep at = 0;
    std::string name;
    std::string text;
    long value = 0;
    if (!(words >> word >> number >> at >> name >> text)) {
        return false;
    }
    if (word == "ask" && number == entries.size() && words >> value) {
        entries.push_back({named<Kind>(kKinds, name), text, value, Time(at), std::nullopt});
    } else if (word == "got" && number < entries.size()) {
        entries[number].answer = Answer{Time(at), named<Outcome>(kOutcomes, name), text};
    } else {
        return false;
    }
    return !(words >> word); // nothing more
}

} // namespace

Time now()
{
    return std::chrono::duration_cast<Time>(std::chrono::system_clock::now().time_since_epoch());
}

Journal::Journal(const std::string& file)
    : m_file(::open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, S_IRUSR | S_IWUSR))
{
    if (m_file < 0) {
        throw std::system_error(errno, std::generic_category(), file);
    }
}

Journal::~Journal()
{
    ::close(m_file);
}

std::uint64_t Journal::ask(Kind kind, const std::string& key, long value)
{
    const std::lock_guard lock(m_mutex);
    write("ask " + std::to_string(m_count) + " " + std::to_string(now().count()) + " " + nameOf(kKinds, kind) + " " +
          key + " " + std::to_string(value) + "\n");
    return m_count++;
}

void Journal::answer(std::uint64_t number, Outcome outcome, const std::string& seen)
{
    const Time at = now();
    const std::lock_guard lock(m_mutex);
    write("got " + std::to_string(number) + " " + std::to_string(at.count()) + " " + nameOf(kOutcomes, outcome) + " " +
          inOneWord(seen) + "\n");
}

void Journal::write(const std::string& line)
{
    if (::write(m_file, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        throw std::system_error(errno, std::generic_category(), "journal");
    }
}

std::vector<Entry> Journal::read(const std::string& file)
{
    std::vector<Entry> entries;
    std::ifstream lines(file);
    if (!lines) {
        throw std::system_error(errno, std::generic_category(), file);
    }
    for (std::string line; std::getline(lines, line) && !lines.eof();) { // one that was cut short ends with the file
        if (!take(line, entries)) {
            throw std::runtime_error("no line of a journal, in " + file + ": " + line);
        }
    }
    return entries;
}

} // namespace drill
