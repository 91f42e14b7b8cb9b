#include <zel/internal/BuiltInSink.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>

#include <spdlog/logger.h>
#include <spdlog/sinks/stdout_sinks.h>

#include <util/MaskSecrets.h>
#include <zel/internal/RotatingFile.h>

namespace zel {
namespace {

constexpr std::size_t kFileBytes = 10UL * 1024 * 1024;
constexpr std::size_t kOlderFiles = 5;

enum class Selection { nothing, failures, everything };

// secure_getenv: whoever starts a program that runs with more rights than his own must not have its traces, nor have it
// write a file of his choice.

Selection selection()
{
    const char* value = secure_getenv("ORYX_TRACE");
    const std::string_view wanted = value && *value ? value : "off";
    if (wanted == "log") {
        return Selection::failures;
    }
    if (wanted == "all") {
        return Selection::everything;
    }
    if (wanted != "off") {
        std::fprintf(stderr, "ORYX_TRACE is \"%s\", not one of off, log, all: nothing is traced\n", value);
    }
    return Selection::nothing;
}

/// Null if there is no such file to be written.
spdlog::sink_ptr fileSink(const char* path)
{
    try {
        return std::make_shared<RotatingFile>(path, kFileBytes, kOlderFiles);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "ORYX_TRACE_FILE: %s; traces go to standard error\n", failure.what());
        return nullptr;
    }
}

spdlog::sink_ptr destination()
{
    const char* path = secure_getenv("ORYX_TRACE_FILE");
    spdlog::sink_ptr file = path && *path ? fileSink(path) : nullptr;
    return file ? file : std::make_shared<spdlog::sinks::stderr_sink_mt>();
}

std::shared_ptr<spdlog::logger> makeLogger()
{
    auto logger = std::make_shared<spdlog::logger>("oryx", destination());
    logger->set_pattern("%Y-%m-%d %H:%M:%S.%e [%t] %v");
    // A process that dies must not take its last lines along.
    logger->flush_on(spdlog::level::trace);
    return logger;
}

/// The length of a control character at a place in UTF-8 text: those of ASCII, and the C1 set, which some terminals
/// obey; 0 for all others.
std::size_t controlAt(std::string_view text, std::size_t at)
{
    const auto byte = [&](std::size_t i) { return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U; };
    if (byte(at) < 0x20 || byte(at) == 0x7F) {
        return 1;
    }
    return byte(at) == 0xC2 && byte(at + 1) >= 0x80 && byte(at + 1) < 0xA0 ? 2 : 0;
}

/// One call gives one line, and a line changes nothing on a terminal.
void appendEscaped(std::string& line, std::string_view text)
{
    for (std::size_t i = 0; i < text.size(); ++i) {
        const std::size_t control = controlAt(text, i);
        if (control == 0) {
            line += text[i];
        } else if (text[i] == '\n' || text[i] == '\r' || text[i] == '\t') {
            line.append(text[i] == '\n' ? "\\n" : text[i] == '\r' ? "\\r" : "\\t");
        } else {
            std::array<char, 8> escape{};
            const char code = text[i + control - 1];
            std::snprintf(escape.data(), escape.size(), control == 1 ? "\\x%02x" : "\\u00%02x",
                          static_cast<unsigned>(static_cast<unsigned char>(code)));
            line.append(escape.data());
            i += control - 1;
        }
    }
}

} // namespace

BuiltInSink::BuiltInSink(std::shared_ptr<spdlog::logger> logger, bool failuresOnly)
    : m_logger(std::move(logger)), m_failuresOnly(failuresOnly)
{
}

void BuiltInSink::operator()(std::string_view channel, TraceKind kind, std::string_view text) const
{
    const bool failure = kind == TraceKind::log;
    if (m_failuresOnly && !failure) {
        return;
    }
    if (text.ends_with('\n')) {
        text.remove_suffix(1);
    }
    std::string line;
    line.reserve(channel.size() + text.size() + 16);
    line.append(channel).append(failure ? " log: " : " prn: ");
    appendEscaped(line, oryx::maskSecrets(text));
    // As a view the line is written as it stands; as a string it would be taken for a format.
    m_logger->log(failure ? spdlog::level::err : spdlog::level::info, spdlog::string_view_t(line));
}

TraceSink sinkFromEnvironment()
{
    const Selection selected = selection();
    if (selected == Selection::nothing) {
        return {};
    }
    return BuiltInSink(makeLogger(), selected == Selection::failures);
}

} // namespace zel
