#include "support/TraceLog.h"

#include <utility>

TraceLog::TraceLog()
{
    m_previous = zel::setTraceSink([this](std::string_view channel, zel::TraceKind kind, std::string_view text) {
        const std::lock_guard lock(m_mutex);
        m_lines.push_back({std::string(channel), kind, std::string(text)});
    });
}

TraceLog::~TraceLog()
{
    zel::setTraceSink(std::move(m_previous));
}

std::string TraceLog::take()
{
    const std::lock_guard lock(m_mutex);
    std::string text;
    for (const Line& line : std::exchange(m_lines, {})) {
        if (line.text.starts_with("connections to the database are being lost")) {
            continue;
        }
        text.append(line.channel).append(line.kind == zel::TraceKind::log ? " log: " : " prn: ").append(line.text) +=
            '\n';
    }
    return text;
}

std::string TraceLog::take(std::string_view channel)
{
    {
        const std::lock_guard lock(m_mutex);
        std::erase_if(m_lines, [&](const Line& line) { return line.channel != channel; });
    }
    return take();
}
