#pragma once

#include <zel/Trace.h>

#include <mutex>
#include <string>
#include <string_view>
#include <vector>

/// Records every line traced while it lives, as "channel kind: text" with one line feed behind each.
class TraceLog {
public:
    TraceLog();
    ~TraceLog();
    TraceLog(const TraceLog&) = delete;
    TraceLog& operator=(const TraceLog&) = delete;

    /// The lines since the last call; without those that report an outage, which come once a minute, whichever test
    /// loses a connection first.
    std::string take();
    /// The lines of one channel since the last call; those of the others are dropped.
    std::string take(std::string_view channel);

private:
    struct Line {
        std::string channel;
        zel::TraceKind kind;
        std::string text;
    };

    std::mutex m_mutex; // lines may come from several threads
    std::vector<Line> m_lines;
    zel::TraceSink m_previous;
};
