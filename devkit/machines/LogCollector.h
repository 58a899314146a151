// What the module logs through wxLog, and what it traces.
#pragma once

#include <string>
#include <vector>

#include <wx/log.h>

/// A line of the log, in UTF-8.
struct LogLine {
    wxLogLevel level;
    std::string text;
    std::string component;

    bool operator==(const LogLine &) const = default;
};

/// The active log target while it exists. Lines are collected on the thread that created it, and on others when wxLog
/// flushes them.
class LogCollector : public wxLog {
public:
    LogCollector();
    ~LogCollector() override;
    LogCollector(const LogCollector &) = delete;
    LogCollector &operator=(const LogCollector &) = delete;

    /// What was logged since the last call.
    std::vector<LogLine> Take();

protected:
    void DoLogRecord(wxLogLevel level, const wxString &message, const wxLogRecordInfo &info) override;

private:
    wxLog *m_before;
    std::vector<LogLine> m_lines;
};

/// A trace line, in UTF-8.
struct TracedLine {
    std::string component;
    std::string function;
    std::string message;
    std::string file{};
    int line = 0;
};

/// What was traced since the last call.
std::vector<TracedLine> TakeTracedLines();
/// Only the messages, of one component or, for an empty name, of all; discards the others.
std::vector<std::string> TakeTracedMessages(const std::string &component = "");
