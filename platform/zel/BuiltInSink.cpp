#include <zel/internal/BuiltInSink.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>

#include <spdlog/logger.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>

namespace zel {
namespace {

constexpr std::size_t kFileBytes = 10UL * 1024 * 1024;
constexpr std::size_t kOlderFiles = 5;

enum class Selection { nothing, failures, everything };

Selection selection()
{
    const char* value = std::getenv("ORYX_TRACE");
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
        return std::make_shared<spdlog::sinks::rotating_file_sink_mt>(path, kFileBytes, kOlderFiles);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "ORYX_TRACE_FILE: %s; traces go to standard error\n", failure.what());
        return nullptr;
    }
}

spdlog::sink_ptr destination()
{
    const char* path = std::getenv("ORYX_TRACE_FILE");
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

void appendMasked(std::string& line, std::string_view text)
{
    constexpr std::string_view key = "password=";
    for (auto at = text.find(key); at != std::string_view::npos; at = text.find(key)) {
        const auto value = at + key.size();
        line.append(text.substr(0, value)).append("***");
        text.remove_prefix(std::min(text.find_first_of(" \t\r\n\f\v", value), text.size()));
    }
    line.append(text);
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
    appendMasked(line, text);
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
