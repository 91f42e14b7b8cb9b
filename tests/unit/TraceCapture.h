#pragma once

#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <zel/Trace.h>

/// Collects every traced line as "channel kind text" while it lives, then gives the previous sink its place back.
class TraceCapture {
public:
    TraceCapture()
        : m_previous(zel::setTraceSink([this](std::string_view channel, zel::TraceKind kind, std::string_view text) {
              const std::lock_guard lock(m_mutex);
              m_lines.push_back(std::string(channel) + (kind == zel::TraceKind::log ? " log " : " prn ") +
                                std::string(text));
          }))
    {
    }
    TraceCapture(const TraceCapture&) = delete;
    TraceCapture& operator=(const TraceCapture&) = delete;
    ~TraceCapture() { zel::setTraceSink(std::move(m_previous)); }

    std::vector<std::string> lines() const
    {
        const std::lock_guard lock(m_mutex);
        return m_lines;
    }

private:
    mutable std::mutex m_mutex;
    std::vector<std::string> m_lines;
    zel::TraceSink m_previous;
};
