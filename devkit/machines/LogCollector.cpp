#include "LogCollector.h"

#include "vta_core_control.h"

LogCollector::LogCollector() : m_before(wxLog::SetActiveTarget(this)) {}

LogCollector::~LogCollector() {
    wxLog::SetActiveTarget(m_before);
}

std::vector<LogLine> LogCollector::Take() {
    std::vector<LogLine> lines;
    lines.swap(m_lines);
    return lines;
}

void LogCollector::DoLogRecord(wxLogLevel level, const wxString &message, const wxLogRecordInfo &info) {
    m_lines.push_back({level, message.utf8_string(), info.component});
}

std::vector<TracedLine> TakeTracedLines() {
    std::vector<TracedLine> lines;
    for (const VtaCore::Control::TraceLine &trace : VtaCore::Control::TakeTraces())
        lines.push_back(
            {trace.component.utf8_string(), trace.function, trace.message.utf8_string(), trace.file, trace.line});
    return lines;
}

std::vector<std::string> TakeTracedMessages(const std::string &component) {
    std::vector<std::string> messages;
    for (const TracedLine &line : TakeTracedLines())
        if (component.empty() || line.component == component)
            messages.push_back(line.message);
    return messages;
}
